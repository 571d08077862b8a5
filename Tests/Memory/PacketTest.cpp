#include "Memory/Packet.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Infra/Infra3/PrintLog.h"
#include "Memory/PacketInternal.h"
#include "Memory/PacketManager.h"
#include "Memory/SharePacketSeam.h"
#include "Support/ChildProcess.h"
#include "Support/FailingHeap.h"

using namespace Tarsel::Memory;
using Tarsel::TestSupport::CFailingHeap;
using Tarsel::TestSupport::ChildResult;
using Tarsel::TestSupport::countOf;
using Tarsel::TestSupport::inChild;
using Tarsel::TestSupport::runInChild;
using testing::HasSubstr;

namespace
{

// Expected layouts below count on this size of the record.
static_assert(sizeof(OldPacketInternal) == 152);

const CPacketManager::Policy ownPolicies[] = {
    CPacketManager::policySystem, CPacketManager::policyPool, CPacketManager::policyPoolSystem};

struct Call
{
    void* first;
    size_t second;
};
std::vector<Call> s_calls;

void record(void* p, size_t size)
{
    s_calls.push_back({p, size});
}

void fill(CPacket& packet, int payload = 0x11, int extra = 0x22)
{
    if (packet.getBuffer() != nullptr) {
        memset(packet.getBuffer(), payload, packet.capacity());
    }
    if (packet.getExtraData() != nullptr) {
        memset(packet.getExtraData(), extra, packet.getExtraSize());
    }
}

/// True when `count` bytes from `area` on are all `value`.
bool holds(const void* area, uint8_t value, size_t count)
{
    const uint8_t* bytes = static_cast<const uint8_t*>(area);
    return std::all_of(bytes, bytes + count, [value](uint8_t byte) { return byte == value; });
}

/// The line of the log in which `text` stands, prefix included; empty when there is none.
std::string lineOf(const std::string& output, const std::string& text)
{
    const size_t at = output.find(text);
    if (at == std::string::npos) {
        return "";
    }
    const size_t begin = output.rfind('\n', at) + 1;
    return output.substr(begin, at + text.size() - begin);
}

} // namespace

TEST(PacketLayout, FollowsThePolicy)
{
    const struct
    {
        CPacketManager::Policy policy;
        size_t alignSize, size, extraSize, capacity;
        ptrdiff_t extraOffset; ///< from the payload; -1: elsewhere
    } cases[] = {
        {CPacketManager::policySystem, 4, 1000, 16, 1000, 1000},
        {CPacketManager::policySystem, 4, 1001, 16, 1004, 1004},
        {CPacketManager::policySystem, 64, 1000, 16, 1024, 1024},
        {CPacketManager::policySystem, 100, 1, 1, 64, 64}, // 100 is an alignment of 64
        {CPacketManager::policySystem, 4, 0, 5, 0, 0},
        {CPacketManager::policyPool, 4, 1000, 16, 1880, 1880}, // 2048 - (16 + 152)
        {CPacketManager::policyPool, 4, 856, 16, 856, 856},    // fits one chunk exactly
        {CPacketManager::policyPool, 4, 857, 16, 1880, 1880},
        {CPacketManager::policyPool, 4, 857, 15, 1880, 1880}, // 15 + 152 are 168
        {CPacketManager::policyPool, 64, 10, 1, 832, 832},    // 1024 - 192
        {CPacketManager::policyPoolSystem, 4, 1000, 16, 1024, -1},
        {CPacketManager::policyPoolSystem, 4, 1025, 16, 2048, -1},
    };
    for (const auto& one : cases) {
        inChild([&one] {
            CPacketManager::PoolParameter param = {65536, 1024, one.alignSize};
            CPacketManager::config(one.policy, nullptr, &param);
            CPacket packet(one.size, one.extraSize);
            ASSERT_TRUE(packet.valid());
            fill(packet);
            EXPECT_EQ(packet.size(), one.size);
            EXPECT_EQ(packet.capacity(), one.capacity) << one.size;
            EXPECT_EQ(packet.getExtraSize(), one.extraSize);
            if (one.extraOffset >= 0) {
                EXPECT_EQ(packet.getExtraData(), packet.getBuffer() + one.extraOffset);
            }
            packet.reset();
            EXPECT_EQ(CPacketManager::instance()->getFreeSize(),
                      one.policy == CPacketManager::policySystem ? 0u : 65536u);
        });
    }
}

TEST(PacketLayout, EverySmallSizeIsWholeInEveryPolicy)
{
    for (const auto policy : ownPolicies) {
        inChild([policy] {
            CPacketManager::config(policy);
            for (size_t size = 0; size < 70; ++size) {
                for (size_t extra : {0u, 1u, 3u, 4u, 255u}) {
                    CPacket packet(size, extra);
                    fill(packet);
                    CPacket part(packet, 0, size, extra);
                    ASSERT_EQ(part.valid(), size > 0);
                    fill(part, 0x33, 0x44);
                    EXPECT_EQ(packet.getExtraData() == nullptr, extra == 0);
                    EXPECT_EQ(packet.size(), size);
                    EXPECT_TRUE(holds(packet.getBuffer(), 0x33, size)) << size << ' ' << extra;
                    EXPECT_TRUE(holds(packet.getBuffer() + size, 0x11, packet.capacity() - size));
                    EXPECT_TRUE(holds(packet.getExtraData(), 0x22, extra)) << size << ' ' << extra;
                    EXPECT_TRUE(holds(part.getExtraData(), 0x44, part.getExtraSize()));
                }
            }
        });
    }
}

TEST(PacketLayout, APayloadOfNothingBesideThePoolHasNoBuffer)
{
    inChild([] {
        CPacketManager::config(CPacketManager::policyPoolSystem);
        CPacket packet(0, 8);
        EXPECT_TRUE(packet.valid());
        EXPECT_EQ(packet.getBuffer(), nullptr);
        EXPECT_EQ(packet.capacity(), 0u);
        EXPECT_NE(packet.getExtraData(), nullptr);
        char byte = 1;
        EXPECT_EQ(packet.putBuffer(&byte, 1), 0u);
    });
}

TEST(PacketLayout, ExtraSizesReadModulo256)
{
    inChild([] {
        const struct
        {
            size_t asked, reported;
        } cases[] = {{0, 0}, {255, 255}, {256, 0}, {257, 1}, {1000, 232}};
        for (const auto& one : cases) {
            CPacket packet(10, one.asked);
            EXPECT_EQ(packet.getExtraSize(), one.reported);
            EXPECT_EQ(packet.getExtraData() == nullptr, one.reported == 0);
            if (one.reported != 0) {
                memset(packet.getExtraData(), 0x33, one.asked); // the whole area is there
            }
        }
    });
}

TEST(Packet, AppendsWhatFits)
{
    for (const auto policy : ownPolicies) {
        inChild([policy] {
            CPacketManager::config(policy);
            CPacket packet(2000);
            ASSERT_TRUE(packet.resize(0));
            std::vector<uint8_t> bytes(5000);
            for (size_t i = 0; i < bytes.size(); ++i) {
                bytes[i] = static_cast<uint8_t>(i * 31);
            }
            const size_t capacity = packet.capacity();
            EXPECT_EQ(packet.putBuffer(nullptr, 10), 0u);
            EXPECT_EQ(packet.putBuffer(bytes.data(), 700), 700u);
            EXPECT_EQ(packet.putBuffer(bytes.data() + 700, 4300), capacity - 700);
            EXPECT_EQ(packet.putBuffer(bytes.data(), 1), 0u);
            EXPECT_EQ(packet.size(), capacity);
            EXPECT_EQ(memcmp(packet.getBuffer(), bytes.data(), capacity), 0);
            EXPECT_FALSE(packet.resize(capacity + 1));
            EXPECT_EQ(packet.size(), capacity);
            EXPECT_TRUE(packet.resize(3));
            EXPECT_EQ(packet.size(), 3u);
        });
    }
}

TEST(Packet, AnInvalidOneDoesNothing)
{
    CPacket packet;
    CPacket copy(packet);
    copy = packet;
    copy.reset();
    char byte = 0;
    EXPECT_FALSE(copy.valid());
    EXPECT_EQ(packet.putBuffer(&byte, 1), 0u);
    EXPECT_EQ(packet.getBuffer(), nullptr);
    EXPECT_EQ(packet.size() + packet.capacity() + packet.getExtraSize(), 0u);
    EXPECT_FALSE(packet.resize(0));
    EXPECT_EQ(packet.getExtraData(), nullptr);
}

TEST(Packet, FailuresAreLoggedAndGiveAnInvalidPacket)
{
    const CPacketManager::Policy system = CPacketManager::policySystem;
    const CPacketManager::Policy pool = CPacketManager::policyPool;
    const CPacketManager::Policy poolSystem = CPacketManager::policyPoolSystem;
    const struct
    {
        CPacketManager::Policy policy;
        size_t size, extraSize;
        const char* text;
    } cases[] = {
        {system, SIZE_MAX, 0, "NO enough, need size:18446744073709551615 ext:0\n"},
        {system, 0xFFFFFFF0, 9, "NO enough, need size:4294967280 ext:9\n"},
        {system, 1, SIZE_MAX, "NO enough, need size:1 ext:18446744073709551615\n"},
        {system, 77, 1, "NO enough, need size:77 ext:1\n"},
        {pool, 8100, 0, "NO enough, need size:8100 ext:0\n"},
        {pool, SIZE_MAX, 3, "NO enough, need size:18446744073709551615 ext:3\n"},
        {pool, 1, SIZE_MAX, "NO enough, need size:1 ext:18446744073709551615\n"},
        {poolSystem, 8193, 2, "2 NO enough, need size:8193 ext:2\n"},
        {poolSystem, 0x100000000, 2, "2 NO enough, need size:4294967296 ext:2\n"},
        {poolSystem, SIZE_MAX, 2, "2 NO enough, need size:18446744073709551615 ext:2\n"},
    };
    for (const auto& one : cases) {
        const ChildResult child = runInChild([&one] {
            CPacketManager::PoolParameter param = {8192, 1024, 4};
            CPacketManager::MemoryOperator memop = {&::malloc, &::free, &::memcpy};
            if (one.size == 77) {
                memop.malloc = [](size_t) -> void* { return nullptr; };
            }
            CPacketManager::config(one.policy, &memop, &param);
            CPacket packet(one.size, one.extraSize);
            EXPECT_FALSE(packet.valid());
        });
        EXPECT_TRUE(child.succeeded()) << child.report();
        const std::string text = std::string("PacketInternal::create(): ") + one.text;
        EXPECT_THAT(lineOf(child.output, text), HasSubstr(" warn Infra")) << child.output;
        // What a pool has not, the pool itself reports first.
        const std::string dry = "CPacket No Free Space, totalSize:8192, freeSize:8192 \n";
        const bool hasPool = one.policy == pool || one.policy == poolSystem;
        EXPECT_EQ(countOf(child.output, dry), hasPool ? 1 : 0) << child.output;
        EXPECT_TRUE(!hasPool || child.output.find(dry) < child.output.find(text));
        EXPECT_TRUE(!hasPool || lineOf(child.output, dry).find(" warn Infra") != std::string::npos);
    }
    const ChildResult child = runInChild([] {
        char byte = 0;
        EXPECT_FALSE(CPacket(&byte, SIZE_MAX, &record).valid());
        EXPECT_TRUE(s_calls.empty());
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_EQ(countOf(child.output, "PacketInternal::create(): NO enough"), 1);
}

TEST(Packet, WithoutHeapForTheRecordNothingIsKept)
{
    const struct
    {
        size_t failing; ///< bytes the system has not; 0: it has all
        void (*body)();
        const char* text;
    } cases[] = {
        // 1000 of extra data and the record are 1152.
        {1152, [] { EXPECT_FALSE(CPacket(3000, 1000).valid()); }, "size:1152\n"},
        {0, [] { EXPECT_FALSE(CPacket(3000, 0x100000000).valid()); }, "size:4294967448\n"},
        // A part keeps a handle of 16 bytes beside them.
        {1168,
         [] {
             const CPacket parent(3000, 0);
             EXPECT_FALSE(CPacket(parent, 1, 2, 1000).valid());
         },
         "size:1152\n"},
        {0,
         [] {
             const CPacket parent(3000, 0);
             EXPECT_FALSE(CPacket(parent, 1, 2, 0x100000000).valid());
         },
         "size:4294967448\n"},
        {0,
         [] {
             const CPacket parent(3000, 0);
             EXPECT_FALSE(CPacket(parent, 1, 2, SIZE_MAX).valid());
         },
         "size:18446744073709551615\n"},
        {152,
         [] {
             char byte = 0;
             EXPECT_FALSE(CPacket(&byte, 1, &record).valid());
             EXPECT_FALSE(CPacket(1u, &record, &byte, 0).valid());
             EXPECT_TRUE(s_calls.empty());
         },
         "size:152\n"},
    };
    for (const auto& one : cases) {
        const ChildResult child = runInChild([&one] {
            CPacketManager::config(CPacketManager::policyPoolSystem);
            CPacketManager::instance();
            {
                const CFailingHeap failing(one.failing == 0 ? SIZE_MAX : one.failing);
                one.body();
            }
            EXPECT_EQ(CPacketManager::instance()->getFreeSize(), 2097152u);
        });
        EXPECT_TRUE(child.succeeded()) << child.report();
        const std::string text =
            std::string("PacketInternal::create(): malloc failured! ") + one.text;
        EXPECT_THAT(lineOf(child.output, text), HasSubstr(" error Infra")) << child.output;
        EXPECT_EQ(countOf(child.output, " warn "), 0) << child.output;
    }
}

TEST(Packet, InOrdinaryMemoryThereIsNoneInTheSharePolicy)
{
    const ChildResult child = runInChild([] {
        CPacketManager::config(CPacketManager::policySharePool);
        Tarsel::Infra::setPrintLogLevel(6);
        EXPECT_EQ(OldPacketInternal::create(10, 0), nullptr);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_EQ(countOf(child.output, "]tracepoint:\n"), 1) << child.output;
}

TEST(Packet, ARecordOfNoKindEndsTheProcess)
{
    const ChildResult child = runInChild([] {
        CPacket packet(10);
        memset(reinterpret_cast<char*>(PacketInternal::of(packet)) + 41, 3, 1); // its kind
        packet.reset();
    });
    EXPECT_EQ(child.signal, SIGABRT) << child.report();
    EXPECT_THAT(child.report(), HasSubstr("PacketInternal::destroy(): unreachable!\n"));
}

TEST(Packet, PartsStayInsideTheirParentAndKeepIt)
{
    const ChildResult child = runInChild([] {
        CPacketManager::config(CPacketManager::policyPool);
        CPacket parent(100);
        fill(parent);
        const struct
        {
            size_t offset, size;
            bool valid;
        } cases[] = {{0, 100, true}, {99, 1, true},   {40, 0, true},        {100, 0, false},
                     {99, 2, false}, {0, 101, false}, {1, SIZE_MAX, false}, {SIZE_MAX, 1, false}};
        for (const auto& one : cases) {
            EXPECT_EQ(CPacket(parent, one.offset, one.size, 0).valid(), one.valid) << one.offset;
        }
        EXPECT_FALSE(CPacket(CPacket(), 0, 0, 0).valid());

        CPacket part(parent, 20, 30, 8);
        EXPECT_EQ(part.getBuffer(), parent.getBuffer() + 20);
        EXPECT_EQ(part.capacity(), 30u);
        EXPECT_EQ(part.getExtraSize(), 8u);
        EXPECT_NE(part.getExtraData(), nullptr);
        CPacket deeper(part, 5, 5, 0);
        parent.reset();
        part.reset();
        EXPECT_LT(CPacketManager::instance()->getFreeSize(), 2097152u);
        EXPECT_EQ(deeper.getBuffer()[4], 0x11);
        deeper.reset();
        EXPECT_EQ(CPacketManager::instance()->getFreeSize(), 2097152u);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_THAT(child.output, HasSubstr("PacketInternal::create() offset or size is invalid!! "
                                        "huge_size:100, offset:99, size:2\n"));
    EXPECT_EQ(countOf(child.output, "offset or size is invalid"), 6);
}

/// Runs `body` in a thread with the least stack that this build can have.
void onSmallStack(void (*body)())
{
    pthread_attr_t attribute;
    pthread_attr_init(&attribute);
    pthread_attr_setstacksize(&attribute, 64 * 1024);
    pthread_t thread;
    const auto run = [](void* argument) -> void* {
        reinterpret_cast<void (*)()>(argument)();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attribute, run, reinterpret_cast<void*>(body)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attribute);
}

TEST(Packet, LongChainsOfPartsEndAtOnceOnASmallStack)
{
    inChild([] {
        CPacketManager::config(CPacketManager::policyPool);
        onSmallStack([] {
            char byte = 0;
            s_calls.clear();
            CPacket root(&byte, 1, &record);
            CPacket last(root);
            CPacket fork;
            for (int i = 0; i < 100000; ++i) {
                last = CPacket(last, 0, 1, 0);
                fork = i == 50000 ? last : fork;
            }
            for (int i = 0; i < 50000; ++i) {
                fork = CPacket(fork, 0, 1, 0);
            }
            root.reset();
            last.reset(); // down to where the other chain still holds on
            EXPECT_TRUE(s_calls.empty());
            fork.reset();
            EXPECT_EQ(s_calls.size(), 1u);
        });
    });
}

TEST(Packet, AWrappedBufferGoesBackOnceWithItsLastSize)
{
    inChild([] {
        char buffer[64];
        {
            CPacket packet(buffer, sizeof(buffer), 4, &record);
            CPacket copy(packet);
            EXPECT_EQ(packet.capacity(), 64u);
            EXPECT_EQ(packet.getExtraSize(), 4u);
            EXPECT_TRUE(packet.resize(10));
            EXPECT_EQ(copy.putBuffer(buffer, 0), 0u);
            packet.reset();
            EXPECT_TRUE(s_calls.empty());
        }
        ASSERT_EQ(s_calls.size(), 1u);
        EXPECT_EQ(s_calls[0].first, buffer);
        EXPECT_EQ(s_calls[0].second, 10u);
        CPacket nobodyAsks(buffer, 1, FreeMemFunc());

        CPacket nothing(nullptr, 100, FreeMemFunc());
        EXPECT_TRUE(nothing.resize(0));
        EXPECT_EQ(nothing.putBuffer(buffer, 1), 0u);
        EXPECT_EQ(nothing.size(), 0u);
    });
}

TEST(Packet, ABufferAttachedLaterIsReleasedWithTheCapacity)
{
    inChild([] {
        int argument = 0;
        char buffer[300];
        CPacket never(100u, &record, &argument, 0);
        EXPECT_EQ(never.getBuffer(), nullptr);
        EXPECT_EQ(never.size(), 100u);
        never.reset();
        EXPECT_TRUE(s_calls.empty());

        CPacket packet(200u, &record, &argument, 3);
        EXPECT_FALSE(CPacket(packet, 10, 20, 0).valid()) << "there is nothing to be a part of";
        char first[10];
        EXPECT_EQ(packet.putBuffer(first, 10), 10u);
        EXPECT_EQ(packet.putBuffer(buffer, 250), 250u);
        EXPECT_EQ(packet.size(), 250u) << "as it was said, whatever the capacity";
        EXPECT_EQ(packet.putBuffer(buffer, 150), 150u);
        EXPECT_EQ(CPacket(packet, 10, 20, 0).getBuffer(), packet.getBuffer() + 10);
        EXPECT_TRUE(s_calls.empty()) << "what was attached before is forgotten, not released";
        EXPECT_EQ(reinterpret_cast<char*>(packet.getBuffer()), buffer);
        EXPECT_EQ(packet.size(), 150u);
        EXPECT_NE(packet.getExtraData(), nullptr);
        packet.reset();
        ASSERT_EQ(s_calls.size(), 1u);
        EXPECT_EQ(s_calls[0].first, &argument);
        EXPECT_EQ(s_calls[0].second, 200u);
    });
}

TEST(Packet, AFreeFunctionMayDropAndMakePackets)
{
    inChild([] {
        CPacketManager::config(CPacketManager::policyPool);
        static CPacket s_other;
        static CPacket s_holder;
        s_other = CPacket(5000);
        char buffer[8];
        s_holder = CPacket(buffer, 8, [](void*, size_t) {
            s_other.reset();
            EXPECT_FALSE(s_holder.valid());
            CPacket made(100);
            EXPECT_TRUE(made.valid());
        });
        s_holder.reset();
        EXPECT_EQ(CPacketManager::instance()->getFreeSize(), 2097152u);
    });
}

TEST(Packet, HandlesShareMoveAndLetGo)
{
    inChild([] {
        static int s_ended = 0;
        const auto ended = [](void*, size_t) { ++s_ended; };
        char buffer[8];
        CPacket one(buffer, 8, ended);
        CPacket same(one);
        CPacket& itself = one;
        one = itself;
        one = same;
        CPacket moved(std::move(same));
        EXPECT_FALSE(same.valid()); // NOLINT(bugprone-use-after-move): the promise under test
        itself = std::move(one);
        EXPECT_TRUE(one.valid());
        moved = std::move(one);
        EXPECT_EQ(s_ended, 0);

        static CPacket s_other;
        CPacket& other = s_other;
        other = CPacket(buffer, 4, [](void*, size_t) {
            ++s_ended;
            EXPECT_EQ(s_other.size(), 8u) << "the handle shows the new one already";
        });
        other = moved;
        EXPECT_EQ(s_ended, 1);
        moved = CPacket();
        EXPECT_EQ(s_ended, 1);
        other.reset();
        EXPECT_EQ(s_ended, 2);
    });
}

/// A place where one thread leaves a packet and another one takes it.
class CMailbox
{
public:
    CPacket exchange(CPacket packet)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        std::swap(m_packet, packet);
        return packet;
    }

private:
    std::mutex m_mutex;
    CPacket m_packet;
};

TEST(Packet, ThreadsPassHandlesAndPartsRound)
{
    for (const auto policy : ownPolicies) {
        inChild([policy] {
            CPacketManager::config(policy);
            static std::atomic<int> s_taken{0};
            static std::atomic<int> s_ended{0};
            static char s_buffer[64];
            memset(s_buffer, 0x33, sizeof(s_buffer));
            std::vector<CMailbox> boxes(5);
            std::vector<std::thread> threads;
            for (size_t id = 0; id < 4; ++id) {
                threads.emplace_back([&boxes, id] {
                    for (size_t i = 0; i < 5000; ++i) {
                        CPacket packet;
                        if (i % 7 == 0) {
                            packet = CPacket(s_buffer, 64, 4, [](void*, size_t) { ++s_ended; });
                            ++s_taken;
                        } else if (i % 5 == 0) {
                            packet = CPacket(64 + i % 3000, 4);
                            memset(packet.getBuffer(), 0x33, packet.size());
                        }
                        CPacket got = boxes[(i + id) % boxes.size()].exchange(std::move(packet));
                        if (got.size() > 1) {
                            ASSERT_TRUE(holds(got.getBuffer(), 0x33, got.size()));
                            const CPacket part(got, 1, got.size() - 1, i % 3);
                            got.reset();
                            ASSERT_TRUE(part.valid());
                            boxes[(i * 3 + id) % boxes.size()].exchange(part);
                        }
                    }
                });
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
            boxes.clear();
            EXPECT_EQ(s_ended, s_taken);
            EXPECT_EQ(CPacketManager::instance()->getFreeSize(),
                      policy == CPacketManager::policySystem ? 0u : 2097152u);
        });
    }
}

TEST(SharePacketSeam, TakesOverCreationAndFiguresInTheSharePolicyOnly)
{
    static const SharePacketSeam seam = {
        [](size_t size, size_t extra) -> PacketInternal* {
            printf("shared:%zu,%zu\n", size, extra);
            return nullptr;
        },
        [](void*, size_t size) -> PacketInternal* {
            printf("shared block:%zu\n", size);
            return nullptr;
        },
        [](const FreeMemFunc& func) { return func == FreeMemFunc(&record); },
        []() -> size_t { return 70000; },
        []() -> size_t { return 60000; },
        [] { printf("shared pool\n"); },
    };
    const auto scenario = [](CPacketManager::Policy policy) {
        return runInChild([policy] {
            const bool isShared = policy == CPacketManager::policySharePool;
            CPacketManager::config(policy);
            setSharePacketSeam(&seam);
            char buffer[8];
            EXPECT_EQ(CPacket(10, 1).valid(), !isShared);
            EXPECT_EQ(CPacket(20u, &record, nullptr, 2).valid(), !isShared);
            EXPECT_EQ(CPacket(buffer, 3, &record).valid(), !isShared);
            EXPECT_EQ(CPacket(buffer, 4, 9, &record).valid(), !isShared);
            const CPacket foreign(buffer, 5, [](void*, size_t) {});
            EXPECT_TRUE(foreign.valid());
            EXPECT_TRUE(CPacket(foreign, 1, 2, 0).valid());
            EXPECT_EQ(CPacketManager::instance()->getBufferSize(), isShared ? 70000u : 0u);
            EXPECT_EQ(CPacketManager::instance()->getFreeSize(), isShared ? 60000u : 0u);
            EXPECT_EQ(CPacketManager::instance()->getPoolBuffer(), nullptr);
            CPacketManager::instance()->dumpNodes();
        });
    };
    const ChildResult shared = scenario(CPacketManager::policySharePool);
    EXPECT_TRUE(shared.succeeded()) << shared.report();
    EXPECT_THAT(shared.output,
                HasSubstr("shared:10,1\nshared:20,2\nshared block:3\nshared block:4\n"
                          "shared pool\n"));
    const ChildResult system = scenario(CPacketManager::policySystem);
    EXPECT_TRUE(system.succeeded()) << system.report();
    EXPECT_EQ(countOf(system.output, "shared"), 0);
}

#include "Memory/PacketManager.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <list>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Infra/Infra3/PrintLog.h"
#include "Infra3/CpuFeatures.h"
#include "Memory/CopyBytes.h"
#include "Memory/Packet.h"
#include "Memory/PacketManagerInternal.h"
#include "Support/ChildProcess.h"
#include "Support/FailingHeap.h"

using Tarsel::Memory::CPacket;
using Tarsel::Memory::CPacketManager;
using Tarsel::Memory::PacketManagerInternal;
using Tarsel::TestSupport::CFailingHeap;
using Tarsel::TestSupport::ChildResult;
using Tarsel::TestSupport::countOf;
using Tarsel::TestSupport::inChild;
using Tarsel::TestSupport::runInChild;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace
{

void usePool(size_t totalSize, size_t chunkSize,
             CPacketManager::Policy policy = CPacketManager::policyPool)
{
    CPacketManager::PoolParameter param = {totalSize, chunkSize, 4};
    CPacketManager::config(policy, nullptr, &param);
}

PacketManagerInternal& manager()
{
    return *PacketManagerInternal::instance();
}

uint8_t* take(size_t size, size_t* granted = nullptr)
{
    void* block = manager().malloc(&size);
    if (granted != nullptr) {
        *granted = size;
    }
    return static_cast<uint8_t*>(block);
}

/// The pool as a naive allocator would run it: lists of indices, newest first.
class CPoolModel
{
public:
    CPoolModel(uint32_t chunks, uint32_t chunkSize) : m_chunkSize(chunkSize), m_free(32)
    {
        uint32_t start = 0;
        for (int k = 31; k >= 0; --k) {
            for (; chunks - start >= (1u << k); start += 1u << k) {
                m_free[k].push_back(start);
                m_top = m_top < 0 ? k : m_top;
            }
        }
    }

    /// Index and order of the block handed out; order -1 when there is none.
    std::pair<uint32_t, int> take(size_t size)
    {
        int wanted = 0;
        while ((size_t{m_chunkSize} << wanted) < size) {
            ++wanted;
        }
        int k = wanted;
        while (k < 32 && m_free[k].empty()) {
            ++k;
        }
        if (k == 32) {
            return {0, -1};
        }
        uint32_t idx = m_free[k].front();
        m_free[k].pop_front();
        while (k > wanted) {
            --k;
            m_free[k].push_front(idx);
            idx += 1u << k;
        }
        return {idx, wanted};
    }

    void give(uint32_t idx, int order)
    {
        for (; order < m_top; ++order) {
            std::list<uint32_t>& list = m_free[order];
            const uint32_t buddy = idx ^ (1u << order);
            const auto at = std::find(list.begin(), list.end(), buddy);
            if (at == list.end()) {
                break;
            }
            list.erase(at);
            idx = std::min(idx, buddy);
        }
        m_free[order].push_front(idx);
    }

    size_t freeSize() const
    {
        size_t chunks = 0;
        for (int k = 0; k < 32; ++k) {
            chunks += m_free[k].size() << k;
        }
        return chunks * m_chunkSize;
    }

private:
    uint32_t m_chunkSize;
    int m_top = -1;
    std::vector<std::list<uint32_t>> m_free;
};

std::atomic<int> s_mallocs{0};
std::atomic<int> s_frees{0};
std::atomic<int> s_copies{0};

CPacketManager::MemoryOperator countingOperator()
{
    return {[](size_t size) -> void* {
                ++s_mallocs;
                return ::malloc(size);
            },
            [](void* p) {
                s_frees += p != nullptr;
                ::free(p);
            },
            [](void* to, const void* from, size_t size) -> void* {
                ++s_copies;
                return ::memcpy(to, from, size);
            }};
}

} // namespace

TEST(PacketManagerConfig, StartsWithTheSystemPolicyAndFreezes)
{
    const ChildResult child = runInChild([] {
        CPacketManager* manager = CPacketManager::instance();
        EXPECT_EQ(manager->getBufferSize(), 0u);
        EXPECT_EQ(manager->getFreeSize(), 0u);
        EXPECT_EQ(manager->getPoolBuffer(), nullptr);
        void* block = manager->malloc(100);
        EXPECT_EQ(manager->memcpy(block, "text", 5), block);
        EXPECT_STREQ(static_cast<char*>(block), "text");
        manager->free(block);
        manager->dumpNodes();

        CPacketManager::config(CPacketManager::policyPool);
        EXPECT_EQ(manager->getBufferSize(), 0u);
        EXPECT_EQ(PacketManagerInternal::instance()->getPolicy(), CPacketManager::policySystem);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_EQ(countOf(child.output, "CPacketManager: System Policy\n"), 1);
    EXPECT_THAT(child.output, ContainsRegex(" info Infra[^\n]*]CPacketManager: System Policy\n"));
    EXPECT_THAT(child.output, ContainsRegex(" info Infra[^\n]*]CPacketManager dump: SYS Policy\n"));
    EXPECT_THAT(child.output,
                ContainsRegex(" warn Infra[^\n]*]PacketManagerInternal::config\\(\\) failured: "
                              "Packet Manager has been configured!\n"));
}

TEST(PacketManagerConfig, RefusalsWarnAndChangeNothing)
{
    const CPacketManager::Policy other = CPacketManager::policyPoolSystem;
    const size_t halfOfAll = size_t{1} << 63;
    const size_t terabyte = size_t{1} << 40;
    const struct
    {
        CPacketManager::Policy policy;
        CPacketManager::PoolParameter param;
        const char* warning;
    } cases[] = {
        {static_cast<CPacketManager::Policy>(5), {4 << 20, 1024, 64}, "unknown policy:5"},
        {static_cast<CPacketManager::Policy>(-1), {4 << 20, 1024, 64}, "unknown policy:-1"},
        {other, {3072 * 4, 3072, 64}, "chunkSize:3072 is not a power of two"},
        {other, {4 << 20, 1025, 64}, "chunkSize:1025 is not a power of two"},
        {other, {size_t{1} << 42, 1024, 64}, "totalSize:4398046511104 has too many chunks"},
        {other, {2147483647 * size_t{1024}, 1024, 64}, "totalSize:2199023254528 has too many"},
        // With the chunk to spare these come to 0.
        {other, {halfOfAll, halfOfAll, 64}, "totalSize:9223372036854775808 is too large"},
        {other, {0 - terabyte, terabyte, 64}, "totalSize:18446742974197923840 is too large"},
        {other, {halfOfAll - terabyte, terabyte, 64}, "totalSize:9223370937343148032 is too large"},
    };
    for (const auto& one : cases) {
        const ChildResult child = runInChild([&one] {
            usePool(8192, 2048);
            CPacketManager::MemoryOperator memop = countingOperator();
            CPacketManager::PoolParameter param = one.param;
            CPacketManager::config(one.policy, &memop, &param);

            EXPECT_EQ(CPacketManager::instance()->getBufferSize(), 8192u);
            size_t granted = 0;
            EXPECT_NE(take(1, &granted), nullptr);
            EXPECT_EQ(granted, 2048u);
            EXPECT_EQ(s_mallocs, 0);
            EXPECT_EQ(manager().getPolicy(), CPacketManager::policyPool);
            EXPECT_EQ(manager().getAlignedSize(1), 4u);
        });
        EXPECT_TRUE(child.succeeded()) << child.report();
        EXPECT_THAT(child.output,
                    ContainsRegex(std::string(" warn Infra[^\n]*failured: ") + one.warning));
    }
}

TEST(PacketManagerConfig, BrokenSettingsEndTheProcess)
{
    const char* const chunkText = "assertion (param->chunkSize >= 1024 && param->chunkSize > 0 && "
                                  "param->totalSize % param->chunkSize == 0) failed";
    const char* const memopText =
        "assertion (!memop->malloc.empty() && !memop->free.empty() && !memop->memcpy.empty())";
    const struct
    {
        CPacketManager::PoolParameter param;
        bool emptyCopy;
        const char* text;
    } cases[] = {
        {{8192, 512, 4}, false, chunkText},
        {{8192, 0, 4}, false, chunkText},
        {{8193, 1024, 4}, false, chunkText},
        {{8192, 1024, 3}, false, "assertion (param->alignSize >= 4) failed"},
        {{8192, 1024, 4}, true, memopText},
    };
    for (const auto& one : cases) {
        const ChildResult child = runInChild([&one] {
            CPacketManager::PoolParameter param = one.param;
            CPacketManager::MemoryOperator memop = countingOperator();
            memop.memcpy = CPacketManager::CopyProc();
            CPacketManager::config(CPacketManager::policyPool, one.emptyCopy ? &memop : nullptr,
                                   &param);
        });
        EXPECT_EQ(child.signal, SIGABRT) << child.report();
        EXPECT_THAT(child.errorOutput, HasSubstr(one.text));
    }
}

TEST(PacketManagerConfig, APoolThatCannotBeHadEndsTheProcess)
{
    const ChildResult child = runInChild([] {
        CPacketManager::MemoryOperator memop = countingOperator();
        memop.malloc = [](size_t) -> void* { return nullptr; };
        CPacketManager::config(CPacketManager::policyPool, &memop);
        CPacketManager::instance();
    });
    EXPECT_EQ(child.signal, SIGABRT) << child.report();
    EXPECT_THAT(child.output,
                ContainsRegex(" fatal Infra[^\n]*]sm_param.chunkSize malloc failed!\n"));
    EXPECT_THAT(child.errorOutput, HasSubstr("Assertion `0' failed"));
}

TEST(PacketManagerConfig, APoolWithoutBookkeepingEndsTheProcess)
{
    const struct
    {
        size_t failing;
        const char* text;
    } cases[] = {{2080, "]ChunkNode malloc failed!\n"},  // 64 chunks and one to spare
                 {224, "]BufferList malloc failed!\n"}}; // 7 orders
    for (const auto& one : cases) {
        const ChildResult child = runInChild([&one] {
            usePool(65536, 1024);
            const CFailingHeap failing(one.failing);
            CPacketManager::instance();
        });
        EXPECT_EQ(child.signal, SIGABRT) << child.report();
        EXPECT_THAT(child.output, ContainsRegex(std::string(" fatal Infra[^\n]*") + one.text));
        EXPECT_THAT(child.errorOutput, HasSubstr("Assertion `0' failed"));
    }
}

// What the application puts in, primitives and printers, may come back to the manager: on the same
// thread, or while it waits for another one. So no lock is held while one of them runs.

TEST(PacketManagerReentrance, APrimitiveMayLogToAPrinterThatMakesPackets)
{
    const ChildResult child = runInChild([] {
        static int s_depth = 0;
        static PacketManagerInternal* s_seen = nullptr;
        Tarsel::Infra::setLogPrinter([](const char*) {
            if (++s_depth == 1) {
                EXPECT_TRUE(CPacket(5000).valid());
                s_seen = PacketManagerInternal::instance();
            }
            --s_depth;
        });
        CPacketManager::MemoryOperator memop = countingOperator();
        memop.malloc = [](size_t size) -> void* {
            ++s_mallocs;
            Tarsel::Infra::logInfo("malloc:%zu\n", size);
            return ::malloc(size);
        };
        CPacketManager::config(CPacketManager::policyPool, &memop);
        const CPacket packet(5000);
        EXPECT_TRUE(packet.valid());
        EXPECT_EQ(PacketManagerInternal::instance(), s_seen);
        EXPECT_EQ(s_mallocs - s_frees, 1) << "one pool is left";
        EXPECT_EQ(manager().getFreeSize(), 2097152u - 8192);
        EXPECT_TRUE(manager().isSound());
        Tarsel::Infra::setLogPrinter(Tarsel::Infra::LogPrinterProc());
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(PacketManagerReentrance, APrimitiveMayWaitForAnotherThread)
{
    inChild([] {
        static std::atomic<bool> s_waited{false};
        static const auto waitOnce = [] {
            if (!s_waited.exchange(true)) {
                std::thread([] {
                    EXPECT_TRUE(CPacket(100).valid());
                    EXPECT_NE(CPacketManager::instance()->getPoolBuffer(), nullptr);
                }).join();
            }
        };
        static CPacketManager::MemoryOperator s_counting = countingOperator();
        CPacketManager::MemoryOperator memop = s_counting;
        memop.malloc = [](size_t size) {
            waitOnce();
            return s_counting.malloc(size);
        };
        memop.free = [](void* p) {
            waitOnce();
            s_counting.free(p);
        };
        atexit([] {
            if (!s_waited || s_mallocs - s_frees > 1) {
                _exit(3);
            }
        });
        CPacketManager::config(CPacketManager::policyPool, &memop);
        EXPECT_NE(CPacketManager::instance()->getPoolBuffer(), nullptr);
        EXPECT_TRUE(s_waited);
        EXPECT_EQ(s_mallocs - s_frees, 1);
        s_waited = false; // once more when the pool goes back at exit
    });
}

TEST(PacketManagerReentrance, MemoryForOnePoolIsEnoughForRacingThreads)
{
    inChild([] {
        static std::atomic<bool> s_taken{false};
        static std::atomic<bool> s_refused{false};
        CPacketManager::MemoryOperator memop = countingOperator();
        memop.malloc = [](size_t size) -> void* {
            if (s_taken.exchange(true)) {
                s_refused = true;
                return nullptr;
            }
            void* const block = ::malloc(size);
            while (!s_refused) {
                std::this_thread::yield();
            }
            return block;
        };
        CPacketManager::config(CPacketManager::policyPool, &memop);
        const auto makePacket = [] { EXPECT_TRUE(CPacket(100).valid()); };
        std::thread one(makePacket);
        std::thread two(makePacket);
        one.join();
        two.join();
        EXPECT_TRUE(manager().isSound());
    });
}

TEST(PacketManagerReentrance, APrinterOfTheFatalLineMayWaitForAnotherThread)
{
    const ChildResult child = runInChild([] {
        Tarsel::Infra::setLogPrinter([](const char* text) {
            if (strstr(text, "sm_param.chunkSize malloc failed!\n") != nullptr) {
                std::thread([] { CPacketManager::instance(); }).join();
                printf("printed\n");
                fflush(stdout);
            }
        });
        CPacketManager::MemoryOperator memop = countingOperator();
        memop.malloc = [](size_t) -> void* { return nullptr; };
        CPacketManager::config(CPacketManager::policyPool, &memop);
        CPacketManager::instance();
    });
    EXPECT_EQ(child.signal, SIGABRT) << child.report();
    EXPECT_THAT(child.output, HasSubstr("printed\n"));
}

TEST(PacketPool, SplitsFromAboveAndMergesBackAtOnce)
{
    const ChildResult child = runInChild([] {
        CPacketManager::config(CPacketManager::policyPool);
        uint8_t* first = take(2097152);
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % 1024, 0u);
        EXPECT_LT(first - CPacketManager::instance()->getPoolBuffer(), 1024);
        EXPECT_EQ(take(1), nullptr);
        manager().free(first);

        size_t granted = 0;
        uint8_t* last = take(1, &granted);
        EXPECT_EQ(last, first + 2047 * 1024);
        EXPECT_EQ(granted, 1024u);
        EXPECT_EQ(manager().getFreeSize(), 2096128u);
        manager().dumpNodes();

        uint8_t* two = take(1025, &granted);
        EXPECT_EQ(two, first + 2044 * 1024);
        EXPECT_EQ(granted, 2048u);
        manager().free(nullptr);
        manager().free(two);
        manager().free(last);
        EXPECT_EQ(manager().getFreeSize(), 2097152u);
        manager().dumpNodes();

        EXPECT_EQ(take(0), nullptr);
        EXPECT_EQ(take(2097153), nullptr);
        EXPECT_EQ(take(SIZE_MAX), nullptr);
        EXPECT_TRUE(manager().isSound());
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    // 12 lists and 2048 chunks, 2060 records of 32 bytes.
    EXPECT_THAT(child.output,
                ContainsRegex(" info Infra[^\n]*]CPacketManager: malloc total:2097152 pagesize:1024"
                              "blockCount:2048 ManagermentSize:65920\n"));
    EXPECT_THAT(child.output, ContainsRegex(" info Infra[^\n]*]AddrRange:0x"));
    EXPECT_EQ(countOf(child.output, "CPacketManager: dump FreeList\n"), 2);
    EXPECT_EQ(countOf(child.output, "BufferList id:"), 24);
    EXPECT_THAT(child.output, HasSubstr("BufferList id:11, order:12, head:0x"));
    // One free block on each of the orders 0 to 10, then one of order 11.
    EXPECT_EQ(countOf(child.output, "bufflist:"), 12);
    EXPECT_THAT(child.output, HasSubstr("bufflist:0, id:0, realIdx:2046, self:0x"));
    EXPECT_THAT(child.output, HasSubstr("bufflist:11, id:0, realIdx:0, self:0x"));
    EXPECT_EQ(
        countOf(child.output, "CPacket No Free Space, totalSize:2097152, freeSize:2097152 \n"), 3);
    EXPECT_EQ(countOf(child.output, "CPacket No Free Space, totalSize:2097152, freeSize:0 \n"), 1);
}

TEST(PacketPool, EveryStepIsThatOfTheNaiveAllocator)
{
    for (uint32_t chunks : {1u, 2u, 3u, 64u, 100u, 3072u, 4095u}) {
        inChild([chunks] {
            usePool(size_t{chunks} * 2048, 2048);
            CPoolModel model(chunks, 2048);
            std::mt19937 random(chunks);
            std::vector<std::pair<uint32_t, int>> held;
            const uint8_t* base = reinterpret_cast<uint8_t*>(
                (reinterpret_cast<uintptr_t>(manager().getPoolBuffer()) + 2047) / 2048 * 2048);
            Tarsel::Infra::setPrintLogLevel(2);
            for (int step = 0; step < 6000; ++step) {
                // Phases of filling and of emptying.
                if (held.empty() || random() % 100 < (step / 500 % 2 == 0 ? 65u : 35u)) {
                    const size_t size = 1 + (random() % (2048u << (random() % 8)));
                    const auto [idx, order] = model.take(size);
                    size_t granted = 0;
                    const uint8_t* block = take(size, &granted);
                    if (order < 0) {
                        ASSERT_EQ(block, nullptr);
                        continue;
                    }
                    ASSERT_EQ(block, base + size_t{idx} * 2048);
                    ASSERT_EQ(granted, size_t{2048} << order);
                    held.emplace_back(idx, order);
                } else {
                    // The one taken last is the commonest to go first.
                    const size_t which =
                        random() % 2 == 0 ? held.size() - 1 : random() % held.size();
                    model.give(held[which].first, held[which].second);
                    manager().free(const_cast<uint8_t*>(base) + size_t{held[which].first} * 2048);
                    held.erase(held.begin() + static_cast<ptrdiff_t>(which));
                }
                ASSERT_EQ(manager().getFreeSize(), model.freeSize());
                ASSERT_TRUE(step % 16 != 0 || manager().isSound()) << step;
            }
        });
    }
}

TEST(PacketPool, BlocksOfTwoGigabytesKeepTheirSize)
{
    inChild([] {
        CPacketManager::MemoryOperator memop = countingOperator();
        memop.malloc = [](size_t size) -> void* {
            return mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        };
        memop.free = [](void* p) { munmap(p, (size_t{3} << 30) + 16384); };
        CPacketManager::PoolParameter param = {size_t{3} << 30, 16384, 8};
        CPacketManager::config(CPacketManager::policyPool, &memop, &param);
        size_t granted = 0;
        uint8_t* large = take((size_t{1} << 30) + 1, &granted);
        EXPECT_EQ(granted, 2147483648u);
        uint8_t* end = take(1);
        EXPECT_EQ(end - large, 3221225472 - 16384);
        EXPECT_EQ(CPacketManager::instance()->getFreeSize(), 1073741824u - 16384);
        manager().free(large);
        manager().free(end);
        EXPECT_EQ(CPacketManager::instance()->getFreeSize(), 3221225472u);
    });
}

TEST(PacketPool, WhatIsNoBlockEndsTheProcess)
{
    const struct
    {
        void (*body)(uint8_t* block);
        const char* text;
    } cases[] = {
        {[](uint8_t* block) { manager().free(block), manager().free(block); },
         "chunk[id].order < 0"},
        {[](uint8_t* block) { manager().free(block + 1024); }, "chunk[id].order < 0"},
        {[](uint8_t* block) { manager().free(block - 8192); }, "assertion (id >= 0) failed"},
        {[](uint8_t* block) { manager().free(block + 8192); }, "assertion (id < m_ChunkCount)"},
    };
    for (const auto& one : cases) {
        const ChildResult child = runInChild([&one] {
            usePool(8192, 1024);
            uint8_t* block = take(2048);
            one.body(block);
        });
        EXPECT_EQ(child.signal, SIGABRT) << child.report();
        EXPECT_THAT(child.errorOutput, HasSubstr(one.text));
    }
}

TEST(PacketPool, ThreadsAtTheBottomOfThePoolLoseNothing)
{
    inChild([] {
        usePool(64 * 1024, 1024);
        Tarsel::Infra::setPrintLogLevel(2);
        std::atomic<int> dry{0};
        std::vector<std::thread> threads;
        for (int id = 1; id <= 4; ++id) {
            threads.emplace_back([id, &dry] {
                std::mt19937 random(id);
                std::vector<std::pair<uint8_t*, size_t>> held;
                for (int round = 0; round < 8000; ++round) {
                    size_t granted = 0;
                    uint8_t* block = take(1 + random() % 9000, &granted);
                    if (block != nullptr) {
                        memset(block, id, granted);
                        held.emplace_back(block, granted);
                    }
                    dry += block == nullptr;
                    if (block == nullptr || held.size() > 7) {
                        for (const auto& [mine, size] : held) {
                            EXPECT_EQ(mine[0], id);
                            EXPECT_EQ(mine[size - 1], id);
                            manager().free(mine);
                        }
                        held.clear();
                    }
                }
                for (const auto& one : held) {
                    manager().free(one.first);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_GT(dry, 0);
        EXPECT_EQ(manager().getFreeSize(), 65536u);
        EXPECT_NE(take(65536), nullptr); // all merged
    });
}

TEST(PacketPool, AThreadThatLeavesEnoughIsNeverRefused)
{
    inChild([] {
        usePool(4096, 1024);
        Tarsel::Infra::setPrintLogLevel(2);
        std::atomic<int> running{2};
        // At most two chunks each, of four: whatever is back but not yet merged has to count.
        const auto use = [&running](const std::vector<size_t>& sizes) {
            for (int round = 0; round < 200000; ++round) {
                for (const size_t size : sizes) {
                    uint8_t* const block = take(size);
                    ASSERT_NE(block, nullptr) << round;
                    manager().free(block);
                }
            }
            --running;
        };
        std::thread pairs(use, std::vector<size_t>{2048});
        std::thread both(use, std::vector<size_t>{1024, 2048});
        while (running > 0 && !testing::Test::HasFailure()) {
            ASSERT_LE(manager().getFreeSize(), 4096u);
        }
        pairs.join();
        both.join();
        EXPECT_EQ(manager().getFreeSize(), 4096u);
    });
}

TEST(PacketPool, CopiesInsideThePoolAreThePrimitives)
{
    inChild([] {
        CPacketManager::MemoryOperator memop = countingOperator();
        CPacketManager::config(CPacketManager::policyPool, &memop);
        uint8_t* one = take(1024);
        uint8_t* two = take(1024);
        uint8_t outside[16] = "outside";
        EXPECT_EQ(manager().memcpy(one, outside, 16), one);
        EXPECT_EQ(s_copies, 0);
        EXPECT_EQ(manager().memcpy(two, one, 16), two);
        EXPECT_EQ(s_copies, 1);
        EXPECT_STREQ(reinterpret_cast<char*>(two), "outside");
        manager().free(one);
        manager().free(two);
    });
}

TEST(PacketPool, EveryByteIsCopiedAtEveryDistance)
{
    using namespace Tarsel::Memory;
    copyBytes(nullptr, nullptr, 0); // what an empty buffer may come to
    std::vector<uint8_t> memory(96 * 1024);
    const bool hasAvx2 = Tarsel::Infra::cpuFeatures().has(Tarsel::Infra::CpuFeature::avx2);
    const auto check = [&memory](auto copy, size_t length, size_t distance) {
        uint8_t* from = memory.data() + 3;
        uint8_t* to = from + 40960 + distance;
        for (size_t i = 0; i < length; ++i) {
            from[i] = static_cast<uint8_t>(i * 7 + i / 251);
        }
        memset(to - 1, 0xEE, length + 2);
        copy(reinterpret_cast<char*>(to), reinterpret_cast<const char*>(from), length);
        ASSERT_TRUE(std::equal(from, from + length, to)) << length << ' ' << distance;
        ASSERT_EQ(to[-1], 0xEE);
        ASSERT_EQ(to[length], 0xEE);
    };
    for (size_t distance : {0u, 1u, 16u, 31u, 32u, 2047u, 2048u, 4000u, 4095u}) {
        for (size_t length : {1u, 1535u, 1536u, 1537u, 1663u, 1664u, 3000u, 20001u}) {
            check(copyBytes, length, distance);
            if (length >= Detail::mediumCopy) {
                check(Detail::copyInPieces, length, distance);
                check(hasAvx2 ? Detail::copyWithAvx2 : Detail::copyInPieces, length, distance);
            }
        }
    }
}

TEST(PacketManagerExit, ThePoolGoesBackUnlessSomethingIsHandedOut)
{
    for (const bool holds : {false, true}) {
        const ChildResult child = runInChild([holds] {
            static CPacket s_kept; // ends after the manager's exit handler
            atexit([] {
                printf("at the end: %d, free: %zu of %zu\n", s_frees.load(),
                       CPacketManager::instance()->getFreeSize(),
                       CPacketManager::instance()->getBufferSize());
                EXPECT_TRUE(manager().isSound());
            });
            CPacketManager::MemoryOperator memop = countingOperator();
            CPacketManager::config(CPacketManager::policyPool, &memop);
            s_kept = CPacket(5000, 16);
            memset(s_kept.getBuffer(), 1, s_kept.capacity());
            if (!holds) {
                s_kept.reset();
            }
        });
        EXPECT_TRUE(child.succeeded()) << child.report();
        EXPECT_THAT(child.output, HasSubstr(holds ? "at the end: 0, free: 2088960 of 2097152\n"
                                                  : "at the end: 1, free: 2097152 of 2097152\n"));
    }
}

TEST(PacketManagerExit, PacketsCanStillBeMadeAfterwards)
{
    for (const auto policy : {CPacketManager::policySystem, CPacketManager::policyPool,
                              CPacketManager::policyPoolSystem}) {
        const ChildResult child = runInChild([policy] {
            atexit([] {
                CPacket late(3000, 8);
                CPacket part(late, 10, 20, 0);
                printf("late: %d %d\n", late.valid(), part.valid());
            });
            usePool(8192, 1024, policy);
            CPacket early(100);
            EXPECT_TRUE(early.valid());
        });
        EXPECT_TRUE(child.succeeded()) << child.report();
        EXPECT_THAT(child.output, HasSubstr("late: 1 1\n"));
        EXPECT_EQ(countOf(child.output, "CPacketManager: "), 1);
    }
}

TEST(PacketManagerExit, AThreadMayGoOnMakingPackets)
{
    const ChildResult child = runInChild([] {
        usePool(16384, 1024);
        static std::atomic<int> s_made{0};
        // Handlers run newest first: this one lets the thread run on behind the manager's.
        atexit([] {
            for (const int before = s_made; s_made < before + 1000;) {
                std::this_thread::yield();
            }
        });
        std::thread([] {
            while (true) {
                CPacket packet(3000);
                s_made += packet.valid();
            }
        }).detach();
        while (s_made < 1000) {
            std::this_thread::yield();
        }
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_THAT(child.output, Not(HasSubstr("No Free Space")));
}

TEST(PacketManagerFork, TheChildCanUseThePoolWhateverOtherThreadsDid)
{
    INFRA_NEEDS_A_HEAP_THAT_FORKS();
    inChild([] {
        usePool(1 << 20, 1024);
        std::atomic<bool> over{false};
        std::thread other([&over] {
            while (!over) {
                CPacket one(1000), two(5000);
            }
        });
        for (int round = 0; round < 50; ++round) {
            const pid_t child = fork();
            if (child == 0) {
                alarm(20);
                const CPacket packet(2000);
                _exit(packet.valid() && manager().isSound() ? 0 : 1);
            }
            int status = -1;
            waitpid(child, &status, 0);
            EXPECT_EQ(status, 0);
        }
        over = true;
        other.join();
    });
}

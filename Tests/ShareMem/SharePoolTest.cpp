// Pools, blocks and packets between real processes.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Infra/Infra3/PrintLog.h"
#include "Memory/MemoryBlock.h"
#include "Memory/Packet.h"
#include "Memory/PacketManager.h"
#include "Memory/ShareMem/ShareMemory.h"
#include "Memory/SharePacketHelper.h"
#include "ShareMem/SharePool.h"
#include "Support/Eventually.h"

using namespace Tarsel::Memory;
using namespace Tarsel::TestSupport;
using testing::HasSubstr;

namespace
{

TEST(SharePool, IsMadeOnceAndSharedByProcesses)
{
    const ChildResult child = runWithPools([] {
        IMemPool::PoolParam param = poolParam(1 << 20, 4096);
        param.poolType = IMemPool::PT_AvMemory;
        EXPECT_FALSE(IMemPool::initMemPool(param));
        EXPECT_EQ(IMemPool::loadMemPool(param), nullptr);
        param.poolType = IMemPool::PT_ShareMemory;
        ASSERT_TRUE(IMemPool::initMemPool(param));
        EXPECT_FALSE(IMemPool::initMemPool(param)); // there is one
        IMemPool* const pool = IMemPool::loadMemPool(param);
        ASSERT_NE(pool, nullptr);
        EXPECT_EQ(IMemPool::loadMemPool(param), pool);
        EXPECT_EQ(freeSize(), 1u << 20);

        size_t size = 1;
        void* const block = pool->allocMem(size);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(size, 4096u);
        size_t offset = 0;
        EXPECT_TRUE(pool->getOffset(block, offset));
        memset(block, 7, size);
        EXPECT_LT(freeSize(), (1u << 20) - 4096u); // the block and its bookkeeping

        EXPECT_EQ(inProcess([&] {
                      // The parent's pool, by inheritance; and a reference of its own.
                      uint8_t* const same = static_cast<uint8_t*>(pool->getMem(offset));
                      ASSERT_NE(same, nullptr);
                      EXPECT_EQ(same[4095], 7);
                      EXPECT_TRUE(pool->freeMem(same));
                      EXPECT_FALSE(pool->freeMem(same)); // what is left is the parent's
                  }),
                  0);
        EXPECT_TRUE(pool->freeMem(block));
        EXPECT_EQ(freeSize(), 1u << 20);
        EXPECT_FALSE(pool->freeMem(block));
        EXPECT_FALSE(pool->freeMem(nullptr));
        EXPECT_EQ(pool->getMem(offset), nullptr);
        pool->destroy();
        EXPECT_TRUE(IMemPool::deinitMemPool());
        EXPECT_EQ(IMemPool::loadMemPool(param), nullptr);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_THAT(child.output, HasSubstr("pool type error.\n"));
    EXPECT_THAT(child.output, HasSubstr("Param invalid.\n"));
    EXPECT_THAT(child.output, HasSubstr("has no pidnode["));
    EXPECT_THAT(child.output, HasSubstr("addr equal NULL, error.\n"));
}

TEST(SharePool, RefusesWhatTheFormatCannotHold)
{
    const ChildResult child = runWithPools([] {
        for (const size_t size : {size_t{1} << 32, (size_t{1} << 32) + (1 << 20)}) {
            EXPECT_FALSE(IMemPool::initMemPool(poolParam(size, 4096)));
        }
        EXPECT_FALSE(IMemPool::initMemPool(poolParam(1 << 20, 32)));
        EXPECT_EQ(shmget(strToKey(controlSegment), 0, 0), -1); // nothing was touched
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

void initPacketPool()
{
    CPacketManager::config(CPacketManager::policySharePool);
    SharePacketArg arg;
    arg.type = 1;
    arg.poolSize = 1 << 20;
    arg.poolType = "ShareMemory";
    arg.pageSize = 4096;
    arg.orderNum = 0;
    arg.debugMode = 0;
    ASSERT_TRUE(CSharePacketHelper::instance()->initSharePacket(&arg));
}

TEST(SharePool, PacketsGoFromProcessToProcess)
{
    const ChildResult child = runWithPools([] {
        initPacketPool();
        int there[2];
        ASSERT_EQ(pipe(there), 0);
        CPacket packet(1000, 16);
        ASSERT_TRUE(packet.valid());
        EXPECT_EQ(packet.size(), 0u);
        EXPECT_EQ(packet.capacity(), 4096u);
        std::string text(5000, 'x');
        EXPECT_EQ(packet.putBuffer(text.data(), text.size()), 4096u);
        packet.resize(1234);
        memcpy(packet.getExtraData(), "sixteen bytes ..", 16);
        CPacket described = CSharePacketHelper::instance()->toDescribePacket(packet);
        ASSERT_EQ(described.size(), 100u);
        EXPECT_EQ(memcmp(described.getBuffer(), "SPHD", 4), 0);
        EXPECT_EQ(memcmp(described.getBuffer() + 96, "SPTL", 4), 0);
        ASSERT_EQ(write(there[1], described.getBuffer(), 100), 100);
        packet.reset(); // on its way

        EXPECT_EQ(inProcess([&] {
                      char bytes[100];
                      ASSERT_EQ(read(there[0], bytes, 100), 100);
                      const CPacket received(bytes, 100, FreeMemFunc());
                      CPacket back = CSharePacketHelper::instance()->toOriginalPacket(received);
                      ASSERT_TRUE(back.valid());
                      EXPECT_EQ(back.size(), 1234u);
                      EXPECT_EQ(back.getBuffer()[1233], 'x');
                      EXPECT_EQ(back.getExtraSize(), 16u);
                      EXPECT_EQ(memcmp(back.getExtraData(), "sixteen bytes ..", 16), 0);
                  }),
                  0);
        EXPECT_EQ(freeSize(), 1u << 20);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(SharePool, ADeadMakerHoldsNothingForLong)
{
    const ChildResult child = runWithPools([] {
        const pid_t maker = startProcess([] {
            ASSERT_TRUE(IMemPool::initMemPool(poolParam(1 << 20, 1024)));
            size_t size = 3000;
            IMemPool::loadMemPool(poolParam(1 << 20, 1024))->allocMem(size);
            getProcessMutex(0)->lock(getProcessMutex(0)); // and dies inside
            raise(SIGKILL);
        });
        EXPECT_EQ(endOf(maker), -SIGKILL);
        IMemPool* const pool = IMemPool::loadMemPool(poolParam(1 << 20, 1024));
        ASSERT_NE(pool, nullptr);
        size_t size = 1;
        void* const block = pool->allocMem(size);
        EXPECT_TRUE(pool->freeResourceByPid(maker));
        EXPECT_TRUE(pool->freeMem(block));
        EXPECT_EQ(freeSize(), 1u << 20);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_EQ(countOf(child.output, "process exit with lock.["), 1);
}

// Each letter is a step: h hands the block over, r drops one handle of it, c claims it, p is a pass of
// expiry. Beside it stands whether the block is there afterwards.
const struct
{
    const char* name;
    const char* steps;
    const char* isThere;
} handOvers[] = {
    {"unclaimed", "hrpp", "###."},
    {"unclaimed, handed over again in between", "hphrpp", "#####."},
    {"claimed in time", "hrpcpppr", "#######."},
    {"claimed too late", "hrppc", "###.."},
    {"claimed twice", "hrpccpprr", "########."},
    {"on its way twice, claimed once", "hhrpcprp", "#######."},
    {"held while it expires, then released", "hpprp", "####."},
    {"held long after, then released", "hpppprp", "######."},
    {"held long after, then claimed", "hppppcrr", "#######."},
};

TEST(SharePool, HandOversExpireUnlessTheyAreClaimed)
{
    for (const auto& one : handOvers) {
        const ChildResult child = runWithPools([&one] {
            const IMemPool::PoolParam param = poolParam(1 << 20, 1024);
            makePool(param); // its maker is gone: nothing expires by itself
            CMemoryBlock::setPoolParameter(param);
            CMemoryBlock* block = CMemoryBlock::createMemoryBlock(1);
            void* const buffer = block->getBuffer();
            char description[64];
            for (size_t i = 0; one.steps[i] != '\0'; ++i) {
                switch (one.steps[i]) {
                case 'h':
                    ASSERT_TRUE(CMemoryBlock::getMemoryBlockDesc(buffer, description, 64));
                    break;
                case 'r':
                    delete block;
                    break;
                case 'c':
                    block = CMemoryBlock::getMemoryBlock(description, 64);
                    break;
                default:
                    IMemPool::loadMemPool(param)->expireClean();
                    break;
                }
                ASSERT_EQ(freeSize() < 1u << 20, one.isThere[i] == '#') << "after step " << i;
            }
            EXPECT_EQ(CMemoryBlock::getMemoryBlock(description, 64), nullptr);
        });
        EXPECT_TRUE(child.succeeded()) << one.name << '\n' << child.report();
    }
}

TEST(SharePool, TheMakersTimerLetsHandOversExpire)
{
    const ChildResult child = runWithPools([] {
        const IMemPool::PoolParam param = poolParam(1 << 20, 1024);
        ASSERT_TRUE(IMemPool::initMemPool(param));
        CMemoryBlock::setPoolParameter(param);
        CMemoryBlock* const block = CMemoryBlock::createMemoryBlock(1);
        char description[64];
        ASSERT_TRUE(CMemoryBlock::getMemoryBlockDesc(block->getBuffer(), description, 64));
        const char expected[] = {'T', 'S', 'M', 'B', 0, 0, 0, 0, 0, 0, 16, 0};
        EXPECT_EQ(memcmp(description, expected, sizeof(expected)), 0);
        delete block;
        EXPECT_TRUE(eventually([] { return freeSize() == 1u << 20; }));
        EXPECT_EQ(CMemoryBlock::getMemoryBlock(description, 19), nullptr);
        description[0] = 't';
        EXPECT_EQ(CMemoryBlock::getMemoryBlock(description, 64), nullptr);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int claims = 10000;
#else
constexpr int claims = 100000;
#endif

TEST(SharePool, ThreadsThatClaimOneDescriptionLoseNoCount)
{
    const ChildResult child = runWithPools([] {
        const IMemPool::PoolParam param = poolParam(1 << 20, 1024);
        makePool(param);
        CMemoryBlock::setPoolParameter(param);
        IMemPool* const pool = IMemPool::loadMemPool(param);
        CMemoryBlock* const block = CMemoryBlock::createMemoryBlock(3000);
        void* const buffer = block->getBuffer();
        char description[64];
        ASSERT_TRUE(CMemoryBlock::getMemoryBlockDesc(buffer, description, 64));
        delete block; // what keeps it is that it is on its way; nobody has a handle
        const auto claimAndDrop = [&] {
            for (int i = 0; i < claims; ++i) {
                pool->incDeliverRef(buffer);
                CMemoryBlock* const claimed = CMemoryBlock::getMemoryBlock(description, 64);
                ASSERT_NE(claimed, nullptr);
                ASSERT_EQ(claimed->getBuffer(), buffer);
                delete claimed;
            }
        };
        std::thread other(claimAndDrop);
        claimAndDrop();
        other.join();
        delete CMemoryBlock::getMemoryBlock(description, 64); // the first hand-over
        EXPECT_EQ(freeSize(), 1u << 20);
        EXPECT_EQ(CMemoryBlock::getMemoryBlock(description, 64), nullptr);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

// Printers are application code, and standard output may have a reader that stands still. Neither may
// keep anybody from the pool.

TEST(SharePool, APrinterMayMakePacketsWhileAllocationsFail)
{
    const ChildResult child = runWithPools([] {
        initPacketPool();
        static std::atomic<int> s_made{0};
        static std::atomic<int> s_refused{0};
        Tarsel::Infra::setLogPrinter([](const char*) {
            static thread_local int t_depth = 0;
            if (++t_depth == 1) {
                ++(CPacket(100).valid() ? s_made : s_refused);
            }
            --t_depth;
        });
        const auto failAndExhaust = [] {
            for (int i = 0; i < 100; ++i) {
                EXPECT_FALSE(CPacket(2 << 20).valid());
                std::vector<CPacket> all;
                while (all.empty() || all.back().valid()) {
                    all.emplace_back(30000);
                }
                for (int pages = 0; CPacket(1).valid() && pages < 300; ++pages) {
                    all.emplace_back(1);
                }
            }
        };
        std::thread other(failAndExhaust);
        failAndExhaust();
        other.join();
        Tarsel::Infra::setLogPrinter(Tarsel::Infra::LogPrinterProc());
        EXPECT_GT(s_made, 0);
        EXPECT_GT(s_refused, 0);
        EXPECT_EQ(freeSize(), 1u << 20);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

/// Whether the process sleeps, in whatever call.
bool sleeps(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    return text.find(") S ") != std::string::npos;
}

TEST(SharePool, AFullPipeStopsOnlyWhoPrintsIntoIt)
{
    const ChildResult child = runWithPools([] {
        makePool(poolParam(1 << 20, 1024));
        IMemPool* const pool = IMemPool::loadMemPool(poolParam(1 << 20, 1024));
        void (*const printers[])(IMemPool*) = {[](IMemPool*) { IMemPool::dumpInfo(); },
                                               [](IMemPool* of) { of->getMem(7); }};
        for (const auto print : printers) {
            int out[2];
            ASSERT_EQ(pipe2(out, O_NONBLOCK), 0);
            const std::string much(4096, '-');
            while (write(out[1], much.data(), much.size()) > 0) {
            }
            fcntl(out[1], F_SETFL, 0);
            std::atomic<bool>& isReady = makeShared<std::atomic<bool>>();
            const pid_t printer = startProcess([&] {
                dup2(out[1], STDOUT_FILENO);
                setvbuf(stdout, nullptr, _IONBF, 0);
                isReady = true;
                print(pool);
            });
            EXPECT_TRUE(eventually([&] { return isReady && sleeps(printer); }));
            size_t size = 1;
            for (int i = 0; i < 1000; ++i) {
                EXPECT_TRUE(pool->freeMem(pool->allocMem(size)));
            }
            EXPECT_TRUE(sleeps(printer));
            kill(printer, SIGKILL);
            EXPECT_EQ(endOf(printer), -SIGKILL);
        }
        EXPECT_EQ(freeSize(), 1u << 20);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_EQ(countOf(child.output, "process exit with lock.["), 0);
}

TEST(SharePool, AGuardPageStopsTheWriterAtTheEdge)
{
    for (const size_t mode : {1, 2}) {
        const ChildResult child = runWithPools([mode] {
            IMemPool::PoolParam param = poolParam(1 << 20, 1024);
            param.debugFlag = mode;
            ASSERT_TRUE(IMemPool::initMemPool(param));
            IMemPool* const pool = IMemPool::loadMemPool(param);
            size_t size = 100;
            uint8_t* const data = static_cast<uint8_t*>(pool->allocMem(size));
            ASSERT_NE(data, nullptr);
            EXPECT_EQ(size, 100u);
            memset(data, 1, size);
            pid_t dead = 0;
            // The pages that guard the parent's blocks guard nothing in a child.
            EXPECT_EQ(inProcess(
                          [&] {
                              size_t own = 100;
                              uint8_t* const mine = static_cast<uint8_t*>(pool->allocMem(own));
                              signal(SIGSEGV, SIG_DFL); // a sanitizer has a handler of its own
                              mine[mode == 1 ? -1 : 100] = 1;
                          },
                          &dead),
                      -SIGSEGV);
            EXPECT_TRUE(pool->freeResourceByPid(dead));
            EXPECT_TRUE(pool->freeMem(data));
            EXPECT_TRUE(pool->freeMem(data));    // refused, and true all the same
            EXPECT_TRUE(pool->freeMem(nullptr)); // so
            EXPECT_EQ(freeSize(), 1u << 20);

            CMemoryBlock::setPoolParameter(param);
            CMemoryBlock* const block = CMemoryBlock::createMemoryBlock(5000);
            ASSERT_NE(block, nullptr);
            char description[64];
            EXPECT_FALSE(CMemoryBlock::getMemoryBlockDesc(block->getBuffer(), description, 64));
            delete block;
            EXPECT_EQ(freeSize(), 1u << 20);
        });
        EXPECT_TRUE(child.succeeded()) << child.report();
    }
}

} // namespace

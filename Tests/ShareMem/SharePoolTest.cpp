// Pools, blocks and packets between real processes.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
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

using namespace Tarsel::Memory;
using Tarsel::TestSupport::ChildResult;
using Tarsel::TestSupport::countOf;
using Tarsel::TestSupport::poolParam;
using Tarsel::TestSupport::runWithPools;
using testing::HasSubstr;

namespace
{

uint32_t freeSize()
{
    uint32_t size = 0;
    IMemPool::getMemFreeSize(size);
    return size;
}

/// Runs `body` in a further process and waits for it; the result is its exit code, or -signal.
template <typename Body>
int inProcess(const Body& body, pid_t* id = nullptr)
{
    fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        body();
        fflush(stdout);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    if (id != nullptr) {
        *id = process;
    }
    int status = 0;
    waitpid(process, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

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

TEST(SharePool, PacketsGoFromProcessToProcess)
{
    const ChildResult child = runWithPools([] {
        CPacketManager::config(CPacketManager::policySharePool);
        SharePacketArg arg;
        arg.type = 1;
        arg.poolSize = 1 << 20;
        arg.poolType = "ShareMemory";
        arg.pageSize = 4096;
        arg.orderNum = 0;
        arg.debugMode = 0;
        ASSERT_TRUE(CSharePacketHelper::instance()->initSharePacket(&arg));
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

TEST(SharePool, ADeadProcessHoldsNothingForLong)
{
    const ChildResult child = runWithPools([] {
        ASSERT_TRUE(IMemPool::initMemPool(poolParam(1 << 20, 1024)));
        IMemPool* const pool = IMemPool::loadMemPool(poolParam(1 << 20, 1024));
        pid_t dead = 0;
        const pid_t process = fork();
        if (process == 0) {
            size_t size = 3000;
            pool->allocMem(size);
            pool->allocMem(size);
            getProcessMutex(0)->lock(getProcessMutex(0)); // and dies inside
            raise(SIGKILL);
        }
        dead = process;
        waitpid(process, nullptr, 0);
        EXPECT_TRUE(pool->freeResourceByPid(dead));
        EXPECT_EQ(freeSize(), 1u << 20);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_EQ(countOf(child.output, "process exit with lock.["), 1);
}

TEST(SharePool, UnclaimedHandOversExpire)
{
    const ChildResult child = runWithPools([] {
        IMemPool::PoolParam param = poolParam(1 << 20, 1024);
        ASSERT_TRUE(IMemPool::initMemPool(param));
        CMemoryBlock::setPoolParameter(param);
        CMemoryBlock* const block = CMemoryBlock::createMemoryBlock(1);
        ASSERT_NE(block, nullptr);
        char description[64];
        ASSERT_TRUE(CMemoryBlock::getMemoryBlockDesc(block->getBuffer(), description, 64));
        delete block;
        EXPECT_LT(freeSize(), 1u << 20);
        IMemPool* const pool = IMemPool::loadMemPool(param);
        pool->expireClean();
        pool->expireClean();
        EXPECT_EQ(freeSize(), 1u << 20);
        EXPECT_EQ(CMemoryBlock::getMemoryBlock(description, 64), nullptr);
        EXPECT_EQ(CMemoryBlock::getMemoryBlock(description, 19), nullptr);
        description[0] = 't';
        EXPECT_EQ(CMemoryBlock::getMemoryBlock(description, 64), nullptr);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
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

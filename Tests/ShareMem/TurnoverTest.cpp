// Pools that change hands: forked, ended under use, made anew, and made by several at a time.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Memory/MemoryBlock.h"
#include "ShareMem/SharePool.h"
#include "Support/LogCapture.h"

using namespace Tarsel::Memory;
using namespace Tarsel::TestSupport;

namespace
{

constexpr size_t poolSize = 1 << 20;
constexpr size_t descriptionSize = 20;

#if defined(__SANITIZE_THREAD__) // with it a process that had a pool needs a second to end
constexpr int makerRounds = 4;
constexpr int readerRounds = 12;
#else
constexpr int makerRounds = 60;
constexpr int readerRounds = 200;
#endif

IMemPool::PoolParam param()
{
    return poolParam(poolSize, 1024);
}

void makeOwnPool()
{
    ASSERT_TRUE(IMemPool::initMemPool(param()));
    CMemoryBlock::setPoolParameter(param());
}

/// Turns between two processes.
class CTurns
{
public:
    CTurns()
    {
        EXPECT_EQ(pipe(m_toChild), 0);
        EXPECT_EQ(pipe(m_toParent), 0);
    }
    void giveToChild() { EXPECT_EQ(write(m_toChild[1], "", 1), 1); }
    void giveToParent() { EXPECT_EQ(write(m_toParent[1], "", 1), 1); }
    void awaitInChild() { take(m_toChild[0]); }
    void awaitInParent() { take(m_toParent[0]); }

    ~CTurns()
    {
        for (const int end : {m_toChild[0], m_toChild[1], m_toParent[0], m_toParent[1]}) {
            close(end);
        }
    }

private:
    static void take(int from)
    {
        char byte = 0;
        EXPECT_EQ(read(from, &byte, 1), 1);
    }
    int m_toChild[2];
    int m_toParent[2];
};

TEST(ShareTurnover, AForkedChildHasReferencesOfItsOwn)
{
    const ChildResult child = runWithPools([] {
        makeOwnPool();
        CMemoryBlock* const block = CMemoryBlock::createMemoryBlock(100);
        uint8_t* const bytes = static_cast<uint8_t*>(block->getBuffer());
        bytes[0] = 'p';
        char description[descriptionSize];
        ASSERT_TRUE(CMemoryBlock::getMemoryBlockDesc(bytes, description, descriptionSize));
        CTurns turns;
        const pid_t process = startProcess([&] {
            CMemoryBlock* const own = CMemoryBlock::getMemoryBlock(description, descriptionSize);
            ASSERT_NE(own, nullptr);
            turns.giveToParent(); // which drops its own
            turns.awaitInChild();
            EXPECT_EQ(static_cast<uint8_t*>(own->getBuffer())[0], 'p');
            CMemoryBlock* const first = CMemoryBlock::createMemoryBlock(100);
            CMemoryBlock* const second = CMemoryBlock::createMemoryBlock(100);
            EXPECT_NE(first->getBuffer(), second->getBuffer());
            EXPECT_NE(first->getBuffer(), own->getBuffer());
            for (CMemoryBlock* const handle : {own, first, second}) {
                delete handle;
            }
        });
        turns.awaitInParent();
        delete block;
        EXPECT_LT(freeSize(), poolSize);
        static_cast<uint8_t*>(CMemoryBlock::createMemoryBlock(100)->getBuffer())[0] = 'q';
        turns.giveToChild();
        EXPECT_EQ(endOf(process), 0);
        EXPECT_TRUE(IMemPool::loadMemPool(param())->freeResourceByPid(getpid()));
        EXPECT_EQ(freeSize(), poolSize);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShareTurnover, APoolMadeAnewHasNothingOfTheOldOne)
{
    const ChildResult child = runWithPools([] {
        makeOwnPool();
        static CMemoryBlock* old; // its pool goes before it: nothing can end it
        old = CMemoryBlock::createMemoryBlock(100);
        static_cast<char*>(old->getBuffer())[0] = 'o';

        // The same segments: what was in use is in use.
        IMemPool::loadMemPool(param())->destroy();
        CMemoryBlock::setPoolParameter(param());
        CMemoryBlock* const another = CMemoryBlock::createMemoryBlock(100);
        EXPECT_NE(another->getBuffer(), old->getBuffer());
        delete another;

        // Others: nothing of them is.
        IMemPool::loadMemPool(param())->destroy();
        EXPECT_TRUE(IMemPool::deinitMemPool());
        makeOwnPool();
        EXPECT_EQ(freeSize(), poolSize);
        CMemoryBlock* const first = CMemoryBlock::createMemoryBlock(100);
        CMemoryBlock* const second = CMemoryBlock::createMemoryBlock(100);
        EXPECT_NE(first->getBuffer(), second->getBuffer());
        EXPECT_NE(first->getBuffer(), old->getBuffer());
        EXPECT_EQ(static_cast<char*>(old->getBuffer())[0], 'o'); // still mapped
        delete first;
        delete second;
        EXPECT_EQ(freeSize(), poolSize);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShareTurnover, APoolMayBeDestroyedWhileThreadsUseIt)
{
    const ChildResult child = runWithPools([] {
        makeOwnPool();
        CLogCapture quiet; // what was made before and is dropped after has no pool
        std::atomic<bool> ends{false};
        std::vector<std::thread> users;
        for (int i = 0; i < 3; ++i) {
            users.emplace_back([&ends] {
                while (!ends.load()) {
                    CMemoryBlock* const block = CMemoryBlock::createMemoryBlock(100);
                    if (block != nullptr) {
                        memset(block->getBuffer(), 1, block->getTotalSize());
                        delete block;
                    } else { // the one before the pool went took the last page with it
                        IMemPool::loadMemPool(param())->freeResourceByPid(getpid());
                    }
                }
            });
        }
        for (int i = 0; i < 300; ++i) {
            IMemPool::loadMemPool(param())->destroy();
        }
        ends.store(true);
        for (std::thread& user : users) {
            user.join();
        }
        IMemPool::loadMemPool(param())->freeResourceByPid(getpid());
        EXPECT_EQ(freeSize(), poolSize);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

/// Whether this process's pool is the one that others find now: they then see what is taken from it.
bool hasThePool()
{
    IMemPool* const pool = IMemPool::loadMemPool(param());
    size_t size = 1024;
    if (pool == nullptr || pool->allocMem(size) == nullptr) {
        return false;
    }
    return inProcess([] {
               // The inherited object would do: attach by name, as anybody.
               IMemPool::loadMemPool(param())->destroy();
               _exit(IMemPool::loadMemPool(param()) != nullptr && freeSize() < poolSize ? 0 : 1);
           }) == 0;
}

TEST(ShareTurnover, MakersAtTheSameTimeMakeOnePoolThatIsWhole)
{
    const ChildResult child = runWithPools([] {
        for (int round = 0; round < makerRounds; ++round) {
            CTurns start;
            CTurns turns;
            std::vector<pid_t> makers;
            for (int i = 0; i < 3; ++i) {
                makers.push_back(startProcess([&] {
                    start.awaitInChild();
                    const CLogCapture quiet;
                    const bool isMade = IMemPool::initMemPool(param());
                    turns.giveToParent();
                    turns.awaitInChild();
                    _exit(isMade && hasThePool() ? 1 : 0);
                }));
            }
            for (int i = 0; i < 3; ++i) {
                start.giveToChild();
            }
            for (int i = 0; i < 3; ++i) {
                turns.awaitInParent();
            }
            int owners = 0;
            for (const pid_t maker : makers) { // one by one: what one takes the next would see
                turns.giveToChild();
                int status = 0;
                waitpid(-1, &status, 0);
                EXPECT_TRUE(WIFEXITED(status)) << maker;
                owners += WEXITSTATUS(status);
            }
            EXPECT_GE(owners, 1) << round;
        }
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShareTurnover, WhoAttachesWhilePoolsAreMadeGetsOneOrNone)
{
    const ChildResult child = runWithPools([] {
        std::vector<pid_t> readers;
        int ended[2];
        ASSERT_EQ(pipe2(ended, O_NONBLOCK), 0);
        for (int i = 0; i < 2; ++i) {
            readers.push_back(startProcess([&ended] {
                close(ended[1]);
                const CLogCapture quiet;
                char byte = 0;
                while (read(ended[0], &byte, 1) != 0) {
                    IMemPool* const pool = IMemPool::loadMemPool({});
                    if (pool == nullptr) {
                        continue;
                    }
                    size_t size = 0;
                    size_t wanted = 5000;
                    void* const block = pool->allocMem(wanted);
                    ASSERT_NE(block, nullptr); // half a pool has no such block, or faults
                    ASSERT_TRUE(pool->getOffset(block, size));
                    memset(block, 0xff, wanted);
                    ASSERT_TRUE(pool->freeMem(block));
                    pool->destroy();
                }
            }));
        }
        for (int round = 0; round < readerRounds; ++round) {
            // Of different sizes, by processes that go at once.
            const size_t size = poolSize << round % 3;
            EXPECT_EQ(inProcess([size] {
                          const CLogCapture quiet;
                          EXPECT_TRUE(IMemPool::initMemPool(poolParam(size, 1024)));
                      }),
                      0);
        }
        close(ended[1]);
        for (const pid_t reader : readers) {
            EXPECT_EQ(endOf(reader), 0);
        }
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

} // namespace

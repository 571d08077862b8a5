// How pools begin and end: makers that die, second pools, forks; and what a pool at work says of
// itself.

#include <ucontext.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Memory/MemoryBlock.h"
#include "ShareMem/PoolChecker.h"
#include "ShareMem/SharePool.h"
#include "Support/Eventually.h"

using namespace Tarsel::Memory;
using namespace Tarsel::TestSupport;

namespace
{

// Makers that die --------------------------------------------------------------------------------
//
// The control segment is read-only wherever the maker has it: each store to it is a fault, which
// lets that one store through, or ends the process.

const IMemPool::PoolParam smallPool = poolParam(9 * 1024, 1024);
constexpr size_t smallPoolControl = 184 + 40 + 4 * 16 + 9 * 72;
constexpr long trapFlag = 0x100; // of the processor: stop after the next instruction

std::vector<uint8_t*> s_mappings;
long s_stepsLeft;

void protect(int rights)
{
    for (uint8_t* const mapping : s_mappings) {
        mprotect(mapping, smallPoolControl, rights);
    }
}

void countStep()
{
    if (--s_stepsLeft == 0) {
        protect(PROT_READ | PROT_WRITE); // the system has to mark the dead owner's mutex
        kill(getpid(), SIGKILL);
    }
}

void onStore(int, siginfo_t*, void* context)
{
    protect(PROT_READ | PROT_WRITE);
    if (gettid() == getpid()) { // the timer's thread may do what it wants: the pool is made
        countStep();
        static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] |= trapFlag;
    }
}

void onStored(int, siginfo_t*, void* context)
{
    protect(PROT_READ);
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~trapFlag;
}

void* getProtectedSegment(const char* key, size_t size, int mode, int flag)
{
    countStep();
    void* const mapping = shareMemGet(key, size, mode, flag);
    if (mapping != nullptr && strcmp(key, controlSegment) == 0) {
        s_mappings.push_back(static_cast<uint8_t*>(mapping));
        protect(PROT_READ);
    }
    return mapping;
}

/// Makes the pool, up to before its `step`-th store or call for a segment.
int makePoolUpTo(long step)
{
    return inProcess([step] {
        s_stepsLeft = step;
        struct sigaction action = {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = onStore;
        sigaction(SIGSEGV, &action, nullptr);
        action.sa_sigaction = onStored;
        sigaction(SIGTRAP, &action, nullptr);
        gloShareMemOperation.shareMemGet = getProtectedSegment;
        EXPECT_TRUE(IMemPool::initMemPool(smallPool));
        protect(PROT_READ | PROT_WRITE);
    });
}

void expectUsable()
{
    IMemPool* const pool = IMemPool::loadMemPool(smallPool);
    const uint32_t before = freeSize();
    size_t size = 1;
    void* const block = pool->allocMem(size);
    EXPECT_NE(block, nullptr);
    EXPECT_TRUE(pool->freeMem(block));
    EXPECT_EQ(freeSize(), before);
    EXPECT_EQ(CPoolChecker().faults(), "");
}

TEST(ShareMemLife, AMakerMayDieAtAnyStore)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer does the stores";
#endif
    for (const bool isOverAnother : {false, true}) {
        const ChildResult child = runWithPools([isOverAnother] {
            int found[3] = {}; // a pool; an expectation failed; none
            int end = -SIGKILL;
            for (long step = 1; end == -SIGKILL && !testing::Test::HasFailure(); ++step) {
                if (!isOverAnother) {
                    removeSegments();
                }
                end = makePoolUpTo(step);
                const int result = inProcess([] {
                    if (IMemPool::loadMemPool(smallPool) == nullptr) {
                        _exit(2);
                    }
                    expectUsable();
                });
                ASSERT_TRUE(result == 0 || result == 2) << "step " << step << ", " << result;
                ++found[result];
                const int next = inProcess([] {
                    ASSERT_TRUE(IMemPool::initMemPool(smallPool));
                    EXPECT_EQ(freeSize(), 9u * 1024);
                    expectUsable();
                    size_t size = 1;
                    IMemPool::loadMemPool(smallPool)->allocMem(size); // for another to be over it
                });
                ASSERT_EQ(next, 0) << "step " << step;
            }
            EXPECT_EQ(end, 0);
            EXPECT_GT(found[0], 20);
            EXPECT_GT(found[2], 3);
            fprintf(stderr, "dead makers: %d, of which %d left a pool\n", found[0] + found[2] - 1,
                    found[0] - 1);
        });
        EXPECT_TRUE(child.succeeded()) << child.report();
        printf("%s", child.errorOutput.c_str());
    }
}

// Pools and processes ----------------------------------------------------------------------------

/// Processes that allocate, fill, verify and free until they are told to rest, with what they have.
class CUsers
{
public:
    explicit CUsers(size_t count) : m_shared(makeShared<Shared>())
    {
        for (size_t i = 0; i < count; ++i) {
            m_processes.push_back(startProcess([this, i] { use(static_cast<uint8_t>(i + 1)); }));
        }
    }

    /// Waits until each has done as many steps.
    void expectSteps(long steps)
    {
        for (size_t i = 0; i < m_processes.size(); ++i) {
            const long until = m_shared.steps[i] + steps;
            EXPECT_TRUE(eventually([&] { return m_shared.steps[i] >= until; }));
        }
    }
    void rest()
    {
        m_shared.mustRest = true;
        EXPECT_TRUE(eventually([this] { return m_shared.resting == m_processes.size(); }));
    }
    void end()
    {
        m_shared.mustEnd = true;
        for (const pid_t process : m_processes) {
            EXPECT_EQ(endOf(process), 0);
        }
    }

private:
    struct Shared
    {
        std::atomic<long> steps[3];
        std::atomic<bool> mustRest;
        std::atomic<bool> mustEnd;
        std::atomic<size_t> resting;
        std::atomic<size_t> done;
    };

    void use(uint8_t own)
    {
        IMemPool* const pool = IMemPool::loadMemPool(poolParam(1 << 20, 1024));
        ASSERT_NE(pool, nullptr);
        std::vector<std::pair<uint8_t*, size_t>> held;
        const auto giveBack = [&](size_t index) {
            std::swap(held[index], held.back());
            const auto [block, size] = held.back();
            EXPECT_EQ(std::vector<uint8_t>(block, block + size), std::vector<uint8_t>(size, own));
            EXPECT_TRUE(pool->freeMem(block));
            held.pop_back();
        };
        for (uint32_t i = own; !m_shared.mustRest; i = i * 16807 + 1) {
            size_t size = 1 + i % 9000;
            held.emplace_back(static_cast<uint8_t*>(pool->allocMem(size)), size);
            ASSERT_NE(held.back().first, nullptr);
            memset(held.back().first, own, size);
            if (held.size() > 10) {
                giveBack(i % held.size());
            }
            ++m_shared.steps[own - 1];
        }
        ++m_shared.resting;
        EXPECT_TRUE(eventually([this] { return m_shared.mustEnd.load(); }));
        while (!held.empty()) {
            giveBack(0);
        }
        if (++m_shared.done == m_shared.resting) {
            EXPECT_EQ(freeSize(), 1u << 20); // the last has given everything back
        }
    }

    Shared& m_shared;
    std::vector<pid_t> m_processes;
};

TEST(ShareMemLife, WhoHasTheOldPoolKeepsItWhenANewOneIsMade)
{
    const ChildResult child = runWithPools([] {
        makePool(poolParam(1 << 20, 1024));
        CUsers users(3);
        users.expectSteps(10);
        const IMemPool::PoolParam param = poolParam(2 << 20, 4096);
        ASSERT_TRUE(IMemPool::initMemPool(param));
        size_t size = 1 << 19;
        void* const block = IMemPool::loadMemPool(param)->allocMem(size);
        users.expectSteps(1000);
        EXPECT_EQ(freeSize(), (2u << 20) - (1u << 19) - 4096);
        EXPECT_TRUE(IMemPool::loadMemPool(param)->freeMem(block));
        EXPECT_EQ(freeSize(), 2u << 20);
        users.rest();
        users.end();
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

/// Bytes in the free blocks that dumpInfo() names.
size_t dumpedSize()
{
    fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    FILE* const file = tmpfile();
    dup2(fileno(file), STDOUT_FILENO);
    IMemPool::dumpInfo();
    fflush(stdout);
    dup2(before, STDOUT_FILENO);
    close(before);
    rewind(file);
    size_t bytes = 0;
    char line[300];
    for (int order = 0; fgets(line, sizeof(line), file) != nullptr; bytes += 1024u << order) {
        EXPECT_EQ(sscanf(line, "Orderlist(%d)", &order), 1) << line;
    }
    fclose(file);
    return bytes;
}

TEST(ShareMemLife, FiguresEndWhileOthersAllocateAndAreExactWhenTheyRest)
{
    INFRA_NEEDS_A_HEAP_THAT_FORKS(); // the pool's timer has just begun
    const ChildResult child = runWithPools([] {
        makePool(poolParam(1 << 20, 1024));
        IMemPool::loadMemPool(poolParam(1 << 20, 1024));
        CUsers users(2);
        users.expectSteps(10);
        for (int i = 0; i < 500; ++i) {
            EXPECT_LE(freeSize(), 1u << 20);
            dumpedSize();
        }
        users.rest();
        EXPECT_LT(freeSize(), 1u << 20);
        EXPECT_EQ(dumpedSize(), freeSize());
        users.end();
        EXPECT_EQ(dumpedSize(), 1u << 20);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

TEST(ShareMemLife, AChildMayDropHandlesAndEndThePoolForItself)
{
    const ChildResult child = runWithPools([] {
        const IMemPool::PoolParam param = poolParam(1 << 20, 1024);
        ASSERT_TRUE(IMemPool::initMemPool(param)); // and its timer runs
        CMemoryBlock::setPoolParameter(param);
        CMemoryBlock* const block = CMemoryBlock::createMemoryBlock(1);
        ASSERT_NE(block, nullptr);
        const uint32_t before = freeSize();
        const auto makeAndDrop = [before] {
            CMemoryBlock* const own = CMemoryBlock::createMemoryBlock(1);
            EXPECT_NE(own, nullptr);
            delete own;
            EXPECT_EQ(freeSize(), before);
        };
        EXPECT_EQ(inProcess([&] {
                      delete block; // the handle is the parent's
                      makeAndDrop();
                      IMemPool::loadMemPool(param)->destroy();
                      CMemoryBlock::setPoolParameter(param);
                      makeAndDrop();
                      EXPECT_TRUE(IMemPool::deinitMemPool());
                  }),
                  0);
        makeAndDrop();
        delete block;
        EXPECT_EQ(freeSize(), 1u << 20);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_EQ(countOf(child.output, "offset not found."), 1);
}

} // namespace

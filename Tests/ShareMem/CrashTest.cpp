// A process may be killed at any instruction. Here a child does one thing to a pool, step by step;
// after every instruction that changed the memory, a copy of the memory is what a survivor would
// have found. It is repaired and looked over.

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ShareMem/MiniPool.h"

using Tarsel::TestSupport::CMiniPool;
using Tarsel::TestSupport::PoolShape;

namespace
{

typedef std::function<void(CMiniPool&)> Action;

/// Runs `action` in a child, one instruction after the other, and calls `changed` after each that
/// changed the pool's memory. The result is the number of instructions; -1 without permission.
long stepThrough(CMiniPool& pool, const Action& action,
                 const std::function<void(pid_t dead)>& changed)
{
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
            _exit(2);
        }
        raise(SIGSTOP);
        action(pool);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFSTOPPED(status)) {
        return -1;
    }
    std::vector<uint8_t> last(pool.memory(), pool.memory() + pool.memorySize());
    long steps = 0;
    for (;; ++steps) {
        ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr);
        waitpid(child, &status, 0);
        if (!WIFSTOPPED(status)) {
            break;
        }
        if (memcmp(last.data(), pool.memory(), last.size()) != 0) {
            memcpy(last.data(), pool.memory(), last.size());
            changed(child);
        }
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    return steps;
}

/// What the survivor holds: blocks with a pattern in them.
struct Held
{
    size_t offset;
    size_t size;
};

void fill(CMiniPool& pool, const Held& held)
{
    memset(pool.layout().data + held.offset, static_cast<int>(held.offset / 64 % 251 + 1),
           held.size);
}

bool isWhole(const CMiniPool& pool, const Held& held)
{
    const uint8_t* const bytes = pool.layout().data + held.offset;
    for (size_t i = 0; i < held.size; ++i) {
        if (bytes[i] != held.offset / 64 % 251 + 1) {
            return false;
        }
    }
    return true;
}

typedef void (*Step)(CMiniPool& pool, const std::vector<Held>& held);

class CScene
{
public:
    /// `prepare` may be null.
    CScene(const PoolShape& shape, Step prepare) : pool(shape), m_total(pool.freeSize())
    {
        const size_t page = shape.pageSize;
        for (const size_t size : {page, 2 * page, page, 3 * page, page}) {
            const Held held = {pool.take(size), size};
            if (held.offset != noOffset) {
                fill(pool, held);
                this->held.push_back(held);
            }
        }
        // A hand-over of the second block is on its way, and it has two references.
        pool.refer()->incDeliverRef(pool.refer(), held[1].offset);
        pool.refer()->addRefer(pool.refer(), held[1].offset);
        if (prepare != nullptr) {
            prepare(pool, held);
        }
        memcpy(&deadBefore, pool.layout().syncZone->zoneData, sizeof(deadBefore));
    }

    /// What a survivor finds: nothing of what it holds is hurt, and when the dead process's
    /// references and its own are dropped everything is free.
    void expectRepaired(CMiniPool& found, pid_t dead, const std::string& where) const
    {
        found.repair();
        ASSERT_EQ(found.faults(), "") << where;
        MemRefer* const refer = found.refer();
        for (const Held& one : held) {
            ASSERT_TRUE(isWhole(found, one)) << where;
            const int expected = one.offset == held[1].offset ? 2 : 1;
            ASSERT_GE(refer->getReferCnt(refer, one.offset), expected) << where;
        }
        // Hand-overs on their way expire when nobody holds the block.
        for (int i = 0; i < 3; ++i) {
            refer->releaseByPid(refer, getpid());
            refer->releaseByPid(refer, dead);
            refer->releaseByPid(refer, deadBefore);
        }
        refer->expireClean(refer);
        refer->expireClean(refer);
        ASSERT_EQ(found.faults(), "") << where;
        ASSERT_EQ(found.freeSize(), m_total) << where;
        ASSERT_EQ(list_empty(found.layout().nodes()), 1) << where;
        ASSERT_EQ(list_empty(found.layout().smallPages()), 1) << where;
    }

    CMiniPool pool;
    std::vector<Held> held;
    pid_t deadBefore = 0;

private:
    size_t m_total;
};

// ThreadSanitizer's and AddressSanitizer's own instructions make a step many; the plain build does
// this everywhere.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define INFRA_NEEDS_PLAIN_CODE() GTEST_SKIP() << "stepping through a sanitizer's code"
#else
#define INFRA_NEEDS_PLAIN_CODE()
#endif

const PoolShape shapes[] = {
    {1024, 64, 0}, {64, 301, 0}, {256, 77, 4}, {2048, 33, 0}, {4096, 40, 3},
};

const struct
{
    const char* name;
    Step prepare;
    Step action;
} actions[] = {
    {"take one page", nullptr, [](CMiniPool& pool, const std::vector<Held>&) { pool.take(1); }},
    {"take three pages", nullptr,
     [](CMiniPool& pool, const std::vector<Held>&) {
         pool.take(3 * pool.layout().info->config.pageSize);
     }},
    {"take until small objects need a page", nullptr,
     [](CMiniPool& pool, const std::vector<Held>&) {
         for (int i = 0; i < 9; ++i) {
             pool.take(1);
         }
     }},
    {"take and give back", nullptr,
     [](CMiniPool& pool, const std::vector<Held>&) { pool.give(pool.take(1)); }},
    {"give back the middle one of three", nullptr,
     [](CMiniPool& pool, const std::vector<Held>&) {
         pool.take(1);
         const size_t middle = pool.take(1);
         pool.take(1);
         pool.give(middle);
     }},
    {"share a block of another and let go", nullptr,
     [](CMiniPool& pool, const std::vector<Held>& held) {
         pool.refer()->addRefer(pool.refer(), held[2].offset);
         pool.give(held[2].offset);
     }},
    {"take over a hand-over", nullptr,
     [](CMiniPool& pool, const std::vector<Held>& held) {
         pool.refer()->addRefer(pool.refer(), held[1].offset);
         pool.refer()->decDeliverRef(pool.refer(), held[1].offset);
         pool.refer()->incDeliverRef(pool.refer(), held[0].offset);
     }},
    {"reclaim a dead process",
     [](CMiniPool& pool, const std::vector<Held>&) {
         const pid_t other = fork();
         if (other == 0) {
             for (int i = 0; i < 5; ++i) {
                 pool.take(1);
             }
             _exit(0);
         }
         waitpid(other, nullptr, 0);
         // Its number is handed on in memory that a fork shares.
         memcpy(pool.layout().syncZone->zoneData, &other, sizeof(other));
     },
     [](CMiniPool& pool, const std::vector<Held>&) {
         pid_t other = 0;
         memcpy(&other, pool.layout().syncZone->zoneData, sizeof(other));
         pool.refer()->releaseByPid(pool.refer(), other);
     }},
    {"let hand-overs expire",
     [](CMiniPool& pool, const std::vector<Held>&) {
         for (int i = 0; i < 3; ++i) {
             const size_t offset = pool.take(1);
             pool.refer()->incDeliverRef(pool.refer(), offset);
             pool.give(offset);
         }
         pool.refer()->expireClean(pool.refer());
     },
     [](CMiniPool& pool, const std::vector<Held>&) {
         ExpirePass pass;
         while (expireCleanPart(pool.refer(), &pass) == 1) {
         }
     }},
};

TEST(ShareMemCrash, ADeathAtAnyInstructionHurtsNobodyElse)
{
    INFRA_NEEDS_PLAIN_CODE();
    long deaths = 0;
    for (const PoolShape& shape : shapes) {
        for (const auto& one : actions) {
            CScene scene(shape, one.prepare);
            const std::string where =
                std::string(one.name) + ", pages of " + std::to_string(shape.pageSize);
            long point = 0;
            const long steps = stepThrough(
                scene.pool, [&](CMiniPool& pool) { one.action(pool, scene.held); },
                [&](pid_t dead) {
                    ++point;
                    CMiniPool found(scene.pool);
                    scene.expectRepaired(found, dead, where + ", store " + std::to_string(point));
                });
            ASSERT_GT(steps, 0) << where;
            ASSERT_GT(point, 0) << where;
            deaths += point;
        }
    }
    printf("deaths: %ld\n", deaths);
}

/// With INFRA_STORM set, every death is followed into its repair; else a few are.
long deathsBetweenRepairs()
{
    return getenv("INFRA_STORM") != nullptr ? 1 : 151;
}

TEST(ShareMemCrash, ADeathInTheRepairIsRepairedByTheNext)
{
    INFRA_NEEDS_PLAIN_CODE();
    const long stride = deathsBetweenRepairs();
    long deaths = 0;
    long all = 0;
    for (const PoolShape& shape : {shapes[0], shapes[4]}) {
        for (const auto& one : actions) {
            CScene scene(shape, one.prepare);
            stepThrough(
                scene.pool, [&](CMiniPool& pool) { one.action(pool, scene.held); },
                [&](pid_t dead) {
                    if (++all % stride != 0) {
                        return;
                    }
                    CMiniPool found(scene.pool);
                    stepThrough(
                        found, [](CMiniPool& pool) { pool.repair(); },
                        [&](pid_t) {
                            ++deaths;
                            CMiniPool foundAgain(found);
                            scene.expectRepaired(foundAgain, dead, one.name);
                        });
                });
            ASSERT_FALSE(HasFatalFailure());
        }
    }
    ASSERT_GT(deaths, 0);
    printf("deaths in repairs: %ld\n", deaths);
}

CMiniPool* s_repaired = nullptr;

/// Kills a child after `instructions` of `action`. False when it was over before.
bool killAfter(CMiniPool& pool, const Action& action, long instructions, pid_t* dead)
{
    *dead = fork();
    if (*dead == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        action(pool);
        _exit(0);
    }
    int status = 0;
    waitpid(*dead, &status, 0);
    for (long i = 0; i < instructions && WIFSTOPPED(status); ++i) {
        ptrace(PTRACE_SINGLESTEP, *dead, nullptr, nullptr);
        waitpid(*dead, &status, 0);
    }
    const bool wasAlive = WIFSTOPPED(status);
    if (wasAlive) {
        kill(*dead, SIGKILL);
        waitpid(*dead, nullptr, 0);
    }
    return wasAlive;
}

TEST(ShareMemCrash, TheNextToLockRepairsWhatARealDeathLeft)
{
    INFRA_NEEDS_PLAIN_CODE();
    const long stride = getenv("INFRA_STORM") != nullptr ? 23 : 701;
    long kills = 0;
    for (const auto& one : actions) {
        bool isOver = false;
        for (long instructions = 1; !isOver; instructions += stride) {
            CScene scene(shapes[0], one.prepare);
            scene.pool.layout().syncZone->initFlag = 0; // until now a place for a number
            ASSERT_EQ(initProcessMutex(scene.pool.layout().syncZone), 0);
            s_repaired = &scene.pool;
            setProcessMutexRepair([] { s_repaired->repair(); });
            ProcessMutex* const mutex = getProcessMutex(0);
            pid_t dead = 0;
            isOver = !killAfter(
                scene.pool,
                [&](CMiniPool& pool) {
                    mutex->lock(mutex);
                    one.action(pool, scene.held);
                    mutex->unlock(mutex);
                },
                instructions, &dead);
            kills += isOver ? 0 : 1;
            ASSERT_EQ(mutex->lock(mutex), 0);
            ASSERT_EQ(scene.pool.faults(), "") << one.name << ' ' << instructions;
            scene.expectRepaired(scene.pool, dead, one.name);
            mutex->unlock(mutex);
            ASSERT_FALSE(HasFatalFailure());
        }
    }
    setProcessMutexRepair(nullptr);
    ASSERT_GT(kills, 0);
    printf("kills: %ld\n", kills);
}

} // namespace

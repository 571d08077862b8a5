// A process may be killed at any instruction. Here a child does one thing to a pool, step by step;
// after every instruction that changed the memory, a copy of the memory is what a survivor would
// have found. It is repaired and looked over: each block is as it was before the operation or as it
// is after it, and nothing is lost or hurt.

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ShareMem/MiniPool.h"

using Tarsel::TestSupport::Blocks;
using Tarsel::TestSupport::BlockState;
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

/// Fills and empties the pool in random order, so that nothing in it is fresh: whatever is handed out
/// from then on has had another use.
void churn(CMiniPool& pool)
{
    std::mt19937 random(1);
    const size_t page = pool.layout().info->config.pageSize;
    for (int round = 0; round < 3; ++round) {
        std::vector<size_t> taken;
        while (pool.freeSize() > page * pool.layout().info->pageNum / 3) {
            const size_t size = random() % 3 * page + 1;
            taken.push_back(pool.take(size));
            memset(pool.layout().data + taken.back(), 0xEE, size);
        }
        std::shuffle(taken.begin(), taken.end(), random);
        for (const size_t offset : taken) {
            pool.send(offset);
            pool.receive(offset);
            pool.give(offset);
        }
    }
    pool.ended() = 0;
}

class CScene
{
public:
    explicit CScene(const PoolShape& shape) : pool(shape), m_total(pool.freeSize())
    {
        churn(pool);
        EXPECT_EQ(pool.freeSize(), m_total);
        const size_t page = shape.pageSize;
        for (const size_t size : {page, 2 * page, page, 3 * page, page}) {
            held.push_back({pool.take(size), size});
            fill(pool, held.back());
        }
        // A hand-over of the second block is on its way, and it has two references.
        pool.send(held[1].offset);
        pool.share(held[1].offset);
    }

    /// What a survivor finds: nothing of what it holds is hurt, and when the dead process's
    /// references and its own are dropped everything is free.
    void expectRepaired(CMiniPool& found, pid_t dead, const std::string& where) const
    {
        found.repair();
        ASSERT_EQ(found.faults(), "") << where;
        Blocks blocks = found.blocks();
        for (const Held& one : held) {
            ASSERT_TRUE(isWhole(found, one)) << where;
            const size_t own = one.offset == held[1].offset ? 2 : 1;
            ASSERT_EQ(blocks[one.offset].holders.count(getpid()), own) << where;
        }
        // Hand-overs on their way expire when nobody holds the block.
        for (int i = 0; i < 3; ++i) {
            found.reclaim(getpid());
            found.reclaim(dead);
            if (deadBefore() != 0) {
                found.reclaim(deadBefore());
            }
        }
        found.expire();
        found.expire();
        ASSERT_EQ(found.faults(), "") << where;
        ASSERT_EQ(found.freeSize(), m_total) << where;
        ASSERT_EQ(list_empty(found.layout().nodes()), 1) << where;
        ASSERT_EQ(list_empty(found.layout().smallPages()), 1) << where;
    }

    /// A process that took blocks and is gone; 0 without one.
    pid_t deadBefore() const { return static_cast<pid_t>(pool.note()); }

    CMiniPool pool;
    std::vector<Held> held;

private:
    size_t m_total;
};

/// Holds the states that were found after deaths against those before and after the operation that
/// the dead were in.
class COperations
{
public:
    explicit COperations(const CMiniPool& pool) : m_pool(pool), m_before(pool.blocks()) {}

    /// `found` is a repaired copy of the pool as it is now.
    void died(CMiniPool& found, const std::string& where)
    {
        if (m_pool.ended() == m_ended) {
            m_between.push_back(found.blocks());
            return;
        }
        CMiniPool quiet(m_pool); // nobody is inside, so there was nothing to repair
        ASSERT_EQ(quiet.faults(), "") << where;
        const Blocks after = quiet.blocks();
        ASSERT_EQ(found.blocks(), after) << where;
        for (const Blocks& between : m_between) {
            ASSERT_TRUE(isBetween(between, after)) << where;
        }
        m_between.clear();
        m_before = after;
        m_ended = m_pool.ended();
    }

    bool allEnded() const { return m_between.empty(); }

private:
    bool isBetween(const Blocks& found, const Blocks& after) const
    {
        Blocks all = m_before;
        all.insert(after.begin(), after.end());
        all.insert(found.begin(), found.end());
        for (const auto& [offset, ignored] : all) {
            const BlockState* const then = find(m_before, offset);
            const BlockState* const now = find(found, offset);
            const BlockState* const later = find(after, offset);
            if (!isSame(now, then) && !isSame(now, later) && !isExpiring(now, then, later)) {
                return false;
            }
        }
        return true;
    }

    static const BlockState* find(const Blocks& blocks, size_t offset)
    {
        const auto at = blocks.find(offset);
        return at != blocks.end() ? &at->second : nullptr;
    }
    static bool isSame(const BlockState* a, const BlockState* b)
    {
        return a == nullptr || b == nullptr ? a == b : *a == *b;
    }
    /// What expires has counted down to 0 before it goes; the next pass takes it then.
    static bool isExpiring(const BlockState* now, const BlockState* then, const BlockState* later)
    {
        return later == nullptr && now != nullptr && then != nullptr && now->holders.empty() &&
               now->handOvers == then->handOvers && then->passesLeft == 1 && now->passesLeft == 0;
    }

    const CMiniPool& m_pool;
    Blocks m_before;
    uint32_t m_ended = 0;
    std::vector<Blocks> m_between;
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

/// Blocks that were not there before: so many, of the process that did it.
void expectTaken(size_t count, const Blocks& before, const Blocks& after, pid_t by)
{
    EXPECT_EQ(after.size(), before.size() + count);
    size_t taken = 0;
    for (const auto& [offset, block] : after) {
        const auto known = before.find(offset);
        if (known == before.end()) {
            ++taken;
            EXPECT_EQ(block, (BlockState{{by}, 0, 0}));
        } else {
            EXPECT_EQ(block, known->second);
        }
    }
    EXPECT_EQ(taken, count);
}

/// Three hand-overs that nobody picked up, with a pass left.
void sendAway(CMiniPool& pool)
{
    for (int i = 0; i < 3; ++i) {
        const size_t offset = pool.take(1);
        pool.send(offset);
        pool.give(offset);
    }
    pool.expire();
}

void expectExpired(const Blocks& before, const Blocks& after, const std::vector<Held>& held)
{
    Blocks expected;
    for (const Held& one : held) {
        expected[one.offset] = before.at(one.offset);
    }
    expected[held[1].offset].passesLeft = 0; // it has holders
    EXPECT_EQ(after, expected);
    EXPECT_EQ(before.size(), after.size() + 3);
}

typedef const std::vector<Held>& AllHeld;

const struct
{
    const char* name;
    void (*prepare)(CMiniPool& pool); ///< may be null
    void (*action)(CMiniPool& pool, AllHeld held);
    void (*expectDone)(const Blocks& before, const Blocks& after, AllHeld held, pid_t by);
} actions[] = {
    {"take one page", nullptr, [](CMiniPool& pool, AllHeld) { pool.take(1); },
     [](const Blocks& before, const Blocks& after, AllHeld, pid_t by) {
         expectTaken(1, before, after, by);
     }},
    {"take three pages", nullptr,
     [](CMiniPool& pool, AllHeld) { pool.take(3 * pool.layout().info->config.pageSize); },
     [](const Blocks& before, const Blocks& after, AllHeld, pid_t by) {
         expectTaken(1, before, after, by);
     }},
    {"take until small objects need a page", nullptr,
     [](CMiniPool& pool, AllHeld) {
         for (int i = 0; i < 9; ++i) {
             pool.take(1);
         }
     },
     [](const Blocks& before, const Blocks& after, AllHeld, pid_t by) {
         expectTaken(9, before, after, by);
     }},
    {"take and give back", nullptr, [](CMiniPool& pool, AllHeld) { pool.give(pool.take(1)); },
     [](const Blocks& before, const Blocks& after, AllHeld, pid_t) { EXPECT_EQ(after, before); }},
    {"give back the middle one of three", nullptr,
     [](CMiniPool& pool, AllHeld) {
         pool.take(1);
         const size_t middle = pool.take(1);
         pool.take(1);
         pool.give(middle);
     },
     [](const Blocks& before, const Blocks& after, AllHeld, pid_t by) {
         expectTaken(2, before, after, by);
     }},
    {"share a block of another and let go", nullptr,
     [](CMiniPool& pool, AllHeld held) {
         pool.share(held[2].offset);
         pool.give(held[2].offset);
     },
     [](const Blocks& before, const Blocks& after, AllHeld, pid_t) { EXPECT_EQ(after, before); }},
    {"take over a hand-over", nullptr,
     [](CMiniPool& pool, AllHeld held) {
         pool.share(held[1].offset);
         pool.receive(held[1].offset);
         pool.send(held[0].offset);
     },
     [](const Blocks& before, const Blocks& after, AllHeld held, pid_t by) {
         Blocks expected = before;
         expected[held[1].offset] = {{getpid(), getpid(), by}, 0, 2};
         expected[held[0].offset] = {{getpid()}, 1, 2};
         EXPECT_EQ(after, expected);
     }},
    {"reclaim a dead process",
     [](CMiniPool& pool) {
         const pid_t other = fork();
         if (other == 0) {
             for (int i = 0; i < 5; ++i) {
                 pool.take(1);
             }
             _exit(0);
         }
         waitpid(other, nullptr, 0);
         pool.note() = static_cast<uint32_t>(other);
     },
     [](CMiniPool& pool, AllHeld) { pool.reclaim(static_cast<pid_t>(pool.note())); },
     [](const Blocks& before, const Blocks& after, AllHeld held, pid_t) {
         EXPECT_EQ(before.size(), held.size() + 5);
         EXPECT_EQ(after.size(), held.size());
     }},
    {"let hand-overs expire", sendAway, [](CMiniPool& pool, AllHeld) { pool.expire(); },
     [](const Blocks& before, const Blocks& after, AllHeld held, pid_t) {
         expectExpired(before, after, held);
     }},
    {"let hand-overs expire, as in a long list", sendAway,
     [](CMiniPool& pool, AllHeld) {
         ExpirePass pass = {0, true};
         while (expireCleanPart(pool.refer(), &pass) == 1) {
         }
         ++pool.ended();
     },
     [](const Blocks& before, const Blocks& after, AllHeld held, pid_t) {
         expectExpired(before, after, held);
     }},
};

template <typename Action>
void prepare(CScene& scene, const Action& action)
{
    if (action.prepare != nullptr) {
        action.prepare(scene.pool);
    }
    scene.pool.ended() = 0;
}

TEST(ShareMemCrash, ADeathAtAnyInstructionHurtsNobodyElse)
{
    INFRA_NEEDS_PLAIN_CODE();
    long deaths = 0;
    for (const PoolShape& shape : shapes) {
        for (const auto& one : actions) {
            CScene scene(shape);
            prepare(scene, one);
            const Blocks before = scene.pool.blocks();
            COperations operations(scene.pool);
            const std::string where =
                std::string(one.name) + ", pages of " + std::to_string(shape.pageSize);
            long point = 0;
            pid_t by = 0;
            const long steps = stepThrough(
                scene.pool, [&](CMiniPool& pool) { one.action(pool, scene.held); },
                [&](pid_t dead) {
                    const std::string here = where + ", store " + std::to_string(++point);
                    by = dead;
                    if (HasFailure()) {
                        return; // what follows from that says no more
                    }
                    CMiniPool found(scene.pool);
                    found.repair();
                    ASSERT_EQ(found.faults(), "") << here;
                    operations.died(found, here);
                    scene.expectRepaired(found, dead, here);
                });
            ASSERT_GT(steps, 0) << where;
            ASSERT_GT(point, 0) << where;
            ASSERT_TRUE(operations.allEnded()) << where;
            one.expectDone(before, scene.pool.blocks(), scene.held, by);
            ASSERT_FALSE(HasFailure()) << where;
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
            CScene scene(shape);
            prepare(scene, one);
            stepThrough(
                scene.pool, [&](CMiniPool& pool) { one.action(pool, scene.held); },
                [&](pid_t dead) {
                    if (++all % stride != 0) {
                        return;
                    }
                    CMiniPool atOnce(scene.pool);
                    atOnce.repair();
                    const Blocks expected = atOnce.blocks();
                    CMiniPool found(scene.pool);
                    stepThrough(
                        found, [](CMiniPool& pool) { pool.repair(); },
                        [&](pid_t) {
                            ++deaths;
                            CMiniPool foundAgain(found);
                            foundAgain.repair();
                            ASSERT_EQ(foundAgain.blocks(), expected) << one.name;
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
            CScene scene(shapes[0]);
            prepare(scene, one);
            scene.pool.layout().syncZone->initFlag = 0; // until now without mutexes
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

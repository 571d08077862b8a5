// The segments of a pool at work, byte for byte as the format has them.

#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ShareMem/PoolChecker.h"
#include "ShareMem/PoolModel.h"
#include "ShareMem/SharePool.h"

using namespace Tarsel::Memory;
using namespace Tarsel::TestSupport;

namespace
{

/// Where the first byte differs that the format fixes; empty when none does. Not fixed are the
/// system's mutexes, and what lies behind the record in a small object.
std::string difference(CPoolModel& model, const CPoolChecker& pool)
{
    for (size_t i = 0; i < model.controlSize(); ++i) {
        if ((i < 8 || i >= 128) && pool.control().start[i] != model.control()[i]) {
            return "control " + std::to_string(i);
        }
    }
    for (size_t i = 0; i < model.dataSize(); i += 64) {
        if (memcmp(pool.data().start + i, model.data() + i, 48) != 0) {
            return "data, small object " + std::to_string(i / 64);
        }
    }
    return pool.control().size == model.controlSize() && pool.data().size == model.dataSize()
               ? ""
               : "sizes";
}

/// Random steps, each of the library and of the model.
class CScript
{
public:
    CScript(IMemPool* pool, CPoolModel& model) : m_pool(pool), m_model(model) {}

    void step()
    {
        const uint64_t block = m_held.empty() ? 0 : m_held[m_random() % m_held.size()];
        switch (m_held.empty() ? 0 : m_random() % 10) {
        case 0:
        case 1:
        case 2:
            return m_held.size() < 40 ? take() : letGo(block);
        case 3:
            return letGo(block);
        case 4:
            EXPECT_EQ(m_pool->getMem(block), m_data + block);
            m_held.push_back(block);
            return m_model.refer(block, getpid());
        case 5:
        case 6:
            EXPECT_TRUE(m_pool->incDeliverRef(m_data + block));
            return m_model.handOver(block);
        case 7:
            m_pool->decDeliverRef(m_data + block);
            return m_model.endHandOver(block);
        case 8:
            return m_dead.size() < 6 ? holdElsewhere(block) : reclaim();
        default:
            return expire();
        }
    }
    /// Everything goes back.
    void end()
    {
        while (!m_held.empty()) {
            letGo(m_held.front());
        }
        expire();
        while (!m_dead.empty()) {
            reclaim();
        }
        expire();
        expire();
    }

private:
    void take()
    {
        size_t size = 1 + m_random() % 5000;
        const uint64_t block = m_model.take(size, getpid());
        m_data = static_cast<uint8_t*>(m_pool->allocMem(size)) - block;
        m_held.push_back(block);
    }
    void letGo(uint64_t block)
    {
        EXPECT_TRUE(m_pool->freeMem(m_data + block));
        m_model.release(block, getpid());
        m_held.erase(std::find(m_held.begin(), m_held.end(), block));
    }
    /// A process that dies with two references.
    void holdElsewhere(uint64_t block)
    {
        m_dead.insert(m_dead.begin(), 2, startProcess([&] {
                          m_pool->getMem(block);
                          m_pool->getMem(block);
                      }));
        endOf(m_dead.front());
        m_model.refer(block, m_dead.front());
        m_model.refer(block, m_dead.front());
    }
    void reclaim()
    {
        EXPECT_TRUE(m_pool->freeResourceByPid(m_dead.back()));
        m_model.reclaim(m_dead.back());
        m_dead.pop_back();
    }
    void expire()
    {
        m_pool->expireClean();
        m_model.expire();
    }

    IMemPool* m_pool;
    CPoolModel& m_model;
    std::minstd_rand m_random;
    uint8_t* m_data = nullptr;
    std::vector<uint64_t> m_held; ///< once for each reference
    std::vector<pid_t> m_dead;    ///< so too
};

TEST(ShareMemFormat, EveryStepLeavesTheBytesOfTheFormat)
{
    const struct
    {
        uint32_t pageSize, pageNum, orders;
    } shapes[] = {{1024, 333, 0}, {2048, 256, 4}};
    for (const auto& shape : shapes) {
        const ChildResult child = runWithPools([&] {
            IMemPool::PoolParam param = poolParam(shape.pageSize * shape.pageNum, shape.pageSize);
            param.orderNum = shape.orders;
            makePool(param);
            CPoolModel model(shape.pageSize, shape.pageNum, shape.orders);
            CScript script(IMemPool::loadMemPool(param), model);
            CPoolChecker pool;
            ASSERT_EQ(difference(model, pool), "") << "fresh";
            for (int i = 0; i < 1000; ++i) {
                script.step();
                ASSERT_EQ(difference(model, pool), "") << "step " << i;
            }
            script.end();
            EXPECT_EQ(difference(model, pool), "") << "end";
            EXPECT_EQ(freeSize(), shape.pageSize * shape.pageNum);
        });
        EXPECT_TRUE(child.succeeded()) << child.report();
    }
}

// Attaching --------------------------------------------------------------------------------------

#if defined(__SANITIZE_THREAD__)
constexpr int attachRounds = 15; // a process takes its time to end
#else
constexpr int attachRounds = 500;
#endif

std::atomic<int>* s_arrived;

/// Waits until `count` have come here.
void meet(int count)
{
    ++*s_arrived;
    for (int turn = 0; *s_arrived < count; ++turn) {
        if (turn > 10000) {
            sched_yield();
        }
    }
}

/// Both have everything mapped before either looks at it.
void* getSegmentAtOnce(const char* key, size_t size, int mode, int flag)
{
    void* const mapping = shareMemGet(key, size, mode, flag);
    if (strcmp(key, dataSegment) == 0) {
        meet(2);
    }
    return mapping;
}

void attachAndUse(const IMemPool::PoolParam& param)
{
    gloShareMemOperation.shareMemGet = getSegmentAtOnce;
    IMemPool* const pool = IMemPool::loadMemPool(param);
    ASSERT_NE(pool, nullptr);
    for (int i = 0; i < 30; ++i) {
        size_t size = 1;
        EXPECT_TRUE(pool->freeMem(pool->allocMem(size)));
    }
    meet(4);
    EXPECT_EQ(freeSize(), param.poolSize);
}

TEST(ShareMemFormat, OfTwoThatAttachToAFreshPoolOneInitialisesIt)
{
    const ChildResult child = runWithPools([] {
        CPoolModel model(1024, 77, 0);
        ASSERT_NE(shmget(strToKey(controlSegment), model.controlSize(), IPC_CREAT | 0640), -1);
        ASSERT_NE(shmget(strToKey(dataSegment), model.dataSize(), IPC_CREAT | 0640), -1);
        const CPoolChecker pool;
        s_arrived = &makeShared<std::atomic<int>>();
        for (int round = 0; round < attachRounds && !testing::Test::HasFailure(); ++round) {
            memset(pool.control().start, 0, pool.control().size);
            for (const size_t zone : CPoolModel::zones) {
                memcpy(pool.control().start + zone, model.control() + zone, 4); // its length
            }
            *s_arrived = 0;
            const auto attach = [] { attachAndUse(poolParam(77 * 1024, 1024)); };
            const pid_t attachers[] = {startProcess(attach), startProcess(attach)};
            EXPECT_EQ(endOf(attachers[0]), 0) << "round " << round;
            EXPECT_EQ(endOf(attachers[1]), 0) << "round " << round;
        }
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
}

} // namespace

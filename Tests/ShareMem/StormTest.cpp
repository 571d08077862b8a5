// A storm: processes make, fill, hand over, verify and free blocks at full speed while others are
// killed at random. What the survivors read is whole, and in the end all memory is free.
//
// The supervisor is nobody special: the process that made the pool is gone before it starts, and it
// has no thread, so that it may fork anywhere. With INFRA_STORM in the environment thousands die.

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/CPrintLog.h"
#include "Memory/MemoryBlock.h"
#include "Memory/ShareMem/ShareMemory.h"
#include "ShareMem/PoolChecker.h"
#include "ShareMem/SharePool.h"

using namespace Tarsel::Memory;
using Tarsel::TestSupport::ChildResult;
using Tarsel::TestSupport::countOf;
using Tarsel::TestSupport::CPoolChecker;
using Tarsel::TestSupport::freeSize;
using Tarsel::TestSupport::makePool;
using Tarsel::TestSupport::makeShared;
using Tarsel::TestSupport::poolParam;
using Tarsel::TestSupport::runWithPools;

namespace
{

constexpr size_t poolSize = 4 << 20;
constexpr size_t pageSize = 1024;
constexpr size_t largestBlock = 20000;
constexpr size_t workers = 4;
constexpr size_t heldMost = 16;
constexpr int killsARound = 40;

int killsWanted()
{
    return getenv("INFRA_STORM") != nullptr ? 10000 : 400;
}

/// In memory of all processes of the storm.
struct Counts
{
    std::atomic<long> made;
    std::atomic<long> handedOver;
    std::atomic<long> claimed;
    std::atomic<long> freed;
    std::atomic<long> damaged;
    std::atomic<long> refused; ///< claims of blocks that were on their way
};

// A worker ---------------------------------------------------------------------------------------

/// Eight bytes of seed, then bytes that follow from it.
void fill(CMemoryBlock* block, uint64_t seed)
{
    uint8_t* const bytes = static_cast<uint8_t*>(block->getBuffer());
    for (size_t i = 0; i + sizeof(seed) <= block->getTotalSize(); i += sizeof(seed)) {
        const uint64_t word = seed + i * 0x9E3779B97F4A7C15;
        memcpy(bytes + i, &word, sizeof(word));
    }
}

bool isWhole(CMemoryBlock* block)
{
    const uint8_t* const bytes = static_cast<const uint8_t*>(block->getBuffer());
    uint64_t seed = 0;
    memcpy(&seed, bytes, sizeof(seed));
    for (size_t i = 0; i + sizeof(seed) <= block->getTotalSize(); i += sizeof(seed)) {
        const uint64_t word = seed + i * 0x9E3779B97F4A7C15;
        if (memcmp(bytes + i, &word, sizeof(word)) != 0) {
            return false;
        }
    }
    return true;
}

class CWorker
{
public:
    CWorker(Counts& counts, const int (&way)[2], unsigned seed)
        : m_counts(counts), m_way{way[0], way[1]}, m_random(seed)
    {}

    /// Until somebody kills it.
    [[noreturn]] void run()
    {
        for (;;) {
            switch (m_random() % 4) {
            case 0:
                make();
                break;
            case 1:
                handOver();
                break;
            case 2:
                claim();
                break;
            default:
                drop();
                break;
            }
        }
    }

private:
    /// Mostly small, so that most of the time goes into the pool and not into payload.
    size_t randomSize() { return 1 + (m_random() % largestBlock >> m_random() % 12); }

    void make()
    {
        CMemoryBlock* const block =
            m_held.size() < heldMost ? CMemoryBlock::createMemoryBlock(randomSize()) : nullptr;
        if (block != nullptr) {
            fill(block, m_random());
            m_held.push_back(block);
            ++m_counts.made;
        }
    }

    /// Half of the blocks stay with this process as well.
    void handOver()
    {
        if (m_held.empty()) {
            return;
        }
        CMemoryBlock* const block = m_held[m_random() % m_held.size()];
        MemoryBlockDes description;
        CMemoryBlock::getMemoryBlockDesc(block->getBuffer(), &description, sizeof(description));
        if (write(m_way[1], &description, sizeof(description)) != sizeof(description)) {
            delete CMemoryBlock::getMemoryBlock(&description, sizeof(description)); // no room
            return;
        }
        ++m_counts.handedOver;
        if (m_random() % 2 == 0) {
            forget(block);
        }
    }

    void claim()
    {
        MemoryBlockDes description;
        if (read(m_way[0], &description, sizeof(description)) != sizeof(description)) {
            return;
        }
        CMemoryBlock* const block = CMemoryBlock::getMemoryBlock(&description, sizeof(description));
        if (block == nullptr) {
            ++m_counts.refused;
            return;
        }
        ++m_counts.claimed;
        m_counts.damaged += isWhole(block) ? 0 : 1;
        if (m_held.size() < heldMost) {
            m_held.push_back(block);
        } else {
            delete block;
        }
    }

    void drop()
    {
        if (!m_held.empty()) {
            CMemoryBlock* const block = m_held[m_random() % m_held.size()];
            m_counts.damaged += isWhole(block) ? 0 : 1;
            forget(block);
            ++m_counts.freed;
        }
    }

    void forget(CMemoryBlock* block)
    {
        m_held.erase(std::find(m_held.begin(), m_held.end(), block));
        delete block;
    }

    Counts& m_counts;
    const int m_way[2];
    std::minstd_rand m_random;
    std::vector<CMemoryBlock*> m_held;
};

// The supervisor ---------------------------------------------------------------------------------

class CStorm
{
public:
    CStorm() : m_counts(&makeShared<Counts>())
    {
        EXPECT_EQ(pipe2(m_way, O_NONBLOCK), 0);
        fcntl(m_way[1], F_SETPIPE_SZ, 4096);
    }

    void run(int kills)
    {
        const uint32_t all = freeSize();
        while (m_kills < kills && !testing::Test::HasFailure()) {
            for (size_t i = 0; i < workers; ++i) {
                m_workers.push_back(start());
            }
            for (int i = 0; i < killsARound; ++i) {
                pause();
                const size_t chosen = m_random() % workers;
                end(m_workers[chosen]);
                EXPECT_EQ(m_checker.faults(), "") << "after " << m_kills << " kills";
                m_workers[chosen] = start();
            }
            endRound();
            EXPECT_EQ(freeSize(), all) << "after " << m_kills << " kills";
        }
        EXPECT_EQ(m_counts->damaged, 0);
        EXPECT_EQ(m_counts->refused, 0);
        EXPECT_GT(m_counts->claimed, 0);
        fprintf(stderr, "kills: %d, blocks made: %ld, handed over: %ld, claimed: %ld, freed: %ld\n",
                m_kills, m_counts->made.load(), m_counts->handedOver.load(),
                m_counts->claimed.load(), m_counts->freed.load());
    }

private:
    pid_t start()
    {
        const unsigned seed = static_cast<unsigned>(m_random());
        fflush(nullptr);
        const pid_t process = fork();
        if (process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setvbuf(stdout, nullptr, _IOLBF, 0); // what it says is out when it dies
            CWorker(*m_counts, m_way, seed).run();
        }
        return process;
    }

    /// Some hundred operations long.
    void pause()
    {
        const timespec length = {0, static_cast<long>(m_random() % 3000000)};
        nanosleep(&length, nullptr);
    }

    void end(pid_t process)
    {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
        ++m_kills;
        // A process has one reference to a block, and a second while it claims it.
        pool()->freeResourceByPid(process);
        pool()->freeResourceByPid(process);
    }

    /// Everybody dies; what was on its way expires.
    void endRound()
    {
        for (const pid_t process : m_workers) {
            end(process);
        }
        m_workers.clear();
        MemoryBlockDes description;
        while (read(m_way[0], &description, sizeof(description)) > 0) {
        }
        pool()->expireClean();
        pool()->expireClean();
        EXPECT_EQ(m_checker.faults(), "") << "after " << m_kills << " kills";
    }

    static IMemPool* pool() { return IMemPool::loadMemPool(poolParam(poolSize, pageSize)); }

    Counts* m_counts;
    int m_way[2];
    std::minstd_rand m_random;
    std::vector<pid_t> m_workers;
    CPoolChecker m_checker;
    int m_kills = 0;
};

TEST(ShareMemStorm, WhoDiesTakesNothingAlong)
{
    const int kills = killsWanted();
    const ChildResult child = runWithPools([kills] {
        alarm(60 + static_cast<unsigned>(kills) / 20);
        Infra_openLog = CLOSE_LOG; // a pool may be full for a moment
        makePool(poolParam(poolSize, pageSize));
        CMemoryBlock::setPoolParameter(poolParam(poolSize, pageSize));
        CStorm().run(kills);
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    const size_t summary = child.errorOutput.find("kills: ");
    printf("%s", summary != std::string::npos ? child.errorOutput.c_str() + summary : "");
    printf("deaths inside the mutex: %d\n", countOf(child.output, "process exit with lock.["));
}

} // namespace

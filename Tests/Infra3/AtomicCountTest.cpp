#include "Infra/Infra3/AtomicCount.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using Tarsel::Infra::CAtomicCount;

static_assert(sizeof(CAtomicCount) == 4);

TEST(AtomicCount, ChangesGiveTheNewValue)
{
    CAtomicCount count;
    EXPECT_EQ(count.value(), 0);
    EXPECT_EQ(++count, 1);
    EXPECT_EQ(--count, 0);
    EXPECT_EQ(--count, -1);
    CAtomicCount owners(2);
    EXPECT_EQ(owners.dropUnlessLast(), 1);
    EXPECT_EQ(owners.dropUnlessLast(), 0);
    EXPECT_EQ(owners, 1);
    EXPECT_EQ(owners.dropOnly(), 0);
    EXPECT_EQ(owners, 0);
    const CAtomicCount set(7);
    EXPECT_EQ(set, 7);
}

TEST(AtomicCount, ExactlyOneThreadBringsItToZeroAndSeesWhatTheOthersDid)
{
    constexpr int threadCount = 4;
    for (int round = 0; round < 300; ++round) {
        CAtomicCount count(threadCount);
        int done[threadCount] = {}; // plain: only the count orders them
        std::atomic<int> sum{0};
        std::vector<std::thread> threads;
        for (int id = 0; id < threadCount; ++id) {
            threads.emplace_back([&, id] {
                done[id] = id + 1;
                if (--count == 0) {
                    sum += done[0] + done[1] + done[2] + done[3];
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(sum, 10);
    }
}

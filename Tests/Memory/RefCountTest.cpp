// Reference counts: a count that has reached zero stays there, whoever races for it.

#include "Memory/RefCount.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <type_traits>
#include <vector>

namespace
{

using Tarsel::Memory::CRefCount;

static_assert(sizeof(CRefCount) == 32 && alignof(CRefCount) == 8);
static_assert(!std::is_copy_constructible_v<CRefCount> && !std::is_copy_assignable_v<CRefCount>);

TEST(RefCount, StrongAndWeakCountApart)
{
    CRefCount count;
    EXPECT_EQ(count.getStrong(), 1);
    EXPECT_EQ(count.getWeak(), 1);
    EXPECT_EQ(count.incStrong(), 2);
    EXPECT_EQ(count.tryIncStrong(), 3);
    EXPECT_EQ(count.decWeak(), 0);
    EXPECT_EQ(count.incWeak(), 1);
    EXPECT_EQ(count.decStrong(), 2);
    EXPECT_EQ(count.decStrong(), 1);
    EXPECT_EQ(count.decStrong(), 0);
    EXPECT_EQ(count.tryIncStrong(), 0);
    EXPECT_EQ(count.getStrong(), 0);
    EXPECT_EQ(count.getWeak(), 1);
}

TEST(RefCount, CountsHave64BitsAndResultsTheLow32)
{
    CRefCount count;
    const int64_t large = 0x500000000;
    memcpy(static_cast<void*>(&count), &large, sizeof(large));
    EXPECT_EQ(count.getStrong(), 0);
    EXPECT_EQ(count.tryIncStrong(), 1) << "only the low half was zero";
}

TEST(RefCount, WhoeverTakesAReferenceHasALiveObject)
{
    for (int round = 0; round < 300; ++round) {
        CRefCount count;
        std::atomic<int> ended{0};
        int payload = 42; // changed by whoever brings the count to zero, read by holders
        const auto drop = [&] {
            if (count.decStrong() == 0) {
                payload = 0;
                ++ended;
            }
        };
        std::atomic<bool> revived{false};
        std::vector<std::thread> users;
        for (int i = 0; i < 3; ++i) {
            users.emplace_back([&] {
                while (count.tryIncStrong() != 0) {
                    if (payload != 42) {
                        revived = true;
                    }
                    drop();
                }
            });
        }
        drop();
        for (std::thread& user : users) {
            user.join();
        }
        ASSERT_EQ(ended, 1);
        ASSERT_FALSE(revived);
        ASSERT_EQ(count.getStrong(), 0);
    }
}

} // namespace

#include "Utils/Math.h"

#include <cstdint>

#include <gtest/gtest.h>

TEST(Log2i, IsTheHighestBitSet)
{
    const struct
    {
        uint32_t x;
        int log;
    } cases[] = {{0, 0},    {1, 0},     {2, 1},           {3, 1},           {4, 2},
                 {1023, 9}, {1024, 10}, {0x7FFFFFFF, 30}, {0x80000000, 31}, {UINT32_MAX, 31}};
    for (const auto& one : cases) {
        EXPECT_EQ(Tarsel::Utils::log2i(one.x), one.log) << one.x;
    }
}

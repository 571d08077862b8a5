// Interval sets: the rules one by one, and long runs against a set of points.

#include <algorithm>
#include <bitset>
#include <climits>
#include <csignal>
#include <functional>
#include <random>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Support/ChildProcess.h"
#include "Support/FailingHeap.h"
#include "Utils/IntervalSet.h"

namespace Tarsel
{
namespace Utils
{
namespace
{

std::string text(const CIntervalSet& set)
{
    std::string all;
    for (int i = 0; i < set.count(); ++i) {
        all += std::to_string(set.get(i).first) + "-" + std::to_string(set.get(i).second) + " ";
    }
    return all;
}

TEST(IntervalSetTest, RangesMergeAndSplit)
{
    const struct
    {
        char operation;
        CIntervalSet::Interval range;
        const char* after;
    } cases[] = {
        {'+', {15, 35}, "10-40 "},
        {'+', {20, 30}, "10-40 "},
        {'+', {20, 25}, "10-25 30-40 "},
        {'+', {5, 10}, "5-20 30-40 "},
        {'+', {12, 15}, "10-20 30-40 "},
        {'+', {50, 60}, "10-20 30-40 50-60 "},
        {'+', {40, 60}, "10-20 30-60 "},
        {'+', {INT_MIN, INT_MAX}, "-2147483648-2147483647 "},
        {'+', {15, 15}, "10-20 30-40 "},
        {'+', {35, 15}, "10-20 30-40 "},
        {'-', {15, 35}, "10-15 35-40 "},
        {'-', {12, 15}, "10-12 15-20 30-40 "},
        {'-', {15, 20}, "10-15 30-40 "},
        {'-', {20, 30}, "10-20 30-40 "},
        {'-', {10, 20}, "30-40 "},
        {'-', {5, 45}, ""},
        {'-', {INT_MIN, 11}, "11-20 30-40 "},
        {'-', {35, 15}, "10-20 30-40 "},
    };
    for (const auto& one : cases) {
        CIntervalSet set;
        set.insert({10, 20});
        set.insert({30, 40});
        one.operation == '+' ? set.insert(one.range) : set.erase(one.range);
        EXPECT_EQ(text(set), one.after)
            << one.operation << one.range.first << "," << one.range.second;
    }
}

TEST(IntervalSetTest, FindingIsByTheEnd)
{
    CIntervalSet set;
    EXPECT_EQ(set.find(0), -1);
    set.insert({-10, 20});
    set.insert({30, 40});
    const int places[][2] = {{INT_MIN, 0}, {-10, 0}, {0, 0},  {20, 0},  {21, 1},
                             {30, 1},      {35, 1},  {40, 1}, {41, -1}, {INT_MAX, -1}};
    for (const auto& [time, index] : places) {
        EXPECT_EQ(set.find(time), index) << time;
    }
}

TEST(IntervalSetTest, SetsMergeUpToTheEndsOfTheNumbers)
{
    CIntervalSet lower;
    CIntervalSet upper;
    lower.insert({INT_MIN, -5});
    lower.insert({0, 7});
    upper.insert({-5, -1});
    upper.insert({3, INT_MAX});
    lower += upper;
    EXPECT_EQ(text(lower), "-2147483648--1 0-2147483647 ");
}

TEST(IntervalSetTest, AskingForWhatIsNotThereEndsTheProcess)
{
    for (const int index : {0, -1, INT_MIN, INT_MAX, 1 << 30}) {
        const auto result = TestSupport::runInChild([index] { CIntervalSet().get(index); });
        EXPECT_EQ(result.signal, SIGABRT) << index;
        EXPECT_NE(result.errorOutput.find("size_t(index * 2 + 1) < m_internal->keys.size()"),
                  std::string::npos)
            << result.report();
    }
}

TEST(IntervalSetTest, WithoutMemoryASetStaysAsItWas)
{
    CIntervalSet set;
    CIntervalSet other;
    other.insert({100, 110});
    const std::function<void()> steps[] = {
        [&] { set.insert({-10, -5}); }, [&] { set.insert({1000, 1001}); },
        [&] { set.erase({5, 6}); },     [&] { set += other; },
        [&] { other = set; },           [&] { CIntervalSet copy(set); },
    };
    for (const auto& step : steps) {
        set = CIntervalSet();
        for (int start = 0; start < 80; start += 10) { // 16 bounds: a vector that is full
            set.insert({start, start + 8});
        }
        const std::string before = text(set);
        {
            const TestSupport::CMemoryShortage shortage(1, TestSupport::Shortage::lasting);
            EXPECT_FALSE(TestSupport::managed(step));
        }
        EXPECT_EQ(text(set), before);
        EXPECT_EQ(text(other), "100-110 ");
    }
}

TEST(IntervalSetTest, ClearingKeepsTheRoom)
{
    CIntervalSet set;
    for (int round = 0; round < 2; ++round) {
        const TestSupport::CMemoryShortage shortage(round == 0 ? INT_MAX : 1,
                                                    TestSupport::Shortage::lasting);
        for (int start = 0; start < 1000; start += 10) {
            set.insert({start, start + 8});
        }
        EXPECT_EQ(set.count(), 100);
        set.clear();
        EXPECT_TRUE(set.empty());
    }
}

constexpr size_t pointCount = 200;
constexpr int lowest = -100; ///< what the first point stands for
typedef std::bitset<pointCount> Points;

int numberOf(size_t point)
{
    return static_cast<int>(point) + lowest;
}

/// The index of the first run of points that ends at a point or behind it.
int found(const Points& points, size_t from)
{
    int runs = 0; // that have ended
    for (size_t point = 0; point < pointCount; ++point) {
        const bool ends =
            points.test(point) && (point + 1 == pointCount || !points.test(point + 1));
        if (ends && point + 1 >= from) {
            return runs;
        }
        runs += ends ? 1 : 0;
    }
    return -1;
}

std::string text(const Points& points)
{
    std::string all;
    for (size_t point = 0; point < pointCount; ++point) {
        if (points.test(point) && (point == 0 || !points.test(point - 1))) {
            all += std::to_string(numberOf(point)) + "-";
        }
        if (points.test(point) && (point + 1 == pointCount || !points.test(point + 1))) {
            all += std::to_string(numberOf(point + 1)) + " ";
        }
    }
    return all;
}

TEST(IntervalSetTest, LongRunsAgreeWithASetOfPoints)
{
    std::mt19937 random(11);
    CIntervalSet sets[2];
    Points models[2];
    for (int step = 0; step < 50000; ++step) {
        const size_t which = random() % 2;
        const size_t other = random() % 2; // also itself
        const size_t first = random() % pointCount;
        const size_t second = std::min(first + random() % 12, pointCount);
        const CIntervalSet::Interval range(numberOf(first), numberOf(second));
        switch (random() % 50) {
        case 0:
            sets[which] += sets[other];
            models[which] |= models[other];
            break;
        case 1:
            sets[which].swap(sets[other]);
            std::swap(models[which], models[other]);
            break;
        case 2:
            sets[which] = CIntervalSet(sets[other]);
            models[which] = models[other];
            break;
        case 3:
            sets[which].clear();
            models[which].reset();
            break;
        default: {
            const bool inserts = random() % 2 == 0;
            inserts ? sets[which].insert(range) : sets[which].erase(range);
            for (size_t point = first; point < second; ++point) {
                models[which].set(point, inserts);
            }
        }
        }
        ASSERT_EQ(text(sets[which]), text(models[which])) << step;
        ASSERT_EQ(sets[which].empty(), models[which].none());
        if (step % 64 == 0) {
            for (size_t point = 0; point <= pointCount; ++point) {
                ASSERT_EQ(sets[which].find(numberOf(point)), found(models[which], point)) << point;
            }
        }
    }
}

} // namespace
} // namespace Utils
} // namespace Tarsel

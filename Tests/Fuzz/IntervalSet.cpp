// Inserts and erases ranges of a small world, three bytes a step, beside a set of its points.

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "Utils/IntervalSet.h"

namespace
{

constexpr size_t pointCount = 256;

void expect(bool kept)
{
    if (!kept) {
        std::abort();
    }
}

/// The set has exactly the points, in intervals that are apart.
void compare(const Tarsel::Utils::CIntervalSet& set, const std::bitset<pointCount>& points)
{
    size_t covered = 0;
    for (int i = 0; i < set.count(); ++i) {
        const auto [first, second] = set.get(i);
        expect(first < second && (i == 0 || set.get(i - 1).second < first));
        for (int point = first; point < second; ++point) {
            expect(points.test(static_cast<size_t>(point)));
            ++covered;
        }
        expect(set.find(first) == i && set.find(second) == i);
    }
    expect(covered == points.count());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Tarsel::Utils::CIntervalSet sets[2];
    std::bitset<pointCount> points[2];
    for (; size >= 3; data += 3, size -= 3) {
        const size_t which = data[0] % 2;
        const int first = data[1];
        const int second = data[2];
        if (data[0] / 2 % 8 == 0) {
            sets[which] += sets[1 - which];
            points[which] |= points[1 - which];
        } else {
            const bool inserts = data[0] / 16 % 2 == 0;
            inserts ? sets[which].insert({first, second}) : sets[which].erase({first, second});
            for (int point = first; point < second; ++point) {
                points[which].set(static_cast<size_t>(point), inserts);
            }
        }
        compare(sets[which], points[which]);
    }
    return 0;
}

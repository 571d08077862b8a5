// IntervalSet.cpp: sets of integers as sorted bounds.
//
// The bounds of all intervals stand in one vector, so a key at an even place begins an interval and
// one at an odd place ends it. To erase is to insert into the complement, whose intervals begin at
// odd places: one routine does both, told the parity of the places where what it works on begins.

#include "Utils/IntervalSet.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Infra3/AssertFront.h"

namespace Tarsel
{
namespace Utils
{

typedef std::vector<int32_t> Keys;

/// Always true: `keys` ascends strictly and has an even number of elements.
struct IntervalSetInternal
{
    Keys keys;
};

namespace
{

enum Parity : size_t
{
    ofStarts = 0,
    ofEnds = 1
};

/// The place of the first key that is not below `bound`, from `from` to `to`. Three keys are looked
/// at in each round, at once, and none decides on a branch: nobody could predict those.
size_t placeBetween(const Keys& keys, int bound, size_t from, size_t to)
{
    const int32_t* place = keys.data() + from;
    size_t left = to - from;
    while (left > 3) {
        const size_t part = left / 4;
        const size_t below = size_t{place[part - 1] < bound} + size_t{place[2 * part - 1] < bound} +
                             size_t{place[3 * part - 1] < bound};
        place += below * part;
        left -= 3 * part;
    }
    for (; left > 0; --left) {
        place += size_t{*place < bound};
    }
    return static_cast<size_t>(place - keys.data());
}

size_t placeOf(const Keys& keys, int bound)
{
    return placeBetween(keys, bound, 0, keys.size());
}

/// The same from `from` on, where it is likely to be near.
size_t placeBehind(const Keys& keys, int bound, size_t from)
{
    size_t step = 1;
    while (keys.size() - from > step && keys[from + step - 1] < bound) {
        from += step;
        step *= 2;
    }
    return placeBetween(keys, bound, from, std::min(from + step, keys.size()));
}

/// The same as placeOf(), and at once for a bound in the last interval or behind it.
size_t placeNearEnd(const Keys& keys, int bound)
{
    const size_t size = keys.size();
    if (size == 0 || keys[size - 2] >= bound) {
        return placeOf(keys, bound);
    }
    return keys[size - 1] < bound ? size : size - 1;
}

bool has(size_t place, Parity parity)
{
    return place % 2 == parity;
}

void removeKeys(Keys& keys, size_t from, size_t to)
{
    keys.erase(keys.begin() + static_cast<std::ptrdiff_t>(from),
               keys.begin() + static_cast<std::ptrdiff_t>(to));
}

/// A range between two neighbouring keys.
void cover(Keys& keys, int first, int second, size_t place)
{
    if (place == keys.size() || second < keys[place]) {
        const int32_t bounds[] = {first, second};
        keys.insert(keys.begin() + static_cast<std::ptrdiff_t>(place), bounds, bounds + 2);
    } else {
        keys[place] = first; // it reaches up to what begins here
    }
}

/// A range with the keys from `low` to before `high` in it.
void coverKeys(Keys& keys, int first, int second, size_t low, size_t high, Parity starts)
{
    size_t removed = high;
    if (has(high, starts)) {
        if (high == keys.size() || second < keys[high]) {
            keys[high - 1] = second;
            removed = high - 1;
        } else {
            removed = high + 1; // it reaches up to what begins here
        }
    }
    if (has(low, starts)) {
        keys[low] = first;
        ++low;
    }
    removeKeys(keys, low, removed);
}

/// Adds a range to the intervals that begin at places of that parity.
void add(Keys& keys, const CIntervalSet::Interval& range, Parity starts)
{
    const auto [first, second] = range;
    if (first >= second) {
        return;
    }
    const size_t low = placeNearEnd(keys, first);
    const size_t high = placeBehind(keys, second, low);
    if (low != high) {
        coverKeys(keys, first, second, low, high, starts);
    } else if (has(low, starts)) {
        cover(keys, first, second, low);
    }
    INFRA_ASSERT_TEXT(keys.size() % 2 == 0, "keys.size() % 2 == 0");
}

/// Adds an interval that begins not before the last one.
void append(Keys& keys, const int32_t* bounds)
{
    if (!keys.empty() && bounds[0] <= keys.back()) {
        keys.back() = std::max(keys.back(), bounds[1]);
    } else {
        keys.insert(keys.end(), bounds, bounds + 2);
    }
}

Keys merged(const Keys& ours, const Keys& theirs)
{
    Keys keys;
    keys.reserve(ours.size() + theirs.size());
    const int32_t* our = ours.data();
    const int32_t* their = theirs.data();
    const int32_t* const ourEnd = our + ours.size();
    const int32_t* const theirEnd = their + theirs.size();
    while (our != ourEnd || their != theirEnd) {
        const bool isOurs = their == theirEnd || (our != ourEnd && *our < *their);
        const int32_t*& next = isOurs ? our : their;
        append(keys, next);
        next += 2;
    }
    return keys;
}

} // namespace

CIntervalSet::CIntervalSet() : m_internal(new IntervalSetInternal) {}

CIntervalSet::CIntervalSet(const CIntervalSet& other)
    : m_internal(new IntervalSetInternal(*other.m_internal))
{}

CIntervalSet& CIntervalSet::operator=(const CIntervalSet& other)
{
    if (this != &other) {
        m_internal->keys = other.m_internal->keys;
    }
    return *this;
}

CIntervalSet::~CIntervalSet()
{
    delete m_internal;
}

void CIntervalSet::swap(CIntervalSet& other)
{
    m_internal->keys.swap(other.m_internal->keys);
}

void CIntervalSet::clear()
{
    m_internal->keys.clear();
}

bool CIntervalSet::empty() const
{
    return m_internal->keys.empty();
}

int CIntervalSet::count() const
{
    return static_cast<int>(m_internal->keys.size() / 2);
}

CIntervalSet::Interval CIntervalSet::get(int index) const
{
    const size_t last = static_cast<size_t>(int64_t{index} * 2 + 1);
    INFRA_ASSERT_TEXT(last < m_internal->keys.size(),
                      "size_t(index * 2 + 1) < m_internal->keys.size()");
    return {m_internal->keys[last - 1], m_internal->keys[last]};
}

int CIntervalSet::find(int time) const
{
    const size_t place = placeOf(m_internal->keys, time);
    return place == m_internal->keys.size() ? -1 : static_cast<int>(place / 2);
}

void CIntervalSet::insert(const Interval& range)
{
    add(m_internal->keys, range, ofStarts);
}

void CIntervalSet::erase(const Interval& range)
{
    add(m_internal->keys, range, ofEnds);
}

CIntervalSet& CIntervalSet::operator+=(const CIntervalSet& other)
{
    if (other.empty()) {
        return *this;
    }
    if (empty()) {
        return *this = other;
    }
    m_internal->keys = merged(m_internal->keys, other.m_internal->keys);
    return *this;
}

} // namespace Utils
} // namespace Tarsel

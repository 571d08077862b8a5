#ifndef INFRA_UTILS_INTERVALSET_H
#define INFRA_UTILS_INTERVALSET_H

#include <utility>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Utils
{

struct IntervalSetInternal;

/// A set of integers kept as the intervals that they form, such as the times of recordings.
///
/// Behaviour: intervals are half open, [first, second). They are always apart and in order: what
/// overlaps or touches is one, and erasing from the middle of one leaves two.
/// Cost: eight bytes an interval. Finding takes a binary search; inserting and erasing move what is
/// behind, so at the end, where times usually come in, they take constant time.
/// Failure: without memory std::bad_alloc, and the set is as it was.
/// Threads: one thread at a time changes a set; several may read it.
///
///     CIntervalSet recorded;
///     recorded.insert({900, 960});
///     recorded.insert({960, 1020}); // one interval, [900, 1020)
class INFRA_API CIntervalSet
{
public:
    typedef std::pair<int, int> Interval;

    /// Empty.
    CIntervalSet();
    CIntervalSet(const CIntervalSet& other);
    CIntervalSet& operator=(const CIntervalSet& other);
    ~CIntervalSet();

    void swap(CIntervalSet& other);
    /// Removes all; the memory stays for what comes next.
    void clear();

    bool empty() const;
    /// How many intervals there are.
    int count() const;
    /// Number `index` of them in ascending order, from 0. The process ends when there is none.
    Interval get(int index) const;
    /// The number of the first interval that ends at `time` or behind it: the one that holds
    /// `time`, or ends there, or is the next. -1 when there is none.
    int find(int time) const;

    /// Adds a range. One that is empty or reversed changes nothing.
    void insert(const Interval& range);
    /// Removes a range. One that is empty or reversed changes nothing.
    void erase(const Interval& range);
    /// Adds all of another set, in one pass over both.
    CIntervalSet& operator+=(const CIntervalSet& other);

private:
    IntervalSetInternal* m_internal;
};

} // namespace Utils
} // namespace Tarsel

#endif

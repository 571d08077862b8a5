// Sets of intervals beside those of Boost.
//
// interval_insert/random     a range of up to 100 anywhere below 1,000,000, the first 10,000 of them
// interval_erase/random      likewise out of what those have made
// interval_insert/ascending  a range behind all others, the first 10,000 of them
// interval_find/5000         in a set of about so many intervals, anywhere

#include <boost/icl/interval_set.hpp>
#include <boost/version.hpp>
#include <random>
#include <utility>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Utils/IntervalSet.h"

namespace
{

constexpr int rangeCount = 10000;
constexpr int span = 1000000;

typedef std::pair<int, int> Range;

std::vector<Range> randomRanges(unsigned seed)
{
    std::mt19937 random(seed);
    std::vector<Range> ranges;
    for (int i = 0; i < rangeCount; ++i) {
        const int first = static_cast<int>(random() % span);
        ranges.emplace_back(first, first + 1 + static_cast<int>(random() % 100));
    }
    return ranges;
}

std::vector<Range> ascendingRanges()
{
    std::vector<Range> ranges;
    for (int i = 0; i < rangeCount; ++i) {
        ranges.emplace_back(i * 100, i * 100 + 60);
    }
    return ranges;
}

class CInfraSet
{
public:
    void insert(const Range& range) { m_set.insert(range); }
    void erase(const Range& range) { m_set.erase(range); }
    int find(int time) const { return m_set.find(time); }

private:
    Tarsel::Utils::CIntervalSet m_set;
};

class CBoostSet
{
public:
    void insert(const Range& range) { m_set.insert(interval(range)); }
    void erase(const Range& range) { m_set.erase(interval(range)); }
    int find(int time) const
    {
        const auto found = m_set.find(time);
        return found == m_set.end() ? -1 : found->lower();
    }

private:
    typedef boost::icl::interval_set<int> Set;

    static Set::interval_type interval(const Range& range)
    {
        return Set::interval_type::right_open(range.first, range.second);
    }

    Set m_set;
};

template <typename Set>
void insertAll(Set& set, const std::vector<Range>& ranges)
{
    for (const Range& range : ranges) {
        set.insert(range);
    }
}

/// Counts ranges, whatever one round of the loop does.
void perRange(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * rangeCount);
}

template <typename Set>
void insert(benchmark::State& state, const std::vector<Range>& ranges)
{
    for (auto _ : state) {
        Set set;
        insertAll(set, ranges);
        benchmark::DoNotOptimize(set);
    }
    perRange(state);
}

template <typename Set>
void erase(benchmark::State& state)
{
    Set full;
    insertAll(full, randomRanges(1));
    const std::vector<Range> ranges = randomRanges(2);
    for (auto _ : state) {
        state.PauseTiming();
        Set set(full);
        state.ResumeTiming();
        for (const Range& range : ranges) {
            set.erase(range);
        }
        benchmark::DoNotOptimize(set);
    }
    perRange(state);
}

template <typename Set>
void find(benchmark::State& state)
{
    Set set;
    insertAll(set, randomRanges(1));
    std::mt19937 random(3);
    std::vector<int> times;
    for (int i = 0; i < 1 << 20; ++i) {
        times.push_back(static_cast<int>(random() % span));
    }
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(set.find(times[next]));
        next = (next + 1) % times.size();
    }
}

template <typename Set>
void addSet(const char* contender)
{
    Bench::add("interval_insert/random", contender, insert<Set>, randomRanges(1));
    Bench::add("interval_insert/ascending", contender, insert<Set>, ascendingRanges());
    Bench::add("interval_erase/random", contender, erase<Set>);
    Bench::add("interval_find/5000", contender, find<Set>);
}

} // namespace

int main(int argc, char** argv)
{
    addSet<CInfraSet>(Bench::infra);
    addSet<CBoostSet>("boost::icl");
    return Bench::run(argc, argv, "Boost " BOOST_LIB_VERSION);
}

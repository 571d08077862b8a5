// CString beside std::string.
//
// construct/N   from N characters with a terminator, and destroyed
// copy/N        copied and destroyed
// equal/N       == of two equal texts
// compare/N     compare() of two equal texts
// append/N      N characters, one push_back each, from an empty string
// pieces/N      N characters in pieces of seven
//
// Up to 31 characters CString stays in the object and std::string up to 15: beyond that the heap is
// the floor of both. CString's capacity is exact, which its appends have to pay for.

#include "Infra/Infra3/String.h"

#include <benchmark/benchmark.h>

#include <string>

namespace
{

using Tarsel::Infra::CString;

/// On the heap at any length: a short one beside the loop's own variables would measure their
/// stores.
std::string sample(size_t length)
{
    std::string text;
    text.reserve(128);
    for (size_t i = 0; i < length; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    return text;
}

template <typename S>
void construct(benchmark::State& state)
{
    const std::string source = sample(static_cast<size_t>(state.range(0)));
    const char* text = source.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        S made(text);
        benchmark::DoNotOptimize(made);
    }
}

template <typename S>
void copy(benchmark::State& state)
{
    S source(sample(static_cast<size_t>(state.range(0))));
    for (auto _ : state) {
        benchmark::DoNotOptimize(source);
        S made(source);
        benchmark::DoNotOptimize(made);
    }
}

template <typename S>
void equal(benchmark::State& state)
{
    S left(sample(static_cast<size_t>(state.range(0))));
    S right(left);
    for (auto _ : state) {
        benchmark::DoNotOptimize(left);
        benchmark::DoNotOptimize(right);
        benchmark::DoNotOptimize(left == right);
    }
}

template <typename S>
void compare(benchmark::State& state)
{
    S left(sample(static_cast<size_t>(state.range(0))));
    S right(left);
    for (auto _ : state) {
        benchmark::DoNotOptimize(left);
        benchmark::DoNotOptimize(right);
        benchmark::DoNotOptimize(left.compare(right));
    }
}

template <typename S>
void append(benchmark::State& state)
{
    const int64_t count = state.range(0);
    for (auto _ : state) {
        S text;
        for (int64_t i = 0; i < count; ++i) {
            text.push_back(static_cast<char>('a' + i % 16));
        }
        benchmark::DoNotOptimize(text);
    }
}

template <typename S>
void pieces(benchmark::State& state)
{
    const char* piece = "abcdefg";
    for (auto _ : state) {
        S text;
        benchmark::DoNotOptimize(piece);
        for (int64_t i = 0; i < state.range(0); i += 7) {
            text.append(piece);
        }
        benchmark::DoNotOptimize(text);
    }
}

void atShortLengths(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(5)->Arg(20)->Arg(31)->Arg(100);
}

void atGrowingLengths(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(31)->Arg(100)->Arg(1000)->Arg(100000);
}

BENCHMARK_TEMPLATE(construct, CString)->Apply(atShortLengths);
BENCHMARK_TEMPLATE(construct, std::string)->Apply(atShortLengths);
BENCHMARK_TEMPLATE(copy, CString)->Apply(atShortLengths);
BENCHMARK_TEMPLATE(copy, std::string)->Apply(atShortLengths);
BENCHMARK_TEMPLATE(equal, CString)->Apply(atShortLengths);
BENCHMARK_TEMPLATE(equal, std::string)->Apply(atShortLengths);
BENCHMARK_TEMPLATE(compare, CString)->Apply(atShortLengths);
BENCHMARK_TEMPLATE(compare, std::string)->Apply(atShortLengths);
BENCHMARK_TEMPLATE(append, CString)->Apply(atGrowingLengths);
BENCHMARK_TEMPLATE(append, std::string)->Apply(atGrowingLengths);
BENCHMARK_TEMPLATE(pieces, CString)->Apply(atGrowingLengths);
BENCHMARK_TEMPLATE(pieces, std::string)->Apply(atGrowingLengths);

} // namespace

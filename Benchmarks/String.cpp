// CString beside std::string.
//
// string_construct/N   from N characters with a terminator, and destroyed
// string_copy/N        copied and destroyed
//   malloc+memcpy(floor)  the block and the bytes of a text that does not fit into the object
// string_equal/N       == of two equal texts
// string_compare/N     compare() of two equal texts
// string_append/N      N characters, one push_back each, from an empty string
// string_pieces/N      N characters in pieces of seven
//
// Up to 31 characters CString stays in the object and std::string up to 15: beyond that the heap is
// the floor of both. CString's capacity is exact, which its appends have to pay for.

#include "Infra/Infra3/String.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "Benchmarks/Support/Cases.h"

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
void construct(benchmark::State& state, size_t length)
{
    const std::string source = sample(length);
    const char* text = source.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        S made(text);
        benchmark::DoNotOptimize(made);
    }
}

template <typename S>
void copy(benchmark::State& state, size_t length)
{
    S source(sample(length));
    for (auto _ : state) {
        benchmark::DoNotOptimize(source);
        S made(source);
        benchmark::DoNotOptimize(made);
    }
}

void copyByHand(benchmark::State& state, size_t length)
{
    const std::string source = sample(length);
    const char* text = source.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        void* const made = malloc(length + 1);
        memcpy(made, text, length + 1);
        benchmark::DoNotOptimize(made);
        free(made);
    }
}

template <typename S>
void equal(benchmark::State& state, size_t length)
{
    S left(sample(length));
    S right(left);
    for (auto _ : state) {
        benchmark::DoNotOptimize(left);
        benchmark::DoNotOptimize(right);
        benchmark::DoNotOptimize(left == right);
    }
}

template <typename S>
void compare(benchmark::State& state, size_t length)
{
    S left(sample(length));
    S right(left);
    for (auto _ : state) {
        benchmark::DoNotOptimize(left);
        benchmark::DoNotOptimize(right);
        benchmark::DoNotOptimize(left.compare(right));
    }
}

template <typename S>
void append(benchmark::State& state, size_t length)
{
    for (auto _ : state) {
        S text;
        for (size_t i = 0; i < length; ++i) {
            text.push_back(static_cast<char>('a' + i % 16));
        }
        benchmark::DoNotOptimize(text);
    }
}

template <typename S>
void pieces(benchmark::State& state, size_t length)
{
    const char* piece = "abcdefg";
    for (auto _ : state) {
        S text;
        benchmark::DoNotOptimize(piece);
        for (size_t i = 0; i < length; i += 7) {
            text.append(piece);
        }
        benchmark::DoNotOptimize(text);
    }
}

template <typename S>
void addContender(const char* contender)
{
    for (const size_t length : {5, 20, 31, 100}) {
        Bench::add(Bench::label("string_construct", length), contender, construct<S>, length);
        Bench::add(Bench::label("string_copy", length), contender, copy<S>, length);
        Bench::add(Bench::label("string_equal", length), contender, equal<S>, length);
        Bench::add(Bench::label("string_compare", length), contender, compare<S>, length);
    }
    for (const size_t length : {31, 100, 1000, 100000}) {
        Bench::add(Bench::label("string_append", length), contender, append<S>, length);
        Bench::add(Bench::label("string_pieces", length), contender, pieces<S>, length);
    }
}

} // namespace

int main(int argc, char** argv)
{
    addContender<CString>(Bench::infra);
    addContender<std::string>("std::string");
    Bench::add("string_copy/100", "malloc+memcpy(floor)", copyByHand, size_t{100});
    return Bench::run(argc, argv, "std::string of the compiler's library");
}

#ifndef INFRA_BENCHMARKS_SUPPORT_CASES_H
#define INFRA_BENCHMARKS_SUPPORT_CASES_H

// How a subject states its cases. Every measurement has a name of the form
//
//     case/size/threads:2/contender      packet_create/1000/threads:2/infra
//
// and those that differ in the last part only are contenders of one case: the report sets them side
// by side. "infra" is this library; a contender ending in "(floor)" is no rival but what the
// machine or the system asks for at least. What the benchmark library appends behind the contender
// ("/real_time" and the like) is not part of the name.
//
// Times are processor time of the measuring thread, which neighbours on the machine disturb least.
// Cases with several threads, and those that wait, are measured by the clock instead.

#include <benchmark/benchmark.h>

#include <string>
#include <utility>

namespace Bench
{

constexpr const char* infra = "infra";

template <typename Value>
std::string label(const std::string& name, const Value& value)
{
    return name + "/" + std::to_string(value);
}

/// Adds one contender of one case: body(state, arguments...).
template <typename Body, typename... Arguments>
benchmark::internal::Benchmark* add(const std::string& name, const std::string& contender,
                                    Body&& body, Arguments... arguments)
{
    return benchmark::RegisterBenchmark((name + "/" + contender).c_str(), std::forward<Body>(body),
                                        arguments...);
}

/// The same on `threads` threads at once. With more than one, the time is wall time divided by the
/// calls of all of them together.
template <typename Body, typename... Arguments>
benchmark::internal::Benchmark* addThreads(int threads, const std::string& name,
                                           const std::string& contender, Body&& body,
                                           Arguments... arguments)
{
    benchmark::internal::Benchmark* const made =
        add(name + "/threads:" + std::to_string(threads), contender, std::forward<Body>(body),
            arguments...);
    return threads == 1 ? made : made->Threads(threads)->UseRealTime();
}

/// Runs what the command line asks for and gives the program's exit code. `peers` names the peers
/// with their versions, for the report.
int run(int argc, char** argv, const std::string& peers);

} // namespace Bench

#endif

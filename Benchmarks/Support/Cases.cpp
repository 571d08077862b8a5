// Cases.cpp: one run of a subject's program.
//
// Results are shown on standard error, because standard output is part of what is measured.

#include "Benchmarks/Support/Cases.h"

#include <gnu/libc-version.h>

#include <iostream>
#include <thread>

namespace Bench
{
namespace
{

/// The system's libraries leave out atomic operations and locks until a process has made its first
/// thread. Nobody here is meant for such processes.
void becomeThreaded()
{
    std::thread([] {}).join();
}

} // namespace

int run(int argc, char** argv, const std::string& peers)
{
    becomeThreaded();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::AddCustomContext("peers", peers);
    benchmark::AddCustomContext("compiler", __VERSION__);
    benchmark::AddCustomContext("libc", gnu_get_libc_version());

    benchmark::ConsoleReporter display(benchmark::ConsoleReporter::OO_Tabular);
    display.SetOutputStream(&std::cerr);
    display.SetErrorStream(&std::cerr);
    const size_t count = benchmark::RunSpecifiedBenchmarks(&display);
    benchmark::Shutdown();
    return count > 0 ? 0 : 1;
}

} // namespace Bench

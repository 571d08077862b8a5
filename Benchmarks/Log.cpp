// The log line, written and filtered out. Standard output is /dev/null, fully buffered, for all.
//
// log_line/threads:N         time, level, module, revision, thread, file and line, two arguments,
//                            in colour, on one thread and on two
//   spdlog                   its console sink's line and colours, without the flush
//   spdlog+flush             its console sink as it is, which flushes every line
//   fprintf(floor)           the same text with only the two arguments to format
// log_filtered/call          logFilter() below the print level
//   variadic call            a function of a shared library that compares a level and returns
//   spdlog                   its template, which tests the level before anything is a call
// log_filtered/front_end     the test that the library's own macro makes in front of the call
//   inline test              the same with a plain variable

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/version.h>

#include <cstdio>
#include <memory>
#include <mutex>

#include "Benchmarks/Support/Cases.h"
#include "Benchmarks/Support/VariadicLog.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra3/LogFront.h"

namespace
{

using namespace Tarsel::Infra;

/// What the lines speak about.
int s_object = 0;

constexpr const char* spdlogPattern = "%^[%H:%M:%S %l %n:812148M %t %s:%#]%v%$";

/// The steps of spdlog's console sink but for its flush, which would be a system call a line.
class CUnflushedSink : public spdlog::sinks::base_sink<std::mutex>
{
protected:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        message.color_range_start = 0;
        message.color_range_end = 0;
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        const std::string_view text(line.data(), line.size());
        write(text.substr(0, message.color_range_start));
        write("\033[32m");
        write(text.substr(message.color_range_start,
                          message.color_range_end - message.color_range_start));
        write("\033[m");
        write(text.substr(message.color_range_end));
    }
    void flush_() override { fflush(stdout); }

private:
    static void write(std::string_view part) { fwrite(part.data(), 1, part.size(), stdout); }
};

template <typename Sink>
spdlog::logger& spdlogLogger()
{
    static const auto logger = [] {
        auto sink = std::make_shared<Sink>();
        auto made = std::make_unique<spdlog::logger>("Bench", sink);
        made->set_pattern(spdlogPattern);
        return made;
    }();
    return *logger;
}

/// Colours whether or not standard output is a terminal, as ours.
class CFlushingSink : public spdlog::sinks::ansicolor_stdout_sink_mt
{
public:
    CFlushingSink() { set_color_mode(spdlog::color_mode::always); }
};

void lineOfInfra(benchmark::State& state)
{
    int count = 0;
    for (auto _ : state) {
        logFilter(logLevelInfo, "Bench", __FILE__, __func__, __LINE__, "812148M",
                  "this:%p started, %d pending\n", static_cast<void*>(&s_object), ++count);
    }
}

template <typename Sink>
void lineOfSpdlog(benchmark::State& state)
{
    spdlog::logger& logger = spdlogLogger<Sink>();
    int count = 0;
    for (auto _ : state) {
        logger.log(spdlog::source_loc{__FILE__, __LINE__, __func__}, spdlog::level::info,
                   "this:{} started, {} pending", static_cast<void*>(&s_object), ++count);
    }
}

void lineOfFprintf(benchmark::State& state)
{
    int count = 0;
    for (auto _ : state) {
        fprintf(stdout,
                "\033[32;40m[10:04:05 info Bench:812148M 4711 Log.cpp:77]"
                "this:%p started, %d pending\n\033[0m",
                static_cast<void*>(&s_object), ++count);
    }
}

volatile int s_level = 4;

void filteredCallOfInfra(benchmark::State& state)
{
    int count = 0;
    for (auto _ : state) {
        logFilter(logLevelTrace, "Bench", __FILE__, __func__, __LINE__, "812148M",
                  "this:%p started, %d pending\n", static_cast<void*>(&s_object), ++count);
    }
}

void filteredVariadicCall(benchmark::State& state)
{
    int count = 0;
    for (auto _ : state) {
        Bench::variadicLog(logLevelTrace, "Bench", __FILE__, __func__, __LINE__, "812148M",
                           "this:%p started, %d pending\n", static_cast<void*>(&s_object), ++count);
    }
}

void filteredCallOfSpdlog(benchmark::State& state)
{
    spdlog::logger& logger = spdlogLogger<CUnflushedSink>();
    int count = 0;
    for (auto _ : state) {
        logger.log(spdlog::source_loc{__FILE__, __LINE__, __func__}, spdlog::level::trace,
                   "this:{} started, {} pending", static_cast<void*>(&s_object), ++count);
        benchmark::ClobberMemory();
    }
}

void filteredFrontEndOfInfra(benchmark::State& state)
{
    int count = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++count);
        if (isLevelPrinted(logLevelTrace)) {
            logFilter(logLevelTrace, "Bench", __FILE__, __func__, __LINE__, "812148M",
                      "this:%p started, %d pending\n", static_cast<void*>(&s_object), count);
        }
        benchmark::ClobberMemory();
    }
}

void filteredInlineTest(benchmark::State& state)
{
    int count = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++count);
        if (logLevelTrace <= s_level) {
            Bench::variadicLog(logLevelTrace, "Bench", __FILE__, __func__, __LINE__, "812148M",
                               "this:%p started, %d pending\n", static_cast<void*>(&s_object),
                               count);
        }
        benchmark::ClobberMemory();
    }
}

void addCases()
{
    for (const int threads : {1, 2}) {
        Bench::addThreads(threads, "log_line", Bench::infra, lineOfInfra);
        Bench::addThreads(threads, "log_line", "spdlog", lineOfSpdlog<CUnflushedSink>);
        Bench::addThreads(threads, "log_line", "spdlog+flush", lineOfSpdlog<CFlushingSink>);
        Bench::addThreads(threads, "log_line", "fprintf(floor)", lineOfFprintf);
    }
    Bench::add("log_filtered/call", Bench::infra, filteredCallOfInfra);
    Bench::add("log_filtered/call", "variadic call", filteredVariadicCall);
    Bench::add("log_filtered/call", "spdlog", filteredCallOfSpdlog);
    Bench::add("log_filtered/front_end", Bench::infra, filteredFrontEndOfInfra);
    Bench::add("log_filtered/front_end", "inline test", filteredInlineTest);
}

} // namespace

int main(int argc, char** argv)
{
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        perror("/dev/null");
        return 1;
    }
    addCases();
    return Bench::run(argc, argv,
                      "spdlog " + std::to_string(SPDLOG_VER_MAJOR) + "." +
                          std::to_string(SPDLOG_VER_MINOR) + "." +
                          std::to_string(SPDLOG_VER_PATCH));
}

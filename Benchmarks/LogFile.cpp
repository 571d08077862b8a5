// A log line into a file, on one thread and on two. Standard output is /dev/null.
//
// log_to_file/threads:N      to one file, every line in it when the call returns
//   spdlog                   its file sink, the same line and text, flushed behind each
//   write(floor)             the bare write() of the same text to a file opened to append
// log_rotating/threads:N     to files of 1 MB, three old ones kept
//   spdlog                   its rotating sink, flushed behind each
//   write(floor)             as above
//
// Files lie in the temporary directory, each contender's in a folder of its own, and are emptied
// before each measurement. The floor is one file that only grows, and no line is laid out for it.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/version.h>

#include "Benchmarks/Support/Cases.h"
#include "Infra/Infra3/PrintLog.h"

namespace
{

using namespace Tarsel::Infra;
namespace fs = std::filesystem;

/// What the lines speak about.
int s_object = 0;

constexpr const char* spdlogPattern = "[%H:%M:%S %l %n:812148M %t %s:%#]%v";
constexpr size_t rotatedSize = 1 << 20;

std::string s_folder;

/// An empty folder below the program's own, and a file's path in it.
std::string freshPath(const std::string& name)
{
    const fs::path folder = fs::path(s_folder) / name;
    fs::remove_all(folder);
    fs::create_directories(folder);
    return (folder / "bench.log").string();
}

void command(std::initializer_list<const char*> words)
{
    setLogFilter(static_cast<int>(words.size()), const_cast<char**>(words.begin()));
}

void openInfra(bool rotating)
{
    command({"-logpath", freshPath("infra").c_str()});
    if (rotating) {
        command({"-logsavesetting", "bysize", "1024", "3"});
    } else {
        command({"-logsavesetting", "none"});
        command({"-logsize", "0"});
    }
    logCleanup();
}

void lineOfInfra(benchmark::State& state, bool rotating)
{
    if (state.thread_index() == 0) {
        openInfra(rotating);
    }
    int count = 0;
    for (auto _ : state) {
        logFilter(logLevelInfo, "Bench", __FILE__, __func__, __LINE__, "812148M",
                  "this:%p started, %d pending\n", static_cast<void*>(&s_object), ++count);
    }
    if (state.thread_index() == 0) {
        command({"-logpath", ""});
        logCleanup();
    }
}

std::unique_ptr<spdlog::logger> s_spdlog;

void openSpdlog(bool rotating)
{
    const std::string path = freshPath("spdlog");
    std::shared_ptr<spdlog::sinks::sink> sink;
    if (rotating) {
        sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, rotatedSize, 3);
    } else {
        sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path);
    }
    s_spdlog = std::make_unique<spdlog::logger>("Bench", sink);
    s_spdlog->set_pattern(spdlogPattern);
    s_spdlog->flush_on(spdlog::level::trace);
}

void lineOfSpdlog(benchmark::State& state, bool rotating)
{
    if (state.thread_index() == 0) {
        openSpdlog(rotating);
    }
    int count = 0;
    for (auto _ : state) {
        s_spdlog->log(spdlog::source_loc{__FILE__, __LINE__, __func__}, spdlog::level::info,
                      "this:{} started, {} pending", static_cast<void*>(&s_object), ++count);
    }
    if (state.thread_index() == 0) {
        s_spdlog.reset();
    }
}

int s_file = -1;

void lineOfWrite(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        s_file = open(freshPath("write").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
    }
    constexpr char text[] = "[10:04:05 info Bench:812148M 4711 LogFile.cpp:77]"
                            "this:0x55d0c7a3b140 started, 123456 pending\n";
    for (auto _ : state) {
        if (write(s_file, text, sizeof(text) - 1) < 0) {
            state.SkipWithError("write");
        }
    }
    if (state.thread_index() == 0) {
        close(s_file);
    }
}

void addCases()
{
    for (const int threads : {1, 2}) {
        Bench::addThreads(threads, "log_to_file", Bench::infra, lineOfInfra, false);
        Bench::addThreads(threads, "log_to_file", "spdlog", lineOfSpdlog, false);
        Bench::addThreads(threads, "log_to_file", "write(floor)", lineOfWrite);
        Bench::addThreads(threads, "log_rotating", Bench::infra, lineOfInfra, true);
        Bench::addThreads(threads, "log_rotating", "spdlog", lineOfSpdlog, true);
        Bench::addThreads(threads, "log_rotating", "write(floor)", lineOfWrite);
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::string pattern = (fs::temp_directory_path() / "bench-log-XXXXXX").string();
    if (freopen("/dev/null", "w", stdout) == nullptr || mkdtemp(pattern.data()) == nullptr) {
        perror("standard output, or a folder for the logs");
        return 1;
    }
    s_folder = pattern;
    addCases();
    const int result =
        Bench::run(argc, argv,
                   "spdlog " + std::to_string(SPDLOG_VER_MAJOR) + "." +
                       std::to_string(SPDLOG_VER_MINOR) + "." + std::to_string(SPDLOG_VER_PATCH));
    std::error_code ignored;
    fs::remove_all(s_folder, ignored);
    return result;
}

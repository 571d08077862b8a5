// infra-log: reads the log files of services that log through the Infra library.

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Common/Failure.h"
#include "Filter.h"
#include "Output.h"
#include "Reader.h"

namespace
{

struct CommandLine
{
    std::vector<std::string> paths;
    std::string level;
    std::vector<std::string> modules;
    std::vector<long long> threads;
    std::string since;
    std::string until;
    bool isJson = false;
    bool follows = false;
    bool withoutRenamed = false;
    double intervalSeconds = 0.2;
};

void describe(CLI::App& app, CommandLine& line)
{
    app.set_version_flag("--version", "infra-log " INFRA_VERSION_TEXT);
    app.add_option("LOG", line.paths,
                   "path of a log, or of renamed files of one; - is standard input")
        ->required();
    app.add_option("-l,--level", line.level, "records of this level and worse: fatal to trace");
    app.add_option("-m,--module", line.modules, "records of this module; may be repeated")
        ->allow_extra_args(false);
    app.add_option("-t,--thread", line.threads, "records of this thread; may be repeated")
        ->allow_extra_args(false);
    app.add_option("--since", line.since, "records from this time on: 2026-11-23T10:04:05, 10:04");
    app.add_option("--until", line.until, "records up to this time");
    app.add_flag("--json", line.isJson, "print each record as a line of JSON");
    app.add_flag("-f,--follow", line.follows, "go on while the log is written");
    app.add_flag("--no-renamed", line.withoutRenamed,
                 "of a log only the file that is written now, not the ones it was renamed to");
    app.add_option("--interval", line.intervalSeconds, "seconds between looks, with --follow (0.2)")
        ->check(CLI::Range(0.001, 3600.0));
}

Wanted wantedBy(const CommandLine& line)
{
    Wanted wanted;
    if (!line.level.empty()) {
        wanted.level = levelOf(line.level);
    }
    wanted.modules.insert(line.modules.begin(), line.modules.end());
    wanted.threads.insert(line.threads.begin(), line.threads.end());
    if (!line.since.empty()) {
        wanted.since = momentOf(line.since);
    }
    if (!line.until.empty()) {
        wanted.until = momentOf(line.until);
    }
    return wanted;
}

void complain(const CFailure& failure)
{
    fprintf(stderr, "infra-log: %s\n", failure.what());
}

void writeOut()
{
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        throw CFailure("standard output cannot be written");
    }
}

[[noreturn]] void follow(const CommandLine& line, CRecords& records)
{
    const std::vector<Log> logs = logsOf(line.paths);
    if (logs.size() != 1 || !logs[0].isNamed || logs[0].path == "-") {
        throw CFailure("--follow is for one log, by the path of the file that is written now");
    }
    CReader(logs[0], !line.withoutRenamed, records, complain)
        .follow(std::chrono::milliseconds(static_cast<int64_t>(line.intervalSeconds * 1000)),
                writeOut);
}

/// What can be read is printed, whatever else cannot.
int readAll(const CommandLine& line, CRecords& records)
{
    int code = exitSound;
    const auto note = [&code](const CFailure& failure) {
        complain(failure);
        code = exitTrouble;
    };
    for (const Log& log : logsOf(line.paths)) {
        try {
            CReader(log, !line.withoutRenamed, records, note).readAll();
        } catch (const CFailure& failure) {
            note(failure);
        }
        records.flush(true);
    }
    writeOut();
    return code;
}

int run(const CommandLine& line)
{
    CFilter filter(wantedBy(line));
    CRecords records([&filter, print = line.isJson ? printJson : printText](const Record& record) {
        if (filter.takes(record)) {
            print(record);
        }
    });
    if (line.follows) {
        follow(line, records);
    }
    return readAll(line, records);
}

int parseAndRun(int count, char** arguments)
{
    CLI::App app("Reads the log files of services that log through the Infra library.",
                 "infra-log");
    CommandLine line;
    describe(app, line);
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitSound : exitTrouble;
    }
    return run(line);
}

} // namespace

int main(int count, char** arguments)
{
    signal(SIGPIPE, SIG_DFL);
    try {
        return parseAndRun(count, arguments);
    } catch (const std::exception& error) {
        fprintf(stderr, "infra-log: %s\n", error.what());
    } catch (...) {
        fputs("infra-log: failed\n", stderr);
    }
    return exitTrouble;
}

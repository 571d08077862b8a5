// infra-shm: looks at the shared-memory pool of a machine, and looks after it.

#include <csignal>
#include <cstdio>
#include <exception>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "Common/Failure.h"
#include "Infra/Infra3/PrintLog.h"

namespace
{

/// The library logs while it is loaded. A tool speaks when it has something to say, so this comes
/// before all other initialisers.
__attribute__((constructor(101))) void logErrorsOnly()
{
    Tarsel::Infra::setPrintLogLevel(Tarsel::Infra::logLevelError);
}

typedef int (*Command)(COutput& output, const Options& options);

struct CommandLine
{
    Options options;
    bool isJson = false;
    double waitSeconds = 2;
    double intervalSeconds = 1;
    Command command = nullptr;
};

std::chrono::milliseconds millisecondsOf(double seconds)
{
    return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

CLI::App* addCommand(CLI::App& app, CommandLine& line, const char* name, const char* text,
                     Command command)
{
    CLI::App* const added = app.add_subcommand(name, text);
    added->callback([&line, command] { line.command = command; });
    return added;
}

void addFile(CLI::App* command, CommandLine& line)
{
    command->add_option("--file", line.options.file,
                        "a pool that was saved, in place of the one "
                        "that there is");
}

void describe(CLI::App& app, CommandLine& line)
{
    app.set_version_flag("--version", "infra-shm " INFRA_VERSION_TEXT);
    app.add_flag("--json", line.isJson, "print JSON");
    app.add_option("--wait", line.waitSeconds, "seconds to wait for the mutex of all processes (2)")
        ->check(CLI::Range(0.0, 3600.0));
    app.require_subcommand(1);
    app.fallthrough();

    addCommand(app, line, "list", "the segments of this machine that are a pool", listPools);
    CLI::App* const show =
        addCommand(app, line, "show", "what is in the pool, and who has it", showPool);
    show->add_flag("--all", line.options.all, "all blocks, however many");
    addFile(show, line);
    addFile(addCommand(app, line, "check", "whether the pool is sound: 0 yes, 1 no, 2 cannot tell",
                       checkPoolNow),
            line);
    addCommand(app, line, "repair", "make the pool whole after a process died in it",
               repairPoolNow);
    CLI::App* const reap = addCommand(app, line, "reap", "drop what dead processes held", reapPool);
    reap->add_flag("--watch", line.options.watch, "go on, whenever a holder dies");
    reap->add_option("--interval", line.intervalSeconds,
                     "seconds between looks for new holders, with --watch (1)")
        ->check(CLI::Range(0.01, 3600.0));
    CLI::App* const create = addCommand(app, line, "create", "make a pool", createPool);
    create->add_option("SIZE", line.options.size, "bytes of its data, such as 64M")
        ->required()
        ->transform(CLI::AsSizeValue(false));
    create->add_option("--page", line.options.pageSize, "bytes of a page (1024)")
        ->transform(CLI::AsSizeValue(false));
    create->add_option("--orders", line.options.orders,
                       "orders of blocks at most (as many as there can be)");
    CLI::App* const remove = addCommand(app, line, "remove", "remove the pool", removePool);
    remove->add_flag("--force", line.options.force, "also while processes use it; they keep it");
    addCommand(app, line, "save", "copy the pool to a file, for --file", savePool)
        ->add_option("FILE", line.options.file)
        ->required();
}

int run(const CommandLine& line)
{
    COutput output(line.isJson);
    const int code = line.command(output, line.options);
    if (!output.finish()) {
        throw CFailure("standard output cannot be written");
    }
    return code;
}

int parseAndRun(int count, char** arguments)
{
    CLI::App app("Looks at the shared-memory pool of this machine, and looks after it.",
                 "infra-shm");
    CommandLine line;
    describe(app, line);
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitSound : exitTrouble;
    }
    line.options.wait = millisecondsOf(line.waitSeconds);
    line.options.interval = millisecondsOf(line.intervalSeconds);
    return run(line);
}

} // namespace

int main(int count, char** arguments)
{
    signal(SIGPIPE, SIG_DFL);
    try {
        return parseAndRun(count, arguments);
    } catch (const std::exception& error) {
        fprintf(stderr, "infra-shm: %s\n", error.what());
    } catch (...) {
        fputs("infra-shm: failed\n", stderr);
    }
    return exitTrouble;
}

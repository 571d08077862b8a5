// LogConsole.cpp: the log filter as a debug console uses it.
//
// Three threads, three modules, log at all levels while commands come from standard input, one a
// line, as a service would take them from its console or socket:
//
//     logfilter -loglevel 5             any command of the log filter; without words its usage
//     logfilter -logpath "/var/log/my service.log"
//     wait 1000                         until so many more lines were printed
//     cleanup                           close the log file; the next line opens it again
//     statistics                        what each module has printed
//     quit                              or the end of the input
//
// The threads slow down to some lines a second unless somebody waits, so that a human can follow.
// Ends with 0 if every command was understood.

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <Infra/Infra3/PrintLog.h>
#include <Infra/Infra3/ThreadLite.h>

using Tarsel::Infra::CThreadLite;

namespace
{

typedef std::vector<std::string> Words;

/// Lines printed so far, and whether somebody waits for more.
std::atomic<unsigned long> s_lines{0};
std::atomic<bool> s_isWaitedFor{false};

/// A thread of the service, with something to say all the time.
class CTalker
{
public:
    explicit CTalker(const char* module)
        : m_module(module), m_thread(CThreadLite::ThreadProc(&CTalker::talk, this), module)
    {}
    ~CTalker()
    {
        if (!m_thread.isThreadOver()) {
            m_thread.destroyThread();
        }
    }

    bool start() { return m_thread.createThread(); }

private:
    void talk(CThreadLite& thread)
    {
        for (unsigned long round = 0; thread.looping(); ++round) {
            // Mostly small talk; an error now and then.
            const int level =
                round % 50 == 49 ? Tarsel::Infra::logLevelError : static_cast<int>(3 + round % 3);
            if (Tarsel::Infra::logFilter(level, m_module, __FILE__, __func__, __LINE__, "1",
                                         "round %lu\n", round) > 0) {
                ++s_lines;
            }
            CThreadLite::sleep(s_isWaitedFor ? 1 : 300);
        }
    }

    const char* const m_module;
    CThreadLite m_thread;
};

/// Splits at blanks; a word in double quotes may have blanks, or nothing, in it.
Words wordsOf(const std::string& line)
{
    std::istringstream in(line);
    Words words;
    for (std::string word; in >> std::quoted(word);) {
        words.push_back(word);
    }
    return words;
}

void filter(Words words)
{
    std::vector<char*> pointers;
    for (size_t i = 1; i < words.size(); ++i) {
        pointers.push_back(words[i].data());
    }
    Tarsel::Infra::setLogFilter(static_cast<int>(pointers.size()), pointers.data());
}

void waitForLines(const Words& words)
{
    const unsigned long wanted = words.size() < 2 ? 1 : std::strtoul(words[1].c_str(), nullptr, 10);
    const unsigned long end = s_lines + wanted;
    s_isWaitedFor = true;
    while (s_lines < end) {
        CThreadLite::sleep(1);
    }
    s_isWaitedFor = false;
}

void showStatistics()
{
    for (const auto& [module, info] : Tarsel::Infra::getLogStatistics()) {
        std::printf("%-8s %llu bytes\n", module.c_str(),
                    static_cast<unsigned long long>(info.printedBytes));
    }
    std::fflush(stdout);
}

/// False when the command is none.
bool carryOut(const Words& words)
{
    if (words[0] == "logfilter") {
        filter(words);
    } else if (words[0] == "wait") {
        waitForLines(words);
    } else if (words[0] == "cleanup") {
        Tarsel::Infra::logCleanup();
    } else if (words[0] == "statistics") {
        showStatistics();
    } else {
        std::printf("logfilter ..., wait N, cleanup, statistics or quit\n");
        return false;
    }
    return true;
}

bool readCommands()
{
    bool good = true;
    for (std::string line; std::getline(std::cin, line);) {
        const Words words = wordsOf(line);
        if (words.empty()) {
            continue;
        }
        if (words[0] == "quit") {
            break;
        }
        good = carryOut(words) && good;
    }
    return good;
}

} // namespace

int main()
{
    std::array<CTalker, 3> talkers = {CTalker("Net"), CTalker("Disk"), CTalker("Clock")};
    for (CTalker& talker : talkers) {
        if (!talker.start()) {
            std::fprintf(stderr, "LogConsole: no threads to be had\n");
            return 1;
        }
    }
    const bool good = readCommands();
    Tarsel::Infra::logCleanup();
    return good ? 0 : 1;
}

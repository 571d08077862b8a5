#ifndef INFRA_TESTS_SUPPORT_RUNTOOL_H
#define INFRA_TESTS_SUPPORT_RUNTOOL_H

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace Tarsel
{
namespace TestSupport
{

struct Ran
{
    int code; ///< that it ended with; negative: the signal
    std::string output;
};

/// Runs a command line of the shell, and waits for it.
inline Ran runTool(const std::string& command)
{
    fflush(stdout);
    Ran ran = {-1, ""};
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return ran;
    }
    char bytes[4096];
    for (size_t got = 0; (got = fread(bytes, 1, sizeof(bytes), pipe)) > 0;) {
        ran.output.append(bytes, got);
    }
    const int status = pclose(pipe);
    ran.code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return ran;
}

} // namespace TestSupport
} // namespace Tarsel

#endif

// ChildProcess.cpp: tests in processes of their own.

#include "Support/ChildProcess.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

namespace
{

bool s_leaksForgotten = false;

} // namespace

/// Asked by LeakSanitizer when the process ends.
extern "C" int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off()
{
    return s_leaksForgotten ? 1 : 0;
}

namespace Tarsel
{
namespace TestSupport
{
namespace
{

constexpr unsigned childSeconds = 60;

std::string contentOf(int file)
{
    std::string content;
    char piece[4096];
    lseek(file, 0, SEEK_SET);
    for (ssize_t length = read(file, piece, sizeof(piece)); length > 0;
         length = read(file, piece, sizeof(piece))) {
        content.append(piece, static_cast<size_t>(length));
    }
    close(file);
    return content;
}

/// An exception ends the child here: it must not get into the parent's part of the program.
[[noreturn]] void runChild(const std::function<void()>& body, int output, int errorOutput) noexcept
{
    dup2(output, STDOUT_FILENO);
    dup2(errorOutput, STDERR_FILENO);
    alarm(childSeconds);
    body();
    exit(testing::Test::HasFailure() ? 1 : 0);
}

} // namespace

std::string ChildResult::report() const
{
    return "exit code " + std::to_string(exitCode) + ", signal " + std::to_string(signal) +
           "\n--- output\n" + output + "\n--- error output\n" + errorOutput;
}

ChildResult runInChild(const std::function<void()>& body)
{
    const int output = memfd_create("output", 0);
    const int errorOutput = memfd_create("errorOutput", 0);
    // What stands in the buffers would come out of both processes.
    fflush(stdout);
    fflush(stderr);
    const pid_t child = fork();
    if (child == 0) {
        runChild(body, output, errorOutput);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ChildResult result;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.output = contentOf(output);
    result.errorOutput = contentOf(errorOutput);
    return result;
}

void inChild(const std::function<void()>& body)
{
    const ChildResult child = runInChild(body);
    EXPECT_TRUE(child.succeeded()) << child.report();
}

void forgetLeaks()
{
    s_leaksForgotten = true;
}

std::string withoutColors(const std::string& text)
{
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\033') {
            i = text.find('m', i);
            if (i == std::string::npos) {
                break;
            }
        } else {
            plain += text[i];
        }
    }
    return plain;
}

int countOf(const std::string& text, const std::string& part)
{
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

} // namespace TestSupport
} // namespace Tarsel

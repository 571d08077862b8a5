#ifndef INFRA_TESTS_SUPPORT_CHILDPROCESS_H
#define INFRA_TESTS_SUPPORT_CHILDPROCESS_H

// Runs a part of a test in a process of its own: for choices that a process makes once, for code
// that ends the process, and for what happens at exit.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tests
{

/// How a child ended and what it wrote to standard output and standard error.
struct ChildResult
{
    int status;
    std::string output;

    /// The child reported no failure and ran through its exit handlers.
    testing::AssertionResult passed() const
    {
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "child ended with status " << status << ":\n"
                                           << output;
    }

    /// The child was ended by abort().
    testing::AssertionResult aborted() const
    {
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "child ended with status " << status << ":\n"
                                           << output;
    }
};

/// Forks; the child runs `body` and exits, with failure when an expectation in `body` failed. Call
/// it while this process has one thread.
template <typename Body>
ChildResult runInChild(Body body)
{
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0) {
        ADD_FAILURE() << "no pipe";
        return {-1, ""};
    }
    const bool failedBefore = testing::Test::HasFailure();
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        body();
        std::exit(testing::Test::HasFailure() && !failedBefore ? 1 : 0);
    }
    close(ends[1]);
    ChildResult result = {-1, ""};
    char piece[4096];
    for (ssize_t count; (count = read(ends[0], piece, sizeof(piece))) > 0;) {
        result.output.append(piece, static_cast<size_t>(count));
    }
    close(ends[0]);
    if (child < 0 || waitpid(child, &result.status, 0) != child) {
        ADD_FAILURE() << "no child";
    }
    return result;
}

/// The same where nothing but success counts.
template <typename Body>
void inChild(Body body)
{
    EXPECT_TRUE(runInChild(body).passed());
}

/// How often `text` stands in `output`.
inline int countOf(const std::string& output, const std::string& text)
{
    int count = 0;
    for (size_t at = 0; (at = output.find(text, at)) != std::string::npos; at += text.size()) {
        ++count;
    }
    return count;
}

} // namespace Tests

#endif

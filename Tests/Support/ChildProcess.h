#ifndef INFRA_TESTS_SUPPORT_CHILDPROCESS_H
#define INFRA_TESTS_SUPPORT_CHILDPROCESS_H

// What is chosen once a process, or ends it, is tested in a child: policies, options, hooks, exit,
// abort.

#include <functional>
#include <string>

// A test that forks while other threads allocate skips itself where the heap cannot stand that:
// AddressSanitizer's own heap has a lock that a fork does not renew, and the child hangs in it.
#if defined(__SANITIZE_ADDRESS__)
#define INFRA_NEEDS_A_HEAP_THAT_FORKS()                                                            \
    GTEST_SKIP() << "this heap does not survive a fork while other threads allocate"
#else
#define INFRA_NEEDS_A_HEAP_THAT_FORKS() (void)0
#endif

namespace Tarsel
{
namespace TestSupport
{

struct ChildResult
{
    int exitCode = -1; ///< -1 when a signal ended it
    int signal = 0;
    std::string output;      ///< all of its standard output
    std::string errorOutput; ///< all of its standard error

    bool succeeded() const { return exitCode == 0; }
    /// Both outputs, for the message of a failed expectation.
    std::string report() const;
};

/// Forks, runs `body` in the child with both outputs redirected to files, and ends it with exit():
/// 1 when an expectation failed in it, else 0. A child that takes longer than a minute is killed.
ChildResult runInChild(const std::function<void()>& body);

/// The same where nothing but success is expected.
void inChild(const std::function<void()>& body);

/// For the child of a fork in a process with threads: what only their stacks pointed to is no leak
/// of the child's.
void forgetLeaks();

/// `text` without colour sequences.
std::string withoutColors(const std::string& text);

/// How often `part` occurs in `text`.
int countOf(const std::string& text, const std::string& part);

} // namespace TestSupport
} // namespace Tarsel

#endif

// AssertionFailed.cpp: the end of a broken program.
//
// Two lines on standard error, this library's and the system's, then abort. What was logged before
// stands in standard output's buffer, or is kept back under a lock, and would be lost with it: it
// is printed and flushed first; flushed only if no other thread holds the stream, which might never
// let go.

#include "Infra/Infra3/AssertionFailed.h"

#include <cstdio>

#include "Infra3/AssertFront.h"
#include "Infra3/LogFront.h"

// The system's header declares these only without NDEBUG; our assertions hold in every build.
extern "C" [[noreturn]] void __assert(const char* assertion, const char* file, int line) noexcept;
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned line,
                                           const char* function) noexcept;

namespace Tarsel
{
namespace Infra
{
namespace
{

void flushStandardOutput()
{
    if (ftrylockfile(stdout) == 0) {
        fflush_unlocked(stdout);
        funlockfile(stdout);
    }
}

} // namespace

void systemAssertionFailed(const char* expr, const char* function, const char* file, long line)
{
    printHeldMessages();
    flushStandardOutput();
    if (function == nullptr) {
        __assert(expr, file, static_cast<int>(line));
    }
    __assert_fail(expr, file, static_cast<unsigned>(line), function);
}

namespace Detail
{

void assertionFailed(const char* expr, const char* function, const char* file, long line)
{
    fprintf(stderr, "***** Internal Program Error - assertion (%s) failed in %s: %s(%ld)\n", expr,
            function, file, line);
    systemAssertionFailed(expr, nullptr, file, line);
}

void assertionFailedMsg(const char* expr, const char* msg, const char* function, const char* file,
                        long line)
{
    fprintf(stderr, "***** Internal Program Error - assertion (%s) failed in %s: %s(%ld): %s\n",
            expr, function, file, line, msg);
    systemAssertionFailed(expr, nullptr, file, line);
}

} // namespace Detail
} // namespace Infra
} // namespace Tarsel

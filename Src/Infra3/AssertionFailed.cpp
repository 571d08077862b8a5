// AssertionFailed.cpp: the end of a broken program.
//
// Two lines on standard error, this library's and the system's, then abort. What was logged before
// stands in standard output's buffer and would be lost with it, so the buffer is flushed first;
// only if its lock is free, because the thread that holds it may be the one that broke.

#include "Infra/Infra3/AssertionFailed.h"

#include <cstdio>

#include "Infra3/AssertFront.h"

// The system's header declares this only without NDEBUG; our assertions hold in every build.
extern "C" [[noreturn]] void __assert(const char* assertion, const char* file, int line) noexcept;

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

void systemAssertionFailed(const char* expr, const char* file, long line)
{
    flushStandardOutput();
    __assert(expr, file, static_cast<int>(line));
}

namespace Detail
{

void assertionFailed(const char* expr, const char* function, const char* file, long line)
{
    fprintf(stderr, "***** Internal Program Error - assertion (%s) failed in %s: %s(%ld)\n", expr,
            function, file, line);
    systemAssertionFailed(expr, file, line);
}

void assertionFailedMsg(const char* expr, const char* msg, const char* function, const char* file,
                        long line)
{
    fprintf(stderr, "***** Internal Program Error - assertion (%s) failed in %s: %s(%ld): %s\n",
            expr, function, file, line, msg);
    systemAssertionFailed(expr, file, line);
}

} // namespace Detail
} // namespace Infra
} // namespace Tarsel

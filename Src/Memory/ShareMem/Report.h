#ifndef INFRA_SRC_MEMORY_SHAREMEM_REPORT_H
#define INFRA_SRC_MEMORY_SHAREMEM_REPORT_H

// The lines of the shared-memory layer on standard output.
//
// Standard output may be a pipe that nobody empties. A process that prints while it holds the mutex
// of all would then stop them all, so such lines are kept, in order, until it has let it go.

namespace ShareMem
{

/// Prints a line, or keeps it while this thread holds lines back. A thread keeps up to 16 MB, the
/// pages of a large pool; what comes beyond that, or when memory runs out, is lost, and a line says
/// so.
__attribute__((format(printf, 1, 2))) void report(const char* format, ...);

namespace Detail
{
struct Held
{
    int depth;
    bool anything; ///< is kept
};
extern constinit thread_local Held t_held;

void printHeld();
} // namespace Detail

/// Brackets a time in which this thread's lines are kept; may be nested. The last release prints.
inline void holdReports()
{
    ++Detail::t_held.depth;
}

inline void releaseReports()
{
    if (--Detail::t_held.depth <= 0 && Detail::t_held.anything) {
        Detail::printHeld();
    }
}

} // namespace ShareMem

#endif

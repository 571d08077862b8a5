// Report.cpp: lines that wait in the thread that made them.
//
// What is kept lies in a plain thread-local array: nothing is allocated while the mutex is held, and
// nothing has to be destroyed when a thread ends.

#include "Memory/ShareMem/Report.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace ShareMem
{
namespace
{

constexpr size_t keptRoom = 4096;

struct Kept
{
    char text[keptRoom];
    size_t length;
    int depth;
    bool lost;
};

constinit thread_local Kept t_kept = {};

/// Keeps the whole line or none of it.
void keep(const char* format, va_list arguments)
{
    Kept& kept = t_kept;
    const size_t room = keptRoom - kept.length;
    const int length = kept.lost ? -1 : vsnprintf(kept.text + kept.length, room, format, arguments);
    if (length >= 0 && static_cast<size_t>(length) < room) {
        kept.length += static_cast<size_t>(length);
    } else {
        kept.lost = true;
    }
}

} // namespace

void report(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    if (t_kept.depth > 0) {
        keep(format, arguments);
    } else {
        vprintf(format, arguments);
    }
    va_end(arguments);
}

void holdReports()
{
    ++t_kept.depth;
}

void releaseReports()
{
    Kept& kept = t_kept;
    if (--kept.depth > 0 || kept.length == 0) {
        return;
    }
    fwrite(kept.text, 1, kept.length, stdout);
    if (kept.lost) {
        fputs("further lines are lost\n", stdout);
    }
    kept.length = 0;
    kept.lost = false;
}

} // namespace ShareMem

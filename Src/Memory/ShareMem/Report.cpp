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
    bool lost;
};

constinit thread_local Kept t_kept = {};

/// Keeps the whole line or none of it.
void keep(const char* format, va_list arguments)
{
    Kept& kept = t_kept;
    Detail::t_held.anything = true;
    const size_t room = keptRoom - kept.length;
    const int length = kept.lost ? -1 : vsnprintf(kept.text + kept.length, room, format, arguments);
    if (length >= 0 && static_cast<size_t>(length) < room) {
        kept.length += static_cast<size_t>(length);
    } else {
        kept.lost = true;
    }
}

} // namespace

constinit thread_local Detail::Held Detail::t_held = {};

void report(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    if (Detail::t_held.depth > 0) {
        keep(format, arguments);
    } else {
        vprintf(format, arguments);
    }
    va_end(arguments);
}

void Detail::printHeld()
{
    Kept& kept = t_kept;
    fwrite(kept.text, 1, kept.length, stdout);
    if (kept.lost) {
        fputs("further lines are lost\n", stdout);
    }
    kept.length = 0;
    kept.lost = false;
    t_held.anything = false;
}

} // namespace ShareMem

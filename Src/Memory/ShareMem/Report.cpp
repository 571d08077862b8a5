// Report.cpp: lines that wait in the thread that made them.
//
// What is kept lies in a plain thread-local array, which holds what the layers themselves have to say
// while the mutex is held, so that for it nothing is allocated and nothing has to be destroyed when a
// thread ends. Whoever has more to say, such as a dump of the page lists, gets memory for as long as
// the lines wait.

#include "Memory/ShareMem/Report.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "Memory/ShareMem/Common.h"

namespace ShareMem
{
namespace
{

constexpr size_t fixedRoom = 4096;
constexpr size_t roomMost = 16 << 20;

struct Kept
{
    char fixed[fixedRoom];
    char* grown; ///< in its place once there was more
    size_t room; ///< of `grown`
    size_t length;
    bool lost;
};

constinit thread_local Kept t_kept = {};

char* textOf(Kept& kept)
{
    return kept.grown != nullptr ? kept.grown : kept.fixed;
}

size_t roomOf(const Kept& kept)
{
    return kept.grown != nullptr ? kept.room : fixedRoom;
}

void freeGrown(Kept& kept)
{
    if (kept.grown != nullptr) {
        gloMemOperation.freeMem(kept.grown);
        kept.grown = nullptr;
    }
}

/// Four times the room. False when it is as large as it may be, or there is no memory.
bool grow(Kept& kept)
{
    const size_t room = roomOf(kept) * 4;
    char* const grown =
        room <= roomMost ? static_cast<char*>(gloMemOperation.allocMem(room)) : nullptr;
    if (grown == nullptr) {
        return false;
    }
    memcpy(grown, textOf(kept), kept.length);
    freeGrown(kept);
    kept.grown = grown;
    kept.room = room;
    return true;
}

/// False when the line is too long for the room that is left.
bool append(Kept& kept, const char* format, va_list arguments)
{
    const size_t room = roomOf(kept) - kept.length;
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(textOf(kept) + kept.length, room, format, again);
    va_end(again);
    const bool fits = length >= 0 && static_cast<size_t>(length) < room;
    kept.length += fits ? static_cast<size_t>(length) : 0;
    return fits;
}

/// Keeps the whole line or, from then on, nothing more.
void keep(const char* format, va_list arguments)
{
    Kept& kept = t_kept;
    Detail::t_held.anything = true;
    while (!kept.lost && !append(kept, format, arguments)) {
        kept.lost = !grow(kept);
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
    fwrite(textOf(kept), 1, kept.length, stdout);
    if (kept.lost) {
        fputs("further lines are lost\n", stdout);
    }
    freeGrown(kept);
    kept.length = 0;
    kept.lost = false;
    t_held.anything = false;
}

} // namespace ShareMem

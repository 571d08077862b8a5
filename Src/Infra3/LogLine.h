#ifndef INFRA_SRC_INFRA3_LOGLINE_H
#define INFRA_SRC_INFRA3_LOGLINE_H

// How one log text becomes a line: the page of the log path.
//
// A call collects its origin (LogOrigin), fixes once whether it begins a line and what time it is
// (LogMoment), and lets formatLine() lay prefix and message into a buffer. Two callers do so: the
// namespaced log path (PrintLog.cpp), which hands the text on to printer, print procedures, log
// file and statistics, and the C interface (CPrintLog.cpp), which only prints.
//
// Threads: all settings are plain process-wide words, read relaxed. The only shared state of the
// lines themselves is "the last text ended its line" (Infra_returned) and "the colour reset has
// been written": a text that does not end its line is continued by whichever thread prints next.
// Locks: none is held while text is formatted or handed to application code. Standard output's own
// lock makes a line one piece, because colour, text and reset are one write.
// Stack: an ordinary line takes about 1 KB, so that threads with 16 KB stacks can log; only a long
// one takes the 8 KB of the full buffer.

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra3/PlainShared.h"

namespace Tarsel
{
namespace Infra
{

/// Room for one line: 8191 bytes, the terminator included.
constexpr int lineRoom = 8191;
/// Length reported for a line that had to be cut.
constexpr int cutLineLength = 8192;
/// Room that nearly every line fits in.
constexpr int shortLineRoom = 1024;

/// Who speaks. Null texts are allowed; they print as the system's printf prints them.
struct LogOrigin
{
    int level; ///< as printed: never 6
    const char* module;
    const char* file;
    const char* function;
    int line;
    const char* revision;
};

/// Fixed once a call, so that a text formatted twice is the same text.
struct LogMoment
{
    bool beginsLine;
    Infra_SystemTimeEx time;
};

/// What formatLine() made.
struct LogText
{
    int length; ///< n: prefix and whole message, also where the buffer holds less; never below 0
    bool fits;  ///< the buffer holds all of it
    bool ended; ///< it ends its line
};

/// The escape sequence that resets colours.
constexpr const char resetSequence[] = "\033[0m";
constexpr size_t resetLength = sizeof(resetSequence) - 1;
/// Bytes that hold any colour sequence.
constexpr size_t colorRoom = 16;

LogMoment currentMoment();

/// Lays the prefix, if the moment begins a line, into `buffer` and terminates it. Returns its
/// length, which is below `room`.
int buildPrefix(char* buffer, int room, const LogOrigin& origin, const LogMoment& moment);

/// Lays prefix and message into `buffer` of `room` bytes.
__attribute__((format(printf, 5, 0))) LogText formatLine(char* buffer, int room,
                                                         const LogOrigin& origin,
                                                         const LogMoment& moment,
                                                         const char* format, va_list arguments);

/// Notes, and returns, whether a text of length n in `buffer` ended its line; the next text asks
/// for it.
inline bool noteLineEnd(const char* buffer, int length)
{
    const bool ended = length > lineRoom || (length > 0 && buffer[length - 1] == '\n');
    changePlain(Infra_returned, ended ? 1 : 0);
    return ended;
}
/// The last text printed ended its line.
inline bool hasLineEnded()
{
    return loadPlain(Infra_returned) != 0;
}

/// Room around a line, so that colour before it and reset behind it go out in the same write.
template <int Room>
class CLineBuffer
{
public:
    char* text() { return m_bytes + colorRoom; }

private:
    char m_bytes[colorRoom + Room + resetLength + 1];
};

/// Writes the text of a CLineBuffer to standard output in one piece: before it the colour of a line
/// that begins, behind it, if `mayReset`, the reset that is due.
void writeLine(char* text, int level, bool beginsLine, bool mayReset);
/// The two sequences by themselves, where the text goes elsewhere or is still to be handed on.
void writeColor(int level);
void writeDueReset();
/// An error may be the last thing a process says: standard output is flushed behind one.
void flushBehind(int level, bool lineEnded);

/// The filter by level and by the switch for all.
inline bool isLevelOpen(int level)
{
    return level <= loadPlain(Infra_printLogLevel) && loadPlain(Infra_openLog) != CLOSE_LOG;
}

/// Saves the caller's errno: who logs a failure still wants to read it.
class CErrnoKeeper
{
public:
    CErrnoKeeper() : m_errno(errno) {}
    ~CErrnoKeeper() { errno = m_errno; }
    CErrnoKeeper(const CErrnoKeeper&) = delete;
    CErrnoKeeper& operator=(const CErrnoKeeper&) = delete;
    /// Puts the caller's errno back for a "%m".
    void restore() const { errno = m_errno; }

private:
    int m_errno;
};

/// Formats in a buffer of `Room` bytes and calls deliver(text, LogText), unless a longer buffer
/// would hold more of the line.
template <int Room, typename Deliver>
__attribute__((noinline)) bool deliverLine(const LogOrigin& origin, const LogMoment& moment,
                                           const CErrnoKeeper& keeper, const char* format,
                                           va_list arguments, const Deliver& deliver)
{
    CLineBuffer<Room> buffer;
    keeper.restore();
    LogText text = formatLine(buffer.text(), Room, origin, moment, format, arguments);
    if (!text.fits && Room < lineRoom) {
        return false;
    }
    text.ended = noteLineEnd(buffer.text(), text.length);
    deliver(buffer.text(), text);
    return true;
}

/// Formats one line and delivers it: in the short buffer, or once more in the full one.
template <typename Deliver>
void formatAndDeliver(const LogOrigin& origin, const LogMoment& moment, const CErrnoKeeper& keeper,
                      const char* format, va_list arguments, const Deliver& deliver)
{
    va_list again;
    va_copy(again, arguments);
    if (!deliverLine<shortLineRoom>(origin, moment, keeper, format, arguments, deliver)) {
        deliverLine<lineRoom>(origin, moment, keeper, format, again, deliver);
    }
    va_end(again);
}

} // namespace Infra
} // namespace Tarsel

#endif

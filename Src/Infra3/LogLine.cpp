// LogLine.cpp: prefix, message, colours and the one write.
//
// The prefix is put together by hand: printf would spend more on nine small pieces than everything
// else here takes. The local time is converted once a second and thread (LocalTime.h), for the
// conversion takes a process-wide lock.

#include "Infra3/LogLine.h"

#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "Infra/Infra3/PrintLog.h"
#include "Infra3/BoundedText.h"
#include "Infra3/LocalTime.h"
#include "Infra3/PlainShared.h"
#include "Infra3/ThreadId.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

struct LevelFace
{
    const char* word;
    const char* color;
};

constexpr LevelFace levelFaces[] = {
    {"", "\033[0;40m"},        {"fatal ", "\033[35;40m"}, {"error ", "\033[31;40m"},
    {"warn ", "\033[33;40m"},  {"info ", "\033[32;40m"},  {"trace ", "\033[37;40m"},
    {"debug ", "\033[36;40m"},
};
constexpr int levelCount = sizeof(levelFaces) / sizeof(levelFaces[0]);

/// 1 when the colour reset has been written since the last colour.
constinit int s_setConsoleColorComplete = 1;

int levelIndex(int level)
{
    return std::clamp(level, 0, levelCount - 1);
}

bool isSet(unsigned char Infra_PrintOptions::*option)
{
    return loadPlain(Infra_getPrintOption()->*option) != 0;
}

bool isColored()
{
    return !isSet(&Infra_PrintOptions::color);
}

/// The reset is owed once a line has ended; with colours off only if one is still outstanding.
bool isResetDue()
{
    return hasLineEnded() && (isColored() || loadPlain(s_setConsoleColorComplete) == 0);
}

void noteColorWritten()
{
    storePlain(s_setConsoleColorComplete, 0);
}

void noteResetWritten()
{
    storePlain(s_setConsoleColorComplete, 1);
}

/// Appends to a fixed buffer, keeps it terminated by finish(), and silently cuts at its end.
class CLineWriter
{
public:
    /// `room` bytes at `buffer`, the terminator included.
    CLineWriter(char* buffer, int room) : m_begin(buffer), m_at(buffer), m_last(buffer + room - 1)
    {}

    CLineWriter& text(const char* piece) { return text(piece, strlen(piece)); }

    CLineWriter& text(const char* piece, size_t length)
    {
        const size_t taken = std::min(length, static_cast<size_t>(m_last - m_at));
        memcpy(m_at, piece, taken);
        m_at += taken;
        return *this;
    }

    CLineWriter& character(char piece) { return text(&piece, 1); }

    /// A number in at least `width` digits, filled with zeros.
    CLineWriter& number(int value, int width = 1)
    {
        char digits[12];
        char* const end = digits + sizeof(digits);
        char* begin = end;
        unsigned rest =
            value < 0 ? 0U - static_cast<unsigned>(value) : static_cast<unsigned>(value);
        do {
            *--begin = static_cast<char>('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        while (end - begin < width) {
            *--begin = '0';
        }
        if (value < 0) {
            *--begin = '-';
        }
        return text(begin, static_cast<size_t>(end - begin));
    }

    int finish()
    {
        *m_at = '\0';
        return static_cast<int>(m_at - m_begin);
    }

private:
    char* const m_begin;
    char* m_at;
    char* const m_last;
};

void writeDate(CLineWriter& out, const Infra_SystemTimeEx& time)
{
    out.number(time.year, 4).character('-').number(time.month, 2).character('-');
    out.number(time.day, 2).character('T');
}

void writeTime(CLineWriter& out, const Infra_SystemTimeEx& time)
{
    if (isSet(&Infra_PrintOptions::time)) {
        out.character(' ');
        return;
    }
    out.number(time.hour, 2).character(':').number(time.minute, 2).character(':');
    out.number(time.second, 2);
    if (isSet(&Infra_PrintOptions::millisecond)) {
        out.character('.').number(time.millisecond, 3);
    }
    out.character(' ');
}

void writePlainRevision(CLineWriter& out, const char* revision)
{
    if (isSet(&Infra_PrintOptions::version)) {
        if (!isSet(&Infra_PrintOptions::libName)) {
            out.character(' ');
        }
        return;
    }
    if (revision[0] != '\0' && strcmp(revision, "Unknown") != 0) {
        out.character(':').text(revision);
    }
    out.character(' ');
}

void writePlainFields(CLineWriter& out, const LogOrigin& origin, const char* revision)
{
    if (!isSet(&Infra_PrintOptions::level)) {
        out.text(levelFaces[levelIndex(origin.level)].word);
    }
    if (!isSet(&Infra_PrintOptions::libName)) {
        out.text(shownText(origin.module));
    }
    writePlainRevision(out, revision);
    if (!isSet(&Infra_PrintOptions::thread)) {
        out.number(currentThreadId()).character(' ');
    }
    if (!isSet(&Infra_PrintOptions::file)) {
        out.text(shownText(origin.file)).character(':');
    }
    if (!isSet(&Infra_PrintOptions::line)) {
        out.number(origin.line);
    }
    if (isSet(&Infra_PrintOptions::function)) {
        out.character(' ').text(shownText(origin.function));
    }
}

void writeTaggedFields(CLineWriter& out, const LogOrigin& origin, const char* revision)
{
    if (!isSet(&Infra_PrintOptions::level)) {
        out.text("L:").text(levelFaces[levelIndex(origin.level)].word).character('|');
    }
    if (!isSet(&Infra_PrintOptions::libName)) {
        out.character('[').text(shownText(origin.module)).text("] ");
    }
    if (!isSet(&Infra_PrintOptions::version)) {
        out.text("[ver:").text(revision).text("] ");
    }
    if (!isSet(&Infra_PrintOptions::thread)) {
        out.text("tid:").number(currentThreadId()).character(' ');
    }
    if (!isSet(&Infra_PrintOptions::file)) {
        out.text("F:").text(shownText(origin.file)).character('|');
    }
    if (!isSet(&Infra_PrintOptions::line)) {
        out.text("l:").number(origin.line).character('|');
    }
    if (isSet(&Infra_PrintOptions::function)) {
        out.text("f:").text(shownText(origin.function)).character('|');
    }
    out.text("m:");
}

} // namespace

bool hasLineEnded()
{
    return loadPlain(Infra_returned) != 0;
}

LogMoment currentMoment()
{
    timeval now;
    gettimeofday(&now, nullptr);
    const tm& local = localTimeOf(now.tv_sec);
    LogMoment moment = {};
    moment.beginsLine = hasLineEnded();
    moment.time.year = local.tm_year + 1900;
    moment.time.month = local.tm_mon + 1;
    moment.time.day = local.tm_mday;
    moment.time.wday = local.tm_wday;
    moment.time.hour = local.tm_hour;
    moment.time.minute = local.tm_min;
    moment.time.second = local.tm_sec;
    moment.time.millisecond = static_cast<int>(now.tv_usec / 1000);
    return moment;
}

int buildPrefix(char* buffer, int room, const LogOrigin& origin, const LogMoment& moment)
{
    if (room <= 0) {
        return 0;
    }
    CLineWriter out(buffer, room);
    if (moment.beginsLine) {
        const bool tagged = isSet(&Infra_PrintOptions::style);
        out.character('[');
        if (tagged) {
            out.text("|T: ");
        }
        if (isSet(&Infra_PrintOptions::date)) {
            writeDate(out, moment.time);
        }
        writeTime(out, moment.time);
        const char* const revision = textOrEmpty(origin.revision);
        if (tagged) {
            writeTaggedFields(out, origin, revision);
        } else {
            writePlainFields(out, origin, revision);
        }
        out.character(']');
    }
    return out.finish();
}

LogText formatLine(char* buffer, int room, const LogOrigin& origin, const LogMoment& moment,
                   const char* format, va_list arguments)
{
    const int prefix = buildPrefix(buffer, room, origin, moment);
    const int left = room - prefix;
    const int message =
        vsnprintf(buffer + prefix, static_cast<size_t>(left), textOrEmpty(format), arguments);
    if (message < 0) {
        buffer[prefix] = '\0';
        return {prefix, left > 1, false};
    }
    const int length = message > INT_MAX - prefix ? INT_MAX : prefix + message;
    // A prefix that reaches the end of the buffer may have been cut.
    return {length, message < left && left > 1, false};
}

bool noteLineEnd(const char* buffer, int length)
{
    const bool ended = length > lineRoom || (length > 0 && buffer[length - 1] == '\n');
    storePlain(Infra_returned, ended ? 1 : 0);
    return ended;
}

void writeLine(char* text, int level, bool beginsLine, bool mayReset)
{
    char* begin = text;
    char* const end = text + strlen(text);
    if (beginsLine && isColored()) {
        const char* const color = levelFaces[levelIndex(level)].color;
        const size_t length = strlen(color);
        begin -= length;
        memcpy(begin, color, length);
        noteColorWritten();
    }
    if (!mayReset || !isResetDue()) {
        fwrite(begin, 1, static_cast<size_t>(end - begin), stdout);
        return;
    }
    // The text is handed on after this: what the reset overwrites is put back.
    char behind[resetLength];
    memcpy(behind, end, resetLength);
    memcpy(end, resetSequence, resetLength);
    fwrite(begin, 1, static_cast<size_t>(end - begin) + resetLength, stdout);
    memcpy(end, behind, resetLength);
    noteResetWritten();
}

void writeColor(int level)
{
    if (isColored()) {
        fputs(levelFaces[levelIndex(level)].color, stdout);
        noteColorWritten();
    }
}

void writeDueReset()
{
    if (isResetDue()) {
        fputs(resetSequence, stdout);
        noteResetWritten();
    }
}

void flushBehind(int level, bool lineEnded)
{
    if (lineEnded && (level == logLevelFatal || level == logLevelError)) {
        fflush(stdout);
    }
}

bool isLevelOpen(int level)
{
    return level <= loadPlain(Infra_printLogLevel) && loadPlain(Infra_openLog) != CLOSE_LOG;
}

CErrnoKeeper::CErrnoKeeper() : m_errno(errno) {}

CErrnoKeeper::~CErrnoKeeper()
{
    errno = m_errno;
}

void CErrnoKeeper::restore() const
{
    errno = m_errno;
}

} // namespace Infra
} // namespace Tarsel

// LogLine.cpp: prefix, message, colours and the one write.
//
// Prefix and message are put together by hand (TextWriter.h, MessageFormat.h): the system's printf
// would spend more on them than everything else here takes. The local time is converted once a
// second and thread (LocalTime.h), for the conversion takes a process-wide lock. What is left is the
// clock, about a quarter of a line, and the copy into the stream.

#include "Infra3/LogLine.h"

#include <sys/time.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>

#include "Infra/Infra3/PrintLog.h"
#include "Infra3/BoundedText.h"
#include "Infra3/LocalTime.h"
#include "Infra3/MessageFormat.h"
#include "Infra3/PlainShared.h"
#include "Infra3/TextWriter.h"
#include "Infra3/ThreadId.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

struct LevelFace
{
    std::string_view word;
    std::string_view color;
};

constexpr LevelFace levelFaces[] = {
    {"", "\033[0;40m"},        {"fatal ", "\033[35;40m"}, {"error ", "\033[31;40m"},
    {"warn ", "\033[33;40m"},  {"info ", "\033[32;40m"},  {"trace ", "\033[37;40m"},
    {"debug ", "\033[36;40m"},
};
constexpr int levelCount = sizeof(levelFaces) / sizeof(levelFaces[0]);

/// 1 when the colour reset has been written since the last colour.
constinit int s_setConsoleColorComplete = 1;

const LevelFace& faceOf(int level)
{
    return levelFaces[std::clamp(level, 0, levelCount - 1)];
}

bool isColored()
{
    return loadPlain(Infra_getPrintOption()->color) == 0;
}

/// The reset is owed once a line has ended; with colours off only if one is still outstanding.
bool isResetDue(bool colored)
{
    return hasLineEnded() && (colored || loadPlain(s_setConsoleColorComplete) == 0);
}

/// Lays out the prefix of one line, by the options of the moment.
class CPrefixWriter
{
public:
    CPrefixWriter(char* buffer, int room, const LogOrigin& origin)
        : m_out(buffer, static_cast<size_t>(room)),
          m_options(*Infra_getPrintOption()),
          m_origin(origin)
    {}

    /// Returns the length.
    int write(const Infra_SystemTimeEx& time)
    {
        const bool tagged = isSet(m_options.style);
        m_out.text(tagged ? "[|T: " : "[");
        if (isSet(m_options.date)) {
            date(time);
        }
        timeOfDay(time);
        if (tagged) {
            taggedFields();
        } else {
            plainFields();
        }
        m_out.character(']');
        return static_cast<int>(m_out.finish());
    }

private:
    static bool isSet(const unsigned char& option) { return loadPlain(option) != 0; }

    void date(const Infra_SystemTimeEx& time)
    {
        m_out.number(time.year, 4).character('-').pair(time.month).character('-');
        m_out.pair(time.day).character('T');
    }

    void timeOfDay(const Infra_SystemTimeEx& time)
    {
        if (!isSet(m_options.time)) {
            m_out.pair(time.hour).character(':').pair(time.minute).character(':').pair(time.second);
            if (isSet(m_options.millisecond)) {
                m_out.character('.').number(time.millisecond, 3);
            }
        }
        m_out.character(' ');
    }

    void plainFields()
    {
        if (!isSet(m_options.level)) {
            m_out.text(faceOf(m_origin.level).word);
        }
        if (!isSet(m_options.libName)) {
            m_out.text(shownText(m_origin.module));
        }
        plainRevision();
        if (!isSet(m_options.thread)) {
            m_out.number(currentThreadId()).character(' ');
        }
        if (!isSet(m_options.file)) {
            m_out.text(shownText(m_origin.file)).character(':');
        }
        if (!isSet(m_options.line)) {
            m_out.number(m_origin.line);
        }
        if (isSet(m_options.function)) {
            m_out.character(' ').text(shownText(m_origin.function));
        }
    }

    void plainRevision()
    {
        if (isSet(m_options.version)) {
            if (!isSet(m_options.libName)) {
                m_out.character(' ');
            }
            return;
        }
        const std::string_view revision = textOrEmpty(m_origin.revision);
        if (!revision.empty() && revision != "Unknown") {
            m_out.character(':').text(revision);
        }
        m_out.character(' ');
    }

    void taggedFields()
    {
        if (!isSet(m_options.level)) {
            m_out.text("L:").text(faceOf(m_origin.level).word).character('|');
        }
        if (!isSet(m_options.libName)) {
            m_out.character('[').text(shownText(m_origin.module)).text("] ");
        }
        if (!isSet(m_options.version)) {
            m_out.text("[ver:").text(textOrEmpty(m_origin.revision)).text("] ");
        }
        if (!isSet(m_options.thread)) {
            m_out.text("tid:").number(currentThreadId()).character(' ');
        }
        if (!isSet(m_options.file)) {
            m_out.text("F:").text(shownText(m_origin.file)).character('|');
        }
        if (!isSet(m_options.line)) {
            m_out.text("l:").number(m_origin.line).character('|');
        }
        if (isSet(m_options.function)) {
            m_out.text("f:").text(shownText(m_origin.function)).character('|');
        }
        m_out.text("m:");
    }

    CTextWriter m_out;
    const Infra_PrintOptions& m_options;
    const LogOrigin& m_origin;
};

} // namespace

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
    if (!moment.beginsLine) {
        *buffer = '\0';
        return 0;
    }
    return CPrefixWriter(buffer, room, origin).write(moment.time);
}

LogText formatLine(char* buffer, int room, const LogOrigin& origin, const LogMoment& moment,
                   const char* format, va_list arguments)
{
    const int prefix = buildPrefix(buffer, room, origin, moment);
    const int left = room - prefix;
    const int message =
        formatMessage(buffer + prefix, static_cast<size_t>(left), textOrEmpty(format), arguments);
    if (message < 0) {
        buffer[prefix] = '\0';
        return {prefix, left > 1, false};
    }
    const int length = message > INT_MAX - prefix ? INT_MAX : prefix + message;
    // A prefix that reaches the end of the buffer may have been cut.
    return {length, message < left && left > 1, false};
}

void writeLine(char* text, int level, bool beginsLine, bool mayReset)
{
    char* begin = text;
    char* const end = text + strlen(text);
    const bool colored = isColored();
    if (beginsLine && colored) {
        const std::string_view color = faceOf(level).color;
        begin -= color.size();
        memcpy(begin, color.data(), color.size());
    }
    if (!mayReset || !isResetDue(colored)) {
        fwrite(begin, 1, static_cast<size_t>(end - begin), stdout);
        if (begin != text) {
            changePlain(s_setConsoleColorComplete, 0);
        }
        return;
    }
    // The text is handed on after this: what the reset overwrites is put back.
    char behind[resetLength];
    memcpy(behind, end, resetLength);
    memcpy(end, resetSequence, resetLength);
    fwrite(begin, 1, static_cast<size_t>(end - begin) + resetLength, stdout);
    memcpy(end, behind, resetLength);
    changePlain(s_setConsoleColorComplete, 1);
}

void writeColor(int level)
{
    if (isColored()) {
        fputs(faceOf(level).color.data(), stdout);
        changePlain(s_setConsoleColorComplete, 0);
    }
}

void writeDueReset()
{
    if (isResetDue(isColored())) {
        fputs(resetSequence, stdout);
        changePlain(s_setConsoleColorComplete, 1);
    }
}

void flushBehind(int level, bool lineEnded)
{
    if (lineEnded && (level == logLevelFatal || level == logLevelError)) {
        fflush(stdout);
    }
}

} // namespace Infra
} // namespace Tarsel

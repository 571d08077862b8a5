// CPrintLog.cpp: the shared settings of the log line, and logging for callers in C.

#include "Infra/Infra3/CPrintLog.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Infra3/LogLine.h"
#include "Infra3/PlainShared.h"
#include "Infra3/ThreadId.h"

using namespace Tarsel::Infra;

int Infra_printLogLevel = Infra_logLevelInfo;
Infra_logOpenType Infra_openLog = OPEN_ALL;
int Infra_returned = 1;

namespace
{

constinit Infra_PrintOptions s_options = {};

const char* fileToPrint(const char* file)
{
    if (file == nullptr) {
        return nullptr;
    }
    const int name = Infra_reverseEqualOrder(file);
    return name < 0 ? file : file + name;
}

} // namespace

Infra_PrintOptions* Infra_getPrintOption(void)
{
    return &s_options;
}

int Infra_reverseEqualOrder(const char* file)
{
    const char* const slash = file == nullptr ? nullptr : strrchr(file, '/');
    if (slash == nullptr || slash[1] == '\0') {
        return -1;
    }
    return static_cast<int>(slash + 1 - file);
}

void Infra_print(int, const char* s)
{
    if (s != nullptr) {
        fputs(s, stdout);
    }
}

int Infra_getCurrentThreadID(void)
{
    return currentThreadId();
}

Infra_SystemTimeEx Infra_getCurrentTimeEx(void)
{
    return currentMoment().time;
}

void Infra_set_console_color(int c)
{
    printf("\033[%d;40m", c);
}

void Infra_reset_console_color(void)
{
    fputs(resetSequence, stdout);
}

void Infra_resetcolor(void)
{
    writeDueReset();
}

int Infra_logOptionControl(char* buffer, int bufValidlen, int level, const char* module,
                           const char* file, const char* func, int line, const char* svnversion,
                           Infra_SystemTimeEx* pTime)
{
    const CErrnoKeeper keeper;
    const LogMoment moment = currentMoment();
    if (pTime != nullptr) {
        *pTime = moment.time;
    }
    if (moment.beginsLine) {
        writeColor(level);
    }
    if (buffer == nullptr) {
        return 0;
    }
    return buildPrefix(buffer, bufValidlen, {level, module, file, func, line, svnversion}, moment);
}

int Infra_logFilter(int level, const char* module, const char* file, const char* func, int line,
                    const char* svnversion, const char* fmt, ...)
{
    const int printedLevel = level == Infra_logLevelDebug ? Infra_logLevelTrace : level;
    if (!isLevelOpen(printedLevel)) {
        return 0;
    }
    const CErrnoKeeper keeper;
    const int shownLevel = std::min(printedLevel, int{Infra_logLevelTrace});
    const LogOrigin origin = {shownLevel, module, fileToPrint(file), func, line, svnversion};
    const LogMoment moment = currentMoment();
    int length = 0;
    va_list arguments;
    va_start(arguments, fmt);
    formatAndDeliver(origin, moment, keeper, fmt, arguments, [&](char* text, LogText line) {
        writeLine(text, shownLevel, moment.beginsLine, /*mayReset*/ true);
        flushBehind(shownLevel, line.ended);
        length = line.length;
    });
    va_end(arguments);
    return length;
}

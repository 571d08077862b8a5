// PrintLog.cpp: the log path, from the filter to the last receiver.
//
// A call passes the level test first, one load and one comparison. What is left goes to standard
// output or the printer, to the print procedures, to the log file and into the statistics, in this
// order. The path to standard output takes no lock of ours and allocates nothing; printer and
// procedures are copied (by reference) under a lock and called without it, so they may log, attach
// and detach.

#include "Infra/Infra3/PrintLog.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra/Infra3/Guard.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LogLine.h"
#include "Infra3/LogSink.h"
#include "Infra3/PlainShared.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// Printers and procedures may log; one that does so without end is stopped here instead of by the
/// end of its stack.
constexpr int deepestNesting = 4;
constinit thread_local int t_nesting = 0;

class CNesting
{
public:
    CNesting() { ++t_nesting; }
    ~CNesting() { --t_nesting; }
    CNesting(const CNesting&) = delete;
    CNesting& operator=(const CNesting&) = delete;
    bool tooDeep() const { return t_nesting > deepestNesting; }
};

constinit PrintOptions s_options = {};
constinit std::atomic<const LogSink*> s_sink{nullptr};
constinit std::atomic<bool> s_statisticsOn{false};

/// Set while a printer or a procedure is installed, so that the usual path does not touch the lock.
constinit std::atomic<bool> s_hasReceivers{false};

typedef std::vector<PrintProc> ProcedureList;

struct Receivers
{
    CLeafMutex receiverMutex; // guards the two below
    LogPrinterProc printer;
    std::shared_ptr<const ProcedureList> procedures; ///< never changed, only replaced

    CLeafMutex statisticsMutex; // guards the table
    std::map<std::string, LogModuleInfo, std::less<>> statistics;
};

Receivers& receivers()
{
    return immortal<Receivers, Receivers>();
}

/// Who gets a text now.
struct Audience
{
    LogPrinterProc printer;
    std::shared_ptr<const ProcedureList> procedures;
};

Audience currentAudience()
{
    CGuard guard(receivers().receiverMutex);
    return {receivers().printer, receivers().procedures};
}

void noteReceiversLocked()
{
    const bool any = !receivers().printer.empty() || receivers().procedures != nullptr;
    s_hasReceivers.store(any, std::memory_order_release);
}

bool isModuleOff(const char* module)
{
    if (loadPlain(Infra_openLog) != OPEN_PARITAL || module == nullptr) {
        return false;
    }
    const LogSink* const sink = s_sink.load(std::memory_order_acquire);
    return sink != nullptr && sink->isModuleOff(module);
}

const char* lastPathPart(const char* file)
{
    const char* const slash = file == nullptr ? nullptr : strrchr(file, '/');
    return slash == nullptr ? file : slash + 1;
}

/// Printer or standard output, then the procedures, then the colour reset that is due.
[[gnu::noinline]] void deliverToReceivers(char* text, const LogOrigin& origin, bool beginsLine)
{
    const Audience audience = currentAudience();
    if (audience.printer.empty()) {
        writeLine(text, origin.level, beginsLine, /*mayReset*/ false);
    } else {
        if (beginsLine) {
            writeColor(origin.level);
        }
        audience.printer(text);
    }
    if (audience.procedures != nullptr) {
        for (const PrintProc& procedure : *audience.procedures) {
            procedure(text);
        }
    }
    writeDueReset();
}

/// On the usual path there is standard output alone, and no lock.
void deliver(char* text, const LogOrigin& origin, bool beginsLine)
{
    if (s_hasReceivers.load(std::memory_order_acquire)) {
        deliverToReceivers(text, origin, beginsLine);
    } else {
        writeLine(text, origin.level, beginsLine, /*mayReset*/ true);
    }
}

/// C code may have said so in the one record, the other interface in the other.
bool isForFile()
{
    return loadPlain(s_options.tologfile) == 0 && loadPlain(Infra_getPrintOption()->tologfile) == 0;
}

void writeToFile(const char* text, int length, const Infra_SystemTimeEx& now)
{
    const LogSink* const sink = s_sink.load(std::memory_order_acquire);
    if (sink != nullptr && isForFile()) {
        sink->write(text, static_cast<size_t>(std::min(length, lineRoom - 1)), now);
    }
}

void countBytes(const char* module, int length)
{
    if (!s_statisticsOn.load(std::memory_order_relaxed) || module == nullptr || *module == '\0') {
        return;
    }
    CGuard guard(receivers().statisticsMutex);
    auto& table = receivers().statistics;
    auto entry = table.find(std::string_view(module));
    if (entry == table.end()) {
        try {
            entry = table.emplace(module, LogModuleInfo{}).first;
        } catch (const std::bad_alloc&) {
            return; // a module that there is no memory for is not counted
        }
    }
    uint64_t& bytes = entry->second.printedBytes;
    const uint64_t room = std::numeric_limits<uint64_t>::max() - bytes;
    bytes += std::min(room, static_cast<uint64_t>(length));
}

} // namespace

void setLogSink(const LogSink* sink)
{
    s_sink.store(sink, std::memory_order_release);
}

void setLogStatistics(bool on)
{
    s_statisticsOn.store(on, std::memory_order_relaxed);
}

namespace
{

/// What a level prints as: debug messages are trace messages.
int printedLevelOf(int level)
{
    return level == logLevelDebug ? static_cast<int>(logLevelTrace) : level;
}

/// A call that has passed the filter; `origin` as its caller gave it. Out of line, so that one that
/// does not pass costs no register more than the test needs.
[[gnu::noinline]] int logPassed(LogOrigin origin, const char* format, va_list arguments)
{
    const CNesting nesting;
    if (isModuleOff(origin.module) || nesting.tooDeep()) {
        return 0;
    }
    const CErrnoKeeper keeper;
    origin.level = std::min(origin.level, int{logLevelTrace});
    origin.file = lastPathPart(origin.file);
    if (origin.revision == nullptr || loadPlain(s_options.version) != 0) {
        origin.revision = "";
    }
    const LogMoment moment = currentMoment();
    int length = 0;
    formatAndDeliver(origin, moment, keeper, format, arguments, [&](char* text, LogText made) {
        deliver(text, origin, moment.beginsLine);
        flushBehind(origin.level, made.ended);
        length = made.length > lineRoom ? cutLineLength : made.length;
        writeToFile(text, length, moment.time);
        countBytes(origin.module, length);
    });
    return length;
}

} // namespace

int logFilterEx(int level, const char* module, const char* file, const char* func, int line,
                const char* svnversion, const char* fmt, va_list ap)
{
    const int printedLevel = printedLevelOf(level);
    if (!isLevelOpen(printedLevel)) {
        return 0;
    }
    return logPassed({printedLevel, module, file, func, line, svnversion}, fmt, ap);
}

int logFilter(int level, const char* module, const char* file, const char* func, int line,
              const char* svnversion, const char* fmt, ...)
{
    const int printedLevel = printedLevelOf(level);
    if (!isLevelOpen(printedLevel)) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, fmt);
    const int length =
        logPassed({printedLevel, module, file, func, line, svnversion}, fmt, arguments);
    va_end(arguments);
    return length;
}

// The short forms differ in their level only.
#define INFRA_DEFINE_LOG_SHORT(name, level)                                                        \
    int name(const char* fmt, ...)                                                                 \
    {                                                                                              \
        va_list arguments;                                                                         \
        va_start(arguments, fmt);                                                                  \
        const int length = logFilterEx((level), "Unknown", "Unknown", "", 0, "", fmt, arguments);  \
        va_end(arguments);                                                                         \
        return length;                                                                             \
    }

INFRA_DEFINE_LOG_SHORT(logFatal, logLevelFatal)
INFRA_DEFINE_LOG_SHORT(logError, logLevelError)
INFRA_DEFINE_LOG_SHORT(logWarn, logLevelWarn)
INFRA_DEFINE_LOG_SHORT(logInfo, logLevelInfo)
INFRA_DEFINE_LOG_SHORT(logTrace, logLevelTrace)
INFRA_DEFINE_LOG_SHORT(logDebug, logLevelTrace)

#undef INFRA_DEFINE_LOG_SHORT

int logLibName(int nLevel, const char* libName, const char* fmt, ...)
{
    if (nLevel < logLevelFatal || nLevel > logLevelDebug) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, fmt);
    const int length = logFilterEx(nLevel, libName, "Unknown", "", 0, "", fmt, arguments);
    va_end(arguments);
    return length;
}

void setPrintLogLevel(int level)
{
    storePlain(Infra_printLogLevel, level);
}

int getPrintLogLevel()
{
    return loadPlain(Infra_printLogLevel);
}

namespace
{

/// The thirteen flags of both option records, which have the same layout.
constexpr size_t optionFlags = offsetof(PrintOptions, resv);
static_assert(optionFlags == 13 && offsetof(Infra_PrintOptions, resv) == optionFlags);

void storeBytes(void* target, const void* source, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        storePlain(static_cast<uint8_t*>(target)[i], static_cast<const uint8_t*>(source)[i]);
    }
}

} // namespace

void setPrintOptions(PrintOptions printOptions)
{
    storeBytes(&s_options, &printOptions, sizeof(printOptions));
    storeBytes(Infra_getPrintOption(), &printOptions, optionFlags);
}

void setPrintOption(uint8_t PrintOptions::*flag, unsigned char Infra_PrintOptions::*flagOfC,
                    uint8_t value)
{
    storePlain(s_options.*flag, value);
    storePlain(Infra_getPrintOption()->*flagOfC, value);
}

int getPrintOptions(PrintOptions* printOptions)
{
    if (printOptions != nullptr) {
        for (size_t i = 0; i < sizeof(PrintOptions); ++i) {
            reinterpret_cast<uint8_t*>(printOptions)[i] =
                loadPlain(reinterpret_cast<const uint8_t*>(&s_options)[i]);
        }
    }
    return 0;
}

std::map<std::string, LogModuleInfo> getLogStatistics()
{
    CGuard guard(receivers().statisticsMutex);
    return {receivers().statistics.begin(), receivers().statistics.end()};
}

void logCleanup()
{
    const LogSink* const sink = s_sink.load(std::memory_order_acquire);
    if (sink != nullptr) {
        sink->close();
    }
}

int setLogPrinter(LogPrinterProc printer)
{
    CGuard guard(receivers().receiverMutex);
    receivers().printer = printer;
    noteReceiversLocked();
    return 0;
}

namespace
{

/// Both under receiverMutex.
ProcedureList copiedProceduresLocked()
{
    const auto& procedures = receivers().procedures;
    return procedures == nullptr ? ProcedureList() : *procedures;
}

void replaceProceduresLocked(ProcedureList list)
{
    receivers().procedures =
        list.empty() ? nullptr : std::make_shared<const ProcedureList>(std::move(list));
    noteReceiversLocked();
}

} // namespace

bool attachPrint(PrintProc proc)
{
    if (proc.empty()) {
        return false;
    }
    CGuard guard(receivers().receiverMutex);
    try {
        ProcedureList list = copiedProceduresLocked();
        if (std::find(list.begin(), list.end(), proc) != list.end()) {
            return false;
        }
        list.push_back(proc);
        replaceProceduresLocked(std::move(list));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool detachPrint(PrintProc proc)
{
    CGuard guard(receivers().receiverMutex);
    const std::shared_ptr<const ProcedureList>& procedures = receivers().procedures;
    if (procedures == nullptr ||
        std::find(procedures->begin(), procedures->end(), proc) == procedures->end()) {
        return false;
    }
    try {
        // The last one goes without asking for memory.
        ProcedureList list = procedures->size() == 1 ? ProcedureList() : copiedProceduresLocked();
        list.erase(std::remove(list.begin(), list.end(), proc), list.end());
        replaceProceduresLocked(std::move(list));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

} // namespace Infra
} // namespace Tarsel

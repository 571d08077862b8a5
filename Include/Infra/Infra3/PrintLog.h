#ifndef INFRA_INFRA3_PRINTLOG_H
#define INFRA_INFRA3_PRINTLOG_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Function.h"

namespace Tarsel
{
namespace Infra
{

/// Severity of a line. A level is printed when it is at most the print level, which starts at 4.
enum LogLevel : int
{
    logLevelUnknown = 0,
    logLevelFatal = 1,
    logLevelError = 2,
    logLevelWarn = 3,
    logLevelInfo = 4,
    logLevelTrace = 5,
    logLevelDebug = 6 ///< printed as trace
};

/// Foreground colour of each level, as the terminal's escape sequences number them.
enum LogColor : int
{
    COLOR_ERROR = 31,
    COLOR_INFO = 32,
    COLOR_WARN = 33,
    COLOR_FATAL = 35,
    COLOR_DEBUG = 36,
    COLOR_TRACE = 37
};

/// The prefix of a line. Zero is the default of every field, so what a nonzero value does differs.
struct PrintOptions
{
    uint8_t time;        ///< nonzero: a blank instead of the time of day
    uint8_t color;       ///< nonzero: no colour sequences
    uint8_t libName;     ///< nonzero: no module name
    uint8_t level;       ///< nonzero: no level word
    uint8_t thread;      ///< nonzero: no thread id
    uint8_t version;     ///< nonzero: no revision
    uint8_t function;    ///< nonzero: the function's name
    uint8_t file;        ///< nonzero: no file name
    uint8_t line;        ///< nonzero: no line number
    uint8_t date;        ///< nonzero: the date
    uint8_t millisecond; ///< nonzero: milliseconds behind the seconds
    uint8_t style;       ///< nonzero: the tagged layout
    uint8_t tologfile;   ///< nonzero: nothing goes to the log file
    uint8_t resv[19];
};
static_assert(sizeof(PrintOptions) == 32, "thirteen flags and 19 reserved bytes");

/// What one module has printed while statistics were switched on.
struct LogModuleInfo
{
    uint64_t printedBytes; ///< lengths of its lines; stays at the maximum once there
    int resv[2];
};

/// Prints one text, filtered by level and module.
///
/// Behaviour: a text that begins a line gets a prefix of time, level, module, revision, thread id,
/// file and line (PrintOptions); one that follows a text without line end continues that line. The
/// whole goes to standard output in one piece, or to the installed printer, then to the print
/// procedures, then to the log file. A line has room for 8190 characters and is cut behind them.
/// Standard output is flushed after an ended line of level error or fatal only.
/// A call from within a printer or procedure, four deep, prints nothing. A text of more than a
/// kilobyte needs 8 KB of stack on top.
/// Threads: safe from any thread; each text reaches standard output in one piece, so that whole
/// lines never mix. `errno` is left as it was.
/// @param level       1 to 6, where 6 counts as 5; above, looks like 5; below, has no level word and
///                    colour
/// @param module      the library that speaks, "Infra" for this one
/// @param file        only the part behind the last '/' is printed
/// @param svnversion  revision of the caller's build; null is ""
/// @return characters of the line, prefix included; 8192 when more than one was cut off; 0 when
///         nothing was printed
INFRA_API INFRA_PRINTF_FORMAT(7, 8) int logFilter(int level, const char* module, const char* file,
                                                  const char* func, int line,
                                                  const char* svnversion, const char* fmt, ...);
/// The same with the arguments in a list.
INFRA_API INFRA_PRINTF_FORMAT(7, 0) int logFilterEx(int level, const char* module, const char* file,
                                                    const char* func, int line,
                                                    const char* svnversion, const char* fmt,
                                                    va_list ap);

/// logFilter at one level for module "Unknown", without file, function, line and revision.
INFRA_API INFRA_PRINTF_FORMAT(1, 2) int logFatal(const char* fmt, ...);
INFRA_API INFRA_PRINTF_FORMAT(1, 2) int logError(const char* fmt, ...);
INFRA_API INFRA_PRINTF_FORMAT(1, 2) int logWarn(const char* fmt, ...);
INFRA_API INFRA_PRINTF_FORMAT(1, 2) int logInfo(const char* fmt, ...);
INFRA_API INFRA_PRINTF_FORMAT(1, 2) int logTrace(const char* fmt, ...);
INFRA_API INFRA_PRINTF_FORMAT(1, 2) int logDebug(const char* fmt, ...);
/// The same for module `libName`; prints nothing and returns 0 for a level outside 1 to 6.
INFRA_API INFRA_PRINTF_FORMAT(3, 4) int logLibName(int nLevel, const char* libName, const char* fmt,
                                                   ...);

/// The highest level that is printed. Not checked; takes effect with the next call of any thread.
INFRA_API void setPrintLogLevel(int level);
INFRA_API int getPrintLogLevel();

/// Sets all options at once, for the C interface as well. What C code sets (CPrintLog.h) is not seen
/// by getPrintOptions(); it is heeded all the same.
INFRA_API void setPrintOptions(PrintOptions printOptions);
/// Copies the options to `*printOptions` (null: nothing happens) and returns 0.
INFRA_API int getPrintOptions(PrintOptions* printOptions);

/// A copy of what each module has printed, by module name.
INFRA_API std::map<std::string, LogModuleInfo> getLogStatistics();

/// Carries out one command of the log filter, split into words: argv[0] is the option, the others
/// are its values. Options are compared as they are, "on", "off", "none", "bysize" and "byday"
/// whatever their case. Unknown commands, and known ones with a value missing or null, are ignored.
///
/// | Command | Effect |
/// |---|---|
/// | no word, or `-h` alone | prints the usage |
/// | `-loglevel N` | prints levels up to N |
/// | `-logmodule NAME on/off` | switches one module; modules are looked at from now on |
/// | `-logmodule on/off` | all modules, or none; the switches of single ones stay |
/// | `-logtime on/off` and `-logthread`, `-logversion`, `-logfunction` | that option: on is 0, else 1 |
/// | `-logpath PATH` | appends every line to PATH, "" for none; a file that is open stays |
/// | `-logsize K` | a file of K KiB is full; 0: none is. The product wraps in 32 bits |
/// | `-logsavesetting none` | a file that is full is emptied, and no old files are made |
/// | `-logsavesetting bysize K M` | one that is full becomes an old file; M of them stay, 0 is all |
/// | `-logsavesetting byday on/off M` | the same for one that was opened on another day |
/// | `-logmodulestatistics on/off` | counts for getLogStatistics() |
///
/// Old files are named PATH_YYYY-MM-DD_N, by the date of their opening; one that an earlier run left,
/// by the day on which it was found. How full the file is stays counted when another path is given:
/// its file may be renamed, or in the old way emptied, early. What goes wrong with the file is printed,
/// and the line is missing from the file only.
/// Threads: safe from any thread, while others log.
INFRA_API void setLogFilter(int argc, char** argv);

/// Closes the log file if one is open; the next line that goes to a file opens it again.
INFRA_API void logCleanup();

/// Prints `length` bytes in rows of sixteen, in hexadecimal and as characters, at trace level.
/// A length is taken as a signed 32-bit count; null prints nothing.
INFRA_API void dumpHex(uint8_t* pdat, size_t length);

/// Takes the place of standard output. The text is one line or a piece of one, without colours, and
/// lives until the call returns.
typedef TFunction1<void, const char*> LogPrinterProc;
/// Sees every text that is printed, after standard output or the printer; its result is not used.
typedef TFunction1<bool, const char*> PrintProc;

/// Installs `printer` in place of standard output; an empty one gives standard output back.
/// The printer is called on the logging thread without a lock held and may itself log. Returns 0.
INFRA_API int setLogPrinter(LogPrinterProc printer);

/// Appends `proc` to the print procedures. False when it is empty or there already.
/// Procedures are called on the logging thread, in the order attached, without a lock held: they
/// may log, attach and detach.
INFRA_API bool attachPrint(PrintProc proc);
/// Removes `proc` from the print procedures; false when it is not there, or when it is one of several
/// and there is no memory for the list of the others. Another thread may be
/// inside the procedure for the length of one more call.
INFRA_API bool detachPrint(PrintProc proc);

} // namespace Infra
} // namespace Tarsel

// The short forms stand in the global namespace too, as the same functions.
using Tarsel::Infra::logDebug;
using Tarsel::Infra::logError;
using Tarsel::Infra::logFatal;
using Tarsel::Infra::logInfo;
using Tarsel::Infra::logLibName;
using Tarsel::Infra::logTrace;
using Tarsel::Infra::logWarn;

/// Tarsel::Infra::dumpHex.
INFRA_API void DumpHex(unsigned char* pdat, unsigned long length);

#endif

#ifndef INFRA_SRC_INFRA3_LOGFRONT_H
#define INFRA_SRC_INFRA3_LOGFRONT_H

// The library's own way to log: one macro call a message. The macro only collects the place and
// tests the level; arguments are not evaluated while the level is off.
//
// A log printer is application code, so no message may go out while a lock of ours is held. Whoever
// has to speak under a lock opens a CLogHold before taking it: the thread's messages are then kept,
// and go out in their order when the outermost hold ends.

#include <cstdarg>
#include <string>
#include <vector>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra3/PlainShared.h"

namespace Tarsel
{
namespace Infra
{

inline bool isLevelPrinted(int level)
{
    return level <= loadPlain(Infra_printLogLevel);
}

/// Where a message stands in the source.
struct LogPlace
{
    const char* file;
    const char* function;
    int line;
};

/// logFilter for module "Infra" and this build's revision; kept back while the thread has a
/// CLogHold.
__attribute__((format(printf, 3, 4))) void logFront(int level, const LogPlace& place,
                                                    const char* format, ...);

/// Keeps the calling thread's messages back until the outermost hold ends, except fatal ones: after
/// those the process ends. Declare it before the guard of the lock. Costs nothing while nobody
/// speaks.
class CLogHold
{
public:
    CLogHold();
    ~CLogHold();
    CLogHold(const CLogHold&) = delete;
    CLogHold& operator=(const CLogHold&) = delete;

    /// See printHeldMessages().
    void printNow();

private:
    friend void logFront(int level, const LogPlace& place, const char* format, ...);

    struct Message
    {
        int level;
        LogPlace place;
        std::string text;
    };
    __attribute__((format(printf, 4, 0))) void keep(int level, const LogPlace& place,
                                                    const char* format, va_list arguments);

    std::vector<Message> m_messages;
};

/// Prints what the calling thread's hold has kept, on standard output alone because locks are held:
/// for a process that is about to end.
void printHeldMessages();

} // namespace Infra
} // namespace Tarsel

#define INFRA_LOG(level, ...)                                                                      \
    (::Tarsel::Infra::isLevelPrinted(level)                                                        \
         ? ::Tarsel::Infra::logFront((level), {__FILE__, __func__, __LINE__}, __VA_ARGS__)         \
         : (void)0)

#define INFRA_LOG_FATAL(...) INFRA_LOG(::Tarsel::Infra::logLevelFatal, __VA_ARGS__)
#define INFRA_LOG_ERROR(...) INFRA_LOG(::Tarsel::Infra::logLevelError, __VA_ARGS__)
#define INFRA_LOG_WARN(...) INFRA_LOG(::Tarsel::Infra::logLevelWarn, __VA_ARGS__)
#define INFRA_LOG_INFO(...) INFRA_LOG(::Tarsel::Infra::logLevelInfo, __VA_ARGS__)
#define INFRA_LOG_TRACE(...) INFRA_LOG(::Tarsel::Infra::logLevelTrace, __VA_ARGS__)
/// A debug message is a trace message: both are printed from level 5 on.
#define INFRA_LOG_DEBUG(...) INFRA_LOG_TRACE(__VA_ARGS__)

#endif

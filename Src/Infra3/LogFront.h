#ifndef INFRA_SRC_INFRA3_LOGFRONT_H
#define INFRA_SRC_INFRA3_LOGFRONT_H

// The library's own way to log: one macro call a message. The macro only collects the place and
// tests the level; arguments are not evaluated while the level is off.

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

} // namespace Infra
} // namespace Tarsel

/// A debug message is a trace message: both are tested against level 5.
#define INFRA_LOG(level, ...)                                                                      \
    (::Tarsel::Infra::isLevelPrinted(level)                                                        \
         ? (void)::Tarsel::Infra::logFilter((level), "Infra", __FILE__, __func__, __LINE__,        \
                                            INFRA_REVISION, __VA_ARGS__)                           \
         : (void)0)

#define INFRA_LOG_FATAL(...) INFRA_LOG(::Tarsel::Infra::logLevelFatal, __VA_ARGS__)
#define INFRA_LOG_ERROR(...) INFRA_LOG(::Tarsel::Infra::logLevelError, __VA_ARGS__)
#define INFRA_LOG_WARN(...) INFRA_LOG(::Tarsel::Infra::logLevelWarn, __VA_ARGS__)
#define INFRA_LOG_INFO(...) INFRA_LOG(::Tarsel::Infra::logLevelInfo, __VA_ARGS__)
#define INFRA_LOG_TRACE(...) INFRA_LOG(::Tarsel::Infra::logLevelTrace, __VA_ARGS__)
#define INFRA_LOG_DEBUG(...) INFRA_LOG_TRACE(__VA_ARGS__)

#endif

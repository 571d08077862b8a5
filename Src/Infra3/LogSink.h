#ifndef INFRA_SRC_INFRA3_LOGSINK_H
#define INFRA_SRC_INFRA3_LOGSINK_H

// The one way up from the log line: what the log filter and the log file, which stand above files
// and calendar time, fill in when they are switched on. Until then every module passes, nothing is
// counted and nothing goes to a file.

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra/Infra3/PrintLog.h"

namespace Tarsel
{
namespace Infra
{

struct LogSink
{
    /// True when this module's lines are switched off (asked while Infra_openLog is OPEN_PARITAL).
    bool (*isModuleOff)(const char* module);
    /// Appends one text to the log file; `now` is the local time of its prefix.
    void (*write)(const char* text, size_t length, const Infra_SystemTimeEx& now);
    /// Closes the log file if one is open.
    void (*close)();
};

/// Switches the sink on; null switches it off. `sink` is kept and must live for ever.
void setLogSink(const LogSink* sink);

/// Switches the counting of printed bytes by module on or off.
void setLogStatistics(bool on);

/// Sets one flag, by its name in either, in both option records, and leaves the others alone.
void setPrintOption(uint8_t PrintOptions::*flag, unsigned char Infra_PrintOptions::*flagOfC,
                    uint8_t value);

} // namespace Infra
} // namespace Tarsel

#endif

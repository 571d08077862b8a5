#ifndef INFRA_SRC_INFRA3_TIMEFORMAT_H
#define INFRA_SRC_INFRA3_TIMEFORMAT_H

// Time as text by settings of one's own, for the older calendar time, which has its own.

#include <cstdint>
#include <string>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Time.h"
#include "Infra3/LeafMutex.h"

namespace Tarsel
{
namespace Infra
{

/// How a time is written where neither the format text nor its mask says so.
struct alignas(uint32_t) TimeFormatSettings
{
    uint8_t dateFormat = CTime::ymd;
    char dateSeparator = '-';
    bool hours12 = false;
    uint8_t spare = 0;

    bool operator==(const TimeFormatSettings&) const = default;
};

/// A default text of the process. A copy is taken under its lock.
class CDefaultTimeFormat
{
public:
    std::string get()
    {
        const CGuard guard(m_mutex);
        return m_format;
    }
    void set(const char* format)
    {
        std::string copy(format);
        const CGuard guard(m_mutex);
        m_format.swap(copy);
    }

private:
    CLeafMutex m_mutex;
    std::string m_format = "yyyy-MM-dd HH:mm:ss"; // guarded by m_mutex
};

/// The settings that a default text stands for. Logs what it does not say.
TimeFormatSettings timeFormatSettingsOf(const char* format);

/// CTime::format by settings of one's own; neither text is null.
void writeTime(char* buf, const SystemTime& time, const char* format, int mask,
               const TimeFormatSettings& settings);

} // namespace Infra
} // namespace Tarsel

#endif

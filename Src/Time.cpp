// Time.cpp: the older calendar time and its format settings.

#include "Infra/Time.h"

#include <atomic>
#include <climits>
#include <ctime>

#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Thread.h"
#include "Infra3/Immortal.h"
#include "Infra3/LocalTime.h"
#include "Infra3/TimeFormat.h"

using Tarsel::Infra::CDefaultTimeFormat;
using Tarsel::Infra::TimeFormatSettings;

namespace
{

struct alignas(uint64_t) Settings
{
    CTime::DataFormat m_dateFormat; ///< as it was set, whatever that is
    char m_dateSeparator;
    bool m_12hour;
    uint16_t spare;
};

constinit std::atomic<Settings> s_settings{Settings{CTime::ymd, '-', false, 0}};

Settings settings()
{
    return s_settings.load(std::memory_order_relaxed);
}

void set(const Settings& settings)
{
    s_settings.store(settings, std::memory_order_relaxed);
}

TimeFormatSettings forWriting(const Settings& settings)
{
    const bool isOrder = settings.m_dateFormat == CTime::mdy || settings.m_dateFormat == CTime::dmy;
    return {static_cast<uint8_t>(isOrder ? settings.m_dateFormat : CTime::ymd),
            settings.m_dateSeparator, settings.m_12hour};
}

CDefaultTimeFormat& defaultFormat()
{
    struct Tag;
    return Tarsel::Infra::immortal<CDefaultTimeFormat, Tag>();
}

bool isGiven(const void* argument, const char* complaint)
{
    if (argument == nullptr) {
        Tarsel::Infra::logLibName(Tarsel::Infra::logLevelError, "Infra", "%s", complaint);
    }
    return argument != nullptr;
}

/// `number` less `by`, or the least there is.
int lowered(int number, int by)
{
    return number < INT_MIN + by ? INT_MIN : number - by;
}

} // namespace

constinit const CTime CTime::minTime{SystemTime{2000, 1, 1, 6, 0, 0, 0, -1}};
constinit const CTime CTime::maxTime{SystemTime{2038, 1, 1, 5, 0, 0, 0, -1}};

CTime::CTime(int year, int month, int day, int hour, int minute, int second)
    : CTime(Tarsel::Infra::CTime(year, month, day, hour, minute, second))
{}

CTime::CTime(unsigned long long time)
{
    breakTime(time);
}

unsigned long long CTime::makeTime() const
{
    tm local = {};
    local.tm_year = lowered(year, 1900);
    local.tm_mon = lowered(month, 1);
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    local.tm_isdst = isdst;
    const time_t time = Tarsel::Infra::convertFromLocal(local);
    return time == -1 ? 0 : static_cast<unsigned long long>(time);
}

void CTime::breakTime(unsigned long long time)
{
    tm local = {};
    // The system counts years from 1900, so it still has some that our `year` cannot hold.
    if (!Tarsel::Infra::convertToLocal(static_cast<time_t>(time), local) ||
        local.tm_year > INT_MAX - 1900) {
        *this = CTime();
        return;
    }
    year = local.tm_year + 1900;
    month = local.tm_mon + 1;
    day = local.tm_mday;
    wday = local.tm_wday;
    hour = local.tm_hour;
    minute = local.tm_min;
    second = local.tm_sec;
    isdst = local.tm_isdst;
}

CTime& CTime::operator+=(int64_t seconds)
{
    Tarsel::Infra::CTime time = newer();
    return *this = time += seconds;
}

CTime& CTime::operator-=(int64_t seconds)
{
    Tarsel::Infra::CTime time = newer();
    return *this = time -= seconds;
}

void CTime::format(char* buf, const char* format) const
{
    if (isGiven(buf, "buf is NULL!!\n") && isGiven(format, "format is NULL!!\n")) {
        Tarsel::Infra::writeTime(buf, *this, format, Tarsel::Infra::CTime::fmGeneral,
                                 forWriting(settings()));
    }
}

void CTime::setFormat(std::string format) // NOLINT(performance-unnecessary-value-param)
{
    defaultFormat().set(format.c_str());
    const TimeFormatSettings derived = Tarsel::Infra::timeFormatSettingsOf(format.c_str());
    set({static_cast<DataFormat>(derived.dateFormat), derived.dateSeparator, derived.hours12, 0});
    Tarsel::Infra::CTime::setFormat(format);
}

void CTime::setFormat(int dateFormat, int dateSeparator, int timeFormat)
{
    Settings changed = settings();
    changed.m_dateFormat = static_cast<DataFormat>(dateFormat);
    switch (dateSeparator) {
    case DS_DOT:
        changed.m_dateSeparator = '.';
        break;
    case DS_DASH:
        changed.m_dateSeparator = '-';
        break;
    case DS_SLASH:
        changed.m_dateSeparator = '/';
        break;
    default:
        break;
    }
    if (timeFormat == TF_24 || timeFormat == TF_12) {
        changed.m_12hour = timeFormat == TF_12;
    }
    set(changed);
}

std::string CTime::getFormat()
{
    return defaultFormat().get();
}

CTime::DataFormat CTime::getDateFormat()
{
    return settings().m_dateFormat;
}

CTime::date_spec CTime::getDateSeparator()
{
    switch (getSpliter()) {
    case '-':
        return DS_DASH;
    case '/':
        return DS_SLASH;
    default:
        return DS_DOT;
    }
}

char CTime::getSpliter()
{
    return settings().m_dateSeparator;
}

CTime::time_fmt CTime::getTimeFormat()
{
    return get12Hour() ? TF_12 : TF_24;
}

bool CTime::get12Hour()
{
    return settings().m_12hour;
}

CTime CTime::getCurrentTime()
{
    return Tarsel::Infra::CTime::getCurrentTime();
}

void CTime::setCurrentTime(const CTime& time, int toleranceSeconds)
{
    Tarsel::Infra::CTime::setCurrentTime(time.newer(), toleranceSeconds);
}

uint64_t CTime::getCurrentMilliSecond()
{
    return Tarsel::Infra::CTime::getCurrentMilliSecond();
}

uint64_t CTime::getCurrentMicroSecond()
{
    return Tarsel::Infra::CTime::getCurrentMicroSecond();
}

void CTime::sleep(int ms)
{
    Tarsel::Infra::CThread::sleep(ms);
}

// TimeZone.cpp: the zone table, and the zone that the application sets.
//
// The zone and the daylight-saving mark that are set here are for devices that show UTC of their
// own: they are what getUTCForEmbed reports. The calendar's conversions stay with the system's
// zone.

#include <atomic>
#include <iterator>

#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Utc.h"
#include "Infra3/LogFront.h"
#include "Infra3/TimeInternal.h"

namespace Tarsel
{
namespace Infra
{

const _TIME_ZONE g_ntp_timezone_table[36] = {
    {0, 0, "GMT+00:00"},       {1, 3600, "GMT+01:00"},    {2, 7200, "GMT+02:00"},
    {3, 10800, "GMT+03:00"},   {4, 12600, "GMT+03:30"},   {5, 14400, "GMT+04:00"},
    {6, 16200, "GMT+04:30"},   {7, 18000, "GMT+05:00"},   {8, 19800, "GMT+05:30"},
    {9, 20700, "GMT+05:45"},   {10, 21600, "GMT+06:00"},  {11, 23400, "GMT+06:30"},
    {12, 25200, "GMT+07:00"},  {13, 28800, "GMT+08:00"},  {14, 32400, "GMT+09:00"},
    {15, 34200, "GMT+09:30"},  {16, 36000, "GMT+10:00"},  {17, 39600, "GMT+11:00"},
    {18, 43200, "GMT+12:00"},  {19, 46800, "GMT+13:00"},  {20, -3600, "GMT-01:00"},
    {21, -7200, "GMT-02:00"},  {22, -10800, "GMT-03:00"}, {23, -12600, "GMT-03:30"},
    {24, -14400, "GMT-04:00"}, {25, -18000, "GMT-05:00"}, {26, -21600, "GMT-06:00"},
    {27, -25200, "GMT-07:00"}, {28, -28800, "GMT-08:00"}, {29, -32400, "GMT-09:00"},
    {30, -36000, "GMT-10:00"}, {31, -39600, "GMT-11:00"}, {32, -43200, "GMT-12:00"},
    {33, -16200, "GMT-4:30"},  {34, 37800, "GMT+10:30"},  {35, 50400, "GMT+14:00"}};

namespace
{

constexpr int zoneUnset = 0x0FFFFFFF;
constexpr int zoneWesternmost = -43200;
constexpr int zoneEasternmost = 50400;
constexpr int markUnset = -1;

constinit std::atomic<int> s_TimeZoneDiffSec{zoneUnset};
constinit std::atomic<int> s_isdst{markUnset};

} // namespace

int daylightMark()
{
    return s_isdst.load(std::memory_order_relaxed);
}

long CTime::getTimeZone()
{
    return get_timezone();
}

int CTime::disableTimezone()
{
    return disable_timezone();
}

bool CTime::setTimeZone(int diffSecond)
{
    if (diffSecond < zoneWesternmost || diffSecond > zoneEasternmost) {
        return false;
    }
    s_TimeZoneDiffSec.store(diffSecond, std::memory_order_relaxed);
    return true;
}

bool CTime::setDst(bool flag)
{
    s_isdst.store(flag ? 1 : 0, std::memory_order_relaxed);
    return true;
}

int CTime::getDst()
{
    return daylightMark();
}

int CTime::getTimeZonefromTable(int zoneIndex)
{
    if (zoneIndex < 0 || zoneIndex >= static_cast<int>(std::size(g_ntp_timezone_table))) {
        INFRA_LOG_ERROR("CTime::getTimeZonefromTable, zoneIndex error:%d\n", zoneIndex);
        return 0;
    }
    return g_ntp_timezone_table[zoneIndex].zone_time;
}

bool CTime::getUTCForEmbed(UTCTimeDef& utc)
{
    const int zone = s_TimeZoneDiffSec.load(std::memory_order_relaxed);
    const int mark = daylightMark();
    if (zone == zoneUnset || mark == markUnset) {
        return false;
    }
    const auto local = static_cast<int64_t>(time_to_seconds(getCurTimeForPrint()));
    utc = {static_cast<uint64_t>(local - zone - (mark == 1 ? 3600 : 0)), zone, mark, {}};
    return true;
}

} // namespace Infra
} // namespace Tarsel

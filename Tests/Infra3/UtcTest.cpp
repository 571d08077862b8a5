#include "Infra/Infra3/Utc.h"

#include <time.h>

#include <climits>
#include <cstdlib>
#include <tuple>

#include "Infra/Infra3/Time.h"
#include "Support/FreshProcess.h"
#include "gtest/gtest.h"

namespace
{

using namespace Tarsel::Infra;

typedef std::tuple<int, int, int, int, int, int, int> Fields; // wday last

Fields fieldsOf(const SystemTime& time)
{
    return {time.year, time.month, time.day, time.hour, time.minute, time.second, time.wday};
}

SystemTime dateOf(int year, int month, int day)
{
    return {year, month, day, 0, 0, 0, 0, -1};
}

TEST(UtcTest, AgreesWithTheSystemsCalendarForEveryDayUntil2099)
{
    constexpr uint64_t day = 86400;
    for (uint64_t secs = 0; secs < 47482 * day; secs += day) {
        for (const uint64_t second : {secs, secs + day - 1, secs + secs * 7 % day}) {
            const auto systemSecond = static_cast<time_t>(second);
            tm system = {};
            gmtime_r(&systemSecond, &system);
            SystemTime time = {};
            seconds_to_time(second, time);
            ASSERT_EQ(fieldsOf(time),
                      Fields(system.tm_year + 1900, system.tm_mon + 1, system.tm_mday,
                             system.tm_hour, system.tm_min, system.tm_sec, system.tm_wday))
                << second;
            ASSERT_EQ(time_to_seconds(time), second);
        }
    }
}

TEST(UtcTest, CountsALeapDayIn2100InSecondsOnly)
{
    EXPECT_EQ(time_to_seconds(dateOf(2099, 12, 31)), 4102358400u);
    EXPECT_EQ(time_to_seconds(dateOf(2100, 1, 1)), 4102531200u); // a day ahead of the system
    EXPECT_EQ(time_to_seconds({2106, 12, 31, 0, 23, 59, 59, -1}), 4323369599u);

    const struct
    {
        uint64_t secs;
        int year, month, day;
    } cases[] = {
        {4102358400, 2099, 12, 31}, {4102444800, 2100, 1, 1},   {4131043200, 2100, 11, 28},
        {4131129600, 2100, 11, 29}, {4131216000, 2100, 11, 29}, {4131302400, 2100, 11, 30},
        {4133980800, 2100, 12, 31}, {4134067200, 2101, 1, 1},
    };
    for (const auto& expected : cases) {
        SystemTime time = {};
        seconds_to_time(expected.secs, time);
        EXPECT_EQ(std::tuple(time.year, time.month, time.day),
                  std::tuple(expected.year, expected.month, expected.day))
            << expected.secs;
    }
}

TEST(UtcTest, SecondsOutsideTheReachGoToItsEnds)
{
    SystemTime time = dateOf(2000, 1, 1);
    time.isdst = 1;
    seconds_to_time(static_cast<uint64_t>(-1), time);
    EXPECT_EQ(fieldsOf(time), Fields(1970, 1, 1, 0, 0, 0, 4));
    EXPECT_EQ(time.isdst, 1);
    seconds_to_time(INT64_MAX, time);
    EXPECT_EQ(std::tuple(time.year, time.month, time.day, time.hour, time.second),
              std::tuple(3430, 12, 31, 23, 59));
}

TEST(UtcTest, NormalizesEveryField)
{
    const struct
    {
        SystemTime given;
        Fields expected;
    } cases[] = {
        {{2019, 2, 30, 0, 25, 61, -1, 0}, {2019, 2, 28, 23, 59, 59, 4}},
        {{1960, 1, 1, 0, 0, 0, 0, 0}, {1970, 1, 1, 0, 0, 0, 4}},
        {{9999, 99, 99, 0, 23, 60, 60, 0}, {2106, 12, 31, 23, 59, 59, 6}},
        {{2000, 2, 29, 9, 24, 0, 0, 0}, {2000, 2, 29, 23, 59, 59, 2}},
        {{2000, 2, 30, 9, 0, 0, 0, 0}, {2000, 2, 28, 0, 0, 0, 1}},
        {{2019, 2, 29, 9, 0, 0, 0, 0}, {2019, 2, 28, 0, 0, 0, 4}},
        {{2019, 4, 31, 9, -1, -1, -1, 0}, {2019, 4, 30, 0, 0, 0, 2}},
        {{INT_MIN, INT_MIN, INT_MIN, 9, INT_MIN, INT_MIN, INT_MIN, 0}, {1970, 1, 1, 0, 0, 0, 4}},
        {{INT_MAX, INT_MAX, INT_MAX, 9, INT_MAX, INT_MAX, INT_MAX, 0},
         {2106, 12, 31, 23, 59, 59, 6}},
    };
    for (const auto& normal : cases) {
        SystemTime time = normal.given;
        normalize_time(time);
        EXPECT_EQ(fieldsOf(time), normal.expected);
        EXPECT_EQ(time.isdst, normal.given.isdst);
        EXPECT_EQ(time_to_seconds(normal.given), time_to_seconds(time));
    }
    EXPECT_EQ(Date_to_weekday(1970, 1, 1), 4);
    EXPECT_EQ(Date_to_weekday(2000, 2, 29), 2);
    EXPECT_EQ(Date_to_weekday(2019, 13, 45), 2); // 2019-12-31
}

void useZoneWestOfUtc()
{
    setenv("TZ", "WST+5WDT", 1);
    EXPECT_EQ(get_timezone(), 18000);
    EXPECT_EQ(time_to_utc(dateOf(2000, 1, 1)), 946702800u);
    EXPECT_EQ(time_to_utc(dateOf(2000, 7, 1)), 962427600u); // no daylight saving
    SystemTime time = {};
    utc_to_time(946702800, time);
    EXPECT_EQ(fieldsOf(time), Fields(2000, 1, 1, 0, 0, 0, 6));
    utc_to_time(0, time);
    EXPECT_EQ(fieldsOf(time), Fields(1970, 1, 1, 0, 0, 0, 4)); // not before 1970
    EXPECT_EQ(disable_timezone(), 0);
    EXPECT_EQ(get_timezone(), 0);
    EXPECT_EQ(time_to_utc(dateOf(2000, 1, 1)), 946684800u);
}

TEST(UtcTest, ConvertsByTheSystemsZoneUntilThatIsDisabled)
{
    INFRA_IN_FRESH_PROCESS(useZoneWestOfUtc);
}

void useZoneEastOfUtc()
{
    setenv("TZ", "EST-8", 1);
    EXPECT_EQ(CTime::getTimeZone(), -28800);
    EXPECT_EQ(time_to_utc(dateOf(1970, 1, 1)), 0u); // not below 0
    EXPECT_EQ(CTime(2000, 1, 1, 8, 0, 0).makeTime(), 946684800u);
    EXPECT_EQ(CTime(946684800), CTime(2000, 1, 1, 8, 0, 0));
    EXPECT_EQ(CTime(946684800, false), CTime(2000, 1, 1, 0, 0, 0));
}

TEST(UtcTest, ConvertsEastOfUtc)
{
    INFRA_IN_FRESH_PROCESS(useZoneEastOfUtc);
}

} // namespace

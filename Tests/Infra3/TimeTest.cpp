#include "Infra/Infra3/Time.h"

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Infra/Infra3/Error.h"
#include "Infra3/LeafMutex.h"
#include "Support/ChildProcess.h"
#include "Support/FreshProcess.h"
#include "Support/LogCapture.h"
#include "Support/SystemClock.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace
{

using namespace Tarsel::Infra;
using namespace Tarsel::TestSupport;
using Tarsel::infraErrorModifySysTimeFailed;
using Tarsel::infraErrorSyncRtcTimeFailed;
using testing::ElementsAre;

constexpr char defaultFormat[] = "yyyy-MM-dd HH:mm:ss";

std::string textOf(const CTime& time, const char* format = defaultFormat, int mask = 0)
{
    char text[256];
    time.format(text, format, mask);
    return text;
}

/// Leaves the process-wide text settings as they were at the start.
class TimeTextTest : public testing::Test
{
protected:
    ~TimeTextTest() override { CTime::setFormatString(defaultFormat); }
};

TEST(TimeTest, ComputesWithoutAZone)
{
    const CTime time(2019, 2, 28, 23, 59, 58);
    EXPECT_EQ(textOf(time + 3), "2019-03-01 00:00:01");
    EXPECT_EQ(textOf(time - 86400 * 59), "2018-12-31 23:59:58");
    EXPECT_EQ(CTime(2020, 1, 1, 0, 0, 0) - time, 26438402);
    EXPECT_EQ(time - CTime(2020, 1, 1, 0, 0, 0), -26438402);
    EXPECT_EQ(textOf(CTime(1970, 1, 1, 0, 0, 0) - 1), "1970-01-01 00:00:00");
    EXPECT_EQ(textOf(time - INT64_MIN), textOf(time + INT64_MAX));
    EXPECT_EQ(textOf(time + INT64_MIN), "1970-01-01 00:00:00");

    CTime marked = time;
    marked.isdst = 1;
    EXPECT_EQ((marked + 1).isdst, -1);
    marked += 1;
    EXPECT_EQ(marked.isdst, 1);
    marked -= 1;
    EXPECT_EQ(marked, time); // the mark and the day of the week do not count
    marked.wday = 0;
    EXPECT_TRUE(marked == time && marked <= time && marked >= time && !(marked < time));
    EXPECT_TRUE(CTime(2019, 12, 31, 0, 0, 0) < CTime(2020, 1, 1, 0, 0, 0));
    EXPECT_TRUE(CTime(2020, 1, 1, 0, 0, 1) > CTime(2020, 1, 1, 0, 0, 0));

    EXPECT_EQ(CTime().isdst, -1);
    EXPECT_EQ(CTime::minTime.wday, CTime(2000, 1, 1, 0, 0, 0).wday);
    EXPECT_EQ(CTime::maxTime.wday, CTime(2038, 1, 1, 0, 0, 0).wday);
}

TEST_F(TimeTextTest, FormatsByTheSettingsAndTheMask)
{
    const CTime morning(2019, 11, 8, 9, 5, 3);
    const CTime afternoon(2019, 3, 7, 15, 4, 5);
    const CTime midnight(2019, 3, 7, 0, 4, 5);
    const struct
    {
        CTime time;
        const char* format;
        int mask;
        const char* expected;
    } cases[] = {
        {morning, "yyyy-MM-dd HH:mm:ss", CTime::fmGeneral, "2019-11-08 09:05:03"},
        {morning, "MM/dd/yyyy hh:mm:ss tt", CTime::fmAll, "11/08/2019 09:05:03 AM"},
        {afternoon, "yy/M/d h:m:s tt", CTime::fmAll, "19/3/7 3:4:5 PM"},
        {afternoon, "HH:mm:ss tt", CTime::fmGeneral, "15:04:05"},
        {midnight, "hh:mm tt", CTime::fmHourFormat, "12:04 AM"},
        {midnight, "HH:mm  t t|", CTime::fmGeneral, "00:04|"},
        {morning, "dd.MM.yyyy", CTime::fmGeneral, "2019-11-08"}, // order of the settings
        {morning, "dd.MM.yyyy", CTime::fmSeparator, "2019.11.08"},
        {morning, "dd.MM.yyyy", CTime::fmDateFormat, "08-11-2019"},
        {morning, "y", CTime::fmGeneral, "19"},
        {morning, "MM", CTime::fmGeneral, "11"}, // moves up to the first place
        {morning, "dd", CTime::fmGeneral, ""},   // only by one place
        {morning, "MM-dd", CTime::fmGeneral, "11-08"},
        {morning, "yyyy-dd", CTime::fmGeneral, "2019-08"},
        {afternoon, "M-MM y", CTime::fmGeneral, "19-03 "}, // counted over the whole text
        {afternoon, "hHhH", CTime::fmGeneral, "15"},
        {morning, "d d d d", CTime::fmGeneral, " 08  "},
        {morning, "", CTime::fmAll & ~CTime::fmDateFormat, ""},
        {morning, nullptr, CTime::fmGeneral, "2019-11-08 09:05:03"},
    };
    for (const auto& expected : cases) {
        EXPECT_EQ(textOf(expected.time, expected.format, expected.mask), expected.expected)
            << (expected.format == nullptr ? "null" : expected.format);
    }
    CTime noDate;
    noDate.year = -5;
    noDate.month = 123;
    EXPECT_EQ(textOf(noDate, "yyyy-M-d"), "-005-123-0");

    CLogCapture log;
    morning.format(nullptr, defaultFormat, 0);
    EXPECT_EQ(log.takeLeveled(), "error|buf is NULL!!\n");
    for (int round = 0; round < 2; ++round) { // a format seen before complains again
        EXPECT_EQ(textOf(morning, "yy dd", CTime::fmDateFormat), "19 08");
        EXPECT_EQ(log.takeLeveled(),
                  "error|setFormat dateFormat is invalid,set default separator: ymd \n");
    }
}

TEST_F(TimeTextTest, TakesItsSettingsFromTheDefaultText)
{
    CLogCapture log;
    const struct
    {
        const char* format;
        char separator;
        CTime::DateFormat order;
        bool hours12;
        const char* complaint;
    } cases[] = {
        {"dd.MM.yyyy", '.', CTime::dmy, false, ""},
        {"MM/dd/yyyy hh:mm:ss tt", '/', CTime::mdy, true, ""},
        {"yyyy/MM/dd.", '.', CTime::ymd, false, ""},
        {"yyyy MM dd", '-', CTime::ymd, false,
         "error|setFormat separator is invalid,set default separator: - \n"},
        {"yyyy/dd/MM", '/', CTime::ymd, false,
         "error|setFormat dateFormat is invalid,set default separator: ymd \n"},
        {nullptr, '-', CTime::ymd, false,
         "error|setFormat separator is invalid,set default separator: - \n"
         "error|setFormat dateFormat is invalid,set default separator: ymd \n"},
    };
    for (const auto& expected : cases) {
        CTime::setFormatString(expected.format);
        EXPECT_EQ(CTime::getFormat(), expected.format == nullptr ? "" : expected.format);
        EXPECT_EQ(CTime::getSeparator(), expected.separator);
        EXPECT_EQ(CTime::getDateFormat(), expected.order);
        EXPECT_EQ(CTime::get12Hour(), expected.hours12);
        EXPECT_EQ(log.takeLeveled(), expected.complaint);
    }
    const CTime time(2019, 11, 8, 19, 5, 3);
    EXPECT_EQ(textOf(time), "2019-11-08 19:05:03");
    CTime::setFormat("dd.MM.yyyy hh");
    EXPECT_EQ(textOf(time), "08.11.2019 07:05:03"); // the same text, other settings
}

/// The rules of a format text, in the plainest way: one string a rule, letter by letter.
std::string modelText(const CTime& time, const std::string& format, bool hours12)
{
    const auto count = [&](char letter) {
        return std::count(format.begin(), format.end(), letter);
    };
    const auto padded = [](int value, long letters) {
        const std::string text = std::to_string(value);
        return letters >= 2 && text.size() < 2 ? "0" + text : text;
    };
    const std::string year = std::to_string(time.year);
    std::vector<std::string> date = {count('y') >= 3  ? year
                                     : count('y') > 0 ? year.substr(2)
                                                      : "",
                                     count('M') == 0 ? "" : padded(time.month, count('M')),
                                     count('d') == 0 ? "" : padded(time.day, count('d'))};
    if (date[0].empty()) {
        date = {date[1], date[2], ""};
    } else if (date[1].empty()) {
        date = {date[0], date[2], ""};
    }
    const int hour = !hours12 ? time.hour : time.hour % 12 == 0 ? 12 : time.hour % 12;
    std::string out;
    size_t dateRuns = 0;
    for (size_t begin = 0, end = 0; begin < format.size(); begin = end) {
        const char letter = format[begin];
        const std::string run = letter == 'h' || letter == 'H' ? "hH" : std::string(1, letter);
        end = std::min(format.find_first_not_of(run, begin), format.size());
        const auto length = static_cast<long>(end - begin);
        if (letter == 'y' || letter == 'M' || letter == 'd') {
            out += dateRuns < 3 ? date[dateRuns] : "";
            ++dateRuns;
        } else if (letter == 'h' || letter == 'H') {
            out += padded(hour, length);
        } else if (letter == 'm' || letter == 's') {
            out += padded(letter == 'm' ? time.minute : time.second, length);
        } else if (letter == 't' && hours12) {
            out += time.hour < 12 ? "AM" : "PM";
        } else if (letter == 't') {
            out.erase(out.find_last_not_of(' ') + 1);
        } else {
            out += format.substr(begin, end - begin);
        }
    }
    return out;
}

TEST_F(TimeTextTest, FormatsAnyTextLikeAPlainModel)
{
    std::mt19937 random(20191108);
    const std::string letters = "yMdHhmst x:";
    for (int round = 0; round < 20000; ++round) {
        std::string format;
        for (unsigned run = random() % 24; run > 0; --run) { // longer ones than a plan has room for
            format.append(random() % 4 + 1, letters[random() % letters.size()]);
        }
        const CTime time(1970 + static_cast<int>(random() % 130),
                         static_cast<int>(random() % 12) + 1, static_cast<int>(random() % 28) + 1,
                         static_cast<int>(random() % 24), static_cast<int>(random() % 60),
                         static_cast<int>(random() % 60));
        const bool hours12 = format.find('h') != std::string::npos;
        ASSERT_EQ(textOf(time, format.c_str(), CTime::fmHourFormat),
                  modelText(time, format, hours12))
            << format;
        ASSERT_EQ(textOf(time, format.c_str(), 0), modelText(time, format, false)) << format;
    }
}

TEST(TimeTest, ParsesSixNumbersInTheOrderOfTheFormat)
{
    const struct
    {
        const char* text;
        const char* format;
        const char* expected;
    } cases[] = {
        {"2019-11-08 07:30:00", "yyyy-MM-dd HH:mm:ss", "2019-11-08 07:30:00"},
        {"2019-11-08 07:30:00 PM", "yyyy-MM-dd hh:mm:ss tt", "2019-11-08 19:30:00"},
        {"11/8/2019 12:00:00 AM", "MM/dd/yyyy hh:mm:ss tt", "2019-11-08 00:00:00"},
        {"8.11.2019 12:00:00PM", "d.M.y h", "2019-11-08 12:00:00"},
        {"  2019 anything 11,8T7+30-1 99", "yMd", "2019-11-08 07:30:01"},
        {"2019-11-08 07:30:00", "y d M", "2001-02-03 07:30:00"}, // no order: the date stays
        {"2019-02-30 25:00:00", "yMd", "2019-02-28 23:59:59"},
        {"99999999999999999999999-1-1 1:1:1", "yMd", "2106-01-01 01:01:01"},
        {"2019-11-08 07:30:00", nullptr, "2019-11-08 07:30:00"},
    };
    for (const auto& expected : cases) {
        CTime time(2001, 2, 3, 4, 5, 6);
        EXPECT_TRUE(time.parse(expected.text, expected.format, 0)) << expected.text;
        EXPECT_EQ(textOf(time), expected.expected) << expected.text;
    }
    CTime friday;
    EXPECT_TRUE(friday.parse("2019-11-08 07:30:00", defaultFormat, 0));
    EXPECT_EQ(friday.wday, 5);

    const struct
    {
        const char* text;
        const char* format;
        const char* complaint;
    } refused[] = {
        {"2019-11-08 07:30", "yMd", "CTime parser input information is not enough.\n"},
        {"", "yMd", "CTime parser input information is not enough.\n"},
        {nullptr, "yMd", "CTime parser input information is not enough.\n"},
        {"2019-11-08 13:00:00 PM", "yMd h",
         "CTime parser input hour format is not accord with real value format.\n"},
        {"2019-11-08 11:00:00", "yMd h", "12 hours time point is unclear.\n"},
    };
    for (const auto& expected : refused) {
        CLogCapture log;
        CTime time(2019, 11, 8, 4, 5, 6);
        time.isdst = 1;
        EXPECT_FALSE(time.parse(expected.text, expected.format, 0));
        char complaint[160];
        snprintf(complaint, sizeof(complaint), "error|this:%p %s", static_cast<void*>(&time),
                 expected.complaint);
        EXPECT_EQ(log.takeLeveled(), complaint);
        EXPECT_EQ(time, CTime());
        EXPECT_EQ(time.wday, 5);
        EXPECT_EQ(time.isdst, 1);
    }
}

TEST(TimeTest, KnowsTheZonesByNumber)
{
    CLogCapture log;
    EXPECT_EQ(CTime::getTimeZonefromTable(9), 20700);
    EXPECT_EQ(CTime::getTimeZonefromTable(33), -16200);
    EXPECT_EQ(CTime::getTimeZonefromTable(35), 50400);
    EXPECT_STREQ(g_ntp_timezone_table[33].str, "GMT-4:30");
    for (int idx = 0; idx < 36; ++idx) {
        const _TIME_ZONE& row = g_ntp_timezone_table[idx];
        int hours = 0;
        int minutes = 0;
        ASSERT_EQ(sscanf(row.str, "GMT%d:%d", &hours, &minutes), 2);
        EXPECT_EQ(row.zone_time, hours * 3600 + (hours < 0 ? -minutes : minutes) * 60) << row.str;
        EXPECT_EQ(row.index, idx);
    }
    EXPECT_EQ(log.take(), "");
    EXPECT_EQ(CTime::getTimeZonefromTable(36), 0);
    EXPECT_EQ(CTime::getTimeZonefromTable(-1), 0);
    EXPECT_EQ(log.takeLeveled(), "error|CTime::getTimeZonefromTable, zoneIndex error:36\n"
                                 "error|CTime::getTimeZonefromTable, zoneIndex error:-1\n");
}

void reportUtcForEmbed()
{
    setenv("TZ", "EST-8", 1);
    tzset();
    CTime::UTCTimeDef utc = {};
    EXPECT_FALSE(CTime::getUTCForEmbed(utc));
    EXPECT_FALSE(CTime::setTimeZone(50401));
    EXPECT_FALSE(CTime::setTimeZone(-43201));
    EXPECT_TRUE(CTime::setTimeZone(28800));
    EXPECT_FALSE(CTime::getUTCForEmbed(utc));
    EXPECT_EQ(CTime::getDst(), -1);

    const uint64_t before = CTime::getCurrentUTCtime();
    EXPECT_TRUE(CTime::setDst(true));
    EXPECT_TRUE(CTime::getUTCForEmbed(utc));
    EXPECT_NEAR(static_cast<double>(utc.second), static_cast<double>(before - 3600), 30);
    EXPECT_EQ(utc.diffSecond, 28800);
    EXPECT_EQ(utc.isdst, 1);
    EXPECT_EQ(CTime::getCurrentTime().isdst, 1);
    EXPECT_EQ(CTime::getCurrentTimeEx().isdst, 1);
    EXPECT_NEAR(static_cast<double>(CTime::getCurrentUTCMilliSecond()) / 1000,
                static_cast<double>(before - 3600), 30);
    CTime::setDst(false);
    EXPECT_TRUE(CTime::getUTCForEmbed(utc));
    EXPECT_NEAR(static_cast<double>(utc.second), static_cast<double>(before), 30);
    EXPECT_EQ(CTime::getCurrentTime().isdst, 0);
}

TEST(TimeTest, ReportsUtcOnceZoneAndDaylightSavingAreSet)
{
    INFRA_IN_FRESH_PROCESS(reportUtcForEmbed);
}

TEST(TimeTest, PrintTimeIsReadAnewAfter400MillisecondsOrASetting)
{
    const auto age = [](const CTime& time) { return CTime::getCurrentTime() - time; };
    CFakeClockSetting fake(0, 0);
    constexpr uint64_t startUs = 7000000;
    freezeMonotonicClock(startUs);
    CTime::setCurrentTime(CTime(2020, 1, 1, 0, 0, 0));
    EXPECT_LE(age(CTime::getCurTimeForPrint()), 1);

    shiftWallClock(86400);
    freezeMonotonicClock(startUs + 399999);
    EXPECT_GE(age(CTime::getCurTimeForPrint()), 86000);
    freezeMonotonicClock(startUs + 400000);
    EXPECT_LE(age(CTime::getCurTimeForPrint()), 1);

    shiftWallClock(2 * 86400);
    freezeMonotonicClock(startUs + 399999); // of a thread that read the clock before the refresh
    EXPECT_GE(age(CTime::getCurTimeForPrint()), 86000);
    freezeMonotonicClock(startUs + 400000);
    EXPECT_GE(age(CTime::getCurTimeForPrint()), 86000);

    shiftWallClock(0);
    CTime::setCurrentTimeEx(CTime(2020, 1, 1, 0, 0, 0));
    EXPECT_LE(age(CTime::getCurTimeForPrint()), -86000); // does not ask for it
    CTime::setCurrentTime(CTime(2020, 1, 1, 0, 0, 0));
    EXPECT_GE(age(CTime::getCurTimeForPrint()), 0);
    EXPECT_EQ(CTime::getCurTimeForPrint().isdst, -1);
    freezeMonotonicClock(0);
}

TEST(TimeTest, PrintTimeIsNeverTorn)
{
    // Every refresh happens at another date, so that a mixture of two would be a date of its own.
    setenv("TZ", "UTC", 1);
    tzset();
    CFakeClockSetting fake(0, 0);
    std::atomic<bool> over{false};
    std::atomic<int> reads{0};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 3; ++reader) {
        readers.emplace_back([&] {
            while (!over) {
                const CTime time = CTime::getCurTimeForPrint();
                const CTime same(time.year, time.month, time.day, time.hour, time.minute,
                                 time.second);
                torn += time != same || time.wday != same.wday;
                ++reads;
            }
        });
    }
    CTime::attachSetCurrentTimeHook([](const CTime&, int) {});
    for (int round = 0; round < 2000 || reads < 2000; ++round) {
        shiftWallClock(round % 2 == 0 ? 86400L * 3650 + 3661 : 0);
        CTime::setCurrentTime(CTime(2020, 1, 1, 0, 0, 0));
    }
    over = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
    shiftWallClock(0);
    CTime::attachSetCurrentTimeHook(&setSysCurrentTime);
    EXPECT_EQ(torn, 0);
}

TEST(TimeTest, ClocksRunTogether)
{
    const uint64_t us = CTime::getCurrentMicroSecond();
    const uint64_t ms = CTime::getCurrentMilliSecond();
    EXPECT_GE(ms, us / 1000);
    EXPECT_GE(CTime::getCurrentMicroSecond() / 1000, ms);
    const SystemTimeEx now = CTime::getCurrentTimeEx();
    const int64_t passed = CTime::getCurrentTime() -
                           CTime(now.year, now.month, now.day, now.hour, now.minute, now.second);
    EXPECT_TRUE(passed >= 0 && passed <= 30) << passed;
    EXPECT_TRUE(now.millisecond >= 0 && now.millisecond < 1000);
}

TEST(TimeTest, ReportsAMonotonicClockThatCannotBeRead)
{
    CLogCapture log;
    failMonotonicClock(EINVAL);
    const uint64_t ms = CTime::getCurrentMilliSecond();
    const uint64_t us = CTime::getCurrentMicroSecond();
    failMonotonicClock(0);
    EXPECT_EQ(ms, 0u);
    EXPECT_EQ(us, 0u);
    EXPECT_EQ(log.takeLeveled(),
              "error|CTime::getCurrentMilliSecond, sys_clock_gettime failed, error:22\n"
              "error|CTime::getCurrentMicroSecond, sys_clock_gettime failed, error:22\n");
}

std::vector<std::string> s_calls; // in order, of the hooks and procedures below

bool firstProc(SystemTime time)
{
    s_calls.push_back("first " + std::to_string(time.year));
    CTime::attachModifyProc([](SystemTime) { return true; }); // no lock is held
    return false;
}

bool secondProc(SystemTime time)
{
    s_calls.push_back("second " + std::to_string(time.second));
    return true;
}

void noteTime(const CTime& time, int tolerance)
{
    s_calls.push_back(textOf(time) + " +-" + std::to_string(tolerance));
}

void noteTimeEx(const SystemTimeEx& time, int tolerance)
{
    s_calls.push_back(std::to_string(time.year) + "/" + std::to_string(time.month) + " wday " +
                      std::to_string(time.wday) + " +-" + std::to_string(tolerance));
}

void setSystemTime()
{
    setenv("TZ", "UTC", 1);
    tzset();
    CLogCapture log;
    {
        CFakeClockSetting fake(0, 0);
        CTime::setCurrentTime(CTime(2050, 1, 1, 0, 0, 0));
        CTime::setCurrentTime(CTime(1999, 12, 31, 0, 0, 0));
        EXPECT_TRUE(CTime::setCurrentTime(SystemTimeEx{2020, 2, 29, 0, 1, 2, 3, 456, 0, 0, 0, 0}));
        EXPECT_EQ(fake.settings.size(), 3u);
        EXPECT_EQ(fake.settings[0].seconds, 2145916800); // 2038-01-01
        EXPECT_EQ(fake.settings[1].seconds, 946684800);  // 2000-01-01
        EXPECT_EQ(fake.settings[2].seconds, 1582938123);
        EXPECT_EQ(fake.settings[2].microseconds, 456000);
        EXPECT_THAT(fake.commands, ElementsAre("hwclock -w", "hwclock -w", "hwclock -w"));
        EXPECT_EQ(log.takeLeveled(),
                  "info|CTime::setCurrentTime to 2038-01-01 00:00:00\n"
                  "info|CTime::setCurrentTime() success without callback function\n"
                  "info|CTime::setCurrentTime to 2000-01-01 00:00:00\n"
                  "info|CTime::setCurrentTime() success without callback function\n"
                  "info|CTime::setCurrentTimeEx to 2020-02-29 01:02:03:0456\n"
                  "info|CTime::setCurrentTime() success without callback function\n");

        CTime::setCurrentTime(CTime::getCurrentTime() + 3, 30); // near enough
        EXPECT_EQ(fake.settings.size(), 3u);
        CTime::setCurrentTime(CTime::getCurrentTime() + 60, 30);
        EXPECT_EQ(fake.settings.size(), 4u);
        log.clear();
    }
    {
        CFakeClockSetting fake(EPERM, 0);
        EXPECT_FALSE(CTime::setCurrentTimeEx(CTime(2020, 1, 1, 0, 0, 0)));
        EXPECT_EQ(getLastError(), infraErrorModifySysTimeFailed);
        EXPECT_TRUE(fake.commands.empty());
        EXPECT_EQ(log.takeLeveled(), "info|CTime::setCurrentTime to 2020-01-01 00:00:00\n"
                                     "error|CTime::setCurrentTime() failed, tv.tv_sec:1577836800, "
                                     "tv.tv_usec:0, errno:1, errMsg:Operation not permitted\n");
    }
    CFakeClockSetting fake(0, 256);
    EXPECT_FALSE(CTime::setCurrentTimeEx(CTime(2020, 1, 1, 0, 0, 0)));
    EXPECT_EQ(getLastError(), infraErrorSyncRtcTimeFailed);
    EXPECT_EQ(log.takeLeveled(), "info|CTime::setCurrentTime to 2020-01-01 00:00:00\n"
                                 "warn|CTime::setCurrentTime(): hwclock -w failed\n"
                                 "error|CTime::setCurrentTime()  rtc time set function failed\n");
    setLastError(0);
    EXPECT_FALSE(CTime::attachModifyProc(CTime::ModifyProc()));
    EXPECT_FALSE(CTime::setCurrentTimeEx(CTime(2020, 1, 1, 0, 0, 0)));
    EXPECT_EQ(getLastError(), infraErrorSyncRtcTimeFailed); // still nobody to tell
    setLastError(0);
    log.clear();
    EXPECT_TRUE(CTime::attachModifyProc(&firstProc));
    EXPECT_TRUE(CTime::attachModifyProc(&secondProc));
    EXPECT_TRUE(CTime::setCurrentTimeEx(CTime(2051, 1, 1, 0, 0, 7)));
    EXPECT_THAT(s_calls, ElementsAre("first 2038", "second 0")); // the clamped time
    EXPECT_EQ(log.takeLeveled(), "info|CTime::setCurrentTime to 2038-01-01 00:00:00\n"
                                 "warn|CTime::setCurrentTime(): hwclock -w failed\n");
}

TEST(TimeSetTest, SetsBothClocksAndTellsTheProcedures)
{
    INFRA_IN_FRESH_PROCESS(setSystemTime);
}

void setThroughHooks()
{
    CFakeClockSetting fake(0, 0);
    CTime::attachModifyProc(&secondProc);
    CTime given;
    given.year = 2051;
    given.month = 13;
    given.second = 99;

    EXPECT_TRUE(CTime::attachSetCurrentTimeHook(&noteTime) == &setSysCurrentTime);
    CTime::setCurrentTime(given, 5);
    EXPECT_TRUE(CTime::attachSetCurrentTimeHook(&noteTime, true) == &noteTime);
    EXPECT_TRUE(CTime::setCurrentTimeEx(given));
    CTime::attachSetCurrentTimeHook(&noteTime); // leaves the procedures as they are
    CTime::setCurrentTime(given);
    EXPECT_THAT(s_calls, ElementsAre("2051-12-01 00:00:59 +-5", "2051-12-01 00:00:59 +-0",
                                     "second 59", "2051-12-01 00:00:59 +-0", "second 59"));
    s_calls.clear();

    const SystemTimeEx date = {2019, 11, 8, 0, 0, 0, 7, 0, 0, 0, 0, 0};
    EXPECT_TRUE(CTime::attachSetCurrentTimeHookEx(&noteTimeEx) == &setSysCurrentTimeEx);
    EXPECT_TRUE(CTime::setCurrentTime(date, 2));
    EXPECT_TRUE(CTime::attachSetCurrentTimeHookEx(&noteTimeEx, true) == &noteTimeEx);
    EXPECT_TRUE(CTime::setCurrentTime(date));
    EXPECT_THAT(s_calls, ElementsAre("2019/11 wday 5 +-2", "2019/11 wday 5 +-0", "second 7"));
    EXPECT_TRUE(fake.settings.empty());
    s_calls.clear();

    setLastError(infraErrorSyncRtcTimeFailed); // of an earlier call: the answer does not tell
    EXPECT_FALSE(CTime::setCurrentTime(date));
    setLastError(0);

    // The default hook calls the procedures itself, once.
    CTime::attachSetCurrentTimeHook(&setSysCurrentTime, true);
    s_calls.clear();
    CTime::setCurrentTime(CTime(2020, 1, 1, 0, 0, 3));
    EXPECT_THAT(s_calls, ElementsAre("second 3"));
    EXPECT_EQ(fake.settings.size(), 1u);
    CTime::attachSetCurrentTimeHook(CTime::SetCurrentTimeHook());
    CTime::setCurrentTime(CTime(2020, 1, 1, 0, 0, 3)); // an empty hook sets nothing
    EXPECT_EQ(fake.settings.size(), 1u);
}

TEST(TimeSetTest, LeavesTheClockToAHook)
{
    INFRA_IN_FRESH_PROCESS(setThroughHooks);
}

/// Takes every lock of calendar time, and those of the values beside it.
void useAllLocks()
{
    CTime::attachModifyProc(&secondProc);
    CTime::setFormatString(defaultFormat);
    CTime::getFormat();
    CTime::attachSetCurrentTimeHook(&noteTime);
    CTime::setCurrentTime(CTime(2020, 1, 1, 0, 0, 0));
    CTime::getCurTimeForPrint();
    CTime::getTimeZone();
    const CLeafMutex young;
}

/// Forks 200 times beside what other threads do.
void expectEveryChildGetsThrough(void (*body)())
{
    for (int round = 0; round < 200 && !testing::Test::HasFailure(); ++round) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20); // a lock that is held for ever ends here
            body();
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
}

void forkWhileLocksAreTaken()
{
    std::atomic<bool> over{false};
    std::thread user([&] {
        while (!over) {
            const CLeafMutex young; // one that comes and goes beside the forks
            CTime::attachSetCurrentTimeHook(CTime::SetCurrentTimeHook());
            CTime::setFormat(CTime::getFormat());
            CTime::setCurrentTime(CTime(2020, 1, 1, 0, 0, 0));
            CTime::getCurTimeForPrint();
        }
    });
    expectEveryChildGetsThrough(&useAllLocks);
    over = true;
    user.join();
}

void useLocalTime()
{
    shiftWallClock(5000); // a second that nobody has asked for
    logLibName(logLevelInfo, "Infra", "child\n");
    shiftWallClock(6000);
    CTime::getCurrentTime();
}

void forkWhileLocalTimeIsTaken()
{
    setLogPrinter([](const char*) {});
    std::atomic<bool> over{false};
    std::thread reader([&] {
        for (int64_t shift = 0; !over; ++shift) {
            shiftWallClock(shift % 1000); // every time another second, so that none is remembered
            CTime::getCurrentTime();
        }
    });
    expectEveryChildGetsThrough(&useLocalTime);
    over = true;
    reader.join();
}

TEST(TimeTest, AChildOfAForkCanTakeTheLocalTime)
{
    INFRA_NEEDS_A_HEAP_THAT_FORKS();
    INFRA_IN_FRESH_PROCESS(forkWhileLocalTimeIsTaken);
}

TEST(TimeTest, AChildOfAForkFindsEveryLockFree)
{
    INFRA_NEEDS_A_HEAP_THAT_FORKS();
    INFRA_IN_FRESH_PROCESS(forkWhileLocksAreTaken);
}

} // namespace

// Older times, as text and recorded.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Infra/Infra3/Time.h"
#include "Infra/Time.h"
#include "Support/ChildProcess.h"
#include "Support/LogCapture.h"

namespace
{

using Tarsel::TestSupport::CLogCapture;
using Tarsel::TestSupport::inChild;

std::string written(const CTime& time, const char* format)
{
    char text[100];
    time.format(text, format);
    return text;
}

TEST(OlderTimeTest, TimeIsWrittenByItsOwnSettings)
{
    inChild([] {
        CLogCapture log;
        const CTime time(2019, 3, 7, 5, 4, 3);
        const CTime evening(2019, 11, 28, 17, 14, 23);
        EXPECT_EQ(CTime::getFormat(), "yyyy-MM-dd HH:mm:ss");
        EXPECT_EQ(written(time, "yyyy-M-d H:m:s"), "2019-3-7 5:4:3");
        EXPECT_EQ(written(time, "yy.MM/dd HH:mm:ss tt"), "19-03-07 05:04:03");

        CTime::setFormat(CTime::mdy, CTime::DS_SLASH, CTime::TF_12);
        EXPECT_EQ(written(evening, "yyyy-MM-dd hh:mm:ss tt"), "11/28/2019 05:14:23 PM");
        EXPECT_EQ(CTime::getDateFormat(), CTime::mdy);
        EXPECT_EQ(CTime::getDateSeparator(), CTime::DS_SLASH);
        EXPECT_EQ(CTime::getSpliter(), '/');
        EXPECT_EQ(CTime::getTimeFormat(), CTime::TF_12);
        EXPECT_TRUE(CTime::get12Hour());
        EXPECT_FALSE(Tarsel::Infra::CTime::get12Hour()); // these are its own
        EXPECT_EQ(Tarsel::Infra::CTime::getSeparator(), '-');
        CTime::setFormat(7, 7, 7);
        EXPECT_EQ(CTime::getDateFormat(), 7);
        EXPECT_EQ(written(evening, "yyyy-MM-dd hh:mm:ss tt"), "2019/11/28 05:14:23 PM");

        EXPECT_EQ(log.takeLeveled(), "");
        CTime::setFormat("dd.MM.yyyy HH:mm"); // these are shared
        EXPECT_EQ(CTime::getFormat(), "dd.MM.yyyy HH:mm");
        EXPECT_EQ(std::string(Tarsel::Infra::CTime::getFormat().c_str()), "dd.MM.yyyy HH:mm");
        EXPECT_EQ(written(evening, "yyyy-MM-dd HH:mm"), "28.11.2019 17:14");
        EXPECT_EQ(Tarsel::Infra::CTime::getSeparator(), '.');
        EXPECT_EQ(CTime::getDateSeparator(), CTime::DS_DOT);
        EXPECT_EQ(log.takeLeveled(), "");
        CTime::setFormat(std::string("h"));
        const std::string complaints =
            "error|setFormat separator is invalid,set default separator: - \n"
            "error|setFormat dateFormat is invalid,set default separator: ymd \n";
        EXPECT_EQ(log.takeLeveled(), complaints + complaints);
        EXPECT_TRUE(CTime::get12Hour() && Tarsel::Infra::CTime::get12Hour());

        char text[10] = "untouched";
        time.format(nullptr, "yyyy");
        time.format(text, nullptr);
        EXPECT_STREQ(text, "untouched");
        EXPECT_EQ(log.takeLeveled(), "error|buf is NULL!!\nerror|format is NULL!!\n");
    });
}

std::string s_timesSet;
void keepTime(const Tarsel::Infra::CTime& time, int tolerance)
{
    s_timesSet += written(time, "yyyy-MM-dd HH:mm:ss") + " " + std::to_string(tolerance) + ";";
}

TEST(OlderTimeTest, TimeIsConvertedByTheSystem)
{
    inChild([] {
        setenv("TZ", "Europe/Berlin", 1);
        tzset();
        const CTime summer(1561972800ULL); // 2019-07-01 09:20:00 UTC, with daylight saving
        EXPECT_EQ(written(summer, "yyyy-MM-dd HH:mm:ss"), "2019-07-01 11:20:00");
        EXPECT_EQ(summer.wday, 1);
        EXPECT_EQ(summer.isdst, 1);
        EXPECT_EQ(summer.makeTime(), 1561972800ULL);
        EXPECT_EQ(CTime(1900, 1, 1, 0, 0, 0).year, 1970); // brought into the calendar
        CTime impossible;
        impossible.year = impossible.month = INT_MAX;
        EXPECT_EQ(impossible.makeTime(), 0U);
        impossible.year = impossible.month = INT_MIN;
        EXPECT_EQ(impossible.makeTime(), 0U);
        EXPECT_EQ(CTime(67767976233000000ULL).year, INT_MAX);
        // No such year, of ours in the first two, of the system's in the third.
        for (const unsigned long long second :
             {67767976233540000ULL, 67768036191000000ULL, ULLONG_MAX >> 1}) {
            const CTime none(second);
            EXPECT_TRUE(none.year == 0 && none.month == 0 && none.day == 0 && none.wday == 0 &&
                        none.hour == 0 && none.minute == 0 && none.second == 0 && none.isdst == -1)
                << second;
        }
        Tarsel::Infra::CTime::attachSetCurrentTimeHook(keepTime);
        CTime::setCurrentTime(CTime(2020, 1, 2, 3, 4, 5));
        CTime::setCurrentTime(CTime(2021, 1, 2, 3, 4, 5), 60);
        EXPECT_EQ(s_timesSet, "2020-01-02 03:04:05 0;2021-01-02 03:04:05 60;");
    });
    EXPECT_EQ(CTime::minTime, CTime(2000, 1, 1, 0, 0, 0));
    EXPECT_EQ(CTime::maxTime, CTime(2038, 1, 1, 0, 0, 0));
    EXPECT_EQ(CTime::minTime.wday, CTime(2000, 1, 1, 0, 0, 0).wday);
    EXPECT_EQ(CTime::maxTime.wday, CTime(2038, 1, 1, 0, 0, 0).wday);
    CTime time(2020, 2, 28, 23, 59, 59);
    EXPECT_EQ(time + 1, CTime(2020, 2, 29, 0, 0, 0));
    time += 86401;
    EXPECT_EQ(time, CTime(2020, 3, 1, 0, 0, 0));
    time -= 1;
    EXPECT_EQ(time - CTime(2020, 2, 28, 23, 59, 59), 86400);
    EXPECT_TRUE(time - 1 < time && time >= time && time != time - 1 && time <= time &&
                time > CTime());
    const CTime before = Tarsel::Infra::CTime::getCurrentTime();
    const CTime now = CTime::getCurrentTime();
    EXPECT_TRUE(before <= now && now <= CTime(Tarsel::Infra::CTime::getCurrentTime()));
}

TEST(OlderTimeTest, AForkedChildConvertsTimes)
{
    INFRA_NEEDS_A_HEAP_THAT_FORKS();
    std::atomic<bool> ends{false};
    std::thread converting([&ends] {
        for (unsigned long long second = 0; !ends; ++second) {
            EXPECT_EQ(CTime(second * 1000).makeTime(), second * 1000);
        }
    });
    for (int i = 0; i < 100; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            _exit(CTime(1000000ULL).makeTime() == 1000000 ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0) << i;
    }
    ends = true;
    converting.join();
}

TEST(OlderTimeTest, ARecorderNamesThePartsOfATime)
{
    CLogCapture log;
    CTimeRecord record("request", 2);
    record.stat(0);
    record.sample("parse");
    CTime::sleep(2);
    record.sample("answer");
    EXPECT_EQ(log.takeLeveled(), "");
    for (int i = 0; i < 2; ++i) { // looking at it leaves it as it is
        record.stat(0);
        const std::string text = log.takeLeveled();
        EXPECT_THAT(text,
                    testing::MatchesRegex("info.request-parse : ([2-9]|[1-9][0-9]+)[0-9]{3} us\n"
                                          "info.request-answer : [0-9]+ us\n"));
    }
    record.stat(1000);
    EXPECT_NE(log.takeLeveled(), "");
    record.stat(60000000); // a minute
    EXPECT_EQ(log.takeLeveled(), "");
    record.sample("one too many");
    record.sample("two");
    EXPECT_EQ(log.takeLeveled(), "warn|CTimeRecord::sample request is full, size:2\n");
    record.reset();
    record.stat(0);
    EXPECT_EQ(log.takeLeveled(), "");

    for (const int size : {0, -1, INT_MIN}) {
        CTimeRecord none(nullptr, size);
        none.sample("never");
        none.stat(0);
        EXPECT_EQ(log.takeLeveled(), "warn|CTimeRecord::sample  is full, size:0\n");
    }
    CTimeRecord nameless(nullptr, 1);
    nameless.sample(nullptr);
    nameless.stat(0);
    EXPECT_THAT(log.takeLeveled(), testing::MatchesRegex("info.- : [0-9]+ us\n"));
}

CTimeRecord* s_record = nullptr;
int s_lines = 0;
std::string s_formats;
/// A log printer that meddles with what is being logged.
void meddle(const char*)
{
    if (s_record != nullptr) {
        ++s_lines == 1 ? s_record->sample("between") : s_record->reset();
    }
    s_formats += CTime::getFormat() + ",";
}

TEST(OlderTimeTest, APrinterMayMeddle)
{
    inChild([] {
        CTimeRecord record("meddled", 3);
        record.sample("one");
        record.sample("two");
        s_record = &record;
        Tarsel::Infra::setLogPrinter(meddle);
        record.stat(0);
        s_record = nullptr;
        EXPECT_EQ(s_lines, 2); // for each sample that was there
        s_formats.clear();
        CTime::setFormat("h");
        EXPECT_EQ(s_formats, "h,h,h,h,");
    });
}

} // namespace

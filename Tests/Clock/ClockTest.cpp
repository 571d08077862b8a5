// The system's wall clock moved by years under the finished library, by a preloaded clock that takes
// its time from a file. The monotonic clock stays the system's: the kernel measures waits by it, and
// a process that saw another one would wait for moments that never come (DONT_FAKE_MONOTONIC).

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/ThreadLite.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Timer.h"
#include "Support/Eventually.h"

namespace
{

using namespace Tarsel::Infra;
using Tarsel::TestSupport::eventually;

std::atomic<int> s_regular{0};
std::atomic<int> s_far{0};
std::string s_line;

void onThread(CThreadLite& thread)
{
    while (thread.looping()) {
        EXPECT_TRUE(CThread::setCurrentTimeout(60000));
        CThread::sleep(5);
    }
}

void moveClockTo(const char* date)
{
    std::ofstream(getenv("FAKETIME_TIMESTAMP_FILE")) << '@' << date << '\n';
}

TEST(PreloadedClockTest, YearsComeAndGoUnderTimersWaitsAndDeadlines)
{
    if (getenv("FAKETIME_TIMESTAMP_FILE") == nullptr) {
        GTEST_SKIP() << "runs with a preloaded clock";
    }
    setLogPrinter([](const char* text) { s_line = text; });
    PrintOptions options = {};
    options.date = 1;
    setPrintOptions(options);
    CThreadLite watched(CThreadLite::ThreadProc(onThread), "watched");
    ASSERT_TRUE(watched.createThread());
    CTimer regular("regular");
    CTimer far("far");
    ASSERT_TRUE(regular.start([](unsigned long) { ++s_regular; }, 10, 10));
    ASSERT_TRUE(far.start([](unsigned long) { ++s_far; }, 600000, 0));
    CSemaphore semaphore(0);
    const struct
    {
        const char* date;
        const char* prefix;
        int year;
    } jumps[] = {{"2031-05-06 12:00:00", "[2031-05-06T12:0", 2031},
                 {"2001-02-28 23:00:00", "[2001-02-28T23:0", 2001},
                 {"2037-12-31 01:00:00", "[2037-12-31T01:0", 2037}};
    for (const auto& jump : jumps) {
        moveClockTo(jump.date);
        EXPECT_EQ(CTime::getCurrentTime().year, jump.year);
        logWarn("moved\n");
        EXPECT_EQ(s_line.substr(0, 16), jump.prefix);
        EXPECT_EQ(semaphore.pend(30), -1);
        const int calls = s_regular;
        EXPECT_TRUE(eventually([calls] { return s_regular > calls + 2; }));
        std::string names;
        EXPECT_FALSE(CThreadManager::instance()->getTimeOutThreads(names)) << names;
    }
    EXPECT_EQ(s_far, 0);
    EXPECT_TRUE(far.isStarted());
    setLogPrinter(LogPrinterProc());
}

} // namespace

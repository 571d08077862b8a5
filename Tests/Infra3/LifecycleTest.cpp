// What no single subsystem shows: fork, exit, signals and clock jumps while all of them are at work.
// The table in Docs/Lifecycle.md names these tests.

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/Error.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/ThreadLite.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Timer.h"
#include "Memory/Packet.h"
#include "Memory/PacketManager.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/FailingThreads.h"
#include "Support/SystemClock.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::eventually;
using TestSupport::runInChild;

std::function<void()> s_action; // what the callbacks below do, set before they can run
std::atomic<int> s_calls{0};

void onTimer(unsigned long)
{
    if (s_action) {
        s_action();
    }
    ++s_calls;
}

void onThread(CThreadLite& thread)
{
    if (s_action) {
        s_action();
    }
    while (thread.looping()) {
        ++s_calls;
        CThread::sleep(1);
    }
}

/// Forks, runs `body` in the child and returns how that ended: its exit code, or 1000 + its signal.
int forked(const std::function<void()>& body)
{
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        alarm(20); // what hangs ends here
        TestSupport::forgetLeaks();
        body();
        exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

/// Everything that a child may do.
void useTheLibrary()
{
    logWarn("a line of the child\n");
    setErrMsg(1, "text");
    CMutex mutex;
    CSemaphore semaphore(0);
    CThreadLite thread(CThreadLite::ThreadProc(onThread), "child's");
    EXPECT_TRUE(thread.createThread());
    Memory::CPacket packet(1000);
    EXPECT_TRUE(packet.valid());
    CTimer timer("child's");
    const int before = s_calls;
    EXPECT_TRUE(timer.start(onTimer, 1, 1));
    EXPECT_TRUE(eventually([before] { return s_calls > before + 3; }));
    CThread::load(50);
    CThread::load(100);
    CThreadManager::instance()->dumpThreads();
}

TEST(ForkTest, TheChildUsesAndEndsWhatItInheritedWhileThreadsAreBusy)
{
    INFRA_NEEDS_A_HEAP_THAT_FORKS();
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not support new threads in the child of such a fork";
#endif
    const TestSupport::COrdinaryThreads ordinary;
    const TestSupport::ChildResult result = runInChild([] {
        std::atomic<bool> stop{false};
        std::vector<std::thread> busy;
        for (int t = 0; t < 2; ++t) {
            busy.emplace_back([&stop] {
                while (!stop) {
                    logWarn("busy\n");
                    setErrMsg(2, "busy");
                    CTimer timer("busy");
                    timer.start(onTimer, 0, 1);
                    CThreadLite thread(CThreadLite::ThreadProc(onThread), "busy");
                    thread.createThread();
                    const Memory::CPacket packet(100);
                    CThread::load(50);
                    CThread::load(100);
                }
            });
        }
        CThreadLite inheritedThread(CThreadLite::ThreadProc(onThread), "inherited");
        CTimer inheritedTimer("inherited");
        EXPECT_TRUE(inheritedThread.createThread());
        EXPECT_TRUE(inheritedTimer.start(onTimer, 1, 1));
        for (int round = 0; round < 40; ++round) {
            EXPECT_EQ(forked([&] {
                          EXPECT_TRUE(inheritedThread.isThreadOver());
                          EXPECT_FALSE(inheritedTimer.isStarted());
                          EXPECT_FALSE(CThreadManager::instance()->hasThread(getppid()));
                          useTheLibrary();
                          EXPECT_TRUE(inheritedTimer.start(onTimer, 1, 0));
                          EXPECT_TRUE(eventually([&] { return inheritedTimer.isCalled(); }));
                          EXPECT_TRUE(inheritedThread.createThread());
                      }),
                      0);
        }
        EXPECT_FALSE(inheritedThread.isThreadOver()); // the parent's own go on
        EXPECT_TRUE(inheritedTimer.isStarted());
        stop = true;
        for (std::thread& thread : busy) {
            thread.join();
        }
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
}

TEST(ForkTest, TheChildsLinesShowItsOwnThread)
{
    const TestSupport::ChildResult result = runInChild([] {
        PrintOptions options = {};
        options.time = options.color = 1;
        setPrintOptions(options);
        logWarn("parent\n");
        EXPECT_EQ(forked([] {
                      printf("child %d\n", getpid());
                      logWarn("child\n");
                  }),
                  0);
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
    const size_t at = result.output.find("child ");
    ASSERT_NE(at, std::string::npos) << result.report();
    const std::string id = std::to_string(atoi(result.output.c_str() + at + 6));
    EXPECT_NE(result.output.find("[ warn Unknown " + id + " Unknown:0]child\n"), std::string::npos)
        << result.report();
}

TEST(ForkTest, ATimersCallMayFork)
{
    INFRA_NEEDS_A_HEAP_THAT_FORKS();
    const TestSupport::ChildResult result = runInChild([] {
        std::atomic<int> ended{-1};
        s_action = [&ended] {
            s_action = nullptr;
            ended = forked(useTheLibrary);
        };
        CTimer timer("forks");
        EXPECT_TRUE(timer.start(onTimer, 0, 0));
        EXPECT_TRUE(eventually([&ended] { return ended != -1; }));
        EXPECT_EQ(ended, 0);
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
}

TEST(ForkTest, AThreadsBodyMayForkAndTheChildExits)
{
    const TestSupport::ChildResult result = runInChild([] {
        std::atomic<int> ended{-1};
        s_action = [&ended] {
            s_action = nullptr;
            ended = forked([] { EXPECT_NE(CThread::getCurrentThreadID(), getppid()); });
        };
        static CThreadLite s_thread{CThreadLite::ThreadProc(onThread), "forks"};
        EXPECT_TRUE(s_thread.createThread());
        EXPECT_TRUE(eventually([&ended] { return ended != -1; }));
        EXPECT_EQ(ended, 0);
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
}

/// Static objects of an application, some older than the library's managers, some younger.
struct StaticObjects
{
    std::unique_ptr<CTimer> timer;
    std::unique_ptr<CThreadLite> thread;
    Memory::CPacket packet;
    CMutex mutex;
    CSemaphore semaphore{0};

    ~StaticObjects()
    {
        CTimer late("late");
        logWarn("a static object ends, timers start: %d\n", late.start(onTimer, 0, 0));
        setErrMsg(3, "text");
        setLastError(4);
        if (!mutex.enter() || semaphore.post() != 1 || semaphore.pend() != 0 || !mutex.leave()) {
            logWarn("no locks\n");
        }
        CThreadManager::instance()->dumpThreads();
    }
};

template <int Number>
StaticObjects& staticObjects()
{
    static StaticObjects objects;
    return objects;
}

void fill(StaticObjects& objects)
{
    objects.timer = std::make_unique<CTimer>("static");
    EXPECT_TRUE(objects.timer->start(onTimer, 1, 1));
    objects.thread = std::make_unique<CThreadLite>(CThreadLite::ThreadProc(onThread), "static");
    EXPECT_TRUE(objects.thread->createThread());
    objects.packet = Memory::CPacket(100);
}

/// The first one is older than the managers, which the first timer makes; the others are younger.
void fillStatics()
{
    fill(staticObjects<0>());
    fill(staticObjects<1>());
    fill(staticObjects<2>());
    EXPECT_TRUE(eventually([] { return s_calls > 10; }));
}

TEST(ExitTest, MainMayReturnWhileStaticObjectsAreBusy)
{
    const TestSupport::ChildResult result = runInChild(fillStatics);
    EXPECT_TRUE(result.succeeded()) << result.report();
    EXPECT_EQ(TestSupport::countOf(result.output, "a static object ends, timers start: 1\n"), 2);
    EXPECT_EQ(TestSupport::countOf(result.output, "a static object ends, timers start: 0\n"), 1);
    EXPECT_EQ(TestSupport::countOf(result.output, "no locks"), 0);
    EXPECT_EQ(TestSupport::countOf(result.output, "[*] Infra 3.0.0"), 1);
}

/// Ends the process with 7 from `where` while main waits; every one of these once hung or crashed.
TestSupport::ChildResult exitFrom(const std::function<void()>& arrange)
{
    return runInChild([&arrange] {
        arrange();
        eventually([] { return false; });
        _exit(99);
    });
}

void expectExit(const TestSupport::ChildResult& result)
{
    EXPECT_EQ(result.exitCode, 7) << result.report();
}

TEST(ExitTest, ATimersCallMayExitWhileOthersWaitForIt)
{
    expectExit(exitFrom([] {
        static std::atomic<bool> s_armed{false};
        static std::atomic<bool> s_exits{false};
        s_action = [] { // the other timers call it too
            if (!s_armed) {
                return;
            }
            CThread::sleep(30);
            if (!s_exits.exchange(true)) {
                exit(7);
            }
        };
        fillStatics();
        static CTimer s_timer("exits");
        s_armed = true;
        EXPECT_TRUE(s_timer.start(onTimer, 0, 0));
        s_timer.stopAndWait();
    }));
}

TEST(ExitTest, AThreadsBodyMayExit)
{
    expectExit(exitFrom([] {
        static CThreadLite s_thread{CThreadLite::ThreadProc(onThread), "exits"};
        s_action = [] {
            s_action = nullptr;
            exit(7);
        };
        EXPECT_TRUE(s_thread.createThread());
    }));
}

const char* s_exitAt = ""; // a literal: other threads print while the process exits

void exitingPrinter(const char* text)
{
    if (strstr(text, s_exitAt) != nullptr) {
        setLogPrinter(LogPrinterProc());
        exit(7);
    }
}

TEST(ExitTest, APrinterMayExitOnAnyOfTheLibrarysThreads)
{
    const struct
    {
        const char* name;
        const char* line;
        std::function<void()> provoke;
    } cases[] = {
        {"scheduler", "Enter name:TimerManager", [] { CTimer timer("one"); }},
        {"worker", ", prior:N64", // it may enter before it is named after the timer
         [] {
             static CTimer s_timer("one");
             s_timer.start(onTimer, 0, 0);
         }},
        {"trimmed worker", "leave name:[Pooled]",
         [] {
             CTimerManager::instance()->limitIdlePooled(1);
             s_action = [] { CThread::sleep(30); };
             static CTimer s_one("one");
             static CTimer s_two("two");
             s_one.start(onTimer, 0, 0);
             s_two.start(onTimer, 0, 0);
         }},
        {"load controller", "leave name:ThreadLoadingControl",
         [] {
             CThread::load(50);
             CThread::load(100);
             _exit(7); // where real-time threads are not permitted
         }},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        expectExit(exitFrom([&each] {
            setPrintLogLevel(5);
            s_exitAt = each.line;
            setLogPrinter(LogPrinterProc(exitingPrinter));
            each.provoke();
        }));
    }
}

TEST(ExitTest, AnIdleWorkerCostsNoTime)
{
    const auto begin = std::chrono::steady_clock::now();
    const TestSupport::ChildResult result = runInChild([] {
        CTimer timer("once");
        EXPECT_TRUE(timer.start(onTimer, 0, 0));
        EXPECT_TRUE(eventually([] { return s_calls == 1; }));
        timer.stopAndWait();
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

struct UsesTextsAtExit
{
    ~UsesTextsAtExit()
    {
        EXPECT_STREQ(getErrMsg(5), ""); // the table began anew
        setErrMsg(5, "late");
        setErrMsg(5, "");
    }
};

TEST(ExitTest, AnyNumberOfStaticObjectsMayUseErrorTexts)
{
    const TestSupport::ChildResult result = runInChild([] {
        static UsesTextsAtExit s_objects[100];
        (void)s_objects;
        setErrMsg(5, "early");
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
}

TEST(ExitTest, ABrokenProgramKeepsMessagesThatWereHeldBack)
{
    const TestSupport::ChildResult result = runInChild([] {
        CTimer timer("any");
        TestSupport::freezeMonotonicClock(1000); // the scheduler sees a clock that went back
        eventually([] { return false; });
    });
    EXPECT_EQ(result.signal, SIGABRT) << result.report();
    EXPECT_NE(result.errorOutput.find("assertion (0) failed in "), std::string::npos);
}

TEST(SignalDeliveryTest, WaitsAndSleepsGoOnAfterSignals)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr); // no SA_RESTART: every system call is broken off
    const pthread_t self = pthread_self();
    std::atomic<bool> stop{false};
    std::thread sender([&] {
        while (!stop) {
            pthread_kill(self, SIGUSR1);
            CThread::sleep(1);
        }
    });
    CSemaphore semaphore(0);
    uint64_t begin = CTime::getCurrentMilliSecond();
    EXPECT_EQ(semaphore.pend(100), -1);
    EXPECT_GE(CTime::getCurrentMilliSecond() - begin, 99U);
    begin = CTime::getCurrentMilliSecond();
    CThread::sleep(100);
    EXPECT_GE(CTime::getCurrentMilliSecond() - begin, 99U);
    std::thread poster([&] {
        CThread::sleep(50);
        semaphore.post();
    });
    EXPECT_EQ(semaphore.pend(), 0);
    poster.join();
    CTimer timer("signalled");
    s_calls = 0;
    EXPECT_TRUE(timer.start(onTimer, 10, 10));
    EXPECT_TRUE(eventually([] { return s_calls > 3; }));
    timer.stopAndWait();
    stop = true;
    sender.join();
}

/// Stands for the system: whoever sets the time moves the test's wall clock.
void moveWallClock(const CTime& time, int)
{
    static int64_t s_shift = 0;
    s_shift += time - CTime::getCurrentTime();
    TestSupport::shiftWallClock(s_shift);
}

std::string s_line;

TEST(ClockJumpTest, TheWallClockMovesNoTimerWaitOrDeadlineAndLinesFollowIt)
{
    const TestSupport::ChildResult result = runInChild([] {
        CTime::attachSetCurrentTimeHook(CTime::SetCurrentTimeHook(moveWallClock), true);
        setLogPrinter([](const char* text) { s_line = text; });
        PrintOptions options = {};
        options.date = 1;
        setPrintOptions(options);
        CTimer far("far");
        CTimer soon("soon");
        CThreadLite watched(CThreadLite::ThreadProc(onThread), "watched");
        EXPECT_TRUE(watched.createThread());
        watched.setTimeout(60000);
        EXPECT_TRUE(far.start(onTimer, 100000, 0));
        const uint64_t begin = CTime::getCurrentMilliSecond();
        EXPECT_TRUE(soon.start([](unsigned long) { s_calls += 1000000; }, 100, 0));
        CSemaphore semaphore(0);
        for (const auto& [time, prefix] : std::vector<std::pair<CTime, std::string>>{
                 {CTime(2031, 5, 6, 12, 0, 0), "[2031-05-06T12:00:"},
                 {CTime(2001, 2, 28, 23, 0, 0), "[2001-02-28T23:00:"},
                 {CTime(2037, 12, 31, 1, 0, 0), "[2037-12-31T01:00:"}}) {
            CTime::setCurrentTime(time);
            logWarn("moved\n");
            EXPECT_EQ(s_line.substr(0, prefix.size()), prefix);
            EXPECT_EQ(CTime::getCurTimeForPrint().year, time.year);
            EXPECT_EQ(semaphore.pend(20), -1);
            EXPECT_FALSE(watched.isTimeout());
        }
        EXPECT_TRUE(eventually([] { return s_calls >= 1000000; }));
        // The delay counts from the last tick, which is late on a busy machine.
        EXPECT_GE(CTime::getCurrentMilliSecond() - begin, 50U);
        EXPECT_TRUE(far.isStarted());
        setLogPrinter(LogPrinterProc());
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
}

} // namespace
} // namespace Infra
} // namespace Tarsel

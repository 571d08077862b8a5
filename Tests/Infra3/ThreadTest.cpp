// Threads, their table, and the load controller.

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/Thread.h"
#include "Infra/Infra3/ThreadLite.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Infra3/Time.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/FreshProcess.h"
#include "Support/LogCapture.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::CLogCapture;
using TestSupport::eventually;

/// Runs until it is asked to stop.
class CLoopThread : public CThread
{
public:
    explicit CLoopThread(const char* name, int priority = priorDefault, int policy = policyNormal,
                         int stackSize = 0)
        : CThread(name, priority, policy, stackSize)
    {}
    ~CLoopThread() override
    {
        if (!isThreadOver()) {
            destroyThread();
        }
    }
    void threadProc() override
    {
        pthread_attr_t attribute;
        pthread_getattr_np(pthread_self(), &attribute);
        pthread_attr_getstacksize(&attribute, &stackSize);
        pthread_attr_destroy(&attribute);
        niceValue = getpriority(PRIO_PROCESS, 0);
        ++runs;
        while (looping()) {
            if (onRound) {
                onRound();
            }
            CThread::sleep(1);
        }
    }
    bool startAndWait()
    {
        const int before = runs;
        return createThread() && eventually([&] { return runs > before; });
    }

    size_t stackSize = 0;
    int niceValue = 0;
    std::atomic<int> runs{0};
    std::function<void()> onRound;
};

TEST(ThreadTest, RunsAreStartedAndStoppedWithTheResultsOfTheirState)
{
    CLogCapture log;
    CLoopThread thread("worker");
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_EQ(thread.getThreadID(), -1);
    EXPECT_FALSE(thread.destroyThread());
    EXPECT_TRUE(log.contains(" CThread::DestroyThread() thread:worker has exited!\n"));
    EXPECT_FALSE(thread.cancelThread());
    EXPECT_TRUE(log.contains(" CThread::cancelThread() thread:worker not exist!\n"));

    EXPECT_TRUE(thread.startAndWait());
    EXPECT_FALSE(thread.isThreadOver());
    EXPECT_GT(thread.getThreadID(), 0);
    EXPECT_FALSE(thread.createThread());
    EXPECT_TRUE(log.contains(" CThread::CreateThread() thread:worker is still running!\n"));
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_FALSE(thread.destroyThread());
    EXPECT_TRUE(log.contains(" CThread::DestroyThread() thread:worker has been destroyed!\n"));

    EXPECT_TRUE(thread.createThread()); // waits for the end of the run before
    EXPECT_TRUE(thread.cancelThread());
    EXPECT_TRUE(thread.createThread());
    EXPECT_FALSE(thread.terminateThread());
    EXPECT_TRUE(eventually([&] { return thread.isThreadOver(); }));
    EXPECT_EQ(thread.shareSocket(42), 42);
}

TEST(ThreadTest, NamesAreBounded)
{
    CLoopThread unnamed(nullptr);
    EXPECT_STREQ(unnamed.getThreadName(), "Nonamed");
    const std::string longName(40, 'n');
    CLoopThread named(longName.c_str());
    EXPECT_EQ(named.getThreadName(), longName.substr(0, 31));
    named.setThreadName("short");
    EXPECT_STREQ(named.getThreadName(), "short");
    named.setThreadName(nullptr);
    EXPECT_STREQ(named.getThreadName(), "Nonamed");
}

TEST(ThreadTest, StackSizesAreCheckedAndAppliedWhenEnabled)
{
    CLogCapture log;
    CLoopThread negative("negative", CThread::priorDefault, CThread::policyNormal, -1);
    EXPECT_FALSE(negative.createThread());
    EXPECT_TRUE(log.contains(" invalid stack size, StackSize:-1\n"));
    EXPECT_TRUE(negative.isThreadOver());

    CLoopThread small("small", CThread::priorDefault, CThread::policyNormal, 1000);
    EXPECT_TRUE(small.startAndWait());
    EXPECT_TRUE(log.contains(" too small stack size, StackSize:1000, adjust to 16k\n"));
    EXPECT_GT(small.stackSize, 1000000U); // not enabled: the system's default
    log.clear();

    CLoopThread enabled("enabled", CThread::priorDefault, CThread::policyNormal, 1 << 20);
    enabled.enableStackSize();
    EXPECT_TRUE(enabled.startAndWait());
    EXPECT_TRUE(log.contains(" pthread attr set stack size, stk_sz:1048576\n"));
    EXPECT_LT(enabled.stackSize, 2U << 20);

    std::list<CThreadManager::ThreadInfo> infos;
    EXPECT_TRUE(CThreadManager::instance()->getThreadsInfo(infos));
    ASSERT_EQ(infos.size(), 2U);
    EXPECT_STREQ(infos.front().name, "enabled");
    EXPECT_EQ(infos.front().stackSize, 1U << 20);
    EXPECT_EQ(infos.back().stackSize, 1000U); // what was asked for
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(ThreadTest, RunsOnSixteenKilobytesWithTracing)
{
    CLogCapture log;
    setPrintLogLevel(6);
    CLoopThread thread("tiny", CThread::priorDefault, CThread::policyNormal, 1000);
    thread.enableStackSize();
    EXPECT_TRUE(thread.startAndWait());
    EXPECT_EQ(thread.stackSize, 16384U);
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_TRUE(eventually([&] { return thread.isThreadOver(); }));
    setPrintLogLevel(4);
    EXPECT_TRUE(log.contains("ThreadBody Enter name:tiny, id:"));
    EXPECT_TRUE(log.contains(", prior:N64, stack:0x"));
    EXPECT_TRUE(log.contains("ThreadBody leave name:tiny, id:"));
}
#endif

TEST(ThreadTest, PriorityBecomesTheNiceValueOfTheThreadAlone)
{
    const int own = getpriority(PRIO_PROCESS, 0);
    CLoopThread usual("usual");
    EXPECT_TRUE(usual.startAndWait());
    EXPECT_EQ(usual.niceValue, 1);
    CLoopThread bottom("bottom", CThread::priorBottom);
    EXPECT_TRUE(bottom.startAndWait());
    EXPECT_EQ(bottom.niceValue, 19); // 20, capped by the system
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), own);
}

TEST(ThreadTest, AnUnknownPolicyWarnsWithoutLineEndAndRunsNormally)
{
    CLogCapture log;
    CLoopThread thread("odd", CThread::priorDefault, 7);
    EXPECT_TRUE(thread.startAndWait());
    EXPECT_TRUE(log.contains(" CThread::CreateThread policy isn't set properly, policy:7"));
    EXPECT_FALSE(log.contains("policy:7\n"));
    logWarn("\n");
}

TEST(ThreadTest, AThreadMayStopItselfAndNotStartItselfAgain)
{
    CLogCapture log;
    CLoopThread thread("self");
    std::atomic<bool> stopped{false};
    std::atomic<bool> started{true};
    thread.onRound = [&] {
        stopped = thread.destroyThread();
        started = thread.createThread();
    };
    EXPECT_TRUE(thread.createThread());
    EXPECT_TRUE(eventually([&] { return thread.isThreadOver(); }));
    EXPECT_TRUE(stopped);
    EXPECT_FALSE(started);
    EXPECT_TRUE(log.contains(" CThread::CreateThread() thread:self is still running!\n"));
    thread.onRound = nullptr;
    EXPECT_TRUE(thread.startAndWait());
}

TEST(ThreadTest, WatchdogDeadlines)
{
    CLoopThread thread("watched");
    EXPECT_FALSE(thread.isTimeout());
    thread.setTimeout(10);
    EXPECT_FALSE(thread.isTimeout());
    EXPECT_TRUE(eventually([&] { return thread.isTimeout(); }));
    thread.setTimeout(0);
    EXPECT_FALSE(thread.isTimeout());
    thread.setTimeout(-5);
    EXPECT_TRUE(thread.isTimeout());
    thread.setTimeout(10, CTime::getCurrentMilliSecond() + 60000);
    EXPECT_FALSE(thread.isTimeout());
    thread.setTimeout(10, 1);
    EXPECT_TRUE(thread.isTimeout());
    EXPECT_FALSE(CThread::setCurrentTimeout(10)); // the test's own thread is not registered

    std::atomic<bool> accepted{false};
    thread.onRound = [&] { accepted = CThread::setCurrentTimeout(60000); };
    EXPECT_TRUE(thread.startAndWait());
    EXPECT_TRUE(eventually([&] { return accepted.load(); }));
    EXPECT_FALSE(thread.isTimeout());
}

TEST(ThreadTest, SleepLastsAndYieldsForNothing)
{
    const uint64_t begin = CTime::getCurrentMicroSecond();
    CThread::sleep(0);
    CThread::sleep(-5);
    CThread::sleep(30);
    EXPECT_GE(CTime::getCurrentMicroSecond() - begin, 29000U);
}

TEST(ThreadTest, IdsAreTheKernelsAndDifferByThread)
{
    const int own = CThread::getCurrentThreadID();
    EXPECT_EQ(own, gettid());
    EXPECT_EQ(CThread::getCurrentThreadID(), own);
    std::thread([own] {
        EXPECT_EQ(CThread::getCurrentThreadID(), gettid());
        EXPECT_NE(CThread::getCurrentThreadID(), own);
    }).join();
}

struct Work
{
    void run(CThreadLite& thread)
    {
        while (thread.looping()) {
            ++rounds;
            CThread::sleep(1);
        }
    }
    std::atomic<int> rounds{0};
};

TEST(ThreadLiteTest, RunsItsDelegateUntilItIsDestroyed)
{
    Work work;
    {
        CThreadLite thread(CThreadLite::ThreadProc(&Work::run, &work), "lite");
        EXPECT_TRUE(thread.createThread());
        EXPECT_TRUE(eventually([&] { return work.rounds > 3; }));
        thread.cancelThread(); // its end is nobody's yet: the destructor waits for it
    }
    const int rounds = work.rounds;
    CThreadLite idle(CThreadLite::ThreadProc(), "idle");
    EXPECT_TRUE(idle.createThread());
    EXPECT_TRUE(eventually([&] { return idle.isThreadOver(); }));
    EXPECT_EQ(work.rounds, rounds);
}

void showTable()
{
    CLogCapture log;
    CThreadManager& manager = *CThreadManager::instance();
    EXPECT_TRUE(log.contains("[*] Infra 3.0.0.812148 Built in 2019/11/ 8 [*]\n"));
    log.clear();
    manager.dumpThreads();
    EXPECT_EQ(log.text(), "Threads:\n"
                          "               Name            TID  Prior State\n"
                          "_______________________________________________________\n"
                          "                    Main         -1   64  Normal\n"
                          "\n");
    CLoopThread first("first", 10);
    CLoopThread second("second", CThread::priorBottom);
    ASSERT_TRUE(first.startAndWait());
    ASSERT_TRUE(second.startAndWait());
    first.setTimeout(1, 1);
    manager.registerMainThread();
    log.clear();
    manager.dumpThreads();
    char expected[512];
    snprintf(expected, sizeof(expected),
             "                    Main   %8d   64  Normal\n"
             "                  second   %8d  127  Normal\n"
             "                   first   %8d   10  Timeout\n\n",
             gettid(), second.getThreadID(), first.getThreadID());
    EXPECT_TRUE(log.contains(expected)) << log.text();

    std::string names = "old";
    EXPECT_TRUE(manager.getTimeOutThreads(names));
    EXPECT_EQ(names, "first(" + std::to_string(first.getThreadID()) + ")");
    CString name("kept");
    EXPECT_FALSE(manager.getThreadNameByID(gettid(), name));
    EXPECT_STREQ(name.c_str(), "kept");
    EXPECT_TRUE(manager.getThreadNameByID(second.getThreadID(), name));
    EXPECT_STREQ(name.c_str(), "second");
    EXPECT_TRUE(manager.hasThread(first.getThreadID()));
    const int id = first.getThreadID();
    first.destroyThread();
    EXPECT_FALSE(manager.hasThread(id));
    EXPECT_FALSE(manager.getTimeOutThreads(names));
    EXPECT_EQ(names, "");
}

TEST(ThreadManagerTest, TheTableShowsThreadsNewestFirst)
{
    INFRA_IN_FRESH_PROCESS(showTable);
}

TEST(LoadControllerTest, OnlyPercentagesAreTakenAndTheThreadLivesWhileOneIsLimited)
{
    CLogCapture log;
    CThread::load(0);
    CThread::load(101);
    EXPECT_EQ(log.text(),
              "thread load percent:0 is invalid!\nthread load percent:101 is invalid!\n");

    const auto controllerRuns = [] {
        std::list<CThreadManager::ThreadInfo> infos;
        CThreadManager::instance()->getThreadsInfo(infos);
        for (const CThreadManager::ThreadInfo& info : infos) {
            if (strcmp(info.name, "ThreadLoadingControl") == 0) {
                return true;
            }
        }
        return false;
    };
    log.clear();
    CThread::load(50);
    if (log.contains("pthread create failed")) {
        GTEST_SKIP() << "real-time threads are not permitted here";
    }
    EXPECT_TRUE(eventually(controllerRuns));
    CThread::load(100);
    EXPECT_TRUE(eventually([&] { return !controllerRuns(); }));

    // A limited thread that ends takes its limit along.
    std::thread([&] {
        CThread::load(30);
        EXPECT_TRUE(eventually(controllerRuns));
    }).join();
    EXPECT_TRUE(eventually([&] { return !controllerRuns(); }));

    std::vector<std::thread> flippers;
    for (int t = 0; t < 2; ++t) {
        flippers.emplace_back([] {
            for (int i = 0; i < 20; ++i) {
                CThread::load(50);
                CThread::load(100);
            }
        });
    }
    for (std::thread& flipper : flippers) {
        flipper.join();
    }
    EXPECT_TRUE(eventually([&] { return !controllerRuns(); }));
}

TEST(LoadControllerTest, ABusyMachineDoesNotPileUpPausesOnASmallStack)
{
    CLogCapture log;
    CLoopThread thread("limited", CThread::priorBottom, CThread::policyNormal, 64 * 1024);
    thread.enableStackSize();
    std::atomic<bool> stop{false};
    std::vector<std::thread> burners;
    for (int i = 0; i < 3; ++i) {
        burners.emplace_back([&stop] {
            while (!stop) {
            }
        });
    }
    std::atomic<int> rounds{0};
    thread.onRound = [&rounds] {
        if (rounds++ == 0) {
            CThread::load(10);
        }
    };
    EXPECT_TRUE(thread.startAndWait());
    EXPECT_TRUE(eventually([&rounds] { return rounds > 20; }));
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_TRUE(thread.isThreadOver());
    stop = true;
    for (std::thread& burner : burners) {
        burner.join();
    }
}

TEST(LoadControllerTest, AnotherHandlerForTheSignalEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process in which no controller was made yet
    EXPECT_DEATH(
        {
            signal(SIGUSR2, [](int) {});
            CThread::load(50);
        },
        "assertion .oldact.sa_handler == 0 && oldact.sa_sigaction == 0. failed");
}

} // namespace
} // namespace Infra
} // namespace Tarsel

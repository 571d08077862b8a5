// Timers, their schedule and their workers.

#include <atomic>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Timer.h"
#include "Infra3/TimerInternal.h"
#include "Infra3/TimerSchedule.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/FailingThreads.h"
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

uint64_t nowMs()
{
    return CTime::getCurrentMilliSecond();
}

/// The scheduler's time, from which delays count: the last tick, however long that is ago.
uint64_t tickTimeMs()
{
    const CRecursiveGuard guard(TimerManagerInternal::sm_mutex());
    return TimerManagerInternal::existing()->m_CurTime;
}

/// What a timer's callback does, chosen by the test.
struct Callback
{
    void call(unsigned long parameter)
    {
        last = parameter;
        if (action) {
            action();
        }
        ++calls;
    }
    CTimer::Proc proc() { return CTimer::Proc(&Callback::call, this); }
    bool called(int times = 1)
    {
        return eventually([&] { return calls >= times; });
    }

    std::function<void()> action;
    std::atomic<int> calls{0};
    std::atomic<unsigned long> last{0};
};

std::vector<CThreadManager::ThreadInfo> threadsNamed(const char* name)
{
    std::list<CThreadManager::ThreadInfo> infos;
    CThreadManager::instance()->getThreadsInfo(infos);
    std::vector<CThreadManager::ThreadInfo> found;
    for (const CThreadManager::ThreadInfo& info : infos) {
        if (strcmp(info.name, name) == 0) {
            found.push_back(info);
        }
    }
    return found;
}

TEST(TimerScheduleTest, AgreesWithASortedListAtEveryStep)
{
    std::mt19937_64 random(12345);
    constexpr size_t count = 300;
    uint64_t now = (uint64_t{1} << 42) - 5000; // crosses the border of many digits
    CTimerSchedule schedule(now);
    std::list<TimerInternal> timers;
    for (size_t i = 0; i < count; ++i) {
        timers.emplace_back("t");
    }
    std::list<TimerInternal*> model; // in order: the first is due first
    std::vector<TimerInternal*> idle;
    for (TimerInternal& timer : timers) {
        idle.push_back(&timer);
    }
    const auto insert = [&](TimerInternal* timer) {
        auto at = model.begin();
        while (at != model.end() && (*at)->m_CallTime < timer->m_CallTime) {
            ++at;
        }
        model.insert(at, timer);
        schedule.insert(*timer);
    };
    for (int step = 0; step < 20000; ++step) {
        const unsigned choice = random() % 10;
        if (choice < 5 && !idle.empty()) {
            TimerInternal* const timer = idle.back();
            idle.pop_back();
            const int digits = static_cast<int>(random() % 40);
            timer->m_CallTime = now + (random() & ((uint64_t{1} << digits) - 1));
            if (random() % 50 == 0) {
                timer->m_CallTime = now - random() % 1000; // moved into the past
            }
            insert(timer);
        } else if (choice < 8 && !model.empty()) {
            auto at = model.begin();
            std::advance(at, static_cast<long>(random() % model.size()));
            schedule.remove(**at);
            idle.push_back(*at);
            model.erase(at);
        } else {
            now += random() % 4 == 0 ? random() % (uint64_t{1} << (random() % 30)) : random() % 20;
            schedule.advance(now);
        }
        while (random() % 3 == 0 && schedule.firstDue() != nullptr) {
            ASSERT_EQ(schedule.firstDue(), model.front());
            ASSERT_LT(model.front()->m_CallTime, now);
            schedule.remove(*model.front());
            idle.push_back(model.front());
            model.pop_front();
        }
        if (step % 50 == 0) {
            const std::vector<TimerInternal*> sorted = schedule.sorted();
            ASSERT_EQ(std::list<TimerInternal*>(sorted.begin(), sorted.end()), model);
            ASSERT_TRUE(schedule.isSound());
        }
        ASSERT_EQ(schedule.firstDue() != nullptr,
                  !model.empty() && model.front()->m_CallTime < now);
    }
    size_t cleared = 0;
    schedule.clear([&cleared](TimerInternal&) { ++cleared; });
    EXPECT_EQ(cleared, model.size());
    EXPECT_TRUE(schedule.isSound());
    EXPECT_TRUE(schedule.sorted().empty());
}

TEST(TimerTest, AOneShotTimerCallsOnceAndLeavesTheSchedule)
{
    Callback callback;
    CTimer timer("once");
    EXPECT_FALSE(timer.isStarted());
    const uint64_t begin = tickTimeMs();
    EXPECT_TRUE(timer.start(callback.proc(), 50, 0, 7));
    EXPECT_TRUE(timer.isStarted());
    EXPECT_FALSE(timer.isCalled());
    ASSERT_TRUE(callback.called());
    EXPECT_GT(nowMs() - begin, 50U);
    EXPECT_EQ(callback.last, 7U);
    EXPECT_FALSE(timer.isStarted());
    EXPECT_TRUE(timer.isCalled());
    EXPECT_TRUE(timer.stopAndWait());
    EXPECT_FALSE(timer.isRunning());
    EXPECT_FALSE(timer.stop());
    EXPECT_EQ(callback.calls, 1);
}

TEST(TimerTest, ADelayOfNothingHandsTheCallOutAtOnce)
{
    Callback callback;
    CSemaphore gate(0);
    callback.action = [&] { gate.pend(); };
    CTimer timer("now");
    EXPECT_TRUE(timer.start(callback.proc(), 0, 0));
    EXPECT_TRUE(timer.isCalled());
    EXPECT_TRUE(timer.isRunning());
    EXPECT_FALSE(timer.start(callback.proc(), 0, 0)); // dropped: the first call still runs
    EXPECT_TRUE(timer.isCalled());
    gate.post();
    EXPECT_TRUE(callback.called());
    timer.stopAndWait();
    EXPECT_EQ(callback.calls, 1);
    EXPECT_FALSE(timer.start(CTimer::Proc(), 0, 0));
}

TEST(TimerTest, StopWithCallHandsOutOneShotTimersOnly)
{
    Callback callback;
    CTimer once("once");
    EXPECT_TRUE(once.start(callback.proc(), 100000, 0, 1));
    EXPECT_TRUE(once.stop(true));
    EXPECT_TRUE(callback.called());
    EXPECT_TRUE(once.isCalled());
    CTimer periodic("periodic");
    EXPECT_TRUE(periodic.start(callback.proc(), 100000, 100000, 2));
    EXPECT_TRUE(periodic.stop(true));
    EXPECT_FALSE(periodic.isStarted());
    EXPECT_EQ(callback.last, 1U);
}

TEST(TimerTest, APeriodicTimerStaysOnItsGridAndDropsWhatItMisses)
{
    Callback callback;
    std::vector<uint64_t> begins;
    callback.action = [&] {
        begins.push_back(nowMs()); // one call at a time: no lock needed
        if (begins.size() == 2) {
            CThread::sleep(120);
        }
    };
    CTimer timer("grid");
    const uint64_t start = tickTimeMs();
    EXPECT_TRUE(timer.start(callback.proc(), 50, 50));
    ASSERT_TRUE(callback.called(6));
    timer.stopAndWait();
    EXPECT_GE(begins[2] - begins[1], 120U);
    // Counted in periods, the calls are 1, 2, (3 and 4 dropped), 5, 6, 7, 8 or later ones.
    EXPECT_GT(begins[5] - start, 8U * 50);
}

TEST(TimerTest, TheTableIsInTheOrderOfTheCallsTheLastStartedFirst)
{
    CLogCapture log;
    Callback callback;
    CTimer a("a");
    CTimer b("b");
    CTimer c("c");
    CTimer early("early");
    const auto namesInTable = [&] {
        log.clear();
        CTimerManager::instance()->dumpTimers();
        std::string names;
        const std::string text = log.text();
        for (size_t at = text.find("___\n") + 4; at < text.size(); at = text.find('\n', at) + 1) {
            char name[32];
            if (sscanf(text.c_str() + at, "%31s", name) == 1 && text[at] == ' ') {
                names += std::string(name) + " ";
            }
        }
        return names;
    };
    EXPECT_EQ(namesInTable(), "");
    EXPECT_TRUE(log.contains(" Milli-Seconds Elapsed )\n"
                             "            Name            NextTime RunningTime Period   "
                             "Used/Timeout State\n"
                             "________________________________________________________________"
                             "____________\n\n"))
        << log.text();
    // All in one tick, so that the times are equal: retried when a tick came between.
    for (int attempt = 0; attempt < 100; ++attempt) {
        const uint64_t tick = TimerManagerInternal::existing()->m_CurTime;
        a.start(callback.proc(), 100000, 500, 0, 30);
        b.start(callback.proc(), 100000, 500, 0, 30);
        c.start(callback.proc(), 100000, 500, 0, 30);
        early.start(callback.proc(), 50000, 0);
        const CRecursiveGuard guard(TimerManagerInternal::sm_mutex());
        if (tick == TimerManagerInternal::existing()->m_CurTime) {
            break;
        }
    }
    EXPECT_EQ(namesInTable(), "early c b a ");
    EXPECT_TRUE(log.contains("           0    500      0/    30 Idle\n")) << log.text();
    a.setPeriodTime(200); // 300 ms earlier
    EXPECT_EQ(namesInTable(), "early a c b ");
    b.stop();
    EXPECT_EQ(namesInTable(), "early a c ");
    a.setPeriodTime(0);
    c.setName(nullptr);
    EXPECT_STREQ(c.getName(), "");
}

TEST(TimerTest, PeriodChangesMoveTheNextCallAndNeverBelowTheClocksBeginning)
{
    Callback callback;
    CTimer timer("period");
    timer.setPeriodTime(100); // idle: only remembered
    EXPECT_TRUE(timer.start(callback.proc(), 4000000000U, 4000000000U));
    timer.setPeriodTime(1);
    timer.setPeriodTime(4000000000U);
    EXPECT_EQ(callback.calls, 0);
    timer.setPeriodTime(20);
    timer.setPeriodTime(20);
    EXPECT_TRUE(callback.called(3));
}

TEST(TimerTest, CallbacksMayUseTheirOwnTimer)
{
    CTimer timer("own");
    Callback callback;
    std::atomic<bool> stopped{false};
    callback.action = [&] {
        switch (callback.calls.load()) {
        case 0:
            EXPECT_TRUE(timer.stopAndWait()); // does not wait for itself
            EXPECT_TRUE(timer.start(callback.proc(), 20, 20));
            break;
        case 1:
            timer.setPeriodTime(30);
            break;
        case 2:
            EXPECT_TRUE(timer.stop());
            EXPECT_TRUE(timer.start(callback.proc(), 20, 0));
            break;
        default:
            stopped = true;
            break;
        }
    };
    EXPECT_TRUE(timer.start(callback.proc(), 0, 0));
    EXPECT_TRUE(callback.called(4));
    EXPECT_TRUE(stopped);
}

TEST(TimerTest, TheDestructorWaitsForARunningCallThatStartsTheTimerAgain)
{
    CLogCapture log;
    Callback callback;
    CSemaphore inside(0);
    std::unique_ptr<CTimer> timer = std::make_unique<CTimer>("again");
    CTimer* const raw = timer.get();
    std::atomic<bool> ended{false};
    callback.action = [&] {
        inside.post();
        CThread::sleep(60);
        raw->start(callback.proc(), 100000, 0);
        ended = true;
    };
    EXPECT_TRUE(timer->start(callback.proc(), 0, 0));
    inside.pend();
    timer.reset();
    EXPECT_TRUE(ended);
    EXPECT_EQ(TestSupport::countOf(log.text(), " CTimer::Stop Timer:again wait callback exit!\n"),
              1);
}

TEST(TimerTest, StatisticsAndWatchdogShowInTheTables)
{
    CLogCapture log;
    Callback callback;
    CSemaphore gate(0);
    CSemaphore inside(0);
    callback.action = [&] {
        CThread::sleep(40);
        inside.post();
        gate.pend();
    };
    CTimer timer("counted");
    EXPECT_TRUE(timer.start(callback.proc(), 20, 20, 0, 1));
    timer.enableStat(true);
    inside.pend();
    EXPECT_TRUE(eventually([&] {
        const std::vector<CThreadManager::ThreadInfo> workers = threadsNamed("counted");
        return workers.size() == 1 && workers[0].timeout == 1;
    }));
    CTimerManager::instance()->dumpTimers();
    EXPECT_TRUE(log.contains("/     1 Running\n")) << log.text();
    gate.post();
    gate.post();
    EXPECT_TRUE(callback.called(1));
    log.clear();
    timer.stop();
    timer.stopAndWait();
    EXPECT_EQ(threadsNamed("counted").size(), 0U);
    EXPECT_GE(threadsNamed("[Pooled]").size(), 1U);
}

TEST(TimerPoolTest, WorkersGrowWithTheCallsAndAreTrimmedToTheLimit)
{
    constexpr int calls = 5;
    CSemaphore gate(0);
    std::vector<std::unique_ptr<CTimer>> timers;
    Callback callbacks[calls];
    for (Callback& callback : callbacks) {
        callback.action = [&] { gate.pend(); };
        timers.push_back(std::make_unique<CTimer>("slow"));
        EXPECT_TRUE(timers.back()->start(callback.proc(), 0, 0));
    }
    EXPECT_TRUE(eventually([&] { return threadsNamed("slow").size() == calls; }));
    EXPECT_TRUE(CTimerManager::instance()->limitIdlePooled(2));
    for (int i = 0; i < calls; ++i) {
        gate.post();
    }
    for (int i = 0; i < calls; ++i) { // all through the gate before any comes again
        EXPECT_TRUE(callbacks[i].called());
        timers[i]->stopAndWait();
    }
    EXPECT_TRUE(eventually([] { return threadsNamed("[Pooled]").size() == 2; }));
    CTimerManager::instance()->limitIdlePooled(0);
    for (int i = 0; i < calls; ++i) {
        EXPECT_TRUE(timers[i]->start(callbacks[i].proc(), 0, 0));
    }
    for (int i = 0; i < calls; ++i) {
        gate.post();
    }
    timers.clear();
    EXPECT_TRUE(eventually([] { return threadsNamed("[Pooled]").size() == calls; }));
}

TEST(TimerPoolTest, CallsDueAtTheSameTimeMayWaitForEachOther)
{
    constexpr int calls = 100;
    std::atomic<int> inside{0};
    std::vector<std::unique_ptr<CTimer>> timers;
    Callback callback;
    callback.action = [&] {
        ++inside;
        EXPECT_TRUE(eventually([&] { return inside >= calls; }));
    };
    for (int i = 0; i < calls; ++i) {
        timers.push_back(std::make_unique<CTimer>("meets"));
        EXPECT_TRUE(timers.back()->start(callback.proc(), 20, 0));
    }
    EXPECT_TRUE(callback.called(calls));
    callback.action = nullptr; // and now short ones, of which one worker runs many
    for (int round = 2; round <= 10; ++round) {
        for (const auto& timer : timers) {
            timer->stopAndWait();
            EXPECT_TRUE(timer->start(callback.proc(), 1, 0));
        }
        EXPECT_TRUE(callback.called(round * calls));
    }
}

TEST(TimerPoolTest, TheSchedulerAddsWorkersFasterAndFasterWhileNoCallIsTaken)
{
    const auto added = [](WorkerPace& pace) {
        int count = 0;
        while (pace.mayAddWorker()) {
            ++count;
        }
        return count;
    };
    WorkerPace pace;
    EXPECT_EQ(added(pace), 2);
    const struct
    {
        size_t before;
        size_t after;
        int added;
    } pauses[] = {
        {1000, 1000, 1}, {999, 999, 2}, {997, 997, 4}, // nobody comes back
        {993, 943, 0},                                 // 50 in one pause: 943 in 19
        {943, 900, 1},                                 // 43: 900 would take 21
        {899, 905, 2},                                 // more have fallen due
        {1, 0, 0},       {1, 1, 1},
    };
    for (const auto& pause : pauses) {
        pace.beginPause(pause.before);
        pace.endPause(pause.after);
        EXPECT_EQ(added(pace), pause.added) << pause.before << " to " << pause.after;
    }
}

void callWithoutNewThreads()
{
    CLogCapture log;
    Callback callback;
    Callback regular;
    CTimer timer("starved");
    CTimer stopped("stopped");
    CTimer periodic("periodic");
    {
        TestSupport::CFailingThreads failing;
        EXPECT_FALSE(periodic.start(regular.proc(), 0, 5));
        EXPECT_TRUE(periodic.isStarted());
        EXPECT_FALSE(timer.start(callback.proc(), 0, 0));
        EXPECT_TRUE(timer.isStarted());
        EXPECT_FALSE(timer.isRunning());
        stopped.start(callback.proc(), 100000, 0);
        EXPECT_FALSE(stopped.stop(true));
        EXPECT_FALSE(stopped.isStarted());
        EXPECT_TRUE(eventually(
            [&] { return TestSupport::countOf(log.text(), " pthread create failed, ") > 4; }));
        EXPECT_EQ(callback.calls + regular.calls, 0);
    }
    EXPECT_TRUE(callback.called());
    EXPECT_TRUE(regular.called(3));
    timer.stopAndWait();
    EXPECT_EQ(callback.calls, 1);
}

void startWithoutScheduler()
{
    Callback callback;
    std::unique_ptr<CTimer> timer;
    {
        TestSupport::CFailingThreads failing;
        timer = std::make_unique<CTimer>("late");
        EXPECT_FALSE(timer->start(callback.proc(), 20, 0));
    }
    EXPECT_TRUE(timer->start(callback.proc(), 20, 0));
    EXPECT_TRUE(callback.called());
}

TEST(TimerPoolTest, WithoutNewThreadsCallsWaitAndTheSchedulerIsTriedAgain)
{
    INFRA_IN_FRESH_PROCESS(callWithoutNewThreads);
    INFRA_IN_FRESH_PROCESS(startWithoutScheduler);
}

} // namespace
} // namespace Infra
} // namespace Tarsel

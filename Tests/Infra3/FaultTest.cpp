// A system that refuses: memory missing at every single allocation of a scenario, threads that
// cannot be made, and what each step of making one may answer.

#include <atomic>
#include <cerrno>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/Error.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Signal.h"
#include "Infra/Infra3/String.h"
#include "Infra/Infra3/ThreadLite.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Timer.h"
#include "Infra3/LogSink.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/FailingHeap.h"
#include "Support/FailingThreads.h"
#include "Support/LogCapture.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::CFailingThreads;
using TestSupport::CLogCapture;
using TestSupport::CMemoryShortage;
using TestSupport::COrdinaryThreads;
using TestSupport::eventually;
using TestSupport::expectToSurviveShortage;
using TestSupport::managed;
using TestSupport::ThreadStep;

/// A lock or a semaphore that gets no memory ends the process, and says so.
constexpr char noLock[] = "assertion (m_internal) failed";

std::atomic<int> s_calls{0};

void onTimer(unsigned long)
{
    ++s_calls;
}

void onSignal(int)
{
    ++s_calls;
}

void onThread(CThreadLite& thread)
{
    while (thread.looping()) {
        ++s_calls;
        CThread::sleep(1);
    }
}

bool discard(const char*)
{
    return true;
}

void nothing() {}

bool isRegistered(const char* name)
{
    std::list<CThreadManager::ThreadInfo> infos;
    CThreadManager::instance()->getThreadsInfo(infos);
    for (const CThreadManager::ThreadInfo& info : infos) {
        if (std::string(name) == info.name) {
            return true;
        }
    }
    return false;
}

// Memory ----------------------------------------------------------------------------------------

void runThread()
{
    CThreadLite thread{CThreadLite::ThreadProc(onThread), "short"};
    const int before = s_calls;
    if (thread.createThread()) {
        EXPECT_TRUE(eventually([before] { return s_calls > before; }));
        EXPECT_TRUE(CThreadManager::instance()->hasThread(thread.getThreadID()));
        managed([] { CThreadManager::instance()->dumpThreads(); });
        managed([] {
            std::string names;
            CThreadManager::instance()->getTimeOutThreads(names);
        });
        EXPECT_TRUE(thread.destroyThread());
    }
    CThread::load(50);
    CThread::load(100);
}

TEST(ShortageTest, ThreadsRunOrAreRefusedAtTheirMaking)
{
    const COrdinaryThreads ordinary;
    expectToSurviveShortage({nothing, [] { managed(runThread); },
                             [] {
                                 const int before = s_calls;
                                 runThread();
                                 EXPECT_GT(s_calls, before);
                                 EXPECT_FALSE(isRegistered("short"));
                             },
                             noLock});
}

/// Timers that are there before memory becomes short.
struct Timers
{
    CTimer soon{"soon"};
    CTimer once{"once"};
    CTimer regular{"regular"};
};

void callsOfOnce(unsigned long)
{
    s_calls += 1000;
}

TEST(ShortageTest, ATimersCallWaitsForMemoryAndIsNotLost)
{
    static Timers* s_timers = nullptr;
    expectToSurviveShortage(
        {[] {
             s_calls = 0;
             s_timers = new Timers;
         },
         [] {
             s_timers->soon.start(onTimer, 0, 0);
             EXPECT_TRUE(s_timers->once.start(callsOfOnce, 1, 0));
             EXPECT_TRUE(s_timers->regular.start(onTimer, 1, 1));
             EXPECT_TRUE(eventually([] { return CMemoryShortage::wasFelt() || s_calls > 1003; }));
             s_timers->soon.stopAndWait();
             managed([] { CTimerManager::instance()->dumpTimers(); });
         },
         [] {
             EXPECT_TRUE(eventually([] { return s_calls > 1003; }));
             EXPECT_TRUE(s_timers->once.isCalled());
             EXPECT_TRUE(s_timers->regular.isStarted());
             delete s_timers;
             EXPECT_LT(s_calls, 2000) << "called once";
         },
         ""});
}

TEST(ShortageTest, WaitingForACallNeedsNoMemory)
{
    CTimer timer("slow");
    static std::atomic<bool> s_ended{false};
    const CTimer::Proc slow([](unsigned long) {
        CThread::sleep(40);
        s_ended = true;
    });
    EXPECT_TRUE(timer.start(slow, 0, 0));
    const CMemoryShortage none(1, TestSupport::Shortage::lasting);
    EXPECT_TRUE(timer.stopAndWait());
    EXPECT_TRUE(s_ended);
    EXPECT_TRUE(CMemoryShortage::wasFelt());
}

TEST(ShortageTest, TimersAreMadeAndUsedOrRefusedWhole)
{
    const auto use = [] {
        CTimer timer("short");
        CTimer other("other");
        timer.start(onTimer, 0, 0);
        other.start(onTimer, 1, 1);
        CThread::sleep(15);
        timer.stopAndWait();
    };
    expectToSurviveShortage({nothing, [use] { managed(use); },
                             [] {
                                 const int before = s_calls;
                                 CTimer timer("after");
                                 timer.start(onTimer, 1, 1);
                                 EXPECT_TRUE(eventually([&] { return s_calls > before + 2; }));
                             },
                             noLock});
}

TEST(ShortageTest, SignalsCallWhoTheyTook)
{
    static std::unique_ptr<TSignal1<int>> s_signal;
    expectToSurviveShortage({[] { s_calls = 0; },
                             [] {
                                 managed([] { s_signal = std::make_unique<TSignal1<int>>(4); });
                                 if (s_signal == nullptr) {
                                     return;
                                 }
                                 const int taken = s_signal->attach(onSignal);
                                 EXPECT_TRUE(taken == 1 || taken == TSignal1<int>::errorFull);
                                 (*s_signal)(1);
                                 EXPECT_EQ(s_calls, taken == 1 ? 1 : 0);
                                 s_signal->stat();
                                 EXPECT_EQ(s_signal->detach(onSignal),
                                           taken == 1 ? 0 : TSignal1<int>::errorNoFound);
                             },
                             [] { s_signal.reset(); }, noLock});
}

const std::string longText(100, 'x');

/// Text, log receivers, error texts and hooks: each keeps its old value, or has the new one.
void useTexts()
{
    CString text("kept");
    const bool grew = managed([&text] { text.append(longText.c_str()); });
    EXPECT_EQ(text.size(), grew ? 104U : 4U);
    EXPECT_EQ(text.compare(0, 4, "kept"), 0);
    managed([] {
        CMiniString mini("copy");
        const CMiniString second(mini);
        mini = "other";
        EXPECT_STREQ(second.c_str(), "copy");
    });

    const bool stored = managed([] { setErrMsg(5, longText.c_str()); });
    EXPECT_STREQ(getErrMsg(5), stored ? longText.c_str() : "before");
    managed([] { EXPECT_EQ(getErrorMessage(5), getErrMsg(5)); });

    logWarn("line %s\n", longText.c_str());
    const bool attached = attachPrint(PrintProc(discard));
    logWarn("with a procedure\n");
    EXPECT_TRUE(detachPrint(PrintProc(discard)) == attached) << "the last one needs no memory";
    setLogStatistics(true);
    logLibName(logLevelWarn, "Counted", "counted\n");
    managed([] { getLogStatistics(); });
    setLogStatistics(false);

    managed([] { CTime::attachModifyProc([](SystemTime) { return true; }); });
    managed([] { CTime::setFormatString("yyyy/MM/dd HH:mm:ss"); });
}

TEST(ShortageTest, TextsAndReceiversKeepWhatTheyHad)
{
    expectToSurviveShortage({[] { setErrMsg(5, "before"); }, useTexts,
                             [] {
                                 setErrMsg(5, "after");
                                 EXPECT_STREQ(getErrMsg(5), "after");
                                 EXPECT_TRUE(attachPrint(PrintProc(discard)));
                                 EXPECT_TRUE(detachPrint(PrintProc(discard)));
                             },
                             ""});
}

TEST(ShortageTest, LinesReachStandardOutputWithoutMemory)
{
    const TestSupport::ChildResult result = TestSupport::runInChild([] {
        const CMemoryShortage none(1, TestSupport::Shortage::lasting);
        logWarn("short %d\n", 1);
        logError("%s|\n", std::string().append(10, 'y').c_str());
        logWarn("%01500d\n", 7);
        EXPECT_FALSE(CMemoryShortage::wasFelt());
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
    EXPECT_NE(result.output.find("]short 1\n"), std::string::npos);
    EXPECT_NE(result.output.find("]yyyyyyyyyy|\n"), std::string::npos);
    EXPECT_NE(result.output.find("]" + std::string(1499, '0') + "7\n"), std::string::npos);
}

// Threads ---------------------------------------------------------------------------------------

TEST(RefusedThreadTest, EachStepThatFailsIsNamedWithItsCode)
{
    constexpr int normal = CThread::policyNormal;
    constexpr int realtime = CThread::policyRealtime;
    const struct
    {
        ThreadStep step;
        int policy;
        const char* message;
    } cases[] = {
        {ThreadStep::init, normal, " pthread attr init failed, errno:12\n"},
        {ThreadStep::setStackSize, normal,
         " pthread attr set stack size failed, stk_sz:262144, errno:12\n"},
        {ThreadStep::setInheritSched, realtime,
         " pthread attr setinheritsched PTHREAD_EXPLICIT_SCHED failed, errno:12\n"},
        {ThreadStep::setPolicy, realtime, " pthread attr set SCHED_FIFO failed, errno:12\n"},
        {ThreadStep::setParameter, realtime,
         " pthread attr pthread_attr_setschedparam(sched priority:50) failed, errno:12\n"},
        {ThreadStep::setPolicy, normal,
         " pthread attr pthread_attr_setschedpolicy(SCHED_OTHER) failed, errno:12\n"},
        {ThreadStep::create, normal, " pthread create failed, errno:12\n"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.message);
        CLogCapture log;
        CThreadLite thread(CThreadLite::ThreadProc(onThread), "refused", CThread::priorDefault,
                           each.policy, 262144);
        thread.enableStackSize();
        const COrdinaryThreads ordinary;
        {
            const CFailingThreads failing(each.step, ENOMEM);
            EXPECT_FALSE(thread.createThread());
        }
        const std::string said = log.takeLeveled();
        EXPECT_NE(said.find("error|this:"), std::string::npos) << said;
        EXPECT_NE(said.find(each.message), std::string::npos) << said;
        EXPECT_TRUE(thread.isThreadOver());
        EXPECT_FALSE(thread.destroyThread());
        EXPECT_TRUE(thread.createThread()) << "once the system gives again";
        EXPECT_TRUE(thread.destroyThread());
    }
    // The thread is there by then: it is told to end.
    for (const auto& [step, message] :
         std::map<ThreadStep, std::string>{{ThreadStep::detach, " pthread detach failed"},
                                           {ThreadStep::destroy, " pthread attr destroy failed"}}) {
        CLogCapture log;
        CThreadLite thread(CThreadLite::ThreadProc(onThread), "told");
        const CFailingThreads failing(step, EINVAL);
        EXPECT_FALSE(thread.createThread());
        EXPECT_TRUE(log.contains(message + ", errno:22\n")) << log.text();
        EXPECT_FALSE(thread.looping());
        EXPECT_TRUE(eventually([&thread] { return thread.isThreadOver(); }));
    }
}

TEST(RefusedThreadTest, PrioritiesMapToTheSystemsAndThoseOutsideAreRefused)
{
    const COrdinaryThreads ordinary;
    const struct
    {
        int priority;
        int systems;
    } cases[] = {{1, 99}, {2, 99}, {3, 98}, {32, 75}, {64, 50}, {126, 2}, {127, 1}};
    for (const auto& each : cases) {
        CThreadLite thread(CThreadLite::ThreadProc(onThread), "mapped", each.priority,
                           CThread::policyRealtime);
        EXPECT_TRUE(thread.createThread());
        EXPECT_EQ(COrdinaryThreads::lastPriority(), each.systems) << each.priority;
    }
}

TEST(RefusedThreadTest, APriorityThatTheSystemDoesNotKnowIsRefused)
{
    for (const auto& [priority, systems] : std::map<int, int>{{-2000, 1655}, {2000, -1455}}) {
        CLogCapture log;
        CThreadLite thread(CThreadLite::ThreadProc(onThread), "far", priority,
                           CThread::policyRealtime);
        EXPECT_FALSE(thread.createThread());
        EXPECT_TRUE(
            log.contains("(sched priority:" + std::to_string(systems) + ") failed, errno:22\n"))
            << log.text();
    }
}

TEST(RefusedThreadTest, TheLoadControllerIsMadeAtTheNextRequest)
{
    CLogCapture log;
    const COrdinaryThreads ordinary;
    CThread::load(100); // the controller, without its thread
    {
        const CFailingThreads failing;
        CThread::load(50);
    }
    EXPECT_TRUE(log.contains(" pthread create failed, errno:11\n")) << log.text();
    EXPECT_FALSE(isRegistered("ThreadLoadingControl"));
    CThread::load(50);
    EXPECT_TRUE(eventually([] { return isRegistered("ThreadLoadingControl"); }));
    CThread::load(100);
    EXPECT_FALSE(isRegistered("ThreadLoadingControl"));
}

// The load limiter --------------------------------------------------------------------------------

TEST(LoadControllerTest, HoldsAndRunsAlternateAsEvenlyAsTheShareAllows)
{
    const struct
    {
        int on, off;
        const char* cycle; ///< H: held for this millisecond, R: left alone
    } cases[] = {{1, 1, "HR"},    {1, 3, "HRHH"},    {3, 1, "HRRR"},
                 {2, 3, "HRHRH"}, {5, 2, "HRRRHRR"}, {0, 1, "H"}};
    constexpr unsigned long metronome = 1; // held at every tick, and before the others
    constexpr size_t ticks = 42;
    CLogCapture log;
    const COrdinaryThreads ordinary;
    const TestSupport::CThreadSignals signals;
    CThreadLoadingController& controller = *CThreadLoadingController::instance();
    controller.addThread(metronome, 0, 1);
    unsigned long thread = metronome;
    for (const auto& each : cases) {
        controller.addThread(++thread, each.on, each.off);
    }
    EXPECT_TRUE(eventually([&] { return signals.ticks(thread, metronome).size() > ticks; }));
    for (; thread >= metronome; --thread) {
        controller.removeThread(thread);
    }
    for (const auto& each : cases) {
        std::string expected;
        while (expected.size() < ticks) {
            expected += each.cycle;
        }
        const unsigned long handle = metronome + 1 + static_cast<unsigned long>(&each - cases);
        EXPECT_EQ(signals.ticks(handle, metronome).substr(0, ticks), expected.substr(0, ticks));
    }
}

} // namespace
} // namespace Infra
} // namespace Tarsel

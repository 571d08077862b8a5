// Everything at once: objects that threads share, exchange and end while others still use them. The
// sanitizers see what goes wrong without showing; counts bound every storm.

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/Error.h"
#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Signal.h"
#include "Infra/Infra3/Thread.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Infra3/Timer.h"
#include "Infra3/TimerInternal.h"
#include "Memory/Packet.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/FailingThreads.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::eventually;

/// Where threads find an object that any of them may exchange: it ends with its last user.
template <typename T>
class TSlot
{
public:
    std::shared_ptr<T> get()
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_object;
    }
    std::shared_ptr<T> exchange(std::shared_ptr<T> object)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return std::exchange(m_object, std::move(object));
    }

private:
    std::mutex m_mutex;
    std::shared_ptr<T> m_object;
};

/// Runs `step(thread, random)` on `threads` threads, `steps` times each.
void storm(int threads, int steps, const std::function<void(int, std::mt19937&)>& step)
{
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([&step, t, steps] {
            std::mt19937 random(static_cast<unsigned>(t));
            for (int i = 0; i < steps; ++i) {
                step(t, random);
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
}

// Threads ---------------------------------------------------------------------------------------

/// A body that runs until it is told, or ends by itself, and speaks of itself meanwhile.
class CBusyThread : public CThread
{
public:
    CBusyThread() : CThread("busy", priorDefault, policyNormal, 0) {}
    ~CBusyThread() override
    {
        if (!isThreadOver()) {
            destroyThread();
        }
    }
    void threadProc() override
    {
        for (int round = 0; looping() && round < 20; ++round) {
            setThreadName(round % 2 == 0 ? "even" : "odd");
            EXPECT_TRUE(CThread::setCurrentTimeout(60000));
            CThread::sleep(round % 2);
        }
        if (looping()) {
            destroyThread();
        }
    }
};

/// Sends log lines to `printer`, without the colours that go to standard output all the same.
class CPrinter
{
public:
    explicit CPrinter(LogPrinterProc printer)
    {
        PrintOptions options = {};
        options.color = 1;
        setPrintOptions(options);
        setLogPrinter(printer);
    }
    ~CPrinter()
    {
        setLogPrinter(LogPrinterProc());
        setPrintOptions(PrintOptions());
    }
    CPrinter(const CPrinter&) = delete;
    CPrinter& operator=(const CPrinter&) = delete;
};

void discard(const char*) {}

std::atomic<int> s_printed{0};

/// A printer that goes back into the library.
void askingPrinter(const char* text)
{
    CString name("nobody");
    CThreadManager::instance()->getThreadNameByID(CThread::getCurrentThreadID(), name);
    const Memory::CPacket packet(strlen(text) + 1, 0);
    memcpy(packet.getBuffer(), text, strlen(text) + 1);
    ++s_printed;
}

class CThreadStorm
{
public:
    CThreadStorm() : m_slots(3)
    {
        for (TSlot<CBusyThread>& slot : m_slots) {
            slot.exchange(std::make_shared<CBusyThread>());
        }
    }

    /// Does one thing to one of the threads.
    void step(std::mt19937& random)
    {
        TSlot<CBusyThread>& slot = m_slots[random() % m_slots.size()];
        const std::shared_ptr<CBusyThread> thread = slot.get();
        switch (random() % 8) {
        case 0:
        case 1:
        case 2:
            thread->createThread();
            break;
        case 3:
            thread->destroyThread();
            break;
        case 4:
            thread->cancelThread();
            break;
        case 5:
            thread->setTimeout(static_cast<int>(random() % 3) - 1);
            thread->setThreadName("named");
            break;
        case 6:
            CThreadManager::instance()->dumpThreads();
            break;
        default:
            slot.exchange(std::make_shared<CBusyThread>());
            std::string names;
            CThreadManager::instance()->getTimeOutThreads(names);
            EXPECT_FALSE(CThreadManager::instance()->hasThread(-1));
            break;
        }
    }

private:
    std::vector<TSlot<CBusyThread>> m_slots;
};

TEST(StormTest, ThreadsAreMadeStoppedAndEndedOnSharedObjects)
{
    const CPrinter printer{LogPrinterProc(askingPrinter)};
    setPrintLogLevel(5);
    {
        CThreadStorm threads;
        storm(4, 200, [&threads](int, std::mt19937& random) { threads.step(random); });
    }
    setPrintLogLevel(4);
    EXPECT_GT(s_printed, 0);
    std::list<CThreadManager::ThreadInfo> infos;
    CThreadManager::instance()->getThreadsInfo(infos);
    for (const CThreadManager::ThreadInfo& left : infos) {
        EXPECT_EQ(std::string("busy even odd named").find(left.name), std::string::npos);
    }
}

// Timers ----------------------------------------------------------------------------------------

/// Timers in slots. Whoever works on them may end one, and an end waits for its running call: a
/// call therefore touches only slots behind its own, and a timer that is always there.
class CTimerStorm
{
public:
    CTimerStorm() : m_slots(count)
    {
        for (size_t i = 0; i < count; ++i) {
            m_slots[i].exchange(std::make_shared<CTimer>("storm"));
            m_lasting.push_back(std::make_unique<CTimer>("lasting"));
            m_callbacks[i].storm = this;
        }
    }

    /// Does one thing to one of the timers from `first` on.
    void step(size_t first, std::mt19937& random)
    {
        const size_t index = first + random() % (count - first);
        const std::shared_ptr<CTimer> timer = m_slots[index].get();
        if (timer == nullptr) {
            return; // the storm ends
        }
        switch (random() % 9) {
        case 0:
        case 1:
            timer->start(proc(index), random() % 30, random() % 10, index, random() % 2);
            break;
        case 2:
            timer->start(proc(index), 0, random() % 3, index);
            break;
        case 3:
            timer->stop(random() % 2 == 0);
            break;
        case 4:
            timer->setPeriodTime(random() % 50);
            break;
        case 5:
            timer->setName("renamed");
            timer->enableStat(random() % 2 == 0);
            break;
        case 6:
            timer->stopAndWait();
            break;
        case 7:
            CTimerManager::instance()->limitIdlePooled(static_cast<int>(random() % 4));
            break;
        default:
            m_slots[index].exchange(std::make_shared<CTimer>("young"));
            break;
        }
    }

    /// No call runs any more, and none comes.
    void end()
    {
        m_ending = true;
        for (TSlot<CTimer>& slot : m_slots) {
            slot.exchange(nullptr);
        }
        for (int round = 0; round < 2; ++round) { // a call that began before may start one again
            for (const std::unique_ptr<CTimer>& timer : m_lasting) {
                timer->stopAndWait();
            }
        }
    }

    int calls() const { return m_calls; }

private:
    static constexpr size_t count = 24;

    struct Callback
    {
        void call(unsigned long index) { storm->onCall(index); }
        CTimerStorm* storm = nullptr;
    };

    CTimer::Proc proc(size_t index) { return CTimer::Proc(&Callback::call, &m_callbacks[index]); }

    void onCall(size_t index)
    {
        if (m_ending) {
            return;
        }
        std::mt19937 random(static_cast<unsigned>(++m_calls));
        if (index + 1 < count) {
            step(index + 1, random);
        }
        CTimer& lasting = *m_lasting[index]; // this may be its own call
        switch (random() % 6) {
        case 0:
            lasting.start(proc(index), random() % 3, random() % 5, index);
            break;
        case 1:
            lasting.stopAndWait();
            lasting.start(proc(index), 0, 0, index);
            break;
        case 2:
            lasting.setPeriodTime(random() % 3);
            break;
        default:
            break;
        }
    }

    std::atomic<bool> m_ending{false};
    std::atomic<int> m_calls{0};
    std::vector<TSlot<CTimer>> m_slots;
    std::vector<std::unique_ptr<CTimer>> m_lasting;
    Callback m_callbacks[count];
};

TEST(StormTest, TimersOfEveryKindChangeEachOtherFromCallsAndThreads)
{
    const CPrinter printer{LogPrinterProc(discard)};
    CTimerStorm timers;
    storm(3, 2000, [&timers](int, std::mt19937& random) { timers.step(0, random); });
    CTimerManager::instance()->dumpTimers();
    {
        const CRecursiveGuard guard(TimerManagerInternal::sm_mutex());
        EXPECT_TRUE(TimerManagerInternal::existing()->m_schedule.isSound());
    }
    timers.end();
    EXPECT_GT(timers.calls(), 0);
}

/// What else an application does while its process exits.
void useTheRest(std::mt19937& random)
{
    const int code = static_cast<int>(random() % 10);
    setErrMsg(code, getErrorMessage(code).size() > 9 ? "" : "a text");
    CThread::load(random() % 2 == 0 ? 50 : 100);
    const Memory::CPacket packet(random() % 5000, 8);
    const Memory::CPacket part(packet, 0, packet.size(), 0);
    logWarn("%zu\n", part.size());
}

TEST(StormTest, TheProcessMayExitInTheMiddle)
{
    for (int round = 0; round < 6; ++round) {
        const TestSupport::ChildResult result = TestSupport::runInChild([round] {
            TestSupport::forgetLeaks(); // what the stacks of the others point to
            static TestSupport::COrdinaryThreads* const s_ordinary =
                new TestSupport::COrdinaryThreads;
            (void)s_ordinary;
            setLogPrinter(LogPrinterProc(askingPrinter));
            static CTimerStorm* const s_timers = new CTimerStorm;
            static CThreadStorm* const s_threads = new CThreadStorm;
            static const std::function<void(std::mt19937&)> s_steps[] = {
                [](std::mt19937& random) { s_timers->step(0, random); },
                [](std::mt19937& random) { s_timers->step(0, random); },
                [](std::mt19937& random) { s_threads->step(random); }, useTheRest};
            for (const auto& step : s_steps) {
                std::thread([&step] {
                    std::mt19937 random;
                    for (;;) {
                        step(random);
                    }
                }).detach();
            }
            EXPECT_TRUE(eventually([round] { return s_timers->calls() > 20 * round; }));
            static CTimer s_exits("exits");
            const bool fromACall = round % 2 == 0;
            while (fromACall && !s_exits.start([](unsigned long) { exit(7); }, 0, 0)) {
            }
            eventually([fromACall] { return !fromACall; });
            exit(7);
        });
        EXPECT_EQ(result.exitCode, 7) << result.report();
    }
}

// Signals ---------------------------------------------------------------------------------------

struct FourSlots : TSignal1<int>
{
    FourSlots() : TSignal1<int>(4) {}
};

struct Listener
{
    void hear(int value)
    {
        heard += value;
        ++calls;
    }
    std::atomic<int> heard{0};
    std::atomic<int> calls{0};
};

TEST(StormTest, SignalsAreEmittedAttachedDetachedAndEndedAtOnce)
{
    TSlot<FourSlots> slot;
    slot.exchange(std::make_shared<FourSlots>());
    std::atomic<int> calls{0};
    storm(4, 20000, [&](int, std::mt19937& random) {
        const std::shared_ptr<FourSlots> signal = slot.get();
        const unsigned choice = random() % 100;
        if (choice == 0) {
            slot.exchange(std::make_shared<FourSlots>());
        } else if (choice < 50) {
            (*signal)(3);
        } else {
            const std::unique_ptr<Listener> listener = std::make_unique<Listener>();
            const FourSlots::Proc proc(&Listener::hear, listener.get());
            const int used = signal->attach(proc, static_cast<FourSlots::SlotPosition>(choice % 3));
            ASSERT_TRUE(used == FourSlots::errorFull || (used >= 1 && used <= 4)) << used;
            if (choice < 70) {
                (*signal)(3);
            }
            // AddressSanitizer sees a call that comes after this.
            ASSERT_EQ(signal->detach(proc, /*wait*/ true) >= 0, used >= 1);
            ASSERT_EQ(listener->heard, 3 * listener->calls);
            calls += listener->calls;
        }
    });
    EXPECT_GT(calls, 0);
}

} // namespace
} // namespace Infra
} // namespace Tarsel

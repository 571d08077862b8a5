// Older locks and threads.

#include <pthread.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Mutex.h"
#include "Infra/Packet.h"
#include "Infra/Semaphore.h"
#include "Infra/Thread.h"
#include "Infra/Time.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/FailingHeap.h"
#include "Support/LogCapture.h"

namespace
{

using Tarsel::TestSupport::CFailingHeap;
using Tarsel::TestSupport::CLogCapture;
using Tarsel::TestSupport::eventually;
using Tarsel::TestSupport::inChild;
using Tarsel::TestSupport::runInChild;

// The thread sanitizer reports what these tests misuse on purpose.
#if defined(__SANITIZE_THREAD__)
constexpr bool mayMisuse = false;
#else
constexpr bool mayMisuse = true;
#endif

TEST(OlderThreadTest, MutexesAreThoseOfPosix)
{
    CMutex fast;
    CMutex recursive(CMutex::mutexRecursive);
    {
        const CGuard guard(fast);
        EXPECT_FALSE(fast.TryEnter());
        std::thread([&] { EXPECT_FALSE(fast.TryEnter()); }).join();
    }
    EXPECT_TRUE(fast.TryEnter());
    EXPECT_TRUE(fast.Leave());
    EXPECT_TRUE(recursive.Enter() && recursive.TryEnter());
    EXPECT_TRUE(recursive.Leave());
    std::thread([&] {
        EXPECT_FALSE(recursive.TryEnter() || (mayMisuse && recursive.Leave()));
    }).join();
    EXPECT_TRUE(recursive.Leave());
    EXPECT_FALSE(mayMisuse && recursive.Leave());
}

TEST(OlderThreadTest, AWaitOutlastsSignals)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    CSemaphore semaphore(1);
    EXPECT_EQ(semaphore.Pend(), 0);
    std::atomic<bool> done{false};
    std::thread waiting([&] {
        EXPECT_EQ(semaphore.Pend(), 0);
        done = true;
    });
    EXPECT_TRUE(Tarsel::TestSupport::staysSo([&] {
        pthread_kill(waiting.native_handle(), SIGUSR1);
        return !done;
    }));
    EXPECT_EQ(semaphore.Post(), 0);
    waiting.join();
    CSemaphore full(INT_MAX);
    EXPECT_EQ(full.Post(), -1);
}

TEST(OlderThreadTest, BrokenLocksEndTheProcessWithTheSystemsAssertion)
{
    const struct
    {
        const char* text;
        std::function<void()> body;
    } cases[] = {
        {"Assertion `m_internal->m_lock' failed",
         [] {
             const CFailingHeap heap(sizeof(pthread_mutex_t));
             CMutex mutex;
         }},
        {"~CMutex: Assertion `ret == 0' failed",
         [] {
             auto* const mutex = new CMutex;
             mutex->Enter();
             delete mutex;
         }},
        {"Assertion `m_internal->m_sem' failed",
         [] {
             const CFailingHeap heap(32);
             CSemaphore semaphore(1);
         }},
        {"Assertion `ret != -1' failed", [] { CSemaphore semaphore(UINT_MAX); }},
    };
    for (const auto& one : cases) {
        if (!mayMisuse && strstr(one.text, "ret == 0") != nullptr) {
            continue;
        }
        const auto result = runInChild(one.body);
        EXPECT_EQ(result.signal, SIGABRT) << one.text;
        EXPECT_THAT(result.errorOutput, testing::HasSubstr(one.text));
    }
}

/// Runs until it is told to stop.
class CWorker : public CThread
{
public:
    CWorker() : CThread("older worker", 10, 0, 65536) {}
    ~CWorker() override { DestroyThread(); }

    void ThreadProc() override
    {
        SetCurrentTimeout(1);
        id = GetCurrentThreadID();
        while (looping()) {
            CTime::sleep(1);
        }
    }
    std::atomic<int> id{0};
};

TEST(OlderThreadTest, ThreadsStandInTheTableOfTheNewerOnes)
{
    CLogCapture log;
    CWorker worker;
    EXPECT_TRUE(worker.IsThreadOver());
    EXPECT_FALSE(worker.looping());
    EXPECT_EQ(worker.GetThreadID(), -1);
    EXPECT_EQ(worker.ShareSocket(7), 7);
    ASSERT_TRUE(worker.CreateThread());
    EXPECT_FALSE(worker.CreateThread());
    ASSERT_TRUE(eventually([&] { return worker.id != 0 && worker.IsTimeout(); }));
    EXPECT_EQ(worker.GetThreadID(), worker.id);
    EXPECT_TRUE(Tarsel::Infra::CThreadManager::instance()->hasThread(worker.id));
    std::string names;
    EXPECT_TRUE(IThreadManager::instance()->GetTimeOutThreads(names));
    EXPECT_EQ(names, "older worker(" + std::to_string(worker.id) + ")");
    worker.SetThreadName("renamed");
    log.clear();
    CThreadManager::instance()->DumpThreads();
    EXPECT_TRUE(log.contains("renamed"));
    worker.SetTimeout(ULONG_MAX); // so far off that it has not passed
    EXPECT_FALSE(worker.IsTimeout());
    worker.setTimeout(1, CTime::getCurrentMilliSecond() - 2);
    EXPECT_TRUE(worker.IsTimeout());
    EXPECT_TRUE(worker.CancelThread());
    EXPECT_FALSE(worker.CancelThread());
    EXPECT_TRUE(eventually([&] { return worker.IsThreadOver(); }));
    EXPECT_FALSE(worker.DestroyThread());
    ASSERT_TRUE(worker.CreateThread());
    EXPECT_FALSE(worker.TerminateThread()); // there is nothing to join, but it has ended
    EXPECT_TRUE(worker.IsThreadOver());
}

/// Runs until a line of the log says that somebody has waited for it for long.
class CLate : public CThread
{
public:
    explicit CLate(const CLogCapture& log) : CThread("late"), m_log(log) {}

    void ThreadProc() override
    {
        const CLogCapture& log = m_log; // this object goes before
        begun.Post();
        EXPECT_TRUE(eventually([&log] {
            return log.contains("CThread::~CThread:late wait for thread over, times:100\n");
        }));
    }
    CSemaphore begun;

private:
    const CLogCapture& m_log;
};

TEST(OlderThreadTest, ALongWaitForAThreadsEndShowsOnTheLog)
{
    inChild([] {
        CLogCapture log;
        Tarsel::Infra::setPrintLogLevel(Tarsel::Infra::logLevelTrace);
        CLate late(log);
        ASSERT_TRUE(late.CreateThread());
        late.begun.Pend();
        EXPECT_TRUE(late.CancelThread());
    });
}

std::atomic<int> s_ended{0};

/// Destroys itself when it is told to end.
class CSelfOwned : public CThread
{
public:
    CSelfOwned() : CThread("self-owned") {}
    ~CSelfOwned() override { ++s_ended; }
    void ThreadProc() override
    {
        while (looping()) {
            CTime::sleep(1);
        }
        delete this;
    }
};

TEST(OlderThreadTest, AThreadEndsWithItsObjectHoweverEarly)
{
    CLogCapture log;
    for (int i = 0; i < 300; ++i) {
        CThread thread("nothing to do");
        ASSERT_TRUE(thread.CreateThread());
        if (i % 3 == 1) {
            thread.CancelThread();
        }
        if (i % 3 == 2) {
            CTime::sleep(0);
        }
    }
    auto* const own = new CSelfOwned;
    ASSERT_TRUE(own->CreateThread());
    EXPECT_TRUE(own->CancelThread());
    EXPECT_TRUE(eventually([] { return s_ended == 1; }));
}

TEST(OlderThreadTest, ThreadsMayRunOnWhileTheProcessExits)
{
    for (int i = 0; i < 20; ++i) {
        inChild([] {
            std::atomic<bool>& begun = *new std::atomic<bool>(false);
            for (int thread = 0; thread < 2; ++thread) {
                std::thread([&begun] {
                    std::string names;
                    for (;;) {
                        IThreadManager::instance()->GetTimeOutThreads(names);
                        IPacketManager::instance()->GetFreeSize();
                        begun = true;
                    }
                }).detach();
            }
            EXPECT_TRUE(eventually([&begun] { return begun.load(); }));
        });
    }
}

} // namespace

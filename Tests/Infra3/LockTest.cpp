// Locks, semaphores, per-thread values, last errors and the end of a broken program.

#include <sched.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/AssertionFailed.h"
#include "Infra/Infra3/Error.h"
#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/ReadWriteMutex.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/SystemCall.h"
#include "Infra/Infra3/ThreadSpecific.h"
#include "Infra3/AssertFront.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/LogCapture.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::CLogCapture;
using TestSupport::runInChild;
typedef std::chrono::steady_clock Clock;

int milliSecondsSince(Clock::time_point begin)
{
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
}

template <typename Function>
auto inThread(Function function)
{
    decltype(function()) result{};
    std::thread([&] { result = function(); }).join();
    return result;
}

TEST(MutexTest, ExcludesOtherThreads)
{
    CMutex mutex;
    EXPECT_TRUE(mutex.enter());
    EXPECT_FALSE(inThread([&] { return mutex.tryEnter(); }));
    EXPECT_TRUE(mutex.leave());
    EXPECT_TRUE(inThread([&] { return mutex.tryEnter() && mutex.leave(); }));

    long counter = 0; // plain: the lock alone keeps it whole
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                CGuard guard(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 80000);
}

TEST(MutexTest, DestroyingAHeldMutexEndsTheProcess)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer reports it first";
#endif
    const TestSupport::ChildResult result = runInChild([] {
        CMutex* const mutex = new CMutex;
        std::thread([&] { mutex->enter(); }).join();
        delete mutex;
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.output.find(" CMutex::~CMutex() errno:EBUSY.\n"), std::string::npos)
        << result.report();
    EXPECT_NE(
        result.errorOutput.find("***** Internal Program Error - assertion (ret == 0) failed in "
                                "~CMutex: Src/Infra3/Mutex.cpp("),
        std::string::npos)
        << result.report();
}

TEST(RecursiveMutexTest, IsFreeAfterAsManyLeavesAsEnters)
{
    CRecursiveMutex mutex;
    std::atomic<bool> entered{false};
    EXPECT_TRUE(mutex.enter());
    {
        CRecursiveGuard guard(mutex);
    }
    std::thread other([&] {
        mutex.enter();
        entered = true;
        mutex.leave();
    });
    EXPECT_FALSE(entered);
    EXPECT_TRUE(mutex.leave());
    EXPECT_TRUE(TestSupport::eventually([&] { return entered.load(); }));
    other.join();
}

TEST(ReadWriteMutexTest, ReadersShareAndAWriterIsAlone)
{
    for (const auto priority : {CReadWriteMutex::priorityDefault, CReadWriteMutex::priorityWrite}) {
        CReadWriteMutex mutex(priority);
        long value = 0; // plain: the lock alone keeps it whole
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 3000; ++i) {
                    if ((i + t) % 3 == 0) {
                        EXPECT_TRUE(mutex.enterWriting());
                        ++value;
                    } else {
                        EXPECT_TRUE(mutex.enterReading());
                        EXPECT_LE(value, 4000);
                    }
                    EXPECT_TRUE(mutex.leave());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(value, 4000);
        EXPECT_TRUE(mutex.enterReading());
        EXPECT_TRUE(inThread([&] { return mutex.enterReading() && mutex.leave(); }));
        EXPECT_TRUE(mutex.leave());
    }
}

/// Whether a second reader gets in while a first one reads and a writer waits.
bool readerPassesWaitingWriter(CReadWriteMutex::RWPriority priority)
{
    CReadWriteMutex mutex(priority);
    std::atomic<bool> read{false};
    mutex.enterReading();
    std::thread writer([&] {
        mutex.enterWriting();
        mutex.leave();
    });
    CSemaphore(0).pend(50); // the writer is waiting by now
    std::thread reader([&] {
        mutex.enterReading();
        read = true;
        mutex.leave();
    });
    for (int i = 0; i < 200 && !read; ++i) {
        CSemaphore(0).pend(1);
    }
    const bool passed = read;
    mutex.leave();
    writer.join();
    reader.join();
    return passed;
}

TEST(ReadWriteMutexTest, PriorityDecidesBetweenAWaitingWriterAndANewReader)
{
    EXPECT_TRUE(readerPassesWaitingWriter(CReadWriteMutex::priorityDefault));
    EXPECT_FALSE(readerPassesWaitingWriter(CReadWriteMutex::priorityWrite));
}

TEST(ReadWriteMutexTest, FailuresAreWarningsForWritersOnly)
{
    CLogCapture log;
    CReadWriteMutex mutex;
    EXPECT_TRUE(mutex.enterWriting());
    EXPECT_FALSE(mutex.enterReading());
    EXPECT_EQ(log.text(), "");
    EXPECT_FALSE(mutex.enterWriting());
    EXPECT_TRUE(log.contains(
        " pthread_rwlock_wrlock called failed for errmsg:Resource deadlock avoided\n"));
    EXPECT_TRUE(mutex.leave());
}

TEST(ReadWriteMutexTest, AnUnknownPriorityWarnsAndMeansTheDefault)
{
    for (const int priority : {2, 7, -1}) {
        CLogCapture log;
        CReadWriteMutex mutex(static_cast<CReadWriteMutex::RWPriority>(priority));
        EXPECT_TRUE(log.contains(" Input rwpriority level error, priorityDefault used!\n"));
        EXPECT_TRUE(mutex.enterReading());
        EXPECT_TRUE(mutex.leave());
    }
}

TEST(SemaphoreTest, ResultsAreTheCounts)
{
    CSemaphore semaphore(0);
    EXPECT_EQ(semaphore.tryPend(), -1);
    EXPECT_EQ(semaphore.post(), 1);
    EXPECT_EQ(semaphore.post(), 2);
    EXPECT_EQ(semaphore.pend(0), 1);
    EXPECT_EQ(semaphore.pend(), 0);
    EXPECT_EQ(semaphore.pend(0), -1);
    EXPECT_EQ(semaphore.post(), 1);
    EXPECT_EQ(semaphore.tryPend(), 0);
    EXPECT_EQ(semaphore.tryPend(), -1);

    CSemaphore full(INT_MAX);
    EXPECT_EQ(full.post(), -1);
    EXPECT_EQ(full.pend(0), INT_MAX - 1);
    EXPECT_EQ(full.post(), INT_MAX);
}

TEST(SemaphoreTest, TimedWaitsLastTheirTimeAndNoLonger)
{
    CSemaphore semaphore(0);
    for (const uint32_t timeout : {1U, 60U, 1100U}) {
        const Clock::time_point begin = Clock::now();
        EXPECT_EQ(semaphore.pend(timeout), -1);
        EXPECT_GE(milliSecondsSince(begin), static_cast<int>(timeout) - 1);
    }
    const Clock::time_point begin = Clock::now();
    std::thread poster([&] { semaphore.post(); });
    EXPECT_EQ(semaphore.pend(60000), 0);
    EXPECT_LT(milliSecondsSince(begin), 30000);
    poster.join();
}

TEST(SemaphoreTest, NothingIsLostUnderContentionAndTimeouts)
{
    constexpr int posts = 20000;
    CSemaphore semaphore(0);
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (taken < 2 * posts) {
                if (semaphore.pend(1) >= 0) {
                    ++taken;
                }
            }
        });
    }
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < posts; ++i) {
                ASSERT_GT(semaphore.post(), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(taken, 2 * posts);
    EXPECT_EQ(semaphore.tryPend(), -1);
}

TEST(SemaphoreTest, ManyShortWaitsLoseNothingAndLeaveALongOneItsTime)
{
    constexpr int rounds = 20000;
    CSemaphore there(0);
    CSemaphore back(0);
    std::thread other([&] {
        for (int i = 0; i < rounds; ++i) {
            EXPECT_EQ(there.pend(), 0);
            EXPECT_EQ(back.post(), 1);
        }
    });
    for (int i = 0; i < rounds; ++i) {
        EXPECT_EQ(there.post(), 1);
        EXPECT_EQ(i % 2 == 0 ? back.pend() : back.pend(60000), 0);
    }
    other.join();
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(back.pend(50), -1);
    EXPECT_GE(milliSecondsSince(begin), 49);
}

TEST(SemaphoreTest, MayBeDestroyedAsSoonAsTheLastPendReturns)
{
    // The poster may still be inside post() when the waiter deletes: AddressSanitizer sees a touch.
    constexpr int rounds = 20000;
    std::atomic<CSemaphore*> next{nullptr};
    std::thread poster([&] {
        for (int i = 0; i < rounds; ++i) {
            CSemaphore* semaphore = nullptr;
            while ((semaphore = next.exchange(nullptr)) == nullptr) {
                sched_yield();
            }
            semaphore->post();
        }
    });
    for (int i = 0; i < rounds; ++i) {
        CSemaphore* const semaphore = new CSemaphore(0);
        next = semaphore;
        EXPECT_EQ(i % 2 == 0 ? semaphore->pend() : semaphore->pend(60000), 0);
        delete semaphore;
    }
    poster.join();
}

TEST(SemaphoreTest, ANegativeCountEndsTheProcess)
{
    const TestSupport::ChildResult result = runInChild([] { CSemaphore semaphore(-1); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.errorOutput.find("Assertion `initialCount >= 0' failed"), std::string::npos);
}

TEST(ThreadSpecificTest, EachThreadHasItsOwnValue)
{
    CThreadSpecific slot;
    int value = 0;
    void* seen = &value;
    EXPECT_TRUE(slot.valid());
    EXPECT_TRUE(slot.getValue(&seen));
    EXPECT_EQ(seen, nullptr);
    EXPECT_TRUE(slot.setValue(&value));
    EXPECT_TRUE(slot.getValue(&seen));
    EXPECT_EQ(seen, &value);
    EXPECT_EQ(inThread([&] {
                  void* other = &value;
                  return slot.getValue(&other) ? other : &value;
              }),
              nullptr);
    EXPECT_FALSE(slot.getValue(nullptr));
}

TEST(ThreadSpecificTest, WithoutASlotBothAccessorsFail)
{
    std::vector<std::unique_ptr<CThreadSpecific>> slots;
    do {
        slots.push_back(std::make_unique<CThreadSpecific>());
    } while (slots.back()->valid() && slots.size() < 5000);
    ASSERT_FALSE(slots.back()->valid());
    void* value = &value;
    EXPECT_FALSE(slots.back()->getValue(&value));
    EXPECT_EQ(value, &value);
    EXPECT_FALSE(slots.back()->setValue(&value));
    setLastError(5); // the library itself goes on without slots
    EXPECT_EQ(inThread([] {
                  setLastError(6);
                  return getLastError();
              }),
              6);
    EXPECT_EQ(getLastError(), 5);
}

TEST(LastErrorTest, IsOneOfEachThread)
{
    EXPECT_EQ(inThread([] { return getLastError(); }), 0);
    setLastError(infraErrorSyncRtcTimeFailed);
    EXPECT_EQ(inThread([] { return getLastError(); }), 0);
    EXPECT_EQ(getLastError(), 0x1000000F);
    setLastError(-1);
    EXPECT_EQ(getLastError(), -1);
}

TEST(ErrorMessageTest, TextsAreReplacedAndNeverMade)
{
    EXPECT_STREQ(getErrMsg(5), "");
    EXPECT_EQ(getErrorMessage(5), "");
    setErrMsg(5, nullptr);
    EXPECT_STREQ(getErrMsg(5), "");
    setErrMsg(7, "a");
    setErrorMessage(7, "b");
    EXPECT_STREQ(getErrMsg(7), "b");
    EXPECT_EQ(getErrorMessage(7), "b");
    EXPECT_EQ(errorNOFILE, errorNOENT);
    EXPECT_EQ(errorDEADLK, 36);
    EXPECT_EQ(componentErrorUnsupportHighSecurityLevel, 0x1003001E);
}

TEST(ErrorMessageTest, ManyThreadsReplaceAndRead)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 2000; ++i) {
                setErrorMessage(100 + i % 10, std::to_string(t));
                EXPECT_EQ(getErrorMessage(100 + i % 10).size(), 1U);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(AssertionTest, ReportsAndKeepsWhatWasLogged)
{
    const TestSupport::ChildResult plain = runInChild([] {
        logInfo("logged before\n");
        Detail::assertionFailed("x > 1", "work", "a/b.cpp", 12);
    });
    EXPECT_EQ(plain.signal, SIGABRT);
    EXPECT_NE(plain.output.find("logged before\n"), std::string::npos);
    EXPECT_EQ(plain.errorOutput.find(
                  "***** Internal Program Error - assertion (x > 1) failed in work: a/b.cpp(12)\n"),
              0U);
    EXPECT_NE(plain.errorOutput.find("a/b.cpp:12: "), std::string::npos) << plain.report();

    const TestSupport::ChildResult withText = runInChild(
        [] { Detail::assertionFailedMsg("false", "unreachable!", "work", "a/b.cpp", 12); });
    EXPECT_EQ(withText.signal, SIGABRT);
    EXPECT_EQ(
        withText.errorOutput.find("***** Internal Program Error - assertion (false) failed in "
                                  "work: a/b.cpp(12): unreachable!\n"),
        0U);
}

TEST(SystemCallTest, RunsThroughTheShell)
{
    CLogCapture log;
    EXPECT_EQ(systemCall(nullptr), 1);
    EXPECT_EQ(systemCall("exit 3") >> 8, 3);
    EXPECT_EQ(log.text(), "");
    setPrintLogLevel(5);
    EXPECT_EQ(systemCall("true"), 0);
    EXPECT_EQ(log.text(), "systemcall command:true\n");
    setPrintLogLevel(4);
}

} // namespace
} // namespace Infra
} // namespace Tarsel

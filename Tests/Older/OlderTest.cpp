// The older interface: what it does itself, that the rest arrives at the newer one, and both at once.

#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Infra/File.h"
#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Timer.h"
#include "Infra/MemPool.h"
#include "Infra/Mutex.h"
#include "Infra/Packet.h"
#include "Infra/Semaphore.h"
#include "Infra/Support.h"
#include "Infra/Thread.h"
#include "Infra/Time.h"
#include "Infra/Timer.h"
#include "Infra/Unicode.h"
#include "Memory/PacketManager.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/FailingHeap.h"
#include "Support/FreshProcess.h"
#include "Support/LogCapture.h"
#include "Support/TemporaryFolder.h"

namespace
{

using Tarsel::TestSupport::CFailingHeap;
using Tarsel::TestSupport::CLogCapture;
using Tarsel::TestSupport::CMemoryShortage;
using Tarsel::TestSupport::CTemporaryFolder;
using Tarsel::TestSupport::eventually;
using Tarsel::TestSupport::inChild;
using Tarsel::TestSupport::runInChild;
using Tarsel::TestSupport::Shortage;

/// The place of a virtual function in its table; a destructor takes two.
template <typename Member>
long slotOf(Member member)
{
    long word = 0;
    memcpy(&word, &member, sizeof(word));
    return (word - 1) / static_cast<long>(sizeof(void*));
}

template <typename... Members>
std::vector<long> slotsOf(Members... members)
{
    return {slotOf(members)...};
}

TEST(OlderTest, VirtualOperationsKeepTheirPlaces)
{
    typedef std::vector<long> Slots;
    EXPECT_EQ(slotOf(&CThread::ThreadProc), 2);
    EXPECT_EQ(slotsOf(&IThreadManager::RegisterMainThread, &IThreadManager::DumpThreads,
                      &IThreadManager::GetTimeOutThreads),
              (Slots{2, 3, 4}));
    EXPECT_EQ(slotOf(&ITimerManager::DumpTimers), 0);
    EXPECT_EQ(slotsOf(&IPacketManager::GetBufferSize, &IPacketManager::GetFreeSize,
                      &IPacketManager::DumpNodes),
              (Slots{2, 3, 4}));
    EXPECT_EQ(slotsOf(&CFile::Open, &CFile::Close, &CFile::Read, &CFile::Write, &CFile::Flush,
                      &CFile::Seek, &CFile::GetPosition, &CFile::GetLength, &CFile::Gets,
                      &CFile::Puts, &CFile::IsOpened),
              (Slots{2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(slotsOf(&CFileFind::findFile, &CFileFind::findNextFile, &CFileFind::close),
              (Slots{2, 3, 4}));
    typedef CFSOperation Fs;
    EXPECT_EQ(slotsOf(&Fs::fopen, &Fs::fclose, &Fs::fread, &Fs::fwrite, &Fs::fflush, &Fs::fseek,
                      &Fs::ftell, &Fs::fgets, &Fs::fputs, &Fs::rename, &Fs::remove, &Fs::findfirst,
                      &Fs::findnext, &Fs::findclose, &Fs::mkdir, &Fs::rmdir, &Fs::statfs,
                      &Fs::access, &Fs::stat, &Fs::writev),
              (Slots{2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21}));
    // The managers of today: nothing of their own in between.
    EXPECT_EQ(slotsOf(&CThreadManager::GetTimeOutThreads, &CTimerManager::DumpTimers,
                      &CPacketManager::DumpNodes),
              (Slots{4, 0, 4}));
}

class CCounter : public CObject
{
public:
    void count() { ++calls; }
    int calledSoOften() const { return calls; }
    void add(unsigned long number) { sum += number; }
    void addInt(unsigned int number) { sum += number; }
    void addTwice(unsigned int number) { sum += 2UL * number; }
    void lookAtTimer(unsigned int) { sawItRun = inside->IsRunning(); }

    std::atomic<int> calls{0};
    std::atomic<unsigned long> sum{0};
    CTimer* inside = nullptr;
    std::atomic<bool> sawItRun{false};
};

std::atomic<unsigned long> s_sum{0};
void addToSum(unsigned long number)
{
    s_sum += number;
}

TEST(OlderTest, DelegatesAreTheNewerOnesInside)
{
    CCounter counter;
    CCounter other;
    const TFunction0<void> count(&CCounter::count, &counter);
    count();
    const Tarsel::Infra::TFunction0<void> newer = count;
    newer();
    EXPECT_EQ(counter.calls, 2);
    EXPECT_EQ(newer.getObject(), static_cast<CObject*>(&counter));
    EXPECT_STREQ(count.getObjectType(), typeid(const CObject*).name());
    EXPECT_STREQ(newer.getObjectType(), count.getObjectType());
    EXPECT_TRUE(count == TFunction0<void>(&CCounter::count, &counter));
    EXPECT_TRUE(count != TFunction0<void>(&CCounter::count, &other));

    const TFunction1<void, unsigned long> free = addToSum;
    const Tarsel::Infra::TFunction1<void, unsigned long> newerFree = free;
    s_sum = 0;
    newerFree(3);
    EXPECT_EQ(s_sum, 3U);
    EXPECT_TRUE((newerFree == Tarsel::Infra::TFunction1<void, unsigned long>(addToSum)));
    EXPECT_TRUE((TFunction1<void, unsigned long>().empty()));
    EXPECT_TRUE((TFunction1<void, unsigned long>(nullptr).empty()));
    const TFunction1<void, unsigned long> lambda = [](unsigned long number) { s_sum += number; };
    lambda(4);
    const TFunction0<int> constant(&CCounter::calledSoOften, &counter);
    EXPECT_EQ(constant(), 2);
    EXPECT_EQ(s_sum, 7U);
}

// The thread sanitizer reports what these tests misuse on purpose.
#if defined(__SANITIZE_THREAD__)
constexpr bool mayMisuse = false;
#else
constexpr bool mayMisuse = true;
#endif

TEST(OlderTest, MutexesAreThoseOfPosix)
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

TEST(OlderTest, AWaitOutlastsSignals)
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

TEST(OlderTest, BrokenLocksEndTheProcessWithTheSystemsAssertion)
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

TEST(OlderTest, ThreadsStandInTheTableOfTheNewerOnes)
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

TEST(OlderTest, ALongWaitForAThreadsEndShowsOnTheLog)
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

/// Destroys itself when it is told to end.
class CSelfOwned : public CThread
{
public:
    CSelfOwned() : CThread("self-owned") {}
    ~CSelfOwned() override { ++s_sum; }
    void ThreadProc() override
    {
        while (looping()) {
            CTime::sleep(1);
        }
        delete this;
    }
};

TEST(OlderTest, AThreadEndsWithItsObjectHoweverEarly)
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
    s_sum = 0;
    auto* const own = new CSelfOwned;
    ASSERT_TRUE(own->CreateThread());
    EXPECT_TRUE(own->CancelThread());
    EXPECT_TRUE(eventually([] { return s_sum == 1; }));
}

TEST(OlderTest, ThreadsMayRunOnWhileTheProcessExits)
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

TEST(OlderTest, TheManagersAreOneEachAndSpeakOnce)
{
    INFRA_IN_FRESH_PROCESS([] {
        CLogCapture log;
        Tarsel::Infra::setPrintLogLevel(Tarsel::Infra::logLevelTrace);
        CThreadManager::instance();
        IThreadManager::instance();
        EXPECT_EQ(log.takeLeveled(), "trace|CThreadManager::CThreadManager()>>>>>>>>>\n");
    });
    CLogCapture log;
    EXPECT_EQ(IThreadManager::instance(), CThreadManager::instance());
    EXPECT_EQ(ITimerManager::instance(), CTimerManager::instance());
    EXPECT_EQ(IPacketManager::instance(), CPacketManager::instance());
    inChild([&] {
        CTimer timer("in the table");
        timer.Start(TFunction1<void, unsigned long>(addToSum), 60000, 500, 0, 30);
        log.clear();
        CTimerManager::instance()->DumpTimers();
        EXPECT_THAT(log.take(), testing::ContainsRegex("in the table .* 500 .*/ +30 "));
        CThreadManager::instance()->RegisterMainThread();
        CThreadManager::instance()->DumpThreads();
        EXPECT_THAT(log.take(), testing::ContainsRegex(" Main +[0-9]+ +64 "));
        IPacketManager::config(2048, 1024, 0);
        CPacketManager::instance()->DumpNodes();
        EXPECT_THAT(log.take(), testing::HasSubstr("CPacketManager dump: SYS Policy\n"));
    });
}

TEST(OlderTest, TimersCallDelegatesAndMembers)
{
    typedef void (CObject::*Member)(unsigned int);
    CCounter counter;
    CTimer timer("older");
    EXPECT_STREQ(timer.GetName(), "older");
    timer.SetName("renamed");
    EXPECT_STREQ(timer.GetName(), "renamed");
    EXPECT_FALSE(timer.IsStarted() || timer.IsRunning() || timer.IsCalled() || timer.Stop());
    EXPECT_FALSE(timer.Start(nullptr, static_cast<Member>(&CCounter::addInt), 0, 0));
    EXPECT_FALSE(timer.Start(&counter, static_cast<Member>(nullptr), 0, 0));
    EXPECT_FALSE(timer.Start(TFunction1<void, unsigned long>(), 0, 0));

    EXPECT_TRUE(
        timer.Start(TFunction1<void, unsigned long>(&CCounter::add, &counter), 0, 0, 1UL << 40));
    EXPECT_TRUE(timer.StopAndWait());
    EXPECT_EQ(counter.sum, 1UL << 40);
    counter.sum = 0;
    for (int i = 0; i < 3; ++i) { // members take the low half
        EXPECT_TRUE(
            timer.Start(&counter, static_cast<Member>(&CCounter::addInt), 0, 0, (1UL << 40) + 5));
        timer.StopAndWait();
        EXPECT_TRUE(timer.Start(&counter, static_cast<Member>(&CCounter::addTwice), 60000, 0, 10));
        EXPECT_TRUE(timer.IsStarted());
        EXPECT_FALSE(timer.IsCalled());
        EXPECT_TRUE(timer.Stop(/*bCallNow*/ true));
        timer.StopAndWait();
    }
    EXPECT_EQ(counter.sum, 75U);
    EXPECT_TRUE(timer.Start(&counter, static_cast<Member>(&CCounter::addInt), 1, 60000, 1));
    timer.SetPeriodTime(1);
    EXPECT_TRUE(eventually([&] { return counter.sum > 80; }));
    timer.StopAndWait();

    counter.inside = &timer; // a call looks at its timer
    EXPECT_TRUE(timer.Start(&counter, static_cast<Member>(&CCounter::lookAtTimer), 0, 0));
    timer.StopAndWait();
    EXPECT_TRUE(counter.sawItRun && timer.IsCalled() && !timer.IsRunning());
}

TEST(OlderTest, TimersKnowThePairsTheyHaveHad)
{
    typedef void (CObject::*Member)(unsigned int);
    CTimer timer("pairs");
    std::vector<CCounter> counters(100);
    const auto start = [&](CCounter& counter, unsigned int number) {
        return timer.Start(&counter, static_cast<Member>(&CCounter::addInt), 60000, 0, number) &&
               timer.Stop(/*bCallNow*/ true) && timer.StopAndWait();
    };
    for (CCounter& counter : counters) {
        EXPECT_TRUE(start(counter, 1));
    }
    const CMemoryShortage shortage(1, Shortage::lasting);
    for (CCounter& counter : counters) {
        EXPECT_TRUE(timer.Start(&counter, static_cast<Member>(&CCounter::addInt), 60000, 0));
    }
    EXPECT_FALSE(timer.Start(&counters[0], static_cast<Member>(&CCounter::addTwice), 60000, 0));
    EXPECT_TRUE(timer.Stop());
    for (CCounter& counter : counters) {
        EXPECT_EQ(counter.sum, 1U);
    }
}

std::string written(const CTime& time, const char* format)
{
    char text[100];
    time.format(text, format);
    return text;
}

TEST(OlderTest, TimeIsWrittenByItsOwnSettings)
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

TEST(OlderTest, TimeIsConvertedByTheSystem)
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

TEST(OlderTest, AForkedChildConvertsTimes)
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

TEST(OlderTest, ARecorderNamesThePartsOfATime)
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

TEST(OlderTest, APrinterMayMeddle)
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

TEST(OlderTest, FilesAndListingsAreTheNewerOnes)
{
    CLogCapture log;
    const CTemporaryFolder folder;
    const std::string path = folder.path("file");
    CFile file;
    char line[16];
    ASSERT_TRUE(file.Open(path.c_str(), CFile::modeReadWrite | CFile::modeCreate));
    EXPECT_TRUE(file.IsOpened());
    EXPECT_EQ(file.Write(const_cast<char*>("one\ntwo\n"), 8), 8);
    EXPECT_GE(file.Puts("three\n"), 0);
    file.Flush();
    EXPECT_EQ(file.GetLength(), 14U);
    EXPECT_EQ(file.Seek(-6, CFile::end), 8U);
    EXPECT_EQ(file.Seek(0, 9), 0U); // from nowhere
    EXPECT_EQ(file.Seek(4, CFile::begin), 4U);
    EXPECT_STREQ(file.Gets(line, sizeof(line)), "two\n");
    EXPECT_EQ(file.GetPosition(), 8U);
    EXPECT_EQ(file.Read(line, sizeof(line)), 6);
    file.Close();
    EXPECT_EQ(file.Read(line, 1), -1);
    const unsigned char* const loaded = file.Load(path.c_str());
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(memcmp(loaded, "one\ntwo\nthree\n", 14), 0);
    file.UnLoad();
    EXPECT_FALSE(file.IsOpened());

    FileInfo info = {};
    uint64_t bytes[3] = {};
    EXPECT_TRUE(CFile::Rename(path.c_str(), folder.path("renamed").c_str()));
    EXPECT_TRUE(CFile::Stat(folder.path("renamed").c_str(), &info));
    EXPECT_EQ(info.size, 14U);
    EXPECT_FALSE(CFile::Stat(folder.path("renamed").c_str(), nullptr));
    EXPECT_TRUE(CFile::StatFS(folder.path().c_str(), bytes[0], bytes[1], bytes[2]));
    EXPECT_TRUE(CFile::MakeDirectory(folder.path("sub").c_str()));
    CFileFind finder;
    bool isListed = finder.findFile((folder.path() + "/*").c_str());
    while (isListed && finder.getFileName() != "renamed") {
        isListed = finder.findNextFile();
    }
    ASSERT_TRUE(isListed);
    EXPECT_EQ(finder.getFilePath(), folder.path("renamed"));
    EXPECT_EQ(finder.getLength(), 14U);
    EXPECT_TRUE(finder.isNormal() && !finder.isDirectory() && !finder.isReadOnly() &&
                !finder.isHidden());
    finder.close();
    FSOperations listing = {};
    listing.findfirst = [](const char*, FileInfo& found) {
        found.attrib = Tarsel::Infra::CFile::readOnly | Tarsel::Infra::CFile::hidden |
                       Tarsel::Infra::CFile::directory;
        return 1L;
    };
    hookFS("/attributes/", &listing);
    ASSERT_TRUE(finder.findFile("/attributes/*"));
    EXPECT_TRUE(!finder.isNormal() && finder.isDirectory() && finder.isReadOnly() &&
                finder.isHidden());
    finder.close();
    hookFS("/attributes/", nullptr);
    EXPECT_TRUE(CFile::RemoveDirectory(folder.path("sub").c_str()));
    EXPECT_TRUE(CFile::Remove(folder.path("renamed").c_str()));
    EXPECT_FALSE(CFile::Access(folder.path("renamed").c_str(), 0));
}

std::atomic<int> s_freed{0};
void countFreed(void*, unsigned long)
{
    ++s_freed;
}

TEST(OlderTest, PacketsShareAndHaveAHeader)
{
    inChild([] {
        CLogCapture log;
        CPacket invalid;
        EXPECT_TRUE(invalid.GetSize() == 0 && invalid.GetLength() == 0 && invalid.GetLeft() == 0 &&
                    invalid.GetBuffer() == nullptr && invalid.GetHeader() == nullptr &&
                    invalid.GetHeaderSize() == 0 && !invalid.SetLength(0) &&
                    invalid.PutBuffer(&log, 1) == 0);
        invalid.ClearHeader();
        EXPECT_EQ(CPacket(100).GetHeaderSize(), 0U); // nobody asked for one yet
        EXPECT_EQ(sizeof(CPacket), sizeof(void*));
    });
    inChild([] {
        IPacketManager::config(1 << 20, 1024, 24);
        CPacket packet(1000);
        EXPECT_EQ(packet.GetHeaderSize(), 24U);
        memset(packet.GetHeader(), 7, 24);
        packet.ClearHeader();
        EXPECT_EQ(std::string(static_cast<char*>(packet.GetHeader()), 24), std::string(24, '\0'));
        EXPECT_TRUE(packet.SetLength(0));
        EXPECT_EQ(packet.PutBuffer(const_cast<char*>("12345"), 5), 5U);
        EXPECT_EQ(packet.GetLength(), 5U);
        EXPECT_EQ(packet.GetLeft(), packet.GetSize() - 5);
        EXPECT_GT(CPacketManager::instance()->GetBufferSize(),
                  IPacketManager::instance()->GetFreeSize());

        CPacket shared;
        CPacket copied(packet);
        shared = packet;
        Tarsel::Memory::CPacket newer = packet;
        EXPECT_EQ(newer.getBuffer(), shared.GetBuffer());
        newer = copied;
        shared = CPacket();
        shared = newer;
        EXPECT_EQ(shared.GetBuffer(), packet.GetBuffer());
        shared = Tarsel::Memory::CPacket();
        EXPECT_EQ(shared.GetBuffer(), nullptr);
        CPacket moved(std::move(copied));
        EXPECT_TRUE(moved.GetBuffer() == packet.GetBuffer() && copied.GetBuffer() == nullptr);
        moved = {};
        EXPECT_EQ(moved.GetBuffer(), nullptr);

        char buffer[10];
        {
            CPacket attached(10, countFreed, buffer);
            EXPECT_EQ(attached.GetHeaderSize(), 24U);
            EXPECT_EQ(attached.PutBuffer(buffer, 10), 10U);
            EXPECT_EQ(attached.GetBuffer(), reinterpret_cast<unsigned char*>(buffer));
            const CPacket second(attached);
        }
        EXPECT_EQ(s_freed, 1);
        IPacketManager::config(1 << 20, 1024, -5); // too late for the pool
        EXPECT_EQ(CPacket(10).GetHeaderSize(), 0U);
        EXPECT_EQ(CPacket(1UL << 40).GetBuffer(), nullptr); // no such memory
    });
}

TEST(OlderTest, TheRestIsForwarded)
{
    CMemPool pool(64, 4);
    void* const first = pool.alloc();
    ASSERT_NE(first, nullptr);
    pool.free(first);
    EXPECT_EQ(pool.alloc(), first);
    EXPECT_EQ(systemCall("exit 3") >> 8, 3);
    EXPECT_EQ(log2i(0), 0);
    EXPECT_EQ(log2i(1023), 9);
    EXPECT_EQ(log2i(1UL << 40), 40);
}

TEST(OlderTest, CharacterSetsAreConverted)
{
    // e with an acute accent: U+00E9, C3 A9 in UTF-8, E9 in Windows-1252.
    // The sign "middle": U+4E2D, E4 B8 AD in UTF-8, D6 D0 in code page 936.
    uint8_t eAcute[] = "\xC3\xA9";
    uint8_t middle[] = "\xE4\xB8\xAD";
    char middle936[] = "\xD6\xD0";
    uint8_t bytes[8] = {};
    uint16_t units[8] = {};
    char text[8] = {};
    int length = 0;
    EXPECT_TRUE(utf8_to_cp1252(eAcute, 2, bytes, 8) == 1 && bytes[0] == 0xE9);
    EXPECT_TRUE(cp1252_to_utf8(bytes + 1, 7, bytes, 1) == 0 && memcmp(bytes + 1, eAcute, 2) == 0);
    EXPECT_EQ(GetUnicodeFromUtf8(reinterpret_cast<char*>(middle), &length), 0x4E2D);
    EXPECT_EQ(length, 3);
    EXPECT_TRUE(utf8_mbtowc(units, middle, 3) == 3 && units[0] == 0x4E2D);
    EXPECT_TRUE(utf8_wctomb(bytes, 0x00E9, 8) == 2 && memcmp(bytes, eAcute, 2) == 0);
    EXPECT_TRUE(utf8_mbstowcs(units, eAcute, 2) == 1 && units[0] == 0x00E9);
    units[1] = 0;
    EXPECT_TRUE(utf8_wcstombs(bytes, units, 8) == 2 && memcmp(bytes, eAcute, 2) == 0);
    EXPECT_TRUE(uni2char(0x4E2D, bytes, 8) == 2 && memcmp(bytes, middle936, 2) == 0);
    EXPECT_TRUE(char2uni(bytes, 2, units) == 2 && units[0] == 0x4E2D);
    EXPECT_TRUE(UniTGb2312(units, 1, text, 8) == 1 && strcmp(text, middle936) == 0);
    EXPECT_TRUE(Gb2312ToUni(middle936, units, 8) == 1 && units[0] == 0x4E2D);
    EXPECT_TRUE(utf8TGb2312(middle, text, 3, 8) == 1 && strcmp(text, middle936) == 0);
    EXPECT_TRUE(Gb2312TUtf8(middle936, bytes, 8) == 3 && memcmp(bytes, middle, 4) == 0);
}

int s_hooked = 0;
int accessHooked(const char*, int)
{
    ++s_hooked;
    return 0;
}

/// Sends what older timers give it.
class CSender : public CObject
{
public:
    void send(unsigned int number)
    {
        Tarsel::Memory::CPacket packet(sizeof(number));
        memcpy(packet.getBuffer(), &number, sizeof(number));
        const Tarsel::Infra::CGuard guard(m_mutex);
        m_queue.push_back(packet);
        m_filled.Post();
    }
    CPacket take()
    {
        m_filled.Pend();
        const Tarsel::Infra::CGuard guard(m_mutex);
        CPacket packet = m_queue.back();
        m_queue.pop_back();
        return packet;
    }

private:
    Tarsel::Infra::CMutex m_mutex;
    CSemaphore m_filled;
    std::vector<Tarsel::Memory::CPacket> m_queue; // guarded by m_mutex
};

class CReceiver : public CThread
{
public:
    explicit CReceiver(CSender& sender) : CThread("receiver"), m_sender(sender) {}
    ~CReceiver() override { DestroyThread(); }

    void ThreadProc() override
    {
        unsigned int number = 0;
        do {
            memcpy(&number, m_sender.take().GetBuffer(), sizeof(number));
            sum += number;
        } while (number != 1);
    }
    std::atomic<unsigned> sum{0};

private:
    CSender& m_sender;
};

TEST(OlderTest, BothInterfacesWorkTogether)
{
    CLogCapture log;
    s_sum = 0;
    CSender sender;
    CReceiver receiver(sender);
    CTimer older("older");
    Tarsel::Infra::CTimer newer("newer");
    ASSERT_TRUE(receiver.CreateThread());
    typedef void (CObject::*Member)(unsigned int);
    older.Start(&sender, static_cast<Member>(&CSender::send), 0, 0, 100);
    newer.start(TFunction1<void, unsigned long>(addToSum), 0, 0, 5);
    ASSERT_TRUE(eventually([&] { return receiver.sum == 100 && s_sum == 5; }));
    older.StopAndWait();
    older.Start(&sender, static_cast<Member>(&CSender::send), 0, 0, 1);
    EXPECT_TRUE(eventually([&] { return receiver.IsThreadOver(); }));
    EXPECT_EQ(receiver.sum, 101U);

    // Hooks of both, in one table: the first place that fits wins.
    class CNothing : public CFSOperation
    {
    public:
        CNothing() : CFSOperation(FSOperations{}) {}
    } nothing;
    FSOperations table = {};
    table.access = accessHooked;
    hookFS("/both", &table);
    Tarsel::Infra::hookFileSystem("/both", &nothing);
    EXPECT_TRUE(Tarsel::Infra::CFile::access("/both/x", 0));
    EXPECT_EQ(s_hooked, 1);
    hookFS("/both", nullptr);
    EXPECT_FALSE(CFile::Access("/both/x", 0));
    Tarsel::Infra::hookFileSystem("/both", nullptr);
    EXPECT_EQ(s_hooked, 1);
    // The path decides what is taken back: here the newer one, which came first.
    Tarsel::Infra::hookFileSystem("/both", &nothing);
    hookFS("/both", &table);
    hookFS("/both", nullptr);
    EXPECT_TRUE(CFile::Access("/both/x", 0));
    Tarsel::Infra::hookFileSystem("/both", nullptr);
    EXPECT_FALSE(CFile::Access("/both/x", 0));
    hookFS("/never hooked", nullptr);
    hookFS(nullptr, &table);
}

std::string shown(const char* text)
{
    return text;
}
std::string shown(const void* pointer)
{
    return std::to_string(reinterpret_cast<uintptr_t>(pointer));
}
std::string shown(const FileInfo& info)
{
    return info.name;
}
template <typename Number>
std::enable_if_t<std::is_arithmetic_v<Number>, std::string> shown(Number number)
{
    return std::to_string(number);
}

std::string s_call;
/// Keeps its arguments, and returns what tells it from the others.
template <long Place, typename Result, typename... Parameters>
Result recorded(Parameters... arguments)
{
    s_call = std::to_string(Place);
    (s_call.append(" ").append(shown(arguments)), ...);
    if constexpr (std::is_pointer_v<Result>) {
        return reinterpret_cast<Result>(100 + Place);
    } else {
        return static_cast<Result>(100 + Place);
    }
}

template <long Place, typename Result, typename... Parameters>
void record(FSOperations& table, Result (*&function)(Parameters...))
{
    EXPECT_EQ(reinterpret_cast<char*>(&function) - reinterpret_cast<char*>(&table), Place * 8);
    function = recorded<Place, Result, Parameters...>;
}

template <typename Result>
std::string called(Result result)
{
    return s_call + " -> " + std::to_string((long)result); // NOLINT: a number or a pointer
}

TEST(OlderTest, EachOperationOfAFileSystemIsItsFunctionOfTheTable)
{
    FSOperations table = {};
    record<0>(table, table.fopen);
    record<1>(table, table.fclose);
    record<2>(table, table.fread);
    record<3>(table, table.fwrite);
    record<4>(table, table.fflush);
    record<5>(table, table.fseek);
    record<6>(table, table.ftell);
    record<7>(table, table.fgets);
    record<8>(table, table.fputs);
    record<9>(table, table.rename);
    record<10>(table, table.remove);
    record<11>(table, table.findfirst);
    record<12>(table, table.findnext);
    record<13>(table, table.findclose);
    record<14>(table, table.mkdir);
    record<15>(table, table.rmdir);
    record<16>(table, table.statfs);
    record<17>(table, table.access);
    record<18>(table, table.stat);
    CFSOperation operation(table);
    Tarsel::Infra::IFileSystem& fs = operation;
    auto* const file = reinterpret_cast<FileHandle>(7);
    auto* const buffer = reinterpret_cast<void*>(8);
    char line[] = "line";
    FileInfo info = {};
    strcpy(info.name, "info");
    uint64_t a = 1;
    uint64_t b = 2;
    uint64_t c = 3;
    EXPECT_EQ(called(fs.fopen("path", "rb")), "0 path rb -> 100");
    EXPECT_EQ(called(fs.fclose(file)), "1 7 -> 101");
    EXPECT_EQ(called(fs.fread(buffer, 3, 4, file)), "2 8 3 4 7 -> 102");
    EXPECT_EQ(called(fs.fwrite(buffer, 3, 4, file)), "3 8 3 4 7 -> 103");
    EXPECT_EQ(called(fs.fflush(file)), "4 7 -> 104");
    EXPECT_EQ(called(fs.fseek(file, 3, 4)), "5 7 3 4 -> 105");
    EXPECT_EQ(called(fs.ftell(file)), "6 7 -> 106");
    EXPECT_EQ(called(fs.fgets(line, 3, file)), "7 line 3 7 -> 107");
    EXPECT_EQ(called(fs.fputs("text", file)), "8 text 7 -> 108");
    EXPECT_EQ(called(fs.rename("old", "new")), "9 old new -> 109");
    EXPECT_EQ(called(fs.remove("path")), "10 path -> 110");
    EXPECT_EQ(called(fs.findfirst("pattern", info)), "11 pattern info -> 111");
    EXPECT_EQ(called(fs.findnext(3, info)), "12 3 info -> 112");
    EXPECT_EQ(called(fs.findclose(3)), "13 3 -> 113");
    EXPECT_EQ(called(fs.mkdir("path")), "14 path -> 114");
    EXPECT_EQ(called(fs.rmdir("path")), "15 path -> 115");
    EXPECT_EQ(called(fs.statfs("path", a, b, c)), "16 path 1 2 3 -> 116");
    EXPECT_EQ(called(fs.access("path", 4)), "17 path 4 -> 117");
    EXPECT_EQ(called(fs.stat("path", info)), "18 path info -> 118");
    EXPECT_EQ(fs.writev(1, nullptr, 1), 0U);
}

TEST(OlderTest, HookingAgainTakesNoMemory)
{
    inChild([] {
        Tarsel::Infra::setPrintLogLevel(Tarsel::Infra::logLevelFatal);
        const std::string fits = "/" + std::string(30, 'f');
        FSOperations table = {};
        table.access = accessHooked;
        // One that is cut cannot be taken back by its own name.
        for (const std::string& path : {fits, fits + "tail"}) {
            const auto hookAndUnhook = [&] {
                hookFS(path.c_str(), &table);
                EXPECT_TRUE(CFile::Access(path.c_str(), 0));
                Tarsel::Infra::hookFileSystem(path.c_str(), nullptr);
                hookFS(fits.c_str(), nullptr);
            };
            hookAndUnhook();
            const CMemoryShortage shortage(1, Shortage::lasting);
            hookAndUnhook();
            EXPECT_FALSE(CMemoryShortage::wasFelt());
        }
    });
}

TEST(OlderTest, PlacesHold31CharactersAndThereAre31)
{
    CLogCapture log;
    FSOperations table = {};
    table.access = accessHooked;
    const std::string fits = "/" + std::string(30, 'f');
    const std::string longer = fits + "tail";
    hookFS(fits.c_str(), &table);
    EXPECT_TRUE(CFile::Access(fits.c_str(), 0));
    hookFS(fits.c_str(), nullptr);
    EXPECT_FALSE(CFile::Access(fits.c_str(), 0));
    hookFS(longer.c_str(), &table);
    EXPECT_FALSE(CFile::Access(fits.c_str(), 0));
    hookFS(longer.c_str(), nullptr); // its place has another name
    EXPECT_TRUE(CFile::Access(longer.c_str(), 0));
    Tarsel::Infra::hookFileSystem(longer.c_str(), nullptr);
    hookFS(fits.c_str(), nullptr); // frees the place

    for (int i = 0; i <= 31; ++i) {
        hookFS(("/place" + std::to_string(i) + "/").c_str(), &table);
        EXPECT_EQ(CFile::Access(("/place" + std::to_string(i) + "/x").c_str(), 0), i < 31) << i;
    }
    hookFS("/place7/", nullptr);
    hookFS("/another/", &table);
    EXPECT_TRUE(CFile::Access("/another/x", 0));
    for (int i = 0; i <= 31; ++i) {
        hookFS(("/place" + std::to_string(i) + "/").c_str(), nullptr);
    }
    hookFS("/another/", nullptr);
    EXPECT_FALSE(CFile::Access("/place30/x", 0) || CFile::Access("/another/x", 0));
}

} // namespace

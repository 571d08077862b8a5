// The older interface: what it does itself, that the rest arrives at the newer one, and both at once.

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Infra/File.h"
#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Timer.h"
#include "Infra/MemPool.h"
#include "Infra/Packet.h"
#include "Infra/Semaphore.h"
#include "Infra/Support.h"
#include "Infra/Thread.h"
#include "Infra/Timer.h"
#include "Infra/Unicode.h"
#include "Older/HookedAccess.h"
#include "Support/ChildProcess.h"
#include "Support/Eventually.h"
#include "Support/FailingHeap.h"
#include "Support/FreshProcess.h"
#include "Support/LogCapture.h"

namespace
{

using Tarsel::TestSupport::CLogCapture;
using Tarsel::TestSupport::CMemoryShortage;
using Tarsel::TestSupport::eventually;
using Tarsel::TestSupport::inChild;
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

} // namespace

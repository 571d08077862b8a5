// Flow.cpp: a file through packets, from a timer to a thread.
//
//     CTimer "reader" ── CPacket {piece | sequence, checksum} ──> CHandOver ──> CThreadLite
//     "writer"
//           │                                                                        │
//         FILE                      CTimer "progress"                              COPY
//
// The pool is small on purpose: the reader fills packets until the pool runs dry, and then simply
// leaves the piece in the file until its next call. The writer checks sequence and checksum and
// writes; its dropping a packet is what gives the reader room again. Nothing is lost, nobody waits
// for memory.
//
// Ends with 0 if and only if the copy is the file, byte for byte, and the whole pool is free again.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <Infra/Infra3/File.h>
#include <Infra/Infra3/PrintLog.h>
#include <Infra/Infra3/Semaphore.h>
#include <Infra/Infra3/ThreadLite.h>
#include <Infra/Infra3/ThreadManager.h>
#include <Infra/Infra3/Time.h>
#include <Infra/Infra3/Timer.h>
#include <Memory/Packet.h>
#include <Memory/PacketManager.h>

#include "HandOver.h"
#include "RotatingLog.h"

using Tarsel::Infra::CFile;
using Tarsel::Infra::CThreadLite;
using Tarsel::Infra::CThreadManager;
using Tarsel::Infra::CTime;
using Tarsel::Infra::CTimer;
using Tarsel::Infra::CTimerManager;
using Tarsel::Memory::CPacket;
using Tarsel::Memory::CPacketManager;

namespace
{

constexpr size_t poolSize = 1 << 20;
constexpr size_t chunkSize = 1024;
/// With its record and extra data a packet fills a block of 16 KiB.
constexpr size_t pieceSize = 16 * 1024 - 512;
/// More than the pool has packets: it is the pool that runs dry, not the queue.
constexpr int handOverPlaces = 128;
constexpr uint32_t readPeriodMs = 10;
constexpr uint32_t progressPeriodMs = 100;
constexpr unsigned stallMs = 10000;

/// Travels with each packet.
struct PieceHead
{
    uint64_t sequence;
    uint64_t checksum;
};

uint64_t checksumOf(const uint8_t* bytes, size_t count)
{
    uint64_t sum = 0xCBF29CE484222325; // FNV-1a
    for (size_t i = 0; i < count; ++i) {
        sum = (sum ^ bytes[i]) * 0x100000001B3;
    }
    return sum;
}

/// What both ends count, for the progress and the summary.
struct Counters
{
    std::atomic<uint64_t> packets{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> dryTicks{0};
    std::atomic<size_t> lowWater{poolSize};
    std::atomic<bool> failed{false};
};

/// Shows the first complaint about a dry pool, which is wanted here, and only counts the others.
/// They and the lines about single pieces are in the log file.
class CPrinter
{
public:
    void print(const char* text)
    {
        const bool aboutPool =
            strstr(text, "No Free Space") != nullptr || strstr(text, "NO enough") != nullptr;
        const bool aboutPiece = strstr(text, "]wrote piece ") != nullptr;
        if (aboutPiece || (aboutPool && m_complaints++ >= 2)) {
            return;
        }
        fputs(text, stdout);
    }

private:
    std::atomic<int> m_complaints{0};
};

/// Reads pieces for as long as there are packets to hold them.
class CReader
{
public:
    CReader(CFile& file, CHandOver& handOver, Counters& counters)
        : m_file(file), m_handOver(handOver), m_counters(counters), m_timer("reader")
    {}
    ~CReader() { stop(); }

    bool start() { return m_timer.start(CTimer::Proc(&CReader::read, this), 0, readPeriodMs); }
    void stop() { m_timer.stopAndWait(); }
    bool done() const { return m_done; }
    uint64_t pieces() const { return m_sequence; }

private:
    void read(unsigned long)
    {
        while (!m_done && m_handOver.reserve()) {
            CPacket packet(pieceSize, sizeof(PieceHead));
            if (!packet.valid()) {
                ++m_counters.dryTicks;
                m_handOver.release();
                return; // the piece stays in the file until the next call
            }
            noteLowWater();
            if (!fill(packet)) {
                m_handOver.release();
                m_done = true;
                m_timer.stop();
                return;
            }
            m_handOver.put(packet);
        }
    }

    /// Reads the next piece into `packet`; false at the end of the file.
    bool fill(CPacket& packet)
    {
        const long count = m_file.read(packet.getBuffer(), pieceSize);
        if (count <= 0) {
            return false;
        }
        packet.resize(static_cast<size_t>(count));
        const PieceHead head = {m_sequence, checksumOf(packet.getBuffer(), packet.size())};
        memcpy(packet.getExtraData(), &head, sizeof(head));
        ++m_sequence;
        return true;
    }

    void noteLowWater()
    {
        const size_t free = CPacketManager::instance()->getFreeSize();
        m_counters.lowWater = std::min<size_t>(m_counters.lowWater, free);
    }

    CFile& m_file;
    CHandOver& m_handOver;
    Counters& m_counters;
    std::atomic<uint64_t> m_sequence{0};
    std::atomic<bool> m_done{false};
    CTimer m_timer; // last: its destructor waits for a call that uses the others
};

/// Checks what arrives and writes it.
class CWriter
{
public:
    CWriter(CFile& copy, CHandOver& handOver, Counters& counters)
        : m_copy(copy),
          m_handOver(handOver),
          m_counters(counters),
          m_thread(CThreadLite::ThreadProc(&CWriter::run, this), "writer")
    {}

    bool start() { return m_thread.createThread(); }
    void stop()
    {
        if (!m_thread.isThreadOver()) {
            m_thread.destroyThread();
        }
    }

private:
    void run(CThreadLite& thread)
    {
        while (thread.looping()) {
            CThreadLite::setCurrentTimeout(stallMs);
            const CPacket packet = m_handOver.take(/*milliSeconds*/ 50);
            if (packet.valid() && !m_counters.failed && !write(packet)) {
                m_counters.failed = true;
            }
        }
    }

    bool write(const CPacket& packet)
    {
        PieceHead head = {};
        memcpy(&head, packet.getExtraData(), sizeof(head));
        if (head.sequence != m_counters.packets ||
            head.checksum != checksumOf(packet.getBuffer(), packet.size())) {
            logError("piece %llu arrived damaged or out of order\n",
                     static_cast<unsigned long long>(head.sequence));
            return false;
        }
        if (m_copy.write(packet.getBuffer(), packet.size()) != static_cast<long>(packet.size())) {
            logError("the copy cannot be written\n");
            return false;
        }
        m_counters.bytes += packet.size();
        ++m_counters.packets;
        logInfo("wrote piece %llu, %zu bytes\n", static_cast<unsigned long long>(head.sequence),
                packet.size());
        return true;
    }

    CFile& m_copy;
    CHandOver& m_handOver;
    Counters& m_counters;
    CThreadLite m_thread;
};

/// A bar on a terminal, plain lines otherwise.
class CProgress
{
public:
    CProgress(const Counters& counters, uint64_t total)
        : m_counters(counters),
          m_total(total),
          m_terminal(isatty(STDOUT_FILENO) == 1),
          m_timer("progress")
    {
        m_timer.start(CTimer::Proc(&CProgress::show, this), progressPeriodMs, progressPeriodMs);
    }

    /// Shows the end. The timer stays armed, but for an hour from now, so that the timer table has
    /// a row.
    void finish()
    {
        m_timer.setPeriodTime(3600 * 1000);
        show(0);
        printf(m_terminal ? "\n" : "");
    }

private:
    void show(unsigned long)
    {
        constexpr int width = 50;
        const uint64_t bytes = m_counters.bytes;
        const double part =
            m_total == 0 ? 1 : static_cast<double>(bytes) / static_cast<double>(m_total);
        if (m_terminal) {
            const std::string bar(static_cast<size_t>(part * width), '#');
            printf("\r[%-*s] %3.0f %%", width, bar.c_str(), part * 100);
        } else {
            printf("copied %llu of %llu bytes\n", static_cast<unsigned long long>(bytes),
                   static_cast<unsigned long long>(m_total));
        }
        fflush(stdout);
    }

    const Counters& m_counters;
    const uint64_t m_total;
    const bool m_terminal;
    CTimer m_timer;
};

bool sameContent(const std::string& left, const std::string& right)
{
    std::ifstream first(left, std::ios::binary);
    std::ifstream second(right, std::ios::binary);
    typedef std::istreambuf_iterator<char> Iterator;
    return first && second && std::equal(Iterator(first), Iterator(), Iterator(second), Iterator());
}

void configurePool()
{
    CPacketManager::PoolParameter pool = {poolSize, chunkSize, 8};
    CPacketManager::config(CPacketManager::policyPool, nullptr, &pool);
}

void showTables()
{
    CThreadManager::instance()->dumpThreads();
    CTimerManager::instance()->dumpTimers();
    CPacketManager::instance()->dumpNodes();
}

/// Waits until everything that was read has been written, or something failed.
void waitForEnd(const CReader& reader, const Counters& counters)
{
    uint64_t seen = 0;
    uint64_t changed = CTime::getCurrentMilliSecond();
    while (!counters.failed && !(reader.done() && counters.packets == reader.pieces())) {
        CThreadLite::sleep(1);
        if (counters.packets != seen) {
            seen = counters.packets;
            changed = CTime::getCurrentMilliSecond();
        } else if (CTime::getCurrentMilliSecond() - changed > stallMs) {
            logError("nothing has moved for %u ms\n", stallMs);
            return;
        }
    }
}

bool flow(const std::string& from, const std::string& to, Counters& counters)
{
    CFile file;
    CFile copy;
    if (!file.open(from.c_str(), CFile::modeRead) || !copy.open(to.c_str(), CFile::modeWrite)) {
        fprintf(stderr, "Flow: cannot open %s\n", (file.isOpen() ? to : from).c_str());
        return false;
    }

    configurePool();
    CHandOver handOver(handOverPlaces);
    CReader reader(file, handOver, counters);
    CWriter writer(copy, handOver, counters);
    CProgress progress(counters, file.getLength());
    // The writer starts late, so that the pool runs dry at least once.
    const bool reading = reader.start();
    while (reading && !reader.done() && counters.dryTicks == 0) {
        CThreadLite::sleep(1);
    }
    if (!reading || !writer.start()) {
        fprintf(stderr, "Flow: no threads to be had\n");
        return false;
    }
    waitForEnd(reader, counters);
    progress.finish();
    showTables();
    reader.stop();
    writer.stop();
    copy.close(); // what the disk had no room for is missing when the copies are compared
    return !counters.failed;
}

/// Prints the summary. True when the run was what it should be.
bool report(const std::string& from, const std::string& to, const Counters& counters,
            double seconds)
{
    CPacketManager& manager = *CPacketManager::instance();
    const bool same = sameContent(from, to);
    const bool allBack = manager.getFreeSize() == manager.getBufferSize();
    printf("%llu packets, %llu bytes, %.1f MB/s\n",
           static_cast<unsigned long long>(counters.packets),
           static_cast<unsigned long long>(counters.bytes),
           static_cast<double>(counters.bytes) / 1e6 / seconds);
    printf("pool: %zu bytes, low-water mark %zu, dry %llu times, %zu free now\n",
           manager.getBufferSize(), counters.lowWater.load(),
           static_cast<unsigned long long>(counters.dryTicks), manager.getFreeSize());
    printf("the copy is %s the file; %s\n", same ? "identical to" : "DIFFERENT from",
           allBack ? "every packet has returned to the pool" : "PACKETS ARE MISSING");
    return same && allBack;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: Flow FILE [COPY]\n"
                        "Sends FILE through packets into COPY, or into a temporary file.\n");
        return 2;
    }
    const std::string from = argv[1];
    const std::string temporary =
        (std::filesystem::temp_directory_path() / ("flow-" + std::to_string(getpid()))).string();
    const std::string to = argc == 3 ? argv[2] : temporary;

    CPrinter printer;
    Tarsel::Infra::setLogPrinter(Tarsel::Infra::LogPrinterProc(&CPrinter::print, &printer));
    const CRotatingLog log(temporary + "-log");
    Counters counters;
    const auto begin = std::chrono::steady_clock::now();
    bool good = flow(from, to, counters);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    good = good && report(from, to, counters, seconds.count());
    log.showFiles();
    if (argc == 2) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
    }
    Tarsel::Infra::setLogPrinter(Tarsel::Infra::LogPrinterProc());
    printf(good ? "Flow: done\n" : "Flow: FAILED\n");
    return good ? 0 : 1;
}

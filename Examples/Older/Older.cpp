// Older.cpp: a small recorder of measurements, written against the older class names throughout.
//
// A timer makes packets with a header, a thread takes them and writes a line for each to a file. The
// file lies under a prefix that a table of plain functions serves: it makes what is written upper
// case, as a stand-in for a storage with a driver of its own.

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <Infra/File.h>
#include <Infra/Mutex.h>
#include <Infra/Packet.h>
#include <Infra/Semaphore.h>
#include <Infra/Thread.h>
#include <Infra/Time.h>
#include <Infra/Timer.h>
#include <Infra/Unicode.h>

namespace
{

struct Header
{
    unsigned int number;
};

/// Packets on their way from the timer to the thread.
class CQueue
{
public:
    void put(const CPacket& packet)
    {
        {
            CGuard guard(m_mutex);
            m_packets.push_back(packet);
        }
        m_filled.Post();
    }
    CPacket take()
    {
        m_filled.Pend();
        CGuard guard(m_mutex);
        CPacket packet = m_packets.front();
        m_packets.erase(m_packets.begin());
        return packet;
    }

private:
    CMutex m_mutex;
    CSemaphore m_filled;
    std::vector<CPacket> m_packets; // guarded by m_mutex
};

/// Measures when its timer calls.
class CSensor : public CObject
{
public:
    explicit CSensor(CQueue& queue) : m_queue(queue), m_timer("sensor") {}

    bool start()
    {
        typedef void (CObject::*Call)(unsigned int);
        return m_timer.Start(this, static_cast<Call>(&CSensor::measure), /*delay*/ 0,
                             /*period*/ 10, /*param*/ 20);
    }
    void stop() { m_timer.StopAndWait(); }

private:
    void measure(unsigned int degrees)
    {
        const char unit[] = "\xb0"
                            "C"; // Windows-1252
        CPacket packet(100);
        if (packet.GetBuffer() == nullptr) {
            return;
        }
        const Header header = {++m_number};
        memcpy(packet.GetHeader(), &header, sizeof(header));
        packet.SetLength(0);
        std::string text = std::to_string(degrees + m_number) + " " + unit;
        packet.PutBuffer(&text[0], text.size());
        m_queue.put(packet);
    }

    CQueue& m_queue;
    unsigned int m_number = 0;
    CTimer m_timer; // last, so that it ends first
};

/// The text of a packet in UTF-8.
std::string textOf(const CPacket& packet)
{
    char text[300];
    const int length = static_cast<int>(packet.GetLength());
    if (cp1252_to_utf8(reinterpret_cast<uint8_t*>(text), sizeof(text), packet.GetBuffer(),
                       length) != 0) {
        return "";
    }
    return std::string(text, strnlen(text, sizeof(text)));
}

/// Writes what comes in.
class CRecorder : public CThread
{
public:
    CRecorder(CQueue& queue, const std::string& path)
        : CThread("recorder"), m_queue(queue), m_path(path)
    {}
    ~CRecorder() override { DestroyThread(); }

    void ThreadProc() override
    {
        CFile file;
        if (!file.Open(m_path.c_str(), CFile::modeWrite)) {
            return;
        }
        CTimeRecord record("recorder", lines + 1);
        for (int i = 0; i < lines; ++i) {
            record.sample("line");
            const CPacket packet = m_queue.take();
            Header header;
            memcpy(&header, packet.GetHeader(), sizeof(header));
            char stamp[32];
            CTime::getCurrentTime().format(stamp, CTime::getFormat().c_str());
            const std::string line = std::string(stamp) + " no. " + std::to_string(header.number) +
                                     ": " + textOf(packet) + "\n";
            file.Puts(line.c_str());
        }
        record.stat(/*threshold*/ 0);
        written = lines;
    }

    static const int lines = 3;
    int written = 0;

private:
    CQueue& m_queue;
    const std::string m_path;
};

// The storage: standard streams, through which letters become capitals.

FileHandle openFile(const char* path, const char* mode)
{
    const char plain[] = {mode[0], 'b', '\0'};
    return fopen(path, plain);
}

int closeFile(FileHandle file)
{
    return fclose(static_cast<FILE*>(file));
}

int putText(const char* text, FileHandle file)
{
    std::string capitals(text);
    for (char& letter : capitals) {
        letter = static_cast<char>(toupper(static_cast<unsigned char>(letter)));
    }
    return fputs(capitals.c_str(), static_cast<FILE*>(file));
}

size_t readBytes(void* buffer, size_t size, size_t n, FileHandle file)
{
    return fread(buffer, size, n, static_cast<FILE*>(file));
}

int seekTo(FileHandle file, long offset, int whence)
{
    return fseek(static_cast<FILE*>(file), offset, whence);
}

long whereIs(FileHandle file)
{
    return ftell(static_cast<FILE*>(file));
}

FSOperations storage()
{
    FSOperations operations = {};
    operations.fopen = openFile;
    operations.fclose = closeFile;
    operations.fputs = putText;
    operations.fread = readBytes;
    operations.fseek = seekTo;
    operations.ftell = whereIs;
    return operations;
}

void show(const std::string& path)
{
    CFile file;
    const unsigned char* const content = file.Load(path.c_str());
    if (content != nullptr) {
        printf("%.*s", static_cast<int>(file.GetLength()), reinterpret_cast<const char*>(content));
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    const std::string directory = std::string(argv[1]) + "/";
    const FSOperations operations = storage();
    hookFS(directory.c_str(), &operations);
    IPacketManager::config(/*pool*/ 1 << 20, /*chunk*/ 1024, /*header*/ sizeof(Header));
    CTime::setFormat("dd.MM.yyyy HH:mm:ss");
    IThreadManager::instance()->RegisterMainThread();

    CQueue queue;
    CSensor sensor(queue);
    CRecorder recorder(queue, directory + "record");
    if (!recorder.CreateThread() || !sensor.start()) {
        return 1;
    }
    while (!recorder.IsThreadOver()) {
        CTime::sleep(1);
    }
    sensor.stop();
    show(directory + "record");
    hookFS(directory.c_str(), nullptr);
    return recorder.written == CRecorder::lines ? 0 : 1;
}

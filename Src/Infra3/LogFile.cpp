// LogFile.cpp: a line into the file, and the file out of the way when it is full.
//
// Before a line is written the file is made ready:
//   1. once a process, what an earlier run has left: continued in the old way, else renamed;
//   2. a file that is closed is opened for appending;
//   3. one that is full is emptied (old way) or renamed, one of another day renamed; a file that was
//      just opened is not renamed, so that none is renamed empty.
// Renaming takes the next free number of the file's date. The number comes from a listing, which may
// have missed names (a link to nothing ends it), so a name that is taken all the same is passed
// over: no old file is ever overwritten. Nor is the new file emptied when it is opened, for its name
// is free after the renaming: what stands there all the same was written meanwhile.
// Behind the line, when nothing is under way any more, an old file is removed if one is too many.

#include "Infra3/LogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "Infra3/ErrorText.h"
#include "Infra3/FileInternal.h"
#include "Infra3/Fork.h"
#include "Infra3/Immortal.h"
#include "Infra3/LogFileComplaints.h"
#include "Infra3/LogFront.h"
#include "Infra3/LogLine.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// Sets a flag for the length of a scope.
class CFlagged
{
public:
    explicit CFlagged(bool& flag) : m_flag(flag) { m_flag = true; }
    ~CFlagged() { m_flag = false; }
    CFlagged(const CFlagged&) = delete;
    CFlagged& operator=(const CFlagged&) = delete;

private:
    bool& m_flag;
};

/// Alone in the log file for the length of a scope.
class CAlone
{
public:
    explicit CAlone(CLogFileGate& gate) : m_gate(gate) { m_gate.enterAlone(); }
    ~CAlone() { m_gate.leaveAlone(); }
    CAlone(const CAlone&) = delete;
    CAlone& operator=(const CAlone&) = delete;

private:
    CLogFileGate& m_gate;
};

/// With other lines in the log file for the length of a scope, if that can be.
class CWithOthers
{
public:
    explicit CWithOthers(CLogFileGate& gate) : m_gate(gate), m_areThere(gate.enterWithOthers()) {}
    ~CWithOthers()
    {
        if (m_areThere) {
            m_gate.leaveOthers();
        }
    }
    CWithOthers(const CWithOthers&) = delete;
    CWithOthers& operator=(const CWithOthers&) = delete;

    bool areThere() const { return m_areThere; }

private:
    CLogFileGate& m_gate;
    const bool m_areThere;
};

/// Out of the log file, where the thread was alone, for the length of a scope.
class CMeanwhileOut
{
public:
    explicit CMeanwhileOut(CLogFileGate& gate) : m_gate(gate) { m_gate.leaveAlone(); }
    ~CMeanwhileOut() { m_gate.enterAlone(); }
    CMeanwhileOut(const CMeanwhileOut&) = delete;
    CMeanwhileOut& operator=(const CMeanwhileOut&) = delete;

private:
    CLogFileGate& m_gate;
};

LogDate dateOf(const Infra_SystemTimeEx& time)
{
    return {time.year, time.month, time.day};
}

/// Complains that a call of the system has failed, with the line that says so.
void complainOf(const char* call, int line = __builtin_LINE())
{
    const int error = errno;
    complain(__FILE__, line, "%s faild,errno:%d, errmesg:%s\n", call, error,
             CErrorText(error).c_str());
}

/// rename() that fails with EEXIST instead of replacing a file, where the file system can.
bool renameToNew(const char* from, const char* to)
{
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    struct stat status;
    if (lstat(to, &status) == 0) {
        errno = EEXIST;
        return false;
    }
    return rename(from, to) == 0;
}

/// True for what is there and is no file proper: a device, a pipe, a directory.
bool isNoFile(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

/// True when a hook may be asked for the directory or for one of the old files.
bool isHooked(const std::string& path, const std::string& directory)
{
    const IFileSystem* const system = FileDefaultOpt::instance();
    return &fileSystemFor(directory.c_str()) != system || &fileSystemFor(path.c_str()) != system ||
           isHookedBelow(path.c_str());
}

int64_t nanoseconds(const timespec& time)
{
    return int64_t{1000000000} * time.tv_sec + time.tv_nsec;
}

/// The system stamps all files that are written within one of its ticks alike. Of several that are
/// filled so fast the oldest must be seen, so `path` is made to look younger than `last` by as little
/// as can be. Returns when it was changed last.
timespec putInOrder(const std::string& path, const timespec& last)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        return last;
    }
    const int64_t older = nanoseconds(last) - nanoseconds(status.st_mtim);
    if (older < 0 || older > 1000000000 || last.tv_nsec == 999999999) {
        return status.st_mtim; // younger, or the clock was set back
    }
    const timespec times[2] = {{0, UTIME_OMIT}, {last.tv_sec, last.tv_nsec + 1}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
    return times[1];
}

} // namespace

// --- the stream ---------------------------------------------------------------------------------

bool CLogStream::open(const char* path)
{
    close();
    // Reading is asked for as well: opening a pipe that nobody reads yet must not wait.
    int descriptor = ::open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        // A service may have closed its standard streams; what it prints must not end up here.
        const int above = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        ::close(descriptor);
        descriptor = above;
    }
    if (descriptor < 0) {
        return false;
    }
    struct stat status;
    ++m_changes;
    m_descriptor = descriptor;
    m_regular = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    return true;
}

void CLogStream::close()
{
    if (isOpen()) {
        ++m_changes;
        ::close(std::exchange(m_descriptor, -1));
    }
}

bool CLogStream::empty()
{
    return ftruncate(m_descriptor, 0) == 0;
}

size_t CLogStream::appendOnce(const char* text, size_t length) const
{
    ssize_t count = -1;
    do {
        count = ::write(m_descriptor, text, length);
    } while (count < 0 && errno == EINTR);
    return count < 0 ? 0 : static_cast<size_t>(count);
}

size_t CLogStream::append(const char* text, size_t length)
{
    size_t done = 0;
    while (done < length) {
        const size_t count = appendOnce(text + done, length - done);
        if (count == 0) {
            break;
        }
        done += count;
    }
    if (done > 0 && done < length && m_regular) {
        takeBack(text, done);
        return 0;
    }
    return done;
}

void CLogStream::takeBack(const char* text, size_t length)
{
    struct stat status;
    const auto size = static_cast<off_t>(length);
    if (fstat(m_descriptor, &status) == 0 && status.st_size >= size &&
        holds(status.st_size - size, text, length)) {
        [[maybe_unused]] const int result = ftruncate(m_descriptor, status.st_size - size);
    }
}

/// True when `text` is what the file has from `begin` on.
bool CLogStream::holds(off_t begin, const char* text, size_t length) const
{
    char piece[512];
    while (length > 0) {
        const ssize_t count = pread(m_descriptor, piece, std::min(length, sizeof(piece)), begin);
        if (count <= 0 || memcmp(piece, text, static_cast<size_t>(count)) != 0) {
            return false;
        }
        begin += count;
        text += count;
        length -= static_cast<size_t>(count);
    }
    return true;
}

// --- settings -----------------------------------------------------------------------------------

struct LogFileFork
{
    static void prepare() { logFile().m_gate.enterAlone(); }
    static void parent() { logFile().m_gate.leaveAlone(); }
    static void child()
    {
        // A thread that was asking a hook has stayed behind.
        logFile().m_moving = false;
        logFile().m_gate.renewInChild();
    }
    static constexpr ForkPart part = {prepare, parent, child};
};

CLogFile::CLogFile()
{
    joinFork(ForkRank::logFile, LogFileFork::part);
}

CLogFile& logFile()
{
    return immortal<CLogFile, CLogFile>();
}

void CLogFile::setPath(const char* path)
{
    // Made here, for making it takes a lock that must not be waited for in the log file.
    FileDefaultOpt::instance();

    const size_t length = strlen(path);
    const char* const slash = strrchr(path, '/');
    std::string newPath = slash == nullptr && length > 0 ? std::string("./") + path : path;
    std::string newDirectory = slash == nullptr ? "./" : std::string(path, slash + 1) + "*";
    if (length > 0 && (path[length - 1] == '/' || path[length - 1] == '\\')) {
        printf("[%s:%d]logDir is invalid\n", __FILE__, __LINE__);
        newPath.clear();
    }
    const CAlone alone(m_gate);
    if (m_path != newPath) {
        ++m_pathChanges;
    }
    m_path.swap(newPath);
    m_directory.swap(newDirectory);
    m_on.store(!m_path.empty(), std::memory_order_relaxed);
}

void CLogFile::setSizeLimit(int32_t bytes)
{
    const CAlone alone(m_gate);
    m_sizeLimit = bytes;
}

void CLogFile::saveInOldWay()
{
    const CAlone alone(m_gate);
    m_oldWay = true;
}

void CLogFile::saveBySize(int32_t bytes, int32_t oldFiles)
{
    const CAlone alone(m_gate);
    m_sizeLimit = bytes;
    m_oldFiles = oldFiles;
    m_oldWay = false;
}

void CLogFile::saveByDay(bool on, int32_t oldFiles)
{
    const CAlone alone(m_gate);
    m_byDay = on;
    m_oldFiles = oldFiles;
    m_oldWay = false;
}

// --- one line -----------------------------------------------------------------------------------

void CLogFile::write(const char* text, size_t length, const Infra_SystemTimeEx& now)
{
    if (!m_on.load(std::memory_order_relaxed) || CLogFileComplaints::areKept()) {
        return;
    }
    size_t begun = 0;
    if (!writeWithOthers(text, length, dateOf(now), begun)) {
        writeAlone(text, length, begun, now);
    }
}

/// Writes a line that needs nothing but to be appended, as all do but one in thousands. False if this
/// one has to be written alone; `begun` bytes of it, which may have others behind them, are in the
/// file then.
bool CLogFile::writeWithOthers(const char* text, size_t length, const LogDate& today, size_t& begun)
{
    const CWithOthers others(m_gate);
    if (!others.areThere() || !isOpenForLines(today)) {
        return false;
    }
    // A line is counted before it is written, so that the next one finds the file full.
    const auto size = static_cast<int64_t>(length);
    if (isFull(m_length.fetch_add(size, std::memory_order_relaxed))) {
        m_length.fetch_sub(size, std::memory_order_relaxed);
        return false;
    }
    const size_t done = m_stream.appendOnce(text, length);
    if (done == length) {
        return true;
    }
    m_length.fetch_sub(size, std::memory_order_relaxed);
    begun = done;
    return done == 0;
}

/// True while lines of `today` may go in together.
bool CLogFile::isOpenForLines(const LogDate& today) const
{
    const bool mayBeAnotherDay = m_byDay && !m_oldWay && m_openedOn != today;
    return m_stream.isOpen() && m_stream.isRegular() && !m_path.empty() && !mayBeAnotherDay &&
           !m_limitDue;
}

void CLogFile::writeAlone(const char* text, size_t length, size_t begun,
                          const Infra_SystemTimeEx& now)
{
    const CLogFileComplaints complaints;
    const CLogHold hold;
    const CAlone alone(m_gate);
    if (begun > 0 && m_stream.isOpen()) {
        m_stream.takeBack(text, begun);
    }
    if (m_path.empty()) {
        return;
    }
    bool ready = false;
    try {
        ready = prepare(dateOf(now));
    } catch (const std::bad_alloc&) {
        // No new file without memory: the one that is there takes this line too.
        ready = m_stream.isOpen() || openNew(dateOf(now));
    }
    if (ready) {
        m_length += static_cast<int64_t>(m_stream.append(text, length));
    }
    if (m_limitDue && !m_moving) {
        limitOldFiles();
    }
}

void CLogFile::close()
{
    const CAlone alone(m_gate);
    m_stream.close();
}

bool CLogFile::prepare(const LogDate& today)
{
    treatLeftover(today);
    if (m_path.empty()) {
        return false; // switched off while a hook ran
    }
    const bool justOpened = !m_stream.isOpen();
    if (justOpened && !openNew(today)) {
        return false;
    }
    if (m_oldWay && isFull(m_length)) {
        empty();
    } else if (!justOpened && isRotationDue(today)) {
        rotate(today);
    }
    return m_stream.isOpen();
}

void CLogFile::treatLeftover(const LogDate& today)
{
    if (std::exchange(m_leftoverTreated, true)) {
        return;
    }
    struct stat status;
    if (stat(m_path.c_str(), &status) != 0) {
        return;
    }
    if (m_oldWay) {
        m_length = status.st_size;
        return;
    }
    if (!S_ISREG(status.st_mode)) {
        return;
    }
    const unsigned path = m_pathChanges;
    const int number = nextNumber(today);
    if (m_pathChanges == path) {
        moveAway(today, number);
        m_limitDue = true;
    }
}

/// Opens the file at the path for appending; complains if that fails.
bool CLogFile::open()
{
    if (m_path.empty()) {
        return false; // switched off while a hook ran
    }
    const bool opened = m_stream.open(m_path.c_str());
    m_openedPath = m_pathChanges;
    if (!opened) {
        complainOf("fopen");
    }
    return opened;
}

bool CLogFile::openNew(const LogDate& today)
{
    const bool opened = open();
    if (opened) {
        m_openedOn = today;
    }
    return opened;
}

bool CLogFile::isFull(int64_t length) const
{
    return m_sizeLimit > 0 && length >= m_sizeLimit;
}

bool CLogFile::isDayOver(const LogDate& today) const
{
    if (!m_byDay || m_openedOn.year == 0 || m_openedOn == today) {
        return false;
    }
    // A line that was laid out before midnight and gets here after the first one of the new day does
    // not turn the day back.
    return m_openedOn != dateOf(currentMoment().time);
}

bool CLogFile::isRotationDue(const LogDate& today) const
{
    return !m_oldWay && (isFull(m_length) || isDayOver(today));
}

void CLogFile::empty()
{
    if (!m_stream.empty()) {
        complainOf("ftruncate");
    }
    m_length = 0;
}

// --- renaming -----------------------------------------------------------------------------------

template <typename Question>
auto CLogFile::askFileSystem(const Question& question)
{
    const CFlagged moving(m_moving);
    if (!isHooked(m_path, m_directory)) {
        // Also if one is hooked at this moment: no application code while others wait.
        return question(m_path, m_directory, FileDefaultOpt::instance());
    }
    const std::string path = m_path;
    const std::string directory = m_directory;
    const CMeanwhileOut out(m_gate);
    return question(path, directory, nullptr);
}

/// Makes the file an old one and opens a new one; or leaves all as it is where that cannot be.
void CLogFile::rotate(const LogDate& today)
{
    const bool isOtherPath = m_openedPath != m_pathChanges;
    if (m_moving || (!m_stream.isRegular() && !isOtherPath)) {
        return;
    }
    if (isOtherPath && isNoFile(m_path)) {
        openNew(today); // a device has no old files
        return;
    }
    const unsigned path = m_pathChanges;
    const unsigned stream = m_stream.changes();
    const LogDate date = m_openedOn;
    const int number = nextNumber(date);
    if (m_pathChanges == path && m_stream.changes() == stream && isRotationDue(today)) {
        if (moveAway(date, number)) {
            m_limitDue = true;
            openNew(today);
        } else {
            open();
        }
    } else if (!m_stream.isOpen()) {
        openNew(today); // closed while a hook ran
    }
}

/// Renames what is at the path by `date` and closes the file; complains if the first fails.
bool CLogFile::moveAway(const LogDate& date, int number)
{
    const bool moved = rename(date, number);
    if (moved) {
        m_length = 0;
    } else {
        complainOf("rename");
    }
    m_stream.close();
    return moved;
}

/// Tries numbers from `number` on. Behind the first that is taken it goes on with the one after the
/// last that it gave itself, lest a folder that cannot be listed be searched name by name.
bool CLogFile::rename(const LogDate& date, int number)
{
    int64_t next = number;
    int64_t afterTaken = 0;
    if (m_lastOld.pathChanges == m_pathChanges && m_lastOld.date == date) {
        afterTaken = int64_t{m_lastOld.number} + 1;
    }
    for (; next <= INT_MAX; next = std::max(next + 1, afterTaken)) {
        const std::string name = oldLogName(m_path, date, static_cast<int>(next));
        if (renameToNew(m_path.c_str(), name.c_str())) {
            const timespec changed = putInOrder(name, m_lastOld.changed);
            m_lastOld = {m_pathChanges, date, static_cast<int>(next), changed};
            return true;
        }
        if (errno != EEXIST) {
            return false;
        }
    }
    errno = EEXIST;
    return false;
}

int CLogFile::nextNumber(const LogDate& date)
{
    return askFileSystem(
        [&date](const std::string& path, const std::string& directory, IFileSystem* fileSystem) {
            return nextLogNumber(path, directory, date, fileSystem);
        });
}

void CLogFile::limitOldFiles()
{
    m_limitDue = false;
    const int32_t limit = m_oldFiles;
    if (limit == 0 || m_path.empty()) {
        return;
    }
    try {
        askFileSystem([limit](const std::string& path, const std::string& directory,
                              IFileSystem* fileSystem) {
            limitLogFiles(path, directory, limit, fileSystem);
        });
    } catch (const std::bad_alloc&) {
        // The file too many stays until the next renaming.
    }
}

} // namespace Infra
} // namespace Tarsel

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

#include "Infra/Infra3/Guard.h"
#include "Infra3/ErrorText.h"
#include "Infra3/FileInternal.h"
#include "Infra3/Fork.h"
#include "Infra3/Immortal.h"
#include "Infra3/LogFront.h"
#include "Infra3/LogLine.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// The calling thread is in the log file: what is logged on its way does not come here again.
constinit thread_local bool t_inside = false;

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

/// Lets a mutex go for the length of a scope.
class CUnlocked
{
public:
    explicit CUnlocked(CMutex& mutex) : m_mutex(mutex) { m_mutex.leave(); }
    ~CUnlocked() { m_mutex.enter(); }
    CUnlocked(const CUnlocked&) = delete;
    CUnlocked& operator=(const CUnlocked&) = delete;

private:
    CMutex& m_mutex;
};

LogDate dateOf(const Infra_SystemTimeEx& time)
{
    return {time.year, time.month, time.day};
}

/// Prints that a call of the system has failed, with the line that says so.
void complain(const char* call, int line = __builtin_LINE())
{
    const int error = errno;
    printf("[%s:%d]%s faild,errno:%d, errmesg:%s\n", __FILE__, line, call, error,
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

size_t CLogStream::append(const char* text, size_t length)
{
    size_t done = 0;
    while (done < length) {
        const ssize_t count = ::write(m_descriptor, text + done, length - done);
        if (count > 0) {
            done += static_cast<size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    if (done > 0 && done < length && m_regular) {
        takeBack(done);
        return 0;
    }
    return done;
}

/// Takes the last `length` bytes away again, unless somebody else has appended behind them.
void CLogStream::takeBack(size_t length)
{
    struct stat status;
    const off_t end = lseek(m_descriptor, 0, SEEK_CUR);
    if (fstat(m_descriptor, &status) == 0 && status.st_size == end &&
        end >= static_cast<off_t>(length)) {
        [[maybe_unused]] const int result =
            ftruncate(m_descriptor, end - static_cast<off_t>(length));
    }
}

// --- settings -----------------------------------------------------------------------------------

struct LogFileFork
{
    static void prepare() { logFile().m_mutex.enter(); }
    static void parent() { logFile().m_mutex.leave(); }
    static void child()
    {
        // A thread that was renaming with the lock let go has stayed behind.
        logFile().m_moving = false;
        ForkAccess::renewTaken(logFile().m_mutex);
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
    // Made here, for making it takes a lock that must not be waited for under ours.
    FileDefaultOpt::instance();

    const size_t length = strlen(path);
    const char* const slash = strrchr(path, '/');
    std::string newPath = slash == nullptr && length > 0 ? std::string("./") + path : path;
    std::string newDirectory = slash == nullptr ? "./" : std::string(path, slash + 1) + "*";
    if (length > 0 && (path[length - 1] == '/' || path[length - 1] == '\\')) {
        printf("[%s:%d]logDir is invalid\n", __FILE__, __LINE__);
        newPath.clear();
    }
    CGuard guard(m_mutex);
    if (m_path != newPath) {
        ++m_pathChanges;
    }
    m_path.swap(newPath);
    m_directory.swap(newDirectory);
    m_on.store(!m_path.empty(), std::memory_order_relaxed);
}

void CLogFile::setSizeLimit(int32_t bytes)
{
    CGuard guard(m_mutex);
    m_sizeLimit = bytes;
}

void CLogFile::saveInOldWay()
{
    CGuard guard(m_mutex);
    m_oldWay = true;
}

void CLogFile::saveBySize(int32_t bytes, int32_t oldFiles)
{
    CGuard guard(m_mutex);
    m_sizeLimit = bytes;
    m_oldFiles = oldFiles;
    m_oldWay = false;
}

void CLogFile::saveByDay(bool on, int32_t oldFiles)
{
    CGuard guard(m_mutex);
    m_byDay = on;
    m_oldFiles = oldFiles;
    m_oldWay = false;
}

// --- one line -----------------------------------------------------------------------------------

void CLogFile::write(const char* text, size_t length, const Infra_SystemTimeEx& now)
{
    if (!m_on.load(std::memory_order_relaxed) || t_inside) {
        return;
    }
    const CFlagged inside(t_inside);
    const CLogHold hold;
    CGuard guard(m_mutex);
    if (m_path.empty()) {
        return;
    }
    bool ready = false;
    try {
        ready = prepareLocked(dateOf(now));
    } catch (const std::bad_alloc&) {
        // No new file without memory: the one that is there takes this line too.
        ready = m_stream.isOpen() || openNewLocked(dateOf(now));
    }
    if (ready) {
        m_length += static_cast<int64_t>(m_stream.append(text, length));
    }
    if (m_limitDue && !m_moving) {
        limitOldFilesLocked();
    }
}

void CLogFile::close()
{
    CGuard guard(m_mutex);
    m_stream.close();
}

bool CLogFile::prepareLocked(const LogDate& today)
{
    treatLeftoverLocked(today);
    if (m_path.empty()) {
        return false; // switched off while a hook ran
    }
    const bool justOpened = !m_stream.isOpen();
    if (justOpened && !openNewLocked(today)) {
        return false;
    }
    if (m_oldWay && isFullLocked()) {
        emptyLocked();
    } else if (!justOpened && isRotationDueLocked(today)) {
        rotateLocked(today);
    }
    return m_stream.isOpen();
}

void CLogFile::treatLeftoverLocked(const LogDate& today)
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
    const int number = nextNumberLocked(today);
    if (m_pathChanges == path) {
        moveAwayLocked(today, number);
        m_limitDue = true;
    }
}

/// Opens the file at the path for appending; complains if that fails.
bool CLogFile::openLocked()
{
    if (m_path.empty()) {
        return false; // switched off while a hook ran
    }
    const bool opened = m_stream.open(m_path.c_str());
    m_openedPath = m_pathChanges;
    if (!opened) {
        complain("fopen");
    }
    return opened;
}

bool CLogFile::openNewLocked(const LogDate& today)
{
    const bool opened = openLocked();
    if (opened) {
        m_openedOn = today;
    }
    return opened;
}

bool CLogFile::isFullLocked() const
{
    return m_sizeLimit > 0 && m_length >= m_sizeLimit;
}

bool CLogFile::isDayOverLocked(const LogDate& today) const
{
    if (!m_byDay || m_openedOn.year == 0 || m_openedOn == today) {
        return false;
    }
    // A line that was laid out before midnight and gets here after the first one of the new day does
    // not turn the day back.
    return m_openedOn != dateOf(currentMoment().time);
}

bool CLogFile::isRotationDueLocked(const LogDate& today) const
{
    return !m_oldWay && (isFullLocked() || isDayOverLocked(today));
}

void CLogFile::emptyLocked()
{
    if (!m_stream.empty()) {
        complain("ftruncate");
    }
    m_length = 0;
}

// --- renaming -----------------------------------------------------------------------------------

template <typename Question>
auto CLogFile::askFileSystemLocked(const Question& question)
{
    const CFlagged moving(m_moving);
    if (!isHooked(m_path, m_directory)) {
        // Also if one is hooked at this moment: no application code under the lock.
        return question(m_path, m_directory, FileDefaultOpt::instance());
    }
    const std::string path = m_path;
    const std::string directory = m_directory;
    const CUnlocked unlocked(m_mutex);
    return question(path, directory, nullptr);
}

/// Makes the file an old one and opens a new one; or leaves all as it is where that cannot be.
void CLogFile::rotateLocked(const LogDate& today)
{
    const bool isOtherPath = m_openedPath != m_pathChanges;
    if (m_moving || (!m_stream.isRegular() && !isOtherPath)) {
        return;
    }
    if (isOtherPath && isNoFile(m_path)) {
        openNewLocked(today); // a device has no old files
        return;
    }
    const unsigned path = m_pathChanges;
    const unsigned stream = m_stream.changes();
    const LogDate date = m_openedOn;
    const int number = nextNumberLocked(date);
    if (m_pathChanges == path && m_stream.changes() == stream && isRotationDueLocked(today)) {
        if (moveAwayLocked(date, number)) {
            m_limitDue = true;
            openNewLocked(today);
        } else {
            openLocked();
        }
    } else if (!m_stream.isOpen()) {
        openNewLocked(today); // closed while a hook ran
    }
}

/// Renames what is at the path by `date` and closes the file; complains if the first fails.
bool CLogFile::moveAwayLocked(const LogDate& date, int number)
{
    const bool moved = renameLocked(date, number);
    if (moved) {
        m_length = 0;
    } else {
        complain("rename");
    }
    m_stream.close();
    return moved;
}

/// Tries numbers from `number` on. Behind the first that is taken it goes on with the one after the
/// last that it gave itself, lest a folder that cannot be listed be searched name by name.
bool CLogFile::renameLocked(const LogDate& date, int number)
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

int CLogFile::nextNumberLocked(const LogDate& date)
{
    return askFileSystemLocked(
        [&date](const std::string& path, const std::string& directory, IFileSystem* fileSystem) {
            return nextLogNumber(path, directory, date, fileSystem);
        });
}

void CLogFile::limitOldFilesLocked()
{
    m_limitDue = false;
    const int32_t limit = m_oldFiles;
    if (limit == 0 || m_path.empty()) {
        return;
    }
    try {
        askFileSystemLocked([limit](const std::string& path, const std::string& directory,
                                    IFileSystem* fileSystem) {
            limitLogFiles(path, directory, limit, fileSystem);
        });
    } catch (const std::bad_alloc&) {
        // The file too many stays until the next renaming.
    }
}

} // namespace Infra
} // namespace Tarsel

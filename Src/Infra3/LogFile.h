#ifndef INFRA_SRC_INFRA3_LOGFILE_H
#define INFRA_SRC_INFRA3_LOGFILE_H

// The log file: where it lies, when a new one is begun, and how a line gets into it.
//
//     ./app.log                  the live file, always open for appending, closed by logCleanup()
//     ./app.log_2026-11-23_0     old files: the date of their opening, a number within the date;
//     ./app.log_2026-11-23_1     a file that an earlier run left has the date on which it was found
//
// Old way: a file that is full is emptied in place. New way: it is renamed, by size, by day or by
// both, and of the old files so many are kept.
//
// A line is one write() and nothing else: what it costs is what the system asks for a write. The
// directory is listed when a file is renamed, never before. A line is in the file whole or not at
// all, and only what the system took counts towards the size, so a full disk neither tears lines nor
// has good files renamed away; lines flow again as soon as there is room.
//
// Locks: one, m_gate, around all of it. Lines that only have to be appended are let in together; a
// line counts towards the size before it is written, so that also then a file ends with the line
// that filled it. To open, close, rename or set something a thread is alone.
// Old files are listed and removed through the replaceable file system: inside while none is hooked.
// Hooks are application code and are asked from outside: lines of other threads meanwhile go on into
// the file that is still open, and whoever renames looks again afterwards whether path and file are
// the same and the file is still to be renamed. (A hook that logs under a lock which its listing
// takes as well may meet itself: its line can be the one that renames.)
// A line that a thread logs while it is in here (the file system speaks through the log too) goes
// everywhere but to the file. Log lines of the library and complaints are held back until the thread
// has left.

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra3/LogFileGate.h"
#include "Infra3/LogFileNames.h"

namespace Tarsel
{
namespace Infra
{

/// A file open for appending, closed on exec. Owned by one thread at a time.
class CLogStream
{
public:
    CLogStream() = default;
    ~CLogStream() { close(); }
    CLogStream(const CLogStream&) = delete;
    CLogStream& operator=(const CLogStream&) = delete;

    bool isOpen() const { return m_descriptor >= 0; }
    /// True for a file proper; a device or a pipe is never renamed away.
    bool isRegular() const { return m_regular; }

    /// Opens `path`, making it if it is missing. False, with errno set, on failure.
    bool open(const char* path);
    void close();
    /// How often the file was opened or closed.
    unsigned changes() const { return m_changes; }
    /// Empties the file. False, with errno set, on failure.
    bool empty();
    /// Appends all of `text` or, on a regular file, nothing. Returns the bytes that are in the file
    /// now.
    size_t append(const char* text, size_t length);
    /// Appends what the system takes of `text` at once; safe from several threads. Returns the bytes.
    size_t appendOnce(const char* text, size_t length) const;
    /// Takes `length` bytes of `text` away again, unless somebody has appended behind them.
    void takeBack(const char* text, size_t length);

private:
    bool holds(off_t begin, const char* text, size_t length) const;

    int m_descriptor = -1;
    bool m_regular = false;
    unsigned m_changes = 0;
};

/// What is to be known of the old file that was made last.
struct OldLog
{
    unsigned pathChanges = 0; ///< of which path; its date and number there
    LogDate date = {0, 0, 0};
    int number = 0;
    timespec changed = {0, 0}; ///< when its last line was written
};

/// The process's log file with its settings. Safe from any thread.
class CLogFile
{
public:
    CLogFile();

    /// @param path  without a directory: in the working directory; empty: no log file from now on;
    ///              with a '/' or '\\' at its end: the same, and a complaint
    void setPath(const char* path);
    /// @param bytes  0: no limit
    void setSizeLimit(int32_t bytes);
    void saveInOldWay();
    /// @param oldFiles  how many are kept; 0: all
    void saveBySize(int32_t bytes, int32_t oldFiles);
    void saveByDay(bool on, int32_t oldFiles);

    /// Appends one text, in a new file if the one there is full or of another day.
    void write(const char* text, size_t length, const Infra_SystemTimeEx& now);
    void close();

private:
    friend struct LogFileFork;

    bool writeWithOthers(const char* text, size_t length, const LogDate& today, size_t& begun);
    bool isOpenForLines(const LogDate& today) const;
    bool isFull(int64_t length) const;

    void writeAlone(const char* text, size_t length, size_t begun, const Infra_SystemTimeEx& now);
    // Called alone.
    bool prepare(const LogDate& today);
    void treatLeftover(const LogDate& today);
    bool open();
    bool openNew(const LogDate& today);
    bool isDayOver(const LogDate& today) const;
    bool isRotationDue(const LogDate& today) const;
    void empty();
    void rotate(const LogDate& today);
    bool moveAway(const LogDate& date, int number);
    bool rename(const LogDate& date, int number);
    int nextNumber(const LogDate& date);
    void limitOldFiles();
    /// Calls question(path, directory, fileSystem) as LogFileNames.h wants it; lets the lock go
    /// meanwhile if a file system is hooked.
    template <typename Question>
    auto askFileSystem(const Question& question);

    std::atomic<bool> m_on{false}; ///< a path is set; asked before the lock

    CLogFileGate m_gate;        // all below: read inside, changed alone
    std::string m_path;         ///< empty: no log file
    std::string m_directory;    ///< as it is listed
    unsigned m_pathChanges = 0; ///< how often the two were changed
    int32_t m_sizeLimit = 0;    ///< bytes; 0: none
    int32_t m_oldFiles = 0;     ///< how many are kept; 0: all
    bool m_oldWay = true;       ///< a full file is emptied in place
    bool m_byDay = false;

    CLogStream m_stream;
    unsigned m_openedPath = 0;        ///< m_pathChanges when it was opened
    std::atomic<int64_t> m_length{0}; ///< bytes of the file, as counted here; survives a closing
    LogDate m_openedOn = {0, 0, 0};   ///< what an old file is named after
    bool m_leftoverTreated = false;   ///< the file of an earlier run is treated once a process
    bool m_moving = false;            ///< some thread is asking the file system, perhaps unlocked
    bool m_limitDue = false;          ///< a file has become an old one
    OldLog m_lastOld;                 ///< the one renamed last
};

/// The one log file.
CLogFile& logFile();

} // namespace Infra
} // namespace Tarsel

#endif

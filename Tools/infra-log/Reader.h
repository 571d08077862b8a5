#ifndef INFRA_TOOLS_LOG_READER_H
#define INFRA_TOOLS_LOG_READER_H

// Reads a log from its first file to its last, and on while it is written.
//
// The log may be renamed at any moment. So the file that is written now is opened first and the
// renamed ones are listed after that: what is renamed meanwhile is in the list, and known by its
// inode to be the open one.

#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <optional>
#include <string>

#include "Common/Failure.h"
#include "LogFiles.h"
#include "Record.h"

/// The local date of a system time.
std::chrono::year_month_day dayOf(time_t time);

/// An open file to read from. Not copyable; closes the file.
class CInput
{
public:
    CInput() = default;
    /// The path "-" is standard input. Not open when there is no such file; throws CFailure when it
    /// cannot be opened otherwise.
    explicit CInput(const std::string& path);
    CInput(CInput&& other) noexcept;
    CInput& operator=(CInput&& other) noexcept;
    ~CInput();

    bool isOpen() const { return m_file >= 0; }
    bool isSameFile(const struct stat& other) const;
    const struct stat& state() const { return m_state; }
    /// Hands on all that can be read now. False when that was nothing.
    bool readTo(CRecords& records);
    void beginAgain();
    /// Begins again where the file was made shorter than what was read; false where it was not.
    bool beginAgainIfTruncated();

private:
    std::string m_path;
    int m_file = -1;
    struct stat m_state = {};
};

class CReader
{
public:
    /// Told why one of the files cannot be read; the others are.
    typedef std::function<void(const CFailure&)> Complain;

    /// With `withRenamed` all renamed files belong to a log that was named, else those that were.
    CReader(Log log, bool withRenamed, CRecords& records, Complain complain);

    /// Up to where the log ends now. Throws CFailure.
    void readAll();
    /// For ever. Looks for news once every `interval`, and calls `idle` when there are none.
    [[noreturn]] void follow(std::chrono::milliseconds interval, const std::function<void()>& idle);

private:
    bool goToNewest();
    void readRenamedBefore(const CInput& newest);
    void readNamed();
    void readWhole(const LogFile& file);
    void trying(const std::function<void()>& step);
    bool hasMoved() const;

    Log m_log;
    bool m_withRenamed;
    CRecords& m_records;
    Complain m_complain;
    CInput m_input;                  // the file that is written now, as far as is known
    std::optional<Rotation> m_known; // the last renamed file that is read or left out
};

#endif

// Reader.cpp: reads logs.

#include "Reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <thread>
#include <utility>

#include "Common/Failure.h"

namespace
{

/// The date of the first line of a file whose lines give none: its last line is as old as the file,
/// and the days that end between them can be counted. Today for what is no file.
std::chrono::year_month_day firstDayOf(CInput& input)
{
    const struct stat& state = input.state();
    if (!S_ISREG(state.st_mode)) {
        return dayOf(time(nullptr));
    }
    CRecords records([](const Record&) {});
    input.readTo(records);
    records.flush(true);
    input.beginAgain();
    const auto last = std::chrono::local_days(dayOf(state.st_mtime));
    return std::chrono::year_month_day(last - std::chrono::days(records.calendar().daysEnded()));
}

} // namespace

std::chrono::year_month_day dayOf(time_t time)
{
    struct tm parts = {};
    localtime_r(&time, &parts);
    return std::chrono::year_month_day(std::chrono::year(parts.tm_year + 1900),
                                       std::chrono::month(static_cast<unsigned>(parts.tm_mon + 1)),
                                       std::chrono::day(static_cast<unsigned>(parts.tm_mday)));
}

// CInput -----------------------------------------------------------------------------------------

CInput::CInput(const std::string& path)
    : m_path(path),
      m_file(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC))
{
    if (m_file < 0 && errno == ENOENT) {
        return;
    }
    if (m_file < 0 || fstat(m_file, &m_state) != 0) {
        throw CFailure::ofSystem(path);
    }
}

CInput::CInput(CInput&& other) noexcept
    : m_path(std::move(other.m_path)),
      m_file(std::exchange(other.m_file, -1)),
      m_state(other.m_state)
{}

CInput& CInput::operator=(CInput&& other) noexcept
{
    std::swap(m_path, other.m_path);
    std::swap(m_file, other.m_file);
    std::swap(m_state, other.m_state);
    return *this;
}

CInput::~CInput()
{
    if (m_file >= 0) {
        close(m_file);
    }
}

bool CInput::isSameFile(const struct stat& other) const
{
    return isOpen() && m_state.st_dev == other.st_dev && m_state.st_ino == other.st_ino;
}

bool CInput::readTo(CRecords& records)
{
    std::array<char, 65536> bytes;
    for (bool hasRead = false;; hasRead = true) {
        const ssize_t got = read(m_file, bytes.data(), bytes.size());
        if (got < 0 && errno != EINTR) {
            throw CFailure::ofSystem(m_path);
        }
        if (got == 0) {
            return hasRead;
        }
        records.add({bytes.data(), static_cast<size_t>(std::max<ssize_t>(got, 0))});
    }
}

bool CInput::beginAgainIfTruncated()
{
    struct stat now = {};
    if (!isOpen() || fstat(m_file, &now) != 0 || !S_ISREG(now.st_mode) ||
        lseek(m_file, 0, SEEK_CUR) <= now.st_size) {
        return false;
    }
    beginAgain();
    return true;
}

void CInput::beginAgain()
{
    lseek(m_file, 0, SEEK_SET);
}

// CReader ----------------------------------------------------------------------------------------

CReader::CReader(Log log, bool withRenamed, CRecords& records, Complain complain)
    : m_log(std::move(log)),
      m_withRenamed(withRenamed && m_log.isNamed && m_log.path != "-"),
      m_records(records),
      m_complain(std::move(complain))
{}

void CReader::readAll()
{
    if (!m_log.isNamed) {
        readNamed();
    } else if (!goToNewest()) {
        throw CFailure(m_log.path + ": there is no such file");
    }
    if (m_input.isOpen()) {
        m_input.readTo(m_records);
    }
}

void CReader::follow(std::chrono::milliseconds interval, const std::function<void()>& idle)
{
    for (;;) {
        const bool hasMore = m_input.isOpen() && m_input.readTo(m_records);
        if (m_input.beginAgainIfTruncated()) {
            m_records.flush(true);
        } else if (!hasMore && !(hasMoved() && goToNewest())) {
            m_records.flush(false);
            idle();
            std::this_thread::sleep_for(interval);
        }
    }
}

bool CReader::hasMoved() const
{
    struct stat now = {};
    return stat(m_log.path.c_str(), &now) != 0 || !m_input.isSameFile(now);
}

/// Reads what was renamed since the last time, and opens the file that is written now. False when
/// there is neither.
bool CReader::goToNewest()
{
    if (m_input.isOpen()) {
        m_input.readTo(m_records); // what came between the last look and the renaming
    }
    CInput newest(m_log.path);
    const std::optional<Rotation> before = m_known;
    if (m_log.path != "-") {
        trying([&] { readRenamedBefore(newest); });
    }
    if (!newest.isOpen()) {
        return m_known != before;
    }
    m_records.startFile(firstDayOf(newest));
    m_input = std::move(newest);
    return true;
}

void CReader::readRenamedBefore(const CInput& newest)
{
    const bool leavesOut = !m_withRenamed && !m_input.isOpen() && !m_known;
    if (leavesOut) {
        readNamed();
    }
    for (const LogFile& file : renamedFilesOf(m_log.path)) {
        if (m_known && !(*m_known < file.rotation)) {
            continue;
        }
        struct stat status = {};
        const bool isThere = stat(file.path.c_str(), &status) == 0;
        if (isThere && newest.isSameFile(status)) {
            return; // it and what comes after it are still to be read
        }
        if (isThere && !leavesOut && !m_input.isSameFile(status)) {
            trying([&] { readWhole(file); });
        }
        m_known = file.rotation;
    }
}

void CReader::readNamed()
{
    for (const LogFile& file : m_log.renamed) {
        trying([&] {
            if (access(file.path.c_str(), F_OK) != 0) {
                throw CFailure(file.path + ": there is no such file");
            }
            readWhole(file);
        });
    }
}

/// A file that was removed since it was listed is left out. One that an earlier run had left was named
/// after the day on which it was found, so its lines may be older than its name.
void CReader::readWhole(const LogFile& file)
{
    CInput input(file.path);
    if (input.isOpen()) {
        m_records.startFile(std::min(file.rotation.date, firstDayOf(input)));
        input.readTo(m_records);
    }
}

void CReader::trying(const std::function<void()>& step)
{
    try {
        step();
    } catch (const CFailure& failure) {
        m_complain(failure);
    }
}

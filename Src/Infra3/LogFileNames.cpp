// LogFileNames.cpp: old log files, by name and age.
//
// A number is read from the front of a name, whatever follows it: PATH_2026-11-23_7.gz, as a
// compressing tool leaves it, keeps number 7 taken.

#include "Infra3/LogFileNames.h"

#include <sys/stat.h>

#include <climits>
#include <optional>
#include <string_view>

#include "Infra3/BoundedText.h"
#include "Infra3/Digits.h"
#include "Infra3/FileFindImpl.h"
#include "Infra3/LogFileComplaints.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

IFileSystem& chosen(IFileSystem* given, const std::string& path)
{
    return given != nullptr ? *given : fileSystemFor(path.c_str());
}

/// Calls visit(path) for each entry; false, with a complaint, when `directory` cannot be listed.
template <typename Visit>
bool forEachEntry(const std::string& directory, IFileSystem* fileSystem, const Visit& visit)
{
    CFileFindImpl listing; // a finder would look for a hook again
    if (!listing.findFile(directory.c_str(), chosen(fileSystem, directory))) {
        complain(__FILE__, __LINE__, "no such logpath\n");
        return false;
    }
    do {
        visit(listing.path<std::string>());
    } while (listing.findNextFile());
    return true;
}

/// PATH_YYYY-MM-DD_, which the number follows.
std::string frontOf(const std::string& path, const LogDate& date)
{
    char text[40];
    formatText(text, "_%04d-%02d-%02d_", date.year, date.month, date.day);
    return path + text;
}

/// The number at the front of `text`; none when there is no digit or no room for a next one.
std::optional<int> leadingNumber(std::string_view text)
{
    int64_t number = 0;
    size_t digits = 0;
    for (; digits < text.size() && isDigit(text[digits]); ++digits) {
        number = number * 10 + (text[digits] - '0');
        if (number >= INT_MAX) {
            return std::nullopt;
        }
    }
    return digits == 0 ? std::nullopt : std::optional<int>(static_cast<int>(number));
}

/// The file proper changed longest ago of those it is shown; the first of several.
class COldest
{
public:
    void look(const std::string& path)
    {
        struct stat status;
        if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            return;
        }
        if (m_path.empty() || isBefore(status.st_mtim, m_changed)) {
            m_path = path;
            m_changed = status.st_mtim;
        }
    }
    /// Empty if there was none.
    const std::string& path() const { return m_path; }

private:
    static bool isBefore(const timespec& left, const timespec& right)
    {
        return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec
                                           : left.tv_nsec < right.tv_nsec;
    }

    std::string m_path;
    timespec m_changed = {};
};

} // namespace

std::string oldLogName(const std::string& path, const LogDate& date, int number)
{
    return frontOf(path, date) + std::to_string(number);
}

int nextLogNumber(const std::string& path, const std::string& directory, const LogDate& date,
                  IFileSystem* fileSystem)
{
    const std::string front = frontOf(path, date);
    int next = 0;
    forEachEntry(directory, fileSystem, [&](const std::string& entry) {
        if (entry.compare(0, front.size(), front) != 0) {
            return;
        }
        const std::optional<int> number =
            leadingNumber(std::string_view(entry).substr(front.size()));
        if (number.has_value() && *number >= next) {
            next = *number + 1;
        }
    });
    return next;
}

void limitLogFiles(const std::string& path, const std::string& directory, int32_t limit,
                   IFileSystem* fileSystem)
{
    int64_t count = 0;
    COldest oldest;
    const bool listed = forEachEntry(directory, fileSystem, [&](const std::string& entry) {
        if (entry != path && entry.find(path) != std::string::npos) {
            ++count;
            oldest.look(entry);
        }
    });
    if (listed && count > limit && !oldest.path().empty()) {
        chosen(fileSystem, oldest.path()).remove(oldest.path().c_str());
    }
}

} // namespace Infra
} // namespace Tarsel

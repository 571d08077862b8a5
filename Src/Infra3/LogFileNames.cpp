// LogFileNames.cpp: old log files, by name and age.
//
// A number is read from the front of a name, whatever follows it: PATH_2026-11-23_7.gz, as a
// compressing tool leaves it, keeps number 7 taken.

#include "Infra3/LogFileNames.h"

#include <sys/stat.h>

#include <climits>
#include <cstdio>
#include <optional>
#include <string_view>

#include "Infra/Infra3/File.h"
#include "Infra/Infra3/FileFind.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Digits.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// Calls visit(path) for each entry; false, with a complaint, when `directory` cannot be listed.
template <typename Visit>
bool forEachEntry(const std::string& directory, const Visit& visit)
{
    CFileFind find;
    if (!find.findFile(directory.c_str())) {
        printf("[%s:%d]no such logpath\n", __FILE__, __LINE__);
        return false;
    }
    do {
        visit(find.getFilePath());
    } while (find.findNextFile());
    return true;
}

/// "_YYYY-MM-DD_", which stands between the path and the number.
struct DatePart
{
    explicit DatePart(const LogDate& date)
    {
        formatText(text, "_%04d-%02d-%02d_", date.year, date.month, date.day);
    }
    char text[40];
};

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

/// The file changed longest ago of those it is shown; the first of several.
class COldest
{
public:
    void look(const std::string& path)
    {
        struct stat status;
        if (::stat(path.c_str(), &status) != 0) {
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
    return path + DatePart(date).text + std::to_string(number);
}

int nextLogNumber(const std::string& path, const std::string& directory, const LogDate& date)
{
    const std::string front = path + DatePart(date).text;
    int next = 0;
    forEachEntry(directory, [&](const std::string& entry) {
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

void limitLogFiles(const std::string& path, const std::string& directory, int32_t limit)
{
    int64_t count = 0;
    COldest oldest;
    const bool listed = forEachEntry(directory, [&](const std::string& entry) {
        if (entry != path && entry.find(path) != std::string::npos) {
            ++count;
            oldest.look(entry);
        }
    });
    if (listed && count > limit && !oldest.path().empty()) {
        CFile::remove(oldest.path().c_str());
    }
}

} // namespace Infra
} // namespace Tarsel

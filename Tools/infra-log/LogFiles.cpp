// LogFiles.cpp: the names of log files.

#include "LogFiles.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>

#include "Common/Failure.h"
#include "Prefix.h"

namespace fs = std::filesystem;

namespace
{

/// "2026-11-22_0" and nothing else.
std::optional<Rotation> readRotation(std::string_view text)
{
    const auto date = takeDate(text);
    long long number = 0;
    if (!date || !takeText(text, "_") || !takeNumber(text, number) || !text.empty() || number < 0) {
        return std::nullopt;
    }
    return Rotation{*date, number};
}

void sortFiles(std::vector<LogFile>& files)
{
    std::sort(files.begin(), files.end(), [](const LogFile& one, const LogFile& other) {
        return one.rotation < other.rotation;
    });
}

/// The name of the log that a file belongs to, and which of its files it is; none: its own.
std::pair<std::string, std::optional<Rotation>> logOf(const std::string& path)
{
    const size_t number = path.rfind('_');
    if (number != std::string::npos && number > 0) {
        const size_t date = path.rfind('_', number - 1);
        if (date != std::string::npos && date > 0) {
            if (const auto rotation = readRotation(std::string_view(path).substr(date + 1))) {
                return {path.substr(0, date), rotation};
            }
        }
    }
    return {path, std::nullopt};
}

} // namespace

std::vector<LogFile> renamedFilesOf(const std::string& log)
{
    const fs::path path(log);
    const fs::path directory = path.has_parent_path() ? path.parent_path() : fs::path(".");
    const std::string start = path.filename().string() + "_";
    std::vector<LogFile> files;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.starts_with(start)) {
            if (const auto rotation = readRotation(std::string_view(name).substr(start.size()))) {
                files.push_back({log + name.substr(start.size() - 1), *rotation});
            }
        }
    }
    if (error) {
        throw CFailure(directory.string() + ": " + error.message());
    }
    sortFiles(files);
    return files;
}

std::vector<Log> logsOf(const std::vector<std::string>& paths)
{
    std::vector<Log> logs;
    std::map<std::string, size_t> indexes;
    for (const std::string& path : paths) {
        const auto [name, rotation] = logOf(path);
        const auto [at, isNew] = indexes.try_emplace(name, logs.size());
        if (isNew) {
            logs.push_back({name, false, {}});
        }
        Log& log = logs[at->second];
        if (rotation) {
            log.renamed.push_back({path, *rotation});
        } else {
            log.isNamed = true;
        }
    }
    for (Log& log : logs) {
        sortFiles(log.renamed);
    }
    return logs;
}

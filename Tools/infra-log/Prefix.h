#ifndef INFRA_TOOLS_LOG_PREFIX_H
#define INFRA_TOOLS_LOG_PREFIX_H

// What a log line begins with, read back. Every field can be switched off where the line is made, so
// any of them may be missing:
//
//     [2026-11-23T10:04:05.123 info Infra:812148M 4711 worker.cpp:120 work]message
//     [|T: 2026-11-23T10:04:05.123 L:info |[Infra] [ver:812148M] tid:4711 F:worker.cpp|l:120|f:work|m:]message
//
// The text of a message may have lines that look similar. A line counts as the beginning of a record
// only if all between its brackets can be read.

#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>

/// The severities, the worst first.
enum class Level : int
{
    fatal = 1,
    error,
    warn,
    info,
    trace
};

const char* nameOf(Level level);

struct Prefix
{
    std::optional<std::chrono::year_month_day> date;
    std::optional<std::chrono::milliseconds> time; ///< since midnight
    std::optional<Level> level;
    std::optional<std::string_view> module;
    std::optional<std::string_view> revision;
    std::optional<long long> thread;
    std::optional<std::string_view> file;
    std::optional<long long> line;
    std::optional<std::string_view> function;
    size_t length = 0; ///< with both brackets
};

/// The prefix that `text` begins with. The texts in it are parts of `text`.
std::optional<Prefix> readPrefix(std::string_view text);

/// "2026-11-23" at the front of `text`, which goes on behind it then.
std::optional<std::chrono::year_month_day> takeDate(std::string_view& text);
/// "10:04", "10:04:05" or "10:04:05.123" likewise. A log may show a leap second, number 60.
std::optional<std::chrono::milliseconds> takeTime(std::string_view& text, int lastSecond = 60);
/// `number` is what stands at the front of `text` in digits, all of them.
bool takeNumber(std::string_view& text, long long& number);
bool takeText(std::string_view& text, std::string_view expected);

#endif

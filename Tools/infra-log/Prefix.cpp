// Prefix.cpp: reads the beginnings of log lines.

#include "Prefix.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace
{

using std::string_view;

constexpr size_t longestPrefix = 8191;

constexpr std::array<const char*, 5> levelNames = {"fatal", "error", "warn", "info", "trace"};

/// Exactly `count` digits.
bool takeDigits(string_view& text, size_t count, int& number)
{
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (text.size() < count || !std::all_of(text.begin(), text.begin() + count, isDigit)) {
        return false;
    }
    std::from_chars(text.data(), text.data() + count, number);
    text.remove_prefix(count);
    return true;
}

/// What stands before `end`, which is taken too.
std::optional<string_view> takeUntil(string_view& text, string_view end)
{
    const size_t length = text.find(end);
    if (length == string_view::npos) {
        return std::nullopt;
    }
    const string_view before = text.substr(0, length);
    text.remove_prefix(length + end.size());
    return before;
}

std::optional<Level> takeLevel(string_view& text, string_view end)
{
    for (size_t i = 0; i < levelNames.size(); ++i) {
        string_view left = text;
        if (takeText(left, levelNames[i]) && takeText(left, " ") && takeText(left, end)) {
            text = left;
            return static_cast<Level>(i + 1);
        }
    }
    return std::nullopt;
}

/// Date and time; a line without the time has a blank for it.
bool takeMoment(string_view& text, Prefix& prefix)
{
    string_view left = text;
    prefix.date = takeDate(left);
    if (prefix.date && !takeText(left, "T")) {
        return false;
    }
    prefix.time = takeTime(left);
    if (!takeText(left, " ")) {
        return false;
    }
    text = left;
    return true;
}

// The tagged layout --------------------------------------------------------------------------------

template <typename Number>
bool takeTagged(string_view& text, string_view tag, string_view end, std::optional<Number>& field)
{
    string_view left = text;
    if (!takeText(left, tag)) {
        return true; // it is switched off
    }
    const std::optional<string_view> value = takeUntil(left, end);
    if (!value) {
        return false;
    }
    if constexpr (std::is_same_v<Number, string_view>) {
        field = *value;
    } else {
        string_view digits = *value;
        Number number = 0;
        if (!takeNumber(digits, number) || !digits.empty()) {
            return false;
        }
        field = number;
    }
    text = left;
    return true;
}

bool takeTaggedModule(string_view& text, Prefix& prefix)
{
    return text.starts_with("[ver:") || takeTagged(text, "[", "] ", prefix.module);
}

bool readTagged(string_view text, Prefix& prefix)
{
    const size_t all = text.size();
    if (!takeText(text, "[|T: ") || !takeMoment(text, prefix)) {
        return false;
    }
    if (takeText(text, "L:")) {
        prefix.level = takeLevel(text, "|");
        if (!prefix.level && !takeText(text, "|")) {
            return false;
        }
    }
    if (!takeTaggedModule(text, prefix) || !takeTagged(text, "[ver:", "] ", prefix.revision) ||
        !takeTagged(text, "tid:", " ", prefix.thread) ||
        !takeTagged(text, "F:", "|", prefix.file) || !takeTagged(text, "l:", "|", prefix.line) ||
        !takeTagged(text, "f:", "|", prefix.function) || !takeText(text, "m:]")) {
        return false;
    }
    prefix.length = all - text.size();
    return true;
}

// The plain layout -----------------------------------------------------------------------------------

/// Only an operator has a blank in its name.
bool isFunction(string_view text)
{
    return !text.empty() && (text.starts_with("operator") || text.find(' ') == string_view::npos);
}

/// "worker.cpp:120 work", of which any may be missing, and nothing else.
bool readPlace(string_view text, Prefix& prefix)
{
    const size_t end = text.find_first_of(" :");
    if (end != string_view::npos && end > 0 && text[end] == ':') {
        prefix.file = text.substr(0, end);
        text.remove_prefix(end + 1);
    }
    long long line = 0;
    if (takeNumber(text, line)) {
        prefix.line = line;
    }
    if (takeText(text, " ") && isFunction(text)) {
        prefix.function = text;
        text = {};
    }
    return text.empty();
}

bool readThreadAndPlace(string_view text, bool hasThread, Prefix& prefix)
{
    prefix.thread.reset();
    prefix.file.reset();
    prefix.line.reset();
    prefix.function.reset();
    long long thread = 0;
    if (hasThread) {
        if (!takeNumber(text, thread) || !takeText(text, " ")) {
            return false;
        }
        prefix.thread = thread;
    }
    return readPlace(text, prefix);
}

void readModule(string_view text, Prefix& prefix)
{
    const size_t colon = text.rfind(':');
    const string_view module = text.substr(0, colon);
    if (!module.empty()) {
        prefix.module = module;
    }
    if (colon != string_view::npos) {
        prefix.revision = text.substr(colon + 1);
    }
}

/// What follows the level. A module may have blanks in its name, so each blank may be the one behind
/// it; the first that lets the rest be read is it, and a rest with a thread is the better one.
bool readPlainFields(string_view text, Prefix& prefix)
{
    for (const bool hasThread : {true, false}) {
        if (readThreadAndPlace(text, hasThread, prefix)) {
            return true;
        }
        for (size_t blank = text.find(' '); blank != string_view::npos;
             blank = text.find(' ', blank + 1)) {
            if (readThreadAndPlace(text.substr(blank + 1), hasThread, prefix)) {
                readModule(text.substr(0, blank), prefix);
                return true;
            }
        }
    }
    return false;
}

/// A line without time, level, thread and place says too little to be told from text.
bool saysEnough(const Prefix& prefix)
{
    return prefix.time || prefix.level || prefix.thread || (prefix.file && prefix.line);
}

bool readPlain(string_view text, Prefix& prefix)
{
    string_view left = text.substr(0, longestPrefix);
    if (!takeText(left, "[") || !takeMoment(left, prefix)) {
        return false;
    }
    prefix.level = takeLevel(left, "");
    for (size_t end = left.find(']'); end != string_view::npos; end = left.find(']', end + 1)) {
        const string_view fields = left.substr(0, end);
        Prefix tried = prefix;
        if (!fields.ends_with("operator[") && readPlainFields(fields, tried) && saysEnough(tried)) {
            prefix = tried;
            prefix.length = static_cast<size_t>(fields.data() - text.data()) + end + 1;
            return true;
        }
    }
    return false;
}

} // namespace

const char* nameOf(Level level)
{
    return levelNames[static_cast<size_t>(level) - 1];
}

bool takeText(string_view& text, string_view expected)
{
    if (!text.starts_with(expected)) {
        return false;
    }
    text.remove_prefix(expected.size());
    return true;
}

bool takeNumber(string_view& text, long long& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
        return false;
    }
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

std::optional<std::chrono::year_month_day> takeDate(string_view& text)
{
    string_view left = text;
    int year = 0;
    int month = 0;
    int day = 0;
    if (!takeDigits(left, 4, year) || !takeText(left, "-") || !takeDigits(left, 2, month) ||
        !takeText(left, "-") || !takeDigits(left, 2, day)) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date(std::chrono::year(year),
                                           std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day)));
    if (!date.ok()) {
        return std::nullopt;
    }
    text = left;
    return date;
}

std::optional<std::chrono::milliseconds> takeTime(string_view& text, int lastSecond)
{
    string_view left = text;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int millisecond = 0;
    if (!takeDigits(left, 2, hour) || !takeText(left, ":") || !takeDigits(left, 2, minute)) {
        return std::nullopt;
    }
    if (takeText(left, ":") && !takeDigits(left, 2, second)) {
        return std::nullopt;
    }
    if (takeText(left, ".") && !takeDigits(left, 3, millisecond)) {
        return std::nullopt;
    }
    if (hour > 23 || minute > 59 || second > lastSecond) {
        return std::nullopt;
    }
    text = left;
    return std::chrono::hours(hour) + std::chrono::minutes(minute) + std::chrono::seconds(second) +
           std::chrono::milliseconds(millisecond);
}

std::optional<Prefix> readPrefix(string_view text)
{
    Prefix prefix;
    if (readTagged(text, prefix)) {
        return prefix;
    }
    prefix = Prefix();
    if (readPlain(text, prefix)) {
        return prefix;
    }
    return std::nullopt;
}

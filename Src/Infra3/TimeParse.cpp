// TimeParse.cpp: calendar time read from text.
//
// A text is six numbers with anything between them; the format only says in which order the first
// three come and whether the hour is one of twelve. Threads read by one format over and over, so
// each keeps what the last one said.

#include <climits>
#include <cstring>
#include <optional>

#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Utc.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Digits.h"
#include "Infra3/TimeInternal.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// Up to six unsigned decimal numbers of a text, whatever stands between them.
struct SixNumbers
{
    int values[6];
    int count;
};

/// The number that the digits from `in` to `end` make, or INT_MAX where it is larger.
[[gnu::cold, gnu::noinline]] int longNumber(const char* in, const char* end)
{
    int64_t value = 0;
    for (; in != end && value <= INT_MAX; ++in) {
        value = value * 10 + (*in - '0');
    }
    return value > INT_MAX ? INT_MAX : static_cast<int>(value);
}

/// Reads the digits at `in`, one at least, into `number` and returns their end.
inline const char* readNumber(const char* in, int& number)
{
    constexpr int digitsThatFit = 9;
    const char* const begin = in;
    auto value = static_cast<unsigned>(*in++ - '0');
    for (; isDigit(*in); ++in) {
        value = value * 10 + static_cast<unsigned>(*in - '0');
    }
    number = in - begin > digitsThatFit ? longNumber(begin, in) : static_cast<int>(value);
    return in;
}

SixNumbers readSixNumbers(const char* text)
{
    SixNumbers numbers;
    for (numbers.count = 0; numbers.count < 6; ++numbers.count) {
        for (; !isDigit(*text); ++text) {
            if (*text == '\0') {
                return numbers;
            }
        }
        text = readNumber(text, numbers.values[numbers.count]);
    }
    return numbers;
}

/// What a format text says about parsing.
struct ParseRule
{
    std::optional<CTime::DateFormat> order;
    bool hours12;
};

/// The rule of the format text that a thread parsed by last.
struct LastParseRule
{
    ParseRule rule;
    char format[40]; ///< "" where that text is too long to be kept
};

constinit thread_local LastParseRule s_lastRule = {};

/// Valid until the thread's next call.
const ParseRule& parseRuleOf(const char* format)
{
    if (*format == '\0' || strcmp(s_lastRule.format, format) != 0) {
        s_lastRule.rule = {dateOrderOf(format), contains(format, 'h')};
        const bool fits = strnlen(format, sizeof(s_lastRule.format)) < sizeof(s_lastRule.format);
        copyText(s_lastRule.format, fits ? format : "");
    }
    return s_lastRule.rule;
}

void setDate(SystemTime& time, const SixNumbers& numbers, CTime::DateFormat order)
{
    const int first = numbers.values[0];
    const int second = numbers.values[1];
    const int third = numbers.values[2];
    switch (order) {
    case CTime::ymd:
        time.year = first;
        time.month = second;
        time.day = third;
        break;
    case CTime::mdy:
        time.month = first;
        time.day = second;
        time.year = third;
        break;
    case CTime::dmy:
        time.day = first;
        time.month = second;
        time.year = third;
        break;
    }
}

/// Turns an hour of 1 to 12 into one of 0 to 23 by the "PM" or "AM" in `text`.
/// @return null, or what is wrong
const char* toHour24(int& hour, const char* text)
{
    if (hour > 12) {
        return "CTime parser input hour format is not accord with real value format.\n";
    }
    if (strstr(text, "PM") != nullptr) {
        hour = hour == 12 ? 12 : hour + 12;
        return nullptr;
    }
    if (strstr(text, "AM") != nullptr) {
        hour = hour == 12 ? 0 : hour;
        return nullptr;
    }
    return "12 hours time point is unclear.\n";
}

/// Sets date and time from `text`, not normalised.
/// @return null, or what is wrong
const char* readTime(SystemTime& time, const char* text, const char* format)
{
    const SixNumbers numbers = readSixNumbers(text);
    if (numbers.count < 6) {
        return "CTime parser input information is not enough.\n";
    }
    const ParseRule& rule = parseRuleOf(format);
    if (rule.order) {
        setDate(time, numbers, *rule.order);
    }
    time.hour = numbers.values[3];
    time.minute = numbers.values[4];
    time.second = numbers.values[5];
    return rule.hours12 ? toHour24(time.hour, text) : nullptr;
}

void clearDateAndTime(SystemTime& time)
{
    time.year = time.month = time.day = 0;
    time.hour = time.minute = time.second = 0;
}

} // namespace

bool CTime::parse(const char* buf, const char* format, int mask)
{
    if (format == nullptr) {
        return parse(buf, getFormat().c_str(), mask);
    }
    const char* const complaint = readTime(*this, textOrEmpty(buf), format);
    if (complaint != nullptr) {
        logLibName(logLevelError, "Infra", "this:%p %s", static_cast<const void*>(this), complaint);
        clearDateAndTime(*this);
        return false;
    }
    normalize_time(*this);
    return true;
}

} // namespace Infra
} // namespace Tarsel

// TimeFormat.cpp: calendar time as text.
//
// A format text is walked twice: once to count its date letters, because the count over the whole
// text says how year, month and day are written, and once to write. Nothing is allocated; the
// digits go straight into the caller's buffer.
//
// The date letters of a format only mark places: the process-wide date order says what stands in
// the first, the second and the third of them. That is how one text serves every country.

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Utc.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constinit std::atomic<CTime::DateFormat> s_dateFormat{CTime::ymd};
constinit std::atomic<char> s_dateSeparator{'-'};
constinit std::atomic<bool> s_12hour{false};

/// The default text. A copy is taken under its lock.
struct StoredFormat
{
    CLeafMutex mutex;
    std::string s_format = "yyyy-MM-dd HH:mm:ss"; // guarded by mutex
};

StoredFormat& storedFormat()
{
    struct Tag;
    return immortal<StoredFormat, Tag>();
}

/// The date order by the first 'y', 'M' and 'd' of `format`, if all are there in one of the three.
std::optional<CTime::DateFormat> dateOrderOf(const char* format)
{
    const char* year = strchr(format, 'y');
    const char* month = strchr(format, 'M');
    const char* day = strchr(format, 'd');
    if (year == nullptr || month == nullptr || day == nullptr) {
        return std::nullopt;
    }
    if (year < month && month < day) {
        return CTime::ymd;
    }
    if (month < day && day < year) {
        return CTime::mdy;
    }
    if (day < month && month < year) {
        return CTime::dmy;
    }
    return std::nullopt;
}

CTime::DateFormat dateOrderOrDefault(const char* format)
{
    const std::optional<CTime::DateFormat> order = dateOrderOf(format);
    if (!order) {
        logLibName(logLevelError, "Infra",
                   "setFormat dateFormat is invalid,set default separator: ymd \n");
        return CTime::ymd;
    }
    return *order;
}

bool contains(const char* text, char letter)
{
    return strchr(text, letter) != nullptr;
}

/// A number and the least digits to write it with. No digits: nothing is written at all.
struct Field
{
    int value;
    int digits;
};

bool isWritten(const Field& field)
{
    return field.digits > 0;
}

char* appendTwoDigits(char* out, unsigned value)
{
    out[0] = static_cast<char>('0' + value / 10);
    out[1] = static_cast<char>('0' + value % 10);
    return out + 2;
}

/// For fields that a caller set to something that is no date.
char* appendAnyNumber(char* out, const Field& field)
{
    char text[16];
    const size_t length = formatText(text, "%0*d", field.digits, field.value);
    memcpy(out, text, length);
    return out + length;
}

char* append(char* out, const Field& field)
{
    if (!isWritten(field)) {
        return out;
    }
    const auto value = static_cast<unsigned>(field.value);
    if (value < 10 && field.digits == 1) {
        *out = static_cast<char>('0' + value);
        return out + 1;
    }
    if (value < 100 && field.digits <= 2) {
        return appendTwoDigits(out, value);
    }
    if (value < 10000 && field.digits == 4) {
        return appendTwoDigits(appendTwoDigits(out, value / 100), value % 100);
    }
    return appendAnyNumber(out, field);
}

/// How often each date letter stands in a format, wherever.
struct LetterCounts
{
    size_t year = 0;
    size_t month = 0;
    size_t day = 0;
};

LetterCounts countDateLetters(const char* format)
{
    LetterCounts counts;
    for (; *format != '\0'; ++format) {
        counts.year += *format == 'y';
        counts.month += *format == 'M';
        counts.day += *format == 'd';
    }
    return counts;
}

Field yearField(int year, size_t letters)
{
    if (letters == 0) {
        return {0, 0};
    }
    return letters >= 3 ? Field{year, 4} : Field{year % 100, 2};
}

Field monthOrDayField(int value, size_t letters)
{
    return {value, letters >= 2 ? 2 : static_cast<int>(letters)};
}

/// Year, month and day in the order in which the format's date runs take them.
struct DateFields
{
    Field fields[3];
    int next;

    Field take() { return next < 3 ? fields[next++] : Field{0, 0}; }
};

/// A field that is not written gives up its place to those behind it: an empty first one, or else
/// an empty second one. Only one moves up, so a day that stands alone in the order year, month, day
/// comes to the second place, not to the first.
void closeGap(DateFields& date)
{
    if (!isWritten(date.fields[0])) {
        date.fields[0] = date.fields[1];
        date.fields[1] = date.fields[2];
        date.fields[2] = {0, 0};
    } else if (!isWritten(date.fields[1])) {
        date.fields[1] = date.fields[2];
        date.fields[2] = {0, 0};
    }
}

DateFields dateFields(const SystemTime& time, const char* format, CTime::DateFormat order)
{
    const LetterCounts counts = countDateLetters(format);
    const Field year = yearField(time.year, counts.year);
    const Field month = monthOrDayField(time.month, counts.month);
    const Field day = monthOrDayField(time.day, counts.day);
    DateFields date = {};
    switch (order) {
    case CTime::ymd:
        date = {{year, month, day}, 0};
        break;
    case CTime::mdy:
        date = {{month, day, year}, 0};
        break;
    case CTime::dmy:
        date = {{day, month, year}, 0};
        break;
    }
    closeGap(date);
    return date;
}

/// What one call of format() goes by: the settings, with the caller's mask applied.
struct Style
{
    CTime::DateFormat order;
    bool hours12;
    bool ownSeparators; ///< as they stand in the format
    char separator;
};

Style styleOf(const char* format, int mask)
{
    return {(mask & CTime::fmDateFormat) != 0 ? dateOrderOrDefault(format)
                                              : s_dateFormat.load(std::memory_order_relaxed),
            (mask & CTime::fmHourFormat) != 0 ? contains(format, 'h')
                                              : s_12hour.load(std::memory_order_relaxed),
            (mask & CTime::fmSeparator) != 0, s_dateSeparator.load(std::memory_order_relaxed)};
}

int hourShown(int hour, bool hours12)
{
    if (!hours12) {
        return hour;
    }
    if (hour == 0) {
        return 12;
    }
    return hour > 12 ? hour - 12 : hour;
}

/// Writes one time in one format. `out` never lags behind `begin`.
class CTimeWriter
{
public:
    CTimeWriter(char* buf, const SystemTime& time, const Style& style, const DateFields& date)
        : m_begin(buf), m_out(buf), m_time(time), m_style(style), m_date(date)
    {}

    void write(const char* format)
    {
        while (*format != '\0') {
            format = writePiece(format);
        }
        *m_out = '\0';
    }

private:
    /// Writes the piece that begins at `in` and returns where the next one does.
    const char* writePiece(const char* in)
    {
        switch (*in) {
        case 'y':
        case 'M':
        case 'd':
            m_out = append(m_out, m_date.take());
            return endOfRun(in, *in, *in);
        case 'H':
        case 'h':
            return writeClock(hourShown(m_time.hour, m_style.hours12), in, endOfRun(in, 'H', 'h'));
        case 'm':
            return writeClock(m_time.minute, in, endOfRun(in, 'm', 'm'));
        case 's':
            return writeClock(m_time.second, in, endOfRun(in, 's', 's'));
        case 't':
            writeHalfOfDay();
            return endOfRun(in, 't', 't');
        case '-':
        case '.':
        case '/':
            *m_out++ = m_style.ownSeparators ? *in : m_style.separator;
            return in + 1;
        default:
            *m_out++ = *in;
            return in + 1;
        }
    }

    static const char* endOfRun(const char* in, char letter, char otherLetter)
    {
        do {
            ++in;
        } while (*in == letter || *in == otherLetter);
        return in;
    }

    const char* writeClock(int value, const char* run, const char* runEnd)
    {
        m_out = append(m_out, {value, runEnd - run >= 2 ? 2 : 1});
        return runEnd;
    }

    void writeHalfOfDay()
    {
        if (m_style.hours12) {
            *m_out++ = m_time.hour < 12 ? 'A' : 'P';
            *m_out++ = 'M';
            return;
        }
        while (m_out > m_begin && m_out[-1] == ' ') {
            --m_out;
        }
    }

    char* const m_begin;
    char* m_out;
    const SystemTime& m_time;
    const Style& m_style;
    DateFields m_date;
};

/// Up to six unsigned decimal numbers of a text, whatever stands between them.
struct SixNumbers
{
    int values[6];
    int count;
};

bool isDigit(char letter)
{
    return letter >= '0' && letter <= '9';
}

/// Reads the digits at `*in` and moves it behind them. A number that is too large stays at INT_MAX.
int readNumber(const char** in)
{
    int64_t value = 0;
    for (; isDigit(**in); ++*in) {
        value = value * 10 + (**in - '0');
        value = value > INT_MAX ? INT_MAX : value;
    }
    return static_cast<int>(value);
}

SixNumbers readSixNumbers(const char* text)
{
    SixNumbers numbers = {};
    while (*text != '\0' && numbers.count < 6) {
        if (isDigit(*text)) {
            numbers.values[numbers.count++] = readNumber(&text);
        } else {
            ++text;
        }
    }
    return numbers;
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
    if (const std::optional<CTime::DateFormat> order = dateOrderOf(format)) {
        setDate(time, numbers, *order);
    }
    time.hour = numbers.values[3];
    time.minute = numbers.values[4];
    time.second = numbers.values[5];
    return contains(format, 'h') ? toHour24(time.hour, text) : nullptr;
}

void clearDateAndTime(SystemTime& time)
{
    time.year = time.month = time.day = 0;
    time.hour = time.minute = time.second = 0;
}

char separatorOf(const char* format)
{
    for (const char separator : {'.', '/', '-'}) {
        if (contains(format, separator)) {
            return separator;
        }
    }
    logLibName(logLevelError, "Infra",
               "setFormat separator is invalid,set default separator: - \n");
    return '-';
}

} // namespace

void CTime::format(char* buf, const char* format, int mask) const
{
    if (buf == nullptr) {
        logLibName(logLevelError, "Infra", "buf is NULL!!\n");
        return;
    }
    if (format == nullptr) {
        this->format(buf, getFormat().c_str(), mask);
        return;
    }
    const Style style = styleOf(format, mask);
    CTimeWriter(buf, *this, style, dateFields(*this, format, style.order)).write(format);
}

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

void CTime::setFormatString(const char* format)
{
    const char* const text = textOrEmpty(format);
    {
        StoredFormat& stored = storedFormat();
        CGuard guard(stored.mutex);
        stored.s_format = text;
    }
    s_dateSeparator.store(separatorOf(text), std::memory_order_relaxed);
    s_12hour.store(contains(text, 'h'), std::memory_order_relaxed);
    s_dateFormat.store(dateOrderOrDefault(text), std::memory_order_relaxed);
}

void CTime::setFormat(const std::string& format)
{
    setFormatString(format.c_str());
}

CString2 CTime::getFormat()
{
    StoredFormat& stored = storedFormat();
    CGuard guard(stored.mutex);
    return stored.s_format;
}

CTime::DateFormat CTime::getDateFormat()
{
    return s_dateFormat.load(std::memory_order_relaxed);
}

bool CTime::get12Hour()
{
    return s_12hour.load(std::memory_order_relaxed);
}

char CTime::getSeparator()
{
    return s_dateSeparator.load(std::memory_order_relaxed);
}

} // namespace Infra
} // namespace Tarsel

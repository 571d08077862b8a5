// TimeFormat.cpp: calendar time as text.
//
// A format text is walked twice: once to count its date letters, because the count over the whole
// text says how year, month and day are written, and once to write. Nothing is allocated; the
// digits go straight into the caller's buffer.
//
// The date letters of a format only mark places: the process-wide date order says what stands in
// the first, the second and the third of them. That is how one text serves every country.

#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Utc.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Digits.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// The process-wide settings, in one word, so that a text is never written by half of a change.
struct alignas(uint32_t) Settings
{
    uint8_t s_dateFormat;
    char s_dateSeparator;
    bool s_12hour;
    uint8_t spare;

    bool operator==(const Settings&) const = default;
};

constinit std::atomic<Settings> s_settings{Settings{CTime::ymd, '-', false, 0}};

Settings settings()
{
    return s_settings.load(std::memory_order_relaxed);
}

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

/// The date letters of a format text.
enum DateLetter : uint8_t
{
    noLetter = 0,
    yearLetter = 1,
    monthLetter = 2,
    dayLetter = 4,
    allLetters = 7
};

DateLetter dateLetterOf(char letter)
{
    return letter == 'y'   ? yearLetter
           : letter == 'M' ? monthLetter
           : letter == 'd' ? dayLetter
                           : noLetter;
}

constexpr int sequenceOf(DateLetter first, DateLetter second, DateLetter third)
{
    return (first * 8 + second) * 8 + third;
}

/// The date order by the first 'y', 'M' and 'd' of `format`, if all are there in one of the three.
std::optional<CTime::DateFormat> dateOrderOf(const char* format)
{
    int seen = noLetter;
    int sequence = 0;
    for (; *format != '\0' && seen != allLetters; ++format) {
        const DateLetter letter = dateLetterOf(*format);
        if ((letter & ~seen) != 0) {
            seen |= letter;
            sequence = sequence * 8 + letter;
        }
    }
    switch (sequence) {
    case sequenceOf(yearLetter, monthLetter, dayLetter):
        return CTime::ymd;
    case sequenceOf(monthLetter, dayLetter, yearLetter):
        return CTime::mdy;
    case sequenceOf(dayLetter, monthLetter, yearLetter):
        return CTime::dmy;
    default:
        return std::nullopt;
    }
}

bool contains(const char* text, char letter)
{
    return strchr(text, letter) != nullptr;
}

/// "00" to "99".
constexpr std::array<char, 200> digitPairs = [] {
    std::array<char, 200> pairs = {};
    for (size_t value = 0; value < 100; ++value) {
        pairs[value * 2] = static_cast<char>('0' + value / 10);
        pairs[value * 2 + 1] = static_cast<char>('0' + value % 10);
    }
    return pairs;
}();

/// For fields that a caller set to something that is no date.
[[gnu::cold, gnu::noinline]] char* appendAnyNumber(char* out, int number, int digits)
{
    char text[16];
    const size_t length = formatText(text, "%0*d", digits, number);
    memcpy(out, text, length);
    return out + length;
}

/// Writes `number` with no less than `digits` digits: 1, 2 or 4.
char* appendNumber(char* out, int number, int digits)
{
    const auto value = static_cast<unsigned>(number);
    if (value < 100 && digits <= 2) {
        const bool one = value < 10 && digits == 1;
        memcpy(out, &digitPairs[value * 2 + (one ? 1 : 0)], 2);
        return out + (one ? 1 : 2);
    }
    if (value < 10000 && digits == 4) {
        memcpy(out, &digitPairs[value / 100 * 2], 2);
        memcpy(out + 2, &digitPairs[value % 100 * 2], 2);
        return out + 4;
    }
    return appendAnyNumber(out, number, digits);
}

/// How often each date letter stands in a format, wherever. More than countMax are not needed.
struct LetterCounts
{
    unsigned year;
    unsigned month;
    unsigned day;
};

/// The three counts share one word while they are taken, so that a letter costs one addition.
constexpr unsigned countBits = 20;
constexpr size_t countMax = (size_t{1} << countBits) - 1;

constexpr std::array<uint64_t, 256> countWeights = [] {
    std::array<uint64_t, 256> weights = {};
    weights['y'] = 1;
    weights['M'] = uint64_t{1} << countBits;
    weights['d'] = uint64_t{1} << (2 * countBits);
    return weights;
}();

LetterCounts countDateLetters(const char* format)
{
    uint64_t sum = 0;
    for (size_t idx = 0; format[idx] != '\0' && idx < countMax; ++idx) {
        sum += countWeights[static_cast<unsigned char>(format[idx])];
    }
    return {static_cast<unsigned>(sum & countMax),
            static_cast<unsigned>(sum >> countBits & countMax),
            static_cast<unsigned>(sum >> (2 * countBits))};
}

/// What a piece of a format text has written.
enum class Source : uint8_t
{
    year,
    shortYear,
    month,
    day,
    hour,
    minute,
    second,
    numbers,   ///< those above
    halfOfDay, ///< "AM" or "PM"
    trim,      ///< drops the blanks before it
    nothing
};

/// A part of a format text: what it writes, and one character behind that.
struct Piece
{
    Source source;
    uint8_t digits; ///< the least to write a number with; 0: it is not written at all
    char literal;   ///< 0: none
};

constexpr Piece emptyPiece = {Source::nothing, 0, '\0'};

Piece yearPiece(unsigned letters)
{
    if (letters == 0) {
        return emptyPiece;
    }
    return letters >= 3 ? Piece{Source::year, 4, '\0'} : Piece{Source::shortYear, 2, '\0'};
}

Piece numberPiece(Source source, size_t letters)
{
    if (letters == 0) {
        return emptyPiece;
    }
    return {source, static_cast<uint8_t>(letters >= 2 ? 2 : 1), '\0'};
}

/// Year, month and day in the order in which the date runs of a format take them.
struct DatePieces
{
    Piece pieces[3];
    int next;

    Piece take() { return next < 3 ? pieces[next++] : emptyPiece; }
};

bool isEmpty(const Piece& piece)
{
    return piece.source == Source::nothing;
}

/// A part of the date that is not written gives up its place to those behind it: an empty first
/// one, or else an empty second one. They move up by one place only, so a day that stands alone in
/// the order year, month, day comes to the second place, not to the first.
void closeGap(DatePieces& date)
{
    if (isEmpty(date.pieces[0])) {
        date.pieces[0] = date.pieces[1];
        date.pieces[1] = date.pieces[2];
        date.pieces[2] = emptyPiece;
    } else if (isEmpty(date.pieces[1])) {
        date.pieces[1] = date.pieces[2];
        date.pieces[2] = emptyPiece;
    }
}

DatePieces datePieces(const char* format, CTime::DateFormat order)
{
    const LetterCounts counts = countDateLetters(format);
    const Piece year = yearPiece(counts.year);
    const Piece month = numberPiece(Source::month, counts.month);
    const Piece day = numberPiece(Source::day, counts.day);
    DatePieces date = {};
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

/// Reads a format text piece by piece, by the settings and the caller's mask.
class CFormatReader
{
public:
    CFormatReader(const char* format, const Settings& settings, int mask)
        : m_in(format),
          m_ownSeparators((mask & CTime::fmSeparator) != 0),
          m_separator(settings.s_dateSeparator),
          m_hours12((mask & CTime::fmHourFormat) != 0 ? contains(format, 'h') : settings.s_12hour)
    {
        auto order = static_cast<CTime::DateFormat>(settings.s_dateFormat);
        if ((mask & CTime::fmDateFormat) != 0) {
            const std::optional<CTime::DateFormat> ownOrder = dateOrderOf(format);
            m_orderMissing = !ownOrder;
            order = ownOrder.value_or(CTime::ymd);
        }
        m_date = datePieces(format, order);
    }

    bool hours12() const { return m_hours12; }
    /// The date order was to be taken from the format and is not there.
    bool orderMissing() const { return m_orderMissing; }
    bool atEnd() const { return *m_in == '\0'; }

    Piece next()
    {
        Piece piece = source();
        piece.literal = literal();
        return piece;
    }

private:
    /// Takes a run of letters that has something written; nothing if none is next.
    Piece source()
    {
        switch (*m_in) {
        case 'y':
        case 'M':
        case 'd':
            takeRun(*m_in, *m_in);
            return m_date.take();
        case 'H':
        case 'h':
            return numberPiece(Source::hour, takeRun('H', 'h'));
        case 'm':
            return numberPiece(Source::minute, takeRun('m', 'm'));
        case 's':
            return numberPiece(Source::second, takeRun('s', 's'));
        case 't':
            takeRun('t', 't');
            return {m_hours12 ? Source::halfOfDay : Source::trim, 0, '\0'};
        default:
            return emptyPiece;
        }
    }

    /// Takes one character that is no letter of ours, if one is next; else 0.
    char literal()
    {
        const char next = *m_in;
        if (next == '\0' || isFieldLetter(next)) {
            return '\0';
        }
        ++m_in;
        const bool isSeparator = next == '-' || next == '.' || next == '/';
        return isSeparator && !m_ownSeparators ? m_separator : next;
    }

    static bool isFieldLetter(char letter)
    {
        switch (letter) {
        case 'y':
        case 'M':
        case 'd':
        case 'H':
        case 'h':
        case 'm':
        case 's':
        case 't':
            return true;
        default:
            return false;
        }
    }

    size_t takeRun(char letter, char otherLetter)
    {
        const char* const begin = m_in;
        while (*m_in == letter || *m_in == otherLetter) {
            ++m_in;
        }
        return static_cast<size_t>(m_in - begin);
    }

    const char* m_in;
    bool m_ownSeparators;
    char m_separator;
    bool m_hours12;
    bool m_orderMissing = false;
    DatePieces m_date;
};

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

/// Writes pieces of one time.
class CTimeWriter
{
public:
    CTimeWriter(char* buf, const SystemTime& time, bool hours12)
        : m_begin(buf), m_out(buf), m_hour(time.hour), m_values{time.year,
                                                                time.year % 100,
                                                                time.month,
                                                                time.day,
                                                                hourShown(time.hour, hours12),
                                                                time.minute,
                                                                time.second}
    {}

    void write(const Piece& piece)
    {
        if (piece.source < Source::numbers) {
            m_out = appendNumber(m_out, m_values[static_cast<int>(piece.source)], piece.digits);
        } else if (piece.source == Source::halfOfDay) {
            *m_out++ = m_hour < 12 ? 'A' : 'P';
            *m_out++ = 'M';
        } else if (piece.source == Source::trim) {
            trim();
        }
        if (piece.literal != '\0') {
            *m_out++ = piece.literal;
        }
    }

    void end() { *m_out = '\0'; }

private:
    void trim()
    {
        while (m_out > m_begin && m_out[-1] == ' ') {
            --m_out;
        }
    }

    char* const m_begin;
    char* m_out;
    const int m_hour;
    const int m_values[static_cast<int>(Source::numbers)];
};

/// The pieces of the format text that a thread used last. Threads write one format over and over,
/// and reading it takes twice as long as writing the time.
struct FormatPlan
{
    static constexpr size_t room = 40;

    Settings settings;
    int mask;
    bool hours12;
    bool orderMissing;
    uint8_t count;
    Piece pieces[room]; ///< each takes a character of the format at least
    char format[room];  ///< "" while there is no plan
};

constinit thread_local FormatPlan s_plan = {};

/// The plan for `format` if it is the thread's last one.
const FormatPlan* findPlan(const char* format, const Settings& settings, int mask)
{
    const bool same = s_plan.mask == mask && s_plan.settings == settings &&
                      strcmp(s_plan.format, format) == 0 && *format != '\0';
    return same ? &s_plan : nullptr;
}

/// Makes the thread's plan for `format`; null if that is too long for one.
const FormatPlan* makePlan(const char* format, const Settings& settings, int mask)
{
    const size_t length = strnlen(format, FormatPlan::room);
    if (length == 0 || length == FormatPlan::room) {
        return nullptr;
    }
    CFormatReader reader(format, settings, mask);
    uint8_t count = 0;
    for (; !reader.atEnd(); ++count) {
        s_plan.pieces[count] = reader.next();
    }
    s_plan.settings = settings;
    s_plan.mask = mask;
    s_plan.hours12 = reader.hours12();
    s_plan.orderMissing = reader.orderMissing();
    s_plan.count = count;
    memcpy(s_plan.format, format, length + 1);
    return &s_plan;
}

void complainAboutOrder()
{
    logLibName(logLevelError, "Infra",
               "setFormat dateFormat is invalid,set default separator: ymd \n");
}

void writeByPlan(char* buf, const SystemTime& time, const FormatPlan& plan)
{
    CTimeWriter writer(buf, time, plan.hours12);
    for (int idx = 0; idx < plan.count; ++idx) {
        writer.write(plan.pieces[idx]);
    }
    writer.end();
    if (plan.orderMissing) {
        complainAboutOrder();
    }
}

void writeByReader(char* buf, const SystemTime& time, CFormatReader reader)
{
    CTimeWriter writer(buf, time, reader.hours12());
    while (!reader.atEnd()) {
        writer.write(reader.next());
    }
    writer.end();
    if (reader.orderMissing()) {
        complainAboutOrder();
    }
}

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

/// Reads the digits at `in` into `number` and returns their end.
const char* readNumber(const char* in, int& number)
{
    constexpr int digitsThatFit = 9;
    const char* const begin = in;
    unsigned value = 0;
    for (; isDigit(*in); ++in) {
        value = value * 10 + static_cast<unsigned>(*in - '0');
    }
    number = in - begin > digitsThatFit ? longNumber(begin, in) : static_cast<int>(value);
    return in;
}

SixNumbers readSixNumbers(const char* text)
{
    SixNumbers numbers = {};
    while (numbers.count < 6) {
        while (*text != '\0' && !isDigit(*text)) {
            ++text;
        }
        if (*text == '\0') {
            break;
        }
        text = readNumber(text, numbers.values[numbers.count++]);
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
    char format[40]; ///< "" while there is none
};

constinit thread_local LastParseRule s_lastRule = {};

ParseRule parseRuleOf(const char* format)
{
    if (*format != '\0' && strcmp(s_lastRule.format, format) == 0) {
        return s_lastRule.rule;
    }
    const ParseRule rule = {dateOrderOf(format), contains(format, 'h')};
    if (strnlen(format, sizeof(s_lastRule.format)) < sizeof(s_lastRule.format)) {
        s_lastRule.rule = rule;
        copyText(s_lastRule.format, format);
    }
    return rule;
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
    const ParseRule rule = parseRuleOf(format);
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
    const Settings current = settings();
    const FormatPlan* plan = findPlan(format, current, mask);
    if (plan == nullptr) {
        plan = makePlan(format, current, mask);
    }
    if (plan != nullptr) {
        writeByPlan(buf, *this, *plan);
    } else {
        writeByReader(buf, *this, CFormatReader(format, current, mask));
    }
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
    const char separator = separatorOf(text);
    const std::optional<DateFormat> order = dateOrderOf(text);
    if (!order) {
        complainAboutOrder();
    }
    s_settings.store({static_cast<uint8_t>(order.value_or(ymd)), separator, contains(text, 'h'), 0},
                     std::memory_order_relaxed);
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
    return static_cast<DateFormat>(settings().s_dateFormat);
}

bool CTime::get12Hour()
{
    return settings().s_12hour;
}

char CTime::getSeparator()
{
    return settings().s_dateSeparator;
}

} // namespace Infra
} // namespace Tarsel

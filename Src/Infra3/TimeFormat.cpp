// TimeFormat.cpp: calendar time written as text, and the process-wide settings of that.
//
// A format text is read into pieces (CFormatReader), and pieces are written (CTimeWriter). Reading
// takes twice as long as writing, and threads write one format over and over, so each thread keeps
// the pieces of its last format. A format that is too long for that goes through in portions.
// Nothing is allocated; the digits go straight into the caller's buffer.
//
// The date letters of a format only mark places: the process-wide date order says what stands in
// the first, the second and the third of them. That is how one text serves every country.

#include <atomic>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>

#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Time.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Digits.h"
#include "Infra3/Immortal.h"
#include "Infra3/TimeFormat.h"
#include "Infra3/TimeInternal.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

typedef TimeFormatSettings Settings;

/// In one word, so that a text is never written by half of a change.
constinit std::atomic<Settings> s_settings{Settings{}};

Settings settings()
{
    return s_settings.load(std::memory_order_relaxed);
}

CDefaultTimeFormat& defaultFormat()
{
    struct Tag;
    return immortal<CDefaultTimeFormat, Tag>();
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

/// For fields that a caller set to something that is no date.
[[gnu::cold, gnu::noinline]] char* appendAnyNumber(char* out, int number, int digits)
{
    char text[16];
    const size_t length = formatText(text, "%0*d", digits, number);
    memcpy(out, text, length);
    return out + length;
}

/// Writes `number` with no less than `digits` digits: 1, 2 or 4.
inline char* appendNumber(char* out, int number, int digits)
{
    const auto value = static_cast<unsigned>(number);
    if (digits <= 2 && value < 100) {
        const bool one = digits == 1 && value < 10;
        memcpy(out, &digitPairs[value * 2 + (one ? 1 : 0)], 2);
        return out + (one ? 1 : 2);
    }
    if (digits == 4 && value < 10000) {
        return writePair(writePair(out, value / 100), value % 100);
    }
    return appendAnyNumber(out, number, digits);
}

/// How often each date letter stands in a format, wherever.
struct LetterCounts
{
    size_t year;
    size_t month;
    size_t day;
};

LetterCounts countDateLetters(const char* format)
{
    LetterCounts counts = {};
    for (; *format != '\0'; ++format) {
        const DateLetter letter = dateLetterOf(*format);
        counts.year += letter == yearLetter ? 1 : 0;
        counts.month += letter == monthLetter ? 1 : 0;
        counts.day += letter == dayLetter ? 1 : 0;
    }
    return counts;
}

/// What a piece of a format text has written.
enum class Source : uint8_t
{
    year,
    month,
    day,
    hour,
    minute,
    second,
    fields,             ///< those above are fields of the time as they are
    shortYear = fields, ///< the last two digits
    hour12,             ///< 1 to 12
    halfOfDay,          ///< "AM" or "PM"
    trim,               ///< drops the blanks before it
    nothing
};

constexpr int SystemTime::*fieldOfSource[] = {&SystemTime::year,   &SystemTime::month,
                                              &SystemTime::day,    &SystemTime::hour,
                                              &SystemTime::minute, &SystemTime::second};
static_assert(std::size(fieldOfSource) == static_cast<size_t>(Source::fields));

/// A part of a format text: what it writes, and one character behind that.
struct Piece
{
    Source source;
    uint8_t digits; ///< the least to write a number with
    char literal;   ///< 0: none
};

constexpr Piece emptyPiece = {Source::nothing, 0, '\0'};

Piece yearPiece(size_t letters)
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
          m_separator(settings.dateSeparator),
          m_hours12((mask & CTime::fmHourFormat) != 0 ? contains(format, 'h') : settings.hours12)
    {
        auto order = static_cast<CTime::DateFormat>(settings.dateFormat);
        if ((mask & CTime::fmDateFormat) != 0) {
            const std::optional<CTime::DateFormat> ownOrder = dateOrderOf(format);
            m_orderMissing = !ownOrder;
            order = ownOrder.value_or(CTime::ymd);
        }
        m_date = datePieces(format, order);
    }

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
            return numberPiece(m_hours12 ? Source::hour12 : Source::hour, takeRun('H', 'h'));
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

int hourOf12(int hour)
{
    if (hour == 0) {
        return 12;
    }
    return hour > 12 ? hour - 12 : hour;
}

/// Writes pieces of one time.
class CTimeWriter
{
public:
    CTimeWriter(char* buf, const SystemTime& time) : m_time(time), m_begin(buf), m_out(buf) {}

    void write(const Piece& piece)
    {
        if (piece.source < Source::fields) {
            const int value = m_time.*fieldOfSource[static_cast<size_t>(piece.source)];
            m_out = appendNumber(m_out, value, piece.digits);
        } else {
            writeDerived(piece);
        }
        if (piece.literal != '\0') {
            *m_out++ = piece.literal;
        }
    }

    void end() { *m_out = '\0'; }

private:
    void writeDerived(const Piece& piece)
    {
        switch (piece.source) {
        case Source::shortYear:
            m_out = appendNumber(m_out, m_time.year % 100, piece.digits);
            break;
        case Source::hour12:
            m_out = appendNumber(m_out, hourOf12(m_time.hour), piece.digits);
            break;
        case Source::halfOfDay:
            *m_out++ = m_time.hour < 12 ? 'A' : 'P';
            *m_out++ = 'M';
            break;
        case Source::trim:
            while (m_out > m_begin && m_out[-1] == ' ') {
                --m_out;
            }
            break;
        default:
            break;
        }
    }

    const SystemTime& m_time;
    char* const m_begin;
    char* m_out;
};

/// Pieces of a format text: all of them, or a portion of a long one.
struct FormatPlan
{
    static constexpr size_t room = 40;

    Settings settings; ///< of the reading
    int mask;
    bool orderMissing;
    uint8_t count;
    Piece pieces[room]; ///< each takes a character of the format at least
    char format[room];  ///< what the pieces are all of; "" where there is no such text

    void read(CFormatReader& reader)
    {
        for (count = 0; count < room && !reader.atEnd(); ++count) {
            pieces[count] = reader.next();
        }
        orderMissing = reader.orderMissing();
    }

    void write(CTimeWriter& writer) const
    {
        for (const Piece* piece = pieces; piece != pieces + count; ++piece) {
            writer.write(*piece);
        }
    }
};

/// The plan of the format text that a thread used last.
constinit thread_local FormatPlan s_plan = {};

bool isLastPlan(const char* format, const Settings& settings, int mask)
{
    return s_plan.mask == mask && s_plan.settings == settings &&
           strcmp(s_plan.format, format) == 0 && *format != '\0';
}

/// Writes by a plan made for `format`, which stays the thread's if it holds all of the text.
void writeByNewPlan(CTimeWriter& writer, const char* format, const Settings& settings, int mask)
{
    CFormatReader reader(format, settings, mask);
    s_plan.format[0] = '\0';
    s_plan.read(reader);
    // Kept before anything is written: the caller may have the text put where the format stands.
    if (strnlen(format, FormatPlan::room) < FormatPlan::room) {
        s_plan.settings = settings;
        s_plan.mask = mask;
        copyText(s_plan.format, format);
    }
    s_plan.write(writer);
    while (!reader.atEnd()) {
        s_plan.read(reader);
        s_plan.write(writer);
    }
}

void complainAboutOrder()
{
    logLibName(logLevelError, "Infra",
               "setFormat dateFormat is invalid,set default separator: ymd \n");
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

constexpr int sequenceOf(DateLetter first, DateLetter second, DateLetter third)
{
    return (first * 8 + second) * 8 + third;
}

} // namespace

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

void writeTime(char* buf, const SystemTime& time, const char* format, int mask,
               const TimeFormatSettings& settings)
{
    CTimeWriter writer(buf, time);
    if (isLastPlan(format, settings, mask)) {
        s_plan.write(writer);
    } else {
        writeByNewPlan(writer, format, settings, mask);
    }
    writer.end();
    if (s_plan.orderMissing) {
        complainAboutOrder();
    }
}

TimeFormatSettings timeFormatSettingsOf(const char* format)
{
    const char separator = separatorOf(format);
    const std::optional<CTime::DateFormat> order = dateOrderOf(format);
    if (!order) {
        complainAboutOrder();
    }
    return {static_cast<uint8_t>(order.value_or(CTime::ymd)), separator, contains(format, 'h')};
}

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
    writeTime(buf, *this, format, mask, settings());
}

void CTime::setFormatString(const char* format)
{
    const char* const text = textOrEmpty(format);
    defaultFormat().set(text);
    s_settings.store(timeFormatSettingsOf(text), std::memory_order_relaxed);
}

void CTime::setFormat(const std::string& format)
{
    setFormatString(format.c_str());
}

CString2 CTime::getFormat()
{
    return defaultFormat().get();
}

CTime::DateFormat CTime::getDateFormat()
{
    return static_cast<DateFormat>(settings().dateFormat);
}

bool CTime::get12Hour()
{
    return settings().hours12;
}

char CTime::getSeparator()
{
    return settings().dateSeparator;
}

} // namespace Infra
} // namespace Tarsel

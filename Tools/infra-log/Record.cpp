// Record.cpp: puts records together.

#include "Record.h"

#include <utility>

namespace
{

constexpr size_t cutLength = 8190;                // of a record that was too long for the log
constexpr size_t longestRecord = size_t{1} << 20; // what is longer is given out in parts
constexpr std::chrono::hours halfDay(12);

std::string_view behindColours(std::string_view line)
{
    while (line.starts_with("\033[")) {
        const size_t end = line.find_first_not_of("0123456789;", 2);
        if (end == std::string_view::npos || line[end] != 'm') {
            break;
        }
        line.remove_prefix(end + 1);
    }
    return line;
}

/// What was printed to a terminal has colours before a prefix and, behind the last line, their reset.
/// Those in front of other lines are a message's own.
std::string_view withoutColours(std::string_view line)
{
    const std::string_view behind = behindColours(line);
    return behind.empty() || readPrefix(behind) ? behind : line;
}

} // namespace

// CCalendar ----------------------------------------------------------------------------------------

void CCalendar::start(std::chrono::year_month_day date)
{
    m_day = std::chrono::local_days(date);
    m_last.reset();
}

std::optional<Moment> CCalendar::momentOf(const Prefix& prefix)
{
    if (prefix.date) {
        m_day = std::chrono::local_days(*prefix.date);
    } else if (prefix.time && m_last && *prefix.time + halfDay < *m_last) {
        ++m_daysEnded;
        if (m_day) {
            *m_day += std::chrono::days(1);
        }
    }
    if (prefix.time) {
        m_last = prefix.time;
    }
    if (!m_day || !prefix.time) {
        return std::nullopt;
    }
    return *m_day + *prefix.time;
}

// CRecords -----------------------------------------------------------------------------------------

CRecords::CRecords(Take take) : m_take(std::move(take)) {}

void CRecords::startFile(std::chrono::year_month_day date)
{
    m_seam = m_line.size();
    m_calendar.start(date);
}

void CRecords::add(std::string_view bytes)
{
    for (size_t end = 0; (end = bytes.find('\n')) != std::string_view::npos;) {
        const std::string_view line = bytes.substr(0, end + 1);
        if (m_line.empty()) {
            addLine(line);
        } else {
            m_line.append(line);
            addOpenLine();
        }
        bytes.remove_prefix(end + 1);
    }
    m_line.append(bytes);
}

void CRecords::flush(bool isEnd)
{
    if (isEnd && !m_line.empty()) {
        addOpenLine();
    }
    if (m_line.empty()) {
        give();
    }
}

void CRecords::addOpenLine()
{
    const std::string line = std::exchange(m_line, {});
    std::string_view here = line;
    const size_t seam = std::exchange(m_seam, 0);
    if (seam > 0 && readPrefix(withoutColours(here.substr(seam)))) {
        addLine(here.substr(0, seam));
        here.remove_prefix(seam);
    }
    addLine(here);
}

void CRecords::addLine(std::string_view line)
{
    line = withoutColours(line);
    while (line.size() > cutLength && readPrefix(line) && readPrefix(line.substr(cutLength))) {
        addWholeLine(line.substr(0, cutLength));
        line.remove_prefix(cutLength);
    }
    addWholeLine(line);
}

void CRecords::addWholeLine(std::string_view line)
{
    if (const auto prefix = readPrefix(line)) {
        give();
        m_goesOn = false;
        m_moment = m_calendar.momentOf(*prefix);
    } else if (m_record.size() + line.size() > longestRecord) {
        give();
    }
    m_record.append(line);
}

void CRecords::give()
{
    if (m_record.empty()) {
        return;
    }
    Record record;
    record.text = m_record;
    record.goesOn = m_goesOn;
    record.moment = m_moment;
    if (const auto prefix = readPrefix(m_record)) {
        record.prefix = *prefix;
    }
    m_take(record);
    m_record.clear();
    m_goesOn = true;
}

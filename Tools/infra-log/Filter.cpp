// Filter.cpp: which records are shown.

#include "Filter.h"

#include <ctime>
#include <utility>

#include "Common/Failure.h"
#include "Reader.h"

CFilter::CFilter(Wanted wanted) : m_wanted(std::move(wanted)), m_tookLast(isWanted(Record())) {}

bool CFilter::takes(const Record& record)
{
    if (!record.goesOn) {
        m_tookLast = isWanted(record);
    }
    return m_tookLast;
}

bool CFilter::isWanted(const Record& record) const
{
    const Prefix& prefix = record.prefix;
    const auto isAmong = [](const auto& all, const auto& one) {
        return all.empty() || (one && all.contains(*one));
    };
    return (!m_wanted.level || (prefix.level && *prefix.level <= *m_wanted.level)) &&
           isAmong(m_wanted.modules, prefix.module) && isAmong(m_wanted.threads, prefix.thread) &&
           (!m_wanted.since || (record.moment && *record.moment >= *m_wanted.since)) &&
           (!m_wanted.until || (record.moment && *record.moment <= *m_wanted.until));
}

Level levelOf(const std::string& text)
{
    for (int number = 1; number <= static_cast<int>(Level::trace); ++number) {
        const Level level = static_cast<Level>(number);
        if (text == nameOf(level) || text == std::to_string(number)) {
            return level;
        }
    }
    throw CFailure(text + ": not a level; they are fatal, error, warn, info and trace, or 1 to 5");
}

Moment momentOf(const std::string& text)
{
    std::string_view left = text;
    const auto date = takeDate(left);
    const bool hasTime = !date || takeText(left, "T") || takeText(left, " ");
    const auto time = hasTime ? takeTime(left, 59) : std::nullopt;
    if (!left.empty() || (hasTime && !time)) {
        throw CFailure(text + ": not a time; it is like 2026-11-23T10:04:05 or 10:04");
    }
    return std::chrono::local_days(date.value_or(dayOf(::time(nullptr)))) +
           time.value_or(std::chrono::milliseconds(0));
}

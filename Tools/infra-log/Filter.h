#ifndef INFRA_TOOLS_LOG_FILTER_H
#define INFRA_TOOLS_LOG_FILTER_H

#include <optional>
#include <set>
#include <string>

#include "Record.h"

/// Which records are wanted. A record that does not say what is asked for is not wanted.
struct Wanted
{
    std::optional<Level> level; ///< and worse ones
    std::set<std::string, std::less<>> modules;
    std::set<long long> threads;
    std::optional<Moment> since;
    std::optional<Moment> until; ///< and that moment itself
};

class CFilter
{
public:
    explicit CFilter(Wanted wanted);

    /// A part of a record that goes on is wanted when its first part was.
    bool takes(const Record& record);

private:
    bool isWanted(const Record& record) const;

    Wanted m_wanted;
    bool m_tookLast;
};

/// Of "info", "4"; throws CFailure.
Level levelOf(const std::string& text);
/// Of "2026-11-23 10:04:05.123", where the time may end earlier, and either half may be missing:
/// midnight, today. Throws CFailure.
Moment momentOf(const std::string& text);

#endif

#ifndef INFRA_TOOLS_COMMON_FAILURE_H
#define INFRA_TOOLS_COMMON_FAILURE_H

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

/// What a tool ends with. Monitoring relies on them.
enum ExitCode : int
{
    exitSound = 0,
    exitFaults = 1, ///< what was looked at is there, and something in it is not as it has to be
    exitTrouble = 2 ///< nothing to look at, not readable, refused, or a wrong command line
};

/// Why a tool cannot do what it was asked for; ends it with exitTrouble.
class CFailure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;

    static CFailure ofSystem(const std::string& what)
    {
        return CFailure(what + ": " + strerror(errno));
    }
};

/// Somebody holds what is needed and does not let it go. Later it may be different.
class CBusy : public CFailure
{
public:
    using CFailure::CFailure;
};

#endif

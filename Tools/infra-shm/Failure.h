#ifndef INFRA_TOOLS_SHM_FAILURE_H
#define INFRA_TOOLS_SHM_FAILURE_H

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

/// What the tool ends with. Monitoring relies on them.
enum ExitCode : int
{
    exitSound = 0,
    exitFaults = 1, ///< the pool is there, and something in it is not as it has to be
    exitTrouble = 2 ///< no pool, not readable, refused, or a wrong command line
};

/// Why a command cannot do what it was asked for; ends the tool with exitTrouble.
class CFailure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;

    static CFailure ofSystem(const std::string& what)
    {
        return CFailure(what + ": " + strerror(errno));
    }
};

/// Somebody holds the mutex and does not let it go. Later it may be different.
class CBusy : public CFailure
{
public:
    using CFailure::CFailure;
};

#endif

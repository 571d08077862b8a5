#ifndef INFRA_TESTS_SUPPORT_SYSTEMCLOCK_H
#define INFRA_TESTS_SUPPORT_SYSTEMCLOCK_H

// The system's clocks as tests need them. The test program defines `settimeofday`, `gettimeofday`,
// `clock_gettime` and `system` itself. Setting the clock never reaches the system: it is refused
// (EPERM) unless a CFakeClockSetting answers it. The others pass through until they are told not
// to.

#include <cstdint>
#include <string>
#include <vector>

namespace Tarsel
{
namespace TestSupport
{

/// Adds `seconds` to what `gettimeofday` says from now on.
void shiftWallClock(int64_t seconds);

/// Has the monotonic clock stand at `microseconds`; 0 lets it run again.
void freezeMonotonicClock(uint64_t microseconds);

/// Has reading the monotonic clock fail with `error`; 0 lets it succeed again.
void failMonotonicClock(int error);

/// Takes every setting of the clock and every shell command as long as it lives.
class CFakeClockSetting
{
public:
    /// @param error          what setting the clock fails with; 0: it succeeds
    /// @param commandResult  what every shell command returns
    CFakeClockSetting(int error, int commandResult);
    ~CFakeClockSetting();

    CFakeClockSetting(const CFakeClockSetting&) = delete;
    CFakeClockSetting& operator=(const CFakeClockSetting&) = delete;

    struct Setting
    {
        long seconds;
        long microseconds;
    };
    std::vector<Setting> settings;
    std::vector<std::string> commands;

    const int error;
    const int commandResult;
};

} // namespace TestSupport
} // namespace Tarsel

#endif

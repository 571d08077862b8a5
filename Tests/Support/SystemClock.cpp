#include "Support/SystemClock.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace
{

constinit std::atomic<int64_t> s_wallShift{0};
constinit std::atomic<uint64_t> s_frozenUs{0};
constinit std::atomic<int> s_monotonicError{0};
constinit std::atomic<Tarsel::TestSupport::CFakeClockSetting*> s_fake{nullptr};

} // namespace

namespace Tarsel
{
namespace TestSupport
{

void shiftWallClock(int64_t seconds)
{
    s_wallShift = seconds;
}

void freezeMonotonicClock(uint64_t microseconds)
{
    s_frozenUs = microseconds;
}

void failMonotonicClock(int error)
{
    s_monotonicError = error;
}

CFakeClockSetting::CFakeClockSetting(int settingError, int result)
    : error(settingError), commandResult(result)
{
    s_fake = this;
}

CFakeClockSetting::~CFakeClockSetting()
{
    s_fake = nullptr;
}

} // namespace TestSupport
} // namespace Tarsel

extern "C" int settimeofday(const struct timeval* clock, const struct timezone*) noexcept
{
    Tarsel::TestSupport::CFakeClockSetting* const fake = s_fake;
    if (fake == nullptr || fake->error != 0) {
        errno = fake == nullptr ? EPERM : fake->error;
        return -1;
    }
    fake->settings.push_back({clock->tv_sec, clock->tv_usec});
    return 0;
}

extern "C" int gettimeofday(struct timeval* clock, void* zone) noexcept
{
    const long result = syscall(SYS_gettimeofday, clock, zone);
    clock->tv_sec += s_wallShift.load(std::memory_order_relaxed);
    return static_cast<int>(result);
}

extern "C" int clock_gettime(clockid_t id, struct timespec* now) noexcept
{
    const int error = s_monotonicError.load(std::memory_order_relaxed);
    if (id == CLOCK_MONOTONIC && error != 0) {
        errno = error;
        return -1;
    }
    const uint64_t frozenUs = s_frozenUs.load(std::memory_order_relaxed);
    if (id != CLOCK_MONOTONIC || frozenUs == 0) {
        return static_cast<int>(syscall(SYS_clock_gettime, id, now));
    }
    now->tv_sec = static_cast<time_t>(frozenUs / 1000000);
    now->tv_nsec = static_cast<long>(frozenUs % 1000000 * 1000);
    return 0;
}

extern "C" int system(const char* command)
{
    Tarsel::TestSupport::CFakeClockSetting* const fake = s_fake;
    if (fake != nullptr && command != nullptr) {
        fake->commands.emplace_back(command);
        return fake->commandResult;
    }
    typedef int (*System)(const char*);
    static const auto next = reinterpret_cast<System>(dlsym(RTLD_NEXT, "system"));
    return next(command);
}

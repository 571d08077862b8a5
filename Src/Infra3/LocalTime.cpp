// LocalTime.cpp: the lock in front of the system's zone.

#include "Infra3/LocalTime.h"

#include <atomic>

#include "Infra/Infra3/Guard.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/PlainShared.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

CLeafMutex& zoneMutex()
{
    struct Tag;
    return immortal<CLeafMutex, Tag>();
}

/// The last second that this thread asked for, and the zone that it was asked in.
struct LastSecond
{
    tm local;
    time_t second;
    long zone;
    bool valid;
};
constinit thread_local LastSecond t_last = {};

} // namespace

const tm& localTimeOf(time_t second)
{
    const long zone = loadPlain(timezone);
    if (!t_last.valid || t_last.second != second || t_last.zone != zone) {
        CGuard guard(zoneMutex());
        localtime_r(&second, &t_last.local);
        t_last.second = second;
        t_last.zone = zone;
        t_last.valid = true;
    }
    return t_last.local;
}

bool convertToLocal(time_t second, tm& local)
{
    CGuard guard(zoneMutex());
    return localtime_r(&second, &local) != nullptr;
}

time_t convertFromLocal(tm& local)
{
    CGuard guard(zoneMutex());
    return mktime(&local);
}

/// The zone is kept in plain words: one thread has them written, the others wait.
void readZoneOnce()
{
    static constinit std::atomic<bool> zoneRead{false};
    if (zoneRead.load(std::memory_order_acquire)) {
        return;
    }
    CGuard guard(zoneMutex());
    if (!zoneRead.load(std::memory_order_relaxed)) {
        tzset();
        zoneRead.store(true, std::memory_order_release);
    }
}

} // namespace Infra
} // namespace Tarsel

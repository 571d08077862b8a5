// Signal.cpp: what the signal templates need from the library.

#include "Infra/Infra3/Signal.h"

#include <poll.h>
#include <sched.h>

#include "Infra3/BoundedText.h"
#include "Infra3/LogFront.h"
#include "Infra3/ThreadId.h"

namespace Tarsel
{
namespace Infra
{
namespace Detail
{
namespace
{

constinit thread_local SignalCall* t_innermostCall = nullptr;

/// Rounds in which the other thread may be just about to leave; after them it is asleep or at work.
constexpr unsigned yieldingRounds = 64;

} // namespace

SignalCall*& currentSignalCall()
{
    return t_innermostCall;
}

int signalThreadId()
{
    return currentThreadId();
}

void pauseForSignalCall(unsigned round)
{
    if (round < yieldingRounds) {
        sched_yield();
    } else {
        poll(nullptr, 0, 1);
    }
}

void logSignalSlot(const void* signal, int index, unsigned calls, const char* objectType,
                   const void* object)
{
    INFRA_LOG_INFO("this:%p slot:%d, calls:%u, type:%s, object:%p\n", signal, index, calls,
                   textOrEmpty(objectType), object);
}

} // namespace Detail
} // namespace Infra
} // namespace Tarsel

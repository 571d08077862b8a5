#ifndef INFRA_SRC_INFRA3_PROCESSID_H
#define INFRA_SRC_INFRA3_PROCESSID_H

// The id of this process without a system call: on the paths where it is asked for, the call would
// cost more than all the rest.

#include <sys/types.h>

#include <atomic>

namespace Tarsel
{
namespace Infra
{

namespace Detail
{
/// Lies in memory that the system clears in the child of any fork; null until asked for.
extern constinit std::atomic<std::atomic<pid_t>*> s_processId;
} // namespace Detail

/// Asks the system, and remembers the answer where that can be done.
pid_t fetchProcessId();

/// Right in the child of a fork, too, even of one that the library does not see.
inline pid_t currentProcessId()
{
    const std::atomic<pid_t>* const kept = Detail::s_processId.load(std::memory_order_acquire);
    const pid_t id = kept != nullptr ? kept->load(std::memory_order_relaxed) : 0;
    return id != 0 ? id : fetchProcessId();
}

} // namespace Infra
} // namespace Tarsel

#endif

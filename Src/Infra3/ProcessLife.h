#ifndef INFRA_SRC_INFRA3_PROCESSLIFE_H
#define INFRA_SRC_INFRA3_PROCESSLIFE_H

// Whether another process lives. A signal of number 0 does not tell: it reaches zombies, too, and
// threads.

#include <sys/types.h>

namespace Tarsel
{
namespace Infra
{

/// False for a process whose last thread has ended, waited for or not, for the number of a thread
/// that is no process, and for no process's number: 0 and below. Takes no memory and does not block.
bool isProcessAlive(pid_t pid);

namespace Detail
{
/// The same from /proc, for a system that has no pidfds, or none to spare.
bool isProcessAliveByStatus(pid_t pid);
} // namespace Detail

} // namespace Infra
} // namespace Tarsel

#endif

#ifndef INFRA_TOOLS_SHM_MUTEX_H
#define INFRA_TOOLS_SHM_MUTEX_H

// Process mutex 0, as somebody sees it who wants nothing but to look.
//
// It is robust and inherits priority, so its first word is the system's: the low 30 bits are the
// thread that owns it, bit 30 says that the last owner died inside, bit 31 that threads wait.

#include <chrono>
#include <functional>
#include <string>

#include "Memory/ShareMem/Common.h"
#include "Process.h"

struct MutexState
{
    enum Kind
    {
        free,
        held,      ///< by a living thread
        ownerDied, ///< nobody has it; the next to take it repairs
        lost,      ///< the thread that has it is not there; whoever locks waits for ever
        unusable   ///< an owner let it go without a repair
    };
    Kind kind;
    pid_t thread;     ///< of the owner; 0: none
    pid_t process;    ///< 0: none, or unknown
    std::string name; ///< of the process
    bool isRepairing; ///< the owner before died, and this one repairs
};

MutexState stateOfMutex(const ProcessMutexInternal& mutex);
/// "held by process 12 (name), thread 13"
std::string mutexText(const MutexState& state);

/// That long from now on, as a lock wants to be told.
timespec deadlineIn(std::chrono::milliseconds wait);

/// Runs `work`, which must not throw, with the mutex held; waits for it at most that long. 0, or what
/// the lock gave. If the owner dies meanwhile the result is EOWNERDEAD, and the mutex is as if nobody
/// had tried: the next to take it repairs.
int withMutex(ProcessMutexInternal& mutex, std::chrono::milliseconds wait,
              const std::function<void()>& work);

#endif

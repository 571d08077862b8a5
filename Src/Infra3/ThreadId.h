#ifndef INFRA_SRC_INFRA3_THREADID_H
#define INFRA_SRC_INFRA3_THREADID_H

// The kernel's id of the calling thread, as logs and tables show it, asked for once a thread.

namespace Tarsel
{
namespace Infra
{

namespace Detail
{
extern constinit thread_local int t_threadId; ///< 0 until asked for
}

/// Asks the kernel and remembers the answer for this thread.
int fetchThreadId();

/// The id must be asked for again: the calling thread is a new process.
void forgetThreadId();

inline int currentThreadId()
{
    const int id = Detail::t_threadId;
    return id != 0 ? id : fetchThreadId();
}

} // namespace Infra
} // namespace Tarsel

#endif

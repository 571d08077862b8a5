// ThreadId.cpp: the cached kernel thread id.

#include "Infra3/ThreadId.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "Infra3/Fork.h"

namespace Tarsel
{
namespace Infra
{
namespace Detail
{

constinit thread_local int t_threadId = 0;

}

int fetchThreadId()
{
    // A child of this process inherits the cache of the forking thread; the handlers clear it.
    watchForks();
    Detail::t_threadId = static_cast<int>(syscall(SYS_gettid));
    return Detail::t_threadId;
}

void forgetThreadId()
{
    Detail::t_threadId = 0;
}

} // namespace Infra
} // namespace Tarsel

// ThreadLite.cpp: a thread that runs a delegate.

#include "Infra/Infra3/ThreadLite.h"

#include "Infra/Infra3/Thread.h"

namespace Tarsel
{
namespace Infra
{

struct ThreadLiteInternal
{
    CThreadLite::ThreadProc m_proc;
};

CThreadLite::CThreadLite(ThreadProc proc, const char* name, int priority, int policy, int stackSize)
    : CThread(name, priority, policy, stackSize), m_internal(new ThreadLiteInternal{proc})
{}

CThreadLite::~CThreadLite()
{
    if (!isThreadOver()) {
        destroyThread();
    }
    endThread(); // somebody else may have asked first, and then destroyThread() has not waited
    delete m_internal;
}

void CThreadLite::threadProc()
{
    const ThreadProc proc = m_internal->m_proc; // the record may go during the call
    if (!proc.empty()) {
        proc(*this);
    }
}

} // namespace Infra
} // namespace Tarsel

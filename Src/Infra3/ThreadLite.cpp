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
    // Somebody else may have asked first, and then destroyThread() has not waited.
    while (!isThreadOver()) {
        CThread::sleep(1);
    }
    delete m_internal;
}

void CThreadLite::threadProc()
{
    if (!m_internal->m_proc.empty()) {
        m_internal->m_proc(*this);
    }
}

} // namespace Infra
} // namespace Tarsel

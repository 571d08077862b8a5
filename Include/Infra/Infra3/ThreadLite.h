#ifndef INFRA_INFRA3_THREADLITE_H
#define INFRA_INFRA3_THREADLITE_H

#include "Infra/Infra3/Function.h"
#include "Infra/Infra3/Thread.h"

namespace Tarsel
{
namespace Infra
{

struct ThreadLiteInternal;

/// A thread that runs a delegate instead of requiring a subclass.
///
/// Behaviour, threads: as CThread. The destructor stops the thread and waits for it.
/// Ownership: the delegate's object belongs to the caller and must outlive the thread.
///
///     CThreadLite consumer(CThreadLite::ThreadProc(&CStore::consume, &store), "consumer");
///     consumer.createThread();
class INFRA_API CThreadLite : public CThread
{
public:
    typedef TFunction1<void, CThreadLite&> ThreadProc;

    CThreadLite(ThreadProc proc, const char* name, int priority = priorDefault,
                int policy = policyNormal, int stackSize = 0);
    ~CThreadLite() override;

    void threadProc() override;

private:
    CThreadLite(const CThreadLite&);
    CThreadLite& operator=(const CThreadLite&);

    ThreadLiteInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif

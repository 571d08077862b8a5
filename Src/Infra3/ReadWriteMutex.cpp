// ReadWriteMutex.cpp: CReadWriteMutex over the system's read-write lock. Making, ending and failing;
// entering and leaving stand in the header.

#include "Infra/Infra3/ReadWriteMutex.h"

#include <pthread.h>

#include <cstdlib>
#include <new>

#include "Infra3/AssertFront.h"
#include "Infra3/ErrorText.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Infra
{

namespace
{

int initLock(pthread_rwlock_t* lock, CReadWriteMutex::RWPriority priority)
{
    if (priority == CReadWriteMutex::priorityDefault) {
        return pthread_rwlock_init(lock, nullptr);
    }
    pthread_rwlockattr_t attribute;
    int ret = pthread_rwlockattr_init(&attribute);
    if (ret != 0) {
        return ret;
    }
    ret = pthread_rwlockattr_setkind_np(&attribute, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    if (ret == 0) {
        ret = pthread_rwlock_init(lock, &attribute);
    }
    pthread_rwlockattr_destroy(&attribute);
    return ret;
}

} // namespace

RWMutexInternal::RWMutexInternal(CReadWriteMutex::RWPriority priority) : markRWPriority(priority)
{
    if (static_cast<unsigned>(priority) > CReadWriteMutex::priorityWrite) {
        INFRA_LOG_WARN("this:%p Input rwpriority level error, priorityDefault used!\n",
                       static_cast<void*>(this));
        markRWPriority = CReadWriteMutex::priorityDefault;
    }
    m_lock = static_cast<pthread_rwlock_t*>(malloc(sizeof(pthread_rwlock_t)));
    INFRA_ASSERT(m_lock);
    const int ret = initLock(m_lock, markRWPriority);
    INFRA_ASSERT(ret == 0);
}

RWMutexInternal::~RWMutexInternal()
{
    const int ret = pthread_rwlock_destroy(m_lock);
    INFRA_ASSERT(ret == 0);
    free(m_lock);
}

CReadWriteMutex::CReadWriteMutex() : CReadWriteMutex(priorityDefault) {}

CReadWriteMutex::CReadWriteMutex(RWPriority rwpriority)
    : m_internal(new (std::nothrow) RWMutexInternal(rwpriority))
{
    INFRA_ASSERT(m_internal);
}

CReadWriteMutex::~CReadWriteMutex()
{
    delete m_internal;
}

bool CReadWriteMutex::reportFailure(const char* function, const char* call, int code)
{
    if (isLevelPrinted(logLevelWarn)) {
        logFront(logLevelWarn, {__FILE__, function, __LINE__},
                 "this:%p %s called failed for errmsg:%s\n", static_cast<void*>(this), call,
                 CErrorText(code).c_str());
    }
    return false;
}

} // namespace Infra
} // namespace Tarsel

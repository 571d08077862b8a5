// Mutex.cpp: the older mutex.

#include "Infra/Mutex.h"

#include <pthread.h>

#include <cstdlib>
#include <new>

#include "Infra3/AssertFront.h"

struct MutexInternal
{
    pthread_mutex_t* m_lock;
};

namespace
{

void initRecursively(pthread_mutex_t* lock)
{
    pthread_mutexattr_t attributes;
    int ret = pthread_mutexattr_init(&attributes);
    INFRA_SYSTEM_ASSERT(ret == 0);
    ret = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    INFRA_SYSTEM_ASSERT(ret == 0);
    ret = pthread_mutex_init(lock, &attributes);
    INFRA_SYSTEM_ASSERT(ret == 0);
    ret = pthread_mutexattr_destroy(&attributes);
    INFRA_SYSTEM_ASSERT(ret == 0);
}

pthread_mutex_t* lockOf(const MutexInternal* m_internal)
{
    INFRA_SYSTEM_ASSERT_TEXT(m_internal->m_lock != nullptr, "m_internal->m_lock");
    return m_internal->m_lock;
}

} // namespace

CMutex::CMutex(Type type) : m_internal(new (std::nothrow) MutexInternal)
{
    INFRA_SYSTEM_ASSERT_TEXT(m_internal != nullptr, "m_internal");
    m_internal->m_lock = static_cast<pthread_mutex_t*>(malloc(sizeof(pthread_mutex_t)));
    pthread_mutex_t* const lock = lockOf(m_internal);
    if (type == mutexRecursive) {
        initRecursively(lock);
    } else {
        const int ret = pthread_mutex_init(lock, nullptr);
        INFRA_SYSTEM_ASSERT(ret == 0);
    }
}

CMutex::~CMutex()
{
    pthread_mutex_t* const lock = lockOf(m_internal);
    const int ret = pthread_mutex_destroy(lock);
    INFRA_SYSTEM_ASSERT(ret == 0);
    free(lock);
    delete m_internal;
}

bool CMutex::Enter()
{
    return pthread_mutex_lock(lockOf(m_internal)) == 0;
}

bool CMutex::TryEnter()
{
    return pthread_mutex_trylock(lockOf(m_internal)) == 0;
}

bool CMutex::Leave()
{
    return pthread_mutex_unlock(lockOf(m_internal)) == 0;
}

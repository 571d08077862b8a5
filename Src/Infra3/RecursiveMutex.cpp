// RecursiveMutex.cpp: CRecursiveMutex over the system's recursive mutex.

#include "Infra/Infra3/RecursiveMutex.h"

#include <new>

#include "Infra3/AssertFront.h"
#include "Infra3/MutexInternal.h"

namespace Tarsel
{
namespace Infra
{

void initRecursiveMutex(RecursiveMutexInternal& internal)
{
    pthread_mutexattr_t attribute;
    int ret = pthread_mutexattr_init(&attribute);
    INFRA_ASSERT(ret == 0);
    ret = pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_RECURSIVE);
    INFRA_ASSERT(ret == 0);
    ret = pthread_mutex_init(&internal.mutex, &attribute);
    INFRA_ASSERT(ret == 0);
    pthread_mutexattr_destroy(&attribute);
}

CRecursiveMutex::CRecursiveMutex() : m_internal(new (std::nothrow) RecursiveMutexInternal)
{
    INFRA_ASSERT(m_internal);
    initRecursiveMutex(*m_internal);
}

CRecursiveMutex::~CRecursiveMutex()
{
    const int ret = pthread_mutex_destroy(&m_internal->mutex);
    INFRA_ASSERT(ret == 0);
    delete m_internal;
}

} // namespace Infra
} // namespace Tarsel

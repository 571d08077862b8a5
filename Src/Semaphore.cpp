// Semaphore.cpp: the older semaphore.

#include "Infra/Semaphore.h"

#include <semaphore.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "Infra3/AssertFront.h"

struct SemaphoreInternal
{
    sem_t* m_sem;
};

CSemaphore::CSemaphore(unsigned int value) : m_internal(new (std::nothrow) SemaphoreInternal)
{
    INFRA_SYSTEM_ASSERT_TEXT(m_internal != nullptr, "m_internal");
    m_internal->m_sem = static_cast<sem_t*>(malloc(sizeof(sem_t)));
    INFRA_SYSTEM_ASSERT_TEXT(m_internal->m_sem != nullptr, "m_internal->m_sem");
    const int ret = sem_init(m_internal->m_sem, /*shared between processes*/ 0, value);
    INFRA_SYSTEM_ASSERT(ret != -1);
}

CSemaphore::~CSemaphore()
{
    const int ret = sem_destroy(m_internal->m_sem);
    INFRA_SYSTEM_ASSERT_TEXT(ret == 0, "ret ==0");
    free(m_internal->m_sem);
    delete m_internal;
}

int CSemaphore::Pend()
{
    int ret = 0;
    do {
        ret = sem_wait(m_internal->m_sem);
    } while (ret != 0 && errno == EINTR);
    INFRA_SYSTEM_ASSERT(ret == 0);
    return ret;
}

int CSemaphore::Post()
{
    return sem_post(m_internal->m_sem);
}

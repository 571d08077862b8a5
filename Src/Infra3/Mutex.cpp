// Mutex.cpp: CMutex, a thin layer over the system's default mutex. It is the system's own object so
// that destroying a held mutex is noticed, and so that debuggers and sanitizers know it.

#include "Infra/Infra3/Mutex.h"

#include <cerrno>

#include "Infra3/AssertFront.h"
#include "Infra3/LogFront.h"
#include "Infra3/MemoryTrial.h"
#include "Infra3/MutexInternal.h"

namespace Tarsel
{
namespace Infra
{

void initMutex(MutexInternal& internal)
{
    const int ret = pthread_mutex_init(&internal.mutex, nullptr);
    INFRA_ASSERT(ret == 0);
}

CMutex::CMutex() : m_internal(newInternal<MutexInternal>())
{
    INFRA_ASSERT(m_internal);
    initMutex(*m_internal);
}

CMutex::~CMutex()
{
    const int ret = pthread_mutex_destroy(&m_internal->mutex);
    if (ret == EBUSY) {
        INFRA_LOG_ERROR("this:%p CMutex::~CMutex() errno:EBUSY.\n", static_cast<void*>(this));
    } else if (ret == EINVAL) {
        INFRA_LOG_ERROR("this:%p CMutex::~CMutex() errno:EINVAL.\n", static_cast<void*>(this));
    } else if (ret != 0) {
        INFRA_LOG_ERROR("this:%p CMutex::~CMutex() errno:%d.\n", static_cast<void*>(this), ret);
    }
    INFRA_ASSERT(ret == 0);
    delete m_internal;
}

} // namespace Infra
} // namespace Tarsel

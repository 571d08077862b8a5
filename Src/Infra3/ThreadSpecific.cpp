// ThreadSpecific.cpp: CThreadSpecific over the system's thread-specific keys.

#include "Infra/Infra3/ThreadSpecific.h"

#include <pthread.h>

#include <new>

#include "Infra3/AssertFront.h"

namespace Tarsel
{
namespace Infra
{

struct ThreadSpecificInternal
{
    pthread_key_t key;
    bool valid; ///< key creation succeeded
};

CThreadSpecific::CThreadSpecific() : m_internal(new (std::nothrow) ThreadSpecificInternal{})
{
    INFRA_ASSERT(m_internal);
    m_internal->valid = pthread_key_create(&m_internal->key, nullptr) == 0;
}

CThreadSpecific::~CThreadSpecific()
{
    if (m_internal->valid) {
        pthread_key_delete(m_internal->key);
    }
    delete m_internal;
}

bool CThreadSpecific::valid()
{
    return m_internal->valid;
}

bool CThreadSpecific::getValue(void** value)
{
    if (!m_internal->valid || value == nullptr) {
        return false;
    }
    *value = pthread_getspecific(m_internal->key);
    return true;
}

bool CThreadSpecific::setValue(const void* value)
{
    return m_internal->valid && pthread_setspecific(m_internal->key, value) == 0;
}

} // namespace Infra
} // namespace Tarsel

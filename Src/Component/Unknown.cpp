// Unknown.cpp: counting references.
//
// A reference that is not the last is dropped without a lock. For the last one it matters who
// shares the object, see ComponentInternal.h: between reading a count of 1 and getting the lock a
// look-up may have added a reference, so the count that is left is only known under the lock.

#include "Component/Unknown.h"

#include "Component/ComponentInternal.h"
#include "Infra3/AssertFront.h"

namespace Tarsel
{
namespace Component
{
namespace
{

/// Drops a reference under the lock of who lists the object, and has it leave that list with the
/// last one. Where nobody lists it there is no other reference, and none can be added.
int dropListed(IUnknown* object)
{
    IUnknown::UnknownInternal& internal = *object->m_internal;
    if (internal.client != nullptr) {
        return dropClient(internal.client);
    }
    if (internal.instance) {
        return dropInstance(object);
    }
    return internal.table != nullptr ? --internal.refCount : internal.refCount.dropOnly();
}

/// The same for an object that a table may hold, too.
int dropLast(IUnknown* object)
{
    Detail::CObjectTable* const table = object->m_internal->table;
    if (table == nullptr) {
        return dropListed(object);
    }
    table->lock();
    const int left = dropListed(object);
    if (left == 0) {
        table->erase(object);
    }
    table->unlock(); // through the pointer that was read: the object may be gone
    return left;
}

} // namespace

int dropReference(IUnknown* object)
{
    const int left = object->m_internal->dropUnlessLast();
    return left > 0 ? left : dropLast(object);
}

IUnknown::IUnknown() : m_internal(new UnknownInternal) {}

IUnknown::~IUnknown()
{
    delete m_internal;
}

int IUnknown::addRef()
{
    m_internal->setUsed();
    return ++m_internal->refCount;
}

int IUnknown::release()
{
    const int left = dropReference(this);
    if (left == 0) {
        destroy();
    }
    return left;
}

int getRefCount(IUnknown* object)
{
    return object == nullptr ? 0 : object->m_internal->refCount.value();
}

int decreaseRefCount(IUnknown* object)
{
    INFRA_ASSERT(object);
    IClient* const client = object->m_internal->client;
    const uint64_t since = client == nullptr ? neverIdle : idleSince(client);
    const int left = --object->m_internal->refCount;
    if (left == 1 && since != neverIdle) {
        expectDroppedClient(since);
    }
    return left;
}

void setObjectTable(IUnknown* object, Detail::CObjectTable* table)
{
    INFRA_ASSERT(object);
    object->m_internal->table = table;
}

void makeInstanceForTable(IUnknown* object)
{
    INFRA_ASSERT(object);
    object->m_internal->handOut();
}

} // namespace Component
} // namespace Tarsel

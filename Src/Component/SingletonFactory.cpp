// SingletonFactory.cpp: the table of objects that a factory shares by key.

#include <algorithm>
#include <vector>

#include "Component/ObjectTable.h"
#include "Infra/Infra3/Mutex.h"
#include "Infra3/AssertFront.h"

namespace Tarsel
{
namespace Component
{
namespace Detail
{

struct ObjectTableInternal
{
    Infra::CMutex mutex; // guards the objects, and the last reference to each
    std::vector<IUnknown*> objects;
};

key_base::~key_base() = default;

CObjectTable::CObjectTable() : m_internal(new ObjectTableInternal) {}

CObjectTable::~CObjectTable()
{
    for (IUnknown* const object : m_internal->objects) {
        setObjectTable(object, nullptr); // static objects may hold some for longer
    }
    delete m_internal;
}

void CObjectTable::lock()
{
    m_internal->mutex.enter();
}

void CObjectTable::unlock()
{
    m_internal->mutex.leave();
}

IUnknown* CObjectTable::find(const key_base& key)
{
    for (IUnknown* const object : m_internal->objects) {
        if (key.same_as(object)) {
            makeInstanceForTable(object);
            return object;
        }
    }
    return nullptr;
}

void CObjectTable::insert(IUnknown* object)
{
    setObjectTable(object, this);
    makeInstanceForTable(object);
    m_internal->objects.push_back(object);
}

void CObjectTable::erase(IUnknown* object)
{
    auto& objects = m_internal->objects;
    const auto kept = std::remove(objects.begin(), objects.end(), object);
    if (kept != objects.end()) {
        objects.erase(kept, objects.end());
        setObjectTable(object, nullptr);
    }
}

size_t CObjectTable::count()
{
    return m_internal->objects.size();
}

IUnknown* CObjectTable::get(size_t index)
{
    INFRA_ASSERT(index < m_internal->objects.size());
    return m_internal->objects[index];
}

} // namespace Detail
} // namespace Component
} // namespace Tarsel

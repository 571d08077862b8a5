#ifndef INFRA_COMPONENT_OBJECTTABLE_H
#define INFRA_COMPONENT_OBJECTTABLE_H

#include <cstddef>

#include "Component/Unknown.h"
#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Component
{
namespace Detail
{

/// What one looks for in a CObjectTable.
class INFRA_API key_base
{
public:
    key_base() = default;
    virtual ~key_base();

    /// True when `object` is the one that the key describes. Runs under the table's lock, on
    /// objects that are alive.
    virtual bool same_as(IUnknown* object) const = 0;
};

struct ObjectTableInternal;

/// The objects that a factory shares by key, in the order in which they came.
///
/// Behaviour: an object leaves the table by itself when its last reference goes. That happens under
/// the lock, so what `find` returns is alive.
/// Threads: `lock` is held around `find` and the `insert` that follows it, and around whatever else
/// is asked; the last release of an object takes it, so it is not held while objects are released.
/// Ownership: the table holds no references. Objects that are left in it when it goes belong to no
/// table; none may be released at that moment.
class INFRA_API CObjectTable
{
public:
    CObjectTable();
    ~CObjectTable();
    CObjectTable(const CObjectTable&) = delete;
    CObjectTable& operator=(const CObjectTable&) = delete;

    void lock();
    void unlock();

    /// Hands out the first object that is what `key` describes, with a reference for the caller;
    /// null when there is none.
    IUnknown* find(const key_base& key);
    /// Adds `object` and hands it out: the caller owns the reference it was made with.
    void insert(IUnknown* object);
    /// Takes `object` out; the others keep their order.
    void erase(IUnknown* object);

    size_t count();
    /// One object, without a reference. An index outside of the table ends the process.
    IUnknown* get(size_t index);

private:
    ObjectTableInternal* m_internal;
};

} // namespace Detail
} // namespace Component
} // namespace Tarsel

#endif

#ifndef INFRA_COMPONENT_UNKNOWN_H
#define INFRA_COMPONENT_UNKNOWN_H

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Version.h"

namespace Tarsel
{
namespace Component
{

namespace Detail
{
class CObjectTable;
}
struct ServerInfo;

/// The base of every component: an object with a count of references that frees itself when the
/// last one goes.
///
/// Behaviour: an object is made with one reference and counts as not yet used. The first hand-out
/// passes that reference on; every later one adds one. Somebody who holds a reference may add more;
/// whoever drops the last has the object taken out of the table, list or registry that shares it,
/// and then destroyed.
///
/// Threads: addRef and release from any thread, without a lock as long as others hold references.
/// The last reference to a shared object is dropped under the lock of what shares it, so nobody is
/// ever handed an object that is about to go.
/// Ownership: whoever was handed an object owns one reference; TComPtr (ComPtr.h) keeps the account.
class INFRA_API IUnknown
{
public:
    struct UnknownInternal;

    IUnknown();
    IUnknown(const IUnknown&) = delete;
    IUnknown& operator=(const IUnknown&) = delete;
    virtual ~IUnknown();

    /// Frees the object. Called once, when the last reference has gone, without a lock held.
    virtual void destroy() = 0;
    /// The version of the component. The library never asks for it.
    virtual Infra::CVersion getVersion() = 0;
    /// Adds a reference, and marks the object as used.
    /// @return references now
    virtual int addRef();
    /// Drops a reference; the last one destroys the object. A client that others may share is
    /// released through TComPtr or Detail::CComponentHelper, which log it out first.
    /// @return references left
    virtual int release();

    /// The library's record of the object.
    UnknownInternal* m_internal;
};

/// References to `object` at this moment; 0 for null.
INFRA_API int getRefCount(IUnknown* object);
/// Drops a reference and destroys nothing. Null ends the process.
/// @return references left
INFRA_API int decreaseRefCount(IUnknown* object);
/// Notes that `object` stands in `table`. Null for the object ends the process.
INFRA_API void setObjectTable(IUnknown* object, Detail::CObjectTable* table);
/// Hands `object` out of a table: the first time its own reference passes on, later one is added.
/// Null ends the process.
INFRA_API void makeInstanceForTable(IUnknown* object);

/// Makes an object of one class with one reference, or returns null. `server` is null for a local
/// one, and else belongs to the caller.
typedef IUnknown* (*ComponentCreator)(const ServerInfo* server);

/// Has `creator` make the objects of class `cid`; for a class that is known already it takes the
/// place of the creator before, with a warning. False for a null or empty name and for one with a
/// '/', which name no class; else true. Safe from any thread, before main() too.
INFRA_API bool registerComponent(const char* cid, ComponentCreator creator);

/// The shared object of class `cid` for `server`; null is the local one. Made on first use, and
/// anew when all references to the one before have gone. Two threads that ask for a missing one at
/// once may each make one.
///
/// Servers are the same when address, port, user name, password and login type are equal. The
/// creator runs on the calling thread, without a lock held; where none is registered it is looked
/// for in a library (getDynamicCreator).
/// @return the object, with a reference for the caller; null when there is no creator, or it made
///         none
INFRA_API IUnknown* getComponentInstance(const char* cid, const ServerInfo* server);

/// A new object of class `cid` that nobody else is handed.
/// @return the object with its one reference; null as getComponentInstance
INFRA_API IUnknown* createComponentObject(const char* cid, const ServerInfo* server);

/// The function "create<cid>Object" of the library "./lib<cid>.so" in the working directory.
///
/// Both names are cut to 30 characters, so class names of up to 18 are safe. The library is opened
/// once and stays open; no lock is held meanwhile, so its static objects may register components.
/// @return null, with an error line only for a library that lacks the function
INFRA_API ComponentCreator getDynamicCreator(const char* cid);

/// Takes a shared object (`instance`) out of the list of class `cid`, then destroys `component`,
/// whatever its count. An object that is not in the list ends the process. Returns true.
INFRA_API bool destroyComponent(IUnknown* component, const char* cid, bool instance);

} // namespace Component
} // namespace Tarsel

#endif

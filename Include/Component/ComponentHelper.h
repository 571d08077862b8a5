#ifndef INFRA_COMPONENT_COMPONENTHELPER_H
#define INFRA_COMPONENT_COMPONENTHELPER_H

#include "Component/ClassID.h"
#include "Component/Factory.h"
#include "Component/ServerInfo.h"
#include "Component/Unknown.h"
#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Component
{

class IClient;

namespace Detail
{

/// What TComPtr and the templates of Component.h are made of. Safe from any thread.
class INFRA_API CComponentHelper
{
public:
    /// object->addRef(); 0 for null.
    static int addRef(IUnknown* object);
    /// object->release(); a client that loses its last reference is logged out first. 0 for null.
    static int release(IUnknown* object);

    /// Marks a new object as handed out; its own reference passes to the caller. Null for null,
    /// with the last error componentErrorCreateObjectFailed.
    static IUnknown* makeComponentObject(IUnknown* object);
    /// Hands out an object that may have been handed out before, with a reference for the caller.
    /// An object that stands in a CObjectTable was counted there. Null for null, with the last
    /// error componentErrorGetInstanceFailed.
    static IUnknown* makeComponentInstance(IUnknown* object);

    /// Makes the client's user the calling thread's current one (IClient::getCurrentUserID); it is
    /// -1 when the client names none. False, and nothing changed, for null.
    static bool setAsCurrentUser(IClient* client);

    /// The factory for `iid` and `clsid`, whose objects will talk through the client of user `uid`;
    /// -1 is no client. Interface "Client" gives the factory of a client class, whose clients are
    /// shared, and ignores `uid`.
    ///
    /// @param client  set to the client, with a reference for the caller, or to null. It is null
    ///                whenever the factory was not found
    /// @return null with the last error componentErrorInterfaceNotFound or
    ///         componentErrorClassNotFound; null without one where a factory was taken out (the
    ///         caller then still owns `client`), or no client has that user
    static IFactoryUnknown* getComponentFactory(const char* iid, const ClassID& clsid, int uid,
                                                IClient*& client);
    /// The same for the client that is logged in to `si`: it is looked for by class and server,
    /// else made, and logged in if it is not. Null with a line on the log when that fails. The
    /// object ServerInfo::none itself is no server.
    static IFactoryUnknown* getComponentFactory(const char* iid, const ClassID& clsid,
                                                const ServerInfo& si, IClient*& client);
};

/// CComponentHelper::addRef and release, where IClient is not known to be an IUnknown.
INFRA_API void addClientRef(IClient* client);
INFRA_API void releaseClient(IClient* client);

} // namespace Detail
} // namespace Component
} // namespace Tarsel

#endif

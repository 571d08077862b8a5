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
    /// @param client  set to the client, with a reference for the caller; to null where there is
    ///                none, and with both of the errors below
    /// @return null with the last error componentErrorInterfaceNotFound or
    ///         componentErrorClassNotFound; null without one where no client has that user, or where
    ///         the factory was taken out: then the caller owns `client` all the same
    static IFactoryUnknown* getComponentFactory(const char* iid, const ClassID& clsid, int uid,
                                                IClient*& client);
    /// The same for the client that is logged in to `si`: it is looked for by class and server,
    /// else made, and logged in if it is not. Null with a line on the log when that fails. The
    /// object ServerInfo::none itself is no server.
    static IFactoryUnknown* getComponentFactory(const char* iid, const ClassID& clsid,
                                                const ServerInfo& si, IClient*& client);
};

/// The first client of a class whose user is `uid`, with a reference for the caller: it is found and
/// counted in one step, so nobody drops it in between. Null with the last error
/// componentErrorGetInstanceFailed.
INFRA_API IClient* getClientOfUser(const ClassID& clsid, int uid);

/// CComponentHelper::addRef and release, where IClient is not known to be an IUnknown.
INFRA_API void addClientRef(IClient* client);
INFRA_API void releaseClient(IClient* client);

/// Owns a reference to a client while code of the application runs, which may throw.
class CHeldClient
{
public:
    explicit CHeldClient(IClient* client) : m_client(client) {}
    ~CHeldClient()
    {
        if (m_client != nullptr) {
            releaseClient(m_client);
        }
    }
    CHeldClient(const CHeldClient&) = delete;
    CHeldClient& operator=(const CHeldClient&) = delete;

    /// Hands the reference to the caller.
    IClient* take()
    {
        IClient* const client = m_client;
        m_client = nullptr;
        return client;
    }

private:
    IClient* m_client;
};

} // namespace Detail
} // namespace Component
} // namespace Tarsel

#endif

#ifndef INFRA_COMPONENT_CLIENT_H
#define INFRA_COMPONENT_CLIENT_H

#include <string>

#include "Component/ClassID.h"
#include "Component/ComPtr.h"
#include "Component/Factory.h"
#include "Component/ServerInfo.h"
#include "Component/Unknown.h"
#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Function.h"
#include "Infra/Infra3/Time.h"

namespace Tarsel
{
namespace Component
{

/// A session with a server, which the components that work on that server talk through.
///
/// Behaviour: the library finds or makes the client for a class and a server, logs it in, and
/// shares it among all who ask for the same; it is logged out and destroyed when nobody holds it.
/// One that was made and never came to be used goes after five minutes. A class of clients derives
/// from this one, and its factory from IClient::IFactory.
///
/// | state   | a look-up finds it             | login succeeds | login fails |
/// |---------|--------------------------------|----------------|-------------|
/// | created | logs it in                     | logined        | created     |
/// | logined | if isBroken(): broken, log in  |                |             |
/// | broken  | logs it in                     | logined        | broken      |
///
/// Threads: isBroken, getUserID and the operations below from any thread. One thread at a time is
/// inside login(). getUserID is asked while clients are looked for, under a lock: it answers from
/// what is there, and neither makes nor releases clients.
/// Ownership: counted, see TComPtr.
class INFRA_API IClient : public IUnknown
{
public:
    struct ClientInternal;

    enum Status
    {
        statusLoginSucceeded = 0, ///< sent by the class of clients, if it does
        statusLoginFailed = 1,    ///< likewise
        statusSessionAborted = 2  ///< sent by abort()
    };

    /// Is told of a change: custom data, class of the client, the client, what happened, and why.
    /// The class name lives as long as the client.
    typedef Infra::TFunction5<void, void*, ClassID, TComPtr<IClient>, Status, int> StatusProc;

    class IFactory;

    IClient();
    ~IClient() override;

    /// True when the session has failed.
    virtual bool isBroken() = 0;
    /// Opens the session. It does not ask for components of the same server, which would log in
    /// again, without end.
    virtual bool login() = 0;
    virtual bool logout() = 0;
    /// Sets the number of the session's user; it stays as it is when there is none. It is the same
    /// for the whole life of the client, and no other client of the process has it.
    virtual bool getUserID(int& userID) = 0;

    // What a class of clients may offer. Here they return false, with the last error
    // componentErrorUnimplementedOperation.
    virtual bool checkAuthority(const std::string& authority);
    virtual bool getCurrentTime(Infra::CTime& time);
    virtual bool setCurrentTime(const Infra::CTime& time, int toleranceSeconds);
    virtual bool loginAgain(const ServerInfo& server);
    virtual bool checkAuthorityString(const char* authority);
    virtual bool loginFirst();
    virtual bool getChallenge(ServerChallenge& challenge);

    /// Has `proc` told of changes, on the thread that makes them. False when it is empty or attached
    /// already, or when there are eight.
    virtual bool attachStatusProc(StatusProc proc);
    /// Takes `proc` out; a call of it may still be in progress. False when it is not attached.
    virtual bool detachStatusProc(StatusProc proc);

    // All of the following need a client that was made by a registered factory; another one ends
    // the process.

    /// The server as it was asked for, with the user name that was saved. The texts live as long as
    /// the client; loginTimeout and what is reserved stay as they are. Returns true.
    bool getServerInfo(ServerInfo& server);
    /// The time of the last login that succeeded. Returns true.
    bool getLoginTime(Infra::CTime& time);
    /// Tells everybody of statusSessionAborted with `reason`, then logs out.
    /// @return what logout() said
    bool abort(int reason);
    /// What status procedures get as their first argument.
    void setCustomData(void* data);
    void* getCustomData();
    /// Sets the user name that the server knows, once; later calls only warn. Returns true.
    bool saveUserName(const char* userName);

    /// The user on whose behalf the calling thread last called a component; 0 for nobody yet, -1
    /// for a client without a user.
    static int getCurrentUserID();

    /// The library's record of the session; null until a registered factory has made the client.
    ClientInternal* m_internal;
};

/// Makes the clients of one class. It is registered under the interface iid().
///
/// Threads: create runs on any thread, one at a time for all client factories of the process. It
/// asks for no component of a server: whoever logs a client in may be waiting for it.
class INFRA_API IClient::IFactory : public IFactoryUnknown
{
public:
    ~IFactory() override;

    /// A new client for `server`, not logged in, with one reference; or null. It is this factory's
    /// own, not one that another factory has given.
    virtual IClient* create(const ServerInfo& server) = 0;

    /// The first client of this class whose user is `uid`, without a reference: it may be dropped at
    /// once unless the caller holds it already. Null when there is none.
    IClient* instance(int uid);

    /// "Client".
    static const char* iid();
};

} // namespace Component
} // namespace Tarsel

#endif

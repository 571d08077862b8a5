#ifndef INFRA_SRC_COMPONENT_CLIENTINTERNAL_H
#define INFRA_SRC_COMPONENT_CLIENTINTERNAL_H

// The record of a session, and what the library does with it. What references mean:
//
//     made for a look-up     2  the list's and the caller's; externalUsing 0
//       login fails          1  the list's: the next look-up tries again, or it goes when idle
//       login succeeds       1  the list's was taken back at the first use; externalUsing 1
//     made by create()       1  the list's is the caller's; externalUsing 1
//     found again           +1

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "Component/Client.h"
#include "Component/ComponentInternal.h"
#include "Component/OrderedIndex.h"
#include "Infra/Infra3/RecursiveMutex.h"
#include "Infra/Infra3/Signal.h"

namespace Tarsel
{
namespace Component
{

/// When a client last had something to do with its server. A client may become idle five minutes
/// after each setting.
class CRetryTime
{
public:
    void operator=(uint64_t milliseconds) // NOLINT(misc-unconventional-assign-operator)
    {
        m_milliseconds.store(milliseconds);
        expectIdleClient(milliseconds);
    }
    operator uint64_t() const
    {
        return m_milliseconds.load();
    } // NOLINT(google-explicit-constructor)

private:
    std::atomic<uint64_t> m_milliseconds{0};
};

/// A client in the list, with all that a look-up compares in one piece: a client that does not fit is
/// not touched.
struct ListedClient
{
    explicit ListedClient(IClient* listed);
    ListedClient(ListedClient&&) = default;
    ListedClient& operator=(ListedClient&&) = default;
    /// Leaves no password in memory.
    ~ListedClient();

    /// True when the class fits and the client was made for the same server.
    bool isFor(std::string_view className, const ServerInfo& server) const;

    IClient* client;
    std::string key; ///< class, server's numbers, server's texts
};

struct IClient::ClientInternal
{
    enum State
    {
        created = 0,
        logined = 1,
        broken = 2
    };

    ClientInternal(const ClassID& clsid, const ServerInfo& server, bool byFactory);
    /// Leaves no password in memory.
    ~ClientInternal();
    ClientInternal(const ClientInternal&) = delete;
    ClientInternal& operator=(const ClientInternal&) = delete;

    std::string classID; ///< of the factory that made the client
    std::string serverAddress;
    uint32_t serverPort;
    std::string userName; ///< always on the heap: see keepUserName
    std::string password;
    std::string random;
    std::string authorityType;
    std::string authorityInfo;
    std::string passwordType;
    uint8_t loginType;
    uint8_t loginMode;
    uint32_t loginSession;
    std::string clientType;
    std::string clientAddress;
    uint8_t socketType;
    uint32_t mediaPort;
    uint32_t passiveSocket;
    std::string targetID;
    std::string proxyToken;
    std::string stochastic;
    bool bUserNameSaved = false;
    uint8_t encryption;
    std::atomic<State> state{created};
    Infra::CTime loginTime; ///< read and written under the records' leaf lock, as the user name is
    CRetryTime retryTime;
    const bool byFactoryCreate; ///< made by a factory's own create()
    std::atomic<int64_t> externalUsing{0};
    std::atomic<uint64_t> logins{0}; ///< that succeeded; read by each hand-out, as those above are
    std::atomic<void*> customData{nullptr};
    Infra::TSignal5<void*, ClassID, TComPtr<IClient>, IClient::Status, int> statusSignal{8};

    /// Replaces the user name. getServerInfo() may have lent the one before, so that stays, at the
    /// same place.
    void keepUserName(const char* name);

    /// Nobody but the list knows of it, and nobody ever used it.
    bool mayBecomeIdle() const
    {
        return state.load() == created && !byFactoryCreate && externalUsing.load() == 0;
    }

    std::string userNameBefore;
    Infra::CRecursiveMutex loginMutex; // one login at a time; no other lock of ours is held
    TOrderedIndex<ListedClient>::Node* place = nullptr; ///< in the client list; guarded by its lock
};

/// Makes the record of a client that has none.
void clientCreateInternal(IClient* client, const ClassID& clsid, const ServerInfo& server,
                          bool byFactoryCreate);
/// Marks a client as handed to a user. What it was before: 0 or 1.
int64_t clientGetAndMarkUsing(IClient* client);
/// True when the class fits and the client's user is `uid`. A class fits when its name begins with
/// the one asked for, of which only the part before the first '.' counts.
bool clientIsSameAs(IClient* client, const ClassID& clsid, int uid);
/// True when the class fits and the client was made for the same server: all equal but
/// authorityInfo, passiveSocket, stochastic and loginTimeout.
bool clientIsSameAs(IClient* client, const ClassID& clsid, const ServerInfo& server);
/// Logs the client in.
bool clientLogin(IClient* client);

/// The same under the client's login lock, unless the client is logged in by then.
bool clientLoginOnce(IClient* client);
/// The same for a client whose session turned out to have failed, unless another thread has logged
/// it in since there were `loginsSeen`, and that session works.
bool clientLoginAgain(IClient* client, uint64_t loginsSeen);
/// A hash of all that makes a server the same.
size_t clientHash(const ServerInfo& server);
size_t clientHash(IClient* client);
/// The part of a class name before its first '.'.
std::string_view clientClassOf(const ClassID& clsid);

} // namespace Component
} // namespace Tarsel

#endif

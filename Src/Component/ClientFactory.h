#ifndef INFRA_SRC_COMPONENT_CLIENTFACTORY_H
#define INFRA_SRC_COMPONENT_CLIENTFACTORY_H

// The clients of the process, and how they are found, made and dropped. See ComponentInternal.h for
// the locks and ClientInternal.h for the counts.

#include "Component/ClassID.h"
#include "Component/Client.h"
#include "Component/ClientInternal.h"
#include "Component/ServerInfo.h"
#include "Infra/Infra3/RecursiveMutex.h"
#include "Infra/Infra3/Timer.h"
#include "Infra3/Singleton.h"

namespace Tarsel
{
namespace Component
{

/// The interface under which client factories are registered.
constexpr const char* clientInterface = "Client";

/// Finding, making, sharing and dropping clients. Safe from any thread.
class ClientFactory
{
public:
    /// Hands out the first client that fits, whatever its state; null when none does.
    static IClient* getAndMakeClientInstance(const ClassID& clsid, int uid);
    static IClient* getAndMakeClientInstance(const ClassID& clsid, const ServerInfo& server);
    /// Hands out a client that fits and is not broken, else a new one, not logged in. Null with the
    /// last error componentErrorClientNotFound (no factory) or componentErrorClientNotExist (it made
    /// none).
    static IClient* createAndMakeClientObject(const ClassID& clsid, const ServerInfo& server);
    /// What is handed out in the place of a client factory, so that its clients are shared. One for
    /// each factory, for ever.
    static IFactoryUnknown* wrapClientFactory(IFactoryUnknown* factory);
    /// Notes that a user has the client; the first time the list's reference is given back.
    static void markClientUsing(IClient* client);
    /// Drops a reference; the last one takes the client out of the list, logs it out and destroys
    /// it. The references left.
    static int releaseClientObject(IClient* client);
};

/// Stands before a registered client factory.
class IClientFactoryWrap : public IClient::IFactory
{
public:
    explicit IClientFactoryWrap(IClient::IFactory* original);

    const char* clsid() override;
    /// A client that fits and is not broken with a reference more, else a new one whose reference
    /// the list shares with the caller.
    IClient* create(const ServerInfo& server) override;
    /// The same, but of a new one the list has a reference of its own.
    IClient* createAndMake(const ServerInfo& server);

    /// Guards the making of clients, so that two threads do not make two for one server. Recursive,
    /// because a factory may have another one make its clients; taken before the list's lock.
    static Infra::CRecursiveMutex& clientMutex();

private:
    IClient* findOrMake(const ServerInfo& server, bool byFactoryCreate, const char* caller);
    IClient* makeLocked(const ServerInfo& server, bool byFactoryCreate, IClient** other);
    bool isShared();

    IClient::IFactory* const m_original;
};

/// The live clients, in the order in which they were made.
///
/// It stays after the process's exit handlers have stopped its timer, because clients may be
/// released later; those that are left then are neither logged out nor destroyed.
class CClientInstanceList
{
public:
    static CClientInstanceList* instance();
    /// The list if there is one already.
    static CClientInstanceList* existing();

    /// The first client that fits and is not broken; no reference is taken.
    IClient* findClientInstance(const ClassID& clsid, const ServerInfo& server);
    /// The first client that fits; no reference is taken.
    IClient* findClientInstance(const ClassID& clsid, int uid);
    /// The first of findClientInstance with a reference for the caller.
    IClient* findAndHold(const ClassID& clsid, const ServerInfo& server);
    IClient* getAndMakeClientInstance(const ClassID& clsid, int uid);
    IClient* getAndMakeClientInstance(const ClassID& clsid, const ServerInfo& server);

    void insertClientInstance(IClient* client);
    /// Drops the clients that nobody has used for five minutes. Returns at once as long as there can
    /// be none.
    void removeIdleClientInstance(unsigned long);

    /// The list's part of Component::dropReference(). The references left.
    int dropLast(IClient* client);
    /// Takes the client out if it is listed.
    void remove(IClient* client);
    /// Sets the user name once; false when it was set before.
    bool saveUserName(IClient* client, const char* userName);

private:
    template <typename T>
    friend class Infra::TSingleton;
    typedef TOrderedIndex<ListedClient> ClientList;

    CClientInstanceList();
    static bool staysInUse(CClientInstanceList* list);
    static void prepareFork();
    static void resumeParent();
    static void resumeChild();

    template <typename Accepts>
    IClient* firstLocked(const ClassID& clsid, const ServerInfo& server, size_t hash,
                         const Accepts& accepts);
    IClient* firstOfUserLocked(const ClassID& clsid, int uid);
    void unlinkLocked(IClient* client);
    std::vector<IClient*> unlinkIdle(uint64_t nowMs);
    void checkForIdle();

    Infra::CRecursiveMutex m_mutex; // guards the list, and the last reference to each client
    ClientList m_clientList;
    bool m_ended; ///< the process's exit handlers have stopped the timer; guarded by m_mutex
    Infra::CTimer m_clientCheckTimer; ///< last: it stops before anything of the above goes
};

} // namespace Component
} // namespace Tarsel

#endif

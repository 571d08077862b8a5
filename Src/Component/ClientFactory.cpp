// ClientFactory.cpp: making clients through their factories, and the list of those that live.
//
// A client is looked for by its server in an index beside the list, so it makes no difference how
// many others there are; by its user it can only be asked for one by one. The idle check knows the
// earliest time at which any client can be idle and returns at once before. That time is lowered by
// whatever makes a client that nobody uses: its making, a new retry time, and the release of the
// last reference but the list's.

#include "Component/ClientFactory.h"

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include "Component/ClientInternal.h"
#include "Component/ComponentHelper.h"
#include "Component/ComponentInternal.h"
#include "Component/FactoryRegistry.h"
#include "Infra/Infra3/Error.h"
#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Fork.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Component
{
namespace
{

using Detail::CComponentHelper;
using Infra::CGuard;
using Infra::CRecursiveGuard;
using Infra::CTime;
using Infra::TSingleton;

constexpr uint64_t idleAfterMs = 300000;
constexpr uint32_t checkPeriodMs = 60;
constexpr uint32_t checkTimeoutMs = 60000;

/// No client can be idle before this time.
constinit std::atomic<uint64_t> s_nextIdleCheck{neverIdle};

/// The list while the process forks, whose lock this thread has taken.
constinit CClientInstanceList* s_lockedForFork = nullptr;

struct Wrappers
{
    Infra::CLeafMutex mutex; // guards the map
    std::map<IClient::IFactory*, std::unique_ptr<IClientFactoryWrap>> map;
};

/// Who took the last reference by decreaseRefCount() ends the client, and it is listed until then.
bool isAlive(IClient* client)
{
    return getRefCount(client) > 0;
}

/// A client that was found, with a reference for the caller. Null is no error.
IClient* handOut(IClient* client)
{
    if (client != nullptr) {
        CComponentHelper::makeComponentInstance(client);
    }
    return client;
}

/// Drops a reference as far as the client list is not concerned.
int dropUnlisted(IClient* client)
{
    return client->IUnknown::m_internal->instance ? dropInstance(client) : decreaseRefCount(client);
}

} // namespace

void expectIdleClient(uint64_t sinceMs)
{
    const uint64_t time = sinceMs < neverIdle - idleAfterMs ? sinceMs + idleAfterMs + 1 : neverIdle;
    uint64_t next = s_nextIdleCheck.load();
    while (time < next && !s_nextIdleCheck.compare_exchange_weak(next, time)) {
    }
}

uint64_t idleSince(IClient* client)
{
    const IClient::ClientInternal* const record = client->m_internal;
    return record != nullptr && record->mayBecomeIdle() ? uint64_t{record->retryTime} : neverIdle;
}

/// A step of read, modify and write comes before or behind the check's own: before it, the check
/// sees the drop; behind it, this sees that the check expects nobody.
void expectDroppedClient(uint64_t sinceMs)
{
    s_nextIdleCheck.fetch_add(0, std::memory_order_acq_rel);
    expectIdleClient(sinceMs);
}

int dropClient(IClient* client)
{
    CClientInstanceList* const list = CClientInstanceList::existing();
    return list == nullptr ? dropUnlisted(client) : list->dropLast(client);
}

// ClientFactory.

IClient* ClientFactory::getAndMakeClientInstance(const ClassID& clsid, int uid)
{
    return CClientInstanceList::instance()->getAndMakeClientInstance(clsid, uid);
}

IClient* ClientFactory::getAndMakeClientInstance(const ClassID& clsid, const ServerInfo& server)
{
    return CClientInstanceList::instance()->getAndMakeClientInstance(clsid, server);
}

IClient* ClientFactory::createAndMakeClientObject(const ClassID& clsid, const ServerInfo& server)
{
    IFactoryUnknown* const factory = findFactory(clientInterface, clientClassOf(clsid)).factory;
    if (factory == nullptr) {
        Infra::setLastError(componentErrorClientNotFound);
        return nullptr;
    }
    IFactoryUnknown* const wrapper = wrapClientFactory(factory);
    IClient* const client = static_cast<IClientFactoryWrap*>(wrapper)->createAndMake(server);
    if (client == nullptr) {
        Infra::setLastError(componentErrorClientNotExist);
    }
    return client;
}

IFactoryUnknown* ClientFactory::wrapClientFactory(IFactoryUnknown* factory)
{
    // Every time: a factory of another kind may have come to where one of clients was.
    auto* const original = dynamic_cast<IClient::IFactory*>(factory);
    INFRA_ASSERT_TEXT(original != nullptr, "m_original != NULL");
    Wrappers& wrappers = Infra::immortal<Wrappers, Wrappers>();
    CGuard guard(wrappers.mutex);
    std::unique_ptr<IClientFactoryWrap>& wrapper = wrappers.map[original];
    if (wrapper == nullptr) {
        wrapper = std::make_unique<IClientFactoryWrap>(original);
    }
    return wrapper.get();
}

void ClientFactory::markClientUsing(IClient* client)
{
    if (client != nullptr && clientGetAndMarkUsing(client) == 0) {
        CComponentHelper::release(client);
    }
}

int ClientFactory::releaseClientObject(IClient* client)
{
    INFRA_ASSERT_TEXT(client != nullptr, "client != NULL");
    const int left = dropReference(client);
    if (left == 0) {
        client->logout();
        client->destroy();
    }
    return left;
}

// IClient::IFactory.

IClient::IFactory::~IFactory() = default;

IClient* IClient::IFactory::instance(int uid)
{
    return CClientInstanceList::instance()->findClientInstance(ClassID(clsid()), uid);
}

const char* IClient::IFactory::iid()
{
    return clientInterface;
}

// IClientFactoryWrap.

IClientFactoryWrap::IClientFactoryWrap(IClient::IFactory* original) : m_original(original) {}

Infra::CRecursiveMutex& IClientFactoryWrap::clientMutex()
{
    return Infra::immortal<Infra::CRecursiveMutex, IClientFactoryWrap>();
}

const char* IClientFactoryWrap::clsid()
{
    return m_original->clsid();
}

IClient* IClientFactoryWrap::create(const ServerInfo& server)
{
    return findOrMake(server, /*byFactoryCreate*/ true, __func__);
}

IClient* IClientFactoryWrap::createAndMake(const ServerInfo& server)
{
    return findOrMake(server, /*byFactoryCreate*/ false, __func__);
}

bool IClientFactoryWrap::isShared()
{
    return ClassID(clsid()) != ClassID::local;
}

/// @param caller  the function that speaks of a second client, once no lock of ours is held
IClient* IClientFactoryWrap::findOrMake(const ServerInfo& server, bool byFactoryCreate,
                                        const char* caller)
{
    IClient* other = nullptr;
    IClient* client = nullptr;
    {
        CRecursiveGuard guard(clientMutex());
        if (isShared()) {
            client = CClientInstanceList::instance()->findAndHold(ClassID(clsid()), server);
        }
        if (client == nullptr) {
            client = makeLocked(server, byFactoryCreate, &other);
        }
    }
    if (other != nullptr && Infra::isLevelPrinted(Infra::logLevelError)) {
        Infra::logFront(Infra::logLevelError, {__FILE__, caller, __LINE__},
                        "this:%p remote client instance:%p has been in CClientInstanceList "
                        "already.\n",
                        static_cast<void*>(this), static_cast<void*>(other));
    }
    return client;
}

/// @param other  set to a client for the same server that came to be while this one was made
IClient* IClientFactoryWrap::makeLocked(const ServerInfo& server, bool byFactoryCreate,
                                        IClient** other)
{
    CClientInstanceList* const list = CClientInstanceList::instance();
    IClient* const client = m_original->create(server);
    if (client == nullptr) {
        return nullptr;
    }
    clientCreateInternal(client, ClassID(clsid()), server, byFactoryCreate);
    // In use before anybody can find it: who finds it then gets a reference of its own.
    CComponentHelper::makeComponentObject(client);
    if (byFactoryCreate) {
        clientGetAndMarkUsing(client);
    } else {
        CComponentHelper::addRef(client);
    }
    if (isShared()) {
        *other = list->findClientInstance(ClassID(clsid()), server);
    }
    list->insertClientInstance(client);
    CComponentHelper::setAsCurrentUser(client);
    return client;
}

// CClientInstanceList.

CClientInstanceList* CClientInstanceList::instance()
{
    return TSingleton<CClientInstanceList>::instance();
}

CClientInstanceList* CClientInstanceList::existing()
{
    return TSingleton<CClientInstanceList>::existing();
}

CClientInstanceList::CClientInstanceList() : m_ended(false), m_clientCheckTimer("ClientCheck")
{
    static constexpr Infra::ForkPart forkPart = {prepareFork, resumeParent, resumeChild};
    Infra::joinFork(Infra::ForkRank::clients, forkPart);
    checkForIdle(); // Last: its first call begins at once.
}

/// In the child of a fork the timer is idle, and starts again with the next client that is made.
void CClientInstanceList::checkForIdle()
{
    if (!m_ended && !m_clientCheckTimer.isStarted()) {
        m_clientCheckTimer.start(
            Infra::CTimer::Proc(&CClientInstanceList::removeIdleClientInstance, this), 0,
            checkPeriodMs, 0, checkTimeoutMs);
    }
}

bool CClientInstanceList::staysInUse(CClientInstanceList* list)
{
    {
        CRecursiveGuard guard(list->m_mutex);
        list->m_ended = true;
    }
    list->m_clientCheckTimer.stopAndWait();
    return true;
}

void CClientInstanceList::prepareFork()
{
    s_lockedForFork = existing();
    if (s_lockedForFork != nullptr) {
        s_lockedForFork->m_mutex.enter();
    }
}

void CClientInstanceList::resumeParent()
{
    if (s_lockedForFork != nullptr) {
        s_lockedForFork->m_mutex.leave();
    }
}

/// Who was making a client or logging one in stayed behind.
void CClientInstanceList::resumeChild()
{
    Infra::ForkAccess::renew(IClientFactoryWrap::clientMutex());
    CClientInstanceList* const list = existing();
    if (list != nullptr && list == s_lockedForFork) {
        Infra::ForkAccess::renewTaken(list->m_mutex);
        for (ClientList::Node& node : list->m_clientList) {
            Infra::ForkAccess::renew(node.value.client->m_internal->loginMutex);
        }
    } else if (list != nullptr) {
        Infra::ForkAccess::renew(list->m_mutex);
    }
}

template <typename Accepts>
IClient* CClientInstanceList::firstLocked(const ClassID& clsid, const ServerInfo& server,
                                          size_t hash, const Accepts& accepts)
{
    const std::string_view className = clientClassOf(clsid);
    ClientList::Node* const node = m_clientList.first(hash, [&](const ListedClient& listed) {
        return listed.isFor(className, server) && isAlive(listed.client) &&
               accepts(*listed.client->m_internal);
    });
    return node == nullptr ? nullptr : node->value.client;
}

IClient* CClientInstanceList::findClientInstance(const ClassID& clsid, const ServerInfo& server)
{
    const size_t hash = clientHash(server);
    CRecursiveGuard guard(m_mutex);
    return firstLocked(clsid, server, hash, [](const IClient::ClientInternal& record) {
        return record.state.load() != IClient::ClientInternal::broken;
    });
}

IClient* CClientInstanceList::firstOfUserLocked(const ClassID& clsid, int uid)
{
    const auto found =
        std::find_if(m_clientList.begin(), m_clientList.end(), [&](const ClientList::Node& node) {
            return isAlive(node.value.client) && clientIsSameAs(node.value.client, clsid, uid);
        });
    return found == m_clientList.end() ? nullptr : found->value.client;
}

IClient* CClientInstanceList::findClientInstance(const ClassID& clsid, int uid)
{
    CRecursiveGuard guard(m_mutex);
    return firstOfUserLocked(clsid, uid);
}

IClient* CClientInstanceList::findAndHold(const ClassID& clsid, const ServerInfo& server)
{
    CRecursiveGuard guard(m_mutex);
    IClient* const client = findClientInstance(clsid, server);
    CComponentHelper::addRef(client);
    return client;
}

IClient* CClientInstanceList::getAndMakeClientInstance(const ClassID& clsid, int uid)
{
    CRecursiveGuard guard(m_mutex);
    return handOut(firstOfUserLocked(clsid, uid));
}

IClient* CClientInstanceList::getAndMakeClientInstance(const ClassID& clsid,
                                                       const ServerInfo& server)
{
    const size_t hash = clientHash(server);
    CRecursiveGuard guard(m_mutex);
    return handOut(
        firstLocked(clsid, server, hash, [](const IClient::ClientInternal&) { return true; }));
}

void CClientInstanceList::insertClientInstance(IClient* client)
{
    if (client == nullptr) {
        return;
    }
    const size_t hash = clientHash(client);
    ListedClient listed(client);
    {
        CRecursiveGuard guard(m_mutex);
        client->m_internal->place = m_clientList.append(hash, std::move(listed));
        checkForIdle();
    }
    expectIdleClient(client->m_internal->retryTime);
}

void CClientInstanceList::unlinkLocked(IClient* client)
{
    IClient::ClientInternal* const record = client->m_internal;
    if (record != nullptr && record->place != nullptr) {
        m_clientList.remove(record->place);
        record->place = nullptr;
    }
}

void CClientInstanceList::remove(IClient* client)
{
    CRecursiveGuard guard(m_mutex);
    unlinkLocked(client);
}

int CClientInstanceList::dropLast(IClient* client)
{
    CRecursiveGuard guard(m_mutex);
    const int left = dropUnlisted(client);
    if (left == 0) {
        unlinkLocked(client);
    }
    return left;
}

/// Takes the clients out of which nobody but the list knows, and expects the others at their time.
std::vector<IClient*> CClientInstanceList::unlinkIdle(uint64_t nowMs)
{
    std::vector<IClient*> idle;
    CRecursiveGuard guard(m_mutex);
    s_nextIdleCheck.exchange(neverIdle); // and sees what those did who lowered it
    for (auto at = m_clientList.begin(); at != m_clientList.end();) {
        IClient* const client = (at++)->value.client;
        const IClient::ClientInternal& record = *client->m_internal;
        if (!record.mayBecomeIdle() || getRefCount(client) > 1) {
            continue;
        }
        const uint64_t since = record.retryTime;
        if (since <= nowMs && nowMs - since > idleAfterMs) {
            unlinkLocked(client);
            idle.push_back(client);
        } else {
            expectIdleClient(since);
        }
    }
    return idle;
}

void CClientInstanceList::removeIdleClientInstance(unsigned long /*unused*/)
{
    const uint64_t nowMs = CTime::getCurrentMilliSecond();
    if (nowMs < s_nextIdleCheck.load()) {
        return;
    }
    for (IClient* const client : unlinkIdle(nowMs)) {
        ClientFactory::releaseClientObject(client);
    }
}

} // namespace Component
} // namespace Tarsel

// ComponentFactory.cpp: the factory registry, and the look-up of a factory with the client that its
// objects will talk through.

#include <atomic>

#include "Component/ClassID.h"
#include "Component/ClientFactory.h"
#include "Component/ClientInternal.h"
#include "Component/ComponentHelper.h"
#include "Component/ComponentInternal.h"
#include "Component/FactoryRegistry.h"
#include "Component/NameTable.h"
#include "Infra/Infra3/Error.h"
#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Hash.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Component
{
namespace
{

using Infra::CGuard;
using Infra::setLastError;
using Infra::textOrEmpty;

typedef TNameTable<std::atomic<IFactoryUnknown*>> ClassTable;
typedef TNameTable<ClassTable> InterfaceTable;

struct FactoryRegistry
{
    Infra::CLeafMutex mutex; // guards adding names
    InterfaceTable interfaces;
};

FactoryRegistry& registry()
{
    return Infra::immortal<FactoryRegistry, FactoryRegistry>();
}

void setFactory(const char* iid, const char* clsid, IFactoryUnknown* factory)
{
    CGuard guard(registry().mutex);
    ClassTable& classes = registry().interfaces.findOrAddLocked(textOrEmpty(iid)).value;
    classes.findOrAddLocked(textOrEmpty(clsid)).value.store(factory, std::memory_order_release);
}

/// The class names of an interface, made by `add(name)` for each.
template <typename Add>
void forEachClass(const char* iid, const Add& add)
{
    CGuard guard(registry().mutex);
    const InterfaceTable::Entry* const interface = registry().interfaces.find(textOrEmpty(iid));
    if (interface != nullptr) {
        for (const auto& named : interface->value.orderedLocked()) {
            add(named.second->name);
        }
    }
}

} // namespace

FoundFactory findFactory(std::string_view iid, std::string_view clsid)
{
    const InterfaceTable::Entry* const interface = registry().interfaces.find(iid);
    if (interface == nullptr) {
        return {componentErrorInterfaceNotFound, nullptr};
    }
    const ClassTable::Entry* const component = interface->value.find(clsid);
    if (component == nullptr) {
        return {componentErrorClassNotFound, nullptr};
    }
    return {0, component->value.load(std::memory_order_acquire)};
}

IFactoryUnknown::~IFactoryUnknown() = default;

bool IFactoryUnknown::registerFactory(const char* iid)
{
    initComponent();
    setFactory(iid, clsid(), this);
    return true;
}

bool IFactoryUnknown::unregisterFactory(const char* iid)
{
    setFactory(iid, clsid(), nullptr);
    return true;
}

// Class names.

constinit const ClassID ClassID::local("Local");

std::vector<std::string> ClassID::getClassIDs(const char* iid)
{
    std::vector<std::string> ids;
    ids.reserve(8);
    forEachClass(iid, [&ids](const std::string& name) { ids.push_back(name); });
    return ids;
}

struct ClassIDListInternal
{
    std::vector<Infra::CString> ids;
};

ClassIDList::ClassIDList(const char* iid) : m_internal(new ClassIDListInternal)
{
    m_internal->ids.reserve(8);
    forEachClass(iid,
                 [this](const std::string& name) { m_internal->ids.emplace_back(name.c_str()); });
}

ClassIDList::~ClassIDList()
{
    delete m_internal;
}

int ClassIDList::count() const
{
    return static_cast<int>(m_internal->ids.size());
}

Infra::CString ClassIDList::operator[](int index) const
{
    INFRA_ASSERT((size_t)index < m_internal->ids.size());
    return m_internal->ids[static_cast<size_t>(index)];
}

// Clients.

namespace
{

bool isClientRequest(std::string_view iid)
{
    return Infra::isSameText(iid, clientInterface);
}

/// Logs a client in anew whose session has failed. The logins are read before the question, so the
/// answer is about the last of them or a later one.
bool renewIfBroken(IClient* client)
{
    const uint64_t loginsSeen = client->m_internal->logins;
    return !client->isBroken() || clientLoginAgain(client, loginsSeen);
}

enum class Login
{
    done,
    failed,
    failedAgain, ///< of a session that had failed
    failedOfNew,
    isUnknown ///< what to do
};

/// Sees that a client that was found is logged in.
Login bringIn(IClient* client)
{
    IClient::ClientInternal& record = *client->m_internal;
    switch (record.state.load()) {
    case IClient::ClientInternal::created:
    case IClient::ClientInternal::broken:
        return clientLoginOnce(client) ? Login::done : Login::failed;
    case IClient::ClientInternal::logined:
        record.retryTime = Infra::CTime::getCurrentMilliSecond();
        return renewIfBroken(client) ? Login::done : Login::failedAgain;
    default:
        return Login::isUnknown;
    }
}

/// Sees that a client that was just made is logged in; another thread may have found it and done so
/// already.
Login bringInNew(IClient* client)
{
    return clientLoginOnce(client) ? Login::done : Login::failedOfNew;
}

void complain(Login login, const char* iid)
{
    switch (login) {
    case Login::failed:
        INFRA_LOG_DEBUG("iid:%s could not been got because log failed.\n", iid);
        break;
    case Login::failedAgain:
        INFRA_LOG_DEBUG("iid:%s could not been got because re-log failed.\n", iid);
        break;
    case Login::failedOfNew:
        INFRA_LOG_DEBUG("iid:%s could not been generated because log failed.\n", iid);
        break;
    default:
        INFRA_LOG_ERROR("Infra.getComponentFactory(): client state is unknown!\n");
        break;
    }
}

/// The client for `server`, logged in, with a reference for the caller; or null.
IClient* findLoggedIn(const char* iid, const ClassID& clsid, const ServerInfo& server)
{
    IClient* client = ClientFactory::getAndMakeClientInstance(clsid, server);
    const bool isFound = client != nullptr;
    if (!isFound) {
        client = ClientFactory::createAndMakeClientObject(clsid, server);
    }
    if (client == nullptr) {
        INFRA_LOG_ERROR("iid:%s could not been got because clientInstance could not be created.\n",
                        iid);
        return nullptr;
    }
    Login login = Login::done;
    {
        Detail::CHeldClient held(client);
        login = isFound ? bringIn(client) : bringInNew(client);
        if (login == Login::done) {
            return held.take();
        }
    }
    complain(login, iid);
    return nullptr;
}

/// The factory for a client that was found, or for none. Takes over the reference to `found`.
IFactoryUnknown* factoryFor(std::string_view iid, const ClassID& clsid, IClient* found,
                            IClient*& client)
{
    const FoundFactory result = findFactory(iid, textOrEmpty(clsid.m_str));
    if (result.error != 0) {
        Detail::CComponentHelper::release(found); // may log out, and that set a last error
        setLastError(result.error);
        return nullptr;
    }
    client = found;
    if (found != nullptr) { // never for a client request
        Detail::CComponentHelper::setAsCurrentUser(found);
        ClientFactory::markClientUsing(found);
        return result.factory;
    }
    return isClientRequest(iid) && result.factory != nullptr
               ? ClientFactory::wrapClientFactory(result.factory)
               : result.factory;
}

} // namespace

// References.

namespace Detail
{

IFactoryUnknown* CComponentHelper::getComponentFactory(const char* iid, const ClassID& clsid,
                                                       int uid, IClient*& client)
{
    client = nullptr;
    IClient* found = nullptr;
    const std::string_view name = textOrEmpty(iid);
    if (uid != -1 && !isClientRequest(name)) {
        found = ClientFactory::getAndMakeClientInstance(clsid, uid);
        if (found == nullptr) {
            return nullptr;
        }
    }
    return factoryFor(name, clsid, found, client);
}

IFactoryUnknown* CComponentHelper::getComponentFactory(const char* iid, const ClassID& clsid,
                                                       const ServerInfo& si, IClient*& client)
{
    client = nullptr;
    IClient* found = nullptr;
    const std::string_view name = textOrEmpty(iid);
    if (&si != &ServerInfo::none && !isClientRequest(name)) {
        found = findLoggedIn(name.data(), clsid, si);
        if (found == nullptr) {
            return nullptr;
        }
    }
    return factoryFor(name, clsid, found, client);
}

int CComponentHelper::addRef(IUnknown* object)
{
    return object == nullptr ? 0 : object->addRef();
}

int CComponentHelper::release(IUnknown* object)
{
    if (object == nullptr) {
        return 0;
    }
    IClient* const client = object->m_internal->client;
    return client != nullptr ? ClientFactory::releaseClientObject(client) : object->release();
}

IUnknown* CComponentHelper::makeComponentObject(IUnknown* object)
{
    if (object == nullptr) {
        setLastError(componentErrorCreateObjectFailed);
    } else if (object->m_internal->table == nullptr) {
        object->m_internal->setUsed();
    }
    return object;
}

IUnknown* CComponentHelper::makeComponentInstance(IUnknown* object)
{
    if (object == nullptr) {
        setLastError(componentErrorGetInstanceFailed);
    } else if (object->m_internal->table == nullptr) {
        object->m_internal->handOut();
    }
    return object;
}

} // namespace Detail
} // namespace Component
} // namespace Tarsel

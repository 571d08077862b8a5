// OldUnknown.cpp: the creator registry: functions that make objects by class name, the objects that
// are shared per server, and creators that are looked for in libraries.
//
// Class names are never taken out, so they are looked up without a lock; the lock guards what
// changes of a class: its list of shared objects and its library. Creators and the dynamic linker
// run without it, because both run code of the application, which may come back here: the static
// objects of a library that is being opened register its classes.

#include <dlfcn.h>

#include <cstring>

#include "Component/ComponentInternal.h"
#include "Component/NameTable.h"
#include "Component/ServerInfo.h"
#include "Component/Unknown.h"
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

/// What the registry knows of a class.
struct ComponentClass
{
    std::atomic<ComponentCreator> creator{nullptr};
    std::atomic<void*> dll{nullptr}; ///< of the library that was opened for it
    ComponentInstanceList instances;
};

ComponentInstance::ComponentInstance(IUnknown* object, const ServerInfo* server,
                                     ComponentClass* objectClass)
    : ComponentInstance(object, server != nullptr, server != nullptr ? *server : ServerInfo::none,
                        objectClass)
{}

ComponentInstance::ComponentInstance(IUnknown* object, bool isRemote, const ServerInfo& server,
                                     ComponentClass* objectClass)
    : pointer(object),
      remote(isRemote),
      serverAddress(Infra::textOrEmpty(server.serverAddress)),
      serverPort(server.serverPort),
      userName(Infra::textOrEmpty(server.userName)),
      password(Infra::textOrEmpty(server.password)),
      loginType(server.loginType),
      owner(objectClass)
{}

ComponentInstance::~ComponentInstance()
{
    wipe(password);
}

namespace
{

using Infra::CGuard;
using Infra::formatText;
using Infra::textOrEmpty;

typedef TNameTable<ComponentClass> ComponentMap;

struct CreatorRegistry
{
    Infra::CLeafMutex mutex; // guards adding classes, and what changes of them
    ComponentMap classes;
};

CreatorRegistry& registry()
{
    return Infra::immortal<CreatorRegistry, CreatorRegistry>();
}

/// Names become file names, so none leads to another directory.
bool isClassName(const char* cid)
{
    return cid != nullptr && *cid != '\0' && strchr(cid, '/') == nullptr;
}

ComponentMap::Entry& findOrAddClass(const char* cid)
{
    ComponentMap::Entry* const known = registry().classes.find(cid);
    if (known != nullptr) {
        return *known;
    }
    CGuard guard(registry().mutex);
    return registry().classes.findOrAddLocked(cid);
}

// Shared objects by server.

size_t hashOf(const ServerInfo* server)
{
    if (server == nullptr) {
        return 0;
    }
    size_t hash = Infra::mixHash(server->loginType, server->serverPort);
    for (const char* text : {server->serverAddress, server->userName, server->password}) {
        hash = Infra::hashText(textOrEmpty(text), hash);
    }
    return hash;
}

bool isFor(const ComponentInstance& instance, const ServerInfo* server)
{
    if (server == nullptr || !instance.remote) {
        return server == nullptr && !instance.remote;
    }
    return instance.serverPort == server->serverPort && instance.loginType == server->loginType &&
           instance.serverAddress == textOrEmpty(server->serverAddress) &&
           instance.userName == textOrEmpty(server->userName) &&
           instance.password == textOrEmpty(server->password);
}

/// Finds the shared object for `server` and keeps it alive for the caller: with a reference that is
/// not yet a hand-out.
IUnknown* holdInstance(ComponentClass& component, const ServerInfo* server)
{
    const size_t hash = hashOf(server);
    CGuard guard(registry().mutex);
    ComponentInstanceList::Node* const node = component.instances.first(
        hash, [server](const ComponentInstance& instance) { return isFor(instance, server); });
    if (node == nullptr) {
        return nullptr;
    }
    ++node->value.pointer->m_internal->refCount;
    return node->value.pointer;
}

void listInstance(ComponentMap::Entry& entry, IUnknown* object, const ServerInfo* server)
{
    const size_t hash = hashOf(server);
    IUnknown::UnknownInternal& internal = *object->m_internal;
    CGuard guard(registry().mutex);
    internal.place = entry.value.instances.append(hash, object, server, &entry.value);
    internal.instance = true;
    internal.cid = entry.name.c_str();
}

void unlistLocked(IUnknown::UnknownInternal& internal)
{
    internal.place->value.owner->instances.remove(internal.place);
    internal.place = nullptr;
    internal.instance = false;
}

/// Takes the object out of the list of a class; false when it is not there.
bool unlist(IUnknown* object, const ComponentClass& component)
{
    IUnknown::UnknownInternal& internal = *object->m_internal;
    CGuard guard(registry().mutex);
    if (internal.place == nullptr || internal.place->value.owner != &component) {
        return false;
    }
    unlistLocked(internal);
    return true;
}

// Creators.

ComponentCreator creatorOf(ComponentMap::Entry& entry)
{
    const ComponentCreator creator = entry.value.creator.load(std::memory_order_acquire);
    return creator != nullptr ? creator : getDynamicCreator(entry.name.c_str());
}

/// The library that was opened for the class, opening it if need be; null when there is none.
void* openLibrary(const char* cid)
{
    ComponentMap::Entry* const known = registry().classes.find(cid);
    void* const opened = known == nullptr ? nullptr : known->value.dll.load();
    if (opened != nullptr) {
        return opened;
    }
    char path[31];
    formatText(path, "./lib%s.so", cid);
    void* const handle = dlopen(path, RTLD_LAZY);
    if (handle == nullptr) {
        return nullptr;
    }
    void* first = nullptr;
    if (findOrAddClass(cid).value.dll.compare_exchange_strong(first, handle)) {
        return handle;
    }
    dlclose(handle); // another thread was first, and has it open
    return first;
}

} // namespace

bool registerComponent(const char* cid, ComponentCreator creator)
{
    if (!isClassName(cid)) {
        return false;
    }
    bool known = false;
    {
        CGuard guard(registry().mutex);
        known = registry().classes.find(cid) != nullptr;
        registry().classes.findOrAddLocked(cid).value.creator.store(creator,
                                                                    std::memory_order_release);
    }
    if (known) {
        INFRA_LOG_WARN("registerComponentCreator creator for cid:%s already exist!\n", cid);
    }
    return true;
}

IUnknown* getComponentInstance(const char* cid, const ServerInfo* server)
{
    if (!isClassName(cid)) {
        return nullptr;
    }
    ComponentMap::Entry& entry = findOrAddClass(cid);
    IUnknown* const shared = holdInstance(entry.value, server);
    if (shared != nullptr) {
        shared->addRef(); // the component's own, so not under the lock
        shared->m_internal->refCount.dropUnlessLast();
        return shared;
    }
    const ComponentCreator creator = creatorOf(entry);
    IUnknown* const made = creator == nullptr ? nullptr : creator(server);
    if (made != nullptr) {
        listInstance(entry, made, server);
    }
    return made;
}

IUnknown* createComponentObject(const char* cid, const ServerInfo* server)
{
    if (!isClassName(cid)) {
        return nullptr;
    }
    ComponentMap::Entry& entry = findOrAddClass(cid);
    const ComponentCreator creator = creatorOf(entry);
    IUnknown* const made = creator == nullptr ? nullptr : creator(server);
    if (made != nullptr) {
        made->m_internal->cid = entry.name.c_str();
    }
    return made;
}

ComponentCreator getDynamicCreator(const char* cid)
{
    void* const library = isClassName(cid) ? openLibrary(cid) : nullptr;
    if (library == nullptr) {
        return nullptr;
    }
    char symbol[31];
    formatText(symbol, "create%sObject", cid);
    dlerror(); // what is there now is not ours
    void* const found = dlsym(library, symbol);
    if (found == nullptr) {
        INFRA_LOG_ERROR("getDynamicCreator get proc:%s failed for error:%s!\n", symbol,
                        Infra::shownText(dlerror()));
    }
    return reinterpret_cast<ComponentCreator>(found);
}

bool destroyComponent(IUnknown* component, const char* cid, bool instance)
{
    if (instance) {
        ComponentMap::Entry* const entry = registry().classes.find(textOrEmpty(cid));
        INFRA_ASSERT_TEXT(entry != nullptr, "pi != s_componentMap.end()");
        const bool wasListed = unlist(component, entry->value);
        INFRA_ASSERT_TEXT(wasListed, "pj != (*pi).second.instances.end()");
    }
    component->destroy();
    return true;
}

int dropInstance(IUnknown* object)
{
    CGuard guard(registry().mutex);
    const int left = decreaseRefCount(object);
    if (left == 0) {
        unlistLocked(*object->m_internal);
    }
    return left;
}

} // namespace Component
} // namespace Tarsel

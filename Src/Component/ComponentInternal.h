#ifndef INFRA_SRC_COMPONENT_COMPONENTINTERNAL_H
#define INFRA_SRC_COMPONENT_COMPONENTINTERNAL_H

// Components: counted objects, where they come from, and who shares them.
//
//     application ── TComPtr ──> object ── through ──> client (logged in to a server)
//         │                        ▲                      ▲
//         │ interface + class      │ makes, shares        │ finds, makes, logs in
//         └──────────────> factory registry ──────────────┘
//         │ class + server         ▲
//         └──────────────> creator registry ── dlopen ── ./lib<class>.so
//
// Who shares an object decides what happens to its last reference:
//
//     by                 | lock, besides the count             | then
//     nobody             | none                                | destroy()
//     an object table    | the table's (ObjectTable.h)         | leave the table; destroy()
//     creator registry   | instances (OldUnknown.cpp)          | leave the class's list; destroy()
//     the client list    | the list's (ClientFactory.cpp)      | leave the list; logout(), destroy()
//
// While there are two references or more, one is dropped with a compare-and-swap and no lock. The
// last one is dropped under the lock of what shares the object, where look-ups add theirs; so what
// a look-up finds is alive, and an object that is about to go cannot be found. logout(), destroy(),
// creators, login() and the dynamic linker run without a lock of the registries held.
//
// Factories register from static constructors and are taken out by static destructors of any
// library, so all registries are immortal. Names are never taken out of a registry: they are looked
// up without a lock (NameTable.h).
//
// Who is shared in several ways, a client out of a table, say, loses its last reference under the
// locks of all of them.
//
// Lock order: client creation or an object table, then the client list, then the creator registry;
// all others are leaves. getUserID() of clients is asked, and create() of client factories called,
// under client creation and the list; both are recursive.

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

#include "Component/ObjectTable.h"
#include "Component/OrderedIndex.h"
#include "Component/Unknown.h"
#include "Infra/Infra3/AtomicCount.h"

namespace Tarsel
{
namespace Component
{

class IClient;
struct ComponentClass;

/// Overwrites a text in a way that is not optimised away.
inline void wipe(std::string& secret)
{
    explicit_bzero(secret.data(), secret.size());
}

/// A shared object of the creator registry, and the server for which it was made.
struct ComponentInstance
{
    /// `server` may be null: the object is local then.
    ComponentInstance(IUnknown* object, const ServerInfo* server, ComponentClass* objectClass);
    /// Leaves no password in memory.
    ~ComponentInstance();
    ComponentInstance(const ComponentInstance&) = delete; // stays where it is, as its password does
    ComponentInstance& operator=(const ComponentInstance&) = delete;

    IUnknown* const pointer;
    const bool remote; ///< made for a server
    const std::string serverAddress;
    const uint32_t serverPort;
    const std::string userName;
    std::string password;
    const int loginType;
    ComponentClass* const owner;

private:
    ComponentInstance(IUnknown* object, bool isRemote, const ServerInfo& server,
                      ComponentClass* objectClass);
};

typedef TOrderedIndex<ComponentInstance> ComponentInstanceList;

struct IUnknown::UnknownInternal
{
    Infra::CAtomicCount refCount{1};
    /// 0 or 1: handed to a user. Until then the reference of its making is the user's to be.
    std::atomic<int64_t> isUsing{0};
    bool instance = false; ///< in the list of the creator registry
    const char* cid = "";  ///< its class in the creator registry, whose names live for ever
    Detail::CObjectTable* table = nullptr;
    IClient* client = nullptr; ///< the object itself, if it is one
    /// Its place in the creator registry's list, while `instance`.
    ComponentInstanceList::Node* place = nullptr;

    /// Drops a reference unless it is the last: the count left, or 0 and nothing was dropped.
    int dropUnlessLast();

    /// The first hand-out passes the first reference on, every later one adds one.
    void handOut()
    {
        if (markUsed()) {
            ++refCount;
        }
    }
    /// True when it was used before. Objects in use are not written to.
    bool markUsed() { return isUsing.load() == 1 || isUsing.exchange(1) == 1; }
    /// The same where nobody asks what it was, as of an object that was just made.
    void setUsed()
    {
        if (isUsing.load() != 1) {
            isUsing.store(1, std::memory_order_release);
        }
    }
};

/// Drops a reference; with the last one the object leaves whatever shares it, and is the caller's to
/// end. The references left.
int dropReference(IUnknown* object);
/// Its step for a shared object of the creator registry, under the registry's lock.
int dropInstance(IUnknown* object);
/// Its step for a client, listed in the creator registry or not, under the client list's lock.
int dropClient(IClient* client);
/// Since when a client would be idle if nobody but the list had it; neverIdle when it cannot be.
uint64_t idleSince(IClient* client);
constexpr uint64_t neverIdle = UINT64_MAX;
/// Has the idle check look five minutes after `sinceMs`.
void expectIdleClient(uint64_t sinceMs);
/// The same behind the drop of a reference: an idle check that does not look then has seen the drop.
void expectDroppedClient(uint64_t sinceMs);

/// Nothing of the object is touched behind the drop: others may drop theirs at once.
inline int IUnknown::UnknownInternal::dropUnlessLast()
{
    const uint64_t since = client == nullptr ? neverIdle : idleSince(client);
    const int left = refCount.dropUnlessLast();
    if (left == 1 && since != neverIdle) {
        expectDroppedClient(since);
    }
    return left;
}

} // namespace Component
} // namespace Tarsel

#endif

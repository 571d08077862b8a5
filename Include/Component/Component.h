#ifndef INFRA_COMPONENT_COMPONENT_H
#define INFRA_COMPONENT_COMPONENT_H

// What an application uses to offer components, and to get them by interface and class.
//
// An interface derives from IUnknown and holds its factory interface, IFactory, which derives from
// IFactoryUnknown, names the interface with a static iid(), and makes objects with create(...),
// shares them with instance(...), or does both:
//
//     struct IGreeter : IUnknown
//     {
//         virtual std::string greet(const std::string& name) = 0;
//
//         struct IFactory : IFactoryUnknown
//         {
//             static const char* iid() { return "Greeter"; }
//             virtual IGreeter* create() = 0;
//         };
//     };
//
// An implementation is a component and a factory that is registered while it lives:
//
//     class CGreeter : public TComponent<IGreeter>
//     {
//         std::string greet(const std::string& name) override { return "hello, " + name; }
//     };
//     struct CGreeterFactory : IGreeter::IFactory
//     {
//         const char* clsid() override { return "Local"; }
//         IGreeter* create() override { return new CGreeter; }
//     };
//     static TRegistered<CGreeterFactory> s_greeters;
//
// And whoever knows the interface gets one:
//
//     TComPtr<IGreeter> greeter = createComponentObject<IGreeter>("Local", ServerInfo::none);
//
// All of this is safe from any thread. Where something cannot be had the pointer is empty, and the
// last error says why, see Detail::CComponentHelper.

#include <type_traits>
#include <utility>

#include "Component/ClassID.h"
#include "Component/Client.h"
#include "Component/ComponentHelper.h"
#include "Component/ComponentSelector.h"
#include "Component/ComPtr.h"
#include "Component/Factory.h"
#include "Component/ObjectTable.h"
#include "Component/ServerInfo.h"
#include "Component/ServerInfoQueryer.h"
#include "Component/Unknown.h"

namespace Tarsel
{
namespace Component
{

// Offering components.

/// An implementation of interface `Base` that lives on the heap and has no version of its own.
template <typename Base>
class TComponent : public Base
{
public:
    using Base::Base;
    void destroy() override { delete this; }
    Infra::CVersion getVersion() override { return {"", 0, 0, 0, "0", ""}; }
};

/// A factory that is registered while it lives.
template <typename Factory>
class TRegistered : public Factory
{
public:
    template <typename... A>
    explicit TRegistered(A&&... arguments) : Factory(std::forward<A>(arguments)...)
    {
        this->registerFactory(Factory::iid());
    }
    ~TRegistered() override { this->unregisterFactory(Factory::iid()); }
};

/// A factory that shares its objects by key: `T* instance(Key key)` of T::IFactory gives the one
/// object for `key`, which is made on first use and goes with its last reference.
///
/// A class derives from it and says how objects are made, and which is whose. Both run under the
/// lock of the factory's table, so they do not ask for other objects of the same factory. Objects
/// that are left when the factory goes are shared no longer, and go with their last references.
template <typename T, typename Key>
class TSharedFactory : public T::IFactory
{
public:
    T* instance(Key key) override
    {
        const CLocked locked(m_objects);
        IUnknown* found = m_objects.find(CSearched(*this, key));
        if (found == nullptr) {
            found = make(key);
            if (found != nullptr) {
                m_objects.insert(found);
            }
        }
        return static_cast<T*>(found);
    }

protected:
    /// A new object for `key`, or null.
    virtual T* make(Key key) = 0;
    /// True when `object`, one of make's, is the one for `key`.
    virtual bool isFor(Key key, T& object) = 0;

private:
    class CLocked
    {
    public:
        explicit CLocked(Detail::CObjectTable& table) : m_table(table) { m_table.lock(); }
        ~CLocked() { m_table.unlock(); }
        CLocked(const CLocked&) = delete;
        CLocked& operator=(const CLocked&) = delete;

    private:
        Detail::CObjectTable& m_table;
    };

    struct CSearched : Detail::key_base
    {
        CSearched(TSharedFactory& factory, Key key) : owner(factory), wanted(key) {}
        bool same_as(IUnknown* object) const override
        {
            return owner.isFor(wanted, *static_cast<T*>(object));
        }
        TSharedFactory& owner;
        Key wanted;
    };

    Detail::CObjectTable m_objects;
};

// Getting components.

namespace Detail
{

/// Which class is wanted, and through which client: that of a user, that of a server, or none.
struct ComponentSource
{
    bool isKnown = false;
    Infra::CString classId;
    int userid = -1;
    bool isLocal = false;
    ServerInfo server = {};

    /// Sets the class of a protocol.
    void setClass(Infra::CString& protocol, const char* subClassID)
    {
        Infra::CString subClass(subClassID == nullptr ? "" : subClassID);
        classId = getClassId(protocol, subClass);
        isLocal = isLocal || ClassID(protocol.c_str()) == ClassID::local;
    }
};

inline ComponentSource sourceFor(const char* iid, const ComSelChannelInfo& channel)
{
    ComponentSource source;
    Infra::CString protocol;
    source.isLocal = channel.channel == -1;
    source.isKnown = source.isLocal || CServerInfoQueryerHelper::instance().getServerInfoByChannel(
                                           channel.channel, protocol, source.server);
    if (source.isLocal) {
        protocol = CLocalComSelectManager::getDefaultClassID(iid);
    }
    source.setClass(protocol, channel.subClassID);
    source.userid = channel.userid;
    return source;
}

inline ComponentSource sourceFor(const char* deviceId, const char* subClassID)
{
    ComponentSource source;
    Infra::CString protocol;
    source.isKnown = CServerInfoQueryerHelper::instance().getServerInfoByDeviceId(
        deviceId, protocol, source.server);
    source.setClass(protocol, subClassID);
    return source;
}

/// How a factory is asked for an object: for one of the caller's own.
struct OwnObject
{
    template <typename Factory, typename... A>
    static auto get(Factory& factory, A&&... arguments)
    {
        auto* const made = factory.create(std::forward<A>(arguments)...);
        CComponentHelper::makeComponentObject(made);
        return made;
    }
};

/// For one that others may have, too.
struct SharedObject
{
    template <typename Factory, typename... A>
    static auto get(Factory& factory, A&&... arguments)
    {
        if constexpr (std::is_same<Factory, IClient::IFactory>::value) {
            // The others may drop a client between being found and being counted.
            return getClientOfUser(ClassID(factory.clsid()), std::forward<A>(arguments)...);
        } else {
            auto* const found = factory.instance(std::forward<A>(arguments)...);
            CComponentHelper::makeComponentInstance(found);
            return found;
        }
    }
};

/// The factory of T for a class and a server or a user is asked for an object, and that put into a
/// pointer with the client that was found.
template <typename T, typename Way, typename Server, typename... A>
TComPtr<T> componentOf(const ClassID& clsid, const Server& server, A&&... arguments)
{
    typedef typename T::IFactory Factory;
    IClient* client = nullptr;
    IFactoryUnknown* const factory =
        CComponentHelper::getComponentFactory(Factory::iid(), clsid, server, client);
    CHeldClient held(client);
    T* component = nullptr;
    if (factory != nullptr) {
        component = Way::get(*static_cast<Factory*>(factory), std::forward<A>(arguments)...);
    }
    return component == nullptr ? TComPtr<T>() : TComPtr<T>(component, held.take(), 0);
}

template <typename T, typename Way, typename... A>
TComPtr<T> componentOf(const ComponentSource& source, A&&... arguments)
{
    if (!source.isKnown) {
        return TComPtr<T>();
    }
    const ClassID clsid(source.classId.c_str());
    if (source.userid != -1) {
        return componentOf<T, Way>(clsid, source.userid, std::forward<A>(arguments)...);
    }
    // No server is known by its address: a copy would be a server.
    const ServerInfo& server = source.isLocal ? ServerInfo::none : source.server;
    return componentOf<T, Way>(clsid, server, std::forward<A>(arguments)...);
}

} // namespace Detail

/// A new component of class `clsid`, made by T::IFactory::create(arguments...). It talks through
/// the client that is logged in to `si`; ServerInfo::none itself is for a local one. Empty when it
/// cannot be had.
template <typename T, typename... A>
TComPtr<T> createComponentObject(const ClassID& clsid, const ServerInfo& si, A&&... arguments)
{
    return Detail::componentOf<T, Detail::OwnObject>(clsid, si, std::forward<A>(arguments)...);
}

/// The same through the client of user `uid`; -1 is none.
template <typename T, typename... A>
TComPtr<T> createComponentObject(const ClassID& clsid, int uid, A&&... arguments)
{
    return Detail::componentOf<T, Detail::OwnObject>(clsid, uid, std::forward<A>(arguments)...);
}

/// The same for a channel. Channel -1 is the default class of the interface
/// (CLocalComSelectManager); for others the queryer says which class and server they have. A user
/// in the description comes before the server.
template <typename T, typename... A>
TComPtr<T> createComponentObject(const ComSelChannelInfo& channel, A&&... arguments)
{
    return Detail::componentOf<T, Detail::OwnObject>(Detail::sourceFor(T::IFactory::iid(), channel),
                                                     std::forward<A>(arguments)...);
}

/// The same for a device, whose class and server the queryer knows. `subClassID` may be null.
template <typename T, typename... A>
TComPtr<T> createComponentObjectByDevice(const char* deviceId, const char* subClassID,
                                         A&&... arguments)
{
    return Detail::componentOf<T, Detail::OwnObject>(Detail::sourceFor(deviceId, subClassID),
                                                     std::forward<A>(arguments)...);
}

/// The component that T::IFactory::instance(arguments...) shares. Classes and servers as for
/// createComponentObject.
template <typename T, typename... A>
TComPtr<T> getComponentInstance(const ClassID& clsid, const ServerInfo& si, A&&... arguments)
{
    return Detail::componentOf<T, Detail::SharedObject>(clsid, si, std::forward<A>(arguments)...);
}

template <typename T, typename... A>
TComPtr<T> getComponentInstance(const ClassID& clsid, int uid, A&&... arguments)
{
    return Detail::componentOf<T, Detail::SharedObject>(clsid, uid, std::forward<A>(arguments)...);
}

template <typename T, typename... A>
TComPtr<T> getComponentInstance(const ComSelChannelInfo& channel, A&&... arguments)
{
    return Detail::componentOf<T, Detail::SharedObject>(
        Detail::sourceFor(T::IFactory::iid(), channel), std::forward<A>(arguments)...);
}

template <typename T, typename... A>
TComPtr<T> getComponentInstanceByDevice(const char* deviceId, const char* subClassID,
                                        A&&... arguments)
{
    return Detail::componentOf<T, Detail::SharedObject>(Detail::sourceFor(deviceId, subClassID),
                                                        std::forward<A>(arguments)...);
}

} // namespace Component
} // namespace Tarsel

#endif

// Components: found by name, counted, shared, and handed out with their clients.
//
// component_make/N    a local one of N registered classes, in turn: looked up, made, called, dropped
//   unordered_map     a std::unordered_map of names to factories, and std::make_unique
// instance_get/N      one of N shared objects of a class, one a server, in turn: found and released
//   weak_ptr          a std::unordered_map of servers to std::weak_ptr, under a mutex
// client_get/N        a factory with the client of one of N servers, in turn: found and released
// client_idle/N       the idle check beside N clients, none of them idle
// pointer_copy        a pointer to a component copied and dropped; the peer is std::shared_ptr
// pointer_call        a virtual call through a pointer to a component without a client
//
// The keys are read in an order that no cache foresees.

#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Component/ClientFactory.h"
#include "Component/Component.h"

namespace
{

using namespace Bench;
using namespace Tarsel::Component;

/// A call is a call: the compiler does not know what is behind it.
#define NOT_INLINE __attribute__((noinline, noipa))

constexpr size_t counts[] = {1, 100, 10000};

/// All numbers below `count`, shuffled.
std::vector<size_t> inDisorder(size_t count)
{
    std::vector<size_t> numbers(count);
    uint64_t random = 88172645463325252;
    for (size_t i = 0; i < count; ++i) {
        random ^= random << 13;
        random ^= random >> 7;
        random ^= random << 17;
        const size_t j = random % (i + 1);
        numbers[i] = numbers[j];
        numbers[j] = i;
    }
    return numbers;
}

std::string nameOf(size_t number)
{
    char name[16];
    snprintf(name, sizeof(name), "Class%06zu", number);
    return name;
}

// Local components.

struct IAdder
{
    virtual ~IAdder() = default;
    virtual int add(int value) = 0;
};

class CAdder : public IAdder
{
public:
    NOT_INLINE int add(int value) override { return m_sum += value; }

private:
    int m_sum = 0;
};

/// An interface of its own for each number of classes.
template <size_t Count>
struct TComponentAdder : IUnknown
{
    virtual int add(int value) = 0;

    struct IFactory : IFactoryUnknown
    {
        static const char* iid()
        {
            return Count == 1 ? "Adder of 1" : Count == 100 ? "Adder of 100" : "Adder of 10000";
        }
        virtual TComponentAdder* create() = 0;
    };
};
typedef TComponentAdder<1> IComponentAdder;

template <size_t Count>
class TAdder : public TComponent<TComponentAdder<Count>>
{
public:
    NOT_INLINE int add(int value) override { return m_sum += value; }

private:
    int m_sum = 0;
};
typedef TAdder<1> CComponentAdder;

template <size_t Count>
class TAdders : public TComponentAdder<Count>::IFactory
{
public:
    explicit TAdders(size_t number) : m_name(nameOf(number)) { this->registerFactory(this->iid()); }
    const char* clsid() override { return m_name.c_str(); }
    TComponentAdder<Count>* create() override { return new TAdder<Count>; }

private:
    const std::string m_name;
};

struct IPeerFactory
{
    virtual ~IPeerFactory() = default;
    virtual std::unique_ptr<IAdder> create() = 0;
};

struct CPeerFactory : IPeerFactory
{
    std::unique_ptr<IAdder> create() override { return std::make_unique<CAdder>(); }
};

/// The names in the order in which they are asked for.
std::vector<std::string> namesInDisorder(size_t count)
{
    std::vector<std::string> names;
    for (const size_t number : inDisorder(count)) {
        names.push_back(nameOf(number));
    }
    return names;
}

template <size_t Count>
void makeComponents(benchmark::State& state)
{
    static std::vector<std::unique_ptr<TAdders<Count>>> s_factories;
    for (size_t i = s_factories.size(); i < Count; ++i) {
        s_factories.push_back(std::make_unique<TAdders<Count>>(i));
    }
    const std::vector<std::string> names = namesInDisorder(Count);
    size_t next = 0;
    for (auto _ : state) {
        const char* const name = names[next].c_str();
        next = next + 1 < Count ? next + 1 : 0;
        const auto adder = createComponentObject<TComponentAdder<Count>>(name, ServerInfo::none);
        benchmark::DoNotOptimize(adder->add(1));
    }
}

template <size_t Count>
void makePeers(benchmark::State& state)
{
    static std::unordered_map<std::string, std::unique_ptr<IPeerFactory>> s_factories;
    for (size_t i = s_factories.size(); i < Count; ++i) {
        s_factories.emplace(nameOf(i), std::make_unique<CPeerFactory>());
    }
    const std::vector<std::string> names = namesInDisorder(Count);
    size_t next = 0;
    for (auto _ : state) {
        const char* const name = names[next].c_str();
        next = next + 1 < Count ? next + 1 : 0;
        const std::unique_ptr<IAdder> adder = s_factories.find(name)->second->create();
        benchmark::DoNotOptimize(adder->add(1));
    }
}

// Shared objects and clients.

std::vector<ServerInfo> serversInDisorder(size_t count)
{
    std::vector<ServerInfo> servers;
    for (const size_t number : inDisorder(count)) {
        ServerInfo server = {};
        server.serverAddress = "192.168.100.200";
        server.serverPort = static_cast<uint32_t>(number);
        server.userName = "user";
        server.password = "password";
        servers.push_back(server);
    }
    return servers;
}

void getInstances(benchmark::State& state, size_t count)
{
    const std::string cid = "Shared" + std::to_string(count);
    registerComponent(cid.c_str(),
                      [](const ServerInfo*) -> IUnknown* { return new CComponentAdder; });
    const std::vector<ServerInfo> servers = serversInDisorder(count);
    std::vector<TComPtr<IUnknown>> held;
    for (const ServerInfo& server : servers) {
        held.emplace_back(getComponentInstance(cid.c_str(), &server), nullptr, 0);
    }
    size_t next = 0;
    for (auto _ : state) {
        const ServerInfo& server = servers[next];
        next = next + 1 < count ? next + 1 : 0;
        const TComPtr<IUnknown> found(getComponentInstance(cid.c_str(), &server), nullptr, 0);
        benchmark::DoNotOptimize(found.get());
    }
}

void getPeerInstances(benchmark::State& state, size_t count)
{
    typedef std::pair<std::string, uint32_t> Server;
    struct Hash
    {
        size_t operator()(const Server& server) const
        {
            return std::hash<std::string>()(server.first) * 31 + server.second;
        }
    };
    std::unordered_map<Server, std::weak_ptr<IAdder>, Hash> shared;
    std::mutex mutex;
    const std::vector<ServerInfo> servers = serversInDisorder(count);
    std::vector<std::shared_ptr<IAdder>> held;
    const auto keyOf = [](const ServerInfo& server) {
        return Server(std::string(server.serverAddress) + "/" + server.userName + "/" +
                          server.password,
                      server.serverPort);
    };
    for (const ServerInfo& server : servers) {
        held.push_back(std::make_shared<CAdder>());
        shared[keyOf(server)] = held.back();
    }
    size_t next = 0;
    for (auto _ : state) {
        const ServerInfo& server = servers[next];
        next = next + 1 < count ? next + 1 : 0;
        std::shared_ptr<IAdder> found;
        {
            const std::lock_guard guard(mutex);
            found = shared.find(keyOf(server))->second.lock();
        }
        benchmark::DoNotOptimize(found.get());
    }
}

class CClient : public TComponent<IClient>
{
public:
    bool isBroken() override { return false; }
    bool login() override { return true; }
    bool logout() override { return true; }
    bool getUserID(int& userID) override
    {
        userID = 1;
        return true;
    }
};

struct CClients : IClient::IFactory
{
    const char* clsid() override { return "Dev"; }
    IClient* create(const ServerInfo&) override { return new CClient; }
};

struct CNothings : IFactoryUnknown
{
    const char* clsid() override { return "Dev"; }
};

IClient* clientFor(const ServerInfo& server)
{
    IClient* client = nullptr;
    Detail::CComponentHelper::getComponentFactory("Nothing", "Dev", server, client);
    return client;
}

std::vector<TComPtr<IClient>> holdClients(const std::vector<ServerInfo>& servers)
{
    static TRegistered<CClients> s_clients;
    static CNothings s_nothings;
    s_nothings.registerFactory("Nothing");
    std::vector<TComPtr<IClient>> held;
    for (const ServerInfo& server : servers) {
        held.emplace_back(clientFor(server), nullptr, 0);
    }
    return held;
}

void getClients(benchmark::State& state, size_t count)
{
    const std::vector<ServerInfo> servers = serversInDisorder(count);
    const auto held = holdClients(servers);
    size_t next = 0;
    for (auto _ : state) {
        const ServerInfo& server = servers[next];
        next = next + 1 < count ? next + 1 : 0;
        benchmark::DoNotOptimize(Detail::CComponentHelper::release(clientFor(server)));
    }
}

void checkForIdle(benchmark::State& state, size_t count)
{
    const auto held = holdClients(serversInDisorder(count));
    CClientInstanceList* const list = CClientInstanceList::instance();
    for (auto _ : state) {
        list->removeIdleClientInstance(0);
    }
}

// Pointers.

template <typename Pointer>
void copyPointer(benchmark::State& state, const Pointer& pointer)
{
    for (auto _ : state) {
        const Pointer copy = pointer;
        benchmark::DoNotOptimize(copy.get());
    }
}

template <typename Pointer>
void callPointer(benchmark::State& state, const Pointer& pointer)
{
    const Pointer* held = &pointer;
    for (auto _ : state) {
        benchmark::DoNotOptimize(held);
        benchmark::DoNotOptimize((*held)->add(1));
    }
}

template <size_t Count>
void addMaking()
{
    add(label("component_make", Count), infra, makeComponents<Count>);
    add(label("component_make", Count), "unordered_map", makePeers<Count>);
}

} // namespace

int main(int argc, char** argv)
{
    addMaking<1>();
    addMaking<100>();
    addMaking<10000>();
    for (const size_t count : counts) {
        add(label("instance_get", count), infra, getInstances, count);
        add(label("instance_get", count), "weak_ptr", getPeerInstances, count);
    }
    for (const size_t count : counts) {
        add(label("client_get", count), infra, getClients, count);
    }
    for (const size_t count : counts) {
        add(label("client_idle", count), infra, checkForIdle, count);
    }
    const TComPtr<IComponentAdder> component(new CComponentAdder, nullptr, 0);
    const std::shared_ptr<IAdder> peer = std::make_shared<CAdder>();
    add("pointer_copy", infra, copyPointer<TComPtr<IComponentAdder>>, component);
    add("pointer_copy", "shared_ptr", copyPointer<std::shared_ptr<IAdder>>, peer);
    add("pointer_call", infra, callPointer<TComPtr<IComponentAdder>>, component);
    add("pointer_call", "shared_ptr", callPointer<std::shared_ptr<IAdder>>, peer);
    return run(argc, argv, "the compiler's library");
}

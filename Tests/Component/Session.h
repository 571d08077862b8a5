#ifndef INFRA_TESTS_COMPONENT_SESSION_H
#define INFRA_TESTS_COMPONENT_SESSION_H

// The clients of these tests, and the components behind them.

#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "Component/Client.h"
#include "Component/ClientFactory.h"
#include "Component/ClientInternal.h"
#include "Component/ComponentHelper.h"
#include "Component/Part.h"
#include "Infra/Infra3/Error.h"

namespace Tarsel
{
namespace TestSupport
{

using Component::ClassID;
using Component::ClientFactory;
using Component::IClient;
using Component::IFactoryUnknown;
using Component::IUnknown;
using Component::ServerInfo;
using Component::TComPtr;
using Component::Detail::CComponentHelper;

/// How clients behave that are made from now on.
struct SessionPlan
{
    std::function<bool()> login = [] { return true; };
    std::function<void()> logout = [] {};
    int userID = 7;
    bool isMade = true; ///< else the factory makes none
};

class CSession : public TCounted<IClient>
{
public:
    explicit CSession(SessionPlan sessionPlan) : plan(std::move(sessionPlan)) {}

    bool isBroken() override { return broken; }
    bool login() override
    {
        ++logins;
        ++s_logins;
        return plan.login();
    }
    bool logout() override
    {
        ++s_logouts;
        plan.logout();
        return true;
    }
    bool getUserID(int& userID) override
    {
        if (plan.userID == -1) {
            return false;
        }
        userID = plan.userID;
        return true;
    }

    const SessionPlan plan;
    std::atomic<bool> broken{false};
    std::atomic<int> logins{0};
    static inline std::atomic<int> s_logins{0};
    static inline std::atomic<int> s_logouts{0};
};

/// Registered while it lives, and a factory of components "Recorder" of the same class beside it.
class CSessionFactory : public IClient::IFactory
{
public:
    explicit CSessionFactory(const char* name) : m_name(name), m_recorders(name)
    {
        registerFactory(iid());
        m_recorders.registerFactory("Recorder");
    }
    ~CSessionFactory() override
    {
        unregisterFactory(iid());
        m_recorders.unregisterFactory("Recorder");
    }
    const char* clsid() override { return m_name; }
    IClient* create(const ServerInfo&) override
    {
        return plan.isMade ? new CSession(plan) : nullptr;
    }
    IFactoryUnknown* recorders() { return &m_recorders; }

    SessionPlan plan;

private:
    struct CRecorders : IFactoryUnknown
    {
        explicit CRecorders(const char* name) : name(name) {}
        const char* clsid() override { return name; }
        const char* const name;
    };

    const char* const m_name;
    CRecorders m_recorders;
};

/// Everything that decides about the life of a client.
struct ClientCounts
{
    int references;
    int64_t isUsing;
    int64_t externalUsing;
    bool isListed;
    bool operator==(const ClientCounts&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const ClientCounts& counts)
    {
        return out << "{references " << counts.references << ", isUsing " << counts.isUsing
                   << ", externalUsing " << counts.externalUsing
                   << (counts.isListed ? ", listed}" : ", not listed}");
    }
};

inline ClientCounts clientCountsOf(IClient* client)
{
    const Counts counts = countsOf(client);
    const IClient::ClientInternal& record = *client->m_internal;
    return {counts.references, counts.isUsing, record.externalUsing.load(),
            record.place != nullptr};
}

/// A server that only its port tells from others.
inline ServerInfo serverAt(uint32_t port)
{
    ServerInfo server = {};
    server.serverAddress = "address";
    server.serverPort = port;
    server.userName = "user";
    server.password = "passw0rd";
    return server;
}

/// Asks for the recorders of class `clsid` on a server: the client that comes with them, or null.
inline CSession* sessionFor(const char* clsid, const ServerInfo& server)
{
    IClient* client = nullptr;
    CComponentHelper::getComponentFactory("Recorder", clsid, server, client);
    return static_cast<CSession*>(client);
}

} // namespace TestSupport
} // namespace Tarsel

#endif

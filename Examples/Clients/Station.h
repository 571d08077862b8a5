#ifndef INFRA_EXAMPLES_CLIENTS_STATION_H
#define INFRA_EXAMPLES_CLIENTS_STATION_H

// Thermometers of a weather station on the network: the client that talks to it, and the components
// that are used through it. Applications see IThermometer only.

#include <atomic>
#include <mutex>
#include <string>

#include <Component/Component.h>

#include "Lines.h"

/// A thermometer, here or elsewhere.
struct IThermometer : Tarsel::Component::IUnknown
{
    /// The temperature in words; empty when it cannot be had.
    virtual std::string read() = 0;

    struct IFactory : Tarsel::Component::IFactoryUnknown
    {
        static const char* iid() { return "Thermometer"; }
        virtual IThermometer* create(int sensor) = 0;
    };
};

/// One session with a station. The library makes one for a server and a user, logs it in, and shares
/// it among all thermometers.
class CStationClient : public Tarsel::Component::TComponent<Tarsel::Component::IClient>
{
public:
    CStationClient() : m_user(++s_users) { ++s_alive; }
    ~CStationClient() override { --s_alive; }

    bool isBroken() override { return m_isBroken; }

    /// Also the way back when the station was away.
    bool login() override
    {
        Tarsel::Component::ServerInfo server = {};
        getServerInfo(server);
        std::lock_guard<std::mutex> guard(m_mutex);
        std::string reply;
        if (!m_lines.connectTo(server.serverAddress, server.serverPort) ||
            !m_lines.write(std::string("login ") + server.userName + " " + server.password) ||
            !m_lines.read(reply) || reply.rfind("ok ", 0) != 0) {
            m_lines.close();
            return false;
        }
        m_isBroken = false;
        ++s_logins;
        return true;
    }

    bool logout() override
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        std::string reply;
        const bool wasThere = m_lines.isOpen() && m_lines.write("logout") && m_lines.read(reply);
        m_lines.close();
        s_logouts += wasThere ? 1 : 0;
        return wasThere;
    }

    /// Asked under a lock of the library, so it does not wait for the network. The station counts
    /// its sessions, too, but another station may give the same number.
    bool getUserID(int& userID) override
    {
        userID = m_user;
        return true;
    }

    /// Sends a line and gives the answer; empty when the station is away. Whoever finds that tells
    /// everybody who wants to know.
    std::string ask(const std::string& line)
    {
        std::string reply;
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            if (m_lines.isOpen() && m_lines.write(line) && m_lines.read(reply)) {
                return reply;
            }
        }
        if (!m_isBroken.exchange(true)) {
            abort(/*reason*/ 1);
        }
        return std::string();
    }

    static inline std::atomic<int> s_alive{0};
    static inline std::atomic<int> s_logins{0};
    static inline std::atomic<int> s_logouts{0};

private:
    static inline std::atomic<int> s_users{0};

    const int m_user;   ///< one for each client of the process
    std::mutex m_mutex; // guards the connection
    CLines m_lines;
    std::atomic<bool> m_isBroken{false};
};

struct CStationClients : Tarsel::Component::IClient::IFactory
{
    const char* clsid() override { return "Station"; }
    Tarsel::Component::IClient* create(const Tarsel::Component::ServerInfo&) override
    {
        return new CStationClient;
    }
};

/// A thermometer of a station. Whoever holds it holds its client, too.
class CStationThermometer : public Tarsel::Component::TComponent<IThermometer>
{
public:
    CStationThermometer(CStationClient& client, int sensor) : m_client(client), m_sensor(sensor) {}
    std::string read() override { return m_client.ask("read " + std::to_string(m_sensor)); }

private:
    CStationClient& m_client;
    const int m_sensor;
};

class CStationThermometers : public IThermometer::IFactory
{
public:
    explicit CStationThermometers(CStationClients& clients) : m_clients(clients) {}
    const char* clsid() override { return "Station"; }

    /// The client on whose behalf one is made is that of the thread's current user.
    IThermometer* create(int sensor) override
    {
        Tarsel::Component::IClient* const client =
            m_clients.instance(Tarsel::Component::IClient::getCurrentUserID());
        return client == nullptr
                   ? nullptr
                   : new CStationThermometer(static_cast<CStationClient&>(*client), sensor);
    }

private:
    CStationClients& m_clients;
};

#endif

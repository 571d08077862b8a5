// Clients.cpp: components that live on a server.
//
//     Clients SERVER       SERVER is the server program of this example
//
//     IThermometer ── CStationThermometer ─┐
//     IThermometer ── CStationThermometer ─┴─ CStationClient ══ TCP ══ Server
//
// The first thermometer makes a client and logs it in, the second one shares it. The server is
// killed and started again: everybody is told, and the next thermometer brings the session back. A
// client whose password is wrong goes when five minutes have passed, and the one that was used when
// its last thermometer goes.
//
// Ends with 0 if and only if all of that happened.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <Component/Component.h>
#include <Infra/Infra3/Error.h>

#include "LeapingClock.h"
#include "Station.h"

extern char** environ; // NOLINT(readability-redundant-declaration): not everywhere in unistd.h

namespace
{

using namespace Tarsel::Component;

TRegistered<CStationClients> s_clients;
const TRegistered<CStationThermometers> s_thermometers(s_clients);

int s_surprises = 0;

void expect(bool asItShouldBe, const char* what)
{
    std::printf("%s%s\n", asItShouldBe ? "" : "NOT: ", what);
    s_surprises += asItShouldBe ? 0 : 1;
}

/// The server program, killed when this goes.
class CServer
{
public:
    explicit CServer(const char* program) : m_program(program) { start(); }
    ~CServer() { kill(); }
    CServer(const CServer&) = delete;
    CServer& operator=(const CServer&) = delete;

    uint32_t port() const { return m_port; }

    /// At the port of the first time.
    void start()
    {
        int ends[2];
        if (pipe(ends) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, ends[0]);
        std::string port = std::to_string(m_port);
        char* arguments[] = {const_cast<char*>(m_program), port.data(), nullptr};
        posix_spawn(&m_process, m_program, &actions, nullptr, arguments, environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        std::FILE* const output = fdopen(ends[0], "r");
        char line[32] = "";
        if (std::fgets(line, sizeof(line), output) != nullptr) {
            m_port = static_cast<uint32_t>(atoi(line));
        }
        std::fclose(output);
    }

    void kill()
    {
        if (m_process != -1) {
            ::kill(m_process, SIGKILL);
            waitpid(m_process, nullptr, 0);
        }
        m_process = -1;
    }

private:
    const char* const m_program;
    uint32_t m_port = 0;
    pid_t m_process = -1;
};

/// Is told when a session ends. The library's delegate passes the client by value.
struct Watch
{
    void onStatus(void* /*data*/, ClassID clsid,
                  TComPtr<IClient> client, // NOLINT(performance-unnecessary-value-param)
                  IClient::Status status, int reason)
    {
        if (status == IClient::statusSessionAborted) {
            ServerInfo server = {};
            client->getServerInfo(server);
            std::printf("    the %s session of %s ended, reason %d\n", clsid.m_str, server.userName,
                        reason);
            ++aborted;
        }
    }
    int aborted = 0;
};

TComPtr<IThermometer> thermometer(const ServerInfo& station, int sensor)
{
    return createComponentObject<IThermometer>("Station", station, sensor);
}

void refuseWrongPassword(const ServerInfo& station)
{
    ServerInfo wrong = station;
    wrong.password = "wether";
    expect(!thermometer(wrong, 1), "a wrong password gives no thermometer");
    expect(CStationClient::s_alive == 1, "its client stays for the next attempt");
    leapMinutes(5);
    for (int i = 0; i < 1000 && CStationClient::s_alive != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    expect(CStationClient::s_alive == 0, "but goes when there was none for five minutes");
}

void useThermometers(const ServerInfo& station, CServer& server)
{
    const TComPtr<IThermometer> inside = thermometer(station, 1);
    const TComPtr<IThermometer> outside = thermometer(station, -7);
    if (!inside || !outside) {
        expect(false, "thermometers can be had");
        return;
    }
    expect(inside.client() == outside.client() && CStationClient::s_logins == 1,
           "two thermometers share one login");
    expect(inside->read() == "21 degrees" && outside->read() == "13 degrees", "both can be read");

    Watch watch;
    const IClient::StatusProc onStatus(&Watch::onStatus, &watch);
    inside.client()->attachStatusProc(onStatus);
    server.kill();
    expect(inside->read().empty() && outside->read().empty(), "without the server they are silent");
    expect(watch.aborted == 1, "everybody was told, once");
    expect(!thermometer(station, 2), "no thermometer can be had meanwhile");

    server.start();
    const TComPtr<IThermometer> roof = thermometer(station, 2);
    expect(roof && roof.client() == inside.client() && CStationClient::s_logins == 2,
           "when it is back, the next thermometer brings the session back");
    expect(roof && roof->read() == "22 degrees" && inside->read() == "21 degrees",
           "for those that were there before, too");
    inside.client()->detachStatusProc(onStatus);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: Clients SERVER\n");
        return 2;
    }
    CServer server(argv[1]);
    ServerInfo station = {};
    station.serverAddress = "127.0.0.1";
    station.serverPort = server.port();
    station.userName = "anna";
    station.password = "weather";

    refuseWrongPassword(station);
    useThermometers(station, server);
    expect(CStationClient::s_logouts == 1 && CStationClient::s_alive == 0,
           "with the last thermometer the client has logged out and gone");
    return s_surprises == 0 ? 0 : 1;
}

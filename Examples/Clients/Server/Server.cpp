// Server.cpp: a weather station for one process after the other to talk to.
//
//     Server PORT     0 is any; the port is the first line that it prints
//
//     login USER PASSWORD  ->  ok SESSION, or no
//     read SENSOR          ->  the temperature there
//     logout               ->  bye, and the connection ends

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>

#include "../Lines.h"

namespace
{

/// What is answered to one line; `session` is 0 until somebody has logged in.
std::string answer(const std::string& line, int& session)
{
    static std::atomic<int> s_sessions{100};
    std::istringstream words(line);
    std::string verb;
    std::string first;
    std::string second;
    words >> verb >> first >> second;
    if (verb == "login" && first == "anna" && second == "weather") {
        session = ++s_sessions;
        return "ok " + std::to_string(session);
    }
    if (verb == "read" && session != 0) {
        return std::to_string(20 + atoi(first.c_str())) + " degrees";
    }
    return verb == "logout" ? "bye" : "no";
}

void serve(int socket)
{
    CLines lines(socket);
    int session = 0;
    std::string line;
    while (lines.read(line) && lines.write(answer(line, session)) && line != "logout") {
    }
}

int listenAt(int port)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    here.sin_port = htons(static_cast<uint16_t>(port));
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(here);
    if (bind(listener, reinterpret_cast<sockaddr*>(&here), size) != 0 ||
        listen(listener, 16) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&here), &size) != 0) {
        std::perror("Server");
        exit(1);
    }
    std::printf("%d\n", ntohs(here.sin_port));
    std::fflush(stdout);
    return listener;
}

} // namespace

int main(int argc, char** argv)
{
    const int listener = listenAt(argc > 1 ? atoi(argv[1]) : 0);
    while (true) {
        const int socket = accept(listener, nullptr, nullptr);
        if (socket != -1) {
            std::thread(serve, socket).detach();
        }
    }
}

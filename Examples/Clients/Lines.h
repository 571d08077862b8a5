#ifndef INFRA_EXAMPLES_CLIENTS_LINES_H
#define INFRA_EXAMPLES_CLIENTS_LINES_H

// A TCP connection that carries lines of text.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

/// Owns a socket, or none. One thread at a time.
class CLines
{
public:
    explicit CLines(int socket = -1) : m_socket(socket) {}
    ~CLines() { close(); }
    CLines(const CLines&) = delete;
    CLines& operator=(const CLines&) = delete;

    bool connectTo(const char* address, uint32_t port)
    {
        close();
        sockaddr_in peer = {};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<uint16_t>(port));
        m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (inet_pton(AF_INET, address, &peer.sin_addr) == 1 &&
            ::connect(m_socket, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) == 0) {
            return true;
        }
        close();
        return false;
    }

    void close()
    {
        if (m_socket != -1) {
            ::close(m_socket);
        }
        m_socket = -1;
        m_rest.clear();
    }

    bool isOpen() const { return m_socket != -1; }

    bool write(const std::string& line)
    {
        const std::string text = line + "\n";
        return ::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }

    /// The next line without its end; false when the other side has gone.
    bool read(std::string& line)
    {
        size_t end = 0;
        while ((end = m_rest.find('\n')) == std::string::npos) {
            char bytes[256];
            const ssize_t count = ::recv(m_socket, bytes, sizeof(bytes), 0);
            if (count <= 0) {
                return false;
            }
            m_rest.append(bytes, static_cast<size_t>(count));
        }
        line = m_rest.substr(0, end);
        m_rest.erase(0, end + 1);
        return true;
    }

private:
    int m_socket;
    std::string m_rest; ///< what has come of lines that were not read yet
};

#endif

// Process.cpp: who is alive, what it is called, what it has mapped; from /proc and pidfds.

#include "Process.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <utility>

#include "Infra3/ProcessLife.h"

namespace fs = std::filesystem;

CDescriptor::~CDescriptor()
{
    if (ok()) {
        close(m_descriptor);
    }
}

CDescriptor& CDescriptor::operator=(CDescriptor&& other) noexcept
{
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
}

int CDescriptor::release()
{
    return std::exchange(m_descriptor, -1);
}

const char* lifeText(Life life)
{
    switch (life) {
    case Life::alive:
        return "alive";
    case Life::dead:
        return "dead";
    default:
        return "unknown";
    }
}

CDescriptor openProcess(pid_t pid)
{
    return CDescriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

Life lifeOf(pid_t pid)
{
    if (pid <= 0) {
        return Life::unknown;
    }
    return Tarsel::Infra::isProcessAlive(pid) ? Life::alive : Life::dead;
}

std::string nameOf(pid_t pid)
{
    std::string name;
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::getline(file, name);
    const auto isControl = [](char c) { return c >= 0 && (c < ' ' || c == 0x7f); };
    std::replace_if(name.begin(), name.end(), isControl, '?'); // a process may choose any name
    return name;
}

pid_t processOfThread(pid_t thread)
{
    std::ifstream file("/proc/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("Tgid:", 0) == 0) {
            return static_cast<pid_t>(std::stol(line.substr(5)));
        }
    }
    return 0;
}

namespace
{

/// A line of /proc/PID/maps names the segment "/SYSV<key>" and has its id as the inode.
bool mapsSegment(const fs::path& process, int id)
{
    std::ifstream file(process / "maps");
    std::string inode(1, ' ');
    inode.append(std::to_string(id)).append(1, ' ');
    for (std::string line; std::getline(file, line);) {
        const size_t name = line.find("/SYSV");
        if (name != std::string::npos && line.find(inode) < name) {
            return true;
        }
    }
    return false;
}

/// Whether the process is in the same namespace of this kind as we are; `unknown` where that may not
/// be read.
bool sharesNamespace(const fs::path& process, const char* kind, bool unknown)
{
    std::error_code error;
    const fs::path own = fs::read_symlink(fs::path("/proc/self/ns") / kind, error);
    const fs::path other = fs::read_symlink(process / "ns" / kind, error);
    return error ? unknown : own == other;
}

} // namespace

std::vector<pid_t> processesWithSegment(int id)
{
    std::vector<pid_t> found;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        pid_t pid = 0;
        const auto [end, result] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (result == std::errc() && end == name.data() + name.size() && pid != getpid() &&
            sharesNamespace(entry.path(), "ipc", false) && mapsSegment(entry.path(), id)) {
            found.push_back(pid);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

bool sharesPidsWithUs(pid_t pid)
{
    return sharesNamespace(fs::path("/proc") / std::to_string(pid), "pid", true);
}

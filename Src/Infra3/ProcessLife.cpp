// ProcessLife.cpp: a descriptor of a process becomes readable when its last thread ends. Where there
// is none to be had, the process's status says it, and where that cannot be read, a signal of
// number 0 says what it can.

#include "Infra3/ProcessLife.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Tarsel
{
namespace Infra
{
namespace
{

/// The beginning of /proc/PID/status. False when it cannot be read.
bool readStatus(pid_t pid, char* text, size_t room)
{
    char path[32];
    snprintf(path, sizeof(path), "/proc/%d/status", static_cast<int>(pid));
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file == -1) {
        return false;
    }
    const ssize_t length = read(file, text, room - 1);
    close(file);
    text[length > 0 ? length : 0] = '\0';
    return length > 0;
}

/// What stands behind "\nName:" and white space; "" when there is no such line.
const char* fieldOf(const char* status, const char* name)
{
    const char* const line = strstr(status, name);
    return line != nullptr ? line + strlen(name) + strspn(line + strlen(name), "\t ") : "";
}

} // namespace

bool Detail::isProcessAliveByStatus(pid_t pid)
{
    if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) {
        return false;
    }
    char status[4096];
    if (!readStatus(pid, status, sizeof(status))) {
        return true; // the signal reached it, and no more can be told
    }
    const char state = *fieldOf(status, "\nState:");
    const bool hasEnded = state == 'Z' || state == 'X'; // its first thread
    return atoi(fieldOf(status, "\nTgid:")) == pid &&
           !(hasEnded && atoi(fieldOf(status, "\nThreads:")) <= 1);
}

bool isProcessAlive(pid_t pid)
{
    if (pid <= 0) {
        return false;
    }
    const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (process == -1) {
        // EINVAL, and ENOENT of newer systems: the number of a thread.
        const bool isNone = errno == ESRCH || errno == EINVAL || errno == ENOENT;
        return !isNone && Detail::isProcessAliveByStatus(pid);
    }
    pollfd state = {process, POLLIN, 0};
    const bool hasEnded = poll(&state, 1, 0) > 0;
    close(process);
    return !hasEnded;
}

} // namespace Infra
} // namespace Tarsel

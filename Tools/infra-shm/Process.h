#ifndef INFRA_TOOLS_SHM_PROCESS_H
#define INFRA_TOOLS_SHM_PROCESS_H

// Processes as the system tells of them.

#include <sys/types.h>

#include <string>
#include <vector>

/// Owns a file descriptor.
class CDescriptor
{
public:
    explicit CDescriptor(int descriptor = -1) : m_descriptor(descriptor) {}
    ~CDescriptor();
    CDescriptor(CDescriptor&& other) noexcept : m_descriptor(other.release()) {}
    CDescriptor& operator=(CDescriptor&& other) noexcept;

    bool ok() const { return m_descriptor >= 0; }
    int get() const { return m_descriptor; }
    int release();

private:
    int m_descriptor;
};

enum class Life
{
    unknown, ///< it cannot be told: the processes of a copy, or of another pid namespace
    alive,
    dead
};

const char* lifeText(Life life);

/// A descriptor that becomes readable when the process dies.
CDescriptor openProcess(pid_t pid);
/// A process is dead when its last thread is, waited for or not.
Life lifeOf(pid_t pid);
/// The command's name; empty when it cannot be told.
std::string nameOf(pid_t pid);
/// The process of a thread; 0 when there is no such thread.
pid_t processOfThread(pid_t thread);
/// The processes of this IPC namespace that have mapped the segment, as far as their maps can be
/// read.
std::vector<pid_t> processesWithSegment(int id);
/// False for a process that is known to have another pid namespace: the ids that it writes down are
/// others than those by which we know processes.
bool sharesPidsWithUs(pid_t pid);

#endif

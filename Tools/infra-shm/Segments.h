#ifndef INFRA_TOOLS_SHM_SEGMENTS_H
#define INFRA_TOOLS_SHM_SEGMENTS_H

// The System V segments of the machine, and which of them are a pool. A segment that does not carry
// the format is mapped read-only to see that, and never more.

#include <sys/ipc.h>
#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "Memory/ShareMem/Layout.h"

struct Segment
{
    key_t key;
    int id;
    unsigned mode;  ///< permissions; nothing else
    bool isRemoved; ///< it has lost its name, and goes with its last mapping
    size_t size;
    pid_t creator; ///< 0: of another pid namespace
    uid_t creatorUser;
    size_t attached; ///< mappings
    uid_t owner;
    time_t changed; ///< when it was made, or its owner or permissions were changed last
};

std::vector<Segment> allSegments();

enum class Access
{
    read,
    readWrite
};

/// A mapping for as long as it lives.
class CAttachment
{
public:
    CAttachment() = default;
    CAttachment(const Segment& segment, Access access);
    ~CAttachment();
    CAttachment(CAttachment&& other) noexcept;
    CAttachment& operator=(CAttachment&& other) noexcept;

    /// False, with errno from when it was made, when there is no mapping.
    bool ok() const { return m_mapping.start != nullptr; }
    const ShareMem::Mapping& mapping() const { return m_mapping; }

private:
    ShareMem::Mapping m_mapping = {};
};

struct Pool
{
    Segment control;
    std::optional<Segment> data;
};

/// Every pool: the one that can be found by name, and those that have lost their name and live on in
/// the processes that use them.
std::vector<Pool> allPools();
/// The pool that a process would find now. Throws CFailure when there is none, or not both halves.
Pool currentPool();
/// Whether a segment of this name is there, of whatever kind.
bool isNameTaken(const char* name);
/// Whether the segment is still there, with its name.
bool isStillCurrent(const Segment& segment);
/// 0x111115ac
std::string keyText(key_t key);

#endif

#ifndef INFRA_TOOLS_SHM_SNAPSHOT_H
#define INFRA_TOOLS_SHM_SNAPSHOT_H

// A copy of a pool's bookkeeping, made in one go while the mutex is held and looked at afterwards:
// the control segment, and of the data segment the pages with small objects. So the pool stands
// still for the time of a memory copy only, and a pool, a pool whose owner died and a saved one are
// all read by the same code, which takes nothing in them on trust.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Mutex.h"
#include "Segments.h"

/// How the copy was made.
enum class Moment : uint32_t
{
    locked,      ///< nobody was inside
    ownerDied,   ///< the last owner died inside: what a repair would start from
    busy,        ///< a living process did not let the mutex go in time
    noPermission ///< the segment can only be read
};

const char* momentText(Moment moment);

/// Owns a mapping of memory or of a file, of this process only.
class CPrivateMapping
{
public:
    CPrivateMapping() = default;
    /// Anonymous memory for descriptor -1; pages that nobody touches cost nothing.
    CPrivateMapping(size_t size, int descriptor);
    ~CPrivateMapping();
    CPrivateMapping(CPrivateMapping&& other) noexcept;
    CPrivateMapping& operator=(CPrivateMapping&& other) noexcept;

    uint8_t* start() const { return m_start; }
    size_t size() const { return m_size; }

private:
    uint8_t* m_start = nullptr;
    size_t m_size = 0;
};

class CSnapshot
{
public:
    /// Of the pool that there is, waiting at most so long for the mutex.
    static CSnapshot take(const Pool& pool, std::chrono::milliseconds wait);
    /// The same of segments that are attached, the control segment for writing if `canLock`.
    static CSnapshot take(const ShareMem::Mapping& control, const ShareMem::Mapping& data,
                          bool canLock, std::chrono::milliseconds wait);
    /// Copies mapped segments; the mutex is held.
    static CSnapshot copy(const ShareMem::Mapping& control, const ShareMem::Mapping& data);
    static CSnapshot load(const std::string& path);

    /// Writes a file for load(). The contents of blocks are added as they are by then.
    void save(const std::string& path, const Pool& pool) const;

    Moment moment() const { return m_moment; }
    /// Process mutex 0 as it was before it was taken.
    const MutexState& mutex() const { return m_mutex; }
    bool isFromFile() const { return m_isFromFile; }
    size_t controlSize() const { return m_control.size; }
    size_t dataSize() const { return m_data.size; }

    /// The zones are there and initialised.
    bool isInitialised() const { return m_isInitialised; }
    /// The page zone describes pages and descriptors that are inside the segments.
    bool isSound() const { return m_isSound; }
    const ShareMem::Layout& layout() const { return m_layout; }

    /// What is not as it has to be, a line each, as far as a reader can want to know; empty when all
    /// is. The zones and pages are sound.
    std::vector<std::string> faults() const;

private:
    CSnapshot() = default;
    CSnapshot(const ShareMem::Mapping& control, const ShareMem::Mapping& data);

    void copyNow(const ShareMem::Mapping& control, const ShareMem::Mapping& data);
    void readZones();

    CPrivateMapping m_memory;
    ShareMem::Mapping m_control = {};
    ShareMem::Mapping m_data = {};
    ShareMem::Layout m_layout = {};
    MutexState m_mutex = {};
    Moment m_moment = Moment::locked;
    bool m_isFromFile = false;
    bool m_isInitialised = false;
    bool m_isSound = false;
};

#endif

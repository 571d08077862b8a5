#ifndef INFRA_SRC_MEMORY_SHAREMEM_LAYOUT_H
#define INFRA_SRC_MEMORY_SHAREMEM_LAYOUT_H

// Where everything lies in the two segments of a pool, as one process has mapped them.

#include <cstddef>
#include <cstdint>

#include "Memory/ShareMem/MemRefer.h"

namespace ShareMem
{

/// One mapping of a segment.
struct Mapping
{
    uint8_t* start;
    size_t size; ///< bytes
};

struct Layout
{
    ZoneHead* syncZone;
    ZoneHead* referZone;
    ZoneHead* smallMemZone;
    ZoneHead* buddyZone;
    BuddyInfo* info;
    uint8_t* data;

    List* nodes() const { return &reinterpret_cast<ReferZone*>(referZone->zoneData)->listHead; }
    List* smallPages() const
    {
        return &reinterpret_cast<SmallMemZone*>(smallMemZone->zoneData)->smallListHead;
    }
    ProcessMutexInternal* mutexes() const
    {
        return reinterpret_cast<ProcessMutexInternal*>(syncZone->zoneData);
    }
    bool isInitialised() const
    {
        return syncZone->initFlag == zoneReady && referZone->initFlag == zoneReady &&
               smallMemZone->initFlag == zoneReady && buddyZone->initFlag == zoneReady;
    }
};

/// Bytes of a control segment for pages of this kind.
size_t controlSizeFor(const BuddyConfig& config);

/// Finds the zones; nothing outside the mapping is read. False when the chain of zones is not that
/// of a pool.
bool findZones(const Mapping& control, const Mapping& data, Layout* layout);
/// Whether the page zone describes pages and descriptors that lie inside the segments.
bool arePagesSound(const Mapping& control, const Mapping& data, const Layout& layout);

} // namespace ShareMem

#endif

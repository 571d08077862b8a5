// Layout.cpp: from two mappings to zones. A control segment may be half written, of another version
// or of somebody else, so every length is held against what it can be before it is followed.

#include "Memory/ShareMem/Layout.h"

#include "Infra3/Arithmetic.h"

namespace ShareMem
{
namespace
{

size_t zoneLength(size_t contents)
{
    return contents + sizeof(ZoneHead);
}

size_t lengthBeforePages()
{
    return zoneLength(getSyncZoneSize()) + zoneLength(getReferZoneSize()) +
           zoneLength(getSmallMemZoneSize());
}

} // namespace

size_t controlSizeFor(const BuddyConfig& config)
{
    return lengthBeforePages() + zoneLength(getBuddyZoneSize(config));
}

bool findZones(const Mapping& control, const Mapping& data, Layout* layout)
{
    if (control.size < lengthBeforePages() + zoneLength(sizeof(BuddyInfo))) {
        return false;
    }
    ZoneHead* const sync = reinterpret_cast<ZoneHead*>(control.start);
    if (sync->zoneLen != zoneLength(getSyncZoneSize())) {
        return false;
    }
    ZoneHead* const refer = nextZone(sync);
    if (refer->zoneLen != zoneLength(getReferZoneSize())) {
        return false;
    }
    ZoneHead* const small = nextZone(refer);
    if (small->zoneLen != zoneLength(getSmallMemZoneSize())) {
        return false;
    }
    ZoneHead* const pages = nextZone(small);
    if (pages->zoneLen < zoneLength(sizeof(BuddyInfo)) ||
        pages->zoneLen > control.size - lengthBeforePages()) {
        return false;
    }
    *layout = {sync,      refer, small, pages, reinterpret_cast<BuddyInfo*>(pages->zoneData),
               data.start};
    return true;
}

bool arePagesSound(const Mapping& control, const Mapping& data, const Layout& layout)
{
    const BuddyInfo& info = *layout.info;
    const BuddyConfig& config = info.config;
    if (layout.buddyZone->zoneLen > control.size - lengthBeforePages() ||
        !Tarsel::Infra::isPowerOfTwo(config.pageSize) || config.dataSize < config.pageSize) {
        return false;
    }
    const uint32_t pageNum = config.dataSize / config.pageSize;
    return config.orderNum >= 1 && config.orderNum <= shareMem_log2i(pageNum) + 1 &&
           info.pageNum == pageNum && info.pageShift == shareMem_log2i(config.pageSize) &&
           info.OrderNodeHead == sizeof(BuddyInfo) &&
           info.PageDesHead == sizeof(BuddyInfo) + sizeof(OrderNode) * config.orderNum &&
           layout.buddyZone->zoneLen == zoneLength(getBuddyZoneSize(config)) &&
           size_t{pageNum} * config.pageSize <= data.size;
}

} // namespace ShareMem

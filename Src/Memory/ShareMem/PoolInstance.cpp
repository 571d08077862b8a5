// PoolInstance.cpp: making a pool, attaching to it, and the one pool object of a process.
//
// What the segments hold may be half written or of somebody else, so it is looked at before it is
// used. Zones 1 to 3 are initialised under process mutex 0, so that of processes that come at the
// same time one does it; zone 0 has its own way (ProcessMutex.cpp). A process that makes a pool
// writes the zones' lengths last of all: until then nobody can attach.

#include "Memory/ShareMem/PoolInstance.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "Infra/Infra3/Guard.h"
#include "Infra3/Arithmetic.h"
#include "Infra3/AssertFront.h"
#include "Infra3/Fork.h"
#include "Infra3/Immortal.h"
#include "Infra3/LogFront.h"
#include "Memory/ShareMem/MemoryBlockAccess.h"
#include "Memory/ShareMem/Publish.h"
#include "Memory/ShareMem/Repair.h"
#include "Memory/ShareMem/Report.h"
#include "Memory/ShareMem/ShareMemory.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

using Infra::CGuard;
using Infra::CLogHold;
using ShareMem::Layout;
using ShareMem::Mapping;

constexpr size_t smallestPage = smallBlockSize;

// Process-wide state -------------------------------------------------------------------------------

constinit std::atomic<IMemPool*> sg_shareMemory_instance{nullptr};
constinit int sg_shareMemory_ref = 0; // successful creations not yet destroyed

struct ShareMemoryMutex;

/// Guards making and ending the pool object.
Infra::CMutex& sg_shareMemory_mutex()
{
    return Infra::immortal<Infra::CMutex, ShareMemoryMutex>();
}

/// A segment of this process. A mapping stays for good: blocks in it may be used after the pool
/// object went, and what is mapped once need not be mapped again.
struct Segment
{
    const char* key;
    int id = -1;
    Mapping mapping = {};
};

/// What the process has attached to, and room for the repair of it.
struct Attached
{
    Segment control = {controlSegment};
    Segment data = {dataSegment};
    Layout layout = {};
    BuddyInfo known = {}; ///< as it was found; it never changes. Without pages: not found yet
    ShareMem::CScratch scratch;
};

Attached& attached()
{
    return Infra::immortal<Attached, Attached>();
}

/// Whether the page zone is still what it was when it was found. One that was not there then, because
/// this process came before it was initialised, has to make sense by itself.
bool canRepair(const Attached& pool)
{
    return pool.known.pageNum != 0
               ? memcmp(pool.layout.info, &pool.known, sizeof(pool.known)) == 0
               : ShareMem::arePagesSound(pool.control.mapping, pool.data.mapping, pool.layout) &&
                     pool.layout.info->pageNum <= pool.scratch.pages();
}

/// Runs with process mutex 0 held, after its owner died.
void repairAttached()
{
    Attached& pool = attached();
    if (pool.layout.info == nullptr || !pool.layout.isInitialised()) {
        return; // its first users initialise it
    }
    if (!canRepair(pool)) {
        ShareMem::report("[%s:%d]the pool is damaged and cannot be repaired.\n", __func__,
                         __LINE__);
        return;
    }
    ShareMem::repairPool(pool.layout, pool.scratch);
}

// Segments ---------------------------------------------------------------------------------------

int idOf(const char* key)
{
    return shmget(strToKey(key), 0, 0);
}

/// What the system says of the segment; all 0 where it knows none.
shmid_ds stateOf(int id)
{
    shmid_ds state = {};
    if (id == -1 || shmctl(id, IPC_STAT, &state) != 0) {
        state = {};
    }
    return state;
}

uint8_t* mapSegment(const char* key, size_t size, int mode)
{
    return static_cast<uint8_t*>(gloShareMemOperation.shareMemGet(key, size, mode, 0));
}

void unmapSegment(const char* key, uint8_t* mapping)
{
    if (mapping != nullptr) {
        gloShareMemOperation.shareMemRemove(key, mapping, detachMapping);
    }
}

/// Maps the existing segment; the mapping that there is, if it is the same. Null start on failure.
Segment attachSegment(const Segment& before)
{
    Segment now = {before.key};
    now.mapping.start = mapSegment(before.key, 0, 0);
    if (now.mapping.start == nullptr) {
        return now;
    }
    now.id = idOf(before.key);
    if (now.id != -1 && now.id == before.id) {
        unmapSegment(before.key, now.mapping.start);
        return before;
    }
    // Segments that a replaced primitive gives are not known to the system, and taken on trust.
    now.mapping.size = now.id != -1 ? stateOf(now.id).shm_segsz : SIZE_MAX;
    return now;
}

void detachSegment(const Segment& now, const Segment& before)
{
    if (now.mapping.start != before.mapping.start) {
        unmapSegment(now.key, now.mapping.start);
    }
}

// Attaching --------------------------------------------------------------------------------------

BuddyConfig configOf(const IMemPool::PoolParam& param)
{
    const size_t pageSize =
        param.debugFlag != 0 ? static_cast<size_t>(getShareMemPageSize()) : param.chunkSize;
    return {static_cast<uint32_t>(param.poolSize), static_cast<uint32_t>(pageSize),
            static_cast<uint32_t>(param.orderNum)};
}

/// Whether the page zone can be opened: one that is there has to be sound, one that is not has to
/// get just the room that there is.
bool canOpenPages(const Attached& pool, const BuddyConfig& config)
{
    if (pool.layout.buddyZone->initFlag == zoneReady) {
        return ShareMem::arePagesSound(pool.control.mapping, pool.data.mapping, pool.layout);
    }
    return Infra::isPowerOfTwo(config.pageSize) && config.dataSize >= config.pageSize &&
           config.dataSize <= pool.data.mapping.size &&
           getBuddyZoneSize(config) + sizeof(ZoneHead) == pool.layout.buddyZone->zoneLen;
}

/// The handles of the layers, made from below and ended from above.
struct Handles
{
    Buddy* buddy = nullptr;
    SmallMem* smallMem = nullptr;
    MemRefer* memRefer = nullptr;

    void destroy()
    {
        if (memRefer != nullptr) {
            memRefer->destroy(memRefer);
        }
        if (smallMem != nullptr) {
            smallMem->destroy(smallMem);
        }
        if (buddy != nullptr) {
            buddy->destroy(buddy);
        }
    }
};

/// Null, or what went wrong.
const char* openLayers(Attached& pool, const BuddyConfig& config, Handles* handles)
{
    const Layout& layout = pool.layout;
    CProcessMutex mutex;
    CProcessGuard guard(mutex);
    if (!guard.ok()) {
        return "initProcessMutex failed.\n";
    }
    if (!canOpenPages(pool, config) ||
        createBuddy(config, layout.buddyZone, layout.data, &handles->buddy) != 0 ||
        !ShareMem::arePagesSound(pool.control.mapping, pool.data.mapping, layout)) {
        return "createBuddy failed.\n";
    }
    pool.known = *layout.info;
    if (createSmallMem(layout.smallMemZone, handles->buddy, &handles->smallMem) != 0) {
        return "createSmallMem failed.\n";
    }
    if (createMemRefer(layout.referZone, handles->smallMem, handles->buddy, &handles->memRefer) !=
        0) {
        return "createMemRefer failed.\n";
    }
    return nullptr;
}

/// Pages that a page zone of this length can describe at most.
uint32_t pagesMost(const ZoneHead& zone)
{
    return static_cast<uint32_t>((zone.zoneLen - sizeof(ZoneHead) - sizeof(BuddyInfo)) /
                                 sizeof(PageDes));
}

/// Room for a repair is there before the lock is taken for the first time: that may be the moment,
/// and the pages may be initialised only while this process waits for it.
const char* openPool(Attached& pool, const BuddyConfig& config, Handles* handles)
{
    if (!ShareMem::findZones(pool.control.mapping, pool.data.mapping, &pool.layout) ||
        initProcessMutex(pool.layout.syncZone) != 0) {
        return "initProcessMutex failed.\n";
    }
    if (!pool.scratch.reserve(pagesMost(*pool.layout.buddyZone))) {
        return "createBuddy failed.\n";
    }
    pool.known = {};
    if (ShareMem::arePagesSound(pool.control.mapping, pool.data.mapping, pool.layout)) {
        pool.known = *pool.layout.info;
    }
    setProcessMutexRepair(repairAttached);
    return openLayers(pool, config, handles);
}

CShareMemory* makePool(const Handles& handles, size_t debugFlag)
{
    if (debugFlag != 0) {
        return new (std::nothrow) CShareMemoryDebug(handles.buddy, handles.memRefer,
                                                    handles.smallMem, static_cast<int>(debugFlag));
    }
    return new (std::nothrow) CShareMemory(handles.buddy, handles.memRefer, handles.smallMem);
}

/// The pool object over the segments that exist; null, logged, on failure. The pool's lock is held.
CShareMemory* attachPool(const IMemPool::PoolParam& param)
{
    Attached& pool = attached();
    const Segment controlBefore = pool.control;
    const Segment dataBefore = pool.data;
    pool.control = attachSegment(controlBefore);
    pool.data = attachSegment(dataBefore);

    const char* failure = "shareMemGet failed.\n";
    Handles handles;
    if (pool.control.mapping.start != nullptr && pool.data.mapping.start != nullptr) {
        failure = openPool(pool, configOf(param), &handles);
    }
    CShareMemory* const made = failure == nullptr ? makePool(handles, param.debugFlag) : nullptr;
    if (made != nullptr) {
        return made;
    }
    INFRA_LOG_ERROR("%s", failure != nullptr ? failure : "new ShareMemory failed.\n");
    handles.destroy();
    pool.layout = {};
    detachSegment(pool.control, controlBefore);
    detachSegment(pool.data, dataBefore);
    pool.control = controlBefore;
    pool.data = dataBefore;
    return nullptr;
}

// Making -----------------------------------------------------------------------------------------

bool fits32(size_t value)
{
    return value <= UINT32_MAX;
}

/// Refuses what the format cannot hold, before anything is touched. What no page allocator can be
/// made of ends the process.
bool isPossible(const IMemPool::PoolParam& param)
{
    if (!fits32(param.poolSize) || !fits32(param.chunkSize) || !fits32(param.orderNum)) {
        INFRA_LOG_ERROR("pool too large, size:%zu chunk:%zu orders:%zu.\n", param.poolSize,
                        param.chunkSize, param.orderNum);
        return false;
    }
    const BuddyConfig config = configOf(param);
    INFRA_ASSERT_TEXT(config.pageSize > 0 && config.dataSize > 0,
                      "config.pageSize > 0 && config.dataSize > 0");
    INFRA_ASSERT_TEXT(config.dataSize >= config.pageSize, "config.dataSize >= config.pageSize");
    INFRA_ASSERT_TEXT(Infra::isPowerOfTwo(config.pageSize), "config.pageSize == (1 << shift)");
    if (config.pageSize < smallestPage) {
        INFRA_LOG_ERROR("pages too small for bookkeeping, chunk:%u.\n", config.pageSize);
        return false;
    }
    if (!fits32(getBuddyZoneSize(config) + sizeof(ZoneHead))) {
        INFRA_LOG_ERROR("too many pages, size:%u chunk:%u.\n", config.dataSize, config.pageSize);
        return false;
    }
    return true;
}

/// A segment of this process's making.
struct NewSegment
{
    uint8_t* start = nullptr;
    size_t size = 0;      ///< bytes; one that was there may be larger than asked for
    bool isFresh = false; ///< all 0, because it was not there before
};

NewSegment createSegment(const char* key, size_t size)
{
    NewSegment made;
    const bool wasMissing = idOf(key) == -1;
    made.start = mapSegment(key, size, IPC_CREAT);
    const shmid_ds state = stateOf(idOf(key));
    made.size = state.shm_segsz != 0 ? state.shm_segsz : size;
    made.isFresh = wasMissing && state.shm_cpid == getpid();
    return made;
}

/// Others than the mapping just made.
bool hasOtherUsers(const char* key)
{
    return stateOf(idOf(key)).shm_nattch > 1;
}

void dropSegments(const NewSegment& control, const NewSegment& data)
{
    unmapSegment(controlSegment, control.start);
    unmapSegment(dataSegment, data.start);
    gloShareMemOperation.shareMemRemove(controlSegment, nullptr, removeSegment);
    gloShareMemOperation.shareMemRemove(dataSegment, nullptr, removeSegment);
}

/// Processes that still use the pool there is keep it: it loses its name, and the new one gets it.
bool createSegments(size_t controlSize, size_t dataSize, NewSegment* control, NewSegment* data)
{
    *control = createSegment(controlSegment, controlSize);
    *data = createSegment(dataSegment, dataSize);
    if (control->start != nullptr && data->start != nullptr &&
        (hasOtherUsers(controlSegment) || hasOtherUsers(dataSegment))) {
        dropSegments(*control, *data);
        *control = createSegment(controlSegment, controlSize);
        *data = createSegment(dataSegment, dataSize);
    }
    if (control->start != nullptr && data->start != nullptr) {
        return true;
    }
    INFRA_LOG_ERROR("shareMemGet failed.\n");
    unmapSegment(controlSegment, control->start);
    unmapSegment(dataSegment, data->start);
    for (const auto& [key, segment] : {std::pair(controlSegment, control), {dataSegment, data}}) {
        if (segment->start != nullptr && segment->isFresh) {
            gloShareMemOperation.shareMemRemove(key, nullptr, removeSegment);
        }
    }
    return false;
}

void clearSegment(const NewSegment& segment)
{
    if (!segment.isFresh) {
        memset(segment.start, 0, segment.size);
    }
}

/// While the first zone has no length, nobody takes the segments for a pool.
void layOutPool(const NewSegment& control, const NewSegment& data, size_t buddyZoneSize)
{
    publish(reinterpret_cast<ZoneHead*>(control.start)->zoneLen, 0);
    clearSegment(data);
    clearSegment(control);
    const size_t lengths[] = {getSyncZoneSize(), getReferZoneSize(), getSmallMemZoneSize(),
                              buddyZoneSize};
    uint8_t* places[std::size(lengths)] = {control.start};
    for (size_t i = 1; i < std::size(lengths); ++i) {
        places[i] = places[i - 1] + lengths[i - 1] + sizeof(ZoneHead);
    }
    for (size_t i = std::size(lengths); i-- > 0;) {
        publish(reinterpret_cast<ZoneHead*>(places[i])->zoneLen,
                static_cast<uint32_t>(lengths[i] + sizeof(ZoneHead)));
    }
}

// fork -------------------------------------------------------------------------------------------

void prepareFork()
{
    sg_shareMemory_mutex().enter();
}

void resumeParent()
{
    sg_shareMemory_mutex().leave();
}

void resumeChild()
{
    Infra::ForkAccess::renewTaken(sg_shareMemory_mutex());
}

/// Joined while the library is loaded, so that no fork can miss a pool.
[[maybe_unused]] const bool s_joinedFork = [] {
    static constexpr Infra::ForkPart forkPart = {prepareFork, resumeParent, resumeChild};
    joinFork(Infra::ForkRank::sharePool, forkPart);
    return true;
}();

} // namespace

// The one pool -----------------------------------------------------------------------------------

IMemPool* PoolInstance::current()
{
    return sg_shareMemory_instance.load(std::memory_order_acquire);
}

bool PoolInstance::detach(IMemPool* pool)
{
    CGuard guard(sg_shareMemory_mutex());
    if (sg_shareMemory_ref == 0 || current() != pool || --sg_shareMemory_ref > 0) {
        return false;
    }
    sg_shareMemory_instance.store(nullptr, std::memory_order_release);
    MemoryBlockAccess::forgetPool(pool);
    return true;
}

bool IMemPool::initMemPool(const PoolParam& param)
{
    if (param.poolType != PT_ShareMemory) {
        INFRA_LOG_ERROR("pool type error.\n");
        return false;
    }
    if (PoolInstance::current() != nullptr) {
        INFRA_LOG_ERROR("this process has a pool already.\n");
        return false;
    }
    if (!isPossible(param)) {
        return false;
    }
    const size_t buddyZoneSize = getBuddyZoneSize(configOf(param));
    const size_t controlSize = ShareMem::controlSizeFor(configOf(param));
    NewSegment control;
    NewSegment data;
    if (!createSegments(controlSize, param.poolSize, &control, &data)) {
        return false;
    }
    layOutPool(control, data, buddyZoneSize);

    CShareMemory* const pool = static_cast<CShareMemory*>(loadMemPool(param));
    if (pool == nullptr || !pool->startTimer()) {
        INFRA_LOG_ERROR("loadMemPool failed.\n");
        if (pool != nullptr) {
            pool->destroy();
        }
        deinitMemPool();
        return false;
    }
    return true;
}

IMemPool* IMemPool::loadMemPool(const PoolParam& param)
{
    if (param.poolType != PT_ShareMemory) {
        INFRA_LOG_ERROR("Param invalid.\n");
        return nullptr;
    }
    const CLogHold hold;
    CGuard guard(sg_shareMemory_mutex());
    if (PoolInstance::current() == nullptr) {
        CShareMemory* const pool = attachPool(param);
        sg_shareMemory_ref += pool != nullptr ? 1 : 0;
        sg_shareMemory_instance.store(pool, std::memory_order_release);
    }
    return PoolInstance::current();
}

bool IMemPool::deinitMemPool()
{
    const int control = gloShareMemOperation.shareMemRemove(controlSegment, nullptr, removeSegment);
    const int data = gloShareMemOperation.shareMemRemove(dataSegment, nullptr, removeSegment);
    return control == 0 && data == 0;
}

namespace
{

CShareMemory& poolInUse()
{
    IMemPool* const pool = PoolInstance::current();
    INFRA_ASSERT_TEXT(pool != nullptr, "sg_shareMemory_instance != NULL");
    return *static_cast<CShareMemory*>(pool);
}

} // namespace

bool IMemPool::getMemSize(uint32_t& size)
{
    return poolInUse().getMemSize(size);
}

bool IMemPool::getMemFreeSize(uint32_t& size)
{
    return poolInUse().getMemFreeSize(size);
}

void IMemPool::dumpInfo()
{
    poolInUse().dumpInfo();
}

} // namespace Memory
} // namespace Tarsel

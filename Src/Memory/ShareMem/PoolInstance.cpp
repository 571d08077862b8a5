// PoolInstance.cpp: making a pool, attaching to it, and the one pool object of a process.
//
// What the segments hold may be half written or of somebody else, so it is looked at before it is
// used. Zones 1 to 3 are initialised under process mutex 0, so that of processes that come at the
// same time one does it; zone 0 has its own way (ProcessMutex.cpp).
//
// Making:     a process that makes a pool claims zone 0 of the control segment first, so that of two
//             that do so one after the other makes one. It writes the zones' lengths last of all:
//             until then nobody can attach.
// Attaching:  both segments are found by name, and a name may move to another segment at any moment.
//             So what a mapping is of is known only if the name led to the same segment before and
//             after, and that the two belong together only when the layout could be read in between.

#include "Memory/ShareMem/PoolInstance.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
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

/// Pool objects that are not in use. sg_shareMemory_mutex guards them.
struct ParkedPools
{
    static void put(CShareMemory* pool)
    {
        pool->m_nextParked = s_first;
        s_first = pool;
    }
    /// One over the pages at `data` with these guard pages, or null.
    static CShareMemory* take(const uint8_t* data, size_t debugFlag)
    {
        for (CShareMemory** at = &s_first; *at != nullptr; at = &(*at)->m_nextParked) {
            CShareMemory* const pool = *at;
            if (pool->dataBase() == data && pool->boundary() == static_cast<int>(debugFlag)) {
                *at = pool->m_nextParked;
                return pool;
            }
        }
        return nullptr;
    }

private:
    static constinit inline CShareMemory* s_first = nullptr;
};

namespace
{

using Infra::CGuard;
using Infra::CLogHold;
using ShareMem::Layout;
using ShareMem::Mapping;

constexpr size_t smallestPage = smallBlockSize;
constexpr int attachAttempts = 1000;             // while pools are made at the same time
constexpr int makerPatience = 10000;             // looks at a pool that another process makes
constexpr timespec pollPause = {0, 1000 * 1000}; // between them: 1 ms

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

/// Maps the segment that the name led to just now; the mapping that there is, if it is the same. Null
/// start on failure.
Segment attachSegment(const Segment& before)
{
    Segment now = {before.key};
    now.id = idOf(before.key);
    if (now.id != -1 && now.id == before.id) {
        return before;
    }
    now.mapping.start = mapSegment(before.key, 0, 0);
    // Segments that a replaced primitive gives are not known to the system, and taken on trust.
    now.mapping.size = now.id != -1 ? stateOf(now.id).shm_segsz : SIZE_MAX;
    return now;
}

bool isStillNamed(const Segment& segment)
{
    return idOf(segment.key) == segment.id;
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

/// Reads where the zones are. They are the zones of a pool only if both names still lead to what was
/// mapped.
bool findPool(Attached& pool)
{
    return ShareMem::findZones(pool.control.mapping, pool.data.mapping, &pool.layout) &&
           isStillNamed(pool.control) && isStillNamed(pool.data);
}

/// Whoever waited for another process in initProcessMutex() may find a different pool afterwards.
bool openMutexes(Attached& pool)
{
    return findPool(pool) && initProcessMutex(pool.layout.syncZone) == 0 && findPool(pool);
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
    if (!openMutexes(pool)) {
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

CShareMemory* newPool(const Handles& handles, size_t debugFlag)
{
    if (debugFlag != 0) {
        return new (std::nothrow) CShareMemoryDebug(handles.buddy, handles.memRefer,
                                                    handles.smallMem, static_cast<int>(debugFlag));
    }
    return new (std::nothrow) CShareMemory(handles.buddy, handles.memRefer, handles.smallMem);
}

/// A parked object over the same pages, or a new one, which has the handles then. Null without memory.
CShareMemory* makePool(Handles& handles, size_t debugFlag)
{
    CShareMemory* const parked = ParkedPools::take(handles.buddy->priv->data, debugFlag);
    if (parked != nullptr) {
        handles.destroy();
        return parked;
    }
    CShareMemory* const made = newPool(handles, debugFlag);
    if (made == nullptr) {
        handles.destroy();
    }
    return made;
}

/// Back to what was attached before; the mutexes' handles too.
void detachPool(Attached& pool, const Segment& controlBefore, const Segment& dataBefore)
{
    pool.layout = {};
    detachSegment(pool.control, controlBefore);
    detachSegment(pool.data, dataBefore);
    pool.control = controlBefore;
    pool.data = dataBefore;
    if (pool.control.mapping.start == nullptr ||
        !ShareMem::findZones(pool.control.mapping, pool.data.mapping, &pool.layout)) {
        return;
    }
    ZoneHead* const zone = pool.layout.syncZone;
    if (zone != nullptr && zone->initFlag == zoneReady) {
        initProcessMutex(zone);
    }
}

/// One attempt; null is success, else what went wrong.
const char* tryAttach(Attached& pool, const BuddyConfig& config, Handles* handles)
{
    pool.control = attachSegment(pool.control);
    pool.data = attachSegment(pool.data);
    return pool.control.mapping.start != nullptr && pool.data.mapping.start != nullptr
               ? openPool(pool, config, handles)
               : "shareMemGet failed.\n";
}

/// The pool object over the segments that exist; null, logged, on failure. The pool's lock is held.
CShareMemory* attachPool(const IMemPool::PoolParam& param)
{
    Attached& pool = attached();
    const Segment controlBefore = pool.control;
    const Segment dataBefore = pool.data;
    for (int attempt = 0;; ++attempt) {
        Handles handles;
        const char* const failure = tryAttach(pool, configOf(param), &handles);
        CShareMemory* const made =
            failure == nullptr ? makePool(handles, param.debugFlag) : nullptr;
        if (made != nullptr) {
            return made;
        }
        const bool hasMoved = !isStillNamed(pool.control) || !isStillNamed(pool.data);
        detachPool(pool, controlBefore, dataBefore);
        if (!hasMoved || attempt == attachAttempts) {
            INFRA_LOG_ERROR("%s", failure != nullptr ? failure : "new ShareMemory failed.\n");
            return nullptr;
        }
    }
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
    INFRA_SYSTEM_ASSERT_TEXT(config.pageSize > 0 && config.dataSize > 0,
                             "config.pageSize > 0 && config.dataSize > 0");
    INFRA_SYSTEM_ASSERT_TEXT(config.dataSize >= config.pageSize,
                             "config.dataSize >= config.pageSize");
    INFRA_SYSTEM_ASSERT_TEXT(Infra::isPowerOfTwo(config.pageSize),
                             "config.pageSize == (1 << shift)");
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

/// A segment that this process makes a pool of.
struct NewSegment
{
    const char* key;
    int id = -1;
    uint8_t* start = nullptr;
    size_t size = 0;      ///< bytes; one that was there may be larger than asked for
    bool isFresh = false; ///< all 0, because it was not there before
};

/// Others than the mapping just made.
bool hasOtherUsers(const NewSegment& segment)
{
    return stateOf(segment.id).shm_nattch > 1;
}

/// Maps the segment of that name, which is made where it is missing or too small. Null start on
/// failure.
NewSegment createSegment(const char* key, size_t size)
{
    for (;;) {
        const int before = idOf(key);
        NewSegment made = {key};
        made.start = mapSegment(key, size, IPC_CREAT);
        made.id = idOf(key);
        const shmid_ds state = stateOf(made.id);
        made.isFresh = made.id != before && state.shm_cpid == getpid();
        made.size = state.shm_segsz != 0 ? state.shm_segsz : size;
        if (made.start == nullptr || made.id == before || made.isFresh) {
            return made;
        }
        unmapSegment(key, made.start); // the name has moved, and so it may be another
    }
}

/// Takes the name from a segment; who has mapped it keeps it. By its id: another process may have
/// given the name to a segment of its own meanwhile.
void unname(const char* key, int id)
{
    if (id == -1 || gloShareMemOperation.shareMemRemove != shareMemRemove) {
        gloShareMemOperation.shareMemRemove(key, nullptr, removeSegment);
    } else {
        shmctl(id, IPC_RMID, nullptr);
    }
}

void drop(const NewSegment& segment, bool withName)
{
    unmapSegment(segment.key, segment.start);
    if (segment.start != nullptr && withName) {
        unname(segment.key, segment.id);
    }
}

enum class Claim
{
    taken,
    inUse,    ///< processes use the pool in it
    elsewhere ///< another process makes a pool in it
};

/// Makes the zone this process's, so that nobody else makes a pool there and nobody who attaches goes
/// on before this one is ready. Only where no process is inside, which is looked at once more
/// afterwards: who maps the segment later finds the claim.
Claim claimControl(const NewSegment& control)
{
    ZoneHead* const zone = reinterpret_cast<ZoneHead*>(control.start);
    uint32_t flag = __atomic_load_n(&zone->initFlag, __ATOMIC_ACQUIRE);
    const bool isPool = flag == zoneReady;
    if (isClaimedByOther(flag)) {
        return Claim::elsewhere;
    }
    if (isPool && hasOtherUsers(control)) {
        return Claim::inUse;
    }
    if (!__atomic_compare_exchange_n(&zone->initFlag, &flag, ownZoneClaim(), false,
                                     __ATOMIC_SEQ_CST, __ATOMIC_RELAXED)) {
        return Claim::elsewhere;
    }
    if (isPool && hasOtherUsers(control)) {
        publish(zone->initFlag, zoneReady);
        return Claim::inUse;
    }
    return Claim::taken;
}

/// The control segment, claimed; null start, logged, on failure. Processes that still use the pool
/// there is keep it: it loses its names, and the new one gets them.
NewSegment claimedControl(size_t size)
{
    for (int wait = 0; wait < makerPatience; ++wait) {
        NewSegment control = createSegment(controlSegment, size);
        if (control.start == nullptr) {
            INFRA_LOG_ERROR("shareMemGet failed.\n");
            return control;
        }
        const int data = idOf(dataSegment);
        switch (claimControl(control)) {
        case Claim::taken:
            return control;
        case Claim::inUse:
            drop(control, true);
            if (data != -1) {
                unname(dataSegment, data);
            }
            break;
        case Claim::elsewhere:
            drop(control, false);
            nanosleep(&pollPause, nullptr);
            break;
        }
    }
    INFRA_LOG_ERROR("another process is making a pool.\n");
    return {controlSegment};
}

/// A data segment that nobody uses; null start, logged, on failure.
NewSegment unusedData(size_t size)
{
    NewSegment data = createSegment(dataSegment, size);
    while (data.start != nullptr && hasOtherUsers(data)) {
        drop(data, true);
        data = createSegment(dataSegment, size);
    }
    if (data.start == nullptr) {
        INFRA_LOG_ERROR("shareMemGet failed.\n");
    }
    return data;
}

/// While the first zone has no length, nobody takes the segments for a pool. Its flag stays: it is
/// the claim.
void layOutPool(const NewSegment& control, const NewSegment& data, size_t buddyZoneSize)
{
    ZoneHead* const first = reinterpret_cast<ZoneHead*>(control.start);
    publish(first->zoneLen, 0);
    if (!data.isFresh) {
        memset(data.start, 0, data.size);
    }
    if (!control.isFresh) {
        memset(first->zoneData, 0, control.size - sizeof(ZoneHead));
    }
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

/// Gives up what was made. Who waits for it goes on, and finds no pool or its own.
void abandon(const NewSegment& control, const NewSegment& data, bool withNames)
{
    ZoneHead* const zone = reinterpret_cast<ZoneHead*>(control.start);
    if (zone->initFlag == ownZoneClaim()) {
        publish(zone->initFlag, 0);
    }
    drop(control, withNames || control.isFresh);
    drop(data, withNames || data.isFresh);
}

CShareMemory* loadLocked(const IMemPool::PoolParam& param)
{
    if (PoolInstance::current() == nullptr) {
        CShareMemory* const pool = attachPool(param);
        sg_shareMemory_ref += pool != nullptr ? 1 : 0;
        sg_shareMemory_instance.store(pool, std::memory_order_release);
    }
    return static_cast<CShareMemory*>(PoolInstance::current());
}

/// The caller has no pool, and the pool's lock.
bool makeLocked(const IMemPool::PoolParam& param, CShareMemory** made)
{
    const size_t buddyZoneSize = getBuddyZoneSize(configOf(param));
    const NewSegment control = claimedControl(ShareMem::controlSizeFor(configOf(param)));
    if (control.start == nullptr) {
        return false;
    }
    const NewSegment data = unusedData(param.poolSize);
    if (data.start == nullptr) {
        abandon(control, data, false);
        return false;
    }
    layOutPool(control, data, buddyZoneSize);
    *made = loadLocked(param);
    if (*made == nullptr) {
        INFRA_LOG_ERROR("loadMemPool failed.\n");
        abandon(control, data, true);
        return false;
    }
    return true;
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

/// What guard pages protect in the parent the child neither knows nor gives back.
void resumeChild()
{
    if (IMemPool* const pool = PoolInstance::current()) {
        static_cast<CShareMemory*>(pool)->unprotect();
    }
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

void PoolInstance::park(CShareMemory* pool)
{
    CGuard guard(sg_shareMemory_mutex());
    ParkedPools::put(pool);
}

bool IMemPool::initMemPool(const PoolParam& param)
{
    if (param.poolType != PT_ShareMemory) {
        INFRA_LOG_ERROR("pool type error.\n");
        return false;
    }
    const CLogHold hold;
    CShareMemory* pool = nullptr;
    {
        CGuard guard(sg_shareMemory_mutex());
        if (PoolInstance::current() != nullptr) {
            INFRA_LOG_ERROR("this process has a pool already.\n");
            return false;
        }
        if (!isPossible(param) || !makeLocked(param, &pool)) {
            return false;
        }
    }
    if (!pool->startTimer()) {
        INFRA_LOG_ERROR("loadMemPool failed.\n");
        unname(controlSegment, attached().control.id);
        unname(dataSegment, attached().data.id);
        pool->destroy();
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
    return loadLocked(param);
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

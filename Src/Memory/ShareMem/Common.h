#ifndef INFRA_SRC_MEMORY_SHAREMEM_COMMON_H
#define INFRA_SRC_MEMORY_SHAREMEM_COMMON_H

// The ground of memory that processes share, and the page to read first about it.
//
// Segments:  a pool is two System V segments. The control segment holds four zones one after the
//            other (process mutexes, references, small objects, pages), the data segment holds the
//            pages. Both layouts are a format: every process that uses a pool agrees on each byte.
// Links:     a process maps the segments wherever there is room, so nothing in them is a pointer.
//            A link is an offset from a base that each process computes for itself.
// Layers:    segments and mutexes (this file) - pages (Buddy.h) - small objects (SmallMem.h) -
//            references (MemRefer.h) - the pool (ShareMemory.h). Plain functions, and records of
//            function pointers as handles; a handle belongs to one process and costs no shared
//            memory.
// Locks:     process mutex 0 is held around whatever reads or changes shared lists. None of the
//            layers takes it; the pool does.
// Death:     a process may die at any instruction, the mutex held. Every change is ordered so that
//            what is in the segments at that moment is enough to rebuild all lists (Publish.h,
//            Repair.h); the next to take the mutex does so.
// Failures:  a result of -1 or null, and a line on standard output; shared state is unchanged. A
//            line that arises while the mutex is held is printed when it is let go (Report.h).

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "Memory/ShareMem/List.h"

// Zones ----------------------------------------------------------------------------------------

constexpr uint32_t zoneReady = 0x12345678;

/// Starts every zone of the control segment.
struct ZoneHead
{
    uint32_t zoneLen;  ///< bytes of the zone with its head; the next zone starts there
    uint32_t initFlag; ///< zoneReady once the contents are initialised
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" // both compilers have it
    uint8_t zoneData[];
#pragma GCC diagnostic pop
};
static_assert(sizeof(ZoneHead) == 8);

size_t getSyncZoneSize();
size_t getReferZoneSize();
size_t getSmallMemZoneSize();

inline ZoneHead* nextZone(ZoneHead* zone)
{
    return reinterpret_cast<ZoneHead*>(reinterpret_cast<uint8_t*>(zone) + zone->zoneLen);
}

// Arithmetic -----------------------------------------------------------------------------------

/// `size` rounded up to a multiple of a power of two.
size_t getAlignedSize(size_t size, size_t align);
/// The largest k with 2^k <= x; 0 for 0.
uint32_t shareMem_log2i(uint32_t x);
/// The system's page size in bytes.
int getShareMemPageSize();

// Segments -------------------------------------------------------------------------------------

constexpr const char* controlSegment = "/mnt/mtd/key1";
constexpr const char* dataSegment = "/mnt/mtd/key2";

enum ShareMemRemoveFlag : int
{
    detachMapping = 1, ///< the mapping of this process
    removeSegment = 2  ///< the segment; it goes with its last mapping
};

/// The System V key of a segment name: names with the same letters collide.
int strToKey(const char* key);
/// Maps the segment `key`, which with IPC_CREAT in `mode` is made if it is missing and made anew if
/// it is smaller than `size` bytes. `flag` is not used. Null on failure.
void* shareMemGet(const char* key, size_t size, int mode, int flag);
/// Detaches the mapping at `addr`, or removes the segment `key`; 0 or -1. See ShareMemRemoveFlag.
int shareMemRemove(const char* key, void* addr, int flag);
/// mprotect(), and a line when it fails.
int memProtect(void* addr, size_t len, int prot);

// Mutexes --------------------------------------------------------------------------------------

constexpr size_t processMutexCount = 3;

/// Lies in zone 0.
struct ProcessMutexInternal
{
    pthread_mutex_t m_lock;
};
static_assert(sizeof(ProcessMutexInternal) == 40);

/// A process's handle of a mutex that processes share.
struct ProcessMutex
{
    int (*lock)(ProcessMutex*);   ///< 0 when the mutex is held
    int (*unlock)(ProcessMutex*); ///< 0 when it is free again
    ProcessMutexInternal* internal;
};

/// Makes the mutexes of zone 0 unless they are there, and this process's handles; 0 or -1. Of
/// processes that come at the same time one makes the mutexes, the others wait for it; if it dies,
/// another takes over.
int initProcessMutex(ZoneHead* head);
/// While a process makes the mutexes, or the pool, the flag of zone 0 is its claim.
uint32_t ownZoneClaim();
/// Whether `flag` is the claim of another process that lives.
bool isClaimedByOther(uint32_t flag);
/// The handle of mutex 0 to 2, or null. It stays where it is for the life of the process.
ProcessMutex* getProcessMutex(size_t id);

/// What repairs the shared state when the owner of mutex 0 has died. It runs with the mutex held,
/// allocates nothing and takes no lock. Null for none.
void setProcessMutexRepair(void (*repair)());

/// Changes whenever mutex 0 is taken: what was true under an earlier value may no longer be.
uint64_t processMutexEpoch();

// Replaceable primitives -----------------------------------------------------------------------

/// Memory of this process's own.
struct MemOp
{
    void* (*allocMem)(size_t size);
    void (*freeMem)(void* p);
};
extern MemOp gloMemOperation; // at first the system's malloc and free

struct ShareMemOp
{
    void* (*shareMemGet)(const char* key, size_t size, int mode, int flag);
    int (*shareMemRemove)(const char* key, void* addr, int flag);
};
extern ShareMemOp gloShareMemOperation; // at first the functions above

#endif

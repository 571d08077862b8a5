#ifndef INFRA_SRC_MEMORY_PACKETMANAGERINTERNAL_H
#define INFRA_SRC_MEMORY_PACKETMANAGERINTERNAL_H

// The packet manager's one record, and the page to read first about packet memory.
//
// Objects:   PacketManagerInternal is made by the first packet, or the first CPacketManager, and is
//            never destroyed: packets of static objects and of threads that still run come back to
//            it after exit began. CPacketManager is a thin public face of it.
// Settings:  sm_policy, sm_memop and sm_param are written by config() before that, never after.
// Pool:      one block of sm_memop's, cut into chunks, run as a binary buddy allocator. It is made
//            when it is needed and not there: right after the manager, and again after exit, where
//            it is given back if nothing is handed out.
// Locks:     m_lock (PoolLock.h) guards marks, lists and counters of the pool; m_Mutex is where
//            those wait who find it held. It is a leaf: no log line, no memory primitive and
//            nothing else of the application is called while it is held, nor while any other lock
//            of the library is.
// Failures:  a dry pool is a warning and null; a block that is not one of ours ends the process.

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Mutex.h"
#include "Infra3/Arithmetic.h"
#include "Infra3/PlainShared.h"
#include "Infra3/Singleton.h"
#include "Memory/CopyBytes.h"
#include "Memory/PacketManager.h"
#include "Memory/PoolLock.h"

namespace Tarsel
{
namespace Memory
{

/// Where packet memory comes from; see CPacketManager for what callers see.
///
/// Always true while m_lock is free and its word does not note a block that is back:
///  (1) the blocks, free or handed out, cover every chunk exactly once (BuddyMath.h: the marks);
///  (2) a free block of order k is on list k and on no other;
///  (3) bit k of m_nonEmpty is set exactly when list k has a block;
///  (4) m_freeChunks is the sum of 2^k over all free blocks; while the pool is away nothing is
///      handed out, there are no lists, and it is all chunks;
///  (5) below the top order two buddies are never both free.
class PacketManagerInternal
{
public:
    typedef CPacketManager::Policy Policy;
    typedef CPacketManager::MemoryOperator MemoryOperator;
    typedef CPacketManager::PoolParameter PoolParameter;

    static void config(Policy policy, MemoryOperator* memop, PoolParameter* param);
    static PacketManagerInternal* instance()
    {
        return Infra::TSingleton<PacketManagerInternal>::instance();
    }

    /// A block of at least `*size` bytes, or null; `*size` becomes what was granted.
    void* malloc(size_t* size) { return isPooled() ? Pool_Malloc(size) : (this->*m_malloc)(size); }
    void free(void* p) { isPooled() ? Pool_Free(p) : (this->*m_free)(p); }
    void* memcpy(void* dest, const void* src, size_t len)
    {
        if (m_systemCopy) { // then all hooks copy alike
            copyBytes(dest, src, len);
            return dest;
        }
        return (this->*m_memcpy)(dest, src, len);
    }

    /// `n` rounded up to the packet alignment.
    size_t getAlignedSize(size_t n) const { return Infra::roundUp(n, m_alignSize); }
    Policy getPolicy() const { return sm_policy; }
    void* getPoolBuffer();
    size_t getBufferSize();
    size_t getFreeSize();
    void dumpNodes();

    /// Walks the whole pool under the lock and says whether (1) to (5) hold. For tests.
    bool isSound();

private:
    friend class Infra::TSingleton<PacketManagerInternal>;

    typedef struct _ChunkNode
    {
        uint32_t idx;
        int order; ///< the mark
        uint8_t* buf;
        _ChunkNode* pre;
        _ChunkNode* next;
    } ChunkNode;

    typedef struct _BufferList
    {
        ChunkNode head; ///< of a ring; points to itself when the list is empty
    } BufferList;

    /// What a pool rests on, before it is in place and after.
    struct PoolMemory
    {
        uint8_t* origin;
        ChunkNode* chunks;
        BufferList* lists;
    };

    PacketManagerInternal();
    ~PacketManagerInternal();
    PacketManagerInternal(const PacketManagerInternal&) = delete;
    PacketManagerInternal& operator=(const PacketManagerInternal&) = delete;

    static void onCreated(PacketManagerInternal* manager);
    static bool staysInUse(PacketManagerInternal* manager);

    static bool hasPool()
    {
        return sm_policy == CPacketManager::policyPool ||
               sm_policy == CPacketManager::policyPoolSystem;
    }
    /// The same, of the hooks in force: known without a call through them.
    bool isPooled() const { return m_BufferListCount != 0; }

    void* Sys_Malloc(size_t* size);
    void Sys_Free(void* p);
    void* Sys_Memcpy(void* dest, const void* src, size_t len);
    void* Pool_Malloc(size_t* size);
    void Pool_Free(void* p);
    void* Pool_Memcpy(void* dest, const void* src, size_t len);

    /// The list primitives; m_lock is held.
    void deleteNode(ChunkNode* node);
    void insertNode(ChunkNode* node, int order);
    static uint64_t unlink(ChunkNode* node);
    /// Takes the first block of list `from`, gives back lower halves down to order `to`, and
    /// returns the index of the block handed out. m_lock is held.
    int split(int from, int to);
    /// Frees the block at `idx`, `order` being the mark of that chunk, and merges it as far as it
    /// goes. m_lock is held.
    void merge(int idx, int order);
    void PrintNodeInfo();

    const char* allocatePool(PoolMemory* pool) const;
    static void freePool(const PoolMemory& pool);
    void needPool();
    const char* makePool();
    bool install(const PoolMemory& pool);
    void seedPool();
    void appendNode(ChunkNode* node, int order);
    void takeBackPool();
    void logPool() const;

    class CListGuard;
    void* mallocFromLists(int order, size_t* size);
    void* handOut(int order, size_t* size, bool* isAway);
    void freeToLists(ptrdiff_t id);
    void takeIn(int idx, int order);
    void settle(CPoolNote note);
    bool mayHave(uint64_t units) const;
    static uint64_t chunksIn(CPoolNote note);
    uint64_t freeChunks();
    size_t bytesOf(uint64_t units) const { return units << m_ChunkNodeLog2; }
    uint8_t* addressOf(uint64_t idx) const { return Infra::loadPlain(m_pBuffer) + bytesOf(idx); }
    void* reportNoSpace();
    bool isInPool(const void* p) const;
    void addFreeChunks(int64_t count);
    bool isListSound(int order, uint64_t* chunks) const;
    bool isCoverSound() const;

    static void prepareFork();
    static void resumeParent();
    static void resumeChild();
    static const bool s_joinedFork;

    static Policy sm_policy;
    static MemoryOperator sm_memop;
    static PoolParameter sm_param;
    static bool sm_can_config;

    // Read by all and hardly ever changed; on lines apart from what each allocation changes.
    uint8_t* m_pOriginBuffer;
    uint8_t* m_pBuffer;
    ChunkNode* m_pChunkHead;
    int m_ChunkMask;
    int m_ChunkNodeLog2;
    BufferList* m_pBufferList;
    int m_ChunkCount;
    int m_BufferListCount;
    Infra::CMutex m_Mutex;
    size_t m_alignSize;
    void* (PacketManagerInternal::*m_malloc)(size_t* size);
    void (PacketManagerInternal::*m_free)(void* p);
    void* (PacketManagerInternal::*m_memcpy)(void* dest, const void* src, size_t len);
    bool m_systemCopy;         ///< the copy primitive is the system's own
    std::atomic<int> m_makers; ///< pools that are being made at this moment, by all threads

    alignas(64) CPoolLock m_lock;       ///< of marks, lists and the two below; m_Mutex is its gate
    uint64_t m_nonEmpty;                ///< bit k: list k has a block
    std::atomic<uint64_t> m_freeChunks; ///< written under m_lock, read by anyone

    static thread_local int t_making; ///< pools that the calling thread is making
};

} // namespace Memory
} // namespace Tarsel

#endif

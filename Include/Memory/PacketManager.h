#ifndef INFRA_MEMORY_PACKETMANAGER_H
#define INFRA_MEMORY_PACKETMANAGER_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Function.h"

namespace Tarsel
{
namespace Memory
{

class PacketManagerInternal;

/// Decides, once per process, where packet memory comes from.
///
/// Behaviour: until the first packet is made, or `instance()` is called, the application may choose
/// a policy, give its own memory primitives and size the pool; from then on the choice is frozen.
/// In the pool policies one large block is cut into equal chunks and handed out in blocks of
/// 2^k chunks; a freed block merges with its free neighbour at once. The pool never grows: when it
/// is dry an allocation gives null and a warning, and is cheap.
///
/// Threads: safe from any thread, except `config`, which is called before there are others.
/// Ownership: the one instance belongs to the library. At exit the pool is given back unless
/// something handed out is still in use; packets of static objects and of threads that still run
/// stay sound.
///
///     CPacketManager::PoolParameter pool = {8 << 20, 2048, 8};
///     CPacketManager::config(CPacketManager::policyPool, nullptr, &pool);
class INFRA_API CPacketManager
{
public:
    enum Policy : int
    {
        policyDefault = 0,    ///< for config(): keep the policy as it is
        policySystem = 1,     ///< everything from the memory primitives; the first policy
        policyPool = 2,       ///< a packet is one block of the pool
        policyPoolSystem = 3, ///< the payload from the pool, the rest from the ordinary heap
        policySharePool = 4,  ///< packets live in memory shared with other processes
        policyCount = 5
    };

    /// At first 2 MiB in chunks of 1024 bytes, alignment 4.
    struct PoolParameter
    {
        size_t totalSize; ///< bytes of pool; a multiple of `chunkSize`
        size_t chunkSize; ///< bytes of a chunk; a power of two, 1024 or more
        size_t alignSize; ///< packet alignment; 4 or more, rounded down to a power of two
    };

    /// The memory primitives; at first the system's. No lock of the library is held while one runs,
    /// so it may log and make packets; one that does so while the pool is made may be asked for a
    /// second pool meanwhile, of which one goes back at once.
    struct MemoryOperator
    {
        typedef Infra::TFunction1<void*, size_t> AllocProc;
        typedef Infra::TFunction1<void, void*> FreeProc;
        typedef Infra::TFunction3<void*, void*, const void*, size_t> CopyProc;

        AllocProc malloc; ///< aligned for every plain type, or null when there is no memory
        FreeProc free;
        CopyProc memcpy; ///< the parts do not overlap; returns the destination
    };
    typedef MemoryOperator::AllocProc AllocProc;
    typedef MemoryOperator::FreeProc FreeProc;
    typedef MemoryOperator::CopyProc CopyProc;

    /// Chooses policy, primitives and pool; null keeps what was set before.
    ///
    /// Failure: too late, an unknown policy, a chunk size that is no power of two, a pool of more
    /// than 2^31 - 2 chunks and one that with a chunk to spare is larger than any block of memory
    /// (PTRDIFF_MAX bytes) are refused with a warning, and nothing changes. A chunk size
    /// below 1024, a pool that is no multiple of it, an alignment below 4 and an empty primitive
    /// end the process.
    static void config(Policy policy = policyDefault, MemoryOperator* memop = nullptr,
                       PoolParameter* param = nullptr);

    /// The one manager, made on first use.
    static CPacketManager* instance();

    ~CPacketManager();

    /// A block of at least `size` bytes, or null. The pool does not hand out blocks of 0 bytes.
    void* malloc(size_t size);
    /// Takes back a block of `malloc`; each block exactly once. Null is ignored by the pool.
    void free(void* p);
    /// Copies `len` bytes that do not overlap and returns `dest`.
    void* memcpy(void* dest, const void* src, size_t len);

    /// Bytes of pool, whether in use or not; 0 without a pool. In policySharePool without one the
    /// process ends.
    size_t getBufferSize();
    /// Bytes of pool that are free at this moment, however scattered; the rest as above. Counted as
    /// blocks come and go, except in policySharePool, where the shared pool is asked.
    size_t getFreeSize();
    /// Writes to the log, at info level: in policyPool every free list and every block on it, as
    /// they were at one moment; else one line without figures, in policyPoolSystem too. In
    /// policySharePool the free blocks of the shared pool are printed on standard output.
    void dumpNodes();
    /// The pool's memory as the allocation primitive gave it; null without a pool. It may change
    /// once the process exits.
    uint8_t* getPoolBuffer();

private:
    CPacketManager();
    CPacketManager(const CPacketManager&);
    CPacketManager& operator=(const CPacketManager&);

    struct Instance;

    PacketManagerInternal* m_internal;
};

} // namespace Memory
} // namespace Tarsel

#endif

#ifndef INFRA_TESTS_SHAREMEM_MINIPOOL_H
#define INFRA_TESTS_SHAREMEM_MINIPOOL_H

// The layers of a pool over a piece of memory that child processes of the test share, without
// segments and mutexes.

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "Memory/ShareMem/Repair.h"

namespace Tarsel
{
namespace TestSupport
{

/// Page sizes and counts that are worth a try.
struct PoolShape
{
    uint32_t pageSize;
    uint32_t pageNum;
    uint32_t orderNum;
};

/// What the pool has to say of a block.
struct BlockState
{
    std::multiset<pid_t> holders;
    uint32_t handOvers;
    uint32_t passesLeft;

    bool operator==(const BlockState&) const = default;
};

typedef std::map<size_t, BlockState> Blocks; ///< by offset

class CMiniPool
{
public:
    /// A fresh pool.
    explicit CMiniPool(const PoolShape& shape);
    /// A copy of what `other` is at this moment, at another address.
    CMiniPool(const CMiniPool& other);
    CMiniPool& operator=(const CMiniPool&) = delete;
    ~CMiniPool();

    Buddy* buddy() const { return m_buddy; }
    SmallMem* small() const { return m_small; }
    MemRefer* refer() const { return m_refer; }
    const ShareMem::Layout& layout() const { return m_layout; }
    uint8_t* memory() const { return m_memory; }
    size_t memorySize() const { return m_size; }
    size_t freeSize() const { return m_buddy->getFreeSize(m_buddy); }

    /// A word that goes with the memory, for whoever uses the pool.
    uint32_t& note() const { return *reinterpret_cast<uint32_t*>(m_memory + m_size - noteSize); }
    /// Operations that have ended; it lies beside the note.
    uint32_t& ended() const { return (&note())[1]; }

    // Operations ---------------------------------------------------------------------------------

    /// A block with one reference of this process; its offset.
    size_t take(size_t size);
    void give(size_t offset) { end(m_refer->releaseRefer(m_refer, offset)); }
    void share(size_t offset) { end(m_refer->addRefer(m_refer, offset)); }
    void send(size_t offset) { end(m_refer->incDeliverRef(m_refer, offset)); }
    void receive(size_t offset) { end(m_refer->decDeliverRef(m_refer, offset)); }
    void reclaim(pid_t pid) { end(m_refer->releaseByPid(m_refer, pid)); }
    void expire() { end(m_refer->expireClean(m_refer)); }

    void repair();
    /// What is wrong, a line each; empty when nothing is.
    std::string faults();
    /// Who holds which block; there are no faults.
    Blocks blocks() const;

private:
    static constexpr size_t noteSize = 64;

    void end(int /*result*/) { ++ended(); }
    void map();
    void open();

    PoolShape m_shape;
    BuddyConfig m_config;
    uint8_t* m_memory = nullptr;
    size_t m_size = 0;
    ShareMem::Layout m_layout = {};
    ShareMem::CScratch m_scratch;
    Buddy* m_buddy = nullptr;
    SmallMem* m_small = nullptr;
    MemRefer* m_refer = nullptr;
};

} // namespace TestSupport
} // namespace Tarsel

#endif

#ifndef INFRA_SRC_MEMORY_SHAREMEM_REPAIR_H
#define INFRA_SRC_MEMORY_SHAREMEM_REPAIR_H

// Making the shared state whole again after a process died inside it, and saying whether it is.
//
// The truth:   the `next` links of the two kinds of rings that start at zone 1, the fields of the
//              records on them, and the negative marks of pages.
// Derived:     everything else: `prev` links, free pages and their lists, the list of small-object
//              pages, their masks and free lists. It is made anew, so it does not matter what a
//              death, or a death in a repair, left there.
// What goes:   rings end where they stop to make sense; nodes that name no block, or a block that
//              another node has, or that nobody holds and nobody sends; blocks and small objects that
//              nothing names: those are what the dead process was about to make or to free.
// What stays:  references and hand-overs that were complete, those of the dead process too.

#include <cstddef>
#include <cstdint>

#include "Memory/ShareMem/Layout.h"

namespace ShareMem
{

/// Room for a walk over a pool's records, so that a repair need not allocate.
class CScratch
{
public:
    CScratch() = default;
    ~CScratch();
    CScratch(const CScratch&) = delete;
    CScratch& operator=(const CScratch&) = delete;

    /// Room for that many pages, to be cleared before it is used. False without memory.
    bool reserve(uint32_t pages);
    void clear();
    uint32_t pages() const { return m_pages; }

    /// The small objects of a page that were met, one bit each.
    uint32_t& seen(uint32_t page) { return m_seen[page]; }
    /// The page heads a block that a node names.
    bool isClaimed(uint32_t page) const { return (m_claimed[page / 64] >> page % 64 & 1) != 0; }
    void claim(uint32_t page) { m_claimed[page / 64] |= uint64_t{1} << page % 64; }

private:
    void release();

    uint32_t* m_seen = nullptr;
    uint64_t* m_claimed = nullptr;
    uint32_t m_pages = 0;
};

/// Process mutex 0 is held, or nobody else is there. The pages have been found sound.
void repairPool(const Layout& layout, CScratch& scratch);

/// Calls `fault(argument, text)` for everything that is not as it has to be while nobody is inside,
/// and returns how often. Reads only. Process mutex 0 is held, or nobody else is there.
size_t checkPool(const Layout& layout, CScratch& scratch, void (*fault)(void*, const char*),
                 void* argument);

} // namespace ShareMem

#endif

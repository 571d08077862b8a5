// Repair.cpp: making all that is derived anew from what is true.
//
// Each step may be the last one a process takes. None destroys what an earlier one rests on, so the
// next to take the mutex begins again from the first.

#include "Memory/ShareMem/Repair.h"

#include <algorithm>

#include "Memory/BuddyMath.h"
#include "Memory/ShareMem/Publish.h"
#include "Memory/ShareMem/Report.h"

namespace BuddyMath = Tarsel::Memory::BuddyMath;

namespace ShareMem
{

// Scratch ----------------------------------------------------------------------------------------

CScratch::~CScratch()
{
    release();
}

bool CScratch::reserve(uint32_t pages)
{
    if (pages > m_pages) {
        release();
        m_claimed =
            static_cast<uint64_t*>(gloMemOperation.allocMem((pages / 64 + 1) * sizeof(*m_claimed)));
        m_seen = static_cast<uint32_t*>(gloMemOperation.allocMem(pages * sizeof(*m_seen)));
        m_pages = m_seen != nullptr && m_claimed != nullptr ? pages : 0;
    }
    return pages <= m_pages;
}

void CScratch::release()
{
    for (void* const part : {static_cast<void*>(m_seen), static_cast<void*>(m_claimed)}) {
        if (part != nullptr) {
            gloMemOperation.freeMem(part);
        }
    }
    m_seen = nullptr;
    m_claimed = nullptr;
    m_pages = 0;
}

void CScratch::clear()
{
    std::fill_n(m_seen, m_pages, 0);
    std::fill_n(m_claimed, m_pages / 64 + 1, 0);
}

namespace
{

class CRepair
{
public:
    CRepair(const Layout& layout, CScratch& scratch)
        : m_layout(layout), m_info(layout.info), m_data(layout.data), m_scratch(scratch)
    {}

    void run()
    {
        m_scratch.clear();
        mendNodes();
        mendPages();
        listPages();
        listSmallPages();
    }

private:
    PageDes& page(uint32_t index) const { return pageDescriptors(m_info)[index]; }

    /// Meets the small object at `offset`, any number. False when there is none, or it was met.
    bool meet(size_t offset) const
    {
        if (!isSmallBlock(m_info, offset)) {
            return false;
        }
        uint32_t& seen = m_scratch.seen(static_cast<uint32_t>(offset >> m_info->pageShift));
        const uint32_t bit = smallBitOf(m_info, offset);
        const bool isNew = (seen & bit) == 0;
        seen |= bit;
        return isNew;
    }
    void forget(size_t offset) const
    {
        m_scratch.seen(static_cast<uint32_t>(offset >> m_info->pageShift)) &=
            ~smallBitOf(m_info, offset);
    }

    void mendRing(List* head, size_t linkInRecord, const char* kind) const;
    void mendNodes() const;
    bool mendNode(BlockReferNode* node) const;
    bool isOwnBlock(size_t offset) const;
    void mendPages() const;
    void listSmallPages() const;
    void listSmallPagesThat(bool haveRoom) const;
    void listPages() const;
    uint32_t blockLength(uint32_t index) const;

    const Layout& m_layout;
    BuddyInfo* const m_info;
    uint8_t* const m_data;
    CScratch& m_scratch;
};

// Rings ------------------------------------------------------------------------------------------

/// Follows a ring of records whose link lies at `linkInRecord`, sets all `prev` links, and closes
/// the ring where the next record is none.
void CRepair::mendRing(List* head, size_t linkInRecord, const char* kind) const
{
    if (head->prev != noOffset) {
        publish(head->prev, noOffset);
    }
    const size_t first = head->next;
    size_t last = noOffset;
    size_t at = first;
    while (at != noOffset && (last == noOffset || at != first)) {
        if (at < linkInRecord || !meet(at - linkInRecord)) {
            report("[%s:%d]%s list cut at offset[%zu].\n", "repair", __LINE__, kind, at);
            break;
        }
        if (last != noOffset) {
            publish(list_at(m_data, at)->prev, last);
        }
        last = at;
        at = list_at(m_data, at)->next;
    }
    if (last == noOffset) {
        publish(head->next, noOffset);
        return;
    }
    if (list_at(m_data, last)->next != first) {
        publish(list_at(m_data, last)->next, first);
    }
    publish(list_at(m_data, first)->prev, last);
}

void CRepair::mendNodes() const
{
    List* const nodes = m_layout.nodes();
    mendRing(nodes, offsetof(BlockReferNode, referListNode), "reference");
    bool isLast = nodes->next == noOffset;
    for (size_t at = nodes->next; !isLast;) {
        const size_t next = list_at(m_data, at)->next;
        isLast = next == nodes->next;
        BlockReferNode* const node = nodeAt(m_data, at);
        if (!mendNode(node)) {
            list_remove(nodes, &node->referListNode, m_data);
            forget(at - offsetof(BlockReferNode, referListNode));
        }
        at = next;
    }
}

/// False for a node that is none. The entries of one that names no block are not met, and so free.
bool CRepair::mendNode(BlockReferNode* node) const
{
    if (!isOwnBlock(node->offset)) {
        return false;
    }
    mendRing(&node->pidListHead, offsetof(PidNode, listNode), "holder");
    if (node->pidListHead.next == noOffset && node->deliverRefer == 0) {
        return false;
    }
    m_scratch.claim(static_cast<uint32_t>(node->offset >> m_info->pageShift));
    return true;
}

/// Whether a block of a user, which no node has claimed, starts there. No other block can be inside.
bool CRepair::isOwnBlock(size_t offset) const
{
    const size_t index = offset >> m_info->pageShift;
    if (index >= m_info->pageNum || offset % m_info->config.pageSize != 0) {
        return false;
    }
    const uint32_t head = static_cast<uint32_t>(index);
    const uint32_t length = blockLength(head);
    for (uint32_t inner = 1; inner < length; ++inner) {
        if (BuddyMath::isTaken(page(head + inner).order)) {
            return false;
        }
    }
    return length != 0 && !isSmallPage(m_info, head) && !m_scratch.isClaimed(head);
}

// Small objects ----------------------------------------------------------------------------------

/// A page that was made ready but of which nothing is linked yet has no bit set from here on: it is
/// no small-object page, and nobody's.
void CRepair::mendPages() const
{
    for (uint32_t i = 0; i < m_info->pageNum; ++i) {
        SmallMemPageDesc* const desc = smallPageDesc(m_info, i);
        if (desc->blockMask != m_scratch.seen(i)) {
            publish(desc->blockMask, m_scratch.seen(i));
        }
        if (m_scratch.seen(i) != 0 && desc->padding != 0) {
            publish(desc->padding, 0);
        }
        if (page(i).idx != i) {
            publish(page(i).idx, i);
        }
    }
    if (m_info->padding != 0) {
        publish(m_info->padding, 0);
    }
}

void CRepair::listSmallPages() const
{
    list_init(m_layout.smallPages(), nullptr);
    listSmallPagesThat(false);
    listSmallPagesThat(true); // in front of the full ones
}

void CRepair::listSmallPagesThat(bool haveRoom) const
{
    for (uint32_t i = 0; i < m_info->pageNum; ++i) {
        if (m_scratch.seen(i) == 0) {
            continue;
        }
        SmallMemPageDesc* const desc = smallPageDesc(m_info, i);
        const uint32_t used = static_cast<uint32_t>(__builtin_popcount(desc->blockMask));
        if ((used < desc->blockNum) == haveRoom) {
            listFreeSmallBlocks(m_info, m_data, i);
            list_insert(m_layout.smallPages(), &desc->list, m_info);
        }
    }
}

// Pages ------------------------------------------------------------------------------------------

void CRepair::listPages() const
{
    for (uint32_t order = 0; order < m_info->config.orderNum; ++order) {
        list_init(orderHead(m_info, order), nullptr);
    }
    uint32_t gap = 0;
    for (uint32_t i = 0; i < m_info->pageNum;) {
        const bool isNamed = m_scratch.isClaimed(i) || m_scratch.seen(i) != 0;
        const uint32_t length = isNamed ? blockLength(i) : 0;
        if (length == 0) {
            ++i;
            continue;
        }
        listFreePages(m_info, gap, i);
        for (uint32_t inner = i + 1; inner < i + length; ++inner) {
            if (page(inner).order != 0) {
                publish(page(inner).order, 0);
            }
        }
        i += length;
        gap = i;
    }
    listFreePages(m_info, gap, m_info->pageNum);
}

/// Pages of the block that is handed out and starts here; 0 where there can be none.
uint32_t CRepair::blockLength(uint32_t index) const
{
    const int mark = page(index).order;
    const int order = BuddyMath::isTaken(mark) ? BuddyMath::orderOfMark(mark) : BuddyMath::noOrder;
    if (order >= static_cast<int>(m_info->config.orderNum)) {
        return 0;
    }
    const uint64_t length = BuddyMath::unitsOf(order);
    const bool isBlock = index % length == 0 && length <= m_info->pageNum - index;
    return isBlock ? static_cast<uint32_t>(length) : 0;
}

} // namespace

void repairPool(const Layout& layout, CScratch& scratch)
{
    CRepair(layout, scratch).run();
}

} // namespace ShareMem

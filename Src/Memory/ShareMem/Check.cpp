// Check.cpp: saying whether everything in a pool is as it has to be. It reads only, and whatever it
// reads may be wrong: no link is followed that does not lead to where such a link may lead.

#include <cstdarg>
#include <cstdio>

#include "Memory/BuddyMath.h"
#include "Memory/ShareMem/Repair.h"

namespace BuddyMath = Tarsel::Memory::BuddyMath;

namespace ShareMem
{
namespace
{

class CCheck
{
public:
    CCheck(const Layout& layout, CScratch& scratch, void (*fault)(void*, const char*),
           void* argument)
        : m_layout(layout),
          m_info(layout.info),
          m_data(layout.data),
          m_scratch(scratch),
          m_fault(fault),
          m_argument(argument)
    {}

    size_t run()
    {
        m_scratch.clear();
        checkNodes();
        checkTiling();
        for (uint32_t order = 0; order < m_info->config.orderNum; ++order) {
            checkOrderList(order);
        }
        checkSmallPages();
        return m_faults;
    }

private:
    PageDes& page(uint32_t index) const { return pageDescriptors(m_info)[index]; }
    uint32_t smallObjectsMost() const { return m_info->pageNum * smallBlocksMax; }

    __attribute__((format(printf, 2, 3))) void fault(const char* format, ...);

    template <typename IsPlace, typename Visit>
    uint32_t checkRing(const char* kind, const List* head, void* base, uint32_t limit,
                       IsPlace isPlace, Visit visit);
    bool meet(size_t offset);
    void checkNodes();
    void checkNode(const BlockReferNode* node);
    void checkTiling();
    uint32_t checkBlock(uint32_t index);
    void checkOrderList(uint32_t order);
    void checkSmallPages();
    void checkFreeBlocks(uint32_t index);
    bool isLinkOfPage(size_t listOffset, size_t linkInPage, uint32_t* index) const;

    const Layout& m_layout;
    BuddyInfo* const m_info;
    uint8_t* const m_data;
    CScratch& m_scratch;
    void (*const m_fault)(void*, const char*);
    void* const m_argument;
    size_t m_faults = 0;
    uint32_t m_freeHeads[32] = {}; ///< by order
};

void CCheck::fault(const char* format, ...)
{
    char text[160];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    ++m_faults;
    m_fault(m_argument, text);
}

/// Visits the elements of a ring, at most `limit`, up to the first link that leads to no place where
/// an element may be, or to one that `visit` wants no more of. The result is how many there were.
template <typename IsPlace, typename Visit>
uint32_t CCheck::checkRing(const char* kind, const List* head, void* base, uint32_t limit,
                           IsPlace isPlace, Visit visit)
{
    if (head->prev != noOffset) {
        fault("%s list: its head has a previous element", kind);
    }
    const size_t first = head->next;
    size_t last = noOffset;
    uint32_t count = 0;
    for (size_t at = first; at != noOffset || count > 0; ++count) {
        if (count > 0 && at == first) {
            break;
        }
        if (count == limit || !isPlace(at)) {
            fault("%s list: no element at %zu, after %u", kind, at, count);
            return count;
        }
        if (last != noOffset && list_at(base, at)->prev != last) {
            fault("%s list: the element at %zu does not point back", kind, at);
        }
        if (!visit(at)) {
            return count;
        }
        last = at;
        at = list_at(base, at)->next;
    }
    if (count > 0 && list_at(base, first)->prev != last) {
        fault("%s list: the first element does not point back to the last", kind);
    }
    return count;
}

// References -------------------------------------------------------------------------------------

/// False for one that was met before: a ring that leads there never ends, or is another's.
bool CCheck::meet(size_t offset)
{
    uint32_t& seen = m_scratch.seen(static_cast<uint32_t>(offset >> m_info->pageShift));
    if ((seen & smallBitOf(m_info, offset)) != 0) {
        fault("the small object at %zu is linked twice", offset);
        return false;
    }
    seen |= smallBitOf(m_info, offset);
    return true;
}

void CCheck::checkNodes()
{
    constexpr size_t inNode = offsetof(BlockReferNode, referListNode);
    checkRing(
        "reference", m_layout.nodes(), m_data, smallObjectsMost(),
        [this](size_t at) { return at >= inNode && isSmallBlock(m_info, at - inNode); },
        [this](size_t at) {
            const bool isNew = meet(at - inNode);
            if (isNew) {
                checkNode(nodeAt(m_data, at));
            }
            return isNew;
        });
}

void CCheck::checkNode(const BlockReferNode* node)
{
    const size_t index = node->offset >> m_info->pageShift;
    if (index >= m_info->pageNum || node->offset % m_info->config.pageSize != 0 ||
        !BuddyMath::isTaken(page(static_cast<uint32_t>(index)).order) ||
        isSmallPage(m_info, static_cast<uint32_t>(index))) {
        fault("a reference names no block at %zu", node->offset);
    } else if (m_scratch.isClaimed(static_cast<uint32_t>(index))) {
        fault("the block at %zu has two nodes", node->offset);
    } else {
        m_scratch.claim(static_cast<uint32_t>(index));
    }
    checkRing(
        "holder", &node->pidListHead, m_data, smallObjectsMost(),
        [this](size_t at) { return isSmallBlock(m_info, at); },
        [this](size_t at) { return meet(at); });
}

// Pages ------------------------------------------------------------------------------------------

void CCheck::checkTiling()
{
    if (m_info->padding != 0) {
        fault("the padding of the page zone is not 0");
    }
    for (uint32_t i = 0; i < m_info->pageNum; ++i) {
        if (page(i).idx != i) {
            fault("page %u has another number, %u", i, page(i).idx);
        }
    }
    for (uint32_t i = 0; i < m_info->pageNum;) {
        i += checkBlock(i);
    }
}

/// The number of pages to go on by.
uint32_t CCheck::checkBlock(uint32_t index)
{
    const int mark = page(index).order;
    const int order = mark != 0 ? BuddyMath::orderOfMark(mark) : BuddyMath::noOrder;
    const bool isPossible = order < static_cast<int>(m_info->config.orderNum);
    const uint64_t length = isPossible ? BuddyMath::unitsOf(order) : 1;
    if (!isPossible || index % length != 0 || length > m_info->pageNum - index) {
        fault("page %u heads no block (%d)", index, mark);
        return 1;
    }
    for (uint64_t inner = index + 1; inner < index + length; ++inner) {
        if (page(static_cast<uint32_t>(inner)).order != 0) {
            fault("page %u inside a block heads one", static_cast<unsigned>(inner));
        }
    }
    if (BuddyMath::isTaken(mark)) {
        if (!m_scratch.isClaimed(index) && !isSmallPage(m_info, index)) {
            fault("nobody has the block at page %u", index);
        }
    } else {
        ++m_freeHeads[order];
        const uint64_t buddy = BuddyMath::buddyOf(index, order);
        if (order + 1 < static_cast<int>(m_info->config.orderNum) && buddy < m_info->pageNum &&
            page(static_cast<uint32_t>(buddy)).order == mark) {
            fault("the free block at page %u is not merged", index);
        }
    }
    return static_cast<uint32_t>(length);
}

/// Whether a link of the buddy base leads to the link at `linkInPage` of a descriptor.
bool CCheck::isLinkOfPage(size_t listOffset, size_t linkInPage, uint32_t* index) const
{
    const size_t start = m_info->PageDesHead + linkInPage;
    const size_t distance = listOffset - start;
    *index = static_cast<uint32_t>(distance / sizeof(PageDes));
    return listOffset >= start && distance % sizeof(PageDes) == 0 &&
           distance / sizeof(PageDes) < m_info->pageNum;
}

void CCheck::checkOrderList(uint32_t order)
{
    uint32_t index = 0;
    const uint32_t count = checkRing(
        "order", orderHead(m_info, order), m_info, m_info->pageNum,
        [this, &index, order](size_t at) {
            return isLinkOfPage(at, offsetof(PageDes, list), &index) &&
                   page(index).order == BuddyMath::freeMark(static_cast<int>(order));
        },
        [](size_t) { return true; });
    if (count != m_freeHeads[order]) {
        fault("order %u: %u free blocks, %u of them listed", order, m_freeHeads[order], count);
    }
}

// Small objects ----------------------------------------------------------------------------------

void CCheck::checkSmallPages()
{
    uint32_t pages = 0;
    for (uint32_t i = 0; i < m_info->pageNum; ++i) {
        const uint32_t mask = smallPageDesc(m_info, i)->blockMask;
        if (mask != 0 && !isSmallPage(m_info, i)) {
            fault("page %u has a mask and is no small-object page", i);
        } else if (mask != m_scratch.seen(i)) {
            fault("page %u: mask %08x, linked %08x", i, mask, m_scratch.seen(i));
        }
        if (isSmallPage(m_info, i)) {
            ++pages;
            if (smallPageDesc(m_info, i)->padding != 0) {
                fault("page %u: the padding of its small objects is not 0", i);
            }
        }
    }
    uint32_t index = 0;
    bool wasFull = false;
    const uint32_t count = checkRing(
        "small-object page", m_layout.smallPages(), m_info, m_info->pageNum,
        [this, &index](size_t at) {
            return isLinkOfPage(at, offsetof(PageDes, reserved), &index) &&
                   isSmallPage(m_info, index);
        },
        [this, &index, &wasFull](size_t) {
            const SmallMemPageDesc* const desc = smallPageDesc(m_info, index);
            const bool isFull = desc->blockMask == smallMaskOf(desc->blockNum);
            if (wasFull && !isFull) {
                fault("page %u has room for small objects, and comes after a full one", index);
            }
            wasFull = isFull;
            checkFreeBlocks(index);
            return true;
        });
    if (count != pages) {
        fault("%u small-object pages, %u of them listed", pages, count);
    }
}

void CCheck::checkFreeBlocks(uint32_t index)
{
    const SmallMemPageDesc* const desc = smallPageDesc(m_info, index);
    uint32_t listed = 0;
    checkRing(
        "free block", &desc->freeBlockListHead, m_data, desc->blockNum,
        [desc](size_t at) {
            return at >= desc->offset && at % smallBlockSize == 0 &&
                   (at - desc->offset) / smallBlockSize < desc->blockNum;
        },
        [this, &listed](size_t at) {
            listed |= smallBitOf(m_info, at);
            return true;
        });
    if (listed != (smallMaskOf(desc->blockNum) & ~desc->blockMask)) {
        fault("page %u: mask %08x, free %08x", index, desc->blockMask, listed);
    }
}

} // namespace

size_t checkPool(const Layout& layout, CScratch& scratch, void (*fault)(void*, const char*),
                 void* argument)
{
    return CCheck(layout, scratch, fault, argument).run();
}

} // namespace ShareMem

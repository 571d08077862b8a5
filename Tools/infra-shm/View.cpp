// View.cpp: from records to values.

#include "View.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "Memory/BuddyMath.h"

namespace BuddyMath = Tarsel::Memory::BuddyMath;

namespace
{

constexpr char digits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUV";

/// Asks the system about each process once.
class CLives
{
public:
    explicit CLives(bool areKnown) : m_areKnown(areKnown) {}

    Holder holder(pid_t pid)
    {
        const auto [at, isNew] = m_known.try_emplace(pid, Holder{pid, Life::unknown, "", 0});
        if (isNew && m_areKnown) {
            at->second.life = lifeOf(pid);
            at->second.name = at->second.life == Life::alive ? nameOf(pid) : "";
        }
        return at->second;
    }

private:
    bool m_areKnown;
    std::map<pid_t, Holder> m_known;
};

class CReader
{
public:
    explicit CReader(const CSnapshot& snapshot)
        : m_layout(snapshot.layout()), m_info(m_layout.info), m_lives(!snapshot.isFromFile())
    {}

    PoolView read()
    {
        m_view.config = m_info->config;
        m_view.pageNum = m_info->pageNum;
        m_view.orders.resize(m_info->config.orderNum);
        m_view.picture.assign(m_info->pageNum, '?');
        readPages();
        readNodes();
        return std::move(m_view);
    }

private:
    /// Calls visit() with each link of a ring that leads to a small object `linkInRecord` before it.
    /// No more are visited in all than there can be, whatever the links say.
    template <typename Visit>
    void walk(const List* head, size_t linkInRecord, Visit visit)
    {
        for (size_t at = head->next;
             at >= linkInRecord && isSmallBlock(m_info, at - linkInRecord) && m_visitsLeft > 0;) {
            --m_visitsLeft;
            visit(at);
            at = list_at(m_layout.data, at)->next;
            if (at == head->next) {
                return;
            }
        }
    }

    void readPages();
    uint32_t readBlock(uint32_t page);
    void readNodes();
    void readNode(const BlockReferNode* node);
    std::vector<Holder> holdersOf(const BlockReferNode* node);
    int markOf(uint32_t page) const { return pageDescriptors(m_info)[page].order; }
    uint32_t lengthOf(uint32_t page) const;

    const ShareMem::Layout& m_layout;
    BuddyInfo* const m_info;
    CLives m_lives;
    size_t m_visitsLeft = size_t{m_info->pageNum} * smallBlocksMax;
    PoolView m_view = {};
};

/// Pages of the block that starts here; 0 where none can.
uint32_t CReader::lengthOf(uint32_t page) const
{
    const int mark = markOf(page);
    const int order = mark != 0 ? BuddyMath::orderOfMark(mark) : BuddyMath::noOrder;
    if (order >= static_cast<int>(m_info->config.orderNum)) {
        return 0;
    }
    const uint64_t length = BuddyMath::unitsOf(order);
    return page % length == 0 && length <= m_info->pageNum - page ? static_cast<uint32_t>(length)
                                                                  : 0;
}

void CReader::readPages()
{
    for (uint32_t page = 0; page < m_info->pageNum;) {
        page += readBlock(page);
    }
}

/// The number of pages to go on by.
uint32_t CReader::readBlock(uint32_t page)
{
    const uint32_t length = lengthOf(page);
    if (length == 0) {
        return 1;
    }
    const int mark = markOf(page);
    const size_t orderIndex = static_cast<size_t>(BuddyMath::orderOfMark(mark));
    OrderView& order = m_view.orders[orderIndex];
    if (!BuddyMath::isTaken(mark)) {
        order.freeBlocks.push_back(page);
        m_view.freePages += length;
        m_view.picture.replace(page, length, length, '.');
        m_view.picture[page] = digits[orderIndex];
        return length;
    }
    ++order.taken;
    if (isSmallPage(m_info, page)) {
        const SmallMemPageDesc* const desc = smallPageDesc(m_info, page);
        m_view.smallPages.push_back(
            {page, desc->blockNum, static_cast<uint32_t>(__builtin_popcount(desc->blockMask))});
        m_view.picture[page] = 'o';
    }
    return length;
}

void CReader::readNodes()
{
    walk(m_layout.nodes(), offsetof(BlockReferNode, referListNode),
         [this](size_t at) { readNode(nodeAt(m_layout.data, at)); });
    std::sort(m_view.blocks.begin(), m_view.blocks.end(),
              [](const Block& a, const Block& b) { return a.page < b.page; });
}

void CReader::readNode(const BlockReferNode* node)
{
    const size_t page = node->offset >> m_info->pageShift;
    if (page >= m_info->pageNum || !BuddyMath::isTaken(markOf(static_cast<uint32_t>(page)))) {
        return;
    }
    const uint32_t index = static_cast<uint32_t>(page);
    const uint32_t length = lengthOf(index);
    const Block block = {index, length, holdersOf(node), node->deliverRefer, node->expireCount};
    const bool isHeld = std::any_of(block.holders.begin(), block.holders.end(),
                                    [](const Holder& one) { return one.life != Life::dead; });
    const char sign = isHeld                   ? '#'
                      : !block.holders.empty() ? 'x'
                      : block.handOvers != 0   ? '>'
                                               : '?';
    m_view.picture.replace(index, length, length, sign);
    m_view.blocks.push_back(block);
}

std::vector<Holder> CReader::holdersOf(const BlockReferNode* node)
{
    std::vector<Holder> holders;
    walk(&node->pidListHead, 0, [&](size_t at) {
        const pid_t pid = reinterpret_cast<const PidNode*>(m_layout.data + at)->pid;
        const auto known = std::find_if(holders.begin(), holders.end(),
                                        [pid](const Holder& one) { return one.pid == pid; });
        Holder& holder =
            known != holders.end() ? *known : holders.emplace_back(m_lives.holder(pid));
        ++holder.references;
    });
    return holders;
}

/// One character for several: what needs attention wins.
char joined(std::string_view signs)
{
    for (const char urgent : {'?', 'x', '>'}) {
        if (signs.find(urgent) != std::string_view::npos) {
            return urgent;
        }
    }
    const auto isFree = [](char sign) { return sign == '.' || strchr(digits, sign) != nullptr; };
    if (std::all_of(signs.begin(), signs.end(), isFree)) {
        return signs.front();
    }
    return signs.find_first_not_of(signs.front()) == std::string_view::npos ? signs.front() : ':';
}

} // namespace

PoolView viewOf(const CSnapshot& snapshot)
{
    return CReader(snapshot).read();
}

std::string shrinkPicture(const std::string& picture, size_t most, size_t* group)
{
    *group = 1;
    while ((picture.size() + *group - 1) / *group > most) {
        *group *= 2;
    }
    std::string shrunk;
    for (size_t at = 0; at < picture.size(); at += *group) {
        shrunk += joined(std::string_view(picture).substr(at, *group));
    }
    return shrunk;
}

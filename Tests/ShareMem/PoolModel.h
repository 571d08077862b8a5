#ifndef INFRA_TESTS_SHAREMEM_POOLMODEL_H
#define INFRA_TESTS_SHAREMEM_POOLMODEL_H

// The two segments of a pool, byte for byte, by the plainest program that keeps to the format. It
// has nothing from the library: all places are written out, and what is looked for is looked for
// from the beginning of its list.
//
//     control: 0 mutexes | 128 references | 152 small objects | 176 pages: 184 their data, 224 order
//              heads (16 each), page descriptors (72 each: number, mark, link, private area)
//     link: prev, next (8 each); in a head prev stays all ones

#include <sys/types.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace Tarsel
{
namespace TestSupport
{

class CPoolModel
{
public:
    static constexpr size_t zones[] = {0, 128, 152, 176}; ///< each begins with its length

    CPoolModel(uint32_t pageSize, uint32_t pageNum, uint32_t orderCap)
        : m_pageSize(pageSize), m_pageNum(pageNum), m_data(size_t{pageSize} * pageNum / 8)
    {
        for (; pageNum >> m_orders != 0 && m_orders != orderCap; ++m_orders) {
        }
        const uint32_t pagesAt = 40 + 16 * m_orders;
        m_control.resize((184 + pagesAt + 72 * pageNum) / 8);
        const uint32_t lengths[] = {128, 24, 24, pagesAt + 72 * pageNum + 8};
        for (int i = 0; i < 4; ++i) {
            u32(control() + zones[i]) = lengths[i];
            u32(control() + zones[i] + 4) = 0x12345678;
        }
        const uint32_t info[] = {pageSize * pageNum, pageSize, m_orders, pageNum,
                                 static_cast<uint32_t>(__builtin_ctz(pageSize))};
        memcpy(base(), info, sizeof(info));
        u64(base() + 24) = 40;
        u64(base() + 32) = pagesAt;
        memset(nodes(), 0xFF, 16);
        memset(smallPages(), 0xFF, 16);
        memset(orderHead(0), 0xFF, 16 * m_orders);
        for (uint32_t i = 0; i < pageNum; ++i) {
            u32(page(i)) = i;
            memset(page(i) + 8, 0xFF, 16);
        }
        for (uint32_t k = m_orders, start = 0; k-- > 0;) {
            for (; pageNum - start >= 1u << k; start += 1u << k) {
                listFree(start, k);
            }
        }
    }

    uint8_t* control() { return reinterpret_cast<uint8_t*>(m_control.data()); }
    uint8_t* data() { return reinterpret_cast<uint8_t*>(m_data.data()); }
    size_t controlSize() const { return m_control.size() * 8; }
    size_t dataSize() const { return m_data.size() * 8; }

    /// A block with one reference; its offset.
    uint64_t take(uint64_t size, pid_t pid)
    {
        const uint64_t block = takePages(size);
        refer(block, pid);
        return block;
    }
    void refer(uint64_t block, pid_t pid)
    {
        uint64_t node = findNode(block);
        if (node == none) {
            node = takeSmall();
            u64(data() + node) = block;
            u64(data() + node + 8) = 0; // hand-overs, passes left
            memset(data() + node + 32, 0xFF, 16);
            insert(nodes(), data(), node + 16);
            u64(privateOf(block)) = node; // the hint
        }
        const uint64_t entry = takeSmall();
        u32(data() + entry + 16) = static_cast<uint32_t>(pid);
        insert(data() + node + 32, data(), entry);
    }
    void release(uint64_t block, pid_t pid)
    {
        const uint64_t node = findNode(block);
        if (dropEntry(node, pid) && isUnused(node)) {
            dropNode(node);
            giveBack(block);
        }
    }
    void reclaim(pid_t pid)
    {
        for (const uint64_t node : allNodes()) {
            if (dropEntry(node, pid) && isUnused(node)) {
                giveBack(u64(data() + node));
                dropNode(node);
            }
        }
    }
    void handOver(uint64_t block)
    {
        const uint64_t node = findNode(block);
        ++u32(data() + node + 8);
        u32(data() + node + 12) = 2;
    }
    void endHandOver(uint64_t block)
    {
        uint32_t& count = u32(data() + findNode(block) + 8);
        count -= count != 0 ? 1 : 0;
    }
    /// A block that was held while it expired goes with the first pass that finds it without holder.
    void expire()
    {
        for (const uint64_t node : allNodes()) {
            const uint32_t left = u32(data() + node + 8) != 0 ? --u32(data() + node + 12) : 1;
            if ((left == 0 || left >= 0x80000000) && u64(data() + node + 40) == none) {
                giveBack(u64(data() + node));
                dropNode(node);
            }
        }
    }

private:
    static constexpr uint64_t none = ~uint64_t{0};

    static uint32_t& u32(uint8_t* at) { return *reinterpret_cast<uint32_t*>(at); }
    static uint64_t& u64(uint8_t* at) { return *reinterpret_cast<uint64_t*>(at); }

    uint8_t* base() { return control() + 184; }
    uint8_t* nodes() { return control() + 136; }
    uint8_t* smallPages() { return control() + 160; }
    uint8_t* orderHead(uint32_t k) { return base() + 40 + 16 * k; }
    uint8_t* page(uint64_t i) { return orderHead(m_orders) + 72 * i; }
    uint32_t& mark(uint64_t i) { return u32(page(i) + 4); }
    uint8_t* privateOf(uint64_t offset) { return page(offset / m_pageSize) + 24; }
    uint64_t inBase(uint8_t* at) { return static_cast<uint64_t>(at - base()); }

    static void insert(uint8_t* head, uint8_t* from, uint64_t element)
    {
        const uint64_t first = u64(head + 8) == none ? element : u64(head + 8);
        const uint64_t last = first == element ? element : u64(from + first);
        u64(from + element) = last;
        u64(from + element + 8) = first;
        u64(from + last + 8) = u64(from + first) = u64(head + 8) = element;
    }
    /// The element's own links stay.
    static void remove(uint8_t* head, uint8_t* from, uint64_t element)
    {
        const uint64_t prev = u64(from + element);
        const uint64_t next = u64(from + element + 8);
        if (u64(head + 8) == element) {
            u64(head + 8) = next == element ? none : next;
        }
        if (next != element) {
            u64(from + prev + 8) = next;
            u64(from + next) = prev;
        }
    }

    void listFree(uint64_t i, uint32_t k)
    {
        mark(i) = k + 1;
        insert(orderHead(k), base(), inBase(page(i) + 8));
    }
    void unlistFree(uint64_t i)
    {
        remove(orderHead(mark(i) - 1), base(), inBase(page(i) + 8));
        mark(i) = 0;
    }
    uint64_t takePages(uint64_t size)
    {
        uint32_t wanted = 0;
        for (; uint64_t{m_pageSize} << wanted < size; ++wanted) {
        }
        uint32_t k = wanted;
        for (; u64(orderHead(k) + 8) == none; ++k) {
        }
        uint64_t i = (u64(orderHead(k) + 8) - inBase(page(0) + 8)) / 72;
        unlistFree(i);
        while (k > wanted) {
            listFree(i, --k); // the lower half
            i += 1u << k;
        }
        mark(i) = -(k + 1);
        return i * m_pageSize;
    }
    void giveBack(uint64_t block)
    {
        uint64_t i = block / m_pageSize;
        uint32_t k = -mark(i) - 1;
        mark(i) = 0;
        for (; k + 1 < m_orders; ++k) {
            const uint64_t buddy = i ^ 1u << k;
            if (buddy >= m_pageNum || mark(buddy) != k + 1) {
                break;
            }
            unlistFree(buddy);
            i &= buddy;
        }
        listFree(i, k);
    }

    // A page's private area: link, head of its free blocks, number of blocks, mask, offset. Pages
    // without room are last.

    static bool hasRoom(uint8_t* area) { return u64(area + 24) != none; }

    uint64_t takeSmall()
    {
        if (u64(smallPages() + 8) == none || !hasRoom(base() + u64(smallPages() + 8))) {
            makeSmallPage();
        }
        uint8_t* const area = base() + u64(smallPages() + 8);
        const uint64_t block = u64(area + 24);
        remove(area + 16, data(), block);
        u32(area + 36) |= 1u << block % m_pageSize / 64;
        if (!hasRoom(area)) {
            u64(smallPages() + 8) = u64(area + 8);
        }
        return block;
    }
    void makeSmallPage()
    {
        const uint64_t offset = takePages(1024);
        uint8_t* const area = privateOf(offset);
        const uint32_t info[] = {m_pageSize / 64, 0, static_cast<uint32_t>(offset)};
        memcpy(area + 32, info, sizeof(info));
        memset(area + 16, 0xFF, 16);
        for (uint32_t block = 0; block < m_pageSize / 64; ++block) {
            insert(area + 16, data(), offset + block * 64);
        }
        insert(smallPages(), base(), inBase(area));
    }
    void giveSmall(uint64_t block)
    {
        uint8_t* const area = privateOf(block);
        const bool hadRoom = hasRoom(area);
        u32(area + 36) &= ~(1u << block % m_pageSize / 64);
        if (u32(area + 36) == 0) {
            remove(smallPages(), base(), inBase(area));
            giveBack(block / m_pageSize * m_pageSize);
            return;
        }
        insert(area + 16, data(), block);
        if (!hadRoom) {
            remove(smallPages(), base(), inBase(area));
            insert(smallPages(), base(), inBase(area));
        }
    }

    // A node: block, hand-overs, passes left, link, head of its entries. An entry: link, process.

    std::vector<uint64_t> allNodes()
    {
        std::vector<uint64_t> all;
        for (uint64_t at = u64(nodes() + 8); at != none && (all.empty() || at - 16 != all[0]);
             at = u64(data() + at + 8)) {
            all.push_back(at - 16);
        }
        return all;
    }
    uint64_t findNode(uint64_t block)
    {
        for (const uint64_t node : allNodes()) {
            if (u64(data() + node) == block) {
                return node;
            }
        }
        return none;
    }
    bool dropEntry(uint64_t node, pid_t pid)
    {
        const uint64_t first = u64(data() + node + 40);
        uint64_t at = first;
        while (at != none && u32(data() + at + 16) != static_cast<uint32_t>(pid)) {
            at = u64(data() + at + 8) == first ? none : u64(data() + at + 8);
        }
        if (at != none) {
            remove(data() + node + 32, data(), at);
            giveSmall(at);
        }
        return at != none;
    }
    bool isUnused(uint64_t node)
    {
        return u64(data() + node + 40) == none && u32(data() + node + 8) == 0;
    }
    void dropNode(uint64_t node)
    {
        remove(nodes(), data(), node + 16);
        giveSmall(node);
    }

    uint32_t m_pageSize;
    uint32_t m_pageNum;
    uint32_t m_orders = 1;
    std::vector<uint64_t> m_control;
    std::vector<uint64_t> m_data;
};

} // namespace TestSupport
} // namespace Tarsel

#endif

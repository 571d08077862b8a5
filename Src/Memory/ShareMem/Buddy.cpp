// Buddy.cpp: the page allocator.
//
// The order of stores: what is handed out has a negative mark as the very last step of malloc(), and
// none any more as the first step of free(). So whenever a process dies, each page is either a
// living block or to be found in no living block, and the lists can be made anew from that.

#include "Memory/ShareMem/Buddy.h"

#include <algorithm>

#include "Infra3/AssertFront.h"
#include "Memory/BuddyMath.h"
#include "Memory/ShareMem/Publish.h"
#include "Memory/ShareMem/Report.h"

namespace BuddyMath = Tarsel::Memory::BuddyMath;
using ShareMem::report;

namespace
{

constexpr int failed = -1;

// Pages ------------------------------------------------------------------------------------------

BuddyInfo* infoOf(const Buddy* buddy)
{
    INFRA_SYSTEM_ASSERT_TEXT(buddy != nullptr && buddy->priv != nullptr,
                             "buddy != ((void *)0) && buddy->priv != ((void *)0)");
    return reinterpret_cast<BuddyInfo*>(buddy->priv->zone);
}

uint32_t ordersFor(const BuddyConfig& config)
{
    const uint32_t pageNum = config.dataSize / config.pageSize;
    const uint32_t possible = shareMem_log2i(pageNum) + 1;
    return config.orderNum != 0 ? std::min(possible, config.orderNum) : possible;
}

void insertFreeBlock(BuddyInfo* info, uint32_t idx, int order)
{
    PageDes& page = pageDescriptors(info)[idx];
    publish(page.order, BuddyMath::freeMark(order));
    list_insert(orderHead(info, static_cast<uint32_t>(order)), &page.list, info);
}

void removeFreeBlock(BuddyInfo* info, uint32_t idx, int order)
{
    PageDes& page = pageDescriptors(info)[idx];
    publish(page.order, 0);
    list_remove(orderHead(info, static_cast<uint32_t>(order)), &page.list, info);
}

/// The page that heads the block whose list offset this is.
uint32_t pageAt(BuddyInfo* info, size_t listOffset)
{
    const size_t first = info->PageDesHead + offsetof(PageDes, list);
    return static_cast<uint32_t>((listOffset - first) / sizeof(PageDes));
}

/// 1: the offset of a block that is handed out; 0: of a free block; -1: of none, and why.
int checkBlock(BuddyInfo* info, size_t offset)
{
    if (offset == noOffset) {
        return failed;
    }
    if ((offset & (size_t{info->config.pageSize} - 1)) != 0) {
        report("[%s:%d]Unaligned offset[%zu].\n", __func__, __LINE__, offset);
        return failed;
    }
    const size_t idx = offset >> info->pageShift;
    if (idx >= info->pageNum) {
        report("[%s:%d]curIdx %u greater than maxIdx %u.\n", __func__, __LINE__,
               static_cast<unsigned>(idx), info->pageNum);
        return failed;
    }
    const int mark = peek(pageDescriptors(info)[idx].order); // others may be inside
    if (mark == 0) {
        report("[%s:%d]curIdx %u is not a boundary of block allocated.\n", __func__, __LINE__,
               static_cast<unsigned>(idx));
        return failed;
    }
    return BuddyMath::isTaken(mark) ? 1 : 0;
}

// Operations -------------------------------------------------------------------------------------

/// The first order from `order` on whose list has a block; the number of orders if there is none.
uint32_t firstOrderFrom(BuddyInfo* info, uint64_t order)
{
    uint32_t found = static_cast<uint32_t>(std::min<uint64_t>(order, info->config.orderNum));
    while (found < info->config.orderNum && list_empty(orderHead(info, found)) != 0) {
        ++found;
    }
    return found;
}

/// Halves the first block of list `from` down to order `to`; the upper half goes on each time.
uint32_t takeBlock(BuddyInfo* info, int from, int to)
{
    uint32_t idx = pageAt(info, orderHead(info, static_cast<uint32_t>(from))->next);
    removeFreeBlock(info, idx, from);
    for (int order = from; order > to;) {
        --order;
        insertFreeBlock(info, idx, order);
        idx += static_cast<uint32_t>(BuddyMath::unitsOf(order));
    }
    publish(pageDescriptors(info)[idx].order, BuddyMath::takenMark(to)); // from here on it is out
    return idx;
}

void* buddyMalloc(Buddy* buddy, size_t* size)
{
    BuddyInfo* const info = infoOf(buddy);
    if (*size == 0) {
        return nullptr;
    }
    const uint64_t wanted = BuddyMath::orderFor(*size, static_cast<int>(info->pageShift));
    const uint32_t from = firstOrderFrom(info, wanted);
    if (from == info->config.orderNum) {
        report("[%s:%d]order %d greater than orderNum %d malloc size[%zu].\n", "malloc", __LINE__,
               static_cast<int>(std::max<uint64_t>(wanted, from)),
               static_cast<int>(info->config.orderNum), *size);
        return nullptr;
    }
    const int order = static_cast<int>(wanted);
    const uint32_t idx = takeBlock(info, static_cast<int>(from), order);
    const size_t offset = size_t{idx} << info->pageShift;
    buddy->priv->freshOffset = offset;
    buddy->priv->freshEpoch = processMutexEpoch();
    *size = size_t{info->config.pageSize} << order;
    return buddy->priv->data + offset;
}

void mergeBlock(BuddyInfo* info, uint32_t idx, int order)
{
    const int top = static_cast<int>(info->config.orderNum) - 1;
    for (; order < top; ++order) {
        const uint64_t neighbour = BuddyMath::buddyOf(idx, order);
        if (neighbour >= info->pageNum ||
            pageDescriptors(info)[neighbour].order != BuddyMath::freeMark(order)) {
            break;
        }
        removeFreeBlock(info, static_cast<uint32_t>(neighbour), order);
        idx = static_cast<uint32_t>(BuddyMath::pairHead(idx, order));
    }
    insertFreeBlock(info, idx, order);
}

size_t offsetOf(const Buddy* buddy, const void* ptr)
{
    return reinterpret_cast<uintptr_t>(ptr) - reinterpret_cast<uintptr_t>(buddy->priv->data);
}

int buddyFree(Buddy* buddy, void* ptr)
{
    BuddyInfo* const info = infoOf(buddy);
    if (ptr == nullptr) {
        return 0;
    }
    const size_t offset = offsetOf(buddy, ptr);
    const int check = checkBlock(info, offset);
    if (check != 1) {
        report("[%s:%d]Buddy check failed with ret [%d],offset[%zu].\n", "free", __LINE__, check,
               offset);
        return failed;
    }
    forgetFreshBlock(buddy);
    const uint32_t idx = static_cast<uint32_t>(offset >> info->pageShift);
    const int order = BuddyMath::orderOfMark(pageDescriptors(info)[idx].order);
    publish(pageDescriptors(info)[idx].order, 0); // from here on it is nobody's
    mergeBlock(info, idx, order);
    return 0;
}

int buddyGetOffset(Buddy* buddy, void* ptr, size_t* offset)
{
    BuddyInfo* const info = infoOf(buddy);
    if (ptr == nullptr) {
        return failed;
    }
    *offset = offsetOf(buddy, ptr);
    const int check = checkBlock(info, *offset);
    if (check != 1) {
        report("[%s:%d]Buddy check failed with ret [%d],ptr [%p],offset[%zu].\n", "getOffset",
               __LINE__, check, ptr, *offset);
        return failed;
    }
    return 0;
}

void* buddyGetAddress(Buddy* buddy, size_t offset)
{
    const int check = checkBlock(infoOf(buddy), offset);
    if (check != 1) {
        report("[%s:%d]Buddy check failed with ret [%d],offset [%zu].\n", "getAddress", __LINE__,
               check, offset);
        return nullptr;
    }
    return buddy->priv->data + offset;
}

const void* buddyGetDataBaseAddr(Buddy* buddy)
{
    infoOf(buddy);
    return buddy->priv->data;
}

void* buddyGetPriv(Buddy* buddy, void* ptr, size_t* size)
{
    BuddyInfo* const info = infoOf(buddy);
    const size_t idx = offsetOf(buddy, ptr) >> info->pageShift;
    if (idx >= info->pageNum) {
        return nullptr;
    }
    *size = pagePrivateSize;
    return pageDescriptors(info)[idx].reserved;
}

const void* buddyGetPrivBaseAddr(Buddy* buddy)
{
    return infoOf(buddy);
}

// Figures ----------------------------------------------------------------------------------------

/// The list's links are followed as they are at this moment, which may be in the middle of a change:
/// a link that leads nowhere, and more steps than there are pages, end the walk.
void printOrder(BuddyInfo* info, uint32_t order)
{
    uint8_t* const base = reinterpret_cast<uint8_t*>(info);
    const size_t first = peek(orderHead(info, order)->next);
    size_t at = first;
    for (uint32_t step = 0; step < info->pageNum; ++step) {
        const uint32_t idx = pageAt(info, at);
        PageDes& page = pageDescriptors(info)[std::min(idx, info->pageNum - 1)];
        if (at == noOffset || reinterpret_cast<uint8_t*>(&page.list) != base + at) {
            return;
        }
        const size_t prev = peek(page.list.prev);
        const size_t next = peek(page.list.next);
        report("Orderlist(%2d) Idx(%5d) Self(%p) Order(%4d) Prev(%6zu)(%p) Next(%6zu)(%p)\n",
               static_cast<int>(order), static_cast<int>(page.idx), static_cast<void*>(&page),
               peek(page.order), prev, static_cast<void*>(list_at(base, prev)), next,
               static_cast<void*>(list_at(base, next)));
        at = next;
        if (at == first) {
            return;
        }
    }
}

void buddyPrintNodeInfo(Buddy* buddy)
{
    BuddyInfo* const info = infoOf(buddy);
    for (uint32_t order = 0; order < info->config.orderNum; ++order) {
        printOrder(info, order);
    }
}

/// From block to block by their marks, which needs no link to be whole.
size_t buddyGetFreeSize(Buddy* buddy)
{
    BuddyInfo* const info = infoOf(buddy);
    uint64_t freePages = 0;
    uint32_t length = 1;
    for (uint64_t idx = 0; idx < info->pageNum; idx += length) {
        const int mark = peek(pageDescriptors(info)[idx].order);
        length = blockLengthOf(info, mark);
        freePages += mark > 0 ? length : 0;
    }
    return freePages * info->config.pageSize;
}

size_t buddyGetTotalSize(Buddy* buddy)
{
    const BuddyInfo* const info = infoOf(buddy);
    return size_t{info->pageNum} * info->config.pageSize;
}

int buddyDestroy(Buddy* buddy)
{
    infoOf(buddy);
    gloMemOperation.freeMem(buddy->priv);
    gloMemOperation.freeMem(buddy);
    return 0;
}

// Making -----------------------------------------------------------------------------------------

void initPages(BuddyInfo* info, const BuddyConfig& config)
{
    const uint32_t pageNum = config.dataSize / config.pageSize;
    const uint32_t orders = ordersFor(config);
    publish(info->config.dataSize, config.dataSize);
    publish(info->config.pageSize, config.pageSize);
    publish(info->config.orderNum, orders);
    publish(info->pageShift, shareMem_log2i(config.pageSize));
    publish(info->OrderNodeHead, sizeof(BuddyInfo));
    publish(info->PageDesHead, sizeof(BuddyInfo) + sizeof(OrderNode) * orders);
    for (uint32_t order = 0; order < orders; ++order) {
        list_init(orderHead(info, order), nullptr);
    }
    for (uint32_t i = 0; i < pageNum; ++i) {
        PageDes& page = pageDescriptors(info)[i];
        publish(page.idx, i);
        publish(page.order, 0);
        list_init(&page.list, nullptr);
    }
    listFreePages(info, 0, pageNum);
    publish(info->pageNum, pageNum); // until here it can begin again
}

void initZone(const BuddyConfig& config, ZoneHead* head)
{
    const uint32_t shift = shareMem_log2i(config.pageSize);
    INFRA_SYSTEM_ASSERT_TEXT(config.pageSize != 0 && config.dataSize != 0,
                             "config.pageSize != 0 && config.dataSize != 0");
    INFRA_SYSTEM_ASSERT_TEXT(config.dataSize >= config.pageSize,
                             "config.dataSize >= config.pageSize");
    INFRA_SYSTEM_ASSERT_TEXT(config.pageSize == uint32_t{1} << shift,
                             "config.pageSize == (1 << shift)");
    BuddyInfo* const info = reinterpret_cast<BuddyInfo*>(head->zoneData);
    if (info->pageNum == 0) {
        initPages(info, config);
    }
    publish(head->initFlag, zoneReady);
}

} // namespace

void listFreePages(BuddyInfo* info, uint32_t start, uint32_t end)
{
    const int top = static_cast<int>(info->config.orderNum) - 1;
    while (start < end) {
        const int aligned = start != 0 ? __builtin_ctz(start) : top;
        const int order = std::min({aligned, BuddyMath::log2Floor(end - start), top});
        const uint32_t units = static_cast<uint32_t>(BuddyMath::unitsOf(order));
        for (uint32_t inner = start + 1; inner < start + units; ++inner) {
            if (pageDescriptors(info)[inner].order != 0) {
                publish(pageDescriptors(info)[inner].order, 0);
            }
        }
        insertFreeBlock(info, start, order);
        start += units;
    }
}

size_t getBuddyZoneSize(BuddyConfig config)
{
    INFRA_SYSTEM_ASSERT_TEXT(config.pageSize > 0 && config.dataSize > 0,
                             "config.pageSize > 0 && config.dataSize > 0");
    const size_t pageNum = config.dataSize / config.pageSize;
    return getAlignedSize(
        pageNum * sizeof(PageDes) + ordersFor(config) * sizeof(OrderNode) + sizeof(BuddyInfo), 8);
}

int createBuddy(BuddyConfig config, ZoneHead* head, uint8_t* data, Buddy** buddy)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr && data != nullptr && buddy != nullptr,
                             "head != ((void *)0) && data != ((void *)0) && buddy != ((void *)0)");
    if (head->initFlag != zoneReady) {
        initZone(config, head);
    }
    Buddy* const made = static_cast<Buddy*>(gloMemOperation.allocMem(sizeof(Buddy)));
    BuddyPrivateData* const priv =
        made != nullptr
            ? static_cast<BuddyPrivateData*>(gloMemOperation.allocMem(sizeof(BuddyPrivateData)))
            : nullptr;
    if (priv == nullptr) {
        report("[%s:%d]malloc failed.\n", __func__, __LINE__);
        if (made != nullptr) {
            gloMemOperation.freeMem(made);
        }
        return failed;
    }
    *priv = {data, head->zoneData, noOffset, 0};
    *made = {buddyMalloc,          buddyFree,         buddyGetOffset,       buddyGetAddress,
             buddyGetDataBaseAddr, buddyGetPriv,      buddyGetPrivBaseAddr, buddyPrintNodeInfo,
             buddyGetFreeSize,     buddyGetTotalSize, buddyDestroy,         priv};
    *buddy = made;
    return 0;
}

bool isFreshBlock(const Buddy* buddy, size_t offset)
{
    return buddy->priv->freshOffset == offset && buddy->priv->freshEpoch == processMutexEpoch();
}

void forgetFreshBlock(Buddy* buddy)
{
    buddy->priv->freshOffset = noOffset;
}

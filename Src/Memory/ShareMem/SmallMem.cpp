// SmallMem.cpp: the small-object allocator.
//
// Only the first page of the list is looked at: it has room, or none has. A page that fills goes to
// the end, which is one store, because the pages form a ring; a full one that gets a block back
// goes to second place, behind the one that is being used up, or to the front if that one is full.
//
// The order of stores: a bit is set before its block is filled and linked, and cleared after it was
// unlinked. So at any moment a linked block has its bit set.

#include "Memory/ShareMem/SmallMem.h"

#include <algorithm>

#include "Infra3/AssertFront.h"
#include "Memory/BuddyMath.h"
#include "Memory/ShareMem/Publish.h"
#include "Memory/ShareMem/Report.h"

using ShareMem::report;

namespace
{

constexpr int failed = -1;
constexpr size_t pageRequest = 1024;

struct Access
{
    BuddyInfo* info;
    uint8_t* data;
    List* pages;

    explicit Access(const SmallMemPrivData& priv)
        : info(reinterpret_cast<BuddyInfo*>(priv.privBaseAddr)),
          data(priv.dataBaseAddr),
          pages(&priv.smallMemZone->smallListHead)
    {}

    SmallMemPageDesc* firstPage() const
    {
        return list_empty(pages) != 0
                   ? nullptr
                   : reinterpret_cast<SmallMemPageDesc*>(list_at(info, pages->next));
    }
};

bool hasRoom(SmallMemPageDesc* page)
{
    return page != nullptr && list_empty(&page->freeBlockListHead) == 0;
}

// Taking -----------------------------------------------------------------------------------------

/// The private area of a page just handed out, and its offset; null, and the page is back.
SmallMemPageDesc* describePage(Buddy* buddy, void* page, size_t* offset)
{
    size_t size = 0;
    void* const area = buddy->getPriv(buddy, page, &size);
    if (area == nullptr || size < sizeof(SmallMemPageDesc)) {
        buddy->free(buddy, page);
        report("[%s:%d]buddy free failed!\n", "createPage", __LINE__);
        return nullptr;
    }
    if (buddy->getOffset(buddy, page, offset) != 0) {
        buddy->free(buddy, page);
        report("[%s:%d]buddy get offset failed!\n", "createPage", __LINE__);
        return nullptr;
    }
    return static_cast<SmallMemPageDesc*>(area);
}

/// A new page, first in the list, all blocks free; null without one.
SmallMemPageDesc* createPage(const SmallMemPrivData& priv)
{
    const Access access(priv);
    if (smallBlocksPerPage(access.info) == 0) {
        return nullptr;
    }
    size_t size = std::min<size_t>(pageRequest, access.info->config.pageSize);
    void* const page = priv.buddy->malloc(priv.buddy, &size);
    if (page == nullptr) {
        report("[%s:%d]buddy malloc failed!\n", __func__, __LINE__);
        return nullptr;
    }
    size_t offset = 0;
    SmallMemPageDesc* const desc = describePage(priv.buddy, page, &offset);
    if (desc == nullptr) {
        return nullptr;
    }
    publish(desc->blockMask, 0);
    publish(desc->blockNum, smallBlocksPerPage(access.info));
    publish(desc->offset, static_cast<uint32_t>(offset));
    listFreeSmallBlocks(access.info, access.data,
                        static_cast<uint32_t>(offset >> access.info->pageShift));
    list_insert(access.pages, &desc->list, access.info);
    return desc;
}

void* takeBlock(const Access& access, SmallMemPageDesc* page)
{
    const size_t offset = page->freeBlockListHead.next;
    uint8_t* const block = access.data + offset;
    list_remove(&page->freeBlockListHead, reinterpret_cast<List*>(block), access.data);
    publish(page->blockMask,
            page->blockMask | uint32_t{1} << ((offset - page->offset) / smallBlockSize));
    if (!hasRoom(page)) {
        publish(access.pages->next, page->list.next); // to the end
    }
    return block;
}

void* allocSmallMem(SmallMem* smallMem, size_t size)
{
    INFRA_SYSTEM_ASSERT_TEXT(smallMem != nullptr, "smallMem != ((void *)0)");
    if (smallMem->priv == nullptr) {
        report("[%s:%d]get private data failed!\n", __func__, __LINE__);
        return nullptr;
    }
    if (size > smallBlockSize) {
        report("[%s:%d]inter alloc mem failed!\n", __func__, __LINE__);
        return nullptr;
    }
    const Access access(*smallMem->priv);
    SmallMemPageDesc* page = access.firstPage();
    if (!hasRoom(page)) {
        page = createPage(*smallMem->priv);
    }
    if (page == nullptr) {
        report("[%s:%d]create new page failed!\n", __func__, __LINE__);
        return nullptr;
    }
    return takeBlock(access, page);
}

// Giving back ------------------------------------------------------------------------------------

/// The number of the block at `offset` in its page; -1, and why, when there is none in use.
int blockToFree(const Access& access, const SmallMemPageDesc* page, size_t offset)
{
    const size_t inPage = offset - page->offset;
    const size_t index = inPage / smallBlockSize;
    if (index >= std::min(page->blockNum, smallBlocksMax)) {
        report("[%s:%d]block index error!\n", "freeSmallMem", __LINE__);
        return failed;
    }
    if ((page->blockMask >> index & 1) == 0) {
        report("[%s:%d]block error, current idle!\n", "freeSmallMem", __LINE__);
        return failed;
    }
    if (inPage % smallBlockSize != 0) {
        report("[%s:%d]block index error!\n", "freeSmallMem", __LINE__);
        return failed;
    }
    if (!isSmallBlock(access.info, offset)) {
        report("[%s:%d]block error, current idle!\n", "freeSmallMem", __LINE__);
        return failed;
    }
    return static_cast<int>(index);
}

void givePageBack(const SmallMemPrivData& priv, SmallMemPageDesc* page)
{
    const Access access(priv);
    list_remove(access.pages, &page->list, access.info);
    priv.buddy->free(priv.buddy, access.data + page->offset);
}

/// A page that was full and has room now goes before all full ones.
void movePageForward(const Access& access, SmallMemPageDesc* page)
{
    list_remove(access.pages, &page->list, access.info);
    SmallMemPageDesc* const first = access.firstPage();
    if (!hasRoom(first)) {
        list_insert(access.pages, &page->list, access.info);
        return;
    }
    List behindFirst = {noOffset, first->list.next}; // a head of the same ring
    list_insert(&behindFirst, &page->list, access.info);
}

int freeSmallMem(SmallMem* smallMem, void* ptr)
{
    INFRA_SYSTEM_ASSERT_TEXT(smallMem != nullptr, "smallMem != ((void *)0)");
    if (smallMem->priv == nullptr) {
        report("[%s:%d]get private data failed!\n", __func__, __LINE__);
        return failed;
    }
    const SmallMemPrivData& priv = *smallMem->priv;
    const Access access(priv);
    size_t size = 0;
    void* const area = priv.buddy->getPriv(priv.buddy, ptr, &size);
    if (area == nullptr || size < sizeof(SmallMemPageDesc)) {
        report("[%s:%d]buddy get private data failed!\n", __func__, __LINE__);
        return failed;
    }
    SmallMemPageDesc* const page = static_cast<SmallMemPageDesc*>(area);
    const size_t offset =
        reinterpret_cast<uintptr_t>(ptr) - reinterpret_cast<uintptr_t>(access.data);
    const int index = blockToFree(access, page, offset);
    if (index < 0) {
        return failed;
    }
    const bool wasFull = !hasRoom(page);
    publish(page->blockMask, page->blockMask & ~(uint32_t{1} << index));
    if (page->blockMask == 0) {
        givePageBack(priv, page);
        return 0;
    }
    list_insert(&page->freeBlockListHead, static_cast<List*>(ptr), access.data);
    if (wasFull) {
        movePageForward(access, page);
    }
    return 0;
}

// The handle -------------------------------------------------------------------------------------

void* getDataBaseAddr(SmallMem* smallMem)
{
    INFRA_SYSTEM_ASSERT_TEXT(smallMem != nullptr, "smallMem != ((void *)0)");
    if (smallMem->priv == nullptr) {
        report("[%s:%d]get private data failed!\n", __func__, __LINE__);
        return nullptr;
    }
    INFRA_SYSTEM_ASSERT_TEXT(smallMem->priv->dataBaseAddr != nullptr,
                             "smallMem->priv->dataBaseAddr != ((void *)0)");
    return smallMem->priv->dataBaseAddr;
}

int destroy(SmallMem* smallMem)
{
    INFRA_SYSTEM_ASSERT_TEXT(smallMem != nullptr, "smallMem != ((void *)0)");
    if (smallMem->priv != nullptr) {
        gloMemOperation.freeMem(smallMem->priv);
    }
    gloMemOperation.freeMem(smallMem);
    return 0;
}

} // namespace

/// In ascending order, each in front, so that the last block is handed out first.
void listFreeSmallBlocks(BuddyInfo* info, uint8_t* data, uint32_t page)
{
    SmallMemPageDesc* const desc = smallPageDesc(info, page);
    list_init(&desc->freeBlockListHead, nullptr);
    for (uint32_t i = 0; i < desc->blockNum; ++i) {
        if ((desc->blockMask >> i & 1) == 0) {
            uint8_t* const block = data + desc->offset + i * smallBlockSize;
            list_insert(&desc->freeBlockListHead, reinterpret_cast<List*>(block), data);
        }
    }
}

size_t getSmallMemZoneSize()
{
    return sizeof(SmallMemZone);
}

int createSmallMem(ZoneHead* head, Buddy* buddy, SmallMem** smallMem)
{
    INFRA_SYSTEM_ASSERT_TEXT(head != nullptr && buddy != nullptr && smallMem != nullptr,
                             "head != ((void *)0) && buddy != ((void *)0)");
    SmallMemZone* const zone = reinterpret_cast<SmallMemZone*>(head->zoneData);
    if (head->initFlag != zoneReady) {
        list_init(&zone->smallListHead, nullptr);
        publish(head->initFlag, zoneReady);
    }
    const void* const privBase = buddy->getPrivBaseAddr(buddy);
    if (privBase == nullptr) {
        report("[%s:%d]buddy get private base address failed!\n", __func__, __LINE__);
        return failed;
    }
    const void* const dataBase = buddy->getDataBaseAddr(buddy);
    if (dataBase == nullptr) {
        report("[%s:%d]buddy get data base address failed!\n", __func__, __LINE__);
        return failed;
    }
    SmallMemPrivData* const priv =
        static_cast<SmallMemPrivData*>(gloMemOperation.allocMem(sizeof(SmallMemPrivData)));
    if (priv == nullptr) {
        report("[%s:%d]small memory create private data failed!\n", __func__, __LINE__);
        return failed;
    }
    SmallMem* const made = static_cast<SmallMem*>(gloMemOperation.allocMem(sizeof(SmallMem)));
    if (made == nullptr) {
        report("[%s:%d]create small memory failed!\n", __func__, __LINE__);
        gloMemOperation.freeMem(priv);
        return failed;
    }
    // The handle gives out the bases as constant, but they are what this layer writes to.
    *priv = {zone, buddy, static_cast<uint8_t*>(const_cast<void*>(privBase)),
             static_cast<uint8_t*>(const_cast<void*>(dataBase))};
    *made = {allocSmallMem, freeSmallMem, getDataBaseAddr, destroy, priv};
    *smallMem = made;
    return 0;
}

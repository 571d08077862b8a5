// The layers below the pool, each by its own functions: what is handed out, what is refused and with
// which words, and what a process finds that comes at a bad moment.

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Infra3/ProcessLife.h"
#include "Memory/ShareMem/Report.h"
#include "ShareMem/MiniPool.h"
#include "ShareMem/PoolChecker.h"
#include "ShareMem/SharePool.h"
#include "Support/Eventually.h"

using Tarsel::Memory::IMemPool;
using Tarsel::TestSupport::Blocks;
using Tarsel::TestSupport::ChildResult;
using Tarsel::TestSupport::CMiniPool;
using Tarsel::TestSupport::eventually;
using Tarsel::TestSupport::poolParam;
using Tarsel::TestSupport::runInChild;
using Tarsel::TestSupport::runWithPools;
using testing::HasSubstr;

namespace
{

/// What `work` prints.
std::string printed(const std::function<void()>& work)
{
    testing::internal::CaptureStdout();
    work();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::vector<uint8_t> bytesOf(const CMiniPool& pool)
{
    return {pool.memory(), pool.memory() + pool.memorySize()};
}

/// The offset of a block straight from the pages; noOffset without one.
size_t takePages(CMiniPool& pool, size_t size)
{
    void* const block = pool.buddy()->malloc(pool.buddy(), &size);
    return block != nullptr ? static_cast<size_t>(static_cast<uint8_t*>(block) - pool.layout().data)
                            : noOffset;
}

int freePages(CMiniPool& pool, size_t offset)
{
    return pool.buddy()->free(pool.buddy(), pool.layout().data + offset);
}

int listed(CMiniPool& pool, uint32_t order)
{
    return list_count(orderHead(pool.layout().info, order), pool.layout().info);
}

// Common -----------------------------------------------------------------------------------------

TEST(ShareMemLayers, NamesBecomeKeys)
{
    const struct
    {
        const char* name;
        int key;
    } cases[] = {
        {nullptr, 0x11111111},
        {"", 0x11111111},
        {"A", 0x11111152},
        {"AB", 0x11111194},
        {"\x01\x7d", 0x1111118f},
        {"\x7e\x7f\x80\xff", 0x11111111}, // none of these counts
        {"/mnt/mtd/key1", 0x111115ac},
        {"/mnt/mtd/key2", 0x111115ad},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(strToKey(one.name), one.key) << (one.name != nullptr ? one.name : "null");
    }
}

TEST(ShareMemLayers, WhatIsNoSegmentOrMutexIsRefusedWithALine)
{
    int result = 0;
    EXPECT_THAT(printed([&] { result = shareMemRemove("name", &result, 3); }),
                HasSubstr("]Unknown flag 3.\n"));
    EXPECT_EQ(result, -1);
    for (const int flag : {1, 2}) {
        EXPECT_THAT(printed([&] { result = shareMemRemove(nullptr, &result, flag); }),
                    HasSubstr("]Param invalid.\n"));
        EXPECT_EQ(result, -1);
    }
    ProcessMutex* mutex = nullptr;
    EXPECT_THAT(printed([&] { mutex = getProcessMutex(3); }),
                HasSubstr(", get process mutex failed, id:3 > 3!\n"));
    EXPECT_EQ(mutex, nullptr);
}

TEST(ShareMemLayers, LinesOfAHolderWaitUnchangedAndInOrder)
{
    std::string expected;
    const std::string after = printed([&] {
        ShareMem::holdReports();
        for (int i = 0; i < 2000; ++i) { // 150 KB
            char line[80];
            snprintf(line, sizeof(line), "%-70d\n", i);
            ShareMem::report("%s", line);
            expected += line;
        }
        ShareMem::releaseReports();
        ShareMem::report("and on\n");
    });
    EXPECT_EQ(after, expected + "and on\n");

    // Without memory what fits is kept.
    gloMemOperation.allocMem = [](size_t) -> void* { return nullptr; };
    const std::string some = printed([&] {
        ShareMem::holdReports();
        for (int i = 0; i < 100; ++i) {
            ShareMem::report("%-70d\n", i);
        }
        ShareMem::releaseReports();
    });
    gloMemOperation.allocMem = [](size_t size) { return malloc(size); };
    EXPECT_EQ(some, expected.substr(0, 57 * 71) + "further lines are lost\n");
}

// Pages ------------------------------------------------------------------------------------------

TEST(ShareMemLayers, PagesAreHandedOutFromTheTop)
{
    CMiniPool pool({4096, 256, 0});
    EXPECT_EQ(pool.layout().info->config.orderNum, 9u);
    for (uint32_t order = 0; order < 9; ++order) {
        EXPECT_EQ(listed(pool, order), order == 8 ? 1 : 0);
    }
    size_t size = 1;
    EXPECT_EQ(pool.buddy()->malloc(pool.buddy(), &size), pool.layout().data + 255 * 4096);
    EXPECT_EQ(size, 4096u);
    EXPECT_EQ(pool.freeSize(), 255u * 4096);
    EXPECT_EQ(freePages(pool, 255 * 4096), 0);
    EXPECT_EQ(listed(pool, 8), 1);

    CMiniPool capped({4096, 256, 4});
    EXPECT_EQ(capped.layout().info->config.orderNum, 4u);
    EXPECT_EQ(listed(capped, 3), 32);
    EXPECT_EQ(takePages(capped, 8 * 4096), 248u * 4096);
    EXPECT_EQ(takePages(capped, 8 * 4096), 240u * 4096);
    EXPECT_EQ(listed(capped, 3), 30);
}

TEST(ShareMemLayers, RequestsThatNoPoolHoldsAreRefused)
{
    const struct
    {
        size_t size;
        const char* line;
    } cases[] = {
        {0, ""},
        {(1 << 20) + 1, "]order 9 greater than orderNum 9 malloc size[1048577].\n"},
        {size_t{1} << 31, "]order 19 greater than orderNum 9 malloc size[2147483648].\n"},
        {size_t{1} << 32, "]order 20 greater than orderNum 9 malloc size[4294967296].\n"},
        {(size_t{1} << 43) + 1, "]order 32 greater than orderNum 9 malloc size[8796093022209].\n"},
        {SIZE_MAX, "]order 52 greater than orderNum 9 malloc size[18446744073709551615].\n"},
    };
    CMiniPool pool({4096, 256, 0});
    const std::vector<uint8_t> before = bytesOf(pool);
    for (const auto& one : cases) {
        const std::string lines =
            printed([&] { EXPECT_EQ(takePages(pool, one.size), noOffset) << one.size; });
        EXPECT_THAT(lines, testing::EndsWith(one.line));
        EXPECT_EQ(lines.empty(), one.size == 0);
    }
    EXPECT_EQ(bytesOf(pool), before);
}

TEST(ShareMemLayers, OnlyTheHeadOfALivingBlockCanBeFreed)
{
    CMiniPool pool({4096, 256, 0});
    const size_t block = takePages(pool, 16 * 4096);
    const size_t lower = takePages(pool, 4096); // 238, when 239 is taken first
    const size_t upper = takePages(pool, 4096);
    ASSERT_EQ(block, 240u * 4096);
    ASSERT_EQ(lower, 239u * 4096);
    ASSERT_EQ(upper, 238u * 4096);
    EXPECT_EQ(freePages(pool, upper), 0);
    EXPECT_EQ(freePages(pool, lower), 0); // the upper half of what they merge to
    const size_t far = (size_t{1} << 44) + block;
    const struct
    {
        size_t offset;
        const char* line;
    } cases[] = {
        {lower, "]curIdx 239 is not a boundary of block allocated.\n"},
        {upper, "]curIdx 238 is not a boundary of block allocated.\n"},
        {block + 4096, "]curIdx 241 is not a boundary of block allocated.\n"},
        {block + 8 * 4096, "]curIdx 248 is not a boundary of block allocated.\n"},
        {block + 1, "]Unaligned offset[983041].\n"},
        {block + 64, "]Unaligned offset[983104].\n"},
        {0, "]Buddy check failed with ret [0],offset[0].\n"},
        {256 * 4096, "]curIdx 256 greater than maxIdx 256.\n"},
        {far, "]curIdx 240 greater than maxIdx 256.\n"}, // 2^32 pages more
        {size_t{0} - 4096, "]curIdx 4294967295 greater than maxIdx 256.\n"},
    };
    const std::vector<uint8_t> before = bytesOf(pool);
    for (const auto& one : cases) {
        EXPECT_THAT(printed([&] { EXPECT_EQ(freePages(pool, one.offset), -1); }),
                    HasSubstr(one.line));
        size_t offset = 0;
        size_t size = 0;
        uint8_t* const place = pool.layout().data + one.offset;
        printed([&] {
            EXPECT_EQ(pool.buddy()->getOffset(pool.buddy(), place, &offset), -1);
            EXPECT_EQ(pool.buddy()->getAddress(pool.buddy(), one.offset), nullptr);
        });
        EXPECT_EQ(pool.buddy()->getPriv(pool.buddy(), place, &size) != nullptr,
                  one.offset < 256 * 4096);
    }
    EXPECT_EQ(bytesOf(pool), before);
    EXPECT_EQ(freePages(pool, block), 0);
    EXPECT_EQ(listed(pool, 8), 1);
}

// Small objects ----------------------------------------------------------------------------------

TEST(ShareMemLayers, SmallObjectsComeFromTheLastBlockDown)
{
    CMiniPool pool({1024, 64, 0});
    SmallMem* const small = pool.small();
    uint8_t* const data = pool.layout().data;
    const size_t total = pool.freeSize();
    EXPECT_THAT(printed([&] { EXPECT_EQ(small->allocSmallMem(small, 65), nullptr); }),
                HasSubstr("]inter alloc mem failed!\n"));
    EXPECT_EQ(pool.freeSize(), total);

    std::vector<uint8_t*> blocks;
    for (int i = 0; i < 33; ++i) {
        blocks.push_back(static_cast<uint8_t*>(small->allocSmallMem(small, 64)));
    }
    EXPECT_EQ(blocks[0], data + 63 * 1024 + 15 * 64);
    EXPECT_EQ(blocks[15], data + 63 * 1024);
    EXPECT_EQ(blocks[16], data + 62 * 1024 + 15 * 64); // of a second page
    EXPECT_EQ(total - pool.freeSize(), 3u * 1024);

    // Room in a full page is used after the page in use, and before a new one.
    EXPECT_EQ(small->freeSmallMem(small, blocks[3]), 0);
    for (int i = 1; i < 16; ++i) {
        blocks.push_back(static_cast<uint8_t*>(small->allocSmallMem(small, 1)));
        EXPECT_EQ(blocks.back(), blocks[32] - i * 64);
    }
    EXPECT_EQ(small->allocSmallMem(small, 1), blocks[3]);
    EXPECT_EQ(small->freeSmallMem(small, blocks[3]), 0);

    const struct
    {
        uint8_t* place;
        const char* line;
    } cases[] = {
        {blocks[3], "]block error, current idle!\n"},
        {blocks[4] + 1, "]block index error!\n"},
        {data + 3 * 1024 + 64, "]block index error!\n"}, // its page has none
        {data + 64 * 1024, "]buddy get private data failed!\n"},
        {data - 1024, "]buddy get private data failed!\n"},
    };
    for (const auto& one : cases) {
        EXPECT_THAT(printed([&] { EXPECT_EQ(small->freeSmallMem(small, one.place), -1); }),
                    HasSubstr(one.line));
    }
    blocks.erase(blocks.begin() + 3);
    for (uint8_t* const block : blocks) {
        EXPECT_EQ(small->freeSmallMem(small, block), 0);
    }
    EXPECT_EQ(pool.freeSize(), total);
}

// References -------------------------------------------------------------------------------------

TEST(ShareMemLayers, ABlockLivesAsLongAsItIsReferredTo)
{
    CMiniPool pool({1024, 64, 0});
    const size_t total = pool.freeSize();
    MemRefer* const refer = pool.refer();
    EXPECT_EQ(refer->expireClean(refer), -1); // there is no node
    const size_t block = pool.take(1);
    EXPECT_EQ(refer->addRefer(refer, block), 0);
    EXPECT_EQ(refer->getReferCnt(refer, block), 2);
    EXPECT_EQ(refer->releaseRefer(refer, block), 0);
    EXPECT_EQ(refer->getReferCnt(refer, block), 1);

    EXPECT_EQ(refer->decDeliverRef(refer, block), -1);
    EXPECT_EQ(refer->incDeliverRef(refer, block), 0);
    EXPECT_EQ(refer->releaseRefer(refer, block), 0);
    EXPECT_THAT(printed([&] { EXPECT_EQ(refer->releaseRefer(refer, block), -1); }),
                HasSubstr("]PidListHead for offset[64512] is empty.\n\033[0m"));
    EXPECT_EQ(refer->expireClean(refer), 0);
    EXPECT_EQ(pool.blocks(), (Blocks{{block, {{}, 1, 1}}}));
    EXPECT_EQ(refer->expireClean(refer), 0);
    EXPECT_EQ(pool.freeSize(), total);
    EXPECT_THAT(printed([&] { EXPECT_EQ(refer->releaseRefer(refer, block), -1); }),
                HasSubstr("]FindReferNode for offset[64512] failed.listCount[0]\n\033[0m"));
    EXPECT_EQ(refer->incDeliverRef(refer, block), -1);
    EXPECT_EQ(refer->getReferCnt(refer, block), 0);
}

TEST(ShareMemLayers, TwoSetsOfHandlesMakeOneNodeForABlock)
{
    CMiniPool pool({1024, 64, 0});
    Buddy* buddy = nullptr;
    SmallMem* small = nullptr;
    MemRefer* other = nullptr;
    const ShareMem::Layout& layout = pool.layout();
    ASSERT_EQ(createBuddy({}, layout.buddyZone, layout.data, &buddy), 0);
    ASSERT_EQ(createSmallMem(layout.smallMemZone, buddy, &small), 0);
    ASSERT_EQ(createMemRefer(layout.referZone, small, buddy, &other), 0);

    const size_t block = takePages(pool, 1);
    EXPECT_EQ(other->addRefer(other, block), 0);
    EXPECT_EQ(pool.refer()->addRefer(pool.refer(), block), 0);
    EXPECT_EQ(list_count(layout.nodes(), layout.data), 1);
    EXPECT_EQ(pool.blocks(), (Blocks{{block, {{getpid(), getpid()}, 0, 0}}}));
    EXPECT_EQ(pool.faults(), "");
    other->destroy(other);
    small->destroy(small);
    buddy->destroy(buddy);
}

TEST(ShareMemLayers, ALongPassDealsWithEachNodeOnceInPartsOfOneSize)
{
    constexpr int count = 5000;
    CMiniPool pool({1024, 8192, 0});
    MemRefer* const refer = pool.refer();
    std::vector<size_t> blocks;
    for (int i = 0; i < count; ++i) {
        blocks.push_back(pool.take(1));
        pool.send(blocks.back());
    }
    // Every third goes between the parts, so that no place in the list is sure to stay.
    ExpirePass pass;
    int parts = 1;
    for (size_t gone = 0; expireCleanPart(refer, &pass) == 1; ++parts) {
        for (size_t end = gone + 1500; gone < end && gone < blocks.size(); gone += 3) {
            pool.receive(blocks[gone]);
            pool.give(blocks[gone]);
            pool.take(1); // in front of all others
        }
    }
    EXPECT_GE(parts, 10); // 15,000 records and blocks
    EXPECT_LE(parts, 30);
    const Blocks left = pool.blocks();
    for (size_t i = 1; i < blocks.size(); i += i % 3 == 1 ? 1 : 2) {
        ASSERT_EQ(left.at(blocks[i]).passesLeft, 1u) << i;
    }
    EXPECT_EQ(pool.faults(), "");
}

// The check --------------------------------------------------------------------------------------

TEST(ShareMemLayers, TheCheckFindsWhatARepairRestores)
{
    const struct
    {
        const char* fault;
        void (*damage)(const ShareMem::Layout& layout);
    } cases[] = {
        {"reference list: its head has a previous element\n",
         [](const ShareMem::Layout& layout) { layout.nodes()->prev = 0; }},
        {"holder list: its head has a previous element\n",
         [](const ShareMem::Layout& layout) {
             nodeAt(layout.data, layout.nodes()->next)->pidListHead.prev = 0;
         }},
        {"order list: its head has a previous element\n",
         [](const ShareMem::Layout& layout) { orderHead(layout.info, 1)->prev = 0; }},
        {"small-object page list: its head has a previous element\n",
         [](const ShareMem::Layout& layout) { layout.smallPages()->prev = 0; }},
        {"free block list: its head has a previous element\n",
         [](const ShareMem::Layout& layout) {
             smallPageDesc(layout.info, 62)->freeBlockListHead.prev = 0;
         }},
        {"the padding of the page zone is not 0\n",
         [](const ShareMem::Layout& layout) { layout.info->padding = 1; }},
        {"page 62: the padding of its small objects is not 0\n",
         [](const ShareMem::Layout& layout) { smallPageDesc(layout.info, 62)->padding = 1; }},
        {"page 5 has another number, 6\n",
         [](const ShareMem::Layout& layout) { pageDescriptors(layout.info)[5].idx = 6; }},
        {"page 5 inside a block heads one\n",
         [](const ShareMem::Layout& layout) { pageDescriptors(layout.info)[5].order = 1; }},
        {"comes after a full one\n",
         [](const ShareMem::Layout& layout) {
             layout.smallPages()->next = list_at(layout.info, layout.smallPages()->next)->next;
         }},
        {"does not point back\n",
         [](const ShareMem::Layout& layout) {
             const List* const first = list_at(layout.data, layout.nodes()->next);
             list_at(layout.data, first->next)->prev = 0;
         }},
        {"free blocks, 0 of them listed\n",
         [](const ShareMem::Layout& layout) { orderHead(layout.info, 4)->next = noOffset; }},
    };
    CMiniPool pool({1024, 64, 0});
    for (int i = 0; i < 12; ++i) {
        pool.take(1);
    }
    ASSERT_EQ(pool.faults(), "");
    const Blocks blocks = pool.blocks();
    for (const auto& one : cases) {
        CMiniPool damaged(pool);
        one.damage(damaged.layout());
        EXPECT_THAT(damaged.faults(), HasSubstr(one.fault));
        damaged.repair();
        EXPECT_EQ(damaged.faults(), "") << one.fault;
        EXPECT_EQ(damaged.blocks(), blocks) << one.fault;
    }
}

// Processes --------------------------------------------------------------------------------------

/// A process that is killed at once and not waited for yet.
class CZombie
{
public:
    CZombie() : m_pid(fork())
    {
        if (m_pid == 0) {
            _exit(0);
        }
        siginfo_t state = {};
        waitid(P_PID, static_cast<id_t>(m_pid), &state, WEXITED | WNOWAIT);
    }
    ~CZombie() { waitpid(m_pid, nullptr, 0); }

    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid;
};

TEST(ShareMemLayers, OnlyWhatRunsIsAlive)
{
    const CZombie zombie;
    pid_t gone = 0;
    {
        gone = CZombie().pid();
    }
    pid_t thread = 0;
    bool isOver = false;
    std::thread other([&] {
        __atomic_store_n(&thread, gettid(), __ATOMIC_RELEASE);
        eventually([&] { return __atomic_load_n(&isOver, __ATOMIC_ACQUIRE); });
    });
    ASSERT_TRUE(eventually([&] { return __atomic_load_n(&thread, __ATOMIC_ACQUIRE) != 0; }));
    for (const auto isAlive :
         {Tarsel::Infra::isProcessAlive, Tarsel::Infra::Detail::isProcessAliveByStatus}) {
        EXPECT_TRUE(isAlive(getpid()));
        EXPECT_TRUE(isAlive(getppid()));
        EXPECT_FALSE(isAlive(zombie.pid()));
        EXPECT_FALSE(isAlive(gone));
        EXPECT_FALSE(isAlive(thread));
        EXPECT_FALSE(isAlive(0));
        EXPECT_FALSE(isAlive(-1));
        EXPECT_FALSE(isAlive(-getppid()));
    }
    __atomic_store_n(&isOver, true, __ATOMIC_RELEASE);
    other.join();
}

TEST(ShareMemLayers, AMakerOfMutexesThatIsDeadIsNotWaitedFor)
{
    const CZombie zombie;
    constexpr uint32_t claimBit = 0x40000000;
    for (const uint32_t flag : {claimBit | static_cast<uint32_t>(zombie.pid()), claimBit,
                                uint32_t{0x80000000} | claimBit, uint32_t{77}}) {
        const ChildResult child = runInChild([flag] { // it has a minute
            alignas(8) uint8_t memory[128] = {};
            ZoneHead* const zone = reinterpret_cast<ZoneHead*>(memory);
            zone->initFlag = flag;
            EXPECT_EQ(initProcessMutex(zone), 0);
            EXPECT_EQ(zone->initFlag, zoneReady);
            for (const size_t id : {size_t{0}, size_t{1}, size_t{2}}) {
                const uint64_t before = processMutexEpoch();
                EXPECT_EQ(getProcessMutex(id)->lock(getProcessMutex(id)), 0);
                EXPECT_EQ(processMutexEpoch(), before + (id == 0 ? 1 : 0));
                EXPECT_EQ(getProcessMutex(id)->unlock(getProcessMutex(id)), 0);
            }
        });
        EXPECT_TRUE(child.succeeded()) << flag << child.report();
    }
}

/// Makes the two segments with zones that nobody has initialised, but for the mutexes.
ShareMem::Layout layOutPool(const BuddyConfig& config)
{
    const size_t sizes[] = {ShareMem::controlSizeFor(config), config.dataSize};
    ShareMem::Mapping parts[2] = {};
    for (int i = 0; i < 2; ++i) {
        const char* const name = i == 0 ? controlSegment : dataSegment;
        parts[i] = {static_cast<uint8_t*>(shareMemGet(name, sizes[i], IPC_CREAT, 0)), sizes[i]};
    }
    const size_t lengths[] = {getSyncZoneSize(), getReferZoneSize(), getSmallMemZoneSize(),
                              getBuddyZoneSize(config)};
    uint8_t* zone = parts[0].start;
    for (const size_t length : lengths) {
        reinterpret_cast<ZoneHead*>(zone)->zoneLen = static_cast<uint32_t>(length + 8);
        zone += length + 8;
    }
    ShareMem::Layout layout = {};
    EXPECT_TRUE(findZones(parts[0], parts[1], &layout));
    EXPECT_EQ(initProcessMutex(layout.syncZone), 0);
    return layout;
}

bool hasWaiters(const ShareMem::Layout& layout)
{
    return (__atomic_load_n(&layout.mutexes()[0].m_lock.__data.__lock, __ATOMIC_ACQUIRE) &
            INT32_MIN) != 0;
}

/// Initialises the zones, takes a block that no node names yet, and dies.
[[noreturn]] void initialiseAndDie(const ShareMem::Layout& layout, const BuddyConfig& config)
{
    Buddy* buddy = nullptr;
    SmallMem* small = nullptr;
    MemRefer* refer = nullptr;
    createBuddy(config, layout.buddyZone, layout.data, &buddy);
    createSmallMem(layout.smallMemZone, buddy, &small);
    createMemRefer(layout.referZone, small, buddy, &refer);
    size_t size = 5000;
    buddy->malloc(buddy, &size);
    raise(SIGKILL);
    abort();
}

TEST(ShareMemLayers, WhoCameBeforeThePagesRepairsThem)
{
    const ChildResult child = runWithPools([] {
        constexpr BuddyConfig config = {1 << 20, 1024, 0};
        const ShareMem::Layout layout = layOutPool(config);
        const pid_t maker = fork();
        if (maker == 0) {
            ProcessMutex* const mutex = getProcessMutex(0);
            mutex->lock(mutex);
            eventually([&] { return hasWaiters(layout); });
            initialiseAndDie(layout, config);
        }
        EXPECT_TRUE(
            eventually([&] { return peek(layout.mutexes()[0].m_lock.__data.__lock) != 0; }));
        EXPECT_NE(IMemPool::loadMemPool(poolParam(1 << 20, 1024)), nullptr); // waits for the maker
        waitpid(maker, nullptr, 0);
        uint32_t free = 0;
        IMemPool::getMemFreeSize(free);
        EXPECT_EQ(free, 1u << 20);
        EXPECT_EQ(Tarsel::TestSupport::CPoolChecker().faults(), "");
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_THAT(child.output, HasSubstr("process exit with lock.["));
    EXPECT_THAT(child.output, testing::Not(HasSubstr("cannot be repaired")));
}

} // namespace

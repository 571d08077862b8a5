// The shared pool and its packets beside other ways of sharing and passing memory.
//
// The pool has 1 GiB in pages of 1024 bytes, because 100,000 live blocks and the holes between them
// have to fit. A live block has 1000 bytes; of twice as many every second one was freed again, so
// that free memory is not one piece. It is the one pool of the process, in an IPC namespace of its
// own where that is allowed.
//
// pool_alloc_free/N/live:L         a block of N bytes made and freed, with L others there
// block_create_claim/live:L        a block handle made, described, claimed and dropped twice
// block_reference/live:L           a further reference to a block taken and dropped
// process_mutex                    locked and unlocked through the handle
// stream/N/cores:C                 payload of N bytes, filled, brought to another process, read there;
//                                  both on one core, or each on one. Descriptions, and the offsets
//                                  beside them, go by a queue of Boost's
// stream_by_pipe/N/cores:C         the same with descriptions by a pipe
// handover_answer                  one hand-over, and the wait for the other process's answer
// repair/BYTES                     of a pool of that size, half of it handed out

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/managed_external_buffer.hpp>
#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/mem_algo/simple_seq_fit.hpp>
#include <boost/interprocess/sync/mutex_family.hpp>
#include <boost/version.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Memory/MemoryBlock.h"
#include "Memory/Packet.h"
#include "Memory/PacketManager.h"
#include "Memory/SharePacketHelper.h"
#include "ShareMem/MiniPool.h"

namespace
{

using namespace Bench;
using namespace Tarsel::Memory;
namespace ipc = boost::interprocess;

constexpr size_t poolSize = size_t{1} << 30;
constexpr size_t pageSize = 1024;
constexpr size_t liveSize = 1000;
constexpr size_t payload = 65536;
constexpr double wallTime = 0.2; // s a repetition: two processes need some to settle

uint8_t* sharedMemory(size_t size)
{
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("mmap");
        std::exit(1);
    }
    return static_cast<uint8_t*>(memory);
}

IMemPool& pool()
{
    static IMemPool* const s_pool = [] {
        IMemPool::PoolParam param = {};
        return IMemPool::loadMemPool(param);
    }();
    return *s_pool;
}

void makePool()
{
    if (unshare(CLONE_NEWIPC) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWIPC) != 0) {
        std::fprintf(stderr, "no IPC namespace of its own: using the machine's pool\n");
    }
    CPacketManager::config(CPacketManager::policySharePool);
    SharePacketArg arg;
    arg.type = 1;
    arg.poolSize = poolSize;
    arg.poolType = "ShareMemory";
    arg.pageSize = pageSize;
    arg.orderNum = 0;
    arg.debugMode = 0;
    if (!CSharePacketHelper::instance()->initSharePacket(&arg)) {
        std::exit(1);
    }
    IMemPool::PoolParam param = {};
    param.poolSize = poolSize;
    param.chunkSize = pageSize;
    CMemoryBlock::setPoolParameter(param);
}

// Allocators -------------------------------------------------------------------------------------

/// What is live in the pool has a handle; one population serves all cases of the pool.
struct Blocks
{
    void* make(size_t size) { return CMemoryBlock::createMemoryBlock(size); }
    void free(void* block) { delete static_cast<CMemoryBlock*>(block); }
    static constexpr bool outlivesItsBlocks = true;
};

struct SharePool
{
    explicit SharePool(Blocks& /*live*/) {}
    void* make(size_t size) { return pool().allocMem(size); }
    void free(void* block) { pool().freeMem(block); }
};

template <typename Algorithm>
class CBoostSegment
{
public:
    void* make(size_t size) { return m_segment.allocate(size, std::nothrow); }
    void free(void* block) { m_segment.deallocate(block); }
    static constexpr bool outlivesItsBlocks = false;
    ~CBoostSegment() { munmap(m_memory, poolSize); }

private:
    typedef ipc::basic_managed_external_buffer<char, Algorithm, ipc::iset_index> Segment;

    uint8_t* m_memory = sharedMemory(poolSize);
    Segment m_segment{ipc::create_only, m_memory, poolSize};
};

typedef CBoostSegment<ipc::rbtree_best_fit<ipc::mutex_family>> BestFit;
typedef CBoostSegment<ipc::simple_seq_fit<ipc::mutex_family>> SequentialFit;

/// An allocator with `count` live blocks and as many holes between them.
template <typename Allocator>
class CPopulated
{
public:
    static Allocator& with(size_t count)
    {
        static std::unique_ptr<CPopulated> s_now;
        if (!s_now || s_now->m_live.size() != count) {
            s_now.reset();
            s_now.reset(new CPopulated(count));
        }
        return s_now->m_allocator;
    }
    ~CPopulated()
    {
        for (void* const block : m_live) {
            if (Allocator::outlivesItsBlocks) {
                m_allocator.free(block);
            }
        }
    }

private:
    explicit CPopulated(size_t count)
    {
        std::vector<void*> holes;
        for (size_t i = 0; i < count; ++i) {
            m_live.push_back(m_allocator.make(liveSize));
            holes.push_back(m_allocator.make(liveSize));
        }
        while (!holes.empty()) { // the last first: a list ordered by address is quickest so
            m_allocator.free(holes.back());
            holes.pop_back();
        }
    }

    Allocator m_allocator;
    std::vector<void*> m_live;
};

template <typename Populated, typename Allocator = Populated&>
void allocFree(benchmark::State& state, size_t size, size_t live)
{
    Allocator allocator(CPopulated<Populated>::with(live));
    for (auto _ : state) {
        void* const block = allocator.make(size);
        if (block == nullptr) {
            state.SkipWithError("out of memory");
            break;
        }
        allocator.free(block);
    }
}

void addAllocators()
{
    for (const size_t live : {0, 10, 1000, 10000, 100000}) {
        for (const size_t size : {100, 1000, 4000, 65536}) {
            const std::string name =
                label("pool_alloc_free", size) + "/live:" + std::to_string(live);
            add(name, infra, allocFree<Blocks, SharePool>, size, live);
            add(name, "boost rbtree_best_fit", allocFree<BestFit>, size, live);
            add(name, "boost simple_seq_fit", allocFree<SequentialFit>, size, live);
        }
    }
}

// Blocks -----------------------------------------------------------------------------------------

void createClaim(benchmark::State& state, size_t live)
{
    CPopulated<Blocks>::with(live);
    for (auto _ : state) {
        uint8_t description[64];
        CMemoryBlock* const block = CMemoryBlock::createMemoryBlock(liveSize);
        CMemoryBlock::getMemoryBlockDesc(block->getBuffer(), description, sizeof(description));
        delete CMemoryBlock::getMemoryBlock(description, sizeof(description));
        delete block;
    }
}

void reference(benchmark::State& state, size_t live)
{
    CPopulated<Blocks>::with(live);
    size_t size = liveSize;
    void* const block = pool().allocMem(size);
    size_t offset = 0;
    pool().getOffset(block, offset);
    for (auto _ : state) {
        pool().freeMem(pool().getMem(offset));
    }
    pool().freeMem(block);
}

void addBlocks()
{
    for (const size_t live : {10, 100000}) {
        add("block_create_claim/live:" + std::to_string(live), infra, createClaim, live);
        add("block_reference/live:" + std::to_string(live), infra, reference, live);
    }
}

// The mutex --------------------------------------------------------------------------------------

void handleMutex(benchmark::State& state)
{
    ProcessMutex* const mutex = getProcessMutex(0);
    for (auto _ : state) {
        mutex->lock(mutex);
        mutex->unlock(mutex);
    }
}

void bareMutex(benchmark::State& state)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_t* const mutex = reinterpret_cast<pthread_mutex_t*>(sharedMemory(4096));
    pthread_mutex_init(mutex, &attributes);
    for (auto _ : state) {
        pthread_mutex_lock(mutex);
        pthread_mutex_unlock(mutex);
    }
    pthread_mutex_destroy(mutex);
    munmap(mutex, 4096);
}

// Two processes ----------------------------------------------------------------------------------

void runOn(int core)
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    sched_setaffinity(0, sizeof(cores), &cores);
}

/// A child process on `core` that runs `body`; the measuring process is on core 0 meanwhile.
template <typename Body>
class CReader
{
public:
    CReader(int core, Body body)
    {
        sched_getaffinity(0, sizeof(m_before), &m_before);
        std::fflush(nullptr);
        m_process = fork();
        if (m_process == 0) {
            runOn(core);
            body();
            _exit(0);
        }
        runOn(0);
    }
    ~CReader()
    {
        waitpid(m_process, nullptr, 0);
        sched_setaffinity(0, sizeof(m_before), &m_before);
    }

private:
    pid_t m_process;
    cpu_set_t m_before;
};

bool readAll(int from, void* to, size_t size)
{
    for (size_t got = 0; got < size;) {
        const ssize_t now = read(from, static_cast<uint8_t*>(to) + got, size - got);
        if (now <= 0) {
            return false;
        }
        got += static_cast<size_t>(now);
    }
    return true;
}

void writeAll(int to, const void* from, size_t size)
{
    for (size_t put = 0; put < size;) {
        const ssize_t now = write(to, static_cast<const uint8_t*>(from) + put, size - put);
        if (now <= 0) {
            std::exit(1);
        }
        put += static_cast<size_t>(now);
    }
}

void fill(uint8_t* bytes)
{
    static uint8_t s_value = 0;
    memset(bytes, ++s_value, payload);
}

void consume(const uint8_t* bytes)
{
    uint64_t sum = 0;
    for (size_t i = 0; i < payload; i += sizeof(uint64_t)) {
        uint64_t word = 0;
        memcpy(&word, bytes + i, sizeof(word));
        sum += word;
    }
    benchmark::DoNotOptimize(sum);
}

/// A way from this process to its child; the child sees its end when this process closes its side.
struct Channel
{
    int reader = -1;
    int writer = -1;

    static Channel pipeOf(int bytes)
    {
        int ends[2];
        if (pipe(ends) != 0) {
            std::exit(1);
        }
        fcntl(ends[1], F_SETPIPE_SZ, bytes);
        return {ends[0], ends[1]};
    }
    static Channel socketPair()
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
            std::exit(1);
        }
        const int bytes = 1 << 20;
        setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        return {ends[0], ends[1]};
    }
};

constexpr size_t descriptionSize = 84;

/// The next packet that the other process describes; not valid at the end.
CPacket receive(int from)
{
    uint8_t description[descriptionSize];
    if (!readAll(from, description, sizeof(description))) {
        return CPacket();
    }
    return CPacket(description, sizeof(description), FreeMemFunc(&toOrig));
}

void send(int to, const CPacket& packet)
{
    const CPacket described = CSharePacketHelper::instance()->toDescribePacket(packet);
    writeAll(to, described.getBuffer(), described.size());
}

/// A page of descriptions may be on its way at once, 48 of them.
void streamPacketsByPipe(benchmark::State& state, int cores)
{
    const Channel channel = Channel::pipeOf(4096);
    const CReader reader(cores - 1, [&] {
        close(channel.writer);
        for (CPacket packet = receive(channel.reader); packet.valid();
             packet = receive(channel.reader)) {
            consume(packet.getBuffer());
        }
    });
    close(channel.reader);
    for (auto _ : state) {
        CPacket packet(payload);
        packet.resize(payload);
        fill(packet.getBuffer());
        send(channel.writer, packet);
    }
    close(channel.writer);
}

void streamCopies(benchmark::State& state, int cores, Channel (*open)())
{
    const Channel channel = open();
    static uint8_t s_bytes[payload];
    const CReader reader(cores - 1, [&] {
        close(channel.writer);
        while (readAll(channel.reader, s_bytes, payload)) {
            consume(s_bytes);
        }
    });
    close(channel.reader);
    for (auto _ : state) {
        fill(s_bytes);
        writeAll(channel.writer, s_bytes, payload);
    }
    close(channel.writer);
}

/// A way for descriptions and offsets alike.
class CQueue
{
public:
    static constexpr size_t places = 48;

    explicit CQueue(size_t messageSize)
        : m_remover{},
          m_queue(ipc::create_only, name, places, messageSize),
          m_messageSize(messageSize)
    {}
    void send(const void* message) { m_queue.send(message, m_messageSize, 0); }
    /// False for the message that says that there are no more.
    bool receive(void* message)
    {
        size_t size = 0;
        unsigned priority = 0;
        m_queue.receive(message, m_messageSize, size, priority);
        return size == m_messageSize;
    }
    void sendEnd() { m_queue.send(nullptr, 0, 0); }

private:
    static constexpr const char* name = "infra_bench_queue";

    struct Remover
    {
        Remover() { ipc::message_queue::remove(name); }
        ~Remover() { ipc::message_queue::remove(name); }
    };
    Remover m_remover;
    ipc::message_queue m_queue;
    size_t m_messageSize;
};

void streamPacketsByQueue(benchmark::State& state, int cores)
{
    CQueue queue(descriptionSize);
    const CReader reader(cores - 1, [&] {
        uint8_t description[descriptionSize];
        while (queue.receive(description)) {
            consume(CPacket(description, descriptionSize, FreeMemFunc(&toOrig)).getBuffer());
        }
    });
    for (auto _ : state) {
        CPacket packet(payload);
        packet.resize(payload);
        fill(packet.getBuffer());
        queue.send(CSharePacketHelper::instance()->toDescribePacket(packet).getBuffer());
    }
    queue.sendEnd();
}

/// As many payloads in a ring as there are places in the queue, and the two that are in hand.
void streamOffsetsByQueue(benchmark::State& state, int cores)
{
    constexpr size_t slots = CQueue::places + 2;
    CQueue queue(sizeof(uint64_t));
    uint8_t* const ring = sharedMemory(slots * payload);
    {
        const CReader reader(cores - 1, [&] {
            for (uint64_t offset = 0; queue.receive(&offset);) {
                consume(ring + offset);
            }
        });
        uint64_t at = 0;
        for (auto _ : state) {
            fill(ring + at * payload);
            const uint64_t offset = at * payload;
            queue.send(&offset);
            at = (at + 1) % slots;
        }
        queue.sendEnd();
    }
    munmap(ring, slots * payload);
}

void addStreams()
{
    const auto stream = [](const char* name, int cores, const char* contender, auto body,
                           auto... arguments) {
        add(label(name, payload) + "/cores:" + std::to_string(cores), contender, body, cores,
            arguments...)
            ->UseRealTime()
            ->MinTime(wallTime);
    };
    for (const int cores : {1, 2}) {
        stream("stream", cores, infra, streamPacketsByQueue);
        stream("stream", cores, "boost message_queue, offsets", streamOffsetsByQueue);
        stream(
            "stream", cores, "pipe of 1 MB", streamCopies,
            +[] { return Channel::pipeOf(1 << 20); });
        stream("stream", cores, "unix socket", streamCopies, &Channel::socketPair);
        stream("stream_by_pipe", cores, infra, streamPacketsByPipe);
    }
}

// One hand-over and its answer -------------------------------------------------------------------

void answerPackets(benchmark::State& state)
{
    const Channel there = Channel::pipeOf(4096);
    const Channel back = Channel::pipeOf(4096);
    const CReader reader(1, [&] {
        close(there.writer);
        for (CPacket packet = receive(there.reader); packet.valid();
             packet = receive(there.reader)) {
            const uint64_t answer = packet.getBuffer()[0];
            packet.reset();
            writeAll(back.writer, &answer, sizeof(answer));
        }
    });
    close(there.reader);
    uint64_t answer = 0;
    for (auto _ : state) {
        CPacket packet(payload);
        packet.resize(payload);
        packet.getBuffer()[0] = 1;
        send(there.writer, packet);
        readAll(back.reader, &answer, sizeof(answer));
    }
    close(there.writer);
    close(back.reader);
    close(back.writer);
}

void answerOffsets(benchmark::State& state)
{
    const Channel there = Channel::pipeOf(4096);
    const Channel back = Channel::pipeOf(4096);
    uint8_t* const memory = sharedMemory(payload);
    const CReader reader(1, [&] {
        close(there.writer);
        for (uint64_t offset = 0; readAll(there.reader, &offset, sizeof(offset));) {
            const uint64_t answer = memory[offset];
            writeAll(back.writer, &answer, sizeof(answer));
        }
    });
    close(there.reader);
    uint64_t answer = 0;
    for (auto _ : state) {
        memory[0] = 1;
        const uint64_t offset = 0;
        writeAll(there.writer, &offset, sizeof(offset));
        readAll(back.reader, &answer, sizeof(answer));
    }
    close(there.writer);
    close(back.reader);
    close(back.writer);
}

// Repair -----------------------------------------------------------------------------------------

using Tarsel::TestSupport::CMiniPool;

CMiniPool& halfUsedPool(size_t size)
{
    static std::unique_ptr<CMiniPool> s_pool;
    static size_t s_size = 0;
    if (s_size != size) {
        s_pool.reset();
        const uint32_t pages = static_cast<uint32_t>(size / pageSize);
        s_pool.reset(new CMiniPool({pageSize, pages, 0}));
        s_size = size;
        for (uint32_t i = 0; i < pages / 2; ++i) {
            s_pool->take(pageSize);
        }
    }
    return *s_pool;
}

void repair(benchmark::State& state, size_t size)
{
    CMiniPool& found = halfUsedPool(size);
    for (auto _ : state) {
        found.repair();
    }
}

void passOver(benchmark::State& state, size_t size)
{
    BuddyInfo* const info = halfUsedPool(size).layout().info;
    for (auto _ : state) {
        uint64_t sum = 0;
        for (uint32_t i = 0; i < info->pageNum; ++i) {
            sum += static_cast<uint32_t>(pageDescriptors(info)[i].order);
        }
        benchmark::DoNotOptimize(sum);
    }
}

} // namespace

int main(int argc, char** argv)
{
    makePool();
    addAllocators();
    addBlocks();
    add("process_mutex", infra, handleMutex);
    add("process_mutex", "robust, priority-inheriting mutex", bareMutex);
    addStreams();
    add("handover_answer", infra, answerPackets)->UseRealTime()->MinTime(wallTime);
    add("handover_answer", "pipe with an offset", answerOffsets)->UseRealTime()->MinTime(wallTime);
    for (const size_t size : {size_t{1} << 20, size_t{64} << 20, size_t{1} << 30}) {
        add(label("repair", size), infra, repair, size);
        add(label("repair", size), "pass over the descriptors (floor)", passOver, size);
    }
    const int result = run(argc, argv, "Boost.Interprocess " BOOST_LIB_VERSION);
    IMemPool::deinitMemPool();
    return result;
}

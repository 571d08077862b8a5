// Packets of the pool policy (64 MiB in chunks of 1024 bytes) beside counted buffers from
// elsewhere. No payload is written: this is the cost of having a packet, not of filling it.
//
// packet_create_drop/N/threads:T   made with N bytes and dropped, on one thread and on two
// packet_held/N                    64 made, then dropped oldest first; time of one of them
// packet_handover/N                made on one thread, dropped on another
// packet_handle_copy               a second handle made and dropped
//
// malloc               make_shared of the bytes, uninitialised, from the system's allocator
// pmr                  the same from std::pmr::synchronized_pool_resource
// boost::pool+mutex    boost::pool of that one size under a std::mutex, with a count of its own

#include "Memory/Packet.h"

#include <array>
#include <atomic>
#include <boost/intrusive_ptr.hpp>
#include <boost/pool/pool.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <boost/version.hpp>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Memory/PacketManager.h"

namespace
{

using Tarsel::Memory::CPacket;
using Tarsel::Memory::CPacketManager;

constexpr size_t heldCount = 64;

// Each source has a Handle and makes one of `size` bytes; an empty handle is the failure.

struct InfraSource
{
    typedef CPacket Handle;
    explicit InfraSource(size_t) {}
    Handle make(size_t size) { return CPacket(size); }
    static bool isValid(const Handle& handle) { return handle.valid(); }
};

struct MallocSource
{
    typedef std::shared_ptr<uint8_t[]> Handle;
    explicit MallocSource(size_t) {}
    Handle make(size_t size) { return std::make_shared_for_overwrite<uint8_t[]>(size); }
    static bool isValid(const Handle& handle) { return handle != nullptr; }
};

struct PmrSource
{
    typedef std::shared_ptr<uint8_t[]> Handle;
    explicit PmrSource(size_t) : m_resource(std::pmr::pool_options{0, size_t{1} << 20}) {}
    Handle make(size_t size)
    {
        return std::allocate_shared_for_overwrite<uint8_t[]>(
            std::pmr::polymorphic_allocator<uint8_t>(&m_resource), size);
    }
    static bool isValid(const Handle& handle) { return handle != nullptr; }

private:
    std::pmr::synchronized_pool_resource m_resource;
};

class CBoostPoolSource
{
public:
    struct Block : boost::intrusive_ref_counter<Block, boost::thread_safe_counter>
    {
        explicit Block(CBoostPoolSource& source) : source(source) {}
        static void operator delete(Block* block, std::destroying_delete_t)
        {
            CBoostPoolSource& source = block->source;
            block->~Block();
            std::lock_guard guard(source.m_mutex);
            source.m_pool.free(block);
        }
        static void operator delete(void*) {} // a block's constructor does not throw
        static void* operator new(size_t, void* place) { return place; }
        CBoostPoolSource& source;
    };
    typedef boost::intrusive_ptr<Block> Handle;

    explicit CBoostPoolSource(size_t size) : m_pool(size + sizeof(Block)) {}
    Handle make(size_t)
    {
        void* place = nullptr;
        {
            std::lock_guard guard(m_mutex);
            place = m_pool.malloc();
        }
        return Handle(new (place) Block(*this));
    }
    static bool isValid(const Handle& handle) { return handle != nullptr; }

private:
    std::mutex m_mutex;
    boost::pool<> m_pool;
};

/// One source a case, shared by its threads. It lives on, as a process's pool does.
template <typename Source>
Source& sourceFor(size_t size)
{
    static std::mutex mutex;
    static std::vector<std::pair<size_t, std::unique_ptr<Source>>> sources;
    std::lock_guard guard(mutex);
    for (const auto& [sourceSize, source] : sources) {
        if (sourceSize == size) {
            return *source;
        }
    }
    sources.emplace_back(size, std::make_unique<Source>(size));
    return *sources.back().second;
}

template <typename Source>
void createDrop(benchmark::State& state, size_t size)
{
    Source& source = sourceFor<Source>(size);
    bool valid = true;
    for (auto _ : state) {
        typename Source::Handle handle = source.make(size);
        benchmark::DoNotOptimize(handle);
        valid = Source::isValid(handle) && valid;
    }
    if (!valid) {
        state.SkipWithError("out of memory");
    }
}

template <typename Source>
void held(benchmark::State& state, size_t size)
{
    Source& source = sourceFor<Source>(size);
    std::array<typename Source::Handle, heldCount> handles;
    while (state.KeepRunningBatch(heldCount)) {
        for (auto& handle : handles) {
            handle = source.make(size);
        }
        benchmark::DoNotOptimize(handles);
        for (auto& handle : handles) {
            handle = typename Source::Handle();
        }
    }
}

/// A ring between one maker and one dropper. Both give the processor away rather than spin on it.
template <typename Handle>
class CRing
{
public:
    void push(Handle&& handle)
    {
        const size_t at = m_pushed.load(std::memory_order_relaxed);
        while (at - m_popped.load(std::memory_order_acquire) == room) {
            std::this_thread::yield();
        }
        m_handles[at % room] = std::move(handle);
        m_pushed.store(at + 1, std::memory_order_release);
    }
    void popAndDrop()
    {
        const size_t at = m_popped.load(std::memory_order_relaxed);
        while (m_pushed.load(std::memory_order_acquire) == at) {
            std::this_thread::yield();
        }
        m_handles[at % room] = Handle();
        m_popped.store(at + 1, std::memory_order_release);
    }

private:
    static constexpr size_t room = heldCount;
    std::array<Handle, room> m_handles;
    alignas(128) std::atomic<size_t> m_pushed{0};
    alignas(128) std::atomic<size_t> m_popped{0};
};

template <typename Source>
void handover(benchmark::State& state, size_t size)
{
    static CRing<typename Source::Handle> ring;
    Source& source = sourceFor<Source>(size);
    if (state.thread_index() == 0) {
        for (auto _ : state) {
            ring.push(source.make(size));
        }
    } else {
        for (auto _ : state) {
            ring.popAndDrop();
        }
    }
}

template <typename Handle>
void copyHandle(benchmark::State& state, Handle (*make)())
{
    Handle handle = make();
    for (auto _ : state) {
        Handle made(handle);
        benchmark::DoNotOptimize(made);
    }
}

struct Counted : boost::intrusive_ref_counter<Counted, boost::thread_safe_counter>
{};

template <typename Source>
void addSource(const char* contender)
{
    for (const size_t size : {100, 1000, 4000, 65536}) {
        for (const int threads : {1, 2}) {
            Bench::addThreads(threads, Bench::label("packet_create_drop", size), contender,
                              createDrop<Source>, size);
        }
        Bench::add(Bench::label("packet_held", size), contender, held<Source>, size);
    }
    Bench::add(Bench::label("packet_handover", 1000), contender, handover<Source>, size_t{1000})
        ->Threads(2)
        ->UseRealTime();
}

void addHandles()
{
    Bench::add(
        "packet_handle_copy", Bench::infra, copyHandle<CPacket>, +[] { return CPacket(100); });
    Bench::add(
        "packet_handle_copy", "boost::intrusive_ptr", copyHandle<boost::intrusive_ptr<Counted>>,
        +[] { return boost::intrusive_ptr<Counted>(new Counted); });
    Bench::add(
        "packet_handle_copy", "std::shared_ptr", copyHandle<std::shared_ptr<int>>,
        +[] { return std::make_shared<int>(1); });
}

} // namespace

int main(int argc, char** argv)
{
    CPacketManager::PoolParameter pool = {64 << 20, 1024, 8};
    CPacketManager::config(CPacketManager::policyPool, nullptr, &pool);
    addSource<InfraSource>(Bench::infra);
    addSource<MallocSource>("malloc");
    addSource<PmrSource>("pmr");
    addSource<CBoostPoolSource>("boost::pool+mutex");
    addHandles();
    return Bench::run(argc, argv, "the compiler's library, Boost " BOOST_LIB_VERSION);
}

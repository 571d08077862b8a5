// Packets of the pool policy beside counted buffers from elsewhere (Support/PacketSources.h).
// No payload is written: this is the cost of having a packet, not of filling it.
//
// packet_create_drop/N/threads:T   made with N bytes and dropped, on one thread and on two
// packet_handover/N                made on one thread, dropped on another, by way of a ring of 64
// packet_handle_copy               a second handle made and dropped

#include <array>
#include <atomic>
#include <memory>
#include <thread>

#include "Benchmarks/Support/Cases.h"
#include "Benchmarks/Support/PacketSources.h"

namespace
{

using namespace Bench;

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
    static constexpr size_t room = 64;
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
            addThreads(threads, label("packet_create_drop", size), contender, createDrop<Source>,
                       size);
        }
    }
    add(label("packet_handover", 1000), contender, handover<Source>, size_t{1000})
        ->Threads(2)
        ->UseRealTime();
}

void addHandles()
{
    add(
        "packet_handle_copy", infra, copyHandle<CPacket>, +[] { return CPacket(100); });
    add(
        "packet_handle_copy", "boost::intrusive_ptr", copyHandle<boost::intrusive_ptr<Counted>>,
        +[] { return boost::intrusive_ptr<Counted>(new Counted); });
    add(
        "packet_handle_copy", "std::shared_ptr", copyHandle<std::shared_ptr<int>>,
        +[] { return std::make_shared<int>(1); });
}

} // namespace

int main(int argc, char** argv)
{
    configurePool();
    forEachPacketSource(
        []<typename Source>(const char* contender) { addSource<Source>(contender); });
    addHandles();
    return run(argc, argv, packetPeers);
}

// Packets that are held for a while, as in a queue, beside counted buffers from elsewhere.
//
// packet_held/N   64 made with N bytes, then dropped oldest first; time of one of them
//
// The contenders are described in Support/PacketSources.h. A program of its own, because the
// system's allocator depends on its history: here it has none, and gives memory back to the system
// whenever the last of a batch goes. After other work it may keep that memory, and costs what it
// costs to hold small buffers.

#include <array>

#include "Benchmarks/Support/Cases.h"
#include "Benchmarks/Support/PacketSources.h"

namespace
{

using namespace Bench;

constexpr size_t heldCount = 64;

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

} // namespace

int main(int argc, char** argv)
{
    configurePool();
    forEachPacketSource([]<typename Source>(const char* contender) {
        for (const size_t size : {100, 1000, 4000, 65536}) {
            add(label("packet_held", size), contender, held<Source>, size);
        }
    });
    return run(argc, argv, packetPeers);
}

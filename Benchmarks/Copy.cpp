// The packet manager's copy of payload beside the system's memcpy and a plain loop of vector moves.
//
// packet_copy/N/distance:A-B    N bytes, the target lying A to B bytes behind the source, modulo a
//                               page: every distance in turn where there are few, else every 37th
//
// The distance decides: what is loaded may look as if it depended on what was just stored.

#include <immintrin.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "Benchmarks/Support/Cases.h"
#include "Memory/PacketManager.h"

namespace
{

using namespace Bench;
using Tarsel::Memory::CPacketManager;

constexpr size_t pageSize = 4096;
constexpr size_t largest = 65536;

struct Distances
{
    size_t first;
    size_t last;
    size_t step;
};

void copyInfra(void* target, const void* source, size_t length)
{
    static CPacketManager& manager = *CPacketManager::instance();
    manager.memcpy(target, source, length);
}

void copyPlain(void* target, const void* source, size_t length)
{
    memcpy(target, source, length);
}

/// What a compiler makes of a simple loop on a processor of this kind.
[[gnu::target("avx2")]] void copyLoop(void* target, const void* source, size_t length)
{
    __m256i_u* const to = static_cast<__m256i_u*>(target);
    const __m256i_u* const from = static_cast<const __m256i_u*>(source);
    for (size_t i = 0; i < length / sizeof(*to); i += 4) {
        const __m256i a = from[i];
        const __m256i b = from[i + 1];
        const __m256i c = from[i + 2];
        const __m256i d = from[i + 3];
        to[i] = a;
        to[i + 1] = b;
        to[i + 2] = c;
        to[i + 3] = d;
    }
}

template <void (*Copy)(void*, const void*, size_t)>
void copy(benchmark::State& state, size_t length, Distances distances)
{
    static std::unique_ptr<char[]> const memory(new char[4 * (largest + pageSize)]());
    const uintptr_t start = reinterpret_cast<uintptr_t>(memory.get());
    char* const source = memory.get() + (pageSize - start % pageSize);
    char* const target = source + 2 * largest;
    size_t distance = distances.first;
    for (auto _ : state) {
        Copy(target + distance, source, length);
        benchmark::ClobberMemory();
        distance += distances.step;
        if (distance > distances.last) {
            distance = distances.first;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * length));
}

} // namespace

int main(int argc, char** argv)
{
    const bool hasAvx2 = __builtin_cpu_supports("avx2") != 0;
    for (const size_t length : {1024, 4096, 16384, 65536}) {
        for (const Distances& distances : {Distances{0, 0, 1}, Distances{1, 31, 1},
                                           Distances{32, 2047, 37}, Distances{2048, 4095, 37}}) {
            const std::string name = label("packet_copy", length) +
                                     "/distance:" + std::to_string(distances.first) + "-" +
                                     std::to_string(distances.last);
            add(name, infra, copy<copyInfra>, length, distances);
            add(name, "memcpy", copy<copyPlain>, length, distances);
            if (hasAvx2) {
                add(name, "vector loop", copy<copyLoop>, length, distances);
            }
        }
    }
    return run(argc, argv, "memcpy of the system, a loop of 32-byte moves");
}

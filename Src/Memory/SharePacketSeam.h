#ifndef INFRA_SRC_MEMORY_SHAREPACKETSEAM_H
#define INFRA_SRC_MEMORY_SHAREPACKETSEAM_H

// The one way up from packets to shared packets: in the shared-pool policy packets are made, and
// the pool's figures are known, by code that itself builds on packets. It fills this table; until
// then that policy gives packets that are not valid, with a warning, and all figures are 0.

#include <atomic>
#include <cstddef>

#include "Memory/Packet.h"

namespace Tarsel
{
namespace Memory
{

/// What shared packets offer. No entry is null.
struct SharePacketSeam
{
    /// A packet in the shared pool; null, and logged, on failure.
    PacketInternal* (*create)(size_t size, size_t extraSize);
    /// The packet that a description of `size` bytes at `buf` is about; null, and logged, on failure.
    PacketInternal* (*createFrom)(void* buf, size_t size);
    /// True for the function that marks a buffer as a description.
    bool (*isToSharePacket)(const FreeMemFunc& func);

    size_t (*getMemSize)();
    size_t (*getMemFreeSize)();
    void (*dumpInfo)();
};

/// The table in force, null at first. Constant-initialised, so it may be filled and read before
/// main().
inline constinit std::atomic<const SharePacketSeam*> s_sharePacketSeam{nullptr};

/// `seam` is kept and must live for ever. Safe from any thread.
inline void setSharePacketSeam(const SharePacketSeam* seam)
{
    s_sharePacketSeam.store(seam, std::memory_order_release);
}

inline const SharePacketSeam* sharePacketSeam()
{
    return s_sharePacketSeam.load(std::memory_order_acquire);
}

} // namespace Memory
} // namespace Tarsel

#endif

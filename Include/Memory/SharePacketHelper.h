#ifndef INFRA_MEMORY_SHAREPACKETHELPER_H
#define INFRA_MEMORY_SHAREPACKETHELPER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "Infra/Infra3/Detail/Export.h"
#include "Memory/Packet.h"

namespace Tarsel
{
namespace Memory
{

/// What CSharePacketHelper::initSharePacket() is told; a SharePacketArg.
struct BaseArg
{
    uint32_t type; ///< 0: attach to the pool; 1: make it
};

struct SharePacketArg : BaseArg
{
    uint32_t poolSize;    ///< bytes
    std::string poolType; ///< "ShareMemory"
    uint32_t pageSize;    ///< bytes; a power of two, 64 or more
    uint32_t orderNum;    ///< blocks of up to 2^(orderNum - 1) pages; 0: of any size
    uint32_t debugMode;   ///< IMemPool::PoolParam::debugFlag
};

/// Packets that several processes share.
///
/// Behaviour: in policySharePool every packet with a size lives in the shared pool. Describing such
/// a packet gives a small packet of bytes for another process, which turns them back into a packet
/// over the same memory; nothing is copied but the extra data. A description that nobody takes up
/// within a second may be void, after two it is. In other policies both conversions give the packet itself.
///
/// Failure: an error line and a packet that is not valid. Threads: safe from any thread.
///
///     CPacket bytes = CSharePacketHelper::instance()->toDescribePacket(packet);
///     write(pipe, bytes.getBuffer(), bytes.size());
class INFRA_API CSharePacketHelper
{
public:
    /// The one object.
    static CSharePacketHelper* instance();

    /// Makes the pool (type 1) or attaches to it (type 0). Attaching may fail and be tried again by
    /// the first packet; it is true all the same.
    bool initSharePacket(BaseArg* arg);
    /// The description of a shared packet with a size above 0, and the begin of a hand-over.
    CPacket toDescribePacket(const CPacket& packet);
    /// The packet that a description names, and the end of the hand-over; `packet` itself if it is
    /// no description.
    CPacket toOriginalPacket(const CPacket& packet);

private:
    CSharePacketHelper() {}
    CSharePacketHelper(const CSharePacketHelper&);
    CSharePacketHelper& operator=(const CSharePacketHelper&);
};

/// Does nothing: as the function of a packet around a buffer it says that the buffer is a
/// description, to be turned back into a shared packet.
INFRA_API void toOrig(void* buf, size_t size);
/// Gives `buf` to the system's free().
INFRA_API void defaultFree(void* buf, size_t size);

} // namespace Memory
} // namespace Tarsel

#endif

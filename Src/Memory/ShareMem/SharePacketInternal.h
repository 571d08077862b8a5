#ifndef INFRA_SRC_MEMORY_SHAREMEM_SHAREPACKETINTERNAL_H
#define INFRA_SRC_MEMORY_SHAREMEM_SHAREPACKETINTERNAL_H

// A packet whose payload is a block of the shared pool. Its extra data is this process's own.

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/AtomicCount.h"
#include "Memory/MemoryBlock.h"
#include "Memory/PacketInternal.h"
#include "Memory/ScopedPtr.h"

namespace Tarsel
{
namespace Memory
{

/// What one process tells another about a packet: this head, `extraSize` bytes, and the tail's
/// magic. Little-endian.
struct SharePacketDesc
{
    static constexpr size_t blockRoom = 64;

    char magic[4];                  ///< "SPHD"
    uint32_t len;                   ///< bytes up to the tail's magic
    uint8_t memBlockDes[blockRoom]; ///< a MemoryBlockDes, then 0
    uint32_t dataSize;              ///< bytes of payload in use
    uint32_t extraSize;
};
static_assert(sizeof(SharePacketDesc) == 80, "a format");

class SharePacketInternal : public PacketInternal
{
public:
    /// A packet with a new block; null, and logged, on failure.
    static PacketInternal* create(size_t size, size_t extraSize);
    /// A packet over the block that a description of `len` bytes names; null, and logged, on
    /// failure. Nothing is counted before all of the description has been found right.
    static PacketInternal* create(void* desc, size_t len);
    /// Whether the function marks a buffer as a description.
    static bool isToSharePacket(const FreeMemFunc& func);
    /// Whether the bytes are a description; logged if not.
    static bool checkSharePacket(void* buf, size_t len);
    /// A description from malloc(), of `size` bytes, and the begin of a hand-over; null for a packet
    /// that cannot be described.
    static uint8_t* composeDescribeInfo(const CPacket& packet, size_t& size);

    bool isValid() const { return m_valid; }

    void destroy() override;
    void addRef() override { ++m_refCount; }
    void release() override
    {
        if (m_refCount.dropsLast()) {
            destroy();
        }
    }
    size_t putBuffer(void* data, size_t len) override;
    uint8_t* getBuffer() const override;
    size_t size() const override { return m_currentPos; }
    bool resize(size_t n) override;
    size_t capacity() const override { return m_capacity; }
    void* getExtraData() const override { return m_extra; }
    size_t getExtraSize() const override { return m_extraSize; }

    virtual ~SharePacketInternal();

private:
    SharePacketInternal(size_t size, size_t extraSize);
    SharePacketInternal(const SharePacketDesc& description, const uint8_t* extra);
    SharePacketInternal(const SharePacketInternal&) = delete;
    SharePacketInternal& operator=(const SharePacketInternal&) = delete;

    static void checkLayout();
    static PacketInternal* finished(SharePacketInternal* made);
    bool takeExtra(const uint8_t* extra, size_t size);
    bool claimBlock(const SharePacketDesc& description);

    Infra::CAtomicCount m_refCount; ///< stands first: CPacket counts handles itself
    TScopedPtr<CMemoryBlock> m_memBlock;
    size_t m_bufferSize;
    size_t m_currentPos;
    size_t m_restSize;
    size_t m_capacity;
    uint8_t* m_extra;
    size_t m_extraSize;
    bool m_valid;
};

} // namespace Memory
} // namespace Tarsel

#endif

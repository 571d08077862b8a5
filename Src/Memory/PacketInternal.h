#ifndef INFRA_SRC_MEMORY_PACKETINTERNAL_H
#define INFRA_SRC_MEMORY_PACKETINTERNAL_H

// What lies behind a packet handle: the interface that a handle forwards to, and its implementation
// in ordinary memory. Where the memory of a packet is and in which order it goes is told here.

#include <cstddef>
#include <cstdint>
#include <utility>

#include "Infra/Infra3/AtomicCount.h"
#include "Memory/Packet.h"

namespace Tarsel
{
namespace Memory
{

class PacketManagerInternal;

/// The implementation behind CPacket. It lives from its creation, with one reference, to the
/// `release` that drops the last one, which runs `destroy` on that thread.
class PacketInternal
{
public:
    // Each gives an implementation with one reference, or null, the reason being logged.
    static PacketInternal* create(size_t size, size_t extraSize);
    static PacketInternal* create(void* buf, size_t size, FreeMemFunc func);
    static PacketInternal* create(void* buf, size_t size, size_t extraSize, FreeMemFunc func);
    static PacketInternal* create(size_t size, FreeMemFunc func, void* arg, size_t extraSize);
    static PacketInternal* create(const CPacket& parent, size_t offset, size_t size,
                                  size_t extraSize);

    /// Gives back all memory of the packet, this object included.
    virtual void destroy() = 0;
    virtual void addRef() = 0;
    virtual void release() = 0;
    virtual size_t putBuffer(void* data, size_t len) = 0;
    virtual uint8_t* getBuffer() const = 0;
    virtual size_t size() const = 0;
    virtual bool resize(size_t n) = 0;
    virtual size_t capacity() const = 0;
    virtual void* getExtraData() const = 0;
    virtual size_t getExtraSize() const = 0;

    /// The implementation behind a handle, still owned by it.
    static PacketInternal* of(const CPacket& packet)
    {
        return Detail::CPacketHandle::of(packet).m_internal;
    }
    /// The implementation behind a handle, its reference included; the handle is no longer valid.
    static PacketInternal* take(CPacket& packet)
    {
        return std::exchange(Detail::CPacketHandle::of(packet).m_internal, nullptr);
    }

protected:
    ~PacketInternal() = default; // ended through destroy() only
};

/// A packet in ordinary memory. T is the tail, extra data and record rounded up to the packet
/// alignment; R is the size of the record.
///
///     own memory, policySystem and policyPool       one block of the packet manager
///     +---------------------- granted ------------------------+
///     | payload, up to m_capacity | extra | padding | record  |
///     +---------------------------+-------- T ----------------+
///
///     own memory, policyPoolSystem                  payload: a block of the packet manager
///     part of another packet                        payload: inside the parent's
///     +-------------------------------+
///     | extra | padding | * | record  |             * a part's handle of its parent
///     +-------------------------------+             one block of the ordinary heap
///
///     around a buffer, attached later               record and extra: a heap block each
///
/// Records are kept at addresses that suit them: where the alignment of the packets is only 4, the
/// padding is 4 bytes longer when it has to be.
class OldPacketInternal final : public PacketInternal
{
public:
    static OldPacketInternal* create(size_t size, size_t extraSize);
    static OldPacketInternal* create(void* buf, size_t size, FreeMemFunc func);
    static OldPacketInternal* create(void* buf, size_t size, size_t extraSize, FreeMemFunc func);
    static OldPacketInternal* create(size_t size, size_t extraSize, FreeMemFunc func, void* arg);
    static OldPacketInternal* create(const CPacket& parent, size_t offset, size_t size,
                                     size_t extraSize);

    void destroy() override;
    void addRef() override { ++m_refCount; }
    void release() override
    {
        if (m_refCount.dropsLast()) {
            destroy();
        }
    }
    size_t putBuffer(void* data, size_t len) override;
    uint8_t* getBuffer() const override { return m_buffer; }
    size_t size() const override { return m_size; }
    bool resize(size_t n) override;
    size_t capacity() const override { return m_capacity; }
    void* getExtraData() const override { return m_extraSize != 0 ? m_extra : nullptr; }
    size_t getExtraSize() const override { return m_extraSize; }

private:
    enum PacketType : uint8_t
    {
        ptNormal = 0, ///< memory of its own, or attached later
        ptPacket = 1, ///< part of another packet
        ptBuffer = 2, ///< around a buffer of the caller
        ptCount = 3
    };

    /// Payload and extra data of a new record.
    struct Area
    {
        uint8_t* buffer;
        size_t size;
        size_t capacity;
        void* extra;
        size_t extraSize;
    };

    static void checkLayout();
    OldPacketInternal(const Area& area, PacketType type);
    ~OldPacketInternal();
    OldPacketInternal(const OldPacketInternal&) = delete;
    OldPacketInternal& operator=(const OldPacketInternal&) = delete;

    static OldPacketInternal* createInOneBlock(PacketManagerInternal& manager, size_t size,
                                               size_t extraSize);
    static OldPacketInternal* createInTwoBlocks(PacketManagerInternal& manager, size_t size,
                                                size_t extraSize);
    static OldPacketInternal* createApart(const Area& area, PacketType type);
    OldPacketInternal* destroyOne();
    static OldPacketInternal* dropHandle(PacketInternal* internal);

    Infra::CAtomicCount m_refCount;
    uint8_t* m_buffer;
    uint32_t m_size;
    uint32_t m_capacity;
    uint8_t* m_extra;
    uint8_t m_extraSize;
    uint8_t m_type;
    CPacket* m_packet;
    FreeMemFunc m_func;
    bool m_refBufFlag;
    FreeMemFunc m_refBufFun;
    void* m_refBufArg;
};

} // namespace Memory
} // namespace Tarsel

#endif

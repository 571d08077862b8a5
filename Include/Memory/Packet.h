#ifndef INFRA_MEMORY_PACKET_H
#define INFRA_MEMORY_PACKET_H

#include <cstddef>
#include <cstdint>
#include <utility>

#include "Infra/Infra3/AtomicCount.h"
#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Function.h"

namespace Tarsel
{
namespace Memory
{

class CPacket;
class PacketInternal;

namespace Detail
{

/// What CPacket, where the promises stand, and the older packet hold: a pointer to what stands behind
/// a packet, counted.
class INFRA_API CPacketHandle
{
public:
    CPacketHandle() noexcept : m_internal(nullptr) {}
    /// Takes over a reference.
    explicit CPacketHandle(PacketInternal* internal) noexcept : m_internal(internal) {}
    CPacketHandle(const CPacketHandle& other) noexcept : m_internal(other.m_internal)
    {
        if (m_internal != nullptr) {
            ++handlesOf(m_internal);
        }
    }
    CPacketHandle(CPacketHandle&& other) noexcept : m_internal(other.m_internal)
    {
        other.m_internal = nullptr;
    }
    /// `other`'s reference is taken first and the old one let go last, so a free function called on
    /// the way finds the handle whole.
    CPacketHandle& operator=(const CPacketHandle& other)
    {
        if (m_internal != other.m_internal) {
            CPacketHandle taken(other);
            std::swap(m_internal, taken.m_internal);
        }
        return *this;
    }
    CPacketHandle& operator=(CPacketHandle&& other) noexcept
    {
        CPacketHandle taken(std::move(other));
        std::swap(m_internal, taken.m_internal);
        return *this;
    }
    ~CPacketHandle()
    {
        if (m_internal != nullptr && handlesOf(m_internal).dropsLast()) {
            destroy(m_internal);
        }
    }

    /// The one that a packet holds.
    static CPacketHandle& of(CPacket& packet);
    static const CPacketHandle& of(const CPacket& packet);

    bool valid() const { return m_internal != nullptr; }
    size_t putBuffer(void* data, size_t len);
    uint8_t* getBuffer() const;
    size_t size() const;
    bool resize(size_t n);
    size_t capacity() const;
    void* getExtraData() const;
    size_t getExtraSize() const;

private:
    friend class Memory::PacketInternal;

    /// How many handles there are. Every implementation keeps that right behind the pointer to its
    /// table of functions, so copying a handle costs its atomic step and nothing else.
    static Infra::CAtomicCount& handlesOf(PacketInternal* internal)
    {
        return *reinterpret_cast<Infra::CAtomicCount*>(reinterpret_cast<char*>(internal) +
                                                       sizeof(void*));
    }
    static void destroy(PacketInternal* internal);

    PacketInternal* m_internal;
};

} // namespace Detail

/// Gives back memory that a packet was given by its maker.
typedef Infra::TFunction2<void, void*, size_t> FreeMemFunc;

/// A handle to a reference-counted buffer with a current size, a fixed capacity and a small area of
/// extra data that travels with it.
///
/// Behaviour: copies share the buffer; it goes when the last handle goes. There are four kinds:
/// a packet with memory of its own from the packet manager, a packet around a buffer of the caller,
/// a part of another packet, which keeps that one alive, and a packet made without a buffer that is
/// attached later. Sizes stay below 4 GiB. Extra data is meant for up to 255 bytes: a larger area
/// is there, but its size reads modulo 256, and one that reads 0 counts as none.
///
/// Failure: a packet that cannot be made is not valid, and the log says why. Everything on such a
/// packet gives 0, null or false.
/// Threads: handles of one packet may be used in different threads, each handle by one at a time.
/// Size and payload are not protected.
///
///     CPacket packet(1500, sizeof(Header));
///     if (packet.valid()) {
///         packet.resize(0);
///         packet.putBuffer(bytes, count);
///         queue.push(packet); // shares, copies nothing
///     }
class INFRA_API CPacket
{
public:
    /// A packet that is not valid.
    CPacket() noexcept = default;
    /// A packet with memory of its own. Its size is `size`, its capacity at least that.
    explicit CPacket(size_t size, size_t extraSize = 0);
    /// A packet around the `size` bytes at `buf`, its size and capacity. When the last handle goes,
    /// `func`, if not empty, is called once with `buf` and the size of that moment. If the packet
    /// is not valid, `buf` is still the caller's.
    CPacket(void* buf, size_t size, FreeMemFunc func);
    /// The same with extra data. The extra data is still there while `func` runs.
    CPacket(void* buf, size_t size, size_t extraSize, FreeMemFunc func);
    /// A packet without a buffer; `putBuffer` attaches one, and another in its place, which drops
    /// the first without a call of `func`. `size` is size and capacity at first; attaching sets the
    /// size to the length attached, which may exceed the capacity. When the last handle goes and a
    /// buffer is attached, `func`, if not empty, is called once with `arg` and the capacity.
    CPacket(uint32_t size, FreeMemFunc func, void* arg, size_t extraSize);
    /// The part of `parent` from `offset` on, with extra data of its own. `offset` lies inside the
    /// parent's size, the part does not reach beyond it, and the parent has a buffer; else the part
    /// is not valid.
    CPacket(const CPacket& parent, size_t offset, size_t size, size_t extraSize);

    CPacket(const CPacket& other) noexcept = default;
    /// Takes over; `other` is no longer valid.
    CPacket(CPacket&& other) noexcept = default;
    /// Shares `other`'s buffer. Its reference is taken first and the old buffer let go last, so a
    /// free function called on the way finds the handle whole, on the new buffer already. Handles
    /// of one buffer change nothing.
    CPacket& operator=(const CPacket& other) = default;
    CPacket& operator=(CPacket&& other) noexcept = default;
    virtual ~CPacket() = default;

    /// Lets go of the buffer; the handle is no longer valid.
    void reset() { m_handle = Detail::CPacketHandle(); }
    bool valid() const { return m_handle.valid(); }

    /// Appends as much of `data` as there is room for and returns how much that was; 0 when `data`
    /// is null. On a packet made without a buffer it attaches `data`, copying nothing, and returns
    /// `len`; null takes what was attached away. Lengths count in 32 bits: of more, the low 32 do.
    size_t putBuffer(void* data, size_t len) { return m_handle.putBuffer(data, len); }
    uint8_t* getBuffer() const { return m_handle.getBuffer(); }
    size_t size() const { return m_handle.size(); }
    /// Sets the size, up to the capacity; no byte changes. False, and no change, beyond it.
    bool resize(size_t n) { return m_handle.resize(n); }
    size_t capacity() const { return m_handle.capacity(); }
    /// Null for a packet made with no extra data.
    void* getExtraData() const { return m_handle.getExtraData(); }
    size_t getExtraSize() const { return m_handle.getExtraSize(); }

private:
    friend class Detail::CPacketHandle;

    Detail::CPacketHandle m_handle;
};

inline Detail::CPacketHandle& Detail::CPacketHandle::of(CPacket& packet)
{
    return packet.m_handle;
}

inline const Detail::CPacketHandle& Detail::CPacketHandle::of(const CPacket& packet)
{
    return packet.m_handle;
}

} // namespace Memory
} // namespace Tarsel

#endif

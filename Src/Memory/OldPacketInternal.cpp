// OldPacketInternal.cpp: packets in ordinary memory.
//
// A packet with memory of its own is one block wherever that can be: payload in front, extra data
// and the record behind it, so that a surplus of the block becomes capacity. How a packet ends
// follows from how it was made; destroyOne() reads like the table in the header. A chain of parts
// of parts may be of any length, so dropping one is a loop, not a recursion.

#include <algorithm>
#include <cstdlib>
#include <new>
#include <typeinfo>

#include "Infra3/AssertFront.h"
#include "Infra3/LogFront.h"
#include "Memory/BuddyMath.h"
#include "Memory/PacketInternal.h"
#include "Memory/PacketManagerInternal.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

constexpr size_t largestPacket = UINT32_MAX; // payload, extra data and record together
constexpr size_t recordSize = sizeof(OldPacketInternal);
constexpr size_t recordAlign = alignof(OldPacketInternal);
static_assert(recordSize % recordAlign == 0 && sizeof(CPacket) % recordAlign == 0);

bool fits(size_t first, size_t second)
{
    return first <= largestPacket && second <= largestPacket - first;
}

/// Bytes of the tail behind `extraSize`; 0 when it is beyond every packet.
size_t tailSize(const PacketManagerInternal& manager, size_t extraSize)
{
    if (!fits(extraSize, recordSize)) {
        return 0;
    }
    const size_t tail = manager.getAlignedSize(extraSize + recordSize);
    return tail <= largestPacket ? tail : 0;
}

/// Whether payload and tail, rounded as they are laid out, make a packet.
bool isPossible(const PacketManagerInternal& manager, size_t size, size_t tail)
{
    return tail != 0 && size <= largestPacket && fits(manager.getAlignedSize(size), tail) &&
           fits(manager.getAlignedSize(size) + tail, recordAlign);
}

void* recordAt(uint8_t* blockEnd)
{
    return blockEnd - recordSize;
}

void warnNotEnough(size_t size, size_t extraSize)
{
    INFRA_LOG_WARN("PacketInternal::create(): NO enough, need size:%zu ext:%zu\n", size, extraSize);
}

void reportNoHeap(size_t size)
{
    INFRA_LOG_ERROR("PacketInternal::create(): malloc failured! size:%zu\n", size);
}

/// The extra area of a packet whose record stands alone. Null without extra data; null too when
/// there is no memory, which the packet then lives with.
void* allocateExtra(size_t extraSize)
{
    return extraSize == 0 ? nullptr : std::malloc(extraSize);
}

} // namespace

OldPacketInternal::OldPacketInternal(const Area& area, PacketType type)
    : m_refCount(1),
      m_buffer(area.buffer),
      m_size(static_cast<uint32_t>(area.size)),
      m_capacity(static_cast<uint32_t>(area.capacity)),
      m_extra(static_cast<uint8_t*>(area.extra)),
      m_extraSize(static_cast<uint8_t>(area.extraSize)),
      m_type(type),
      m_packet(nullptr),
      m_refBufFlag(false),
      m_refBufArg(nullptr)
{}

// Making ---------------------------------------------------------------------------------------

OldPacketInternal* OldPacketInternal::create(size_t size, size_t extraSize)
{
    const PacketManagerInternal& manager = *PacketManagerInternal::instance();
    const CPacketManager::Policy policy = manager.getPolicy();
    const bool inOneBlock =
        policy == CPacketManager::policySystem || policy == CPacketManager::policyPool;
    if (!inOneBlock && policy != CPacketManager::policyPoolSystem) {
        INFRA_LOG_DEBUG("tracepoint:\n");
        return nullptr;
    }
    const size_t tail = tailSize(manager, extraSize);
    if (!isPossible(manager, size, tail)) {
        warnNotEnough(size, extraSize);
        return nullptr;
    }
    return inOneBlock ? createInOneBlock(size, extraSize, tail)
                      : createInTwoBlocks(size, extraSize, tail);
}

OldPacketInternal* OldPacketInternal::createInOneBlock(size_t size, size_t extraSize, size_t tail)
{
    PacketManagerInternal& manager = *PacketManagerInternal::instance();
    const size_t total = manager.getAlignedSize(size) + tail;
    // A pool's blocks end where a record may end; they are not asked for more.
    const bool isPooled = manager.getPolicy() == CPacketManager::policyPool;
    const size_t padding = isPooled ? 0 : Buddy::roundUp(total, recordAlign) - total;

    size_t granted = total + padding;
    uint8_t* block = static_cast<uint8_t*>(manager.malloc(&granted));
    if (block == nullptr) {
        warnNotEnough(size, extraSize);
        return nullptr;
    }
    const size_t capacity = granted - padding - tail;
    return new (recordAt(block + granted))
        OldPacketInternal({block, size, capacity, block + capacity, extraSize}, ptNormal);
}

OldPacketInternal* OldPacketInternal::createInTwoBlocks(size_t size, size_t extraSize, size_t tail)
{
    PacketManagerInternal& manager = *PacketManagerInternal::instance();
    size_t granted = size;
    uint8_t* payload = nullptr;
    if (size != 0) {
        payload = static_cast<uint8_t*>(manager.malloc(&granted));
        if (payload == nullptr) {
            INFRA_LOG_WARN("PacketInternal::create(): 2 NO enough, need size:%zu ext:%zu\n", size,
                           extraSize);
            return nullptr;
        }
    }
    const size_t blockSize = Buddy::roundUp(tail, recordAlign);
    uint8_t* block = static_cast<uint8_t*>(std::malloc(blockSize));
    if (block == nullptr) {
        manager.free(payload);
        reportNoHeap(tail);
        return nullptr;
    }
    const size_t capacity = std::min(granted, largestPacket);
    return new (recordAt(block + blockSize))
        OldPacketInternal({payload, size, capacity, block, extraSize}, ptNormal);
}

OldPacketInternal* OldPacketInternal::create(const CPacket& parent, size_t offset, size_t size,
                                             size_t extraSize)
{
    const size_t parentSize = parent.size();
    if (offset >= parentSize || size > parentSize - offset) {
        INFRA_LOG_WARN("PacketInternal::create() offset or size is invalid!! huge_size:%zu, "
                       "offset:%zu, size:%zu\n",
                       parentSize, offset, size);
        return nullptr;
    }
    const size_t tail = tailSize(*PacketManagerInternal::instance(), extraSize);
    if (tail == 0) {
        warnNotEnough(size, extraSize);
        return nullptr;
    }
    const size_t blockSize = Buddy::roundUp(tail, recordAlign) + sizeof(CPacket);
    uint8_t* block = static_cast<uint8_t*>(std::malloc(blockSize));
    if (block == nullptr) {
        reportNoHeap(tail);
        return nullptr;
    }
    void* place = recordAt(block + blockSize);
    OldPacketInternal* record = new (place)
        OldPacketInternal({parent.getBuffer() + offset, size, size, block, extraSize}, ptPacket);
    record->m_packet = new (static_cast<uint8_t*>(place) - sizeof(CPacket)) CPacket(parent);
    return record;
}

OldPacketInternal* OldPacketInternal::create(void* buf, size_t size, FreeMemFunc func)
{
    return create(buf, size, 0, func);
}

OldPacketInternal* OldPacketInternal::create(void* buf, size_t size, size_t extraSize,
                                             FreeMemFunc func)
{
    OldPacketInternal* record =
        createApart({static_cast<uint8_t*>(buf), size, size, nullptr, extraSize}, ptBuffer);
    if (record != nullptr) {
        record->m_func = func;
    }
    return record;
}

OldPacketInternal* OldPacketInternal::create(size_t size, size_t extraSize, FreeMemFunc func,
                                             void* arg)
{
    OldPacketInternal* record = createApart({nullptr, size, size, nullptr, extraSize}, ptNormal);
    if (record != nullptr) {
        record->m_refBufFlag = true;
        record->m_refBufFun = func;
        record->m_refBufArg = arg;
    }
    return record;
}

/// A record in a heap block of its own, with its extra data in another.
OldPacketInternal* OldPacketInternal::createApart(const Area& area, PacketType type)
{
    if (area.size > largestPacket) {
        warnNotEnough(area.size, area.extraSize);
        return nullptr;
    }
    void* place = std::malloc(recordSize);
    if (place == nullptr) {
        reportNoHeap(recordSize);
        return nullptr;
    }
    Area whole = area;
    whole.extra = allocateExtra(area.extraSize);
    return new (place) OldPacketInternal(whole, type);
}

// Ending ---------------------------------------------------------------------------------------

void OldPacketInternal::destroy()
{
    OldPacketInternal* ending = this;
    while (ending != nullptr) {
        ending = ending->destroyOne();
    }
}

/// Ends this packet. The result is the parent whose last handle this packet held, if so.
OldPacketInternal* OldPacketInternal::destroyOne()
{
    PacketManagerInternal& manager = *PacketManagerInternal::instance();
    uint8_t* const buffer = m_buffer;
    uint8_t* const extra = m_extra;
    if (m_refBufFlag) {
        this->~OldPacketInternal();
        std::free(this);
        return nullptr;
    }
    switch (m_type) {
    case ptNormal: {
        const bool inTwoBlocks = manager.getPolicy() == CPacketManager::policyPoolSystem;
        this->~OldPacketInternal();
        manager.free(buffer);
        if (inTwoBlocks) {
            std::free(extra);
        }
        return nullptr;
    }
    case ptPacket: {
        PacketInternal* parent = take(*m_packet);
        this->~OldPacketInternal();
        std::free(extra);
        return dropHandle(parent);
    }
    case ptBuffer:
        this->~OldPacketInternal();
        std::free(this);
        std::free(extra);
        return nullptr;
    default:
        Infra::Detail::assertionFailedMsg("false", "PacketInternal::destroy(): unreachable!\n",
                                          __func__, __FILE__, __LINE__);
    }
}

/// Drops one reference. A packet of this class that has no more is left to the caller to end.
OldPacketInternal* OldPacketInternal::dropHandle(PacketInternal* internal)
{
    if (internal == nullptr) {
        return nullptr;
    }
    if (typeid(*internal) != typeid(OldPacketInternal)) {
        internal->release();
        return nullptr;
    }
    OldPacketInternal* old = static_cast<OldPacketInternal*>(internal);
    return --old->m_refCount == 0 ? old : nullptr;
}

/// What the packet owes to others: its parent's handle, the caller's function.
OldPacketInternal::~OldPacketInternal()
{
    if (m_refBufFlag) {
        std::free(m_extra);
        if (m_buffer != nullptr && !m_refBufFun.empty()) {
            m_refBufFun(m_refBufArg, m_capacity);
        }
    } else if (m_type == ptPacket && m_packet != nullptr) {
        m_packet->~CPacket();
    } else if (m_type == ptBuffer && !m_func.empty()) {
        m_func(m_buffer, m_size);
    }
}

// Payload --------------------------------------------------------------------------------------

size_t OldPacketInternal::putBuffer(void* data, size_t len)
{
    if (m_refBufFlag) {
        m_buffer = static_cast<uint8_t*>(data);
        m_size = static_cast<uint32_t>(len);
        return len;
    }
    const uint32_t room = m_capacity - m_size;
    const uint32_t count = std::min(static_cast<uint32_t>(len), room);
    if (count == 0 || data == nullptr) {
        return 0;
    }
    PacketManagerInternal::instance()->memcpy(m_buffer + m_size, data, count);
    m_size += count;
    return count;
}

bool OldPacketInternal::resize(size_t n)
{
    if (n > m_capacity) {
        return false;
    }
    m_size = static_cast<uint32_t>(n);
    return true;
}

} // namespace Memory
} // namespace Tarsel

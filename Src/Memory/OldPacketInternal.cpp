// OldPacketInternal.cpp: packets in ordinary memory.
//
// A packet with memory of its own is one block wherever that can be: payload in front, extra data
// and the record behind it, so that a surplus of the block becomes capacity. How a packet ends
// follows from how it was made; destroyOne() reads like the table in the header. A chain of parts
// of parts may be of any length, so dropping one is a loop, not a recursion.

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <typeinfo>

#include "Infra3/Arithmetic.h"
#include "Infra3/AssertFront.h"
#include "Infra3/LogFront.h"
#include "Memory/PacketInternal.h"
#include "Memory/PacketManagerInternal.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

constexpr size_t largestPacket = UINT32_MAX; // payload, extra data and record of one block
constexpr size_t beyondEveryPool = SIZE_MAX; // a request that the manager refuses by itself
constexpr size_t recordSize = sizeof(OldPacketInternal);
constexpr size_t recordAlign = alignof(OldPacketInternal);
static_assert(recordSize % recordAlign == 0 && sizeof(CPacket) % recordAlign == 0);

/// Bytes of the tail behind `extraSize`; SIZE_MAX when they cannot be counted.
size_t tailSize(const PacketManagerInternal& manager, size_t extraSize)
{
    const size_t content = Infra::saturatedSum(extraSize, recordSize);
    const size_t tail = manager.getAlignedSize(content);
    return tail < content ? SIZE_MAX : tail;
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

/// A heap block with a tail in it; null without memory, and for a tail that no packet has.
uint8_t* allocateTail(size_t tail, size_t blockSize)
{
    return tail <= largestPacket ? static_cast<uint8_t*>(std::malloc(blockSize)) : nullptr;
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

/// Handles count themselves, without knowing what stands behind them.
void OldPacketInternal::checkLayout()
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored                                                                     \
    "-Winvalid-offsetof" // one base without data: the offset is a constant
    static_assert(offsetof(OldPacketInternal, m_refCount) == sizeof(void*));
#pragma GCC diagnostic pop
}

// Making ---------------------------------------------------------------------------------------

OldPacketInternal* OldPacketInternal::create(size_t size, size_t extraSize)
{
    PacketManagerInternal& manager = *PacketManagerInternal::instance();
    const CPacketManager::Policy policy = manager.getPolicy();
    const bool inOneBlock =
        policy == CPacketManager::policySystem || policy == CPacketManager::policyPool;
    if (!inOneBlock && policy != CPacketManager::policyPoolSystem) {
        INFRA_LOG_DEBUG("tracepoint:\n");
        return nullptr;
    }
    return inOneBlock ? createInOneBlock(manager, size, extraSize)
                      : createInTwoBlocks(manager, size, extraSize);
}

inline OldPacketInternal* OldPacketInternal::createInOneBlock(PacketManagerInternal& manager,
                                                              size_t size, size_t extraSize)
{
    const bool isPooled = manager.getPolicy() == CPacketManager::policyPool;
    const bool canBe = size <= largestPacket && extraSize <= largestPacket;
    const size_t tail = manager.getAlignedSize(extraSize + recordSize);
    const size_t total = manager.getAlignedSize(size) + tail;
    // A pool's blocks end where a record may end; they are not asked for more.
    const size_t padding = isPooled ? 0 : Infra::roundUp(total, recordAlign) - total;

    const bool isPossible = canBe && total <= largestPacket - recordAlign;
    size_t granted = isPossible ? total + padding : beyondEveryPool;
    uint8_t* block = nullptr;
    // Primitives are not asked for what they cannot have; the pool is, for it says so.
    if (isPossible || isPooled) {
        block = static_cast<uint8_t*>(manager.malloc(&granted));
    }
    if (block == nullptr) {
        warnNotEnough(size, extraSize);
        return nullptr;
    }
    const size_t capacity = granted - padding - tail;
    return new (recordAt(block + granted))
        OldPacketInternal({block, size, capacity, block + capacity, extraSize}, ptNormal);
}

OldPacketInternal* OldPacketInternal::createInTwoBlocks(PacketManagerInternal& manager, size_t size,
                                                        size_t extraSize)
{
    const size_t tail = tailSize(manager, extraSize);
    size_t granted = size <= largestPacket ? size : beyondEveryPool;
    uint8_t* payload = nullptr;
    if (size != 0) {
        payload = static_cast<uint8_t*>(manager.malloc(&granted));
        if (payload == nullptr) {
            INFRA_LOG_WARN("PacketInternal::create(): 2 NO enough, need size:%zu ext:%zu\n", size,
                           extraSize);
            return nullptr;
        }
    }
    const size_t blockSize = Infra::roundUp(tail, recordAlign);
    uint8_t* block = allocateTail(tail, blockSize);
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
    uint8_t* const payload = parent.getBuffer(); // null while nothing is attached
    if (payload == nullptr || offset >= parentSize || size > parentSize - offset) {
        INFRA_LOG_WARN("PacketInternal::create() offset or size is invalid!! huge_size:%zu, "
                       "offset:%zu, size:%zu\n",
                       parentSize, offset, size);
        return nullptr;
    }
    const size_t tail = tailSize(*PacketManagerInternal::instance(), extraSize);
    const size_t blockSize = Infra::roundUp(tail, recordAlign) + sizeof(CPacket);
    uint8_t* block = allocateTail(tail, blockSize);
    if (block == nullptr) {
        reportNoHeap(tail);
        return nullptr;
    }
    void* place = recordAt(block + blockSize);
    OldPacketInternal* record =
        new (place) OldPacketInternal({payload + offset, size, size, block, extraSize}, ptPacket);
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

/// What the packet owes to others: its parent's handle, the caller's function.
inline OldPacketInternal::~OldPacketInternal()
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
    return old->m_refCount.dropsLast() ? old : nullptr;
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
    if (count == 0 || data == nullptr || m_buffer == nullptr) {
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

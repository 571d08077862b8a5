// SharePacketInternal.cpp: shared packets, and descriptions of them.
//
// A description comes from another process and may say anything. Its head is copied first, sums are
// made in 64 bits, and all of it is held against what it can be before a block is claimed.

#include "Memory/ShareMem/SharePacketInternal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Infra3/LogFront.h"
#include "Memory/CopyBytes.h"
#include "Memory/PacketManager.h"
#include "Memory/ShareMemory.h"
#include "Memory/SharePacketHelper.h"
#include "Memory/SharePacketSeam.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

constexpr char headMagic[] = {'S', 'P', 'H', 'D'};
constexpr char tailMagic[] = {'S', 'P', 'T', 'L'};
constexpr size_t headSize = sizeof(SharePacketDesc);

bool readHead(const void* desc, size_t len, SharePacketDesc* head)
{
    if (desc == nullptr || len < headSize) {
        INFRA_LOG_ERROR("arg is invalid.\n");
        return false;
    }
    memcpy(head, desc, headSize);
    return true;
}

/// Whether the head, and what stands in the `len` bytes at `desc` behind it, fit together.
bool isDescription(const SharePacketDesc& head, const void* desc, size_t len)
{
    if (memcmp(head.magic, headMagic, sizeof(headMagic)) != 0) {
        INFRA_LOG_ERROR("magic head is invalid.\n");
        return false;
    }
    if (len < uint64_t{head.len} + sizeof(tailMagic) ||
        head.len != uint64_t{head.extraSize} + headSize) {
        INFRA_LOG_ERROR("len invalid.\n");
        return false;
    }
    if (memcmp(static_cast<const uint8_t*>(desc) + head.len, tailMagic, sizeof(tailMagic)) != 0) {
        INFRA_LOG_ERROR("magic tailer is invalid.\n");
        return false;
    }
    return true;
}

} // namespace

/// Handles count themselves, without knowing what stands behind them.
void SharePacketInternal::checkLayout()
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored                                                                     \
    "-Winvalid-offsetof" // one base without data: the offset is a constant
    static_assert(offsetof(SharePacketInternal, m_refCount) == sizeof(void*));
#pragma GCC diagnostic pop
}

// Making -----------------------------------------------------------------------------------------

SharePacketInternal::SharePacketInternal(size_t size, size_t extraSize)
    : m_refCount(1),
      m_bufferSize(size),
      m_currentPos(0),
      m_restSize(0),
      m_capacity(0),
      m_extra(nullptr),
      m_extraSize(extraSize),
      m_valid(size != 0)
{
    if (!m_valid) {
        return;
    }
    m_memBlock.reset(CMemoryBlock::createMemoryBlock(size));
    if (!m_memBlock) {
        INFRA_LOG_ERROR("this:%p createMemoryBlock failed.\n", static_cast<void*>(this));
        m_valid = false;
        return;
    }
    m_capacity = m_restSize = m_memBlock->getTotalSize();
    m_valid = takeExtra(nullptr, extraSize);
    if (!m_valid) {
        INFRA_LOG_ERROR("this:%p alloc extra failed.\n", static_cast<void*>(this));
    }
}

SharePacketInternal::SharePacketInternal(const SharePacketDesc& description, const uint8_t* extra)
    : m_refCount(1),
      m_bufferSize(description.dataSize),
      m_currentPos(description.dataSize),
      m_restSize(0),
      m_capacity(0),
      m_extra(nullptr),
      m_extraSize(description.extraSize),
      m_valid(false)
{
    if (!takeExtra(extra, description.extraSize)) {
        INFRA_LOG_ERROR("this:%p alloc extra data failed.\n", static_cast<void*>(this));
        return;
    }
    m_valid = claimBlock(description);
}

/// Extra data of `size` bytes, copied from `extra` unless that is null. False without memory.
bool SharePacketInternal::takeExtra(const uint8_t* extra, size_t size)
{
    if (size == 0) {
        return true;
    }
    m_extra = static_cast<uint8_t*>(std::malloc(size));
    if (m_extra != nullptr && extra != nullptr) {
        memcpy(m_extra, extra, size);
    }
    return m_extra != nullptr;
}

/// What is said to be in use must be there: by what the description says of the block, and by what
/// the block turns out to be.
bool SharePacketInternal::claimBlock(const SharePacketDesc& description)
{
    MemoryBlockDes block = {};
    memcpy(&block, description.memBlockDes, sizeof(block));
    if (description.dataSize > block.totalSize) {
        INFRA_LOG_ERROR("this:%p size exceed capacity\n", static_cast<void*>(this));
        return false;
    }
    SharePacketDesc copy = description;
    m_memBlock.reset(CMemoryBlock::getMemoryBlock(copy.memBlockDes, sizeof(copy.memBlockDes)));
    if (!m_memBlock) {
        INFRA_LOG_ERROR("this:%p get memory block failed.\n", static_cast<void*>(this));
        return false;
    }
    m_capacity = m_memBlock->getTotalSize();
    if (description.dataSize > m_capacity) {
        INFRA_LOG_ERROR("this:%p size exceed capacity\n", static_cast<void*>(this));
        return false;
    }
    m_restSize = m_capacity - description.dataSize;
    return true;
}

SharePacketInternal::~SharePacketInternal()
{
    std::free(m_extra);
}

PacketInternal* SharePacketInternal::finished(SharePacketInternal* made)
{
    if (made != nullptr && !made->isValid()) {
        delete made;
        return nullptr;
    }
    return made;
}

PacketInternal* SharePacketInternal::create(size_t size, size_t extraSize)
{
    return finished(new (std::nothrow) SharePacketInternal(size, extraSize));
}

PacketInternal* SharePacketInternal::create(void* desc, size_t len)
{
    SharePacketDesc head = {};
    if (desc == nullptr || len == 0 || !readHead(desc, len, &head) ||
        !isDescription(head, desc, len)) {
        return nullptr;
    }
    const uint8_t* const extra = static_cast<const uint8_t*>(desc) + headSize;
    return finished(new (std::nothrow) SharePacketInternal(head, extra));
}

void SharePacketInternal::destroy()
{
    delete this;
}

// Payload ----------------------------------------------------------------------------------------

uint8_t* SharePacketInternal::getBuffer() const
{
    if (!m_memBlock) {
        INFRA_LOG_ERROR("this:%p memory block is NULL.\n",
                        static_cast<void*>(const_cast<SharePacketInternal*>(this)));
        return nullptr;
    }
    return static_cast<uint8_t*>(m_memBlock->getBuffer());
}

size_t SharePacketInternal::putBuffer(void* data, size_t len)
{
    uint8_t* const buffer = getBuffer();
    if (buffer == nullptr) {
        INFRA_LOG_ERROR("this:%p get buffer failed.\n", static_cast<void*>(this));
        return 0;
    }
    const size_t count = data != nullptr ? std::min(len, m_restSize) : 0;
    copyBytes(buffer + m_currentPos, data, count);
    m_currentPos += count;
    m_restSize -= count;
    return count;
}

bool SharePacketInternal::resize(size_t n)
{
    if (n > m_capacity) {
        INFRA_LOG_ERROR("this:%p size exceed capacity\n", static_cast<void*>(this));
        return false;
    }
    m_currentPos = n;
    m_restSize = m_capacity - n;
    return true;
}

// Descriptions -----------------------------------------------------------------------------------

bool SharePacketInternal::isToSharePacket(const FreeMemFunc& func)
{
    return func == FreeMemFunc(&toOrig);
}

bool SharePacketInternal::checkSharePacket(void* buf, size_t len)
{
    SharePacketDesc head = {};
    return readHead(buf, len, &head) && isDescription(head, buf, len);
}

uint8_t* SharePacketInternal::composeDescribeInfo(const CPacket& packet, size_t& size)
{
    const size_t extraSize = packet.getExtraSize();
    const size_t whole = headSize + extraSize + sizeof(tailMagic);
    if (packet.size() == 0 || extraSize > UINT32_MAX - headSize || packet.size() > UINT32_MAX) {
        return nullptr;
    }
    uint8_t* const record = static_cast<uint8_t*>(std::malloc(whole));
    if (record == nullptr) {
        INFRA_LOG_ERROR("malloc failed. allocSize:%zu, extra:%zu\n", whole, extraSize);
        return nullptr;
    }
    SharePacketDesc head = {};
    memcpy(head.magic, headMagic, sizeof(headMagic));
    head.len = static_cast<uint32_t>(headSize + extraSize);
    head.dataSize = static_cast<uint32_t>(packet.size());
    head.extraSize = static_cast<uint32_t>(extraSize);
    if (!CMemoryBlock::getMemoryBlockDesc(packet.getBuffer(), head.memBlockDes,
                                          sizeof(head.memBlockDes))) {
        INFRA_LOG_ERROR("getMemoryBlockDesc failed.\n");
        std::free(record);
        return nullptr;
    }
    memcpy(record, &head, headSize);
    if (extraSize != 0) {
        memcpy(record + headSize, packet.getExtraData(), extraSize);
    }
    memcpy(record + head.len, tailMagic, sizeof(tailMagic));
    size = whole;
    return record;
}

// The way up from packets --------------------------------------------------------------------------

namespace
{

/// Joined while the library is loaded: the first packet may be made before main().
[[maybe_unused]] const bool s_isJoined = [] {
    static constexpr SharePacketSeam seam = {
        [](size_t size, size_t extraSize) { return SharePacketInternal::create(size, extraSize); },
        [](void* buf, size_t size) { return SharePacketInternal::create(buf, size); },
        &SharePacketInternal::isToSharePacket,
        [] {
            uint32_t size = 0;
            IMemPool::getMemSize(size);
            return size_t{size};
        },
        [] {
            uint32_t size = 0;
            IMemPool::getMemFreeSize(size);
            return size_t{size};
        },
        &IMemPool::dumpInfo,
    };
    setSharePacketSeam(&seam);
    return true;
}();

} // namespace

} // namespace Memory
} // namespace Tarsel

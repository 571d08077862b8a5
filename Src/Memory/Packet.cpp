// Packet.cpp: packet handles, and the choice of what stands behind a new one.

#include "Memory/Packet.h"

#include "Infra3/LogFront.h"
#include "Memory/PacketInternal.h"
#include "Memory/PacketManagerInternal.h"
#include "Memory/SharePacketSeam.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

/// Asking the manager makes it, and so fixes the policy, with the first packet.
bool isSharePolicy()
{
    return PacketManagerInternal::instance()->getPolicy() == CPacketManager::policySharePool;
}

PacketInternal* createShared(size_t size, size_t extraSize)
{
    const SharePacketSeam* share = sharePacketSeam();
    if (share == nullptr) {
        INFRA_LOG_WARN("PacketInternal::create(): no share pool, need size:%zu ext:%zu\n", size,
                       extraSize);
        return nullptr;
    }
    return share->create(size, extraSize);
}

/// The shared-packet part, when `func` marks a buffer as one of its blocks.
const SharePacketSeam* shareOf(const FreeMemFunc& func)
{
    const SharePacketSeam* share = isSharePolicy() ? sharePacketSeam() : nullptr;
    return share != nullptr && share->isToSharePacket(func) ? share : nullptr;
}

} // namespace

PacketInternal* PacketInternal::create(size_t size, size_t extraSize)
{
    if (isSharePolicy()) {
        return createShared(size, extraSize);
    }
    return OldPacketInternal::create(size, extraSize);
}

PacketInternal* PacketInternal::create(void* buf, size_t size, FreeMemFunc func)
{
    if (const SharePacketSeam* share = shareOf(func)) {
        return share->createFrom(buf, size);
    }
    return OldPacketInternal::create(buf, size, func);
}

PacketInternal* PacketInternal::create(void* buf, size_t size, size_t extraSize, FreeMemFunc func)
{
    if (const SharePacketSeam* share = shareOf(func)) {
        return share->createFrom(buf, size);
    }
    return OldPacketInternal::create(buf, size, extraSize, func);
}

PacketInternal* PacketInternal::create(size_t size, FreeMemFunc func, void* arg, size_t extraSize)
{
    if (isSharePolicy()) {
        return createShared(size, extraSize);
    }
    return OldPacketInternal::create(size, extraSize, func, arg);
}

PacketInternal* PacketInternal::create(const CPacket& parent, size_t offset, size_t size,
                                       size_t extraSize)
{
    PacketManagerInternal::instance();
    return OldPacketInternal::create(parent, offset, size, extraSize);
}

CPacket::CPacket(size_t size, size_t extraSize) : m_handle(PacketInternal::create(size, extraSize))
{}

CPacket::CPacket(void* buf, size_t size, FreeMemFunc func)
    : m_handle(PacketInternal::create(buf, size, func))
{}

CPacket::CPacket(void* buf, size_t size, size_t extraSize, FreeMemFunc func)
    : m_handle(PacketInternal::create(buf, size, extraSize, func))
{}

CPacket::CPacket(uint32_t size, FreeMemFunc func, void* arg, size_t extraSize)
    : m_handle(PacketInternal::create(size_t{size}, func, arg, extraSize))
{}

CPacket::CPacket(const CPacket& parent, size_t offset, size_t size, size_t extraSize)
    : m_handle(PacketInternal::create(parent, offset, size, extraSize))
{}

namespace Detail
{

void CPacketHandle::destroy(PacketInternal* internal)
{
    internal->destroy();
}

size_t CPacketHandle::putBuffer(void* data, size_t len)
{
    return m_internal != nullptr ? m_internal->putBuffer(data, len) : 0;
}

uint8_t* CPacketHandle::getBuffer() const
{
    return m_internal != nullptr ? m_internal->getBuffer() : nullptr;
}

size_t CPacketHandle::size() const
{
    return m_internal != nullptr ? m_internal->size() : 0;
}

bool CPacketHandle::resize(size_t n)
{
    return m_internal != nullptr && m_internal->resize(n);
}

size_t CPacketHandle::capacity() const
{
    return m_internal != nullptr ? m_internal->capacity() : 0;
}

void* CPacketHandle::getExtraData() const
{
    return m_internal != nullptr ? m_internal->getExtraData() : nullptr;
}

size_t CPacketHandle::getExtraSize() const
{
    return m_internal != nullptr ? m_internal->getExtraSize() : 0;
}

} // namespace Detail

} // namespace Memory
} // namespace Tarsel

// Packet.cpp: the older packets and their manager.

#include "Infra/Packet.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "Infra3/Singleton.h"
#include "Memory/PacketManager.h"

namespace
{

/// Bytes of header of every packet made from now on.
constinit std::atomic<size_t> headerBytes{0};

size_t headerSize()
{
    return headerBytes.load(std::memory_order_relaxed);
}

} // namespace

CPacket::CPacket(unsigned long size)
{
    Tarsel::Memory::CPacket packet(size, headerSize());
    m_internal = std::move(Handle::of(packet));
}

CPacket::CPacket(unsigned int size, FreeProc func, void* arg)
{
    Tarsel::Memory::CPacket packet(size, func, arg, headerSize());
    m_internal = std::move(Handle::of(packet));
}

unsigned long CPacket::GetLeft() const
{
    return GetSize() - std::min(GetLength(), GetSize());
}

void CPacket::ClearHeader()
{
    if (GetHeader() != nullptr) {
        memset(GetHeader(), 0, GetHeaderSize());
    }
}

IPacketManager* IPacketManager::instance()
{
    return CPacketManager::instance();
}

void IPacketManager::config(int totalSize, int chunkSize, int headerSize)
{
    headerBytes.store(static_cast<size_t>(std::max(headerSize, 0)), std::memory_order_relaxed);
    Tarsel::Memory::CPacketManager::PoolParameter pool = {static_cast<size_t>(totalSize),
                                                          static_cast<size_t>(chunkSize), 4};
    Tarsel::Memory::CPacketManager::config(Tarsel::Memory::CPacketManager::policyPoolSystem,
                                           nullptr, &pool);
}

IPacketManager::~IPacketManager() = default;

CPacketManager* CPacketManager::instance()
{
    return Tarsel::Infra::TSingleton<CPacketManager>::instance();
}

CPacketManager::~CPacketManager() = default;

/// Threads that run on while the process exits may still call it.
bool CPacketManager::staysInUse(CPacketManager*)
{
    return true;
}

unsigned long CPacketManager::GetBufferSize()
{
    return Tarsel::Memory::CPacketManager::instance()->getBufferSize();
}

unsigned long CPacketManager::GetFreeSize()
{
    return Tarsel::Memory::CPacketManager::instance()->getFreeSize();
}

void CPacketManager::DumpNodes()
{
    Tarsel::Memory::CPacketManager::instance()->dumpNodes();
}

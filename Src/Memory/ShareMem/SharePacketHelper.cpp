// SharePacketHelper.cpp: setting up the pool for packets, and packets to and from descriptions.

#include "Memory/SharePacketHelper.h"

#include <cstdlib>

#include "Infra3/LogFront.h"
#include "Memory/MemoryBlock.h"
#include "Memory/PacketManagerInternal.h"
#include "Memory/ShareMem/SharePacketInternal.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

enum ArgType : uint32_t
{
    attachToPool = 0,
    makePool = 1,
    argTypes = 2
};

bool isSharePolicy()
{
    return PacketManagerInternal::instance()->getPolicy() == CPacketManager::policySharePool;
}

/// False for a type of pool that there is none of.
bool readPoolType(const std::string& name, IMemPool::PoolType* type)
{
    if (name == "ShareMemory") {
        *type = IMemPool::PT_ShareMemory;
        return true;
    }
    if (name == "AvMemory") {
        *type = IMemPool::PT_AvMemory;
        return true;
    }
    return false;
}

} // namespace

void toOrig(void* /*buf*/, size_t /*size*/) {}

void defaultFree(void* buf, size_t /*size*/)
{
    std::free(buf);
}

CSharePacketHelper* CSharePacketHelper::instance()
{
    static CSharePacketHelper s_helper;
    return &s_helper;
}

bool CSharePacketHelper::initSharePacket(BaseArg* arg)
{
    if (arg == nullptr || arg->type >= argTypes) {
        INFRA_LOG_ERROR("this:%p invalid arg.\n", static_cast<void*>(this));
        return false;
    }
    const SharePacketArg& wanted = *static_cast<SharePacketArg*>(arg);
    IMemPool::PoolParam param = {};
    param.poolSize = wanted.poolSize;
    param.chunkSize = wanted.pageSize;
    param.orderNum = wanted.orderNum;
    param.debugFlag = wanted.debugMode;
    if (!readPoolType(wanted.poolType, &param.poolType)) {
        INFRA_LOG_ERROR("this:%p pool type not support.\n", static_cast<void*>(this));
        return false;
    }
    if (wanted.type == attachToPool) {
        CMemoryBlock::setPoolParameter(param);
        return true;
    }
    if (!IMemPool::initMemPool(param)) {
        INFRA_LOG_ERROR("this:%p init memory pool failed.\n", static_cast<void*>(this));
        return false;
    }
    return true;
}

CPacket CSharePacketHelper::toDescribePacket(const CPacket& packet)
{
    if (!isSharePolicy()) {
        return packet;
    }
    size_t size = 0;
    uint8_t* const description = SharePacketInternal::composeDescribeInfo(packet, size);
    if (description == nullptr) {
        return CPacket();
    }
    CPacket described(description, size, FreeMemFunc(&defaultFree));
    if (!described.valid()) {
        std::free(description);
    }
    return described;
}

CPacket CSharePacketHelper::toOriginalPacket(const CPacket& packet)
{
    if (!isSharePolicy() ||
        !SharePacketInternal::checkSharePacket(packet.getBuffer(), packet.size())) {
        return packet;
    }
    return CPacket(packet.getBuffer(), packet.size(), FreeMemFunc(&toOrig));
}

} // namespace Memory
} // namespace Tarsel

// Claims blocks and packets by arbitrary descriptions over a living pool. Whatever one says, nothing
// is counted that is not given back, and no payload reaches the bookkeeping.
//
// The first byte says what to begin with: nothing, or a right description of a block or of a packet,
// whose block this process has a handle of, or has not. Then come changes, each a place and a byte;
// without a description to begin with, the bytes are the description.

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Infra/Infra3/CPrintLog.h"
#include "Memory/MemoryBlock.h"
#include "Memory/Packet.h"
#include "Memory/PacketManager.h"
#include "Memory/ShareMem/Report.h"
#include "Memory/SharePacketHelper.h"
#include "ShareMem/PoolChecker.h"

using namespace Tarsel::Memory;

namespace
{

typedef std::vector<uint8_t> Bytes;

void expect(bool kept, const char* what)
{
    if (!kept) {
        fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

uint32_t freeSize()
{
    uint32_t size = 0;
    IMemPool::getMemFreeSize(size);
    return size;
}

/// A pool with blocks of several kinds in it, and right descriptions of two of them.
class CScene
{
public:
    CScene()
    {
        Infra_openLog = CLOSE_LOG;
        if (unshare(CLONE_NEWIPC) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWIPC) != 0) {
            fputs("no IPC namespace\n", stderr);
            _exit(77); // as a test: skipped
        }
        CPacketManager::config(CPacketManager::policySharePool);
        SharePacketArg arg;
        arg.type = 1;
        arg.poolSize = 256 << 10;
        arg.poolType = "ShareMemory";
        arg.pageSize = 1024;
        arg.orderNum = 0;
        arg.debugMode = 0;
        expect(CSharePacketHelper::instance()->initSharePacket(&arg), "no pool");
        CMemoryBlock::setPoolParameter(poolParam());

        m_packet = CPacket(3000, 16);
        expect(m_packet.valid(), "no packet");
        m_packet.resize(2000);
        const CPacket described = CSharePacketHelper::instance()->toDescribePacket(m_packet);
        m_ofPacket.assign(described.getBuffer(), described.getBuffer() + described.size());
        m_ofBlock.assign(m_ofPacket.begin() + 8, m_ofPacket.begin() + 8 + sizeof(MemoryBlockDes));

        // A block that this process holds as if it were another: without a handle.
        size_t size = 3000;
        size_t offset = 0;
        m_foreign = pool()->allocMem(size);
        expect(pool()->getOffset(m_foreign, offset), "no block");
        m_foreignOffset = static_cast<uint32_t>(offset);
        m_checker = new Tarsel::TestSupport::CPoolChecker;
        ShareMem::holdReports(); // for good: nobody reads them
    }

    Bytes ofBlock() const { return m_ofBlock; }
    Bytes ofPacket() const { return m_ofPacket; }
    /// The same description of the other block.
    Bytes foreign(Bytes description) const
    {
        const size_t start = description.size() > sizeof(MemoryBlockDes) ? 8 : 0;
        memcpy(description.data() + start + offsetof(MemoryBlockDes, offset), &m_foreignOffset,
               sizeof(m_foreignOffset));
        return description;
    }

    /// Both are on their way.
    void handOver()
    {
        pool()->incDeliverRef(m_packet.getBuffer());
        pool()->incDeliverRef(m_foreign);
        m_free = freeSize();
    }
    void expectUntouched()
    {
        expect(freeSize() == m_free, "the free size is another");
        const std::string faults = m_checker->faults();
        expect(faults.empty(), faults.c_str());
    }

private:
    static IMemPool::PoolParam poolParam()
    {
        IMemPool::PoolParam param = {};
        param.poolSize = 256 << 10;
        param.chunkSize = 1024;
        return param;
    }
    static IMemPool* pool() { return IMemPool::loadMemPool(poolParam()); }

    CPacket m_packet;
    void* m_foreign;
    uint32_t m_foreignOffset;
    Bytes m_ofBlock;
    Bytes m_ofPacket;
    Tarsel::TestSupport::CPoolChecker* m_checker;
    uint32_t m_free = 0;
};

Bytes describe(const CScene& scene, const uint8_t* data, size_t size)
{
    Bytes description;
    switch (data[0] % 5) {
    case 0:
        return Bytes(data + 1, data + size);
    case 1:
        description = scene.ofBlock();
        break;
    case 2:
        description = scene.foreign(scene.ofBlock());
        break;
    case 3:
        description = scene.ofPacket();
        break;
    default:
        description = scene.foreign(scene.ofPacket());
        break;
    }
    for (size_t i = 1; i + 1 < size; i += 2) {
        description[data[i] % description.size()] = data[i + 1];
    }
    return description;
}

void claimBlock(Bytes description)
{
    CMemoryBlock* const block =
        CMemoryBlock::getMemoryBlock(description.data(), description.size());
    if (block != nullptr) {
        memset(block->getBuffer(), 0x5A, block->getTotalSize());
        delete block;
    }
}

void use(CPacket packet)
{
    if (!packet.valid() || packet.capacity() == 0) {
        return;
    }
    expect(packet.size() <= packet.capacity(), "more payload than room");
    memset(packet.getBuffer(), 0xA5, packet.capacity());
    uint8_t more[100] = {};
    packet.putBuffer(more, sizeof(more));
    if (packet.getExtraSize() != 0) {
        memset(packet.getExtraData(), 0xA5, packet.getExtraSize());
    }
}

void claimPackets(Bytes description)
{
    use(CPacket(description.data(), description.size(), FreeMemFunc(&toOrig)));
    const CPacket received(description.data(), description.size(), FreeMemFunc());
    use(CSharePacketHelper::instance()->toOriginalPacket(received));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static CScene& s_scene = *new CScene;
    if (size == 0) {
        return 0;
    }
    const Bytes description = describe(s_scene, data, size);
    s_scene.handOver();
    claimBlock(description);
    claimPackets(description);
    s_scene.expectUntouched();
    return 0;
}

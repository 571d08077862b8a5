// Memory missing at every allocation of what packets and buffers do, in every policy.

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "Infra/Infra3/PrintLog.h"
#include "Memory/Buffer.h"
#include "Memory/Packet.h"
#include "Memory/PacketManager.h"
#include "Memory/PacketManagerInternal.h"
#include "Support/FailingHeap.h"

using Tarsel::Memory::CBuffer;
using Tarsel::Memory::CPacket;
using Tarsel::Memory::CPacketManager;
using Tarsel::Memory::PacketManagerInternal;
using Tarsel::TestSupport::expectToSurviveShortage;

namespace
{

int s_complaints = 0; // lines that say why there is no packet
int s_refused = 0;    // packets that are not there
int s_released = 0;   // buffers that were given back
int s_wrapped = 0;    // buffers that were taken

void countComplaints(const char* line)
{
    s_complaints += strstr(line, "PacketInternal::create(): ") != nullptr;
}

void release(void*, size_t)
{
    ++s_released;
}

void note(const CPacket& packet)
{
    s_refused += packet.valid() ? 0 : 1;
}

void fill(const CPacket& packet)
{
    if (packet.valid()) {
        memset(packet.getBuffer(), 0x5A, packet.capacity());
    }
    if (packet.getExtraData() != nullptr) {
        memset(packet.getExtraData(), 0xA5, packet.getExtraSize());
    }
}

void usePackets()
{
    const CPacket owner(3000, 16);
    note(owner);
    fill(owner);
    const CPacket empty(0, 0);
    note(empty);
    if (owner.valid()) {
        const CPacket part(owner, 10, 2000, 8);
        note(part);
        fill(part);
        if (part.valid()) {
            const CPacket deeper(part, 1990, 10, 0);
            note(deeper);
            EXPECT_TRUE(!deeper.valid() || deeper.getBuffer()[9] == 0x5A);
        }
    }
    char buffer[100];
    const CPacket wrapped(buffer, sizeof(buffer), 4, &release);
    note(wrapped);
    s_wrapped += wrapped.valid() ? 1 : 0;
    CPacket later(200u, &release, buffer, 3);
    note(later);
    s_wrapped += later.putBuffer(buffer, sizeof(buffer)) == sizeof(buffer) ? 1 : 0;
    CPacketManager::instance()->dumpNodes();
}

void useBuffers()
{
    uint8_t bytes[500];
    memset(bytes, 0x77, sizeof(bytes));
    CBuffer buffer;
    buffer.setIncreasedSize(64);
    size_t length = 0;
    for (int i = 0; i < 5; ++i) {
        const size_t taken = buffer.putBuffer(bytes, sizeof(bytes));
        EXPECT_TRUE(taken == 0 || taken == sizeof(bytes));
        length += taken;
        EXPECT_EQ(buffer.size(), length);
    }
    buffer.reserve(10000);
    EXPECT_EQ(buffer.size(), length);
    EXPECT_TRUE(length == 0 || buffer.getBuffer()[length - 1] == 0x77);
}

TEST(MemoryShortageTest, PacketsAreWholeOrRefusedWithALineAndNothingIsKept)
{
    for (const auto policy : {CPacketManager::policySystem, CPacketManager::policyPool,
                              CPacketManager::policyPoolSystem}) {
        const auto prepare = [policy] {
            CPacketManager::MemoryOperator memop = {
                [](size_t size) { return ::malloc(size); }, // through the seam, unlike &::malloc
                [](void* block) { ::free(block); },
                [](void* to, const void* from, size_t size) { return ::memcpy(to, from, size); }};
            CPacketManager::PoolParameter param = {65536, 1024, 4};
            CPacketManager::config(policy, &memop, &param);
            CPacketManager::instance();
            Tarsel::Infra::setLogPrinter(&countComplaints);
        };
        expectToSurviveShortage({prepare, usePackets,
                                 [policy] {
                                     EXPECT_EQ(s_complaints, s_refused);
                                     EXPECT_EQ(s_released, s_wrapped);
                                     const bool hasPool = policy != CPacketManager::policySystem;
                                     EXPECT_EQ(CPacketManager::instance()->getFreeSize(),
                                               hasPool ? 65536U : 0U);
                                     EXPECT_TRUE(PacketManagerInternal::instance()->isSound());
                                     s_refused = 0;
                                     usePackets();
                                     EXPECT_EQ(s_refused, 0);
                                     Tarsel::Infra::setLogPrinter(Tarsel::Infra::LogPrinterProc());
                                 },
                                 ""});
    }
}

TEST(MemoryShortageTest, BuffersKeepWhatTheyHold)
{
    expectToSurviveShortage({[] {}, useBuffers, useBuffers, ""});
}

} // namespace

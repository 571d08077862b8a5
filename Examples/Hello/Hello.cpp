// Hello.cpp: a periodic timer that makes packets. The first page of the README.

#include <cstdio>

#include <Infra/Infra3/PrintLog.h>
#include <Infra/Infra3/Semaphore.h>
#include <Infra/Infra3/Timer.h>
#include <Memory/Packet.h>
#include <Memory/PacketManager.h>

using namespace Tarsel;

static Infra::CSemaphore s_ticks(0);

static void onTick(unsigned long size)
{
    char text[] = "hello";
    Memory::CPacket packet(size); // from the pool, back to it when the last handle goes
    packet.resize(0);
    packet.putBuffer(text, sizeof(text));
    logInfo("a packet of %zu bytes, room for %zu\n", packet.size(), packet.capacity());
    s_ticks.post();
}

int main()
{
    Memory::CPacketManager::PoolParameter pool = {1 << 20, 1024, 8}; // 1 MiB in chunks of 1 KiB
    Memory::CPacketManager::config(Memory::CPacketManager::policyPool, nullptr, &pool);
    Infra::CTimer timer("tick");
    timer.start(onTick, /*delay*/ 20, /*period*/ 20, /*size*/ 1500);
    for (int i = 0; i < 3; ++i) {
        s_ticks.pend();
    }
    timer.stopAndWait();
    std::printf("3 ticks, 3 packets, %zu bytes free\n",
                Memory::CPacketManager::instance()->getFreeSize());
}

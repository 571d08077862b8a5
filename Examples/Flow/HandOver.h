#ifndef INFRA_EXAMPLES_FLOW_HANDOVER_H
#define INFRA_EXAMPLES_FLOW_HANDOVER_H

#include <deque>

#include <Infra/Infra3/Guard.h>
#include <Infra/Infra3/Semaphore.h>
#include <Memory/Packet.h>

/// Hands packets from one thread to another, a bounded number at a time and in order. The packets
/// are handles: nothing is copied.
class CHandOver
{
public:
    explicit CHandOver(int places) : m_free(places), m_filled(0) {}

    /// Reserves a place without waiting; false when all are taken. A place is given back by put()
    /// or release().
    bool reserve() { return m_free.tryPend() == 0; }
    void release() { m_free.post(); }

    /// Puts a packet into the reserved place.
    void put(const Tarsel::Memory::CPacket& packet)
    {
        {
            Tarsel::Infra::CGuard guard(m_mutex);
            m_packets.push_back(packet);
        }
        m_filled.post();
    }

    /// Takes the oldest packet; an invalid one when none came within `milliSeconds`.
    Tarsel::Memory::CPacket take(unsigned milliSeconds)
    {
        if (m_filled.pend(milliSeconds) < 0) {
            return {};
        }
        Tarsel::Infra::CGuard guard(m_mutex);
        Tarsel::Memory::CPacket packet = m_packets.front();
        m_packets.pop_front();
        m_free.post();
        return packet;
    }

private:
    Tarsel::Infra::CSemaphore m_free;
    Tarsel::Infra::CSemaphore m_filled;
    Tarsel::Infra::CMutex m_mutex; // guards the queue
    std::deque<Tarsel::Memory::CPacket> m_packets;
};

#endif

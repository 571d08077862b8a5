#ifndef INFRA_PACKET_H
#define INFRA_PACKET_H

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/Singleton.h"
#include "Infra/Infra3/Function.h"
#include "Memory/Packet.h"

/// The older packet: a handle to a Tarsel::Memory::CPacket whose extra data is called its header. The
/// size of headers is one for the process, see IPacketManager::config().
///
/// Everything on an invalid packet gives 0 or null.
class INFRA_API CPacket
{
public:
    typedef Tarsel::Infra::TFunction2<void, void*, unsigned long> FreeProc;

    /// A packet that is not valid.
    CPacket() noexcept = default;
    /// A packet of `size` bytes with a header; not valid without memory.
    explicit CPacket(unsigned long size);
    /// A packet with a header, whose buffer is attached by PutBuffer(); `func`, if not empty, is called
    /// once with `arg` and the capacity when the last handle goes.
    CPacket(unsigned int size, FreeProc func, void* arg);
    /// Shares the newer packet, whatever its extra data is.
    CPacket(const Tarsel::Memory::CPacket& packet) // NOLINT(google-explicit-constructor)
        : m_internal(Handle::of(packet))
    {}
    operator Tarsel::Memory::CPacket() const // NOLINT(google-explicit-constructor)
    {
        Tarsel::Memory::CPacket packet;
        Handle::of(packet) = m_internal;
        return packet;
    }

    bool valid() const { return m_internal.valid(); }
    /// The capacity.
    unsigned long GetSize() const { return m_internal.capacity(); }
    /// How much of it is used.
    unsigned long GetLength() const { return m_internal.size(); }
    bool SetLength(unsigned long length) { return m_internal.resize(length); }
    /// How much of it is not.
    unsigned long GetLeft() const;
    unsigned char* GetBuffer() const { return m_internal.getBuffer(); }
    unsigned long PutBuffer(void* data, unsigned long length)
    {
        return m_internal.putBuffer(data, length);
    }
    void* GetHeader() const { return m_internal.getExtraData(); }
    unsigned long GetHeaderSize() const { return m_internal.getExtraSize(); }
    /// Sets the header to zeros.
    void ClearHeader();

private:
    typedef Tarsel::Memory::Detail::CPacketHandle Handle;

    Handle m_internal; ///< a pointer
};

/// The packet manager, as Tarsel::Memory::CPacketManager has it.
class INFRA_API IPacketManager
{
public:
    static IPacketManager* instance();

    /// Chooses a pool for payloads, before the first packet, and the header size of packets from now
    /// on.
    /// @param totalSize   bytes of pool
    /// @param chunkSize   bytes of a chunk
    /// @param headerSize  bytes, up to 255: of more the size reads modulo 256; below 0 is none. It
    ///                    counts also where the pool is refused. A chunk below 1024, and a total that
    ///                    is no multiple of it, end the process, as in
    ///                    Tarsel::Memory::CPacketManager::config()
    static void config(int totalSize, int chunkSize, int headerSize);

    virtual ~IPacketManager();
    virtual unsigned long GetBufferSize() = 0;
    virtual unsigned long GetFreeSize() = 0;
    virtual void DumpNodes() = 0;
};

class INFRA_API CPacketManager : public IPacketManager
{
public:
    static CPacketManager* instance();

    ~CPacketManager() override;
    unsigned long GetBufferSize() override;
    unsigned long GetFreeSize() override;
    void DumpNodes() override;

private:
    friend class Tarsel::Infra::TSingleton<CPacketManager>;
    CPacketManager() = default;
    CPacketManager(const CPacketManager&);
    CPacketManager& operator=(const CPacketManager&);
    static bool staysInUse(CPacketManager* manager);
};

#endif

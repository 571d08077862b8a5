#ifndef INFRA_BENCHMARKS_SUPPORT_PACKETSOURCES_H
#define INFRA_BENCHMARKS_SUPPORT_PACKETSOURCES_H

// Where counted buffers come from: the contenders of the packet subjects.
//
// infra                packets of the pool policy, 64 MiB in chunks of 1024 bytes
// malloc               make_shared of the bytes, uninitialised, from the system's allocator
// pmr                  the same from std::pmr::synchronized_pool_resource
// boost::pool+mutex    boost::pool of that one size under a std::mutex, with a count of its own
//
// Each has a Handle and makes one of `size` bytes.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include <boost/intrusive_ptr.hpp>
#include <boost/pool/pool.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <boost/version.hpp>

#include "Memory/Packet.h"
#include "Memory/PacketManager.h"

namespace Bench
{

using Tarsel::Memory::CPacket;
using Tarsel::Memory::CPacketManager;

inline void configurePool()
{
    CPacketManager::PoolParameter pool = {64 << 20, 1024, 8};
    CPacketManager::config(CPacketManager::policyPool, nullptr, &pool);
}

constexpr const char* packetPeers = "the compiler's library, Boost " BOOST_LIB_VERSION;

struct InfraSource
{
    typedef CPacket Handle;
    explicit InfraSource(size_t) {}
    Handle make(size_t size) { return CPacket(size); }
    static bool isValid(const Handle& handle) { return handle.valid(); }
};

struct MallocSource
{
    typedef std::shared_ptr<uint8_t[]> Handle;
    explicit MallocSource(size_t) {}
    Handle make(size_t size) { return std::make_shared_for_overwrite<uint8_t[]>(size); }
    static bool isValid(const Handle& handle) { return handle != nullptr; }
};

struct PmrSource
{
    typedef std::shared_ptr<uint8_t[]> Handle;
    explicit PmrSource(size_t) : m_resource(std::pmr::pool_options{0, size_t{1} << 20}) {}
    Handle make(size_t size)
    {
        return std::allocate_shared_for_overwrite<uint8_t[]>(
            std::pmr::polymorphic_allocator<uint8_t>(&m_resource), size);
    }
    static bool isValid(const Handle& handle) { return handle != nullptr; }

private:
    std::pmr::synchronized_pool_resource m_resource;
};

class CBoostPoolSource
{
public:
    struct Block : boost::intrusive_ref_counter<Block, boost::thread_safe_counter>
    {
        explicit Block(CBoostPoolSource& source) : source(source) {}
        static void operator delete(Block* block, std::destroying_delete_t)
        {
            CBoostPoolSource& source = block->source;
            block->~Block();
            std::lock_guard guard(source.m_mutex);
            source.m_pool.free(block);
        }
        static void operator delete(void*) {} // a block's constructor does not throw
        static void* operator new(size_t, void* place) { return place; }
        CBoostPoolSource& source;
    };
    typedef boost::intrusive_ptr<Block> Handle;

    explicit CBoostPoolSource(size_t size) : m_pool(size + sizeof(Block)) {}
    Handle make(size_t)
    {
        void* place = nullptr;
        {
            std::lock_guard guard(m_mutex);
            place = m_pool.malloc();
        }
        return Handle(new (place) Block(*this));
    }
    static bool isValid(const Handle& handle) { return handle != nullptr; }

private:
    std::mutex m_mutex;
    boost::pool<> m_pool;
};

/// One source a case, shared by its threads. It lives on, as a process's pool does.
template <typename Source>
Source& sourceFor(size_t size)
{
    static std::mutex mutex;
    static std::vector<std::pair<size_t, std::unique_ptr<Source>>> sources;
    std::lock_guard guard(mutex);
    for (const auto& [sourceSize, source] : sources) {
        if (sourceSize == size) {
            return *source;
        }
    }
    sources.emplace_back(size, std::make_unique<Source>(size));
    return *sources.back().second;
}

/// Calls add.operator()<Source>(contender) for each contender.
template <typename Add>
void forEachPacketSource(const Add& add)
{
    add.template operator()<InfraSource>("infra");
    add.template operator()<MallocSource>("malloc");
    add.template operator()<PmrSource>("pmr");
    add.template operator()<CBoostPoolSource>("boost::pool+mutex");
}

} // namespace Bench

#endif

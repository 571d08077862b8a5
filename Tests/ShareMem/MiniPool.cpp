#include "ShareMem/MiniPool.h"

#include <sys/mman.h>

#include <cstring>
#include <stdexcept>

#include "ShareMem/PoolChecker.h"

namespace Tarsel
{
namespace TestSupport
{

CMiniPool::CMiniPool(const PoolShape& shape)
    : m_shape(shape), m_config{shape.pageSize * shape.pageNum, shape.pageSize, shape.orderNum}
{
    map();
    const size_t lengths[] = {getSyncZoneSize(), getReferZoneSize(), getSmallMemZoneSize(),
                              getBuddyZoneSize(m_config)};
    uint8_t* zone = m_memory;
    for (const size_t length : lengths) {
        reinterpret_cast<ZoneHead*>(zone)->zoneLen = static_cast<uint32_t>(length + 8);
        zone += length + 8;
    }
    reinterpret_cast<ZoneHead*>(m_memory)->initFlag = zoneReady;
    open();
}

CMiniPool::CMiniPool(const CMiniPool& other) : m_shape(other.m_shape), m_config(other.m_config)
{
    map();
    memcpy(m_memory, other.m_memory, m_size);
    open();
}

CMiniPool::~CMiniPool()
{
    m_refer->destroy(m_refer);
    m_small->destroy(m_small);
    m_buddy->destroy(m_buddy);
    munmap(m_memory, m_size);
}

void CMiniPool::map()
{
    const size_t control = (ShareMem::controlSizeFor(m_config) + 4095) / 4096 * 4096;
    m_size = control + m_config.dataSize;
    m_memory = static_cast<uint8_t*>(
        mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

void CMiniPool::open()
{
    const size_t control = m_size - m_config.dataSize;
    uint8_t* const data = m_memory + control;
    if (!ShareMem::findZones({m_memory, control}, {data, m_config.dataSize}, &m_layout) ||
        createBuddy(m_config, m_layout.buddyZone, data, &m_buddy) != 0 ||
        createSmallMem(m_layout.smallMemZone, m_buddy, &m_small) != 0 ||
        createMemRefer(m_layout.referZone, m_small, m_buddy, &m_refer) != 0 ||
        !ShareMem::arePagesSound({m_memory, control}, {data, m_config.dataSize}, m_layout) ||
        !m_scratch.reserve(m_shape.pageNum)) {
        throw std::runtime_error("no pool");
    }
}

size_t CMiniPool::take(size_t size)
{
    size_t granted = size;
    void* const block = m_buddy->malloc(m_buddy, &granted);
    size_t offset = noOffset;
    if (block != nullptr && m_buddy->getOffset(m_buddy, block, &offset) == 0 &&
        m_refer->addRefer(m_refer, offset) != 0) {
        dropUnusedNode(m_refer, offset);
        m_buddy->free(m_buddy, block);
        offset = noOffset;
    }
    return offset;
}

void CMiniPool::repair()
{
    ShareMem::repairPool(m_layout, m_scratch);
}

std::string CMiniPool::faults()
{
    return faultsOf(m_layout, m_scratch);
}

} // namespace TestSupport
} // namespace Tarsel

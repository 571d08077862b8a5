// ShareMemoryDebug.cpp: allocations with a guard page.
//
//     boundary 1:  | guard page with the header at its end | data ...   |
//     boundary 2:  | ... header | data | guard page |
//
// The header lies in the 32 bytes before the data. Where that is the guard page it is written before
// the page is made read-only.

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "Infra3/Arithmetic.h"
#include "Infra3/AssertFront.h"
#include "Memory/ShareMem/ShareMemory.h"

namespace Tarsel
{
namespace Memory
{
namespace
{

constexpr uint64_t debugMarker = 0x12345678;

enum Boundary : int
{
    guardBefore = 1,
    guardBehind = 2
};

const size_t s_pageSize = static_cast<size_t>(getpagesize());

} // namespace

struct CShareMemoryDebug::Header
{
    size_t size; ///< asked for
    uint8_t* block;
    uint8_t* guard;
    uint64_t marker;
};

CShareMemoryDebug::CShareMemoryDebug(Buddy* buddy, MemRefer* memRefer, SmallMem* smallMem,
                                     int boundary)
    : CShareMemory(buddy, memRefer, smallMem), m_boundary(boundary)
{}

CShareMemoryDebug::~CShareMemoryDebug() = default;

/// `size` stays what was asked for: the rest of the block is not the caller's.
void* CShareMemoryDebug::allocMem(size_t& size)
{
    static_assert(sizeof(Header) == 32);
    size_t granted = Infra::saturatedSum(size, s_pageSize + sizeof(Header));
    uint8_t* const block = static_cast<uint8_t*>(CShareMemory::allocMem(granted));
    if (block == nullptr) {
        return nullptr;
    }
    const uintptr_t start = reinterpret_cast<uintptr_t>(block);
    const uintptr_t firstPage = Infra::roundUp(start, s_pageSize);
    const uintptr_t lastPage = (start + granted) / s_pageSize * s_pageSize - s_pageSize;
    uint8_t* const guard = block + ((m_boundary == guardBefore ? firstPage : lastPage) - start);
    uint8_t* const data = m_boundary == guardBefore ? guard + s_pageSize : guard - size;
    // Another process may have freed what this one had protected, and not know of it.
    memProtect(reinterpret_cast<uint8_t*>(firstPage), lastPage + s_pageSize - firstPage,
               PROT_READ | PROT_WRITE);
    const Header header = {size, block, guard, debugMarker};
    memcpy(data - sizeof(header), &header, sizeof(header));
    if ((m_boundary != guardBefore && m_boundary != guardBehind) ||
        memProtect(guard, s_pageSize, PROT_READ) != 0) {
        CShareMemory::freeMem(block);
        return nullptr;
    }
    return data;
}

void CShareMemoryDebug::unprotect()
{
    memProtect(const_cast<uint8_t*>(dataBase()), dataSize() / s_pageSize * s_pageSize,
               PROT_READ | PROT_WRITE);
}

/// The block behind `p`, if that is the data of an allocation with a guard page; else null.
uint8_t* CShareMemoryDebug::blockOf(void* p, Header* header) const
{
    if (p == nullptr) {
        return nullptr;
    }
    uint8_t* const place = static_cast<uint8_t*>(p) - sizeof(Header);
    if (!isInData(place, sizeof(Header))) {
        return nullptr;
    }
    memcpy(header, place, sizeof(*header));
    if (header->marker != debugMarker) {
        return nullptr;
    }
    const size_t length = blockLength(header->block);
    const uintptr_t start = reinterpret_cast<uintptr_t>(header->block);
    const uintptr_t guard = reinterpret_cast<uintptr_t>(header->guard);
    const bool isGuard = guard >= start && guard % s_pageSize == 0 && guard - start < length &&
                         length - (guard - start) >= s_pageSize;
    const bool isInside = place >= header->block &&
                          reinterpret_cast<uintptr_t>(place) - start <= length - sizeof(Header);
    return length != 0 && isGuard && isInside ? header->block : nullptr;
}

bool CShareMemoryDebug::freeMem(void* p)
{
    Header header = {};
    uint8_t* const block = blockOf(p, &header);
    if (block == nullptr) {
        CShareMemory::freeMem(p);
        return true;
    }
    const int unprotected = memProtect(header.guard, s_pageSize, PROT_READ | PROT_WRITE);
    INFRA_ASSERT_TEXT(unprotected == 0, "0");
    memset(static_cast<uint8_t*>(p) - sizeof(header.marker), 0, sizeof(header.marker));
    CShareMemory::freeMem(block);
    return true;
}

bool CShareMemoryDebug::getOffset(void* p, size_t& offset)
{
    Header header = {};
    uint8_t* const block = blockOf(p, &header);
    return CShareMemory::getOffset(block != nullptr ? block : p, offset);
}

bool CShareMemoryDebug::incDeliverRef(void* p)
{
    Header header = {};
    uint8_t* const block = blockOf(p, &header);
    return CShareMemory::incDeliverRef(block != nullptr ? block : p);
}

bool CShareMemoryDebug::decDeliverRef(void* p)
{
    Header header = {};
    uint8_t* const block = blockOf(p, &header);
    return CShareMemory::decDeliverRef(block != nullptr ? block : p);
}

} // namespace Memory
} // namespace Tarsel

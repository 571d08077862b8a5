// Buffer.cpp: a growable array of bytes whose record and data share one block.
//
//     m_internal --> [ BufferInternal | data: m_Length bytes in use of m_Size ]
//
// Growth is exact unless a step is set, so a buffer filled byte by byte grows with every byte.
// realloc keeps that cheap: it mostly stays in place, and the system moves large blocks by their
// pages.

#include "Memory/Buffer.h"

#include <cstdlib>
#include <cstring>
#include <functional>

#include "Infra3/Arithmetic.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Memory
{

/// The head of the block. Always true: m_pBuf is the block's own address, and m_Length <= m_Size.
struct BufferInternal
{
    uint8_t* m_pBuf;  ///< the block, for free()
    size_t m_Length;  ///< bytes in use
    size_t m_Size;    ///< bytes of the data area
    size_t m_IncStep; ///< capacities are multiples of it; 0: exact
};

namespace
{

/// Stands for a capacity that cannot be counted; makeBlock() refuses it.
constexpr size_t tooLarge = SIZE_MAX;

uint8_t* dataOf(BufferInternal* buffer)
{
    return reinterpret_cast<uint8_t*>(buffer + 1);
}

/// `block`, or a fresh block for null, with a data area of `capacity` bytes; null without memory,
/// and then `block` is as it was. Length and step of a fresh one are 0.
BufferInternal* makeBlock(BufferInternal* block, size_t capacity)
{
    if (capacity > PTRDIFF_MAX - sizeof(BufferInternal)) {
        return nullptr;
    }
    const bool isFresh = block == nullptr;
    void* const memory = realloc(block, sizeof(BufferInternal) + capacity);
    if (memory == nullptr) {
        return nullptr;
    }
    BufferInternal* const made = static_cast<BufferInternal*>(memory);
    if (isFresh) {
        made->m_Length = 0;
        made->m_IncStep = 0;
    }
    made->m_pBuf = static_cast<uint8_t*>(memory);
    made->m_Size = capacity;
    return made;
}

/// Gives `buffer` a data area of `capacity` bytes; false without memory.
bool changeCapacity(BufferInternal*& buffer, size_t capacity)
{
    BufferInternal* const made = makeBlock(buffer, capacity);
    if (made == nullptr) {
        return false;
    }
    buffer = made;
    return true;
}

/// Appends where there is room; the source may be anywhere.
void appendBytes(BufferInternal* buffer, const uint8_t* data, size_t len)
{
    if (len != 0) {
        memmove(dataOf(buffer) + buffer->m_Length, data, len);
        buffer->m_Length += len;
    }
}

/// The place of `data` in the data area, or `tooLarge` when it lies elsewhere.
size_t offsetWithin(BufferInternal* buffer, const uint8_t* data)
{
    const std::less<const uint8_t*> before;
    const uint8_t* const first = dataOf(buffer);
    const bool isWithin = !before(data, first) && before(data, first + buffer->m_Size);
    return isWithin ? static_cast<size_t>(data - first) : tooLarge;
}

} // namespace

CBuffer::CBuffer() : m_internal(nullptr) {}

CBuffer::~CBuffer()
{
    reset();
}

size_t CBuffer::putBuffer(uint8_t* data, size_t len)
{
    if (data == nullptr && len != 0) {
        return 0;
    }
    if (m_internal == nullptr) {
        if (!changeCapacity(m_internal, len)) {
            INFRA_LOG_INFO(" CBuffer putbuffer Malloc fail:\n");
            return 0;
        }
    } else if (m_internal->m_Size - m_internal->m_Length < len) {
        const size_t offset = offsetWithin(m_internal, data);
        const size_t needed = Infra::saturatedSum(m_internal->m_Length, len);
        if (!changeCapacity(m_internal, Infra::roundUpToStep(needed, m_internal->m_IncStep))) {
            INFRA_LOG_INFO("CBuffer putbuffer ReMalloc fail:\n");
            return 0;
        }
        data = offset == tooLarge ? data : dataOf(m_internal) + offset;
    }
    appendBytes(m_internal, data, len);
    return len;
}

uint8_t* CBuffer::getBuffer() const
{
    return size() == 0 ? nullptr : dataOf(m_internal);
}

size_t CBuffer::size() const
{
    return m_internal == nullptr ? 0 : m_internal->m_Length;
}

void CBuffer::resize(size_t n)
{
    if (m_internal == nullptr) {
        if (!changeCapacity(m_internal, n)) {
            INFRA_LOG_INFO(" CBuffer resize Malloc fail:\n");
            return;
        }
        m_internal->m_Length = n;
    } else if (n <= m_internal->m_Size) {
        m_internal->m_Length = n;
    } else {
        if (!changeCapacity(m_internal, Infra::roundUpToStep(n, m_internal->m_IncStep))) {
            INFRA_LOG_INFO(" CBuffer resize ReMalloc fail:\n");
            return;
        }
        m_internal->m_Length = m_internal->m_Size;
    }
}

size_t CBuffer::capacity() const
{
    return m_internal == nullptr ? 0 : m_internal->m_Size;
}

void CBuffer::reserve(size_t n)
{
    if (m_internal != nullptr && n <= m_internal->m_Size) {
        return;
    }
    if (!changeCapacity(m_internal, n)) {
        INFRA_LOG_INFO(" CBuffer reserve Malloc fail:\n");
    }
}

void CBuffer::reset()
{
    if (m_internal != nullptr) {
        free(m_internal->m_pBuf);
        m_internal = nullptr;
    }
}

void CBuffer::setIncreasedSize(size_t n)
{
    if (m_internal == nullptr && !changeCapacity(m_internal, n)) {
        INFRA_LOG_INFO(" CBuffer setIncreasedSize Malloc fail:\n");
        return;
    }
    m_internal->m_IncStep = n;
}

} // namespace Memory
} // namespace Tarsel

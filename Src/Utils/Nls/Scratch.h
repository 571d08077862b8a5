#ifndef INFRA_SRC_UTILS_NLS_SCRATCH_H
#define INFRA_SRC_UTILS_NLS_SCRATCH_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace Tarsel
{
namespace Utils
{
namespace Nls
{

/// A copy of bytes that are about to be overwritten: on the stack, or on the heap when it is long.
class CScratchCopy
{
public:
    CScratchCopy(const uint8_t* bytes, size_t size)
        : m_heap(size > sizeof(m_stack) ? new (std::nothrow) uint8_t[size] : nullptr),
          m_data(size > sizeof(m_stack) ? m_heap.get() : m_stack)
    {
        if (m_data != nullptr) {
            memcpy(m_data, bytes, size);
        }
    }
    CScratchCopy(const CScratchCopy&) = delete;
    CScratchCopy& operator=(const CScratchCopy&) = delete;

    /// Null without memory.
    const uint8_t* data() const { return m_data; }

private:
    uint8_t m_stack[1024];
    std::unique_ptr<uint8_t[]> m_heap;
    uint8_t* m_data;
};

} // namespace Nls
} // namespace Utils
} // namespace Tarsel

#endif

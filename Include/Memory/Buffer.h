#ifndef INFRA_MEMORY_BUFFER_H
#define INFRA_MEMORY_BUFFER_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Memory
{

struct BufferInternal;

/// A growable array of bytes in one heap block.
///
/// Behaviour: capacity is exactly what was needed, or that rounded up to a multiple of the growth
/// step once one is set. The block never shrinks; reset() and the destructor free it.
/// Failure: without memory, or for a size that no block can have, a line is logged at info level
/// and the buffer stays as it was. Threads: one thread at a time. Ownership: the bytes belong to
/// the buffer; pointers to them live until it next grows.
///
///     CBuffer line;
///     line.setIncreasedSize(256);
///     line.putBuffer(bytes, count);
///     send(line.getBuffer(), line.size());
class INFRA_API CBuffer
{
public:
    /// Nothing is allocated before there is something to hold.
    CBuffer();
    ~CBuffer();

    /// Appends `len` bytes, which may lie in this buffer.
    /// @return `len`; 0 when memory could not be had, or `data` is null
    size_t putBuffer(uint8_t* data, size_t len);

    /// The first byte; null while the buffer is empty.
    uint8_t* getBuffer() const;
    size_t size() const;

    /// Sets the length. New bytes have no particular value. Where the block has to grow and a
    /// growth step is set, the length becomes the rounded capacity: step 100 and resize(250) give
    /// 300.
    void resize(size_t n);

    size_t capacity() const;
    /// Makes the capacity at least `n`, without regard to the growth step.
    void reserve(size_t n);
    /// Frees the block and forgets the growth step.
    void reset();
    /// Sets the growth step, 0 for none. An unused buffer gets a block of `n` bytes first.
    void setIncreasedSize(size_t n);

private:
    CBuffer(const CBuffer&);
    CBuffer& operator=(const CBuffer&);

    BufferInternal* m_internal;
};

} // namespace Memory
} // namespace Tarsel

#endif

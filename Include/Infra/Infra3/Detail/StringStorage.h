#ifndef INFRA_INFRA3_DETAIL_STRINGSTORAGE_H
#define INFRA_INFRA3_DETAIL_STRINGSTORAGE_H

// Where a string keeps text that does not fit into the object: one heap block per string.
//
//     pData_ --> [ pEnd_ | pEndOfMem_ | c h a r a c t e r s NUL .. ]
//                     |          +--------> one past the capacity, where the last NUL goes
//                     +-------------------> one past the last character, where the NUL stands
//
// A storage is the base class of flex_string. What it offers: size, capacity, data (always
// terminated), reserve, setSize, append, push_back, shrink, swap, copying and moving. Growth is
// exact: a capacity is never more than was asked for. What keeps growing character by character
// cheap is that blocks are cut in the system allocator's own steps, and that one which grows gets
// some headroom, so that most growth stays in its block.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/ShortBytes.h"

namespace Tarsel
{
namespace Infra
{
namespace Detail
{

/// Ends the process with the system's own assertion report, in every build.
[[noreturn]] INFRA_API void stringCheckFailed(const char* text, const char* file, long line);
/// std::out_of_range, std::length_error and std::bad_alloc, out of the callers' way.
[[noreturn]] INFRA_API void throwStringPosition();
[[noreturn]] INFRA_API void throwStringLength();
[[noreturn]] INFRA_API void throwStringMemory();

/// A block from malloc with room for `bytes` and a little more, because its string will ask again.
INFRA_API void* growingStringBlock(size_t bytes);
/// The block with room for `bytes`: the same one where it has that, else a moved one, which has a
/// little more too if it grows.
INFRA_API void* resizeStringBlock(void* block, size_t bytes, bool grows);

/// A check of a string's own soundness; a function and not assert(), because the same inline code
/// must come out of every user's build, with NDEBUG or without.
inline void stringCheck(bool holds, const char* text, const char* file = __builtin_FILE(),
                        long line = __builtin_LINE())
{
    if (__builtin_expect(!holds, 0)) {
        stringCheckFailed(text, file, line);
    }
}

template <typename E>
inline void moveText(E* target, const E* source, size_t count) noexcept
{
    static_assert(std::is_trivially_copyable<E>::value, "characters are plain data");
    moveBytes(reinterpret_cast<char*>(target), reinterpret_cast<const char*>(source),
              count * sizeof(E));
}

/// basic_string_view::compare, without a call for short plain text.
template <typename E, typename T>
inline int compareViews(std::basic_string_view<E, T> a, std::basic_string_view<E, T> b) noexcept
{
    if constexpr (std::is_same<T, std::char_traits<char>>::value) {
        const size_t common = a.size() < b.size() ? a.size() : b.size();
        const int order = compareBytes(a.data(), b.data(), common);
        return order != 0 ? order : (a.size() > b.size()) - (a.size() < b.size());
    } else {
        return a.compare(b);
    }
}

/// True when both are the same; most different texts differ in length already.
template <typename E, typename T>
inline bool sameViews(std::basic_string_view<E, T> a, std::basic_string_view<E, T> b) noexcept
{
    if (a.size() != b.size()) {
        return false;
    }
    if constexpr (std::is_same<T, std::char_traits<char>>::value) {
        return sameBytes(a.data(), b.data(), a.size());
    } else {
        return a == b;
    }
}

/// The head of a block; the characters begin with `buffer_` and go on behind it.
/// True between calls: buffer_ <= pEnd_ <= pEndOfMem_, and *pEnd_ is NUL.
template <typename E>
struct StringBlock
{
    E* pEnd_;
    E* pEndOfMem_;
    E buffer_[1];

    size_t size() const noexcept { return static_cast<size_t>(pEnd_ - buffer_); }
    size_t capacity() const noexcept { return static_cast<size_t>(pEndOfMem_ - buffer_); }

    void setSize(size_t size) noexcept
    {
        pEnd_ = buffer_ + size;
        *pEnd_ = E();
    }

    /// Bytes of a block for `capacity` characters: head, characters, room for the terminator.
    static constexpr size_t bytes(size_t capacity) noexcept
    {
        return sizeof(StringBlock) + capacity * sizeof(E);
    }
};

/// Blocks from malloc. A request is rounded up to what the system allocator hands out for it anyway
/// (multiples of 16 bytes less its own word of 8), so a block can grow within its step for nothing.
template <typename E>
struct MallocStringMemory
{
    typedef StringBlock<E> Block;

    static Block* allocate(size_t capacity)
    {
        void* const memory = malloc(bytes(capacity));
        if (__builtin_expect(memory == nullptr, 0)) {
            throwStringMemory();
        }
        return static_cast<Block*>(memory);
    }

    /// For a text that has begun to grow.
    static Block* allocateGrowing(size_t capacity)
    {
        return static_cast<Block*>(growingStringBlock(bytes(capacity)));
    }

    static void release(Block* block, size_t) noexcept { free(block); }

    /// True when a block of capacity `from` has the room for capacity `to` as it is.
    static constexpr bool isSameBlock(size_t from, size_t to) noexcept
    {
        return bytes(from) == bytes(to);
    }

    /// The block with room for `to`, elsewhere perhaps; its pointers are the caller's to renew.
    static Block* resize(Block* block, size_t from, size_t to)
    {
        return static_cast<Block*>(resizeStringBlock(block, bytes(to), to > from));
    }

private:
    static constexpr size_t bytes(size_t capacity) noexcept
    {
        return ((Block::bytes(capacity) + 8 + 15) & ~size_t(15)) - 8;
    }
};

/// Blocks from an allocator of the user's own, which must have no state.
template <typename E, typename A>
struct AllocatorStringMemory
{
    typedef StringBlock<E> Block;
    typedef typename std::allocator_traits<A>::template rebind_alloc<Block> Allocator;
    static_assert(std::is_empty<Allocator>::value, "a string has no room for an allocator's state");

    static Block* allocate(size_t capacity) { return Allocator().allocate(blocks(capacity)); }

    static Block* allocateGrowing(size_t capacity) { return allocate(capacity); }

    static void release(Block* block, size_t capacity) noexcept
    {
        Allocator().deallocate(block, blocks(capacity));
    }

    static constexpr bool isSameBlock(size_t from, size_t to) noexcept
    {
        return blocks(from) == blocks(to);
    }

    static Block* resize(Block* block, size_t from, size_t to)
    {
        Block* const moved = allocate(to);
        memcpy(static_cast<void*>(moved), static_cast<const void*>(block),
               Block::bytes(from < to ? from : to));
        release(block, from);
        return moved;
    }

private:
    /// An allocator of heads gives memory that is aligned for one.
    static constexpr size_t blocks(size_t capacity) noexcept
    {
        return (Block::bytes(capacity) + sizeof(Block) - 1) / sizeof(Block);
    }
};

/// std::allocator has nothing like realloc, so its strings go to the system directly.
template <typename E>
struct AllocatorStringMemory<E, std::allocator<E>> : MallocStringMemory<E>
{};

} // namespace Detail

/// One pointer to a block of `Memory`. An empty text needs none: `pData_` then points to the shared
/// empty block, or is null where `NullWhenEmpty` asks for it. A block on the heap has a capacity
/// above 0, and that is how it is told from the shared one, of which each library may have its own.
template <typename E, typename Memory, bool NullWhenEmpty>
class SimpleStringStorage
{
public:
    typedef E value_type;
    typedef size_t size_type;
    typedef Detail::StringBlock<E> Data;

    constexpr SimpleStringStorage() noexcept : pData_(none()) {}
    SimpleStringStorage(const E* text, size_type size) : SimpleStringStorage(text, size, size) {}
    SimpleStringStorage(const E* text, size_type size, size_type capacity)
        : pData_(make(text, size, capacity))
    {}
    /// Takes over a block that make() has made.
    explicit SimpleStringStorage(Data* block) noexcept : pData_(block) {}
    SimpleStringStorage(const SimpleStringStorage& other)
        : SimpleStringStorage(other.data(), other.size())
    {}
    SimpleStringStorage(SimpleStringStorage&& other) noexcept : pData_(other.pData_)
    {
        other.pData_ = none();
    }
    SimpleStringStorage& operator=(const SimpleStringStorage&) = delete;
    ~SimpleStringStorage() { drop(); }

    /// A block for `capacity` characters that begins with the `size` given ones.
    static Data* make(const E* text, size_type size, size_type capacity)
    {
        Detail::stringCheck(size <= capacity, "size <= cap");
        return capacity == 0 ? none() : fill(Memory::allocate(capacity), text, size, capacity);
    }
    /// The same for a text that has begun to grow.
    static Data* makeGrowing(const E* text, size_type size, size_type capacity)
    {
        return fill(Memory::allocateGrowing(capacity), text, size, capacity);
    }

    size_type size() const noexcept { return block().size(); }
    size_type capacity() const noexcept { return block().capacity(); }
    static constexpr size_type max_size() noexcept { return PTRDIFF_MAX / sizeof(E) - 64; }
    const E* data() const noexcept { return block().buffer_; }
    E* data() noexcept { return const_cast<E*>(block().buffer_); }

    /// Makes the capacity `capacity`, which is at most max_size(), if it is less.
    void reserve(size_type capacity)
    {
        if (capacity > this->capacity()) {
            grow(capacity);
        }
    }

    /// Cuts or lengthens the text within the capacity and terminates it.
    void setSize(size_type size) noexcept
    {
        if (size == 0) {
            setEmpty();
        } else {
            pData_->setSize(size);
        }
    }

    /// Appends what lies outside the string, or whatever there is room for already.
    void append(const E* text, size_type count)
    {
        const size_type before = size();
        if (count > capacity() - before) {
            Detail::stringCheck(!contains(text), "!(le(begin(), &*b) && le(&*b, end()))");
            grow(before + count);
        }
        if (count != 0) {
            Data* const block = pData_; // characters may alias anything: nothing is read twice
            Detail::moveText(block->buffer_ + before, text, count);
            block->setSize(before + count);
        }
    }

    void push_back(E c)
    {
        if (block().pEnd_ == block().pEndOfMem_) {
            grow(size() + 1);
        }
        Data* const block = pData_;
        E* const end = block->pEnd_;
        block->pEnd_ = end + 1;
        end[0] = c;
        end[1] = E();
    }

    /// Gives back what lies behind the text.
    void shrink()
    {
        if (size() == 0) {
            drop();
        } else if (size() < capacity()) {
            resizeBlock(size());
        }
    }

    void swap(SimpleStringStorage& other) noexcept { std::swap(pData_, other.pData_); }

    /// Takes the other's text over; what is left there is any sound text.
    void take(SimpleStringStorage& other) noexcept { swap(other); }

protected:
    /// True for an address within the text or at its end.
    bool contains(const E* address) const noexcept
    {
        return le(data(), address) && le(address, data() + size());
    }

    static bool le(const E* a, const E* b) noexcept { return std::less_equal<const E*>()(a, b); }

    Data* pData_;

private:
    const Data& block() const noexcept
    {
        return NullWhenEmpty && pData_ == nullptr ? emptyString_ : *pData_;
    }

    static Data* fill(Data* block, const E* text, size_type size, size_type capacity) noexcept
    {
        block->pEndOfMem_ = block->buffer_ + capacity;
        Detail::moveText(block->buffer_, text, size);
        block->setSize(size);
        return block;
    }

    static constexpr Data* none() noexcept { return NullWhenEmpty ? nullptr : &emptyString_; }

    void grow(size_type capacity)
    {
        if (this->capacity() != 0 && Memory::isSameBlock(this->capacity(), capacity)) {
            pData_->pEndOfMem_ = pData_->buffer_ + capacity;
        } else {
            resizeBlock(capacity);
        }
    }

    __attribute__((noinline)) void resizeBlock(size_type capacity)
    {
        const size_type size = this->size();
        const bool hasBlock = this->capacity() != 0;
        pData_ = hasBlock ? Memory::resize(pData_, this->capacity(), capacity)
                          : Memory::allocate(capacity);
        pData_->pEndOfMem_ = pData_->buffer_ + capacity;
        pData_->setSize(size);
    }

    void setEmpty() noexcept
    {
        if (size() == 0) {
            return; // the shared block is never written
        }
        if (NullWhenEmpty) {
            drop();
        } else {
            pData_->setSize(0);
        }
    }

    void drop() noexcept
    {
        if (capacity() != 0) {
            Memory::release(pData_, capacity());
            pData_ = none();
        }
    }

    static Data emptyString_;
};

template <typename E, typename Memory, bool NullWhenEmpty>
typename SimpleStringStorage<E, Memory, NullWhenEmpty>::Data
    SimpleStringStorage<E, Memory, NullWhenEmpty>::emptyString_ = {
        emptyString_.buffer_, emptyString_.buffer_, {E()}};

/// The large form of CString: blocks from `A`, the shared block for an empty text.
template <typename E, typename A = std::allocator<E>>
class AllocatorStringStorage
    : public SimpleStringStorage<E, Detail::AllocatorStringMemory<E, A>, false>
{
    typedef SimpleStringStorage<E, Detail::AllocatorStringMemory<E, A>, false> Base;

public:
    using Base::Base;
    constexpr AllocatorStringStorage() noexcept = default;
};

/// The storage of CMiniString: null for an empty text, otherwise a block from malloc. The block
/// goes when the text becomes empty, so that a record full of empty strings holds no memory.
template <typename E, typename A = std::allocator<E>>
class MiniStringStorage : public SimpleStringStorage<E, Detail::MallocStringMemory<E>, true>
{
    typedef SimpleStringStorage<E, Detail::MallocStringMemory<E>, true> Base;

public:
    using Base::Base;
    constexpr MiniStringStorage() noexcept = default;
    MiniStringStorage(const MiniStringStorage&) = default;
    MiniStringStorage(MiniStringStorage&&) noexcept = default;
    ~MiniStringStorage()
    {
        Detail::stringCheck(this->pData_ == nullptr ||
                                Base::le(this->pData_->buffer_, this->pData_->pEnd_),
                            "begin() <= end()");
    }
};

} // namespace Infra
} // namespace Tarsel

#endif

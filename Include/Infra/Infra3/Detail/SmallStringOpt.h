#ifndef INFRA_INFRA3_DETAIL_SMALLSTRINGOPT_H
#define INFRA_INFRA3_DETAIL_SMALLSTRINGOPT_H

// Short texts inside the object, long ones in a storage of their own.
//
//     small   [ c h a r a c t e r s NUL . . . . . . | 31 - length ]    31 characters: the marker is
//     large   [ Storage | . . . . . . . . . . . . . |     32      ]    0 and ends the text
//
// An object begins small and becomes large when it needs more room. It never goes back, so that a
// string that is filled again and again keeps its block. Only a swap exchanges the forms, and a
// move that would have to allocate otherwise.

#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include "Infra/Infra3/Detail/StringStorage.h"

namespace Tarsel
{
namespace Infra
{

/// Keeps up to `threshold` characters in the object, aligned as `Align`; more in a `Storage`.
template <typename Storage, unsigned int threshold, typename Align = typename Storage::value_type*>
class SmallStringOpt
{
public:
    typedef typename Storage::value_type value_type;
    typedef typename Storage::size_type size_type;

    constexpr SmallStringOpt() noexcept : buf_{} { buf_[maxSmallString] = maxSmallString; }
    SmallStringOpt(const value_type* text, size_type size) { init(text, size); }
    SmallStringOpt(const SmallStringOpt& other)
    {
        if (other.Small()) {
            takeBytes(other);
        } else {
            init(other.GetStorage().data(), other.GetStorage().size());
        }
    }
    SmallStringOpt(SmallStringOpt&& other) noexcept
    {
        takeBytes(other);
        other.setSmallSize(0);
    }
    SmallStringOpt& operator=(const SmallStringOpt&) = delete;
    ~SmallStringOpt()
    {
        if (!Small()) {
            GetStorage().~Storage();
        }
    }

    size_type size() const noexcept
    {
        return Small() ? maxSmallString - marker() : GetStorage().size();
    }
    size_type capacity() const noexcept
    {
        return Small() ? maxSmallString : GetStorage().capacity();
    }
    static constexpr size_type max_size() noexcept { return Storage::max_size(); }
    const value_type* data() const noexcept { return Small() ? buf_ : GetStorage().data(); }
    value_type* data() noexcept { return Small() ? buf_ : GetStorage().data(); }

    void reserve(size_type capacity)
    {
        if (!Small()) {
            GetStorage().reserve(capacity);
        } else if (capacity > maxSmallString) {
            becomeLarge(Storage::make(buf_, size(), capacity));
        }
    }

    void setSize(size_type size) noexcept
    {
        if (Small()) {
            setSmallSize(size);
        } else {
            GetStorage().setSize(size);
        }
    }

    void append(const value_type* text, size_type count)
    {
        if (!Small()) {
            GetStorage().append(text, count);
        } else if (count <= marker()) {
            const size_type size = this->size();
            Detail::moveText(buf_ + size, text, count);
            setSmallSize(size + count);
        } else {
            growAndAppend(text, count);
        }
    }

    void push_back(value_type c)
    {
        const size_type room = marker();
        if (room - 1 < maxSmallString) { // small, and not full
            buf_[maxSmallString - room] = c;
            buf_[magic - room] = value_type();
            buf_[maxSmallString] = static_cast<value_type>(room - 1);
        } else if (Small()) {
            growAndPush(c);
        } else {
            GetStorage().push_back(c);
        }
    }

    void shrink()
    {
        if (!Small()) {
            GetStorage().shrink();
        }
    }

    void swap(SmallStringOpt& other) noexcept
    {
        value_type bytes[maxSmallString + 1];
        memcpy(bytes, buf_, sizeof(buf_));
        memcpy(buf_, other.buf_, sizeof(buf_));
        memcpy(other.buf_, bytes, sizeof(buf_));
    }

    /// Takes the other's text over; what is left there is any sound text. A large string keeps its
    /// block for a small text that fits in.
    void take(SmallStringOpt& other) noexcept
    {
        if (!Small() && other.Small() && other.size() <= capacity()) {
            Detail::moveText(data(), other.buf_, other.size());
            setSize(other.size());
        } else {
            swap(other);
        }
    }

protected:
    enum : size_type
    {
        maxSmallString = threshold,
        magic = maxSmallString + 1
    };

    Storage& GetStorage() noexcept
    {
        Detail::stringCheck(marker() == magic, "buf_[maxSmallString] == magic");
        return *std::launder(reinterpret_cast<Storage*>(buf_));
    }
    const Storage& GetStorage() const noexcept
    {
        return const_cast<SmallStringOpt*>(this)->GetStorage();
    }

private:
    typedef typename std::make_unsigned<value_type>::type Marker;

    static_assert(sizeof(Storage) <= threshold * sizeof(value_type), "the storage fits in");
    static_assert(threshold < 127, "the marker is one character");

    /// One comparison while the text is small, whatever the checks.
    bool Small() const noexcept
    {
        if (__builtin_expect(marker() <= maxSmallString, 1)) {
            return true;
        }
        Detail::stringCheck(marker() == magic,
                            "!Small() || maxSmallString >= buf_[maxSmallString]");
        return false;
    }

    size_type marker() const noexcept { return static_cast<Marker>(buf_[maxSmallString]); }

    /// The terminator first: that of a full buffer is the marker itself.
    void setSmallSize(size_type size) noexcept
    {
        buf_[size] = value_type();
        buf_[maxSmallString] = static_cast<value_type>(maxSmallString - size);
    }

    void init(const value_type* text, size_type size)
    {
        if (size <= maxSmallString) {
            Detail::moveText(buf_, text, size);
            setSmallSize(size);
        } else {
            becomeLarge(Storage::make(text, size, size));
        }
    }

    void takeBytes(const SmallStringOpt& other) noexcept { memcpy(buf_, other.buf_, sizeof(buf_)); }

    /// `block` is complete: the characters here go now.
    void becomeLarge(typename Storage::Data* block) noexcept
    {
        new (buf_) Storage(block);
        buf_[maxSmallString] = static_cast<value_type>(magic);
    }

    __attribute__((noinline)) void growAndAppend(const value_type* text, size_type count)
    {
        const size_type size = this->size();
        typename Storage::Data* const block = Storage::makeGrowing(buf_, size, size + count);
        Detail::moveText(block->buffer_ + size, text, count); // which may lie in this buffer
        block->setSize(size + count);
        becomeLarge(block);
    }

    /// By value, so that the fast path keeps the character in a register.
    __attribute__((noinline)) void growAndPush(value_type c) { growAndAppend(&c, 1); }

    alignas(Align) value_type buf_[maxSmallString + 1];
};

} // namespace Infra
} // namespace Tarsel

#endif

#ifndef INFRA_SRC_INFRA3_TEXTWRITER_H
#define INFRA_SRC_INFRA3_TEXTWRITER_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Infra/Infra3/Detail/ShortBytes.h"
#include "Infra3/Digits.h"

namespace Tarsel
{
namespace Infra
{

/// Appends to a fixed buffer, cuts at its end and counts on behind it.
class CTextWriter
{
public:
    /// `room` bytes at `buffer`, at least one: the terminator's.
    CTextWriter(char* buffer, size_t room)
        : m_begin(buffer), m_at(buffer), m_last(buffer + room - 1), m_lost(0)
    {}

    CTextWriter& character(char piece)
    {
        if (m_at != m_last) {
            *m_at++ = piece;
        } else {
            ++m_lost;
        }
        return *this;
    }

    CTextWriter& text(std::string_view piece)
    {
        const size_t taken = take(piece.size());
        copy(piece.data(), taken);
        m_at += taken;
        return *this;
    }

    CTextWriter& fill(char piece, size_t count)
    {
        if (count != 0) {
            const size_t taken = take(count);
            memset(m_at, piece, taken);
            m_at += taken;
        }
        return *this;
    }

    /// A number in at least `width` digits, filled with zeros.
    CTextWriter& number(int value, size_t width = 1)
    {
        const auto size = static_cast<unsigned>(value);
        if (value < 0) {
            character('-');
        }
        return decimal(value < 0 ? 0U - size : size, width);
    }

    CTextWriter& decimal(uint64_t value, size_t width = 1)
    {
        const size_t length = decimalLength(value);
        if (length < width) {
            fill('0', width - length);
        }
        return digits(length, [value](char* end) { writeDecimalBefore(end, value); });
    }

    /// `length` digits, at most 20. writeBefore(char* end) writes them so that they end at `end`.
    template <typename Write>
    CTextWriter& digits(size_t length, const Write& writeBefore)
    {
        if (length <= room()) {
            m_at += length;
            writeBefore(m_at);
            return *this;
        }
        char cut[20];
        writeBefore(cut + length);
        return text({cut, length});
    }

    /// Two digits of a `value` from 0 to 99.
    CTextWriter& pair(int value) { return text({&digitPairs[static_cast<size_t>(value) * 2], 2}); }

    /// Terminates the text and returns its length in the buffer.
    size_t finish()
    {
        *m_at = '\0';
        return static_cast<size_t>(m_at - m_begin);
    }

    /// The length that the text would have in a buffer without end.
    size_t wholeLength() const { return static_cast<size_t>(m_at - m_begin) + m_lost; }

private:
    size_t room() const { return static_cast<size_t>(m_last - m_at); }

    /// Most pieces are so short that a call would cost more than they do.
    void copy(const char* piece, size_t length)
    {
        if (length > 16) {
            memcpy(m_at, piece, length);
        } else if (length >= 8) {
            Detail::moveEnds<8>(m_at, piece, length);
        } else if (length >= 4) {
            Detail::moveEnds<4>(m_at, piece, length);
        } else if (length != 0) {
            m_at[0] = piece[0];
            m_at[length / 2] = piece[length / 2];
            m_at[length - 1] = piece[length - 1];
        }
    }

    /// What there is room for of `count` characters; the others are lost.
    size_t take(size_t count)
    {
        if (count <= room()) {
            return count;
        }
        m_lost += count - room();
        return room();
    }

    char* const m_begin;
    char* m_at;
    char* const m_last;
    size_t m_lost;
};

} // namespace Infra
} // namespace Tarsel

#endif

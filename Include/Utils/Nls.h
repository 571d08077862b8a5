#ifndef INFRA_UTILS_NLS_H
#define INFRA_UTILS_NLS_H

// Conversions between character sets: UTF-8, Unicode in units of 16 bits (UCS-2) and 32 bits (UCS-4),
// code page 936 (Chinese, in the names called GB2312), and single-byte code pages.
//
// All functions work on buffers of the caller's, keep nothing, and are safe from any thread. Lengths
// are in bytes where nothing else is said. A null pointer or a negative length gives the function's
// failure, and nothing is written. No terminating NUL is written where none is mentioned. Where source
// and target overlap and nothing else is said, characters are read and written one after the other.
//
// UTF-8 is the first definition of it: sequences of up to six bytes for values of up to 31 bits,
// surrogates included. Over-long sequences are refused where nothing else is said. UCS-2 has no
// characters above U+FFFF: values beyond are cut to their low 16 bits.

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Utils
{

/// Decodes one sequence of at most `n` bytes to `*p`. A NUL is a character.
/// @return the length of the sequence; -1 when it is malformed or does not end within `n` bytes
INFRA_API int utf8_mbtowc(uint16_t* p, const uint8_t* s, int n);

/// Decodes up to the first NUL, at most `n` bytes. A byte that begins no valid sequence is skipped.
/// `pwcs` needs room for as many units as there are characters, `n` at most.
/// @return the units written; 0 for null pointers
INFRA_API int utf8_mbstowcs(uint16_t* pwcs, const uint8_t* s, int n);

/// Encodes one value.
/// @return the bytes written; 0 when `s` is null, -1 when `maxlen` bytes are too few
INFRA_API int utf8_wctomb(uint8_t* s, uint16_t wc, int maxlen);

/// Encodes up to the first unit 0, at most `maxlen` bytes. A character that does not fit any more is
/// left out and costs one byte of the room; a shorter one behind it may still fit. No unit is read
/// once the room is used up.
/// @return the bytes written; 0 for null pointers
INFRA_API int utf8_wcstombs(uint8_t* s, const uint16_t* pwcs, int maxlen);

/// Decodes the first character of a NUL-terminated text of sequences of up to three bytes, over-long
/// ones included.
///
/// `*pn` becomes its length in bytes: 0 for an empty text and for a first byte that begins no such
/// sequence. Whoever steps through a text by it has to stop, or to skip a byte, at 0.
/// @return the value; of a sequence that another byte cuts short what there is of it; 0 when the
///         text ends first
INFRA_API uint16_t GetUnicodeFromUtf8(const char* pch, int* pn);

/// The length that a lead byte announces, 2 to 6; 0 for an ASCII byte, -1 for a continuation byte.
INFRA_API int get_utf8_size(const unsigned char input);

/// Encodes values of 32 bits in the byte order of this machine; `ucs4Len` is in bytes. 0 becomes a NUL,
/// and those of 0x80000000 and above are left out. Stops, and logs a warning, where one does not fit.
/// @return the bytes written; 0, logged, for null pointers and a length that is no multiple of 4
INFRA_API int UCS4ToUtf8(char* ucs4, int ucs4Len, uint8_t* utf8, int nUtf8Len);

/// Windows-1252 to UTF-8, all or nothing. From the first undefined byte on (0x81, 0x8D, 0x8F, 0x90,
/// 0x9D) each byte becomes a NUL. Source and target may overlap.
/// @return 0; the size needed when that is above `utf8buflen`, or there is no target, and nothing is
///         written; -1 when there is nothing to convert, that size is above INT_MAX, or there is no
///         memory (needed for overlapping buffers)
INFRA_API int cp1252_to_utf8(uint8_t* utf8buf, int utf8buflen, const uint8_t* cp1252buf,
                             int cp1252buflen);

/// UTF-8 to Windows-1252, until the target is full or a sequence is malformed. Over-long sequences
/// are accepted, NUL is a character, and what has no byte is left out. U+0081, U+008D, U+008F,
/// U+0090 and U+009D have the bytes of those values.
/// @return the bytes written
INFRA_API int utf8_to_cp1252(const uint8_t* utf8buf, int utf8buflen, uint8_t* cp1252buf,
                             int cp1252buflen);

/// Converts the first character of at most `boundlen` bytes, and returns its length or -1.
typedef int char2uni_t(const uint8_t* rawstring, int boundlen, uint16_t* uni);

/// A text to UTF-8, byte by byte through `func`. Bytes for which it returns less than 1 are left out;
/// what it returns else is not looked at. Stops where a character does not fit.
/// @param dstLen  in: room, at least srcLen; out: the bytes written
/// @param srcLen  in: the length, above 0; out: the bytes used; 0 when the first one needs more room
/// @return 0; -1 when a condition is not met, and nothing is changed
INFRA_API int char_to_utf8(uint8_t* dst, int& dstLen, const uint8_t* src, int& srcLen,
                           char2uni_t* func);

/// X(P) for each of the single-byte code pages that follow.
#define INFRA_NLS_CODE_PAGES(X)                                                                    \
    X(cp1250)                                                                                      \
    X(cp1251)                                                                                      \
    X(cp862)                                                                                       \
    X(cp874)                                                                                       \
    X(iso8859_1)                                                                                   \
    X(iso8859_2)                                                                                   \
    X(iso8859_3)                                                                                   \
    X(iso8859_4)                                                                                   \
    X(iso8859_5)                                                                                   \
    X(iso8859_6)                                                                                   \
    X(iso8859_7)                                                                                   \
    X(iso8859_8)                                                                                   \
    X(iso8859_9)                                                                                   \
    X(iso8859_10)                                                                                  \
    X(iso8859_13)                                                                                  \
    X(iso8859_14)                                                                                  \
    X(iso8859_15)                                                                                  \
    X(iso8859_16)

#define INFRA_NLS_CODE_PAGE(P)                                                                     \
    INFRA_API int P##_uni2char(uint16_t uni, uint8_t* out, int boundlen);                          \
    INFRA_API int P##_char2uni(const uint8_t* rawstring, int boundlen, uint16_t* uni);             \
    INFRA_API int P##_to_utf8(uint8_t* dst, int& dstLen, const uint8_t* src, int& srcLen);

/// @name Single-byte code pages
/// Of the code page P
/// - P_uni2char converts a unit to a byte: 1; -1 when there is none, or no room;
/// - P_char2uni converts a byte to a unit: 1; -1 when it has no character, which NUL has not either,
///   and 0 is stored;
/// - P_to_utf8 is char_to_utf8() by P_char2uni.
/// @{
INFRA_NLS_CODE_PAGES(INFRA_NLS_CODE_PAGE)
/// @}

#undef INFRA_NLS_CODE_PAGE

/// One character to code page 936. U+0080 to U+00FF become the single byte of their value, even
/// where the code page has a pair for them; U+20AC (the euro sign) has no bytes. Units above U+00FF
/// need room for two: where others of the same high byte have a pair, two NULs are written for those
/// that have none.
/// @return the bytes of the character, 1 or 2; -1 when there are none or no room
INFRA_API int uni2char(uint16_t uni, uint8_t* out, int boundlen);

/// The first character of at most `boundlen` bytes of code page 936. A byte that has no other behind
/// it, or NUL, stands for its own value; so does one that leads no pair. 0x80 is U+20AC.
/// @return the bytes used, 1 or 2; -1 for a pair without a character, and 0 is stored
INFRA_API int char2uni(const uint8_t* rawstring, int boundlen, uint16_t* uni);

/// Up to `nUnicLen` units, or to the first 0, to code page 936. The target is cleared first, and one
/// NUL stays at its end, if it has any room.
/// @return the units converted, fewer when the target is full; -1, with what comes before converted,
///         when one has no bytes
INFRA_API int UniTGb2312(unsigned short* pUnicode, int nUnicLen, char* pStr, int nStrLen);

/// A text of code page 936, up to its NUL, to at most `nLenTag` units. The target is cleared first.
/// Pairs without a character are skipped; if their second byte is ASCII it stays.
/// @return the units stored; those behind them are 0
INFRA_API int Gb2312ToUni(char* pSource, unsigned short* pTag, int nLenTag);

/// A text in UTF-8, up to its NUL or `nUtf8Len` bytes, by utf8_mbstowcs() and UniTGb2312(): the
/// result is the latter's. A value beyond U+FFFF whose low 16 bits are 0 ends the text. Of an empty
/// text, or 0 bytes, the result is 0, and the target stays as it is. Source and target may overlap.
INFRA_API int utf8TGb2312(uint8_t* putf8, char* pStr, int nUtf8Len, int nStrLen);

/// A text of code page 936, up to its NUL, by Gb2312ToUni() and utf8_wcstombs(). The target is
/// cleared first, so there is a NUL unless the text takes all of it.
/// @return the bytes written; 0 for an empty text, and the target stays as it is
INFRA_API int Gb2312TUtf8(char* pSource, uint8_t* pUtf8, int nUtf8Len);

} // namespace Utils
} // namespace Tarsel

#endif

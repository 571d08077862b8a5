#ifndef INFRA_UTILS_TRIPLEDES_H
#define INFRA_UTILS_TRIPLEDES_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Utils
{

struct TripleDesInternal;

/// DES (FIPS 46-3) and triple DES (NIST SP 800-67), in ECB, or with an IV in CBC. There for data
/// and peers that need it; what is new takes CAes.
///
/// Behaviour: the length of the key chooses the cipher. Bits of the key that its length does not
/// cover are zero; parity bits are ignored.
///
/// | key bytes   | `block`  | cipher                                                     | block |
/// |-------------|----------|------------------------------------------------------------|-------|
/// | none        | either   | none: every call fails                                     | -     |
/// | 1 to 8      | either   | DES                                                        | 8     |
/// | 9 to 16     | block8   | triple DES with two keys: the third is the first           | 8     |
/// | 17 and more | block8   | triple DES with three keys; 24 bytes count                 | 8     |
/// | 9 to 16     | block16  | two keys, over two halves that exchange a word between the | 16    |
/// |             |          | passes: a cipher of this library's own                     |       |
/// | 17 and more | block16  | the same with three keys                                   | 16    |
///
/// Every call starts from the IV given at construction: nothing carries over, and the same input
/// gives the same output. `dst` may be `src`; otherwise the two do not overlap.
/// Threads: safe from any thread; one object may be shared, and calls run side by side. Ownership:
/// key and IV are copied, and wiped when the object is destroyed.
class INFRA_API CTripleDes
{
public:
    enum BlockType
    {
        block8 = 0,
        block16 = 1
    };

    /// Where memory for its record is missing, the object's first call fails an assertion.
    /// @param key   `size` bytes; a null one counts as no key, and then every call fails
    /// @param block one of the two: with a key of more than 8 bytes any other value ends the
    ///              process, by a failed assertion
    /// @param iv    one block, 8 or 16 bytes, for CBC; null for ECB
    CTripleDes(const uint8_t* key, size_t size, BlockType block = block8,
               const uint8_t* iv = nullptr);
    ~CTripleDes();

    /// Enciphers the whole blocks among `size` bytes of `src` into `dst`; the rest of `dst` is not
    /// written. A null `src` or `dst` is logged, and nothing is done.
    /// @return true when `size` is a multiple of the block; false, logged, when it is not, or when
    ///         there is no key
    bool encrypt(uint8_t* dst, const uint8_t* src, size_t size);
    /// Deciphers, with the same results.
    bool decrypt(uint8_t* dst, const uint8_t* src, size_t size);

private:
    CTripleDes(const CTripleDes&);
    CTripleDes& operator=(const CTripleDes&);

    TripleDesInternal* m_internal;
};

} // namespace Utils
} // namespace Tarsel

#endif

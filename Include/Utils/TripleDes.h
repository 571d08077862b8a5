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

/// DES (FIPS 46-3) and triple DES (NIST SP 800-67), in ECB, or with an IV in CBC. There for data and
/// peers that need it; what is new takes CAes.
///
/// Behaviour: the length of the key chooses the cipher. Bits of the key that its length does not
/// cover are zero; parity bits are ignored.
///
/// | key bytes         | block8               | block16                                 |
/// |-------------------|----------------------|-----------------------------------------|
/// | 1 to 8            | DES                  | DES, blocks of 8 bytes too              |
/// | 9 to 16           | triple DES, K3 = K1  | the same over two halves that exchange  |
/// | 17 and more       | triple DES, three    | a word between the passes: a cipher of  |
/// |                   | keys (24 bytes count)| this library's own                      |
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

    /// @param key   `size` bytes; a null one counts as no key, and then every call fails
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

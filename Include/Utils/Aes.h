#ifndef INFRA_UTILS_AES_H
#define INFRA_UTILS_AES_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Utils
{

class AesInternal;

/// AES (FIPS-197) in one of five modes (NIST SP 800-38A). Nothing is padded and nothing is
/// authenticated.
///
/// Behaviour: an object is one message in one direction. Chaining and stream positions carry over
/// from call to call, so that a message may come in pieces; a new message takes a new object.
///
/// | mode        | sizes           | a piece may end   | for                                      |
/// |-------------|-----------------|-------------------|------------------------------------------|
/// | MODE_ECB    | multiples of 16 | at any block      | compatibility: equal blocks stay equal   |
/// | MODE_CBC    | multiples of 16 | at any block      | whole blocks, an unpredictable IV        |
/// | MODE_CFB8   | any             | anywhere          | compatibility: one block a byte          |
/// | MODE_CFB128 | any             | anywhere          | a stream, an IV never used before        |
/// | MODE_CTR    | any             | anywhere          | a stream, a counter never used before    |
///
/// `dst` may be `src`; otherwise the two do not overlap.
/// Failure: an object without a usable mode, key or key length, or for which there was no memory,
/// logs "aes init failed.\n" at every call and returns false.
/// Threads: one thread at a time for one object.
/// Ownership: key and IV are copied, and wiped when the object is destroyed.
///
///     CAes cipher(CAes::MODE_CTR, key, CAes::BITS_256, nonce);
///     cipher.encrypt(bytes, bytes, count);
class INFRA_API CAes
{
public:
    enum EncMode
    {
        MODE_ECB = 0,
        MODE_CBC = 1,
        MODE_CFB8 = 2,
        MODE_CFB128 = 3,
        MODE_CTR = 4
    };

    enum KeyBits
    {
        BITS_128 = 128,
        BITS_192 = 192,
        BITS_256 = 256
    };

    /// @param key  `keybits` / 8 bytes; null is logged and leaves the object unusable
    /// @param iv   16 bytes, in MODE_CTR the first counter block; null for zeros; MODE_ECB has none
    CAes(EncMode mode, const uint8_t* key, KeyBits keybits, const uint8_t* iv = nullptr);
    ~CAes();

    /// Enciphers `size` bytes of `src` into `dst`.
    /// @return false, with nothing written and the position unchanged, for a null pointer (unless
    ///         `size` is 0), for a size that the mode does not take, and for an unusable object
    bool encrypt(uint8_t* dst, const uint8_t* src, size_t size);
    /// Deciphers, with the same results.
    bool decrypt(uint8_t* dst, const uint8_t* src, size_t size);

private:
    CAes(const CAes&);
    CAes& operator=(const CAes&);

    AesInternal* m_internal;
};

} // namespace Utils
} // namespace Tarsel

#endif

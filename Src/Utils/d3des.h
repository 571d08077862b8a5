#ifndef INFRA_SRC_UTILS_D3DES_H
#define INFRA_SRC_UTILS_D3DES_H

// DES below the public class: key schedules and block functions.

#include <cstddef>
#include <cstdint>

namespace Tarsel
{
namespace Utils
{
namespace DES
{

/// Sixteen round keys, in the order of enciphering. `odd` has the six bits for each of the S-boxes
/// 1, 3, 5 and 7 in a byte of its own, the first in the highest byte; `even` those for 2, 4, 6, 8.
struct Schedule
{
    uint32_t odd[16];
    uint32_t even[16];
};

/// One schedule a pass. DES uses the first alone.
struct Schedules
{
    Schedule pass[3];
};

/// What a run of blocks does with each of them; `out` may be `in`.
enum class Direction
{
    encrypt,
    decrypt
};

/// Sixteen rounds: with which schedule, and whether forwards through it.
struct Pass
{
    const Schedule& key;
    bool forwards;
};

/// Pass number `number` of 1 or 3, in the order in which passes are done: the middle one goes the
/// other way.
[[gnu::always_inline]] inline Pass passOf(const Schedules& keys, Direction direction, int passes,
                                          int number)
{
    const bool encrypts = direction == Direction::encrypt;
    return {keys.pass[encrypts ? number : passes - 1 - number], encrypts == (number != 1)};
}

/// Bit 0 of each of the eight bytes of `key`, the parity, is ignored.
void setKey(Schedule& schedule, const uint8_t* key);

/// A cipher, by runs of whole blocks.
struct des_func
{
    size_t blockSize;
    /// Transforms `blocks` blocks, each for itself.
    void (*crypt)(const Schedules& keys, Direction direction, size_t blocks, const uint8_t* in,
                  uint8_t* out);
    /// Enciphers `blocks` blocks, each added to the ciphertext before it, the first to `iv`.
    void (*encryptChain)(const Schedules& keys, const uint8_t* iv, size_t blocks, const uint8_t* in,
                         uint8_t* out);
    /// Undoes that.
    void (*decryptChain)(const Schedules& keys, const uint8_t* iv, size_t blocks, const uint8_t* in,
                         uint8_t* out);
};

/// DES: blocks of 8 bytes.
extern const des_func singleDes;
/// Triple DES, encrypt-decrypt-encrypt: blocks of 8 bytes.
extern const des_func tripleDes;
/// Blocks of 16 bytes, two halves that exchange a word before the second pass and after it.
extern const des_func doubleBlockTripleDes;

} // namespace DES
} // namespace Utils
} // namespace Tarsel

#endif

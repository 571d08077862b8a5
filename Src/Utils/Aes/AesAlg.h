#ifndef INFRA_SRC_UTILS_AES_AESALG_H
#define INFRA_SRC_UTILS_AES_AESALG_H

// AES below the public class: key schedules, blocks and modes.
//
//     Aes.cpp                CAes: one object a mode, which keeps the state between calls
//     AesAlg.cpp             the modes over any number of bytes, for whichever engine
//     AesEngine.h            what an engine does: schedules, and runs of whole blocks in each mode
//     AesTables.cpp          the engine for any processor: tables
//     Aes_NI_x86_64.cpp      the engine of the AES instructions
//     Aes_VAES_x86_64.cpp    the same, two blocks an instruction, where none waits for another
//
// The schedules of all engines are the same bytes, so a context made by one works in another.

#include <cstddef>
#include <cstdint>

namespace Tarsel
{
namespace Utils
{
namespace AES
{

constexpr size_t blockSize = 16;

enum
{
    AES_DECRYPT = 0,
    AES_ENCRYPT = 1
};

/// A key schedule. The round keys are `nr` + 1 blocks as the block operations use them: for
/// deciphering in reverse order and, but for the first and the last, with InvMixColumns done to
/// them (the equivalent inverse cipher of FIPS-197).
struct alignas(16) aes_context
{
    aes_context() = default;
    aes_context(const aes_context& other);
    aes_context& operator=(const aes_context& other);
    ~aes_context() = default;

    int nr = 0;             ///< rounds: 10, 12 or 14; 0 before a key is set
    uint32_t* rk = nullptr; ///< the round keys, in this object's own `buf`
    uint32_t buf[68] = {};
};

// Each returns 0, or -1 where that is said. A context has to have a key set before it is used.
// `mode` is AES_ENCRYPT or AES_DECRYPT; `output` may be `input`.

int aes_init(aes_context* ctx);
/// Overwrites the whole context with zeros.
int aes_free(aes_context* ctx);
/// @return -1 for a `keybits` other than 128, 192 and 256
int aes_setkey_enc(aes_context* ctx, const unsigned char* key, unsigned int keybits);
int aes_setkey_dec(aes_context* ctx, const unsigned char* key, unsigned int keybits);

int aes_crypt_ecb_block(aes_context* ctx, int mode, const unsigned char* input,
                        unsigned char* output);
/// @return -1 for a `length` that is no multiple of 16
int aes_crypt_ecb(aes_context* ctx, int mode, size_t length, const unsigned char* input,
                  unsigned char* output);
/// @param iv  the last ciphertext block afterwards
/// @return -1 for a `length` that is no multiple of 16
int aes_crypt_cbc(aes_context* ctx, int mode, size_t length, unsigned char* iv,
                  const unsigned char* input, unsigned char* output);
/// These take an enciphering schedule for either direction.
/// @param iv  the last 16 ciphertext bytes afterwards
int aes_crypt_cfb8(aes_context* ctx, int mode, size_t length, unsigned char* iv,
                   const unsigned char* input, unsigned char* output);
/// @param iv_off  how much of `iv` is used up: ciphertext before it, key stream from it on
int aes_crypt_cfb128(aes_context* ctx, int mode, size_t length, size_t* iv_off, unsigned char* iv,
                     const unsigned char* input, unsigned char* output);
/// @param nc_off         how much of `stream_block` is used up
/// @param nonce_counter  the next counter block, a big-endian number
/// @param stream_block   the key stream of the counter block before that
int aes_crypt_ctr(aes_context* ctx, size_t length, size_t* nc_off, unsigned char* nonce_counter,
                  unsigned char* stream_block, const unsigned char* input, unsigned char* output);

/// Bit of the AES instructions in the word that aesni_has_support() looks at.
constexpr unsigned int AESNI_AES = 0x2000000;

/// Whether the processor's identification (leaf 1, ECX) has one of the bits of `what` set.
int aesni_has_support(unsigned int what);

} // namespace AES
} // namespace Utils
} // namespace Tarsel

#endif

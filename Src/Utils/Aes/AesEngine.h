#ifndef INFRA_SRC_UTILS_AES_AESENGINE_H
#define INFRA_SRC_UTILS_AES_AESENGINE_H

// What an engine does, and the modes over any number of bytes for a given one.

#include <cstddef>
#include <cstdint>

#include "Utils/Aes/AesAlg.h"

namespace Tarsel
{
namespace Utils
{
namespace AES
{

/// One block.
using BlockRun = void(const aes_context& ctx, const uint8_t* in, uint8_t* out);
/// `blocks` whole blocks, each for itself.
using EcbRun = void(const aes_context& ctx, size_t blocks, const uint8_t* in, uint8_t* out);
/// Whole blocks behind `iv`, which is the last ciphertext block afterwards.
using ChainRun = void(const aes_context& ctx, size_t blocks, uint8_t* iv, const uint8_t* in,
                      uint8_t* out);
/// `size` single bytes behind the 16 of `iv`, which are the last ciphertext bytes afterwards.
using ByteRun = void(const aes_context& ctx, size_t size, uint8_t* iv, const uint8_t* in,
                     uint8_t* out);
/// Whole blocks, at least one; `stream` is the key stream of the last one afterwards.
using CounterRun = void(const aes_context& ctx, size_t blocks, uint8_t* counter, uint8_t* stream,
                        const uint8_t* in, uint8_t* out);

/// One way to compute AES. Everything may be done in place.
struct AesEngine
{
    /// Makes the words of a schedule for enciphering from its first `keyWords` ones: 4, 6 or 8.
    void (*expandKey)(uint32_t* words, size_t keyWords);
    /// Makes the schedule for deciphering from the one for enciphering.
    void (*invertSchedule)(const aes_context& encrypting, aes_context& decrypting);

    EcbRun* ecbEncrypt;
    EcbRun* ecbDecrypt;
    ChainRun* cbcEncrypt;
    ChainRun* cbcDecrypt;
    ByteRun* cfb8Encrypt;
    ByteRun* cfb8Decrypt;
    ChainRun* cfb128Encrypt;
    ChainRun* cfb128Decrypt;
    CounterRun* ctr;
    BlockRun* encryptBlock;
    BlockRun* decryptBlock;
};

extern const AesEngine tableEngine;
extern const AesEngine aesniEngine;
extern const AesEngine vaesEngine;

/// The AES-NI engine's operations, where another engine has none that is better.
namespace Aesni
{

void expandKey(uint32_t* words, size_t keyWords);
void invertSchedule(const aes_context& encrypting, aes_context& decrypting);
BlockRun encryptBlock;
BlockRun decryptBlock;
EcbRun ecbEncrypt;
EcbRun ecbDecrypt;
ChainRun cbcEncrypt;
ChainRun cbcDecrypt;
ByteRun cfb8Encrypt;
ByteRun cfb8Decrypt;
ChainRun cfb128Encrypt;
ChainRun cfb128Decrypt;
CounterRun ctr;

} // namespace Aesni

/// The best engine that this processor has.
const AesEngine& chooseEngine();

// The operations of AesAlg.h for an engine chosen before.

bool setEncryptKey(const AesEngine& engine, aes_context& ctx, const uint8_t* key,
                   unsigned int keybits);
void cryptCfb128(const AesEngine& engine, const aes_context& ctx, bool encrypts, size_t length,
                 size_t& offset, uint8_t* iv, const uint8_t* in, uint8_t* out);
void cryptCtr(const AesEngine& engine, const aes_context& ctx, size_t length, size_t& offset,
              uint8_t* counter, uint8_t* stream, const uint8_t* in, uint8_t* out);

/// `out` may be `a` or `b`.
inline void xorBytes(uint8_t* out, const uint8_t* a, const uint8_t* b, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        out[i] = a[i] ^ b[i];
    }
}

/// The first is 1.
constexpr uint32_t nextRoundConstant(uint32_t constant)
{
    return (constant << 1) ^ (constant >> 7) * 0x11B;
}

/// Adds one to a counter block, a big-endian number of 128 bits.
inline void increment(uint8_t* counter)
{
    for (size_t i = blockSize; i-- > 0 && ++counter[i] == 0;) {
    }
}

} // namespace AES
} // namespace Utils
} // namespace Tarsel

#endif

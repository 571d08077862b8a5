// AesAlg.cpp: key schedules, and the modes over any number of bytes.
//
// An engine (AesEngine.h) runs whole blocks. Here stands what is the same for all engines: how a
// key becomes a schedule, and in CFB128 and CTR how the rest of a block that an earlier call began
// is used up, the whole blocks in between are run, and another block is begun at the end.

#include "Utils/Aes/AesAlg.h"

#include <algorithm>
#include <cstring>

#include "Infra3/CpuFeatures.h"
#include "Utils/Aes/AesEngine.h"

namespace Tarsel
{
namespace Utils
{
namespace AES
{
namespace
{

/// The ciphertext, which is the output or the input, takes the place of the key stream used.
void feedBytes(bool encrypts, uint8_t* iv, size_t size, const uint8_t* in, uint8_t* out)
{
    for (size_t i = 0; i < size; ++i) {
        const uint8_t from = in[i];
        out[i] = from ^ iv[i];
        iv[i] = encrypts ? out[i] : from;
    }
}

} // namespace

aes_context::aes_context(const aes_context& other)
{
    *this = other;
}

aes_context& aes_context::operator=(const aes_context& other)
{
    if (this != &other) {
        nr = other.nr;
        rk = other.rk == nullptr ? nullptr : buf;
        memcpy(buf, other.buf, sizeof(buf));
    }
    return *this;
}

const AesEngine& chooseEngine()
{
    using Infra::CpuFeature;
    constexpr Infra::TImplementation<const AesEngine> engines[] = {
        {&vaesEngine, {CpuFeature::vaes, CpuFeature::avx2, CpuFeature::aesni, CpuFeature::sse41}},
        {&aesniEngine, {CpuFeature::aesni, CpuFeature::sse41}},
        {&tableEngine, {}},
    };
    return *Infra::chooseImplementation(engines);
}

bool setEncryptKey(const AesEngine& engine, aes_context& ctx, const uint8_t* key,
                   unsigned int keybits)
{
    if (keybits != 128 && keybits != 192 && keybits != 256) {
        return false;
    }
    const size_t keyWords = keybits / 32;
    ctx.nr = static_cast<int>(keyWords) + 6;
    ctx.rk = ctx.buf;
    memcpy(ctx.rk, key, keybits / 8);
    engine.expandKey(ctx.rk, keyWords);
    return true;
}

void cryptCfb128(const AesEngine& engine, const aes_context& ctx, bool encrypts, size_t length,
                 size_t& offset, uint8_t* iv, const uint8_t* in, uint8_t* out)
{
    if (offset != 0) {
        const size_t rest = std::min(length, blockSize - offset);
        feedBytes(encrypts, iv + offset, rest, in, out);
        offset = (offset + rest) % blockSize;
        in += rest;
        out += rest;
        length -= rest;
    }
    const size_t whole = length / blockSize;
    if (whole != 0) {
        (encrypts ? engine.cfb128Encrypt : engine.cfb128Decrypt)(ctx, whole, iv, in, out);
    }
    const size_t begun = length % blockSize;
    if (begun != 0) {
        engine.encryptBlock(ctx, iv, iv);
        feedBytes(encrypts, iv, begun, in + whole * blockSize, out + whole * blockSize);
        offset = begun;
    }
}

void cryptCtr(const AesEngine& engine, const aes_context& ctx, size_t length, size_t& offset,
              uint8_t* counter, uint8_t* stream, const uint8_t* in, uint8_t* out)
{
    if (offset != 0) {
        const size_t rest = std::min(length, blockSize - offset);
        xorBytes(out, in, stream + offset, rest);
        offset = (offset + rest) % blockSize;
        in += rest;
        out += rest;
        length -= rest;
    }
    const size_t whole = length / blockSize;
    if (whole != 0) {
        engine.ctr(ctx, whole, counter, stream, in, out);
    }
    const size_t begun = length % blockSize;
    if (begun != 0) {
        engine.encryptBlock(ctx, counter, stream);
        increment(counter);
        xorBytes(out + whole * blockSize, in + whole * blockSize, stream, begun);
        offset = begun;
    }
}

int aes_init(aes_context* ctx)
{
    *ctx = aes_context();
    return 0;
}

int aes_free(aes_context* ctx)
{
    explicit_bzero(ctx, sizeof(*ctx));
    return 0;
}

int aes_setkey_enc(aes_context* ctx, const unsigned char* key, unsigned int keybits)
{
    return setEncryptKey(chooseEngine(), *ctx, key, keybits) ? 0 : -1;
}

int aes_setkey_dec(aes_context* ctx, const unsigned char* key, unsigned int keybits)
{
    const AesEngine& engine = chooseEngine();
    aes_context encrypting;
    if (!setEncryptKey(engine, encrypting, key, keybits)) {
        return -1;
    }
    engine.invertSchedule(encrypting, *ctx);
    return aes_free(&encrypting);
}

int aes_crypt_ecb_block(aes_context* ctx, int mode, const unsigned char* input,
                        unsigned char* output)
{
    const AesEngine& engine = chooseEngine();
    (mode == AES_ENCRYPT ? engine.encryptBlock : engine.decryptBlock)(*ctx, input, output);
    return 0;
}

int aes_crypt_ecb(aes_context* ctx, int mode, size_t length, const unsigned char* input,
                  unsigned char* output)
{
    if (length % blockSize != 0) {
        return -1;
    }
    const AesEngine& engine = chooseEngine();
    (mode == AES_ENCRYPT ? engine.ecbEncrypt : engine.ecbDecrypt)(*ctx, length / blockSize, input,
                                                                  output);
    return 0;
}

int aes_crypt_cbc(aes_context* ctx, int mode, size_t length, unsigned char* iv,
                  const unsigned char* input, unsigned char* output)
{
    if (length % blockSize != 0) {
        return -1;
    }
    const AesEngine& engine = chooseEngine();
    (mode == AES_ENCRYPT ? engine.cbcEncrypt : engine.cbcDecrypt)(*ctx, length / blockSize, iv,
                                                                  input, output);
    return 0;
}

int aes_crypt_cfb8(aes_context* ctx, int mode, size_t length, unsigned char* iv,
                   const unsigned char* input, unsigned char* output)
{
    const AesEngine& engine = chooseEngine();
    (mode == AES_ENCRYPT ? engine.cfb8Encrypt : engine.cfb8Decrypt)(*ctx, length, iv, input,
                                                                    output);
    return 0;
}

int aes_crypt_cfb128(aes_context* ctx, int mode, size_t length, size_t* iv_off, unsigned char* iv,
                     const unsigned char* input, unsigned char* output)
{
    *iv_off %= blockSize;
    cryptCfb128(chooseEngine(), *ctx, mode == AES_ENCRYPT, length, *iv_off, iv, input, output);
    return 0;
}

int aes_crypt_ctr(aes_context* ctx, size_t length, size_t* nc_off, unsigned char* nonce_counter,
                  unsigned char* stream_block, const unsigned char* input, unsigned char* output)
{
    *nc_off %= blockSize;
    cryptCtr(chooseEngine(), *ctx, length, *nc_off, nonce_counter, stream_block, input, output);
    return 0;
}

int aesni_has_support(unsigned int what)
{
    return (Infra::basicFeatureWord() & what) != 0 ? 1 : 0;
}

} // namespace AES
} // namespace Utils
} // namespace Tarsel

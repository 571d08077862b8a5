// CAes and CTripleDes beside OpenSSL, nettle and Botan.
//
// aes_MODE_encrypt/BITS/N   N bytes by one call, a key of BITS bits; decrypt likewise. N = 16 is what
//                           a call costs.
// aes_MODE_encrypt/BITS/N/no-VAES   the same where the processor has the AES instructions for one block
//                           only, as this library sees it; OpenSSL uses no others here
// aes_new_MODE/BITS         an object or context with its key made, 16 bytes enciphered, destroyed
// 3des_MODE_encrypt/N       N bytes by one call, three keys; /threads:T from T threads at once, each
//                           with a message of its own
//
// The chained modes (cbc, cfb128 and cfb8, enciphering) wait for each block before the next one:
// what counts there is the latency of the AES instructions, and 1.3 GB/s are the most that a
// processor of this kind can do with a key of 128 bits (a sixteenth of it in cfb8).

#include <botan/block_cipher.h>
#include <botan/cipher_mode.h>
#include <botan/version.h>
#include <nettle/aes.h>
#include <nettle/cbc.h>
#include <nettle/cfb.h>
#include <nettle/ctr.h>
#include <nettle/version.h>
#include <openssl/evp.h>

#include <memory>
#include <string>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Infra3/CpuFeatures.h"
#include "Utils/Aes.h"
#include "Utils/TripleDes.h"

namespace
{

using Tarsel::Utils::CAes;
using Tarsel::Utils::CTripleDes;

constexpr uint8_t key[32] = {1, 2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 16,
                             9, 77, 32, 55, 98, 12, 91, 31, 57, 13, 87, 40, 11, 8,  66, 21};
constexpr uint8_t iv[16] = {1, 1, 2, 3, 5, 8, 13, 21, 34, 55, 89, 144, 233, 7, 9, 11};

struct Mode
{
    const char* name;
    CAes::EncMode ours;
    const char* openssl;
};
constexpr Mode ecb = {"ecb", CAes::MODE_ECB, "ECB"};
constexpr Mode cbc = {"cbc", CAes::MODE_CBC, "CBC"};
constexpr Mode cfb8 = {"cfb8", CAes::MODE_CFB8, "CFB8"};
constexpr Mode cfb128 = {"cfb128", CAes::MODE_CFB128, "CFB"};
constexpr Mode ctr = {"ctr", CAes::MODE_CTR, "CTR"};

/// Source and target of one call.
struct Bytes
{
    explicit Bytes(size_t size) : source(size + 64, 0x5A), target(size + 64) {}
    std::vector<uint8_t> source;
    std::vector<uint8_t> target;
};

/// Calls crypt(target, source) over and over.
template <typename Crypt>
void measure(benchmark::State& state, size_t size, const Crypt& crypt)
{
    Bytes bytes(size);
    for (auto _ : state) {
        crypt(bytes.target.data(), bytes.source.data());
        benchmark::DoNotOptimize(bytes.target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void aesInfra(benchmark::State& state, Mode mode, bool encrypts, int bits, size_t size)
{
    CAes cipher(mode.ours, key, static_cast<CAes::KeyBits>(bits), iv);
    if (encrypts) {
        measure(state, size, [&](uint8_t* to, uint8_t* from) { cipher.encrypt(to, from, size); });
    } else {
        measure(state, size, [&](uint8_t* to, uint8_t* from) { cipher.decrypt(to, from, size); });
    }
}

/// What computes is chosen when the object is made.
void aesInfraWithoutVaes(benchmark::State& state, Mode mode, bool encrypts, int bits, size_t size)
{
    const Tarsel::Infra::CHiddenCpuFeatures hidden({Tarsel::Infra::CpuFeature::vaes});
    aesInfra(state, mode, encrypts, bits, size);
}

struct EvpFree
{
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    void operator()(EVP_CIPHER* cipher) const { EVP_CIPHER_free(cipher); }
};
using EvpContext = std::unique_ptr<EVP_CIPHER_CTX, EvpFree>;
using EvpCipher = std::unique_ptr<EVP_CIPHER, EvpFree>;

EvpCipher fetch(const std::string& name)
{
    return EvpCipher(EVP_CIPHER_fetch(nullptr, name.c_str(), nullptr));
}

EvpContext makeContext(const EVP_CIPHER* cipher, bool encrypts)
{
    EvpContext context(EVP_CIPHER_CTX_new());
    EVP_CipherInit_ex(context.get(), cipher, nullptr, key, iv, encrypts ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    return context;
}

void opensslBy(benchmark::State& state, const std::string& name, bool encrypts, size_t size)
{
    const EvpCipher cipher = fetch(name);
    const EvpContext context = makeContext(cipher.get(), encrypts);
    measure(state, size, [&](uint8_t* to, uint8_t* from) {
        int written = 0;
        EVP_CipherUpdate(context.get(), to, &written, from, static_cast<int>(size));
    });
}

std::string opensslName(Mode mode, int bits)
{
    return "AES-" + std::to_string(bits) + "-" + mode.openssl;
}

void aesOpenssl(benchmark::State& state, Mode mode, bool encrypts, int bits, size_t size)
{
    opensslBy(state, opensslName(mode, bits), encrypts, size);
}

/// nettle's keys of one size, by the type of its contexts.
template <typename Context>
struct NettleKeys;

template <>
struct NettleKeys<aes128_ctx>
{
    static constexpr auto setEncrypt = aes128_set_encrypt_key;
    static constexpr auto setDecrypt = aes128_set_decrypt_key;
    static constexpr auto encrypt = aes128_encrypt;
    static constexpr auto decrypt = aes128_decrypt;
};

template <>
struct NettleKeys<aes256_ctx>
{
    static constexpr auto setEncrypt = aes256_set_encrypt_key;
    static constexpr auto setDecrypt = aes256_set_decrypt_key;
    static constexpr auto encrypt = aes256_encrypt;
    static constexpr auto decrypt = aes256_decrypt;
};

template <typename Context>
void nettleCrypt(const Context& context, CAes::EncMode mode, bool encrypts, uint8_t* state,
                 size_t size, uint8_t* to, const uint8_t* from)
{
    using Keys = NettleKeys<Context>;
    const auto encrypt = reinterpret_cast<nettle_cipher_func*>(Keys::encrypt);
    const auto decrypt = reinterpret_cast<nettle_cipher_func*>(Keys::decrypt);
    switch (mode) {
    case CAes::MODE_ECB:
        return encrypts ? Keys::encrypt(&context, size, to, from)
                        : Keys::decrypt(&context, size, to, from);
    case CAes::MODE_CBC:
        return encrypts ? cbc_encrypt(&context, encrypt, 16, state, size, to, from)
                        : cbc_decrypt(&context, decrypt, 16, state, size, to, from);
    case CAes::MODE_CFB8:
        return encrypts ? cfb8_encrypt(&context, encrypt, 16, state, size, to, from)
                        : cfb8_decrypt(&context, encrypt, 16, state, size, to, from);
    case CAes::MODE_CFB128:
        return encrypts ? cfb_encrypt(&context, encrypt, 16, state, size, to, from)
                        : cfb_decrypt(&context, encrypt, 16, state, size, to, from);
    case CAes::MODE_CTR:
        return ctr_crypt(&context, encrypt, 16, state, size, to, from);
    }
}

template <typename Context>
void nettleBy(benchmark::State& state, Mode mode, bool encrypts, size_t size)
{
    Context context;
    const bool inverse = !encrypts && (mode.ours == CAes::MODE_ECB || mode.ours == CAes::MODE_CBC);
    (inverse ? NettleKeys<Context>::setDecrypt : NettleKeys<Context>::setEncrypt)(&context, key);
    uint8_t chain[16] = {};
    measure(state, size, [&](uint8_t* to, uint8_t* from) {
        nettleCrypt(context, mode.ours, encrypts, chain, size, to, from);
    });
}

void aesNettle(benchmark::State& state, Mode mode, bool encrypts, int bits, size_t size)
{
    (bits == 128 ? nettleBy<aes128_ctx> : nettleBy<aes256_ctx>)(state, mode, encrypts, size);
}

void newInfra(benchmark::State& state, Mode mode, int bits)
{
    measure(state, 16, [&](uint8_t* to, uint8_t* from) {
        CAes(mode.ours, key, static_cast<CAes::KeyBits>(bits), iv).encrypt(to, from, 16);
    });
}

void newOpenssl(benchmark::State& state, Mode mode, int bits)
{
    const EvpCipher cipher = fetch(opensslName(mode, bits));
    measure(state, 16, [&](uint8_t* to, uint8_t* from) {
        int written = 0;
        EVP_CipherUpdate(makeContext(cipher.get(), true).get(), to, &written, from, 16);
    });
}

void desInfra(benchmark::State& state, bool chained, bool encrypts, size_t size)
{
    CTripleDes cipher(key, 24, CTripleDes::block8, chained ? iv : nullptr);
    measure(state, size, [&](uint8_t* to, uint8_t* from) {
        encrypts ? cipher.encrypt(to, from, size) : cipher.decrypt(to, from, size);
    });
}

void desOpenssl(benchmark::State& state, bool chained, bool encrypts, size_t size)
{
    opensslBy(state, chained ? "DES-EDE3-CBC" : "DES-EDE3-ECB", encrypts, size);
}

void desBotan(benchmark::State& state, bool chained, bool encrypts, size_t size)
{
    if (!chained) {
        const auto cipher = Botan::BlockCipher::create_or_throw("TripleDES");
        cipher->set_key(key, 24);
        measure(state, size, [&](uint8_t* to, uint8_t* from) {
            encrypts ? cipher->encrypt_n(from, to, size / 8)
                     : cipher->decrypt_n(from, to, size / 8);
        });
        return;
    }
    const auto mode = Botan::Cipher_Mode::create_or_throw(
        "TripleDES/CBC/NoPadding", encrypts ? Botan::ENCRYPTION : Botan::DECRYPTION);
    mode->set_key(key, 24);
    mode->start(iv, 8);
    measure(state, size, [&](uint8_t* to, uint8_t*) { mode->process(to, size); });
}

void addAes(const Mode& mode, bool encrypts)
{
    const std::string name =
        std::string("aes_") + mode.name + (encrypts ? "_encrypt/" : "_decrypt/");
    for (const int bits : {128, 256}) {
        for (const size_t size : {16, 256, 16384}) {
            const std::string label = Bench::label(name + std::to_string(bits), size);
            Bench::add(label, Bench::infra, aesInfra, mode, encrypts, bits, size);
            Bench::add(label, "OpenSSL", aesOpenssl, mode, encrypts, bits, size);
            Bench::add(label, "nettle", aesNettle, mode, encrypts, bits, size);
        }
        const size_t size = 16384;
        const std::string label = Bench::label(name + std::to_string(bits), size) + "/no-VAES";
        Bench::add(label, Bench::infra, aesInfraWithoutVaes, mode, encrypts, bits, size);
        Bench::add(label, "OpenSSL", aesOpenssl, mode, encrypts, bits, size);
        if (encrypts) {
            const std::string fresh = Bench::label(std::string("aes_new_") + mode.name, bits);
            Bench::add(fresh, Bench::infra, newInfra, mode, bits);
            Bench::add(fresh, "OpenSSL", newOpenssl, mode, bits);
        }
    }
}

void addTripleDes(bool chained, bool encrypts, int threads)
{
    const std::string name =
        std::string(chained ? "3des_cbc" : "3des_ecb") + (encrypts ? "_encrypt" : "_decrypt");
    const size_t size = 16384;
    const std::string label = Bench::label(name, size);
    Bench::addThreads(threads, label, Bench::infra, desInfra, chained, encrypts, size);
    Bench::addThreads(threads, label, "OpenSSL", desOpenssl, chained, encrypts, size);
    Bench::addThreads(threads, label, "Botan", desBotan, chained, encrypts, size);
}

} // namespace

int main(int argc, char** argv)
{
    for (const Mode& mode : {ecb, cbc, ctr, cfb128, cfb8}) {
        addAes(mode, true);
        if (mode.ours != CAes::MODE_CTR) {
            addAes(mode, false);
        }
    }
    for (const int threads : {1, 4}) {
        addTripleDes(false, true, threads);
        addTripleDes(true, true, threads);
        addTripleDes(true, false, threads);
    }
    const std::string nettle =
        std::to_string(NETTLE_VERSION_MAJOR) + "." + std::to_string(NETTLE_VERSION_MINOR);
    return Bench::run(argc, argv,
                      std::string(OpenSSL_version(OPENSSL_VERSION)) + ", nettle " + nettle + ", " +
                          "Botan " + Botan::short_version_string());
}

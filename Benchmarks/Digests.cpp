// Digests, checksums and Base64 beside OpenSSL, zlib and ISA-L.
//
// md5/N, sha1/N              a message of N bytes, from its beginning to its digest, on an object or
//                            context that stays. "OpenSSL EVP" is the interface that OpenSSL advises,
//                            "OpenSSL" its older one for this digest.
// crc32/N, crc16/N           N bytes by one call
//   byte table               the loop of the definition: one look-up a byte
// base64_encode/N, decode/N  N bytes, and the text of N bytes
//
// MD5 and SHA-1 are chains of steps that wait for each other: contenders that use the processor
// fully are equally fast on long messages.

#define OPENSSL_SUPPRESS_DEPRECATED // the older interfaces are contenders

#include <isa-l/crc.h>
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <zlib.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Utils/Base64.h"
#include "Utils/Crc.h"
#include "Utils/Md5.h"
#include "Utils/Sha1.h"

namespace
{

namespace Utils = Tarsel::Utils;

using Bytes = std::vector<uint8_t>;

Bytes sample(size_t size)
{
    Bytes bytes(size);
    uint32_t value = 1;
    for (uint8_t& byte : bytes) {
        value = value * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(value >> 24);
    }
    return bytes;
}

/// Calls body(bytes, size) over and over.
template <typename Body>
void measure(benchmark::State& state, size_t size, const Body& body)
{
    const Bytes bytes = sample(size);
    const uint8_t* data = bytes.data();
    for (auto _ : state) {
        benchmark::DoNotOptimize(data);
        body(data, size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void md5Infra(benchmark::State& state, size_t size)
{
    Utils::CMd5 md5;
    uint8_t digest[16];
    measure(state, size, [&](const uint8_t* data, size_t length) {
        md5.update(data, length);
        md5.final(digest);
        benchmark::DoNotOptimize(digest);
    });
}

void md5Openssl(benchmark::State& state, size_t size)
{
    uint8_t digest[16];
    measure(state, size, [&](const uint8_t* data, size_t length) {
        MD5_CTX context;
        MD5_Init(&context);
        MD5_Update(&context, data, length);
        MD5_Final(digest, &context);
        benchmark::DoNotOptimize(digest);
    });
}

void sha1Infra(benchmark::State& state, size_t size)
{
    Utils::CSha1 sha1;
    uint8_t digest[20];
    measure(state, size, [&](const uint8_t* data, size_t length) {
        sha1.update(data, length);
        sha1.final(digest, sizeof(digest));
        benchmark::DoNotOptimize(digest);
    });
}

void sha1Openssl(benchmark::State& state, size_t size)
{
    uint8_t digest[20];
    measure(state, size, [&](const uint8_t* data, size_t length) {
        SHA_CTX context;
        SHA1_Init(&context);
        SHA1_Update(&context, data, length);
        SHA1_Final(digest, &context);
        benchmark::DoNotOptimize(digest);
    });
}

void evp(benchmark::State& state, const char* name, size_t size)
{
    EVP_MD* const type = EVP_MD_fetch(nullptr, name, nullptr);
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    uint8_t digest[EVP_MAX_MD_SIZE];
    measure(state, size, [&](const uint8_t* data, size_t length) {
        EVP_DigestInit_ex(context, type, nullptr);
        EVP_DigestUpdate(context, data, length);
        EVP_DigestFinal_ex(context, digest, nullptr);
        benchmark::DoNotOptimize(digest);
    });
    EVP_MD_CTX_free(context);
    EVP_MD_free(type);
}

void crc32Infra(benchmark::State& state, size_t size)
{
    measure(state, size, [](const uint8_t* data, size_t length) {
        benchmark::DoNotOptimize(Utils::crc32(data, length));
    });
}

void crc32Zlib(benchmark::State& state, size_t size)
{
    measure(state, size, [](const uint8_t* data, size_t length) {
        benchmark::DoNotOptimize(::crc32_z(0, data, length));
    });
}

void crc32Isal(benchmark::State& state, size_t size)
{
    measure(state, size, [](const uint8_t* data, size_t length) {
        benchmark::DoNotOptimize(::crc32_gzip_refl(0, data, length));
    });
}

void crc16Infra(benchmark::State& state, size_t size)
{
    measure(state, size, [](const uint8_t* data, size_t length) {
        benchmark::DoNotOptimize(Utils::crc16(0, data, length));
    });
}

constexpr std::array<uint16_t, 256> crc16Table = [] {
    std::array<uint16_t, 256> table = {};
    for (unsigned byte = 0; byte < 256; ++byte) {
        unsigned crc = byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xA001 : 0);
        }
        table[byte] = static_cast<uint16_t>(crc);
    }
    return table;
}();

void crc16ByteTable(benchmark::State& state, size_t size)
{
    measure(state, size, [](const uint8_t* data, size_t length) {
        unsigned crc = 0;
        for (size_t i = 0; i < length; ++i) {
            crc = (crc >> 8) ^ crc16Table[(crc ^ data[i]) & 0xFF];
        }
        benchmark::DoNotOptimize(crc);
    });
}

void encodeInfra(benchmark::State& state, size_t size)
{
    std::vector<char> text(Utils::base64EncodeLenEx(size));
    measure(state, size, [&](const uint8_t* data, size_t length) {
        Utils::base64EncodeEx(text.data(), reinterpret_cast<const char*>(data), length);
    });
}

void encodeOpenssl(benchmark::State& state, size_t size)
{
    Bytes text(size / 3 * 4 + 5);
    measure(state, size, [&](const uint8_t* data, size_t length) {
        EVP_EncodeBlock(text.data(), data, static_cast<int>(length));
    });
}

/// The text of `size` bytes with a NUL.
std::vector<char> coded(size_t size)
{
    const Bytes bytes = sample(size);
    std::vector<char> text(Utils::base64EncodeLenEx(size));
    Utils::base64EncodeEx(text.data(), reinterpret_cast<const char*>(bytes.data()), size);
    return text;
}

void decodeInfra(benchmark::State& state, size_t size)
{
    const std::vector<char> text = coded(size);
    std::vector<char> plain(size + 8);
    measure(state, size, [&](const uint8_t*, size_t) {
        benchmark::DoNotOptimize(Utils::base64DecodeEx(plain.data(), text.data()));
    });
}

void decodeOpenssl(benchmark::State& state, size_t size)
{
    const std::vector<char> text = coded(size);
    Bytes plain(size + 8);
    measure(state, size, [&](const uint8_t*, size_t) {
        benchmark::DoNotOptimize(EVP_DecodeBlock(plain.data(),
                                                 reinterpret_cast<const uint8_t*>(text.data()),
                                                 static_cast<int>(text.size() - 1)));
    });
}

constexpr size_t mebibyte = size_t{1} << 20;

void addDigests()
{
    for (const size_t size : {size_t{64}, size_t{1024}, mebibyte}) {
        Bench::add(Bench::label("md5", size), Bench::infra, md5Infra, size);
        Bench::add(Bench::label("md5", size), "OpenSSL", md5Openssl, size);
        Bench::add(Bench::label("md5", size), "OpenSSL EVP", evp, "MD5", size);
        Bench::add(Bench::label("sha1", size), Bench::infra, sha1Infra, size);
        Bench::add(Bench::label("sha1", size), "OpenSSL", sha1Openssl, size);
        Bench::add(Bench::label("sha1", size), "OpenSSL EVP", evp, "SHA1", size);
    }
}

void addChecksums()
{
    for (const size_t size : {size_t{16}, size_t{64}, size_t{1024}, mebibyte}) {
        Bench::add(Bench::label("crc32", size), Bench::infra, crc32Infra, size);
        Bench::add(Bench::label("crc32", size), "zlib", crc32Zlib, size);
        Bench::add(Bench::label("crc32", size), "ISA-L", crc32Isal, size);
        Bench::add(Bench::label("crc16", size), Bench::infra, crc16Infra, size);
        Bench::add(Bench::label("crc16", size), "byte table", crc16ByteTable, size);
    }
}

void addBase64()
{
    for (const size_t size : {size_t{12}, size_t{100}, size_t{1024}, mebibyte}) {
        Bench::add(Bench::label("base64_encode", size), Bench::infra, encodeInfra, size);
        Bench::add(Bench::label("base64_encode", size), "OpenSSL", encodeOpenssl, size);
        Bench::add(Bench::label("base64_decode", size), Bench::infra, decodeInfra, size);
        Bench::add(Bench::label("base64_decode", size), "OpenSSL", decodeOpenssl, size);
    }
}

} // namespace

int main(int argc, char** argv)
{
    addDigests();
    addChecksums();
    addBase64();
    return Bench::run(argc, argv,
                      std::string(OpenSSL_version(OPENSSL_VERSION)) + ", zlib " + zlibVersion() +
                          ", ISA-L");
}

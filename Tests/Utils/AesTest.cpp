// CAes and the operations below it: the published vectors, every way to compute them against the
// others and against OpenSSL, what carries over between calls, and what is refused.

#include "Utils/Aes.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "Support/Bytes.h"
#include "Support/CpuLevels.h"
#include "Support/LogCapture.h"
#include "Utils/Aes/AesAlg.h"

namespace
{

using namespace Tarsel::TestSupport;
using Tarsel::Utils::CAes;
namespace AES = Tarsel::Utils::AES;

const CAes::EncMode modes[] = {CAes::MODE_ECB, CAes::MODE_CBC, CAes::MODE_CFB8, CAes::MODE_CFB128,
                               CAes::MODE_CTR};
const CAes::KeyBits keySizes[] = {CAes::BITS_128, CAes::BITS_192, CAes::BITS_256};

size_t unitOf(CAes::EncMode mode)
{
    return mode == CAes::MODE_ECB || mode == CAes::MODE_CBC ? 16 : 1;
}

struct Message
{
    CAes::EncMode mode;
    CAes::KeyBits bits;
    Bytes key;
    Bytes iv;

    std::unique_ptr<CAes> cipher() const
    {
        return std::make_unique<CAes>(mode, key.data(), bits, iv.data());
    }
};

bool run(CAes& cipher, bool encrypts, uint8_t* dst, const uint8_t* src, size_t size)
{
    return encrypts ? cipher.encrypt(dst, src, size) : cipher.decrypt(dst, src, size);
}

Bytes ours(const Message& message, bool encrypts, const Bytes& input)
{
    Bytes output(input.size());
    EXPECT_TRUE(run(*message.cipher(), encrypts, output.data(), input.data(), input.size()));
    return output;
}

Bytes openssl(const Message& message, bool encrypts, const Bytes& input)
{
    static const char* const names[] = {"ecb", "cbc", "cfb8", "cfb", "ctr"};
    const std::string name = "AES-" + std::to_string(message.bits) + "-" + names[message.mode];
    EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
    EXPECT_EQ(EVP_CipherInit_ex(context, EVP_get_cipherbyname(name.c_str()), nullptr,
                                message.key.data(), message.iv.data(), encrypts),
              1);
    EVP_CIPHER_CTX_set_padding(context, 0);
    Bytes output(input.size() + 16);
    int size = 0;
    EVP_CipherUpdate(context, output.data(), &size, input.data(), static_cast<int>(input.size()));
    EVP_CIPHER_CTX_free(context);
    output.resize(static_cast<size_t>(size));
    return output;
}

TEST(AesTest, GivesThePublishedVectors)
{
    // FIPS-197, appendix C, and NIST SP 800-38A, appendix F.
    const char* const text = "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                             "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
    const std::string keys[] = {"2b7e151628aed2a6abf7158809cf4f3c",
                                "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
                                "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4"};
    const struct
    {
        CAes::EncMode mode;
        CAes::KeyBits bits;
        const char* cipher;
    } cases[] = {
        {CAes::MODE_ECB, CAes::BITS_128,
         "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
         "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4"},
        {CAes::MODE_ECB, CAes::BITS_192,
         "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"
         "ef7afd2270e2e60adce0ba2face6444e9a4b41ba738d6c72fb16691603c18e0e"},
        {CAes::MODE_ECB, CAes::BITS_256,
         "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
         "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7"},
        {CAes::MODE_CBC, CAes::BITS_128,
         "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
         "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
        {CAes::MODE_CBC, CAes::BITS_192,
         "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
         "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd"},
        {CAes::MODE_CBC, CAes::BITS_256,
         "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
         "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
        {CAes::MODE_CFB8, CAes::BITS_128, "3b79424c9c0dd436bace9e0ed4586a4f32b9"},
        {CAes::MODE_CFB8, CAes::BITS_192, "cda2521ef0a905ca44cd057cbf0d47a0678a"},
        {CAes::MODE_CFB8, CAes::BITS_256, "dc1f1a8520a64db55fcc8ac554844e889700"},
        {CAes::MODE_CFB128, CAes::BITS_128,
         "3b3fd92eb72dad20333449f8e83cfb4ac8a64537a0b3a93fcde3cdad9f1ce58b"
         "26751f67a3cbb140b1808cf187a4f4dfc04b05357c5d1c0eeac4c66f9ff7f2e6"},
        {CAes::MODE_CFB128, CAes::BITS_192,
         "cdc80d6fddf18cab34c25909c99a417467ce7f7f81173621961a2b70171d3d7a"
         "2e1e8a1dd59b88b1c8e60fed1efac4c9c05f9f9ca9834fa042ae8fba584b09ff"},
        {CAes::MODE_CFB128, CAes::BITS_256,
         "dc7e84bfda79164b7ecd8486985d386039ffed143b28b1c832113c6331e5407b"
         "df10132415e54b92a13ed0a8267ae2f975a385741ab9cef82031623d55b1e471"},
        {CAes::MODE_CTR, CAes::BITS_128,
         "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
         "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee"},
        {CAes::MODE_CTR, CAes::BITS_192,
         "1abc932417521ca24f2b0459fe7e6e0b090339ec0aa6faefd5ccc2c6f4ce8e94"
         "1e36b26bd1ebc670d1bd1d665620abf74f78a7f6d29809585a97daec58c6b050"},
        {CAes::MODE_CTR, CAes::BITS_256,
         "601ec313775789a5b7a7f504bbf3d228f443e3ca4d62b59aca84e990cacaf5c5"
         "2b0930daa23de94ce87017ba2d84988ddfc9c58db67aada613c2dd08457941a6"},
    };
    const std::string counting = "000102030405060708090a0b0c0d0e0f";
    onEachCpuLevel([&] {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << "mode " << c.mode << ", " << c.bits << " bits");
            const std::string iv =
                c.mode == CAes::MODE_CTR ? "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff" : counting;
            const Message message = {c.mode, c.bits, fromHex(keys[c.bits / 64 - 2]), fromHex(iv)};
            const Bytes plain = fromHex(std::string(text).substr(0, strlen(c.cipher)));
            EXPECT_EQ(toHex(ours(message, true, plain)), c.cipher);
            EXPECT_EQ(ours(message, false, fromHex(c.cipher)), plain);
        }
        const Message example = {CAes::MODE_ECB, CAes::BITS_128, fromHex(counting), Bytes(16)};
        EXPECT_EQ(toHex(ours(example, true, fromHex("00112233445566778899aabbccddeeff"))),
                  "69c4e0d86a7b0430d8cdb78070b4c55a");
    });
}

/// All the ways to compute a message: whole, in place, in pieces, at any alignment.
void expectSame(const Message& message, bool encrypts, const Bytes& input, CRandom& random)
{
    const Bytes expected = openssl(message, encrypts, input);
    const size_t unit = unitOf(message.mode);
    Bytes space(input.size() + 64);
    uint8_t* const output = space.data() + random.below(32);
    std::copy(input.begin(), input.end(), output);
    const auto whole = message.cipher();
    ASSERT_TRUE(run(*whole, encrypts, output, output, input.size()));
    ASSERT_EQ(Bytes(output, output + input.size()), expected) << "in place, " << input.size();

    const auto pieces = message.cipher();
    for (size_t done = 0; done < input.size();) {
        const size_t left = (input.size() - done) / unit;
        const size_t size =
            std::min(left, random.below(4) == 0 ? random.below(600) : 1 + random.below(40)) * unit;
        ASSERT_TRUE(run(*pieces, encrypts, output + done, input.data() + done, size));
        done += size;
    }
    ASSERT_EQ(Bytes(output, output + input.size()), expected) << "in pieces, " << input.size();
}

TEST(AesTest, AgreesWithOpensslAtAnySizeInPlaceAndInPieces)
{
    CRandom random;
    onEachCpuLevel([&] {
        for (const CAes::EncMode mode : modes) {
            for (const CAes::KeyBits bits : keySizes) {
                SCOPED_TRACE(testing::Message() << "mode " << mode << ", " << bits << " bits");
                for (int round = 0; round < 40; ++round) {
                    const size_t size =
                        (round < 33 ? static_cast<size_t>(round) : random.below(120)) * 16 +
                        (unitOf(mode) == 1 ? random.below(16) : 0);
                    const Message message = {mode, bits, random.bytes(bits / 8), random.bytes(16)};
                    expectSame(message, round % 2 == 0, random.bytes(size), random);
                }
            }
        }
    });
}

TEST(AesTest, EverySplitIntoThreeCallsIsTheSameMessage)
{
    CRandom random;
    onEachCpuLevel([&] {
        for (const CAes::EncMode mode : modes) {
            for (const bool encrypts : {true, false}) {
                const size_t unit = unitOf(mode);
                const size_t count = 100 / unit;
                const Message message = {mode, CAes::BITS_128, random.bytes(16), random.bytes(16)};
                const Bytes input = random.bytes(count * unit);
                const Bytes expected = openssl(message, encrypts, input);
                for (size_t second = 0; second <= count; ++second) {
                    for (size_t third = second; third <= count; ++third) {
                        const auto cipher = message.cipher();
                        const size_t at[] = {0, second * unit, third * unit, input.size()};
                        Bytes output(input.size());
                        for (int i = 0; i < 3; ++i) {
                            run(*cipher, encrypts, output.data() + at[i], input.data() + at[i],
                                at[i + 1] - at[i]);
                        }
                        ASSERT_EQ(output, expected) << mode << " " << at[1] << " " << at[2];
                    }
                }
            }
        }
    });
}

TEST(AesTest, TheCounterCarriesThroughAllItsBytes)
{
    CRandom random;
    const char* const counters[] = {
        "fffffffffffffffffffffffffffffffe", "ffffffffffffffffffffffffffffffff",
        "00000000000000fffffffffffffffff0", "0102030405060708ffffffffffffffdf",
        "0102030405060708ffffffffffffffe0", "000000000000000000000000000000ff"};
    onEachCpuLevel([&] {
        for (const char* const counter : counters) {
            for (const size_t blocks : {1, 8, 15, 16, 17, 32, 33, 48, 70}) {
                const Message message = {CAes::MODE_CTR, CAes::BITS_256, random.bytes(32),
                                         fromHex(counter)};
                expectSame(message, true, random.bytes(blocks * 16 + 3), random);
            }
        }
    });
}

/// All that a low-level operation leaves behind.
struct Outcome
{
    Bytes output;
    Bytes iv;
    Bytes stream;
    size_t offset;
    bool operator==(const Outcome&) const = default;
};

Outcome runBelow(CAes::EncMode mode, bool encrypts, AES::aes_context key, const Outcome& before)
{
    Outcome after = before;
    const size_t size = before.output.size();
    uint8_t* const bytes = after.output.data();
    const int direction = encrypts ? AES::AES_ENCRYPT : AES::AES_DECRYPT;
    switch (mode) {
    case CAes::MODE_ECB:
        AES::aes_crypt_ecb(&key, direction, size, bytes, bytes);
        break;
    case CAes::MODE_CBC:
        AES::aes_crypt_cbc(&key, direction, size, after.iv.data(), bytes, bytes);
        break;
    case CAes::MODE_CFB8:
        AES::aes_crypt_cfb8(&key, direction, size, after.iv.data(), bytes, bytes);
        break;
    case CAes::MODE_CFB128:
        AES::aes_crypt_cfb128(&key, direction, size, &after.offset, after.iv.data(), bytes, bytes);
        break;
    case CAes::MODE_CTR:
        AES::aes_crypt_ctr(&key, size, &after.offset, after.iv.data(), after.stream.data(), bytes,
                           bytes);
        break;
    }
    return after;
}

TEST(AesTest, EveryImplementationLeavesTheSameStateAndTakesTheOthersSchedules)
{
    CRandom random;
    for (int round = 0; round < 300; ++round) {
        const CAes::EncMode mode = modes[round % 5];
        const bool encrypts = random.below(2) == 0;
        const unsigned bits = keySizes[random.below(3)];
        const Bytes key = random.bytes(bits / 8);
        const bool needsInverse = !encrypts && unitOf(mode) == 16;
        const size_t size = unitOf(mode) * random.below(700 / unitOf(mode));
        const Outcome before = {random.bytes(size), random.bytes(16), random.bytes(16),
                                random.below(16)};
        AES::aes_context made[std::size(cpuLevels)];
        Outcome first = {};
        for (size_t level = 0; level < std::size(cpuLevels); ++level) {
            const Tarsel::Infra::CHiddenCpuFeatures hidden(cpuLevels[level].lacks);
            const auto setKey = needsInverse ? AES::aes_setkey_dec : AES::aes_setkey_enc;
            ASSERT_EQ(setKey(&made[level], key.data(), bits), 0);
            ASSERT_EQ(memcmp(made[level].rk, made[0].rk, (made[0].nr + 1) * size_t{16}), 0);
            const Outcome after = runBelow(mode, encrypts, made[0], before);
            first = level == 0 ? after : first;
            ASSERT_EQ(after, first) << mode << " " << encrypts << " " << size << " " << level;
        }
    }
}

TEST(AesTest, LowLevelOperationsRefuseAndWipe)
{
    const Bytes key(32, 0x55);
    AES::aes_context context;
    EXPECT_EQ(AES::aes_init(&context), 0);
    for (const unsigned bits : {0u, 64u, 129u, 512u}) {
        EXPECT_EQ(AES::aes_setkey_enc(&context, key.data(), bits), -1) << bits;
        EXPECT_EQ(AES::aes_setkey_dec(&context, key.data(), bits), -1) << bits;
    }
    ASSERT_EQ(AES::aes_setkey_enc(&context, key.data(), 256), 0);
    EXPECT_EQ(context.nr, 14);
    uint8_t bytes[32] = {};
    uint8_t iv[16] = {};
    EXPECT_EQ(AES::aes_crypt_ecb(&context, AES::AES_ENCRYPT, 17, bytes, bytes), -1);
    EXPECT_EQ(AES::aes_crypt_cbc(&context, AES::AES_ENCRYPT, 31, iv, bytes, bytes), -1);
    EXPECT_EQ(toHex(bytes, sizeof(bytes)), std::string(64, '0'));
    EXPECT_EQ(AES::aes_crypt_ecb_block(&context, AES::AES_ENCRYPT, bytes, bytes), 0);
    EXPECT_EQ(toHex(bytes + 16, 16), std::string(32, '0'));
    uint8_t stream[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    size_t offset = 16 + 5; // within a block all the same
    EXPECT_EQ(AES::aes_crypt_ctr(&context, 3, &offset, iv, stream, iv, bytes), 0);
    EXPECT_EQ(toHex(bytes, 3), "050607");
    EXPECT_EQ(offset, 8u);
    EXPECT_EQ(AES::aes_free(&context), 0);
    EXPECT_EQ(toHex(reinterpret_cast<uint8_t*>(&context), sizeof(context)),
              std::string(2 * sizeof(context), '0'));
    EXPECT_EQ(AES::aesni_has_support(AES::AESNI_AES) != 0, __builtin_cpu_supports("aes") != 0);
}

TEST(AesTest, ReadsAndWritesNothingAround)
{
    CRandom random;
    const CGuardedBytes in(2000);
    const CGuardedBytes out(2000);
    onEachCpuLevel([&] {
        for (const CAes::EncMode mode : modes) {
            for (size_t units = 0; units * unitOf(mode) <= 600; units += units < 70 ? 1 : 7) {
                const Message message = {mode, CAes::BITS_192, random.bytes(24), random.bytes(16)};
                const size_t size = units * unitOf(mode);
                const Bytes input = random.bytes(size);
                const uint8_t* const last = in.putLast(input);
                EXPECT_TRUE(message.cipher()->encrypt(out.end() - size, last, size));
                EXPECT_TRUE(message.cipher()->decrypt(out.begin(), out.end() - size, size));
                EXPECT_EQ(Bytes(out.begin(), out.begin() + size), input);
                std::copy(input.begin(), input.end(), in.begin());
                EXPECT_TRUE(message.cipher()->encrypt(out.begin(), in.begin(), size));
                EXPECT_EQ(Bytes(out.begin(), out.begin() + size),
                          Bytes(out.end() - size, out.end()));
            }
        }
    });
}

TEST(AesTest, RefusesWhatAModeDoesNotTake)
{
    CLogCapture log;
    const Bytes key(32);
    const Bytes src(32, 1);
    for (const CAes::EncMode mode : modes) {
        CAes cipher(mode, key.data(), CAes::BITS_128);
        CAes untouched(mode, key.data(), CAes::BITS_128);
        Bytes dst(32, 0xEE);
        for (const size_t size : {1, 15, 17, 31}) {
            if (unitOf(mode) == 16) {
                EXPECT_FALSE(cipher.encrypt(dst.data(), src.data(), size));
                EXPECT_FALSE(cipher.decrypt(dst.data(), src.data(), size));
            }
        }
        EXPECT_FALSE(cipher.encrypt(nullptr, src.data(), 16));
        EXPECT_FALSE(cipher.decrypt(dst.data(), nullptr, 16));
        EXPECT_TRUE(cipher.encrypt(dst.data(), src.data(), 0));
        EXPECT_TRUE(cipher.decrypt(nullptr, nullptr, 0));
        EXPECT_EQ(dst, Bytes(32, 0xEE));
        EXPECT_TRUE(cipher.encrypt(dst.data(), src.data(), 32));
        Bytes expected(32);
        EXPECT_TRUE(untouched.encrypt(expected.data(), src.data(), 32));
        EXPECT_EQ(dst, expected) << "what was refused has not moved the stream";
    }
    EXPECT_EQ(log.takeLeveled(), "");
}

TEST(AesTest, AnUnusableObjectSaysSoAtEveryCall)
{
    CLogCapture log;
    const Bytes key(32);
    const struct
    {
        int mode;
        int bits;
        bool hasKey;
        const char* atOnce;
    } cases[] = {
        {CAes::MODE_ECB, 128, false, "error|AesECB key is NULL\n"},
        {CAes::MODE_CBC, 128, false, "error|AesCBC key is NULL\n"},
        {CAes::MODE_CFB8, 192, false, "error|AesCFB8 key is NULL\n"},
        {CAes::MODE_CFB128, 256, false, "error|AesCFB128 key is NULL\n"},
        {CAes::MODE_CTR, 1, false, "error|AesCTR key is NULL\n"},
        {CAes::MODE_ECB, 0, true, ""},
        {CAes::MODE_CBC, 127, true, ""},
        {CAes::MODE_CFB8, 64, true, ""},
        {CAes::MODE_CFB128, 255, true, ""},
        {CAes::MODE_CTR, 160, true, ""},
        {5, 128, true, ""},
        {7, 128, false, ""},
    };
    for (const auto& c : cases) {
        CAes cipher(static_cast<CAes::EncMode>(c.mode), c.hasKey ? key.data() : nullptr,
                    static_cast<CAes::KeyBits>(c.bits));
        EXPECT_EQ(log.takeLeveled(), c.atOnce);
        Bytes bytes(16, 0xEE);
        for (int call = 0; call < 2; ++call) {
            EXPECT_FALSE(cipher.encrypt(bytes.data(), bytes.data(), 16));
            EXPECT_EQ(log.takeLeveled(), "error|aes init failed.\n");
            EXPECT_FALSE(cipher.decrypt(bytes.data(), bytes.data(), 16));
            EXPECT_EQ(log.takeLeveled(), "error|aes init failed.\n");
        }
        EXPECT_EQ(bytes, Bytes(16, 0xEE));
    }
}

} // namespace

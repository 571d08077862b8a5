// Ciphers and digests in memory: how little of it they take, what they leave in it, which is nothing,
// and what they do without it.

#include <malloc.h>

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Support/Bytes.h"
#include "Support/ChildProcess.h"
#include "Support/CpuLevels.h"
#include "Support/FailingHeap.h"
#include "Support/KnownStack.h"
#include "Support/LogCapture.h"
#include "Utils/Aes.h"
#include "Utils/Base64.h"
#include "Utils/Crc.h"
#include "Utils/Md5.h"
#include "Utils/Sha1.h"
#include "Utils/TripleDes.h"

namespace
{

using namespace Tarsel::TestSupport;
using namespace Tarsel::Utils;

constexpr CAes::EncMode aesModes[] = {CAes::MODE_ECB, CAes::MODE_CBC, CAes::MODE_CFB8,
                                      CAes::MODE_CFB128, CAes::MODE_CTR};

/// Whether this is what is delivered. Code that is instrumented or not optimized keeps everything on
/// the stack, in larger frames.
#if !defined(__OPTIMIZE__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isDelivered = false;
#else
constexpr bool isDelivered = true;
#endif

bool holds(const void* block, size_t size, const Bytes& secret)
{
    const uint8_t* const begin = static_cast<const uint8_t*>(block);
    return std::search(begin, begin + size, secret.begin(), secret.end()) != begin + size;
}

/// Runs `use` on an object made by `make`; its record has to hold each of the secrets until it is
/// destroyed, and then none.
template <typename Make, typename Use>
void expectWiped(const Make& makeCipher, const Use& use, const std::vector<Bytes>& secrets)
{
    auto* const cipher = makeCipher();
    const void* const record = lastMade(); // the object's own comes before its record
    use(*cipher);
    for (const Bytes& secret : secrets) {
        EXPECT_TRUE(holds(record, malloc_usable_size(const_cast<void*>(record)), secret))
            << toHex(secret);
    }
    bool isSeen = false;
    {
        const CFreedBlocks freed([&](const void* block, size_t size) {
            isSeen = isSeen || block == record;
            for (const Bytes& secret : secrets) {
                EXPECT_FALSE(holds(block, size, secret)) << toHex(secret);
            }
        });
        delete cipher;
    }
    EXPECT_TRUE(isSeen);
}

TEST(CipherMemoryTest, KeysSchedulesAndKeyStreamAreGoneBeforeTheMemoryIs)
{
    const Bytes key = fromHex("2b7e151628aed2a6abf7158809cf4f3c4a5b6c7d8e9fa0b1");
    const Bytes aesKey(key.begin(), key.begin() + 16);
    const Bytes roundKey = fromHex("a0fafe1788542cb123a339392a6c7605"); // FIPS-197, A.1
    const Bytes iv = fromHex("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");
    const Bytes nextCounter = fromHex("f0f1f2f3f4f5f6f7f8f9fafbfcfdff00");
    const Bytes stream = fromHex("ec8cdf7398607cb0f2d21675ea9ea1e4"); // SP 800-38A, F.5.1

    const Bytes key192 = fromHex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b");
    const Bytes roundKey192 = fromHex("fe0c91f72402f5a5ec12068e6c827f6b"); // A.2
    const Bytes key256 =
        fromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
    const Bytes roundKey256 = fromHex("9ba354118e6925afa51a8b5f2067fcde"); // A.3

    const auto cryptTen = [](CAes& cipher) {
        uint8_t bytes[10] = {};
        EXPECT_TRUE(cipher.encrypt(bytes, bytes, sizeof(bytes)));
    };
    const auto nothing = [](auto&) {};
    const auto aes = [&](CAes::EncMode mode) {
        return [=] { return new CAes(mode, aesKey.data(), CAes::BITS_128, iv.data()); };
    };
    expectWiped(aes(CAes::MODE_ECB), nothing, {aesKey, roundKey});
    expectWiped(aes(CAes::MODE_CBC), nothing, {aesKey, roundKey, iv});
    expectWiped(aes(CAes::MODE_CFB8), nothing, {aesKey, roundKey, iv});
    expectWiped(aes(CAes::MODE_CFB128), nothing, {aesKey, roundKey, iv});
    expectWiped(aes(CAes::MODE_CTR), cryptTen, {aesKey, roundKey, nextCounter, stream});
    expectWiped([&] { return new CAes(CAes::MODE_ECB, key192.data(), CAes::BITS_192); }, nothing,
                {key192, roundKey192});
    expectWiped([&] { return new CAes(CAes::MODE_CBC, key256.data(), CAes::BITS_256, iv.data()); },
                nothing, {key256, roundKey256});
    expectWiped([&] { return new CTripleDes(key.data(), 24, CTripleDes::block8, iv.data()); },
                nothing, {key, Bytes(iv.begin(), iv.begin() + 8)});
}

Bytes reversed(Bytes bytes)
{
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

/// Runs `call`; nothing of `secrets` may be on the stack then, whichever way its words lie.
void expectStackWithout(const std::vector<Bytes>& secrets, const std::function<void()>& call)
{
    CKnownStack stack(size_t{64} << 10);
    ASSERT_TRUE(stack.run(call));
    for (const Bytes& secret : secrets) {
        EXPECT_FALSE(stack.holds(secret)) << toHex(secret);
        EXPECT_FALSE(stack.holds(reversed(secret))) << toHex(secret);
    }
}

/// The schedule of a block of SHA-1, as FIPS 180 has it.
std::vector<Bytes> sha1Schedule(const Bytes& block)
{
    uint32_t words[80];
    std::vector<Bytes> schedule;
    for (size_t t = 0; t < 80; ++t) {
        if (t < 16) {
            const uint8_t* const at = block.data() + 4 * t;
            words[t] = uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
        } else {
            const uint32_t sum = words[t - 3] ^ words[t - 8] ^ words[t - 14] ^ words[t - 16];
            words[t] = sum << 1 | sum >> 31;
        }
        char digits[9];
        snprintf(digits, sizeof(digits), "%08x", words[t]);
        schedule.push_back(fromHex(digits));
    }
    return schedule;
}

/// Enciphers `plain` and deciphers it again, each with an object of its own made by `make`.
template <typename Make>
void expectNothingStays(const Make& makeCipher, std::vector<Bytes> secrets, const Bytes& plain)
{
    for (const size_t at : {size_t{0}, plain.size() / 2, plain.size() - 8}) {
        secrets.push_back(part(plain, at, 8));
    }
    Bytes bytes = plain;
    uint8_t* const data = bytes.data();
    expectStackWithout(secrets, [&] { makeCipher().encrypt(data, data, bytes.size()); });
    expectStackWithout(secrets, [&] { makeCipher().decrypt(data, data, bytes.size()); });
    EXPECT_EQ(bytes, plain);
}

TEST(CipherMemoryTest, NothingOfTheSecretsStaysOnTheStack)
{
    if (!isDelivered) {
        GTEST_SKIP() << "not what is delivered";
    }
    CRandom random;
    const Bytes message = random.bytes(64);
    const Bytes iv = random.bytes(16);
    const Bytes aesKey = fromHex("2b7e151628aed2a6abf7158809cf4f3c");
    const std::vector<Bytes> aesSecrets = {part(aesKey, 0, 8),
                                           fromHex("a0fafe1788542cb1")}; // FIPS-197, A.1
    const Bytes desKey = fromHex("133457799bbcdff1133457799bbcdff1");
    const std::vector<Bytes> desSecrets = {
        // the key, its first and its last round key, and the
        part(desKey, 0, 8), // first as the odd and the even S-boxes have it
        fromHex("1b02effc7072"), fromHex("cb3d8b0e17f5"), fromHex("060b3f01"), fromHex("302f0732")};
    onEachCpuLevel([&] {
        CSha1 sha1;
        expectStackWithout(sha1Schedule(message), [&] { sha1.update(message.data(), 64); });

        for (const size_t blocks : {1, 5, 17, 600}) {
            const Bytes plain = random.bytes(16 * blocks);
            for (const CAes::EncMode mode : aesModes) {
                SCOPED_TRACE(testing::Message() << blocks << " blocks, AES, mode " << mode);
                expectNothingStays(
                    [&] { return CAes(mode, aesKey.data(), CAes::BITS_128, iv.data()); },
                    aesSecrets, plain);
            }
            for (const size_t keySize : {8, 16}) {
                for (const CTripleDes::BlockType type : {CTripleDes::block8, CTripleDes::block16}) {
                    for (const uint8_t* const first :
                         {static_cast<const uint8_t*>(nullptr), iv.data()}) {
                        SCOPED_TRACE(testing::Message() << blocks << " blocks, DES, key of "
                                                        << keySize << ", block type " << type
                                                        << (first != nullptr ? ", CBC" : ""));
                        expectNothingStays(
                            [&] { return CTripleDes(desKey.data(), keySize, type, first); },
                            desSecrets, plain);
                    }
                }
            }
        }
    });
}

/// Every call once, enciphering and deciphering `bytes`; `text` has room for them as Base64.
void callAll(const Bytes& key, const Bytes& iv, Bytes& bytes, std::vector<char>& text)
{
    uint8_t* const data = bytes.data();
    const size_t size = bytes.size();
    for (const CAes::EncMode mode : aesModes) {
        CAes there(mode, key.data(), CAes::BITS_192, iv.data());
        CAes back(mode, key.data(), CAes::BITS_192, iv.data());
        there.encrypt(data, data, size);
        back.decrypt(data, data, size);
    }
    for (const size_t keySize : {8, 24}) {
        for (const CTripleDes::BlockType block : {CTripleDes::block8, CTripleDes::block16}) {
            for (const uint8_t* const first : {static_cast<const uint8_t*>(nullptr), iv.data()}) {
                CTripleDes cipher(key.data(), keySize, block, first);
                cipher.encrypt(data, data, size);
                cipher.decrypt(data, data, size);
            }
        }
    }
    CMd5 md5;
    CSha1 sha1;
    md5.update(data, size);
    sha1.update(data, size);
    md5.hex(text.data());
    sha1.hex(text.data(), text.size());
    crc16(0, data, size);
    crc32(data, size);
    base64EncodeEx(text.data(), reinterpret_cast<const char*>(data), size);
    base64DecodeEx(reinterpret_cast<char*>(data), text.data());
}

TEST(CipherMemoryTest, TheSmallestThreadHasStackForEveryCall)
{
    if (!isDelivered) {
        GTEST_SKIP() << "not what is delivered";
    }
    CRandom random;
    const Bytes key = random.bytes(24);
    const Bytes iv = random.bytes(16);
    const Bytes plain = random.bytes(16 * 1000);
    onEachCpuLevel([&] {
        Bytes bytes = plain;
        bytes.reserve(plain.size() + 1); // decoding adds a NUL
        std::vector<char> text(base64EncodeLenEx(plain.size()));
        CKnownStack stack(PTHREAD_STACK_MIN);
        EXPECT_TRUE(stack.run([&] { callAll(key, iv, bytes, text); }));
        EXPECT_EQ(bytes, plain);
    });
}

TEST(CipherMemoryTest, WithoutMemoryForItsRecordACipherSaysSoAtTheFirstCall)
{
    const Bytes key(32);
    uint8_t bytes[16] = {};
    CLogCapture log;
    alignas(CAes) uint8_t place[sizeof(CAes)];
    CAes* cipher = nullptr;
    {
        const CMemoryShortage shortage(1, Shortage::once);
        cipher = new (place) CAes(CAes::MODE_CTR, key.data(), CAes::BITS_256);
    }
    EXPECT_FALSE(cipher->encrypt(bytes, bytes, sizeof(bytes)));
    EXPECT_EQ(log.takeLeveled(), "error|aes init failed.\n");
    cipher->~CAes();

    const ChildResult child = runInChild([&] {
        alignas(CTripleDes) uint8_t placeOfDes[sizeof(CTripleDes)];
        CTripleDes* des = nullptr;
        {
            const CMemoryShortage shortage(1, Shortage::once);
            des = new (placeOfDes) CTripleDes(key.data(), 24);
        }
        des->encrypt(bytes, bytes, sizeof(bytes));
    });
    EXPECT_FALSE(child.succeeded());
    EXPECT_THAT(child.report(), testing::HasSubstr("assertion (m_internal) failed"));
}

/// A printer of log lines that refuses each.
struct Refusal
{
    const void* record = nullptr; ///< what was made last before the line

    void print(const char*)
    {
        record = lastMade();
        throw *this;
    }
};

TEST(CipherMemoryTest, APrinterThatThrowsCostsNoMemory)
{
    Refusal refusal;
    std::vector<const void*> freedBlocks;
    freedBlocks.reserve(16);
    Tarsel::Infra::setLogPrinter(Tarsel::Infra::LogPrinterProc(&Refusal::print, &refusal));
    {
        const CFreedBlocks freed([&](const void* block, size_t) { freedBlocks.push_back(block); });
        EXPECT_THROW(CAes(CAes::MODE_CTR, nullptr, CAes::BITS_128), Refusal);
    }
    Tarsel::Infra::setLogPrinter(Tarsel::Infra::LogPrinterProc());
    EXPECT_THAT(freedBlocks, testing::Contains(refusal.record));
}

} // namespace

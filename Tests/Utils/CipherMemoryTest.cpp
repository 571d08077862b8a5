// Ciphers and digests in memory: how little of it they take, what they leave in it, which is
// nothing, and what they do without it.

#include <malloc.h>

#include <algorithm>
#include <bit>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Support/Bytes.h"
#include "Support/ChildProcess.h"
#include "Support/CpuLevels.h"
#include "Support/FailingHeap.h"
#include "Support/KnownStack.h"
#include "Support/LogCapture.h"
#include "Utils/Aes.h"
#include "Utils/Aes/AesAlg.h"
#include "Utils/Base64.h"
#include "Utils/Crc.h"
#include "Utils/d3des.h"
#include "Utils/DesTables.h"
#include "Utils/Md5.h"
#include "Utils/Sha1.h"
#include "Utils/TripleDes.h"

namespace
{

using namespace Tarsel::TestSupport;
using namespace Tarsel::Utils;

constexpr CAes::EncMode aesModes[] = {CAes::MODE_ECB, CAes::MODE_CBC, CAes::MODE_CFB8,
                                      CAes::MODE_CFB128, CAes::MODE_CTR};

/// Whether this is what is delivered. Code that is instrumented or not optimized keeps everything
/// on the stack, in larger frames.
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
    const Bytes aesKey = fromHex("2b7e151628aed2a6abf7158809cf4f3c");
    const Bytes roundKey = fromHex("a0fafe1788542cb123a339392a6c7605"); // FIPS-197, A.1
    const Bytes iv = fromHex("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");
    const Bytes nextCounter = fromHex("f0f1f2f3f4f5f6f7f8f9fafbfcfdff00");
    const Bytes stream = fromHex("ec8cdf7398607cb0f2d21675ea9ea1e4"); // SP 800-38A, F.5.1

    const Bytes key192 = fromHex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b");
    const Bytes roundKey192 = fromHex("fe0c91f72402f5a5ec12068e6c827f6b"); // A.2
    const Bytes key256 =
        fromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
    const Bytes roundKey256 = fromHex("9ba354118e6925afa51a8b5f2067fcde"); // A.3

    const Bytes desKey = fromHex("133457799bbcdff10123456789abcdeffedcba9876543210");
    // 1b02effc7072 and 79aed9dbc9e5, the first two round keys, as the odd S-boxes have them
    const Bytes desRoundKeys = fromHex("013f0b0627363b1e");

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
    expectWiped([&] { return new CTripleDes(desKey.data(), 24, CTripleDes::block8, iv.data()); },
                nothing, {desKey, desRoundKeys, part(iv, 0, 8)});
}

/// Makes an object, enciphers a message of `plain`'s size with it, deciphers that with another one,
/// and then looks for secrets on the stacks of both.
class CRoundTrip
{
public:
    template <typename Make>
    CRoundTrip(const Make& makeCipher, const Bytes& plain)
        : m_cipher(plain.size()), m_encrypting(stackSize), m_decrypting(stackSize)
    {
        const size_t size = plain.size();
        Bytes back(size);
        m_encrypting.run([&] { makeCipher().encrypt(m_cipher.data(), plain.data(), size); });
        m_decrypting.run([&] { makeCipher().decrypt(back.data(), m_cipher.data(), size); });
        EXPECT_EQ(back, plain);
    }

    const Bytes& cipher() const { return m_cipher; }
    std::string left(const CSecretWords& secrets) const
    {
        return m_encrypting.holds(secrets) + m_decrypting.holds(secrets);
    }

private:
    static constexpr size_t stackSize = size_t{64} << 10;

    Bytes m_cipher;
    CKnownStack m_encrypting;
    CKnownStack m_decrypting;
};

Bytes sumOf(Bytes bytes, const Bytes& others)
{
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] ^= others[i];
    }
    return bytes;
}

/// What each block is added to when it is chained; more than the message by a block.
Bytes chainOf(const Bytes& iv, Bytes cipher)
{
    cipher.insert(cipher.begin(), iv.begin(), iv.end());
    return cipher;
}

std::string leftByAes(CAes::EncMode mode, CAes::KeyBits bits, size_t blocks, CRandom& random)
{
    const Bytes key = random.bytes(bits / 8);
    const Bytes iv = random.bytes(16);
    const Bytes plain = random.bytes(16 * blocks);
    const CRoundTrip trip([&] { return CAes(mode, key.data(), bits, iv.data()); }, plain);
    CSecretWords secrets;
    for (const auto setKey : {AES::aes_setkey_enc, AES::aes_setkey_dec}) {
        AES::aes_context schedule;
        setKey(&schedule, key.data(), bits);
        for (int i = 0; i < 4 * (schedule.nr + 1); ++i) {
            secrets.add("round key", schedule.rk[i]);
        }
    }
    const Bytes chain = chainOf(iv, trip.cipher());
    const Bytes chained = sumOf(plain, chain);
    const Bytes stream = sumOf(plain, trip.cipher());
    uint8_t lastStream[16]; // of CFB-8
    CAes(CAes::MODE_ECB, key.data(), bits).encrypt(lastStream, chain.data() + plain.size() - 1, 16);
    secrets.add("plaintext", plain.data(), plain.size());
    secrets.add("key stream", stream.data(), stream.size());
    secrets.add("key stream", lastStream, sizeof(lastStream));
    secrets.add("plaintext in its chain", chained.data(), chained.size());
    return trip.left(secrets);
}

uint64_t initiallyPermuted(uint64_t block)
{
    uint64_t permuted = 0;
    for (const uint8_t bit : DES::initialPermutation) {
        permuted = permuted << 1 | (block >> (64 - bit) & 1);
    }
    return permuted;
}

/// A message of DES, as it stands, as its rounds have it, and as a circuit has it, which keeps one
/// bit of 64 blocks, `lanes` apart, in each word.
void addBlocks(CSecretWords& secrets, const Bytes& message)
{
    std::vector<uint64_t> blocks;
    for (size_t at = 0; at < message.size(); at += 8) {
        blocks.push_back(std::stoull(toHex(message.data() + at, 8), nullptr, 16));
        const uint64_t permuted = initiallyPermuted(blocks.back());
        const uint32_t left = static_cast<uint32_t>(permuted >> 32);
        const uint32_t right = static_cast<uint32_t>(permuted);
        secrets.add("block", blocks.back());
        secrets.add("permuted block", permuted);
        secrets.add("rotated half", uint64_t{std::rotl(left, 1)} << 32 | std::rotl(right, 1));
    }
    for (const size_t lanes : {4, 8}) {
        for (size_t first = 0; first + 64 * lanes <= blocks.size(); first += 64 * lanes) {
            for (size_t at = 0; at < 64 * lanes; ++at) {
                uint64_t row = 0;
                for (size_t i = 0; i < 64; ++i) {
                    row |= (blocks[first + at % lanes + i * lanes] >> (at / lanes) & 1) << i;
                }
                secrets.add("row of bits", row);
                secrets.add("row of bits", ~row);
            }
        }
    }
}

std::string leftByDes(size_t keySize, CTripleDes::BlockType type, bool chains, size_t blocks,
                      CRandom& random)
{
    const Bytes key = random.bytes(keySize);
    const Bytes iv = random.bytes(type == CTripleDes::block16 && keySize > 8 ? 16 : 8);
    const Bytes plain = random.bytes(16 * blocks);
    const CRoundTrip trip(
        [&] { return CTripleDes(key.data(), keySize, type, chains ? iv.data() : nullptr); }, plain);
    CSecretWords secrets;
    secrets.add("key", key.data(), keySize);
    for (size_t at = 0; at < keySize; at += 8) {
        DES::Schedule schedule;
        DES::setKey(schedule, key.data() + at);
        for (int round = 0; round < 16; ++round) {
            secrets.add("round key", uint64_t{schedule.odd[round]} << 32 | schedule.even[round]);
        }
    }
    addBlocks(secrets, plain);
    if (chains) {
        addBlocks(secrets, sumOf(plain, chainOf(iv, trip.cipher())));
    }
    return trip.left(secrets);
}

std::string leftBySetKey(CRandom& random)
{
    const Bytes key = random.bytes(32);
    CSecretWords secrets;
    AES::aes_context schedule;
    AES::aes_setkey_enc(&schedule, key.data(), 256);
    secrets.add("round key", reinterpret_cast<const uint8_t*>(schedule.rk), 16 * 15);
    CKnownStack stack(size_t{64} << 10);
    stack.run([&] { AES::aes_setkey_dec(&schedule, key.data(), 256); });
    return stack.holds(secrets);
}

/// The schedule of a block of SHA-1, as FIPS 180 has it.
std::string leftBySha1(CRandom& random)
{
    const Bytes block = random.bytes(64);
    CKnownStack stack(size_t{64} << 10);
    CSha1 sha1;
    stack.run([&] { sha1.update(block.data(), block.size()); });
    CSecretWords secrets;
    uint32_t words[80];
    for (size_t t = 0; t < 80; ++t) {
        words[t] =
            t < 16 ? static_cast<uint32_t>(std::stoul(toHex(block.data() + 4 * t, 4), nullptr, 16))
                   : std::rotl(words[t - 3] ^ words[t - 8] ^ words[t - 14] ^ words[t - 16], 1);
        secrets.add("schedule", words[t]);
    }
    return stack.holds(secrets);
}

/// `trial` draws its secrets anew and says what it has found of them. A word of an address may be
/// one of them by chance, but not twice.
template <typename Trial>
void expectNothingLeft(const Trial& trial)
{
    const std::string left = trial();
    EXPECT_TRUE(left.empty() || trial().empty()) << left;
}

TEST(CipherMemoryTest, NothingOfTheSecretsStaysOnTheStack)
{
    if (!isDelivered) {
        GTEST_SKIP() << "not what is delivered";
    }
    CRandom random;
    onEachCpuLevel([&] {
        expectNothingLeft([&] { return leftBySha1(random); });
        expectNothingLeft([&] { return leftBySetKey(random); });
        for (const size_t blocks : {1, 6, 21, 261}) {
            for (const CAes::EncMode mode : aesModes) {
                for (const CAes::KeyBits bits : {CAes::BITS_128, CAes::BITS_192, CAes::BITS_256}) {
                    SCOPED_TRACE(testing::Message()
                                 << blocks << " blocks, AES-" << bits << ", mode " << mode);
                    expectNothingLeft([&] { return leftByAes(mode, bits, blocks, random); });
                }
            }
            for (const size_t keySize : {8, 24}) {
                for (const CTripleDes::BlockType type : {CTripleDes::block8, CTripleDes::block16}) {
                    for (const bool chains : {false, true}) {
                        SCOPED_TRACE(testing::Message()
                                     << blocks << " double blocks, key of " << keySize
                                     << ", block type " << type << (chains ? ", CBC" : ""));
                        expectNothingLeft(
                            [&] { return leftByDes(keySize, type, chains, blocks, random); });
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

// CTripleDes: known answers, both block sizes against OpenSSL's single DES pass by pass, and what
// is refused.

#include "Utils/TripleDes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <thread>

#include "Support/Bytes.h"
#include "Support/ChildProcess.h"
#include "Support/CpuLevels.h"
#include "Support/LogCapture.h"

namespace
{

using namespace Tarsel::TestSupport;
using Tarsel::Utils::CTripleDes;
using testing::HasSubstr;

Bytes ours(const Bytes& key, CTripleDes::BlockType block, const Bytes* iv, bool encrypts,
           const Bytes& input)
{
    CTripleDes cipher(key.data(), key.size(), block, iv == nullptr ? nullptr : iv->data());
    Bytes output(input.size());
    EXPECT_TRUE(encrypts ? cipher.encrypt(output.data(), input.data(), input.size())
                         : cipher.decrypt(output.data(), input.data(), input.size()));
    return output;
}

/// Triple DES of OpenSSL, which with three equal keys is DES.
Bytes openssl(const EVP_CIPHER* type, const Bytes& key, const uint8_t* iv, bool encrypts,
              const Bytes& input)
{
    EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
    EXPECT_EQ(EVP_CipherInit_ex(context, type, nullptr, key.data(), iv, encrypts), 1);
    EVP_CIPHER_CTX_set_padding(context, 0);
    Bytes output(input.size() + 8);
    int size = 0;
    EVP_CipherUpdate(context, output.data(), &size, input.data(), static_cast<int>(input.size()));
    EVP_CIPHER_CTX_free(context);
    output.resize(static_cast<size_t>(size));
    return output;
}

/// The three keys that a key of any length stands for.
Bytes threeKeys(Bytes key)
{
    const size_t length = key.size();
    key.resize(24);
    for (size_t i = 0; i < 8; ++i) {
        key[8 + i] = length <= 8 ? key[i] : key[8 + i];
        key[16 + i] = length <= 16 ? key[i] : key[16 + i];
    }
    return key;
}

TEST(TripleDesTest, GivesTheKnownAnswers)
{
    const struct
    {
        const char* key;
        const char* plain;
        const char* cipher;
    } cases[] = {
        // DES: known answers for plaintext, key, permutation and S-boxes.
        {"133457799bbcdff1", "0123456789abcdef", "85e813540f0ab405"},
        {"0101010101010101", "8000000000000000", "95f8a5e5dd31d900"},
        {"0101010101010101", "0000000000000001", "166b40b44aba4bd6"},
        {"8001010101010101", "0000000000000000", "95a8d72813daa94d"},
        {"0101010101010102", "0000000000000000", "869efd7f9f265a09"},
        {"7ca110454a1a6e57", "01a1d6d039776742", "690f5b0d9a26939b"},
        {"0123456789abcdef", "4e6f77206973207468652074696d6520666f7220616c6c20",
         "3fa40e8a984d48156a271787ab8883f9893d51ec4b563b53"},
        // Triple DES, three keys: NIST SP 800-67, appendix B.
        {"0123456789abcdef23456789abcdef01456789abcdef0123",
         "54686520717566636b2062726f776e20666f78206a756d70",
         "a826fd8ce53b855fcce21c8112256fe668d5c05dd9b6b900"},
        // The lowest bit of each byte of a key is nobody's.
        {"123556789abddef0", "0123456789abcdef", "85e813540f0ab405"},
        // Three equal keys are DES.
        {"133457799bbcdff1133457799bbcdff1", "0123456789abcdef", "85e813540f0ab405"},
    };
    for (const auto& c : cases) {
        const Bytes plain = fromHex(c.plain);
        const Bytes cipher = fromHex(c.cipher);
        EXPECT_EQ(toHex(ours(fromHex(c.key), CTripleDes::block8, nullptr, true, plain)), c.cipher);
        EXPECT_EQ(toHex(ours(fromHex(c.key), CTripleDes::block8, nullptr, false, cipher)), c.plain);
    }
}

TEST(TripleDesTest, RunsThroughEveryEntryOfTheSBoxes)
{
    // R. Rivest's test: sixteen steps, each with the last result as key and as data.
    Bytes x = fromHex("9474b8e8c73bca7d");
    for (int i = 0; i < 16; ++i) {
        x = ours(x, CTripleDes::block8, nullptr, i % 2 == 0, x);
    }
    EXPECT_EQ(toHex(x), "1b1a2ddb4c642438");
}

TEST(TripleDesTest, AgreesWithOpensslForEveryKeyLengthOnEachProcessor)
{
    CRandom random;
    const CGuardedBytes in(8 * 1100);
    const CGuardedBytes out(8 * 1100);
    const std::vector<size_t> shortRuns = {1, 2, 3, 32, 51, 52, 70};
    const std::vector<size_t> longRuns = {51,  52,  53,  255, 256, 257, 307, 308,
                                          320, 512, 563, 564, 768, 769, 1100};
    onEachCpuLevel([&] {
        for (size_t length = 1; length <= 30; ++length) {
            const bool isWhole = length == 8 || length == 16 || length == 24;
            for (const size_t blocks : isWhole ? longRuns : shortRuns) {
                const Bytes key = random.bytes(length);
                const Bytes three = threeKeys(part(key, 0, std::min(length, size_t{24})));
                const Bytes iv = random.bytes(8);
                const Bytes input = random.bytes(blocks * 8);
                for (const bool encrypts : {true, false}) {
                    CTripleDes ecb(key.data(), length);
                    CTripleDes cbc(key.data(), length, CTripleDes::block8, iv.data());
                    for (CTripleDes* const cipher : {&ecb, &cbc}) {
                        const bool chains = cipher == &cbc;
                        const Bytes expected =
                            openssl(chains ? EVP_des_ede3_cbc() : EVP_des_ede3_ecb(), three,
                                    chains ? iv.data() : nullptr, encrypts, input);
                        const size_t size = input.size();
                        uint8_t* const bytes = in.putLast(input);
                        for (uint8_t* const target : {out.end() - size, out.begin(), bytes}) {
                            ASSERT_TRUE(encrypts ? cipher->encrypt(target, bytes, size)
                                                 : cipher->decrypt(target, bytes, size));
                            ASSERT_EQ(Bytes(target, target + size), expected)
                                << blocks << " blocks, key of " << length;
                        }
                    }
                }
            }
        }
    });
}

/// One double block, pass by pass.
Bytes doubleBlock(const Bytes& three, bool encrypts, Bytes block)
{
    for (size_t pass = 0; pass < 3; ++pass) {
        const size_t number = encrypts ? pass : 2 - pass;
        Bytes key(24);
        for (size_t i = 0; i < key.size(); ++i) {
            key[i] = three[8 * number + i % 8];
        }
        block = openssl(EVP_des_ede3_ecb(), key, nullptr, encrypts == (pass != 1), block);
        if (pass < 2) {
            std::swap_ranges(block.begin() + 4, block.begin() + 8, block.begin() + 8);
        }
    }
    return block;
}

TEST(TripleDesTest, DoubleBlocksExchangeTheInnerWordsBetweenThePasses)
{
    CRandom random;
    onEachCpuLevel([&] {
        for (const size_t length : {5, 8, 9, 16, 17, 24}) {
            const Bytes key = random.bytes(length);
            const Bytes three = threeKeys(key);
            if (length <= 8) {
                const Bytes input = random.bytes(24); // blocks of 8 bytes all the same
                EXPECT_EQ(ours(key, CTripleDes::block16, nullptr, true, input),
                          ours(key, CTripleDes::block8, nullptr, true, input));
                continue;
            }
            for (const bool encrypts : {true, false}) {
                const Bytes input = random.bytes(16 * 70);
                const Bytes iv = random.bytes(16);
                Bytes expectedEcb;
                Bytes expectedCbc;
                for (size_t at = 0; at < input.size(); at += 16) {
                    const Bytes block = part(input, at, 16);
                    const Bytes before =
                        at == 0 ? iv : part(encrypts ? expectedCbc : input, at - 16, 16);
                    Bytes chained = block;
                    for (size_t i = 0; i < 16; ++i) {
                        chained[i] ^= before[i];
                    }
                    Bytes ecb = doubleBlock(three, encrypts, block);
                    expectedEcb.insert(expectedEcb.end(), ecb.begin(), ecb.end());
                    Bytes cbc = encrypts ? doubleBlock(three, true, chained) : ecb;
                    for (size_t i = 0; i < 16 && !encrypts; ++i) {
                        cbc[i] ^= before[i];
                    }
                    expectedCbc.insert(expectedCbc.end(), cbc.begin(), cbc.end());
                }
                EXPECT_EQ(ours(key, CTripleDes::block16, nullptr, encrypts, input), expectedEcb);
                EXPECT_EQ(ours(key, CTripleDes::block16, &iv, encrypts, input), expectedCbc);
                Bytes inPlace = input;
                CTripleDes cipher(key.data(), key.size(), CTripleDes::block16, iv.data());
                EXPECT_TRUE(encrypts
                                ? cipher.encrypt(inPlace.data(), inPlace.data(), inPlace.size())
                                : cipher.decrypt(inPlace.data(), inPlace.data(), inPlace.size()));
                EXPECT_EQ(inPlace, expectedCbc);
            }
        }
    });
}

TEST(TripleDesTest, StartsFromTheIvAtEveryCallAndWorksInPlaceFromAnyThread)
{
    CRandom random;
    const Bytes key = random.bytes(24);
    const Bytes iv = random.bytes(8);
    const Bytes plain = random.bytes(8 * 100);
    const Bytes cipher = openssl(EVP_des_ede3_cbc(), key, iv.data(), true, plain);
    onEachCpuLevel([&] {
        CTripleDes shared(key.data(), key.size(), CTripleDes::block8, iv.data());
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                for (int round = 0; round < 20; ++round) {
                    Bytes bytes = plain;
                    EXPECT_TRUE(shared.encrypt(bytes.data(), bytes.data(), bytes.size()));
                    EXPECT_EQ(bytes, cipher);
                    EXPECT_TRUE(shared.decrypt(bytes.data(), bytes.data(), bytes.size()));
                    EXPECT_EQ(bytes, plain);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
}

TEST(TripleDesTest, TakesTheWholeBlocksAndSaysWhatItLeavesOut)
{
    CLogCapture log;
    const Bytes key(24, 7);
    CTripleDes small(key.data(), key.size());
    CTripleDes large(key.data(), key.size(), CTripleDes::block16);
    const Bytes src(40, 1);
    const struct
    {
        CTripleDes* cipher;
        bool encrypts;
        size_t size;
        size_t real;
        const char* message;
    } cases[] = {
        {&small, true, 20, 16, "is not the multiple of the 'BlockSize'!!! size:20, real_size:16\n"},
        {&small, false, 7, 0, "is not the multiple of th 'BlockSize'!!! size:7, real_size:0\n"},
        {&large, true, 40, 32, "is not the multiple of the 'BlockSize'!!! size:40, real_size:32\n"},
        {&large, false, 8, 0, "is not the multiple of th 'BlockSize'!!! size:8, real_size:0\n"},
    };
    for (const auto& c : cases) {
        Bytes dst(40, 0xEE);
        EXPECT_FALSE(c.encrypts ? c.cipher->encrypt(dst.data(), src.data(), c.size)
                                : c.cipher->decrypt(dst.data(), src.data(), c.size));
        char begin[64];
        snprintf(begin, sizeof(begin), "error|this:%p CTripleDes::encrypt(): size ",
                 static_cast<void*>(c.cipher));
        EXPECT_EQ(log.takeLeveled(), std::string(begin) + c.message);
        Bytes whole(40, 0xEE);
        EXPECT_TRUE(c.encrypts ? c.cipher->encrypt(whole.data(), src.data(), c.real)
                               : c.cipher->decrypt(whole.data(), src.data(), c.real));
        EXPECT_EQ(dst, whole);
    }
    EXPECT_EQ(log.takeLeveled(), "");
}

TEST(TripleDesTest, SaysWhatIsMissing)
{
    CLogCapture log;
    const Bytes key(16, 7);
    Bytes bytes(16, 0xEE);
    CTripleDes cipher(key.data(), key.size());
    EXPECT_TRUE(cipher.encrypt(bytes.data(), nullptr, 16));
    EXPECT_EQ(log.takeLeveled(), "error|en_de_crypt(): src is NULL!!\n");
    EXPECT_TRUE(cipher.decrypt(nullptr, bytes.data(), 16));
    EXPECT_EQ(log.takeLeveled(), "error|en_de_crypt(): dst is NULL!!\n");
    EXPECT_FALSE(cipher.decrypt(nullptr, nullptr, 15));
    EXPECT_THAT(log.takeLeveled(), HasSubstr("real_size:8\nerror|en_de_crypt(): src is NULL!!\n"));

    CTripleDes empty(key.data(), 0);
    CTripleDes null(nullptr, 16);
    for (CTripleDes* const keyless : {&empty, &null}) {
        char expected[64];
        snprintf(expected, sizeof(expected), "error|this:%p key_length is 0,is unvalid!\n",
                 static_cast<void*>(keyless));
        EXPECT_FALSE(keyless->encrypt(bytes.data(), bytes.data(), 16));
        EXPECT_EQ(log.takeLeveled(), expected);
        EXPECT_FALSE(keyless->decrypt(bytes.data(), bytes.data(), 15));
        EXPECT_EQ(log.takeLeveled(), expected);
    }
    EXPECT_EQ(bytes, Bytes(16, 0xEE));
}

TEST(TripleDesTest, ABlockTypeThatThereIsNotEndsTheProgram)
{
    const ChildResult child = runInChild([] {
        const Bytes key(24);
        CTripleDes cipher(key.data(), key.size(), static_cast<CTripleDes::BlockType>(2));
    });
    EXPECT_FALSE(child.succeeded());
    EXPECT_THAT(child.report(), HasSubstr("block_size > 0"));
}

} // namespace

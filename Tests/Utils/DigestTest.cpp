// CMd5 and CSha1: published vectors, OpenSSL at any length, when a message begins and ends, and
// what is refused.

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "Support/Bytes.h"
#include "Support/CpuLevels.h"
#include "Support/LogCapture.h"
#include "Utils/Md5.h"
#include "Utils/Sha1.h"

namespace
{

using namespace Tarsel::TestSupport;
using namespace Tarsel::Utils;

std::string hexOf(CMd5& md5)
{
    char text[34] = "#################################";
    md5.hex(text);
    EXPECT_EQ(text[32], '#');
    return std::string(text, 32);
}

std::string hexOf(CSha1& sha1)
{
    char text[41];
    sha1.hex(text, sizeof(text));
    return text;
}

template <typename Digest>
std::string hexOf(const Bytes& message)
{
    Digest digest;
    digest.update(message.data(), message.size());
    return hexOf(digest);
}

std::string openssl(const EVP_MD* type, const Bytes& message)
{
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_Digest(message.data(), message.size(), digest, &size, type, nullptr);
    return toHex(digest, size);
}

TEST(DigestTest, GivesThePublishedVectors)
{
    const Bytes million(1000000, 'a');
    const struct
    {
        Bytes message;
        const char* md5;  // RFC 1321, A.5
        const char* sha1; // FIPS 180, and RFC 3174
    } cases[] = {
        {{}, "d41d8cd98f00b204e9800998ecf8427e", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {ofText("a"), "0cc175b9c0f1b6a831c399e269772661",
         "86f7e437faa5a7fce15d1ddcb9eaeaea377667b8"},
        {ofText("abc"), "900150983cd24fb0d6963f7d28e17f72",
         "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {ofText("message digest"), "f96b697d7cb7938d525a2f31aaf161d0",
         "c12252ceda8be8994d5fa0290a47231c1d16aae3"},
        {ofText("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
         "8215ef0796a20bcaaae116d3876c664a", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {ofText("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
         "57edf4a22be3c955ac49da2e2107b67a", "50abf5706a150990a08b2c5ea40fa0e585554732"},
        {million, "7707d6ae4e027c70eea2a935c2296f21", "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    };
    onEachCpuLevel([&] {
        for (const auto& c : cases) {
            EXPECT_EQ(hexOf<CMd5>(c.message), c.md5);
            EXPECT_EQ(hexOf<CSha1>(c.message), c.sha1);
        }
    });
}

TEST(DigestTest, AgreesWithOpensslAtAnyLengthInAnyPieces)
{
    CRandom random;
    const CGuardedBytes guarded(400); // nothing behind the message is read
    onEachCpuLevel([&] {
        for (size_t size = 0; size < 400; ++size) {
            const Bytes message = random.bytes(size);
            const uint8_t* const bytes = guarded.putLast(message); // at any alignment
            CMd5 md5;
            CSha1 sha1;
            for (size_t done = 0; done < size;) {
                const size_t piece = std::min(size - done, 1 + random.below(150));
                md5.update(bytes + done, piece);
                sha1.update(bytes + done, piece);
                done += piece;
            }
            ASSERT_EQ(hexOf(md5), openssl(EVP_md5(), message)) << size;
            ASSERT_EQ(hexOf(sha1), openssl(EVP_sha1(), message)) << size;
        }
    });
}

TEST(DigestTest, DataAfterADigestBeginsANewMessage)
{
    const Bytes abc = ofText("abc");
    const std::string md5OfAbc = "900150983cd24fb0d6963f7d28e17f72";
    const std::string sha1OfAbc = "a9993e364706816aba3e25717850c26c9cd0d89d";
    CMd5 md5;
    CSha1 sha1;
    uint8_t digest[20];
    for (int round = 0; round < 3; ++round) {
        md5.update(abc.data(), 3);
        sha1.update(abc.data(), 3);
        EXPECT_EQ(hexOf(md5), md5OfAbc);
        EXPECT_EQ(hexOf(sha1), sha1OfAbc);
        md5.update(nullptr, 5);
        md5.update(abc.data(), 0);
        sha1.update(nullptr, 5);
        sha1.update(abc.data(), 0);
        md5.final(digest);
        EXPECT_EQ(toHex(digest, 16), md5OfAbc) << "the same digest as often as it is asked for";
        sha1.final(digest, sizeof(digest));
        EXPECT_EQ(toHex(digest, 20), sha1OfAbc);
    }
    md5.update(abc.data(), 3);
    md5.init();
    EXPECT_EQ(hexOf(md5), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(DigestTest, RefusesNullAndTooLittleRoom)
{
    CLogCapture log;
    CMd5 md5;
    CSha1 sha1;
    md5.final(nullptr);
    EXPECT_EQ(log.takeLeveled(), "error|digest is NULL\n");
    md5.hex(nullptr);
    EXPECT_EQ(log.takeLeveled(), "error|hash is NULL\n");
    sha1.final(nullptr, 0);
    EXPECT_EQ(log.takeLeveled(), "error|hash is NULL!\n");
    sha1.hex(nullptr, 0);
    EXPECT_EQ(log.takeLeveled(), "error|str is NULL!\n");

    char text[48];
    uint8_t* const bytes = reinterpret_cast<uint8_t*>(text);
    memset(text, '#', sizeof(text));
    sha1.final(bytes, 19);
    EXPECT_EQ(log.takeLeveled(), "error|len:19 is invalid!\n");
    sha1.hex(text, 39);
    EXPECT_EQ(log.takeLeveled(), "error|len:39 is invalid!\n");
    EXPECT_EQ(std::string(text, 48), std::string(48, '#'));
    sha1.hex(text, 40);
    EXPECT_EQ(std::string(text, 48), "da39a3ee5e6b4b0d3255bfef95601890afd80709########");
    sha1.hex(text, 41);
    EXPECT_STREQ(text, "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    sha1.final(bytes, 20);
    EXPECT_EQ(toHex(bytes, 20), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(log.takeLeveled(), "");
}

} // namespace

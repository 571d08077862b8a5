// Base64: the vectors of RFC 4648, OpenSSL at any length, where decoding stops, and that nothing
// around is touched.

#include "Utils/Base64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <climits>

#include "Support/Bytes.h"
#include "Support/CpuLevels.h"

namespace
{

using namespace Tarsel::TestSupport;
using namespace Tarsel::Utils;

const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string encoded(const Bytes& bytes)
{
    std::string text(base64EncodeLenEx(bytes.size()), '#');
    EXPECT_EQ(
        base64EncodeEx(text.data(), reinterpret_cast<const char*>(bytes.data()), bytes.size()),
        text.size());
    EXPECT_EQ(text.back(), '\0');
    text.pop_back();
    return text;
}

std::string openssl(const Bytes& bytes)
{
    std::string text(bytes.size() / 3 * 4 + 5, '\0');
    text.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<uint8_t*>(text.data()),
                                                    bytes.data(), static_cast<int>(bytes.size()))));
    return text;
}

TEST(Base64Test, GivesTheVectorsOfTheStandard)
{
    const struct
    {
        const char* plain;
        const char* coded;
    } cases[] = {{"", ""},
                 {"f", "Zg=="},
                 {"fo", "Zm8="},
                 {"foo", "Zm9v"},
                 {"foob", "Zm9vYg=="},
                 {"fooba", "Zm9vYmE="},
                 {"foobar", "Zm9vYmFy"}};
    for (const auto& c : cases) {
        EXPECT_EQ(encoded(ofText(c.plain)), c.coded);
        char plain[16];
        const size_t size = strlen(c.plain);
        EXPECT_EQ(base64DecodeEx(plain, c.coded), size);
        EXPECT_STREQ(plain, c.plain);
        EXPECT_EQ(base64Decode(plain, c.coded), static_cast<int>(size));
        char coded[16] = "##########";
        EXPECT_EQ(base64Encode(coded, c.plain, static_cast<int>(size)),
                  size == 0 ? 0 : static_cast<int>(strlen(c.coded)) + 1);
        EXPECT_STREQ(coded, size == 0 ? "##########" : c.coded);
    }
}

TEST(Base64Test, SaysHowMuchRoomItTakes)
{
    const struct
    {
        size_t plain;
        size_t coded;
    } encodeCases[] = {{0, 1}, {1, 5}, {3, 5}, {4, 9}, {1000000, 1333337}};
    for (const auto& c : encodeCases) {
        EXPECT_EQ(base64EncodeLenEx(c.plain), c.coded);
        EXPECT_EQ(base64EncodeLen(static_cast<int>(c.plain)), static_cast<int>(c.coded));
    }
    const struct
    {
        const char* coded;
        size_t room;
        size_t bytes;
    } decodeCases[] = {{"", 1, 0},          {"=", 1, 0},      {"Z", 4, 0},
                       {"Zm", 4, 1},        {"Zm9", 4, 2},    {"Zm9v", 4, 3},
                       {"Zm9vY", 7, 3},     {"Zm9vYm", 7, 4}, {"Zm9v\nYmFy", 4, 3},
                       {"Zm9v YmFy", 4, 3}, {"Zm-v", 4, 1},   {"\xC3Zm9v", 1, 0}};
    for (const auto& c : decodeCases) {
        EXPECT_EQ(base64DecodeLenEx(c.coded), c.room) << c.coded;
        EXPECT_EQ(base64DecodeLen(c.coded), static_cast<int>(c.room)) << c.coded;
        Bytes plain(c.room);
        EXPECT_EQ(base64DecodeEx(reinterpret_cast<char*>(plain.data()), c.coded), c.bytes)
            << c.coded;
        EXPECT_EQ(plain[c.bytes], 0) << c.coded;
    }
    const struct
    {
        int plain;
        int coded;
    } negativeCases[] = {{-1, 1}, {-2, 1}, {-3, 1}, {-4, 1}, {-5, -3}, {-100, -127}};
    for (const auto& c : negativeCases) {
        EXPECT_EQ(base64EncodeLen(c.plain), c.coded) << c.plain;
    }
    char untouched = '#';
    for (const int length : {0, -1, INT_MIN}) {
        EXPECT_EQ(base64Encode(&untouched, "abc", length), 0);
        EXPECT_EQ(untouched, '#');
    }
}

TEST(Base64Test, AgreesWithOpensslBothWaysAndTouchesNothingAround)
{
    CRandom random;
    const CGuardedBytes in(15000);
    const CGuardedBytes out(15000);
    onEachCpuLevel([&] {
        for (size_t round = 0; round < 260; ++round) {
            const size_t size = round < 250 ? round : random.below(9000);
            const Bytes plain = random.bytes(size);
            const std::string expected = openssl(plain);
            const std::string coded(expected.c_str(), expected.size() + 1);
            char* const text = reinterpret_cast<char*>(out.end()) - coded.size();
            base64EncodeEx(text, reinterpret_cast<char*>(in.putLast(plain)), size);
            ASSERT_EQ(std::string(text, coded.size()), coded);

            const char* const source = reinterpret_cast<char*>(in.putLast(coded));
            const size_t room = base64DecodeLenEx(source);
            ASSERT_EQ(room, (expected.find_last_not_of('=') + 4) / 4 * 3 + 1) << size;
            char* const decoded = reinterpret_cast<char*>(out.end()) - room;
            ASSERT_EQ(base64DecodeEx(decoded, source), size);
            ASSERT_EQ(Bytes(decoded, decoded + size), plain);
            ASSERT_EQ(decoded[size], '\0');

            memcpy(text, coded.data(), coded.size());
            ASSERT_EQ(base64DecodeEx(text, text), size) << "in place";
            ASSERT_EQ(Bytes(text, text + size), plain) << "in place";
        }
    });
}

/// Nothing behind it is there.
TEST(Base64Test, EveryOtherByteEndsTheTextWhereverItStands)
{
    CRandom random;
    const size_t size = 300;
    const CGuardedBytes in(size);
    onEachCpuLevel([&] {
        for (int stop = 0; stop < 256; ++stop) {
            const bool stops = alphabet.find(static_cast<char>(stop)) == std::string::npos;
            std::string letters;
            for (size_t i = 0; i < size; ++i) {
                letters += alphabet[random.below(64)];
            }
            letters += '\0'; // where `stop` is none
            for (size_t at = 0; at < size; ++at) {
                std::string text = letters;
                text[at] = static_cast<char>(stop);
                const size_t n = stops ? at : size;
                const size_t bytes = n / 4 * 3 + (n % 4 == 0 ? 0 : n % 4 - 1);
                const uint8_t* const coded = in.putLast(text.substr(0, n + 1));
                const char* const source = reinterpret_cast<const char*>(coded);
                ASSERT_EQ(base64DecodeLenEx(source), (n + 3) / 4 * 3 + 1) << stop << " " << at;
                Bytes plain(size);
                ASSERT_EQ(base64DecodeEx(reinterpret_cast<char*>(plain.data()), source), bytes);
                const std::string again = openssl(part(plain, 0, n / 4 * 3));
                ASSERT_EQ(again, text.substr(0, n / 4 * 4)) << stop << " " << at;
            }
        }
    });
}

} // namespace

// Sizes beyond 32 bits in one call. What takes longer than a moment is not here: the chained modes
// that encipher, DES, and whole digests.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "Support/Bytes.h"
#include "Utils/Aes.h"
#include "Utils/Base64.h"
#include "Utils/Crc.h"
#include "Utils/Md5.h"
#include "Utils/Sha1.h"
#include "Utils/Sha1Alg.h"

namespace
{

using namespace Tarsel::TestSupport;
using namespace Tarsel::Utils;

constexpr size_t beyond32Bits = size_t{1} << 32;
constexpr size_t megabyte = size_t{1} << 20;

/// Addresses for 2^32 bytes and a megabyte more.
class CHugeRange
{
public:
    uint8_t* begin() const { return m_begin; }
    char* text() const { return reinterpret_cast<char*>(m_begin); }

    CHugeRange(const CHugeRange&) = delete;
    CHugeRange& operator=(const CHugeRange&) = delete;

protected:
    explicit CHugeRange(int protection)
        : m_begin(static_cast<uint8_t*>(
              mmap(nullptr, size, protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)))
    {}
    ~CHugeRange() { munmap(m_begin, size); }

    static constexpr size_t size = beyond32Bits + megabyte;

private:
    uint8_t* const m_begin;
};

class CHugeZeros : public CHugeRange
{
public:
    CHugeZeros() : CHugeRange(PROT_READ) { madvise(begin(), size, MADV_HUGEPAGE); }
};

/// One megabyte that appears again and again.
class CRepeatedMegabyte : public CHugeRange
{
public:
    CRepeatedMegabyte() : CHugeRange(PROT_NONE)
    {
        const int memory = memfd_create("megabyte", 0);
        EXPECT_EQ(ftruncate(memory, megabyte), 0);
        for (size_t at = 0; at < size; at += megabyte) {
            EXPECT_NE(mmap(begin() + at, megabyte, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED,
                           memory, 0),
                      MAP_FAILED);
        }
        close(memory);
    }
    /// Gives the last megabyte memory of its own, with zeros.
    uint8_t* separateLast()
    {
        return static_cast<uint8_t*>(mmap(begin() + beyond32Bits, megabyte, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0));
    }
};

/// The ranges are made once: what takes the time is their page tables.
class HugeSizesTest : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        zeros = new CHugeZeros;
        out = new CRepeatedMegabyte;
    }
    static void TearDownTestSuite()
    {
        delete zeros;
        delete out;
    }
    void SetUp() override
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "instrumented, this takes minutes and gigabytes";
#endif
        std::fill_n(out->begin(), megabyte, uint8_t{0xEE});
    }

    static inline CHugeZeros* zeros = nullptr;
    static inline CRepeatedMegabyte* out = nullptr;
};

TEST_F(HugeSizesTest, DigestsAndChecksums)
{
    const size_t largest = beyond32Bits + 5;
    CMd5 md5;
    CSha1 sha1;
    const size_t manyBits = (size_t{1} << 29) + 5; // 2^32 bits and some
    md5.update(zeros->begin(), manyBits);
    sha1.update(zeros->begin(), manyBits);
    uint8_t digest[20];
    md5.final(digest);
    EXPECT_EQ(toHex(digest, 16), "53f83c490b7435d7e205466bfd984882");
    sha1.final(digest, sizeof(digest));
    EXPECT_EQ(toHex(digest, 20), "8e9aff269b0100da94e05015243e0a65c1399752");
    EXPECT_EQ(crc32(zeros->begin(), largest), 0xb1c2a1a3u);
    EXPECT_EQ(crc16(1, zeros->begin(), largest), 0x900D);

    static size_t s_blocks = 0;
    SHA1::SHA1Context context;
    SHA1::start(context);
    SHA1::append(
        context, [](uint32_t(&)[5], const uint8_t*, size_t blocks) { s_blocks += blocks; },
        zeros->begin(), largest);
    EXPECT_EQ(s_blocks, size_t{1} << 26);
    EXPECT_EQ(context.totalLength, uint64_t{0x800000028});
    EXPECT_EQ(context.bufferLength, 5u);
}

/// With the key of FIPS-197, C.1. A block of zeros becomes the same wherever it stands; a stream goes
/// on where the call has ended.
TEST_F(HugeSizesTest, Aes)
{
    const Bytes key = fromHex("000102030405060708090a0b0c0d0e0f");
    const struct
    {
        CAes::EncMode mode;
        bool encrypts;
        size_t size;
        const char* last; ///< the last 16 bytes
        const char* next; ///< what 16 more zeros become
    } cases[] = {
        {CAes::MODE_ECB, true, beyond32Bits + 48, "c6a13b37878f5b826f4f8162a1c8d879",
         "c6a13b37878f5b826f4f8162a1c8d879"},
        {CAes::MODE_CFB128, false, beyond32Bits + 35, "37878f5b826f4f8162a1c8d879c6a13b",
         "37878f5b826f4f8162a1c8d879c6a13b"},
        {CAes::MODE_CTR, true, beyond32Bits + 35, "cdd4d2f072887d6eb7cac2c43123b275",
         "7d6af393bc4f400518aabacbe705e44f"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        std::fill_n(out->begin(), megabyte, uint8_t{0xEE});
        CAes cipher(c.mode, key.data(), CAes::BITS_128);
        const auto crypt = [&](uint8_t* to, size_t size) {
            return c.encrypts ? cipher.encrypt(to, zeros->begin(), size)
                              : cipher.decrypt(to, zeros->begin(), size);
        };
        EXPECT_TRUE(crypt(out->begin(), c.size));
        EXPECT_EQ(toHex(out->begin() + c.size - 16, 16), c.last);
        EXPECT_NE(toHex(out->begin() + megabyte / 2, 8), "eeeeeeeeeeeeeeee") << "all of it";
        uint8_t next[16];
        EXPECT_TRUE(crypt(next, 16));
        EXPECT_EQ(toHex(next, 16), c.next);
    }
}

TEST_F(HugeSizesTest, Base64)
{
    const size_t bytes = beyond32Bits / 4 * 3 + 1;
    EXPECT_EQ(base64EncodeEx(out->text(), zeros->text(), bytes), beyond32Bits + 5);
    EXPECT_EQ(std::string(out->text() + beyond32Bits - 4, 9), std::string("AAAAAA==\0", 9));

    CRepeatedMegabyte coded;
    std::fill_n(coded.begin(), megabyte, 'Q');
    std::fill_n(coded.separateLast(), 6, 'Q');
    EXPECT_EQ(base64DecodeEx(out->text(), coded.text()), bytes + 3);
    EXPECT_EQ(toHex(out->begin() + bytes, 4), "04104100");
    EXPECT_EQ(base64DecodeLenEx(coded.text()), bytes + 6);
}

} // namespace

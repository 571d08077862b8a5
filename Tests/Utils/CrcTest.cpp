// CRC-16 and CRC-32: check values, zlib, the definition bit by bit, at any length and alignment.

#include "Utils/Crc.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>

#include "Support/Bytes.h"
#include "Support/CpuLevels.h"

namespace
{

using namespace Tarsel::TestSupport;
namespace Utils = Tarsel::Utils;

/// The definition of CRC-16/ARC.
uint16_t crc16BitByBit(uint16_t crc, const uint8_t* bytes, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        crc = static_cast<uint16_t>(crc ^ bytes[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<uint16_t>((crc >> 1) ^ ((crc & 1) != 0 ? 0xA001 : 0));
        }
    }
    return crc;
}

uint32_t zlib(uint32_t crc, const uint8_t* bytes, size_t length)
{
    return static_cast<uint32_t>(::crc32_z(crc, bytes, length));
}

TEST(CrcTest, GivesTheCheckValues)
{
    const Bytes digits = ofText("123456789");
    onEachCpuLevel([&] {
        EXPECT_EQ(Utils::crc16(0, digits.data(), 9), 0xBB3D);
        EXPECT_EQ(Utils::crc16(0xFFFF, digits.data(), 9), 0x4B37) << "CRC-16/MODBUS";
        EXPECT_EQ(Utils::crc32(digits.data(), 9), 0xCBF43926u);
        EXPECT_EQ(Utils::crc32(Utils::crc32(0, digits.data(), 4), digits.data() + 4, 5),
                  0xCBF43926u);
        EXPECT_EQ(Utils::crc32(nullptr, 0), 0u);
        EXPECT_EQ(Utils::crc32(0x12345678, nullptr, 0), 0x12345678u);
        EXPECT_EQ(Utils::crc16(0x1234, nullptr, 0), 0x1234);
    });
}

TEST(CrcTest, AgreesAtEveryLengthAndAlignment)
{
    CRandom random;
    const Bytes bytes = random.bytes(5000);
    onEachCpuLevel([&] {
        for (size_t length = 0; length <= 700; ++length) {
            for (size_t at = 0; at < 32; at += length < 300 ? 1 : 7) {
                const uint32_t start =
                    length % 2 == 0 ? 0 : static_cast<uint32_t>(length * 0x9E3779B9);
                const uint8_t* const begin = bytes.data() + at;
                ASSERT_EQ(Utils::crc32(start, begin, length), zlib(start, begin, length))
                    << length << " at " << at;
                const uint16_t start16 = static_cast<uint16_t>(start);
                if (at % 8 == 0) {
                    ASSERT_EQ(Utils::crc16(start16, begin, length),
                              crc16BitByBit(start16, begin, length))
                        << length << " at " << at;
                }
            }
        }
        EXPECT_EQ(Utils::crc32(bytes.data(), 5000), zlib(0, bytes.data(), 5000));
        EXPECT_EQ(Utils::crc16(0, bytes.data(), 5000), crc16BitByBit(0, bytes.data(), 5000));
    });
}

TEST(CrcTest, ReadsNothingAround)
{
    CRandom random;
    const CGuardedBytes guarded(700);
    onEachCpuLevel([&] {
        for (size_t length = 0; length <= 700; ++length) {
            const Bytes bytes = random.bytes(length);
            const uint8_t* const last = guarded.putLast(bytes);
            EXPECT_EQ(Utils::crc32(last, length), zlib(0, bytes.data(), length)) << length;
            std::copy(bytes.begin(), bytes.end(), guarded.begin());
            EXPECT_EQ(Utils::crc16(7, guarded.begin(), length),
                      crc16BitByBit(7, bytes.data(), length))
                << length;
        }
    });
}

} // namespace

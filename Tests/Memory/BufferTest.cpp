// Buffers: exact and stepped growth, one block with its record at the head, sizes that no block
// has.

#include "Memory/Buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Support/LogCapture.h"

namespace
{

using Tarsel::Memory::CBuffer;
using Tarsel::TestSupport::CLogCapture;

size_t put(CBuffer& buffer, const std::string& text)
{
    std::vector<uint8_t> bytes(text.begin(), text.end());
    return buffer.putBuffer(bytes.data(), bytes.size());
}

std::string contents(const CBuffer& buffer)
{
    return std::string(reinterpret_cast<const char*>(buffer.getBuffer()), buffer.size());
}

/// What stands at the head of the block.
struct Record
{
    explicit Record(const CBuffer& buffer)
    {
        memcpy(&address, static_cast<const void*>(&buffer), sizeof(address));
        memcpy(&words, address, sizeof(words));
    }
    uintptr_t words[4]; ///< block, length, size, step
    const char* address;
};

TEST(Buffer, GrowsToExactlyWhatIsNeededWithoutAStep)
{
    CBuffer buffer;
    EXPECT_EQ(buffer.capacity(), 0u);
    buffer.reserve(100);
    EXPECT_EQ(buffer.capacity(), 100u);
    EXPECT_EQ(buffer.getBuffer(), nullptr) << "nothing in it yet";
    EXPECT_EQ(put(buffer, std::string(99, 'a')), 99u);
    EXPECT_EQ(put(buffer, "bc"), 2u);
    EXPECT_EQ(buffer.capacity(), 101u);
    EXPECT_EQ(contents(buffer), std::string(99, 'a') + "bc");
    buffer.resize(0);
    EXPECT_EQ(buffer.capacity(), 101u);
    EXPECT_EQ(buffer.getBuffer(), nullptr);
    buffer.reset();
    EXPECT_EQ(buffer.capacity(), 0u);
    EXPECT_EQ(buffer.putBuffer(nullptr, 0), 0u);
    EXPECT_EQ(buffer.putBuffer(nullptr, 1), 0u);
    buffer.resize(7);
    EXPECT_EQ(buffer.size(), 7u);
    EXPECT_EQ(buffer.capacity(), 7u);
}

TEST(Buffer, GrowsInStepsOnceOneIsSet)
{
    CBuffer buffer;
    buffer.setIncreasedSize(64);
    EXPECT_EQ(buffer.capacity(), 64u);
    EXPECT_EQ(buffer.size(), 0u);
    put(buffer, std::string(64, 'x'));
    put(buffer, "0123456789");
    EXPECT_EQ(buffer.capacity(), 128u);
    EXPECT_EQ(buffer.size(), 74u);
    buffer.reserve(130);
    EXPECT_EQ(buffer.capacity(), 130u) << "a reservation is exact";
    buffer.setIncreasedSize(100);
    buffer.resize(250);
    EXPECT_EQ(buffer.capacity(), 300u);
    EXPECT_EQ(buffer.size(), 300u) << "the rounded size becomes the length";
    EXPECT_EQ(contents(buffer).substr(0, 74), std::string(64, 'x') + "0123456789");
    buffer.resize(20);
    EXPECT_EQ(buffer.size(), 20u);
    buffer.reset();
    put(buffer, "abc");
    EXPECT_EQ(buffer.capacity(), 3u) << "the step went with the block";
}

TEST(Buffer, TheRecordHeadsTheBlockAndKnowsItsAddress)
{
    CBuffer buffer;
    buffer.setIncreasedSize(10);
    for (int i = 0; i < 1000; ++i) {
        put(buffer, "abc");
        const Record record(buffer);
        ASSERT_EQ(record.words[0], reinterpret_cast<uintptr_t>(record.address));
        ASSERT_EQ(record.words[1], buffer.size());
        ASSERT_EQ(record.words[2], buffer.capacity());
        ASSERT_EQ(record.words[3], 10u);
        ASSERT_EQ(reinterpret_cast<const char*>(buffer.getBuffer()), record.address + 32);
        ASSERT_EQ(buffer.capacity() % 10, 0u);
    }
}

TEST(Buffer, AppendsItsOwnBytesWhileItMoves)
{
    CBuffer buffer;
    put(buffer, "0123456789");
    for (int i = 0; i < 12; ++i) {
        const std::string before = contents(buffer);
        ASSERT_EQ(buffer.putBuffer(buffer.getBuffer() + 3, buffer.size() - 3), before.size() - 3);
        ASSERT_EQ(contents(buffer), before + before.substr(3));
    }
}

/// One failing call on a buffer after the other; the messages are compared as they stand.
TEST(Buffer, AGrowthThatFailsIsLoggedAndLeavesEverythingAsItWas)
{
    CLogCapture log;
    uint8_t byte = 7;
    CBuffer fresh;
    EXPECT_EQ(fresh.putBuffer(&byte, SIZE_MAX), 0u);
    fresh.resize(SIZE_MAX);
    fresh.reserve(SIZE_MAX - 16);
    fresh.setIncreasedSize(SIZE_MAX);
    EXPECT_EQ(fresh.capacity(), 0u);
    EXPECT_EQ(log.takeLeveled(),
              "info| CBuffer putbuffer Malloc fail:\ninfo| CBuffer resize Malloc fail:\n"
              "info| CBuffer reserve Malloc fail:\n"
              "info| CBuffer setIncreasedSize Malloc fail:\n");

    CBuffer used;
    used.setIncreasedSize(64);
    put(used, "abc");
    EXPECT_EQ(used.putBuffer(&byte, SIZE_MAX), 0u);
    EXPECT_EQ(used.putBuffer(&byte, SIZE_MAX - 3), 0u) << "the sum fits, the rounded sum does not";
    used.resize(SIZE_MAX - 10);
    used.reserve(SIZE_MAX - 10);
    EXPECT_EQ(contents(used), "abc");
    EXPECT_EQ(used.capacity(), 64u);
    used.setIncreasedSize(SIZE_MAX);
    EXPECT_EQ(put(used, std::string(62, 'x')), 0u) << "no block has one step";
    EXPECT_EQ(used.size(), 3u);
    EXPECT_EQ(log.takeLeveled(),
              "info|CBuffer putbuffer ReMalloc fail:\ninfo|CBuffer putbuffer ReMalloc fail:\n"
              "info| CBuffer resize ReMalloc fail:\ninfo| CBuffer reserve Malloc fail:\n"
              "info|CBuffer putbuffer ReMalloc fail:\n");
}

} // namespace

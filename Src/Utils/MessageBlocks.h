#ifndef INFRA_SRC_UTILS_MESSAGEBLOCKS_H
#define INFRA_SRC_UTILS_MESSAGEBLOCKS_H

// How MD5 and SHA-1 alike cut a message into blocks (the construction of Merkle and Damgard):
//
//     [64 bytes] [64 bytes] ... [rest | 1 bit | zeros | length of the message in bits, 8 bytes]
//
// `hashBlocks(data, blocks)` takes whole blocks into the digest.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tarsel
{
namespace Utils
{

constexpr size_t messageBlockSize = 64;

/// What waits for the rest of its block.
typedef uint8_t MessageBuffer[messageBlockSize];

/// Takes in `size` bytes behind the `used` ones of the buffer.
/// @return how much of the buffer is used now, less than a block
template <typename HashBlocks>
inline size_t appendToMessage(MessageBuffer& buffer, size_t used, const uint8_t* data, size_t size,
                              const HashBlocks& hashBlocks)
{
    if (used != 0) {
        const size_t room = messageBlockSize - used;
        if (size < room) {
            memcpy(buffer + used, data, size);
            return used + size;
        }
        memcpy(buffer + used, data, room);
        hashBlocks(buffer, 1);
        data += room;
        size -= room;
    }
    if (size >= messageBlockSize) {
        hashBlocks(data, size / messageBlockSize);
    }
    const size_t rest = size % messageBlockSize;
    if (rest != 0) {
        memcpy(buffer, data + (size - rest), rest);
    }
    return rest;
}

/// Ends the message. `bits` is its length in the order of bytes that the digest asks for.
template <typename HashBlocks>
inline void finishMessage(MessageBuffer& buffer, size_t used, uint64_t bits,
                          const HashBlocks& hashBlocks)
{
    constexpr size_t lengthAt = messageBlockSize - sizeof(bits);
    buffer[used++] = 0x80;
    if (used > lengthAt) {
        memset(buffer + used, 0, messageBlockSize - used);
        hashBlocks(buffer, 1);
        used = 0;
    }
    memset(buffer + used, 0, lengthAt - used);
    memcpy(buffer + lengthAt, &bits, sizeof(bits));
    hashBlocks(buffer, 1);
}

} // namespace Utils
} // namespace Tarsel

#endif

// AesTables.cpp: the engine for any processor.
//
// A round is four look-ups a column: one table holds what an S-box byte becomes in MixColumns, and
// its rotations serve the other three rows (4 x 1 KB in place of 1 KB would be a little faster, and
// leave more traces in the cache). The tables are computed by the compiler from the definition of
// the S-box: there is no first use to guard. Look-ups depend on key and data, as they do in any
// table-driven cipher: who shares a cache with an enemy needs a processor with the instructions.

#include <array>
#include <bit>
#include <cstring>

#include "Utils/Aes/AesEngine.h"

namespace Tarsel
{
namespace Utils
{
namespace AES
{
namespace
{

using ByteTable = std::array<uint8_t, 256>;
using WordTable = std::array<uint32_t, 256>;

constexpr uint8_t timesTwo(uint8_t x)
{
    return static_cast<uint8_t>((x << 1) ^ ((x >> 7) * 0x1B));
}

constexpr uint8_t times(uint8_t x, unsigned factor)
{
    uint8_t product = 0;
    for (; factor != 0; factor >>= 1, x = timesTwo(x)) {
        product ^= (factor & 1) != 0 ? x : 0;
    }
    return product;
}

/// The inverse in the field, then the affine map. 3 generates the field: p runs through its powers
/// and q through their inverses.
constexpr ByteTable makeSBox()
{
    ByteTable box = {};
    uint8_t p = 1;
    uint8_t q = 1;
    do {
        p = times(p, 3);
        q = times(q, 0xF6); // 1 / 3
        const unsigned twice = q * 0x0101u;
        box[p] = static_cast<uint8_t>(q ^ (twice >> 7) ^ (twice >> 6) ^ (twice >> 5) ^
                                      (twice >> 4) ^ 0x63);
    } while (p != 1);
    box[0] = 0x63;
    return box;
}

constexpr ByteTable inverseOf(const ByteTable& box)
{
    ByteTable inverse = {};
    for (unsigned x = 0; x < 256; ++x) {
        inverse[box[x]] = static_cast<uint8_t>(x);
    }
    return inverse;
}

/// A byte of the S-box in the first row of a column, times the first column of the mixing matrix.
constexpr WordTable makeMixTable(const ByteTable& box, const unsigned (&factors)[4])
{
    WordTable table = {};
    for (unsigned x = 0; x < 256; ++x) {
        for (unsigned row = 0; row < 4; ++row) {
            table[x] |= uint32_t{times(box[x], factors[row])} << (8 * row);
        }
    }
    return table;
}

constexpr ByteTable sBox = makeSBox();
constexpr ByteTable inverseSBox = inverseOf(sBox);
constexpr WordTable mixTable = makeMixTable(sBox, {2, 1, 1, 3});
constexpr WordTable inverseMixTable = makeMixTable(inverseSBox, {14, 9, 13, 11});
static_assert(sBox[0x53] == 0xED && inverseSBox[0xED] == 0x53 && sBox[0xFF] == 0x16);

uint8_t byteOf(uint32_t word, int row)
{
    return static_cast<uint8_t>(word >> (8 * row));
}

/// One column of a round; the rows come from the columns that ShiftRows takes them from.
uint32_t mixed(const WordTable& table, uint32_t row0, uint32_t row1, uint32_t row2, uint32_t row3)
{
    return table[byteOf(row0, 0)] ^ std::rotl(table[byteOf(row1, 1)], 8) ^
           std::rotl(table[byteOf(row2, 2)], 16) ^ std::rotl(table[byteOf(row3, 3)], 24);
}

/// One column of the last round, which does not mix.
uint32_t substituted(const ByteTable& box, uint32_t row0, uint32_t row1, uint32_t row2,
                     uint32_t row3)
{
    return box[byteOf(row0, 0)] | uint32_t{box[byteOf(row1, 1)]} << 8 |
           uint32_t{box[byteOf(row2, 2)]} << 16 | uint32_t{box[byteOf(row3, 3)]} << 24;
}

/// A block in four columns.
struct State
{
    uint32_t column[4];
};

/// `Step` is which column the second row comes from: 1 for ShiftRows, 3 for its inverse.
template <int Step>
void cryptBlock(const aes_context& ctx, const WordTable& table, const ByteTable& box,
                const uint8_t* in, uint8_t* out)
{
    const uint32_t* key = ctx.rk;
    State state;
    memcpy(&state, in, blockSize);
    for (uint32_t& column : state.column) {
        column ^= *key++;
    }
    for (int round = 1; round <= ctx.nr; ++round) {
        const State s = state;
        for (int c = 0; c < 4; ++c) {
            const uint32_t row1 = s.column[(c + Step) % 4];
            const uint32_t row2 = s.column[(c + 2) % 4];
            const uint32_t row3 = s.column[(c + 3 * Step) % 4];
            state.column[c] =
                *key++ ^ (round < ctx.nr ? mixed(table, s.column[c], row1, row2, row3)
                                         : substituted(box, s.column[c], row1, row2, row3));
        }
    }
    memcpy(out, &state, blockSize);
}

void encryptBlock(const aes_context& ctx, const uint8_t* in, uint8_t* out)
{
    cryptBlock<1>(ctx, mixTable, sBox, in, out);
}

void decryptBlock(const aes_context& ctx, const uint8_t* in, uint8_t* out)
{
    cryptBlock<3>(ctx, inverseMixTable, inverseSBox, in, out);
}

uint32_t subWord(uint32_t word)
{
    return substituted(sBox, word, word, word, word);
}

/// Words are little-endian: the first byte of the key is the lowest of its word.
void expandKey(uint32_t* words, size_t keyWords)
{
    const size_t count = (keyWords + 7) * 4;
    uint32_t roundConstant = 1;
    for (size_t i = keyWords; i < count; ++i) {
        uint32_t word = words[i - 1];
        if (i % keyWords == 0) {
            word = subWord(std::rotl(word, 24)) ^ roundConstant;
            roundConstant = nextRoundConstant(roundConstant);
        } else if (keyWords > 6 && i % keyWords == 4) {
            word = subWord(word);
        }
        words[i] = words[i - keyWords] ^ word;
    }
}

/// The decryption table undoes an S-box first, so that the S-box before it leaves InvMixColumns.
uint32_t inverseMixColumn(uint32_t word)
{
    const uint32_t s = subWord(word);
    return mixed(inverseMixTable, s, s, s, s);
}

void invertSchedule(const aes_context& encrypting, aes_context& decrypting)
{
    decrypting.nr = encrypting.nr;
    decrypting.rk = decrypting.buf;
    for (int round = 0; round <= encrypting.nr; ++round) {
        const uint32_t* const from = encrypting.rk + (encrypting.nr - round) * 4;
        const bool isMixed = round != 0 && round != encrypting.nr;
        for (int c = 0; c < 4; ++c) {
            decrypting.rk[round * 4 + c] = isMixed ? inverseMixColumn(from[c]) : from[c];
        }
    }
}

void ecbEncrypt(const aes_context& ctx, size_t blocks, const uint8_t* in, uint8_t* out)
{
    for (; blocks != 0; --blocks, in += blockSize, out += blockSize) {
        encryptBlock(ctx, in, out);
    }
}

void ecbDecrypt(const aes_context& ctx, size_t blocks, const uint8_t* in, uint8_t* out)
{
    for (; blocks != 0; --blocks, in += blockSize, out += blockSize) {
        decryptBlock(ctx, in, out);
    }
}

void cbcEncrypt(const aes_context& ctx, size_t blocks, uint8_t* iv, const uint8_t* in, uint8_t* out)
{
    for (; blocks != 0; --blocks, in += blockSize, out += blockSize) {
        xorBytes(iv, iv, in, blockSize);
        encryptBlock(ctx, iv, iv);
        memcpy(out, iv, blockSize);
    }
}

void cbcDecrypt(const aes_context& ctx, size_t blocks, uint8_t* iv, const uint8_t* in, uint8_t* out)
{
    for (; blocks != 0; --blocks, in += blockSize, out += blockSize) {
        uint8_t cipher[blockSize];
        memcpy(cipher, in, blockSize);
        decryptBlock(ctx, in, out);
        xorBytes(out, out, iv, blockSize);
        memcpy(iv, cipher, blockSize);
    }
}

template <bool Encrypts>
void cfb8(const aes_context& ctx, size_t size, uint8_t* iv, const uint8_t* in, uint8_t* out)
{
    uint8_t stream[blockSize];
    for (size_t i = 0; i < size; ++i) {
        encryptBlock(ctx, iv, stream);
        const uint8_t from = in[i];
        out[i] = from ^ stream[0];
        memmove(iv, iv + 1, blockSize - 1);
        iv[blockSize - 1] = Encrypts ? out[i] : from;
    }
    explicit_bzero(stream, sizeof(stream));
}

void cfb128Encrypt(const aes_context& ctx, size_t blocks, uint8_t* iv, const uint8_t* in,
                   uint8_t* out)
{
    for (; blocks != 0; --blocks, in += blockSize, out += blockSize) {
        encryptBlock(ctx, iv, iv);
        xorBytes(iv, iv, in, blockSize);
        memcpy(out, iv, blockSize);
    }
}

void cfb128Decrypt(const aes_context& ctx, size_t blocks, uint8_t* iv, const uint8_t* in,
                   uint8_t* out)
{
    uint8_t stream[blockSize];
    for (; blocks != 0; --blocks, in += blockSize, out += blockSize) {
        encryptBlock(ctx, iv, stream);
        memcpy(iv, in, blockSize);
        xorBytes(out, iv, stream, blockSize);
    }
    explicit_bzero(stream, sizeof(stream));
}

void ctr(const aes_context& ctx, size_t blocks, uint8_t* counter, uint8_t* stream,
         const uint8_t* in, uint8_t* out)
{
    for (; blocks != 0; --blocks, in += blockSize, out += blockSize) {
        encryptBlock(ctx, counter, stream);
        increment(counter);
        xorBytes(out, in, stream, blockSize);
    }
}

} // namespace

constinit const AesEngine tableEngine = {
    expandKey,   invertSchedule, ecbEncrypt,    ecbDecrypt, cbcEncrypt,   cbcDecrypt,   cfb8<true>,
    cfb8<false>, cfb128Encrypt,  cfb128Decrypt, ctr,        encryptBlock, decryptBlock,
};

} // namespace AES
} // namespace Utils
} // namespace Tarsel

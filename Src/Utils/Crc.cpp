// Crc.cpp: checksums by table, and the choice among the ways.
//
// Table `k` says what a byte becomes that `k` more bytes follow, so that eight look-ups that do not
// wait for each other take in eight bytes. Table 0 is the standard one. The compiler computes them.

#include "Utils/Crc.h"

#include <array>

#include "Infra3/CpuFeatures.h"
#include "Utils/CrcAlg.h"
#include "Utils/Words.h"

namespace Tarsel
{
namespace Utils
{
namespace CRC
{
namespace
{

constexpr size_t slices = 8;

template <typename Word>
using Tables = std::array<std::array<Word, 256>, slices>;

template <typename Word>
constexpr Tables<Word> makeTables(Word terms)
{
    Tables<Word> tables = {};
    for (unsigned byte = 0; byte < 256; ++byte) {
        Word crc = static_cast<Word>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<Word>((crc >> 1) ^ ((crc & 1) != 0 ? terms : 0));
        }
        tables[0][byte] = crc;
    }
    for (size_t slice = 1; slice < slices; ++slice) {
        for (unsigned byte = 0; byte < 256; ++byte) {
            const Word before = tables[slice - 1][byte];
            tables[slice][byte] = static_cast<Word>((before >> 8) ^ tables[0][before & 0xFF]);
        }
    }
    return tables;
}

constexpr Tables<uint16_t> crc16_table = makeTables<uint16_t>(Crc16::terms);
constexpr Tables<uint32_t> crc32_table = makeTables<uint32_t>(Crc32::terms);
static_assert(crc16_table[0][1] == 0xC0C1 && crc32_table[0][1] == 0x77073096);

/// Takes in eight bytes at a time, then one.
template <typename Word>
uint32_t run(const Tables<Word>& tables, uint32_t crc, const uint8_t* data, size_t length)
{
    for (; length >= slices; length -= slices, data += slices) {
        const uint64_t bytes = loadLittle<uint64_t>(data) ^ crc;
        crc = 0;
        for (size_t i = 0; i < slices; ++i) {
            crc ^= tables[slices - 1 - i][bytes >> (8 * i) & 0xFF];
        }
    }
    for (; length != 0; --length, ++data) {
        crc = (crc >> 8) ^ tables[0][(crc ^ *data) & 0xFF];
    }
    return crc;
}

using Infra::CpuFeature;
constexpr Infra::CCpuFeatureSet clmulNeeds = {CpuFeature::pclmul, CpuFeature::sse41};
constexpr Infra::CCpuFeatureSet vclmulNeeds = {CpuFeature::vpclmul, CpuFeature::avx2,
                                               CpuFeature::pclmul, CpuFeature::sse41};

constexpr Infra::CCpuFeatureSet wideNeeds = {CpuFeature::avx512, CpuFeature::vpclmul,
                                             CpuFeature::avx2, CpuFeature::pclmul,
                                             CpuFeature::sse41};

constexpr Infra::TImplementation<CrcRun> crc16Runs[] = {{crc16Wide, wideNeeds},
                                                        {crc16Vclmul, vclmulNeeds},
                                                        {crc16Clmul, clmulNeeds},
                                                        {crc16Tables, {}}};
constexpr Infra::TImplementation<CrcRun> crc32Runs[] = {{crc32Wide, wideNeeds},
                                                        {crc32Vclmul, vclmulNeeds},
                                                        {crc32Clmul, clmulNeeds},
                                                        {crc32Tables, {}}};

} // namespace

uint32_t crc16Tables(uint32_t crc, const uint8_t* data, size_t length)
{
    return run(crc16_table, crc ^ Crc16::inversion, data, length) ^ Crc16::inversion;
}

uint32_t crc32Tables(uint32_t crc, const uint8_t* data, size_t length)
{
    return run(crc32_table, crc ^ Crc32::inversion, data, length) ^ Crc32::inversion;
}

} // namespace CRC

uint16_t crc16(uint16_t crc, const uint8_t* buffer, size_t length)
{
    return static_cast<uint16_t>(chooseImplementation(CRC::crc16Runs)(crc, buffer, length));
}

uint32_t crc32(const uint8_t* buffer, size_t length)
{
    return crc32(0, buffer, length);
}

uint32_t crc32(uint32_t crc, const uint8_t* buffer, size_t length)
{
    return chooseImplementation(CRC::crc32Runs)(crc, buffer, length);
}

} // namespace Utils
} // namespace Tarsel

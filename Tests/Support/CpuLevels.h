#ifndef INFRA_TESTS_SUPPORT_CPULEVELS_H
#define INFRA_TESTS_SUPPORT_CPULEVELS_H

#include <cstddef>
#include <string>

#include <gtest/gtest.h>

#include "Infra3/CpuFeatures.h"

namespace Tarsel
{
namespace TestSupport
{

/// A kind of processor: what it lacks of what this one has.
struct CpuLevel
{
    const char* name;
    Infra::CCpuFeatureSet lacks;
};

using enum Infra::CpuFeature;

/// From all that this processor has down to nothing beyond x86-64. What a level changes:
///
/// | level        | AES        | SHA-1        | CRC             | Base64 | DES circuit | Texts    |
/// |--------------|------------|--------------|-----------------|--------|-------------|----------|
/// | all          | VAES       | instructions | 512 bits a step | AVX2   | 512 blocks  | AVX-512  |
/// | 256 bits     | VAES       | instructions | 256 bits        | AVX2   | 256 blocks  | AVX2     |
/// | but one ...  | AES-NI     | instructions | 128 bits        | AVX2   | 256 blocks  | AVX2     |
/// | 128 bits     | AES-NI     | instructions | 128 bits        | tables | none        | plain    |
/// | x86-64       | tables     | plain        | tables          | tables | none        | plain    |
///
/// On a processor that has less, levels repeat each other. MD5 is the same on all of them.
inline const CpuLevel cpuLevels[] = {
    {"all", {}},
    {"256 bits", {avx512, avx512vbmi2}},
    {"256 bits, but one block an instruction", {vaes, vpclmul, avx512, avx512vbmi2}},
    {"128 bits", {vaes, vpclmul, avx512, avx512vbmi2, avx2, avx}},
    {"x86-64",
     {vaes, vpclmul, avx512, avx512vbmi2, avx2, avx, aesni, pclmul, shani, bmi2, sse42, sse41,
      ssse3}},
};

/// The places in `cpuLevels` that differ in texts, for loops that have much to do.
inline constexpr size_t textLevels[] = {0, 1, 4};

/// Runs a body on each kind of processor.
template <typename Body>
void onEachCpuLevel(const Body& body)
{
    for (const CpuLevel& level : cpuLevels) {
        SCOPED_TRACE(std::string("processor: ") + level.name);
        const Infra::CHiddenCpuFeatures hidden(level.lacks);
        body();
    }
}

} // namespace TestSupport
} // namespace Tarsel

#endif

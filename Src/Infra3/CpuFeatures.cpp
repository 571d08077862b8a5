// CpuFeatures.cpp: the processor's own word (CPUID), and the system's on which registers it saves
// (XGETBV): a feature whose registers are lost at every task switch is not there.

#include "Infra3/CpuFeatures.h"

#include <cpuid.h>

#include "Infra3/AssertFront.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

struct CpuidAnswer
{
    unsigned eax, ebx, ecx, edx;
};

CpuidAnswer askProcessor(unsigned leaf)
{
    CpuidAnswer answer = {};
    __get_cpuid_count(leaf, 0, &answer.eax, &answer.ebx, &answer.ecx, &answer.edx);
    return answer;
}

constexpr unsigned osxsave = 1U << 27;
constexpr uint64_t ymmState = 0x6;
constexpr uint64_t zmmState = 0xE6;

/// Which register sets the system saves; none where it cannot be asked.
uint64_t savedState(const CpuidAnswer& basic)
{
    if ((basic.ecx & osxsave) == 0) {
        return 0;
    }
    unsigned low = 0;
    unsigned high = 0;
    __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return (static_cast<uint64_t>(high) << 32) | low;
}

CCpuFeatureSet featuresOf(const CpuidAnswer& basic)
{
    const CpuidAnswer extended = askProcessor(7);
    const CpuidAnswer vendor = askProcessor(0x80000001);
    const uint64_t saved = savedState(basic);
    const bool ymm = (saved & ymmState) == ymmState;
    const bool zmm = (saved & zmmState) == zmmState;
    constexpr unsigned avx512Bits = bit_AVX512F | bit_AVX512BW | bit_AVX512DQ | bit_AVX512VL;
    constexpr unsigned bmiBits = bit_BMI | bit_BMI2;
    constexpr unsigned vbmiBits = bit_AVX512VBMI | bit_AVX512VBMI2;

    CCpuFeatureSet features;
    const auto addIf = [&features](bool there, CpuFeature feature) {
        if (there) {
            features.add(feature);
        }
    };
    addIf((basic.ecx & bit_SSSE3) != 0, CpuFeature::ssse3);
    addIf((basic.ecx & bit_SSE4_1) != 0, CpuFeature::sse41);
    addIf((basic.ecx & bit_SSE4_2) != 0, CpuFeature::sse42);
    addIf((basic.ecx & bit_PCLMUL) != 0, CpuFeature::pclmul);
    addIf((basic.ecx & bit_AES) != 0, CpuFeature::aesni);
    addIf((extended.ebx & bit_SHA) != 0, CpuFeature::shani);
    addIf((extended.ebx & bmiBits) == bmiBits, CpuFeature::bmi2);
    addIf(ymm && (basic.ecx & bit_AVX) != 0, CpuFeature::avx);
    const bool popcnt = (basic.ecx & bit_POPCNT) != 0;
    addIf(ymm && popcnt && (extended.ebx & bit_AVX2) != 0, CpuFeature::avx2);
    addIf(ymm && (extended.ecx & bit_VAES) != 0, CpuFeature::vaes);
    addIf(ymm && (extended.ecx & bit_VPCLMULQDQ) != 0, CpuFeature::vpclmul);
    const bool avx512 = zmm && (extended.ebx & avx512Bits) == avx512Bits;
    addIf(avx512, CpuFeature::avx512);
    const bool vbmi = (extended.ecx & vbmiBits) == vbmiBits;
    const bool countsBits = (extended.ebx & bit_BMI) != 0 && (vendor.ecx & bit_LZCNT) != 0;
    addIf(avx512 && vbmi && countsBits, CpuFeature::avx512vbmi2);
    return features;
}

struct Asked
{
    CpuidAnswer basic;
    CCpuFeatureSet features;
};

const Asked& asked()
{
    static const Asked answers = [] {
        const CpuidAnswer basic = askProcessor(1);
        return Asked{basic, featuresOf(basic)};
    }();
    return answers;
}

} // namespace

namespace Detail
{

constinit std::atomic<CCpuFeatureSet> shownFeatures{CCpuFeatureSet()};

} // namespace Detail

namespace
{

void showAll()
{
    Detail::shownFeatures.store(asked().features, std::memory_order_relaxed);
}

/// Before anything else of the library is made.
[[gnu::constructor(101)]] void askAtLoad()
{
    showAll();
}

} // namespace

uint32_t basicFeatureWord()
{
    return asked().basic.ecx;
}

CHiddenCpuFeatures::CHiddenCpuFeatures(CCpuFeatureSet hidden)
{
    CCpuFeatureSet features = asked().features;
    INFRA_ASSERT(cpuFeatures().hasAll(features));
    features.remove(hidden);
    Detail::shownFeatures.store(features, std::memory_order_relaxed);
}

CHiddenCpuFeatures::~CHiddenCpuFeatures()
{
    showAll();
}

} // namespace Infra
} // namespace Tarsel

#ifndef INFRA_SRC_INFRA3_CPUFEATURES_H
#define INFRA_SRC_INFRA3_CPUFEATURES_H

// What the processor can do beyond the x86-64 baseline, asked while the library is loaded, and the
// one way to choose among implementations by it:
//
//     constexpr TImplementation<Sum> sums[] = {
//         {sumAvx2, {CpuFeature::avx2}},
//         {sumPlain, {}}, // the last one needs nothing
//     };
//     const Sum sum = chooseImplementation(sums);
//
// Choosing costs one load and a comparison or two, so it may be done at every call. A test runs
// every implementation on any machine that has the features, by hiding those that come before it
// (CHiddenCpuFeatures).

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace Tarsel
{
namespace Infra
{

/// A feature counts as there when the processor has it and the system saves its registers.
enum class CpuFeature : uint32_t
{
    ssse3,
    sse41,
    sse42,
    pclmul,
    aesni,
    shani,
    bmi2, ///< BMI1 too
    avx,
    avx2, ///< POPCNT too
    vaes,
    vpclmul,
    avx512,     ///< F, BW, DQ and VL together
    avx512vbmi2 ///< those, VBMI, VBMI2, BMI1 and LZCNT together
};

/// A set of features, one bit each.
class CCpuFeatureSet
{
public:
    constexpr CCpuFeatureSet() = default;
    constexpr CCpuFeatureSet(std::initializer_list<CpuFeature> features)
    {
        for (const CpuFeature feature : features) {
            add(feature);
        }
    }

    constexpr void add(CpuFeature feature) { m_bits |= bitOf(feature); }
    constexpr void remove(CCpuFeatureSet others) { m_bits &= ~others.m_bits; }
    constexpr bool has(CpuFeature feature) const { return (m_bits & bitOf(feature)) != 0; }
    constexpr bool hasAll(CCpuFeatureSet others) const
    {
        return (m_bits & others.m_bits) == others.m_bits;
    }

private:
    static constexpr uint32_t bitOf(CpuFeature feature)
    {
        return uint32_t{1} << static_cast<uint32_t>(feature);
    }

    uint32_t m_bits = 0;
};

namespace Detail
{

extern std::atomic<CCpuFeatureSet> shownFeatures;

} // namespace Detail

/// What this processor has, less what a test hides. Nothing before the library is loaded, which
/// every implementation that needs nothing can stand.
inline CCpuFeatureSet cpuFeatures()
{
    return Detail::shownFeatures.load(std::memory_order_relaxed);
}

/// The ECX word of the processor's identification, leaf 1, as it came; 0 without one.
uint32_t basicFeatureWord();

/// Hides features from cpuFeatures() while it lives; then all are shown again. For tests, one at a
/// time, which is asserted where the one before hides anything.
class CHiddenCpuFeatures
{
public:
    explicit CHiddenCpuFeatures(CCpuFeatureSet hidden);
    ~CHiddenCpuFeatures();
    CHiddenCpuFeatures(const CHiddenCpuFeatures&) = delete;
    CHiddenCpuFeatures& operator=(const CHiddenCpuFeatures&) = delete;
};

template <typename Function>
struct TImplementation
{
    Function* function;
    CCpuFeatureSet needs;
};

/// The first implementation whose needs are met. The last one of the table needs nothing.
template <typename Function, size_t Count>
Function* chooseImplementation(const TImplementation<Function> (&table)[Count])
{
    const CCpuFeatureSet there = cpuFeatures();
    size_t chosen = 0;
    while (chosen + 1 < Count && !there.hasAll(table[chosen].needs)) {
        ++chosen;
    }
    return table[chosen].function;
}

} // namespace Infra
} // namespace Tarsel

#endif

// What the processor can do, and choosing by it.

#include <gtest/gtest.h>

#include "Infra3/CpuFeatures.h"
#include "Support/ChildProcess.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

TEST(CpuFeaturesTest, AgreesWithTheCompilersOwnTable)
{
    const CCpuFeatureSet features = cpuFeatures();
    EXPECT_EQ(features.has(CpuFeature::ssse3), __builtin_cpu_supports("ssse3") != 0);
    EXPECT_EQ(features.has(CpuFeature::sse41), __builtin_cpu_supports("sse4.1") != 0);
    EXPECT_EQ(features.has(CpuFeature::sse42), __builtin_cpu_supports("sse4.2") != 0);
    EXPECT_EQ(features.has(CpuFeature::pclmul), __builtin_cpu_supports("pclmul") != 0);
    EXPECT_EQ(features.has(CpuFeature::aesni), __builtin_cpu_supports("aes") != 0);
    EXPECT_EQ(features.has(CpuFeature::bmi2),
              __builtin_cpu_supports("bmi") != 0 && __builtin_cpu_supports("bmi2") != 0);
    EXPECT_EQ(features.has(CpuFeature::avx), __builtin_cpu_supports("avx") != 0);
    EXPECT_EQ(features.has(CpuFeature::avx2), __builtin_cpu_supports("avx2") != 0);
    EXPECT_EQ(features.has(CpuFeature::avx512), __builtin_cpu_supports("avx512bw") != 0 &&
                                                    __builtin_cpu_supports("avx512dq") != 0 &&
                                                    __builtin_cpu_supports("avx512vl") != 0);
    EXPECT_EQ(features.has(CpuFeature::avx512vbmi2),
              features.has(CpuFeature::avx512) && __builtin_cpu_supports("avx512vbmi") != 0 &&
                  __builtin_cpu_supports("avx512vbmi2") != 0);
}

int best()
{
    return 3;
}

int better()
{
    return 2;
}

int plain()
{
    return 1;
}

TEST(CpuFeaturesTest, ATestCanForceEachImplementation)
{
    constexpr TImplementation<int()> table[] = {
        {best, {CpuFeature::ssse3, CpuFeature::sse42}}, {better, {CpuFeature::ssse3}}, {plain, {}}};
    if (!cpuFeatures().hasAll({CpuFeature::ssse3, CpuFeature::sse42})) {
        GTEST_SKIP() << "an old processor";
    }
    EXPECT_EQ(chooseImplementation(table)(), 3);
    {
        const CHiddenCpuFeatures hidden({CpuFeature::sse42});
        EXPECT_EQ(chooseImplementation(table)(), 2);
    }
    {
        const CHiddenCpuFeatures hidden({CpuFeature::ssse3});
        EXPECT_EQ(chooseImplementation(table)(), 1);
    }
    EXPECT_EQ(chooseImplementation(table)(), 3);
}

TEST(CpuFeaturesTest, HidingIsNotNested)
{
    const TestSupport::ChildResult child = TestSupport::runInChild([] {
        const CHiddenCpuFeatures outer(cpuFeatures());
        const CHiddenCpuFeatures inner({CpuFeature::avx2});
    });
    EXPECT_FALSE(child.succeeded());
    EXPECT_NE(child.report().find("cpuFeatures().hasAll(features)"), std::string::npos);
}

} // namespace
} // namespace Infra
} // namespace Tarsel

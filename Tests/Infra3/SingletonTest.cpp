#include "Infra3/Singleton.h"

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Support/ChildProcess.h"

namespace
{

using Tarsel::Infra::TSingleton;
using Tarsel::TestSupport::ChildResult;
using Tarsel::TestSupport::runInChild;

struct AsksForItself
{
    AsksForItself()
    {
        static bool s_asked = false;
        if (!s_asked) {
            s_asked = true;
            TSingleton<AsksForItself>::instance();
        }
    }
};

TEST(Singleton, OneThatIsMadeByItsOwnMakingEndsTheProcess)
{
    const ChildResult child = runInChild([] { TSingleton<AsksForItself>::instance(); });
    EXPECT_EQ(child.signal, SIGABRT) << child.report();
    EXPECT_THAT(child.errorOutput, testing::HasSubstr("made twice"));
}

} // namespace

// The headers of both interfaces in one file, the older ones first, with the namespaces open behind.

#include "Older/OlderHeaders.h"

#include "Older/NewerHeaders.h"

#include <gtest/gtest.h>

#include "Older/Twins.h"
#include "Support/ChildProcess.h"

namespace
{

using Tarsel::TestSupport::inChild;

using namespace Tarsel::Infra;  // NOLINT(google-build-using-namespace): applications do
using namespace Tarsel::Memory; // NOLINT(google-build-using-namespace)
using namespace Tarsel::Utils;  // NOLINT(google-build-using-namespace)

TEST(OlderTest, OpenNamespacesLeaveTheCommonRecordsOne)
{
    const SystemTime time = {2019, 3, 7, 0, 5, 4, 3, -1}; // the same entity by either way
    const FileHandle handle = nullptr;
    const FileInfo info = {};
    EXPECT_TRUE(::CTime(time) == ::CTime(2019, 3, 7, 5, 4, 3));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(info.size, 0U);
    inChild([] { EXPECT_TRUE(twinsAgree()); }); // which makes the managers
    EXPECT_TRUE(characterSetsStandTwice());
}

} // namespace

// The headers of both interfaces in one file, the newer ones first, with the namespaces open before
// the older ones come.

#include "Older/NewerHeaders.h"

using namespace Tarsel::Infra;  // NOLINT(google-build-using-namespace): applications do
using namespace Tarsel::Memory; // NOLINT(google-build-using-namespace)
using namespace Tarsel::Utils;  // NOLINT(google-build-using-namespace)

#include "Older/OlderHeaders.h"

#include <gtest/gtest.h>

#include "Older/Twins.h"
#include "Support/ChildProcess.h"

namespace
{

using Tarsel::TestSupport::inChild;

TEST(OlderTest, OpenNamespacesDoNotDisturbTheOlderHeaders)
{
    inChild([] { EXPECT_TRUE(twinsAgree()); }); // which makes the managers
    EXPECT_TRUE(characterSetsStandTwice());
}

} // namespace

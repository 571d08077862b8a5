// The headers of both interfaces in one file, the older ones first, with the namespaces open.

#include "Infra/CheckIncludeVersion.h"
#include "Infra/File.h"
#include "Infra/Function.h"
#include "Infra/MemPool.h"
#include "Infra/Mutex.h"
#include "Infra/Packet.h"
#include "Infra/Semaphore.h"
#include "Infra/Support.h"
#include "Infra/Thread.h"
#include "Infra/Time.h"
#include "Infra/Timer.h"
#include "Infra/Unicode.h"
#include "Infra/Version.h"

#include "Infra/Infra3/File.h"
#include "Infra/Infra3/FileFind.h"
#include "Infra/Infra3/Function.h"
#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/Signal.h"
#include "Infra/Infra3/String.h"
#include "Infra/Infra3/SystemCall.h"
#include "Infra/Infra3/Thread.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Timer.h"
#include "Infra/Infra3/Version.h"
#include "Memory/MemPool.h"
#include "Memory/Packet.h"
#include "Memory/PacketManager.h"
#include "Utils/Math.h"
#include "Utils/Nls.h"
#include "Utils/String.h"

#include <gtest/gtest.h>

#include "Older/Twins.h"

namespace
{

using namespace Tarsel::Infra;  // NOLINT(google-build-using-namespace): applications do
using namespace Tarsel::Memory; // NOLINT(google-build-using-namespace)

TEST(OlderTest, OpenNamespacesLeaveTheCommonRecordsOne)
{
    const SystemTime time = {2019, 3, 7, 0, 5, 4, 3, -1}; // the same entity by either way
    const FileHandle handle = nullptr;
    const FileInfo info = {};
    EXPECT_TRUE(::CTime(time) == ::CTime(2019, 3, 7, 5, 4, 3));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(info.size, 0U);
    EXPECT_TRUE(twinsAgree());
}

} // namespace

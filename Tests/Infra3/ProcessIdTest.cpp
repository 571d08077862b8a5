#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Infra3/ProcessId.h"

using Tarsel::Infra::currentProcessId;

namespace
{

TEST(ProcessId, IsRightInTheChildOfAForkThatNobodySees)
{
    EXPECT_EQ(currentProcessId(), getpid());
    const pid_t child = static_cast<pid_t>(syscall(SYS_fork));
    if (child == 0) {
        const pid_t asked = currentProcessId();
        const pid_t remembered = currentProcessId();
        _exit(asked == getpid() && remembered == getpid() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(currentProcessId(), getpid());
}

} // namespace

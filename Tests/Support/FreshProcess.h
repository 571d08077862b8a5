#ifndef INFRA_TESTS_SUPPORT_FRESHPROCESS_H
#define INFRA_TESTS_SUPPORT_FRESHPROCESS_H

#include <cstdlib>

#include "gtest/gtest.h"

/// Runs `body` in a process that has done nothing else before, for what is process-wide and cannot
/// be undone. Expectations of the body count as the test's.
#define INFRA_IN_FRESH_PROCESS(body)                                                               \
    do {                                                                                           \
        GTEST_FLAG_SET(death_test_style, "threadsafe");                                            \
        EXPECT_EXIT((body(), std::exit(::testing::Test::HasFailure() ? 1 : 0)),                    \
                    ::testing::ExitedWithCode(0), "");                                             \
    } while (false)

#endif

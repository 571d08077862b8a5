#ifndef INFRA_TESTS_SUPPORT_EVENTUALLY_H
#define INFRA_TESTS_SUPPORT_EVENTUALLY_H

#include <chrono>
#include <thread>

namespace Tarsel
{
namespace TestSupport
{

/// Waits until `condition()` holds; false when it does not within 20 seconds. The wait of all
/// tests: a condition with a deadline, never a sleep alone.
template <typename Condition>
bool eventually(const Condition& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace TestSupport
} // namespace Tarsel

#endif

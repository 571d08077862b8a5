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

/// True when `condition()` still holds after 50 ms: time enough for a thread that does not wait as
/// it should. One that does wait can never make it false.
template <typename Condition>
bool staysSo(const Condition& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    while (condition() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

} // namespace TestSupport
} // namespace Tarsel

#endif

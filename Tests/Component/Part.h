#ifndef INFRA_TESTS_COMPONENT_PART_H
#define INFRA_TESTS_COMPONENT_PART_H

// The components of these tests.

#include <atomic>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "Component/ComponentInternal.h"
#include "Component/Unknown.h"

namespace Tarsel
{
namespace TestSupport
{

/// A component of interface `Base` that counts how many were made and how many are there.
template <typename Base>
class TCounted : public Base
{
public:
    template <typename... A>
    explicit TCounted(A&&... arguments) : Base(std::forward<A>(arguments)...)
    {
        ++s_made;
        ++s_alive;
    }
    ~TCounted() override { --s_alive; }
    void destroy() override { delete this; }
    Infra::CVersion getVersion() override { return {"part", 1, 0, 0, "1", "Nov 23 2026"}; }

    static inline std::atomic<int> s_made{0};
    static inline std::atomic<int> s_alive{0};
};

typedef TCounted<Component::IUnknown> CPart;

/// Everything that decides about hand-outs of an object.
struct Counts
{
    int references;
    int64_t isUsing;
    bool operator==(const Counts&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const Counts& counts)
    {
        return out << "{references " << counts.references << ", isUsing " << counts.isUsing << "}";
    }
};

inline Counts countsOf(Component::IUnknown* object)
{
    const Component::IUnknown::UnknownInternal& internal = *object->IUnknown::m_internal;
    return {internal.refCount.value(), internal.isUsing.load()};
}

/// Runs `body(number)` on each of `count` threads at once.
inline void onThreads(int count, const std::function<void(int)>& body)
{
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace TestSupport
} // namespace Tarsel

#endif

#ifndef INFRA_TESTS_SUPPORT_KNOWNSTACK_H
#define INFRA_TESTS_SUPPORT_KNOWNSTACK_H

#include <limits.h>
#include <pthread.h>

#include <algorithm>
#include <functional>

#include "Support/Bytes.h"

namespace Tarsel
{
namespace TestSupport
{

/// A stack that can be looked through after a thread has run on it. Whoever runs off its end dies.
class CKnownStack
{
public:
    explicit CKnownStack(size_t size) : m_memory(size)
    {
        std::fill(m_memory.begin(), m_memory.end(), paint);
    }

    /// Runs `body` on a thread of this stack; false when that could not be made.
    bool run(std::function<void()> body)
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        const size_t size = static_cast<size_t>(m_memory.end() - m_memory.begin());
        pthread_attr_setstack(&attributes, m_memory.begin(), size);
        pthread_t thread = {};
        const bool isMade = pthread_create(&thread, &attributes, enter, &body) == 0;
        pthread_attr_destroy(&attributes);
        return isMade && pthread_join(thread, nullptr) == 0;
    }

    /// Whether `bytes` were left somewhere on it.
    bool holds(const Bytes& bytes) const
    {
        return std::search(m_memory.begin(), m_memory.end(), bytes.begin(), bytes.end()) !=
               m_memory.end();
    }

private:
    static constexpr uint8_t paint = 0xA5;

    static void* enter(void* body)
    {
        (*static_cast<std::function<void()>*>(body))();
        return nullptr;
    }

    CGuardedBytes m_memory;
};

} // namespace TestSupport
} // namespace Tarsel

#endif

#ifndef INFRA_TESTS_SUPPORT_KNOWNSTACK_H
#define INFRA_TESTS_SUPPORT_KNOWNSTACK_H

#include <limits.h>
#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <unordered_map>

#include "Support/Bytes.h"

namespace Tarsel
{
namespace TestSupport
{

/// What is not to stay in memory, in words of 32 bits: that is how registers are spilled, with the
/// bytes in either order.
class CSecretWords
{
public:
    /// `kind` lives as long as this does.
    void add(const char* kind, uint32_t word)
    {
        m_kinds[word] = kind;
        m_kinds[__builtin_bswap32(word)] = kind;
    }
    void add(const char* kind, uint64_t words)
    {
        add(kind, static_cast<uint32_t>(words >> 32));
        add(kind, static_cast<uint32_t>(words));
    }
    /// A multiple of four bytes.
    void add(const char* kind, const uint8_t* bytes, size_t size)
    {
        for (size_t at = 0; at < size; at += 4) {
            add(kind, wordAt(bytes + at));
        }
    }
    /// The kinds of what is found, at any address.
    std::string foundIn(const uint8_t* begin, const uint8_t* end) const
    {
        std::set<std::string> found;
        for (; end - begin >= 4; ++begin) {
            const auto secret = m_kinds.find(wordAt(begin));
            if (secret != m_kinds.end()) {
                found.insert(secret->second);
            }
        }
        std::string all;
        for (const std::string& kind : found) {
            all += kind + "; ";
        }
        return all;
    }

private:
    static uint32_t wordAt(const uint8_t* bytes)
    {
        uint32_t word = 0;
        memcpy(&word, bytes, sizeof(word));
        return word;
    }

    std::unordered_map<uint32_t, const char*> m_kinds;
};

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

    /// Which kinds of secrets were left somewhere on it.
    std::string holds(const CSecretWords& secrets) const
    {
        return secrets.foundIn(m_memory.begin(), m_memory.end());
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

#ifndef INFRA_TESTS_SUPPORT_BYTES_H
#define INFRA_TESTS_SUPPORT_BYTES_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace Tarsel
{
namespace TestSupport
{

using Bytes = std::vector<uint8_t>;

inline Bytes fromHex(const std::string& text)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::string toHex(const uint8_t* bytes, size_t size)
{
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", bytes[i]);
        text += digits;
    }
    return text;
}

inline std::string toHex(const Bytes& bytes)
{
    return toHex(bytes.data(), bytes.size());
}

inline Bytes ofText(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

/// `size` bytes from `at` on.
inline Bytes part(const Bytes& bytes, size_t at, size_t size)
{
    return Bytes(bytes.data() + at, bytes.data() + at + size);
}

/// The same bytes in every run.
class CRandom
{
public:
    Bytes bytes(size_t size)
    {
        Bytes made(size);
        for (uint8_t& byte : made) {
            byte = static_cast<uint8_t>(m_engine());
        }
        return made;
    }
    /// 0 to `bound` - 1.
    size_t below(size_t bound) { return m_engine() % bound; }

private:
    std::mt19937 m_engine;
};

/// Memory between two pages that cannot be touched: whoever reads or writes outside of it dies.
class CGuardedBytes
{
public:
    explicit CGuardedBytes(size_t size)
        : m_page(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
          m_inner((size + m_page - 1) / m_page * m_page),
          m_memory(static_cast<uint8_t*>(
              mmap(nullptr, m_inner + 2 * m_page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        mprotect(m_memory + m_page, m_inner, PROT_READ | PROT_WRITE);
    }
    ~CGuardedBytes() { munmap(m_memory, m_inner + 2 * m_page); }
    CGuardedBytes(const CGuardedBytes&) = delete;
    CGuardedBytes& operator=(const CGuardedBytes&) = delete;

    uint8_t* begin() const { return m_memory + m_page; }
    uint8_t* end() const { return begin() + m_inner; }
    /// A copy that ends where the memory does.
    template <typename T>
    uint8_t* putLast(const T& bytes) const
    {
        uint8_t* const first = end() - bytes.size();
        std::copy(bytes.begin(), bytes.end(), first);
        return first;
    }

private:
    size_t m_page;
    size_t m_inner;
    uint8_t* m_memory;
};

} // namespace TestSupport
} // namespace Tarsel

#endif

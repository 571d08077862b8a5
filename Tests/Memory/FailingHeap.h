#ifndef INFRA_TESTS_MEMORY_FAILINGHEAP_H
#define INFRA_TESTS_MEMORY_FAILINGHEAP_H

#include <cstddef>

namespace Tarsel
{
namespace TestSupport
{

/// While it lives, every `malloc`, `calloc` and `realloc` of this program for exactly `bytes` bytes
/// fails. `new` is not meant. One at a time.
class CFailingHeap
{
public:
    explicit CFailingHeap(size_t bytes);
    ~CFailingHeap();
    CFailingHeap(const CFailingHeap&) = delete;
    CFailingHeap& operator=(const CFailingHeap&) = delete;
};

} // namespace TestSupport
} // namespace Tarsel

#endif

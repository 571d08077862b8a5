#ifndef INFRA_TESTS_SUPPORT_FAILINGTHREADS_H
#define INFRA_TESTS_SUPPORT_FAILINGTHREADS_H

namespace Tarsel
{
namespace TestSupport
{

/// While it lives, every pthread_create of the process fails with EAGAIN, as it does on a machine
/// that has run out of threads.
class CFailingThreads
{
public:
    CFailingThreads();
    ~CFailingThreads();
    CFailingThreads(const CFailingThreads&) = delete;
    CFailingThreads& operator=(const CFailingThreads&) = delete;
};

} // namespace TestSupport
} // namespace Tarsel

#endif

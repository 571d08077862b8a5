// FailingThreads.cpp: the system call seam for threads. The linker sends every call of
// pthread_create in this program here (--wrap).

#include "Support/FailingThreads.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace
{

std::atomic<int> s_failing{0};

} // namespace

extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attribute,
                                     void* (*body)(void*), void* argument);

extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attribute,
                                     void* (*body)(void*), void* argument)
{
    return s_failing != 0 ? EAGAIN : __real_pthread_create(thread, attribute, body, argument);
}

namespace Tarsel
{
namespace TestSupport
{

CFailingThreads::CFailingThreads()
{
    ++s_failing;
}

CFailingThreads::~CFailingThreads()
{
    --s_failing;
}

} // namespace TestSupport
} // namespace Tarsel

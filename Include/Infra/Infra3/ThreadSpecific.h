#ifndef INFRA_INFRA3_THREADSPECIFIC_H
#define INFRA_INFRA3_THREADSPECIFIC_H

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

struct ThreadSpecificInternal;

/// A slot in which every thread keeps a pointer of its own.
///
/// Behaviour: a thread that stored nothing reads null. Nothing is freed when a thread ends. The
/// system has about a thousand such slots for a process: a slot that could not be had is not
/// `valid`, and both accessors then return false.
/// Threads: safe from any thread.
/// Ownership: what the pointers point to belongs to the caller.
class INFRA_API CThreadSpecific
{
public:
    CThreadSpecific();
    ~CThreadSpecific();

    /// True when the slot exists.
    bool valid();
    /// Stores the calling thread's pointer in `*value`; false, and nothing stored, when not valid.
    bool getValue(void** value);
    /// Sets the calling thread's pointer; false when not valid or the system refuses.
    bool setValue(const void* value);

private:
    CThreadSpecific(const CThreadSpecific&);
    CThreadSpecific& operator=(const CThreadSpecific&);

    ThreadSpecificInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif

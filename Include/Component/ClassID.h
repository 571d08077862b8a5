#ifndef INFRA_COMPONENT_CLASSID_H
#define INFRA_COMPONENT_CLASSID_H

#include <cstring>
#include <string>
#include <vector>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/String.h"

namespace Tarsel
{
namespace Component
{

/// The name of a class of components, as a text that belongs to somebody else and has to live as
/// long as this value is used.
///
/// Behaviour: compared by content; null is the empty name. The name of a client class may carry a
/// suffix: "Device.Talk" is class "Device".
struct INFRA_API ClassID
{
    constexpr ClassID(const char* str) noexcept
        : m_str(str) {} // NOLINT(google-explicit-constructor)

    /// The names of all classes that were ever registered for interface `iid`, in ascending byte
    /// order; empty for an interface that is not known.
    static std::vector<std::string> getClassIDs(const char* iid);

    /// "Local". A client factory of that name makes a new client each time it is asked for one; what
    /// looks for a client before that, as components of a server do, may find one of them.
    static const ClassID local;

    const char* m_str;
};

inline bool operator==(const ClassID& a, const ClassID& b)
{
    return std::strcmp(a.m_str == nullptr ? "" : a.m_str, b.m_str == nullptr ? "" : b.m_str) == 0;
}
inline bool operator!=(const ClassID& a, const ClassID& b)
{
    return !(a == b);
}

struct ClassIDListInternal;

/// The class names of an interface as they were when the list was made.
class INFRA_API ClassIDList
{
public:
    explicit ClassIDList(const char* iid);
    ~ClassIDList();
    ClassIDList(const ClassIDList&) = delete;
    ClassIDList& operator=(const ClassIDList&) = delete;

    int count() const;
    /// A copy of one name. An index outside of the list ends the process.
    Infra::CString operator[](int index) const;

private:
    ClassIDListInternal* m_internal;
};

} // namespace Component
} // namespace Tarsel

#endif

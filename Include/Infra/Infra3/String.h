#ifndef INFRA_INFRA3_STRING_H
#define INFRA_INFRA3_STRING_H

#include <memory>
#include <string>

#include "Infra/Infra3/Detail/FlexString.h"
#include "Infra/Infra3/Detail/SmallStringOpt.h"
#include "Infra/Infra3/Detail/StandardString.h"
#include "Infra/Infra3/Detail/StringStorage.h"

namespace Tarsel
{
namespace Infra
{

/// The string of the library's interfaces: thread names, class identifiers and the like.
///
/// Behaviour: a standard string (see flex_string) of 32 bytes. Up to 31 characters live in the
/// object and are copied without touching the heap; a longer text moves to a block of exactly its
/// length and stays on the heap from then on. Threads: one thread at a time; many may read.
///
///     CString name = "worker";
///     name += '-' + CString("7");
///     printf("%s\n", name.c_str());
typedef flex_string<char, std::char_traits<char>, std::allocator<char>,
                    SmallStringOpt<AllocatorStringStorage<char, std::allocator<char>>, 31, char*>>
    CString;

/// A string of one pointer, for records with many fields that are mostly empty: null then.
typedef flex_string<char, std::char_traits<char>, std::allocator<char>,
                    MiniStringStorage<char, std::allocator<char>>>
    CMiniString;

static_assert(sizeof(CString) == 32 && alignof(CString) == alignof(char*), "a fixed layout");
static_assert(sizeof(CMiniString) == sizeof(char*), "a fixed layout");

} // namespace Infra
} // namespace Tarsel

#endif

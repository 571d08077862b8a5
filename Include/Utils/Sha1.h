#ifndef INFRA_UTILS_SHA1_H
#define INFRA_UTILS_SHA1_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Utils
{

struct Sha1Internal;

/// SHA-1 (FIPS 180), for formats and peers that need it. It is broken as a protection against
/// deliberate changes.
///
/// Behaviour: after final() or hex() the digest can be read again; the next update() with data
/// starts a new message. Threads: one thread at a time.
class INFRA_API CSha1
{
public:
    CSha1();
    ~CSha1();

    /// Adds `size` bytes to the message. Null or 0 changes nothing.
    void update(const uint8_t* data, size_t size);
    /// Completes the digest and writes its 20 bytes.
    /// @param len  room in `hash`; less than 20, like a null `hash`, is logged and changes nothing
    void final(uint8_t* hash, size_t len);
    /// Completes the digest and writes it as 40 lower-case hexadecimal characters, with a NUL
    /// behind them where there is room for one.
    /// @param len  room in `str`; less than 40, like a null `str`, is logged and changes nothing
    void hex(char* str, size_t len);

private:
    CSha1(const CSha1&);
    CSha1& operator=(const CSha1&);

    Sha1Internal* m_internal;
};

} // namespace Utils
} // namespace Tarsel

#endif

#ifndef INFRA_UTILS_MD5_H
#define INFRA_UTILS_MD5_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Utils
{

struct Md5Internal;

/// MD5 (RFC 1321), for checksums that others compute too. It is broken as a protection against
/// deliberate changes.
///
/// Behaviour: after final() or hex() the digest can be read again; the next update() with data
/// starts a new message. Threads: one thread at a time.
///
///     CMd5 md5;
///     md5.update(bytes, count);
///     char text[33] = {};
///     md5.hex(text);
class INFRA_API CMd5
{
public:
    CMd5();
    ~CMd5();

    /// Forgets everything: as if just constructed.
    void init();
    /// Adds `size` bytes to the message. Null or 0 changes nothing.
    void update(const uint8_t* data, size_t size);
    /// Completes the digest and writes its 16 bytes. Null is logged.
    void final(uint8_t* digest);
    /// Completes the digest and writes it as 32 lower-case hexadecimal characters, without a NUL
    /// behind them. Null is logged.
    void hex(char* hash);

private:
    CMd5(const CMd5&);
    CMd5& operator=(const CMd5&);

    Md5Internal* m_internal;
};

} // namespace Utils
} // namespace Tarsel

#endif

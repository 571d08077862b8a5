// DumpHex.cpp: bytes as text through the log. Every piece is a log call of its own, so that each
// row gets one prefix and no row is limited by a buffer.

#include <algorithm>

#include "Infra/Infra3/PrintLog.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr int rowBytes = 16;
/// A blank row follows every so many bytes.
constexpr int blockBytes = 512;

#define DUMP(...) logLibName(logLevelTrace, "Infra", __VA_ARGS__)

char shownCharacter(uint8_t byte)
{
    return byte >= 0x20 && byte <= 0x7A ? static_cast<char>(byte) : '.';
}

void dumpRow(const uint8_t* row, int count)
{
    DUMP("%p: ", static_cast<const void*>(row));
    for (int i = 0; i < count; ++i) {
        DUMP("%02x ", row[i]);
    }
    for (int i = count; i < rowBytes; ++i) {
        DUMP("   ");
    }
    DUMP("  ");
    for (int i = 0; i < count; ++i) {
        DUMP("%c", shownCharacter(row[i]));
    }
    DUMP("\n");
}

#undef DUMP

} // namespace

void dumpHex(uint8_t* pdat, size_t length)
{
    const int count = static_cast<int>(static_cast<uint32_t>(length));
    if (pdat == nullptr || logLevelTrace > getPrintLogLevel()) {
        return;
    }
    for (int64_t offset = 0; offset < count; offset += rowBytes) {
        dumpRow(pdat + offset, static_cast<int>(std::min<int64_t>(rowBytes, count - offset)));
        const bool fullRow = offset + rowBytes <= count;
        if (fullRow && offset % blockBytes == blockBytes - rowBytes) {
            logLibName(logLevelTrace, "Infra", "\n");
        }
    }
}

} // namespace Infra
} // namespace Tarsel

void DumpHex(unsigned char* pdat, unsigned long length)
{
    Tarsel::Infra::dumpHex(pdat, length);
}

// Reads and writes times by arbitrary texts: a mask, the format up to a NUL, then the text to read.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra/Infra3/Time.h"

namespace
{

// One character of a format text becomes a whole number at most.
constexpr size_t longestPiece = 12;

void expect(bool kept)
{
    if (!kept) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Infra_openLog = CLOSE_LOG;
    if (size == 0) {
        return 0;
    }
    const int mask = data[0];
    const char* const begin = reinterpret_cast<const char*>(data) + 1;
    const std::string format(begin, strnlen(begin, size - 1));
    const std::string text(begin + format.size(), size - 1 - format.size());

    Tarsel::Infra::CTime time;
    if (time.parse(text.c_str() + (text.empty() ? 0 : 1), format.c_str(), mask)) {
        expect(time.hour >= 0 && time.hour < 24 && time.minute >= 0 && time.minute < 60);
        expect(time.second >= 0 && time.second < 60);
    }
    std::vector<char> written(format.size() * longestPiece + 1, '?');
    time.format(written.data(), format.c_str(), mask);
    expect(strnlen(written.data(), written.size()) < written.size());
    return 0;
}

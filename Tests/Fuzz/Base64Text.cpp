// Decodes arbitrary text, into exactly as much room as it says it takes, with vectors, without, and
// in place; and encodes arbitrary bytes and decodes them again.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Infra3/CpuFeatures.h"
#include "Utils/Base64.h"

namespace
{

using namespace Tarsel::Utils;
using Tarsel::Infra::CHiddenCpuFeatures;
using enum Tarsel::Infra::CpuFeature;

void expect(bool kept)
{
    if (!kept) {
        std::abort();
    }
}

std::vector<char> decoded(const char* text)
{
    std::vector<char> plain(base64DecodeLenEx(text), '#');
    const size_t size = base64DecodeEx(plain.data(), text);
    expect(size < plain.size() && plain[size] == '\0');
    plain.resize(size);
    return plain;
}

void checkText(const char* text)
{
    const size_t n =
        strspn(text, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
    expect(base64DecodeLenEx(text) == (n + 3) / 4 * 3 + 1);
    const std::vector<char> plain = decoded(text);
    expect(plain.size() == n / 4 * 3 + (n % 4 == 0 ? 0 : n % 4 - 1));
    {
        const CHiddenCpuFeatures tablesOnly({avx2});
        expect(decoded(text) == plain);
    }
    std::vector<char> inPlace(text, text + strlen(text) + 1);
    inPlace.resize(std::max(inPlace.size(), base64DecodeLenEx(text)));
    expect(base64DecodeEx(inPlace.data(), inPlace.data()) == plain.size());
    expect(memcmp(inPlace.data(), plain.data(), plain.size()) == 0);
}

void checkBytes(const char* bytes, size_t size)
{
    std::vector<char> text(base64EncodeLenEx(size));
    expect(base64EncodeEx(text.data(), bytes, size) == text.size());
    const std::vector<char> plain = decoded(text.data());
    expect(plain.size() == size && (size == 0 || memcmp(plain.data(), bytes, size) == 0));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<char> bytes(data, data + size);
    checkBytes(bytes.data(), size);
    const std::string text(bytes.begin(), bytes.end());
    const std::vector<char> exact(text.c_str(), text.c_str() + strlen(text.c_str()) + 1);
    checkText(exact.data());
    return 0;
}

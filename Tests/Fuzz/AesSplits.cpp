// AES in arbitrary pieces: on any kind of processor, in place or not, a message comes out as the
// tables compute it in one call, and back again.
//
// The first byte says mode, key length and processor, then come key and IV, then what is enciphered;
// each byte of it that begins a piece says how long the piece is.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra3/CpuFeatures.h"
#include "Utils/Aes.h"

namespace
{

using Tarsel::Infra::CCpuFeatureSet;
using Tarsel::Infra::CHiddenCpuFeatures;
using Tarsel::Utils::CAes;
using enum Tarsel::Infra::CpuFeature;
using Bytes = std::vector<uint8_t>;

const CCpuFeatureSet lacks[] = {{}, {vaes}, {vaes, aesni}};

void expect(bool kept)
{
    if (!kept) {
        std::abort();
    }
}

struct Message
{
    CAes::EncMode mode;
    CAes::KeyBits bits;
    const uint8_t* key;
    const uint8_t* iv;
    size_t unit;

    Bytes whole(bool encrypts, const Bytes& input) const
    {
        CAes cipher(mode, key, bits, iv);
        Bytes output(input.size());
        expect(run(cipher, encrypts, output.data(), input.data(), input.size()));
        return output;
    }
    /// Pieces of their own, each as large as what it holds; every other one in place.
    Bytes inPieces(bool encrypts, const Bytes& input) const
    {
        CAes cipher(mode, key, bits, iv);
        Bytes output;
        for (size_t done = 0; done < input.size();) {
            const size_t size = std::min(input.size() - done, (input[done] + size_t{1}) * unit);
            Bytes piece(input.begin() + static_cast<ptrdiff_t>(done),
                        input.begin() + static_cast<ptrdiff_t>(done + size));
            Bytes other(size);
            uint8_t* const target = size % 2 == 0 ? piece.data() : other.data();
            expect(run(cipher, encrypts, target, piece.data(), size));
            output.insert(output.end(), target, target + size);
            done += size;
        }
        return output;
    }
    static bool run(CAes& cipher, bool encrypts, uint8_t* dst, const uint8_t* src, size_t size)
    {
        return encrypts ? cipher.encrypt(dst, src, size) : cipher.decrypt(dst, src, size);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Infra_openLog = CLOSE_LOG;
    constexpr size_t head = 1 + 32 + 16;
    if (size < head) {
        return 0;
    }
    const CAes::EncMode mode = static_cast<CAes::EncMode>(data[0] % 5);
    const int bits = 128 + 64 * (data[0] / 5 % 3);
    const size_t unit = mode == CAes::MODE_ECB || mode == CAes::MODE_CBC ? 16 : 1;
    const Message message = {mode, static_cast<CAes::KeyBits>(bits), data + 1, data + 33, unit};
    const Bytes input(data + head, data + head + (size - head) / unit * unit);

    Bytes encrypted;
    Bytes decrypted;
    {
        const CHiddenCpuFeatures tablesOnly({vaes, aesni});
        encrypted = message.whole(true, input);
        decrypted = message.whole(false, input);
        expect(message.whole(false, encrypted) == input);
    }
    const CHiddenCpuFeatures hidden(lacks[data[0] / 15 % 3]);
    expect(message.whole(true, input) == encrypted);
    expect(message.inPieces(true, input) == encrypted);
    expect(message.whole(false, input) == decrypted);
    expect(message.inPieces(false, input) == decrypted);
    return 0;
}

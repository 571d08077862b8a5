// Digest FILE...: MD5, SHA-1 and CRC-32 of files, read once and piece by piece; and with --base64
// FILE the whole file as Base64.
//
//     $ printf abc >three; Digest three
//     900150983cd24fb0d6963f7d28e17f72  a9993e364706816aba3e25717850c26c9cd0d89d  352441c2  three
//
// Digests and checksums like these find accidental changes. They do not prove that nobody meant a
// change.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <Infra/Infra3/File.h>
#include <Utils/Base64.h>
#include <Utils/Crc.h>
#include <Utils/Md5.h>
#include <Utils/Sha1.h>

namespace
{

using Tarsel::Infra::CFile;

/// Calls take(bytes, count) for each piece of a file; false, said, where it cannot be read.
template <typename Take>
bool readPieces(const char* path, const Take& take)
{
    CFile file;
    if (!file.open(path, CFile::modeRead)) {
        fprintf(stderr, "Digest: cannot open %s\n", path);
        return false;
    }
    std::vector<uint8_t> piece(size_t{64} << 10);
    for (;;) {
        const long count = file.read(piece.data(), piece.size());
        if (count < 0) {
            fprintf(stderr, "Digest: cannot read %s\n", path);
            return false;
        }
        if (count == 0) {
            return true;
        }
        take(piece.data(), static_cast<size_t>(count));
    }
}

bool printDigests(const char* path)
{
    Tarsel::Utils::CMd5 md5;
    Tarsel::Utils::CSha1 sha1;
    uint32_t crc = 0;
    const bool isRead = readPieces(path, [&](const uint8_t* bytes, size_t count) {
        md5.update(bytes, count);
        sha1.update(bytes, count);
        crc = Tarsel::Utils::crc32(crc, bytes, count);
    });
    if (isRead) {
        char md5Text[33] = {}; // hex() leaves the NUL to us
        char sha1Text[41];
        md5.hex(md5Text);
        sha1.hex(sha1Text, sizeof(sha1Text));
        printf("%s  %s  %08x  %s\n", md5Text, sha1Text, crc, path);
    }
    return isRead;
}

bool printBase64(const char* path)
{
    std::string bytes;
    const bool isRead = readPieces(path, [&](const uint8_t* piece, size_t count) {
        bytes.append(reinterpret_cast<const char*>(piece), count);
    });
    if (isRead) {
        std::vector<char> text(Tarsel::Utils::base64EncodeLenEx(bytes.size()));
        Tarsel::Utils::base64EncodeEx(text.data(), bytes.data(), bytes.size());
        printf("%s\n", text.data());
    }
    return isRead;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "--base64") == 0) {
        return printBase64(argv[2]) ? 0 : 1;
    }
    if (argc < 2) {
        fprintf(stderr, "Digest FILE... | Digest --base64 FILE\n");
        return 2;
    }
    bool isAllRead = true;
    for (int i = 1; i < argc; ++i) {
        isAllRead = printDigests(argv[i]) && isAllRead;
    }
    return isAllRead ? 0 : 1;
}

// Recode FROM TO SOURCE TARGET: converts a text file from one character set to another.
//
//     $ Recode cp1251 utf-8 old.txt new.txt
//
// Sets: utf-8, ucs-2 and ucs-4 (units of 16 and 32 bits in this machine's order, without a mark; ucs-4
// as source only), cp936, cp1252, and the single-byte pages cp1250, cp1251, cp862, cp874, iso8859-1 to
// -10 and -13 to -16.
//
// Everything goes through UTF-8. Ends with 1 when the file cannot be read or written, or when a part of
// the text has no place in the target's set; what could be converted is written all the same.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <Infra/Infra3/File.h>
#include <Utils/Nls.h>

namespace
{

namespace Utils = Tarsel::Utils;
using Tarsel::Infra::CFile;

struct Page
{
    const char* name;
    int (*toUtf8)(uint8_t* dst, int& dstLen, const uint8_t* src, int& srcLen);
    int (*toByte)(uint16_t uni, uint8_t* out, int boundlen);
};

#define PAGE(NAME, P)                                                                              \
    {                                                                                              \
        NAME, Utils::P##_to_utf8, Utils::P##_uni2char                                              \
    }

const Page pages[] = {
    PAGE("cp1250", cp1250),         PAGE("cp1251", cp1251),         PAGE("cp862", cp862),
    PAGE("cp874", cp874),           PAGE("iso8859-1", iso8859_1),   PAGE("iso8859-2", iso8859_2),
    PAGE("iso8859-3", iso8859_3),   PAGE("iso8859-4", iso8859_4),   PAGE("iso8859-5", iso8859_5),
    PAGE("iso8859-6", iso8859_6),   PAGE("iso8859-7", iso8859_7),   PAGE("iso8859-8", iso8859_8),
    PAGE("iso8859-9", iso8859_9),   PAGE("iso8859-10", iso8859_10), PAGE("iso8859-13", iso8859_13),
    PAGE("iso8859-14", iso8859_14), PAGE("iso8859-15", iso8859_15), PAGE("iso8859-16", iso8859_16),
};

const Page* findPage(const std::string& name)
{
    for (const Page& page : pages) {
        if (name == page.name) {
            return &page;
        }
    }
    return nullptr;
}

uint8_t* bytesOf(std::string& text)
{
    return reinterpret_cast<uint8_t*>(&text[0]);
}

int sizeOf(const std::string& text)
{
    return static_cast<int>(text.size());
}

/// The text's units, with a 0 behind them.
std::vector<uint16_t> unitsOf(std::string& utf8)
{
    std::vector<uint16_t> units(utf8.size() + 1);
    const int count = Utils::utf8_mbstowcs(units.data(), bytesOf(utf8), sizeOf(utf8));
    units.resize(static_cast<size_t>(count) + 1);
    units.back() = 0;
    return units;
}

/// False when the set is not known.
bool toUtf8(const std::string& set, std::string source, std::string& utf8)
{
    utf8.assign(source.size() * 3 + 1, '\0'); // three bytes are the most that a byte or unit gives
    int written = sizeOf(utf8);
    int used = sizeOf(source);
    if (set == "utf-8") {
        utf8 = source;
        written = sizeOf(source);
    } else if (set == "ucs-2") {
        std::vector<uint16_t> units(source.size() / 2 + 1);
        memcpy(units.data(), source.data(), source.size() / 2 * 2);
        written = Utils::utf8_wcstombs(bytesOf(utf8), units.data(), sizeOf(utf8));
    } else if (set == "ucs-4") {
        written = Utils::UCS4ToUtf8(&source[0], used, bytesOf(utf8), sizeOf(utf8));
    } else if (set == "cp936") {
        written = Utils::Gb2312TUtf8(&source[0], bytesOf(utf8), sizeOf(utf8));
    } else if (set == "cp1252") {
        // Asked without a target, it says how much it needs.
        written = Utils::cp1252_to_utf8(nullptr, 0, bytesOf(source), used);
        Utils::cp1252_to_utf8(bytesOf(utf8), written, bytesOf(source), used);
    } else if (const Page* const page = findPage(set)) {
        page->toUtf8(bytesOf(utf8), written, bytesOf(source), used);
    } else {
        return false;
    }
    utf8.resize(static_cast<size_t>(written));
    return true;
}

/// The bytes of those characters that have one.
std::string encode(const Page& page, const std::vector<uint16_t>& units)
{
    std::string bytes;
    for (const uint16_t unit : units) {
        uint8_t byte = 0;
        if (page.toByte(unit, &byte, 1) == 1) {
            bytes += static_cast<char>(byte);
        }
    }
    return bytes;
}

/// False when the set is not known. `isWhole` says whether all characters have a place in it.
bool fromUtf8(const std::string& set, std::string utf8, std::string& target, bool& isWhole)
{
    const std::vector<uint16_t> units = unitsOf(utf8);
    const size_t count = units.size() - 1;
    target.assign(utf8.size() + 1, '\0');
    isWhole = true;
    if (set == "utf-8") {
        target = utf8;
    } else if (set == "ucs-2") {
        target.assign(reinterpret_cast<const char*>(units.data()), count * sizeof(units[0]));
    } else if (set == "cp936") {
        isWhole = Utils::utf8TGb2312(bytesOf(utf8), &target[0], sizeOf(utf8), sizeOf(target)) ==
                  static_cast<int>(count);
        target.resize(strlen(target.c_str()));
    } else if (set == "cp1252") {
        const int written =
            Utils::utf8_to_cp1252(bytesOf(utf8), sizeOf(utf8), bytesOf(target), sizeOf(target));
        target.resize(static_cast<size_t>(written));
        isWhole = target.size() == count;
    } else if (const Page* const page = findPage(set)) {
        target = encode(*page, units);
        isWhole = target.size() == count;
    } else {
        return false;
    }
    return true;
}

bool readFile(const char* path, std::string& bytes)
{
    CFile file;
    if (!file.open(path, CFile::modeRead)) {
        return false;
    }
    char piece[65536];
    long count = 0;
    while ((count = file.read(piece, sizeof(piece))) > 0) {
        bytes.append(piece, static_cast<size_t>(count));
    }
    return count == 0;
}

/// What the disk had no room for shows in the file's size only.
bool writeFile(const char* path, std::string& bytes)
{
    CFile file;
    if (!file.open(path, CFile::modeWrite)) {
        return false;
    }
    file.write(&bytes[0], bytes.size());
    file.flush();
    Tarsel::Infra::FileInfo info = {};
    return CFile::stat(path, info) && info.size == bytes.size();
}

int fail(const char* what, const char* which)
{
    fprintf(stderr, "Recode: %s %s\n", what, which);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5) {
        fprintf(stderr, "Recode FROM TO SOURCE TARGET\n");
        return 2;
    }
    std::string source;
    std::string utf8;
    std::string target;
    bool isWhole = false;
    if (!readFile(argv[3], source)) {
        return fail("cannot read", argv[3]);
    }
    if (!source.empty() && !toUtf8(argv[1], source, utf8)) {
        return fail("no such set to read:", argv[1]);
    }
    if (!fromUtf8(argv[2], utf8, target, isWhole)) {
        return fail("no such set to write:", argv[2]);
    }
    if (!writeFile(argv[4], target)) {
        return fail("cannot write", argv[4]);
    }
    return isWhole ? 0 : fail("there are characters that it has not:", argv[2]);
}

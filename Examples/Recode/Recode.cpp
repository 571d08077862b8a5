// Recode FROM TO SOURCE TARGET: converts a text file from one character set to another.
//
//     $ Recode cp1251 utf-8 old.txt new.txt
//
// Sets: utf-8, ucs-2 and ucs-4 (units of 16 and 32 bits in this machine's order, without a mark; ucs-4
// as source only), cp936, cp1252, and the single-byte pages cp1250, cp1251, cp862, cp874, iso8859-1 to
// -10 and -13 to -16.
//
// Each character is read into UTF-8 and written from it by itself, so that none is lost unnoticed: the
// functions for whole texts leave out what they cannot convert, or stop there. Ends with 1 when the
// file cannot be read or written, or when a part of it is no character of its set, or has no place in
// the target's; all the others are written all the same.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <Infra/Infra3/File.h>
#include <Utils/Nls.h>

namespace
{

namespace Utils = Tarsel::Utils;
using Tarsel::Infra::CFile;

/// In UTF-8.
struct Character
{
    uint8_t bytes[6];
    int length; ///< 0: it is none
};

struct CharacterSet
{
    const char* name;
    /// Reads the first of at most `left` bytes, and returns how many it takes, or takes up.
    int (*read)(const uint8_t* from, int left, Character& character);
    /// Returns the bytes written, 6 at most; below 1 when the set has none for it. Null where
    /// nothing can be written.
    int (*write)(const Character& character, uint8_t* to);
};

// --- units ----------------------------------------------------------------------------------------

void fromUnit(uint16_t unit, Character& character)
{
    character.length = Utils::utf8_wctomb(character.bytes, unit, sizeof(character.bytes));
}

/// False for a character above U+FFFF.
bool toUnit(const Character& character, uint16_t& unit)
{
    return character.length <= 3 &&
           Utils::utf8_mbtowc(&unit, character.bytes, character.length) > 0;
}

int readUcs2(const uint8_t* from, int left, Character& character)
{
    uint16_t unit = 0;
    if (left < static_cast<int>(sizeof(unit))) {
        return left;
    }
    memcpy(&unit, from, sizeof(unit));
    fromUnit(unit, character);
    return sizeof(unit);
}

int writeUcs2(const Character& character, uint8_t* to)
{
    uint16_t unit = 0;
    if (!toUnit(character, unit)) {
        return 0;
    }
    memcpy(to, &unit, sizeof(unit));
    return sizeof(unit);
}

int readUcs4(const uint8_t* from, int left, Character& character)
{
    char value[4];
    if (left < static_cast<int>(sizeof(value))) {
        return left;
    }
    memcpy(value, from, sizeof(value));
    character.length = Utils::UCS4ToUtf8(value, sizeof(value), character.bytes, 6);
    return sizeof(value);
}

// --- sets of bytes --------------------------------------------------------------------------------

int readUtf8(const uint8_t* from, int left, Character& character)
{
    uint16_t unit = 0;
    const int length = Utils::utf8_mbtowc(&unit, from, left);
    if (length < 0) {
        return 1;
    }
    memcpy(character.bytes, from, static_cast<size_t>(length));
    character.length = length;
    return length;
}

int writeUtf8(const Character& character, uint8_t* to)
{
    memcpy(to, character.bytes, static_cast<size_t>(character.length));
    return character.length;
}

int read1252(const uint8_t* from, int, Character& character)
{
    Utils::cp1252_to_utf8(character.bytes, sizeof(character.bytes), from, 1);
    const bool isUndefined = *from != 0 && character.bytes[0] == 0;
    character.length = isUndefined ? 0 : Utils::cp1252_to_utf8(nullptr, 0, from, 1);
    return 1;
}

int write1252(const Character& character, uint8_t* to)
{
    return Utils::utf8_to_cp1252(character.bytes, character.length, to, 1);
}

/// By one of the library's functions for single characters, to which NUL may be none.
template <Utils::char2uni_t* char2uni>
int readPage(const uint8_t* from, int left, Character& character)
{
    uint16_t unit = 0;
    const int used = *from == 0 ? 1 : char2uni(from, left, &unit);
    if (used > 0) {
        fromUnit(unit, character);
        return used;
    }
    // Of a pair that is no character the second byte stays if it is ASCII.
    return char2uni == Utils::char2uni && from[1] >= 0x80 ? 2 : 1;
}

template <int (*uni2char)(uint16_t uni, uint8_t* out, int boundlen)>
int writePage(const Character& character, uint8_t* to)
{
    uint16_t unit = 0;
    if (!toUnit(character, unit)) {
        return 0;
    }
    *to = 0;
    return unit == 0 ? 1 : uni2char(unit, to, 2);
}

#define PAGE(P) {#P, readPage<Utils::P##_char2uni>, writePage<Utils::P##_uni2char>},

const CharacterSet sets[] = {{"utf-8", readUtf8, writeUtf8},
                             {"ucs-2", readUcs2, writeUcs2},
                             {"ucs-4", readUcs4, nullptr},
                             {"cp936", readPage<Utils::char2uni>, writePage<Utils::uni2char>},
                             {"cp1252", read1252, write1252},
                             INFRA_NLS_CODE_PAGES(PAGE)};

const CharacterSet* findSet(const std::string& name)
{
    for (const CharacterSet& set : sets) {
        std::string known = set.name;
        std::replace(known.begin(), known.end(), '_', '-'); // iso8859_1
        if (name == known) {
            return &set;
        }
    }
    return nullptr;
}

/// False when a part of the text was left out.
bool convert(const CharacterSet& from, const CharacterSet& to, const std::string& source,
             std::string& target)
{
    constexpr size_t longest = sizeof(Character::bytes);
    const uint8_t* const bytes = reinterpret_cast<const uint8_t*>(source.data());
    bool isWhole = true;
    for (size_t at = 0; at < source.size();) {
        Character character = {};
        uint8_t written[longest];
        const int left = static_cast<int>(std::min(source.size() - at, longest));
        at += static_cast<size_t>(from.read(bytes + at, left, character));
        const int length = character.length > 0 ? to.write(character, written) : 0;
        isWhole = isWhole && length > 0;
        target.append(reinterpret_cast<const char*>(written),
                      static_cast<size_t>(std::max(length, 0)));
    }
    return isWhole;
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
    const CharacterSet* const from = findSet(argv[1]);
    const CharacterSet* const to = findSet(argv[2]);
    std::string source;
    std::string target;
    if (from == nullptr) {
        return fail("no such set to read:", argv[1]);
    }
    if (to == nullptr || to->write == nullptr) {
        return fail("no such set to write:", argv[2]);
    }
    if (!readFile(argv[3], source)) {
        return fail("cannot read", argv[3]);
    }
    const bool isWhole = convert(*from, *to, source, target);
    if (!writeFile(argv[4], target)) {
        return fail("cannot write", argv[4]);
    }
    return isWhole ? 0 : fail("left out what is no character there, or in", argv[2]);
}

// MessageFormat.cpp: a printf for the conversions that log messages are made of.
//
// The system's vsnprintf sets up a stream and walks tables for every conversion; that was half the
// price of a log line. Nearly all messages use %s, %c, %p and whole numbers, with a width or the
// flags '0' and '-' at most. Those are written here. A format with anything else (precision,
// floating point, %m, %n, the flags that depend on the locale, ...) goes to vsnprintf from its very
// first character on, so there is no second opinion about what printf means.

#include "Infra3/MessageFormat.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Infra3/BoundedText.h"
#include "Infra3/TextWriter.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

static_assert(sizeof(long) == 8 && sizeof(long long) == 8 && sizeof(size_t) == 8);

/// What stands between a '%' and its letter, and the letter, as far as that is plain.
struct Conversion
{
    bool toLeft;   ///< '-'
    bool zeros;    ///< '0'
    bool longSize; ///< l, ll or z: 64 bits, all of them
    size_t width;
    char letter;
};

/// Writes what is converted, filled up to the width.
class CConversionWriter
{
public:
    CConversionWriter(CTextWriter& out, const Conversion& conversion)
        : m_out(out), m_conversion(conversion)
    {}

    void text(std::string_view piece)
    {
        const size_t fill = fillOf(piece.size());
        m_out.fill(' ', m_conversion.toLeft ? 0 : fill);
        m_out.text(piece);
        m_out.fill(' ', m_conversion.toLeft ? fill : 0);
    }

    void decimal(uint64_t value, std::string_view sign)
    {
        number(sign, decimalLength(value), [=](char* end) { writeDecimalBefore(end, value); });
    }

    void hexadecimal(uint64_t value, std::string_view prefix, const char* alphabet)
    {
        number(prefix, hexadecimalLength(value),
               [=](char* end) { writeHexadecimalBefore(end, value, alphabet); });
    }

private:
    /// Zeros go between sign and digits, blanks around both.
    template <typename Write>
    void number(std::string_view sign, size_t length, const Write& writeBefore)
    {
        const size_t fill = fillOf(sign.size() + length);
        const bool zeros = m_conversion.zeros && !m_conversion.toLeft;
        m_out.fill(' ', zeros || m_conversion.toLeft ? 0 : fill);
        for (const char character : sign) {
            m_out.character(character);
        }
        m_out.fill('0', zeros ? fill : 0);
        m_out.digits(length, writeBefore);
        m_out.fill(' ', m_conversion.toLeft ? fill : 0);
    }

    size_t fillOf(size_t length) const
    {
        return m_conversion.width > length ? m_conversion.width - length : 0;
    }

    CTextWriter& m_out;
    const Conversion& m_conversion;
};

/// The list of arguments, taken from front to back.
class CArguments
{
public:
    explicit CArguments(va_list arguments) { va_copy(m_arguments, arguments); }
    ~CArguments() { va_end(m_arguments); }
    CArguments(const CArguments&) = delete;
    CArguments& operator=(const CArguments&) = delete;

    template <typename T>
    T take()
    {
        return va_arg(m_arguments, T);
    }
    int64_t takeSigned(bool longSize) { return longSize ? take<int64_t>() : take<int>(); }
    uint64_t takeUnsigned(bool longSize) { return longSize ? take<uint64_t>() : take<unsigned>(); }

private:
    va_list m_arguments;
};

/// Reads what stands behind a '%' and returns its end.
const char* readConversion(const char* in, Conversion& conversion)
{
    for (; *in == '-' || *in == '0'; ++in) {
        (*in == '-' ? conversion.toLeft : conversion.zeros) = true;
    }
    // Two digits of width are plenty; what follows them is no letter of ours then.
    for (int digit = 0; digit < 2 && isDigit(*in); ++digit) {
        conversion.width = conversion.width * 10 + static_cast<size_t>(*in++ - '0');
    }
    if (*in == 'z') {
        conversion.longSize = true;
        ++in;
    } else {
        for (int letter = 0; letter < 2 && *in == 'l'; ++letter) {
            conversion.longSize = true;
            ++in;
        }
    }
    conversion.letter = *in;
    return in + (*in == '\0' ? 0 : 1);
}

/// For texts and pointers there is no size, and zeros mean nothing.
bool isPlain(const Conversion& conversion)
{
    return !conversion.longSize && !conversion.zeros;
}

bool writeSigned(CConversionWriter& out, int64_t value)
{
    const auto size = static_cast<uint64_t>(value);
    out.decimal(value < 0 ? 0 - size : size, value < 0 ? "-" : "");
    return true;
}

bool writePointer(CConversionWriter& out, const void* pointer)
{
    if (pointer == nullptr) {
        out.text("(nil)");
    } else {
        out.hexadecimal(reinterpret_cast<uintptr_t>(pointer), "0x", "0123456789abcdef");
    }
    return true;
}

/// False where the conversion is not plain.
bool writeConversion(CTextWriter& text, const Conversion& conversion, CArguments& arguments)
{
    CConversionWriter out(text, conversion);
    switch (conversion.letter) {
    case 'd':
    case 'i':
        return writeSigned(out, arguments.takeSigned(conversion.longSize));
    case 'u':
        out.decimal(arguments.takeUnsigned(conversion.longSize), "");
        return true;
    case 'x':
        out.hexadecimal(arguments.takeUnsigned(conversion.longSize), "", "0123456789abcdef");
        return true;
    case 'X':
        out.hexadecimal(arguments.takeUnsigned(conversion.longSize), "", "0123456789ABCDEF");
        return true;
    case 's':
        if (isPlain(conversion)) {
            out.text(shownText(arguments.take<const char*>()));
            return true;
        }
        return false;
    case 'c':
        if (isPlain(conversion)) {
            const char character = static_cast<char>(arguments.take<int>());
            out.text({&character, 1});
            return true;
        }
        return false;
    case 'p':
        return isPlain(conversion) && writePointer(out, arguments.take<const void*>());
    default:
        return false;
    }
}

/// False where there is more in the format than plain conversions.
bool writeMessage(CTextWriter& out, const char* format, CArguments& arguments)
{
    for (const char* in = format;;) {
        const char* const percent = strchrnul(in, '%');
        out.text({in, static_cast<size_t>(percent - in)});
        if (*percent == '\0') {
            return true;
        }
        in = percent + 1;
        if (*in == '%') {
            out.character(*in++);
            continue;
        }
        Conversion conversion = {};
        in = readConversion(in, conversion);
        if (!writeConversion(out, conversion, arguments)) {
            return false;
        }
    }
}

} // namespace

int formatMessage(char* buffer, size_t room, const char* format, va_list arguments)
{
    CTextWriter out(buffer, room);
    CArguments own(arguments);
    if (!writeMessage(out, format, own) || out.wholeLength() > INT_MAX) {
        return vsnprintf(buffer, room, format, arguments);
    }
    out.finish();
    return static_cast<int>(out.wholeLength());
}

} // namespace Infra
} // namespace Tarsel

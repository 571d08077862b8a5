// String.cpp: bounded copying and formatting, and dotted IPv4 text.
//
// The bounded functions keep the results of the standard functions that they stand for (the filling
// with NULs, the bound as result), so that callers can change over; what those leave undefined,
// such as an array of no size or a null text, is defined here.

#include "Utils/String.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Infra3/BoundedText.h"
#include "Infra3/Digits.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Utils
{
namespace
{

using Infra::isDigit;
using Infra::textOrEmpty;

unsigned char lowerCase(unsigned char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

bool isBlank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Reads one number as "%d" does, blanks and a sign before it included, and moves `text` behind it.
/// A long one wraps, where sscanf would be undefined. False where there is no number.
bool readNumber(const char*& text, uint32_t& number)
{
    const char* at = text;
    while (isBlank(*at)) {
        ++at;
    }
    const bool isNegative = *at == '-';
    if (*at == '-' || *at == '+') {
        ++at;
    }
    if (!isDigit(*at)) {
        return false;
    }
    uint32_t value = 0;
    for (; isDigit(*at); ++at) {
        value = value * 10 + static_cast<uint32_t>(*at - '0');
    }
    number = isNegative ? 0 - value : value;
    text = at;
    return true;
}

/// How many of four numbers with points between them `text` begins with.
int readNumbers(const char* text, uint32_t (&numbers)[4])
{
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && *text++ != '.') {
            return i;
        }
        if (!readNumber(text, numbers[i])) {
            return i;
        }
    }
    return 4;
}

} // namespace

size_t strncpy(char* dst, size_t dstBufLen, const char* src, size_t srcCopyCount)
{
    if (dst == nullptr || dstBufLen == 0) {
        return 0;
    }
    const size_t bound = std::min(dstBufLen - 1, srcCopyCount);
    const size_t length = strnlen(textOrEmpty(src), bound);
    memcpy(dst, textOrEmpty(src), length);
    memset(dst + length, 0, bound - length + 1);
    return length;
}

size_t strncat(char* dest, size_t dstBufLen, const char* src, size_t srcCopyCount)
{
    const size_t used = dest == nullptr ? 0 : strnlen(dest, dstBufLen);
    if (dest == nullptr || used == dstBufLen) {
        return 0;
    }
    const size_t bound = std::min(dstBufLen - used - 1, srcCopyCount);
    const size_t length = strnlen(textOrEmpty(src), bound);
    memcpy(dest + used, textOrEmpty(src), length);
    dest[used + length] = '\0';
    return bound;
}

int snprintf_x(char* buf, int maxlen, const char* fmt, ...)
{
    if (buf == nullptr || maxlen < 1) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, fmt);
    const int length = vsnprintf(buf, static_cast<size_t>(maxlen), textOrEmpty(fmt), arguments);
    va_end(arguments);
    return length < 0 ? 0 : static_cast<int>(strlen(buf));
}

int stricmp(const char* a, const char* b)
{
    const char* left = textOrEmpty(a);
    const char* right = textOrEmpty(b);
    for (;; ++left, ++right) {
        const unsigned char l = lowerCase(static_cast<unsigned char>(*left));
        const unsigned char r = lowerCase(static_cast<unsigned char>(*right));
        if (l != r || l == '\0') {
            return l - r;
        }
    }
}

IpAddress stringToIp(const char* str)
{
    uint32_t numbers[4] = {};
    if (readNumbers(textOrEmpty(str), numbers) < 4) {
        INFRA_LOG_WARN("param str %s is invalid\n", Infra::shownText(str));
    }
    IpAddress ip = {};
    for (int i = 0; i < 4; ++i) {
        ip.bytes[3 - i] = static_cast<uint8_t>(numbers[i]);
    }
    return ip;
}

char* ipToString(IpAddress ip, char* buf, size_t len)
{
    const int size = static_cast<int>(std::min(len, static_cast<size_t>(INT_MAX)));
    snprintf_x(buf, size, "%d.%d.%d.%d", ip.bytes[3], ip.bytes[2], ip.bytes[1], ip.bytes[0]);
    return buf;
}

} // namespace Utils
} // namespace Tarsel

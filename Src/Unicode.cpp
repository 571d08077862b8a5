// Unicode.cpp: the character-set functions of the older interface, which are those of Utils/Nls.h.

#include "Infra/Unicode.h"

#include "Utils/Nls.h"

namespace Utils = Tarsel::Utils;

int utf8_to_cp1252(const uint8_t* utf8buf, int utf8buflen, uint8_t* cp1252buf, int cp1252buflen)
{
    return Utils::utf8_to_cp1252(utf8buf, utf8buflen, cp1252buf, cp1252buflen);
}

int cp1252_to_utf8(uint8_t* utf8buf, int utf8buflen, const uint8_t* cp1252buf, int cp1252buflen)
{
    return Utils::cp1252_to_utf8(utf8buf, utf8buflen, cp1252buf, cp1252buflen);
}

uint16_t GetUnicodeFromUtf8(const char* pch, int* pn)
{
    return Utils::GetUnicodeFromUtf8(pch, pn);
}

int utf8_wcstombs(uint8_t* s, const uint16_t* pwcs, int maxlen)
{
    return Utils::utf8_wcstombs(s, pwcs, maxlen);
}

int utf8_wctomb(uint8_t* s, uint16_t wc, int maxlen)
{
    return Utils::utf8_wctomb(s, wc, maxlen);
}

int utf8_mbstowcs(uint16_t* pwcs, const uint8_t* s, int n)
{
    return Utils::utf8_mbstowcs(pwcs, s, n);
}

int utf8_mbtowc(uint16_t* p, const uint8_t* s, int n)
{
    return Utils::utf8_mbtowc(p, s, n);
}

int char2uni(const uint8_t* rawstring, int boundlen, uint16_t* uni)
{
    return Utils::char2uni(rawstring, boundlen, uni);
}

int uni2char(uint16_t uni, uint8_t* out, int boundlen)
{
    return Utils::uni2char(uni, out, boundlen);
}

int UniTGb2312(unsigned short* pUnicode, int nUnicLen, char* pStr, int nStrLen)
{
    return Utils::UniTGb2312(pUnicode, nUnicLen, pStr, nStrLen);
}

int Gb2312ToUni(char* pSource, unsigned short* pTag, int nLenTag)
{
    return Utils::Gb2312ToUni(pSource, pTag, nLenTag);
}

int utf8TGb2312(uint8_t* putf8, char* pStr, int nUtf8Len, int nStrLen)
{
    return Utils::utf8TGb2312(putf8, pStr, nUtf8Len, nStrLen);
}

int Gb2312TUtf8(char* pSource, uint8_t* pUtf8, int nUtf8Len)
{
    return Utils::Gb2312TUtf8(pSource, pUtf8, nUtf8Len);
}

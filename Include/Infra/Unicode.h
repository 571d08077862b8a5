#ifndef INFRA_UNICODE_H
#define INFRA_UNICODE_H

// The character-set functions of the older interface. Each is the one of its name in
// Tarsel::Utils, where its promise stands.

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

INFRA_API int utf8_to_cp1252(const uint8_t* utf8buf, int utf8buflen, uint8_t* cp1252buf,
                             int cp1252buflen);
INFRA_API int cp1252_to_utf8(uint8_t* utf8buf, int utf8buflen, const uint8_t* cp1252buf,
                             int cp1252buflen);
INFRA_API uint16_t GetUnicodeFromUtf8(const char* pch, int* pn);
INFRA_API int utf8_wcstombs(uint8_t* s, const uint16_t* pwcs, int maxlen);
INFRA_API int utf8_wctomb(uint8_t* s, uint16_t wc, int maxlen);
INFRA_API int utf8_mbstowcs(uint16_t* pwcs, const uint8_t* s, int n);
INFRA_API int utf8_mbtowc(uint16_t* p, const uint8_t* s, int n);
INFRA_API int char2uni(const uint8_t* rawstring, int boundlen, uint16_t* uni);
INFRA_API int uni2char(uint16_t uni, uint8_t* out, int boundlen);
INFRA_API int UniTGb2312(unsigned short* pUnicode, int nUnicLen, char* pStr, int nStrLen);
INFRA_API int Gb2312ToUni(char* pSource, unsigned short* pTag, int nLenTag);
INFRA_API int utf8TGb2312(uint8_t* putf8, char* pStr, int nUtf8Len, int nStrLen);
INFRA_API int Gb2312TUtf8(char* pSource, uint8_t* pUtf8, int nUtf8Len);

#endif

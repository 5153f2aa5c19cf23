// Reference models of the text checks and conversions, used by the unit tests
// and the fuzzers: the checks byte by byte, straight from their rules, and a
// conversion made by a direct iconv call on a converter opened for it.
#ifndef MORBASE_TEXT_ORACLE_H
#define MORBASE_TEXT_ORACLE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <iconv.h>
#include <string>

namespace qeltest::oracle {

// The class of a byte, from the table's ranges.
inline int text_class(unsigned b)
{
    if ((b >= 0x07 && b <= 0x0A) || b == 0x0C || b == 0x0D || b == 0x1B || (b >= 0x20 && b <= 0x7E) ||
        b == 0x85)
        return 1;
    if (b >= 0xA0)
        return 2;
    if (b >= 0x80)
        return 3;
    return 0;
}

inline int is_ascii(const unsigned char *p, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        if (p[i] >= 0x80 || text_class(p[i]) == 0)
            return 0;
    return 1;
}

inline int is_utf8(const unsigned char *p, size_t n)
{
    int result = 0;
    for (size_t i = 0; i < n; ++i) {
        unsigned c = p[i];
        if (c < 0x80) {
            if (text_class(c) != 1)
                return 0;
            continue;
        }
        int follow;
        if ((c & 0xC0) == 0x80)
            return 0;
        else if ((c & 0xE0) == 0xC0)
            follow = 1;
        else if ((c & 0xF0) == 0xE0)
            follow = 2;
        else if ((c & 0xF8) == 0xF0)
            follow = 3;
        else if ((c & 0xFC) == 0xF8)
            follow = 4;
        else if ((c & 0xFE) == 0xFC)
            follow = 5;
        else
            return 0;
        for (int k = 0; k < follow; ++k) {
            if (++i >= n)
                return result;
            if ((p[i] & 0xC0) != 0x80)
                return 0;
        }
        result = 1;
    }
    return result;
}

inline int is_utf16(const unsigned char *p, size_t n)
{
    if (n < 2)
        return 0;
    bool little;
    if (p[0] == 0xFF && p[1] == 0xFE)
        little = true;
    else if (p[0] == 0xFE && p[1] == 0xFF)
        little = false;
    else
        return 0;
    for (size_t i = 2; i + 1 < n; i += 2) {
        signed char lo = static_cast<signed char>(little ? p[i] : p[i + 1]);
        signed char hi = static_cast<signed char>(little ? p[i + 1] : p[i]);
        int v = lo + hi * 256;
        if (v == 0xFFFE || (static_cast<unsigned>(v) <= 127 && text_class(static_cast<unsigned>(v)) != 1))
            return 0;
    }
    return 1;
}

// The result of one conversion: 0 or -1, and every byte of the output buffer.
struct Converted {
    int rc = -1;
    std::string out;
    bool operator==(const Converted &) const = default;
};

// iconv_open(to, from), one iconv call over in into a zeroed buffer of outlen
// bytes, iconv_close.
inline Converted iconv_direct(const char *to, const char *from, const void *in, size_t inlen,
                              size_t outlen)
{
    Converted r;
    r.out.assign(outlen, '\0');
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1))
        return r;
    char *ip = const_cast<char *>(static_cast<const char *>(in));
    char *op = r.out.data();
    size_t il = inlen, ol = outlen;
    r.rc = iconv(cd, &ip, &il, &op, &ol) == static_cast<size_t>(-1) ? -1 : 0;
    iconv_close(cd);
    return r;
}

// Wide string to UTF-8 as the library does it: the 4-byte characters read as "UCS-2".
inline Converted wide_to_utf8(const wchar_t *w, size_t outlen)
{
    return iconv_direct("UTF-8", "UCS-2", w, wcslen(w) * sizeof(wchar_t), outlen);
}

// UTF-8 to wide as the library does it: "UCS-2" units written into count wide characters.
inline Converted utf8_to_wide(const char *s, size_t count)
{
    return iconv_direct("UCS-2", "UTF-8", s, strlen(s), count * sizeof(wchar_t));
}

} // namespace qeltest::oracle

#endif

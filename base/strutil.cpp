// String utilities and validators: bounded concatenation, substring search,
// search-and-replace in a fixed buffer, truncating formatted print, and the
// integer, IPv4, domain and MAC address validators.

#include "qel_strutil.h"

#include <ctype.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include "base/str_impl.h"

namespace {

// qel_str_find keeps its failure table in 512 entries, hence the limit on the
// pattern length (a longer pattern is never found).
constexpr int kFindTable = 512;

// One replacement of the first `from` in buf; the point after the inserted
// text, or null when there is no occurrence or no room.
char *replace_once(char *buf, long long capacity, const char *from, const char *to)
{
    const size_t blen = strlen(buf);
    const size_t flen = strlen(from);
    const size_t tlen = strlen(to);
    if (blen > INT_MAX || flen > INT_MAX)
        return nullptr; // beyond what qel_str_nstr can search
    // The room check compares signed values: a shrinking replacement always
    // fits where the string itself fits.
    if (!(capacity - static_cast<long long>(blen) >
          static_cast<long long>(tlen) - static_cast<long long>(flen)))
        return nullptr;
    char *at = qel_str_nstr(buf, static_cast<int>(blen), from, static_cast<int>(flen));
    if (at == nullptr)
        return nullptr;
    const char *tail = at + flen;
    memmove(at + tlen, tail, strlen(tail) + 1);
    memmove(at, to, tlen);
    return at + tlen;
}

// Every character up to maxlen or the terminator satisfies pred.
template <class Pred>
qel_result check_all(const char *s, size_t maxlen, Pred pred)
{
    QEL_CHECK(s != nullptr, QEL_E_BADFORMAT);
    for (size_t i = 0; i < maxlen && s[i] != '\0'; ++i)
        if (!pred(static_cast<unsigned char>(s[i])))
            return QEL_E_BADFORMAT;
    return QEL_OK;
}

inline bool is_ascii_digit(char c)
{
    return c >= '0' && c <= '9';
}

inline bool is_ascii_alpha(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Value of an ASCII hexadecimal digit, or -1.
inline int hex_value(char c)
{
    if (is_ascii_digit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

char *qel_str_strncat(char *dst, const char *src, int size)
{
    QEL_CHECK(dst != nullptr && src != nullptr && size > 0, nullptr);
    const size_t d = strlen(dst);
    const size_t s = strlen(src);
    // All or nothing, by design: a source that does not fit is not truncated.
    if (static_cast<size_t>(size) < d + s + 1)
        return nullptr;
    memcpy(dst + d, src, s + 1);
    return dst;
}

// The defining search is Knuth-Morris-Pratt over a 512-entry failure table.
// It reports the first occurrence at or after the start offset, which is what
// memmem computes, and memmem is faster; the tests keep the table search as
// the oracle.
int qel_str_find(const char *buf, int len, const char *pattern, int plen, int start)
{
    QEL_CHECK(buf != nullptr && pattern != nullptr, -1);
    QEL_CHECK(plen > 0 && plen < kFindTable && start >= 0 && start < len, -1);
    const int n = len - start;
    if (n < plen)
        return -1;
    const void *hit = memmem(buf + start, static_cast<size_t>(n), pattern, static_cast<size_t>(plen));
    return hit != nullptr ? static_cast<int>(static_cast<const char *>(hit) - buf) : -1;
}

char *qel_str_nstr(const char *buf, int len, const char *pattern, int plen)
{
    const int at = qel_str_find(buf, len, pattern, plen, 0);
    return at < 0 ? nullptr : const_cast<char *>(buf + at);
}

char *qel_str_nchr(const char *buf, size_t len, int c)
{
    return static_cast<char *>(const_cast<void *>(memchr(buf, c, len)));
}

// Reports what was stored, never the length that would have been needed:
// deliberately unlike vsnprintf.
int qel_str_magic_vsprintf(char *buf, size_t size, const char *format, va_list args)
{
    QEL_CHECK(size != 0 && buf != nullptr && format != nullptr, 0);
    const int r = vsnprintf(buf, size, format, args);
    if (r >= 0 && static_cast<size_t>(r) < size)
        return r;
    buf[size - 1] = '\0';
    return static_cast<int>(size - 1);
}

int qel_str_snprintf(char *buf, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int r = qel_str_magic_vsprintf(buf, size, format, args);
    va_end(args);
    return r;
}

size_t qel_str_strlcpy(char *dst, const char *src, size_t size)
{
    return qel::detail::strlcpy_unchecked(dst, src, size);
}

char *qel_str_replace(char *buf, int capacity, const char *from, const char *to, int all)
{
    QEL_CHECK(buf != nullptr && from != nullptr && to != nullptr, nullptr);
    char *p = replace_once(buf, capacity, from, to);
    if (p == nullptr || all == 0)
        return p;
    // Continue after the inserted text, so that text is never searched again
    // (replacing "a" by "aa" ends), with the capacity left from that point.
    while (char *next = replace_once(p, static_cast<long long>(capacity) - (p - buf), from, to))
        p = next;
    return buf;
}

qel_result qel_string_check_integer(const char *s, size_t maxlen)
{
    return check_all(s, maxlen, [](unsigned char c) { return isdigit(c) != 0; });
}

qel_result qel_string_check_hex_integer(const char *s, size_t maxlen)
{
    return check_all(s, maxlen, [](unsigned char c) { return isxdigit(c) != 0; });
}

qel_result qel_string_check_ipv4(const char *s, size_t maxlen)
{
    QEL_CHECK(s != nullptr, QEL_E_BADFORMAT);
    unsigned value = 0;
    bool in_number = false;
    bool leading_zero = false;
    int octets = 0;
    for (size_t i = 0; i < maxlen && s[i] != '\0'; ++i) {
        const char c = s[i];
        if (is_ascii_digit(c)) {
            const unsigned digit = static_cast<unsigned>(c - '0');
            if (in_number) {
                if (leading_zero)
                    return QEL_E_BADFORMAT; // "01": no leading zeros
                value = value * 10 + digit;
                if (value > 255)
                    return QEL_E_BADFORMAT;
            } else {
                if (++octets > 4)
                    return QEL_E_BADFORMAT;
                in_number = true;
                leading_zero = digit == 0;
                value = digit;
            }
        } else {
            if (c != '.' || !in_number || octets >= 4)
                return QEL_E_BADFORMAT;
            in_number = false;
            value = 0;
        }
    }
    return octets == 4 ? QEL_OK : QEL_E_BADFORMAT;
}

qel_result qel_string_check_domain(const char *s, size_t maxlen)
{
    constexpr size_t kMaxChars = 66;
    QEL_CHECK(s != nullptr && s[0] != '-', QEL_E_BADFORMAT);
    size_t i = 0;
    // "At most maxlen": one character more than the length, deliberately kept.
    for (; i <= maxlen && s[i] != '\0'; ++i) {
        const char c = s[i];
        if (!is_ascii_alpha(c) && !is_ascii_digit(c) && c != '-' && c != '.' && c != '_')
            return QEL_E_BADFORMAT;
        if (i + 1 > kMaxChars)
            return QEL_E_BADFORMAT; // this check also ends the loop for maxlen SIZE_MAX
    }
    if (i > 0 && s[i - 1] == '-')
        return QEL_E_BADFORMAT;
    return QEL_OK;
}

int qel_string_to_macaddr(const char *text, uint8_t out[6])
{
    QEL_CHECK(text != nullptr && out != nullptr, -1);
    enum class State { kFirstDigit, kSecondDigit, kSeparator } state = State::kFirstDigit;
    int high = 0;
    int stored = 0;
    char sep = '\0';
    for (const char *p = text;; ++p) {
        switch (state) {
        case State::kFirstDigit:
            high = hex_value(*p);
            if (high < 0)
                return -1;
            state = State::kSecondDigit;
            break;
        case State::kSecondDigit: {
            const int low = hex_value(*p);
            if (low < 0)
                return -1;
            out[stored++] = static_cast<uint8_t>(high * 16 + low);
            if (stored == 6)
                return 0; // whatever follows is ignored
            state = State::kSeparator;
            break;
        }
        case State::kSeparator:
            if (sep == '\0' && (*p == ':' || *p == '-'))
                sep = *p; // the first separator fixes the rest
            else if (*p != sep || sep == '\0')
                return -1;
            state = State::kFirstDigit;
            break;
        }
    }
}

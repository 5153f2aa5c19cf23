// Reference models of the string utilities, written out from their
// descriptions, shared by the unit tests and the fuzz targets. Header-only:
// the fuzz targets include it without the test support library.
#ifndef MORBASE_STR_MODELS_H
#define MORBASE_STR_MODELS_H

#include <arpa/inet.h>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>

namespace qeltest {

// Up to max_len characters drawn from alphabet by rng (anything with
// range(lo, hi)), narrow or wide.
template <class R, class Ch>
std::basic_string<Ch> random_text(R &rng, size_t max_len, const Ch *alphabet)
{
    const size_t n = rng.range(0, max_len);
    const size_t k = std::char_traits<Ch>::length(alphabet);
    std::basic_string<Ch> s;
    for (size_t i = 0; i < n; ++i)
        s += alphabet[rng.range(0, k - 1)];
    return s;
}

// The Knuth-Morris-Pratt search over a 512-entry failure table: the oracle
// of qel_str_find.
inline int kmp_find(const char *buf, int len, const char *pat, int m, int start)
{
    if (!buf || !pat || m <= 0 || m > 511 || start < 0 || start >= len)
        return -1;
    int next[512];
    next[0] = -1;
    next[1] = 0;
    int i = 2, k = 0;
    while (i < m) {
        if (pat[i - 1] == pat[k]) {
            ++k;
            next[i] = k;
            ++i;
        } else if (k < 1) {
            next[i] = 0;
            ++i;
        } else {
            k = next[k];
        }
    }
    const int n = len - start;
    if (n < m)
        return -1;
    const char *text = buf + start;
    int s = 0, j = 0;
    while (s + j < n) {
        if (pat[j] == text[s + j]) {
            if (j == m - 1)
                return s + start;
            ++j;
        } else {
            s = s + j - next[j];
            j = next[j] < 0 ? 0 : next[j];
        }
    }
    return -1;
}

// qel_str_find's contract stated through memmem.
inline int memmem_find(const std::string &buf, const std::string &pat, int start)
{
    if (pat.empty() || pat.size() > 511 || start < 0 || start >= static_cast<int>(buf.size()))
        return -1;
    const void *hit = memmem(buf.data() + start, buf.size() - start, pat.data(), pat.size());
    return hit ? static_cast<int>(static_cast<const char *>(hit) - buf.data()) : -1;
}

// One replacement in s (a C string's text) from offset pos, with cap bytes of
// capacity counted from pos. Returns the offset after the inserted text or -1.
inline long model_replace_once(std::string &s, size_t pos, long long cap, const std::string &from,
                               const std::string &to)
{
    if (from.empty() || from.size() > 511)
        return -1;
    const size_t rest = s.size() - pos;
    if (!(cap - static_cast<long long>(rest) >
          static_cast<long long>(to.size()) - static_cast<long long>(from.size())))
        return -1;
    const size_t at = s.find(from, pos);
    if (at == std::string::npos)
        return -1;
    s.replace(at, from.size(), to);
    return static_cast<long>(at + to.size());
}

// qel_str_replace: the offset of its result from the buffer, or -1 for null.
inline long model_replace(std::string &s, long long cap, const std::string &from,
                          const std::string &to, bool all)
{
    long r = model_replace_once(s, 0, cap, from, to);
    if (r < 0 || !all)
        return r;
    for (long next; (next = model_replace_once(s, r, cap - r, from, to)) >= 0;)
        r = next;
    return 0;
}

inline bool model_integer(const std::string &s, size_t maxlen, bool hex)
{
    for (size_t i = 0; i < s.size() && i < maxlen && s[i] != '\0'; ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (!(hex ? isxdigit(c) : isdigit(c)))
            return false;
    }
    return true;
}

// The platform's strict dotted-quad parser over the examined prefix.
inline bool model_ipv4(const std::string &s, size_t maxlen)
{
    std::string prefix = s.substr(0, std::min(maxlen, strnlen(s.c_str(), s.size())));
    unsigned char out[4];
    return inet_pton(AF_INET, prefix.c_str(), out) == 1;
}

inline bool model_domain(const std::string &text, size_t maxlen)
{
    const std::string s = text.substr(0, strnlen(text.c_str(), text.size()));
    if (!s.empty() && s[0] == '-')
        return false;
    const size_t k = std::min(s.size(), maxlen == SIZE_MAX ? maxlen : maxlen + 1);
    if (k > 66)
        return false;
    for (size_t i = 0; i < k; ++i) {
        const char c = s[i];
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                        c == '-' || c == '.' || c == '_';
        if (!ok)
            return false;
    }
    return k == 0 || s[k - 1] != '-';
}

inline int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// qel_string_to_macaddr over a C string: whole "hh" groups in sequence, the
// first separator (":" or "-") fixing the rest. Stores what it parsed.
inline int model_macaddr(const char *s, uint8_t out[6])
{
    const size_t len = strlen(s);
    size_t i = 0;
    for (int b = 0; b < 6; ++b) {
        if (b > 0) {
            if (i >= len || (s[i] != ':' && s[i] != '-') || s[i] != s[2])
                return -1;
            ++i;
        }
        if (i + 1 >= len || hex_digit(s[i]) < 0 || hex_digit(s[i + 1]) < 0)
            return -1;
        out[b] = static_cast<uint8_t>(hex_digit(s[i]) * 16 + hex_digit(s[i + 1]));
        i += 2;
    }
    return 0;
}

} // namespace qeltest

#endif

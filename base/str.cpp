// Null-tolerant memory and string primitives, narrow and wide.
//
// The narrow members check their arguments and forward to the C library where
// it computes the documented result; the shared searches live as templates in
// str_impl.h. Where narrow and wide twins differ on purpose (qel_strlcpy and
// qel_wcslcpy, the +-1 and difference results of the wide compares, locale
// and ASCII folding) each keeps its own body with the difference named.

#include "qel_str.h"

#include <stdint.h>
#include <strings.h>

#include "base/str_impl.h"

using qel::detail::AsciiFold;
using qel::detail::LocaleFold;
using qel::detail::NoFold;

namespace {

constexpr size_t kUnbounded = SIZE_MAX;

// Wide comparison with a -1/0/1 result, code points compared as signed 32-bit
// values after Fold; stops after n characters or at a common terminator.
template <class Fold>
int wide_compare_sign(const wchar_t *a, const wchar_t *b, size_t n) noexcept
{
    QEL_CHECK(a != nullptr && b != nullptr && a != b, 0);
    for (size_t i = 0; i < n; ++i) {
        const wchar_t x = Fold::fold(a[i]);
        const wchar_t y = Fold::fold(b[i]);
        if (x != y)
            return x < y ? -1 : 1;
        if (x == 0)
            return 0;
    }
    return 0;
}

} // namespace

/* ---- memory ---------------------------------------------------------------- */

void *qel_memset(void *dst, int c, size_t n)
{
    QEL_CHECK(dst != nullptr && n != 0, nullptr);
    return memset(dst, c, n);
}

void *qel_memcpy(void *dst, const void *src, size_t n)
{
    QEL_CHECK(dst != nullptr && src != nullptr && n != 0, nullptr);
    auto *d = static_cast<unsigned char *>(dst);
    const auto *s = static_cast<const unsigned char *>(src);
    const uintptr_t da = reinterpret_cast<uintptr_t>(d);
    const uintptr_t sa = reinterpret_cast<uintptr_t>(s);
    if (da <= sa || da - sa >= n) {
        // A forward byte loop reads nothing it has written: memmove's result.
        memmove(d, s, n);
        return dst;
    }
    // dst lies inside the source: a forward byte loop copies the bytes it has
    // just written again, so the first (dst - src) bytes repeat. Copy that
    // pattern one period at a time; each chunk reads only finished bytes.
    const size_t period = da - sa;
    for (size_t i = 0; i < n; i += period)
        memcpy(d + i, s + i, n - i < period ? n - i : period);
    return dst;
}

void *qel_memmov(void *dst, const void *src, size_t n)
{
    QEL_CHECK(dst != nullptr && src != nullptr && n != 0, nullptr);
    return memmove(dst, src, n);
}

int qel_memcmp(const void *a, const void *b, size_t n)
{
    QEL_CHECK(a != nullptr && b != nullptr && n != 0, 0);
    const int r = memcmp(a, b, n);
    return (r > 0) - (r < 0);
}

/* ---- narrow strings ------------------------------------------------------------ */

size_t qel_strlen(const char *s)
{
    QEL_CHECK(s != nullptr, 0);
    return strlen(s);
}

size_t qel_strnlen(const char *s, size_t max)
{
    QEL_CHECK(s != nullptr && max != 0, 0);
    return strnlen(s, max);
}

char *qel_strdup(const char *s)
{
    QEL_CHECK(s != nullptr, nullptr);
    return qel::detail::dupT(s, strlen(s));
}

char *qel_strndup(const char *s, size_t n)
{
    QEL_CHECK(s != nullptr, nullptr);
    return qel::detail::dupT(s, qel_strnlen(s, n));
}

char *qel_strcpy(char *dst, const char *src)
{
    QEL_CHECK(dst != nullptr && src != nullptr, nullptr);
    return strcpy(dst, src);
}

char *qel_strncpy(char *dst, const char *src, size_t n)
{
    QEL_CHECK(dst != nullptr && src != nullptr && n != 0, nullptr);
    return strncpy(dst, src, n);
}

// Returns the source length and always terminates; qel_wcslcpy differs.
size_t qel_strlcpy(char *dst, const char *src, size_t size)
{
    QEL_CHECK(dst != nullptr && src != nullptr && size != 0, 0);
    return qel::detail::strlcpy_unchecked(dst, src, size);
}

int qel_strcmp(const char *a, const char *b)
{
    QEL_CHECK(a != nullptr && b != nullptr, 0);
    return strcmp(a, b);
}

int qel_strncmp(const char *a, const char *b, size_t n)
{
    QEL_CHECK(a != nullptr && b != nullptr && n != 0, 0);
    return strncmp(a, b, n);
}

// Folds with the locale's tolower() (strcasecmp); qel_wcsicmp folds ASCII only.
int qel_stricmp(const char *a, const char *b)
{
    QEL_CHECK(a != nullptr && b != nullptr, 0);
    return strcasecmp(a, b);
}

int qel_strnicmp(const char *a, const char *b, size_t n)
{
    QEL_CHECK(a != nullptr && b != nullptr && n != 0, 0);
    return strncasecmp(a, b, n);
}

// The one search that finds the terminator: it is strchr.
char *qel_strchr(const char *s, int c)
{
    QEL_CHECK(s != nullptr, nullptr);
    return const_cast<char *>(strchr(s, c));
}

char *qel_strichr(const char *s, int c)
{
    return qel::detail::nchrT<LocaleFold>(s, kUnbounded, c);
}

char *qel_strnchr(const char *s, size_t n, int c)
{
    return qel::detail::nchrT<NoFold>(s, n, c);
}

char *qel_strnichr(const char *s, size_t n, int c)
{
    return qel::detail::nchrT<LocaleFold>(s, n, c);
}

// Deliberately no null check: a null string faults here, as it always has.
// Searching for 0 gives null, like every character search but qel_strchr.
char *qel_strrchr(const char *s, int c)
{
    char *r = const_cast<char *>(strrchr(s, c));
    return (r != nullptr && *r != '\0') ? r : nullptr;
}

char *qel_strirchr(const char *s, int c)
{
    QEL_CHECK(s != nullptr, nullptr);
    return qel::detail::nrchrT<LocaleFold>(s, strlen(s), c);
}

char *qel_strnrchr(const char *s, size_t n, int c)
{
    return qel::detail::nrchrT<NoFold>(s, n, c);
}

char *qel_strnirchr(const char *s, size_t n, int c)
{
    return qel::detail::nrchrT<LocaleFold>(s, n, c);
}

char *qel_strstr(const char *h, const char *needle)
{
    QEL_CHECK(h != nullptr && needle != nullptr, nullptr);
    return const_cast<char *>(strstr(h, needle));
}

char *qel_stristr(const char *h, const char *needle)
{
    QEL_CHECK(h != nullptr && needle != nullptr, nullptr);
    return const_cast<char *>(strcasestr(h, needle));
}

// The naive bounded search succeeds exactly at the first occurrence that lies
// within min(n, strlen(h)) bytes, so memmem over those bytes gives its result.
char *qel_strnstr(const char *h, size_t n, const char *needle)
{
    QEL_CHECK(h != nullptr && needle != nullptr && n != 0, nullptr);
    return static_cast<char *>(memmem(h, strnlen(h, n), needle, strlen(needle)));
}

char *qel_strnistr(const char *h, size_t n, const char *needle)
{
    QEL_CHECK(h != nullptr && needle != nullptr && n != 0, nullptr);
    return qel::detail::naive_searchT<LocaleFold, true>(h, n, needle);
}

/* ---- wide strings ---------------------------------------------------------------- */

size_t qel_wcslen(const wchar_t *s)
{
    QEL_CHECK(s != nullptr, 0);
    return wcslen(s);
}

size_t qel_wcsnlen(const wchar_t *s, size_t max)
{
    QEL_CHECK(s != nullptr && max != 0, 0);
    return wcsnlen(s, max);
}

wchar_t *qel_wcsdup(const wchar_t *s)
{
    QEL_CHECK(s != nullptr, nullptr);
    return qel::detail::dupT(s, wcslen(s));
}

wchar_t *qel_wcsndup(const wchar_t *s, size_t n)
{
    QEL_CHECK(s != nullptr, nullptr);
    return qel::detail::dupT(s, qel_wcsnlen(s, n));
}

wchar_t *qel_wcsncpy(wchar_t *dst, const wchar_t *src, size_t n)
{
    QEL_CHECK(dst != nullptr && src != nullptr && n != 0, nullptr);
    const size_t len = wcsnlen(src, n);
    wmemmove(dst, src, len);
    wmemset(dst + len, 0, n - len);
    return dst;
}

// Unlike qel_strlcpy: copies min(len + 1, size) characters, so a truncated
// copy has no terminator, and returns min(len, size) rather than len.
size_t qel_wcslcpy(wchar_t *dst, const wchar_t *src, size_t size)
{
    QEL_CHECK(dst != nullptr && src != nullptr && size != 0, 0);
    if (dst == src)
        return wcslen(dst);
    const size_t len = wcslen(src);
    wmemmove(dst, src, len < size ? len + 1 : size);
    return len < size ? len : size;
}

// -1/0/1; qel_wcsncmp returns the difference instead.
int qel_wcscmp(const wchar_t *a, const wchar_t *b)
{
    return wide_compare_sign<NoFold>(a, b, kUnbounded);
}

// The difference of the first differing code points, not -1/1 as qel_wcscmp.
int qel_wcsncmp(const wchar_t *a, const wchar_t *b, size_t n)
{
    QEL_CHECK(a != nullptr && b != nullptr && a != b, 0);
    for (size_t i = 0; i < n; ++i) {
        if (a[i] != b[i])
            return static_cast<int>(static_cast<uint32_t>(a[i]) - static_cast<uint32_t>(b[i]));
        if (a[i] == 0)
            return 0;
    }
    return 0;
}

// ASCII folding only (no towlower), -1/0/1: not wcscasecmp.
int qel_wcsicmp(const wchar_t *a, const wchar_t *b)
{
    return wide_compare_sign<AsciiFold>(a, b, kUnbounded);
}

int qel_wcsnicmp(const wchar_t *a, const wchar_t *b, size_t n)
{
    return wide_compare_sign<AsciiFold>(a, b, n);
}

wchar_t *qel_wcschr(const wchar_t *s, wchar_t c)
{
    return qel::detail::nchrT<NoFold>(s, kUnbounded, c);
}

wchar_t *qel_wcsichr(const wchar_t *s, wchar_t c)
{
    return qel::detail::nchrT<AsciiFold>(s, kUnbounded, c);
}

wchar_t *qel_wcsrchr(const wchar_t *s, wchar_t c)
{
    return qel_wcsnrchr(s, qel_wcslen(s), c);
}

wchar_t *qel_wcsirchr(const wchar_t *s, wchar_t c)
{
    return qel_wcsnirchr(s, qel_wcslen(s), c);
}

wchar_t *qel_wcsnrchr(const wchar_t *s, size_t n, wchar_t c)
{
    return qel::detail::nrchrT<NoFold>(s, n, c);
}

wchar_t *qel_wcsnirchr(const wchar_t *s, size_t n, wchar_t c)
{
    return qel::detail::nrchrT<AsciiFold>(s, n, c);
}

wchar_t *qel_wcsstr(const wchar_t *h, const wchar_t *needle)
{
    QEL_CHECK(h != nullptr && needle != nullptr, nullptr);
    return qel::detail::naive_searchT<NoFold, false>(h, kUnbounded, needle);
}

wchar_t *qel_wcsistr(const wchar_t *h, const wchar_t *needle)
{
    QEL_CHECK(h != nullptr && needle != nullptr, nullptr);
    return qel::detail::naive_searchT<AsciiFold, false>(h, kUnbounded, needle);
}

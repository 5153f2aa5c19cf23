/*
 * str_impl.h: the bodies that narrow and wide string primitives share, as
 * templates over the character type and a case-folding policy. Only the
 * string modules include it.
 *
 * A character is compared through its unit value: unsigned char for narrow
 * strings (so bytes above 0x7F compare as 128-255), the code point itself for
 * wide strings.
 */
#ifndef QEL_BASE_STR_IMPL_H
#define QEL_BASE_STR_IMPL_H

#include <ctype.h>
#include <stddef.h>
#include <string.h>
#include <wchar.h>

#include "base/internal.h"

namespace qel::detail {

static_assert(sizeof(wchar_t) == 4, "the wide string family assumes a 4-byte wchar_t");

template <class Ch>
struct CharTraits;

template <>
struct CharTraits<char> {
    using Unit = unsigned char;
    static Unit unit(char c) noexcept { return static_cast<unsigned char>(c); }
    /* A narrow character argument counts by its low 8 bits. */
    static Unit arg(int c) noexcept { return static_cast<unsigned char>(c); }
};

template <>
struct CharTraits<wchar_t> {
    using Unit = wchar_t;
    static Unit unit(wchar_t c) noexcept { return c; }
    static Unit arg(wchar_t c) noexcept { return c; }
};

/* Exact comparison. */
struct NoFold {
    template <class U>
    static U fold(U u) noexcept
    {
        return u;
    }
};

/* Narrow folding: tolower() of the current locale. */
struct LocaleFold {
    static int fold(unsigned char u) noexcept { return tolower(u); }
};

/* Wide folding: ASCII only. "A"-"Z" become "a"-"z"; every other code point,
 * accented letters included, stays as it is. Deliberately not towlower(). */
struct AsciiFold {
    static wchar_t fold(wchar_t u) noexcept { return (u >= L'A' && u <= L'Z') ? u + 32 : u; }
};

/* Forward search among at most n characters, stopping at the terminator; the
 * terminator itself is never found (c = 0 gives null). */
template <class Fold, class Ch, class Arg>
Ch *nchrT(const Ch *s, size_t n, Arg c) noexcept
{
    using T = CharTraits<Ch>;
    QEL_CHECK(s != nullptr, nullptr);
    const auto want = Fold::fold(T::arg(c));
    for (size_t i = 0; i < n && s[i] != 0; ++i)
        if (Fold::fold(T::unit(s[i])) == want)
            return const_cast<Ch *>(s + i);
    return nullptr;
}

/* Reverse search from s[n - 1] down to s[0], giving up at the first
 * terminator met (so the terminator is never found either). */
template <class Fold, class Ch, class Arg>
Ch *nrchrT(const Ch *s, size_t n, Arg c) noexcept
{
    using T = CharTraits<Ch>;
    QEL_CHECK(s != nullptr, nullptr);
    const auto want = Fold::fold(T::arg(c));
    for (size_t i = n; i-- > 0;) {
        if (s[i] == 0)
            return nullptr;
        if (Fold::fold(T::unit(s[i])) == want)
            return const_cast<Ch *>(s + i);
    }
    return nullptr;
}

/* The naive substring search: candidate start c, haystack cursor p, needle
 * cursor q. On a mismatch (or when the bound is used up) q returns to the
 * needle's start; the search gives up when the mismatch stands on h's
 * terminator or past the bound, else moves c on by one. With kBounded false
 * the bound is ignored. An empty needle matches at h. */
template <class Fold, bool kBounded, class Ch>
Ch *naive_searchT(const Ch *h, size_t n, const Ch *needle) noexcept
{
    using T = CharTraits<Ch>;
    const Ch *c = h;
    const Ch *p = h;
    const Ch *q = needle;
    size_t left = n;
    while (*q != 0) {
        if ((!kBounded || left > 0) && Fold::fold(T::unit(*p)) == Fold::fold(T::unit(*q))) {
            ++p;
            ++q;
            --left;
            continue;
        }
        q = needle;
        if ((kBounded && left == 0) || *p == 0) /* never reads past the bound */
            return nullptr;
        ++c;
        p = c;
        left = n - static_cast<size_t>(c - h);
    }
    return const_cast<Ch *>(c);
}

/* A malloc()ed, terminated copy of len characters of s, or null. */
template <class Ch>
Ch *dupT(const Ch *s, size_t len) noexcept
{
    size_t bytes;
    if (add_overflows<size_t>(len, 1, &bytes) || mul_overflows<size_t>(bytes, sizeof(Ch), &bytes))
        return nullptr;
    Ch *d = static_cast<Ch *>(try_alloc(bytes));
    if (d == nullptr)
        return nullptr;
    memcpy(d, s, len * sizeof(Ch));
    d[len] = 0;
    return d;
}

/* The classic bounded copy with no null checks: at most size - 1 bytes,
 * terminated when size > 0; returns strlen(src). */
inline size_t strlcpy_unchecked(char *dst, const char *src, size_t size) noexcept
{
    const size_t len = strlen(src);
    if (size != 0) {
        const size_t k = len < size ? len : size - 1;
        memmove(dst, src, k);
        dst[k] = '\0';
    }
    return len;
}

} // namespace qel::detail

#endif /* QEL_BASE_STR_IMPL_H */

#include "qel_str.h"

#include <gtest/gtest.h>

#include <cctype>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <strings.h>
#include <vector>

#include "base/internal.h"
#include "support/str_models.h"
#include "support/test_util.h"

namespace {

using qeltest::random_text;
using qeltest::Rng;

int sign(int v)
{
    return (v > 0) - (v < 0);
}

wchar_t ascii_fold(wchar_t c)
{
    return (c >= L'A' && c <= L'Z') ? c + 32 : c;
}

template <class Ch>
long offset(const Ch *base, const Ch *p)
{
    return p ? static_cast<long>(p - base) : -1;
}

long npos_off(size_t x)
{
    return x == std::string::npos ? -1L : static_cast<long>(x);
}

// A pointer or integer result as one number, for the tables of refused calls.
template <class T>
uintptr_t as_num(T v)
{
    return (uintptr_t)v;
}

TEST(Str, NullAndZeroLengthArgumentsGiveNullOrZero)
{
    char buf[8] = "abc";
    wchar_t wbuf[8] = L"abc";
    const uintptr_t refused[] = {
        // null pointers
        as_num(qel_memset(nullptr, 0, 4)), as_num(qel_memcpy(nullptr, buf, 1)), as_num(qel_memcpy(buf, nullptr, 1)),
        as_num(qel_memmov(nullptr, buf, 1)), as_num(qel_memmov(buf, nullptr, 1)), as_num(qel_memcmp(nullptr, buf, 1)),
        as_num(qel_memcmp(buf, nullptr, 1)), as_num(qel_strlen(nullptr)), as_num(qel_strnlen(nullptr, 5)),
        as_num(qel_strdup(nullptr)), as_num(qel_strndup(nullptr, 3)), as_num(qel_strcpy(nullptr, "x")),
        as_num(qel_strcpy(buf, nullptr)), as_num(qel_strncpy(nullptr, "x", 2)), as_num(qel_strncpy(buf, nullptr, 2)),
        as_num(qel_strlcpy(nullptr, "x", 2)), as_num(qel_strlcpy(buf, nullptr, 2)), as_num(qel_strcmp(nullptr, "x")),
        as_num(qel_strcmp("x", nullptr)), as_num(qel_strncmp(nullptr, "x", 1)), as_num(qel_stricmp("x", nullptr)),
        as_num(qel_strnicmp(nullptr, "x", 1)), as_num(qel_strchr(nullptr, 'a')), as_num(qel_strichr(nullptr, 'a')),
        as_num(qel_strnchr(nullptr, 3, 'a')), as_num(qel_strnichr(nullptr, 3, 'a')), as_num(qel_strirchr(nullptr, 'a')),
        as_num(qel_strnrchr(nullptr, 3, 'a')), as_num(qel_strnirchr(nullptr, 3, 'a')), as_num(qel_strstr(nullptr, "a")),
        as_num(qel_strstr("a", nullptr)), as_num(qel_stristr(nullptr, "a")), as_num(qel_stristr("a", nullptr)),
        as_num(qel_strnstr(nullptr, 3, "a")), as_num(qel_strnstr("a", 3, nullptr)), as_num(qel_strnistr(nullptr, 3, "a")),
        as_num(qel_strnistr("a", 3, nullptr)), as_num(qel_wcslen(nullptr)), as_num(qel_wcsnlen(nullptr, 3)),
        as_num(qel_wcsdup(nullptr)), as_num(qel_wcsndup(nullptr, 3)), as_num(qel_wcsncpy(nullptr, L"x", 2)),
        as_num(qel_wcsncpy(wbuf, nullptr, 2)), as_num(qel_wcslcpy(nullptr, L"x", 2)), as_num(qel_wcslcpy(wbuf, nullptr, 2)),
        as_num(qel_wcscmp(nullptr, L"x")), as_num(qel_wcsncmp(L"x", nullptr, 1)), as_num(qel_wcsicmp(nullptr, L"x")),
        as_num(qel_wcsnicmp(L"x", nullptr, 1)), as_num(qel_wcschr(nullptr, L'a')), as_num(qel_wcsichr(nullptr, L'a')),
        as_num(qel_wcsrchr(nullptr, L'a')), as_num(qel_wcsirchr(nullptr, L'a')), as_num(qel_wcsnrchr(nullptr, 3, L'a')),
        as_num(qel_wcsnirchr(nullptr, 3, L'a')), as_num(qel_wcsstr(nullptr, L"a")), as_num(qel_wcsstr(L"a", nullptr)),
        as_num(qel_wcsistr(nullptr, L"a")), as_num(qel_wcsistr(L"a", nullptr)),
        // zero lengths: null, not dst; 0, not the source length; nothing found, not even ""
        as_num(qel_memset(buf, 'x', 0)), as_num(qel_memcpy(buf, "x", 0)), as_num(qel_memmov(buf, "x", 0)),
        as_num(qel_memcmp("a", "b", 0)), as_num(qel_strnlen("abc", 0)), as_num(qel_strncpy(buf, "x", 0)),
        as_num(qel_strlcpy(buf, "abcdef", 0)), as_num(qel_strncmp("a", "b", 0)), as_num(qel_strnicmp("a", "b", 0)),
        as_num(qel_strnchr("abc", 0, 'a')), as_num(qel_strnrchr("abc", 0, 'a')), as_num(qel_strnstr("abc", 0, "")),
        as_num(qel_strnistr("abc", 0, "")), as_num(qel_wcsnlen(L"abc", 0)), as_num(qel_wcsncpy(wbuf, L"x", 0)),
        as_num(qel_wcslcpy(wbuf, L"x", 0)), as_num(qel_wcsncmp(L"a", L"b", 0)), as_num(qel_wcsnicmp(L"a", L"b", 0)),
        as_num(qel_wcsnrchr(L"abc", 0, L'a')),
    };
    for (size_t i = 0; i < std::size(refused); ++i)
        EXPECT_EQ(0u, refused[i]) << "entry " << i;
    EXPECT_STREQ("abc", buf); // untouched by the refused calls
    EXPECT_STREQ(L"abc", wbuf);
}

TEST(Str, StrrchrDeliberatelyFaultsOnNull)
{
    auto r = qeltest::run_in_child([] {
        const char *volatile s = nullptr;
        return qel_strrchr(s, 'a') == nullptr ? 0 : 1;
    });
    EXPECT_FALSE(r.timed_out);
    EXPECT_FALSE(r.exited && r.status == 0) << "qel_strrchr(NULL) must not be tolerated";
}

TEST(Str, MemoryMembersMatchTheirModels)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 2000; ++round) {
        std::vector<unsigned char> a(64), b, c, d;
        for (auto &x : a)
            x = static_cast<unsigned char>(rng.next());
        b = c = d = a;
        size_t src = rng.range(0, 40), dst = rng.range(0, 40), n = rng.range(1, 24);
        for (size_t i = 0; i < n; ++i) // memcpy is the forward byte loop, even when overlapping
            b[dst + i] = b[src + i];
        ASSERT_EQ(a.data() + dst, qel_memcpy(a.data() + dst, a.data() + src, n));
        ASSERT_EQ(b, a) << "src " << src << " dst " << dst << " n " << n;
        memmove(c.data() + dst, c.data() + src, n);
        ASSERT_EQ(d.data() + dst, qel_memmov(d.data() + dst, d.data() + src, n));
        ASSERT_EQ(c, d) << "src " << src << " dst " << dst << " n " << n;
        std::string x = rng.bytes(rng.range(1, 8), 0, 3), y = rng.bytes(x.size(), 0, 3);
        if (rng.chance(20))
            x[0] = static_cast<char>(0xF0); // above 0x7F compares as unsigned
        ASSERT_EQ(sign(memcmp(x.data(), y.data(), x.size())), qel_memcmp(x.data(), y.data(), x.size()));
    }
    char s[8] = "abcdef";
    EXPECT_EQ(s, qel_memset(s, 'z', 3));
    EXPECT_STREQ("zzzdef", s);
    EXPECT_EQ(1, qel_memcmp("\xF0", "\x10", 1));
}

TEST(Str, LengthsDuplicatesAndCopiesNarrowAndWide)
{
    // The n-bounded lengths and duplicates (the unbounded ones for n SIZE_MAX) of the text and its widening.
    const struct { const char *src; size_t n; const char *want; } dups[] = {
        {"hello", 3, "hel"}, {"hi", 10, "hi"}, {"hi", 0, ""}, {"hello", SIZE_MAX, "hello"}};
    for (const auto &d : dups) {
        char *s = d.n == SIZE_MAX ? qel_strdup(d.src) : qel_strndup(d.src, d.n);
        std::wstring wsrc(d.src, d.src + strlen(d.src)), wwant(d.want, d.want + strlen(d.want));
        wchar_t *w = d.n == SIZE_MAX ? qel_wcsdup(wsrc.c_str()) : qel_wcsndup(wsrc.c_str(), d.n);
        ASSERT_TRUE(s && w) << d.src << " " << d.n;
        EXPECT_EQ(strlen(d.src), qel_strlen(d.src));
        EXPECT_EQ(wsrc.size(), qel_wcslen(wsrc.c_str()));
        EXPECT_EQ(strlen(d.want), qel_strnlen(d.src, d.n));
        EXPECT_EQ(wwant.size(), qel_wcsnlen(wsrc.c_str(), d.n));
        EXPECT_STREQ(d.want, s);
        EXPECT_STREQ(wwant.c_str(), w);
        free(s);
        free(w);
    }

    // Exact layouts of an 8-unit buffer that started as all 'x'. qel_strncpy and
    // qel_wcsncpy (ret 0: they return dst) pad with zeros and leave a truncated
    // copy unterminated. qel_strlcpy returns the source length and terminates;
    // qel_wcslcpy copies min(len + 1, size) units and returns min(len, size).
    const struct { bool lcpy; const char *src; size_t size, ret, wret; const char *narrow, *wide; } copies[] = {
        {false, "ab", 5, 0, 0, "ab\0\0\0xxx", "ab\0\0\0xxx"}, {false, "abcdef", 3, 0, 0, "abcxxxxx", "abcxxxxx"},
        {true, "abcdef", 4, 6, 4, "abc\0xxxx", "abcdxxxx"},    {true, "abc", 4, 3, 3, "abc\0xxxx", "abc\0xxxx"},
        {true, "abc", 3, 3, 3, "ab\0xxxxx", "abcxxxxx"},       {true, "abc", 1, 3, 1, "\0xxxxxxx", "axxxxxxx"},
        {true, "ab", 8, 2, 2, "ab\0xxxxx", "ab\0xxxxx"}};
    for (const auto &c : copies) {
        char b[8];
        wchar_t w[8];
        memset(b, 'x', 8), wmemset(w, L'x', 8);
        std::wstring wsrc(c.src, c.src + strlen(c.src));
        if (c.lcpy) {
            EXPECT_EQ(c.ret, qel_strlcpy(b, c.src, c.size)) << c.src << " " << c.size;
            EXPECT_EQ(c.wret, qel_wcslcpy(w, wsrc.c_str(), c.size)) << c.src << " " << c.size;
        } else {
            EXPECT_EQ(b, qel_strncpy(b, c.src, c.size));
            EXPECT_EQ(w, qel_wcsncpy(w, wsrc.c_str(), c.size));
        }
        EXPECT_EQ(std::string(c.narrow, 8), std::string(b, 8)) << c.src << " " << c.size;
        EXPECT_EQ(std::string(c.wide, 8), std::string(w, w + 8)) << c.src << " " << c.size; // units narrowed
    }
    char b[8] = "xxxxxxx";
    EXPECT_EQ(b, qel_strcpy(b, "abc"));
    EXPECT_EQ(std::string("abc\0xxx\0", 8), std::string(b, 8));
    wchar_t self[4] = L"abc";
    EXPECT_EQ(3u, qel_wcslcpy(self, self, 2)); // same pointer: its length, nothing copied
    EXPECT_STREQ(L"abc", self);
}

TEST(Str, DuplicatesReturnNullWhenAllocationFails)
{
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_strdup("abc"));
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_strndup("abc", 2));
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_wcsdup(L"abc"));
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_wcsndup(L"abc", 2));
    qel::detail::fail_allocations(0, 0);
}

TEST(Str, NarrowComparisonsForwardToTheCLibraryInEveryLocale)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 3000; ++round) {
        std::string a = random_text(rng, 6, "aAbB\xc9\xe9"), b = random_text(rng, 6, "aAbB\xc9\xe9");
        const char *x = a.c_str(), *y = b.c_str();
        size_t n = rng.range(0, 8);
        ASSERT_EQ(sign(strcmp(x, y)), sign(qel_strcmp(x, y)));
        ASSERT_EQ(n ? sign(strncmp(x, y, n)) : 0, sign(qel_strncmp(x, y, n)));
        ASSERT_EQ(sign(strcasecmp(x, y)), sign(qel_stricmp(x, y)));
        ASSERT_EQ(n ? sign(strncasecmp(x, y, n)) : 0, sign(qel_strnicmp(x, y, n)));
    }
    // Each folding member agrees with tolower() of whatever locale is current.
    const char *saved = setlocale(LC_CTYPE, nullptr);
    std::string keep = saved ? saved : "C";
    for (const char *loc : {"C", "C.UTF-8"}) {
        if (!setlocale(LC_CTYPE, loc))
            continue;
        for (int c = 1; c < 256; ++c) {
            char s[2] = {static_cast<char>(c), 0}, t[2] = {static_cast<char>(tolower(c)), 0};
            bool same = tolower(c) == tolower(static_cast<unsigned char>(t[0]));
            ASSERT_EQ(same ? s : nullptr, qel_strichr(s, t[0])) << loc << " " << c;
            ASSERT_EQ(sign(strcasecmp(s, t)), sign(qel_stricmp(s, t))) << loc << " " << c;
        }
    }
    setlocale(LC_CTYPE, keep.c_str());
}

TEST(Str, NarrowSearchQuirks)
{
    const char *s = "abc";
    EXPECT_EQ(s + 3, qel_strchr(s, 0)); // only qel_strchr finds the terminator
    for (auto f : {qel_strichr, qel_strrchr, qel_strirchr})
        EXPECT_EQ(nullptr, f(s, 0));
    for (auto f : {qel_strnchr, qel_strnichr, qel_strnrchr, qel_strnirchr})
        EXPECT_EQ(nullptr, f(s, 4, 0));
    EXPECT_EQ(s + 1, qel_strichr(s, 'B' + 256)); // low 8 bits
    // Reverse bounded searches give up at a terminator inside the bound.
    const char padded[8] = "a/b";
    EXPECT_EQ(nullptr, qel_strnrchr(padded, 5, 'b'));
    const char buf[6] = {'a', 'x', 0, 'x', 'x', 0};
    EXPECT_EQ(nullptr, qel_strnrchr(buf, 5, 'a'));
    EXPECT_EQ(buf + 4, qel_strnirchr(buf, 5, 'X'));
    // Bounded substring searches: an empty needle is found at the start, the
    // terminator ends the search, and a bound inside an unterminated array is honoured.
    EXPECT_EQ(s, qel_strnistr(s, 2, ""));
    EXPECT_EQ(nullptr, qel_strnstr(s, 100, "cd"));
    const char raw[4] = {'x', 'y', 'z', 'w'};
    EXPECT_EQ(raw + 1, qel_strnstr(raw, 4, "yz"));
    EXPECT_EQ(nullptr, qel_strnstr(raw, 4, "zwq"));
    EXPECT_EQ(nullptr, qel_strnistr(raw, 4, "ZWQ"));
}

TEST(Str, NarrowSearchesMatchTheirModels)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    auto lower = [](std::string s) {
        for (auto &c : s)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        return s;
    };
    for (int round = 0; round < 20000; ++round) {
        std::string s = random_text(rng, 14, "aAbB/"), nd = random_text(rng, 4, "aAbB");
        const char *p = s.c_str();
        size_t n = rng.range(0, s.size() + 1); // inside the array, terminator included
        int c = "aAbB/x"[rng.range(0, 5)];
        std::string head = s.substr(0, n), ihead = lower(head);
        const std::string cs(1, static_cast<char>(c)), ics = lower(cs);
        // Reverse scans that meet the terminator (n past the text) find nothing.
        long last = n <= s.size() ? npos_off(head.rfind(cs)) : -1;
        long ilast = n <= s.size() ? npos_off(ihead.rfind(ics)) : -1;
        ASSERT_EQ(npos_off(head.find(cs)), offset(p, qel_strnchr(p, n, c))) << s << " " << n;
        ASSERT_EQ(npos_off(ihead.find(ics)), offset(p, qel_strnichr(p, n, c))) << s << " " << n;
        ASSERT_EQ(last, offset(p, qel_strnrchr(p, n, c))) << s << " " << n;
        ASSERT_EQ(ilast, offset(p, qel_strnirchr(p, n, c))) << s << " " << n;
        ASSERT_EQ(offset(p, strrchr(p, c)), offset(p, qel_strrchr(p, c)));
        ASSERT_EQ(offset(p, strchr(p, c)), offset(p, qel_strchr(p, c)));
        ASSERT_EQ(npos_off(lower(s).rfind(ics)), offset(p, qel_strirchr(p, c)));
        ASSERT_EQ(npos_off(lower(s).find(ics)), offset(p, qel_strichr(p, c)));
        // Substrings: the first occurrence inside the first min(n, strlen) bytes.
        size_t hn = n ? n : 1;
        std::string hh = s.substr(0, hn);
        ASSERT_EQ(npos_off(hh.find(nd)), offset(p, qel_strnstr(p, hn, nd.c_str()))) << s << " " << hn << " " << nd;
        ASSERT_EQ(npos_off(lower(hh).find(lower(nd))), offset(p, qel_strnistr(p, hn, nd.c_str())))
            << s << " " << hn << " " << nd;
        ASSERT_EQ(offset(p, strstr(p, nd.c_str())), offset(p, qel_strstr(p, nd.c_str())));
        ASSERT_EQ(offset(p, strcasestr(p, nd.c_str())), offset(p, qel_stristr(p, nd.c_str())));
    }
}

TEST(Str, WideComparisonsSignVersusDifference)
{
    EXPECT_EQ(-1, qel_wcscmp(L"a", L"c"));
    EXPECT_EQ(-2, qel_wcsncmp(L"a", L"c", 1));
    EXPECT_EQ(-'b', qel_wcsncmp(L"a", L"ab", 2));
    const wchar_t *s = L"same";
    EXPECT_EQ(0, qel_wcscmp(s, s));
    EXPECT_EQ(0, qel_wcsncmp(s, s, 4));
    // Signed 32-bit code points; the difference wraps instead of overflowing.
    const wchar_t neg[2] = {static_cast<wchar_t>(-5), 0}, big[2] = {0x7FFFFFFF, 0}, small[2] = {-1, 0};
    EXPECT_EQ(-1, qel_wcscmp(neg, L"a"));
    EXPECT_EQ(-5 - 'a', qel_wcsncmp(neg, L"a", 1));
    EXPECT_EQ(static_cast<int>(0x80000000u), qel_wcsncmp(big, small, 1));
    EXPECT_EQ(1, qel_wcscmp(big, small));
    // Folding is ASCII only: É and é stay different; '[' (91) precedes folded 'A' (97).
    EXPECT_EQ(-1, qel_wcsicmp(L"\u00C9", L"\u00E9"));
    EXPECT_EQ(nullptr, qel_wcsichr(L"\u00C9", L'\u00E9'));
    EXPECT_EQ(1, qel_wcscmp(L"[", L"A"));
    EXPECT_EQ(-1, qel_wcsicmp(L"[", L"A"));
}

// The index where a and b (folded to ASCII lower case or not) first differ
// within n, or -1 when they agree up to n or a shared terminator.
long first_diff(const wchar_t *a, const wchar_t *b, size_t n, bool fold)
{
    for (size_t i = 0; i < n; ++i) {
        wchar_t x = fold ? ascii_fold(a[i]) : a[i], y = fold ? ascii_fold(b[i]) : b[i];
        if (x != y)
            return static_cast<long>(i);
        if (x == 0)
            break;
    }
    return -1;
}

TEST(Str, WideMembersMatchTheirModels)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    const std::wstring alpha = L"aAbB\u00C9\u00E9[";
    auto fold = [](std::wstring s) {
        for (auto &x : s)
            x = ascii_fold(x);
        return s;
    };
    for (int round = 0; round < 10000; ++round) {
        std::wstring a = random_text(rng, 8, alpha.c_str()), b = random_text(rng, 6, alpha.c_str());
        const wchar_t *x = a.c_str(), *y = b.c_str();
        size_t n = rng.range(0, 8);
        long i = first_diff(x, y, SIZE_MAX, false), fi = first_diff(x, y, SIZE_MAX, true);
        int is = fi < 0 ? 0 : ascii_fold(x[fi]) < ascii_fold(y[fi]) ? -1 : 1;
        ASSERT_EQ(i < 0 ? 0 : x[i] < y[i] ? -1 : 1, qel_wcscmp(x, y));
        ASSERT_EQ(sign(wcscmp(x, y)), qel_wcscmp(x, y));
        ASSERT_EQ(i < 0 || static_cast<size_t>(i) >= n ? 0 : x[i] - y[i], qel_wcsncmp(x, y, n));
        ASSERT_EQ(is, qel_wcsicmp(x, y));
        ASSERT_EQ(fi < 0 || static_cast<size_t>(fi) >= n ? 0 : is, qel_wcsnicmp(x, y, n));

        std::wstring fa = fold(a), nd = b.substr(0, 3), fnd = fold(nd);
        wchar_t c = alpha[rng.range(0, alpha.size() - 1)], fc = ascii_fold(c);
        size_t m = rng.range(0, a.size());
        ASSERT_EQ(npos_off(a.find(c)), offset(x, qel_wcschr(x, c)));
        ASSERT_EQ(npos_off(fa.find(fc)), offset(x, qel_wcsichr(x, c)));
        ASSERT_EQ(npos_off(a.rfind(c)), offset(x, qel_wcsrchr(x, c)));
        ASSERT_EQ(npos_off(fa.rfind(fc)), offset(x, qel_wcsirchr(x, c)));
        ASSERT_EQ(npos_off(a.substr(0, m).rfind(c)), offset(x, qel_wcsnrchr(x, m, c)));
        ASSERT_EQ(npos_off(fa.substr(0, m).rfind(fc)), offset(x, qel_wcsnirchr(x, m, c)));
        ASSERT_EQ(npos_off(a.find(nd)), offset(x, qel_wcsstr(x, nd.c_str())));
        ASSERT_EQ(offset(x, wcsstr(x, nd.c_str())), offset(x, qel_wcsstr(x, nd.c_str())));
        ASSERT_EQ(npos_off(fa.find(fnd)), offset(x, qel_wcsistr(x, nd.c_str())));
    }
    EXPECT_EQ(nullptr, qel_wcschr(L"abc", 0));
    EXPECT_EQ(nullptr, qel_wcsichr(L"abc", 0));
    EXPECT_EQ(nullptr, qel_wcsrchr(L"abc", 0));
}

} // namespace

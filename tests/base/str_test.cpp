#include "qel_str.h"

#include <gtest/gtest.h>

#include <cctype>
#include <clocale>
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

// ---- models ------------------------------------------------------------------

int sign(int v)
{
    return (v > 0) - (v < 0);
}

wchar_t ascii_fold(wchar_t c)
{
    return (c >= L'A' && c <= L'Z') ? c + 32 : c;
}

// The naive search written out from its description, as the oracle for the
// bounded narrow members (the library may search another way).
template <class Eq>
const char *naive_bounded(const char *h, size_t n, const char *needle, Eq eq)
{
    const char *c = h, *p = h, *q = needle;
    size_t left = n;
    while (*q) {
        if (left > 0 && eq(*p, *q)) {
            ++p, ++q, --left;
        } else {
            q = needle;
            if (left == 0 || *p == 0)
                return nullptr;
            ++c;
            p = c;
            left = n - (c - h);
        }
    }
    return c;
}

bool byte_eq(char a, char b)
{
    return a == b;
}

bool byte_ieq(char a, char b)
{
    return tolower(static_cast<unsigned char>(a)) == tolower(static_cast<unsigned char>(b));
}

// First occurrence of needle inside the first min(n, strlen(h)) bytes, with
// both sides folded by f: the result the bounded searches must give.
template <class F>
long model_first(const std::string &h, size_t n, const std::string &needle, F f)
{
    std::string hh = h.substr(0, std::min(n, h.size()));
    std::string nn = needle;
    for (auto &c : hh)
        c = static_cast<char>(f(static_cast<unsigned char>(c)));
    for (auto &c : nn)
        c = static_cast<char>(f(static_cast<unsigned char>(c)));
    size_t at = hh.find(nn);
    return at == std::string::npos ? -1 : static_cast<long>(at);
}

long offset(const char *base, const char *p)
{
    return p ? static_cast<long>(p - base) : -1;
}

long woffset(const wchar_t *base, const wchar_t *p)
{
    return p ? static_cast<long>(p - base) : -1;
}

// ---- null tolerance ------------------------------------------------------------

TEST(Str, EveryMemberButStrrchrToleratesNull)
{
    char buf[8] = "abc";
    wchar_t wbuf[8] = L"abc";
    EXPECT_EQ(nullptr, qel_memset(nullptr, 0, 4));
    EXPECT_EQ(nullptr, qel_memcpy(nullptr, buf, 1));
    EXPECT_EQ(nullptr, qel_memcpy(buf, nullptr, 1));
    EXPECT_EQ(nullptr, qel_memmov(nullptr, buf, 1));
    EXPECT_EQ(nullptr, qel_memmov(buf, nullptr, 1));
    EXPECT_EQ(0, qel_memcmp(nullptr, buf, 1));
    EXPECT_EQ(0, qel_memcmp(buf, nullptr, 1));

    EXPECT_EQ(0u, qel_strlen(nullptr));
    EXPECT_EQ(0u, qel_strnlen(nullptr, 5));
    EXPECT_EQ(nullptr, qel_strdup(nullptr));
    EXPECT_EQ(nullptr, qel_strndup(nullptr, 3));
    EXPECT_EQ(nullptr, qel_strcpy(nullptr, "x"));
    EXPECT_EQ(nullptr, qel_strcpy(buf, nullptr));
    EXPECT_EQ(nullptr, qel_strncpy(nullptr, "x", 2));
    EXPECT_EQ(nullptr, qel_strncpy(buf, nullptr, 2));
    EXPECT_EQ(0u, qel_strlcpy(nullptr, "x", 2));
    EXPECT_EQ(0u, qel_strlcpy(buf, nullptr, 2));
    EXPECT_EQ(0, qel_strcmp(nullptr, "x"));
    EXPECT_EQ(0, qel_strcmp("x", nullptr));
    EXPECT_EQ(0, qel_strncmp(nullptr, "x", 1));
    EXPECT_EQ(0, qel_stricmp("x", nullptr));
    EXPECT_EQ(0, qel_strnicmp(nullptr, "x", 1));
    EXPECT_EQ(nullptr, qel_strchr(nullptr, 'a'));
    EXPECT_EQ(nullptr, qel_strichr(nullptr, 'a'));
    EXPECT_EQ(nullptr, qel_strnchr(nullptr, 3, 'a'));
    EXPECT_EQ(nullptr, qel_strnichr(nullptr, 3, 'a'));
    EXPECT_EQ(nullptr, qel_strirchr(nullptr, 'a'));
    EXPECT_EQ(nullptr, qel_strnrchr(nullptr, 3, 'a'));
    EXPECT_EQ(nullptr, qel_strnirchr(nullptr, 3, 'a'));
    EXPECT_EQ(nullptr, qel_strstr(nullptr, "a"));
    EXPECT_EQ(nullptr, qel_strstr("a", nullptr));
    EXPECT_EQ(nullptr, qel_stristr(nullptr, "a"));
    EXPECT_EQ(nullptr, qel_stristr("a", nullptr));
    EXPECT_EQ(nullptr, qel_strnstr(nullptr, 3, "a"));
    EXPECT_EQ(nullptr, qel_strnstr("a", 3, nullptr));
    EXPECT_EQ(nullptr, qel_strnistr(nullptr, 3, "a"));
    EXPECT_EQ(nullptr, qel_strnistr("a", 3, nullptr));

    EXPECT_EQ(0u, qel_wcslen(nullptr));
    EXPECT_EQ(0u, qel_wcsnlen(nullptr, 3));
    EXPECT_EQ(nullptr, qel_wcsdup(nullptr));
    EXPECT_EQ(nullptr, qel_wcsndup(nullptr, 3));
    EXPECT_EQ(nullptr, qel_wcsncpy(nullptr, L"x", 2));
    EXPECT_EQ(nullptr, qel_wcsncpy(wbuf, nullptr, 2));
    EXPECT_EQ(0u, qel_wcslcpy(nullptr, L"x", 2));
    EXPECT_EQ(0u, qel_wcslcpy(wbuf, nullptr, 2));
    EXPECT_EQ(0, qel_wcscmp(nullptr, L"x"));
    EXPECT_EQ(0, qel_wcsncmp(L"x", nullptr, 1));
    EXPECT_EQ(0, qel_wcsicmp(nullptr, L"x"));
    EXPECT_EQ(0, qel_wcsnicmp(L"x", nullptr, 1));
    EXPECT_EQ(nullptr, qel_wcschr(nullptr, L'a'));
    EXPECT_EQ(nullptr, qel_wcsichr(nullptr, L'a'));
    EXPECT_EQ(nullptr, qel_wcsrchr(nullptr, L'a'));
    EXPECT_EQ(nullptr, qel_wcsirchr(nullptr, L'a'));
    EXPECT_EQ(nullptr, qel_wcsnrchr(nullptr, 3, L'a'));
    EXPECT_EQ(nullptr, qel_wcsnirchr(nullptr, 3, L'a'));
    EXPECT_EQ(nullptr, qel_wcsstr(nullptr, L"a"));
    EXPECT_EQ(nullptr, qel_wcsstr(L"a", nullptr));
    EXPECT_EQ(nullptr, qel_wcsistr(nullptr, L"a"));
    EXPECT_EQ(nullptr, qel_wcsistr(L"a", nullptr));

    // Buffers untouched by the refused calls.
    EXPECT_STREQ("abc", buf);
    EXPECT_STREQ(L"abc", wbuf);
}

TEST(Str, ZeroLengthsGiveNeutralResults)
{
    char buf[4] = "abc";
    wchar_t wbuf[4] = L"abc";
    EXPECT_EQ(nullptr, qel_memset(buf, 'x', 0)); // null, not dst
    EXPECT_EQ(nullptr, qel_memcpy(buf, "x", 0));
    EXPECT_EQ(nullptr, qel_memmov(buf, "x", 0));
    EXPECT_EQ(0, qel_memcmp("a", "b", 0));
    EXPECT_EQ(0u, qel_strnlen("abc", 0));
    EXPECT_EQ(nullptr, qel_strncpy(buf, "x", 0));
    EXPECT_EQ(0u, qel_strlcpy(buf, "abcdef", 0));
    EXPECT_EQ(0, qel_strncmp("a", "b", 0));
    EXPECT_EQ(0, qel_strnicmp("a", "b", 0));
    EXPECT_EQ(nullptr, qel_strnchr("abc", 0, 'a'));
    EXPECT_EQ(nullptr, qel_strnrchr("abc", 0, 'a'));
    EXPECT_EQ(nullptr, qel_strnstr("abc", 0, ""));
    EXPECT_EQ(nullptr, qel_strnistr("abc", 0, ""));
    EXPECT_EQ(0u, qel_wcsnlen(L"abc", 0));
    EXPECT_EQ(nullptr, qel_wcsncpy(wbuf, L"x", 0));
    EXPECT_EQ(0u, qel_wcslcpy(wbuf, L"x", 0));
    EXPECT_EQ(0, qel_wcsncmp(L"a", L"b", 0));
    EXPECT_EQ(0, qel_wcsnicmp(L"a", L"b", 0));
    EXPECT_EQ(nullptr, qel_wcsnrchr(L"abc", 0, L'a'));
    EXPECT_STREQ("abc", buf);
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

// ---- memory ---------------------------------------------------------------------

TEST(Str, MemcpyCopiesForwardByteByByte)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 2000; ++round) {
        std::vector<unsigned char> a(64), b;
        for (auto &x : a)
            x = static_cast<unsigned char>(rng.next());
        b = a;
        size_t src = rng.range(0, 40), dst = rng.range(0, 40), n = rng.range(1, 24);
        // Model: the forward byte loop.
        for (size_t i = 0; i < n; ++i)
            b[dst + i] = b[src + i];
        ASSERT_EQ(a.data() + dst, qel_memcpy(a.data() + dst, a.data() + src, n));
        ASSERT_EQ(b, a) << "src " << src << " dst " << dst << " n " << n;
    }
    // The kept overlap effect: dst one past src repeats the first byte.
    char s[8] = "abcdef";
    qel_memcpy(s + 1, s, 5);
    EXPECT_STREQ("aaaaaa", s);
}

TEST(Str, MemmovAndMemsetAndMemcmp)
{
    char s[8] = "abcdef";
    EXPECT_EQ(s + 1, qel_memmov(s + 1, s, 5));
    EXPECT_STREQ("aabcde", s);
    EXPECT_EQ(s, qel_memset(s, 'z', 3));
    EXPECT_STREQ("zzzcde", s);
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 2000; ++round) {
        std::string x = rng.bytes(rng.range(1, 8), 0, 3), y = rng.bytes(x.size(), 0, 3);
        if (rng.chance(20))
            x[0] = static_cast<char>(0xF0); // above 0x7F compares as unsigned
        ASSERT_EQ(sign(memcmp(x.data(), y.data(), x.size())), qel_memcmp(x.data(), y.data(), x.size()));
    }
    EXPECT_EQ(1, qel_memcmp("\xF0", "\x10", 1));
    EXPECT_EQ(-1, qel_memcmp("abc", "abd", 3));
}

// ---- narrow lengths and copies --------------------------------------------------------

TEST(Str, LengthsAndDuplicates)
{
    EXPECT_EQ(3u, qel_strlen("abc"));
    EXPECT_EQ(2u, qel_strnlen("abc", 2));
    EXPECT_EQ(3u, qel_strnlen("abc", 10));
    char *d = qel_strdup("hello");
    ASSERT_NE(nullptr, d);
    EXPECT_STREQ("hello", d);
    free(d);
    d = qel_strndup("hello", 3);
    ASSERT_NE(nullptr, d);
    EXPECT_STREQ("hel", d);
    free(d);
    d = qel_strndup("hi", 10);
    EXPECT_STREQ("hi", d);
    free(d);
    d = qel_strndup("hi", 0);
    ASSERT_NE(nullptr, d);
    EXPECT_STREQ("", d);
    free(d);
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
    wchar_t *w = qel_wcsdup(L"abc");
    ASSERT_NE(nullptr, w);
    EXPECT_STREQ(L"abc", w);
    free(w);
}

TEST(Str, CopiesFollowTheirClassicForms)
{
    char buf[8];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(buf, qel_strcpy(buf, "abc"));
    EXPECT_STREQ("abc", buf);
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(buf, qel_strncpy(buf, "ab", 5)); // pads with zeros
    EXPECT_EQ(0, memcmp(buf, "ab\0\0\0xxx", 8));
    memset(buf, 'x', sizeof buf);
    qel_strncpy(buf, "abcdef", 3); // unterminated
    EXPECT_EQ(0, memcmp(buf, "abcxxxxx", 8));
}

TEST(Str, StrlcpyReturnsSourceLengthAndTerminates)
{
    char buf[8];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(6u, qel_strlcpy(buf, "abcdef", 4));
    EXPECT_STREQ("abc", buf);
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(0u, qel_strlcpy(buf, "abcdef", 0)); // 0, not 6, and nothing written
    EXPECT_EQ('x', buf[0]);
    EXPECT_EQ(2u, qel_strlcpy(buf, "ab", 8));
    EXPECT_STREQ("ab", buf);
    EXPECT_EQ(3u, qel_strlcpy(buf, "abc", 1));
    EXPECT_STREQ("", buf);
}

// ---- narrow comparisons --------------------------------------------------------------

TEST(Str, ComparisonsForwardToTheCLibrary)
{
    EXPECT_EQ(0, qel_strcmp(nullptr, "x"));
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 3000; ++round) {
        std::string a = random_text(rng, 6, "aAbB\xc9\xe9"), b = random_text(rng, 6, "aAbB\xc9\xe9");
        size_t n = rng.range(0, 8);
        ASSERT_EQ(sign(strcmp(a.c_str(), b.c_str())), sign(qel_strcmp(a.c_str(), b.c_str())));
        ASSERT_EQ(n ? sign(strncmp(a.c_str(), b.c_str(), n)) : 0, sign(qel_strncmp(a.c_str(), b.c_str(), n)));
        ASSERT_EQ(sign(strcasecmp(a.c_str(), b.c_str())), sign(qel_stricmp(a.c_str(), b.c_str())));
        ASSERT_EQ(n ? sign(strncasecmp(a.c_str(), b.c_str(), n)) : 0,
                  sign(qel_strnicmp(a.c_str(), b.c_str(), n)));
    }
    EXPECT_EQ(0, qel_stricmp("HeLLo", "hello"));
    EXPECT_EQ(0, qel_strnicmp("HeLLo!", "hello?", 5));
    EXPECT_NE(0, qel_strnicmp("HeLLo!", "hello?", 6));
}

TEST(Str, NarrowFoldingFollowsTheLocale)
{
    // Each folding member agrees with tolower() of whatever locale is current.
    const char *saved = setlocale(LC_CTYPE, nullptr);
    std::string keep = saved ? saved : "C";
    for (const char *loc : {"C", "C.UTF-8"}) {
        if (!setlocale(LC_CTYPE, loc))
            continue;
        for (int c = 1; c < 256; ++c) {
            char s[2] = {static_cast<char>(c), 0};
            char t[2] = {static_cast<char>(tolower(c)), 0};
            bool same = tolower(c) == tolower(static_cast<unsigned char>(t[0]));
            ASSERT_EQ(same ? s : nullptr, qel_strichr(s, t[0])) << loc << " " << c;
            ASSERT_EQ(sign(strcasecmp(s, t)), sign(qel_stricmp(s, t))) << loc << " " << c;
        }
    }
    setlocale(LC_CTYPE, keep.c_str());
}

// ---- narrow character searches ---------------------------------------------------------

TEST(Str, OnlyStrchrFindsTheTerminator)
{
    const char *s = "abc";
    EXPECT_EQ(s + 3, qel_strchr(s, 0));
    EXPECT_EQ(s + 1, qel_strchr(s, 'b'));
    EXPECT_EQ(nullptr, qel_strichr(s, 0));
    EXPECT_EQ(nullptr, qel_strnchr(s, 4, 0));
    EXPECT_EQ(nullptr, qel_strnichr(s, 4, 0));
    EXPECT_EQ(nullptr, qel_strrchr(s, 0));
    EXPECT_EQ(nullptr, qel_strirchr(s, 0));
    EXPECT_EQ(nullptr, qel_strnrchr(s, 4, 0));
    EXPECT_EQ(nullptr, qel_strnirchr(s, 4, 0));
    EXPECT_EQ(s + 1, qel_strichr(s, 'B'));
    EXPECT_EQ(s + 1, qel_strichr(s, 'B' + 256)); // low 8 bits
    EXPECT_EQ(s + 2, qel_strrchr(s, 'c'));
}

TEST(Str, ReverseSearchesGiveUpAtTheTerminator)
{
    const char *s = "a/b";
    EXPECT_EQ(s + 1, qel_strnrchr(s, 3, '/'));
    EXPECT_EQ(nullptr, qel_strnrchr(s, 2, 'b'));
    const char padded[8] = "a/b";
    EXPECT_EQ(nullptr, qel_strnrchr(padded, 5, 'b')); // length beyond the end: meets a terminator first
    char buf[6] = {'a', 'x', 0, 'x', 'x', 0};
    EXPECT_EQ(nullptr, qel_strnrchr(buf, 5, 'a'));
    EXPECT_EQ(buf + 4, qel_strnrchr(buf, 5, 'x'));
    EXPECT_EQ(buf + 4, qel_strnirchr(buf, 5, 'X'));
    EXPECT_EQ(s + 2, qel_strirchr(s, 'B'));
}

TEST(Str, NarrowCharacterSearchesMatchTheirModels)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 5000; ++round) {
        std::string s = random_text(rng, 10, "aAbB/");
        const char *p = s.c_str();
        size_t n = rng.range(0, s.size() + 2);
        if (n > s.size() + 1)
            n = s.size() + 1; // stay inside the array (terminator included)
        int c = "aAbB/x"[rng.range(0, 5)];
        auto f = [](unsigned char x) { return tolower(x); };
        long first = -1, ifirst = -1, last = -1, ilast = -1;
        for (size_t i = 0; i < std::min(n, s.size()); ++i) {
            if (first < 0 && s[i] == c)
                first = static_cast<long>(i);
            if (ifirst < 0 && f(s[i]) == f(c))
                ifirst = static_cast<long>(i);
        }
        if (n <= s.size()) { // the reverse scan meets no terminator
            for (size_t i = n; i-- > 0;) {
                if (last < 0 && s[i] == c)
                    last = static_cast<long>(i);
                if (ilast < 0 && f(s[i]) == f(c))
                    ilast = static_cast<long>(i);
            }
        }
        ASSERT_EQ(first, offset(p, qel_strnchr(p, n, c))) << s << " " << n;
        ASSERT_EQ(ifirst, offset(p, qel_strnichr(p, n, c))) << s << " " << n;
        ASSERT_EQ(last, offset(p, qel_strnrchr(p, n, c))) << s << " " << n;
        ASSERT_EQ(ilast, offset(p, qel_strnirchr(p, n, c))) << s << " " << n;
        ASSERT_EQ(offset(p, strrchr(p, c)), offset(p, qel_strrchr(p, c)));
        ASSERT_EQ(offset(p, strchr(p, c)), offset(p, qel_strchr(p, c)));
    }
}

// ---- narrow substring searches ------------------------------------------------------------

TEST(Str, BoundedSearchStaysWithinTheBound)
{
    const char *h = "abcdef";
    EXPECT_EQ(nullptr, qel_strnstr(h, 3, "cd"));
    EXPECT_EQ(h + 2, qel_strnstr(h, 4, "cd"));
    EXPECT_EQ(h, qel_strnstr(h, 1, ""));
    EXPECT_EQ(nullptr, qel_strnistr(h, 3, "CD"));
    EXPECT_EQ(h + 2, qel_strnistr(h, 4, "CD"));
    EXPECT_EQ(h, qel_strnistr(h, 2, ""));
    EXPECT_EQ(nullptr, qel_strnstr(h, 100, "efg")); // stops at the terminator
    EXPECT_EQ(h + 3, qel_stristr(h, "DEF"));
    EXPECT_EQ(h + 3, qel_strstr(h, "def"));
    // A bound inside an unterminated array is honoured.
    const char raw[4] = {'x', 'y', 'z', 'w'};
    EXPECT_EQ(raw + 1, qel_strnstr(raw, 4, "yz"));
    EXPECT_EQ(nullptr, qel_strnstr(raw, 4, "zwq"));
    EXPECT_EQ(nullptr, qel_strnistr(raw, 4, "ZWQ"));
}

TEST(Str, NarrowSubstringSearchesMatchTheNaiveSearch)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    auto lower = [](unsigned char x) { return tolower(x); };
    auto same = [](unsigned char x) { return static_cast<int>(x); };
    for (int round = 0; round < 20000; ++round) {
        std::string h = random_text(rng, 14, "aAbB"), nd = random_text(rng, 4, "aAbB");
        size_t n = rng.range(1, h.size() + 1);
        const char *p = h.c_str();
        long want = offset(p, naive_bounded(p, n, nd.c_str(), byte_eq));
        long iwant = offset(p, naive_bounded(p, n, nd.c_str(), byte_ieq));
        ASSERT_EQ(want, model_first(h, n, nd, same)) << h << " " << n << " " << nd;
        ASSERT_EQ(iwant, model_first(h, n, nd, lower)) << h << " " << n << " " << nd;
        ASSERT_EQ(want, offset(p, qel_strnstr(p, n, nd.c_str()))) << h << " " << n << " " << nd;
        ASSERT_EQ(iwant, offset(p, qel_strnistr(p, n, nd.c_str()))) << h << " " << n << " " << nd;
        ASSERT_EQ(offset(p, strstr(p, nd.c_str())), offset(p, qel_strstr(p, nd.c_str())));
        ASSERT_EQ(offset(p, strcasestr(p, nd.c_str())), offset(p, qel_stristr(p, nd.c_str())));
    }
}

// ---- wide strings ------------------------------------------------------------------------

TEST(Str, WideLengthsDuplicatesAndCopies)
{
    EXPECT_EQ(3u, qel_wcslen(L"abc"));
    EXPECT_EQ(2u, qel_wcsnlen(L"abc", 2));
    EXPECT_EQ(3u, qel_wcsnlen(L"abc", 9));
    wchar_t *d = qel_wcsndup(L"abcdef", 2);
    ASSERT_NE(nullptr, d);
    EXPECT_STREQ(L"ab", d);
    free(d);
    d = qel_wcsndup(L"ab", 0);
    ASSERT_NE(nullptr, d);
    EXPECT_STREQ(L"", d);
    free(d);

    wchar_t buf[6];
    wmemset(buf, L'x', 6);
    EXPECT_EQ(buf, qel_wcsncpy(buf, L"ab", 5));
    EXPECT_EQ(0, wmemcmp(buf, L"ab\0\0\0x", 6));
    wmemset(buf, L'x', 6);
    qel_wcsncpy(buf, L"abcdef", 3);
    EXPECT_EQ(0, wmemcmp(buf, L"abcxxx", 6));
}

TEST(Str, WcslcpyTruncatesWithoutTerminatorAndReturnsSize)
{
    wchar_t buf[8];
    wmemset(buf, L'x', 8);
    EXPECT_EQ(4u, qel_wcslcpy(buf, L"abcdef", 4));
    EXPECT_EQ(0, wmemcmp(buf, L"abcdxxxx", 8)); // four characters, no terminator
    wmemset(buf, L'x', 8);
    EXPECT_EQ(3u, qel_wcslcpy(buf, L"abc", 4));
    EXPECT_EQ(0, wmemcmp(buf, L"abc\0xxxx", 8));
    wmemset(buf, L'x', 8);
    EXPECT_EQ(3u, qel_wcslcpy(buf, L"abc", 3));
    EXPECT_EQ(0, wmemcmp(buf, L"abcxxxxx", 8));
    wchar_t self[4] = L"abc";
    EXPECT_EQ(3u, qel_wcslcpy(self, self, 2)); // same pointer: its length, nothing copied
    EXPECT_STREQ(L"abc", self);
    // The narrow twin returns the source length and terminates.
    char nb[8];
    EXPECT_EQ(6u, qel_strlcpy(nb, "abcdef", 4));
    EXPECT_STREQ("abc", nb);
}

TEST(Str, WideComparisonsSignVersusDifference)
{
    EXPECT_EQ(-1, qel_wcscmp(L"a", L"c"));
    EXPECT_EQ(-2, qel_wcsncmp(L"a", L"c", 1));
    EXPECT_EQ(2, qel_wcsncmp(L"c", L"a", 5));
    EXPECT_EQ(1, qel_wcscmp(L"ab", L"a"));
    EXPECT_EQ(-'b', qel_wcsncmp(L"a", L"ab", 2));
    EXPECT_EQ(0, qel_wcsncmp(L"abX", L"abY", 2));
    const wchar_t *s = L"same";
    EXPECT_EQ(0, qel_wcscmp(s, s));
    EXPECT_EQ(0, qel_wcsncmp(s, s, 4));
    // Signed 32-bit code points: a negative value sorts first.
    const wchar_t neg[2] = {static_cast<wchar_t>(-5), 0};
    EXPECT_EQ(-1, qel_wcscmp(neg, L"a"));
    EXPECT_EQ(-5 - 'a', qel_wcsncmp(neg, L"a", 1));
    // The difference wraps instead of overflowing.
    const wchar_t big[2] = {0x7FFFFFFF, 0}, small[2] = {-1, 0};
    EXPECT_EQ(static_cast<int>(0x80000000u), qel_wcsncmp(big, small, 1));
    EXPECT_EQ(1, qel_wcscmp(big, small));
}

TEST(Str, WideFoldingIsAsciiOnly)
{
    EXPECT_EQ(0, qel_wcsicmp(L"HeLLo", L"hello"));
    EXPECT_NE(0, qel_wcsicmp(L"\u00C9", L"\u00E9")); // É and é stay different
    EXPECT_EQ(-1, qel_wcsicmp(L"\u00C9", L"\u00E9"));
    EXPECT_EQ(1, qel_wcsicmp(L"b", L"A"));
    EXPECT_EQ(0, qel_wcsnicmp(L"ABCx", L"abcy", 3));
    EXPECT_EQ(-1, qel_wcsnicmp(L"ABCx", L"abcy", 4));
    // '[' (91) follows 'A' but precedes it once 'A' is folded to 'a' (97).
    EXPECT_EQ(1, qel_wcscmp(L"[", L"A"));
    EXPECT_EQ(-1, qel_wcsicmp(L"[", L"A"));
    EXPECT_EQ(nullptr, qel_wcsichr(L"\u00C9", L'\u00E9'));
    const wchar_t *s = L"xAbA";
    EXPECT_EQ(s + 1, qel_wcsichr(s, L'a'));
    EXPECT_EQ(s + 3, qel_wcsirchr(s, L'a'));
    EXPECT_EQ(s + 1, qel_wcsistr(s, L"aBa"));
}

TEST(Str, WideComparisonsMatchTheirModels)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    const std::wstring alpha = L"aAbB\u00C9\u00E9[";
    for (int round = 0; round < 5000; ++round) {
        std::wstring a = random_text(rng, 6, alpha.c_str()), b = random_text(rng, 6, alpha.c_str());
        size_t n = rng.range(0, 8);
        int s = 0, d = 0, is = 0, ins = 0;
        for (size_t i = 0;; ++i) {
            wchar_t x = a.c_str()[i], y = b.c_str()[i];
            if (x != y) {
                s = x < y ? -1 : 1;
                break;
            }
            if (x == 0)
                break;
        }
        for (size_t i = 0; i < n; ++i) {
            wchar_t x = a.c_str()[i], y = b.c_str()[i];
            if (x != y) {
                d = x - y;
                break;
            }
            if (x == 0)
                break;
        }
        for (size_t i = 0;; ++i) {
            wchar_t x = ascii_fold(a.c_str()[i]), y = ascii_fold(b.c_str()[i]);
            if (x != y) {
                is = x < y ? -1 : 1;
                if (i < n)
                    ins = is;
                break;
            }
            if (x == 0)
                break;
        }
        ASSERT_EQ(s, qel_wcscmp(a.c_str(), b.c_str()));
        ASSERT_EQ(sign(wcscmp(a.c_str(), b.c_str())), qel_wcscmp(a.c_str(), b.c_str()));
        ASSERT_EQ(d, qel_wcsncmp(a.c_str(), b.c_str(), n));
        ASSERT_EQ(is, qel_wcsicmp(a.c_str(), b.c_str()));
        ASSERT_EQ(ins, qel_wcsnicmp(a.c_str(), b.c_str(), n));
    }
}

TEST(Str, WideSearchesMatchTheirModels)
{
    EXPECT_EQ(nullptr, qel_wcschr(L"abc", 0));
    EXPECT_EQ(nullptr, qel_wcsichr(L"abc", 0));
    EXPECT_EQ(nullptr, qel_wcsrchr(L"abc", 0));
    EXPECT_EQ(nullptr, qel_wcsnrchr(L"a/b", 2, L'b'));
    const wchar_t *ab = L"a/b";
    EXPECT_EQ(ab + 1, qel_wcsnrchr(ab, 3, L'/'));
    EXPECT_EQ(ab, qel_wcsstr(ab, L""));
    EXPECT_EQ(nullptr, qel_wcsstr(ab, L"b/"));

    Rng rng;
    SCOPED_TRACE(rng.seed());
    const std::wstring alpha = L"aAbB\u00C9";
    for (int round = 0; round < 10000; ++round) {
        std::wstring s = random_text(rng, 10, alpha.c_str()), nd = random_text(rng, 3, alpha.c_str());
        const wchar_t *p = s.c_str();
        wchar_t c = alpha[rng.range(0, alpha.size() - 1)];
        size_t n = rng.range(0, s.size());
        std::wstring fs = s, fnd = nd;
        for (auto &x : fs)
            x = ascii_fold(x);
        for (auto &x : fnd)
            x = ascii_fold(x);
        size_t at = s.find(c), iat = fs.find(ascii_fold(c));
        size_t rat = s.substr(0, n).rfind(c), irat = fs.substr(0, n).rfind(ascii_fold(c));
        size_t sat = s.find(nd), isat = fs.find(fnd);
        auto off = [](size_t x) { return x == std::wstring::npos ? -1L : static_cast<long>(x); };
        ASSERT_EQ(off(at), woffset(p, qel_wcschr(p, c)));
        ASSERT_EQ(off(iat), woffset(p, qel_wcsichr(p, c)));
        ASSERT_EQ(off(s.rfind(c)), woffset(p, qel_wcsrchr(p, c)));
        ASSERT_EQ(off(fs.rfind(ascii_fold(c))), woffset(p, qel_wcsirchr(p, c)));
        ASSERT_EQ(off(rat), woffset(p, qel_wcsnrchr(p, n, c)));
        ASSERT_EQ(off(irat), woffset(p, qel_wcsnirchr(p, n, c)));
        ASSERT_EQ(off(sat), woffset(p, qel_wcsstr(p, nd.c_str())));
        ASSERT_EQ(woffset(p, wcsstr(p, nd.c_str())), woffset(p, qel_wcsstr(p, nd.c_str())));
        ASSERT_EQ(off(isat), woffset(p, qel_wcsistr(p, nd.c_str())));
    }
}

} // namespace

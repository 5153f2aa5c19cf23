#include "qel_conv.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/conv_impl.h"
#include "base/internal.h"
#include "base/wide_impl.h"
#include "support/test_util.h"
#include "support/text_oracle.h"

namespace {

namespace oracle = qeltest::oracle;
using oracle::Converted;
using qeltest::Rng;

std::string bytes(std::initializer_list<int> b)
{
    return std::string(b.begin(), b.end());
}

// Ours, in the oracle's shape: the result and every byte of a buffer that
// started as garbage (so the zero-fill is checked too).
Converted ours_to_utf8(const wchar_t *w, size_t size)
{
    Converted r{0, std::string(size, '\xAA')};
    r.rc = qel_str_unicode_to_utf8_ex(w, r.out.data(), size) == QEL_OK ? 0 : -1;
    return r;
}

Converted ours_to_wide(const char *s, size_t count)
{
    std::vector<wchar_t> w(count, static_cast<wchar_t>(0x5A5A5A5A));
    int rc = qel_str_utf8_to_unicode_ex(s, w.data(), count) == QEL_OK ? 0 : -1;
    return {rc, std::string(reinterpret_cast<const char *>(w.data()), count * sizeof(wchar_t))};
}

// Each check agrees with its byte-wise rule on the n bytes at p.
void expect_checks_match_rules(const char *p, size_t n)
{
    auto u = reinterpret_cast<const unsigned char *>(p);
    ASSERT_EQ(oracle::is_ascii(u, n), qel_str_is_ascii(p, n)) << testing::PrintToString(std::string(p, n));
    ASSERT_EQ(oracle::is_utf8(u, n), qel_str_is_utf8(p, n)) << testing::PrintToString(std::string(p, n));
    ASSERT_EQ(oracle::is_utf16(u, n), qel_str_is_utf16(p, n)) << testing::PrintToString(std::string(p, n));
}

void expect_checks_match_rules(const std::string &s)
{
    expect_checks_match_rules(s.data(), s.size());
}

TEST(Conv, ChecksOnTheDeliberateCases)
{
    for (unsigned b = 0; b < 256; ++b)
        EXPECT_EQ(oracle::text_class(b), qel::detail::text_class(static_cast<unsigned char>(b))) << b;
    const std::string run(100, 'a');
    const struct { int (*check)(const void *, size_t); std::string text; int want; } cases[] = {
        {qel_str_is_ascii, "", 1},         {qel_str_is_ascii, bytes({'a', 0, 'b'}), 0}, // a terminator inside
        {qel_str_is_ascii, "\x85", 0},     // class 1, but above 0x7F
        {qel_str_is_utf8, "hello", 0},     // pure ASCII is not reported as UTF-8
        {qel_str_is_utf8, "", 0},          {qel_str_is_utf8, "\xc3", 0},
        {qel_str_is_utf8, "\xc3\xa9\xc3", 1}, // a truncated final sequence is tolerated
        {qel_str_is_utf8, "\xe6\x97\xa5\xe6\x9c", 1},
        {qel_str_is_utf8, "\xc0\x80", 1},                 // overlong accepted
        {qel_str_is_utf8, "\xed\xa0\x80", 1},             // surrogate accepted
        {qel_str_is_utf8, "\xf8\x88\x80\x80\x80", 1},     // 5- and 6-byte forms accepted
        {qel_str_is_utf8, "\xfc\x84\x80\x80\x80\x80", 1}, {qel_str_is_utf8, "\xfe\x80", 0},
        {qel_str_is_utf8, run + "\xc3\xa9" + run, 1},     {qel_str_is_utf8, "\xc3\xa9" + run + "\x7f" + run, 0},
        {qel_str_is_utf16, bytes({0xFF, 0xFE, 0x41, 0x00}), 1}, {qel_str_is_utf16, bytes({0xFE, 0xFF, 0x00, 0x41}), 1},
        {qel_str_is_utf16, bytes({0x41, 0x00}), 0},             // no mark
        {qel_str_is_utf16, bytes({0xFF, 0xFE}), 1},             // a lone mark
        {qel_str_is_utf16, bytes({0xFF, 0xFE, 0x41, 0x00, 0x01}), 1}, // odd last byte ignored
        {qel_str_is_utf16, bytes({0xFF, 0xFE, 0xFE, 0xFF}), 1}, // signed bytes: -2 + -256, not 0xFFFE
        {qel_str_is_utf16, bytes({0xFF, 0xFE, 0x80, 0x00}), 1}, // negative, passes
        {qel_str_is_utf16, bytes({0xFF, 0xFE, 0x01, 0x01}), 1}, // 257: not checked by class
        {qel_str_is_utf16, bytes({0xFF, 0xFE, 0x00, 0x00}), 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.want, c.check(c.text.data(), c.text.size())) << testing::PrintToString(c.text);
    EXPECT_EQ(1, qel_str_is_ascii(nullptr, 0));
    for (auto check : {qel_str_is_ascii, qel_str_is_utf8, qel_str_is_utf16})
        EXPECT_EQ(0, check(nullptr, 4));
}

// Text-like random bytes: printable runs with controls, high bytes and
// multibyte sequences (well-formed, broken and truncated) mixed in.
std::string texty(Rng &rng, size_t n, unsigned ascii_percent)
{
    static const char *const pieces[] = {"\xc3\xa9", "\xe6\x97\xa5", "\xf0\x9f\x98\x80", "\t", "\n", "\r\n", "\x85",
                                         "\xc3", "\xe6\x97", "\x80", "\x7f", "\x01", "\xff", "\xfe\xff",
                                         "\xf8\x88\x80\x80\x80", "\xfc\x84\x80\x80\x80\x80", "\xfc\x84\x80\x80\x80",
                                         "\xc0\x80", "\xed\xa0\x80", "\x0b", "\x1b"};
    std::string s;
    while (s.size() < n) {
        uint64_t pick = rng.range(0, 99);
        if (pick < ascii_percent)
            s.append(rng.range(1, 40), static_cast<char>(rng.range(0x20, 0x7E)));
        else if (pick < 95)
            s += pieces[rng.range(0, rng.chance(50) ? 2 : std::size(pieces) - 1)];
        else
            s += rng.bytes(rng.range(1, 4));
    }
    s.resize(n);
    return s;
}

TEST(Conv, ChecksMatchByteWiseRulesOnRandomBuffers)
{
    Rng rng;
    SCOPED_TRACE(testing::Message() << "seed " << rng.seed());
    std::vector<char> arena(600);
    int utf8_ones = 0, ascii_ones = 0, utf16_ones = 0;
    for (int iter = 0; iter < 60000; ++iter) {
        size_t n = rng.range(0, 300);
        std::string s = rng.chance(15) ? rng.bytes(n) : texty(rng, n, rng.chance(30) ? 10 : 70);
        if (rng.chance(10)) { // UTF-16 units, mostly printable with a zero half
            s = rng.chance(50) ? "\xFF\xFE" : "\xFE\xFF";
            for (size_t i = 0, units = rng.range(0, 40); i < units; ++i) {
                char c = static_cast<char>(rng.chance(95) ? rng.range(0x20, 0x7E) : rng.range(0, 255));
                char z = static_cast<char>(rng.chance(90) ? 0 : rng.range(0, 255));
                s += s[0] == '\xFF' ? std::string{c, z} : std::string{z, c};
            }
        }
        size_t off = rng.range(0, 15); // every alignment
        memcpy(arena.data() + off, s.data(), s.size());
        expect_checks_match_rules(arena.data() + off, s.size());
        ascii_ones += qel_str_is_ascii(s.data(), s.size());
        utf8_ones += qel_str_is_utf8(s.data(), s.size());
        utf16_ones += qel_str_is_utf16(s.data(), s.size());
    }
    EXPECT_GT(ascii_ones, 1000); // each answer occurs often enough to mean something
    EXPECT_GT(utf8_ones, 1000);
    EXPECT_GT(utf16_ones, 1000);
    for (unsigned lo = 0; lo < 256; ++lo) // every unit after either mark
        for (unsigned hi = 0; hi < 256; ++hi) {
            expect_checks_match_rules(bytes({0xFF, 0xFE, static_cast<int>(lo), static_cast<int>(hi)}));
            expect_checks_match_rules(bytes({0xFE, 0xFF, static_cast<int>(hi), static_cast<int>(lo)}));
        }
}

TEST(Conv, ChecksSeeEveryByteAtEveryPositionOfASkippedRun)
{
    // Printable runs are skipped in blocks: any byte at any position, after
    // an optional multibyte sequence, must still be seen.
    for (const std::string lead : {"", "\xc3\xa9"})
        for (size_t pos = 0; pos < 40; ++pos)
            for (unsigned b = 0; b < 256; ++b) {
                std::string s = lead + std::string(40, 'q');
                s[lead.size() + pos] = static_cast<char>(b);
                expect_checks_match_rules(s);
            }
    // Every lead length, and the two never-leading forms, at every offset, cut
    // at every length, alone or after a complete sequence.
    for (const std::string seq : {"\xc3\xa9", "\xe6\x97\xa5", "\xf0\x9f\x98\x80", "\xf8\x88\x80\x80\x80",
                                  "\xfc\x84\x80\x80\x80\x80", "\xfe\x80\x80\x80\x80\x80", "\xff\x80\x80\x80\x80\x80\x80"})
        for (size_t pad = 0; pad < 40; ++pad)
            for (size_t cut = 1; cut <= seq.size(); ++cut)
                for (const std::string after : {"", "zzzzzzzzz"})
                    expect_checks_match_rules((pad >= 20 ? "\xc3\xa9" : "") + std::string(pad % 20, 'a') +
                                              seq.substr(0, cut) + after);
}

TEST(Conv, ConversionsPairWideStorageWithUcs2)
{
    // Each 4-byte wide character is read as two UCS-2 units (L"AB" is A, 0, B, 0;
    // U+1F600 is F600, 0001); a unit in the surrogate range does not convert;
    // output that does not fit fails and keeps what was written.
    const struct { const wchar_t *in; size_t size; Converted want; } to_utf8[] = {
        {L"AB", 8, {0, bytes({'A', 0, 'B', 0, 0, 0, 0, 0})}},
        {L"\U0001F600", 6, {0, bytes({0xEF, 0x98, 0x80, 0x01, 0, 0})}},
        {L"a\xD800", 4, {-1, bytes({'a', 0, 0, 0})}},
        {L"AB", 3, {-1, bytes({'A', 0, 'B'})}},
    };
    for (const auto &c : to_utf8) {
        EXPECT_EQ(c.want, ours_to_utf8(c.in, c.size)) << testing::PrintToString(c.in);
        EXPECT_EQ(c.want, oracle::wide_to_utf8(c.in, c.size)) << testing::PrintToString(c.in);
    }
    const struct { const char *in; size_t count; int rc; std::vector<wchar_t> want; } to_wide[] = {
        {"AB", 2, 0, {0x00420041, 0}},   {"\xc3\xa9", 2, 0, {0xE9, 0}}, {"abc", 2, 0, {0x00620061, 0x63}},
        {"abc", 1, -1, {0x00620061}},    {"\xf0\x9f\x98\x80", 1, -1, {}}, // beyond UCS-2
        {"ab\xc3", 2, -1, {}},           {"\xff", 1, -1, {}},              // incomplete, invalid
    };
    for (const auto &c : to_wide) {
        Converted got = ours_to_wide(c.in, c.count);
        EXPECT_EQ(c.rc, got.rc) << c.in;
        EXPECT_EQ(got, oracle::utf8_to_wide(c.in, c.count)) << c.in;
        if (!c.want.empty()) {
            EXPECT_EQ(std::string(reinterpret_cast<const char *>(c.want.data()), c.count * 4), got.out) << c.in;
        }
    }

    // The allocating forms: wcslen * 4 + 1 bytes, which six-byte characters overflow.
    const struct { const wchar_t *in; std::string want; } alloc[] = { // want empty: a null result
        {L"\u00e9t\u00e9", bytes({0xC3, 0xA9, 0, 't', 0, 0xC3, 0xA9, 0, 0})}, {L"\x20AC20AC\x20AC20AC", ""},
        {L"\u20ac\u20ac", bytes({0xE2, 0x82, 0xAC, 0, 0xE2, 0x82, 0xAC, 0, 0})}, {L"", std::string(1, '\0')}};
    for (const auto &c : alloc) {
        char *s = qel_str_unicode_to_utf8(c.in);
        EXPECT_EQ(c.want, s ? std::string(s, c.want.size()) : "") << testing::PrintToString(c.in);
        qel_str_free(s);
    }
    wchar_t *a = qel_str_utf8_to_unicode("xyz!");
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(std::wstring({0x00790078, 0x0021007A, 0}), std::wstring(a, 3));
    qel_str_free(a);
    EXPECT_EQ(nullptr, qel_str_utf8_to_unicode("\xff"));
    wchar_t *empty = qel_str_utf8_to_unicode("");
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ(0, empty[0]);
    qel_str_free(empty);
}

TEST(Conv, NullAndZeroArgumentsAreRefusedAndCodeConvertOpensTheNamedConverter)
{
    char out[8];
    wchar_t w[8];
    memset(out, 'x', sizeof out);
    wmemset(w, L'x', 8);
    for (auto r : {qel_str_unicode_to_utf8_ex(nullptr, out, 8), qel_str_unicode_to_utf8_ex(L"a", nullptr, 8),
                   qel_str_unicode_to_utf8_ex(L"a", out, 0), qel_str_utf8_to_unicode_ex(nullptr, w, 8),
                   qel_str_utf8_to_unicode_ex("a", nullptr, 8), qel_str_utf8_to_unicode_ex("a", w, 0),
                   qel_str_utf8_to_unicode_ex("a", w, SIZE_MAX / 2)})
        EXPECT_EQ(QEL_E_FAIL, r);
    for (int r : {code_convert(nullptr, "UTF-8", "a", 1, out, 8), code_convert("UTF-8", nullptr, "a", 1, out, 8),
                  code_convert("UTF-8", "UTF-8", nullptr, 1, out, 8), code_convert("UTF-8", "UTF-8", "a", 1, nullptr, 8),
                  code_convert("NO-SUCH-ENCODING", "UTF-8", "a", 1, out, 8)})
        EXPECT_EQ(-1, r);
    EXPECT_EQ(std::string(8, 'x'), std::string(out, 8)); // nothing written, nothing opened
    EXPECT_EQ(std::wstring(8, L'x'), std::wstring(w, 8));
    EXPECT_EQ(nullptr, qel_str_unicode_to_utf8(nullptr));
    EXPECT_EQ(nullptr, qel_str_utf8_to_unicode(nullptr));
    qel_str_free(nullptr);

    ASSERT_EQ(0, code_convert("ISO-8859-1", "UTF-8", "caf\xe9", 4, out, sizeof out));
    EXPECT_EQ(bytes({'c', 'a', 'f', 0xC3, 0xA9, 0, 0, 0}), std::string(out, 8)); // zero-filled
    EXPECT_EQ(-1, code_convert("ISO-8859-1", "UTF-8", "\xe9\xe9\xe9", 3, out, 5));
    EXPECT_EQ(bytes({0xC3, 0xA9, 0xC3, 0xA9, 0}), std::string(out, 5));
    EXPECT_EQ(0, code_convert("UTF-8", "UTF-8", "", 0, out, 1));
}

// A code point from a mix of ranges: ASCII, two-, three- and four-byte
// UTF-8, surrogates, and (for wide text) any 32-bit value.
uint32_t random_code_point(Rng &rng, bool any)
{
    static const uint32_t ranges[][2] = {{1, 0x7E},   {0x20, 0x7E},  {0x20, 0x7E},    {0x20, 0x7E},        {0x20, 0x7E},
                                         {0x80, 0x7FF}, {0x800, 0xFFFF}, {0x10000, 0x10FFFF}, {0xD800, 0xDFFF}};
    if (any && rng.chance(10))
        return static_cast<uint32_t>(rng.next()) | 1;
    const auto &r = ranges[rng.range(0, std::size(ranges) - (any ? 1 : 2))]; // no surrogates in UTF-8
    return static_cast<uint32_t>(rng.range(r[0], r[1]));
}

std::string random_utf8(Rng &rng)
{
    std::string s;
    for (size_t i = 0, n = rng.range(0, 40); i < n; ++i) {
        uint32_t c = random_code_point(rng, false);
        int extra = c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
        if (rng.chance(8)) { // a stray byte
            s.push_back(static_cast<char>(rng.range(1, 255)));
            continue;
        }
        s.push_back(static_cast<char>(extra ? ((0xFF00 >> (extra + 1)) & 0xFF) | c >> (6 * extra) : c));
        for (int k = extra - 1; k >= 0; --k)
            s.push_back(static_cast<char>(0x80 | (c >> (6 * k) & 0x3F)));
    }
    if (!s.empty() && rng.chance(10))
        s.pop_back(); // perhaps truncating the last sequence
    return s;
}

// Successes and failures interleave on this thread's kept converters; each
// result must be that of a converter opened for the call.
void check_random_conversions(uint64_t seed, int iterations)
{
    Rng rng(seed);
    SCOPED_TRACE(testing::Message() << "seed " << rng.seed());
    int ok[2] = {}, failed[2] = {};
    for (int iter = 0; iter < iterations; ++iter) {
        std::wstring w;
        for (size_t i = 0, n = rng.range(0, 40); i < n; ++i)
            w.push_back(static_cast<wchar_t>(random_code_point(rng, true)));
        size_t size = rng.chance(50) ? w.size() * 4 + 1 : rng.range(1, w.size() * 7 + 2);
        Converted want = oracle::wide_to_utf8(w.c_str(), size);
        ASSERT_EQ(want, ours_to_utf8(w.c_str(), size)) << testing::PrintToString(w);
        (want.rc == 0 ? ok : failed)[0]++;
        char *a = qel_str_unicode_to_utf8(w.c_str());
        want = oracle::wide_to_utf8(w.c_str(), w.size() * 4 + 1);
        ASSERT_EQ(want, Converted({a ? 0 : -1, a ? std::string(a, w.size() * 4 + 1) : want.out}));
        qel_str_free(a);

        std::string s = random_utf8(rng);
        size_t count = rng.chance(50) ? s.size() + 1 : rng.range(1, s.size() / 2 + 2);
        want = oracle::utf8_to_wide(s.c_str(), count);
        ASSERT_EQ(want, ours_to_wide(s.c_str(), count)) << testing::PrintToString(s);
        (want.rc == 0 ? ok : failed)[1]++;
        wchar_t *b = qel_str_utf8_to_unicode(s.c_str());
        want = oracle::utf8_to_wide(s.c_str(), s.size() + 1);
        ASSERT_EQ(want, Converted({b ? 0 : -1, b ? std::string(reinterpret_cast<char *>(b), want.out.size()) : want.out}));
        qel_str_free(b);
    }
    for (int dir = 0; dir < 2 && iterations >= 1000; ++dir) { // both outcomes in both directions
        EXPECT_GT(ok[dir], iterations / 10);
        EXPECT_GT(failed[dir], iterations / 10);
    }
}

TEST(Conv, ConversionsMatchDirectIconv)
{
    check_random_conversions(qeltest::test_seed(), 4000);
}

TEST(Conv, ConversionsMatchDirectIconvOnManyThreads)
{
    long before = qel::detail::conv_kept_converters();
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &failures] {
            check_random_conversions(qeltest::test_seed() + 1 + t, 300);
            failures[t] = testing::Test::HasFailure();
        });
    for (auto &th : threads)
        th.join();
    for (int f : failures)
        EXPECT_EQ(0, f);
    EXPECT_EQ(before, qel::detail::conv_kept_converters()); // closed when each thread ended
}

// A conversion from a thread-exit destructor that runs after the thread's
// converters were closed still converts, with a converter of its own.
struct LateConverter {
    std::string *result = nullptr;
    ~LateConverter()
    {
        if (result == nullptr)
            return;
        char *s = qel_str_unicode_to_utf8(L"\u00e9");
        wchar_t w[2];
        bool ok = s != nullptr && qel_str_utf8_to_unicode_ex("ok", w, 2) == QEL_OK;
        *result = ok ? std::string(s) + (w[0] == 0x006B006F ? "+" : "-") : "failed";
        qel_str_free(s);
    }
};

TEST(Conv, ConversionDuringThreadExitAfterClose)
{
    long before = qel::detail::conv_kept_converters();
    std::string result;
    std::thread th([&result] {
        thread_local LateConverter late; // constructed first, so destroyed last
        late.result = &result;
        qel_str_free(qel_str_unicode_to_utf8(L"x"));
    });
    th.join();
    EXPECT_EQ("\xc3\xa9+", result);
    EXPECT_EQ(before, qel::detail::conv_kept_converters());
}

TEST(Conv, AllocationFailureGivesNullAndEnomem)
{
    qel::detail::fail_allocations(0, 1);
    errno = 0;
    EXPECT_EQ(nullptr, qel_str_unicode_to_utf8(L"abc"));
    EXPECT_EQ(ENOMEM, errno);
    qel::detail::fail_allocations(0, 1);
    errno = 0;
    EXPECT_EQ(nullptr, qel_str_utf8_to_unicode("abc"));
    EXPECT_EQ(ENOMEM, errno);
    qel::detail::fail_allocations(0, 0);
}

int narrow_len(const char *s)
{
    errno = EDOM;
    return static_cast<int>(strlen(s));
}

TEST(Conv, CallNarrowConvertsCallsAndFrees)
{
    using qel::detail::call_narrow;
    using qel::detail::call_narrow_nullable;
    errno = 0;
    EXPECT_EQ(2, call_narrow(-1, narrow_len, L"\u00e9x")); // C3 A9 00 'x' 00
    EXPECT_EQ(EDOM, errno); // freeing the copy keeps the narrow form's errno

    int calls = 0;
    auto concat = [&calls](const char *a, const char *b) -> std::string {
        ++calls;
        return std::string(a == nullptr ? "(null)" : a) + "|" + (b == nullptr ? "(null)" : b);
    };
    const wchar_t *null = nullptr;
    const std::string fail = "fail";
    EXPECT_EQ("a|b", call_narrow(fail, concat, L"a", L"b"));
    EXPECT_EQ("fail", call_narrow(fail, concat, L"a", null));
    EXPECT_EQ("fail", call_narrow(fail, concat, L"\xD800", L"b")); // does not convert
    EXPECT_EQ(1, calls);
    EXPECT_EQ("(null)|b", call_narrow_nullable(fail, concat, null, L"b"));
    EXPECT_EQ("fail", call_narrow_nullable(fail, concat, L"a", L"\xD800"));
    EXPECT_EQ(2, calls);

    qel::detail::Utf8Copy copy(L"z"), none(nullptr), bad(L"\xDC00");
    EXPECT_STREQ("z", copy.get());
    EXPECT_TRUE(copy.ok() && !copy.failed());
    EXPECT_FALSE(none.ok() || none.failed());
    EXPECT_TRUE(bad.failed());
}

} // namespace

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

std::string bytes(std::initializer_list<int> b)
{
    std::string s;
    for (int c : b)
        s.push_back(static_cast<char>(c));
    return s;
}

int is_ascii(const std::string &s) { return qel_str_is_ascii(s.data(), s.size()); }
int is_utf8(const std::string &s) { return qel_str_is_utf8(s.data(), s.size()); }
int is_utf16(const std::string &s) { return qel_str_is_utf16(s.data(), s.size()); }

// Ours, in the oracle's shape: result and every byte of a buffer that started
// as garbage (so the zero-fill is checked too).
Converted ours_to_utf8(const wchar_t *w, size_t size)
{
    Converted r;
    r.out.assign(size, '\xAA');
    r.rc = qel_str_unicode_to_utf8_ex(w, r.out.data(), size) == QEL_OK ? 0 : -1;
    return r;
}

Converted ours_to_wide(const char *s, size_t count)
{
    std::vector<wchar_t> w(count, static_cast<wchar_t>(0x5A5A5A5A));
    Converted r;
    r.rc = qel_str_utf8_to_unicode_ex(s, w.data(), count) == QEL_OK ? 0 : -1;
    r.out.assign(reinterpret_cast<const char *>(w.data()), count * sizeof(wchar_t));
    return r;
}

// ---- the character-class table --------------------------------------------------

TEST(Conv, ClassTableMatchesItsRanges)
{
    for (unsigned b = 0; b < 256; ++b)
        EXPECT_EQ(oracle::text_class(b), qel::detail::text_class(static_cast<unsigned char>(b))) << b;
    EXPECT_EQ(0, qel::detail::text_class(0x0B));
    EXPECT_EQ(1, qel::detail::text_class(0x85));
    EXPECT_EQ(3, qel::detail::text_class(0x86));
    EXPECT_EQ(2, qel::detail::text_class(0xFF));
}

// ---- the three checks: the documented cases ----------------------------------------

TEST(Conv, IsAsciiCases)
{
    EXPECT_EQ(1, qel_str_is_ascii("", 0));
    EXPECT_EQ(1, qel_str_is_ascii(nullptr, 0));
    EXPECT_EQ(0, qel_str_is_ascii(nullptr, 4));
    EXPECT_EQ(1, is_ascii("hello, world\t\r\n\x07\x1b"));
    EXPECT_EQ(0, is_ascii(bytes({'a', 0, 'b'}))); // a terminator inside the length
    EXPECT_EQ(0, is_ascii("abc\x7f"));
    EXPECT_EQ(0, is_ascii("abc\x0b"));
    EXPECT_EQ(0, is_ascii("caf\xc3\xa9"));
    EXPECT_EQ(0, is_ascii("\x85")); // class 1, but above 0x7F
    EXPECT_EQ(0, is_ascii(std::string(40, 'x') + "\xa0"));
}

TEST(Conv, IsUtf8Cases)
{
    EXPECT_EQ(0, is_utf8("hello")); // pure ASCII is not reported as UTF-8
    EXPECT_EQ(1, is_utf8("h\xc3\xa9"));
    EXPECT_EQ(0, is_utf8("\xc3"));
    EXPECT_EQ(1, is_utf8("\xc3\xa9\xc3")); // a truncated final sequence is tolerated
    EXPECT_EQ(1, is_utf8("\xe6\x97\xa5\xe6\x9c")); // also a 3-byte one
    EXPECT_EQ(1, is_utf8("tab\there \xc3\xa9"));
    EXPECT_EQ(0, is_utf8("\xc3\xa9\x01"));
    EXPECT_EQ(0, is_utf8("\x01"));
    EXPECT_EQ(0, is_utf8("\xa9"));                // continuation byte cannot lead
    EXPECT_EQ(0, is_utf8("\xc3\xa9\xc3x"));       // continuation must be 10xxxxxx
    EXPECT_EQ(0, is_utf8("\xfe\x80"));            // 1111111x
    EXPECT_EQ(0, is_utf8("\xff"));
    EXPECT_EQ(1, is_utf8("\xc0\x80"));            // overlong accepted
    EXPECT_EQ(1, is_utf8("\xed\xa0\x80"));        // surrogate accepted
    EXPECT_EQ(1, is_utf8("\xf8\x88\x80\x80\x80")); // 5-byte form accepted
    EXPECT_EQ(1, is_utf8("\xfc\x84\x80\x80\x80\x80"));
    EXPECT_EQ(0, is_utf8(""));
    EXPECT_EQ(0, qel_str_is_utf8(nullptr, 3));
    // The fast ASCII skip meets a bad byte deep inside a long run.
    std::string run(100, 'a');
    EXPECT_EQ(1, is_utf8(run + "\xc3\xa9" + run));
    EXPECT_EQ(0, is_utf8("\xc3\xa9" + run + "\x7f" + run));
}

TEST(Conv, IsUtf16Cases)
{
    EXPECT_EQ(1, is_utf16(bytes({0xFF, 0xFE, 0x41, 0x00})));
    EXPECT_EQ(0, is_utf16(bytes({0xFF, 0xFE, 0x01, 0x00}))); // class 0
    EXPECT_EQ(0, is_utf16(bytes({0x41, 0x00})));             // no mark
    EXPECT_EQ(1, is_utf16(bytes({0xFE, 0xFF, 0x00, 0x41})));
    EXPECT_EQ(0, is_utf16(bytes({0xFE, 0xFF, 0x00, 0x01})));
    EXPECT_EQ(1, is_utf16(bytes({0xFF, 0xFE})));             // a lone mark
    EXPECT_EQ(1, is_utf16(bytes({0xFF, 0xFE, 0x41, 0x00, 0x01}))); // odd last byte ignored
    EXPECT_EQ(0, is_utf16(bytes({0xFF})));
    EXPECT_EQ(0, qel_str_is_utf16(nullptr, 4));
    // Signed bytes: 0xFE 0xFF (LE) is -2 + -256, not 0xFFFE, so it passes; a
    // negative low byte with a zero high byte is negative and passes too.
    EXPECT_EQ(1, is_utf16(bytes({0xFF, 0xFE, 0xFE, 0xFF})));
    EXPECT_EQ(1, is_utf16(bytes({0xFF, 0xFE, 0x80, 0x00})));
    EXPECT_EQ(1, is_utf16(bytes({0xFF, 0xFE, 0x01, 0x01}))); // 257: not checked by class
    EXPECT_EQ(1, is_utf16(bytes({0xFF, 0xFE, 0x00, 0xFF}))); // -256
    EXPECT_EQ(0, is_utf16(bytes({0xFF, 0xFE, 0x7F, 0x00})));
    EXPECT_EQ(0, is_utf16(bytes({0xFF, 0xFE, 0x00, 0x00})));
}

// ---- the checks against the byte-wise rules ---------------------------------------

// Text-like random bytes: printable runs with controls, high bytes and
// multibyte sequences (well-formed, broken and truncated) mixed in.
std::string texty(qeltest::Rng &rng, size_t n, unsigned ascii_percent = 70)
{
    static const char *const pieces[] = {"\xc3\xa9", "\xe6\x97\xa5", "\xf0\x9f\x98\x80", "\t", "\n",
                                         "\r\n", "\x85", "\xc3", "\xe6\x97", "\x80", "\x7f",
                                         "\x01", "\xff", "\xfe\xff", "\xf8\x88\x80\x80\x80",
                                         "\xfc\x84\x80\x80\x80\x80", "\xfc\x84\x80\x80\x80",
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
    qeltest::Rng rng;
    SCOPED_TRACE(testing::Message() << "seed " << rng.seed());
    std::vector<unsigned char> arena(600);
    int utf8_ones = 0, ascii_ones = 0;
    for (int iter = 0; iter < 60000; ++iter) {
        size_t n = rng.range(0, 300);
        std::string s = rng.chance(15)   ? rng.bytes(n)
                        : rng.chance(30) ? texty(rng, n, 10) // dense multibyte text
                                         : texty(rng, n);
        size_t off = rng.range(0, 15); // every alignment
        memcpy(arena.data() + off, s.data(), n);
        const unsigned char *p = arena.data() + off;
        int a = qel_str_is_ascii(p, n), u = qel_str_is_utf8(p, n), w = qel_str_is_utf16(p, n);
        ASSERT_EQ(oracle::is_ascii(p, n), a) << testing::PrintToString(s);
        ASSERT_EQ(oracle::is_utf8(p, n), u) << testing::PrintToString(s);
        ASSERT_EQ(oracle::is_utf16(p, n), w) << testing::PrintToString(s);
        ascii_ones += a;
        utf8_ones += u;
    }
    // Both answers occur often enough to mean something.
    EXPECT_GT(ascii_ones, 1000);
    EXPECT_GT(utf8_ones, 1000);
}

TEST(Conv, ChecksMatchByteWiseRulesForEveryByteAtEveryPosition)
{
    // Printable runs are skipped in blocks: any byte at any position of a
    // block, after an optional multibyte sequence, must still be seen.
    for (const std::string lead : {"", "\xc3\xa9"})
        for (size_t pos = 0; pos < 40; ++pos)
            for (unsigned b = 0; b < 256; ++b) {
                std::string s = lead + std::string(40, 'q');
                s[lead.size() + pos] = static_cast<char>(b);
                auto p = reinterpret_cast<const unsigned char *>(s.data());
                ASSERT_EQ(oracle::is_ascii(p, s.size()), is_ascii(s)) << pos << " " << b;
                ASSERT_EQ(oracle::is_utf8(p, s.size()), is_utf8(s)) << pos << " " << b;
            }
}

TEST(Conv, Utf8SequencesAcrossWordsAndTruncatedAtTheEnd)
{
    // Every lead length, and the two never-leading forms, at every offset,
    // cut at every length, alone or after a complete sequence.
    const std::string seqs[] = {"\xc3\xa9", "\xe6\x97\xa5", "\xf0\x9f\x98\x80",
                                "\xf8\x88\x80\x80\x80", "\xfc\x84\x80\x80\x80\x80",
                                "\xfe\x80\x80\x80\x80\x80", "\xff\x80\x80\x80\x80\x80\x80"};
    for (const std::string &prefix : {std::string(), std::string("\xc3\xa9")})
        for (const std::string &seq : seqs)
            for (size_t pad = 0; pad < 20; ++pad)
                for (size_t cut = 1; cut <= seq.size(); ++cut)
                    for (const std::string &after : {std::string(), std::string(9, 'z')}) {
                        std::string s = prefix + std::string(pad, 'a') + seq.substr(0, cut) + after;
                        auto p = reinterpret_cast<const unsigned char *>(s.data());
                        ASSERT_EQ(oracle::is_utf8(p, s.size()), is_utf8(s)) << testing::PrintToString(s);
                    }
}

TEST(Conv, Utf16MatchesRulesOnRandomUnits)
{
    qeltest::Rng rng;
    SCOPED_TRACE(testing::Message() << "seed " << rng.seed());
    for (unsigned lo = 0; lo < 256; ++lo)
        for (unsigned hi = 0; hi < 256; ++hi)
            for (bool little : {true, false}) {
                unsigned char b[4] = {static_cast<unsigned char>(little ? 0xFF : 0xFE),
                                      static_cast<unsigned char>(little ? 0xFE : 0xFF),
                                      static_cast<unsigned char>(little ? lo : hi),
                                      static_cast<unsigned char>(little ? hi : lo)};
                ASSERT_EQ(oracle::is_utf16(b, 4), qel_str_is_utf16(b, 4)) << lo << " " << hi;
            }
    for (int iter = 0; iter < 5000; ++iter) {
        std::string s = (rng.chance(50) ? bytes({0xFF, 0xFE}) : bytes({0xFE, 0xFF}));
        size_t units = rng.range(0, 40);
        for (size_t i = 0; i < units; ++i) {
            char c = static_cast<char>(rng.chance(95) ? rng.range(0x20, 0x7E) : rng.range(0, 255));
            char z = static_cast<char>(rng.chance(90) ? 0 : rng.range(0, 255));
            s += s[0] == '\xFF' ? std::string{c, z} : std::string{z, c};
        }
        ASSERT_EQ(oracle::is_utf16(reinterpret_cast<const unsigned char *>(s.data()), s.size()),
                  is_utf16(s));
    }
}

// ---- conversions: the kept pairing ---------------------------------------------------

TEST(Conv, WideToUtf8ReadsWideStorageAsUcs2)
{
    // L"AB" is the bytes 41 00 00 00 42 00 00 00: four UCS-2 units A, 0, B, 0.
    char out[16];
    ASSERT_EQ(QEL_OK, qel_str_unicode_to_utf8_ex(L"AB", out, sizeof out));
    EXPECT_EQ(bytes({'A', 0, 'B', 0}), std::string(out, 4));
    EXPECT_STREQ("A", out);
    EXPECT_EQ(Converted({0, std::string(out, sizeof out)}), oracle::wide_to_utf8(L"AB", sizeof out));

    // U+1F600 is the units F600 and 0001.
    ASSERT_EQ(QEL_OK, qel_str_unicode_to_utf8_ex(L"\U0001F600", out, sizeof out));
    EXPECT_EQ(bytes({0xEF, 0x98, 0x80, 0x01, 0}), std::string(out, 5));

    // A unit in the surrogate range is not UCS-2.
    EXPECT_EQ(QEL_E_FAIL, qel_str_unicode_to_utf8_ex(L"a\xD800", out, sizeof out));

    char *s = qel_str_unicode_to_utf8(L"\u00e9t\u00e9");
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(bytes({0xC3, 0xA9, 0, 't', 0, 0xC3, 0xA9, 0, 0}), std::string(s, 9));
    qel_str_free(s);
}

TEST(Conv, Utf8ToWideWritesUcs2UnitsIntoWideStorage)
{
    wchar_t w[4];
    ASSERT_EQ(QEL_OK, qel_str_utf8_to_unicode_ex("AB", w, 4));
    EXPECT_EQ(static_cast<wchar_t>(0x00420041), w[0]);
    EXPECT_EQ(0, w[1]);
    ASSERT_EQ(QEL_OK, qel_str_utf8_to_unicode_ex("\xc3\xa9", w, 4));
    EXPECT_EQ(static_cast<wchar_t>(0xE9), w[0]);
    ASSERT_EQ(QEL_OK, qel_str_utf8_to_unicode_ex("abc", w, 4));
    EXPECT_EQ(static_cast<wchar_t>(0x00620061), w[0]);
    EXPECT_EQ(static_cast<wchar_t>(0x63), w[1]);

    wchar_t *a = qel_str_utf8_to_unicode("xyz!");
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(static_cast<wchar_t>(0x00790078), a[0]);
    EXPECT_EQ(static_cast<wchar_t>(0x0021007A), a[1]);
    EXPECT_EQ(0, a[2]);
    qel_str_free(a);

    EXPECT_EQ(QEL_E_FAIL, qel_str_utf8_to_unicode_ex("\xf0\x9f\x98\x80", w, 4)); // beyond UCS-2
    EXPECT_EQ(QEL_E_FAIL, qel_str_utf8_to_unicode_ex("ab\xc3", w, 4));           // incomplete
    EXPECT_EQ(QEL_E_FAIL, qel_str_utf8_to_unicode_ex("\xff", w, 4));             // invalid
    EXPECT_EQ(nullptr, qel_str_utf8_to_unicode("\xff"));
}

TEST(Conv, OutputTooSmallFailsAndKeepsPartialOutput)
{
    char out[3];
    memset(out, 'x', sizeof out);
    EXPECT_EQ(QEL_E_FAIL, qel_str_unicode_to_utf8_ex(L"AB", out, sizeof out));
    EXPECT_EQ(bytes({'A', 0, 'B'}), std::string(out, 3));
    EXPECT_EQ(Converted({-1, std::string(out, 3)}), oracle::wide_to_utf8(L"AB", 3));

    wchar_t w[1];
    EXPECT_EQ(QEL_E_FAIL, qel_str_utf8_to_unicode_ex("abc", w, 1));
    EXPECT_EQ(static_cast<wchar_t>(0x00620061), w[0]);

    // The allocating form's buffer of wcslen * 4 + 1 bytes can be too small:
    // each character is two units of up to three bytes.
    EXPECT_EQ(nullptr, qel_str_unicode_to_utf8(L"\x20AC20AC\x20AC20AC"));
    char *four = qel_str_unicode_to_utf8(L"\u20ac\u20ac"); // 8 of 9 bytes
    ASSERT_NE(nullptr, four);
    EXPECT_EQ(bytes({0xE2, 0x82, 0xAC, 0, 0xE2, 0x82, 0xAC, 0, 0}), std::string(four, 9));
    qel_str_free(four);
    char *ok = qel_str_unicode_to_utf8(L"\u20ac");
    ASSERT_NE(nullptr, ok); // 4 bytes: E2 82 AC 00, then the terminator
    EXPECT_STREQ("\xe2\x82\xac", ok);
    qel_str_free(ok);
}

TEST(Conv, NullAndZeroArgumentsAreRefused)
{
    char out[8];
    wchar_t w[8];
    memset(out, 'x', sizeof out);
    wmemset(w, L'x', 8);
    EXPECT_EQ(QEL_E_FAIL, qel_str_unicode_to_utf8_ex(nullptr, out, sizeof out));
    EXPECT_EQ(QEL_E_FAIL, qel_str_unicode_to_utf8_ex(L"a", nullptr, 8));
    EXPECT_EQ(QEL_E_FAIL, qel_str_unicode_to_utf8_ex(L"a", out, 0));
    EXPECT_EQ(QEL_E_FAIL, qel_str_utf8_to_unicode_ex(nullptr, w, 8));
    EXPECT_EQ(QEL_E_FAIL, qel_str_utf8_to_unicode_ex("a", nullptr, 8));
    EXPECT_EQ(QEL_E_FAIL, qel_str_utf8_to_unicode_ex("a", w, 0));
    EXPECT_EQ(QEL_E_FAIL, qel_str_utf8_to_unicode_ex("a", w, SIZE_MAX / 2));
    EXPECT_EQ(std::string(8, 'x'), std::string(out, 8)); // nothing written
    EXPECT_EQ(std::wstring(8, L'x'), std::wstring(w, 8));
    EXPECT_EQ(nullptr, qel_str_unicode_to_utf8(nullptr));
    EXPECT_EQ(nullptr, qel_str_utf8_to_unicode(nullptr));
    qel_str_free(nullptr);

    EXPECT_EQ(-1, code_convert(nullptr, "UTF-8", "a", 1, out, 8));
    EXPECT_EQ(-1, code_convert("UTF-8", nullptr, "a", 1, out, 8));
    EXPECT_EQ(-1, code_convert("UTF-8", "UTF-8", nullptr, 1, out, 8));
    EXPECT_EQ(-1, code_convert("UTF-8", "UTF-8", "a", 1, nullptr, 8));
    EXPECT_EQ(std::string(8, 'x'), std::string(out, 8));
}

TEST(Conv, EmptyStringsConvertToEmpty)
{
    char *s = qel_str_unicode_to_utf8(L"");
    ASSERT_NE(nullptr, s);
    EXPECT_STREQ("", s);
    qel_str_free(s);
    wchar_t *w = qel_str_utf8_to_unicode("");
    ASSERT_NE(nullptr, w);
    EXPECT_EQ(0, w[0]);
    qel_str_free(w);
}

TEST(Conv, CodeConvertOpensTheNamedConverter)
{
    char out[8];
    memset(out, 'x', sizeof out);
    ASSERT_EQ(0, code_convert("ISO-8859-1", "UTF-8", "caf\xe9", 4, out, sizeof out));
    EXPECT_EQ(bytes({'c', 'a', 'f', 0xC3, 0xA9, 0, 0, 0}), std::string(out, 8)); // zero-filled
    memset(out, 'x', sizeof out);
    EXPECT_EQ(-1, code_convert("NO-SUCH-ENCODING", "UTF-8", "a", 1, out, sizeof out));
    EXPECT_EQ(std::string(8, 'x'), std::string(out, 8)); // not opened: untouched
    EXPECT_EQ(-1, code_convert("ISO-8859-1", "UTF-8", "\xe9\xe9\xe9", 3, out, 5));
    EXPECT_EQ(bytes({0xC3, 0xA9, 0xC3, 0xA9, 0}), std::string(out, 5));
    EXPECT_EQ(0, code_convert("UTF-8", "UTF-8", "", 0, out, 1));
}

// ---- conversions against a direct iconv call ---------------------------------------

std::wstring random_wide(qeltest::Rng &rng)
{
    std::wstring w;
    size_t n = rng.range(0, 40);
    for (size_t i = 0; i < n; ++i) {
        uint32_t c;
        switch (rng.range(0, 9)) {
        case 0: case 1: case 2: case 3: c = static_cast<uint32_t>(rng.range(0x20, 0x7E)); break;
        case 4: c = static_cast<uint32_t>(rng.range(0x80, 0x7FF)); break;
        case 5: c = static_cast<uint32_t>(rng.range(0x800, 0xFFFF)); break;
        case 6: c = static_cast<uint32_t>(rng.range(0x10000, 0x10FFFF)); break;
        case 7: c = static_cast<uint32_t>(rng.range(0xD800, 0xDFFF)); break;
        default: c = static_cast<uint32_t>(rng.next()); break;
        }
        w.push_back(static_cast<wchar_t>(c == 0 ? 1 : c));
    }
    return w;
}

std::string random_utf8(qeltest::Rng &rng)
{
    std::string s;
    size_t n = rng.range(0, 40);
    for (size_t i = 0; i < n; ++i) {
        uint32_t c;
        switch (rng.range(0, 11)) {
        case 0: case 1: case 2: case 3: c = static_cast<uint32_t>(rng.range(1, 0x7F)); break;
        case 4: c = static_cast<uint32_t>(rng.range(0x80, 0x7FF)); break;
        case 5: c = static_cast<uint32_t>(rng.range(0x800, 0xFFFF)); break;
        case 6: c = static_cast<uint32_t>(rng.range(0x10000, 0x10FFFF)); break;
        case 7: // a stray byte
            s.push_back(static_cast<char>(rng.range(1, 255)));
            continue;
        default: c = static_cast<uint32_t>(rng.range(0x20, 0x7E)); break;
        }
        if (c < 0x80) {
            s.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            s.push_back(static_cast<char>(0xC0 | c >> 6));
            s.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            s.push_back(static_cast<char>(0xE0 | c >> 12));
            s.push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            s.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            s.push_back(static_cast<char>(0xF0 | c >> 18));
            s.push_back(static_cast<char>(0x80 | (c >> 12 & 0x3F)));
            s.push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            s.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    if (!s.empty() && rng.chance(10))
        s.pop_back(); // perhaps truncating the last sequence
    return s;
}

// Successes and failures interleave on this thread's kept converters; each
// result must be that of a converter opened for the call.
void check_random_conversions(uint64_t seed, int iterations)
{
    qeltest::Rng rng(seed);
    SCOPED_TRACE(testing::Message() << "seed " << rng.seed());
    int ok_to = 0, fail_to = 0, ok_from = 0, fail_from = 0;
    for (int iter = 0; iter < iterations; ++iter) {
        std::wstring w = random_wide(rng);
        size_t size = rng.chance(50) ? w.size() * 4 + 1 : rng.range(1, w.size() * 7 + 2);
        Converted want = oracle::wide_to_utf8(w.c_str(), size);
        ASSERT_EQ(want, ours_to_utf8(w.c_str(), size)) << testing::PrintToString(w);
        (want.rc == 0 ? ok_to : fail_to)++;

        char *a = qel_str_unicode_to_utf8(w.c_str());
        Converted alloc = oracle::wide_to_utf8(w.c_str(), w.size() * 4 + 1);
        ASSERT_EQ(alloc.rc == 0, a != nullptr);
        if (a != nullptr) {
            ASSERT_EQ(alloc.out, std::string(a, w.size() * 4 + 1));
        }
        qel_str_free(a);

        std::string s = random_utf8(rng);
        size_t count = rng.chance(50) ? s.size() + 1 : rng.range(1, s.size() / 2 + 2);
        Converted want2 = oracle::utf8_to_wide(s.c_str(), count);
        ASSERT_EQ(want2, ours_to_wide(s.c_str(), count)) << testing::PrintToString(s);
        (want2.rc == 0 ? ok_from : fail_from)++;

        wchar_t *b = qel_str_utf8_to_unicode(s.c_str());
        Converted alloc2 = oracle::utf8_to_wide(s.c_str(), s.size() + 1);
        ASSERT_EQ(alloc2.rc == 0, b != nullptr);
        if (b != nullptr) {
            ASSERT_EQ(alloc2.out, std::string(reinterpret_cast<char *>(b), (s.size() + 1) * 4));
        }
        qel_str_free(b);
    }
    if (iterations >= 1000) { // both outcomes are exercised in both directions
        EXPECT_GT(ok_to, iterations / 10);
        EXPECT_GT(fail_to, iterations / 10);
        EXPECT_GT(ok_from, iterations / 10);
        EXPECT_GT(fail_from, iterations / 10);
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
    // Every thread's converters were closed when it ended.
    EXPECT_EQ(before, qel::detail::conv_kept_converters());
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
        char *s = qel_str_unicode_to_utf8(L"x");
        qel_str_free(s);
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
    char *s = qel_str_unicode_to_utf8(L"abc");
    EXPECT_NE(nullptr, s);
    qel_str_free(s);
}

// ---- the wide-argument shape ---------------------------------------------------------

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
    EXPECT_EQ("a|b", call_narrow(std::string("fail"), concat, L"a", L"b"));
    EXPECT_EQ("fail", call_narrow(std::string("fail"), concat, L"a", static_cast<const wchar_t *>(nullptr)));
    EXPECT_EQ("fail", call_narrow(std::string("fail"), concat, L"\xD800", L"b")); // does not convert
    EXPECT_EQ(1, calls);
    EXPECT_EQ("(null)|b", call_narrow_nullable(std::string("fail"), concat,
                                               static_cast<const wchar_t *>(nullptr), L"b"));
    EXPECT_EQ("fail", call_narrow_nullable(std::string("fail"), concat, L"a", L"\xD800"));
    EXPECT_EQ(2, calls);
    EXPECT_EQ(nullptr, call_narrow<const char *>(nullptr, [](const char *) { return "x"; },
                                                 static_cast<const wchar_t *>(nullptr)));

    qel::detail::Utf8Copy copy(L"z");
    EXPECT_TRUE(copy.ok());
    EXPECT_FALSE(copy.failed());
    EXPECT_STREQ("z", copy.get());
    qel::detail::Utf8Copy none(nullptr);
    EXPECT_FALSE(none.ok());
    EXPECT_FALSE(none.failed());
    qel::detail::Utf8Copy bad(L"\xDC00");
    EXPECT_TRUE(bad.failed());
}

} // namespace

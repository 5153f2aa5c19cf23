#include "qel_strutil.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdarg>
#include <cstring>
#include <cwchar>
#include <regex>
#include <string>
#include <vector>

#include "support/str_models.h"
#include "support/test_util.h"

namespace {

using qeltest::random_text;
using qeltest::Rng;

TEST(Strutil, StrncatIsAllOrNothing)
{
    char buf[8] = "abc", e[2] = "";
    EXPECT_EQ(e, qel_str_strncat(e, "", 1));
    for (int size : {0, -1})
        EXPECT_EQ(nullptr, qel_str_strncat(buf, "", size));
    EXPECT_EQ(nullptr, qel_str_strncat(nullptr, "x", 8));
    EXPECT_EQ(nullptr, qel_str_strncat(buf, nullptr, 8));
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 2000; ++round) {
        std::string d = random_text(rng, 6, "ab"), s = random_text(rng, 6, "cd");
        int size = static_cast<int>(rng.range(d.size() + 1, 16));
        std::vector<char> b(size);
        memcpy(b.data(), d.c_str(), d.size() + 1);
        bool fits = static_cast<size_t>(size) >= d.size() + s.size() + 1; // exactly D + S + 1 suffices
        ASSERT_EQ(fits ? b.data() : nullptr, qel_str_strncat(b.data(), s.c_str(), size));
        ASSERT_EQ(fits ? d + s : d, std::string(b.data()));
    }
}

int magic_print(char *buf, size_t size, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int r = qel_str_magic_vsprintf(buf, size, format, ap);
    va_end(ap);
    return r;
}

TEST(Strutil, CopyAndPrintReportWhatTheyStored)
{
    char buf[16];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(6u, qel_str_strlcpy(buf, "abcdef", 0)); // the source length, nothing written
    EXPECT_EQ('x', buf[0]);
    EXPECT_EQ(6u, qel_str_strlcpy(buf, "abcdef", 4));
    EXPECT_STREQ("abc", buf);
    const struct { size_t size; const char *text; int ret; const char *stored; } prints[] = { // text through "%s"
        {4, "12345", 3, "123"}, {16, "12345", 5, "12345"}, {4, "abc", 3, "abc"}, {1, "1", 0, ""}};
    for (const auto &p : prints) {
        EXPECT_EQ(p.ret, qel_str_snprintf(buf, p.size, "%s", p.text)) << p.text << " " << p.size;
        EXPECT_STREQ(p.stored, buf);
    }
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(0, qel_str_snprintf(buf, 0, "%d", 1)); // nothing written
    EXPECT_EQ('x', buf[0]);
    EXPECT_EQ(0, qel_str_snprintf(nullptr, 4, "%d", 1));
    EXPECT_EQ(0, qel_str_snprintf(buf, 4, nullptr));
    EXPECT_EQ(2, magic_print(buf, 3, "%d", 123)); // snprintf's body
    EXPECT_STREQ("12", buf);
    // An encoding error: the buffer is terminated at its last byte and size - 1 reported.
    const char *saved = setlocale(LC_CTYPE, nullptr);
    std::string keep = saved ? saved : "C";
    setlocale(LC_CTYPE, "C");
    memset(buf, 'x', sizeof buf);
    const wchar_t bad[] = {0x4E2D, 0};
    EXPECT_EQ(7, qel_str_snprintf(buf, 8, "%ls", bad));
    EXPECT_EQ('\0', buf[7]);
    setlocale(LC_CTYPE, keep.c_str());
}

TEST(Strutil, FindLimitsAndZeroBytes)
{
    const char zeros[] = {'a', 0, 'b', 0, 'b'}, pat[] = {0, 'b'};
    EXPECT_EQ(zeros + 1, qel_str_nstr(zeros, 5, pat, 2));
    EXPECT_EQ(nullptr, qel_str_nstr(zeros, 5, "x", 1));
    EXPECT_EQ(-1, qel_str_find(nullptr, 3, "a", 1, 0));
    EXPECT_EQ(-1, qel_str_find("abc", 3, nullptr, 1, 0));
    std::string big(2000, 'a'), p511(511, 'a'), p512(512, 'a');
    EXPECT_EQ(0, qel_str_find(big.data(), 2000, p511.data(), 511, 0));
    EXPECT_EQ(-1, qel_str_find(big.data(), 2000, p512.data(), 512, 0));
    EXPECT_EQ(nullptr, qel_str_nstr(big.data(), 2000, p512.data(), 512));
    // qel_str_nchr is not stopped by zero bytes and uses the low 8 bits of c.
    EXPECT_EQ(zeros + 2, qel_str_nchr(zeros, 5, 'b' + 256));
    EXPECT_EQ(zeros + 1, qel_str_nchr(zeros, 5, 0));
    EXPECT_EQ(nullptr, qel_str_nchr(zeros, 2, 'b'));
}

TEST(Strutil, FindMatchesTheFailureTableSearchAndMemmem)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 30300; ++round) {
        std::string buf, pat;
        int start = 0;
        if (round < 30000) { // tiny alphabets with zero bytes
            unsigned char hi = static_cast<unsigned char>(rng.range(1, 3));
            buf = rng.bytes(rng.range(0, 60), 0, hi);
            pat = rng.bytes(rng.range(0, 8), 0, hi);
            if (rng.chance(30) && !buf.empty()) // plant an occurrence
                pat = buf.substr(rng.range(0, buf.size() - 1), rng.range(1, 8));
            start = static_cast<int>(rng.range(0, buf.size() + 1));
        } else { // long periodic patterns exercise deep failure chains
            std::string unit = rng.bytes(rng.range(1, 4), 0, 1);
            while (pat.size() < rng.range(1, 511))
                pat += unit;
            pat.resize(std::min<size_t>(pat.size(), 511));
            while (buf.size() < 3000)
                buf += rng.chance(97) ? unit : rng.bytes(1, 0, 1);
        }
        const int len = static_cast<int>(buf.size()), m = static_cast<int>(pat.size());
        int want = qeltest::kmp_find(buf.data(), len, pat.data(), m, start);
        ASSERT_EQ(want, qeltest::memmem_find(buf, pat, start));
        ASSERT_EQ(want, qel_str_find(buf.data(), len, pat.data(), m, start));
        int w0 = qeltest::kmp_find(buf.data(), len, pat.data(), m, 0);
        const char *p = qel_str_nstr(buf.data(), len, pat.data(), m);
        ASSERT_EQ(w0, p ? static_cast<int>(p - buf.data()) : -1);
    }
}

TEST(Strutil, ReplaceQuirks)
{
    // ret: the offset of the result, -1 for null.
    const struct { const char *text; int cap; const char *from, *to; int all; long ret; const char *after; } cases[] = {
        {"xax", 6, "x", "yy", 1, 0, "yyayy"},
        {"xax", 5, "x", "yy", 1, 0, "yyax"}, // room ran out part-way
        {"xax", 4, "x", "yy", 1, -1, "xax"}, // the first did not fit
        {"a-b-c", 16, "-", "+++", 0, 4, "a+++b-c"},
        {"a+++b-c", 16, "+++", "", 0, 1, "ab-c"}, // empty `to`: the occurrence
        {"ab-c", 16, "", "z", 1, -1, "ab-c"},     // an empty `from` is never found
        {"aaa", 32, "a", "aa", 1, 0, "aaaaaa"},   // inserted text is never searched again
        {"abcabc", 7, "bc", "", 1, 0, "aa"},      // shrinking fits with no spare room
    };
    for (const auto &c : cases) {
        std::vector<char> buf(c.cap);
        strcpy(buf.data(), c.text);
        char *r = qel_str_replace(buf.data(), c.cap, c.from, c.to, c.all);
        EXPECT_EQ(c.ret, r ? r - buf.data() : -1) << c.text << " " << c.from << "->" << c.to << " " << c.cap;
        EXPECT_STREQ(c.after, buf.data());
    }
    char one[8] = "ab";
    EXPECT_EQ(nullptr, qel_str_replace(nullptr, 8, "a", "z", 1));
    EXPECT_EQ(nullptr, qel_str_replace(one, 8, nullptr, "z", 1));
    EXPECT_EQ(nullptr, qel_str_replace(one, 8, "a", nullptr, 1));
    EXPECT_STREQ("ab", one);
}

TEST(Strutil, ReplaceMatchesItsModel)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 20000; ++round) {
        std::string s = random_text(rng, 12, "ab"), from = random_text(rng, 3, "ab"), to = random_text(rng, 4, "abc");
        int cap = static_cast<int>(rng.range(s.size() + 1, s.size() + 10));
        bool all = rng.chance(50);
        std::vector<char> buf(cap);
        memcpy(buf.data(), s.c_str(), s.size() + 1);
        std::string model = s;
        long want = qeltest::model_replace(model, cap, from, to, all);
        char *r = qel_str_replace(buf.data(), cap, from.c_str(), to.c_str(), all);
        ASSERT_EQ(want, r ? static_cast<long>(r - buf.data()) : -1) << s << " " << from << "->" << to << " " << cap;
        ASSERT_EQ(model, std::string(buf.data())) << s << " " << from << "->" << to << " cap " << cap;
        ASSERT_LT(model.size(), static_cast<size_t>(cap));
    }
}

TEST(Strutil, ValidatorQuirks)
{
    const std::string a66(66, 'a'), a67(67, 'a');
    const struct { qel_result (*check)(const char *, size_t); const char *s; size_t maxlen; bool ok; } cases[] = {
        {qel_string_check_integer, "", 10, true},     {qel_string_check_integer, "-1", 0, true},
        {qel_string_check_integer, "12x", 2, true},   {qel_string_check_integer, nullptr, 5, false},
        {qel_string_check_hex_integer, "DeadBeef09", 20, true}, {qel_string_check_hex_integer, "0x1f", 20, false},
        {qel_string_check_hex_integer, nullptr, 0, false},
        {qel_string_check_ipv4, "1.2.3.4", 5, false}, // only "1.2.3" examined
        {qel_string_check_ipv4, "1.2.3.4xyz", 7, true},  {qel_string_check_ipv4, nullptr, 7, false},
        {qel_string_check_domain, "..a_b", 64, true},    // labels are not checked
        {qel_string_check_domain, "-", 0, false},        // the first "-" regardless of maxlen
        {qel_string_check_domain, "ab-", 2, false},      // maxlen + 1 characters are examined
        {qel_string_check_domain, "ab-", 1, true},       {qel_string_check_domain, "a b", 0, true},
        {qel_string_check_domain, a66.c_str(), 100, true},
        {qel_string_check_domain, a67.c_str(), 100, false},
        {qel_string_check_domain, a67.c_str(), 65, true},
        {qel_string_check_domain, a67.c_str(), SIZE_MAX, false},
        {qel_string_check_domain, nullptr, 64, false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.ok ? QEL_OK : QEL_E_BADFORMAT, c.check(c.s, c.maxlen)) << (c.s ? c.s : "(null)") << " " << c.maxlen;
}

TEST(Strutil, ValidatorsMatchTheirModels)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    auto want = [](bool ok) { return ok ? QEL_OK : QEL_E_BADFORMAT; };
    for (int round = 0; round < 50000; ++round) {
        std::string s = random_text(rng, 6, "09afAFgx -");
        size_t maxlen = rng.range(0, 8);
        ASSERT_EQ(want(qeltest::model_integer(s, maxlen, false)), qel_string_check_integer(s.c_str(), maxlen)) << s;
        ASSERT_EQ(want(qeltest::model_integer(s, maxlen, true)), qel_string_check_hex_integer(s.c_str(), maxlen)) << s;

        // The platform's strict dotted-quad parser accepts exactly the same set.
        s.clear();
        for (size_t i = 0, parts = rng.range(1, 6); i < parts; ++i) {
            if (i)
                s += rng.chance(95) ? "." : (rng.chance(50) ? ".." : " ");
            s += random_text(rng, 4, rng.chance(80) ? "0123456789" : "0125.x");
        }
        maxlen = rng.chance(80) ? s.size() + rng.range(0, 2) : rng.range(0, s.size());
        ASSERT_EQ(want(qeltest::model_ipv4(s, maxlen)), qel_string_check_ipv4(s.c_str(), maxlen)) << s << " " << maxlen;

        s = random_text(rng, rng.chance(10) ? 80 : 8, "aZ9-._ ");
        maxlen = rng.chance(5) ? SIZE_MAX : rng.range(0, 90);
        ASSERT_EQ(want(qeltest::model_domain(s, maxlen)), qel_string_check_domain(s.c_str(), maxlen)) << s << " " << maxlen;
    }
}

TEST(Strutil, MacAddress)
{
    uint8_t out[6] = {};
    EXPECT_EQ(0, qel_string_to_macaddr("AA-bb-0C-dd-EE-ff:zz", out));
    const uint8_t want[6] = {0xAA, 0xBB, 0x0C, 0xDD, 0xEE, 0xFF};
    EXPECT_EQ(0, memcmp(want, out, 6));
    EXPECT_EQ(-1, qel_string_to_macaddr(nullptr, out));
    EXPECT_EQ(-1, qel_string_to_macaddr("00:11:22:33:44:55", nullptr));
    memset(out, 0, 6);
    EXPECT_EQ(-1, qel_string_to_macaddr("12:34:zz", out)); // bytes stored so far stay
    EXPECT_EQ(0, memcmp("\x12\x34\0\0\0\0", out, 6));

    // The model agrees with a regular expression on acceptance, and with ours on every stored byte.
    const std::regex mac("^[0-9a-fA-F]{2}([:-])[0-9a-fA-F]{2}(\\1[0-9a-fA-F]{2}){4}.*");
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 20000; ++round) {
        std::string s;
        char sep = rng.chance(50) ? ':' : '-';
        for (int b = 0; b < 6; ++b) {
            if (b)
                s += rng.chance(97) ? sep : ":-x"[rng.range(0, 2)];
            s += random_text(rng, 1, "0aF") + (rng.chance(95) ? random_text(rng, 1, "9bEz") : "");
            if (s.size() < 2 || rng.chance(3))
                s += "0";
        }
        if (rng.chance(20))
            s.resize(rng.range(0, s.size()));
        uint8_t got[6], model[6];
        memset(got, 0x5A, 6);
        memset(model, 0x5A, 6);
        int model_rc = qeltest::model_macaddr(s.c_str(), model);
        ASSERT_EQ(std::regex_match(s, mac) ? 0 : -1, model_rc) << s;
        ASSERT_EQ(model_rc, qel_string_to_macaddr(s.c_str(), got)) << s;
        ASSERT_EQ(0, memcmp(model, got, 6)) << s;
    }
}

} // namespace

#include "qel_strutil.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cctype>
#include <clocale>
#include <cstring>
#include <cwchar>
#include <regex>
#include <string>
#include <vector>

#include "support/str_models.h"
#include "support/test_util.h"

namespace {

using qeltest::kmp_find;
using qeltest::memmem_find;
using qeltest::model_domain;
using qeltest::model_replace;
using qeltest::random_text;
using qeltest::Rng;

// ---- concatenation, copy, print ------------------------------------------------------

TEST(Strutil, StrncatIsAllOrNothing)
{
    char buf[8] = "abc";
    EXPECT_EQ(nullptr, qel_str_strncat(buf, "defg", 7)); // needs 8
    EXPECT_STREQ("abc", buf);
    EXPECT_EQ(buf, qel_str_strncat(buf, "defg", 8)); // exactly D + S + 1
    EXPECT_STREQ("abcdefg", buf);
    EXPECT_EQ(nullptr, qel_str_strncat(nullptr, "x", 8));
    EXPECT_EQ(nullptr, qel_str_strncat(buf, nullptr, 8));
    EXPECT_EQ(nullptr, qel_str_strncat(buf, "", 0));
    EXPECT_EQ(nullptr, qel_str_strncat(buf, "", -1));
    char e[2] = "";
    EXPECT_EQ(e, qel_str_strncat(e, "", 1));

    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 2000; ++round) {
        std::string d = random_text(rng, 6, "ab"), s = random_text(rng, 6, "cd");
        int size = static_cast<int>(rng.range(d.size() + 1, 16));
        std::vector<char> b(size);
        memcpy(b.data(), d.c_str(), d.size() + 1);
        char *r = qel_str_strncat(b.data(), s.c_str(), size);
        if (static_cast<size_t>(size) >= d.size() + s.size() + 1) {
            ASSERT_EQ(b.data(), r);
            ASSERT_EQ(d + s, std::string(b.data()));
        } else {
            ASSERT_EQ(nullptr, r);
            ASSERT_EQ(d, std::string(b.data()));
        }
    }
}

TEST(Strutil, StrlcpyIsTheClassicCopy)
{
    char buf[8];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(6u, qel_str_strlcpy(buf, "abcdef", 4));
    EXPECT_STREQ("abc", buf);
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(6u, qel_str_strlcpy(buf, "abcdef", 0)); // the source length, nothing written
    EXPECT_EQ('x', buf[0]);
    EXPECT_EQ(2u, qel_str_strlcpy(buf, "ab", 8));
    EXPECT_STREQ("ab", buf);
}

TEST(Strutil, MagicPrintReportsWhatItStored)
{
    char buf[16];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(3, qel_str_snprintf(buf, 4, "%d", 12345));
    EXPECT_STREQ("123", buf);
    EXPECT_EQ(5, qel_str_snprintf(buf, sizeof buf, "%d", 12345));
    EXPECT_STREQ("12345", buf);
    EXPECT_EQ(3, qel_str_snprintf(buf, 4, "abc")); // exactly fits
    EXPECT_EQ(3, qel_str_snprintf(buf, 4, "abcd"));
    EXPECT_STREQ("abc", buf);
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(0, qel_str_snprintf(buf, 0, "%d", 1)); // nothing written
    EXPECT_EQ('x', buf[0]);
    EXPECT_EQ(0, qel_str_snprintf(buf, 1, "%d", 1));
    EXPECT_EQ('\0', buf[0]);
    EXPECT_EQ(0, qel_str_snprintf(nullptr, 4, "%d", 1));
    EXPECT_EQ(0, qel_str_snprintf(buf, 4, nullptr));

    // An encoding error: the buffer is terminated at its last byte and the
    // function reports size - 1.
    const char *saved = setlocale(LC_CTYPE, nullptr);
    std::string keep = saved ? saved : "C";
    setlocale(LC_CTYPE, "C");
    memset(buf, 'x', sizeof buf);
    const wchar_t bad[] = {0x4E2D, 0};
    int r = qel_str_snprintf(buf, 8, "%ls", bad);
    EXPECT_EQ(7, r);
    EXPECT_EQ('\0', buf[7]);
    setlocale(LC_CTYPE, keep.c_str());
}

// ---- search ---------------------------------------------------------------------------

TEST(Strutil, FindEdgeCases)
{
    EXPECT_EQ(1, qel_str_find("aaab", 4, "aab", 3, 0));
    EXPECT_EQ(-1, qel_str_find("abc", 3, "c", 1, 3)); // start equal to the length
    EXPECT_EQ(2, qel_str_find("abc", 3, "c", 1, 2));
    EXPECT_EQ(-1, qel_str_find("abc", 3, "b", 1, 2)); // before the start
    EXPECT_EQ(-1, qel_str_find("abc", 3, "b", 1, -1));
    EXPECT_EQ(-1, qel_str_find("abc", 3, "", 0, 0));
    EXPECT_EQ(-1, qel_str_find(nullptr, 3, "a", 1, 0));
    EXPECT_EQ(-1, qel_str_find("abc", 3, nullptr, 1, 0));
    EXPECT_EQ(-1, qel_str_find("abc", 3, "abcd", 4, 0));
    const char zeros[] = {'a', 0, 'b', 0, 'c'};
    const char pat[] = {0, 'c'};
    EXPECT_EQ(3, qel_str_find(zeros, 5, pat, 2, 0));
    EXPECT_EQ(zeros + 3, qel_str_nstr(zeros, 5, pat, 2));
    EXPECT_EQ(nullptr, qel_str_nstr(zeros, 5, "x", 1));

    std::string big(2000, 'a');
    std::string p511(511, 'a'), p512(512, 'a');
    EXPECT_EQ(0, qel_str_find(big.data(), 2000, p511.data(), 511, 0));
    EXPECT_EQ(-1, qel_str_find(big.data(), 2000, p512.data(), 512, 0));
    EXPECT_EQ(nullptr, qel_str_nstr(big.data(), 2000, p512.data(), 512));
}

TEST(Strutil, FindMatchesTheFailureTableSearch)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 30000; ++round) {
        unsigned char hi = static_cast<unsigned char>(rng.range(1, 3)); // tiny alphabets with zero bytes
        std::string buf = rng.bytes(rng.range(0, 60), 0, hi);
        std::string pat = rng.bytes(rng.range(0, 8), 0, hi);
        if (rng.chance(30) && !buf.empty()) { // plant an occurrence
            size_t at = rng.range(0, buf.size() - 1);
            pat = buf.substr(at, rng.range(1, 8));
        }
        int start = static_cast<int>(rng.range(0, buf.size() + 1));
        int len = static_cast<int>(buf.size());
        int want = kmp_find(buf.data(), len, pat.data(), static_cast<int>(pat.size()), start);
        ASSERT_EQ(want, memmem_find(buf, pat, start));
        ASSERT_EQ(want, qel_str_find(buf.data(), len, pat.data(), static_cast<int>(pat.size()), start));
        int w0 = kmp_find(buf.data(), len, pat.data(), static_cast<int>(pat.size()), 0);
        const char *p = qel_str_nstr(buf.data(), len, pat.data(), static_cast<int>(pat.size()));
        ASSERT_EQ(w0, p ? static_cast<int>(p - buf.data()) : -1);
    }
    // Long periodic patterns exercise deep failure chains.
    for (int round = 0; round < 300; ++round) {
        std::string unit = rng.bytes(rng.range(1, 4), 0, 1);
        std::string pat;
        while (pat.size() < rng.range(1, 511))
            pat += unit;
        pat.resize(std::min<size_t>(pat.size(), 511));
        std::string buf;
        while (buf.size() < 3000)
            buf += rng.chance(97) ? unit : rng.bytes(1, 0, 1);
        int want = kmp_find(buf.data(), static_cast<int>(buf.size()), pat.data(), static_cast<int>(pat.size()), 0);
        ASSERT_EQ(want, memmem_find(buf, pat, 0));
        ASSERT_EQ(want, qel_str_find(buf.data(), static_cast<int>(buf.size()), pat.data(),
                                     static_cast<int>(pat.size()), 0));
    }
}

TEST(Strutil, NchrIsNotStoppedByZeroBytes)
{
    const char buf[] = {'a', 0, 'b', 0, 'b'};
    EXPECT_EQ(buf + 2, qel_str_nchr(buf, 5, 'b'));
    EXPECT_EQ(buf + 1, qel_str_nchr(buf, 5, 0));
    EXPECT_EQ(nullptr, qel_str_nchr(buf, 2, 'b'));
    EXPECT_EQ(buf + 2, qel_str_nchr(buf, 5, 'b' + 256));
}

// ---- replace ----------------------------------------------------------------------------

TEST(Strutil, ReplaceEdgeCases)
{
    char b6[6] = "xax";
    EXPECT_EQ(b6, qel_str_replace(b6, 6, "x", "yy", 1));
    EXPECT_STREQ("yyayy", b6);
    char b5[5] = "xax";
    EXPECT_EQ(b5, qel_str_replace(b5, 5, "x", "yy", 1)); // room ran out part-way
    EXPECT_STREQ("yyax", b5);
    char b4[4] = "xax";
    EXPECT_EQ(nullptr, qel_str_replace(b4, 4, "x", "yy", 1)); // the first did not fit
    EXPECT_STREQ("xax", b4);

    char one[16] = "a-b-c";
    EXPECT_EQ(one + 4, qel_str_replace(one, 16, "-", "+++", 0));
    EXPECT_STREQ("a+++b-c", one);
    EXPECT_EQ(one + 1, qel_str_replace(one, 16, "+++", "", 0)); // empty `to`: the occurrence
    EXPECT_STREQ("ab-c", one);
    EXPECT_EQ(nullptr, qel_str_replace(one, 16, "", "z", 1)); // an empty `from` is never found
    EXPECT_EQ(nullptr, qel_str_replace(one, 16, "q", "z", 1));
    EXPECT_EQ(nullptr, qel_str_replace(nullptr, 16, "a", "z", 1));
    EXPECT_EQ(nullptr, qel_str_replace(one, 16, nullptr, "z", 1));
    EXPECT_EQ(nullptr, qel_str_replace(one, 16, "a", nullptr, 1));
    EXPECT_STREQ("ab-c", one);

    char grow[32] = "aaa"; // inserted text is never searched again
    EXPECT_EQ(grow, qel_str_replace(grow, 32, "a", "aa", 1));
    EXPECT_STREQ("aaaaaa", grow);
    char shrink[8] = "abcabc"; // shrinking replacements fit even with no spare room
    EXPECT_EQ(shrink, qel_str_replace(shrink, 7, "bc", "", 1));
    EXPECT_STREQ("aa", shrink);
}

TEST(Strutil, ReplaceMatchesItsModel)
{
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 20000; ++round) {
        std::string s = random_text(rng, 12, "ab");
        std::string from = random_text(rng, 3, "ab"), to = random_text(rng, 4, "abc");
        int cap = static_cast<int>(rng.range(s.size() + 1, s.size() + 10));
        bool all = rng.chance(50);
        std::vector<char> buf(cap);
        memcpy(buf.data(), s.c_str(), s.size() + 1);
        std::string model = s;
        long want = model_replace(model, cap, from, to, all);
        char *r = qel_str_replace(buf.data(), cap, from.c_str(), to.c_str(), all);
        ASSERT_EQ(want, r ? static_cast<long>(r - buf.data()) : -1)
            << s << " " << from << "->" << to << " cap " << cap << " all " << all;
        ASSERT_EQ(model, std::string(buf.data())) << s << " " << from << "->" << to << " cap " << cap;
        ASSERT_LT(model.size(), static_cast<size_t>(cap));
    }
}

// ---- validators -------------------------------------------------------------------------

TEST(Strutil, IntegerValidators)
{
    EXPECT_EQ(QEL_OK, qel_string_check_integer("0123", 10));
    EXPECT_EQ(QEL_OK, qel_string_check_integer("", 10));
    EXPECT_EQ(QEL_OK, qel_string_check_integer("-1", 0));
    EXPECT_EQ(QEL_OK, qel_string_check_integer("12x", 2));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_integer("12x", 3));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_integer("-1", 5));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_integer("+1", 5));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_integer(" 1", 5));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_integer(nullptr, 5));
    EXPECT_EQ(QEL_OK, qel_string_check_hex_integer("DeadBeef09", 20));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_hex_integer("0x1f", 20));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_hex_integer("fg", 20));
    EXPECT_EQ(QEL_OK, qel_string_check_hex_integer("", 0));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_hex_integer(nullptr, 0));

    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 3000; ++round) {
        std::string s = random_text(rng, 6, "09afAFgx -");
        size_t maxlen = rng.range(0, 8);
        bool dec = qeltest::model_integer(s, maxlen, false), hex = qeltest::model_integer(s, maxlen, true);
        ASSERT_EQ(dec ? QEL_OK : QEL_E_BADFORMAT, qel_string_check_integer(s.c_str(), maxlen)) << s;
        ASSERT_EQ(hex ? QEL_OK : QEL_E_BADFORMAT, qel_string_check_hex_integer(s.c_str(), maxlen)) << s;
    }
}

TEST(Strutil, Ipv4Validator)
{
    for (const char *good : {"1.2.3.4", "0.0.0.0", "255.255.255.255", "10.0.200.9"})
        EXPECT_EQ(QEL_OK, qel_string_check_ipv4(good, 64)) << good;
    for (const char *bad : {"1.2.3", "1.2.3.4.", "1..2.3", "256.1.1.1", " 1.2.3.4", "1.2.3.04",
                            "", ".1.2.3", "1.2.3.4.5", "1.2.3.4 ", "00.1.2.3", "1.2.3.a", "1000.1.1.1"})
        EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_ipv4(bad, 64)) << bad;
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_ipv4("1.2.3.4", 5)); // only "1.2.3" examined
    EXPECT_EQ(QEL_OK, qel_string_check_ipv4("1.2.3.4xyz", 7));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_ipv4(nullptr, 7));

    // The platform's strict dotted-quad parser accepts exactly the same set.
    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 50000; ++round) {
        std::string s;
        size_t parts = rng.range(1, 6);
        for (size_t i = 0; i < parts; ++i) {
            if (i)
                s += rng.chance(95) ? "." : (rng.chance(50) ? ".." : " ");
            s += random_text(rng, 4, rng.chance(80) ? "0123456789" : "0125.x");
        }
        size_t maxlen = rng.chance(80) ? s.size() + rng.range(0, 2) : rng.range(0, s.size());
        bool want = qeltest::model_ipv4(s, maxlen);
        ASSERT_EQ(want ? QEL_OK : QEL_E_BADFORMAT, qel_string_check_ipv4(s.c_str(), maxlen))
            << s << " maxlen " << maxlen;
    }
}

TEST(Strutil, DomainValidator)
{
    EXPECT_EQ(QEL_OK, qel_string_check_domain("example.com", 64));
    EXPECT_EQ(QEL_OK, qel_string_check_domain("", 64));
    EXPECT_EQ(QEL_OK, qel_string_check_domain("..a_b", 64)); // labels are not checked
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_domain("-a", 64));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_domain("-", 0)); // the first "-" regardless of maxlen
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_domain("a-", 64));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_domain("a b", 64));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_domain(nullptr, 64));
    // maxlen + 1 characters are examined, deliberately.
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_domain("ab-", 2));
    EXPECT_EQ(QEL_OK, qel_string_check_domain("ab-", 1));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_domain("a b", 1));
    EXPECT_EQ(QEL_OK, qel_string_check_domain("a b", 0));
    std::string s66(66, 'a'), s67(67, 'a');
    EXPECT_EQ(QEL_OK, qel_string_check_domain(s66.c_str(), 100));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_domain(s67.c_str(), 100));
    EXPECT_EQ(QEL_OK, qel_string_check_domain(s67.c_str(), 65));
    EXPECT_EQ(QEL_E_BADFORMAT, qel_string_check_domain(s67.c_str(), SIZE_MAX));

    Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 20000; ++round) {
        std::string s = random_text(rng, rng.chance(10) ? 80 : 8, "aZ9-._ ");
        size_t maxlen = rng.chance(5) ? SIZE_MAX : rng.range(0, 90);
        ASSERT_EQ(model_domain(s, maxlen) ? QEL_OK : QEL_E_BADFORMAT,
                  qel_string_check_domain(s.c_str(), maxlen))
            << s << " maxlen " << maxlen;
    }
}

TEST(Strutil, MacAddress)
{
    uint8_t out[6] = {};
    EXPECT_EQ(0, qel_string_to_macaddr("AA-bb-0C-dd-EE-ff:zz", out));
    const uint8_t want[6] = {0xAA, 0xBB, 0x0C, 0xDD, 0xEE, 0xFF};
    EXPECT_EQ(0, memcmp(want, out, 6));
    EXPECT_EQ(0, qel_string_to_macaddr("00:11:22:33:44:55", out));
    EXPECT_EQ(0x55, out[5]);
    for (const char *bad : {"0:1:2:3:4:5", "001122334455", "00:11-22:33:44:55", "00:11:22:33:44",
                            "00:11:22:33:44:5", "", "00 11 22 33 44 55", "0g:11:22:33:44:55"})
        EXPECT_EQ(-1, qel_string_to_macaddr(bad, out)) << bad;
    EXPECT_EQ(-1, qel_string_to_macaddr(nullptr, out));
    EXPECT_EQ(-1, qel_string_to_macaddr("00:11:22:33:44:55", nullptr));
    memset(out, 0, 6);
    EXPECT_EQ(-1, qel_string_to_macaddr("12:34:zz", out)); // bytes stored so far stay
    EXPECT_EQ(0x12, out[0]);
    EXPECT_EQ(0x34, out[1]);
    EXPECT_EQ(0, out[2]);

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
        bool ok = std::regex_match(s, mac);
        ASSERT_EQ(ok ? 0 : -1, model_rc) << s;
        ASSERT_EQ(model_rc, qel_string_to_macaddr(s.c_str(), got)) << s;
        ASSERT_EQ(0, memcmp(model, got, 6)) << s;
    }
}

} // namespace

#include "qel_cmd.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtimes report the size an allocation was asked for.
extern "C" size_t __sanitizer_get_allocated_size(const volatile void *p);
#define QEL_TEST_EXACT_SIZE 1
#endif

#include "base/internal.h"
#include "support/cmd_model.h"
#include "support/test_util.h"

namespace {

using WStr = std::wstring;
using Tokens = std::vector<std::string>;
using WTokens = std::vector<WStr>;

WStr widen(const std::string &s)
{
    WStr w;
    for (unsigned char c : s) // bytes above 127 stay code points 128..255
        w.push_back(c);
    return w;
}
char **parse(const char *line, int *count) { return qel_cmd_parse(line, count); }
wchar_t **parse(const wchar_t *line, int *count) { return qel_cmd_parse_w(line, count); }

// Splits, checks the block's layout (token pointers, a null slot, then the
// copy of the line the tokens point into) and returns the tokens.
template <class Ch>
std::vector<std::basic_string<Ch>> split(const std::basic_string<Ch> &line)
{
    int count = -7;
    Ch **argv = parse(line.c_str(), &count);
    std::vector<std::basic_string<Ch>> out;
    if (argv == nullptr) {
        EXPECT_EQ(-7, count); // not written
        return out;
    }
    EXPECT_GE(count, 1);
    EXPECT_LE(count, 1023);
    EXPECT_EQ(nullptr, argv[count]);
    const Ch *text = reinterpret_cast<const Ch *>(argv + count + 1);
    const size_t len = std::basic_string<Ch>(line.c_str()).size();
    const size_t size = (count + 1) * sizeof(Ch *) + (len + 1) * sizeof(Ch);
#ifdef QEL_TEST_EXACT_SIZE
    EXPECT_EQ(size, __sanitizer_get_allocated_size(argv));
#else
    EXPECT_GE(malloc_usable_size(argv), size);
#endif
    EXPECT_EQ(Ch(0), text[len]);
    for (int i = 0; i < count; ++i) {
        EXPECT_GE(argv[i], i > 0 ? argv[i - 1] + 1 : text);
        EXPECT_LT(argv[i], text + len);
        std::basic_string<Ch> tok(argv[i]);
        // Everything between the tokens is the input, untouched.
        EXPECT_EQ(0, line.compare(static_cast<size_t>(argv[i] - text), tok.size(), tok));
        out.push_back(tok);
    }
    qel_cmd_free(argv);
    return out;
}

// One narrow line and its wide twin.
void expect_split(const std::string &line, const Tokens &want)
{
    EXPECT_EQ(want, split(line)) << "[" << line << "]";
    WTokens wwant;
    for (const auto &t : want)
        wwant.push_back(widen(t));
    EXPECT_TRUE(wwant == split(widen(line))) << "wide [" << line << "]";
}

TEST(Cmd, SplitsAtBlanksOnlyAndKeepsQuotesAndEscapes)
{
    const struct { const char *line; Tokens want; } cases[] = {
        {"   lead  and trail   ", {"lead", "and", "trail"}},
        {"tab\tx\ny\rz split", {"tab\tx\ny\rz", "split"}},
        {"\xc3\xa9t\xc3\xa9 \xff", {"\xc3\xa9t\xc3\xa9", "\xff"}}, // bytes above 127 are ordinary
        {"say \"hello world\" now", {"say", "\"hello world\"", "now"}},
        {"it's a \"x", {"it's a \"x"}}, // an open quote runs to the end
        {"'a \"b' c\"", {"'a \"b'", "c\""}},
        {"\"a 'b\" c'", {"\"a 'b\"", "c'"}},
        {"a\\\"b c\"", {"a\\\"b", "c\""}}, // an escaped quote does not open quoting
        {"a\\\\ b", {"a\\\\", "b"}},       // a doubled escape leaves none pending
        // An escape before a blank does not protect it, and stays pending
        // across the blank for the next character.
        {"a\\ \"b c\"", {"a\\", "\"b", "c\""}},
        {"a\\    'b c'", {"a\\", "'b", "c'"}},
        {"a\\ \\b c", {"a\\", "\\b", "c"}},
    };
    for (const auto &c : cases)
        expect_split(c.line, c.want);
    WTokens want = {L"\u00e9t\u00e9", L"\U0001F600", L"'\u4e2d \u6587'"};
    EXPECT_TRUE(want == split(WStr(L"\u00e9t\u00e9 \U0001F600 '\u4e2d \u6587'")));
}

TEST(Cmd, NoTokensGivesNullAndLeavesTheCount)
{
    int count = 5;
    for (const char *line : {"", " ", "      "}) {
        EXPECT_EQ(nullptr, qel_cmd_parse(line, &count)) << "[" << line << "]";
        EXPECT_EQ(nullptr, qel_cmd_parse_w(widen(line).c_str(), &count));
    }
    EXPECT_EQ(nullptr, qel_cmd_parse(nullptr, &count));
    EXPECT_EQ(nullptr, qel_cmd_parse("a b", nullptr));
    EXPECT_EQ(nullptr, qel_cmd_parse_w(nullptr, &count));
    EXPECT_EQ(nullptr, qel_cmd_parse_w(L"a b", nullptr));
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_cmd_parse("a b", &count));
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_cmd_parse_w(L"a b", &count));
    qel::detail::fail_allocations(0, 0);
    EXPECT_EQ(5, count);
    qel_cmd_free(nullptr);
}

TEST(Cmd, AtMost1023Tokens)
{
    std::string exact;
    for (int i = 0; i < 1023; ++i)
        exact += (i ? " w" : "w") + std::to_string(i);
    // Exactly 1023 with the last one open at the end; a 1024th is dropped.
    for (const std::string &line : {exact, exact + " extra", exact + " extra more "}) {
        Tokens toks = split(line);
        ASSERT_EQ(1023u, toks.size());
        EXPECT_EQ("w1022", toks.back());
        EXPECT_EQ(1023u, split(widen(line)).size());
    }
}

TEST(Cmd, RepointedSymbolsChangeTheSplitter)
{
    const char *saved = g_symbols;
    const wchar_t *wsaved = g_wsymbols;
    g_symbols = "[]^";
    g_wsymbols = L"[]^";
    EXPECT_EQ((Tokens{"[a b[", "]c d]", "'e", "f'"}), split(std::string("[a b[ ]c d] 'e f'")));
    EXPECT_EQ((Tokens{"^[a", "b["}), split(std::string("^[a b["))); // an escaped quote
    EXPECT_EQ((Tokens{"x^", "y"}), split(std::string("x^ y")));
    EXPECT_EQ((Tokens{"\\\"a", "b\""}), split(std::string("\\\"a b\""))); // now ordinary
    EXPECT_TRUE((WTokens{L"[a b[", L"'e", L"f'"}) == split(WStr(L"[a b[ 'e f'")));
    g_symbols = saved;
    g_wsymbols = wsaved;
    EXPECT_STREQ("'\"\\", g_symbols);
    EXPECT_EQ(WStr(L"'\"\\"), WStr(g_wsymbols));
    expect_split("'e f' [a b[", {"'e f'", "[a", "b["});
}

TEST(Cmd, RandomLinesMatchTheModel)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    static const char kAlphabet[] = {'a', 'b', ' ', ' ', ' ', '\'', '"', '\\', '\t', '\xe9'};
    for (int round = 0; round < 3000; ++round) {
        std::string line;
        size_t len = round < 2990 ? rng.range(0, 40) : rng.range(2000, 6000);
        for (size_t i = 0; i < len; ++i)
            line.push_back(kAlphabet[rng.range(0, sizeof kAlphabet - 1)]);
        auto want = qeltest::model_split<char>(line, "'\"\\");
        ASSERT_EQ(want, split(line)) << "[" << line << "]"; // no token: null, checked by split
        ASSERT_TRUE(qeltest::model_split<wchar_t>(widen(line), L"'\"\\") == split(widen(line))) << "[" << line << "]";
    }
}

} // namespace

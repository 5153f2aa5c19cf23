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

template <class Ch>
using Str = std::basic_string<Ch>;

Str<wchar_t> widen(const std::string &s)
{
    Str<wchar_t> w;
    for (unsigned char c : s)
        w.push_back(static_cast<wchar_t>(c));
    return w;
}

template <class Ch>
Ch **parse(const Ch *line, int *count);
template <>
char **parse(const char *line, int *count)
{
    return qel_cmd_parse(line, count);
}
template <>
wchar_t **parse(const wchar_t *line, int *count)
{
    return qel_cmd_parse_w(line, count);
}

using qeltest::model_split;

// Splits, checks the block's layout and returns the tokens.
template <class Ch>
std::vector<Str<Ch>> split(const Str<Ch> &line, bool *null_result = nullptr)
{
    int count = -7;
    Ch **argv = parse(line.c_str(), &count);
    std::vector<Str<Ch>> out;
    if (null_result)
        *null_result = argv == nullptr;
    if (argv == nullptr) {
        EXPECT_EQ(-7, count); // not written
        return out;
    }
    EXPECT_GE(count, 1);
    EXPECT_LE(count, 1023);
    EXPECT_EQ(nullptr, argv[count]);
    // The copy of the line follows the null slot; tokens point into it.
    const Ch *text = reinterpret_cast<const Ch *>(argv + count + 1);
    const size_t len = Str<Ch>(line.c_str()).size();
    const size_t size = (count + 1) * sizeof(Ch *) + (len + 1) * sizeof(Ch);
#ifdef QEL_TEST_EXACT_SIZE
    EXPECT_EQ(size, __sanitizer_get_allocated_size(argv));
#else
    EXPECT_GE(malloc_usable_size(argv), size);
#endif
    EXPECT_EQ(Ch(0), text[len]);
    for (int i = 0; i < count; ++i) {
        EXPECT_GE(argv[i], text);
        EXPECT_LT(argv[i], text + len);
        if (i > 0) {
            EXPECT_GT(argv[i], argv[i - 1]);
        }
        Str<Ch> tok(argv[i]);
        // Everything between the tokens is the input, untouched.
        EXPECT_EQ(0, line.compare(static_cast<size_t>(argv[i] - text), tok.size(), tok));
        out.push_back(tok);
    }
    qel_cmd_free(argv);
    return out;
}

using Tokens = std::vector<std::string>;

// Runs one narrow case and its wide twin.
void expect_split(const std::string &line, const Tokens &want)
{
    EXPECT_EQ(want, split<char>(line)) << "[" << line << "]";
    std::vector<Str<wchar_t>> wwant;
    for (const auto &t : want)
        wwant.push_back(widen(t));
    EXPECT_TRUE(wwant == split<wchar_t>(widen(line))) << "wide [" << line << "]";
}

TEST(Cmd, SplitsAtBlanksOnly)
{
    expect_split("a b  c", {"a", "b", "c"});
    expect_split("   lead and trail   ", {"lead", "and", "trail"});
    expect_split("tab\tdoes\tnot split", {"tab\tdoes\tnot", "split"});
    expect_split("x\ny\rz", {"x\ny\rz"});
    expect_split("one", {"one"});
}

TEST(Cmd, QuotesAndEscapesStayInTokens)
{
    expect_split("say \"hello world\" now", {"say", "\"hello world\"", "now"});
    expect_split("it's a \"x", {"it's a \"x"}); // the open quote runs to the end
    expect_split("'a \"b' c\"", {"'a \"b'", "c\""});
    expect_split("\"a 'b\" c'", {"\"a 'b\"", "c'"});
    expect_split("a\\\"b c\"", {"a\\\"b", "c\""}); // an escaped quote does not open quoting
    expect_split("a\\\\ b", {"a\\\\", "b"});       // a doubled escape leaves none pending
    expect_split("x\\'y z", {"x\\'y", "z"});
}

TEST(Cmd, EscapeBeforeBlankDoesNotProtectIt)
{
    expect_split("a\\ b", {"a\\", "b"});
    // The escape stays pending across the blank and applies to the next character.
    expect_split("a\\ \"b c\"", {"a\\", "\"b", "c\""});
    expect_split("a\\    'b c'", {"a\\", "'b", "c'"});
    expect_split("a\\ \\b c", {"a\\", "\\b", "c"});
}

TEST(Cmd, NoTokensGivesNullAndLeavesTheCount)
{
    for (const char *line : {"", " ", "      "}) {
        bool null_result = false;
        EXPECT_TRUE(split<char>(line).empty());
        split<char>(line, &null_result);
        EXPECT_TRUE(null_result) << "[" << line << "]";
        split<wchar_t>(widen(line), &null_result);
        EXPECT_TRUE(null_result);
    }
    int count = 5;
    EXPECT_EQ(nullptr, qel_cmd_parse(nullptr, &count));
    EXPECT_EQ(nullptr, qel_cmd_parse("a b", nullptr));
    EXPECT_EQ(nullptr, qel_cmd_parse_w(nullptr, &count));
    EXPECT_EQ(nullptr, qel_cmd_parse_w(L"a b", nullptr));
    EXPECT_EQ(5, count);
    qel_cmd_free(nullptr);
}

TEST(Cmd, AtMost1023Tokens)
{
    std::string words;
    for (int i = 0; i < 2000; ++i)
        words += "x ";
    auto toks = split<char>(words);
    EXPECT_EQ(1023u, toks.size());
    EXPECT_EQ(1023u, split<wchar_t>(widen(words)).size());

    // Exactly 1023 with the last one open at the end; 1024 loses the last.
    std::string exact;
    for (int i = 0; i < 1023; ++i)
        exact += (i ? " w" : "w") + std::to_string(i);
    toks = split<char>(exact);
    ASSERT_EQ(1023u, toks.size());
    EXPECT_EQ("w1022", toks.back());
    toks = split<char>(exact + " extra");
    ASSERT_EQ(1023u, toks.size());
    EXPECT_EQ("w1022", toks.back());
}

TEST(Cmd, WideCharactersBeyondAscii)
{
    Str<wchar_t> line = L"\u00e9t\u00e9 \U0001F600 '\u4e2d \u6587'";
    std::vector<Str<wchar_t>> want = {L"\u00e9t\u00e9", L"\U0001F600", L"'\u4e2d \u6587'"};
    EXPECT_TRUE(want == split<wchar_t>(line));
    // Narrow bytes above 127 are ordinary characters.
    expect_split("\xc3\xa9t\xc3\xa9 \xff", {"\xc3\xa9t\xc3\xa9", "\xff"});
}

TEST(Cmd, RepointedSymbolsChangeTheSplitter)
{
    const char *saved = g_symbols;
    const wchar_t *wsaved = g_wsymbols;
    g_symbols = "[]^";
    g_wsymbols = L"[]^";
    EXPECT_EQ((Tokens{"[a b[", "]c d]", "'e", "f'"}), split<char>("[a b[ ]c d] 'e f'"));
    EXPECT_EQ((Tokens{"^[a", "b["}), split<char>("^[a b[")); // an escaped quote
    EXPECT_EQ((Tokens{"x^", "y"}), split<char>("x^ y"));
    EXPECT_EQ((Tokens{"\\\"a", "b\""}), split<char>("\\\"a b\"")); // now ordinary
    EXPECT_TRUE((std::vector<Str<wchar_t>>{L"[a b[", L"'e", L"f'"}) == split<wchar_t>(L"[a b[ 'e f'"));
    g_symbols = saved;
    g_wsymbols = wsaved;
    EXPECT_EQ((Tokens{"'e f'"}), split<char>("'e f'"));
    EXPECT_EQ((Tokens{"[a", "b["}), split<char>("[a b["));
    EXPECT_STREQ("'\"\\", g_symbols);
    EXPECT_EQ(Str<wchar_t>(L"'\"\\"), Str<wchar_t>(g_wsymbols));
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
        auto want = model_split<char>(line, "'\"\\");
        bool null_result = false;
        auto got = split<char>(line, &null_result);
        ASSERT_EQ(want, got) << "[" << line << "]";
        ASSERT_EQ(want.empty(), null_result);
        auto wwant = model_split<wchar_t>(widen(line), L"'\"\\");
        ASSERT_TRUE(wwant == split<wchar_t>(widen(line))) << "[" << line << "]";
    }
}

TEST(Cmd, AllocationFailureGivesNull)
{
    int count = 9;
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_cmd_parse("a b", &count));
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_cmd_parse_w(L"a b", &count));
    qel::detail::fail_allocations(0, 0);
    EXPECT_EQ(9, count);
    char **argv = qel_cmd_parse("a b", &count);
    EXPECT_EQ(2, count);
    qel_cmd_free(argv);
}

} // namespace

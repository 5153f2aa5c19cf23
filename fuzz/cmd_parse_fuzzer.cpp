// Splits arbitrary bytes with both splitters, under the standard special
// characters and under ones taken from the input, and compares the tokens
// with a plain reading of the splitting rules.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qel_cmd.h"

#include "tests/support/cmd_model.h"

namespace {

void check(bool ok)
{
    if (!ok)
        __builtin_trap();
}

char **split(const char *s, int *n) { return qel_cmd_parse(s, n); }
wchar_t **split(const wchar_t *s, int *n) { return qel_cmd_parse_w(s, n); }

template <class Ch>
void run(const std::basic_string<Ch> &line, const Ch *sym)
{
    auto want = qeltest::model_split(line, sym);
    int count = -1;
    Ch **argv = split(line.c_str(), &count);
    if (want.empty()) {
        check(argv == nullptr && count == -1);
        return;
    }
    check(argv != nullptr && count == static_cast<int>(want.size()) && argv[count] == nullptr);
    for (int i = 0; i < count; ++i)
        check(std::basic_string<Ch>(argv[i]) == want[i]);
    qel_cmd_free(argv);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Narrow: the bytes up to the first NUL. Wide: each byte a character,
    // with bytes >= 0xF0 spread over the whole wide range.
    std::string narrow(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    std::wstring wide;
    for (size_t i = 0; i < narrow.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(narrow[i]);
        wide.push_back(c >= 0xF0 ? static_cast<wchar_t>(0x10000 + c * 977) : static_cast<wchar_t>(c));
    }
    run<char>(narrow, "'\"\\");
    run<wchar_t>(wide, L"'\"\\");

    // Repointed special characters: the first three bytes, if there are.
    if (size >= 3 && data[0] && data[1] && data[2]) {
        const char *saved = g_symbols;
        const wchar_t *wsaved = g_wsymbols;
        char sym[4] = {static_cast<char>(data[0]), static_cast<char>(data[1]), static_cast<char>(data[2]), 0};
        wchar_t wsym[4] = {data[0], data[1], data[2], 0};
        g_symbols = sym;
        g_wsymbols = wsym;
        run<char>(narrow.substr(3 < narrow.size() ? 3 : narrow.size()), sym);
        run<wchar_t>(wide.substr(3 < wide.size() ? 3 : wide.size()), wsym);
        g_symbols = saved;
        g_wsymbols = wsaved;
    }
    return 0;
}

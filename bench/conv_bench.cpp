// Conversions of a 64-character string against one bare iconv call on an
// already open converter (and against opening a converter per call), and the
// text checks over 1 MiB. Naming: BM_<operation>__<implementation>.
#include <benchmark/benchmark.h>

#include <cstring>
#include <iconv.h>
#include <string>
#include <vector>

#include "qel_conv.h"

#ifdef MORBASE_HAVE_GLIB
#include <glib.h>
#endif

namespace {

// 64 characters of mixed text: ASCII, Latin-1, and BMP characters of 3 bytes.
const char kUtf8Text64[] =
    "Gr\xc3\xbc\xc3\x9f" "e aus K\xc3\xb6ln \xe2\x80\x94 \xe6\x97\xa5\xe6\x9c\xac "
    "caf\xc3\xa9 na\xc3\xafve r\xc3\xa9sum\xc3\xa9 \xc2\xa9 2024, fa\xc3\xa7" "ade!! \xc3\xa0 bient\xc3\xb4t";

std::wstring wide_text64()
{
    std::wstring w;
    for (int i = 0; w.size() < 64; ++i)
        w.push_back(i % 5 == 0 ? static_cast<wchar_t>(0xE9 + i) : static_cast<wchar_t>('a' + i % 26));
    return w;
}

size_t utf8_chars(const char *s)
{
    size_t n = 0;
    for (; *s; ++s)
        n += (static_cast<unsigned char>(*s) & 0xC0) != 0x80;
    return n;
}

// ---- UTF-8 to wide ---------------------------------------------------------------

void BM_utf8_to_unicode_ex__qel(benchmark::State &state)
{
    if (utf8_chars(kUtf8Text64) != 64)
        state.SkipWithError("the sample is not 64 characters");
    wchar_t out[65];
    for (auto _ : state) {
        benchmark::DoNotOptimize(qel_str_utf8_to_unicode_ex(kUtf8Text64, out, 65));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_utf8_to_unicode_ex__qel);

// One iconv call on a converter opened once.
void BM_utf8_to_unicode_ex__iconv(benchmark::State &state)
{
    iconv_t cd = iconv_open("UCS-2", "UTF-8");
    wchar_t out[65];
    size_t len = strlen(kUtf8Text64);
    for (auto _ : state) {
        char *ip = const_cast<char *>(kUtf8Text64), *op = reinterpret_cast<char *>(out);
        size_t il = len, ol = sizeof out;
        benchmark::DoNotOptimize(iconv(cd, &ip, &il, &op, &ol));
        benchmark::ClobberMemory();
    }
    iconv_close(cd);
}
BENCHMARK(BM_utf8_to_unicode_ex__iconv);

// What the conversion costs when it opens and closes a converter per call.
void BM_utf8_to_unicode_ex__iconv_open(benchmark::State &state)
{
    wchar_t out[65];
    size_t len = strlen(kUtf8Text64);
    for (auto _ : state) {
        iconv_t cd = iconv_open("UCS-2", "UTF-8");
        char *ip = const_cast<char *>(kUtf8Text64), *op = reinterpret_cast<char *>(out);
        size_t il = len, ol = sizeof out;
        memset(out, 0, sizeof out);
        benchmark::DoNotOptimize(iconv(cd, &ip, &il, &op, &ol));
        iconv_close(cd);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_utf8_to_unicode_ex__iconv_open);

void BM_utf8_to_unicode__qel(benchmark::State &state)
{
    for (auto _ : state) {
        wchar_t *w = qel_str_utf8_to_unicode(kUtf8Text64);
        benchmark::DoNotOptimize(w);
        qel_str_free(w);
    }
}
BENCHMARK(BM_utf8_to_unicode__qel);

// ---- wide to UTF-8 ---------------------------------------------------------------

void BM_unicode_to_utf8_ex__qel(benchmark::State &state)
{
    std::wstring w = wide_text64();
    char out[64 * 4 + 1];
    for (auto _ : state) {
        benchmark::DoNotOptimize(qel_str_unicode_to_utf8_ex(w.c_str(), out, sizeof out));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_unicode_to_utf8_ex__qel);

void BM_unicode_to_utf8_ex__iconv(benchmark::State &state)
{
    std::wstring w = wide_text64();
    iconv_t cd = iconv_open("UTF-8", "UCS-2");
    char out[64 * 4 + 1];
    for (auto _ : state) {
        char *ip = reinterpret_cast<char *>(w.data()), *op = out;
        size_t il = w.size() * sizeof(wchar_t), ol = sizeof out;
        benchmark::DoNotOptimize(iconv(cd, &ip, &il, &op, &ol));
        benchmark::ClobberMemory();
    }
    iconv_close(cd);
}
BENCHMARK(BM_unicode_to_utf8_ex__iconv);

void BM_unicode_to_utf8_ex__iconv_open(benchmark::State &state)
{
    std::wstring w = wide_text64();
    char out[64 * 4 + 1];
    for (auto _ : state) {
        iconv_t cd = iconv_open("UTF-8", "UCS-2");
        char *ip = reinterpret_cast<char *>(w.data()), *op = out;
        size_t il = w.size() * sizeof(wchar_t), ol = sizeof out;
        memset(out, 0, sizeof out);
        benchmark::DoNotOptimize(iconv(cd, &ip, &il, &op, &ol));
        iconv_close(cd);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_unicode_to_utf8_ex__iconv_open);

void BM_unicode_to_utf8__qel(benchmark::State &state)
{
    std::wstring w = wide_text64();
    for (auto _ : state) {
        char *s = qel_str_unicode_to_utf8(w.c_str());
        benchmark::DoNotOptimize(s);
        qel_str_free(s);
    }
}
BENCHMARK(BM_unicode_to_utf8__qel);

// ---- the text checks over 1 MiB ------------------------------------------------------

constexpr size_t kMiB = 1 << 20;

// Lines of printable ASCII with a newline every 72 bytes.
const std::string &ascii_mib()
{
    static const std::string s = [] {
        std::string t;
        t.reserve(kMiB);
        for (size_t i = 0; t.size() < kMiB; ++i)
            t.push_back(i % 72 == 71 ? '\n' : static_cast<char>(' ' + (i * 7) % 95));
        return t;
    }();
    return s;
}

// European text: ASCII with a two-byte character every 16 bytes or so.
const std::string &latin_mib()
{
    static const std::string s = [] {
        std::string t;
        t.reserve(kMiB + 8);
        for (size_t i = 0; t.size() + 8 < kMiB; ++i) {
            t += "Stra\xc3\x9f" "e ";
            t += i % 9 == 8 ? "\n" : "und ";
            t += "caf\xc3\xa9 ";
        }
        t.resize(kMiB, ' ');
        return t;
    }();
    return s;
}

// Text in a script of three-byte characters, with ASCII punctuation.
const std::string &cjk_mib()
{
    static const std::string s = [] {
        std::string t;
        t.reserve(kMiB + 8);
        for (size_t i = 0; t.size() + 8 < kMiB; ++i)
            t += i % 10 == 9 ? ", " : "\xe6\x97\xa5";
        t.resize(kMiB, ' ');
        return t;
    }();
    return s;
}

template <int (*Check)(const void *, size_t)>
void run_check(benchmark::State &state, const std::string &text, int expect)
{
    if (Check(text.data(), text.size()) != expect)
        state.SkipWithError("unexpected answer");
    for (auto _ : state)
        benchmark::DoNotOptimize(Check(text.data(), text.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_is_ascii__qel(benchmark::State &state) { run_check<qel_str_is_ascii>(state, ascii_mib(), 1); }
BENCHMARK(BM_is_ascii__qel);

void BM_is_utf8_ascii__qel(benchmark::State &state) { run_check<qel_str_is_utf8>(state, ascii_mib(), 0); }
BENCHMARK(BM_is_utf8_ascii__qel);

void BM_is_utf8_latin__qel(benchmark::State &state) { run_check<qel_str_is_utf8>(state, latin_mib(), 1); }
BENCHMARK(BM_is_utf8_latin__qel);

void BM_is_utf8_cjk__qel(benchmark::State &state) { run_check<qel_str_is_utf8>(state, cjk_mib(), 1); }
BENCHMARK(BM_is_utf8_cjk__qel);

#ifdef MORBASE_HAVE_GLIB
// Not the same rules (glib rejects overlong forms and surrogates), but the
// validator a user would reach for.
template <const std::string &(*Text)()>
void glib_validate(benchmark::State &state)
{
    const std::string &t = Text();
    for (auto _ : state)
        benchmark::DoNotOptimize(g_utf8_validate(t.data(), static_cast<gssize>(t.size()), nullptr));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * t.size()));
}
void BM_is_utf8_ascii__glib(benchmark::State &state) { glib_validate<ascii_mib>(state); }
BENCHMARK(BM_is_utf8_ascii__glib);
void BM_is_utf8_latin__glib(benchmark::State &state) { glib_validate<latin_mib>(state); }
BENCHMARK(BM_is_utf8_latin__glib);
void BM_is_utf8_cjk__glib(benchmark::State &state) { glib_validate<cjk_mib>(state); }
BENCHMARK(BM_is_utf8_cjk__glib);
#endif

void BM_is_utf16__qel(benchmark::State &state)
{
    static const std::string t = [] {
        std::string s = "\xff\xfe";
        while (s.size() < kMiB)
            s += std::string{static_cast<char>(' ' + s.size() % 90), 0};
        return s;
    }();
    run_check<qel_str_is_utf16>(state, t, 1);
}
BENCHMARK(BM_is_utf16__qel);

} // namespace

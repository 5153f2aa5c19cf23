// String primitives against the C library, and qel_str_find against memmem.
// Naming: BM_<operation>__<implementation>; tools/bench_report.py prints each
// peer's time over ours per operation.
#include <benchmark/benchmark.h>

#include <cstring>
#include <cwchar>
#include <random>
#include <string>
#include <strings.h>

#include "qel_str.h"
#include "qel_strutil.h"

namespace {

// Two equal strings of n characters that differ in case only.
std::string mixed_case(size_t n, bool upper)
{
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += static_cast<char>((upper && i % 2 ? 'A' : 'a') + i % 26);
    return s;
}

std::wstring widen(const std::string &s)
{
    return std::wstring(s.begin(), s.end());
}

// ---- lengths and comparisons: a call's overhead at most ----------------------------

void BM_strlen__qel(benchmark::State &state)
{
    std::string s = mixed_case(state.range(0), false);
    const char *p = s.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(qel_strlen(p));
    }
}
BENCHMARK(BM_strlen__qel)->Arg(16)->Arg(256);

void BM_strlen__libc(benchmark::State &state)
{
    std::string s = mixed_case(state.range(0), false);
    const char *p = s.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(strlen(p));
    }
}
BENCHMARK(BM_strlen__libc)->Arg(16)->Arg(256);

void BM_strcmp__qel(benchmark::State &state)
{
    std::string a = mixed_case(state.range(0), false), b = a;
    const char *x = a.c_str(), *y = b.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(qel_strcmp(x, y));
    }
}
BENCHMARK(BM_strcmp__qel)->Arg(16)->Arg(256);

void BM_strcmp__libc(benchmark::State &state)
{
    std::string a = mixed_case(state.range(0), false), b = a;
    const char *x = a.c_str(), *y = b.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(strcmp(x, y));
    }
}
BENCHMARK(BM_strcmp__libc)->Arg(16)->Arg(256);

void BM_stricmp__qel(benchmark::State &state)
{
    std::string a = mixed_case(state.range(0), false), b = mixed_case(state.range(0), true);
    const char *x = a.c_str(), *y = b.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(qel_stricmp(x, y));
    }
}
BENCHMARK(BM_stricmp__qel)->Arg(16)->Arg(256);

void BM_stricmp__libc(benchmark::State &state)
{
    std::string a = mixed_case(state.range(0), false), b = mixed_case(state.range(0), true);
    const char *x = a.c_str(), *y = b.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(strcasecmp(x, y));
    }
}
BENCHMARK(BM_stricmp__libc)->Arg(16)->Arg(256);

void BM_wcslen__qel(benchmark::State &state)
{
    std::wstring s = widen(mixed_case(state.range(0), false));
    const wchar_t *p = s.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(qel_wcslen(p));
    }
}
BENCHMARK(BM_wcslen__qel)->Arg(16)->Arg(256);

void BM_wcslen__libc(benchmark::State &state)
{
    std::wstring s = widen(mixed_case(state.range(0), false));
    const wchar_t *p = s.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(wcslen(p));
    }
}
BENCHMARK(BM_wcslen__libc)->Arg(16)->Arg(256);

// qel_wcsicmp folds ASCII only and answers -1/0/1; wcscasecmp folds with the
// locale's towlower. Equal strings that differ in case: the whole length.
void BM_wcsicmp__qel(benchmark::State &state)
{
    std::wstring a = widen(mixed_case(state.range(0), false)), b = widen(mixed_case(state.range(0), true));
    const wchar_t *x = a.c_str(), *y = b.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(qel_wcsicmp(x, y));
    }
}
BENCHMARK(BM_wcsicmp__qel)->Arg(16)->Arg(256);

void BM_wcsicmp__libc(benchmark::State &state)
{
    std::wstring a = widen(mixed_case(state.range(0), false)), b = widen(mixed_case(state.range(0), true));
    const wchar_t *x = a.c_str(), *y = b.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(wcscasecmp(x, y));
    }
}
BENCHMARK(BM_wcsicmp__libc)->Arg(16)->Arg(256);

// ---- qel_str_find on a 1 MiB haystack ----------------------------------------------------
// Args: needle length, and 1 when the needle occurs (once, at the very end) or
// 0 when it does not. Text is random lower-case letters.

struct FindInput {
    std::string hay;
    std::string needle;
};

FindInput find_input(size_t needle_len, bool match)
{
    constexpr size_t kHay = 1u << 20;
    std::mt19937 gen(12345);
    FindInput in;
    in.hay.resize(kHay);
    for (auto &c : in.hay)
        c = static_cast<char>('a' + gen() % 26);
    in.needle.resize(needle_len);
    for (auto &c : in.needle)
        c = static_cast<char>('a' + gen() % 26);
    in.needle[needle_len - 1] = 'Z'; // never in the text unless planted
    if (match)
        memcpy(&in.hay[kHay - needle_len], in.needle.data(), needle_len);
    return in;
}

void BM_str_find__qel(benchmark::State &state)
{
    FindInput in = find_input(state.range(0), state.range(1) != 0);
    for (auto _ : state)
        benchmark::DoNotOptimize(qel_str_find(in.hay.data(), static_cast<int>(in.hay.size()),
                                              in.needle.data(), static_cast<int>(in.needle.size()), 0));
    state.SetBytesProcessed(state.iterations() * in.hay.size());
}
BENCHMARK(BM_str_find__qel)->ArgsProduct({{4, 16, 64}, {0, 1}});

void BM_str_find__memmem(benchmark::State &state)
{
    FindInput in = find_input(state.range(0), state.range(1) != 0);
    for (auto _ : state)
        benchmark::DoNotOptimize(memmem(in.hay.data(), in.hay.size(), in.needle.data(), in.needle.size()));
    state.SetBytesProcessed(state.iterations() * in.hay.size());
}
BENCHMARK(BM_str_find__memmem)->ArgsProduct({{4, 16, 64}, {0, 1}});

} // namespace

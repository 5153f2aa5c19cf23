// Atomics against std::atomic, the counted heap against malloc/free.
// Naming: BM_<operation>__<implementation>; tools/bench_report.py prints each
// peer's time over ours per operation.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>

#include "qel_mem.h"

namespace {

void BM_atomic_add__qel(benchmark::State &state)
{
    static volatile int32_t w = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(qel_atomic32_add_and_fetch(&w, 1));
}
BENCHMARK(BM_atomic_add__qel)->Threads(1)->Threads(2);

void BM_atomic_add__std(benchmark::State &state)
{
    static std::atomic<int32_t> w{0};
    for (auto _ : state)
        benchmark::DoNotOptimize(w.fetch_add(1) + 1);
}
BENCHMARK(BM_atomic_add__std)->Threads(1)->Threads(2);

void BM_atomic_cas__qel(benchmark::State &state)
{
    static volatile int32_t w = 0;
    int32_t v = 0;
    for (auto _ : state) {
        v = qel_atomic32_cmp_and_swap(&w, v + 1, v);
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_atomic_cas__qel)->Threads(1)->Threads(2);

void BM_atomic_cas__std(benchmark::State &state)
{
    static std::atomic<int32_t> w{0};
    int32_t v = 0;
    for (auto _ : state) {
        int32_t e = v;
        w.compare_exchange_strong(e, v + 1);
        v = e;
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_atomic_cas__std)->Threads(1)->Threads(2);

void BM_atomic_get__qel(benchmark::State &state)
{
    static volatile int32_t w = 7;
    for (auto _ : state)
        benchmark::DoNotOptimize(qel_atomic32_get(&w));
}
BENCHMARK(BM_atomic_get__qel);

void BM_atomic_get__std(benchmark::State &state)
{
    static std::atomic<int32_t> w{7};
    for (auto _ : state)
        benchmark::DoNotOptimize(w.load());
}
BENCHMARK(BM_atomic_get__std);

void BM_heap_alloc_free__qel(benchmark::State &state)
{
    size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void *p = qel_heap_mem_alloc(nullptr, 0x6B6F6C66u, size);
        benchmark::DoNotOptimize(p);
        qel_heap_mem_free(nullptr, p, 0x6B6F6C66u);
    }
}
BENCHMARK(BM_heap_alloc_free__qel)->Arg(16)->Arg(256)->Arg(4096);

void BM_heap_alloc_free__malloc(benchmark::State &state)
{
    size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void *p = malloc(size);
        benchmark::DoNotOptimize(p);
        free(p);
    }
}
BENCHMARK(BM_heap_alloc_free__malloc)->Arg(16)->Arg(256)->Arg(4096);

} // namespace

// The tick count against clock_gettime itself, UUID creation and text form
// against libuuid (when built with it).
// Naming: BM_<operation>__<implementation>.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <time.h>

#include "qel_time.h"

#if MORBASE_HAVE_UUID
#include <uuid/uuid.h>
#endif

namespace {

void BM_tick_count__qel(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(qel_time_get_tick_cout());
}
BENCHMARK(BM_tick_count__qel);

void BM_tick_count__clock_gettime(benchmark::State &state)
{
    for (auto _ : state) {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        benchmark::DoNotOptimize(ts);
    }
}
BENCHMARK(BM_tick_count__clock_gettime);

void BM_uuid_create_text__qel(benchmark::State &state)
{
    srandom(1);
    uint8_t u[QEL_UUID_SIZE];
    char text[QEL_UUID_CSTR_SIZE];
    for (auto _ : state) {
        qel_uuid_create(u);
        qel_uuid_make_cstr(u, text);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_uuid_create_text__qel);

#if MORBASE_HAVE_UUID
void BM_uuid_create_text__libuuid(benchmark::State &state)
{
    uuid_t u;
    char text[37];
    for (auto _ : state) {
        uuid_generate_random(u);
        uuid_unparse_upper(u, text);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_uuid_create_text__libuuid);
#endif

void BM_mclock__qel(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(qel_mclock());
}
BENCHMARK(BM_mclock__qel);

} // namespace

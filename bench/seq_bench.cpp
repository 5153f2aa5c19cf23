// Sequential containers: qel_vector_qsort against std::sort with the same
// compare (called through a pointer in both), and the fifo against
// boost::lockfree::spsc_queue carrying the same payloads between one producer
// and one consumer thread. Both sides yield when the queue is full or empty,
// identically for both implementations, so that the run survives a loaded
// machine.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "qel_fifo.h"
#include "qel_vector.h"

#if MORBASE_HAVE_BOOST
#include <boost/lockfree/spsc_queue.hpp>
#endif

namespace {

// ---- sort -------------------------------------------------------------------

int compare_values(const void *a, const void *b)
{
    uintptr_t x = reinterpret_cast<uintptr_t>(a);
    uintptr_t y = reinterpret_cast<uintptr_t>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

// Read through a volatile so that neither sort can inline the compare.
qel_vector_compare_fn volatile g_compare = compare_values;

constexpr size_t kSortN = 1000000;

// 0 random, 1 sorted, 2 reversed, 3 all equal.
std::vector<void *> sort_input(int64_t kind)
{
    std::vector<void *> v(kSortN);
    std::mt19937_64 rng(7);
    for (size_t i = 0; i < kSortN; ++i) {
        uintptr_t x = kind == 0 ? (rng() >> 8) + 1 : kind == 1 ? i + 1 : kind == 2 ? kSortN - i : 42;
        v[i] = reinterpret_cast<void *>(x);
    }
    return v;
}

void sort_kinds(benchmark::internal::Benchmark *b)
{
    b->ArgName("kind")->Arg(0)->Arg(1)->Arg(2)->Arg(3)->Unit(benchmark::kMillisecond);
}

void BM_vector_qsort__qel(benchmark::State &state)
{
    std::vector<void *> in = sort_input(state.range(0));
    qel_vector *v = nullptr;
    qel_vector_create(&v, static_cast<uint32_t>(kSortN));
    for (void *e : in)
        qel_vector_push_back(v, e);
    for (auto _ : state) {
        state.PauseTiming();
        memcpy(v->elements, in.data(), in.size() * sizeof(void *));
        state.ResumeTiming();
        qel_vector_qsort(v, g_compare);
    }
    qel_vector_destroy(v);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSortN));
}
BENCHMARK(BM_vector_qsort__qel)->Apply(sort_kinds);

void BM_vector_qsort__std(benchmark::State &state)
{
    std::vector<void *> in = sort_input(state.range(0));
    std::vector<void *> v(in.size());
    for (auto _ : state) {
        state.PauseTiming();
        memcpy(v.data(), in.data(), in.size() * sizeof(void *));
        state.ResumeTiming();
        qel_vector_compare_fn cmp = g_compare;
        std::sort(v.begin(), v.end(), [cmp](void *a, void *b) { return cmp(a, b) < 0; });
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSortN));
}
BENCHMARK(BM_vector_qsort__std)->Apply(sort_kinds);

// ---- fifo -------------------------------------------------------------------

constexpr int kRecords = 200000;
constexpr int32_t kFifoBytes = 64 * 1024;

template <size_t N>
struct Payload {
    unsigned char bytes[N];
};

void fifo_sizes(benchmark::internal::Benchmark *b)
{
    b->ArgName("bytes")->Arg(16)->Arg(256)->Unit(benchmark::kMillisecond)->UseRealTime();
}

void BM_fifo_spsc__qel(benchmark::State &state)
{
    const int32_t len = static_cast<int32_t>(state.range(0));
    qel_fifo *f = qel_fifo_init(kFifoBytes);
    for (auto _ : state) {
        std::thread producer([f, len] {
            unsigned char rec[256];
            memset(rec, 0x5A, sizeof rec);
            for (int i = 0; i < kRecords;) {
                memcpy(rec, &i, sizeof i);
                if (qel_fifo_push(f, rec, len) == 0)
                    ++i;
                else
                    std::this_thread::yield();
            }
        });
        unsigned char out[256];
        uint64_t sum = 0;
        for (int i = 0; i < kRecords;) {
            if (qel_fifo_pop(f, out, len) == 0) {
                sum += out[0];
                ++i;
            } else {
                std::this_thread::yield();
            }
        }
        producer.join();
        benchmark::DoNotOptimize(sum);
    }
    qel_fifo_uninit(&f);
    state.SetItemsProcessed(state.iterations() * kRecords);
    state.SetBytesProcessed(state.iterations() * kRecords * len);
}
BENCHMARK(BM_fifo_spsc__qel)->Apply(fifo_sizes);

#if MORBASE_HAVE_BOOST
template <size_t N>
void boost_run(benchmark::State &state)
{
    // The same bytes of buffer as the fifo, counting the fifo's length word.
    boost::lockfree::spsc_queue<Payload<N>> q(kFifoBytes / (N + 4));
    for (auto _ : state) {
        std::thread producer([&q] {
            Payload<N> rec;
            memset(rec.bytes, 0x5A, N);
            for (int i = 0; i < kRecords;) {
                memcpy(rec.bytes, &i, sizeof i);
                if (q.push(rec))
                    ++i;
                else
                    std::this_thread::yield();
            }
        });
        Payload<N> out;
        uint64_t sum = 0;
        for (int i = 0; i < kRecords;) {
            if (q.pop(out)) {
                sum += out.bytes[0];
                ++i;
            } else {
                std::this_thread::yield();
            }
        }
        producer.join();
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
    state.SetBytesProcessed(state.iterations() * kRecords * static_cast<int64_t>(N));
}

void BM_fifo_spsc__boost(benchmark::State &state)
{
    if (state.range(0) == 16)
        boost_run<16>(state);
    else
        boost_run<256>(state);
}
BENCHMARK(BM_fifo_spsc__boost)->Apply(fifo_sizes);
#endif

} // namespace

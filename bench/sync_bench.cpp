// The reader-writer lock against pthread_rwlock_t, rundown protection against
// a bare atomic add pair, the recursive mutex against a default pthread mutex.
// Naming: BM_<operation>__<implementation>; tools/bench_report.py prints each
// peer's time over ours per operation.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <pthread.h>

#include "qel_rwlock.h"
#include "qel_thread.h"

namespace {

qel_rwlock *shared_qel_lock()
{
    static qel_rwlock *lock = [] {
        qel_rwlock *l = nullptr;
        qel_rwlock_init(&l);
        return l;
    }();
    return lock;
}

pthread_rwlock_t g_prw = PTHREAD_RWLOCK_INITIALIZER;

void BM_rwlock_shared_uncontended__qel(benchmark::State &state)
{
    qel_rwlock *l = nullptr;
    qel_rwlock_init(&l);
    for (auto _ : state) {
        qel_rwlock_shared_acquire(l);
        qel_rwlock_shared_release(l);
    }
    qel_rwlock_destroy(l);
}
BENCHMARK(BM_rwlock_shared_uncontended__qel);

// Both locks live on the heap: ours is a heap record by design, and a word on
// the hot stack line measures a little faster on some machines.
void BM_rwlock_shared_uncontended__pthread(benchmark::State &state)
{
    auto *l = static_cast<pthread_rwlock_t *>(calloc(1, sizeof(pthread_rwlock_t)));
    pthread_rwlock_init(l, nullptr);
    for (auto _ : state) {
        pthread_rwlock_rdlock(l);
        pthread_rwlock_unlock(l);
    }
    pthread_rwlock_destroy(l);
    free(l);
}
BENCHMARK(BM_rwlock_shared_uncontended__pthread);

void BM_rwlock_exclusive_uncontended__qel(benchmark::State &state)
{
    qel_rwlock *l = nullptr;
    qel_rwlock_init(&l);
    for (auto _ : state) {
        qel_rwlock_exclusive_acquire(l);
        qel_rwlock_exclusive_release(l);
    }
    qel_rwlock_destroy(l);
}
BENCHMARK(BM_rwlock_exclusive_uncontended__qel);

void BM_rwlock_exclusive_uncontended__pthread(benchmark::State &state)
{
    auto *l = static_cast<pthread_rwlock_t *>(calloc(1, sizeof(pthread_rwlock_t)));
    pthread_rwlock_init(l, nullptr);
    for (auto _ : state) {
        pthread_rwlock_wrlock(l);
        pthread_rwlock_unlock(l);
    }
    pthread_rwlock_destroy(l);
    free(l);
}
BENCHMARK(BM_rwlock_exclusive_uncontended__pthread);

// Read-mostly: one exclusive section per 1000 shared ones, in each thread.
void BM_rwlock_read_mostly__qel(benchmark::State &state)
{
    qel_rwlock *l = shared_qel_lock();
    unsigned i = 0;
    for (auto _ : state) {
        if (++i % 1000 == 0) {
            qel_rwlock_exclusive_acquire(l);
            qel_rwlock_exclusive_release(l);
        } else {
            qel_rwlock_shared_acquire(l);
            qel_rwlock_shared_release(l);
        }
    }
}
BENCHMARK(BM_rwlock_read_mostly__qel)->Threads(2)->UseRealTime();

void BM_rwlock_read_mostly__pthread(benchmark::State &state)
{
    unsigned i = 0;
    for (auto _ : state) {
        if (++i % 1000 == 0) {
            pthread_rwlock_wrlock(&g_prw);
            pthread_rwlock_unlock(&g_prw);
        } else {
            pthread_rwlock_rdlock(&g_prw);
            pthread_rwlock_unlock(&g_prw);
        }
    }
}
BENCHMARK(BM_rwlock_read_mostly__pthread)->Threads(2)->UseRealTime();

// Read-only, 2 threads: the cost of sharing the word's cache line.
void BM_rwlock_read_only__qel(benchmark::State &state)
{
    qel_rwlock *l = shared_qel_lock();
    for (auto _ : state) {
        qel_rwlock_shared_acquire(l);
        qel_rwlock_shared_release(l);
    }
}
BENCHMARK(BM_rwlock_read_only__qel)->Threads(2)->UseRealTime();

void BM_rwlock_read_only__pthread(benchmark::State &state)
{
    for (auto _ : state) {
        pthread_rwlock_rdlock(&g_prw);
        pthread_rwlock_unlock(&g_prw);
    }
}
BENCHMARK(BM_rwlock_read_only__pthread)->Threads(2)->UseRealTime();

void BM_rundown_acquire_release__qel(benchmark::State &state)
{
    qel_rundown w = 0;
    qel_rundown_protection_init(&w);
    for (auto _ : state) {
        qel_rundown_protection_acquire(&w);
        qel_rundown_protection_release(&w);
    }
    benchmark::DoNotOptimize(w);
}
BENCHMARK(BM_rundown_acquire_release__qel);

void BM_rundown_acquire_release__atomic(benchmark::State &state)
{
    std::atomic<uintptr_t> w{0};
    for (auto _ : state) {
        benchmark::DoNotOptimize(w.fetch_add(2));
        benchmark::DoNotOptimize(w.fetch_sub(2));
    }
}
BENCHMARK(BM_rundown_acquire_release__atomic);

// The same pair behind a call, as an exported function is reached.
__attribute__((noinline)) void add2(std::atomic<uintptr_t> *w)
{
    w->fetch_add(2);
}
__attribute__((noinline)) void sub2(std::atomic<uintptr_t> *w)
{
    w->fetch_sub(2);
}

void BM_rundown_acquire_release__atomic_call(benchmark::State &state)
{
    std::atomic<uintptr_t> w{0};
    for (auto _ : state) {
        add2(&w);
        sub2(&w);
    }
    benchmark::DoNotOptimize(w);
}
BENCHMARK(BM_rundown_acquire_release__atomic_call);

void BM_mutex_lock_unlock__qel(benchmark::State &state)
{
    qel_mutex *m = nullptr;
    qel_mutex_init(&m);
    for (auto _ : state) {
        qel_mutex_lock(m);
        qel_mutex_unlock(m);
    }
    qel_mutex_destroy(m);
}
BENCHMARK(BM_mutex_lock_unlock__qel);

void BM_mutex_lock_unlock__pthread(benchmark::State &state)
{
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
    }
}
BENCHMARK(BM_mutex_lock_unlock__pthread);

} // namespace

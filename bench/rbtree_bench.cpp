// The red-black tree against std::map<std::string, void *>: insert, search,
// ceiling, floor and a full in-order walk (qel_rbtree_walk, and a cursor loop
// over qel_rbtree_first/_next) at 1K, 100K and 1M keys.
// Keys are 12-byte strings ("key:" and 8 hex digits of a scrambled number),
// inserted and looked up in a shuffled order.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qel_rbtree.h"

namespace {

const std::vector<std::string> &keys(size_t n)
{
    static std::map<size_t, std::vector<std::string>> cache;
    auto &k = cache[n];
    if (k.empty()) {
        k.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            char buf[16];
            snprintf(buf, sizeof buf, "key:%08x", static_cast<unsigned>(i * 2654435761u));
            k.emplace_back(buf);
        }
        std::shuffle(k.begin(), k.end(), std::mt19937_64(42));
    }
    return k;
}

// Keys that fall between the stored ones (for the bounds).
const std::vector<std::string> &probe_keys(size_t n)
{
    static std::map<size_t, std::vector<std::string>> cache;
    auto &k = cache[n];
    if (k.empty()) {
        for (const std::string &s : keys(n))
            k.push_back(s + "!");
    }
    return k;
}

qel_rbtree *qel_tree(size_t n)
{
    static std::map<size_t, qel_rbtree *> cache;
    qel_rbtree *&t = cache[n];
    if (t == nullptr) {
        t = qel_rbtree_create(nullptr, nullptr, 0);
        uintptr_t v = 1;
        for (const std::string &k : keys(n))
            qel_rbtree_insert(t, k.data(), static_cast<uint32_t>(k.size()), reinterpret_cast<void *>(v++));
    }
    return t;
}

using StdMap = std::map<std::string, void *>;

StdMap &std_tree(size_t n)
{
    static std::map<size_t, std::unique_ptr<StdMap>> cache;
    auto &m = cache[n];
    if (!m) {
        m = std::make_unique<StdMap>();
        uintptr_t v = 1;
        for (const std::string &k : keys(n))
            m->emplace(k, reinterpret_cast<void *>(v++));
    }
    return *m;
}

void sizes(benchmark::internal::Benchmark *b)
{
    b->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);
}

void BM_rbtree_insert__qel(benchmark::State &state)
{
    const auto &k = keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
        uintptr_t v = 1;
        for (const std::string &s : k)
            qel_rbtree_insert(t, s.data(), static_cast<uint32_t>(s.size()), reinterpret_cast<void *>(v++));
        state.PauseTiming();
        qel_rbtree_destroy(t);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k.size()));
}
BENCHMARK(BM_rbtree_insert__qel)->Apply(sizes);

void BM_rbtree_insert__std(benchmark::State &state)
{
    const auto &k = keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        auto *m = new StdMap;
        uintptr_t v = 1;
        for (const std::string &s : k)
            (*m)[s] = reinterpret_cast<void *>(v++);
        state.PauseTiming();
        delete m;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k.size()));
}
BENCHMARK(BM_rbtree_insert__std)->Apply(sizes);

// Runs op(tree, key) over every key of the set, summing what it returns.
template <class Tree, class Op>
void queries(benchmark::State &state, Tree &tree, const std::vector<std::string> &k, Op op)
{
    for (auto _ : state) {
        uintptr_t sum = 0;
        for (const std::string &s : k)
            sum += op(tree, s);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k.size()));
}

uintptr_t value_of(const qel_rbtree_node *c)
{
    return c ? reinterpret_cast<uintptr_t>(c->value) : 0;
}

uint32_t len_of(const std::string &s)
{
    return static_cast<uint32_t>(s.size());
}

void BM_rbtree_search__qel(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    queries(state, *qel_tree(n), keys(n), [](qel_rbtree &t, const std::string &s) {
        void *v = nullptr;
        qel_rbtree_search(&t, s.data(), len_of(s), &v);
        return reinterpret_cast<uintptr_t>(v);
    });
}
BENCHMARK(BM_rbtree_search__qel)->Apply(sizes);

void BM_rbtree_search__std(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    queries(state, std_tree(n), keys(n), [](StdMap &m, const std::string &s) {
        return reinterpret_cast<uintptr_t>(m.find(s)->second);
    });
}
BENCHMARK(BM_rbtree_search__std)->Apply(sizes);

void BM_rbtree_lower_bound__qel(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    queries(state, *qel_tree(n), probe_keys(n), [](qel_rbtree &t, const std::string &s) {
        return value_of(qel_rbtree_lower_bound(&t, s.data(), len_of(s)));
    });
}
BENCHMARK(BM_rbtree_lower_bound__qel)->Apply(sizes);

void BM_rbtree_lower_bound__std(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    queries(state, std_tree(n), probe_keys(n), [](StdMap &m, const std::string &s) {
        auto it = m.lower_bound(s);
        return it != m.end() ? reinterpret_cast<uintptr_t>(it->second) : 0;
    });
}
BENCHMARK(BM_rbtree_lower_bound__std)->Apply(sizes);

void BM_rbtree_upper_bound__qel(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    queries(state, *qel_tree(n), probe_keys(n), [](qel_rbtree &t, const std::string &s) {
        return value_of(qel_rbtree_upper_bound(&t, s.data(), len_of(s)));
    });
}
BENCHMARK(BM_rbtree_upper_bound__qel)->Apply(sizes);

// The floor with std::map: upper_bound, then one step back.
void BM_rbtree_upper_bound__std(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    queries(state, std_tree(n), probe_keys(n), [](StdMap &m, const std::string &s) {
        auto it = m.upper_bound(s);
        return it != m.begin() ? reinterpret_cast<uintptr_t>(std::prev(it)->second) : 0;
    });
}
BENCHMARK(BM_rbtree_upper_bound__std)->Apply(sizes);

void BM_rbtree_cursor_walk__qel(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    qel_rbtree *t = qel_tree(n);
    for (auto _ : state) {
        uintptr_t sum = 0;
        for (qel_rbtree_node *c = qel_rbtree_first(t); c != nullptr; c = qel_rbtree_next(c))
            sum += reinterpret_cast<uintptr_t>(c->value) + c->key_len;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}
BENCHMARK(BM_rbtree_cursor_walk__qel)->Apply(sizes);

int add_entry(const void *, uint32_t key_len, void *value, void *context)
{
    *static_cast<uintptr_t *>(context) += reinterpret_cast<uintptr_t>(value) + key_len;
    return 0;
}

// The walk through qel_rbtree_walk and its callback.
void BM_rbtree_walk__qel(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    qel_rbtree *t = qel_tree(n);
    for (auto _ : state) {
        uintptr_t sum = 0;
        qel_rbtree_walk(t, &sum, add_entry);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}
BENCHMARK(BM_rbtree_walk__qel)->Apply(sizes);

void BM_rbtree_walk__std(benchmark::State &state)
{
    size_t n = static_cast<size_t>(state.range(0));
    StdMap &m = std_tree(n);
    for (auto _ : state) {
        uintptr_t sum = 0;
        for (const auto &[k, v] : m)
            sum += reinterpret_cast<uintptr_t>(v) + k.size();
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}
BENCHMARK(BM_rbtree_walk__std)->Apply(sizes);

// The peer of the cursor walk is the same iteration.
void BM_rbtree_cursor_walk__std(benchmark::State &state)
{
    BM_rbtree_walk__std(state);
}
BENCHMARK(BM_rbtree_cursor_walk__std)->Apply(sizes);

} // namespace

// The chained table and the Robin Hood table against std::unordered_map,
// GHashTable and (for the Robin Hood table) absl::flat_hash_map.
//
// Keys: N random strings of 8 to 32 bytes (N = 1K, 100K, 1M); failed searches
// use N other strings that are never inserted. Every table copies its keys.
// One iteration is one pass over all N keys, so the times of one operation
// compare directly; items/s is per key.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "qel_oa_hash.h"
#include "qel_xhash.h"

#if MORBASE_HAVE_GLIB
#include <glib.h>
#endif
#if MORBASE_HAVE_ABSL
#include <absl/container/flat_hash_map.h>
#endif

namespace {

struct KeySet {
    std::vector<std::string> present; // in insertion order
    std::vector<std::string> lookup;  // the same keys, shuffled: searches do not follow insertion order
    std::vector<std::string> absent;
};

const KeySet &keys(size_t n)
{
    static std::map<size_t, KeySet> cache;
    auto it = cache.find(n);
    if (it != cache.end())
        return it->second;
    std::mt19937_64 gen(0x5318 + n);
    auto make = [&](char first) {
        std::string s(8 + gen() % 25, '\0');
        s[0] = first; // present and absent keys never coincide
        for (size_t i = 1; i < s.size(); ++i)
            s[i] = static_cast<char>(' ' + gen() % 95);
        return s;
    };
    KeySet ks;
    for (size_t i = 0; i < n; ++i) {
        ks.present.push_back(make(static_cast<char>('A' + gen() % 26)));
        ks.absent.push_back(make(static_cast<char>('a' + gen() % 26)));
    }
    ks.lookup = ks.present;
    std::shuffle(ks.lookup.begin(), ks.lookup.end(), gen);
    // Duplicates among random 8-32 byte strings are practically impossible,
    // and harmless: each table sees the same sequence.
    return cache.emplace(n, std::move(ks)).first->second;
}

void *value_of(size_t i)
{
    return reinterpret_cast<void *>(i + 1);
}

struct Xhash {
    qel_xhash *t = qel_xhash_create(nullptr, nullptr);
    ~Xhash() { qel_xhash_destroy(t); }
    void insert(const std::string &k, void *v) { qel_xhash_insert(t, k.data(), static_cast<uint32_t>(k.size()), v); }
    bool find(const std::string &k)
    {
        void *v;
        return qel_xhash_search(t, k.data(), static_cast<uint32_t>(k.size()), &v) == 0;
    }
    void erase(const std::string &k) { qel_xhash_delete(t, k.data(), static_cast<uint32_t>(k.size())); }
};

struct OaHash {
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    ~OaHash() { qel_oa_hash_destroy(t); }
    void insert(const std::string &k, void *v) { qel_oa_hash_insert(t, k.data(), static_cast<uint32_t>(k.size()), v); }
    bool find(const std::string &k)
    {
        void *v;
        return qel_oa_hash_search(t, k.data(), static_cast<uint32_t>(k.size()), &v) == 0;
    }
    void erase(const std::string &k) { qel_oa_hash_delete(t, k.data(), static_cast<uint32_t>(k.size())); }
};

struct StdMap {
    std::unordered_map<std::string, void *> m;
    void insert(const std::string &k, void *v) { m[k] = v; }
    bool find(const std::string &k) { return m.find(k) != m.end(); }
    void erase(const std::string &k) { m.erase(k); }
};

#if MORBASE_HAVE_GLIB
struct Glib {
    GHashTable *t = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
    ~Glib() { g_hash_table_destroy(t); }
    void insert(const std::string &k, void *v) { g_hash_table_insert(t, g_strdup(k.c_str()), v); }
    bool find(const std::string &k) { return g_hash_table_lookup(t, k.c_str()) != nullptr; }
    void erase(const std::string &k) { g_hash_table_remove(t, k.c_str()); }
};
#endif

#if MORBASE_HAVE_ABSL
struct Absl {
    absl::flat_hash_map<std::string, void *> m;
    void insert(const std::string &k, void *v) { m[k] = v; }
    bool find(const std::string &k) { return m.find(k) != m.end(); }
    void erase(const std::string &k) { m.erase(k); }
};
#endif

template <class T>
void fill(T &t, const KeySet &ks)
{
    for (size_t i = 0; i < ks.present.size(); ++i)
        t.insert(ks.present[i], value_of(i));
}

template <class T>
void bm_insert(benchmark::State &state)
{
    const KeySet &ks = keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        auto *t = new T;
        state.ResumeTiming();
        fill(*t, ks);
        state.PauseTiming();
        delete t;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * ks.present.size()));
}

template <class T, bool Hit>
void bm_search(benchmark::State &state)
{
    const KeySet &ks = keys(static_cast<size_t>(state.range(0)));
    T t;
    fill(t, ks);
    const std::vector<std::string> &probe = Hit ? ks.lookup : ks.absent;
    for (auto _ : state) {
        size_t found = 0;
        for (const std::string &k : probe)
            found += t.find(k);
        if (found != (Hit ? probe.size() : 0))
            state.SkipWithError("wrong search result");
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * probe.size()));
}

template <class T>
void bm_delete(benchmark::State &state)
{
    const KeySet &ks = keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        auto *t = new T;
        fill(*t, ks);
        state.ResumeTiming();
        for (const std::string &k : ks.lookup)
            t->erase(k);
        state.PauseTiming();
        delete t;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * ks.present.size()));
}

template <class T>
void register_impl(const std::string &family, const std::string &impl)
{
    auto sizes = [](benchmark::internal::Benchmark *b) {
        b->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);
    };
    sizes(benchmark::RegisterBenchmark(("BM_" + family + "_insert__" + impl).c_str(), bm_insert<T>));
    sizes(benchmark::RegisterBenchmark(("BM_" + family + "_search__" + impl).c_str(), bm_search<T, true>));
    sizes(benchmark::RegisterBenchmark(("BM_" + family + "_search_miss__" + impl).c_str(), bm_search<T, false>));
    sizes(benchmark::RegisterBenchmark(("BM_" + family + "_delete__" + impl).c_str(), bm_delete<T>));
}

int register_all()
{
    register_impl<Xhash>("xhash", "qel");
    register_impl<StdMap>("xhash", "std");
#if MORBASE_HAVE_GLIB
    register_impl<Glib>("xhash", "glib");
#endif
    register_impl<OaHash>("oa_hash", "qel");
    register_impl<StdMap>("oa_hash", "std");
#if MORBASE_HAVE_GLIB
    register_impl<Glib>("oa_hash", "glib");
#endif
#if MORBASE_HAVE_ABSL
    register_impl<Absl>("oa_hash", "absl");
#endif
    return 0;
}

const int g_registered = register_all();

} // namespace

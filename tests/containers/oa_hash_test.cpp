#include "qel_oa_hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "base/internal.h"
#include "support/hash_test_util.h"
#include "support/test_util.h"

namespace {

using qeltest::count_free;
using qeltest::g_free_total;
using qeltest::g_freed;
using qeltest::val;

uint32_t ref_hash(const std::string &k)
{
    return qeltest::reference_hash33(k, 5381);
}

// A key block: 32-bit length, the bytes, a NUL.
std::string key_of(const qel_oa_hash_key *k)
{
    uint32_t len;
    memcpy(&len, k, sizeof len);
    return std::string(reinterpret_cast<const char *>(k) + 4, len);
}

int ins(qel_oa_hash *t, const std::string &k, uintptr_t v)
{
    return qel_oa_hash_insert(t, k.data(), static_cast<uint32_t>(k.size()), val(v));
}
int find(qel_oa_hash *t, const std::string &k, void **v = nullptr)
{
    return qel_oa_hash_search(t, k.data(), static_cast<uint32_t>(k.size()), v);
}
int del(qel_oa_hash *t, const std::string &k)
{
    return qel_oa_hash_delete(t, k.data(), static_cast<uint32_t>(k.size()));
}

// Every occupied slot sits psl - 1 slots past its home with no empty slot in
// between; along a run PSLs rise by at most one per step; the stored hash is
// the key's; key blocks end in a NUL; the count is the number of occupied
// slots; the table is at most half full. Returns the first violation, or "".
std::string check_invariants(const qel_oa_hash *t)
{
    uint32_t cap = t->capacity, mask = cap - 1, occupied = 0;
    if (cap < 8 || (cap & mask) != 0)
        return "capacity " + std::to_string(cap);
    for (uint32_t i = 0; i < cap; ++i) {
        const qel_oa_hash_slot &s = t->slots[i];
        if (s.psl == 0)
            continue;
        ++occupied;
        if (s.key == nullptr)
            return "occupied slot without key at " + std::to_string(i);
        std::string k = key_of(s.key);
        if (reinterpret_cast<const char *>(s.key)[4 + k.size()] != '\0')
            return "key block without NUL at " + std::to_string(i);
        if (s.hash != ref_hash(k))
            return "stale hash at " + std::to_string(i);
        if (s.psl > cap || (((s.hash & mask) + s.psl - 1) & mask) != i)
            return "PSL does not lead home at " + std::to_string(i);
        for (uint32_t d = 1; d < s.psl; ++d) // reachable: nothing empty on the way
            if (t->slots[(i - d) & mask].psl == 0)
                return "gap before " + std::to_string(i);
        if (s.psl > t->slots[(i - 1) & mask].psl + 1)
            return "PSL jumps at " + std::to_string(i);
    }
    if (occupied != t->count)
        return "count " + std::to_string(t->count) + " vs " + std::to_string(occupied) + " occupied";
    return t->count > cap / 2 ? "more than half full" : "";
}

// Keys (non-empty) whose home slot in a table of `cap` slots is `home`.
std::vector<std::string> keys_with_home(uint32_t cap, uint32_t home, size_t n)
{
    std::vector<std::string> out;
    for (uint32_t i = 0; out.size() < n; ++i)
        if (std::string k = "k" + std::to_string(i); (ref_hash(k) & (cap - 1)) == home)
            out.push_back(k);
    return out;
}

using Entries = std::vector<std::pair<std::string, uintptr_t>>;
int collect(const char *key, void *value, void *ctx)
{
    static_cast<Entries *>(ctx)->push_back({key, reinterpret_cast<uintptr_t>(value)});
    return 0;
}
// The traversal order the record describes: occupied slots in index order.
Entries slot_order(const qel_oa_hash *t)
{
    Entries out;
    for (uint32_t i = 0; i < t->capacity; ++i)
        if (t->slots[i].psl != 0)
            out.push_back({key_of(t->slots[i].key), reinterpret_cast<uintptr_t>(t->values[i])});
    return out;
}

class OaHash : public testing::Test {
protected:
    void SetUp() override { qeltest::reset_frees(); }
};

TEST_F(OaHash, CreateAndInvalidArguments)
{
    for (long skip = 0; skip < 3; ++skip) { // any failed allocation: null, and no leak (ASan)
        qel::detail::fail_allocations(skip, 1);
        EXPECT_EQ(nullptr, qel_oa_hash_create(nullptr)) << skip;
        qel::detail::fail_allocations(0, 0);
    }
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(8u, qel_oa_hash_size(t));
    EXPECT_EQ(0u, qel_oa_hash_count(t));
    // A null table, a null key, an empty key.
    for (auto [table, key, len] :
         {std::tuple<qel_oa_hash *, const char *, uint32_t>{nullptr, "a", 1}, {t, nullptr, 1}, {t, "a", 0}}) {
        EXPECT_EQ(-1, qel_oa_hash_insert(table, key, len, nullptr));
        EXPECT_EQ(-1, qel_oa_hash_search(table, key, len, nullptr));
        EXPECT_EQ(-1, qel_oa_hash_delete(table, key, len));
    }
    EXPECT_EQ(0u, qel_oa_hash_count(t));
    EXPECT_EQ(0u, qel_oa_hash_size(nullptr) + qel_oa_hash_count(nullptr));
    qel_oa_hash_clear(nullptr);
    qel_oa_hash_traverse(nullptr, collect, nullptr);
    qel_oa_hash_traverse(t, nullptr, nullptr);
    qel_oa_hash_psl_dbg(nullptr);
    qel_oa_hash_destroy(nullptr);
    qel_oa_hash_destroy(t);
}

TEST_F(OaHash, ReplacingKeepsTheKeyBlock)
{
    qel_oa_hash *t = qel_oa_hash_create(count_free);
    EXPECT_EQ(0, ins(t, "abc", 1));
    uint32_t home = ref_hash("abc") & 7;
    const qel_oa_hash_key *block = t->slots[home].key;
    EXPECT_EQ(1, ins(t, "abc", 2));
    EXPECT_EQ(1, g_freed[1]);
    EXPECT_EQ(block, t->slots[home].key);
    EXPECT_EQ(val(2), t->values[home]);
    EXPECT_EQ("abc", key_of(block));
    qel_oa_hash_destroy(t);
}

TEST_F(OaHash, RobinHoodSwapsWithResidentsNearerHome)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    // Two keys homed at 2 fill slots 2 and 3; a key homed at 3 then lands in 4
    // with PSL 2. A third key homed at 2 reaches slot 4 with PSL 3, takes it
    // from the resident (PSL 2), which moves on to slot 5 with PSL 3.
    std::vector<std::string> a = keys_with_home(8, 2, 3), b = keys_with_home(8, 3, 1);
    auto psls = [t] { // of slots 1 to 6
        std::vector<uint32_t> out;
        for (uint32_t i = 1; i <= 6; ++i)
            out.push_back(t->slots[i].psl);
        return out;
    };
    for (auto [k, v] : {std::pair{a[0], 1}, {a[1], 2}, {b[0], 3}})
        ASSERT_EQ(0, ins(t, k, v));
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 2, 2, 0, 0}), psls());
    EXPECT_EQ((Entries{{a[0], 1}, {a[1], 2}, {b[0], 3}}), slot_order(t));
    ASSERT_EQ(0, ins(t, a[2], 4));
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 2, 3, 3, 0}), psls());
    EXPECT_EQ((Entries{{a[0], 1}, {a[1], 2}, {a[2], 4}, {b[0], 3}}), slot_order(t));
    // Deleting the head of the run shifts the rest one slot back.
    ASSERT_EQ(0, del(t, a[0]));
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 2, 2, 0, 0}), psls());
    EXPECT_EQ((Entries{{a[1], 2}, {a[2], 4}, {b[0], 3}}), slot_order(t));
    qel_oa_hash_destroy(t);
}

TEST_F(OaHash, ClearReleasesKeysAndValuesButKeepsPslAndHash)
{
    qel_oa_hash *t = qel_oa_hash_create(count_free);
    for (uintptr_t i = 1; i <= 6; ++i)
        ins(t, "c" + std::to_string(i), i);
    std::vector<qel_oa_hash_slot> before(t->slots, t->slots + t->capacity);
    qel_oa_hash_clear(t);
    EXPECT_EQ(0u, qel_oa_hash_count(t));
    EXPECT_EQ(16u, qel_oa_hash_size(t));
    EXPECT_EQ(6, g_free_total);
    for (uint32_t i = 0; i < t->capacity; ++i) {
        EXPECT_TRUE(before[i].psl == t->slots[i].psl && before[i].hash == t->slots[i].hash) << i;
        EXPECT_TRUE(t->slots[i].key == nullptr && t->values[i] == nullptr) << i;
    }
    // Lookups on the cleared table find nothing and read no released block.
    EXPECT_EQ(-1, find(t, "c1"));
    EXPECT_EQ(-1, del(t, "c1"));
    Entries seen;
    qel_oa_hash_traverse(t, collect, &seen);
    EXPECT_TRUE(seen.empty());
    qel_oa_hash_clear(t); // count 0: nothing happens
    qel_oa_hash_destroy(t);
    EXPECT_EQ(6, g_free_total); // destroy after clear frees no value twice
}

TEST_F(OaHash, PslHistogramStopsBeforeTheLargestPsl)
{
    // Three keys homed at 5 (PSLs 1, 2, 3) and three alone at 14, 15 and 0, in 16 slots.
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    for (const char *k : {"k5", "k14", "k23", "x1", "x2", "x3"})
        ins(t, k, 0);
    ASSERT_EQ(16u, t->capacity);
    qel_oa_hash *empty = qel_oa_hash_create(nullptr);
    for (qel_oa_hash *h : {t, empty}) { // an empty table prints nothing: its largest PSL is 0
        qeltest::ChildResult r = qeltest::run_in_child([h] { return qel_oa_hash_psl_dbg(h), 0; });
        ASSERT_TRUE(r.exited);
        EXPECT_EQ(h == t ? "PSL 0: 10\nPSL 1: 4\nPSL 2: 1\n" : "", r.output);
        qel_oa_hash_destroy(h);
    }
}

TEST_F(OaHash, KeyBlockAndGrowthAllocationFailuresAreFatal)
{
    auto oom = [](long skip, const std::function<void()> &op) {
        qeltest::expect_fatal_oom(skip, "oa_hash", "Out", op);
    };
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    oom(0, [&] { ins(t, "k", 0); }); // key block
    oom(0, [&] { ins(t, std::string(40, 'k'), 0); });
    for (int i = 0; i < 4; ++i)
        qel_oa_hash_insert(t, &i, sizeof i, nullptr);
    int k = 4;
    oom(1, [&] { qel_oa_hash_insert(t, &k, sizeof k, nullptr); }); // the fifth key block succeeds, the growth fails
    oom(2, [&] { qel_oa_hash_insert(t, &k, sizeof k, nullptr); }); // the second growth array
    EXPECT_EQ(8u, t->capacity); // the parent's table is untouched
    qel_oa_hash_destroy(t);
}

// ---- differential test with the invariant checker after every operation -------

struct DiffCase {
    const char *name;
    int ops;
    size_t universe;
    int check_every; // run the invariant checker after every n-th operation
};

class OaHashDifferential : public testing::TestWithParam<DiffCase> {};

int stop_after(const char *key, void *value, void *ctx)
{
    auto *p = static_cast<std::pair<size_t, Entries> *>(ctx);
    p->second.push_back({key, reinterpret_cast<uintptr_t>(value)});
    return --p->first == 0 ? 1 : 0;
}

TEST_P(OaHashDifferential, MatchesUnorderedMap)
{
    const DiffCase &c = GetParam();
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    // Non-empty keys without NUL bytes, some differing only in length, a fifth
    // crowded on one home slot.
    std::vector<std::string> universe = qeltest::random_keys(rng, c.universe, 1, 1);
    std::vector<std::string> crowd = keys_with_home(1024, 17, std::min<size_t>(c.universe / 8 + 1, 256));
    for (std::string &k : universe)
        if (rng.chance(20))
            k = crowd[rng.range(0, crowd.size() - 1)];
    qel_oa_hash *t = qel_oa_hash_create(count_free);
    std::unordered_map<std::string, uintptr_t> model;
    uintptr_t next_value = 1;
    int expected_frees = 0;
    uint32_t capacity = 8; // doubles when more than half full, never shrinks
    for (int op = 0; op < c.ops / qeltest::kRandomScale; ++op) {
        const std::string &k = universe[rng.range(0, universe.size() - 1)];
        int dice = static_cast<int>(rng.range(0, 99));
        auto it = model.find(k);
        if (dice < 45) { // insert or replace: the old value freed once
            uintptr_t v = next_value++;
            ASSERT_EQ(it != model.end() ? 1 : 0, ins(t, k, v)) << op;
            if (it != model.end()) {
                ASSERT_EQ(1, g_freed[it->second]) << op;
                ++expected_frees;
                it->second = v;
            } else {
                model.emplace(k, v);
                capacity *= model.size() > capacity / 2 ? 2 : 1;
            }
            ASSERT_EQ(capacity, qel_oa_hash_size(t)) << op;
        } else if (dice < 75) {
            void *got = val(0xdead);
            ASSERT_EQ(it != model.end() ? 0 : -1, find(t, k, &got)) << op;
            ASSERT_EQ(val(it != model.end() ? it->second : 0xdead), got) << op;
        } else if (dice < 97) {
            ASSERT_EQ(it != model.end() ? 0 : -1, del(t, k)) << op;
            if (it != model.end()) {
                ASSERT_EQ(1, g_freed[it->second]) << op;
                ++expected_frees;
                model.erase(it);
            }
        } else if (model.size() < 2000 || rng.chance(2)) { // full traverse, then one stopped early
            Entries seen;
            qel_oa_hash_traverse(t, collect, &seen);
            ASSERT_EQ(slot_order(t), seen) << op;
            ASSERT_EQ(model.size(), seen.size()) << op;
            for (auto &kv : seen)
                ASSERT_EQ(model.at(kv.first), kv.second) << op;
            std::pair<size_t, Entries> partial{
                seen.empty() ? 0 : static_cast<size_t>(rng.range(1, seen.size())), {}};
            seen.resize(partial.first);
            qel_oa_hash_traverse(t, stop_after, &partial);
            ASSERT_EQ(seen, partial.second) << op;
        }
        ASSERT_EQ(expected_frees, g_free_total) << op;
        ASSERT_EQ(model.size(), qel_oa_hash_count(t)) << op;
        if (op % c.check_every == 0) {
            ASSERT_EQ("", check_invariants(t)) << op;
        }
    }
    ASSERT_EQ("", check_invariants(t));
    qel_oa_hash_destroy(t);
    EXPECT_EQ(expected_frees + static_cast<int>(model.size()), g_free_total);
}

INSTANTIATE_TEST_SUITE_P(Random, OaHashDifferential,
                         testing::Values(DiffCase{"SmallCheckedEveryStep", 150000, 300, 1},
                                         DiffCase{"CrowdedCheckedEveryStep", 50000, 60, 1},
                                         DiffCase{"Large", 200000, 30000, 997}),
                         [](const testing::TestParamInfo<DiffCase> &i) { return std::string(i.param.name); });

} // namespace

#include "qel_oa_hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <regex>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/internal.h"
#include "support/hash_test_util.h"
#include "support/test_util.h"

namespace {

constexpr int kScale = qeltest::kRandomScale;

uint32_t ref_hash(const std::string &k)
{
    return qeltest::reference_hash33(k, 5381);
}

// A key block: 32-bit length, the bytes, a NUL.
uint32_t key_len(const qel_oa_hash_key *k)
{
    uint32_t len;
    memcpy(&len, k, sizeof len);
    return len;
}
std::string key_of(const qel_oa_hash_key *k)
{
    return std::string(reinterpret_cast<const char *>(k) + 4, key_len(k));
}

using qeltest::count_free;
using qeltest::g_free_total;
using qeltest::g_freed;

void *val(uintptr_t v)
{
    return qeltest::as_value(v);
}

// Every occupied slot sits psl - 1 slots past its home with no empty slot in
// between; along a run PSLs rise by at most one per step; the stored hash is
// the key's; key blocks end in a NUL; the count is the number of occupied
// slots; the table is at most half full. Returns a description of the first
// violation, or "".
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
        const qel_oa_hash_slot &prev = t->slots[(i - 1) & mask];
        if (s.psl > prev.psl + 1)
            return "PSL jumps at " + std::to_string(i);
    }
    if (occupied != t->count)
        return "count " + std::to_string(t->count) + " vs " + std::to_string(occupied) + " occupied";
    if (t->count > cap / 2)
        return "more than half full";
    return "";
}

// Keys (non-empty) whose home slot in a table of `cap` slots is `home`.
std::vector<std::string> keys_with_home(uint32_t cap, uint32_t home, size_t n)
{
    std::vector<std::string> out;
    for (uint32_t i = 0; out.size() < n; ++i) {
        std::string k = "k" + std::to_string(i);
        if ((ref_hash(k) & (cap - 1)) == home)
            out.push_back(k);
    }
    return out;
}

class OaHash : public testing::Test {
protected:
    void SetUp() override
    {
        g_freed.clear();
        g_free_total = 0;
    }
};

TEST_F(OaHash, CreateStartsWithCapacityEight)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(8u, qel_oa_hash_size(t));
    EXPECT_EQ(0u, qel_oa_hash_count(t));
    for (uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(0u, t->slots[i].psl);
        EXPECT_EQ(nullptr, t->values[i]);
    }
    qel_oa_hash_destroy(t);
    qel_oa_hash_destroy(nullptr);
}

TEST_F(OaHash, CreateReturnsNullWhenAnyAllocationFails)
{
    for (long skip = 0; skip < 3; ++skip) {
        qel::detail::fail_allocations(skip, 1);
        EXPECT_EQ(nullptr, qel_oa_hash_create(nullptr)) << skip; // and leaks nothing (ASan)
        qel::detail::fail_allocations(0, 0);
    }
}

TEST_F(OaHash, DoublesWhenMoreThanHalfFull)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    for (uint32_t i = 1; i <= 40; ++i) {
        std::string k = "key" + std::to_string(i);
        ASSERT_EQ(0, qel_oa_hash_insert(t, k.data(), static_cast<uint32_t>(k.size()), val(i)));
        uint32_t want = i <= 4 ? 8 : i <= 8 ? 16 : i <= 16 ? 32 : i <= 32 ? 64 : 128;
        ASSERT_EQ(want, qel_oa_hash_size(t)) << i; // the 5th grows to 16, the 9th to 32
        ASSERT_EQ("", check_invariants(t)) << i;
    }
    for (uint32_t i = 1; i <= 40; ++i) {
        std::string k = "key" + std::to_string(i);
        void *v = nullptr;
        ASSERT_EQ(0, qel_oa_hash_search(t, k.data(), static_cast<uint32_t>(k.size()), &v));
        EXPECT_EQ(val(i), v);
    }
    qel_oa_hash_destroy(t);
}

TEST_F(OaHash, InsertExistingKeyReplacesValue)
{
    qel_oa_hash *t = qel_oa_hash_create(count_free);
    EXPECT_EQ(0, qel_oa_hash_insert(t, "abc", 3, val(1)));
    uint32_t home = ref_hash("abc") & 7;
    const qel_oa_hash_key *block = t->slots[home].key;
    EXPECT_EQ(1, qel_oa_hash_insert(t, "abc", 3, val(2)));
    EXPECT_EQ(1u, qel_oa_hash_count(t));
    EXPECT_EQ(1, g_freed[1]);
    EXPECT_EQ(0, g_freed[2]);
    EXPECT_EQ(block, t->slots[home].key); // the slot keeps its key block
    EXPECT_EQ(val(2), t->values[home]);
    EXPECT_EQ("abc", key_of(block));
    void *v = nullptr;
    EXPECT_EQ(0, qel_oa_hash_search(t, "abc", 3, &v));
    EXPECT_EQ(val(2), v);
    EXPECT_EQ(0, qel_oa_hash_search(t, "abc", 3, nullptr));
    EXPECT_EQ(-1, qel_oa_hash_search(t, "abcd", 4, nullptr)); // length distinguishes keys
    EXPECT_EQ(-1, qel_oa_hash_search(t, "ab", 2, nullptr));
    qel_oa_hash_destroy(t);
    EXPECT_EQ(1, g_freed[2]);
}

TEST_F(OaHash, InvalidArgumentsFailAtOnce)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    EXPECT_EQ(-1, qel_oa_hash_insert(nullptr, "a", 1, nullptr));
    EXPECT_EQ(-1, qel_oa_hash_insert(t, nullptr, 1, nullptr));
    EXPECT_EQ(-1, qel_oa_hash_insert(t, "a", 0, nullptr));
    EXPECT_EQ(-1, qel_oa_hash_search(nullptr, "a", 1, nullptr));
    EXPECT_EQ(-1, qel_oa_hash_search(t, nullptr, 1, nullptr));
    EXPECT_EQ(-1, qel_oa_hash_search(t, "a", 0, nullptr));
    EXPECT_EQ(-1, qel_oa_hash_delete(nullptr, "a", 1));
    EXPECT_EQ(-1, qel_oa_hash_delete(t, nullptr, 1));
    EXPECT_EQ(-1, qel_oa_hash_delete(t, "a", 0));
    EXPECT_EQ(-1, qel_oa_hash_delete(t, "a", 1)); // absent
    EXPECT_EQ(0u, qel_oa_hash_count(t));
    EXPECT_EQ(0u, qel_oa_hash_size(nullptr));
    EXPECT_EQ(0u, qel_oa_hash_count(nullptr));
    qel_oa_hash_clear(nullptr);
    qel_oa_hash_traverse(nullptr, [](const char *, void *, void *) { return 0; }, nullptr);
    qel_oa_hash_psl_dbg(nullptr);
    qel_oa_hash_destroy(t);
}

TEST_F(OaHash, KeyHomedInTheLastSlotWrapsToSlotZero)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    std::vector<std::string> ks = keys_with_home(8, 7, 2);
    ASSERT_EQ(0, qel_oa_hash_insert(t, ks[0].data(), static_cast<uint32_t>(ks[0].size()), val(1)));
    ASSERT_EQ(0, qel_oa_hash_insert(t, ks[1].data(), static_cast<uint32_t>(ks[1].size()), val(2)));
    EXPECT_EQ(1u, t->slots[7].psl);
    EXPECT_EQ(2u, t->slots[0].psl);
    EXPECT_EQ(ks[1], key_of(t->slots[0].key));
    void *v = nullptr;
    EXPECT_EQ(0, qel_oa_hash_search(t, ks[1].data(), static_cast<uint32_t>(ks[1].size()), &v));
    EXPECT_EQ(val(2), v);
    // Deleting the home entry shifts the wrapped one back into slot 7.
    EXPECT_EQ(0, qel_oa_hash_delete(t, ks[0].data(), static_cast<uint32_t>(ks[0].size())));
    EXPECT_EQ(1u, t->slots[7].psl);
    EXPECT_EQ(0u, t->slots[0].psl);
    EXPECT_EQ(ks[1], key_of(t->slots[7].key));
    EXPECT_EQ("", check_invariants(t));
    qel_oa_hash_destroy(t);
}

TEST_F(OaHash, RobinHoodSwapsWithResidentsNearerHome)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    // Two keys homed at 2 fill slots 2 and 3; a key homed at 3 then lands in 4
    // with PSL 2. A third key homed at 2 reaches slot 4 with PSL 3, takes it
    // from the resident (PSL 2), which moves on to slot 5 with PSL 3.
    std::vector<std::string> a = keys_with_home(8, 2, 3), b = keys_with_home(8, 3, 1);
    auto ins = [&](const std::string &k, uintptr_t v) {
        return qel_oa_hash_insert(t, k.data(), static_cast<uint32_t>(k.size()), val(v));
    };
    ASSERT_EQ(0, ins(a[0], 1));
    ASSERT_EQ(0, ins(a[1], 2));
    ASSERT_EQ(0, ins(b[0], 3));
    EXPECT_EQ(b[0], key_of(t->slots[4].key));
    EXPECT_EQ(2u, t->slots[4].psl);
    ASSERT_EQ(0, ins(a[2], 4));
    EXPECT_EQ(a[2], key_of(t->slots[4].key));
    EXPECT_EQ(3u, t->slots[4].psl);
    EXPECT_EQ(val(4), t->values[4]);
    EXPECT_EQ(b[0], key_of(t->slots[5].key));
    EXPECT_EQ(3u, t->slots[5].psl);
    EXPECT_EQ(val(3), t->values[5]);
    EXPECT_EQ("", check_invariants(t));
    // Deleting a key that shares the home slot keeps everything findable and
    // no PSL grows.
    std::vector<uint32_t> before(8);
    for (uint32_t i = 0; i < 8; ++i)
        before[i] = t->slots[i].psl;
    ASSERT_EQ(0, qel_oa_hash_delete(t, a[0].data(), static_cast<uint32_t>(a[0].size())));
    EXPECT_EQ("", check_invariants(t));
    for (const std::string *k : {&a[1], &a[2], &b[0]})
        EXPECT_EQ(0, qel_oa_hash_search(t, k->data(), static_cast<uint32_t>(k->size()), nullptr)) << *k;
    uint32_t max_before = 0, max_after = 0;
    for (uint32_t i = 0; i < 8; ++i) {
        max_before = std::max(max_before, before[i]);
        max_after = std::max(max_after, t->slots[i].psl);
    }
    EXPECT_LT(max_after, max_before);
    qel_oa_hash_destroy(t);
}

int collect(const char *key, void *value, void *ctx)
{
    static_cast<std::vector<std::pair<std::string, uintptr_t>> *>(ctx)->push_back(
        {key, reinterpret_cast<uintptr_t>(value)});
    return 0;
}

TEST_F(OaHash, TraverseVisitsSlotsInIndexOrderAndStops)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    std::vector<std::pair<std::string, uintptr_t>> seen;
    qel_oa_hash_traverse(t, collect, &seen); // count 0: not called
    EXPECT_TRUE(seen.empty());
    for (uintptr_t i = 1; i <= 12; ++i) {
        std::string k = "t" + std::to_string(i);
        qel_oa_hash_insert(t, k.data(), static_cast<uint32_t>(k.size()), val(i));
    }
    qel_oa_hash_traverse(t, nullptr, &seen);
    qel_oa_hash_traverse(t, collect, &seen);
    std::vector<std::pair<std::string, uintptr_t>> want;
    for (uint32_t i = 0; i < t->capacity; ++i)
        if (t->slots[i].psl != 0)
            want.push_back({key_of(t->slots[i].key), reinterpret_cast<uintptr_t>(t->values[i])});
    EXPECT_EQ(want, seen);
    int calls = 0;
    qel_oa_hash_traverse(
        t, [](const char *, void *, void *ctx) { return ++*static_cast<int *>(ctx) == 2 ? 1 : 0; }, &calls);
    EXPECT_EQ(2, calls);
    qel_oa_hash_destroy(t);
}

TEST_F(OaHash, ClearReleasesKeysAndValuesButKeepsPslAndHash)
{
    qel_oa_hash *t = qel_oa_hash_create(count_free);
    for (uintptr_t i = 1; i <= 6; ++i) {
        std::string k = "c" + std::to_string(i);
        qel_oa_hash_insert(t, k.data(), static_cast<uint32_t>(k.size()), val(i));
    }
    std::vector<qel_oa_hash_slot> before(t->slots, t->slots + t->capacity);
    qel_oa_hash_clear(t);
    EXPECT_EQ(0u, qel_oa_hash_count(t));
    EXPECT_EQ(16u, qel_oa_hash_size(t));
    for (uint32_t i = 0; i < t->capacity; ++i) {
        EXPECT_EQ(before[i].psl, t->slots[i].psl) << i;
        EXPECT_EQ(before[i].hash, t->slots[i].hash) << i;
        EXPECT_EQ(nullptr, t->slots[i].key) << i;
        EXPECT_EQ(nullptr, t->values[i]) << i;
    }
    for (uintptr_t i = 1; i <= 6; ++i)
        EXPECT_EQ(1, g_freed[i]) << i;
    // Lookups on the cleared table find nothing and read no released block.
    EXPECT_EQ(-1, qel_oa_hash_search(t, "c1", 2, nullptr));
    EXPECT_EQ(-1, qel_oa_hash_delete(t, "c1", 2));
    int calls = 0;
    qel_oa_hash_traverse(t, [](const char *, void *, void *c) { return ++*static_cast<int *>(c), 0; }, &calls);
    EXPECT_EQ(0, calls);
    qel_oa_hash_clear(t); // count 0: nothing happens
    qel_oa_hash_destroy(t);
    EXPECT_EQ(6, g_free_total); // destroy after clear frees no value twice
}

TEST_F(OaHash, PslHistogramStopsBeforeTheLargestPsl)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    std::vector<std::string> a = keys_with_home(16, 5, 3);
    std::vector<std::string> filler = {"x1", "x2", "x3"};
    for (const auto *set : {&a, &filler})
        for (const auto &k : *set)
            qel_oa_hash_insert(t, k.data(), static_cast<uint32_t>(k.size()), nullptr);
    ASSERT_EQ(16u, t->capacity);
    std::map<uint32_t, unsigned> hist;
    uint32_t max = 0;
    for (uint32_t i = 0; i < t->capacity; ++i) {
        hist[t->slots[i].psl]++;
        max = std::max(max, t->slots[i].psl);
    }
    ASSERT_GE(max, 3u);
    std::string want;
    for (uint32_t p = 0; p < max; ++p)
        want += "PSL " + std::to_string(p) + ": " + std::to_string(hist[p]) + "\n";
    qeltest::ChildResult r = qeltest::run_in_child([t] {
        qel_oa_hash_psl_dbg(t);
        return 0;
    });
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(want, r.output);
    // An empty table prints nothing (its largest PSL is 0).
    qel_oa_hash *e = qel_oa_hash_create(nullptr);
    r = qeltest::run_in_child([e] {
        qel_oa_hash_psl_dbg(e);
        return 0;
    });
    EXPECT_EQ("", r.output);
    qel_oa_hash_destroy(e);
    qel_oa_hash_destroy(t);
}

void expect_fatal_oom(long skip, const std::function<void()> &op)
{
    qeltest::expect_fatal_oom(skip, "oa_hash", "Out", op);
}

TEST_F(OaHash, KeyBlockAndGrowthAllocationFailuresAreFatal)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    expect_fatal_oom(0, [&] { qel_oa_hash_insert(t, "k", 1, nullptr); }); // key block
    expect_fatal_oom(0, [&] { qel_oa_hash_insert(t, "a longer key of forty bytes, give or take", 40, nullptr); });
    for (int i = 0; i < 4; ++i)
        qel_oa_hash_insert(t, &i, sizeof i, nullptr);
    expect_fatal_oom(1, [&] { // the fifth key block succeeds, the growth fails
        int k = 4;
        qel_oa_hash_insert(t, &k, sizeof k, nullptr);
    });
    expect_fatal_oom(2, [&] { // the second growth array
        int k = 4;
        qel_oa_hash_insert(t, &k, sizeof k, nullptr);
    });
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

TEST_P(OaHashDifferential, MatchesUnorderedMap)
{
    const DiffCase &c = GetParam();
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    // Non-empty keys of length 1 to 40, prefixes of each other (keys that
    // differ only in length), and keys crowded on a few home slots.
    std::vector<std::string> universe;
    std::vector<std::string> crowd = keys_with_home(1024, 17, std::min<size_t>(c.universe / 8 + 1, 256));
    while (universe.size() < c.universe) {
        int kind = static_cast<int>(rng.range(0, 9));
        if (kind < 2 && !universe.empty()) {
            const std::string &base = universe[rng.range(0, universe.size() - 1)];
            if (base.size() > 1)
                universe.push_back(base.substr(0, rng.range(1, base.size() - 1)));
        } else if (kind < 4) {
            universe.push_back(crowd[rng.range(0, crowd.size() - 1)]);
        } else {
            universe.push_back(rng.bytes(rng.range(1, 40), rng.chance(50) ? 'a' : 1, rng.chance(50) ? 'd' : 255));
        }
    }
    g_freed.clear();
    g_free_total = 0;
    qel_oa_hash *t = qel_oa_hash_create(count_free);
    std::unordered_map<std::string, uintptr_t> model;
    uintptr_t next_value = 1;
    int expected_frees = 0;
    const int ops = c.ops / kScale;
    for (int op = 0; op < ops; ++op) {
        const std::string &k = universe[rng.range(0, universe.size() - 1)];
        uint32_t len = static_cast<uint32_t>(k.size());
        int dice = static_cast<int>(rng.range(0, 99));
        auto it = model.find(k);
        if (dice < 45) {
            uintptr_t v = next_value++;
            int rc = qel_oa_hash_insert(t, k.data(), len, val(v));
            if (it != model.end()) {
                ASSERT_EQ(1, rc) << op;
                ASSERT_EQ(1, g_freed[it->second]) << op;
                ++expected_frees;
                it->second = v;
            } else {
                ASSERT_EQ(0, rc) << op;
                model.emplace(k, v);
            }
        } else if (dice < 75) {
            void *got = val(0xdead);
            int rc = qel_oa_hash_search(t, k.data(), len, &got);
            ASSERT_EQ(it != model.end() ? 0 : -1, rc) << op;
            ASSERT_EQ(val(it != model.end() ? it->second : 0xdead), got) << op;
        } else if (dice < 97) {
            int rc = qel_oa_hash_delete(t, k.data(), len);
            ASSERT_EQ(it != model.end() ? 0 : -1, rc) << op;
            if (it != model.end()) {
                ASSERT_EQ(1, g_freed[it->second]) << op;
                ++expected_frees;
                model.erase(it);
            }
        } else if (model.size() < 2000 || rng.chance(2)) { // full traverse, partial traverse
            std::vector<std::pair<std::string, uintptr_t>> seen;
            qel_oa_hash_traverse(t, collect, &seen);
            ASSERT_EQ(model.size(), seen.size()) << op;
            for (auto &kv : seen)
                ASSERT_EQ(model.at(kv.first), kv.second) << op;
            size_t stop = seen.empty() ? 0 : rng.range(1, seen.size());
            struct Partial {
                size_t left;
                std::vector<std::pair<std::string, uintptr_t>> got;
            } p{stop, {}};
            qel_oa_hash_traverse(
                t,
                [](const char *key, void *value, void *ctx) {
                    auto *pp = static_cast<Partial *>(ctx);
                    pp->got.push_back({key, reinterpret_cast<uintptr_t>(value)});
                    return --pp->left == 0 ? 1 : 0;
                },
                &p);
            seen.resize(stop);
            ASSERT_EQ(seen, p.got) << op;
        }
        ASSERT_EQ(expected_frees, g_free_total) << op;
        ASSERT_EQ(model.size(), qel_oa_hash_count(t)) << op;
        if (op % c.check_every == 0) {
            ASSERT_EQ("", check_invariants(t)) << op;
        }
    }
    ASSERT_EQ("", check_invariants(t));
    for (auto &kv : model) {
        void *got = nullptr;
        ASSERT_EQ(0, qel_oa_hash_search(t, kv.first.data(), static_cast<uint32_t>(kv.first.size()), &got));
        ASSERT_EQ(val(kv.second), got);
    }
    qel_oa_hash_destroy(t);
    EXPECT_EQ(expected_frees + static_cast<int>(model.size()), g_free_total);
}

INSTANTIATE_TEST_SUITE_P(Random, OaHashDifferential,
                         testing::Values(DiffCase{"SmallCheckedEveryStep", 150000, 300, 1},
                                         DiffCase{"CrowdedCheckedEveryStep", 50000, 60, 1},
                                         DiffCase{"Large", 200000, 30000, 997}),
                         [](const testing::TestParamInfo<DiffCase> &i) { return std::string(i.param.name); });

} // namespace

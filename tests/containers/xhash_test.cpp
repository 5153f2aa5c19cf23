#include "qel_xhash.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <deque>
#include <limits>
#include <string>
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

// Calls the current function `f` or its unprefixed twin, by the `legacy` in scope:
// every behaviour is checked for both.
#define X(f) (legacy ? xhash_##f : qel_xhash_##f)

uint32_t first_byte_hash(const void *key, uint32_t len)
{
    return len == 0 ? 0 : static_cast<const unsigned char *>(key)[0];
}
uint32_t constant_hash(const void *, uint32_t)
{
    return 0x5318u; // every key in one chain, every full hash equal
}
uint32_t same_slot_hash(const void *key, uint32_t len)
{
    return qel::detail::hash33(key, len) << 20; // different full hashes, all in slot 0 up to 2^20 slots
}

struct Entry {
    std::string key;
    uintptr_t value;
    bool operator==(const Entry &) const = default;
};
int collect(const void *key, uint32_t len, void *value, void *ctx)
{
    static_cast<std::vector<Entry> *>(ctx)->push_back(
        {std::string(static_cast<const char *>(key), len), reinterpret_cast<uintptr_t>(value)});
    return 0;
}
std::vector<Entry> walk_all(bool legacy, qel_xhash *t)
{
    std::vector<Entry> out;
    EXPECT_EQ(0, X(walk)(t, &out, collect));
    return out;
}
// The walk order the record describes: slots in index order, chains from the head.
std::vector<Entry> record_order(const qel_xhash *t)
{
    std::vector<Entry> out;
    for (uint32_t i = 0; i < t->nslot; ++i)
        for (const qel_xhash_node *n = t->slots[i]; n != nullptr; n = n->next)
            out.push_back({std::string(static_cast<const char *>(n->key), n->key_len),
                           reinterpret_cast<uintptr_t>(n->value)});
    return out;
}

// Slot counts and growth thresholds, row by row.
const struct {
    uint32_t nslot, maxn;
} kRows[] = {{8, 24}, {16, 64}, {64, 256}, {256, 1024}, {2048, 10240}, {16384, 81920}, {262144, QEL_XHASH_NEVER_GROW}};

class Xhash : public testing::TestWithParam<bool> {
protected:
    bool legacy = GetParam();
    void SetUp() override { qeltest::reset_frees(); }
};

TEST_P(Xhash, CreateDefaults)
{
    qel_xhash *t = X(create)(nullptr, nullptr);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(8u, X(slotcount)(t));
    EXPECT_EQ(24u, t->maxn);
    EXPECT_EQ(0u, X(count)(t));
    EXPECT_EQ(0u, t->flags);
    EXPECT_EQ(nullptr, t->value_free);
    // The default hash is x33 from 5318 over unsigned bytes; the default compare returns 0 or 1.
    std::string longer = "\xff\x01 the quick brown fox jumps over the lazy dog \x80\x7f";
    for (size_t n = 0; n <= longer.size(); ++n)
        EXPECT_EQ(qeltest::reference_hash33(longer.substr(0, n), 5318),
                  t->hash(longer.data(), static_cast<uint32_t>(n)))
            << n;
    EXPECT_EQ(0, t->compare("ab", 2, "ab", 2));
    EXPECT_EQ(1, t->compare("ab", 2, "ac", 2));
    EXPECT_EQ(1, t->compare("ab", 2, "abc", 3));
    EXPECT_EQ(0, t->compare("x", 0, "y", 0));
    X(destroy)(t);
}

TEST_P(Xhash, GrowsThroughTheTableRows)
{
    qel_xhash *t = X(create)(nullptr, nullptr);
    size_t row = 0;
    for (uint32_t n = 1; n <= 81920; ++n) {
        X(insert)(t, &n, sizeof n, nullptr);
        row += n == kRows[row].maxn; // the insertion that reaches the threshold grows
        ASSERT_EQ(kRows[row].nslot, t->nslot) << n;
        ASSERT_EQ(kRows[row].maxn, t->maxn) << n;
    }
    EXPECT_EQ(std::size(kRows) - 1, row);
    X(destroy)(t);
}

TEST_P(Xhash, SetNslotUsesRowsThenPowersOfTwoAndNeverShrinks)
{
    const struct {
        uint32_t wanted, nslot, maxn;
    } cases[] = {{0, 8, 24},         {7, 8, 24},          {8, 16, 64},        {15, 16, 64},
                 {16, 64, 256},      {200, 256, 1024},    {256, 2048, 10240}, {2048, 16384, 81920},
                 {16384, 16384, QEL_XHASH_NEVER_GROW}, {20000, 32768, QEL_XHASH_NEVER_GROW},
                 {0x80000001u, 8, 24}}; // rounds to 0: nothing to grow
    for (auto c : cases) {
        qel_xhash *t = X(create)(nullptr, nullptr);
        X(set_nslot)(t, c.wanted);
        EXPECT_EQ(c.nslot, X(slotcount)(t)) << c.wanted;
        EXPECT_EQ(c.maxn, t->maxn) << c.wanted;
        if (c.wanted == 20000) {
            X(set_nslot)(t, 100); // smaller target: nothing happens
            for (uint32_t k = 0; k < 3000; ++k)
                X(insert)(t, &k, sizeof k, nullptr);
            EXPECT_EQ(32768u, t->nslot); // and it never grows again
        }
        X(destroy)(t);
    }
    X(set_nslot)(nullptr, 100);
}

TEST_P(Xhash, RebuildReversesChainsThatStayTogether)
{
    qel_xhash *t = X(create)(nullptr, first_byte_hash);
    const Entry a{{"\x00" "A", 2}, 1}, b{{"\x08" "B", 2}, 2}, c{{"\x10" "C", 2}, 3}; // slot 0 of 8
    for (const Entry &e : {a, b, c})
        X(insert)(t, e.key.data(), 2, val(e.value));
    EXPECT_EQ((std::vector<Entry>{c, b, a}), walk_all(legacy, t)); // head insertion
    X(set_nslot)(t, 8); // 16 slots: 0 and 16 stay together (reversed), 8 moves
    EXPECT_EQ((std::vector<Entry>{a, c, b}), walk_all(legacy, t));
    X(destroy)(t);
}

TEST_P(Xhash, KeysAreCopiedOnceOrBorrowedNewest)
{
    qel_xhash *t = X(create)(count_free, nullptr);
    char key[] = "alpha";
    X(insert)(t, key, 5, val(10));
    const void *first_copy = t->slots[qeltest::reference_hash33("alpha", 5318) & 7]->key;
    EXPECT_NE(static_cast<const void *>(key), first_copy);
    key[0] = 'X'; // the caller's buffer is not the table's
    X(insert)(t, "alpha", 5, val(11));
    EXPECT_EQ(1, g_freed[10]);
    EXPECT_EQ(first_copy, t->slots[qeltest::reference_hash33("alpha", 5318) & 7]->key); // the first copy stays
    void *v = nullptr;
    // A null key of length 0 is the empty key, whatever the pointer.
    X(insert)(t, "abc", 0, val(1));
    X(insert)(t, nullptr, 0, val(2));
    EXPECT_EQ(0, X(search)(t, "zzz", 0, &v));
    EXPECT_EQ(val(2), v);
    EXPECT_EQ(0, X(delete)(t, nullptr, 0));
    EXPECT_EQ(1u, X(count)(t));
    X(destroy)(t);

    t = X(create2)(nullptr, nullptr, nullptr, QEL_XHASH_BORROW_KEYS);
    EXPECT_EQ(QEL_XHASH_BORROW_KEYS, t->flags);
    std::string k1 = "beta", k2 = "beta";
    X(insert)(t, k1.data(), 4, val(1));
    const qel_xhash_node *n = t->slots[qeltest::reference_hash33("beta", 5318) & 7];
    EXPECT_EQ(static_cast<const void *>(k1.data()), n->key);
    X(insert)(t, k2.data(), 4, val(2));
    EXPECT_EQ(static_cast<const void *>(k2.data()), n->key);
    EXPECT_EQ(1u, X(count)(t));
    X(destroy)(t);
}

TEST_P(Xhash, NullArgumentsFailWithoutEffect)
{
    qel_xhash *t = X(create)(nullptr, nullptr);
    for (auto [table, key] : {std::pair<qel_xhash *, const char *>{nullptr, "abc"}, {t, nullptr}}) {
        X(insert)(table, key, 3, val(1));
        EXPECT_EQ(-1, X(search)(table, key, 3, nullptr));
        EXPECT_EQ(-1, X(delete)(table, key, 3));
        EXPECT_EQ(-1, X(walk)(table, nullptr, table == nullptr ? collect : nullptr));
        EXPECT_EQ(0u, X(count)(table));
    }
    EXPECT_EQ(0u, X(slotcount)(nullptr));
    X(clear)(nullptr);
    X(destroy)(nullptr);
    X(cookie_destroy)(nullptr);
    X(cookie_set_percent)(nullptr, 0.5f);
    uint32_t counters[4] = {};
    X(slotinfo)(nullptr, counters, 4);
    qel_xhash_cookie *c = X(cookie_create)(0.5f);
    X(walk_partial)(t, c, nullptr, nullptr);
    X(walk_partial)(nullptr, c, nullptr, collect);
    X(walk_partial)(t, nullptr, nullptr, collect);
    EXPECT_EQ(0u, c->next);
    X(slotinfo)(t, nullptr, 4);
    X(cookie_destroy)(c);
    X(destroy)(t);
}

int delete_visited(const void *key, uint32_t len, void *, void *ctx)
{
    auto *w = static_cast<std::pair<bool, qel_xhash *> *>(ctx);
    bool legacy = w->first;
    std::string copy(static_cast<const char *>(key), len); // the key dies with the entry
    return X(delete)(w->second, copy.data(), len) == 0 ? 0 : 1;
}

TEST_P(Xhash, WalkStopsOnRequestAndToleratesDeletingTheVisitedEntry)
{
    qel_xhash *t = X(create)(count_free, constant_hash); // one long chain
    for (uintptr_t i = 1; i <= 10; ++i)
        X(insert)(t, &i, sizeof i, val(i));
    auto stop_at_third = [](const void *, uint32_t, void *, void *ctx) -> int {
        return ++*static_cast<int *>(ctx) == 3;
    };
    int calls = 0;
    EXPECT_EQ(1, X(walk)(t, &calls, stop_at_third));
    EXPECT_EQ(3, calls);
    std::pair<bool, qel_xhash *> w{legacy, t};
    EXPECT_EQ(0, X(walk)(t, &w, delete_visited)); // a failed delete would stop the walk with 1
    EXPECT_EQ(0u, X(count)(t));
    EXPECT_EQ(10, g_free_total);
    EXPECT_EQ(0, X(walk)(t, &calls, stop_at_third));
    X(destroy)(t);
}

int record_slot(const void *key, uint32_t, void *, void *ctx)
{
    static_cast<std::vector<int> *>(ctx)->push_back(static_cast<const unsigned char *>(key)[0]);
    return 1; // ignored by partial walks
}

TEST_P(Xhash, PartialWalkSweepsByFraction)
{
    qel_xhash *t = X(create)(nullptr, first_byte_hash);
    for (unsigned char s = 0; s < 8; ++s)
        X(insert)(t, &s, 1, nullptr); // key s sits in slot s
    auto walk = [&](qel_xhash_cookie *c, int times) {
        std::vector<int> seen;
        while (times-- > 0)
            X(walk_partial)(t, c, &seen, record_slot);
        return seen;
    };
    // The limit of 1.0 applies on creation only.
    qel_xhash_cookie *c = X(cookie_create)(3.0f);
    EXPECT_EQ(1.0f, c->percent);
    X(cookie_set_percent)(c, 2.0f);
    EXPECT_EQ(2.0f, c->percent);
    EXPECT_EQ(16u, walk(c, 1).size()); // every slot twice
    EXPECT_EQ(8u, c->next);            // wrapped to 0 at the ninth visit
    X(cookie_destroy)(c);
    // Zero, negative, tiny and NaN fractions visit one slot per call.
    for (float f : {0.0f, -1.0f, 0.01f, std::numeric_limits<float>::quiet_NaN()}) {
        c = X(cookie_create)(f);
        EXPECT_TRUE(std::isnan(f) || f == c->percent) << f;
        EXPECT_EQ((std::vector<int>{0, 1}), walk(c, 2)) << f;
        X(cookie_destroy)(c);
    }
    // A resumed walk wraps once the next slot is at or past the slot count.
    c = X(cookie_create)(0.5f);
    EXPECT_EQ(0.5f, c->percent);
    EXPECT_EQ(0u, c->next);
    c->next = 6;
    EXPECT_EQ((std::vector<int>{6, 7, 0, 1}), walk(c, 1));
    X(cookie_destroy)(c);
    X(destroy)(t);
}

TEST_P(Xhash, SlotinfoAddsChainLengthsBelowN)
{
    qel_xhash *t = X(create)(nullptr, first_byte_hash);
    // Slot 0: 3 nodes, slot 1: 1, slot 2: 5 (too long for n = 4), others empty.
    unsigned char keys[][2] = {{0, 1}, {0, 2}, {0, 3}, {1, 1}, {2, 1}, {2, 2}, {2, 3}, {2, 4}, {2, 5}};
    for (auto &k : keys)
        X(insert)(t, k, 2, nullptr);
    uint32_t counters[4] = {100, 0, 0, 0}; // added to, not reset
    X(slotinfo)(t, counters, 4);
    EXPECT_EQ((std::vector<uint32_t>{105, 1, 0, 1}), std::vector<uint32_t>(counters, counters + 4));
    X(destroy)(t);
}

TEST_P(Xhash, UnreachableGrowthGuardReportsAndLeavesTable)
{
    // Only a host that writes the record gets here: a slot count outside the
    // rows with a reachable threshold.
    bool legacy = this->legacy;
    qeltest::ChildResult r = qeltest::run_in_child([legacy] {
        qel_xhash *t = X(create)(nullptr, nullptr);
        X(set_nslot)(t, 20000);
        t->maxn = 2;
        uint32_t k = 1;
        X(insert)(t, &k, sizeof k, nullptr);
        k = 2;
        X(insert)(t, &k, sizeof k, nullptr);
        bool found = X(search)(t, &k, sizeof k, nullptr) == 0;
        return t->nslot == 32768 && t->maxn == 2 && X(count)(t) == 2 && found ? 0 : 1;
    });
    ASSERT_TRUE(r.exited) << r.output;
    EXPECT_EQ(0, r.status) << r.output;
    EXPECT_EQ("[BUG] rehashing, can not get next_mask\n", r.output);
}

TEST_P(Xhash, AllocationFailuresAreFatalWithTheLowerCaseLine)
{
    auto oom = [&](long skip, const std::function<void()> &op) {
        // The module is the build's path of old/hash_.cpp for the twins.
        qeltest::expect_fatal_oom(skip, legacy ? "[^\\]]*old/hash_" : "hash", "out", op);
    };
    oom(0, [&] { X(create)(nullptr, nullptr); }); // the record
    oom(1, [&] { X(create)(nullptr, nullptr); }); // the slot array
    oom(0, [&] { X(cookie_create)(0.5f); });
    qel_xhash *t = X(create)(nullptr, nullptr);
    oom(0, [&] { X(insert)(t, "key", 3, nullptr); }); // node and key copy
    qel_xhash *b = X(create2)(nullptr, nullptr, nullptr, QEL_XHASH_BORROW_KEYS);
    oom(0, [&] { X(insert)(b, "key", 3, nullptr); }); // node of a borrowed key
    oom(0, [&] { X(set_nslot)(t, 100); });            // a rebuild
    uint32_t k = 0;
    for (; k < 23; ++k)
        X(insert)(t, &k, sizeof k, nullptr);
    oom(1, [&] { X(insert)(t, &k, sizeof k, nullptr); }); // the 24th node succeeds, its growth fails
    EXPECT_EQ(8u, t->nslot); // the parent's table is untouched
    X(destroy)(t);
    X(destroy)(b);
}

INSTANTIATE_TEST_SUITE_P(Twins, Xhash, testing::Bool(),
                         [](const testing::TestParamInfo<bool> &i) { return i.param ? "legacy" : "current"; });

// ---- differential test against std::unordered_map ----------------------------

struct DiffCase {
    bool legacy;
    qel_xhash_hash_fn hash; // null: the default
    const char *hash_name;
    bool borrow;
    int ops;
    size_t universe; // distinct keys drawn from
};

class XhashDifferential : public testing::TestWithParam<DiffCase> {};

TEST_P(XhashDifferential, MatchesUnorderedMap)
{
    const DiffCase &c = GetParam();
    const bool legacy = c.legacy;
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    std::vector<std::string> universe = qeltest::random_keys(rng, c.universe, 0, 0);
    universe[0] = ""; // the empty key, always
    qeltest::reset_frees();
    qel_xhash *t = X(create2)(count_free, c.hash, nullptr, c.borrow ? QEL_XHASH_BORROW_KEYS : 0);
    std::unordered_map<std::string, uintptr_t> model;
    std::deque<std::string> borrowed; // keeps borrowed keys alive for the whole run
    uintptr_t next_value = 1;
    uint32_t cleared = 0; // entries the count still reports after clears, so growth comes earlier
    size_t row = 0;
    int expected_frees = 0;
    for (int op = 0; op < c.ops / qeltest::kRandomScale; ++op) {
        const std::string &k = universe[rng.range(0, universe.size() - 1)];
        const char *kp = c.borrow ? borrowed.emplace_back(k).data() : k.data();
        uint32_t klen = static_cast<uint32_t>(k.size());
        int dice = static_cast<int>(rng.range(0, 99));
        auto it = model.find(k);
        if (dice < 40) { // insert or replace: the old value freed once, the new one not
            uintptr_t v = next_value++;
            X(insert)(t, kp, klen, val(v));
            if (it != model.end()) {
                ++expected_frees;
                ASSERT_EQ(1, g_freed[it->second]) << op;
                it->second = v;
            } else {
                model.emplace(k, v);
            }
            ASSERT_EQ(0u, g_freed.count(v)) << op;
        } else if (dice < 75) { // search, with or without the value
            void *got = val(0xdead);
            bool want_value = rng.chance(70);
            ASSERT_EQ(it != model.end() ? 0 : -1, X(search)(t, kp, klen, want_value ? &got : nullptr)) << op;
            ASSERT_EQ(val(it != model.end() && want_value ? it->second : 0xdead), got) << op;
        } else if (dice < 95) { // delete
            ASSERT_EQ(it != model.end() ? 0 : -1, X(delete)(t, kp, klen)) << op;
            if (it != model.end()) {
                ++expected_frees;
                ASSERT_EQ(1, g_freed[it->second]) << op;
                model.erase(it);
            }
        } else if (dice < 99) { // full walk and a sweep of partial walks (rarer on big tables)
            if (model.size() > 1000 && !rng.chance(1))
                continue;
            std::vector<Entry> order = walk_all(legacy, t);
            ASSERT_EQ(record_order(t), order) << op;
            ASSERT_EQ(model.size(), order.size()) << op;
            for (const Entry &e : order)
                ASSERT_EQ(model.at(e.key), e.value) << op;
            // One sweep of partial walks from a new cookie is the full walk, in order.
            float frac = 1.0f / static_cast<float>(1u << rng.range(0, 4));
            qel_xhash_cookie *ck = X(cookie_create)(frac);
            std::vector<Entry> partial;
            for (uint32_t done = 0; done < t->nslot; done += std::max<uint32_t>(1, t->nslot * frac))
                X(walk_partial)(t, ck, &partial, collect);
            ASSERT_EQ(order, partial) << op;
            X(cookie_destroy)(ck);
        } else if (rng.chance(20)) { // clear, rarely
            expected_frees += static_cast<int>(model.size());
            cleared += static_cast<uint32_t>(model.size());
            model.clear();
            qel_xhash_node **slots = t->slots;
            X(clear)(t);
            ASSERT_EQ(slots, t->slots);
        }
        ASSERT_EQ(expected_frees, g_free_total) << op;
        ASSERT_EQ(model.size() + cleared, X(count)(t)) << op;
        row += X(count)(t) == kRows[row].maxn;
        ASSERT_EQ(kRows[row].nslot, t->nslot) << op;
    }
    X(destroy)(t);
    EXPECT_EQ(expected_frees + static_cast<int>(model.size()), g_free_total);
}

INSTANTIATE_TEST_SUITE_P(Random, XhashDifferential,
                         testing::Values(DiffCase{false, nullptr, "DefaultHash", false, 250000, 20000},
                                         DiffCase{false, nullptr, "DefaultHash", true, 60000, 5000},
                                         DiffCase{false, constant_hash, "OneChain", false, 30000, 400},
                                         DiffCase{false, same_slot_hash, "OneSlot", true, 30000, 400},
                                         DiffCase{true, nullptr, "DefaultHash", false, 60000, 5000},
                                         DiffCase{true, same_slot_hash, "OneSlot", false, 20000, 400}),
                         [](const testing::TestParamInfo<DiffCase> &i) {
                             return std::string(i.param.legacy ? "legacy" : "current") + i.param.hash_name +
                                    (i.param.borrow ? "Borrowed" : "Copied");
                         });

// ---- hash set ------------------------------------------------------------------

TEST(HashSet, MapsOntoTheTable)
{
    qel_hash_set *s = qel_hash_set_init(nullptr, nullptr);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(0u, s->flags); // keys always copied
    EXPECT_EQ(nullptr, s->value_free);
    EXPECT_EQ(24u, qel_hash_set_maxn(s));
    qel_hash_set_insert(s, "a", 1);
    qel_hash_set_insert(s, "a", 1);
    EXPECT_EQ(1u, qel_hash_set_size(s));
    EXPECT_EQ(1, qel_hash_set_find(s, "a", 1));
    void *v = val(1);
    EXPECT_EQ(0, qel_xhash_search(s, "a", 1, &v));
    EXPECT_EQ(nullptr, v); // the stored value is 0
    for (uint32_t i = 0; i < 30; ++i)
        qel_hash_set_insert(s, &i, sizeof i);
    EXPECT_EQ(64u, qel_hash_set_maxn(s));
    EXPECT_EQ(1, qel_hash_set_remove(s, "a", 1));
    EXPECT_EQ(0, qel_hash_set_remove(s, "a", 1));
    qel_hash_set_clear(s);
    EXPECT_EQ(30u, qel_hash_set_size(s)); // as for the table
    EXPECT_EQ(0, qel_hash_set_find(s, "\0\0\0\0", 4));
    qel_hash_set_unit(s);
    qel_hash_set_unit(nullptr);
    EXPECT_EQ(0, qel_hash_set_find(nullptr, "a", 1) + qel_hash_set_remove(nullptr, "a", 1));
    EXPECT_EQ(0u, qel_hash_set_size(nullptr) + qel_hash_set_maxn(nullptr));
    qel_hash_set_insert(nullptr, "a", 1);
    qel_hash_set_clear(nullptr);
    // Custom compare: case-insensitive keys collapse.
    s = qel_hash_set_init(constant_hash, [](const void *a, uint32_t al, const void *b, uint32_t bl) {
        return al == bl && strncasecmp(static_cast<const char *>(a), static_cast<const char *>(b), al) == 0 ? 0 : 1;
    });
    qel_hash_set_insert(s, "Key", 3);
    qel_hash_set_insert(s, "KEY", 3);
    EXPECT_EQ(1, qel_hash_set_find(s, "kEY", 3));
    EXPECT_EQ(1u, qel_hash_set_size(s));
    qel_hash_set_unit(s);
}

} // namespace

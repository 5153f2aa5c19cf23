#include "qel_xhash.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <deque>
#include <limits>
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

// The current calls and their unprefixed twins, so that every behaviour is
// checked for both.
struct Api {
    const char *name;
    qel_xhash *(*create2)(qel_xhash_free_fn, qel_xhash_hash_fn, qel_xhash_compare_fn, uint32_t);
    qel_xhash *(*create)(qel_xhash_free_fn, qel_xhash_hash_fn);
    void (*destroy)(qel_xhash *);
    void (*insert)(qel_xhash *, const void *, uint32_t, void *);
    int (*search)(qel_xhash *, const void *, uint32_t, void **);
    int (*del)(qel_xhash *, const void *, uint32_t);
    void (*clear)(qel_xhash *);
    int (*walk)(qel_xhash *, void *, qel_xhash_walk_fn);
    void (*walk_partial)(qel_xhash *, qel_xhash_cookie *, void *, qel_xhash_walk_fn);
    uint32_t (*count)(qel_xhash *);
    void (*set_nslot)(qel_xhash *, uint32_t);
    void (*slotinfo)(qel_xhash *, uint32_t *, uint32_t);
    uint32_t (*slotcount)(qel_xhash *);
    qel_xhash_cookie *(*cookie_create)(float);
    void (*cookie_destroy)(qel_xhash_cookie *);
    void (*cookie_set_percent)(qel_xhash_cookie *, float);
    const char *oom_module_regex; // the module text of the out-of-memory line
};

const Api kCurrent = {"current", qel_xhash_create2, qel_xhash_create, qel_xhash_destroy, qel_xhash_insert,
                      qel_xhash_search, qel_xhash_delete, qel_xhash_clear, qel_xhash_walk, qel_xhash_walk_partial,
                      qel_xhash_count, qel_xhash_set_nslot, qel_xhash_slotinfo, qel_xhash_slotcount,
                      qel_xhash_cookie_create, qel_xhash_cookie_destroy, qel_xhash_cookie_set_percent,
                      "hash"};
const Api kLegacy = {"legacy", xhash_create2, xhash_create, xhash_destroy, xhash_insert, xhash_search,
                     xhash_delete, xhash_clear, xhash_walk, xhash_walk_partial, xhash_count, xhash_set_nslot,
                     xhash_slotinfo, xhash_slotcount, xhash_cookie_create, xhash_cookie_destroy,
                     xhash_cookie_set_percent, "[^\\]]*old/hash_"}; // the build's path of old/hash_.cpp, minus the extension

uint32_t ref_hash(const std::string &k)
{
    return qeltest::reference_hash33(k, 5318);
}

using qeltest::count_free;
using qeltest::g_free_total;
using qeltest::g_freed;

void *val(uintptr_t v)
{
    return qeltest::as_value(v);
}

// Hash callbacks that make the table's placement easy to predict or hostile.
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
    // Different full hashes, all in slot 0 of any table up to 2^20 slots.
    return qel::detail::hash33(key, len) << 20;
}

// Entries in walk order.
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

std::vector<Entry> walk_all(const Api &api, qel_xhash *t)
{
    std::vector<Entry> out;
    EXPECT_EQ(0, api.walk(t, &out, collect));
    return out;
}

// The walk order the record itself describes: slots in index order, chains
// from the head.
std::vector<Entry> record_order(const qel_xhash *t)
{
    std::vector<Entry> out;
    for (uint32_t i = 0; i < t->nslot; ++i)
        for (const qel_xhash_node *n = t->slots[i]; n != nullptr; n = n->next)
            out.push_back({std::string(static_cast<const char *>(n->key), n->key_len),
                           reinterpret_cast<uintptr_t>(n->value)});
    return out;
}

class Xhash : public testing::TestWithParam<const Api *> {
protected:
    const Api &api() const { return *GetParam(); }
    void SetUp() override
    {
        g_freed.clear();
        g_free_total = 0;
    }
};

TEST_P(Xhash, CreateStartsWithEightSlotsAndDefaults)
{
    qel_xhash *t = api().create(nullptr, nullptr);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(8u, t->nslot);
    EXPECT_EQ(24u, t->maxn);
    EXPECT_EQ(0u, t->count);
    EXPECT_EQ(0u, t->flags);
    EXPECT_EQ(nullptr, t->value_free);
    ASSERT_NE(nullptr, t->hash);
    ASSERT_NE(nullptr, t->compare);
    // The default hash is the x33 hash from 5318; the default compare is exact.
    EXPECT_EQ(5318u, t->hash("", 0));
    EXPECT_EQ(ref_hash("abc"), t->hash("abc", 3));
    EXPECT_EQ(ref_hash(std::string("\xff\x80", 2)), t->hash("\xff\x80", 2)); // bytes taken unsigned
    std::string longer = "\xff\x01 the quick brown fox jumps over the lazy dog \x80\x7f";
    for (size_t n = 0; n <= longer.size(); ++n)
        EXPECT_EQ(ref_hash(longer.substr(0, n)), t->hash(longer.data(), static_cast<uint32_t>(n))) << n;
    EXPECT_EQ(0, t->compare("ab", 2, "ab", 2));
    EXPECT_EQ(1, t->compare("ab", 2, "ac", 2));
    EXPECT_EQ(1, t->compare("ab", 2, "abc", 3));
    EXPECT_EQ(0, t->compare("x", 0, "y", 0));
    EXPECT_EQ(8u, api().slotcount(t));
    EXPECT_EQ(0u, api().count(t));
    api().destroy(t);

    t = api().create2(count_free, first_byte_hash, nullptr, QEL_XHASH_BORROW_KEYS);
    EXPECT_EQ(reinterpret_cast<void *>(count_free), reinterpret_cast<void *>(t->value_free));
    EXPECT_EQ(reinterpret_cast<void *>(first_byte_hash), reinterpret_cast<void *>(t->hash));
    EXPECT_EQ(QEL_XHASH_BORROW_KEYS, t->flags);
    EXPECT_EQ(1, t->compare("ab", 2, "abc", 3));
    api().destroy(t);
}

TEST_P(Xhash, GrowsThroughTheTableRows)
{
    qel_xhash *t = api().create(nullptr, nullptr);
    const struct {
        uint32_t at, nslot, maxn;
    } steps[] = {{24, 16, 64}, {64, 64, 256}, {256, 256, 1024}, {1024, 2048, 10240}, {10240, 16384, 81920},
                 {81920, 262144, QEL_XHASH_NEVER_GROW}};
    uint32_t n = 0;
    uint32_t nslot = 8, maxn = 24;
    for (auto s : steps) {
        while (n + 1 < s.at) {
            ++n;
            api().insert(t, &n, sizeof n, nullptr);
            ASSERT_EQ(nslot, t->nslot) << n;
            ASSERT_EQ(maxn, t->maxn) << n;
        }
        ++n;
        api().insert(t, &n, sizeof n, nullptr);
        EXPECT_EQ(s.nslot, t->nslot) << n; // the insertion that reaches the threshold grows
        EXPECT_EQ(s.maxn, t->maxn) << n;
        nslot = s.nslot;
        maxn = s.maxn;
    }
    EXPECT_EQ(81920u, api().count(t));
    for (uint32_t k = 1; k <= n; k += 997) {
        void *v = val(1);
        ASSERT_EQ(0, api().search(t, &k, sizeof k, &v)) << k;
        EXPECT_EQ(nullptr, v);
    }
    // Every node sits in the slot of its stored full hash, which is the key's.
    for (uint32_t i = 0; i < t->nslot; i += 251)
        for (const qel_xhash_node *nd = t->slots[i]; nd != nullptr; nd = nd->next) {
            ASSERT_EQ(i, nd->hash & (t->nslot - 1));
            ASSERT_EQ(qel::detail::hash33(nd->key, nd->key_len), nd->hash);
        }
    api().destroy(t);
}

TEST_P(Xhash, SetNslotUsesRowsThenPowersOfTwoAndNeverShrinks)
{
    const struct {
        uint32_t wanted, nslot, maxn;
    } cases[] = {{0, 8, 24},         {4, 8, 24},          {7, 8, 24},         {8, 16, 64},
                 {15, 16, 64},       {16, 64, 256},       {200, 256, 1024},   {256, 2048, 10240},
                 {2048, 16384, 81920}, {16384, 16384, QEL_XHASH_NEVER_GROW}, {20000, 32768, QEL_XHASH_NEVER_GROW},
                 {0x80000001u, 8, 24}}; // rounds to 0: nothing to grow
    for (auto c : cases) {
        qel_xhash *t = api().create(nullptr, nullptr);
        api().set_nslot(t, c.wanted);
        EXPECT_EQ(c.nslot, api().slotcount(t)) << c.wanted;
        EXPECT_EQ(c.maxn, t->maxn) << c.wanted;
        api().destroy(t);
    }
    qel_xhash *t = api().create(nullptr, nullptr);
    api().set_nslot(t, 20000);
    api().set_nslot(t, 100); // smaller target: nothing happens
    EXPECT_EQ(32768u, t->nslot);
    EXPECT_EQ(QEL_XHASH_NEVER_GROW, t->maxn);
    for (uint32_t k = 0; k < 3000; ++k)
        api().insert(t, &k, sizeof k, nullptr);
    EXPECT_EQ(32768u, t->nslot); // never grows again
    api().set_nslot(nullptr, 100);
    api().destroy(t);
}

TEST_P(Xhash, RebuildReversesChainsThatStayTogether)
{
    qel_xhash *t = api().create(nullptr, first_byte_hash);
    // Hashes 0, 8 and 16 share slot 0 of 8; head insertion gives C, B, A.
    api().insert(t, "\x00" "A", 2, val(1));
    api().insert(t, "\x08" "B", 2, val(2));
    api().insert(t, "\x10" "C", 2, val(3));
    std::vector<Entry> before = walk_all(api(), t);
    ASSERT_EQ(3u, before.size());
    EXPECT_EQ(3u, before[0].value);
    EXPECT_EQ(2u, before[1].value);
    EXPECT_EQ(1u, before[2].value);
    api().set_nslot(t, 8); // 16 slots: 0 and 16 stay together, 8 moves
    std::vector<Entry> after = walk_all(api(), t);
    ASSERT_EQ(3u, after.size());
    EXPECT_EQ(1u, after[0].value); // slot 0, reversed: A then C
    EXPECT_EQ(3u, after[1].value);
    EXPECT_EQ(2u, after[2].value); // slot 8
    EXPECT_EQ(after, record_order(t));
    api().destroy(t);
}

TEST_P(Xhash, InsertExistingKeyReplacesValue)
{
    qel_xhash *t = api().create(count_free, nullptr);
    char key[] = "alpha";
    api().insert(t, key, 5, val(10));
    const void *first_copy = t->slots[ref_hash("alpha") & 7]->key;
    EXPECT_NE(static_cast<const void *>(key), first_copy); // copied
    key[0] = 'X'; // the caller's buffer is not the table's
    api().insert(t, "alpha", 5, val(11));
    EXPECT_EQ(1u, api().count(t));
    EXPECT_EQ(1, g_freed[10]);
    EXPECT_EQ(0, g_freed[11]);
    EXPECT_EQ(first_copy, t->slots[ref_hash("alpha") & 7]->key); // the first copy stays
    void *v = nullptr;
    EXPECT_EQ(0, api().search(t, "alpha", 5, &v));
    EXPECT_EQ(val(11), v);
    EXPECT_EQ(0, api().search(t, "alpha", 5, nullptr));
    api().destroy(t);
    EXPECT_EQ(1, g_freed[11]);

    // Borrowed keys: the node takes the caller's pointer, and the newest one.
    t = api().create2(nullptr, nullptr, nullptr, QEL_XHASH_BORROW_KEYS);
    std::string k1 = "beta", k2 = "beta";
    api().insert(t, k1.data(), 4, val(1));
    const qel_xhash_node *n = t->slots[ref_hash("beta") & 7];
    EXPECT_EQ(static_cast<const void *>(k1.data()), n->key);
    api().insert(t, k2.data(), 4, val(2));
    EXPECT_EQ(static_cast<const void *>(k2.data()), n->key);
    EXPECT_EQ(1u, api().count(t));
    api().destroy(t);
}

TEST_P(Xhash, EmptyKeysAreEqualAndLengthDistinguishesKeys)
{
    qel_xhash *t = api().create(nullptr, nullptr);
    api().insert(t, "abc", 0, val(1));
    api().insert(t, nullptr, 0, val(2)); // a null key of length 0 is the empty key
    EXPECT_EQ(1u, api().count(t));
    void *v = nullptr;
    EXPECT_EQ(0, api().search(t, "zzz", 0, &v));
    EXPECT_EQ(val(2), v);
    // The same bytes at different lengths are different keys.
    const char bytes[] = "aaaaaaaa";
    for (uint32_t len = 1; len <= 8; ++len)
        api().insert(t, bytes, len, val(100 + len));
    EXPECT_EQ(9u, api().count(t));
    for (uint32_t len = 1; len <= 8; ++len) {
        ASSERT_EQ(0, api().search(t, bytes, len, &v));
        EXPECT_EQ(val(100 + len), v);
    }
    EXPECT_EQ(0, api().del(t, bytes, 4));
    EXPECT_EQ(-1, api().search(t, bytes, 4, nullptr));
    EXPECT_EQ(0, api().search(t, bytes, 5, nullptr));
    EXPECT_EQ(0, api().del(t, nullptr, 0));
    EXPECT_EQ(-1, api().del(t, nullptr, 0));
    EXPECT_EQ(7u, api().count(t));
    api().destroy(t);
}

TEST_P(Xhash, NullArgumentsFailWithoutEffect)
{
    EXPECT_EQ(-1, api().search(nullptr, "a", 1, nullptr));
    EXPECT_EQ(-1, api().del(nullptr, "a", 1));
    EXPECT_EQ(-1, api().walk(nullptr, nullptr, collect));
    EXPECT_EQ(0u, api().count(nullptr));
    EXPECT_EQ(0u, api().slotcount(nullptr));
    api().insert(nullptr, "a", 1, nullptr);
    api().clear(nullptr);
    api().destroy(nullptr);
    api().cookie_destroy(nullptr);
    api().cookie_set_percent(nullptr, 0.5f);
    uint32_t counters[4] = {};
    api().slotinfo(nullptr, counters, 4);
    qel_xhash *t = api().create(nullptr, nullptr);
    api().insert(t, nullptr, 3, val(1));
    EXPECT_EQ(0u, api().count(t));
    EXPECT_EQ(-1, api().search(t, nullptr, 3, nullptr));
    EXPECT_EQ(-1, api().del(t, nullptr, 3));
    EXPECT_EQ(-1, api().walk(t, nullptr, nullptr));
    qel_xhash_cookie *c = api().cookie_create(0.5f);
    api().walk_partial(t, c, nullptr, nullptr);
    api().walk_partial(nullptr, c, nullptr, collect);
    api().walk_partial(t, nullptr, nullptr, collect);
    EXPECT_EQ(0u, c->next);
    api().slotinfo(t, nullptr, 4);
    api().cookie_destroy(c);
    api().destroy(t);
}

TEST_P(Xhash, ClearKeepsCountAndSlotsAndFreesValues)
{
    qel_xhash *t = api().create(count_free, nullptr);
    for (uintptr_t i = 1; i <= 30; ++i)
        api().insert(t, &i, sizeof i, val(i));
    ASSERT_EQ(16u, t->nslot);
    qel_xhash_node **slots = t->slots;
    api().clear(t);
    EXPECT_EQ(30u, api().count(t)); // deliberately unchanged
    EXPECT_EQ(16u, t->nslot);
    EXPECT_EQ(slots, t->slots);
    for (uintptr_t i = 1; i <= 30; ++i) {
        EXPECT_EQ(1, g_freed[i]) << i;
        EXPECT_EQ(-1, api().search(t, &i, sizeof i, nullptr));
    }
    EXPECT_TRUE(walk_all(api(), t).empty());
    // Later insertions reach the threshold (64) correspondingly earlier.
    for (uintptr_t i = 100; i < 133; ++i)
        api().insert(t, &i, sizeof i, nullptr);
    EXPECT_EQ(16u, t->nslot);
    uintptr_t last = 133;
    api().insert(t, &last, sizeof last, nullptr); // count 64
    EXPECT_EQ(64u, t->nslot);
    api().destroy(t);
}

TEST_P(Xhash, DeleteFreesValueAndReportsAbsence)
{
    qel_xhash *t = api().create(count_free, nullptr);
    api().insert(t, "k", 1, val(5));
    EXPECT_EQ(-1, api().del(t, "q", 1));
    EXPECT_EQ(0, g_freed[5]);
    EXPECT_EQ(0, api().del(t, "k", 1));
    EXPECT_EQ(1, g_freed[5]);
    EXPECT_EQ(0u, api().count(t));
    EXPECT_EQ(-1, api().del(t, "k", 1));
    api().destroy(t);
    EXPECT_EQ(1, g_freed[5]);
}

int stop_at_third(const void *, uint32_t, void *, void *ctx)
{
    return ++*static_cast<int *>(ctx) == 3;
}

struct DeletingWalk {
    const Api *api;
    qel_xhash *t;
    int seen;
};
int delete_visited(const void *key, uint32_t len, void *, void *ctx)
{
    auto *w = static_cast<DeletingWalk *>(ctx);
    std::string copy(static_cast<const char *>(key), len); // the key dies with the entry
    w->seen++;
    return w->api->del(w->t, copy.data(), len) == 0 ? 0 : 1;
}

TEST_P(Xhash, WalkStopsOnRequestAndToleratesDeletingTheVisitedEntry)
{
    qel_xhash *t = api().create(count_free, constant_hash); // one long chain
    for (uintptr_t i = 1; i <= 10; ++i)
        api().insert(t, &i, sizeof i, val(i));
    int calls = 0;
    EXPECT_EQ(1, api().walk(t, &calls, stop_at_third));
    EXPECT_EQ(3, calls);
    DeletingWalk w{&api(), t, 0};
    EXPECT_EQ(0, api().walk(t, &w, delete_visited));
    EXPECT_EQ(10, w.seen);
    EXPECT_EQ(0u, api().count(t));
    for (uintptr_t i = 1; i <= 10; ++i)
        EXPECT_EQ(1, g_freed[i]);
    EXPECT_EQ(0, api().walk(t, &calls, stop_at_third)); // empty: every entry visited
    api().destroy(t);
}

int record_slot(const void *key, uint32_t, void *, void *ctx)
{
    static_cast<std::vector<int> *>(ctx)->push_back(static_cast<const unsigned char *>(key)[0]);
    return 1; // ignored by partial walks
}

TEST_P(Xhash, PartialWalkSweepsByFraction)
{
    qel_xhash *t = api().create(nullptr, first_byte_hash);
    for (unsigned char s = 0; s < 8; ++s)
        api().insert(t, &s, 1, nullptr); // key s sits in slot s
    qel_xhash_cookie *c = api().cookie_create(0.25f);
    EXPECT_EQ(0.25f, c->percent);
    EXPECT_EQ(0u, c->next);
    const std::vector<int> want[] = {{0, 1}, {2, 3}, {4, 5}, {6, 7}, {0, 1}};
    for (const auto &w : want) {
        std::vector<int> seen;
        api().walk_partial(t, c, &seen, record_slot);
        EXPECT_EQ(w, seen);
    }
    // The limit of 1.0 applies on creation only.
    api().cookie_destroy(c);
    c = api().cookie_create(3.0f);
    EXPECT_EQ(1.0f, c->percent);
    api().cookie_set_percent(c, 2.0f);
    EXPECT_EQ(2.0f, c->percent);
    std::vector<int> seen;
    api().walk_partial(t, c, &seen, record_slot); // 16 visits: every slot twice
    EXPECT_EQ(16u, seen.size());
    EXPECT_EQ(8u, c->next); // wrapped to 0 at the ninth visit
    // Zero, negative and NaN fractions visit one slot; a tiny one too.
    api().cookie_destroy(c);
    for (float f : {0.0f, -1.0f, 0.01f, std::numeric_limits<float>::quiet_NaN()}) {
        c = api().cookie_create(f);
        if (!std::isnan(f)) {
            EXPECT_EQ(f, c->percent);
        }
        seen.clear();
        api().walk_partial(t, c, &seen, record_slot);
        api().walk_partial(t, c, &seen, record_slot);
        EXPECT_EQ((std::vector<int>{0, 1}), seen) << f;
        api().cookie_destroy(c);
    }
    // A resumed walk wraps once the next slot is at or past the slot count.
    c = api().cookie_create(0.5f);
    c->next = 6;
    seen.clear();
    api().walk_partial(t, c, &seen, record_slot);
    EXPECT_EQ((std::vector<int>{6, 7, 0, 1}), seen);
    api().cookie_destroy(c);
    api().destroy(t);
}

TEST_P(Xhash, SlotinfoCountsChainLengthsBelowN)
{
    qel_xhash *t = api().create(nullptr, first_byte_hash);
    // Slot 0: 3 nodes, slot 1: 1, slot 2: 5 (too long for n = 4), others empty.
    unsigned char keys[][2] = {{0, 1}, {0, 2}, {0, 3}, {1, 1}, {2, 1}, {2, 2}, {2, 3}, {2, 4}, {2, 5}};
    for (auto &k : keys)
        api().insert(t, k, 2, nullptr);
    uint32_t counters[4] = {100, 0, 0, 0}; // added to, not reset
    api().slotinfo(t, counters, 4);
    EXPECT_EQ(105u, counters[0]);
    EXPECT_EQ(1u, counters[1]);
    EXPECT_EQ(0u, counters[2]);
    EXPECT_EQ(1u, counters[3]);
    api().destroy(t);
}

TEST_P(Xhash, UnreachableGrowthGuardReportsAndLeavesTable)
{
    // Only a host that writes the record can get here: a slot count outside
    // rows 0..5 with a reachable threshold.
    const Api *a = &api();
    qeltest::ChildResult r = qeltest::run_in_child([a] {
        qel_xhash *t = a->create(nullptr, nullptr);
        a->set_nslot(t, 20000);
        t->maxn = 2;
        uint32_t k = 1;
        a->insert(t, &k, sizeof k, nullptr);
        k = 2;
        a->insert(t, &k, sizeof k, nullptr);
        int ok = t->nslot == 32768 && t->maxn == 2 && a->count(t) == 2 && a->search(t, &k, sizeof k, nullptr) == 0;
        a->destroy(t);
        return ok ? 0 : 1;
    });
    ASSERT_TRUE(r.exited) << r.output;
    EXPECT_EQ(0, r.status) << r.output;
    EXPECT_EQ("[BUG] rehashing, can not get next_mask\n", r.output);
}

// Runs `op` in a child with the n-th funnel allocation failing, and expects
// the fatal line of this interface and exit status 0.
void expect_fatal_oom(const Api &api, long skip, const std::function<void()> &op)
{
    qeltest::expect_fatal_oom(skip, api.oom_module_regex, "out", op);
}

TEST_P(Xhash, AllocationFailuresAreFatalWithTheLowerCaseLine)
{
    const Api &a = api();
    expect_fatal_oom(a, 0, [&] { a.create(nullptr, nullptr); });     // the record
    expect_fatal_oom(a, 1, [&] { a.create(nullptr, nullptr); });     // the slot array
    expect_fatal_oom(a, 0, [&] { a.cookie_create(0.5f); });          // a cookie
    qel_xhash *t = a.create(nullptr, nullptr);
    expect_fatal_oom(a, 0, [&] { a.insert(t, "key", 3, nullptr); }); // node and key copy
    qel_xhash *b = a.create2(nullptr, nullptr, nullptr, QEL_XHASH_BORROW_KEYS);
    expect_fatal_oom(a, 0, [&] { a.insert(b, "key", 3, nullptr); }); // node of a borrowed key
    expect_fatal_oom(a, 0, [&] { a.set_nslot(t, 100); });            // a rebuild
    for (uint32_t k = 0; k < 23; ++k)
        a.insert(t, &k, sizeof k, nullptr);
    expect_fatal_oom(a, 1, [&] { // the 24th node succeeds, its growth fails
        uint32_t k = 23;
        a.insert(t, &k, sizeof k, nullptr);
    });
    EXPECT_EQ(8u, t->nslot); // the parent's table is untouched
    a.destroy(t);
    a.destroy(b);
}

INSTANTIATE_TEST_SUITE_P(Twins, Xhash, testing::Values(&kCurrent, &kLegacy),
                         [](const testing::TestParamInfo<const Api *> &i) { return std::string(i.param->name); });

// ---- differential test against std::unordered_map ----------------------------

enum class HashMode { kDefault, kConstant, kSameSlot };

struct DiffCase {
    const Api *api;
    HashMode mode;
    bool borrow;
    int ops;
    size_t universe; // distinct keys drawn from
};

std::string case_name(const testing::TestParamInfo<DiffCase> &i)
{
    const char *modes[] = {"DefaultHash", "OneChain", "OneSlot"};
    return std::string(i.param.api->name) + modes[static_cast<int>(i.param.mode)] +
           (i.param.borrow ? "Borrowed" : "Copied");
}

class XhashDifferential : public testing::TestWithParam<DiffCase> {};

// Keys: random bytes of length 0 to 40, plus prefixes of earlier keys (keys
// that differ only in length).
std::vector<std::string> make_universe(qeltest::Rng &rng, size_t n)
{
    std::vector<std::string> keys{""};
    while (keys.size() < n) {
        if (keys.size() > 1 && rng.chance(30)) {
            const std::string &base = keys[rng.range(1, keys.size() - 1)];
            keys.push_back(base.substr(0, rng.range(0, base.size())) + (rng.chance(50) ? "" : "\0"));
        } else {
            keys.push_back(rng.bytes(rng.range(0, 40), rng.chance(50) ? 'a' : 0, rng.chance(50) ? 'c' : 255));
        }
    }
    return keys;
}

int sum_walk(const void *key, uint32_t len, void *value, void *ctx)
{
    auto *m = static_cast<std::unordered_map<std::string, int> *>(ctx);
    (*m)[std::string(static_cast<const char *>(key), len)] += 1;
    (void)value;
    return 0;
}

TEST_P(XhashDifferential, MatchesUnorderedMap)
{
    const DiffCase &c = GetParam();
    const Api &api = *c.api;
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    std::vector<std::string> universe = make_universe(rng, c.universe);
    qel_xhash_hash_fn hash = c.mode == HashMode::kDefault    ? nullptr
                             : c.mode == HashMode::kConstant ? constant_hash
                                                             : same_slot_hash;
    g_freed.clear();
    qel_xhash *t = api.create2(count_free, hash, nullptr, c.borrow ? QEL_XHASH_BORROW_KEYS : 0);
    std::unordered_map<std::string, uintptr_t> model;
    std::deque<std::string> borrowed; // keeps borrowed keys alive for the whole run
    uintptr_t next_value = 1;
    uint32_t cleared = 0; // entries the count still reports after clears
    int expected_frees = 0;
    g_free_total = 0;
    const int ops = c.ops / kScale;
    for (int op = 0; op < ops; ++op) {
        const std::string &k = universe[rng.range(0, universe.size() - 1)];
        const char *kp = k.data();
        if (c.borrow) {
            borrowed.push_back(k);
            kp = borrowed.back().data();
        }
        uint32_t klen = static_cast<uint32_t>(k.size());
        int dice = static_cast<int>(rng.range(0, 99));
        if (dice < 40) { // insert or replace
            uintptr_t v = next_value++;
            auto it = model.find(k);
            uintptr_t old = it != model.end() ? it->second : 0;
            api.insert(t, kp, klen, val(v));
            if (old != 0) {
                ++expected_frees;
                ASSERT_EQ(1, g_freed[old]) << op; // the old value, once
                it->second = v;
            } else {
                model.emplace(k, v);
            }
            ASSERT_EQ(0u, g_freed.count(v)) << op;
        } else if (dice < 70) { // search
            void *got = nullptr;
            auto it = model.find(k);
            int rc = api.search(t, kp, klen, rng.chance(50) ? &got : nullptr);
            ASSERT_EQ(it != model.end() ? 0 : -1, rc) << op;
        } else if (dice < 90) { // delete
            auto it = model.find(k);
            int rc = api.del(t, kp, klen);
            ASSERT_EQ(it != model.end() ? 0 : -1, rc) << op;
            if (it != model.end()) {
                ++expected_frees;
                ASSERT_EQ(1, g_freed[it->second]) << op;
                model.erase(it);
            }
        } else if (dice < 96) { // search with the value
            void *got = val(0xdead);
            auto it = model.find(k);
            if (api.search(t, kp, klen, &got) == 0) {
                ASSERT_NE(it, model.end()) << op;
                ASSERT_EQ(val(it->second), got) << op;
            } else {
                ASSERT_EQ(it, model.end()) << op;
                ASSERT_EQ(val(0xdead), got) << op;
            }
        } else if (dice < 99) { // full walk, then a sweep of partial walks (rarer on big tables)
            if (model.size() > 1000 && !rng.chance(1))
                continue;
            std::unordered_map<std::string, int> seen;
            ASSERT_EQ(0, api.walk(t, &seen, sum_walk));
            ASSERT_EQ(model.size(), seen.size()) << op;
            for (auto &kv : seen)
                ASSERT_TRUE(kv.second == 1 && model.count(kv.first)) << op;
            std::vector<Entry> order = walk_all(api, t);
            ASSERT_EQ(record_order(t), order) << op;
            for (const Entry &e : order)
                ASSERT_EQ(model.at(e.key), e.value) << op;
            // Partial walks of one cookie cover every slot exactly once per sweep.
            float frac = 1.0f / static_cast<float>(1u << rng.range(0, 4));
            qel_xhash_cookie *ck = api.cookie_create(frac);
            uint32_t per_call = std::max<uint32_t>(1, static_cast<uint32_t>(t->nslot * frac));
            std::unordered_map<std::string, int> partial;
            for (uint32_t done = 0; done < t->nslot; done += per_call)
                api.walk_partial(t, ck, &partial, sum_walk);
            ASSERT_EQ(seen, partial) << op;
            api.cookie_destroy(ck);
            std::vector<uint32_t> hist(c.universe + 2);
            api.slotinfo(t, hist.data(), static_cast<uint32_t>(hist.size()));
            uint32_t slots = 0, entries = 0;
            for (uint32_t l = 0; l < hist.size(); ++l) {
                slots += hist[l];
                entries += l * hist[l];
            }
            ASSERT_EQ(t->nslot, slots) << op;
            ASSERT_EQ(model.size(), entries) << op;
        } else if (rng.chance(20)) { // clear, rarely
            expected_frees += static_cast<int>(model.size());
            cleared += static_cast<uint32_t>(model.size());
            model.clear();
            uint32_t nslot = t->nslot;
            api.clear(t);
            ASSERT_EQ(nslot, t->nslot);
        }
        ASSERT_EQ(expected_frees, g_free_total) << op;
        ASSERT_EQ(model.size() + cleared, api.count(t)) << op;
    }
    api.destroy(t);
    EXPECT_EQ(expected_frees + static_cast<int>(model.size()), g_free_total);
}

INSTANTIATE_TEST_SUITE_P(
    Random, XhashDifferential,
    testing::Values(DiffCase{&kCurrent, HashMode::kDefault, false, 250000, 20000},
                    DiffCase{&kCurrent, HashMode::kDefault, true, 60000, 5000},
                    DiffCase{&kCurrent, HashMode::kConstant, false, 30000, 400},
                    DiffCase{&kCurrent, HashMode::kSameSlot, true, 30000, 400},
                    DiffCase{&kLegacy, HashMode::kDefault, false, 60000, 5000},
                    DiffCase{&kLegacy, HashMode::kSameSlot, false, 20000, 400}),
    case_name);

// ---- hash set ------------------------------------------------------------------

TEST(HashSet, MapsOntoTheTable)
{
    qel_hash_set *s = qel_hash_set_init(nullptr, nullptr);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(0u, s->flags); // keys always copied
    EXPECT_EQ(nullptr, s->value_free);
    EXPECT_EQ(24u, qel_hash_set_maxn(s));
    EXPECT_EQ(0, qel_hash_set_find(s, "a", 1));
    std::string key = "a";
    qel_hash_set_insert(s, key.data(), 1);
    key[0] = 'b';
    qel_hash_set_insert(s, "a", 1);
    EXPECT_EQ(1u, qel_hash_set_size(s));
    EXPECT_EQ(1, qel_hash_set_find(s, "a", 1));
    EXPECT_EQ(0, qel_hash_set_find(s, "b", 1));
    void *v = val(1);
    EXPECT_EQ(0, qel_xhash_search(s, "a", 1, &v));
    EXPECT_EQ(nullptr, v); // the stored value is 0
    for (uint32_t i = 0; i < 30; ++i)
        qel_hash_set_insert(s, &i, sizeof i);
    EXPECT_EQ(64u, qel_hash_set_maxn(s));
    EXPECT_EQ(1, qel_hash_set_remove(s, "a", 1));
    EXPECT_EQ(0, qel_hash_set_remove(s, "a", 1));
    EXPECT_EQ(30u, qel_hash_set_size(s));
    qel_hash_set_clear(s);
    EXPECT_EQ(30u, qel_hash_set_size(s)); // as for the table
    EXPECT_EQ(0, qel_hash_set_find(s, "\0\0\0\0", 4));
    qel_hash_set_unit(s);
    qel_hash_set_unit(nullptr);
    EXPECT_EQ(0, qel_hash_set_find(nullptr, "a", 1));
    EXPECT_EQ(0, qel_hash_set_remove(nullptr, "a", 1));
    EXPECT_EQ(0u, qel_hash_set_size(nullptr));
    EXPECT_EQ(0u, qel_hash_set_maxn(nullptr));
    qel_hash_set_insert(nullptr, "a", 1);
    qel_hash_set_clear(nullptr);

    // Custom compare: case-insensitive keys of any length collapse.
    s = qel_hash_set_init(constant_hash, [](const void *a, uint32_t al, const void *b, uint32_t bl) {
        return al == bl && strncasecmp(static_cast<const char *>(a), static_cast<const char *>(b), al) == 0 ? 0 : 1;
    });
    qel_hash_set_insert(s, "Key", 3);
    EXPECT_EQ(1, qel_hash_set_find(s, "kEY", 3));
    qel_hash_set_insert(s, "KEY", 3);
    EXPECT_EQ(1u, qel_hash_set_size(s));
    qel_hash_set_unit(s);
}

} // namespace

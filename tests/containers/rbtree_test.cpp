// The red-black tree: edge cases, and differential runs against std::map with
// the red-black properties checked along the way.
#include "qel_rbtree.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "base/internal.h"
#include "support/test_util.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kScale = 8; // sanitizer builds run fewer steps
#else
constexpr int kScale = 1;
#endif

using Model = std::map<std::string, uintptr_t>;

std::vector<uintptr_t> g_freed; // values freed by the tree, in order
void record_free(void *v) { g_freed.push_back(reinterpret_cast<uintptr_t>(v)); }
void *val(uintptr_t v) { return reinterpret_cast<void *>(v); }

// The node's key, or "(null)" for no node.
std::string key_of(const qel_rbtree_node *n)
{
    return n ? std::string(static_cast<const char *>(n->key), n->key_len) : "(null)";
}

// Red-black properties and parent links of the subtree; returns its black height.
int check_subtree(const qel_rbtree_node *n, const qel_rbtree_node *parent, size_t *count)
{
    if (n == nullptr)
        return 1;
    EXPECT_EQ(parent, n->parent);
    EXPECT_TRUE(n->color == QEL_RBTREE_RED || n->color == QEL_RBTREE_BLACK);
    auto red = [](const qel_rbtree_node *c) { return c != nullptr && c->color == QEL_RBTREE_RED; };
    EXPECT_FALSE(red(n) && (red(n->left) || red(n->right))) << "red-red";
    ++*count;
    int lh = check_subtree(n->left, n, count);
    EXPECT_EQ(lh, check_subtree(n->right, n, count)) << "black heights differ";
    return lh + (n->color == QEL_RBTREE_BLACK ? 1 : 0);
}

// Root black, the properties above, cached ends and count.
void check_tree(qel_rbtree *t)
{
    size_t count = 0;
    const qel_rbtree_node *l = t->root, *r = t->root;
    if (t->root != nullptr) {
        EXPECT_EQ(QEL_RBTREE_BLACK, t->root->color);
        check_subtree(t->root, nullptr, &count);
        while (l->left)
            l = l->left;
        while (r->right)
            r = r->right;
    }
    EXPECT_EQ(l, t->first);
    EXPECT_EQ(r, t->last);
    EXPECT_EQ(count, t->count);
}

// Full in-order comparison with the model, both directions.
void check_against(qel_rbtree *t, const Model &model)
{
    ASSERT_EQ(model.size(), qel_rbtree_count(t));
    ASSERT_EQ(28 * model.size(), qel_rbtree_size(t)); // on every ABI
    qel_rbtree_node *n = qel_rbtree_first(t);
    for (const auto &[k, v] : model) {
        ASSERT_EQ(k, key_of(n));
        ASSERT_EQ(v, reinterpret_cast<uintptr_t>(n->value));
        n = qel_rbtree_next(n);
    }
    EXPECT_EQ(nullptr, n);
    n = qel_rbtree_last(t);
    for (auto it = model.rbegin(); it != model.rend(); ++it, n = qel_rbtree_prev(n))
        ASSERT_EQ(it->first, key_of(n));
    EXPECT_EQ(nullptr, n);
}

// 0..4 letters a..c: 121 keys, so most operations hit.
std::string small_key(qeltest::Rng &rng) { return rng.bytes(rng.range(0, 4), 'a', 'c'); }

// One of about 60000 keys of mixed lengths and bytes, in a scattered order.
std::string large_key(qeltest::Rng &rng)
{
    uint32_t x = static_cast<uint32_t>(rng.range(0, 59999)) * 2654435761u;
    return std::string(reinterpret_cast<const char *>(&x), 1 + x % 4) + std::to_string(x % 1000);
}

// Prefixes of one 80-byte string, most with one byte changed: order by
// unsigned bytes, then length, deep into long keys.
std::string long_key(qeltest::Rng &rng)
{
    static const std::string prefix = qeltest::Rng(qeltest::test_seed() + 2).bytes(80);
    std::string k = prefix.substr(0, rng.range(0, 80));
    if (rng.chance(70) && !k.empty())
        k[rng.range(0, k.size() - 1)] = static_cast<char>(rng.range(0, 255));
    return k;
}

// One random operation on key k, checked against the model.
void random_step(qel_rbtree *t, Model &model, qeltest::Rng &rng, const std::string &k, uintptr_t &next)
{
    const char *kp = k.data();
    uint32_t kl = static_cast<uint32_t>(k.size());
    unsigned op = static_cast<unsigned>(rng.range(0, 99));
    auto it = model.find(k);
    size_t freed = g_freed.size();
    if (op < 60) { // insert or replace (the old value is freed once), or delete
        if (op < 35)
            qel_rbtree_insert(t, kp, kl, val(next));
        else
            qel_rbtree_delete(t, kp, kl);
        ASSERT_EQ(freed + (it != model.end()), g_freed.size());
        if (it != model.end()) {
            ASSERT_EQ(it->second, g_freed.back());
        }
        if (op < 35)
            model[k] = next++;
        else
            model.erase(k);
    } else if (op < 70) { // search and cursor
        void *out = val(12345);
        ASSERT_EQ(it == model.end() ? -1 : 0, qel_rbtree_search(t, kp, kl, &out));
        ASSERT_EQ(it == model.end() ? 12345 : it->second, reinterpret_cast<uintptr_t>(out));
        ASSERT_EQ(it == model.end() ? "(null)" : k, key_of(qel_rbtree_get_cursor(t, kp, kl)));
    } else if (op < 80) { // upper bound is the floor
        auto f = model.upper_bound(k);
        ASSERT_EQ(f == model.begin() ? "(null)" : std::prev(f)->first,
                  key_of(qel_rbtree_upper_bound(t, kp, kl)));
    } else { // lower bound is the ceiling
        auto c = model.lower_bound(k);
        ASSERT_EQ(c == model.end() ? "(null)" : c->first, key_of(qel_rbtree_lower_bound(t, kp, kl)));
    }
}

class RbtreeTest : public ::testing::Test {
protected:
    void SetUp() override { g_freed.clear(); }
};

// Small keys: invariants after every step; large and long keys: periodically.
TEST_F(RbtreeTest, DifferentialAgainstMapWithInvariants)
{
    struct Case {
        std::string (*key)(qeltest::Rng &);
        int steps, check_every, compare_every;
    } cases[] = {{small_key, 300000, 1, 1000}, {large_key, 400000, 20000, 20000},
                 {long_key, 50000, 5000, 5000}};
    for (int c = 0; c < 3; ++c) {
        qeltest::Rng rng(qeltest::test_seed() + c);
        SCOPED_TRACE(testing::Message() << "case " << c << " seed " << rng.seed());
        qel_rbtree *t = qel_rbtree_create(record_free, nullptr, 0);
        Model model;
        uintptr_t next = 1;
        for (int i = 0; i < cases[c].steps / kScale; ++i) {
            ASSERT_NO_FATAL_FAILURE(random_step(t, model, rng, cases[c].key(rng), next));
            if (i % cases[c].check_every == 0) {
                check_tree(t);
                ASSERT_FALSE(HasFailure()) << "step " << i;
            }
            if (i % cases[c].compare_every == 0) {
                ASSERT_NO_FATAL_FAILURE(check_against(t, model));
            }
        }
        check_tree(t);
        check_against(t, model);
        size_t freed = g_freed.size();
        qel_rbtree_destroy(t);
        EXPECT_EQ(freed + model.size(), g_freed.size());
    }
}

int32_t numeric_compare(const void *a, uint32_t, const void *b, uint32_t)
{
    int x = atoi(static_cast<const char *>(a)), y = atoi(static_cast<const char *>(b));
    return x < y ? -1 : x > y ? 1 : 0;
}

TEST_F(RbtreeTest, BoundsFollowACustomCompare)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, numeric_compare, 0);
    for (const char *k : {"10", "20", "30"})
        qel_rbtree_insert(t, k, 3, val(1)); // includes the NUL for atoi
    auto k = [](qel_rbtree_node *n) { return n ? atoi(static_cast<const char *>(n->key)) : -1; };
    EXPECT_EQ(10, k(qel_rbtree_lower_bound(t, "5", 2))); // "5" sorts last as bytes
    EXPECT_EQ(-1, k(qel_rbtree_upper_bound(t, "5", 2)));
    EXPECT_EQ(20, k(qel_rbtree_lower_bound(t, "15", 3)));
    EXPECT_EQ(10, k(qel_rbtree_upper_bound(t, "15", 3)));
    EXPECT_EQ(30, k(qel_rbtree_upper_bound(t, "35", 3)));
    qel_rbtree_destroy(t);
}

TEST_F(RbtreeTest, KeysAreCopiedOrBorrowed)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    char buf[4] = "abc";
    qel_rbtree_insert(t, buf, 3, val(1));
    memcpy(buf, "zzz", 3);
    EXPECT_EQ(0, qel_rbtree_search(t, "abc", 3, nullptr));
    EXPECT_NE(static_cast<const void *>(buf), qel_rbtree_first(t)->key);
    qel_rbtree_destroy(t);

    t = qel_rbtree_create(nullptr, nullptr, QEL_RBTREE_BORROW_KEYS);
    static const char k1[] = "key", k2[] = "key";
    qel_rbtree_insert(t, k1, 3, val(1));
    EXPECT_EQ(static_cast<const void *>(k1), qel_rbtree_first(t)->key);
    qel_rbtree_insert(t, k2, 3, val(2)); // a replace takes the new pointer
    EXPECT_EQ(static_cast<const void *>(k2), qel_rbtree_first(t)->key);
    EXPECT_EQ(val(2), qel_rbtree_first(t)->value);
    qel_rbtree_destroy(t);
}

int stop_at_third(const void *, uint32_t, void *value, void *context)
{
    auto *seen = static_cast<std::vector<uintptr_t> *>(context);
    seen->push_back(reinterpret_cast<uintptr_t>(value));
    return seen->size() == 3 ? 77 : 0;
}

TEST_F(RbtreeTest, WalkVisitsInOrderAndReturnsTheStoppingValue)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    for (uintptr_t i = 5; i >= 1; --i) {
        char k = static_cast<char>('a' + i);
        qel_rbtree_insert(t, &k, 1, val(i));
    }
    std::vector<uintptr_t> seen;
    EXPECT_EQ(77, qel_rbtree_walk(t, &seen, stop_at_third));
    EXPECT_EQ((std::vector<uintptr_t>{1, 2, 3}), seen);
    EXPECT_EQ(0, qel_rbtree_walk(t, &seen, nullptr));
    for (const char *k : {"b", "c", "d"})
        qel_rbtree_delete(t, k, 1);
    seen.clear();
    EXPECT_EQ(0, qel_rbtree_walk(t, &seen, stop_at_third)); // never stops: two left
    EXPECT_EQ((std::vector<uintptr_t>{4, 5}), seen);
    qel_rbtree_destroy(t);
}

void post_order(const qel_rbtree_node *n, std::vector<uintptr_t> *out)
{
    if (n == nullptr)
        return;
    post_order(n->left, out);
    post_order(n->right, out);
    out->push_back(reinterpret_cast<uintptr_t>(n->value));
}

TEST_F(RbtreeTest, NullArgumentsFailQuietly)
{
    qeltest::LogCapture cap;
    qel_rbtree_insert(nullptr, "a", 1, val(1));
    qel_rbtree_delete(nullptr, "a", 1);
    EXPECT_EQ(-1, qel_rbtree_search(nullptr, "a", 1, nullptr));
    for (auto *f : {qel_rbtree_get_cursor, qel_rbtree_lower_bound, qel_rbtree_upper_bound})
        EXPECT_EQ(nullptr, f(nullptr, "a", 1));
    EXPECT_TRUE(!qel_rbtree_first(nullptr) && !qel_rbtree_last(nullptr));
    EXPECT_TRUE(!qel_rbtree_next(nullptr) && !qel_rbtree_prev(nullptr));
    EXPECT_EQ(0, qel_rbtree_walk(nullptr, nullptr, stop_at_third));
    EXPECT_EQ(0u, qel_rbtree_count(nullptr));
    EXPECT_EQ(0u, qel_rbtree_size(nullptr));
    qel_rbtree_destroy(nullptr);
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    qel_rbtree_insert(t, nullptr, 3, val(1)); // null key with a length: refused
    EXPECT_EQ(0u, qel_rbtree_count(t));
    qel_rbtree_insert(t, nullptr, 0, val(1)); // the empty key
    EXPECT_EQ(0, qel_rbtree_search(t, "", 0, nullptr));
    EXPECT_NE(nullptr, qel_rbtree_first(t)->key);
    qel_rbtree_delete(t, "zz", 2); // missing: ignored
    EXPECT_EQ(1u, qel_rbtree_count(t));
    qel_rbtree_destroy(t);
    EXPECT_TRUE(cap.lines().empty());
}

TEST_F(RbtreeTest, CreateReportsOutOfMemoryAndKeyCopyIsFatal)
{
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_rbtree_create(nullptr, nullptr, 0));
    qel::detail::fail_allocations(0, 0);
    auto r = qeltest::run_in_child([] {
        qel_log_output_register(qeltest::stderr_sink);
        qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
        qel::detail::fail_allocations(0, 1);
        qel_rbtree_insert(t, "key", 3, val(1));
        return 3; // not reached
    });
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.output.find("[MOR]      [rbtree(")) << r.output;
    EXPECT_NE(std::string::npos, r.output.find(")] Out of memory\n")) << r.output;
}

// Sorted and reversed inserts stay within the height bound 2 log2(n + 1);
// destroy frees the values in post-order (left, right, node).
TEST_F(RbtreeTest, SequentialInsertsStayBalancedAndDestroyFreesInPostOrder)
{
    for (bool reverse : {false, true}) {
        g_freed.clear();
        qel_rbtree *t = qel_rbtree_create(record_free, nullptr, 0);
        const uint32_t n = 1u << 16;
        for (uint32_t i = 0; i < n; ++i) {
            uint32_t k = __builtin_bswap32(reverse ? n - i : i); // big-endian sorts numerically
            qel_rbtree_insert(t, &k, 4, val(i + 1));
        }
        check_tree(t);
        int h = 0;
        for (qel_rbtree_node *x = t->first; x; x = x->parent)
            ++h;
        EXPECT_LE(h, 2 * 17);
        std::vector<uintptr_t> want;
        post_order(t->root, &want);
        qel_rbtree_destroy(t);
        EXPECT_EQ(want, g_freed);
    }
}

} // namespace

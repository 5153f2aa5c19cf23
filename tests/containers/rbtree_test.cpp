// The red-black tree: edge cases, and a differential run against std::map with
// the red-black properties checked after every step.
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

int32_t numeric_compare(const void *a, uint32_t, const void *b, uint32_t)
{
    int x = atoi(static_cast<const char *>(a));
    int y = atoi(static_cast<const char *>(b));
    return x < y ? -1 : x > y ? 1 : 0;
}

// Values freed by the tree, in order.
std::vector<uintptr_t> g_freed;
void record_free(void *v)
{
    g_freed.push_back(reinterpret_cast<uintptr_t>(v));
}

void *val(uintptr_t v)
{
    return reinterpret_cast<void *>(v);
}

std::string key_of(const qel_rbtree_node *n)
{
    return std::string(static_cast<const char *>(n->key), n->key_len);
}

// Checks the red-black properties of the subtree; returns its black height.
int check_subtree(const qel_rbtree_node *n, const qel_rbtree_node *parent, size_t *count)
{
    if (n == nullptr)
        return 1;
    EXPECT_EQ(parent, n->parent);
    EXPECT_TRUE(n->color == QEL_RBTREE_RED || n->color == QEL_RBTREE_BLACK);
    if (n->color == QEL_RBTREE_RED) {
        EXPECT_TRUE(n->left == nullptr || n->left->color == QEL_RBTREE_BLACK) << "red-red";
        EXPECT_TRUE(n->right == nullptr || n->right->color == QEL_RBTREE_BLACK) << "red-red";
    }
    ++*count;
    int lh = check_subtree(n->left, n, count);
    int rh = check_subtree(n->right, n, count);
    EXPECT_EQ(lh, rh) << "black heights differ";
    return lh + (n->color == QEL_RBTREE_BLACK ? 1 : 0);
}

// Root black, no red-red, equal black heights, parent links, cached ends and
// count.
void check_tree(qel_rbtree *t)
{
    size_t count = 0;
    if (t->root != nullptr) {
        EXPECT_EQ(QEL_RBTREE_BLACK, t->root->color);
        check_subtree(t->root, nullptr, &count);
        const qel_rbtree_node *l = t->root;
        while (l->left)
            l = l->left;
        const qel_rbtree_node *r = t->root;
        while (r->right)
            r = r->right;
        EXPECT_EQ(l, t->first);
        EXPECT_EQ(r, t->last);
    } else {
        EXPECT_EQ(nullptr, t->first);
        EXPECT_EQ(nullptr, t->last);
    }
    EXPECT_EQ(count, t->count);
}

// Full in-order comparison with the model, both directions.
void check_against(qel_rbtree *t, const std::map<std::string, uintptr_t> &model)
{
    ASSERT_EQ(model.size(), qel_rbtree_count(t));
    qel_rbtree_node *n = qel_rbtree_first(t);
    for (const auto &[k, v] : model) {
        ASSERT_NE(nullptr, n);
        ASSERT_EQ(k, key_of(n));
        ASSERT_EQ(v, reinterpret_cast<uintptr_t>(n->value));
        n = qel_rbtree_next(n);
    }
    EXPECT_EQ(nullptr, n);
    n = qel_rbtree_last(t);
    for (auto it = model.rbegin(); it != model.rend(); ++it) {
        ASSERT_NE(nullptr, n);
        ASSERT_EQ(it->first, key_of(n));
        n = qel_rbtree_prev(n);
    }
    EXPECT_EQ(nullptr, n);
}

// A key of 0..4 letters a..c: a space of 121 keys, so most operations hit.
std::string small_key(qeltest::Rng &rng)
{
    return rng.bytes(rng.range(0, 4), 'a', 'c');
}

// One of about 60000 keys of mixed lengths and bytes, in a scattered order.
std::string large_key(qeltest::Rng &rng)
{
    uint32_t x = static_cast<uint32_t>(rng.range(0, 59999)) * 2654435761u;
    std::string k(reinterpret_cast<const char *>(&x), 1 + x % 4);
    k += std::to_string(x % 1000);
    return k;
}

// One random operation on key k, checked against the model.
void random_step(qel_rbtree *t, std::map<std::string, uintptr_t> &model, qeltest::Rng &rng,
                 const std::string &k, uintptr_t &next_value)
{
    unsigned op = static_cast<unsigned>(rng.range(0, 99));
    if (op < 35) { // insert or replace
        uintptr_t v = next_value++;
        auto it = model.find(k);
        size_t freed = g_freed.size();
        qel_rbtree_insert(t, k.data(), static_cast<uint32_t>(k.size()), val(v));
        if (it != model.end()) {
            ASSERT_EQ(freed + 1, g_freed.size());
            ASSERT_EQ(it->second, g_freed.back());
            it->second = v;
        } else {
            ASSERT_EQ(freed, g_freed.size());
            model.emplace(k, v);
        }
    } else if (op < 60) { // delete
        auto it = model.find(k);
        size_t freed = g_freed.size();
        qel_rbtree_delete(t, k.data(), static_cast<uint32_t>(k.size()));
        if (it != model.end()) {
            ASSERT_EQ(freed + 1, g_freed.size());
            ASSERT_EQ(it->second, g_freed.back());
            model.erase(it);
        } else {
            ASSERT_EQ(freed, g_freed.size());
        }
    } else if (op < 70) { // search and cursor
        void *out = val(12345);
        int r = qel_rbtree_search(t, k.data(), static_cast<uint32_t>(k.size()), &out);
        qel_rbtree_node *c = qel_rbtree_get_cursor(t, k.data(), static_cast<uint32_t>(k.size()));
        auto it = model.find(k);
        if (it == model.end()) {
            ASSERT_EQ(-1, r);
            ASSERT_EQ(nullptr, c);
            ASSERT_EQ(val(12345), out);
        } else {
            ASSERT_EQ(0, r);
            ASSERT_EQ(it->second, reinterpret_cast<uintptr_t>(out));
            ASSERT_NE(nullptr, c);
            ASSERT_EQ(k, key_of(c));
        }
    } else if (op < 80) { // lower bound = ceiling
        qel_rbtree_node *c = qel_rbtree_lower_bound(t, k.data(), static_cast<uint32_t>(k.size()));
        auto it = model.lower_bound(k);
        if (it == model.end()) {
            ASSERT_EQ(nullptr, c);
        } else {
            ASSERT_NE(nullptr, c);
            ASSERT_EQ(it->first, key_of(c));
        }
    } else if (op < 90) { // upper bound = floor
        qel_rbtree_node *c = qel_rbtree_upper_bound(t, k.data(), static_cast<uint32_t>(k.size()));
        auto it = model.upper_bound(k);
        if (it == model.begin()) {
            ASSERT_EQ(nullptr, c);
        } else {
            --it;
            ASSERT_NE(nullptr, c);
            ASSERT_EQ(it->first, key_of(c));
        }
    } else { // cursor walk a few steps in both directions from the ceiling
        qel_rbtree_node *c = qel_rbtree_lower_bound(t, k.data(), static_cast<uint32_t>(k.size()));
        auto it = model.lower_bound(k);
        qel_rbtree_node *b = c;
        auto bit = it;
        for (int i = 0; i < 8 && it != model.end(); ++i, ++it) {
            ASSERT_NE(nullptr, c);
            ASSERT_EQ(it->first, key_of(c));
            c = qel_rbtree_next(c);
        }
        if (it == model.end()) {
            ASSERT_EQ(nullptr, c);
        }
        if (b != nullptr) {
            for (int i = 0; i < 8; ++i) {
                ASSERT_EQ(bit->first, key_of(b));
                b = qel_rbtree_prev(b);
                if (bit == model.begin()) {
                    ASSERT_EQ(nullptr, b);
                    break;
                }
                --bit;
            }
        }
    }
}

class RbtreeTest : public ::testing::Test {
protected:
    void SetUp() override { g_freed.clear(); }
};

TEST_F(RbtreeTest, DefaultComparePutsPrefixFirst)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    ASSERT_NE(nullptr, t);
    qel_rbtree_insert(t, "abd", 3, val(3));
    qel_rbtree_insert(t, "abc", 3, val(2));
    qel_rbtree_insert(t, "ab", 2, val(1));
    qel_rbtree_insert(t, "\xff", 1, val(4)); // bytes compare unsigned
    qel_rbtree_insert(t, "", 0, val(0));
    std::vector<std::string> order;
    for (qel_rbtree_node *n = qel_rbtree_first(t); n; n = qel_rbtree_next(n))
        order.push_back(key_of(n));
    EXPECT_EQ((std::vector<std::string>{"", "ab", "abc", "abd", "\xff"}), order);
    qel_rbtree_destroy(t);
}

TEST_F(RbtreeTest, BoundsAreCeilingAndFloor)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, numeric_compare, 0);
    for (const char *k : {"10", "20", "30"})
        qel_rbtree_insert(t, k, 3, val(1)); // includes the NUL for atoi
    auto key = [](qel_rbtree_node *n) { return n ? atoi(static_cast<const char *>(n->key)) : -1; };
    EXPECT_EQ(20, key(qel_rbtree_lower_bound(t, "15", 3)));
    EXPECT_EQ(10, key(qel_rbtree_upper_bound(t, "15", 3)));
    EXPECT_EQ(nullptr, qel_rbtree_lower_bound(t, "35", 3));
    EXPECT_EQ(nullptr, qel_rbtree_upper_bound(t, "5", 2));
    EXPECT_EQ(20, key(qel_rbtree_lower_bound(t, "20", 3)));
    EXPECT_EQ(20, key(qel_rbtree_upper_bound(t, "20", 3)));
    EXPECT_EQ(10, key(qel_rbtree_lower_bound(t, "5", 2)));
    EXPECT_EQ(30, key(qel_rbtree_upper_bound(t, "35", 3)));
    qel_rbtree_destroy(t);
}

TEST_F(RbtreeTest, DeletingFirstAndLastMovesTheCachedEnds)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    for (const char *k : {"b", "a", "c", "d"})
        qel_rbtree_insert(t, k, 1, val(1));
    qel_rbtree_delete(t, "a", 1);
    EXPECT_EQ("b", key_of(qel_rbtree_first(t)));
    qel_rbtree_delete(t, "d", 1);
    EXPECT_EQ("c", key_of(qel_rbtree_last(t)));
    qel_rbtree_delete(t, "zz", 2); // missing: ignored
    EXPECT_EQ(2u, qel_rbtree_count(t));
    qel_rbtree_delete(t, "b", 1);
    qel_rbtree_delete(t, "c", 1);
    EXPECT_EQ(nullptr, qel_rbtree_first(t));
    EXPECT_EQ(nullptr, qel_rbtree_last(t));
    EXPECT_EQ(nullptr, t->root);
    qel_rbtree_destroy(t);
}

TEST_F(RbtreeTest, InsertExistingKeyReplacesValueAndFreesOldOnce)
{
    qel_rbtree *t = qel_rbtree_create(record_free, nullptr, 0);
    qel_rbtree_insert(t, "k", 1, val(1));
    qel_rbtree_insert(t, "k", 1, val(2));
    EXPECT_EQ(1u, qel_rbtree_count(t));
    EXPECT_EQ(std::vector<uintptr_t>{1}, g_freed);
    void *out = nullptr;
    EXPECT_EQ(0, qel_rbtree_search(t, "k", 1, &out));
    EXPECT_EQ(val(2), out);
    EXPECT_EQ(0, qel_rbtree_search(t, "k", 1, nullptr));
    EXPECT_EQ(-1, qel_rbtree_search(t, "q", 1, &out));
    qel_rbtree_delete(t, "k", 1);
    EXPECT_EQ((std::vector<uintptr_t>{1, 2}), g_freed);
    qel_rbtree_destroy(t);
}

TEST_F(RbtreeTest, CopiedKeysAreIndependentOfTheCallersBuffer)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    char buf[4] = "abc";
    qel_rbtree_insert(t, buf, 3, val(1));
    memcpy(buf, "zzz", 3);
    EXPECT_EQ(0, qel_rbtree_search(t, "abc", 3, nullptr));
    EXPECT_NE(static_cast<const void *>(buf), qel_rbtree_first(t)->key);
    qel_rbtree_destroy(t);
}

TEST_F(RbtreeTest, BorrowedKeysTakeTheNewPointerOnReplace)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, QEL_RBTREE_BORROW_KEYS);
    static const char k1[] = "key";
    static const char k2[] = "key";
    qel_rbtree_insert(t, k1, 3, val(1));
    EXPECT_EQ(static_cast<const void *>(k1), qel_rbtree_first(t)->key);
    qel_rbtree_insert(t, k2, 3, val(2));
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

int collect_all(const void *, uint32_t, void *value, void *context)
{
    static_cast<std::vector<uintptr_t> *>(context)->push_back(reinterpret_cast<uintptr_t>(value));
    return 0;
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
    qel_rbtree_delete(t, "b", 1);
    qel_rbtree_delete(t, "c", 1);
    seen.clear();
    EXPECT_EQ(0, qel_rbtree_walk(t, &seen, collect_all));
    EXPECT_EQ((std::vector<uintptr_t>{3, 4, 5}), seen);
    qel_rbtree_destroy(t);
}

TEST_F(RbtreeTest, SizeIsCountTimes28OnEveryAbi)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    for (int i = 0; i < 10; ++i)
        qel_rbtree_insert(t, &i, sizeof i, val(1));
    EXPECT_EQ(10u, qel_rbtree_count(t));
    EXPECT_EQ(280u, qel_rbtree_size(t));
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

TEST_F(RbtreeTest, DestroyFreesInPostOrder)
{
    qel_rbtree *t = qel_rbtree_create(record_free, nullptr, 0);
    for (uintptr_t i = 1; i <= 50; ++i) {
        uint32_t k = __builtin_bswap32(static_cast<uint32_t>(i * 37 % 101));
        qel_rbtree_insert(t, &k, 4, val(i));
    }
    std::vector<uintptr_t> want;
    post_order(t->root, &want);
    qel_rbtree_destroy(t);
    EXPECT_EQ(want, g_freed);
}

TEST_F(RbtreeTest, DestroyFreesEveryValue)
{
    qel_rbtree *t = qel_rbtree_create(record_free, nullptr, 0);
    for (uintptr_t i = 1; i <= 100; ++i)
        qel_rbtree_insert(t, &i, sizeof i, val(i));
    qel_rbtree_destroy(t);
    EXPECT_EQ(100u, g_freed.size());
    qel_rbtree_destroy(nullptr);
}

TEST_F(RbtreeTest, NullArgumentsFailQuietly)
{
    qeltest::LogCapture cap;
    qel_rbtree_insert(nullptr, "a", 1, val(1));
    qel_rbtree_delete(nullptr, "a", 1);
    EXPECT_EQ(-1, qel_rbtree_search(nullptr, "a", 1, nullptr));
    EXPECT_EQ(nullptr, qel_rbtree_get_cursor(nullptr, "a", 1));
    EXPECT_EQ(nullptr, qel_rbtree_lower_bound(nullptr, "a", 1));
    EXPECT_EQ(nullptr, qel_rbtree_upper_bound(nullptr, "a", 1));
    EXPECT_EQ(nullptr, qel_rbtree_first(nullptr));
    EXPECT_EQ(nullptr, qel_rbtree_last(nullptr));
    EXPECT_EQ(nullptr, qel_rbtree_next(nullptr));
    EXPECT_EQ(nullptr, qel_rbtree_prev(nullptr));
    EXPECT_EQ(0, qel_rbtree_walk(nullptr, nullptr, stop_at_third));
    EXPECT_EQ(0u, qel_rbtree_count(nullptr));
    EXPECT_EQ(0u, qel_rbtree_size(nullptr));
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    qel_rbtree_insert(t, nullptr, 3, val(1)); // null key with a length: refused
    EXPECT_EQ(0u, qel_rbtree_count(t));
    qel_rbtree_insert(t, nullptr, 0, val(1)); // the empty key
    EXPECT_EQ(0, qel_rbtree_search(t, "", 0, nullptr));
    EXPECT_NE(nullptr, qel_rbtree_first(t)->key);
    qel_rbtree_destroy(t);
    EXPECT_TRUE(cap.lines().empty());
}

TEST_F(RbtreeTest, CreateReturnsNullWhenOutOfMemory)
{
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_rbtree_create(nullptr, nullptr, 0));
    qel::detail::fail_allocations(0, 0);
}

TEST_F(RbtreeTest, KeyCopyFailureIsFatalForRbtree)
{
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

// Many random operations over a small key space, every step checked.
TEST_F(RbtreeTest, DifferentialAgainstMapWithInvariantsEveryStep)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    qel_rbtree *t = qel_rbtree_create(record_free, nullptr, 0);
    std::map<std::string, uintptr_t> model;
    uintptr_t next_value = 1;
    const int steps = 300000 / kScale;
    for (int i = 0; i < steps; ++i) {
        ASSERT_NO_FATAL_FAILURE(random_step(t, model, rng, small_key(rng), next_value));
        check_tree(t);
        if (::testing::Test::HasFailure())
            FAIL() << "step " << i;
        if (i % 1000 == 0) {
            ASSERT_NO_FATAL_FAILURE(check_against(t, model));
        }
    }
    check_against(t, model);
    size_t freed = g_freed.size();
    qel_rbtree_destroy(t);
    EXPECT_EQ(freed + model.size(), g_freed.size());
}

// A large tree with long keys; invariants checked periodically.
TEST_F(RbtreeTest, DifferentialAgainstMapLargeTree)
{
    qeltest::Rng rng(qeltest::test_seed() + 1);
    SCOPED_TRACE(rng.seed());
    qel_rbtree *t = qel_rbtree_create(record_free, nullptr, 0);
    std::map<std::string, uintptr_t> model;
    uintptr_t next_value = 1;
    const int steps = 400000 / kScale;
    for (int i = 0; i < steps; ++i) {
        ASSERT_NO_FATAL_FAILURE(random_step(t, model, rng, large_key(rng), next_value));
        if (i % 20000 == 0) {
            check_tree(t);
            ASSERT_NO_FATAL_FAILURE(check_against(t, model));
        }
    }
    check_tree(t);
    check_against(t, model);
    qel_rbtree_destroy(t);
}

// Keys of every length up to 80 sharing long prefixes: the order is that of
// std::string (unsigned bytes, then length).
TEST_F(RbtreeTest, DefaultCompareMatchesByteOrderForLongKeys)
{
    qeltest::Rng rng(qeltest::test_seed() + 2);
    SCOPED_TRACE(rng.seed());
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    std::map<std::string, uintptr_t> model;
    const std::string prefix = rng.bytes(80);
    for (uintptr_t i = 1; i <= 5000; ++i) {
        std::string k = prefix.substr(0, rng.range(0, 80));
        if (rng.chance(70) && !k.empty())
            k[rng.range(0, k.size() - 1)] = static_cast<char>(rng.range(0, 255));
        qel_rbtree_insert(t, k.data(), static_cast<uint32_t>(k.size()), val(i));
        model[k] = i;
    }
    check_tree(t);
    check_against(t, model);
    qel_rbtree_destroy(t);
}

// Keys inserted in sorted and reversed order stay balanced.
TEST_F(RbtreeTest, SequentialInsertsStayBalanced)
{
    for (bool reverse : {false, true}) {
        qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
        const uint32_t n = 1u << 16;
        for (uint32_t i = 0; i < n; ++i) {
            uint32_t k = __builtin_bswap32(reverse ? n - i : i); // big-endian sorts numerically
            qel_rbtree_insert(t, &k, 4, val(1));
        }
        check_tree(t);
        // Height is at most 2 log2(n + 1).
        int h = 0;
        for (qel_rbtree_node *x = t->first; x; x = x->parent)
            ++h;
        EXPECT_LE(h, 2 * 17);
        qel_rbtree_destroy(t);
    }
}

} // namespace

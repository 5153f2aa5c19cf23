// The vector: capacity rules, element access against std::vector, and the sort
// against std::sort on random and adversarial input, with compare counts and
// a small stack.
#include "qel_vector.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "base/internal.h"
#include "support/test_util.h"

namespace {

using Values = std::vector<uintptr_t>;

void *val(uintptr_t v) { return reinterpret_cast<void *>(v); }
uintptr_t num(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// Compares only the bits above the low byte, so elements can tie.
long g_compares = 0;
int compare_high(const void *a, const void *b)
{
    ++g_compares;
    return num(a) >> 8 < num(b) >> 8 ? -1 : num(a) >> 8 > num(b) >> 8 ? 1 : 0;
}

qel_vector *make(const Values &values, uint32_t capacity = 0)
{
    qel_vector *v = nullptr;
    EXPECT_EQ(QEL_OK, qel_vector_create(&v, capacity));
    for (uintptr_t x : values)
        EXPECT_EQ(QEL_OK, qel_vector_push_back(v, val(x)));
    return v;
}

Values contents(qel_vector *v)
{
    Values out;
    for (uint32_t i = 0; i < qel_vector_size(v); ++i)
        out.push_back(num(qel_vector_pos_at(v, i)));
    return out;
}

// Capacity 0 means 256, and a full vector doubles into zeroed space.
TEST(Vector, CapacityRulesArgumentsAndAllocationFailures)
{
    qel_vector *v = make({});
    EXPECT_EQ(256u, qel_vector_capacity(v));
    for (uintptr_t i = 1; i <= 256; ++i)
        qel_vector_push_back(v, val(i));
    qel_vector_push_back(v, val(257)); // the exact doubling point is the model's
    EXPECT_EQ(512u, qel_vector_capacity(v));
    EXPECT_EQ(nullptr, v->elements[257]);
    qel_vector_destroy(v);
    v = make({1, 2}, 2);
    qel::detail::fail_allocations(0, 1); // growing to 4
    EXPECT_EQ(QEL_E_NOMEM, qel_vector_push_back(v, val(3)));
    qel::detail::fail_allocations(0, 0);
    EXPECT_EQ(2u, qel_vector_capacity(v));
    EXPECT_EQ((Values{1, 2}), contents(v));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_push_back(v, nullptr));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_qsort(v, nullptr));
    qel_vector_destroy(v);

    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_create(nullptr, 0));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_push_back(nullptr, val(1)));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_qsort(nullptr, compare_high));
    EXPECT_EQ(0u, qel_vector_size(nullptr) + qel_vector_capacity(nullptr));
    EXPECT_EQ(1, qel_vector_empty(nullptr));
    EXPECT_EQ(nullptr, qel_vector_pop_back(nullptr));
    EXPECT_EQ(nullptr, qel_vector_pos_at(nullptr, 0));
    EXPECT_EQ(nullptr, qel_vector_pos_del(nullptr, 0));
    qel_vector_destroy(nullptr);
    v = nullptr;
    for (int skip : {0, 1}) { // the record, then the array (the record is freed)
        qel::detail::fail_allocations(skip, 1);
        EXPECT_EQ(QEL_E_NOMEM, qel_vector_create(&v, 0));
        qel::detail::fail_allocations(0, 0);
        EXPECT_EQ(nullptr, v);
    }
}

// Push, pop, read and delete at any position (valid or past the end). pop_back
// zeroes the vacated slot; pos_del leaves it holding the last element.
TEST(Vector, RandomOperationsAgainstStdVector)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    qel_vector *v = make({}, 1);
    Values model;
    uint32_t capacity = 1; // doubles when full, never shrinks
    for (int i = 0; i < 20000; ++i) {
        unsigned op = static_cast<unsigned>(rng.range(0, 9));
        uint32_t at = static_cast<uint32_t>(rng.range(0, model.size() + 1));
        if (op < 5) {
            model.push_back(rng.range(1, 1000));
            ASSERT_EQ(QEL_OK, qel_vector_push_back(v, val(model.back())));
        } else if (op < 7) {
            ASSERT_EQ(model.empty() ? 0 : model.back(), num(qel_vector_pop_back(v)));
            if (!model.empty()) {
                model.pop_back();
                ASSERT_EQ(nullptr, v->elements[model.size()]);
            }
        } else if (op < 8) {
            ASSERT_EQ(at < model.size() ? model[at] : 0, num(qel_vector_pos_at(v, at)));
        } else {
            ASSERT_EQ(at < model.size() ? model[at] : 0, num(qel_vector_pos_del(v, at)));
            if (at < model.size()) {
                uintptr_t last = model.back();
                model.erase(model.begin() + at);
                ASSERT_EQ(last, num(v->elements[model.size()]));
            }
        }
        ASSERT_EQ(model.size(), qel_vector_size(v));
        capacity *= model.size() > capacity ? 2 : 1;
        ASSERT_EQ(capacity, qel_vector_capacity(v));
        ASSERT_EQ(model.empty(), qel_vector_empty(v) == 1);
    }
    EXPECT_EQ(model, contents(v));
    qel_vector_destroy(v);
}

// Inputs that break naive quicksorts.
uintptr_t pattern(int kind, size_t i, size_t n, qeltest::Rng &rng)
{
    switch (kind) {
    case 0: return rng.range(1, 1u << 22);               // random
    case 1: return i + 1;                                 // sorted
    case 2: return n - i;                                 // reversed
    case 3: return 7;                                     // all equal
    case 4: return rng.range(1, 4);                       // few distinct
    case 5: return i < n / 2 ? i + 1 : n - i;             // organ pipe
    case 6: return i % 64 + 1;                            // sawtooth
    case 7: return i + 1 + (i % 100 == 0 ? n : 0);        // nearly sorted
    default: return (i & 1) ? i : n - i + 1;              // interleaved
    }
}

// Every pattern at many sizes, with a random low byte the compare ignores:
// the result is a permutation sorted by the compare, and at the largest size
// the compare count stays below 2 n log2 n.
TEST(Vector, QsortSortsEveryPatternWithTiesAndIsNeverQuadratic)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (size_t n : {0, 1, 2, 3, 5, 16, 17, 31, 100, 129, 1000, 4099, 100000}) {
        for (int kind = 0; kind < 9; ++kind) {
            SCOPED_TRACE(testing::Message() << "n=" << n << " kind=" << kind);
            Values in(n);
            for (size_t i = 0; i < n; ++i)
                in[i] = pattern(kind, i, n, rng) << 8 | rng.range(0, 255);
            qel_vector *v = make(in);
            g_compares = 0;
            ASSERT_EQ(QEL_OK, qel_vector_qsort(v, compare_high));
            double bound = n < 100000 ? 1e18 : 2.0 * n * std::log2(static_cast<double>(n));
            EXPECT_LT(static_cast<double>(g_compares), bound);
            Values out = contents(v);
            auto high_less = [](uintptr_t a, uintptr_t b) { return a >> 8 < b >> 8; };
            ASSERT_TRUE(std::is_sorted(out.begin(), out.end(), high_less));
            std::sort(in.begin(), in.end());
            std::sort(out.begin(), out.end());
            ASSERT_EQ(in, out);
            qel_vector_destroy(v);
        }
    }
}

void *sort_thread(void *v)
{
    return val(static_cast<uintptr_t>(qel_vector_qsort(static_cast<qel_vector *>(v), compare_high)));
}

// Sorted and reversed vectors of 10 million elements sort on a thread with a
// 256 KiB stack (1 million in sanitizer builds, which are far slower).
TEST(Vector, LargeSortedVectorSortsOnASmallStack)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const uint32_t n = 1000000u;
#else
    const uint32_t n = 10000000u;
#endif
    for (bool reversed : {false, true}) {
        qel_vector *v = make({}, n);
        for (uint32_t i = 0; i < n; ++i)
            qel_vector_push_back(v, val(uintptr_t{reversed ? n - i : i + 1} << 8));
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        ASSERT_EQ(0, pthread_attr_setstacksize(&attr, 256 * 1024));
        pthread_t th;
        void *result = val(1);
        ASSERT_EQ(0, pthread_create(&th, &attr, sort_thread, v));
        pthread_join(th, &result);
        pthread_attr_destroy(&attr);
        EXPECT_EQ(val(QEL_OK), result);
        uint32_t i = 0;
        while (i < n && num(v->elements[i]) == uintptr_t{i + 1} << 8)
            ++i;
        EXPECT_EQ(n, i);
        qel_vector_destroy(v);
    }
}

} // namespace

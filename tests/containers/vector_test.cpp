// The vector: capacity rules, element access, and the sort against std::sort
// on random and adversarial input, with compare counts and a small stack.
#include "qel_vector.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "base/internal.h"
#include "support/test_util.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

void *val(uintptr_t v)
{
    return reinterpret_cast<void *>(v);
}

uintptr_t num(void *p)
{
    return reinterpret_cast<uintptr_t>(p);
}

long g_compares = 0;

int compare_values(const void *a, const void *b)
{
    ++g_compares;
    uintptr_t x = reinterpret_cast<uintptr_t>(a);
    uintptr_t y = reinterpret_cast<uintptr_t>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

// Compares only the high bits, so elements that differ in the low bits tie.
int compare_high(const void *a, const void *b)
{
    uintptr_t x = reinterpret_cast<uintptr_t>(a) >> 8;
    uintptr_t y = reinterpret_cast<uintptr_t>(b) >> 8;
    return x < y ? -1 : x > y ? 1 : 0;
}

qel_vector *make(const std::vector<uintptr_t> &values)
{
    qel_vector *v = nullptr;
    EXPECT_EQ(QEL_OK, qel_vector_create(&v, 0));
    for (uintptr_t x : values)
        EXPECT_EQ(QEL_OK, qel_vector_push_back(v, val(x)));
    return v;
}

std::vector<uintptr_t> contents(qel_vector *v)
{
    std::vector<uintptr_t> out;
    for (uint32_t i = 0; i < qel_vector_size(v); ++i)
        out.push_back(num(qel_vector_pos_at(v, i)));
    return out;
}

TEST(Vector, CapacityZeroMeans256AndDoubles)
{
    qel_vector *v = nullptr;
    ASSERT_EQ(QEL_OK, qel_vector_create(&v, 0));
    EXPECT_EQ(256u, qel_vector_capacity(v));
    EXPECT_EQ(0u, qel_vector_size(v));
    EXPECT_EQ(1, qel_vector_empty(v));
    for (uintptr_t i = 1; i <= 256; ++i)
        ASSERT_EQ(QEL_OK, qel_vector_push_back(v, val(i)));
    EXPECT_EQ(256u, qel_vector_capacity(v));
    ASSERT_EQ(QEL_OK, qel_vector_push_back(v, val(257)));
    EXPECT_EQ(512u, qel_vector_capacity(v));
    EXPECT_EQ(257u, qel_vector_size(v));
    for (uintptr_t i = 1; i <= 257; ++i)
        ASSERT_EQ(i, num(qel_vector_pos_at(v, static_cast<uint32_t>(i - 1))));
    EXPECT_EQ(nullptr, v->elements[257]); // the grown array is zero-filled
    qel_vector_destroy(v);

    ASSERT_EQ(QEL_OK, qel_vector_create(&v, 3));
    EXPECT_EQ(3u, qel_vector_capacity(v));
    for (uintptr_t i = 1; i <= 4; ++i)
        qel_vector_push_back(v, val(i));
    EXPECT_EQ(6u, qel_vector_capacity(v));
    qel_vector_destroy(v);
}

TEST(Vector, RefusesNullAndReportsArguments)
{
    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_create(nullptr, 0));
    qel_vector *v = make({1, 2});
    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_push_back(v, nullptr));
    EXPECT_EQ(2u, qel_vector_size(v));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_push_back(nullptr, val(1)));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_qsort(v, nullptr));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_vector_qsort(nullptr, compare_values));
    EXPECT_EQ(nullptr, qel_vector_pop_back(nullptr));
    EXPECT_EQ(0u, qel_vector_size(nullptr));
    EXPECT_EQ(0u, qel_vector_capacity(nullptr));
    EXPECT_EQ(1, qel_vector_empty(nullptr));
    EXPECT_EQ(0, qel_vector_empty(v));
    EXPECT_EQ(nullptr, qel_vector_pos_at(nullptr, 0));
    EXPECT_EQ(nullptr, qel_vector_pos_at(v, 2));
    EXPECT_EQ(nullptr, qel_vector_pos_del(v, 2));
    EXPECT_EQ(nullptr, qel_vector_pos_del(nullptr, 0));
    qel_vector_destroy(v);
    qel_vector_destroy(nullptr);
}

TEST(Vector, AllocationFailuresAreReported)
{
    qel_vector *v = nullptr;
    qel::detail::fail_allocations(0, 1); // the record
    EXPECT_EQ(QEL_E_NOMEM, qel_vector_create(&v, 0));
    qel::detail::fail_allocations(1, 1); // the array; the record is freed
    EXPECT_EQ(QEL_E_NOMEM, qel_vector_create(&v, 0));
    qel::detail::fail_allocations(0, 0);
    EXPECT_EQ(nullptr, v);

    ASSERT_EQ(QEL_OK, qel_vector_create(&v, 2));
    qel_vector_push_back(v, val(1));
    qel_vector_push_back(v, val(2));
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(QEL_E_NOMEM, qel_vector_push_back(v, val(3)));
    qel::detail::fail_allocations(0, 0);
    EXPECT_EQ(2u, qel_vector_size(v));
    EXPECT_EQ(2u, qel_vector_capacity(v));
    EXPECT_EQ((std::vector<uintptr_t>{1, 2}), contents(v));
    qel_vector_destroy(v);
}

TEST(Vector, PopBackZeroesTheSlotAndPosDelLeavesIt)
{
    qel_vector *v = make({1, 2, 3, 4});
    EXPECT_EQ(4u, num(qel_vector_pop_back(v)));
    EXPECT_EQ(nullptr, v->elements[3]);
    EXPECT_EQ(3u, qel_vector_size(v));
    EXPECT_EQ(1u, num(qel_vector_pos_del(v, 0)));
    EXPECT_EQ((std::vector<uintptr_t>{2, 3}), contents(v));
    EXPECT_EQ(3u, num(v->elements[2])); // the vacated last slot keeps its contents
    EXPECT_EQ(3u, num(qel_vector_pos_del(v, 1)));
    EXPECT_EQ(3u, num(v->elements[1]));
    EXPECT_EQ(2u, num(qel_vector_pop_back(v)));
    EXPECT_EQ(nullptr, qel_vector_pop_back(v));
    EXPECT_EQ(nullptr, qel_vector_pos_del(v, 0));
    EXPECT_EQ(1, qel_vector_empty(v));
    qel_vector_destroy(v);
}

TEST(Vector, RandomOperationsAgainstStdVector)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    qel_vector *v = nullptr;
    ASSERT_EQ(QEL_OK, qel_vector_create(&v, 1));
    std::vector<uintptr_t> model;
    for (int i = 0; i < 20000; ++i) {
        unsigned op = static_cast<unsigned>(rng.range(0, 9));
        if (op < 5) {
            uintptr_t x = rng.range(1, 1000);
            ASSERT_EQ(QEL_OK, qel_vector_push_back(v, val(x)));
            model.push_back(x);
        } else if (op < 7) {
            uintptr_t got = num(qel_vector_pop_back(v));
            ASSERT_EQ(model.empty() ? 0 : model.back(), got);
            if (!model.empty())
                model.pop_back();
        } else {
            uint32_t at = static_cast<uint32_t>(rng.range(0, model.size() + 1));
            uintptr_t got = num(qel_vector_pos_del(v, at));
            if (at < model.size()) {
                ASSERT_EQ(model[at], got);
                model.erase(model.begin() + at);
            } else {
                ASSERT_EQ(0u, got);
            }
        }
        ASSERT_EQ(model.size(), qel_vector_size(v));
    }
    EXPECT_EQ(model, contents(v));
    qel_vector_destroy(v);
}

// Inputs that break naive quicksorts.
std::vector<uintptr_t> pattern(int kind, size_t n, qeltest::Rng &rng)
{
    std::vector<uintptr_t> a(n);
    for (size_t i = 0; i < n; ++i) {
        switch (kind) {
        case 0: a[i] = rng.range(1, 1u << 30); break;     // random
        case 1: a[i] = i + 1; break;                        // sorted
        case 2: a[i] = n - i; break;                        // reversed
        case 3: a[i] = 7; break;                            // all equal
        case 4: a[i] = rng.range(1, 4); break;              // few distinct
        case 5: a[i] = i < n / 2 ? i + 1 : n - i; break;    // organ pipe
        case 6: a[i] = i % 64 + 1; break;                   // sawtooth
        case 7: a[i] = i + 1 + (i % 100 == 0 ? n : 0); break; // nearly sorted
        default: a[i] = (i & 1) ? i : n - i + 1; break;     // interleaved
        }
    }
    return a;
}

TEST(Vector, QsortMatchesStdSortOnManyInputs)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (size_t n : {0, 1, 2, 3, 5, 16, 17, 31, 100, 129, 1000, 4099, 30000}) {
        for (int kind = 0; kind < 9; ++kind) {
            SCOPED_TRACE(testing::Message() << "n=" << n << " kind=" << kind);
            std::vector<uintptr_t> in = pattern(kind, n, rng);
            qel_vector *v = make(in);
            ASSERT_EQ(QEL_OK, qel_vector_qsort(v, compare_values));
            std::sort(in.begin(), in.end());
            ASSERT_EQ(in, contents(v));
            qel_vector_destroy(v);
        }
    }
}

TEST(Vector, QsortWithTiesIsAPermutationSortedByTheCompare)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 50; ++round) {
        size_t n = rng.range(0, 3000);
        std::vector<uintptr_t> in(n);
        for (auto &x : in)
            x = (rng.range(0, 20) << 8) | rng.range(1, 255); // many ties under compare_high
        qel_vector *v = make(in);
        ASSERT_EQ(QEL_OK, qel_vector_qsort(v, compare_high));
        std::vector<uintptr_t> out = contents(v);
        ASSERT_TRUE(std::is_sorted(out.begin(), out.end(),
                                   [](uintptr_t a, uintptr_t b) { return (a >> 8) < (b >> 8); }));
        std::sort(in.begin(), in.end());
        std::sort(out.begin(), out.end());
        ASSERT_EQ(in, out);
        qel_vector_destroy(v);
    }
}

TEST(Vector, QsortIsNeverQuadratic)
{
    qeltest::Rng rng;
    const size_t n = 100000;
    const double bound = 2.0 * n * std::log2(static_cast<double>(n));
    for (int kind = 0; kind < 9; ++kind) {
        SCOPED_TRACE(kind);
        qel_vector *v = make(pattern(kind, n, rng));
        g_compares = 0;
        ASSERT_EQ(QEL_OK, qel_vector_qsort(v, compare_values));
        EXPECT_LT(static_cast<double>(g_compares), bound);
        qel_vector_destroy(v);
    }
}

struct BigSort {
    qel_vector *v;
    qel_result result;
};

void *sort_thread(void *arg)
{
    auto *job = static_cast<BigSort *>(arg);
    job->result = qel_vector_qsort(job->v, compare_values);
    return nullptr;
}

// A sorted vector of 10 million elements sorts on a thread with a 256 KiB
// stack (1 million in sanitizer builds, which are far slower).
TEST(Vector, LargeSortedVectorSortsOnASmallStack)
{
    const uint32_t n = kSanitized ? 1000000u : 10000000u;
    for (int kind : {1, 2}) {
        qel_vector *v = nullptr;
        ASSERT_EQ(QEL_OK, qel_vector_create(&v, n));
        for (uint32_t i = 0; i < n; ++i)
            qel_vector_push_back(v, val(kind == 1 ? i + 1 : n - i));
        BigSort job{v, QEL_E_FAIL};
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        ASSERT_EQ(0, pthread_attr_setstacksize(&attr, 256 * 1024));
        pthread_t th;
        ASSERT_EQ(0, pthread_create(&th, &attr, sort_thread, &job));
        pthread_join(th, nullptr);
        pthread_attr_destroy(&attr);
        EXPECT_EQ(QEL_OK, job.result);
        bool sorted = true;
        for (uint32_t i = 0; i < n && sorted; ++i)
            sorted = num(v->elements[i]) == i + 1;
        EXPECT_TRUE(sorted);
        qel_vector_destroy(v);
    }
}

} // namespace

#include "qel_mem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <sys/mman.h>
#include <csignal>
#include <vector>

#include "base/internal.h"
#include "support/test_util.h"

namespace {

constexpr uint32_t kTag = 0x6B6F6C66; // "flok"

TEST(Mem, RoundUpPower2)
{
    struct {
        uint32_t in, out;
    } cases[] = {{0, 0}, {1, 1}, {2, 2}, {3, 4}, {5, 8}, {4096, 4096}, {4097, 8192},
                 {0x80000000u, 0x80000000u}, {0x80000001u, 0}, {0xFFFFFFFFu, 0}};
    for (auto c : cases)
        EXPECT_EQ(c.out, qel_round_up_power2(c.in)) << c.in;
    for (uint32_t x = 1; x < 70000; ++x) {
        uint32_t p = qel_round_up_power2(x);
        ASSERT_TRUE(p >= x && (p & (p - 1)) == 0 && p / 2 < x) << x;
    }
}

TEST(Mem, EndianAndByteSwap)
{
    EXPECT_EQ(1, qel_check_os_endian());
    EXPECT_EQ(1, qel_check_os_endian()); // cached
    EXPECT_EQ(0x04030201u, qel_uint32_endianb2l(0x01020304u));
    EXPECT_EQ(0xDEADBEEFu, qel_uint32_endianb2l(qel_uint32_endianb2l(0xDEADBEEFu)));
}

TEST(Mem, CountedHeapCountsOnlyValidCalls)
{
    qel_heap h = nullptr;
    EXPECT_EQ(QEL_E_INVALIDARG, qel_heap_mem_init(nullptr, nullptr));
    ASSERT_EQ(QEL_OK, qel_heap_mem_init(nullptr, &h));
    EXPECT_EQ(&g_heap, h);
    int32_t before = g_heap;
    EXPECT_EQ(nullptr, qel_heap_mem_alloc(nullptr, 0, 16));
    EXPECT_EQ(nullptr, qel_heap_mem_alloc(nullptr, kTag, 0));
    EXPECT_EQ(before, g_heap);
    void *b = qel_heap_mem_alloc(nullptr, kTag, 32);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(before + 1, g_heap);
    qel_heap_mem_free(nullptr, nullptr, kTag);
    qel_heap_mem_free(nullptr, b, 0); // ignored: the block stays allocated
    EXPECT_EQ(before + 1, g_heap);
    memset(b, 0xAB, 32); // still ours (ASan would object otherwise)
    qel_heap_mem_free(nullptr, b, kTag);
    EXPECT_EQ(before, g_heap);
    qel_heap_mem_destroy(h);
}

TEST(Mem, CountedHeapAllocationFailureIsReturnedNotCounted)
{
    int32_t before = g_heap;
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_heap_mem_alloc(nullptr, kTag, 8));
    EXPECT_EQ(before, g_heap);
}

TEST(Mem, WrappersForward)
{
    void *p = qel_malloc_(10);
    ASSERT_NE(nullptr, p);
    memset(p, 1, 10);
    p = qel_ralloc_(p, 100);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(1, static_cast<char *>(p)[9]);
    qel_free_(p);
    qel_free_(nullptr);
}

TEST(Mem, PageBackedBlockStoresItsSize)
{
    EXPECT_EQ(nullptr, qel_virtual_memory_malloc(0));
    char *b = static_cast<char *>(qel_virtual_memory_malloc(100));
    ASSERT_NE(nullptr, b);
    uint32_t stored;
    memcpy(&stored, b - 4, 4);
    EXPECT_EQ(100u, stored);
    EXPECT_EQ(4u, reinterpret_cast<uintptr_t>(b) % 4096); // four bytes past the mapping
    EXPECT_EQ(QEL_OK, qel_virtual_memory_free(b));
    EXPECT_EQ(QEL_E_FAIL, qel_virtual_memory_free(nullptr));
}

TEST(Mem, PageBackedGrowthKeepsContentsAndNeverShrinks)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    char *b = static_cast<char *>(qel_virtual_memory_ralloc(nullptr, 10));
    ASSERT_NE(nullptr, b);
    std::string model(10, '\0');
    for (int step = 0; step < 200; ++step) {
        size_t size = rng.range(1, 70000);
        char *nb = static_cast<char *>(qel_virtual_memory_ralloc(b, size));
        ASSERT_NE(nullptr, nb);
        if (size <= model.size()) {
            EXPECT_EQ(b, nb); // never shrinks, same address
        } else {
            model.resize(size, '\0');
        }
        ASSERT_EQ(0, memcmp(nb, model.data(), model.size())) << step;
        std::string fill = rng.bytes(model.size());
        memcpy(nb, fill.data(), fill.size());
        model = fill;
        b = nb;
    }
    EXPECT_EQ(QEL_OK, qel_virtual_memory_free(b));
}

TEST(Mem, PageBackedFailedGrowthLosesTheOldBlock)
{
    char *b = static_cast<char *>(qel_virtual_memory_malloc(16));
    ASSERT_NE(nullptr, b);
    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_virtual_memory_ralloc(b, 1 << 20));
    // The old mapping is gone: touching it would fault, so probe with mincore.
    unsigned char vec;
    EXPECT_NE(0, mincore(b - 4, 1, &vec));
}

TEST(Mem, PageBackedOversizeFailsCleanly)
{
    EXPECT_EQ(nullptr, qel_virtual_memory_malloc(SIZE_MAX));
    EXPECT_EQ(nullptr, qel_virtual_memory_malloc(static_cast<size_t>(UINT32_MAX) - 3));
}

// The current atomics and their unprefixed copies from one table.
struct AtomicApi {
    const char *name;
    int32_t (*add)(volatile int32_t *, int32_t);
    int32_t (*cas)(volatile int32_t *, int32_t, int32_t);
    void *(*casp)(void *volatile *, void *, void *);
};

class AtomicTest : public ::testing::TestWithParam<AtomicApi> {};

TEST_P(AtomicTest, SingleThreadResults)
{
    const AtomicApi &a = GetParam();
    volatile int32_t w = 3;
    EXPECT_EQ(3, a.cas(&w, 5, 3));
    EXPECT_EQ(5, w);
    w = 4;
    EXPECT_EQ(4, a.cas(&w, 5, 3));
    EXPECT_EQ(4, w);
    EXPECT_EQ(14, a.add(&w, 10));
    EXPECT_EQ(INT32_MIN, (w = INT32_MAX, a.add(&w, 1))); // wraps like the instruction
    int x, y;
    void *volatile p = &x;
    EXPECT_EQ(&x, a.casp(&p, &y, &x));
    EXPECT_EQ(&y, p);
    EXPECT_EQ(&y, a.casp(&p, nullptr, &x));
    EXPECT_EQ(&y, p);
}

TEST_P(AtomicTest, TwoThreadsCountExactly)
{
    const AtomicApi &a = GetParam();
    volatile int32_t counter = 0;
    volatile int32_t cas_counter = 0;
    constexpr int kIters = 200000;
    auto work = [&] {
        for (int i = 0; i < kIters; ++i) {
            a.add(&counter, 1);
            int32_t seen;
            do {
                seen = qel_atomic32_get(&cas_counter);
            } while (a.cas(&cas_counter, seen + 1, seen) != seen);
        }
    };
    std::thread t1(work), t2(work);
    t1.join();
    t2.join();
    EXPECT_EQ(2 * kIters, qel_atomic32_get(&counter));
    EXPECT_EQ(2 * kIters, qel_atomic32_get(&cas_counter));
}

INSTANTIATE_TEST_SUITE_P(Twins, AtomicTest,
                         ::testing::Values(AtomicApi{"qel", qel_atomic32_add_and_fetch, qel_atomic32_cmp_and_swap,
                                                     qel_atomic_cmp_and_swap_ptr},
                                           AtomicApi{"old", atomic_add_and_fetch, atomic_compare_and_swap,
                                                     atomic_compare_and_swap_ptr}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Mem, AtomicSetReturnsReplacedValueUnderContention)
{
    volatile int32_t w = 0;
    std::atomic<int64_t> sum_replaced{0};
    constexpr int kIters = 100000;
    auto work = [&](int32_t base) {
        int64_t local = 0;
        for (int i = 1; i <= kIters; ++i)
            local += qel_atomic32_set(&w, base + i) == 0 ? 0 : 1;
        sum_replaced += local;
    };
    std::thread t1(work, 0), t2(work, 1000000);
    t1.join();
    t2.join();
    // Every set but the very first replaced a non-zero value.
    EXPECT_EQ(2 * kIters - 1, sum_replaced.load());
    int32_t last = qel_atomic32_get(&w);
    EXPECT_TRUE(last == kIters || last == 1000000 + kIters) << last;
}

TEST(Mem, CheckedArithmetic)
{
    uint32_t out;
    EXPECT_TRUE(qel::detail::add_overflows<uint32_t>(0xFFFFFFFFu, 1, &out));
    EXPECT_FALSE(qel::detail::mul_overflows<uint32_t>(0x10000u, 0xFFFFu, &out));
    EXPECT_EQ(0xFFFF0000u, out);
    EXPECT_EQ(6, qel::detail::trap_mul(2, 3));
    auto r = qeltest::run_in_child([] { return static_cast<int>(qel::detail::trap_add<int32_t>(INT32_MAX, 1)); });
    EXPECT_EQ(SIGABRT, r.signal);
}

TEST(Mem, SeededHash)
{
    EXPECT_EQ(5318u, qel::detail::hash33("", 0));
    EXPECT_EQ(5318u * 33 + 'a', qel::detail::hash33("a", 1));
    EXPECT_EQ(5381u * 33 + 'a', qel::detail::hash33("a", 1, qel::detail::kHashSeed5381));
    EXPECT_EQ(qel::detail::hash33("agent", 5), qel::detail::hash33_str("agent"));
    EXPECT_EQ(qel::detail::hash33("agent", 5),
              qel::detail::hash33_continue(qel::detail::hash33("ag", 2), "ent", 3));
}

} // namespace

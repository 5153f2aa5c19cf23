// The binary min-heap: growth, the fixed flag, the tie rules, and pop order
// against std::priority_queue.
#include "qel_heap.h"

#include <gtest/gtest.h>

#include <queue>
#include <vector>

#include "base/internal.h"
#include "support/test_util.h"

namespace {

void *val(uintptr_t v) { return reinterpret_cast<void *>(v); }

struct Item {
    int key, id;
};

int32_t by_key(void *a, void *b) { return static_cast<Item *>(a)->key - static_cast<Item *>(b)->key; }

// A fixed heap refuses past its capacity; a growable one goes 0, 16, 32 and
// by default orders the element values themselves.
TEST(Heap, FixedAndGrowableCapacity)
{
    qel_binheap *h = qel_heap_create(nullptr, 3);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(1u, h->fixed);
    for (uintptr_t i = 1; i <= 3; ++i)
        EXPECT_EQ(0, qel_heap_push(h, val(i)));
    EXPECT_EQ(-1, qel_heap_push(h, val(4)));
    EXPECT_EQ(3u, h->count);
    qel_heap_destroy(h);

    h = qel_heap_create(nullptr, 0);
    EXPECT_EQ(0u, h->fixed);
    EXPECT_EQ(0u, h->capacity);
    EXPECT_EQ(nullptr, h->elements);
    for (uintptr_t i = 17; i >= 1; --i) {
        EXPECT_EQ(0, qel_heap_push(h, val(i * 7 % 17 + 1))); // 1..17 scattered
        EXPECT_EQ(i > 1 ? 16u : 32u, h->capacity);
    }
    uintptr_t popped = 0;
    for (void *out; qel_heap_pop(h, &out) == 0;)
        EXPECT_EQ(++popped, reinterpret_cast<uintptr_t>(out));
    EXPECT_EQ(17u, popped);
    qel_heap_destroy(h);
}

TEST(Heap, ArgumentsAndAllocationFailures)
{
    qel_binheap *h = qel_heap_create(nullptr, 0);
    EXPECT_EQ(-1, qel_heap_push(nullptr, val(1)));
    EXPECT_EQ(-1, qel_heap_push(h, nullptr));
    EXPECT_EQ(-1, qel_heap_pop(h, nullptr)); // empty
    EXPECT_EQ(-1, qel_heap_pop(nullptr, nullptr));
    qel::detail::fail_allocations(0, 1); // the first growth fails: nothing changes
    EXPECT_EQ(-1, qel_heap_push(h, val(5)));
    qel::detail::fail_allocations(0, 0);
    EXPECT_EQ(0u, h->count + h->capacity);
    EXPECT_EQ(0, qel_heap_push(h, val(9)));
    EXPECT_EQ(0, qel_heap_pop(h, nullptr)); // the out element is optional
    EXPECT_EQ(0u, h->count);
    qel_heap_destroy(h);
    qel_heap_destroy(nullptr);
    for (int skip : {0, 1}) { // the record, then the array of a fixed heap
        qel::detail::fail_allocations(skip, 1);
        EXPECT_EQ(nullptr, qel_heap_create(nullptr, 8));
        qel::detail::fail_allocations(0, 0);
    }
}

// With all keys equal: sift-up stops at once, sift-down prefers the right
// child and moves the element below an equal child.
TEST(Heap, TieRulesDecideThePopOrder)
{
    Item items[4] = {{1, 0}, {1, 1}, {1, 2}, {1, 3}};
    qel_binheap *h = qel_heap_create(by_key, 0);
    for (Item &it : items)
        qel_heap_push(h, &it);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(i, static_cast<Item *>(h->elements[i])->id); // no swap on push
    std::vector<int> order;
    for (void *out; qel_heap_pop(h, &out) == 0;)
        order.push_back(static_cast<Item *>(out)->id);
    EXPECT_EQ((std::vector<int>{0, 2, 1, 3}), order);
    qel_heap_destroy(h);
}

// Keys 0..50 give many ties; the heap property is checked now and then.
TEST(Heap, PopOrderMatchesPriorityQueueWithTies)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    std::vector<Item> pool(200000);
    size_t used = 0;
    qel_binheap *h = qel_heap_create(by_key, 0);
    std::priority_queue<int, std::vector<int>, std::greater<int>> model;
    for (int step = 0; step < 200000; ++step) {
        if (rng.chance(55)) {
            pool[used] = {static_cast<int>(rng.range(0, 50)), static_cast<int>(used)};
            ASSERT_EQ(0, qel_heap_push(h, &pool[used]));
            model.push(pool[used++].key);
        } else {
            void *out = nullptr;
            ASSERT_EQ(model.empty() ? -1 : 0, qel_heap_pop(h, &out));
            if (!model.empty()) {
                ASSERT_EQ(model.top(), static_cast<Item *>(out)->key);
                model.pop();
            }
        }
        ASSERT_EQ(model.size(), h->count);
        for (uint32_t i = 1; step % 5000 == 0 && i < h->count; ++i)
            ASSERT_LE(by_key(h->elements[(i - 1) / 2], h->elements[i]), 0);
    }
    qel_heap_destroy(h);
}

} // namespace

// The binary min-heap. Growth and tie rules are part of the contract:
// growable heaps take 16 slots first and then double by reallocation;
// sift-up stops when compare(element, parent) >= 0; sift-down prefers the
// right child when compare(left, right) >= 0 and keeps going while
// compare(element, child) >= 0, so equal elements move down.

#include "qel_heap.h"

#include "base/internal.h"

namespace {

constexpr uint32_t kFirstCapacity = 16;

int32_t default_compare(void *a, void *b)
{
    // a - b on the low 32 bits, wrapping.
    return static_cast<int32_t>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(a)) -
                                static_cast<uint32_t>(reinterpret_cast<uintptr_t>(b)));
}

bool grow(qel_binheap *h)
{
    uint32_t capacity = kFirstCapacity;
    if (h->capacity != 0 && qel::detail::mul_overflows(h->capacity, 2u, &capacity))
        return false;
    size_t bytes;
    if (qel::detail::mul_overflows(static_cast<size_t>(capacity), sizeof(void *), &bytes))
        return false;
    void *array = qel::detail::try_realloc(h->elements, bytes);
    if (array == nullptr)
        return false;
    h->elements = static_cast<void **>(array);
    h->capacity = capacity;
    return true;
}

} // namespace

qel_binheap *qel_heap_create(qel_heap_compare_fn compare, uint32_t capacity)
{
    auto *h = static_cast<qel_binheap *>(qel::detail::try_alloc(sizeof(qel_binheap)));
    if (h == nullptr)
        return nullptr;
    h->elements = nullptr;
    h->count = 0;
    h->capacity = 0;
    h->compare = compare != nullptr ? compare : default_compare;
    h->fixed = 0;
    if (capacity > 0) {
        h->elements = static_cast<void **>(qel::detail::try_calloc(capacity, sizeof(void *)));
        if (h->elements == nullptr) {
            free(h);
            return nullptr;
        }
        h->capacity = capacity;
        h->fixed = 1;
    }
    return h;
}

int qel_heap_push(qel_binheap *heap, void *element)
{
    QEL_CHECK(heap != nullptr && element != nullptr, -1);
    if (heap->count == heap->capacity && (heap->fixed != 0 || !grow(heap)))
        return -1;
    void **a = heap->elements;
    qel_heap_compare_fn cmp = heap->compare;
    uint32_t i = heap->count++;
    while (i != 0) {
        uint32_t parent = (i - 1) / 2;
        if (cmp(element, a[parent]) >= 0)
            break;
        a[i] = a[parent];
        i = parent;
    }
    a[i] = element;
    return 0;
}

int qel_heap_pop(qel_binheap *heap, void **element)
{
    QEL_CHECK(heap != nullptr && heap->count != 0, -1);
    void **a = heap->elements;
    if (element != nullptr)
        *element = a[0];
    uint32_t c = --heap->count;
    if (c == 0)
        return 0;
    void *x = a[c];
    qel_heap_compare_fn cmp = heap->compare;
    size_t i = 0;
    for (;;) {
        size_t child = 2 * i + 1;
        if (child >= c)
            break;
        if (child + 1 < c && cmp(a[child], a[child + 1]) >= 0)
            ++child;
        if (cmp(x, a[child]) < 0)
            break;
        a[i] = a[child];
        i = child;
    }
    a[i] = x;
    return 0;
}

void qel_heap_destroy(qel_binheap *heap)
{
    if (heap == nullptr)
        return;
    free(heap->elements);
    free(heap);
}

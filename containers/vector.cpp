// The vector: a growable array of non-null pointer-sized elements.
//
// Sorting. The textbook quicksort that takes the first element as its pivot
// and recurses into both sides goes quadratic on sorted input and recurses as
// deep as the vector is long, which overflows a host thread's stack for a
// large vector. The sort here is introspective instead:
//  - the pivot is the median of three elements (first, middle, last), or for
//    ranges above 128 elements the median of three such medians (ninther), so
//    sorted and reversed input split in the middle;
//  - the partition stops on elements equal to the pivot from both sides, so a
//    run of equal elements splits evenly; and when the element just before a
//    range (which is never greater than anything in it) equals the pivot, all
//    elements equal to the pivot are gathered on the left in one pass and left
//    out of further work, so all-equal input costs O(n);
//  - only the smaller side is recursed into and the larger one is looped on,
//    so the recursion is at most log2(n) deep;
//  - a partition that leaves less than an eighth on one side shuffles a few
//    elements of both sides to break the pattern that caused it, and after
//    log2(n) such partitions on one path the range is heap-sorted, which
//    bounds the worst case at O(n log n);
//  - ranges of up to 16 elements are insertion-sorted.

#include "qel_vector.h"

#include <cstring>

#include "base/internal.h"

namespace {

using Elem = void *;
using Cmp = qel_vector_compare_fn;

constexpr uint32_t kDefaultCapacity = 256;
constexpr size_t kInsertionLimit = 16;
constexpr size_t kNintherLimit = 128;

inline void swap_at(Elem *a, size_t i, size_t j)
{
    Elem t = a[i];
    a[i] = a[j];
    a[j] = t;
}

// Sorts a[lo, hi). With `guarded` false, a[lo - 1] exists and is not greater
// than any element of the range, so the inner scan needs no bound.
void insertion_sort(Elem *a, size_t lo, size_t hi, Cmp cmp, bool guarded)
{
    for (size_t i = lo + 1; i < hi; ++i) {
        Elem x = a[i];
        size_t j = i;
        if (guarded) {
            while (j > lo && cmp(x, a[j - 1]) < 0) {
                a[j] = a[j - 1];
                --j;
            }
        } else {
            while (cmp(x, a[j - 1]) < 0) {
                a[j] = a[j - 1];
                --j;
            }
        }
        a[j] = x;
    }
}

void sift_down(Elem *a, size_t i, size_t n, Cmp cmp)
{
    Elem x = a[i];
    for (;;) {
        size_t c = 2 * i + 1;
        if (c >= n)
            break;
        if (c + 1 < n && cmp(a[c], a[c + 1]) < 0)
            ++c;
        if (cmp(x, a[c]) >= 0)
            break;
        a[i] = a[c];
        i = c;
    }
    a[i] = x;
}

void heap_sort(Elem *a, size_t n, Cmp cmp)
{
    for (size_t i = n / 2; i-- > 0;)
        sift_down(a, i, n, cmp);
    for (size_t end = n; end-- > 1;) {
        swap_at(a, 0, end);
        sift_down(a, 0, end, cmp);
    }
}

// Orders a[i] <= a[j] <= a[k].
inline void sort3(Elem *a, size_t i, size_t j, size_t k, Cmp cmp)
{
    if (cmp(a[j], a[i]) < 0)
        swap_at(a, i, j);
    if (cmp(a[k], a[j]) < 0) {
        swap_at(a, j, k);
        if (cmp(a[j], a[i]) < 0)
            swap_at(a, i, j);
    }
}

// Moves a pivot candidate to a[lo].
inline void choose_pivot(Elem *a, size_t lo, size_t hi, Cmp cmp)
{
    size_t n = hi - lo;
    size_t mid = lo + n / 2;
    if (n > kNintherLimit) {
        sort3(a, lo, mid, hi - 1, cmp);
        sort3(a, lo + 1, mid - 1, hi - 2, cmp);
        sort3(a, lo + 2, mid + 1, hi - 3, cmp);
        sort3(a, mid - 1, mid, mid + 1, cmp);
        swap_at(a, lo, mid);
    } else {
        sort3(a, mid, lo, hi - 1, cmp); // the median lands on lo
    }
}

// Pivot at a[lo]. Elements less than it end on the left, greater on the
// right, equal ones on either side. Returns the pivot's final index.
size_t partition_right(Elem *a, size_t lo, size_t hi, Cmp cmp)
{
    Elem pivot = a[lo];
    size_t i = lo;
    size_t j = hi;
    for (;;) {
        do
            ++i;
        while (i < hi && cmp(a[i], pivot) < 0);
        do
            --j;
        while (cmp(a[j], pivot) > 0); // stops at lo at the latest
        if (i >= j)
            break;
        swap_at(a, i, j);
    }
    swap_at(a, lo, j);
    return j;
}

// Pivot at a[lo]. Elements not greater than it end on the left, greater ones
// on the right. Returns the pivot's final index.
size_t partition_left(Elem *a, size_t lo, size_t hi, Cmp cmp)
{
    Elem pivot = a[lo];
    size_t i = lo;
    size_t j = hi;
    for (;;) {
        do
            --j;
        while (cmp(pivot, a[j]) < 0); // stops at lo at the latest
        do
            ++i;
        while (i < j && cmp(pivot, a[i]) >= 0);
        if (i >= j)
            break;
        swap_at(a, i, j);
    }
    swap_at(a, lo, j);
    return j;
}

// Swaps a few elements of a[lo, hi) with elements a quarter of the way in,
// so that a pattern that gave a bad pivot does not give it again.
inline void break_pattern(Elem *a, size_t lo, size_t hi)
{
    size_t n = hi - lo;
    if (n < kInsertionLimit)
        return;
    size_t q = n / 4;
    swap_at(a, lo, lo + q);
    swap_at(a, hi - 1, hi - q);
    if (n > kNintherLimit) {
        swap_at(a, lo + 1, lo + q + 1);
        swap_at(a, lo + 2, lo + q + 2);
        swap_at(a, hi - 2, hi - q - 1);
        swap_at(a, hi - 3, hi - q - 2);
    }
}

// Sorts a[lo, hi). `leftmost`: the range starts the array (no element before
// it to lean on). `bad`: unbalanced partitions still allowed before heap sort
// takes over.
void intro_sort(Elem *a, size_t lo, size_t hi, int bad, bool leftmost, Cmp cmp)
{
    for (;;) {
        size_t n = hi - lo;
        if (n <= kInsertionLimit) {
            insertion_sort(a, lo, hi, cmp, leftmost);
            return;
        }
        choose_pivot(a, lo, hi, cmp);
        // a[lo - 1] is not greater than anything here; if it equals the
        // pivot, every element equal to the pivot is gathered and done with.
        if (!leftmost && cmp(a[lo - 1], a[lo]) >= 0) {
            lo = partition_left(a, lo, hi, cmp) + 1;
            continue;
        }
        size_t p = partition_right(a, lo, hi, cmp);
        size_t left = p - lo;
        size_t right = hi - p - 1;
        if (left < n / 8 || right < n / 8) {
            if (--bad == 0) {
                heap_sort(a + lo, n, cmp);
                return;
            }
            break_pattern(a, lo, p);
            break_pattern(a, p + 1, hi);
        }
        if (left < right) {
            intro_sort(a, lo, p, bad, leftmost, cmp);
            lo = p + 1;
            leftmost = false;
        } else {
            intro_sort(a, p + 1, hi, bad, false, cmp);
            hi = p;
        }
    }
}

inline int floor_log2(size_t n)
{
    int r = 0;
    while (n >>= 1)
        ++r;
    return r;
}

} // namespace

qel_result qel_vector_create(qel_vector **out, uint32_t capacity)
{
    QEL_CHECK(out != nullptr, QEL_E_INVALIDARG);
    if (capacity == 0)
        capacity = kDefaultCapacity;
    auto *v = static_cast<qel_vector *>(qel::detail::try_alloc(sizeof(qel_vector)));
    if (v == nullptr)
        return QEL_E_NOMEM;
    v->elements = static_cast<Elem *>(qel::detail::try_calloc(capacity, sizeof(Elem)));
    if (v->elements == nullptr) {
        free(v);
        return QEL_E_NOMEM;
    }
    v->size = 0;
    v->capacity = capacity;
    *out = v;
    return QEL_OK;
}

void qel_vector_destroy(qel_vector *vector)
{
    if (vector == nullptr)
        return;
    free(vector->elements);
    free(vector);
}

qel_result qel_vector_push_back(qel_vector *vector, void *element)
{
    QEL_CHECK(vector != nullptr && element != nullptr, QEL_E_INVALIDARG);
    if (vector->size == vector->capacity) {
        uint32_t grown;
        if (qel::detail::mul_overflows(vector->capacity, 2u, &grown))
            return QEL_E_NOMEM;
        auto *array = static_cast<Elem *>(qel::detail::try_calloc(grown, sizeof(Elem)));
        if (array == nullptr)
            return QEL_E_NOMEM;
        memcpy(array, vector->elements, static_cast<size_t>(vector->size) * sizeof(Elem));
        free(vector->elements);
        vector->elements = array;
        vector->capacity = grown;
    }
    vector->elements[vector->size++] = element;
    return QEL_OK;
}

void *qel_vector_pop_back(qel_vector *vector)
{
    QEL_CHECK(vector != nullptr && vector->size != 0, nullptr);
    uint32_t last = --vector->size;
    Elem e = vector->elements[last];
    vector->elements[last] = nullptr;
    return e;
}

uint32_t qel_vector_capacity(qel_vector *vector)
{
    QEL_CHECK(vector != nullptr, 0);
    return vector->capacity;
}

uint32_t qel_vector_size(qel_vector *vector)
{
    QEL_CHECK(vector != nullptr, 0);
    return vector->size;
}

int qel_vector_empty(qel_vector *vector)
{
    return vector == nullptr || vector->size == 0 ? 1 : 0;
}

void *qel_vector_pos_at(qel_vector *vector, uint32_t index)
{
    QEL_CHECK(vector != nullptr && index < vector->size, nullptr);
    return vector->elements[index];
}

void *qel_vector_pos_del(qel_vector *vector, uint32_t index)
{
    QEL_CHECK(vector != nullptr && index < vector->size, nullptr);
    Elem e = vector->elements[index];
    memmove(vector->elements + index, vector->elements + index + 1,
            static_cast<size_t>(vector->size - index - 1) * sizeof(Elem));
    // The vacated last slot keeps its old contents.
    vector->size--;
    return e;
}

qel_result qel_vector_qsort(qel_vector *vector, qel_vector_compare_fn compare)
{
    QEL_CHECK(vector != nullptr && compare != nullptr, QEL_E_INVALIDARG);
    size_t n = vector->size;
    if (n > 1)
        intro_sort(vector->elements, 0, n, floor_log2(n), true, compare);
    return QEL_OK;
}

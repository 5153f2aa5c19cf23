/*
 * qel_heap.h: a binary min-heap of pointer-sized elements kept in an array.
 *
 * Element 0 is the top: the element that compares lowest. A heap created
 * with a capacity is fixed and refuses to grow; one created with capacity 0
 * starts with no array, takes 16 slots on its first push and doubles after
 * that.
 *
 * Ties: sift-up stops as soon as an element is not less than its parent;
 * sift-down goes to the right child when the two children compare equal and
 * moves an element below a child that equals it, so equal elements come out
 * in no particular order.
 *
 * Ownership: the caller owns the heap and releases it with qel_heap_destroy;
 * elements are the caller's and are never freed.
 *
 * Results: 0 for success, -1 for failure (null arguments, a full fixed heap,
 * a failed growth, an empty heap).
 *
 * Thread safety: none; callers lock.
 *
 * (The counted heap qel_heap_mem_* of qel_mem.h is a different facility.)
 */
#ifndef QEL_HEAP_H
#define QEL_HEAP_H

#include <stddef.h>
#include <stdint.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* Orders two elements (the stored values): negative, zero or positive as a
 * sorts before, with or after b. */
typedef int32_t (*qel_heap_compare_fn)(void *a, void *b);

/* The heap record; every field is read-only for hosts. */
typedef struct _qel_heap_st {
    void **elements;              /* capacity slots; null while a growable heap is empty */
    uint32_t count;               /* elements held */
    uint32_t capacity;            /* slots in elements */
    qel_heap_compare_fn compare;  /* never null */
    uint32_t fixed;               /* 1: the capacity was given at creation and never grows */
} qel_binheap;

/* Creates a heap. A null compare takes the default: a minus b as signed
 * 32-bit integers (wrapping). A capacity above 0 allocates that many slots
 * and makes the heap fixed.
 * Returns: the heap; null if an allocation fails. */
QEL_API qel_binheap *qel_heap_create(qel_heap_compare_fn compare, uint32_t capacity);

/* Adds the element and sifts it up.
 * Returns: 0; -1 for a null heap or element, a full fixed heap, or a failed
 * growth (the heap is then unchanged). */
QEL_API int qel_heap_push(qel_binheap *heap, void *element);

/* Removes the top, storing it in *element when element is non-null; the last
 * element moves to the top and sifts down.
 * Returns: 0; -1 for a null or empty heap. */
QEL_API int qel_heap_pop(qel_binheap *heap, void **element);

/* Frees the array and the record. Null is ignored. */
QEL_API void qel_heap_destroy(qel_binheap *heap);

QEL_END_DECLS

#endif /* QEL_HEAP_H */

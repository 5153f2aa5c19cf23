/*
 * qel_vector.h: a growable array of pointer-sized elements with an in-place
 * sort.
 *
 * A stored element is never null: null is refused on insertion and stands
 * for "nothing" in results. The capacity starts at the value given to
 * qel_vector_create (0 means 256) and doubles whenever a push finds the array
 * full; it never shrinks.
 *
 * Ownership: the caller owns the vector and releases it with
 * qel_vector_destroy; the elements are the caller's and are never freed.
 *
 * Results: qel_vector_create, _push_back and _qsort return 0 (QEL_OK),
 * QEL_E_INVALIDARG or QEL_E_NOMEM. The accessors return the element, or 0
 * (null) for a null or empty vector or an index out of range.
 *
 * Thread safety: none; callers lock.
 *
 * Decisions of this implementation: qel_vector_qsort is an introspective
 * quicksort (median-of-three or ninther pivot, equal runs split off in one
 * pass, recursion only into the smaller side, heapsort when partitions keep
 * coming out unbalanced). It recurses at most log2(size) levels and takes
 * O(n log n) compares on every input; like any quicksort it does not keep the
 * order of equal elements.
 */
#ifndef QEL_VECTOR_H
#define QEL_VECTOR_H

#include <stddef.h>
#include <stdint.h>

#include "qel_export.h"
#include "qel_result.h"

QEL_BEGIN_DECLS

/* The vector record; every field is read-only for hosts. */
typedef struct _qel_vector_st {
    uint32_t size;     /* elements stored */
    uint32_t capacity; /* slots in elements */
    void **elements;   /* capacity slots; those at and above size are 0 or stale */
} qel_vector;

/* Orders two elements (the stored values themselves, not pointers to the
 * slots): negative, zero or positive as a sorts before, with or after b. */
typedef int (*qel_vector_compare_fn)(const void *a, const void *b);

/* Creates an empty vector with a zero-filled array of capacity slots
 * (0 means 256) and stores it in *out.
 * Returns: QEL_OK; QEL_E_INVALIDARG for a null out; QEL_E_NOMEM if the record
 * or the array cannot be allocated (nothing is left allocated). */
QEL_API qel_result qel_vector_create(qel_vector **out, uint32_t capacity);

/* Frees the array and the record. Null is ignored. */
QEL_API void qel_vector_destroy(qel_vector *vector);

/* Appends the element. A full vector first doubles its capacity (a new
 * zero-filled array receives the elements and the old one is freed).
 * Returns: QEL_OK; QEL_E_INVALIDARG for a null vector or element; QEL_E_NOMEM
 * if the array cannot grow (the vector is unchanged). */
QEL_API qel_result qel_vector_push_back(qel_vector *vector, void *element);

/* Removes the last element and zeroes its slot.
 * Returns: the element; 0 if the vector is null or empty. */
QEL_API void *qel_vector_pop_back(qel_vector *vector);

/* Returns: the capacity; 0 for null. */
QEL_API uint32_t qel_vector_capacity(qel_vector *vector);

/* Returns: the size; 0 for null. */
QEL_API uint32_t qel_vector_size(qel_vector *vector);

/* Returns: 1 if the vector is empty or null, else 0. */
QEL_API int qel_vector_empty(qel_vector *vector);

/* Returns: the element at index; 0 if the vector is null or empty or index is
 * not below the size. */
QEL_API void *qel_vector_pos_at(qel_vector *vector, uint32_t index);

/* Removes the element at index and moves the later ones down by one. The
 * vacated last slot keeps its old contents (the last element stays there,
 * past the new size).
 * Returns: the removed element; 0 if the vector is null or empty or index is
 * not below the size. */
QEL_API void *qel_vector_pos_del(qel_vector *vector, uint32_t index);

/* Sorts the elements in place, ascending by compare. Equal elements may come
 * out in any order. The compare must be a consistent ordering.
 * Returns: QEL_OK; QEL_E_INVALIDARG for a null vector or compare. */
QEL_API qel_result qel_vector_qsort(qel_vector *vector, qel_vector_compare_fn compare);

QEL_END_DECLS

#endif /* QEL_VECTOR_H */

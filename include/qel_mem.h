/*
 * qel_mem.h: allocator wrappers, the counted heap, page-backed blocks, 32-bit
 * atomics, power-of-two rounding and byte order.
 *
 * Ownership: a block from qel_malloc_/qel_ralloc_ is released with qel_free_;
 * from qel_heap_mem_alloc with qel_heap_mem_free; from
 * qel_virtual_memory_malloc/_ralloc with qel_virtual_memory_free. The wrappers
 * check nothing themselves.
 *
 * Thread safety: the block counter g_heap and the atomics are the only
 * synchronised state; every atomic operation is a full barrier.
 */
#ifndef QEL_MEM_H
#define QEL_MEM_H

#include <stddef.h>
#include <stdint.h>

#include "qel_export.h"
#include "qel_result.h"

QEL_BEGIN_DECLS

/* ---- allocator wrappers: malloc, realloc, free ---------------------------- */
QEL_API void *qel_malloc_(size_t size);
QEL_API void *qel_ralloc_(void *ptr, size_t size);
QEL_API void qel_free_(void *ptr);

/* ---- counted heap ------------------------------------------------------- */

/* The counted heap's block counter: blocks allocated minus blocks freed.
 * Read-only for hosts; changed only atomically. */
QEL_API extern volatile int32_t g_heap;

/* A heap handle: the address of the block counter. */
typedef volatile int32_t *qel_heap;

/* Stores the address of g_heap in *out.
 * Returns: 0; QEL_E_INVALIDARG if out is null. */
QEL_API qel_result qel_heap_mem_init(void *ignored, qel_heap *out);

/* Does nothing. */
QEL_API void qel_heap_mem_destroy(qel_heap heap);

/* malloc(size), counting the block. The tag is four characters read as one
 * word ('flok'); it must be non-zero and is otherwise unused. The heap handle
 * is ignored.
 * Returns: the block; null if tag or size is 0 or malloc failed. */
QEL_API void *qel_heap_mem_alloc(qel_heap heap, uint32_t tag, size_t size);

/* Frees the block and uncounts it, only if block is non-null and tag non-zero;
 * otherwise does nothing (the block stays allocated). */
QEL_API void qel_heap_mem_free(qel_heap heap, void *block, uint32_t tag);

/* ---- page-backed blocks ----------------------------------------------------
 * A private anonymous mapping of size + 4 bytes; the first 32-bit word holds
 * the requested size and the caller gets the address after it (so the block
 * is 4-byte aligned only). */

/* Returns: the block; null for size 0, a size that does not fit 32 bits with
 * its header, or a failed mapping. */
QEL_API void *qel_virtual_memory_malloc(size_t size);

/* Null block: as qel_virtual_memory_malloc(size). A stored size not less than
 * size returns block unchanged (never shrinks). Otherwise a new block of size
 * receives the old stored-size bytes, and the old block is freed in every
 * case, also when the new allocation failed (a failed growth loses the block).
 * Returns: the block to use from now on, or null. */
QEL_API void *qel_virtual_memory_ralloc(void *block, size_t size);

/* Unmaps the block.
 * Returns: 0; QEL_E_FAIL for null or if the unmapping failed. */
QEL_API qel_result qel_virtual_memory_free(void *block);

/* ---- 32-bit atomics, all full barriers ------------------------------------ */

/* Adds delta. Returns: the new value. */
QEL_API int32_t qel_atomic32_add_and_fetch(volatile int32_t *ptr, int32_t delta);

/* Stores new_value if *ptr equals expected (note the order: new before
 * expected). Returns: the value found before the operation. */
QEL_API int32_t qel_atomic32_cmp_and_swap(volatile int32_t *ptr, int32_t new_value, int32_t expected);

/* Swaps value in with a compare-and-swap loop. Returns: the value replaced. */
QEL_API int32_t qel_atomic32_set(volatile int32_t *ptr, int32_t value);

/* Reads with a compare-and-swap of 0 against 0. Returns: the current value. */
QEL_API int32_t qel_atomic32_get(volatile int32_t *ptr);

/* qel_atomic32_cmp_and_swap on a pointer-sized word. */
QEL_API void *qel_atomic_cmp_and_swap_ptr(void *volatile *ptr, void *new_value, void *expected);

/* Unprefixed copies, same arguments in the same order. */
QEL_API int32_t atomic_add_and_fetch(volatile int32_t *ptr, int32_t delta);
QEL_API int32_t atomic_compare_and_swap(volatile int32_t *ptr, int32_t new_value, int32_t expected);
QEL_API void *atomic_compare_and_swap_ptr(void *volatile *ptr, void *new_value, void *expected);

/* ---- rounding and byte order ---------------------------------------------- */

/* Smallest power of two not below x by bit smearing: 0 gives 0, a value above
 * 2^31 gives 0, a power of two gives itself. */
QEL_API uint32_t qel_round_up_power2(uint32_t x);

/* Returns: 1 on a little-endian machine, 0 on a big-endian one (cached). */
QEL_API int qel_check_os_endian(void);

/* Returns: x with its four bytes reversed. */
QEL_API uint32_t qel_uint32_endianb2l(uint32_t x);

QEL_END_DECLS

#endif /* QEL_MEM_H */

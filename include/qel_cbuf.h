/*
 * qel_cbuf.h: a ring of bytes over a buffer that the caller owns.
 *
 * One byte of the capacity is always kept free, so at most capacity - 1
 * bytes are held. used = write - read when write >= read, else
 * capacity - (read - write); free = capacity - used - 1.
 *
 * An index may stand at exactly the capacity after a copy that ends at the
 * buffer's end; the next copy that wraps takes it back to the start, and
 * every size computation treats it correctly. Hosts that write into the
 * buffer directly (before qel_cbuf_add) write at buffer + write index.
 *
 * Ownership: the caller owns both the record and the buffer; nothing here
 * allocates or frees.
 *
 * Results: byte counts, or -1 with errno set to EINVAL for a null cbuf, a
 * null data pointer or n = 0 (qel_cbuf_init: 1, or 0 with EINVAL). The
 * capacity must be below 2^31 so that every count fits the result.
 *
 * Thread safety: none; callers lock.
 */
#ifndef QEL_CBUF_H
#define QEL_CBUF_H

#include <stddef.h>
#include <stdint.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* The cbuf record; the caller provides the storage and qel_cbuf_init fills
 * it. Fields are read-only for hosts. */
typedef struct _qel_cbuf_st {
    uint32_t read;        /* read index, 0 .. capacity */
    uint32_t write;       /* write index, 0 .. capacity */
    uint32_t capacity;    /* bytes in buffer */
    unsigned char *buffer; /* caller-owned */
} qel_cbuf;

/* Sets the cbuf over buffer with both indexes 0.
 * Returns: 1; 0 with errno EINVAL if cbuf or buffer is null or capacity 0. */
QEL_API int qel_cbuf_init(qel_cbuf *cbuf, void *buffer, uint32_t capacity);

/* Copies min(n, free size) bytes in.
 * Returns: that number (0 when full); -1 with EINVAL for bad arguments. */
QEL_API int qel_cbuf_put(qel_cbuf *cbuf, const void *data, uint32_t n);

/* Copies all n bytes in, or nothing.
 * Returns: n; -1 with EINVAL for bad arguments or if the free size is below n. */
QEL_API int qel_cbuf_put_full(qel_cbuf *cbuf, const void *data, uint32_t n);

/* Copies min(n, used size) bytes out and consumes them.
 * Returns: that number (0 when empty); -1 with EINVAL for bad arguments. */
QEL_API int qel_cbuf_get(qel_cbuf *cbuf, void *out, uint32_t n);

/* Copies all n bytes out and consumes them, or nothing.
 * Returns: n; -1 with EINVAL for bad arguments or if the used size is below n. */
QEL_API int qel_cbuf_get_full(qel_cbuf *cbuf, void *out, uint32_t n);

/* Copies min(n, used size) bytes out without consuming them.
 * Returns: that number; -1 with EINVAL for bad arguments. */
QEL_API int qel_cbuf_peek(qel_cbuf *cbuf, void *out, uint32_t n);

/* Consumes min(n, used size) bytes without copying.
 * Returns: that number; -1 with EINVAL for bad arguments. */
QEL_API int qel_cbuf_del(qel_cbuf *cbuf, uint32_t n);

/* Commits min(n, free size) bytes that the caller wrote at the write index.
 * Returns: that number; -1 with EINVAL for bad arguments. */
QEL_API int qel_cbuf_add(qel_cbuf *cbuf, uint32_t n);

/* Returns: the used size; -1 with EINVAL for null. */
QEL_API int qel_cbuf_size(qel_cbuf *cbuf);

/* Returns: the free size; -1 with EINVAL for null. */
QEL_API int qel_cbuf_free_size(qel_cbuf *cbuf);

QEL_END_DECLS

#endif /* QEL_CBUF_H */

/*
 * qel_fifo.h: a ring of length-prefixed records for one producer thread and
 * one consumer thread.
 *
 * A record in the data area is a 32-bit length in host byte order followed by
 * that many payload bytes; both parts wrap around the end of the data area.
 * A record fits only when its length + 4 is strictly less than the free
 * space, so the ring never fills completely. The start offset of every record
 * is also kept in an index ring of data size / 4 entries, which is how
 * qel_fifo_pick finds the n-th record.
 *
 * Pop and pick do not report the payload's length: callers use records of a
 * length that they know (a buffer larger than the payload is filled only up
 * to the payload's length).
 *
 * Ownership: the caller owns the fifo and releases it with qel_fifo_uninit.
 * Payloads are copied in and out.
 *
 * Results: 0 for success, -1 for failure.
 *
 * Thread safety: one thread may push while one other thread pops; the
 * producer alone moves the write offset and the index write position, the
 * consumer alone the read offset and the index read position, and the
 * element count is changed only by atomic addition. qel_fifo_pick,
 * qel_fifo_clear and qel_fifo_uninit must not run beside a push or a pop.
 *
 * Decisions of this implementation: the fifo's block also holds, after the
 * data area, each side's last view of the other side's offset on cache lines
 * of their own (private, not part of the record), so that a push or pop reads
 * the other side's offset only when the ring looks full or empty.
 */
#ifndef QEL_FIFO_H
#define QEL_FIFO_H

#include <stddef.h>
#include <stdint.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* The fifo record, followed in the same allocation by the data area; every
 * field is private (read element_count with qel_fifo_saved_element). */
typedef struct _qel_fifo_st {
    int32_t read_offset;            /* start of the oldest record in the data area */
    int32_t write_offset;           /* where the next record will start */
    int32_t data_size;              /* bytes in the data area */
    volatile int32_t element_count; /* records held; changed only atomically */
    int32_t index_write;            /* next slot of the index ring to fill */
    int32_t index_read;             /* slot holding the oldest record's offset */
    int32_t index_capacity;         /* data_size / 4 */
    int32_t *index;                 /* the index ring, a separate block of data_size bytes */
    /* the data area follows */
} qel_fifo;

/* Creates an empty fifo with a data area of data_size bytes.
 * Returns: the fifo; null if data_size is below 1 or an allocation fails. */
QEL_API qel_fifo *qel_fifo_init(int32_t data_size);

/* Frees the index ring and the fifo and sets *fifo to null. A null pointer or
 * a null fifo is ignored. */
QEL_API void qel_fifo_uninit(qel_fifo **fifo);

/* Appends a record of length bytes copied from data.
 * Returns: 0; -1 if fifo or data is null, length is below 1, or length + 4 is
 * not strictly less than the free space. */
QEL_API int qel_fifo_push(qel_fifo *fifo, const void *data, int32_t length);

/* Copies the oldest record's payload into buffer and removes the record.
 * Returns: 0; -1 if fifo or buffer is null or buffer_size negative, the fifo
 * is empty, or the payload is longer than buffer_size (the record stays). */
QEL_API int qel_fifo_pop(qel_fifo *fifo, void *buffer, int32_t buffer_size);

/* Copies the payload of the n-th record from the oldest (0 = oldest) into
 * buffer without removing anything.
 * Returns: 0; -1 if fifo or buffer is null, buffer_size or n negative, n not
 * below the element count, or the payload longer than buffer_size. */
QEL_API int qel_fifo_pick(qel_fifo *fifo, void *buffer, int32_t buffer_size, int32_t n);

/* Returns: the element count; 0 for null. */
QEL_API int32_t qel_fifo_saved_element(qel_fifo *fifo);

/* Drops every record. Null is ignored. */
QEL_API void qel_fifo_clear(qel_fifo *fifo);

QEL_END_DECLS

#endif /* QEL_FIFO_H */

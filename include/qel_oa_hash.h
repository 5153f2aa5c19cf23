/*
 * qel_oa_hash.h: the open-addressing hash table (Robin Hood probing).
 *
 * One flat array of slots, probed linearly from a key's home slot (hash AND
 * (capacity - 1)), wrapping from the last slot to slot 0. Each occupied slot
 * records its probe sequence length (PSL): 1 in the home slot, k when k - 1
 * slots past it; 0 marks an empty slot. An entry being placed takes the slot
 * of a resident that is nearer its own home (smaller PSL) and carries the
 * resident on. Deletion shifts the following entries back (no tombstones).
 * The capacity is 8 at creation and doubles whenever an insertion leaves the
 * table more than half full; it never shrinks.
 *
 * Hash: the x33 byte hash seeded with 5381 (h = h * 33 + byte, modulo 2^32);
 * the chained table (qel_xhash.h) uses 5318, and each table keeps its own.
 *
 * Ownership: the caller owns the table from qel_oa_hash_create to
 * qel_oa_hash_destroy. Keys are copied into key blocks owned by the table (one
 * block per key: the 32-bit length, the bytes and a NUL, so a key also reads
 * as a NUL-terminated string). Values are the caller's; the value-free
 * callback, when set, is called on a value that is replaced, deleted or
 * cleared.
 *
 * Results: insert returns 0 (added), 1 (replaced) or -1; search and delete 0
 * or -1. A null table, a null key or a zero key length is invalid: the call
 * returns -1 (0 for the size and count, nothing for void calls) at once.
 *
 * Out of memory: creation returns null if one of its three allocations fails.
 * Key-block, growth and histogram allocations are fatal: the line
 * "[PID:%-5ld]\t[ERROR]\t%-10s [%s(%d)] Out of memory\n" at level 0, then
 * exit(0). The module text is "oa_hash", this table's own source module, and
 * the line keeps the library's usual capital "Out" (only the chained tables
 * write it in lower case).
 *
 * Thread safety: unsynchronised; callers lock.
 *
 * Decisions: a slot whose key block was released by qel_oa_hash_clear never
 * matches a key, so a search or delete on a cleared table fails with -1
 * instead of reading a released block (lookups probe at most capacity slots);
 * inserting into a cleared table is not supported. The PSL histogram array of qel_oa_hash_psl_dbg is not freed,
 * as in the old code, and is registered as intended with LeakSanitizer.
 */
#ifndef QEL_OA_HASH_H
#define QEL_OA_HASH_H

#include <stdint.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* A key block: 32-bit length, the bytes, a NUL. Opaque to hosts. */
typedef struct _qel_oa_hash_key_st qel_oa_hash_key;

/* Called on a value when it is replaced, deleted or cleared. */
typedef void (*qel_oa_hash_free_fn)(void *value);

/* Traverse callback: the key as a NUL-terminated string, its value and the
 * caller's context; a non-zero return stops the traversal. */
typedef int (*qel_oa_hash_traverse_fn)(const char *key, void *value, void *context);

/* A slot. All fields are read-only for hosts. */
typedef struct _qel_oa_hash_slot_st {
    uint32_t psl;          /* 0 empty; 1 in the home slot; k: k - 1 slots past it */
    uint32_t hash;         /* full hash of the key */
    qel_oa_hash_key *key;  /* owned by the table */
} qel_oa_hash_slot;

/* The table record. All fields are read-only for hosts. */
typedef struct _qel_oa_hash_st {
    uint32_t count;                  /* live entries */
    uint32_t capacity;               /* slot count, a power of two */
    qel_oa_hash_slot *slots;         /* capacity slots */
    void **values;                   /* the value of slot i is values[i] */
    qel_oa_hash_free_fn value_free;  /* may be null */
} qel_oa_hash;

/* A new table of capacity 8 with zeroed arrays. The caller owns the result
 * and releases it with qel_oa_hash_destroy.
 * Returns: the table; null if an allocation failed (nothing is leaked). */
QEL_API qel_oa_hash *qel_oa_hash_create(qel_oa_hash_free_fn value_free);

/* Inserts or replaces. The key block is made before probing (and freed again
 * if the key exists). On an existing key the value-free callback (if set) is
 * called on the old value and the new value stored; the slot keeps its key
 * block and the count is kept. A new entry that leaves count > capacity / 2
 * doubles the table.
 * Returns: 0 if added; 1 if replaced; -1 for a null table, null key or zero
 * length. */
QEL_API int qel_oa_hash_insert(qel_oa_hash *table, const void *key, uint32_t key_len, void *value);

/* Looks a key up, stopping at an empty slot or at a PSL smaller than the
 * distance probed; stores the value in *value if value is non-null.
 * Returns: 0 if found; -1 if not found or the arguments are invalid. */
QEL_API int qel_oa_hash_search(qel_oa_hash *table, const void *key, uint32_t key_len, void **value);

/* Removes a key (value free, key block), then shifts the following entries
 * with PSL 2 or more back by one slot each.
 * Returns: 0 if removed; -1 if absent or the arguments are invalid. */
QEL_API int qel_oa_hash_delete(qel_oa_hash *table, const void *key, uint32_t key_len);

/* Releases every key block and value (value free, then the value zeroed) and
 * sets the count to 0, leaving each slot's PSL and hash in place: a cleared
 * table is for destroying, not for reuse. Null: nothing. */
QEL_API void qel_oa_hash_clear(qel_oa_hash *table);

/* Clears, then frees both arrays and the record. Null is allowed. */
QEL_API void qel_oa_hash_destroy(qel_oa_hash *table);

/* Calls the callback for each occupied slot in index order until it returns
 * non-zero. Does nothing for a null table, a count of 0 or a null callback. */
QEL_API void qel_oa_hash_traverse(qel_oa_hash *table, qel_oa_hash_traverse_fn callback, void *context);

/* Returns: the capacity; 0 for null. */
QEL_API uint32_t qel_oa_hash_size(qel_oa_hash *table);

/* Returns: the count; 0 for null. */
QEL_API uint32_t qel_oa_hash_count(qel_oa_hash *table);

/* Prints "PSL %d: %u\n" to standard output, the number of slots per PSL, for
 * each PSL from 0 up to but deliberately not including the largest (empty
 * slots count as PSL 0). Null: nothing. */
QEL_API void qel_oa_hash_psl_dbg(qel_oa_hash *table);

QEL_END_DECLS

#endif /* QEL_OA_HASH_H */

/*
 * qel_xhash.h: the chained hash table (xhash) and the hash set built on it.
 *
 * Keys are byte strings with an explicit 32-bit length; values are one
 * pointer-sized word each. Collisions are chained; the slot array grows in
 * fixed steps from a small table of sizes, never shrinks, and never grows past
 * 262144 slots on its own:
 *
 *   slots    8   16   64   256   2048   16384   262144
 *   grow at 24   64  256  1024  10240   81920   2147483647 (never)
 *
 * A table grows when an insertion brings the entry count to its grow threshold.
 * The steps are uneven (x2, x4, x8) and the load limit per row differs (3, 4,
 * then 5 entries per slot) on purpose.
 *
 * Hash and compare: the default hash is the library's x33 byte hash seeded
 * with 5318 (h = h * 33 + byte, modulo 2^32). The default compare returns 0
 * when both lengths and all bytes are equal, 1 otherwise. A key's slot is its
 * full hash AND (slot count - 1). Keys of length 0 are allowed and all equal.
 *
 * Ownership: the caller owns the table from creation to qel_xhash_destroy, and
 * a cookie to qel_xhash_cookie_destroy. Keys are copied unless the table
 * borrows them (QEL_XHASH_BORROW_KEYS): a copied key is exactly key-length
 * bytes (no NUL is added) and lives until its entry is deleted or cleared; a
 * borrowed key must stay valid for as long as its entry exists. Values are the
 * caller's; the table calls its value-free callback, when set, on a value that
 * is replaced, deleted or cleared.
 *
 * Results: search and delete return 0 or -1; the hash set's find and remove
 * return 1 or 0; insert returns nothing.
 *
 * Null arguments: a null table makes every call do nothing and return its
 * failure value (-1, 0 for counts and predicates, nothing for void calls). A
 * null key is accepted only with length 0, where it is the empty key; a null
 * key with a non-zero length is a failure as for a null table.
 *
 * Out of memory: allocation failures (the record, the slot array, a node with
 * its key copy, a cookie) are fatal: the line
 * "[PID:%-5ld]\t[ERROR]\t%-10s [%s(%d)] out of memory\n" (lower case) at level
 * 0 with the module "hash", then exit(0). The unprefixed xhash_* entry points
 * report the path of their own source module instead: this build uses the
 * compiler's path of old/hash_.cpp with its extension removed, so the module
 * text ends in "old/hash_" (the full path is whatever the build passed for
 * that file).
 *
 * Thread safety: unsynchronised; callers lock.
 *
 * Decisions: the node and its key copy are one allocation (the key bytes
 * follow the node record); a walk callback may delete the entry it is given
 * and no other; slot counts and walk order are those of the growth table
 * above and are part of the contract (a walk visits slots in index order and
 * each chain from its head, and a rebuild reverses a chain that stays
 * together).
 */
#ifndef QEL_XHASH_H
#define QEL_XHASH_H

#include <stdint.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* Bit 0 of the flags: keys are borrowed (stored as given, never copied or
 * freed). Clear: each key is copied. */
#define QEL_XHASH_BORROW_KEYS 0x1u

/* The threshold of a table that never grows again. */
#define QEL_XHASH_NEVER_GROW 2147483647u

/* Called on a value when it is replaced, deleted or cleared. */
typedef void (*qel_xhash_free_fn)(void *value);
/* Full 32-bit hash of a key. */
typedef uint32_t (*qel_xhash_hash_fn)(const void *key, uint32_t key_len);
/* 0 when the keys are equal, non-zero otherwise. */
typedef int (*qel_xhash_compare_fn)(const void *a, uint32_t a_len, const void *b, uint32_t b_len);
/* Walk callback: receives an entry and the caller's context. For
 * qel_xhash_walk a non-zero return stops the walk; qel_xhash_walk_partial
 * ignores it. */
typedef int (*qel_xhash_walk_fn)(const void *key, uint32_t key_len, void *value, void *context);

/* A chain node. All fields are read-only for hosts. */
typedef struct _qel_xhash_node_st {
    void *key;                        /* the copy, or the caller's key if borrowed */
    uint32_t key_len;
    uint32_t hash;                    /* full hash of the key */
    void *value;
    struct _qel_xhash_node_st *next;  /* next node of the chain, null at the end */
} qel_xhash_node;

/* The table record. All fields are read-only for hosts. */
typedef struct _qel_xhash_st {
    qel_xhash_node **slots;            /* chain heads, null when empty */
    uint32_t nslot;                    /* slot count, a power of two */
    uint32_t maxn;                     /* grow threshold */
    uint32_t count;                    /* entry count (clear leaves it unchanged) */
    uint32_t flags;                    /* QEL_XHASH_BORROW_KEYS or 0 */
    qel_xhash_free_fn value_free;      /* may be null */
    qel_xhash_hash_fn hash;            /* never null */
    qel_xhash_compare_fn compare;      /* never null */
} qel_xhash;

/* Partial-walk cookie: fraction of slots per call, next slot to visit. The
 * caller sets fields only through the calls below. */
typedef struct _qel_xhash_cookie_st {
    float percent;
    uint32_t next;
} qel_xhash_cookie;

/* The hash set: the same table, keys only (values are 0, keys copied). */
typedef qel_xhash qel_hash_set;

/* A new table of 8 slots with threshold 24. A null hash or compare takes the
 * default. The caller owns the result and releases it with qel_xhash_destroy.
 * Returns: the table (never null; allocation failure is fatal). */
QEL_API qel_xhash *qel_xhash_create2(qel_xhash_free_fn value_free, qel_xhash_hash_fn hash,
                                     qel_xhash_compare_fn compare, uint32_t flags);

/* qel_xhash_create2(value_free, hash, default compare, 0): keys copied.
 * Returns: the table. */
QEL_API qel_xhash *qel_xhash_create(qel_xhash_free_fn value_free, qel_xhash_hash_fn hash);

/* Grows the table in advance: the target is the first growth-table row (up to
 * 16384 slots) whose slot count is strictly greater than wanted, or else
 * qel_round_up_power2(wanted) slots with threshold 2147483647. The table is
 * rebuilt only if the target is larger than the current slot count. */
QEL_API void qel_xhash_set_nslot(qel_xhash *table, uint32_t wanted);

/* Inserts or replaces. On an existing key the value-free callback (if set) is
 * called on the old value, the new value stored and the count kept; with
 * borrowed keys the node also takes the new key pointer and length. A new key
 * is pushed at the head of its chain and the count rises by one; reaching the
 * grow threshold grows the table to the next row. */
QEL_API void qel_xhash_insert(qel_xhash *table, const void *key, uint32_t key_len, void *value);

/* Looks a key up; stores its value in *value if value is non-null.
 * Returns: 0 if found; -1 if not found or the arguments are invalid. */
QEL_API int qel_xhash_search(qel_xhash *table, const void *key, uint32_t key_len, void **value);

/* Removes the first matching entry: the count falls by one, value free is
 * called on its value, the key copy and node are freed. Never shrinks.
 * Returns: 0 if removed; -1 if not found or the arguments are invalid. */
QEL_API int qel_xhash_delete(qel_xhash *table, const void *key, uint32_t key_len);

/* Removes every entry (value free, key copy, node), leaving the entry count
 * and the slot array unchanged, deliberately: qel_xhash_count still reports
 * the old number afterwards. Null is allowed. */
QEL_API void qel_xhash_clear(qel_xhash *table);

/* Clears, then frees the slot array and the record. Null is allowed. */
QEL_API void qel_xhash_destroy(qel_xhash *table);

/* Visits slots in index order and each chain from its head. The callback may
 * delete the entry it is given (and no other).
 * Returns: 0 when every entry was visited; 1 if the callback returned
 * non-zero; -1 if the table or the callback is null. */
QEL_API int qel_xhash_walk(qel_xhash *table, void *context, qel_xhash_walk_fn callback);

/* A new cookie with next slot 0; a fraction above 1.0 is lowered to 1.0 (zero
 * and negative fractions are kept). The caller owns the result and releases
 * it with qel_xhash_cookie_destroy.
 * Returns: the cookie (never null; allocation failure is fatal). */
QEL_API qel_xhash_cookie *qel_xhash_cookie_create(float percent);

/* Stores the fraction as given, deliberately without the 1.0 limit (a
 * fraction above 1.0 makes one partial walk visit some slots twice). Null
 * cookie: nothing. */
QEL_API void qel_xhash_cookie_set_percent(qel_xhash_cookie *cookie, float percent);

/* Frees the cookie. Null is allowed. */
QEL_API void qel_xhash_cookie_destroy(qel_xhash_cookie *cookie);

/* Visits slot count x fraction slots (truncated toward zero; at least 1, also
 * for a zero, negative or NaN fraction; at most 2^32 - 1), resuming at the
 * cookie's next slot and wrapping to 0 at the slot count; every entry of each
 * visited chain goes to the callback, whose result is ignored. Does nothing if
 * any argument but the context is null. */
QEL_API void qel_xhash_walk_partial(qel_xhash *table, qel_xhash_cookie *cookie, void *context,
                                    qel_xhash_walk_fn callback);

/* For each slot whose chain length L is less than n, adds 1 to counters[L];
 * longer chains are not counted. The caller zeroes the counters. Null table
 * or counters: nothing. */
QEL_API void qel_xhash_slotinfo(qel_xhash *table, uint32_t *counters, uint32_t n);

/* Returns: the slot count; 0 for null. */
QEL_API uint32_t qel_xhash_slotcount(qel_xhash *table);

/* Returns: the entry count; 0 for null. */
QEL_API uint32_t qel_xhash_count(qel_xhash *table);

/* ---- hash set ------------------------------------------------------------ */

/* qel_xhash_create2(null, hash, compare, 0). Released with qel_hash_set_unit.
 * Returns: the set. */
QEL_API qel_hash_set *qel_hash_set_init(qel_xhash_hash_fn hash, qel_xhash_compare_fn compare);

/* qel_xhash_destroy. */
QEL_API void qel_hash_set_unit(qel_hash_set *set);

/* qel_xhash_clear (the size is kept, as for the table). */
QEL_API void qel_hash_set_clear(qel_hash_set *set);

/* Returns: 1 if the key is present; 0 if not or the arguments are invalid. */
QEL_API int qel_hash_set_find(qel_hash_set *set, const void *key, uint32_t key_len);

/* qel_xhash_insert with value 0. */
QEL_API void qel_hash_set_insert(qel_hash_set *set, const void *key, uint32_t key_len);

/* Returns: 1 if removed; 0 if absent or the arguments are invalid. */
QEL_API int qel_hash_set_remove(qel_hash_set *set, const void *key, uint32_t key_len);

/* Returns: the entry count; 0 for null. */
QEL_API uint32_t qel_hash_set_size(qel_hash_set *set);

/* Returns: the current grow threshold; 0 for null. */
QEL_API uint32_t qel_hash_set_maxn(qel_hash_set *set);

/* ---- unprefixed twins -----------------------------------------------------
 * The same arguments and behaviour as the qel_xhash_* call of the same
 * suffix, including the default hash (seed 5318) and compare; only the
 * out-of-memory line names this interface's own module (see above). */
QEL_API qel_xhash *xhash_create(qel_xhash_free_fn value_free, qel_xhash_hash_fn hash);
QEL_API qel_xhash *xhash_create2(qel_xhash_free_fn value_free, qel_xhash_hash_fn hash,
                                 qel_xhash_compare_fn compare, uint32_t flags);
QEL_API void xhash_destroy(qel_xhash *table);
QEL_API void xhash_insert(qel_xhash *table, const void *key, uint32_t key_len, void *value);
QEL_API int xhash_search(qel_xhash *table, const void *key, uint32_t key_len, void **value);
QEL_API int xhash_delete(qel_xhash *table, const void *key, uint32_t key_len);
QEL_API void xhash_clear(qel_xhash *table);
QEL_API int xhash_walk(qel_xhash *table, void *context, qel_xhash_walk_fn callback);
QEL_API void xhash_walk_partial(qel_xhash *table, qel_xhash_cookie *cookie, void *context,
                                qel_xhash_walk_fn callback);
QEL_API uint32_t xhash_count(qel_xhash *table);
QEL_API void xhash_set_nslot(qel_xhash *table, uint32_t wanted);
QEL_API void xhash_slotinfo(qel_xhash *table, uint32_t *counters, uint32_t n);
QEL_API uint32_t xhash_slotcount(qel_xhash *table);
QEL_API qel_xhash_cookie *xhash_cookie_create(float percent);
QEL_API void xhash_cookie_destroy(qel_xhash_cookie *cookie);
QEL_API void xhash_cookie_set_percent(qel_xhash_cookie *cookie, float percent);

QEL_END_DECLS

#endif /* QEL_XHASH_H */

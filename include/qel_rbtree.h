/*
 * qel_rbtree.h: an ordered dictionary of byte-string keys and pointer-sized
 * values, kept balanced as a red-black tree.
 *
 * The tree caches its smallest and largest nodes, so ordered iteration from
 * either end starts in constant time. Nodes double as cursors: a cursor's
 * first three fields (key, key_len, value) may be read directly; the rest are
 * private. A cursor stays valid until its key is deleted or the tree is
 * destroyed.
 *
 * Order: ascending by the tree's compare. The default compare looks at the
 * first min(len a, len b) bytes as unsigned and, when they are equal, returns
 * len a - len b, so a key that is a prefix of another sorts first ("ab" <
 * "abc" < "abd").
 *
 * Bounds: qel_rbtree_lower_bound is the ceiling (the first node not less than
 * the key) and qel_rbtree_upper_bound the floor (the last node not greater
 * than the key); both return an exact match when there is one.
 *
 * Ownership: unless QEL_RBTREE_BORROW_KEYS is set, each key is copied when its
 * node is created and the copy is freed with the node; with the flag the tree
 * stores the caller's pointer, which must stay valid while the key is in the
 * tree. Values belong to the caller; the value free callback, if given, is
 * called on a value when it is replaced, deleted or destroyed. The caller owns
 * the tree and releases it with qel_rbtree_destroy.
 *
 * Results: qel_rbtree_search returns 0 or -1; the other calls return nodes
 * (null for none), counts, or nothing.
 *
 * Null arguments: a null tree (or node, for next/prev) makes each call do
 * nothing and return null, -1 or 0. A null key is refused the same way,
 * except that a null key of length 0 is the empty key.
 *
 * Out of memory: creation returns null; an allocation failure while inserting
 * is fatal (the out-of-memory line for module "rbtree", then exit(0)).
 *
 * Thread safety: none; callers lock.
 *
 * Decisions of this implementation: a copied key lives in the same block as
 * its node (the node's key pointer points just past the node), so an insert
 * costs one allocation; the empty key is stored with a non-null key pointer.
 */
#ifndef QEL_RBTREE_H
#define QEL_RBTREE_H

#include <stddef.h>
#include <stdint.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* Flag bit 0: keys are borrowed (never copied or freed). */
#define QEL_RBTREE_BORROW_KEYS 0x1u

/* Node colours. */
#define QEL_RBTREE_BLACK 0u
#define QEL_RBTREE_RED 1u

/* Orders two keys: negative, zero or positive as a sorts before, with or
 * after b. */
typedef int32_t (*qel_rbtree_compare_fn)(const void *a, uint32_t a_len, const void *b, uint32_t b_len);
/* Releases a value. */
typedef void (*qel_rbtree_free_fn)(void *value);
/* Visits one entry; a non-zero result stops the walk. */
typedef int (*qel_rbtree_walk_fn)(const void *key, uint32_t key_len, void *value, void *context);

/* A node, handed out as a cursor. */
typedef struct _qel_rbtree_node_st {
    const void *key;                     /* read-only */
    uint32_t key_len;                    /* read-only */
    void *value;                         /* read-only */
    struct _qel_rbtree_node_st *left;    /* private */
    struct _qel_rbtree_node_st *right;   /* private */
    struct _qel_rbtree_node_st *parent;  /* private */
    uint32_t color;                      /* private: QEL_RBTREE_RED or _BLACK */
} qel_rbtree_node;

/* The tree record; every field is read-only for hosts. */
typedef struct _qel_rbtree_st {
    qel_rbtree_node *root;   /* null when empty */
    qel_rbtree_node *first;  /* smallest node, null when empty */
    qel_rbtree_node *last;   /* largest node, null when empty */
    uint32_t count;          /* number of nodes */
    uint32_t flags;          /* QEL_RBTREE_BORROW_KEYS or 0 */
    qel_rbtree_compare_fn compare; /* never null */
    qel_rbtree_free_fn value_free; /* may be null */
} qel_rbtree;

/* Creates an empty tree. A null compare takes the default.
 * Returns: the tree; null if it cannot be allocated. */
QEL_API qel_rbtree *qel_rbtree_create(qel_rbtree_free_fn value_free, qel_rbtree_compare_fn compare,
                                      uint32_t flags);

/* Inserts the key with the value, or replaces the value of an existing key
 * (value free is called on the old value; with borrowed keys the node takes
 * the new key pointer and length). The count grows only for a new key. */
QEL_API void qel_rbtree_insert(qel_rbtree *tree, const void *key, uint32_t key_len, void *value);

/* Deletes the key: value free on its value, then the node and its key copy
 * are freed. A missing key is ignored. */
QEL_API void qel_rbtree_delete(qel_rbtree *tree, const void *key, uint32_t key_len);

/* Looks the key up and stores its value in *value when value is non-null.
 * Returns: 0 if found; -1 if not (or for a null tree or key). */
QEL_API int qel_rbtree_search(qel_rbtree *tree, const void *key, uint32_t key_len, void **value);

/* Returns: the node with the key; null if none. */
QEL_API qel_rbtree_node *qel_rbtree_get_cursor(qel_rbtree *tree, const void *key, uint32_t key_len);

/* Ceiling. Returns: the node with the key if present, else the smallest node
 * greater than it; null if none. */
QEL_API qel_rbtree_node *qel_rbtree_lower_bound(qel_rbtree *tree, const void *key, uint32_t key_len);

/* Floor. Returns: the node with the key if present, else the largest node
 * smaller than it; null if none. */
QEL_API qel_rbtree_node *qel_rbtree_upper_bound(qel_rbtree *tree, const void *key, uint32_t key_len);

/* Returns: the smallest node; null if the tree is empty. */
QEL_API qel_rbtree_node *qel_rbtree_first(qel_rbtree *tree);

/* Returns: the largest node; null if the tree is empty. */
QEL_API qel_rbtree_node *qel_rbtree_last(qel_rbtree *tree);

/* Returns: the in-order successor of node; null after the last node. */
QEL_API qel_rbtree_node *qel_rbtree_next(qel_rbtree_node *node);

/* Returns: the in-order predecessor of node; null before the first node. */
QEL_API qel_rbtree_node *qel_rbtree_prev(qel_rbtree_node *node);

/* Calls callback(key, key_len, value, context) for each entry in ascending
 * order and stops at the first non-zero result. The callback must not insert
 * or delete.
 * Returns: 0 when every node was visited, the callback is null or the tree is
 * null; otherwise the first non-zero value that the callback returned. */
QEL_API int qel_rbtree_walk(qel_rbtree *tree, void *context, qel_rbtree_walk_fn callback);

/* Returns: the number of nodes; 0 for null. */
QEL_API uint32_t qel_rbtree_count(qel_rbtree *tree);

/* Returns: count x 28, the memory taken by the nodes as counted on the 32-bit
 * reference platform (whatever this build's node size is); 0 for null. */
QEL_API uint32_t qel_rbtree_size(qel_rbtree *tree);

/* Frees every node (post-order: key copy, value free on the value, node) and
 * the record. Null is ignored. */
QEL_API void qel_rbtree_destroy(qel_rbtree *tree);

QEL_END_DECLS

#endif /* QEL_RBTREE_H */

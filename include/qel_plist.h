/*
 * qel_plist.h: an intrusive singly-linked list ordered by descending
 * priority.
 *
 * The caller embeds a qel_plist_node in its own objects and keeps one node as
 * the list head (priority 2147483647, set by qel_plist_head_init). A new node
 * goes before older nodes of equal priority, so nodes of one priority come
 * out newest first.
 *
 * Ownership: the list allocates and frees nothing; nodes belong to the
 * caller, who may free a node once it is unlinked.
 *
 * Null arguments: every call ignores a null head or node (and qel_plist_del a
 * null predicate).
 *
 * Thread safety: none; callers lock.
 */
#ifndef QEL_PLIST_H
#define QEL_PLIST_H

#include <stddef.h>
#include <stdint.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* A list node, embedded in the caller's object. */
typedef struct _qel_plist_node_st {
    struct _qel_plist_node_st *next; /* private: managed by the list */
    int32_t priority;                /* caller sets before qel_plist_add */
} qel_plist_node;

/* The head's priority. */
#define QEL_PLIST_HEAD_PRIORITY 2147483647

/* Decides whether a node goes: non-zero unlinks it. */
typedef int (*qel_plist_predicate_fn)(qel_plist_node *node, void *context);

/* Makes head an empty list: next null, priority 2147483647. */
QEL_API void qel_plist_head_init(qel_plist_node *head);

/* Inserts node after the last node whose priority is strictly greater than
 * its own. Into an empty list the node is linked without its own next being
 * written: pass nodes whose next is null. */
QEL_API void qel_plist_add(qel_plist_node *node, qel_plist_node *head);

/* Unlinks every node for which predicate(node, context) returns non-zero;
 * frees nothing. The predicate may free the node it is given only when it
 * returns non-zero. */
QEL_API void qel_plist_del(qel_plist_node *head, qel_plist_predicate_fn predicate, void *context);

QEL_END_DECLS

#endif /* QEL_PLIST_H */

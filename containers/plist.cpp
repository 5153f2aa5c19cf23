// The priority list: descending order, a new node before older equal ones.

#include "qel_plist.h"

#include "base/internal.h"

void qel_plist_head_init(qel_plist_node *head)
{
    QEL_CHECK_VOID(head != nullptr);
    head->next = nullptr;
    head->priority = QEL_PLIST_HEAD_PRIORITY;
}

void qel_plist_add(qel_plist_node *node, qel_plist_node *head)
{
    QEL_CHECK_VOID(node != nullptr && head != nullptr);
    if (head->next == nullptr) {
        // The node's own next is deliberately left as the caller set it.
        head->next = node;
        return;
    }
    qel_plist_node *at = head;
    while (at->next != nullptr && at->next->priority > node->priority)
        at = at->next;
    node->next = at->next;
    at->next = node;
}

void qel_plist_del(qel_plist_node *head, qel_plist_predicate_fn predicate, void *context)
{
    QEL_CHECK_VOID(head != nullptr && predicate != nullptr);
    qel_plist_node *at = head;
    while (at->next != nullptr) {
        qel_plist_node *n = at->next;
        qel_plist_node *after = n->next; // read first: the predicate may free n
        if (predicate(n, context) != 0)
            at->next = after;
        else
            at = n;
    }
}

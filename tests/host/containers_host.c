/* A host program that uses the ordered and sequential containers through the
 * shared library only, reading a tree cursor's key, length and value fields
 * directly as hosts do. Returns 0 on success. */
#include <stdint.h>
#include <string.h>

#include "qel_cbuf.h"
#include "qel_fifo.h"
#include "qel_heap.h"
#include "qel_plist.h"
#include "qel_rbtree.h"
#include "qel_vector.h"

static int compare_ptr(const void *a, const void *b)
{
    return (uintptr_t)a < (uintptr_t)b ? -1 : (uintptr_t)a > (uintptr_t)b;
}

static int check_tree(void)
{
    static const char *keys[] = {"pear", "apple", "fig", "apricot"};
    qel_rbtree *t = qel_rbtree_create(NULL, NULL, 0);
    qel_rbtree_node *c;
    uintptr_t i;
    if (t == NULL)
        return 1;
    for (i = 0; i < 4; ++i)
        qel_rbtree_insert(t, keys[i], (uint32_t)strlen(keys[i]), (void *)(i + 1));
    c = qel_rbtree_first(t);
    if (c == NULL || c->key_len != 5 || memcmp(c->key, "apple", 5) != 0 || c->value != (void *)2)
        return 2;
    c = qel_rbtree_next(c);
    if (c == NULL || c->key_len != 7 || memcmp(c->key, "apricot", 7) != 0)
        return 3;
    c = qel_rbtree_lower_bound(t, "b", 1);
    if (c == NULL || memcmp(c->key, "fig", 3) != 0)
        return 4;
    c = qel_rbtree_upper_bound(t, "b", 1);
    if (c == NULL || memcmp(c->key, "apricot", 7) != 0)
        return 5;
    if (qel_rbtree_size(t) != 4 * 28)
        return 6;
    qel_rbtree_destroy(t);
    return 0;
}

static int check_sequential(void)
{
    qel_vector *v = NULL;
    qel_binheap *h = qel_heap_create(NULL, 0);
    qel_fifo *f = qel_fifo_init(16);
    unsigned char mem[8];
    char out[16];
    qel_cbuf cb;
    qel_plist_node head, a, b;
    void *top = NULL;
    uintptr_t i;
    if (qel_vector_create(&v, 0) != QEL_OK || qel_vector_capacity(v) != 256)
        return 10;
    for (i = 10; i > 0; --i) {
        qel_vector_push_back(v, (void *)i);
        qel_heap_push(h, (void *)i);
    }
    qel_vector_qsort(v, compare_ptr);
    if (qel_vector_pos_at(v, 0) != (void *)1 || qel_vector_pos_at(v, 9) != (void *)10)
        return 11;
    if (qel_heap_pop(h, &top) != 0 || top != (void *)1)
        return 12;
    if (qel_fifo_push(f, "hello world", 11) != 0 || qel_fifo_push(f, "x", 1) != -1)
        return 13;
    if (qel_fifo_pop(f, out, sizeof out) != 0 || memcmp(out, "hello world", 11) != 0)
        return 14;
    if (qel_cbuf_init(&cb, mem, 8) != 1 || qel_cbuf_put(&cb, "0123456789", 10) != 7)
        return 15;
    qel_plist_head_init(&head);
    a.next = NULL;
    a.priority = 1;
    b.next = NULL;
    b.priority = 2;
    qel_plist_add(&a, &head);
    qel_plist_add(&b, &head);
    if (head.next != &b || b.next != &a)
        return 16;
    qel_fifo_uninit(&f);
    qel_heap_destroy(h);
    qel_vector_destroy(v);
    return f == NULL ? 0 : 17;
}

int main(void)
{
    int r = check_tree();
    return r != 0 ? r : check_sequential();
}

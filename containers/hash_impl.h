/*
 * hash_impl.h: the chained table's internals, shared by the current module
 * (containers/hash.cpp) and the unprefixed one (old/hash_.cpp).
 *
 * The two interfaces differ only in the module their out-of-memory line names,
 * so every allocating operation is a template over a Site: a struct whose
 * static alloc(size) and calloc(n, size) are the module's own fatal funnel
 * calls. Everything that does not allocate is a plain function defined once in
 * hash.cpp.
 */
#ifndef QEL_CONTAINERS_HASH_IMPL_H
#define QEL_CONTAINERS_HASH_IMPL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/internal.h"
#include "containers/key_bytes.h"
#include "qel_xhash.h"

namespace qel::xhash_internal {

/* One row of the growth table. */
struct Row {
    uint32_t nslot;
    uint32_t maxn;
};

/* Rows 0..5 grow to the next row; row 6 never grows. */
inline constexpr Row kRows[7] = {
    {8, 24}, {16, 64}, {64, 256}, {256, 1024}, {2048, 10240}, {16384, 81920}, {262144, QEL_XHASH_NEVER_GROW},
};
inline constexpr int kGrowingRows = 6;

uint32_t default_hash(const void *key, uint32_t key_len);
int default_compare(const void *a, uint32_t a_len, const void *b, uint32_t b_len);

/* The table's hash of a key; the default hash is computed in line. */
inline uint32_t hash_of(const qel_xhash *t, const void *key, uint32_t key_len)
{
    if (t->hash == default_hash)
        return detail::hash33(key, key_len);
    return t->hash(key, key_len);
}

/* Does node n hold the key whose full hash is h? The stored hash is checked
 * before any key compare; the default compare is done in line. */
inline bool node_matches(const qel_xhash *t, const qel_xhash_node *n, uint32_t h, const void *key,
                         uint32_t key_len)
{
    if (n->hash != h)
        return false;
    if (t->compare == default_compare)
        return n->key_len == key_len && detail::key_bytes_equal(n->key, key, key_len);
    return t->compare(n->key, n->key_len, key, key_len) == 0;
}

/* Fills a new record with 8 slots and threshold 24 (slots already zeroed). */
void init_record(qel_xhash *t, qel_xhash_node **slots, qel_xhash_free_fn value_free, qel_xhash_hash_fn hash,
                 qel_xhash_compare_fn compare, uint32_t flags);

/* On an existing key: value free on the old value, store the new one (and the
 * new key if borrowed). */
void replace(qel_xhash *t, qel_xhash_node *n, const void *key, uint32_t key_len, void *value);

/* Bytes for a node and, with copied keys, its key copy; SIZE_MAX (which no
 * allocator grants) if that does not fit a size_t. */
inline size_t node_size(const qel_xhash *t, uint32_t key_len)
{
    size_t size = sizeof(qel_xhash_node);
    if ((t->flags & QEL_XHASH_BORROW_KEYS) == 0 && detail::add_overflows(size, size_t{key_len}, &size))
        return SIZE_MAX;
    return size;
}

/* Fills a freshly allocated node, pushes it at the head of its chain and
 * counts it. Returns: true if the count reached the grow threshold. */
bool link_new(qel_xhash *t, qel_xhash_node **head, qel_xhash_node *n, const void *key, uint32_t key_len,
              uint32_t h, void *value);

/* The row after the current slot count, or false (with the "[BUG]" line on
 * standard error) if the slot count is not in rows 0..5. */
bool next_row(const qel_xhash *t, Row *out);

/* The target of set_nslot(wanted). */
Row nslot_target(uint32_t wanted);

/* Moves every node into the zeroed array `fresh` of row.nslot slots, frees the
 * old array and stores the row. */
void rebuild(qel_xhash *t, qel_xhash_node **fresh, Row row);

/* ---- allocating operations, one instance per interface --------------------- */

template <class Site>
qel_xhash *create2(qel_xhash_free_fn value_free, qel_xhash_hash_fn hash, qel_xhash_compare_fn compare,
                   uint32_t flags)
{
    auto *t = static_cast<qel_xhash *>(Site::alloc(sizeof(qel_xhash)));
    auto *slots = static_cast<qel_xhash_node **>(Site::calloc(kRows[0].nslot, sizeof(qel_xhash_node *)));
    init_record(t, slots, value_free, hash, compare, flags);
    return t;
}

template <class Site>
void insert(qel_xhash *t, const void *key, uint32_t key_len, void *value)
{
    QEL_CHECK_VOID(t != nullptr && (key != nullptr || key_len == 0));
    uint32_t h = hash_of(t, key, key_len);
    qel_xhash_node **head = &t->slots[h & (t->nslot - 1)];
    for (qel_xhash_node *n = *head; n != nullptr; n = n->next) {
        if (node_matches(t, n, h, key, key_len)) {
            replace(t, n, key, key_len, value);
            return;
        }
    }
    auto *n = static_cast<qel_xhash_node *>(Site::alloc(node_size(t, key_len)));
    Row row;
    if (link_new(t, head, n, key, key_len, h, value) && next_row(t, &row))
        rebuild(t, static_cast<qel_xhash_node **>(Site::calloc(row.nslot, sizeof(qel_xhash_node *))), row);
}

template <class Site>
void set_nslot(qel_xhash *t, uint32_t wanted)
{
    QEL_CHECK_VOID(t != nullptr);
    Row row = nslot_target(wanted);
    if (row.nslot > t->nslot)
        rebuild(t, static_cast<qel_xhash_node **>(Site::calloc(row.nslot, sizeof(qel_xhash_node *))), row);
}

template <class Site>
qel_xhash_cookie *cookie_create(float percent)
{
    auto *c = static_cast<qel_xhash_cookie *>(Site::alloc(sizeof(qel_xhash_cookie)));
    c->percent = percent > 1.0f ? 1.0f : percent;
    c->next = 0;
    return c;
}

} // namespace qel::xhash_internal

#endif /* QEL_CONTAINERS_HASH_IMPL_H */

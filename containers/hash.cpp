// The chained hash table and the hash set.
//
// A node and its key copy are one allocation: the key bytes follow the node
// record, so a lookup touches one block per chain step, and delete frees one
// block. Full hashes are stored in the nodes; a lookup compares them before
// any key, and a rebuild never hashes a key again.

#include "qel_xhash.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/internal.h"
#include "containers/hash_impl.h"
#include "qel_mem.h"

namespace {

// Fatal allocations of this module: the lower-case line with module "hash".
struct Site {
    static void *alloc(size_t size) { return QEL_MUST_ALLOC_LC(size, "hash"); }
    static void *calloc(size_t n, size_t size) { return QEL_MUST_CALLOC_LC(n, size, "hash"); }
};

namespace xi = qel::xhash_internal;

// Unlinks every node of one chain, as delete does for one.
void free_chain(qel_xhash *t, qel_xhash_node *n)
{
    while (n != nullptr) {
        qel_xhash_node *next = n->next;
        if (t->value_free != nullptr)
            t->value_free(n->value);
        free(n); // the key copy, if any, is part of the node block
        n = next;
    }
}

} // namespace

namespace qel::xhash_internal {

uint32_t default_hash(const void *key, uint32_t key_len)
{
    return detail::hash33(key, key_len);
}

int default_compare(const void *a, uint32_t a_len, const void *b, uint32_t b_len)
{
    if (a_len != b_len)
        return 1;
    return (a_len == 0 || memcmp(a, b, a_len) == 0) ? 0 : 1;
}

void init_record(qel_xhash *t, qel_xhash_node **slots, qel_xhash_free_fn value_free, qel_xhash_hash_fn hash,
                 qel_xhash_compare_fn compare, uint32_t flags)
{
    t->slots = slots;
    t->nslot = kRows[0].nslot;
    t->maxn = kRows[0].maxn;
    t->count = 0;
    t->flags = flags;
    t->value_free = value_free;
    t->hash = hash != nullptr ? hash : default_hash;
    t->compare = compare != nullptr ? compare : default_compare;
}

void replace(qel_xhash *t, qel_xhash_node *n, const void *key, uint32_t key_len, void *value)
{
    if (t->value_free != nullptr)
        t->value_free(n->value);
    n->value = value;
    if (t->flags & QEL_XHASH_BORROW_KEYS) {
        n->key = const_cast<void *>(key);
        n->key_len = key_len;
    } // a copied key keeps its first copy
}

bool link_new(qel_xhash *t, qel_xhash_node **head, qel_xhash_node *n, const void *key, uint32_t key_len,
              uint32_t h, void *value)
{
    if (t->flags & QEL_XHASH_BORROW_KEYS) {
        n->key = const_cast<void *>(key);
    } else {
        n->key = n + 1;
        if (key_len != 0)
            memcpy(n->key, key, key_len);
    }
    n->key_len = key_len;
    n->hash = h;
    n->value = value;
    n->next = *head;
    *head = n;
    return ++t->count >= t->maxn;
}

bool next_row(const qel_xhash *t, Row *out)
{
    for (int i = 0; i < kGrowingRows; ++i) {
        if (kRows[i].nslot == t->nslot) {
            *out = kRows[i + 1];
            return true;
        }
    }
    // Unreachable through the public calls: a slot count outside rows 0..5
    // always comes with the threshold that is never reached. Kept as a guard.
    fputs("[BUG] rehashing, can not get next_mask\n", stderr);
    return false;
}

Row nslot_target(uint32_t wanted)
{
    for (int i = 0; i < kGrowingRows; ++i) {
        if (kRows[i].nslot > wanted)
            return kRows[i];
    }
    return {qel_round_up_power2(wanted), QEL_XHASH_NEVER_GROW};
}

void rebuild(qel_xhash *t, qel_xhash_node **fresh, Row row)
{
    uint32_t mask = row.nslot - 1;
    for (uint32_t i = 0; i < t->nslot; ++i) {
        qel_xhash_node *n = t->slots[i];
        while (n != nullptr) {
            qel_xhash_node *next = n->next;
            // Head insertion: a chain that stays together comes out reversed.
            qel_xhash_node **head = &fresh[n->hash & mask];
            n->next = *head;
            *head = n;
            n = next;
        }
    }
    free(t->slots);
    t->slots = fresh;
    t->nslot = row.nslot;
    t->maxn = row.maxn;
}

} // namespace qel::xhash_internal

qel_xhash *qel_xhash_create2(qel_xhash_free_fn value_free, qel_xhash_hash_fn hash, qel_xhash_compare_fn compare,
                             uint32_t flags)
{
    return xi::create2<Site>(value_free, hash, compare, flags);
}

qel_xhash *qel_xhash_create(qel_xhash_free_fn value_free, qel_xhash_hash_fn hash)
{
    return qel_xhash_create2(value_free, hash, xi::default_compare, 0);
}

void qel_xhash_set_nslot(qel_xhash *table, uint32_t wanted)
{
    xi::set_nslot<Site>(table, wanted);
}

void qel_xhash_insert(qel_xhash *table, const void *key, uint32_t key_len, void *value)
{
    xi::insert<Site>(table, key, key_len, value);
}

int qel_xhash_search(qel_xhash *table, const void *key, uint32_t key_len, void **value)
{
    QEL_CHECK(table != nullptr && (key != nullptr || key_len == 0), -1);
    uint32_t h = xi::hash_of(table, key, key_len);
    for (qel_xhash_node *n = table->slots[h & (table->nslot - 1)]; n != nullptr; n = n->next) {
        if (xi::node_matches(table, n, h, key, key_len)) {
            if (value != nullptr)
                *value = n->value;
            return 0;
        }
    }
    return -1;
}

int qel_xhash_delete(qel_xhash *table, const void *key, uint32_t key_len)
{
    QEL_CHECK(table != nullptr && (key != nullptr || key_len == 0), -1);
    uint32_t h = xi::hash_of(table, key, key_len);
    for (qel_xhash_node **link = &table->slots[h & (table->nslot - 1)]; *link != nullptr; link = &(*link)->next) {
        qel_xhash_node *n = *link;
        if (xi::node_matches(table, n, h, key, key_len)) {
            *link = n->next;
            table->count--;
            n->next = nullptr;
            free_chain(table, n);
            return 0;
        }
    }
    return -1;
}

void qel_xhash_clear(qel_xhash *table)
{
    QEL_CHECK_VOID(table != nullptr);
    // The count and the slot array stay as they are, deliberately.
    for (uint32_t i = 0; i < table->nslot; ++i) {
        qel_xhash_node *n = table->slots[i];
        table->slots[i] = nullptr;
        free_chain(table, n);
    }
}

void qel_xhash_destroy(qel_xhash *table)
{
    QEL_CHECK_VOID(table != nullptr);
    qel_xhash_clear(table);
    free(table->slots);
    free(table);
}

int qel_xhash_walk(qel_xhash *table, void *context, qel_xhash_walk_fn callback)
{
    QEL_CHECK(table != nullptr && callback != nullptr, -1);
    for (uint32_t i = 0; i < table->nslot; ++i) {
        qel_xhash_node *n = table->slots[i];
        while (n != nullptr) {
            qel_xhash_node *next = n->next; // taken first: the callback may delete n
            if (callback(n->key, n->key_len, n->value, context) != 0)
                return 1;
            n = next;
        }
    }
    return 0;
}

qel_xhash_cookie *qel_xhash_cookie_create(float percent)
{
    return xi::cookie_create<Site>(percent);
}

void qel_xhash_cookie_set_percent(qel_xhash_cookie *cookie, float percent)
{
    QEL_CHECK_VOID(cookie != nullptr);
    cookie->percent = percent; // no 1.0 limit here, deliberately
}

void qel_xhash_cookie_destroy(qel_xhash_cookie *cookie)
{
    free(cookie);
}

void qel_xhash_walk_partial(qel_xhash *table, qel_xhash_cookie *cookie, void *context, qel_xhash_walk_fn callback)
{
    QEL_CHECK_VOID(table != nullptr && cookie != nullptr && callback != nullptr);
    // Slot count x fraction, truncated toward zero, at least 1. The product is
    // exact in float (the slot count is a power of two); it is clamped before
    // the conversion so that NaN, negative and huge fractions stay defined.
    float want = static_cast<float>(table->nslot) * cookie->percent;
    uint32_t visits = 1;
    if (want >= 4294967295.0f)
        visits = UINT32_MAX;
    else if (want >= 1.0f)
        visits = static_cast<uint32_t>(want);
    for (uint32_t v = 0; v < visits; ++v) {
        if (cookie->next >= table->nslot)
            cookie->next = 0;
        qel_xhash_node *n = table->slots[cookie->next];
        while (n != nullptr) {
            qel_xhash_node *next = n->next;
            callback(n->key, n->key_len, n->value, context);
            n = next;
        }
        cookie->next++;
    }
}

void qel_xhash_slotinfo(qel_xhash *table, uint32_t *counters, uint32_t n)
{
    QEL_CHECK_VOID(table != nullptr && counters != nullptr);
    for (uint32_t i = 0; i < table->nslot; ++i) {
        uint32_t len = 0;
        for (const qel_xhash_node *node = table->slots[i]; node != nullptr; node = node->next)
            ++len;
        if (len < n)
            counters[len]++;
    }
}

uint32_t qel_xhash_slotcount(qel_xhash *table)
{
    QEL_CHECK(table != nullptr, 0);
    return table->nslot;
}

uint32_t qel_xhash_count(qel_xhash *table)
{
    QEL_CHECK(table != nullptr, 0);
    return table->count;
}

// ---- hash set ----------------------------------------------------------------

qel_hash_set *qel_hash_set_init(qel_xhash_hash_fn hash, qel_xhash_compare_fn compare)
{
    return qel_xhash_create2(nullptr, hash, compare, 0);
}

void qel_hash_set_unit(qel_hash_set *set)
{
    qel_xhash_destroy(set);
}

void qel_hash_set_clear(qel_hash_set *set)
{
    qel_xhash_clear(set);
}

int qel_hash_set_find(qel_hash_set *set, const void *key, uint32_t key_len)
{
    return qel_xhash_search(set, key, key_len, nullptr) == 0 ? 1 : 0;
}

void qel_hash_set_insert(qel_hash_set *set, const void *key, uint32_t key_len)
{
    qel_xhash_insert(set, key, key_len, nullptr);
}

int qel_hash_set_remove(qel_hash_set *set, const void *key, uint32_t key_len)
{
    return qel_xhash_delete(set, key, key_len) == 0 ? 1 : 0;
}

uint32_t qel_hash_set_size(qel_hash_set *set)
{
    return qel_xhash_count(set);
}

uint32_t qel_hash_set_maxn(qel_hash_set *set)
{
    QEL_CHECK(set != nullptr, 0);
    return set->maxn;
}

// The open-addressing hash table: linear probing ordered by the Robin Hood
// rule, backward-shift deletion, doubling when more than half full.
//
// Invariant between calls (for a table that was not cleared): every entry sits
// psl - 1 slots past its home slot, with no empty slot between its home and
// itself, and along any run of occupied slots a PSL rises by at most one per
// step. That is what lets a lookup stop at the first slot whose PSL is
// smaller than the distance already probed: the key, had it been present,
// would have displaced that resident.

#include "qel_oa_hash.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/internal.h"
#include "containers/key_bytes.h"

#if defined(__SANITIZE_ADDRESS__)
#define QEL_OA_HASH_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QEL_OA_HASH_LSAN 1
#endif
#endif
#if defined(QEL_OA_HASH_LSAN)
#include <sanitizer/lsan_interface.h>
#endif

// The key block: length, bytes, NUL.
struct _qel_oa_hash_key_st {
    uint32_t len;
};

namespace {

constexpr const char *kModule = "oa_hash";
constexpr uint32_t kInitialCapacity = 8;

inline char *bytes_of(qel_oa_hash_key *k)
{
    return reinterpret_cast<char *>(k) + sizeof(uint32_t);
}

inline uint32_t hash_of(const void *key, uint32_t len)
{
    return qel::detail::hash33(key, len, qel::detail::kHashSeed5381);
}

qel_oa_hash_key *make_key(const void *key, uint32_t len)
{
    size_t size;
    if (qel::detail::add_overflows(size_t{len}, sizeof(uint32_t) + 1, &size))
        size = SIZE_MAX; // no allocator grants it: the fatal line follows
    auto *k = static_cast<qel_oa_hash_key *>(QEL_MUST_ALLOC(size, kModule));
    k->len = len;
    char *b = bytes_of(k);
    memcpy(b, key, len);
    b[len] = '\0';
    return k;
}

// The stored hash is compared first; a slot whose key block was released by
// clear never matches.
inline bool same_key(const qel_oa_hash_slot &s, uint32_t h, const void *key, uint32_t len)
{
    return s.hash == h && s.key != nullptr && s.key->len == len &&
           qel::detail::key_bytes_equal(bytes_of(s.key), key, len);
}

// Robin Hood placement of an entry whose key is not in the table, probing from
// slot i with the entry's current PSL.
void place(qel_oa_hash_slot *slots, void **values, uint32_t mask, qel_oa_hash_slot e, void *v, uint32_t i)
{
    for (;;) {
        qel_oa_hash_slot &s = slots[i];
        if (s.psl == 0) {
            s = e;
            values[i] = v;
            return;
        }
        if (s.psl < e.psl) { // the resident is nearer its home: it moves on
            std::swap(s, e);
            std::swap(values[i], v);
        }
        i = (i + 1) & mask;
        e.psl++;
    }
}

void grow(qel_oa_hash *t)
{
    uint32_t cap = qel::detail::trap_mul(t->capacity, 2u);
    auto *slots = static_cast<qel_oa_hash_slot *>(QEL_MUST_CALLOC(cap, sizeof(qel_oa_hash_slot), kModule));
    auto *values = static_cast<void **>(QEL_MUST_CALLOC(cap, sizeof(void *), kModule));
    uint32_t mask = cap - 1;
    for (uint32_t i = 0; i < t->capacity; ++i) {
        const qel_oa_hash_slot &s = t->slots[i];
        if (s.psl != 0)
            place(slots, values, mask, {1, s.hash, s.key}, t->values[i], s.hash & mask);
    }
    free(t->slots);
    free(t->values);
    t->slots = slots;
    t->values = values;
    t->capacity = cap;
}

// The slot holding the key, or -1. Probes at most capacity slots: from home to
// the end of the array, then from slot 0 up to home.
long find(const qel_oa_hash *t, uint32_t h, const void *key, uint32_t len)
{
    uint32_t mask = t->capacity - 1;
    uint32_t i = h & mask;
    for (uint32_t psl = 1; psl <= t->capacity; ++psl) {
        const qel_oa_hash_slot &s = t->slots[i];
        if (s.psl < psl) // empty (PSL 0), or a resident the key would have displaced
            return -1;
        if (same_key(s, h, key, len))
            return static_cast<long>(i);
        i = (i + 1) & mask;
    }
    return -1;
}

inline bool valid(const qel_oa_hash *t, const void *key, uint32_t len)
{
    return t != nullptr && key != nullptr && len != 0;
}

} // namespace

qel_oa_hash *qel_oa_hash_create(qel_oa_hash_free_fn value_free)
{
    auto *t = static_cast<qel_oa_hash *>(qel::detail::try_alloc(sizeof(qel_oa_hash)));
    auto *slots = static_cast<qel_oa_hash_slot *>(qel::detail::try_calloc(kInitialCapacity, sizeof(qel_oa_hash_slot)));
    auto *values = static_cast<void **>(qel::detail::try_calloc(kInitialCapacity, sizeof(void *)));
    if (t == nullptr || slots == nullptr || values == nullptr) {
        free(t);
        free(slots);
        free(values);
        return nullptr;
    }
    t->count = 0;
    t->capacity = kInitialCapacity;
    t->slots = slots;
    t->values = values;
    t->value_free = value_free;
    return t;
}

int qel_oa_hash_insert(qel_oa_hash *table, const void *key, uint32_t key_len, void *value)
{
    QEL_CHECK(valid(table, key, key_len), -1);
    uint32_t h = hash_of(key, key_len);
    qel_oa_hash_key *k = make_key(key, key_len); // made before probing, as the old code does
    uint32_t mask = table->capacity - 1;
    uint32_t i = h & mask;
    qel_oa_hash_slot e{1, h, k};
    for (;;) {
        qel_oa_hash_slot &s = table->slots[i];
        if (s.psl == 0) {
            s = e;
            table->values[i] = value;
            break;
        }
        if (same_key(s, h, key, key_len)) {
            if (table->value_free != nullptr)
                table->value_free(table->values[i]);
            free(k); // the slot keeps its own key block
            table->values[i] = value;
            return 1;
        }
        if (s.psl < e.psl) {
            // The new key goes here. Had it been present it would have been
            // found before this slot, so the displaced entry is placed without
            // comparing keys again.
            std::swap(s, e);
            std::swap(table->values[i], value);
            e.psl++;
            place(table->slots, table->values, mask, e, value, (i + 1) & mask);
            break;
        }
        i = (i + 1) & mask;
        e.psl++;
    }
    if (++table->count > table->capacity / 2)
        grow(table);
    return 0;
}

int qel_oa_hash_search(qel_oa_hash *table, const void *key, uint32_t key_len, void **value)
{
    QEL_CHECK(valid(table, key, key_len), -1);
    long i = find(table, hash_of(key, key_len), key, key_len);
    if (i < 0)
        return -1;
    if (value != nullptr)
        *value = table->values[i];
    return 0;
}

int qel_oa_hash_delete(qel_oa_hash *table, const void *key, uint32_t key_len)
{
    QEL_CHECK(valid(table, key, key_len), -1);
    long found = find(table, hash_of(key, key_len), key, key_len);
    if (found < 0)
        return -1;
    uint32_t i = static_cast<uint32_t>(found);
    if (table->value_free != nullptr)
        table->value_free(table->values[i]);
    free(table->slots[i].key);
    table->slots[i] = {};
    table->values[i] = nullptr;
    table->count--;
    // Backward shift: pull each following displaced entry one slot nearer home.
    uint32_t mask = table->capacity - 1;
    for (uint32_t j = (i + 1) & mask; table->slots[j].psl >= 2; i = j, j = (j + 1) & mask) {
        table->slots[i] = table->slots[j];
        table->slots[i].psl--;
        table->values[i] = table->values[j];
        table->slots[j] = {};
        table->values[j] = nullptr;
    }
    return 0;
}

void qel_oa_hash_clear(qel_oa_hash *table)
{
    QEL_CHECK_VOID(table != nullptr);
    if (table->count == 0)
        return;
    // PSL and hash stay in place, deliberately: the table is destroyed next.
    for (uint32_t i = 0; i < table->capacity; ++i) {
        qel_oa_hash_slot &s = table->slots[i];
        if (s.psl == 0)
            continue;
        free(s.key);
        s.key = nullptr;
        if (table->value_free != nullptr)
            table->value_free(table->values[i]);
        table->values[i] = nullptr;
    }
    table->count = 0;
}

void qel_oa_hash_destroy(qel_oa_hash *table)
{
    QEL_CHECK_VOID(table != nullptr);
    qel_oa_hash_clear(table);
    free(table->slots);
    free(table->values);
    free(table);
}

void qel_oa_hash_traverse(qel_oa_hash *table, qel_oa_hash_traverse_fn callback, void *context)
{
    QEL_CHECK_VOID(table != nullptr && table->count != 0 && callback != nullptr);
    for (uint32_t i = 0; i < table->capacity; ++i) {
        qel_oa_hash_slot &s = table->slots[i];
        if (s.psl == 0 || s.key == nullptr)
            continue;
        if (callback(bytes_of(s.key), table->values[i], context) != 0)
            return;
    }
}

uint32_t qel_oa_hash_size(qel_oa_hash *table)
{
    QEL_CHECK(table != nullptr, 0);
    return table->capacity;
}

uint32_t qel_oa_hash_count(qel_oa_hash *table)
{
    QEL_CHECK(table != nullptr, 0);
    return table->count;
}

void qel_oa_hash_psl_dbg(qel_oa_hash *table)
{
    QEL_CHECK_VOID(table != nullptr);
    uint32_t max = 0;
    for (uint32_t i = 0; i < table->capacity; ++i)
        if (table->slots[i].psl > max)
            max = table->slots[i].psl;
    auto *counts = static_cast<uint32_t *>(QEL_MUST_CALLOC(size_t{max} + 1, sizeof(uint32_t), kModule));
#if defined(QEL_OA_HASH_LSAN)
    __lsan_ignore_object(counts);
#endif
    for (uint32_t i = 0; i < table->capacity; ++i)
        counts[table->slots[i].psl]++;
    // Up to, but not including, the largest PSL; the array is not freed. Both
    // are kept from the old code.
    for (uint32_t p = 0; p < max; ++p)
        printf("PSL %d: %u\n", static_cast<int>(p), counts[p]);
}

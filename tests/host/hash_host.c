/* A host program of the hash tables, built as C99 against the shared library:
 * the chained table (current and unprefixed), the hash set and the Robin Hood
 * table, through the public headers only. */
#include <stdio.h>
#include <string.h>

#include "morbase.h"
#include "host_check.h"

static int g_frees;

static void count_free(void *value)
{
    (void)value;
    ++g_frees;
}

static int sum_lengths(const void *key, uint32_t key_len, void *value, void *context)
{
    (void)key;
    (void)value;
    *(uint32_t *)context += key_len;
    return 0;
}


int main(void)
{
    char key[16];
    void *v = NULL;
    uint32_t i, total = 0;
    qel_xhash *t = qel_xhash_create(count_free, NULL);
    qel_xhash *old = xhash_create(NULL, NULL);
    qel_hash_set *set = qel_hash_set_init(NULL, NULL);
    qel_oa_hash *oa = qel_oa_hash_create(count_free);
    CHECK(t != NULL && old != NULL && set != NULL && oa != NULL);
    for (i = 0; i < 100; ++i) {
        int n = snprintf(key, sizeof key, "key%u", (unsigned)i);
        qel_xhash_insert(t, key, (uint32_t)n, (void *)(uintptr_t)(i + 1));
        xhash_insert(old, key, (uint32_t)n, (void *)(uintptr_t)(i + 1));
        qel_hash_set_insert(set, key, (uint32_t)n);
        CHECK(qel_oa_hash_insert(oa, key, (uint32_t)n, (void *)(uintptr_t)(i + 1)) == 0);
    }
    CHECK(qel_xhash_count(t) == 100 && xhash_count(old) == 100 && qel_hash_set_size(set) == 100);
    CHECK(qel_xhash_slotcount(t) == 64 && xhash_slotcount(old) == 64); /* grew at 24 and 64 */
    CHECK(qel_oa_hash_count(oa) == 100 && qel_oa_hash_size(oa) == 256);
    CHECK(qel_xhash_search(t, "key42", 5, &v) == 0 && v == (void *)(uintptr_t)43);
    CHECK(xhash_search(old, "key42", 5, &v) == 0 && v == (void *)(uintptr_t)43);
    CHECK(qel_oa_hash_search(oa, "key42", 5, &v) == 0 && v == (void *)(uintptr_t)43);
    CHECK(qel_hash_set_find(set, "key42", 5) == 1 && qel_hash_set_find(set, "key4", 5) == 0);
    CHECK(qel_xhash_walk(t, &total, sum_lengths) == 0 && total == 10 * 4 + 90 * 5);
    CHECK(qel_xhash_delete(t, "key42", 5) == 0 && g_frees == 1);
    CHECK(qel_oa_hash_insert(oa, "key42", 5, NULL) == 1 && g_frees == 2);
    qel_xhash_destroy(t);
    xhash_destroy(old);
    qel_hash_set_unit(set);
    qel_oa_hash_destroy(oa);
    CHECK(g_frees == 2 + 99 + 100); /* the 99 left in t, the 100 in oa */
    return 0;
}

/* Record layouts of the open-addressing hash table, for both ABIs. */
#include <stddef.h>

#include "qel_oa_hash.h"

#if MORBASE_M32
_Static_assert(sizeof(qel_oa_hash) == 20, "table record");
_Static_assert(offsetof(qel_oa_hash, values) == 12, "values");
_Static_assert(offsetof(qel_oa_hash, value_free) == 16, "value free");
_Static_assert(sizeof(qel_oa_hash_slot) == 12, "slot");
#else
_Static_assert(sizeof(qel_oa_hash) == 32, "table record");
_Static_assert(offsetof(qel_oa_hash, values) == 16, "values");
_Static_assert(offsetof(qel_oa_hash, value_free) == 24, "value free");
_Static_assert(sizeof(qel_oa_hash_slot) == 16, "slot");
#endif
_Static_assert(offsetof(qel_oa_hash, count) == 0, "count");
_Static_assert(offsetof(qel_oa_hash, capacity) == 4, "capacity");
_Static_assert(offsetof(qel_oa_hash, slots) == 8, "slots");
_Static_assert(offsetof(qel_oa_hash_slot, psl) == 0, "probe sequence length");
_Static_assert(offsetof(qel_oa_hash_slot, hash) == 4, "hash");
_Static_assert(offsetof(qel_oa_hash_slot, key) == 8, "key block");

/* Record layouts of the chained hash table, for both ABIs. */
#include <stddef.h>

#include "qel_xhash.h"

#if MORBASE_M32
_Static_assert(sizeof(qel_xhash) == 32, "table record");
_Static_assert(offsetof(qel_xhash, slots) == 0, "slots");
_Static_assert(offsetof(qel_xhash, nslot) == 4, "slot count");
_Static_assert(offsetof(qel_xhash, maxn) == 8, "grow threshold");
_Static_assert(offsetof(qel_xhash, count) == 12, "entry count");
_Static_assert(offsetof(qel_xhash, flags) == 16, "flags");
_Static_assert(offsetof(qel_xhash, value_free) == 20, "value free");
_Static_assert(offsetof(qel_xhash, hash) == 24, "hash");
_Static_assert(offsetof(qel_xhash, compare) == 28, "compare");
_Static_assert(sizeof(qel_xhash_node) == 20, "node");
_Static_assert(offsetof(qel_xhash_node, key_len) == 4, "key length");
_Static_assert(offsetof(qel_xhash_node, hash) == 8, "full hash");
_Static_assert(offsetof(qel_xhash_node, value) == 12, "value");
_Static_assert(offsetof(qel_xhash_node, next) == 16, "next");
#else
_Static_assert(sizeof(qel_xhash) == 48, "table record");
_Static_assert(offsetof(qel_xhash, slots) == 0, "slots");
_Static_assert(offsetof(qel_xhash, nslot) == 8, "slot count");
_Static_assert(offsetof(qel_xhash, maxn) == 12, "grow threshold");
_Static_assert(offsetof(qel_xhash, count) == 16, "entry count");
_Static_assert(offsetof(qel_xhash, flags) == 20, "flags");
_Static_assert(offsetof(qel_xhash, value_free) == 24, "value free");
_Static_assert(offsetof(qel_xhash, hash) == 32, "hash");
_Static_assert(offsetof(qel_xhash, compare) == 40, "compare");
_Static_assert(sizeof(qel_xhash_node) == 32, "node");
_Static_assert(offsetof(qel_xhash_node, key_len) == 8, "key length");
_Static_assert(offsetof(qel_xhash_node, hash) == 12, "full hash");
_Static_assert(offsetof(qel_xhash_node, value) == 16, "value");
_Static_assert(offsetof(qel_xhash_node, next) == 24, "next");
#endif
_Static_assert(offsetof(qel_xhash_node, key) == 0, "key");
_Static_assert(sizeof(qel_xhash_cookie) == 8, "cookie");
_Static_assert(offsetof(qel_xhash_cookie, percent) == 0, "fraction");
_Static_assert(offsetof(qel_xhash_cookie, next) == 4, "next slot");
_Static_assert(sizeof(float) == 4, "32-bit fraction");

/* Record layouts of the message family, fixed for both ABIs. */
#include <stddef.h>

#include "qel_xmsg.h"

/* The wire records: identical on every ABI. */
_Static_assert(sizeof(qel_xmsg_entry) == 12, "entry header");
_Static_assert(offsetof(qel_xmsg_entry, next) == 0, "entry next");
_Static_assert(offsetof(qel_xmsg_entry, vlen) == 4, "entry value length");
_Static_assert(offsetof(qel_xmsg_entry, klen) == 8, "entry key length");
_Static_assert(offsetof(qel_xmsg_entry, flags) == 10, "entry flags");
_Static_assert(offsetof(qel_xmsg_entry, pad) == 11, "entry pad count");
_Static_assert(sizeof(qel_xmsg_packed) == 16, "packed header");
_Static_assert(offsetof(qel_xmsg_packed, magic) == 0, "packed magic");
_Static_assert(offsetof(qel_xmsg_packed, check) == 4, "packed check value");
_Static_assert(offsetof(qel_xmsg_packed, count) == 8, "packed entry count");
_Static_assert(offsetof(qel_xmsg_packed, used) == 12, "packed used bytes");

/* The message object. */
_Static_assert(offsetof(qel_xmsg, nref) == 0, "nref");
_Static_assert(offsetof(qel_xmsg, bucket) == 4, "bucket heads");
_Static_assert(sizeof(((qel_xmsg *)0)->bucket) == 64, "16 bucket heads");
_Static_assert(offsetof(qel_xmsg, count) == 68, "count");
_Static_assert(offsetof(qel_xmsg, used) == 72, "used");
_Static_assert(offsetof(qel_xmsg, capacity) == 76, "capacity");
_Static_assert(offsetof(qel_xmsg, area) == 80, "area");

#if MORBASE_M32
_Static_assert(sizeof(qel_xmsg) == 84, "message object, i386");
_Static_assert(offsetof(qel_xmsg_iter, key) == 0, "iter key");
_Static_assert(offsetof(qel_xmsg_iter, value) == 4, "iter value");
_Static_assert(offsetof(qel_xmsg_iter, klen) == 8, "iter klen");
_Static_assert(offsetof(qel_xmsg_iter, vlen) == 12, "iter vlen");
_Static_assert(offsetof(qel_xmsg_iter, msg) == 16, "iter msg");
_Static_assert(offsetof(qel_xmsg_iter, next) == 20, "iter next");
_Static_assert(sizeof(qel_xmsg_iter) == 24, "iterator, i386");
#else
_Static_assert(sizeof(qel_xmsg) == 88, "message object, x86_64");
_Static_assert(offsetof(qel_xmsg_iter, key) == 0, "iter key");
_Static_assert(offsetof(qel_xmsg_iter, value) == 8, "iter value");
_Static_assert(offsetof(qel_xmsg_iter, klen) == 16, "iter klen");
_Static_assert(offsetof(qel_xmsg_iter, vlen) == 20, "iter vlen");
_Static_assert(offsetof(qel_xmsg_iter, msg) == 24, "iter msg");
_Static_assert(offsetof(qel_xmsg_iter, next) == 32, "iter next");
_Static_assert(sizeof(qel_xmsg_iter) == 40, "iterator, x86_64");
#endif

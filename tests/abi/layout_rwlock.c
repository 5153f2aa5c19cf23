/* Record layouts of the reader-writer lock and rundown, for both ABIs. */
#include <stddef.h>

#include "qel_rwlock.h"

#define P sizeof(void *)

_Static_assert(offsetof(qel_rwlock, state) == 0, "qel_rwlock.state");
_Static_assert(sizeof(((qel_rwlock *)0)->state) == 4, "state is 32 bits");
_Static_assert(offsetof(qel_rwlock, drained) == P, "qel_rwlock.drained");
_Static_assert(offsetof(qel_rwlock, writer_mutex) == 2 * P, "qel_rwlock.writer_mutex");
_Static_assert(sizeof(qel_rwlock) == 3 * P, "qel_rwlock size");

_Static_assert(sizeof(qel_rundown) == P, "the rundown word is pointer-sized");
_Static_assert(offsetof(qel_rundown_wait_block, count) == 0, "wait block count");
_Static_assert(offsetof(qel_rundown_wait_block, event) == P, "wait block event");
_Static_assert(sizeof(qel_rundown_wait_block) == 2 * P, "wait block size");
#if MORBASE_M32
_Static_assert(sizeof(qel_rwlock) == 12, "qel_rwlock size (i386)");
_Static_assert(sizeof(qel_rundown) == 4, "rundown word (i386)");
#endif

/* Record layouts of the thread family, for both ABIs. */
#include <stddef.h>

#include "qel_thread.h"

#define P sizeof(void *)

_Static_assert(offsetof(qel_event, cond) == 0, "qel_event.cond");
_Static_assert(offsetof(qel_event, mutex) == P, "qel_event.mutex");
_Static_assert(offsetof(qel_event, signalled) == 2 * P, "qel_event.signalled");
_Static_assert(offsetof(qel_event, manual_reset) == 2 * P + 4, "qel_event.manual_reset");
_Static_assert(sizeof(qel_event) == 2 * P + 8, "qel_event size");

_Static_assert(offsetof(qel_thread_start_record, routine) == 0, "start record routine");
_Static_assert(offsetof(qel_thread_start_record, arg) == P, "start record arg");
_Static_assert(sizeof(qel_thread_start_record) == 2 * P, "start record size");
#if MORBASE_M32
_Static_assert(sizeof(qel_event) == 16, "qel_event size (i386)");
#endif

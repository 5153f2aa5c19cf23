/* Record layout of the circular buffer, pinned for both ABIs. */
#include <stddef.h>

#include "qel_cbuf.h"

_Static_assert(offsetof(qel_cbuf, read) == 0, "read");
_Static_assert(offsetof(qel_cbuf, write) == 4, "write");
_Static_assert(offsetof(qel_cbuf, capacity) == 8, "capacity");
#if MORBASE_M32
_Static_assert(offsetof(qel_cbuf, buffer) == 12, "buffer");
_Static_assert(sizeof(qel_cbuf) == 16, "cbuf size (i386)");
#else
_Static_assert(offsetof(qel_cbuf, buffer) == 16, "buffer");
_Static_assert(sizeof(qel_cbuf) == 24, "cbuf size (x86_64)");
#endif

/* Record layout of the fifo, pinned for both ABIs. The data area follows the
 * record in the same block. */
#include <stddef.h>

#include "qel_fifo.h"

_Static_assert(offsetof(qel_fifo, read_offset) == 0, "read_offset");
_Static_assert(offsetof(qel_fifo, write_offset) == 4, "write_offset");
_Static_assert(offsetof(qel_fifo, data_size) == 8, "data_size");
_Static_assert(offsetof(qel_fifo, element_count) == 12, "element_count");
_Static_assert(offsetof(qel_fifo, index_write) == 16, "index_write");
_Static_assert(offsetof(qel_fifo, index_read) == 20, "index_read");
_Static_assert(offsetof(qel_fifo, index_capacity) == 24, "index_capacity");
#if MORBASE_M32
_Static_assert(offsetof(qel_fifo, index) == 28, "index");
_Static_assert(sizeof(qel_fifo) == 32, "fifo size (i386)");
#else
_Static_assert(offsetof(qel_fifo, index) == 32, "index");
_Static_assert(sizeof(qel_fifo) == 40, "fifo size (x86_64)");
#endif

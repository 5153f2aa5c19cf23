/* Record layout of the binary heap, pinned for both ABIs. */
#include <stddef.h>

#include "qel_heap.h"

_Static_assert(offsetof(qel_binheap, elements) == 0, "elements");
#if MORBASE_M32
_Static_assert(offsetof(qel_binheap, count) == 4, "count");
_Static_assert(offsetof(qel_binheap, capacity) == 8, "capacity");
_Static_assert(offsetof(qel_binheap, compare) == 12, "compare");
_Static_assert(offsetof(qel_binheap, fixed) == 16, "fixed");
_Static_assert(sizeof(qel_binheap) == 20, "heap size (i386)");
#else
_Static_assert(offsetof(qel_binheap, count) == 8, "count");
_Static_assert(offsetof(qel_binheap, capacity) == 12, "capacity");
_Static_assert(offsetof(qel_binheap, compare) == 16, "compare");
_Static_assert(offsetof(qel_binheap, fixed) == 24, "fixed");
_Static_assert(sizeof(qel_binheap) == 32, "heap size (x86_64)");
#endif

/* Record layout of the vector, pinned for both ABIs. */
#include <stddef.h>

#include "qel_vector.h"

_Static_assert(offsetof(qel_vector, size) == 0, "size");
_Static_assert(offsetof(qel_vector, capacity) == 4, "capacity");
_Static_assert(offsetof(qel_vector, elements) == 8, "elements");
#if MORBASE_M32
_Static_assert(sizeof(qel_vector) == 12, "vector size (i386)");
#else
_Static_assert(sizeof(qel_vector) == 16, "vector size (x86_64)");
#endif

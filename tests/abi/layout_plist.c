/* Node layout of the priority list, pinned for both ABIs. */
#include <stddef.h>

#include "qel_plist.h"

_Static_assert(offsetof(qel_plist_node, next) == 0, "next");
#if MORBASE_M32
_Static_assert(offsetof(qel_plist_node, priority) == 4, "priority");
_Static_assert(sizeof(qel_plist_node) == 8, "node size (i386)");
#else
_Static_assert(offsetof(qel_plist_node, priority) == 8, "priority");
_Static_assert(sizeof(qel_plist_node) == 16, "node size (x86_64)");
#endif

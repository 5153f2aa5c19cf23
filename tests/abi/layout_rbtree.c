/* Record layouts of the red-black tree, pinned for both ABIs. Hosts read a
 * cursor's key, key_len and value directly. */
#include <stddef.h>

#include "qel_rbtree.h"

#if MORBASE_M32
_Static_assert(sizeof(qel_rbtree_node) == 28, "node size (i386)");
_Static_assert(offsetof(qel_rbtree_node, key) == 0, "node key");
_Static_assert(offsetof(qel_rbtree_node, key_len) == 4, "node key_len");
_Static_assert(offsetof(qel_rbtree_node, value) == 8, "node value");
_Static_assert(offsetof(qel_rbtree_node, left) == 12, "node left");
_Static_assert(offsetof(qel_rbtree_node, right) == 16, "node right");
_Static_assert(offsetof(qel_rbtree_node, parent) == 20, "node parent");
_Static_assert(offsetof(qel_rbtree_node, color) == 24, "node color");
_Static_assert(sizeof(qel_rbtree) == 28, "tree size (i386)");
_Static_assert(offsetof(qel_rbtree, first) == 4, "tree first");
_Static_assert(offsetof(qel_rbtree, last) == 8, "tree last");
_Static_assert(offsetof(qel_rbtree, count) == 12, "tree count");
_Static_assert(offsetof(qel_rbtree, flags) == 16, "tree flags");
_Static_assert(offsetof(qel_rbtree, compare) == 20, "tree compare");
_Static_assert(offsetof(qel_rbtree, value_free) == 24, "tree value_free");
#else
_Static_assert(sizeof(qel_rbtree_node) == 56, "node size (x86_64)");
_Static_assert(offsetof(qel_rbtree_node, key) == 0, "node key");
_Static_assert(offsetof(qel_rbtree_node, key_len) == 8, "node key_len");
_Static_assert(offsetof(qel_rbtree_node, value) == 16, "node value");
_Static_assert(offsetof(qel_rbtree_node, left) == 24, "node left");
_Static_assert(offsetof(qel_rbtree_node, right) == 32, "node right");
_Static_assert(offsetof(qel_rbtree_node, parent) == 40, "node parent");
_Static_assert(offsetof(qel_rbtree_node, color) == 48, "node color");
_Static_assert(sizeof(qel_rbtree) == 48, "tree size (x86_64)");
_Static_assert(offsetof(qel_rbtree, first) == 8, "tree first");
_Static_assert(offsetof(qel_rbtree, last) == 16, "tree last");
_Static_assert(offsetof(qel_rbtree, count) == 24, "tree count");
_Static_assert(offsetof(qel_rbtree, flags) == 28, "tree flags");
_Static_assert(offsetof(qel_rbtree, compare) == 32, "tree compare");
_Static_assert(offsetof(qel_rbtree, value_free) == 40, "tree value_free");
#endif
_Static_assert(offsetof(qel_rbtree, root) == 0, "tree root");

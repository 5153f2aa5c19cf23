// The red-black tree: an ordered dictionary with cached ends, cursors and
// ceiling/floor searches.
//
// Every search is one descent from the root: r = compare(node key, key);
// r == 0 is a match, r > 0 goes left, r < 0 right. When the descent falls off
// the tree, the last node it left going left is the ceiling of the key and the
// last one it left going right the floor, so a bound needs no extra compare.
//
// A copied key lives in the node's own block, right after the node: one
// allocation per insert, and the key bytes share the node's cache lines, which
// is what makes a descent of a large tree cheap. Borrowed keys are stored as
// the caller's pointer.
//
// The default compare is called directly (no indirect call) when the tree
// uses it; a caller's compare goes through the pointer.

#include "qel_rbtree.h"

#include <cstring>

#include "base/internal.h"

namespace {

using Node = qel_rbtree_node;

constexpr const char *kModule = "rbtree";
constexpr uint32_t kRed = QEL_RBTREE_RED;
constexpr uint32_t kBlack = QEL_RBTREE_BLACK;
// Node size on the 32-bit reference platform, the unit of qel_rbtree_size.
constexpr uint32_t kReferenceNodeSize = 28;
// The deepest a red-black tree of at most 2^32 nodes can be: 2 log2(n + 1).
constexpr int kMaxDepth = 66;

// The default order: unsigned bytes, then length (a prefix sorts first).
// Short keys are compared eight bytes at a time as big-endian words, which
// gives the same order as memcmp without a call per tree level; long
// common prefixes go to memcmp.
int32_t default_compare(const void *a, uint32_t a_len, const void *b, uint32_t b_len)
{
    uint32_t n = a_len < b_len ? a_len : b_len;
    const unsigned char *pa = static_cast<const unsigned char *>(a);
    const unsigned char *pb = static_cast<const unsigned char *>(b);
    for (int words = 0; n >= 8 && words < 4; ++words) {
        uint64_t x;
        uint64_t y;
        memcpy(&x, pa, 8);
        memcpy(&y, pb, 8);
        if (x != y) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
            x = __builtin_bswap64(x);
            y = __builtin_bswap64(y);
#endif
            return x < y ? -1 : 1;
        }
        pa += 8;
        pb += 8;
        n -= 8;
    }
    if (n >= 8) {
        int r = memcmp(pa, pb, n);
        if (r != 0)
            return r < 0 ? -1 : 1;
    } else {
        for (uint32_t i = 0; i < n; ++i) {
            if (pa[i] != pb[i])
                return pa[i] < pb[i] ? -1 : 1;
        }
    }
    return static_cast<int32_t>(a_len - b_len);
}

struct DefaultCompare {
    int32_t operator()(const Node *n, const void *key, uint32_t len) const
    {
        return default_compare(n->key, n->key_len, key, len);
    }
};

struct CallerCompare {
    qel_rbtree_compare_fn fn;
    int32_t operator()(const Node *n, const void *key, uint32_t len) const
    {
        return fn(n->key, n->key_len, key, len);
    }
};

// Runs op with the tree's compare as a callable, inlined for the default.
template <class Op>
inline auto with_compare(const qel_rbtree *t, Op op)
{
    if (t->compare == default_compare)
        return op(DefaultCompare{});
    return op(CallerCompare{t->compare});
}

// The result of a descent: the matching node, or null and the last visited
// node with the last comparison.
struct Descent {
    Node *match;
    Node *last;
    int32_t r;
};

template <class Cmp>
inline Descent descend(const qel_rbtree *t, const void *key, uint32_t len, Cmp cmp)
{
    Node *n = t->root;
    Node *last = nullptr;
    int32_t r = 0;
    while (n != nullptr) {
        r = cmp(n, key, len);
        if (r == 0)
            return {n, last, 0};
        last = n;
        n = r > 0 ? n->left : n->right;
    }
    return {nullptr, last, r};
}

Node *find(const qel_rbtree *t, const void *key, uint32_t len)
{
    return with_compare(t, [&](auto cmp) { return descend(t, key, len, cmp).match; });
}

// Children by direction: near<true> is left, far<true> is right, and the
// other way round for false, so each fix-up is written once for both sides.
template <bool L>
inline Node *&near(Node *n)
{
    return L ? n->left : n->right;
}
template <bool L>
inline Node *&far(Node *n)
{
    return L ? n->right : n->left;
}

// extreme<true> is the leftmost node of n's subtree, extreme<false> the
// rightmost.
template <bool L>
inline Node *extreme(Node *n)
{
    while (near<L>(n) != nullptr)
        n = near<L>(n);
    return n;
}

// step<true> is the in-order successor, step<false> the predecessor.
template <bool L>
inline Node *step(Node *n)
{
    if (far<L>(n) != nullptr)
        return extreme<L>(far<L>(n));
    Node *p = n->parent;
    while (p != nullptr && n == far<L>(p)) {
        n = p;
        p = p->parent;
    }
    return p;
}

inline Node *successor(Node *n)
{
    return step<true>(n);
}

inline Node *predecessor(Node *n)
{
    return step<false>(n);
}

inline bool is_red(const Node *n)
{
    return n != nullptr && n->color == kRed;
}

// Puts v where u hangs (v may be null).
inline void replace_child(qel_rbtree *t, Node *u, Node *v)
{
    Node *p = u->parent;
    if (p == nullptr)
        t->root = v;
    else if (u == p->left)
        p->left = v;
    else
        p->right = v;
    if (v != nullptr)
        v->parent = p;
}

// rotate<true> is a left rotation (x's right child takes its place),
// rotate<false> a right rotation.
template <bool L>
void rotate(qel_rbtree *t, Node *x)
{
    Node *y = far<L>(x);
    far<L>(x) = near<L>(y);
    if (near<L>(y) != nullptr)
        near<L>(y)->parent = x;
    replace_child(t, x, y);
    near<L>(y) = x;
    x->parent = y;
}

// One step of the insertion fix-up for a red z under a red parent p, where p
// is the near<L> child of the grandparent. Returns the node to continue with.
template <bool L>
Node *insert_step(qel_rbtree *t, Node *z, Node *p, Node *g)
{
    Node *u = far<L>(g);
    if (is_red(u)) { // recolour and move up
        p->color = kBlack;
        u->color = kBlack;
        g->color = kRed;
        return g;
    }
    if (z == far<L>(p)) {
        rotate<L>(t, p);
        z = p;
        p = z->parent;
    }
    p->color = kBlack;
    g->color = kRed;
    rotate<!L>(t, g);
    return z;
}

void insert_fixup(qel_rbtree *t, Node *z)
{
    Node *p;
    while ((p = z->parent) != nullptr && p->color == kRed) {
        Node *g = p->parent; // exists: a red node is never the root
        z = p == g->left ? insert_step<true>(t, z, p, g) : insert_step<false>(t, z, p, g);
    }
    t->root->color = kBlack;
}

// One step of the deletion fix-up for x (possibly null, carrying an extra
// black) as the near<L> child of xp. Returns true when the fix-up is done;
// otherwise x and xp move up.
template <bool L>
bool delete_step(qel_rbtree *t, Node *&x, Node *&xp)
{
    Node *w = far<L>(xp); // non-null: the black heights were equal
    if (w->color == kRed) {
        w->color = kBlack;
        xp->color = kRed;
        rotate<L>(t, xp);
        w = far<L>(xp);
    }
    if (!is_red(w->left) && !is_red(w->right)) {
        w->color = kRed;
        x = xp;
        xp = x->parent;
        return false;
    }
    if (!is_red(far<L>(w))) {
        near<L>(w)->color = kBlack;
        w->color = kRed;
        rotate<!L>(t, w);
        w = far<L>(xp);
    }
    w->color = xp->color;
    xp->color = kBlack;
    far<L>(w)->color = kBlack;
    rotate<L>(t, xp);
    x = t->root;
    return true;
}

void delete_fixup(qel_rbtree *t, Node *x, Node *xp)
{
    while (x != t->root && !is_red(x)) {
        bool done = x == xp->left ? delete_step<true>(t, x, xp) : delete_step<false>(t, x, xp);
        if (done)
            break;
    }
    if (x != nullptr)
        x->color = kBlack;
}

// Unlinks z; a node with two children is replaced by its in-order successor,
// which takes z's place and colour.
void unlink(qel_rbtree *t, Node *z)
{
    if (z == t->first)
        t->first = successor(z);
    if (z == t->last)
        t->last = predecessor(z);

    uint32_t removed_color = z->color;
    Node *x;
    Node *xp;
    if (z->left == nullptr) {
        x = z->right;
        xp = z->parent;
        replace_child(t, z, x);
    } else if (z->right == nullptr) {
        x = z->left;
        xp = z->parent;
        replace_child(t, z, x);
    } else {
        Node *y = extreme<true>(z->right);
        removed_color = y->color;
        x = y->right;
        if (y->parent == z) {
            xp = y;
        } else {
            xp = y->parent;
            replace_child(t, y, x);
            y->right = z->right;
            y->right->parent = y;
        }
        replace_child(t, z, y);
        y->left = z->left;
        y->left->parent = y;
        y->color = z->color;
    }
    if (removed_color == kBlack)
        delete_fixup(t, x, xp);
}

inline bool borrows_keys(const qel_rbtree *t)
{
    return (t->flags & QEL_RBTREE_BORROW_KEYS) != 0;
}

// Frees a node (its key copy is part of the block).
inline void free_node(Node *n)
{
    free(n);
}

// Post-order: left subtree, right subtree, then the node (value free, then
// the block with its key copy). The depth is at most 2 log2(count + 1).
void destroy_subtree(qel_rbtree *t, Node *n)
{
    if (n == nullptr)
        return;
    destroy_subtree(t, n->left);
    destroy_subtree(t, n->right);
    if (t->value_free != nullptr)
        t->value_free(n->value);
    free_node(n);
}

// The empty key's stand-in when keys are borrowed and the caller passed null.
const char kEmptyKey[1] = {0};

inline bool key_ok(const void *key, uint32_t len)
{
    return key != nullptr || len == 0;
}

// bound<true> is the ceiling, bound<false> the floor. The last visited node
// of a descent that finds no match is the floor or the ceiling of the key,
// and the other one is the nearest ancestor on the opposite side; so the
// descent keeps the last node it left going left (greater than the key) and
// the last one it left going right (smaller), and the answer needs no
// further compare.
template <bool Ceiling>
Node *bound(const qel_rbtree *t, const void *key, uint32_t len)
{
    return with_compare(t, [&](auto cmp) -> Node * {
        Node *n = t->root;
        Node *greater = nullptr;
        Node *smaller = nullptr;
        while (n != nullptr) {
            int32_t r = cmp(n, key, len);
            if (r == 0)
                return n;
            if (r > 0) {
                greater = n;
                n = n->left;
            } else {
                smaller = n;
                n = n->right;
            }
        }
        return Ceiling ? greater : smaller;
    });
}

} // namespace

qel_rbtree *qel_rbtree_create(qel_rbtree_free_fn value_free, qel_rbtree_compare_fn compare,
                              uint32_t flags)
{
    auto *t = static_cast<qel_rbtree *>(qel::detail::try_alloc(sizeof(qel_rbtree)));
    if (t == nullptr)
        return nullptr;
    t->root = nullptr;
    t->first = nullptr;
    t->last = nullptr;
    t->count = 0;
    t->flags = flags;
    t->compare = compare != nullptr ? compare : default_compare;
    t->value_free = value_free;
    return t;
}

void qel_rbtree_insert(qel_rbtree *tree, const void *key, uint32_t key_len, void *value)
{
    QEL_CHECK_VOID(tree != nullptr && key_ok(key, key_len));
    if (key == nullptr)
        key = kEmptyKey;
    Descent d = with_compare(tree, [&](auto cmp) { return descend(tree, key, key_len, cmp); });
    if (d.match != nullptr) {
        Node *n = d.match;
        if (tree->value_free != nullptr)
            tree->value_free(n->value);
        if (borrows_keys(tree)) {
            n->key = key;
            n->key_len = key_len;
        }
        n->value = value;
        return;
    }

    Node *n;
    if (borrows_keys(tree)) {
        n = static_cast<Node *>(QEL_MUST_ALLOC(sizeof(Node), kModule));
        n->key = key;
    } else {
        size_t block;
        if (qel::detail::add_overflows(sizeof(Node), static_cast<size_t>(key_len), &block))
            QEL_OOM(kModule);
        n = static_cast<Node *>(QEL_MUST_ALLOC(block, kModule));
        char *copy = reinterpret_cast<char *>(n + 1);
        memcpy(copy, key, key_len);
        n->key = copy;
    }
    n->key_len = key_len;
    n->value = value;
    n->left = nullptr;
    n->right = nullptr;
    n->parent = d.last;
    n->color = kRed;

    Node *p = d.last;
    if (p == nullptr) {
        tree->root = n;
        tree->first = n;
        tree->last = n;
    } else if (d.r > 0) {
        p->left = n;
        if (p == tree->first)
            tree->first = n;
    } else {
        p->right = n;
        if (p == tree->last)
            tree->last = n;
    }
    insert_fixup(tree, n);
    tree->count++;
}

void qel_rbtree_delete(qel_rbtree *tree, const void *key, uint32_t key_len)
{
    QEL_CHECK_VOID(tree != nullptr && key_ok(key, key_len));
    if (key == nullptr)
        key = kEmptyKey;
    Node *n = find(tree, key, key_len);
    if (n == nullptr)
        return;
    unlink(tree, n);
    if (tree->value_free != nullptr)
        tree->value_free(n->value);
    free_node(n);
    tree->count--;
}

int qel_rbtree_search(qel_rbtree *tree, const void *key, uint32_t key_len, void **value)
{
    QEL_CHECK(tree != nullptr && key_ok(key, key_len), -1);
    if (key == nullptr)
        key = kEmptyKey;
    Node *n = find(tree, key, key_len);
    if (n == nullptr)
        return -1;
    if (value != nullptr)
        *value = n->value;
    return 0;
}

qel_rbtree_node *qel_rbtree_get_cursor(qel_rbtree *tree, const void *key, uint32_t key_len)
{
    QEL_CHECK(tree != nullptr && key_ok(key, key_len), nullptr);
    if (key == nullptr)
        key = kEmptyKey;
    return find(tree, key, key_len);
}

qel_rbtree_node *qel_rbtree_lower_bound(qel_rbtree *tree, const void *key, uint32_t key_len)
{
    QEL_CHECK(tree != nullptr && key_ok(key, key_len), nullptr);
    return bound<true>(tree, key != nullptr ? key : kEmptyKey, key_len);
}

qel_rbtree_node *qel_rbtree_upper_bound(qel_rbtree *tree, const void *key, uint32_t key_len)
{
    QEL_CHECK(tree != nullptr && key_ok(key, key_len), nullptr);
    return bound<false>(tree, key != nullptr ? key : kEmptyKey, key_len);
}

qel_rbtree_node *qel_rbtree_first(qel_rbtree *tree)
{
    QEL_CHECK(tree != nullptr, nullptr);
    return tree->first;
}

qel_rbtree_node *qel_rbtree_last(qel_rbtree *tree)
{
    QEL_CHECK(tree != nullptr, nullptr);
    return tree->last;
}

qel_rbtree_node *qel_rbtree_next(qel_rbtree_node *node)
{
    QEL_CHECK(node != nullptr, nullptr);
    return successor(node);
}

qel_rbtree_node *qel_rbtree_prev(qel_rbtree_node *node)
{
    QEL_CHECK(node != nullptr, nullptr);
    return predecessor(node);
}

int qel_rbtree_walk(qel_rbtree *tree, void *context, qel_rbtree_walk_fn callback)
{
    QEL_CHECK(tree != nullptr && callback != nullptr, 0);
    // In order with an explicit stack of the left spine: no parent climbs.
    // A red-black tree of 2^32 nodes is at most 64 levels deep.
    Node *stack[kMaxDepth];
    int top = 0;
    Node *n = tree->root;
    for (;;) {
        for (; n != nullptr; n = n->left)
            stack[top++] = n;
        if (top == 0)
            return 0;
        n = stack[--top];
        int r = callback(n->key, n->key_len, n->value, context);
        if (r != 0)
            return r;
        n = n->right;
    }
}

uint32_t qel_rbtree_count(qel_rbtree *tree)
{
    QEL_CHECK(tree != nullptr, 0);
    return tree->count;
}

uint32_t qel_rbtree_size(qel_rbtree *tree)
{
    QEL_CHECK(tree != nullptr, 0);
    return tree->count * kReferenceNodeSize;
}

void qel_rbtree_destroy(qel_rbtree *tree)
{
    if (tree == nullptr)
        return;
    destroy_subtree(tree, tree->root);
    free(tree);
}

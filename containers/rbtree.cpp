// The red-black tree: an ordered dictionary with cached ends, cursors and
// ceiling/floor searches.
//
// Every search is one descent from the root: r = compare(node key, key);
// r == 0 is a match, r > 0 goes left, r < 0 right. When the descent falls off
// the tree, the last visited node is the floor or the ceiling of the key, so a
// bound moves at most one step from it.
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

int32_t default_compare(const void *a, uint32_t a_len, const void *b, uint32_t b_len)
{
    uint32_t n = a_len < b_len ? a_len : b_len;
    if (n != 0) {
        int r = memcmp(a, b, n);
        if (r != 0)
            return r < 0 ? -1 : 1;
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

inline Node *leftmost(Node *n)
{
    while (n->left != nullptr)
        n = n->left;
    return n;
}

inline Node *rightmost(Node *n)
{
    while (n->right != nullptr)
        n = n->right;
    return n;
}

inline Node *successor(Node *n)
{
    if (n->right != nullptr)
        return leftmost(n->right);
    Node *p = n->parent;
    while (p != nullptr && n == p->right) {
        n = p;
        p = p->parent;
    }
    return p;
}

inline Node *predecessor(Node *n)
{
    if (n->left != nullptr)
        return rightmost(n->left);
    Node *p = n->parent;
    while (p != nullptr && n == p->left) {
        n = p;
        p = p->parent;
    }
    return p;
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

void rotate_left(qel_rbtree *t, Node *x)
{
    Node *y = x->right;
    x->right = y->left;
    if (y->left != nullptr)
        y->left->parent = x;
    replace_child(t, x, y);
    y->left = x;
    x->parent = y;
}

void rotate_right(qel_rbtree *t, Node *x)
{
    Node *y = x->left;
    x->left = y->right;
    if (y->right != nullptr)
        y->right->parent = x;
    replace_child(t, x, y);
    y->right = x;
    x->parent = y;
}

void insert_fixup(qel_rbtree *t, Node *z)
{
    Node *p;
    while ((p = z->parent) != nullptr && p->color == kRed) {
        Node *g = p->parent; // exists: a red node is never the root
        if (p == g->left) {
            Node *u = g->right;
            if (is_red(u)) {
                p->color = kBlack;
                u->color = kBlack;
                g->color = kRed;
                z = g;
                continue;
            }
            if (z == p->right) {
                rotate_left(t, p);
                z = p;
                p = z->parent;
            }
            p->color = kBlack;
            g->color = kRed;
            rotate_right(t, g);
        } else {
            Node *u = g->left;
            if (is_red(u)) {
                p->color = kBlack;
                u->color = kBlack;
                g->color = kRed;
                z = g;
                continue;
            }
            if (z == p->left) {
                rotate_right(t, p);
                z = p;
                p = z->parent;
            }
            p->color = kBlack;
            g->color = kRed;
            rotate_left(t, g);
        }
    }
    t->root->color = kBlack;
}

// x (possibly null) carries an extra black; xp is its parent.
void delete_fixup(qel_rbtree *t, Node *x, Node *xp)
{
    while (x != t->root && !is_red(x)) {
        if (x == xp->left) {
            Node *w = xp->right; // non-null: the black heights were equal
            if (w->color == kRed) {
                w->color = kBlack;
                xp->color = kRed;
                rotate_left(t, xp);
                w = xp->right;
            }
            if (!is_red(w->left) && !is_red(w->right)) {
                w->color = kRed;
                x = xp;
                xp = x->parent;
                continue;
            }
            if (!is_red(w->right)) {
                w->left->color = kBlack;
                w->color = kRed;
                rotate_right(t, w);
                w = xp->right;
            }
            w->color = xp->color;
            xp->color = kBlack;
            w->right->color = kBlack;
            rotate_left(t, xp);
            x = t->root;
            break;
        }
        Node *w = xp->left;
        if (w->color == kRed) {
            w->color = kBlack;
            xp->color = kRed;
            rotate_right(t, xp);
            w = xp->left;
        }
        if (!is_red(w->left) && !is_red(w->right)) {
            w->color = kRed;
            x = xp;
            xp = x->parent;
            continue;
        }
        if (!is_red(w->left)) {
            w->right->color = kBlack;
            w->color = kRed;
            rotate_left(t, w);
            w = xp->left;
        }
        w->color = xp->color;
        xp->color = kBlack;
        w->left->color = kBlack;
        rotate_right(t, xp);
        x = t->root;
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
        Node *y = leftmost(z->right);
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

void destroy_subtree(qel_rbtree *t, Node *n)
{
    // Depth is at most 2 log2(count + 1), so recursion is bounded.
    while (n != nullptr) {
        destroy_subtree(t, n->left);
        Node *right = n->right;
        if (t->value_free != nullptr)
            t->value_free(n->value);
        free_node(n);
        n = right;
    }
}

// The empty key's stand-in when keys are borrowed and the caller passed null.
const char kEmptyKey[1] = {0};

inline bool key_ok(const void *key, uint32_t len)
{
    return key != nullptr || len == 0;
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
    if (key == nullptr)
        key = kEmptyKey;
    return with_compare(tree, [&](auto cmp) -> Node * {
        Descent d = descend(tree, key, key_len, cmp);
        if (d.match != nullptr)
            return d.match;
        Node *n = d.last;
        int32_t r = d.r;
        while (n != nullptr && r < 0) {
            n = successor(n);
            if (n != nullptr)
                r = cmp(n, key, key_len);
        }
        return n;
    });
}

qel_rbtree_node *qel_rbtree_upper_bound(qel_rbtree *tree, const void *key, uint32_t key_len)
{
    QEL_CHECK(tree != nullptr && key_ok(key, key_len), nullptr);
    if (key == nullptr)
        key = kEmptyKey;
    return with_compare(tree, [&](auto cmp) -> Node * {
        Descent d = descend(tree, key, key_len, cmp);
        if (d.match != nullptr)
            return d.match;
        Node *n = d.last;
        int32_t r = d.r;
        while (n != nullptr && r > 0) {
            n = predecessor(n);
            if (n != nullptr)
                r = cmp(n, key, key_len);
        }
        return n;
    });
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
    for (Node *n = tree->first; n != nullptr; n = successor(n)) {
        int r = callback(n->key, n->key_len, n->value, context);
        if (r != 0)
            return r;
    }
    return 0;
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

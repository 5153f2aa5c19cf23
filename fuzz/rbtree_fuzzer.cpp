// Drives the red-black tree with a byte-coded sequence of inserts, deletes,
// bounds and cursor steps, checking each against std::map and the red-black
// properties at the end.
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "qel_rbtree.h"

namespace {

int black_height(const qel_rbtree_node *n, const qel_rbtree_node *parent)
{
    if (n == nullptr)
        return 1;
    if (n->parent != parent)
        __builtin_trap();
    if (n->color == QEL_RBTREE_RED && ((n->left && n->left->color == QEL_RBTREE_RED) ||
                                       (n->right && n->right->color == QEL_RBTREE_RED)))
        __builtin_trap();
    int l = black_height(n->left, n);
    if (l != black_height(n->right, n))
        __builtin_trap();
    return l + (n->color == QEL_RBTREE_BLACK ? 1 : 0);
}

std::string key_of(const qel_rbtree_node *n)
{
    return std::string(static_cast<const char *>(n->key), n->key_len);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qel_rbtree *t = qel_rbtree_create(nullptr, nullptr, 0);
    std::map<std::string, uintptr_t> model;
    size_t i = 0;
    while (i + 2 <= size) {
        uint8_t op = data[i];
        size_t len = data[i + 1] % 4;
        i += 2;
        if (i + len > size)
            break;
        std::string k(reinterpret_cast<const char *>(data + i), len);
        i += len;
        uint32_t kl = static_cast<uint32_t>(k.size());
        switch (op % 5) {
        case 0:
            qel_rbtree_insert(t, k.data(), kl, reinterpret_cast<void *>(static_cast<uintptr_t>(i)));
            model[k] = i;
            break;
        case 1:
            qel_rbtree_delete(t, k.data(), kl);
            model.erase(k);
            break;
        case 2: {
            qel_rbtree_node *c = qel_rbtree_lower_bound(t, k.data(), kl);
            auto it = model.lower_bound(k);
            if ((c == nullptr) != (it == model.end()) || (c && key_of(c) != it->first))
                __builtin_trap();
            break;
        }
        case 3: {
            qel_rbtree_node *c = qel_rbtree_upper_bound(t, k.data(), kl);
            auto it = model.upper_bound(k);
            if ((c == nullptr) != (it == model.begin()) || (c && key_of(c) != std::prev(it)->first))
                __builtin_trap();
            break;
        }
        default: {
            void *v = nullptr;
            int r = qel_rbtree_search(t, k.data(), kl, &v);
            auto it = model.find(k);
            if ((r == 0) != (it != model.end()) || (r == 0 && reinterpret_cast<uintptr_t>(v) != it->second))
                __builtin_trap();
            break;
        }
        }
    }
    if (qel_rbtree_count(t) != model.size())
        __builtin_trap();
    if (t->root != nullptr && t->root->color != QEL_RBTREE_BLACK)
        __builtin_trap();
    black_height(t->root, nullptr);
    qel_rbtree_node *n = qel_rbtree_first(t);
    for (const auto &kv : model) {
        if (n == nullptr || key_of(n) != kv.first)
            __builtin_trap();
        n = qel_rbtree_next(n);
    }
    if (n != nullptr)
        __builtin_trap();
    qel_rbtree_destroy(t);
    return 0;
}

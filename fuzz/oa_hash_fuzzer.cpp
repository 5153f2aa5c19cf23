// Drives the Robin Hood table through a byte-coded sequence of insert, delete,
// search and traverse operations against std::unordered_map, checking after
// each step that every entry sits psl - 1 slots past its home with no gap.
#include <cstdint>
#include <cstring>
#include <string>
#include <unordered_map>

#include "qel_oa_hash.h"

namespace {

int count_entries(const char *, void *, void *ctx)
{
    ++*static_cast<size_t *>(ctx);
    return 0;
}

bool placement_holds(const qel_oa_hash *t)
{
    uint32_t mask = t->capacity - 1, occupied = 0;
    for (uint32_t i = 0; i < t->capacity; ++i) {
        const qel_oa_hash_slot &s = t->slots[i];
        if (s.psl == 0)
            continue;
        ++occupied;
        if ((((s.hash & mask) + s.psl - 1) & mask) != i)
            return false;
        for (uint32_t d = 1; d < s.psl; ++d)
            if (t->slots[(i - d) & mask].psl == 0)
                return false;
    }
    return occupied == t->count && t->count <= t->capacity / 2;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qel_oa_hash *t = qel_oa_hash_create(nullptr);
    std::unordered_map<std::string, uintptr_t> model;
    for (size_t i = 0; i + 2 < size; i += 3) {
        uint8_t op = data[i] % 4;
        size_t off = data[i + 1] % size, len = data[i + 2] % 40;
        if (off + len > size)
            len = size - off;
        std::string k(reinterpret_cast<const char *>(data + off), len);
        uint32_t klen = static_cast<uint32_t>(len);
        auto it = model.find(k);
        switch (op) {
        case 0:
        case 1: {
            int rc = qel_oa_hash_insert(t, k.data(), klen, reinterpret_cast<void *>(i + 1));
            int want = len == 0 ? -1 : it != model.end() ? 1 : 0;
            if (rc != want)
                __builtin_trap();
            if (len != 0)
                model[k] = i + 1;
            break;
        }
        case 2: {
            void *v = nullptr;
            int rc = qel_oa_hash_search(t, k.data(), klen, &v);
            if ((rc == 0) != (it != model.end()) || (rc == 0 && reinterpret_cast<uintptr_t>(v) != it->second))
                __builtin_trap();
            break;
        }
        default: {
            if (data[i + 1] < 8) {
                size_t n = 0;
                qel_oa_hash_traverse(t, count_entries, &n);
                if (n != model.size())
                    __builtin_trap();
                break;
            }
            if ((qel_oa_hash_delete(t, k.data(), klen) == 0) != (it != model.end()))
                __builtin_trap();
            if (it != model.end())
                model.erase(it);
            break;
        }
        }
        if (qel_oa_hash_count(t) != model.size() || !placement_holds(t))
            __builtin_trap();
    }
    qel_oa_hash_destroy(t);
    return 0;
}

// Drives the chained table through a byte-coded sequence of insert, delete,
// search, clear and walk operations against std::unordered_map. Keys are
// slices of the input, so lengths 0 and keys that differ only in length come
// up at once; the first byte picks copied or borrowed keys and the hash.
#include <cstdint>
#include <cstring>
#include <string>
#include <unordered_map>

#include "qel_xhash.h"

namespace {

uint32_t one_chain(const void *, uint32_t)
{
    return 7;
}

int count_entries(const void *, uint32_t, void *, void *ctx)
{
    ++*static_cast<size_t *>(ctx);
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    uint8_t mode = data[0];
    uint32_t flags = (mode & 1) ? QEL_XHASH_BORROW_KEYS : 0;
    qel_xhash *t = qel_xhash_create2(nullptr, (mode & 2) ? one_chain : nullptr, nullptr, flags);
    std::unordered_map<std::string, uintptr_t> model;
    uint32_t cleared = 0;
    for (size_t i = 1; i + 2 < size; i += 3) {
        uint8_t op = data[i] % 5;
        size_t off = data[i + 1] % size, len = data[i + 2] % 48;
        if (off + len > size)
            len = size - off;
        const void *key = data + off; // borrowed keys point into the input, alive for the run
        std::string k(reinterpret_cast<const char *>(key), len);
        uint32_t klen = static_cast<uint32_t>(len);
        auto it = model.find(k);
        switch (op) {
        case 0:
        case 1:
            qel_xhash_insert(t, key, klen, reinterpret_cast<void *>(i));
            model[k] = i;
            break;
        case 2: {
            void *v = nullptr;
            int rc = qel_xhash_search(t, key, klen, &v);
            if ((rc == 0) != (it != model.end()) || (rc == 0 && reinterpret_cast<uintptr_t>(v) != it->second))
                __builtin_trap();
            break;
        }
        case 3:
            if ((qel_xhash_delete(t, key, klen) == 0) != (it != model.end()))
                __builtin_trap();
            if (it != model.end())
                model.erase(it);
            break;
        default:
            if (data[i + 1] < 16) { // clear, rarely: the count stays
                cleared += static_cast<uint32_t>(model.size());
                model.clear();
                qel_xhash_clear(t);
            } else {
                size_t n = 0;
                if (qel_xhash_walk(t, &n, count_entries) != 0 || n != model.size())
                    __builtin_trap();
            }
            break;
        }
        if (qel_xhash_count(t) != model.size() + cleared)
            __builtin_trap();
    }
    qel_xhash_destroy(t);
    return 0;
}

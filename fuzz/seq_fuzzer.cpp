// Drives the circular buffer and the fifo with byte-coded operations against
// std::deque models, then sorts the input bytes with qel_vector_qsort and
// drains them through the heap, checking both orders.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "qel_cbuf.h"
#include "qel_fifo.h"
#include "qel_heap.h"
#include "qel_vector.h"

namespace {

int compare_bytes(const void *a, const void *b)
{
    uintptr_t x = reinterpret_cast<uintptr_t>(a) & 0xff;
    uintptr_t y = reinterpret_cast<uintptr_t>(b) & 0xff;
    return x < y ? -1 : x > y ? 1 : 0;
}

void run_cbuf(const uint8_t *data, size_t size)
{
    if (size < 1)
        return;
    uint32_t cap = data[0] % 32 + 1;
    std::vector<unsigned char> mem(cap);
    qel_cbuf c;
    qel_cbuf_init(&c, mem.data(), cap);
    std::deque<unsigned char> model;
    unsigned char out[64];
    for (size_t i = 1; i + 1 < size; i += 2) {
        uint32_t n = data[i + 1] % 40 + 1;
        size_t room = cap - 1 - model.size();
        switch (data[i] % 4) {
        case 0: {
            size_t k = std::min<size_t>(n, room);
            std::string in(n, static_cast<char>(i));
            if (qel_cbuf_put(&c, in.data(), n) != static_cast<int>(k))
                __builtin_trap();
            model.insert(model.end(), in.begin(), in.begin() + static_cast<long>(k));
            break;
        }
        case 1: {
            size_t k = std::min<size_t>(n, model.size());
            if (qel_cbuf_get(&c, out, n) != static_cast<int>(k))
                __builtin_trap();
            for (size_t j = 0; j < k; ++j)
                if (out[j] != model[j])
                    __builtin_trap();
            model.erase(model.begin(), model.begin() + static_cast<long>(k));
            break;
        }
        case 2: {
            size_t k = std::min<size_t>(n, model.size());
            if (qel_cbuf_del(&c, n) != static_cast<int>(k))
                __builtin_trap();
            model.erase(model.begin(), model.begin() + static_cast<long>(k));
            break;
        }
        default:
            if (qel_cbuf_peek(&c, out, n) != static_cast<int>(std::min<size_t>(n, model.size())))
                __builtin_trap();
            break;
        }
        if (qel_cbuf_size(&c) != static_cast<int>(model.size()) || c.read > cap || c.write > cap)
            __builtin_trap();
    }
}

void run_fifo(const uint8_t *data, size_t size)
{
    if (size < 1)
        return;
    int32_t cap = data[0] % 64 + 1;
    qel_fifo *f = qel_fifo_init(cap);
    std::deque<std::string> model;
    int64_t room = cap;
    char out[256];
    for (size_t i = 1; i + 1 < size; i += 2) {
        int32_t n = data[i + 1] % 70 + 1;
        if (data[i] % 3 == 0) {
            std::string rec(static_cast<size_t>(n), static_cast<char>(i));
            int r = qel_fifo_push(f, rec.data(), n);
            if ((r == 0) != (n + 4 < room))
                __builtin_trap();
            if (r == 0) {
                model.push_back(rec);
                room -= n + 4;
            }
        } else if (data[i] % 3 == 1) {
            int r = qel_fifo_pop(f, out, sizeof out);
            if ((r == 0) != !model.empty())
                __builtin_trap();
            if (r == 0) {
                if (memcmp(out, model.front().data(), model.front().size()) != 0)
                    __builtin_trap();
                room += static_cast<int64_t>(model.front().size()) + 4;
                model.pop_front();
            }
        } else {
            int32_t k = n % 8;
            int r = qel_fifo_pick(f, out, sizeof out, k);
            if ((r == 0) != (static_cast<size_t>(k) < model.size()))
                __builtin_trap();
            if (r == 0 && memcmp(out, model[k].data(), model[k].size()) != 0)
                __builtin_trap();
        }
        if (qel_fifo_saved_element(f) != static_cast<int32_t>(model.size()))
            __builtin_trap();
    }
    qel_fifo_uninit(&f);
}

void run_sort(const uint8_t *data, size_t size)
{
    qel_vector *v = nullptr;
    qel_vector_create(&v, 1);
    qel_binheap *h = qel_heap_create(nullptr, 0);
    std::vector<uintptr_t> model;
    for (size_t i = 0; i < size; ++i) {
        uintptr_t x = (static_cast<uintptr_t>(i) << 8 | data[i]) + 0x100; // never null
        qel_vector_push_back(v, reinterpret_cast<void *>(x));
        qel_heap_push(h, reinterpret_cast<void *>(static_cast<uintptr_t>(data[i]) + 1));
        model.push_back(data[i]);
    }
    qel_vector_qsort(v, compare_bytes);
    std::sort(model.begin(), model.end());
    for (size_t i = 0; i < size; ++i) {
        if ((reinterpret_cast<uintptr_t>(qel_vector_pos_at(v, static_cast<uint32_t>(i))) & 0xff) != model[i])
            __builtin_trap();
        void *top = nullptr;
        if (qel_heap_pop(h, &top) != 0 || reinterpret_cast<uintptr_t>(top) != model[i] + 1)
            __builtin_trap();
    }
    qel_heap_destroy(h);
    qel_vector_destroy(v);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    run_cbuf(data, size);
    run_fifo(data, size);
    run_sort(data, size);
    return 0;
}

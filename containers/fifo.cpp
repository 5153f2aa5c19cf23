// The single-producer, single-consumer record fifo.
//
// Thread safety
// -------------
// Exactly one thread pushes and one thread pops at a time.
//  - The producer alone writes write_offset and index_write, and the index
//    ring slots; it reads read_offset (acquire) to compute the free space.
//  - The consumer alone writes read_offset and index_read; it reads
//    write_offset (acquire) to compute the used space.
//  - Push writes the length and payload bytes, then the index slot, then
//    publishes the new write_offset with a release store: a consumer that sees
//    the offset sees the bytes. Pop copies the payload out, then publishes the
//    new read_offset with a release store: a producer that sees the space free
//    knows the consumer is done with those bytes.
//  - element_count is the only field that both sides change, always by a
//    sequentially consistent atomic addition (+1 after a push is published,
//    -1 after a pop is). Emptiness and room are decided by the offsets, never
//    by the count, so a count read beside a push or pop may lag by one.
//  - Each side keeps its own offset and index position, its last view of the
//    other side's offset and copies of the constant fields on a cache line of
//    its own in front of the record. It mirrors its own fields into the
//    record on every change, and reloads the other side's offset only when
//    its view says the ring is full (producer) or empty (consumer): a stale
//    view only ever understates the room or the records. So the record's
//    cache line is touched once per operation, to publish and to count.
//  - pick, clear and uninit move several fields without that protocol and
//    must not run beside a push or pop.
//
// Layout
// ------
//   [private side caches][record: 7 x int32, index pointer][data area: data_size bytes]
//   record in the data area: [u32 length, host order][payload], each part
//   wrapping at the end of the data area independently.
//   free = data_size + read - write when write >= read, else read - write;
//   used = write - read when write >= read, else data_size - read + write.

#include "qel_fifo.h"

#include <cstring>
#include <new>

#include "base/internal.h"

namespace {

constexpr int32_t kLengthBytes = 4;
constexpr size_t kCacheLine = 64;

// Each side's private state, on a cache line of its own in front of the
// record (in the same block, not part of the record): its own offset and
// index position (mirrored into the record on every change), its last view
// of the other side's offset, and copies of the constant fields. A push or
// pop then touches the record's cache line only to publish its offset and to
// change the count.
struct alignas(kCacheLine) Side {
    int32_t other;      // producer: last read_offset seen; consumer: last write_offset seen
    int32_t own_offset; // producer: write_offset; consumer: read_offset
    int32_t own_index;  // producer: index_write; consumer: index_read
    int32_t size;       // data_size
    int32_t index_capacity;
    int32_t *index;
};
struct alignas(kCacheLine) Caches {
    Side producer;
    Side consumer;
    void *block; // the allocation that holds caches, record and data area
};

inline unsigned char *data_area(qel_fifo *f)
{
    return reinterpret_cast<unsigned char *>(f) + sizeof(qel_fifo);
}

// The caches sit right in front of the record, which starts on a cache line.
inline Caches *caches(qel_fifo *f)
{
    return reinterpret_cast<Caches *>(reinterpret_cast<unsigned char *>(f) - sizeof(Caches));
}

inline int32_t load_acquire(const int32_t *p)
{
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}

inline void store_release(int32_t *p, int32_t v)
{
    __atomic_store_n(p, v, __ATOMIC_RELEASE);
}

inline int32_t count_add(qel_fifo *f, int32_t delta)
{
    return __atomic_add_fetch(const_cast<int32_t *>(&f->element_count), delta, __ATOMIC_SEQ_CST);
}

// free = data size + read - write when write >= read, else read - write.
inline int64_t free_space(int32_t size, int32_t r, int32_t w)
{
    return w >= r ? static_cast<int64_t>(size) + r - w : static_cast<int64_t>(r) - w;
}

// Copies n bytes in at offset `at`, wrapping; returns the offset after them.
inline int32_t copy_in(unsigned char *area, int32_t size, int32_t at, const void *src, int32_t n)
{
    if (__builtin_expect(n < size - at, 1)) { // no wrap, and the end stays inside
        memcpy(area + at, src, static_cast<size_t>(n));
        return at + n;
    }
    int32_t first = size - at < n ? size - at : n;
    memcpy(area + at, src, static_cast<size_t>(first));
    if (first < n)
        memcpy(area, static_cast<const unsigned char *>(src) + first, static_cast<size_t>(n - first));
    int64_t end = static_cast<int64_t>(at) + n;
    return static_cast<int32_t>(end >= size ? end - size : end);
}

// Copies n bytes out from offset `at`, wrapping; returns the offset after them.
inline int32_t copy_out(const unsigned char *area, int32_t size, int32_t at, void *dst, int32_t n)
{
    if (__builtin_expect(n < size - at, 1)) {
        memcpy(dst, area + at, static_cast<size_t>(n));
        return at + n;
    }
    int32_t first = size - at < n ? size - at : n;
    memcpy(dst, area + at, static_cast<size_t>(first));
    if (first < n)
        memcpy(static_cast<unsigned char *>(dst) + first, area, static_cast<size_t>(n - first));
    int64_t end = static_cast<int64_t>(at) + n;
    return static_cast<int32_t>(end >= size ? end - size : end);
}

// Reads the record starting at `at`: its payload goes to buffer if it fits.
// Returns the offset after the record, or -1 if the payload is too long.
inline int32_t read_record(qel_fifo *f, int32_t size, int32_t at, void *buffer, int32_t buffer_size)
{
    const unsigned char *area = data_area(f);
    uint32_t length;
    int32_t payload = copy_out(area, size, at, &length, kLengthBytes);
    if (length > static_cast<uint32_t>(buffer_size))
        return -1;
    return copy_out(area, size, payload, buffer, static_cast<int32_t>(length));
}

} // namespace

qel_fifo *qel_fifo_init(int32_t data_size)
{
    QEL_CHECK(data_size >= 1, nullptr);
    // Room to align, the caches, the record and the data area.
    size_t bytes = kCacheLine + sizeof(Caches) + sizeof(qel_fifo) + static_cast<size_t>(data_size);
    void *block = qel::detail::try_alloc(bytes);
    if (block == nullptr)
        return nullptr;
    uintptr_t base = (reinterpret_cast<uintptr_t>(block) + kCacheLine - 1) & ~static_cast<uintptr_t>(kCacheLine - 1);
    auto *c = new (reinterpret_cast<void *>(base)) Caches;
    auto *f = reinterpret_cast<qel_fifo *>(base + sizeof(Caches));
    f->index = static_cast<int32_t *>(qel::detail::try_alloc(static_cast<size_t>(data_size)));
    if (f->index == nullptr) {
        free(block);
        return nullptr;
    }
    f->read_offset = 0;
    f->write_offset = 0;
    f->data_size = data_size;
    f->element_count = 0;
    f->index_write = 0;
    f->index_read = 0;
    f->index_capacity = data_size / 4;
    c->block = block;
    c->producer = Side{0, 0, 0, data_size, f->index_capacity, f->index};
    c->consumer = c->producer;
    return f;
}

void qel_fifo_uninit(qel_fifo **fifo)
{
    if (fifo == nullptr || *fifo == nullptr)
        return;
    free((*fifo)->index);
    free(caches(*fifo)->block);
    *fifo = nullptr;
}

int qel_fifo_push(qel_fifo *fifo, const void *data, int32_t length)
{
    QEL_CHECK(fifo != nullptr && data != nullptr && length >= 1, -1);
    Side &me = caches(fifo)->producer;
    int32_t size = me.size;
    int32_t w = me.own_offset;
    // The consumer only ever frees space, so a stale read offset
    // underestimates the room; reload it only when the record seems not to fit.
    int32_t r = me.other;
    int64_t need = static_cast<int64_t>(length) + kLengthBytes;
    if (need >= free_space(size, r, w)) {
        r = load_acquire(&fifo->read_offset);
        me.other = r;
        if (need >= free_space(size, r, w))
            return -1;
    }
    unsigned char *area = data_area(fifo);
    uint32_t len32 = static_cast<uint32_t>(length);
    int32_t at = copy_in(area, size, w, &len32, kLengthBytes);
    int32_t end = copy_in(area, size, at, data, length);
    // A record takes at least 5 bytes and the ring never fills, so fewer than
    // data_size / 4 records are ever held and the index ring cannot overrun.
    int32_t slot = me.own_index;
    me.index[slot] = w;
    me.own_index = slot + 1 == me.index_capacity ? 0 : slot + 1;
    me.own_offset = end;
    fifo->index_write = me.own_index;
    store_release(&fifo->write_offset, end);
    count_add(fifo, 1);
    return 0;
}

int qel_fifo_pop(qel_fifo *fifo, void *buffer, int32_t buffer_size)
{
    QEL_CHECK(fifo != nullptr && buffer != nullptr && buffer_size >= 0, -1);
    Side &me = caches(fifo)->consumer;
    int32_t r = me.own_offset;
    // The producer only ever adds records, so a stale write offset
    // underestimates what is there; reload it only when the fifo seems empty.
    int32_t w = me.other;
    if (w == r) { // used space 0
        w = load_acquire(&fifo->write_offset);
        me.other = w;
        if (w == r)
            return -1;
    }
    int32_t end = read_record(fifo, me.size, r, buffer, buffer_size);
    if (end < 0)
        return -1;
    int32_t slot = me.own_index;
    me.own_index = slot + 1 == me.index_capacity ? 0 : slot + 1;
    me.own_offset = end;
    fifo->index_read = me.own_index;
    store_release(&fifo->read_offset, end);
    count_add(fifo, -1);
    return 0;
}

int qel_fifo_pick(qel_fifo *fifo, void *buffer, int32_t buffer_size, int32_t n)
{
    QEL_CHECK(fifo != nullptr && buffer != nullptr && buffer_size >= 0 && n >= 0, -1);
    if (n >= count_add(fifo, 0))
        return -1;
    int64_t slot = (static_cast<int64_t>(fifo->index_read) + n) % fifo->index_capacity;
    return read_record(fifo, fifo->data_size, fifo->index[slot], buffer, buffer_size) < 0 ? -1 : 0;
}

int32_t qel_fifo_saved_element(qel_fifo *fifo)
{
    QEL_CHECK(fifo != nullptr, 0);
    return __atomic_load_n(const_cast<int32_t *>(&fifo->element_count), __ATOMIC_SEQ_CST);
}

void qel_fifo_clear(qel_fifo *fifo)
{
    QEL_CHECK_VOID(fifo != nullptr);
    int32_t w = load_acquire(&fifo->write_offset);
    store_release(&fifo->read_offset, w);
    fifo->index_read = fifo->index_write;
    Caches *c = caches(fifo);
    c->producer.other = w;
    c->consumer.other = w;
    c->consumer.own_offset = w;
    c->consumer.own_index = fifo->index_read;
    count_add(fifo, -count_add(fifo, 0));
}

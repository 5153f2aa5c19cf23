// The circular byte buffer over a caller's storage.
//
// Index moves follow one rule in both directions: a move that starts at or
// after the other index and reaches past the end of the buffer splits, and
// the index becomes the length of the part that went to the start; any other
// move adds n to the index. So an index can stand at exactly the capacity
// after a move that ends at the buffer's end; it is never wrapped explicitly,
// and the size formulas below hold for it as they are.

#include "qel_cbuf.h"

#include <cerrno>
#include <cstring>

#include "base/internal.h"

namespace {

inline uint32_t used_size(const qel_cbuf *c)
{
    return c->write >= c->read ? c->write - c->read : c->capacity - (c->read - c->write);
}

inline uint32_t free_size(const qel_cbuf *c)
{
    return c->capacity - used_size(c) - 1;
}

inline int einval()
{
    errno = EINVAL;
    return -1;
}

// Writes n bytes (data may be null: the caller already wrote them) at the
// write index and moves it. n never exceeds the free size.
void move_in(qel_cbuf *c, const void *data, uint32_t n)
{
    uint32_t w = c->write;
    if (w >= c->read && n > c->capacity - w) {
        uint32_t first = c->capacity - w;
        if (data != nullptr) {
            memcpy(c->buffer + w, data, first);
            memcpy(c->buffer, static_cast<const unsigned char *>(data) + first, n - first);
        }
        c->write = n - first;
    } else {
        if (data != nullptr)
            memcpy(c->buffer + w, data, n);
        c->write = w + n;
    }
}

// Reads n bytes (out may be null: nothing is copied) from the read index;
// moves the index only when `consume`. n never exceeds the used size.
void move_out(qel_cbuf *c, void *out, uint32_t n, bool consume)
{
    uint32_t r = c->read;
    uint32_t next;
    if (r > c->write && n > c->capacity - r) {
        uint32_t first = c->capacity - r;
        if (out != nullptr) {
            memcpy(out, c->buffer + r, first);
            memcpy(static_cast<unsigned char *>(out) + first, c->buffer, n - first);
        }
        next = n - first;
    } else {
        if (out != nullptr)
            memcpy(out, c->buffer + r, n);
        next = r + n;
    }
    if (consume)
        c->read = next;
}

// Copies in (or commits) min(n, free size) bytes; returns that number.
int put_some(qel_cbuf *c, const void *data, uint32_t n)
{
    uint32_t room = free_size(c);
    if (n > room)
        n = room;
    if (n != 0)
        move_in(c, data, n);
    return static_cast<int>(n);
}

// Copies out (or skips) min(n, used size) bytes; returns that number.
int take_some(qel_cbuf *c, void *out, uint32_t n, bool consume)
{
    uint32_t used = used_size(c);
    if (n > used)
        n = used;
    if (n != 0)
        move_out(c, out, n, consume);
    return static_cast<int>(n);
}

inline bool args_ok(const qel_cbuf *c, const void *p, uint32_t n)
{
    return c != nullptr && p != nullptr && n != 0;
}

} // namespace

int qel_cbuf_init(qel_cbuf *cbuf, void *buffer, uint32_t capacity)
{
    if (cbuf == nullptr || buffer == nullptr || capacity == 0) {
        errno = EINVAL;
        return 0;
    }
    cbuf->read = 0;
    cbuf->write = 0;
    cbuf->capacity = capacity;
    cbuf->buffer = static_cast<unsigned char *>(buffer);
    return 1;
}

int qel_cbuf_put(qel_cbuf *cbuf, const void *data, uint32_t n)
{
    if (!args_ok(cbuf, data, n))
        return einval();
    return put_some(cbuf, data, n);
}

int qel_cbuf_put_full(qel_cbuf *cbuf, const void *data, uint32_t n)
{
    if (!args_ok(cbuf, data, n) || free_size(cbuf) < n)
        return einval();
    return put_some(cbuf, data, n);
}

int qel_cbuf_get(qel_cbuf *cbuf, void *out, uint32_t n)
{
    if (!args_ok(cbuf, out, n))
        return einval();
    return take_some(cbuf, out, n, true);
}

int qel_cbuf_get_full(qel_cbuf *cbuf, void *out, uint32_t n)
{
    if (!args_ok(cbuf, out, n) || used_size(cbuf) < n)
        return einval();
    return take_some(cbuf, out, n, true);
}

int qel_cbuf_peek(qel_cbuf *cbuf, void *out, uint32_t n)
{
    if (!args_ok(cbuf, out, n))
        return einval();
    return take_some(cbuf, out, n, false);
}

int qel_cbuf_del(qel_cbuf *cbuf, uint32_t n)
{
    if (cbuf == nullptr || n == 0)
        return einval();
    return take_some(cbuf, nullptr, n, true);
}

int qel_cbuf_add(qel_cbuf *cbuf, uint32_t n)
{
    if (cbuf == nullptr || n == 0)
        return einval();
    return put_some(cbuf, nullptr, n);
}

int qel_cbuf_size(qel_cbuf *cbuf)
{
    if (cbuf == nullptr)
        return einval();
    return static_cast<int>(used_size(cbuf));
}

int qel_cbuf_free_size(qel_cbuf *cbuf)
{
    if (cbuf == nullptr)
        return einval();
    return static_cast<int>(free_size(cbuf));
}

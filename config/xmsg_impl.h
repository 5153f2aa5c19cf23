/*
 * xmsg_impl.h: internals of the message module that its tests and benchmarks
 * reach. Not exported.
 */
#ifndef QEL_CONFIG_XMSG_IMPL_H
#define QEL_CONFIG_XMSG_IMPL_H

#include <stddef.h>
#include <stdint.h>

namespace qel::xmsg_internal {

/* The packed form's check value: the seeded x33 hash (hash33) of len bytes,
 * computed 256 bytes at a time with powers of 33 where the processor allows.
 * Always equal to hash33(data, len, seed). */
uint32_t check_value(const void *data, size_t len, uint32_t seed) noexcept;

/* The same while copying the bytes to dst (dst and src do not overlap). */
uint32_t check_value_copy(void *dst, const void *src, size_t len, uint32_t seed) noexcept;

/* The portable block form (no vector instructions), for tests. */
uint32_t check_value_portable(const void *data, size_t len, uint32_t seed) noexcept;

/* True when check_value uses the vector kernel on this processor. */
bool check_value_vectorised() noexcept;

/* The bucket of a key, hash33(key) & 15, by a shortcut for the chain
 * rebuild: 33 = 1 (mod 16), so H mod 16 = (5318 + sum of the bytes) mod 16,
 * and only the low four bits of each byte count. Always equal to
 * hash33(key, klen) & 15. */
inline unsigned bucket_by_sum(const unsigned char *key, size_t klen) noexcept
{
    uint32_t s = 5318u;
    size_t i = 0;
    for (; i + 8 <= klen; i += 8) {
        uint64_t w;
        __builtin_memcpy(&w, key + i, 8);
        // Eight nibbles summed into the top byte (at most 120: no carry out).
        s += static_cast<uint32_t>(((w & 0x0F0F0F0F0F0F0F0Full) * 0x0101010101010101ull) >> 56);
    }
    for (; i < klen; ++i)
        s += key[i];
    return s & 15u;
}

/* Total size of an entry with these lengths: header, key, value, NUL, pad. */
inline uint64_t entry_total(uint32_t klen, uint32_t vlen) noexcept
{
    return (static_cast<uint64_t>(klen) + vlen + 16u) & ~static_cast<uint64_t>(3);
}

} // namespace qel::xmsg_internal

#endif /* QEL_CONFIG_XMSG_IMPL_H */

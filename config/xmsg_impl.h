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

/* Total size of an entry with these lengths: header, key, value, NUL, pad. */
inline uint64_t entry_total(uint32_t klen, uint32_t vlen) noexcept
{
    return (static_cast<uint64_t>(klen) + vlen + 16u) & ~static_cast<uint64_t>(3);
}

} // namespace qel::xmsg_internal

#endif /* QEL_CONFIG_XMSG_IMPL_H */

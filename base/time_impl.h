// Shared by the clock module and its unprefixed twins; not exported.
#ifndef QEL_BASE_TIME_IMPL_H
#define QEL_BASE_TIME_IMPL_H

#include <stdint.h>
#include <time.h>

namespace qel::detail {

// Milliseconds of CLOCK_MONOTONIC: seconds * 1000 + nanoseconds / 1000000.
inline uint64_t monotonic_ms() noexcept
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint32_t>(ts.tv_nsec) / 1000000u;
}

} // namespace qel::detail

#endif

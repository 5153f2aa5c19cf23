// Unprefixed twins of the clock calls. time_get_tick_cout forwards; the other
// two keep their older widths.

#include "qel_time.h"

#include <stdlib.h>

#include "base/internal.h"
#include "base/time_impl.h"

uint64_t time_get_tick_cout(void)
{
    return qel_time_get_tick_cout();
}

// Older width: the platform's time_t (32 bits on i386) instead of 64 bits.
qel_result time_stamp_to_local(struct tm *out, const time_t *stamp)
{
    QEL_CHECK(out != nullptr && stamp != nullptr && *stamp >= 0, QEL_E_INVALIDARG);
    return localtime_r(stamp, out) == out ? QEL_OK : QEL_E_FAIL;
}

// Older seed: only the lowest 8 bits of the monotonic milliseconds.
int rand_by_time(void)
{
    srand(static_cast<unsigned>(qel::detail::monotonic_ms() & 0xFFu));
    return rand();
}

// Unprefixed twins of the logging and atomic calls.

#include "qel_log.h"
#include "qel_mem.h"

#include <cstdarg>

#include "base/internal.h"

int log_output_register(qel_log_sink sink)
{
    return qel_log_output_register(sink);
}

int log_output_unregister(qel_log_sink sink)
{
    return qel_log_output_unregister(sink);
}

// Its own body over the same sink table.
void log_output(unsigned int level, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    qel::detail::log_vdispatch(level, format, ap);
    va_end(ap);
}

int32_t atomic_add_and_fetch(volatile int32_t *ptr, int32_t delta)
{
    return qel_atomic32_add_and_fetch(ptr, delta);
}

int32_t atomic_compare_and_swap(volatile int32_t *ptr, int32_t new_value, int32_t expected)
{
    return qel_atomic32_cmp_and_swap(ptr, new_value, expected);
}

void *atomic_compare_and_swap_ptr(void *volatile *ptr, void *new_value, void *expected)
{
    return qel_atomic_cmp_and_swap_ptr(ptr, new_value, expected);
}


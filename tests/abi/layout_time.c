/* Record layouts of the clock family, for both ABIs. */
#include <stddef.h>

#include "qel_time.h"

_Static_assert(offsetof(qel_timeval, sec) == 0, "qel_timeval.sec");
_Static_assert(offsetof(qel_timeval, usec) == 8, "qel_timeval.usec");
#if MORBASE_M32
_Static_assert(sizeof(qel_timeval) == 12, "qel_timeval size (i386)");
#else
_Static_assert(sizeof(qel_timeval) == 16, "qel_timeval size (x86_64)");
#endif
_Static_assert(offsetof(qel_timezone, minuteswest) == 0, "qel_timezone.minuteswest");
_Static_assert(offsetof(qel_timezone, dsttime) == 4, "qel_timezone.dsttime");
_Static_assert(sizeof(qel_timezone) == 8, "qel_timezone size");

// Deadline arithmetic of the waits, shared by the current and unprefixed
// entry points and reachable from the unit tests; not exported.
#ifndef QEL_SYNC_IMPL_H
#define QEL_SYNC_IMPL_H

#include <atomic>
#include <stdint.h>
#include <time.h>

#include "qel_thread.h"

namespace qel::sync_internal {

// The start trampoline of qel_thread_start and thread_start: the new thread
// copies routine and argument from the record, frees it, and returns the
// routine's result (0 for a null record).
void *start_trampoline(void *record) noexcept;

// Starts routine(arg) through the trampoline. Returns 0, QEL_E_INVALIDARG,
// QEL_E_NOMEM or the pthread_create error; on that error the record is freed
// only with free_on_failure (the unprefixed call leaks it, a kept quirk).
qel_result start_thread(pthread_t *thread, qel_thread_routine routine, void *arg, bool free_on_failure) noexcept;

// The semaphore's wall-clock deadline from the whole second `now`: + timeout
// when positive, + 360 days when negative, `now` itself when 0.
struct timespec semaphore_deadline(time_t now, int64_t timeout_ms) noexcept;

// The condition's monotonic deadline: now + timeout, nanoseconds carried while
// above 999999999 (a negative time-out is not special).
struct timespec cond_deadline(const struct timespec &now, int64_t timeout_ms) noexcept;

// The unprefixed condition's deadline: 32-bit time-out, microsecond resolution.
struct timespec legacy_cond_deadline(const struct timespec &now, uint32_t timeout_ms) noexcept;

// An atomic view of a caller's volatile word.
template <class T>
inline std::atomic_ref<T> atomic_word(volatile T *p) noexcept
{
    return std::atomic_ref<T>(*const_cast<T *>(p));
}

} // namespace qel::sync_internal

#endif

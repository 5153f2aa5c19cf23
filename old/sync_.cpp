// Unprefixed twins of the thread, event, mutex, condition, reader-writer lock
// and rundown calls. Most forward; event_init, thread_start, thread_sleep and
// cond_timedwait keep older widths or quirks, each named where it is kept.

#include "qel_rwlock.h"
#include "qel_thread.h"

#include <errno.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "base/internal.h"
#include "sync/sync_impl.h"

namespace qel::sync_internal {

struct timespec legacy_cond_deadline(const struct timespec &now, uint32_t timeout_ms) noexcept
{
    // Microsecond resolution: the nanoseconds below one microsecond are dropped.
    uint32_t us = static_cast<uint32_t>(now.tv_nsec / 1000) + (timeout_ms % 1000) * 1000;
    struct timespec ts;
    ts.tv_sec = now.tv_sec + static_cast<time_t>(timeout_ms / 1000) + static_cast<time_t>(us / 1000000);
    ts.tv_nsec = static_cast<long>(us % 1000000) * 1000;
    return ts;
}

} // namespace qel::sync_internal

// ---- events -------------------------------------------------------------------

// Older flags: single bytes.
qel_result event_init(qel_event **out, bool initial_signalled, bool manual_reset)
{
    return qel_event_init(out, initial_signalled ? 1 : 0, manual_reset ? 1 : 0);
}

void event_destroy(qel_event *event)
{
    qel_event_destroy(event);
}

// Older width: 32 bits; 0xFFFFFFFF (no limit) widens to the same value.
qel_result event_timedwait(qel_event *event, unsigned int timeout_ms)
{
    return qel_event_timedwait(event, static_cast<uint64_t>(timeout_ms));
}

// No null test of its own: event_timedwait catches it.
void event_wait(qel_event *event)
{
    (void)event_timedwait(event, 0xFFFFFFFFu);
}

void event_set(qel_event *event)
{
    qel_event_set(event);
}

void event_reset(qel_event *event)
{
    qel_event_reset(event);
}

// ---- threads --------------------------------------------------------------------

// Kept quirk: the start record leaks when pthread_create fails.
qel_result thread_start(pthread_t *thread, qel_thread_routine routine, void *arg)
{
    return qel::sync_internal::start_thread(thread, routine, arg, false);
}

void thread_exit(void *retval)
{
    qel_thread_exit(retval);
}

qel_result thread_join(pthread_t *thread, void **retval)
{
    return qel_thread_join(thread, retval);
}

qel_result thread_detach(pthread_t *thread)
{
    return qel_thread_detach(thread);
}

qel_result thread_cancel(pthread_t *thread)
{
    return qel_thread_cancel(thread);
}

// Older width: 32-bit milliseconds, the product wraps instead of trapping.
void thread_sleep(unsigned int ms)
{
    usleep(static_cast<useconds_t>(static_cast<uint32_t>(ms * 1000u)));
}

void thread_yield(void)
{
    qel_thread_yield();
}

uint32_t thread_id(void)
{
    return qel_thread_id();
}

long thread_nprocs(void)
{
    return qel_thread_nprocs();
}

// ---- mutexes and conditions ---------------------------------------------------------

qel_result mutex_init(qel_mutex **out)
{
    return qel_mutex_init(out);
}

void mutex_destroy(qel_mutex *mutex)
{
    qel_mutex_destroy(mutex);
}

void mutex_lock(qel_mutex *mutex)
{
    qel_mutex_lock(mutex);
}

qel_result mutex_trylock(qel_mutex *mutex)
{
    return qel_mutex_trylock(mutex);
}

void mutex_unlock(qel_mutex *mutex)
{
    qel_mutex_unlock(mutex);
}

qel_result cond_init(qel_cond **out)
{
    return qel_cond_init(out);
}

void cond_destroy(qel_cond *cond)
{
    qel_cond_destroy(cond);
}

qel_result cond_wait(qel_cond *cond, qel_mutex *mutex)
{
    return qel_cond_wait(cond, mutex);
}

// Older width and resolution: 32-bit time-out, microsecond deadline.
qel_result cond_timedwait(qel_cond *cond, qel_mutex *mutex, unsigned int timeout_ms)
{
    QEL_CHECK(cond != nullptr && mutex != nullptr, QEL_E_INVALIDARG);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    struct timespec deadline = qel::sync_internal::legacy_cond_deadline(now, timeout_ms);
    int err = pthread_cond_timedwait(reinterpret_cast<pthread_cond_t *>(cond),
                                     reinterpret_cast<pthread_mutex_t *>(mutex), &deadline);
    return err == ETIMEDOUT ? QEL_E_TIMEOUT : static_cast<qel_result>(err);
}

qel_result cond_broadcast(qel_cond *cond)
{
    return qel_cond_broadcast(cond);
}

qel_result cond_signal(qel_cond *cond)
{
    return qel_cond_signal(cond);
}

// ---- reader-writer lock and rundown ---------------------------------------------------

qel_result rwlock_init(qel_rwlock **out)
{
    return qel_rwlock_init(out);
}

void rwlock_destroy(qel_rwlock *lock)
{
    qel_rwlock_destroy(lock);
}

void rwlock_shared_acquire(qel_rwlock *lock)
{
    qel_rwlock_shared_acquire(lock);
}

void rwlock_shared_release(qel_rwlock *lock)
{
    qel_rwlock_shared_release(lock);
}

void rwlock_exclusive_acquire(qel_rwlock *lock)
{
    qel_rwlock_exclusive_acquire(lock);
}

void rwlock_exclusive_release(qel_rwlock *lock)
{
    qel_rwlock_exclusive_release(lock);
}

void rundown_protection_init(volatile qel_rundown *word)
{
    qel_rundown_protection_init(word);
}

void rundown_protection_reinit(volatile qel_rundown *word)
{
    qel_rundown_protection_reinit(word);
}

int rundown_protection_acquire(volatile qel_rundown *word)
{
    return qel_rundown_protection_acquire(word);
}

void rundown_protection_release(volatile qel_rundown *word)
{
    qel_rundown_protection_release(word);
}

void rundown_completed(volatile qel_rundown *word)
{
    qel_rundown_completed(word);
}

void rundown_release_wait(volatile qel_rundown *word)
{
    qel_rundown_release_wait(word);
}

// Threads, recursive mutexes, monotonic condition variables, unnamed
// semaphores, events, thread-specific slots and the once gate.
//
// The handles are the POSIX objects themselves, allocated zero-filled on the
// heap; the opaque handle types are cast back here and nowhere else.

#include "qel_thread.h"

#include <errno.h>
#include <semaphore.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "base/internal.h"
#include "qel_mem.h"
#include "qel_time.h"
#include "sync/sync_impl.h"

using qel::detail::trap_add;
using qel::detail::trap_mul;

namespace {

inline sem_t *native(qel_semaphore *s) { return reinterpret_cast<sem_t *>(s); }
inline pthread_mutex_t *native(qel_mutex *m) { return reinterpret_cast<pthread_mutex_t *>(m); }
inline pthread_cond_t *native(qel_cond *c) { return reinterpret_cast<pthread_cond_t *>(c); }
inline pthread_key_t *native(qel_tls *t) { return reinterpret_cast<pthread_key_t *>(t); }

// 360 days: the semaphore's stand-in for "no limit".
constexpr time_t kSemaphoreForever = 31104000;

} // namespace

namespace qel::sync_internal {

// The new thread owns the start record: it copies the routine and argument
// and frees the record before the routine runs.
void *start_trampoline(void *p) noexcept
{
    auto *rec = static_cast<qel_thread_start_record *>(p);
    if (rec == nullptr)
        return nullptr;
    qel_thread_routine routine = rec->routine;
    void *arg = rec->arg;
    free(rec);
    return routine(arg);
}

qel_result start_thread(pthread_t *thread, qel_thread_routine routine, void *arg, bool free_on_failure) noexcept
{
    QEL_CHECK(thread != nullptr && routine != nullptr, QEL_E_INVALIDARG);
    auto *rec = static_cast<qel_thread_start_record *>(qel::detail::try_alloc(sizeof(qel_thread_start_record)));
    if (rec == nullptr)
        return QEL_E_NOMEM;
    rec->routine = routine;
    rec->arg = arg;
    int err = pthread_create(thread, nullptr, start_trampoline, rec);
    if (err != 0 && free_on_failure)
        free(rec);
    return static_cast<qel_result>(err);
}

struct timespec semaphore_deadline(time_t now, int64_t timeout_ms) noexcept
{
    struct timespec ts;
    ts.tv_sec = now;
    ts.tv_nsec = 0;
    if (timeout_ms > 0) {
        // The nanoseconds stay below one second: no carry is needed.
        ts.tv_sec = static_cast<time_t>(trap_add<int64_t>(static_cast<int64_t>(now), timeout_ms / 1000));
        ts.tv_nsec = static_cast<long>(trap_mul<int64_t>(timeout_ms % 1000, 1000000));
    } else if (timeout_ms < 0) {
        ts.tv_sec = now + kSemaphoreForever;
    }
    return ts;
}

struct timespec cond_deadline(const struct timespec &now, int64_t timeout_ms) noexcept
{
    int64_t sec = trap_add<int64_t>(static_cast<int64_t>(now.tv_sec), timeout_ms / 1000);
    int64_t nsec = trap_add<int64_t>(static_cast<int64_t>(now.tv_nsec), trap_mul<int64_t>(timeout_ms % 1000, 1000000));
    while (nsec > 999999999) {
        sec += 1;
        nsec -= 1000000000;
    }
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(sec);
    ts.tv_nsec = static_cast<long>(nsec);
    return ts;
}

} // namespace qel::sync_internal

// ---- semaphores -------------------------------------------------------------

qel_semaphore *qel_semaphore_init(unsigned int initial)
{
    void *block = qel::detail::try_alloc(sizeof(sem_t));
    if (block == nullptr)
        return nullptr;
    if (sem_init(static_cast<sem_t *>(block), 0, initial) != 0) {
        free(block);
        return nullptr;
    }
    return static_cast<qel_semaphore *>(block);
}

void qel_semaphore_destroy(qel_semaphore *sem)
{
    QEL_CHECK_VOID(sem != nullptr);
    sem_destroy(native(sem));
    free(sem);
}

qel_result qel_semaphore_post(qel_semaphore *sem, int count)
{
    QEL_CHECK(sem != nullptr && count != 0, QEL_E_FAIL);
    for (int i = 0; i < count; ++i)
        if (sem_post(native(sem)) != 0)
            return QEL_E_FAIL; // posts already made stay made
    return QEL_OK;
}

int qel_semaphore_value(qel_semaphore *sem)
{
    QEL_CHECK(sem != nullptr, -1);
    int value = 0;
    if (sem_getvalue(native(sem), &value) != 0)
        return -1;
    return value;
}

qel_result qel_semaphore_wait(qel_semaphore *sem, int64_t timeout_ms)
{
    QEL_CHECK(sem != nullptr, QEL_E_FAIL);
    // Whole seconds of the wall clock: a 0 time-out lies in the past already.
    struct timespec deadline = qel::sync_internal::semaphore_deadline(time(nullptr), timeout_ms);
    if (sem_timedwait(native(sem), &deadline) == 0)
        return QEL_OK;
    // An interrupted wait counts as a time-out and is not retried.
    if (errno == EINTR || errno == EAGAIN || errno == ETIMEDOUT)
        return QEL_E_TIMEOUT;
    return QEL_E_FAIL;
}

// ---- threads ------------------------------------------------------------------

qel_result qel_thread_start(pthread_t *thread, qel_thread_routine routine, void *arg)
{
    return qel::sync_internal::start_thread(thread, routine, arg, true);
}

void qel_thread_exit(void *retval)
{
    pthread_exit(retval);
}

qel_result qel_thread_join(pthread_t *thread, void **retval)
{
    QEL_CHECK(thread != nullptr, QEL_E_INVALIDARG);
    void *value = nullptr;
    int err = pthread_join(*thread, &value);
    if (err != 0)
        return static_cast<qel_result>(err);
    if (retval != nullptr)
        *retval = value;
    return QEL_OK;
}

qel_result qel_thread_detach(pthread_t *thread)
{
    QEL_CHECK(thread != nullptr, QEL_E_INVALIDARG);
    return static_cast<qel_result>(pthread_detach(*thread));
}

qel_result qel_thread_cancel(pthread_t *thread)
{
    QEL_CHECK(thread != nullptr, QEL_E_INVALIDARG);
    return static_cast<qel_result>(pthread_cancel(*thread));
}

void qel_thread_sleep(int64_t ms)
{
    qel_msleep(static_cast<uint64_t>(ms));
}

void qel_thread_yield(void)
{
    sleep(0); // not sched_yield: the old code slept, and callers were tuned to it
}

uint32_t qel_thread_id(void)
{
    return static_cast<uint32_t>(pthread_self());
}

long qel_thread_nprocs(void)
{
    return sysconf(_SC_NPROCESSORS_ONLN);
}

// ---- mutexes --------------------------------------------------------------------

qel_result qel_mutex_init(qel_mutex **out)
{
    QEL_CHECK(out != nullptr, QEL_E_INVALIDARG);
    *out = nullptr;
    auto *m = static_cast<pthread_mutex_t *>(qel::detail::try_calloc(1, sizeof(pthread_mutex_t)));
    if (m == nullptr)
        return QEL_E_NOMEM;
    pthread_mutexattr_t attr;
    int err = pthread_mutexattr_init(&attr);
    if (err == 0) {
        err = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        if (err == 0)
            err = pthread_mutex_init(m, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    if (err != 0) {
        free(m);
        return static_cast<qel_result>(err);
    }
    *out = reinterpret_cast<qel_mutex *>(m);
    return QEL_OK;
}

void qel_mutex_destroy(qel_mutex *mutex)
{
    QEL_CHECK_VOID(mutex != nullptr);
    // A mutex that is still locked is leaked rather than freed under its owner.
    if (pthread_mutex_destroy(native(mutex)) == 0)
        free(mutex);
}

void qel_mutex_lock(qel_mutex *mutex)
{
    QEL_CHECK_VOID(mutex != nullptr);
    pthread_mutex_lock(native(mutex));
}

qel_result qel_mutex_trylock(qel_mutex *mutex)
{
    QEL_CHECK(mutex != nullptr, QEL_E_INVALIDARG);
    return static_cast<qel_result>(pthread_mutex_trylock(native(mutex)));
}

void qel_mutex_unlock(qel_mutex *mutex)
{
    QEL_CHECK_VOID(mutex != nullptr);
    pthread_mutex_unlock(native(mutex));
}

// ---- condition variables ------------------------------------------------------------

qel_result qel_cond_init(qel_cond **out)
{
    QEL_CHECK(out != nullptr, QEL_E_INVALIDARG);
    *out = nullptr;
    auto *c = static_cast<pthread_cond_t *>(qel::detail::try_calloc(1, sizeof(pthread_cond_t)));
    if (c == nullptr)
        return QEL_E_NOMEM;
    pthread_condattr_t attr;
    int err = pthread_condattr_init(&attr);
    if (err == 0) {
        err = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        if (err == 0)
            err = pthread_cond_init(c, &attr);
        pthread_condattr_destroy(&attr);
    }
    if (err != 0) {
        free(c);
        return static_cast<qel_result>(err);
    }
    *out = reinterpret_cast<qel_cond *>(c);
    return QEL_OK;
}

void qel_cond_destroy(qel_cond *cond)
{
    QEL_CHECK_VOID(cond != nullptr);
    if (pthread_cond_destroy(native(cond)) == 0)
        free(cond);
}

qel_result qel_cond_wait(qel_cond *cond, qel_mutex *mutex)
{
    QEL_CHECK(cond != nullptr && mutex != nullptr, QEL_E_INVALIDARG);
    return static_cast<qel_result>(pthread_cond_wait(native(cond), native(mutex)));
}

qel_result qel_cond_timedwait(qel_cond *cond, qel_mutex *mutex, int64_t timeout_ms)
{
    QEL_CHECK(cond != nullptr && mutex != nullptr, QEL_E_INVALIDARG);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    struct timespec deadline = qel::sync_internal::cond_deadline(now, timeout_ms);
    int err = pthread_cond_timedwait(native(cond), native(mutex), &deadline);
    return err == ETIMEDOUT ? QEL_E_TIMEOUT : static_cast<qel_result>(err);
}

qel_result qel_cond_broadcast(qel_cond *cond)
{
    QEL_CHECK(cond != nullptr, QEL_E_INVALIDARG);
    return static_cast<qel_result>(pthread_cond_broadcast(native(cond)));
}

qel_result qel_cond_signal(qel_cond *cond)
{
    QEL_CHECK(cond != nullptr, QEL_E_INVALIDARG);
    return static_cast<qel_result>(pthread_cond_signal(native(cond)));
}

// ---- events --------------------------------------------------------------------------

qel_result qel_event_init(qel_event **out, int initial_signalled, int manual_reset)
{
    QEL_CHECK(out != nullptr, QEL_E_INVALIDARG);
    auto *e = static_cast<qel_event *>(qel::detail::try_calloc(1, sizeof(qel_event)));
    if (e == nullptr)
        return QEL_E_NOMEM;
    e->signalled = initial_signalled;
    e->manual_reset = manual_reset;
    qel_result r = qel_cond_init(&e->cond);
    if (r == QEL_OK)
        r = qel_mutex_init(&e->mutex);
    if (r != QEL_OK) {
        qel_event_destroy(e);
        return r;
    }
    *out = e;
    return QEL_OK;
}

void qel_event_destroy(qel_event *event)
{
    QEL_CHECK_VOID(event != nullptr);
    qel_mutex_destroy(event->mutex);
    qel_cond_destroy(event->cond);
    free(event);
}

void qel_event_wait(qel_event *event)
{
    QEL_CHECK_VOID(event != nullptr);
    (void)qel_event_timedwait(event, QEL_EVENT_INFINITE);
}

qel_result qel_event_timedwait(qel_event *event, uint64_t timeout_ms)
{
    QEL_CHECK(event != nullptr && event->cond != nullptr && event->mutex != nullptr, QEL_E_INVALIDARG);
    qel_mutex_lock(event->mutex);
    qel_result r = QEL_OK;
    if (timeout_ms == QEL_EVENT_INFINITE) {
        while (event->signalled == 0 && r == QEL_OK)
            r = qel_cond_wait(event->cond, event->mutex);
    } else {
        // Each wake-up restarts the full time-out rather than the remainder.
        while (event->signalled == 0 && r == QEL_OK)
            r = qel_cond_timedwait(event->cond, event->mutex, static_cast<int64_t>(timeout_ms));
    }
    if (r == QEL_OK && event->manual_reset == 0)
        event->signalled = 0; // the waiter consumes the signal
    qel_mutex_unlock(event->mutex);
    return r;
}

void qel_event_set(qel_event *event)
{
    QEL_CHECK_VOID(event != nullptr);
    qel_mutex_lock(event->mutex);
    event->signalled = 1;
    // Broadcast even for auto-reset: the first waiter to retake the mutex
    // consumes the signal, the others wait again.
    qel_cond_broadcast(event->cond);
    qel_mutex_unlock(event->mutex);
}

void qel_event_reset(qel_event *event)
{
    QEL_CHECK_VOID(event != nullptr);
    qel_mutex_lock(event->mutex);
    event->signalled = 0;
    qel_mutex_unlock(event->mutex);
}

// ---- thread-specific slots ----------------------------------------------------------------

qel_tls *qel_tls_alloc(void)
{
    auto *key = static_cast<pthread_key_t *>(qel::detail::try_alloc(sizeof(pthread_key_t)));
    if (key == nullptr) {
        errno = EINVAL; // deliberately EINVAL, not ENOMEM
        return nullptr;
    }
    int err = pthread_key_create(key, nullptr);
    if (err != 0) {
        free(key);
        errno = err;
        return nullptr;
    }
    return reinterpret_cast<qel_tls *>(key);
}

void qel_tls_free(qel_tls *tls)
{
    QEL_CHECK_VOID(tls != nullptr);
    pthread_key_delete(*native(tls));
    free(tls);
}

int qel_tls_set(qel_tls *tls, void *value)
{
    if (tls == nullptr) {
        errno = EINVAL;
        return 0;
    }
    int err = pthread_setspecific(*native(tls), value);
    if (err != 0) {
        errno = err;
        return 0;
    }
    return 1;
}

int qel_tls_get(qel_tls *tls, void **value)
{
    if (tls == nullptr || value == nullptr) {
        errno = EINVAL;
        return 0;
    }
    *value = pthread_getspecific(*native(tls));
    return 1;
}

// ---- one-time initialisation ------------------------------------------------------------------

int qel_singleton_once(volatile int32_t *once, void *ctx, int (*init)(void *ctx, void *arg), void *arg)
{
    QEL_CHECK(once != nullptr && ctx != nullptr, 0);
    int32_t old = qel_atomic32_cmp_and_swap(once, QEL_ONCE_RUNNING, QEL_ONCE_INIT);
    if (old == QEL_ONCE_INIT) {
        // A null initialiser leaves the word running: later callers wait out
        // the full period and get 0.
        if (init == nullptr)
            return 0;
        // Only the winner moves the word on from 1, so a swap against 1 is
        // the atomic store.
        if (init(ctx, arg) != 0) {
            qel_atomic32_cmp_and_swap(once, QEL_ONCE_DONE, QEL_ONCE_RUNNING);
            return 1;
        }
        qel_atomic32_cmp_and_swap(once, QEL_ONCE_FAILED, QEL_ONCE_RUNNING); // final: never retried
        return 0;
    }
    if (old != QEL_ONCE_RUNNING)
        return old == QEL_ONCE_FAILED ? 0 : 1;
    // Another caller is initialising: poll every 100 ms, 5 seconds at most.
    for (int i = 0; i < 50 && qel_atomic32_get(once) == QEL_ONCE_RUNNING; ++i)
        qel_msleep(100);
    return qel_atomic32_get(once) == QEL_ONCE_DONE ? 1 : 0;
}

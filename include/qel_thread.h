/*
 * qel_thread.h: threads, recursive mutexes, monotonic condition variables,
 * unnamed semaphores, events, thread-specific slots and one-time
 * initialisation.
 *
 * Every object is a heap handle handed out by an _init (or _alloc) call and
 * released by the matching _destroy (or _free), which ignores null. The mutex,
 * condition, semaphore and slot handles are distinct opaque types; behind them
 * are a pthread_mutex_t, a pthread_cond_t, a sem_t and a pthread_key_t.
 *
 * Conventions of this family:
 *   - Result codes mix the library's family (QEL_E_*) with the platform's own
 *     error numbers, passed through unchanged where a function says "platform
 *     result" (16 = EBUSY from a trylock, a pthread_create error, ...). Callers
 *     see both kinds side by side; the mix is deliberate.
 *   - Every mutex is recursive; every condition variable waits on
 *     CLOCK_MONOTONIC. Semaphore deadlines are on the wall clock in whole
 *     seconds.
 *   - Time-outs are milliseconds, 64 bits in the qel_ calls, 32 bits in the
 *     unprefixed ones.
 *   - Allocation failures are reported (QEL_E_NOMEM, null, or errno = EINVAL
 *     for the slots), never fatal. A mutex or condition whose platform destroy
 *     fails (still locked, still waited on) is leaked rather than freed.
 *
 * Thread safety: every function may be called from any thread. An event's
 * fields are read and written only under its own mutex; the once word only
 * through the 32-bit atomics of qel_mem.h.
 */
#ifndef QEL_THREAD_H
#define QEL_THREAD_H

#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>

#include "qel_export.h"
#include "qel_result.h"

QEL_BEGIN_DECLS

typedef struct _qel_mutex_st qel_mutex;         /* a recursive pthread_mutex_t */
typedef struct _qel_cond_st qel_cond;           /* a pthread_cond_t on CLOCK_MONOTONIC */
typedef struct _qel_semaphore_st qel_semaphore; /* a process-private sem_t */
typedef struct _qel_tls_st qel_tls;             /* a pthread_key_t without destructor */

/* A thread's routine: one pointer-sized argument, one pointer-sized result. */
typedef void *(*qel_thread_routine)(void *arg);

/* The record that carries a routine and its argument to a new thread. Private
 * (public for its layout only): allocated by qel_thread_start, freed by the new
 * thread before the routine runs. The trampoline that consumes it is internal
 * and shared by both start calls. */
typedef struct _qel_thread_start_record_st {
    qel_thread_routine routine;
    void *arg;
} qel_thread_start_record;

/* An event: manual- or auto-reset, built from one mutex and one condition.
 * Private fields; read and written only under `mutex`. */
typedef struct _qel_event_st {
    qel_cond *cond;
    qel_mutex *mutex;
    int32_t signalled;    /* 0 or 1 */
    int32_t manual_reset; /* 0: a successful wait consumes the signal */
} qel_event;

/* The wait of qel_event_timedwait that has no limit. */
#define QEL_EVENT_INFINITE 0xFFFFFFFFu

/* Once-word states. */
#define QEL_ONCE_INIT 0
#define QEL_ONCE_RUNNING 1
#define QEL_ONCE_DONE 2
#define QEL_ONCE_FAILED (-1)

/* ---- semaphores ----------------------------------------------------------- */

/* Returns: a semaphore with count `initial`; null if allocation or sem_init
 * failed. */
QEL_API qel_semaphore *qel_semaphore_init(unsigned int initial);

/* sem_destroy, then free. Null is ignored. */
QEL_API void qel_semaphore_destroy(qel_semaphore *sem);

/* Posts `count` times; the first failing post stops the loop (posts already
 * made stay made). A negative count posts nothing.
 * Returns: 0; QEL_E_FAIL for a null handle, a count of 0 or a failed post. */
QEL_API qel_result qel_semaphore_post(qel_semaphore *sem, int count);

/* Returns: the current count; -1 for a null handle or a failure. */
QEL_API int qel_semaphore_value(qel_semaphore *sem);

/* Takes one unit, waiting until a wall-clock deadline of whole seconds: now
 * (time(NULL)) plus timeout_ms when positive; the current whole second when 0
 * (only an available unit is taken); now plus 360 days when negative. An
 * interrupted wait is not retried.
 * Returns: 0 when taken; QEL_E_TIMEOUT when the wait failed with EINTR, EAGAIN
 * or ETIMEDOUT; QEL_E_FAIL for a null handle or any other failure. */
QEL_API qel_result qel_semaphore_wait(qel_semaphore *sem, int64_t timeout_ms);

/* ---- threads -------------------------------------------------------------- */

/* Starts routine(arg) on a new thread with default attributes; the thread's
 * exit value is the routine's result.
 * Returns: 0; QEL_E_INVALIDARG if thread or routine is null; QEL_E_NOMEM if the
 * start record could not be allocated; the pthread_create error otherwise. */
QEL_API qel_result qel_thread_start(pthread_t *thread, qel_thread_routine routine, void *arg);

/* pthread_exit(retval). */
QEL_API void qel_thread_exit(void *retval);

/* Joins the thread and stores its exit value through retval when not null.
 * Returns: 0; QEL_E_INVALIDARG if thread is null; the pthread_join error. */
QEL_API qel_result qel_thread_join(pthread_t *thread, void **retval);

/* Returns: the platform result of pthread_detach; QEL_E_INVALIDARG for null. */
QEL_API qel_result qel_thread_detach(pthread_t *thread);

/* Returns: the platform result of pthread_cancel; QEL_E_INVALIDARG for null. */
QEL_API qel_result qel_thread_cancel(pthread_t *thread);

/* As qel_msleep: usleep(ms * 1000), the product overflow-trapped and cut to 32
 * bits. */
QEL_API void qel_thread_sleep(int64_t ms);

/* sleep(0), deliberately not sched_yield. */
QEL_API void qel_thread_yield(void);

/* Returns: pthread_self() cut to 32 bits. */
QEL_API uint32_t qel_thread_id(void);

/* Returns: sysconf(_SC_NPROCESSORS_ONLN). */
QEL_API long qel_thread_nprocs(void);

/* ---- mutexes -------------------------------------------------------------- */

/* Creates a recursive mutex. *out is set to null first.
 * Returns: 0 with *out set; QEL_E_INVALIDARG if out is null; QEL_E_NOMEM; the
 * error of the failing pthread_mutexattr_* or pthread_mutex_init call. */
QEL_API qel_result qel_mutex_init(qel_mutex **out);

/* pthread_mutex_destroy; the memory is freed only if that succeeded (a locked
 * mutex is leaked). Null is ignored. */
QEL_API void qel_mutex_destroy(qel_mutex *mutex);

/* Locks (recursively). Null is ignored. */
QEL_API void qel_mutex_lock(qel_mutex *mutex);

/* Returns: the platform result (0, or 16 = EBUSY when another thread holds it);
 * QEL_E_INVALIDARG for null. */
QEL_API qel_result qel_mutex_trylock(qel_mutex *mutex);

/* Unlocks. Null is ignored. */
QEL_API void qel_mutex_unlock(qel_mutex *mutex);

/* ---- condition variables -------------------------------------------------- */

/* Creates a condition variable on CLOCK_MONOTONIC. *out is set to null first.
 * Returns: as qel_mutex_init. */
QEL_API qel_result qel_cond_init(qel_cond **out);

/* pthread_cond_destroy; freed only if that succeeded. Null is ignored. */
QEL_API void qel_cond_destroy(qel_cond *cond);

/* Returns: the platform result; QEL_E_INVALIDARG if either is null. */
QEL_API qel_result qel_cond_wait(qel_cond *cond, qel_mutex *mutex);

/* Waits until now (monotonic) + timeout_ms. A negative time-out gives a
 * deadline in the past, or the platform's EINVAL when the nanoseconds go
 * negative.
 * Returns: 0; QEL_E_TIMEOUT for ETIMEDOUT; any other platform result as is;
 * QEL_E_INVALIDARG if either is null. */
QEL_API qel_result qel_cond_timedwait(qel_cond *cond, qel_mutex *mutex, int64_t timeout_ms);

/* Returns: the platform result; QEL_E_INVALIDARG for null. */
QEL_API qel_result qel_cond_broadcast(qel_cond *cond);

/* Returns: the platform result; QEL_E_INVALIDARG for null. */
QEL_API qel_result qel_cond_signal(qel_cond *cond);

/* ---- events --------------------------------------------------------------- */

/* Creates an event (its condition first, then its mutex).
 * Returns: 0 with *out set; QEL_E_INVALIDARG if out is null; QEL_E_NOMEM; the
 * error of the condition or mutex creation (the half-built event is
 * destroyed). */
QEL_API qel_result qel_event_init(qel_event **out, int initial_signalled, int manual_reset);

/* Destroys the mutex, then the condition, then frees. Null is ignored. */
QEL_API void qel_event_destroy(qel_event *event);

/* qel_event_timedwait(event, QEL_EVENT_INFINITE), result dropped. Null is
 * ignored. */
QEL_API void qel_event_wait(qel_event *event);

/* Waits until the event is signalled. QEL_EVENT_INFINITE (exactly 4294967295)
 * waits without limit; any other value is handed to qel_cond_timedwait as a
 * signed 64-bit time-out, and each wake-up restarts the full time-out. A signal
 * already set satisfies the wait at once; an auto-reset event's successful
 * wait clears it.
 * Returns: 0; QEL_E_TIMEOUT; a platform error; QEL_E_INVALIDARG if the event,
 * its condition or its mutex is null. */
QEL_API qel_result qel_event_timedwait(qel_event *event, uint64_t timeout_ms);

/* Sets the signal and wakes every waiter, even on an auto-reset event (the
 * first to retake the mutex consumes it; the others wait again). Null is
 * ignored. */
QEL_API void qel_event_set(qel_event *event);

/* Clears the signal. Null is ignored. */
QEL_API void qel_event_reset(qel_event *event);

/* ---- thread-specific slots (report through errno and 1/0) ------------------ */

/* Returns: a slot; null with errno = EINVAL if the handle could not be
 * allocated (deliberately not ENOMEM), or errno = the pthread_key_create
 * error. */
QEL_API qel_tls *qel_tls_alloc(void);

/* pthread_key_delete, then free. Null is ignored. */
QEL_API void qel_tls_free(qel_tls *tls);

/* Returns: 1; 0 with errno = EINVAL for a null slot or errno = the
 * pthread_setspecific error. */
QEL_API int qel_tls_set(qel_tls *tls, void *value);

/* Stores this thread's value through value.
 * Returns: 1; 0 with errno = EINVAL if tls or value is null. */
QEL_API int qel_tls_get(qel_tls *tls, void **value);

/* ---- one-time initialisation ------------------------------------------------ */

/* Runs init(ctx, arg) once per word (0 before first use). The winner of the
 * 0 -> 1 swap calls init: non-zero stores QEL_ONCE_DONE, zero stores
 * QEL_ONCE_FAILED, which is final (a failed initialiser is never retried). A
 * caller that finds the word at QEL_ONCE_RUNNING polls it every 100 ms, at most
 * 50 times. A null init leaves the word at QEL_ONCE_RUNNING.
 * Returns: 1 when initialised (now or earlier); 0 if once or ctx is null, init
 * is null, the initialiser failed, or the wait ran out. */
QEL_API int qel_singleton_once(volatile int32_t *once, void *ctx, int (*init)(void *ctx, void *arg),
                               void *arg);

/* ---- unprefixed entry points ---------------------------------------------- */

/* As the qel_ function of the same suffix. */
QEL_API void event_destroy(qel_event *event);
QEL_API void event_set(qel_event *event);
QEL_API void event_reset(qel_event *event);
QEL_API void thread_exit(void *retval);
QEL_API qel_result thread_join(pthread_t *thread, void **retval);
QEL_API qel_result thread_detach(pthread_t *thread);
QEL_API qel_result thread_cancel(pthread_t *thread);
QEL_API void thread_yield(void);
QEL_API uint32_t thread_id(void);
QEL_API long thread_nprocs(void);
QEL_API qel_result mutex_init(qel_mutex **out);
QEL_API void mutex_destroy(qel_mutex *mutex);
QEL_API void mutex_lock(qel_mutex *mutex);
QEL_API qel_result mutex_trylock(qel_mutex *mutex);
QEL_API void mutex_unlock(qel_mutex *mutex);
QEL_API qel_result cond_init(qel_cond **out);
QEL_API void cond_destroy(qel_cond *cond);
QEL_API qel_result cond_wait(qel_cond *cond, qel_mutex *mutex);
QEL_API qel_result cond_broadcast(qel_cond *cond);
QEL_API qel_result cond_signal(qel_cond *cond);

/* As qel_event_init, with the two flags passed as single bytes. */
QEL_API qel_result event_init(qel_event **out, bool initial_signalled, bool manual_reset);

/* 32-bit time-out: 0xFFFFFFFF waits without limit, any other value is a timed
 * wait of that many milliseconds (0xFFFFFFFE: about 49.7 days). Otherwise as
 * qel_event_timedwait. */
QEL_API qel_result event_timedwait(qel_event *event, unsigned int timeout_ms);

/* event_timedwait(event, 0xFFFFFFFF), result dropped; a null event is caught
 * there. */
QEL_API void event_wait(qel_event *event);

/* As qel_thread_start, but when pthread_create fails the start record is not
 * freed (a leak kept from the old code). */
QEL_API qel_result thread_start(pthread_t *thread, qel_thread_routine routine, void *arg);

/* usleep(ms * 1000) in 32-bit wrapping arithmetic: values above 4294967 ms
 * wrap. */
QEL_API void thread_sleep(unsigned int ms);

/* 32-bit time-out with microsecond resolution: the deadline is now seconds +
 * timeout_ms / 1000 and now microseconds + (timeout_ms % 1000) * 1000, carried
 * into seconds (nanoseconds below one microsecond are dropped).
 * Returns: as qel_cond_timedwait. */
QEL_API qel_result cond_timedwait(qel_cond *cond, qel_mutex *mutex, unsigned int timeout_ms);

QEL_END_DECLS

#endif /* QEL_THREAD_H */

/*
 * qel_rwlock.h: the writer-preferring reader-writer lock and rundown
 * protection.
 *
 * Both are built on one 32-bit (rwlock) or pointer-sized (rundown) state word
 * that host programs may read; its values are part of the interface.
 *
 * Reader-writer lock `state`:
 *   n >= 0           n readers inside, no writer
 *   -2               a writer owns the lock, no readers inside
 *   -(n + 2), n > 0  a writer has announced itself and waits for n readers
 *   -(n + 1)         the same after the writer counted itself in
 *   below -2         while a writer owns: each nested exclusive or shared
 *                    acquisition by the owning thread subtracts 1
 * Readers pay one compare-and-swap while no writer is about. Writers serialise
 * on a recursive mutex, swing the word negative and wait for the readers
 * already inside to leave; new readers then queue on the writer mutex. The
 * owning writer may nest exclusive and shared acquisitions; a thread that holds
 * only a shared lock and asks for the exclusive one deadlocks (it waits for
 * itself).
 *
 * Rundown word:
 *   bit 0 clear      live; value / 2 references are held (each adds 2)
 *   exactly 1        run down, no wait in progress
 *   odd, above 1     run down; value - 1 is the address of the wait block on
 *                    the stack of the thread in qel_rundown_release_wait (after
 *                    that wait returns the stale address stays in the word)
 * Every acquire fails once bit 0 is set. qel_rundown_protection_reinit and
 * qel_rundown_completed compare the word against its own address (not its
 * contents): each changes the word only when it holds its own address. Use
 * qel_rundown_protection_init to make a word live again.
 *
 * Thread safety: every call may be made from any thread. Every
 * compare-and-swap is a full barrier; the writer's own stores to `state`
 * (made with the writer mutex held and no reader inside) are release stores,
 * so a reader that gets in after a writer sees everything the writer wrote.
 */
#ifndef QEL_RWLOCK_H
#define QEL_RWLOCK_H

#include <stdint.h>

#include "qel_export.h"
#include "qel_result.h"
#include "qel_thread.h"

QEL_BEGIN_DECLS

/* The reader-writer lock. `state` is read-only for callers; the rest private. */
typedef struct _qel_rwlock_st {
    volatile int32_t state;
    qel_event *drained;      /* auto-reset; set by the last reader a writer counted */
    qel_mutex *writer_mutex; /* recursive; held by the writer for its whole section */
} qel_rwlock;

/* The rundown word: caller-owned, pointer-sized, 0 when live and unused. */
typedef uintptr_t qel_rundown;

/* The wait block of qel_rundown_release_wait, on the waiter's stack. Private. */
typedef struct _qel_rundown_wait_block_st {
    volatile uint32_t count; /* references outstanding when the gate closed */
    qel_event *event;        /* manual-reset; null when count was 0 */
} qel_rundown_wait_block;

/* Creates a free lock (state 0).
 * Returns: 0 with *out set; QEL_E_INVALIDARG if out is null; QEL_E_NOMEM; the
 * error of the event or mutex creation (the half-built lock is destroyed). */
QEL_API qel_result qel_rwlock_init(qel_rwlock **out);

/* Destroys the event and mutex and frees the lock, without checking that it is
 * free. Null is ignored. */
QEL_API void qel_rwlock_destroy(qel_rwlock *lock);

/* Takes a shared lock, blocking on the writer mutex while a writer is about.
 * Null is ignored. */
QEL_API void qel_rwlock_shared_acquire(qel_rwlock *lock);

/* One attempt at a shared lock.
 * Returns: 0; QEL_E_INVALIDARG for null; the qel_mutex_trylock result (16)
 * when another thread writes; QEL_E_FAIL when the compare-and-swap lost a
 * race. */
QEL_API qel_result qel_rwlock_shared_try_acquire(qel_rwlock *lock);

/* Releases a shared lock; the release that lets a counted-in writer go sets
 * its event. Null is ignored. */
QEL_API void qel_rwlock_shared_release(qel_rwlock *lock);

/* Takes the exclusive lock (recursively for its owner) and waits for the
 * readers inside to leave. Null is ignored. */
QEL_API void qel_rwlock_exclusive_acquire(qel_rwlock *lock);

/* Tries the writer mutex only; once it is held, still waits for the readers
 * inside to leave.
 * Returns: 0; QEL_E_INVALIDARG for null; the qel_mutex_trylock result (16)
 * when the writer mutex is busy. */
QEL_API qel_result qel_rwlock_exclusive_try_acquire(qel_rwlock *lock);

/* Releases one level of exclusive ownership (-3 to -2, -2 to 0). Null is
 * ignored. */
QEL_API void qel_rwlock_exclusive_release(qel_rwlock *lock);

/* Stores 0 (plain store): the word is live with no references. */
QEL_API void qel_rundown_protection_init(volatile qel_rundown *word);

/* Returns: 1 if a reference was taken; 0 if the word is run down. */
QEL_API int qel_rundown_protection_acquire(volatile qel_rundown *word);

/* Releases a reference; after the gate closed, counts down the waiter's block
 * and sets its event on the last one. */
QEL_API void qel_rundown_protection_release(volatile qel_rundown *word);

/* Closes the gate and waits, without limit, until every reference is
 * released. Returns at once on a word with no references (leaving 1) or one
 * already run down with no wait in progress. If the wait's event cannot be
 * created, the waiter polls the count (yielding) instead of sleeping on it. */
QEL_API void qel_rundown_release_wait(volatile qel_rundown *word);

/* Stores 0 if the word holds its own address; otherwise leaves it. */
QEL_API void qel_rundown_protection_reinit(volatile qel_rundown *word);

/* Stores 1 if the word holds its own address; otherwise leaves it. */
QEL_API void qel_rundown_completed(volatile qel_rundown *word);

/* ---- unprefixed entry points ---------------------------------------------- */

/* As the qel_ function of the same name or suffix. */
QEL_API qel_result rwlock_init(qel_rwlock **out);
QEL_API void rwlock_destroy(qel_rwlock *lock);
QEL_API void rwlock_shared_acquire(qel_rwlock *lock);
QEL_API void rwlock_shared_release(qel_rwlock *lock);
QEL_API void rwlock_exclusive_acquire(qel_rwlock *lock);
QEL_API void rwlock_exclusive_release(qel_rwlock *lock);
QEL_API void rundown_protection_init(volatile qel_rundown *word);
QEL_API void rundown_protection_reinit(volatile qel_rundown *word);
QEL_API int rundown_protection_acquire(volatile qel_rundown *word);
QEL_API void rundown_protection_release(volatile qel_rundown *word);
QEL_API void rundown_completed(volatile qel_rundown *word);
QEL_API void rundown_release_wait(volatile qel_rundown *word);

QEL_END_DECLS

#endif /* QEL_RWLOCK_H */

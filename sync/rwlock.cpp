// The writer-preferring reader-writer lock and rundown protection.
//
// Thread safety
// -------------
// Reader-writer lock. `state` is the only word shared without a lock.
//  - Readers change it only by compare-and-swap (full barrier): +1 to enter
//    while it is non-negative, -1 to leave; while it is negative (a writer is
//    about) a reader enters only under `writer_mutex`, and leaving counts the
//    word up toward -1. Readers never touch the mutex while the word is
//    non-negative.
//  - A writer holds `writer_mutex` for its whole exclusive section. It swings
//    the word negative with compare-and-swap (-n - 2 for n readers inside), so
//    from then on every new reader queues on the mutex. The writer's own
//    stores that are not read-modify-write (the nested decrement, the final -2
//    of the drain, the release) happen only with the mutex held and no reader
//    inside; they are release stores, so a reader whose compare-and-swap sees
//    the freed word also sees everything the writer wrote in its section.
//  - The reads that seed a compare-and-swap are acquire loads and need no
//    ordering of their own; the swap decides. On the hot paths (shared acquire
//    and release, rundown acquire and release) the seed is a guess instead of
//    a read; a failed swap returns the current word, so the loop is the same.
//  - `drained` is set exactly once per counted writer: by the reader whose
//    release turns the word into -1 after the writer added itself in.
//
// Rundown word. Changed only by compare-and-swap, except the plain store of
// qel_rundown_protection_init. The wait block lives on the waiter's stack: its
// fields are written before the swap that publishes its address, and the
// waiter does not return (and the block does not die) before the last
// reference's release has set the event. The count is decremented atomically.

#include "qel_rwlock.h"

#include <stdlib.h>
#include <unistd.h>

#include "base/internal.h"
#include "sync/sync_impl.h"

using qel::sync_internal::atomic_word;

namespace {

constexpr int32_t kWriterOwns = -2;

inline int32_t load(qel_rwlock *lock)
{
    return atomic_word(&lock->state).load(std::memory_order_acquire);
}

inline void store(qel_rwlock *lock, int32_t value)
{
    atomic_word(&lock->state).store(value, std::memory_order_release);
}

// Compare-and-swap; returns true on success and leaves the value found in
// `expected` on failure.
inline bool cas(qel_rwlock *lock, int32_t &expected, int32_t desired)
{
    return atomic_word(&lock->state).compare_exchange_strong(expected, desired);
}

// The writer drain: the writer has swung the word to -(n + 2) and waits for
// the n readers inside to leave.
void wait_for_readers(qel_rwlock *lock)
{
    usleep(0); // a deliberate yield before counting
    if (load(lock) != kWriterOwns) {
        // Count ourselves in; the reader whose release makes the word -1 sets
        // the event.
        if (atomic_word(&lock->state).fetch_add(1) + 1 != -1)
            qel_event_wait(lock->drained);
    }
    store(lock, kWriterOwns);
}

// The exclusive acquire after the writer mutex is held.
void exclusive_enter(qel_rwlock *lock)
{
    int32_t now = load(lock);
    if (now < 0) {
        store(lock, now - 1); // recursion by the owning thread
        return;
    }
    int32_t old = now;
    int32_t desired;
    do {
        desired = qel::detail::trap_add<int32_t>(qel::detail::trap_mul<int32_t>(old, -1), -2);
    } while (!cas(lock, old, desired));
    if (desired != kWriterOwns && load(lock) != kWriterOwns)
        wait_for_readers(lock);
}

// The slow half of a shared entry: a writer is about (old < 0), so queue
// behind it on the writer mutex. The writer's own thread gets in through the
// recursive mutex and counts further into the negative word. With `try_only`
// the mutex is tried rather than locked and its failure lands in *busy.
// Returns true if the swap succeeded; on failure `old` holds the value found.
bool shared_enter_slow(qel_rwlock *lock, int32_t &old, bool try_only, qel_result *busy)
{
    if (try_only) {
        qel_result r = qel_mutex_trylock(lock->writer_mutex);
        if (r != QEL_OK) {
            *busy = r;
            return false;
        }
    } else {
        qel_mutex_lock(lock->writer_mutex);
    }
    old = load(lock);
    int32_t desired = old < 0 ? old - 1 : old + 1;
    bool ok = cas(lock, old, desired);
    qel_mutex_unlock(lock->writer_mutex);
    return ok;
}

// The shared acquire loop after the first swap failed and left the word in
// `old`. Kept out of line so that the fast path needs no stack frame.
__attribute__((noinline)) void shared_acquire_retry(qel_rwlock *lock, int32_t old)
{
    for (;;) {
        if (old >= 0) {
            if (cas(lock, old, old + 1))
                return;
        } else if (shared_enter_slow(lock, old, false, nullptr)) {
            return;
        }
    }
}

} // namespace

qel_result qel_rwlock_init(qel_rwlock **out)
{
    QEL_CHECK(out != nullptr, QEL_E_INVALIDARG);
    auto *lock = static_cast<qel_rwlock *>(qel::detail::try_calloc(1, sizeof(qel_rwlock)));
    if (lock == nullptr)
        return QEL_E_NOMEM;
    qel_result r = qel_event_init(&lock->drained, 0, 0);
    if (r == QEL_OK)
        r = qel_mutex_init(&lock->writer_mutex);
    if (r != QEL_OK) {
        qel_rwlock_destroy(lock);
        return r;
    }
    lock->state = 0;
    *out = lock;
    return QEL_OK;
}

void qel_rwlock_destroy(qel_rwlock *lock)
{
    QEL_CHECK_VOID(lock != nullptr);
    if (lock->drained != nullptr) {
        qel_event_destroy(lock->drained);
        lock->drained = nullptr;
    }
    if (lock->writer_mutex != nullptr) {
        qel_mutex_destroy(lock->writer_mutex);
        lock->writer_mutex = nullptr;
    }
    free(lock);
}

void qel_rwlock_shared_acquire(qel_rwlock *lock)
{
    QEL_CHECK_VOID(lock != nullptr);
    // The swap is seeded with the likeliest value, a free lock, rather than a
    // read of the word: a load right behind the previous locked instruction on
    // the same line costs about as much as the swap itself. A wrong guess
    // fails the swap, which hands back the word as a read would.
    int32_t old = 0;
    if (__builtin_expect(cas(lock, old, 1), 1))
        return;
    shared_acquire_retry(lock, old);
}

qel_result qel_rwlock_shared_try_acquire(qel_rwlock *lock)
{
    QEL_CHECK(lock != nullptr, QEL_E_INVALIDARG);
    // One attempt, so it starts from a real read of the word.
    int32_t old = load(lock);
    qel_result busy = QEL_OK;
    bool ok = old >= 0 ? cas(lock, old, old + 1) : shared_enter_slow(lock, old, true, &busy);
    if (ok)
        return QEL_OK;
    return busy != QEL_OK ? busy : QEL_E_FAIL;
}

void qel_rwlock_shared_release(qel_rwlock *lock)
{
    QEL_CHECK_VOID(lock != nullptr);
    int32_t old = 1; // seeded with the likeliest value: this reader alone
    int32_t desired;
    do {
        // Negative words count toward -1, where a counted-in writer waits.
        desired = old >= 1 ? old - 1 : old + 1;
    } while (!cas(lock, old, desired));
    if (desired == -1)
        qel_event_set(lock->drained);
}

void qel_rwlock_exclusive_acquire(qel_rwlock *lock)
{
    QEL_CHECK_VOID(lock != nullptr);
    qel_mutex_lock(lock->writer_mutex);
    exclusive_enter(lock);
}

qel_result qel_rwlock_exclusive_try_acquire(qel_rwlock *lock)
{
    QEL_CHECK(lock != nullptr, QEL_E_INVALIDARG);
    qel_result r = qel_mutex_trylock(lock->writer_mutex);
    if (r != QEL_OK)
        return r;
    exclusive_enter(lock); // the drain still blocks, deliberately
    return QEL_OK;
}

void qel_rwlock_exclusive_release(qel_rwlock *lock)
{
    QEL_CHECK_VOID(lock != nullptr);
    int32_t now = load(lock) + 1;
    store(lock, now == -1 ? 0 : now);
    qel_mutex_unlock(lock->writer_mutex);
}

// ---- rundown protection -------------------------------------------------------

namespace {

constexpr qel_rundown kRunDown = 1;

inline bool rd_cas(volatile qel_rundown *word, qel_rundown &expected, qel_rundown desired)
{
    return atomic_word(word).compare_exchange_strong(expected, desired);
}

} // namespace

void qel_rundown_protection_init(volatile qel_rundown *word)
{
    *word = 0;
}

// Acquire and release seed their swap with the likeliest value (a live word
// with no other reference) instead of a read; see qel_rwlock_shared_acquire.
int qel_rundown_protection_acquire(volatile qel_rundown *word)
{
    qel_rundown v = 0;
    while ((v & 1) == 0) {
        if (rd_cas(word, v, v + 2))
            return 1;
    }
    return 0;
}

void qel_rundown_protection_release(volatile qel_rundown *word)
{
    qel_rundown v = 2;
    while ((v & 1) == 0) {
        if (rd_cas(word, v, v - 2))
            return;
    }
    // The gate closed while we held a reference: count down the waiter's block.
    auto *block = reinterpret_cast<qel_rundown_wait_block *>(v & ~static_cast<qel_rundown>(1));
    qel_event *event = block->event;
    if (atomic_word(&block->count).fetch_sub(1) - 1 == 0 && event != nullptr)
        qel_event_set(event);
}

void qel_rundown_release_wait(volatile qel_rundown *word)
{
    qel_rundown prev = 0;
    if (rd_cas(word, prev, kRunDown) || prev == kRunDown)
        return; // no references, or already run down
    qel_rundown_wait_block block;
    qel_event *event = nullptr;
    uint32_t count;
    for (;;) {
        count = static_cast<uint32_t>(prev >> 1);
        if (count > 0 && event == nullptr)
            qel_event_init(&event, 0, 1); // unsignalled, manual reset
        block.count = count;
        block.event = event;
        if (rd_cas(word, prev, reinterpret_cast<qel_rundown>(&block) + 1))
            break;
    }
    if (count > 0 && event != nullptr) {
        qel_event_wait(event);
    } else if (count > 0) {
        // The event could not be made: poll the count instead, so that the
        // block outlives every release that can still reach it.
        while (atomic_word(&block.count).load(std::memory_order_acquire) != 0)
            qel_thread_yield();
    }
    qel_event_destroy(event);
}

void qel_rundown_protection_reinit(volatile qel_rundown *word)
{
    // Compares against the word's own address, not its contents (kept as is).
    qel_rundown self = reinterpret_cast<qel_rundown>(word);
    rd_cas(word, self, 0);
}

void qel_rundown_completed(volatile qel_rundown *word)
{
    qel_rundown self = reinterpret_cast<qel_rundown>(word);
    rd_cas(word, self, kRunDown);
}

/* A host program that reads the lock and rundown words the way existing
 * callers do, through the public headers and the shared library only. */
#define _DEFAULT_SOURCE 1 /* srandom */
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qel_rwlock.h"
#include "qel_thread.h"
#include "qel_time.h"
#include "host_check.h"


int main(void)
{
    qel_rwlock *lock = NULL;
    CHECK(rwlock_init(&lock) == QEL_OK);
    CHECK(lock->state == 0);
    rwlock_shared_acquire(lock);
    qel_rwlock_shared_acquire(lock);
    CHECK(lock->state == 2);
    rwlock_shared_release(lock);
    qel_rwlock_shared_release(lock);
    rwlock_exclusive_acquire(lock);
    CHECK(lock->state == -2);
    qel_rwlock_exclusive_acquire(lock);
    CHECK(lock->state == -3);
    rwlock_exclusive_release(lock);
    CHECK(lock->state == -2);
    qel_rwlock_exclusive_release(lock);
    CHECK(lock->state == 0);
    rwlock_destroy(lock);

    volatile qel_rundown word;
    rundown_protection_init(&word);
    CHECK(word == 0);
    CHECK(rundown_protection_acquire(&word) == 1 && word == 2);
    rundown_protection_release(&word);
    rundown_release_wait(&word);
    CHECK(word == 1);
    CHECK(qel_rundown_protection_acquire(&word) == 0);

    qel_event *e = NULL;
    CHECK(event_init(&e, true, false) == QEL_OK);
    CHECK(e->signalled == 1 && e->manual_reset == 0);
    CHECK(event_timedwait(e, 0) == QEL_OK);
    CHECK(event_timedwait(e, 0) == QEL_E_TIMEOUT);
    event_destroy(e);

    qel_mutex *m = NULL;
    CHECK(mutex_init(&m) == QEL_OK);
    mutex_lock(m);
    CHECK(mutex_trylock(m) == 0); /* recursive */
    mutex_unlock(m);
    mutex_unlock(m);
    mutex_destroy(m);

    uint8_t u[QEL_UUID_SIZE];
    char text[QEL_UUID_CSTR_SIZE];
    srandom(42);
    CHECK(qel_uuid_create(u) == QEL_OK);
    CHECK(qel_uuid_make_cstr(u, text) == QEL_OK);
    CHECK(strlen(text) == 36 && text[14] == '4' && strchr("89AB", text[19]) != NULL);

    struct tm tm;
    time_t zero = 0;
    CHECK(time_stamp_to_local(&tm, &zero) == QEL_OK);
    CHECK(time_get_tick_cout() <= qel_time_get_tick_cout());
    return 0;
}

// Drives one reader-writer lock and one rundown word through a byte-coded
// sequence of single-thread operations (reads, nested writes, reads inside
// the write section, tries; rundown acquire, release, release-wait, init) and
// checks each state word against a model after every step.
#include <cstdint>
#include <cstdlib>

#include "qel_rwlock.h"

namespace {

struct Model {
    int readers = 0;       // shared holds while no writer
    int depth = 0;         // exclusive nesting
    int nested_shared = 0; // shared holds inside the exclusive section
    int32_t state() const { return depth == 0 ? readers : -(1 + depth + nested_shared); }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qel_rwlock *lock = nullptr;
    if (qel_rwlock_init(&lock) != QEL_OK)
        __builtin_trap();
    Model m;
    volatile qel_rundown word = 0;
    qel_rundown_protection_init(&word);
    int refs = 0;
    bool down = false;
    for (size_t i = 0; i < size; ++i) {
        switch (data[i] % 9) {
        case 0: // exclusive acquire (a thread holding only a read lock would deadlock)
        case 1:
            if (m.readers != 0)
                break;
            if (data[i] % 9 == 0)
                qel_rwlock_exclusive_acquire(lock);
            else if (qel_rwlock_exclusive_try_acquire(lock) != QEL_OK)
                __builtin_trap();
            ++m.depth;
            break;
        case 2: // exclusive release, innermost level first
            if (m.depth == 0 || (m.depth == 1 && m.nested_shared != 0))
                break;
            qel_rwlock_exclusive_release(lock);
            --m.depth;
            break;
        case 3: // shared acquire
        case 4:
            if (data[i] % 9 == 3)
                qel_rwlock_shared_acquire(lock);
            else if (qel_rwlock_shared_try_acquire(lock) != QEL_OK)
                __builtin_trap();
            ++(m.depth ? m.nested_shared : m.readers);
            break;
        case 5: // shared release
            if (m.depth ? m.nested_shared == 0 : m.readers == 0)
                break;
            qel_rwlock_shared_release(lock);
            --(m.depth ? m.nested_shared : m.readers);
            break;
        case 6: // rundown acquire
            if (qel_rundown_protection_acquire(&word) != (down ? 0 : 1))
                __builtin_trap();
            if (!down)
                ++refs;
            break;
        case 7: // rundown release
            if (refs == 0 || down)
                break;
            qel_rundown_protection_release(&word);
            --refs;
            break;
        default: // release-wait with no references, or back to live
            if (refs != 0)
                break;
            if (down)
                qel_rundown_protection_init(&word);
            else
                qel_rundown_release_wait(&word);
            down = !down;
            break;
        }
        if (lock->state != m.state())
            __builtin_trap();
        if (word != (down ? 1u : static_cast<qel_rundown>(refs) * 2))
            __builtin_trap();
    }
    while (m.nested_shared-- > 0)
        qel_rwlock_shared_release(lock);
    while (m.depth-- > 0)
        qel_rwlock_exclusive_release(lock);
    while (m.readers-- > 0)
        qel_rwlock_shared_release(lock);
    if (lock->state != 0)
        __builtin_trap();
    qel_rwlock_destroy(lock);
    return 0;
}

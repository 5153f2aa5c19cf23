/*
 * internal.h: the cross-cutting rules of libmorbase, each in exactly one place.
 * Every module includes this header and calls these helpers; none of it is
 * exported.
 *
 *  - QEL_CHECK            argument checks: return the failure value at once,
 *                         with no side effect and no log line
 *  - QEL_WARN             the warning line at level 1
 *  - QEL_OOM / QEL_OOM_LC the fatal out-of-memory line at level 0, then exit(0)
 *                         ("Out of memory"; "out of memory" for the hash tables)
 *  - must_alloc/try_alloc the allocation funnel: fatal or reported failure; the
 *                         choice at a call site is the policy
 *  - trap_add/trap_mul    arithmetic that aborts the process on overflow, as a
 *                         -ftrapv build would
 *  - add_overflows/...    checked size arithmetic that reports instead of trapping
 *  - hash33               the seeded x33 byte hash (5318, or 5381)
 */
#ifndef QEL_BASE_INTERNAL_H
#define QEL_BASE_INTERNAL_H

#include <atomic>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include "qel_log.h"
#include "qel_result.h"

/* Argument check: `if (!(cond)) return fail;` and nothing else. */
#define QEL_CHECK(cond, fail)                                                                      \
    do {                                                                                           \
        if (__builtin_expect(!(cond), 0))                                                          \
            return fail;                                                                           \
    } while (0)
#define QEL_CHECK_VOID(cond)                                                                       \
    do {                                                                                           \
        if (__builtin_expect(!(cond), 0))                                                          \
            return;                                                                                \
    } while (0)

/* The library's tag in every line it logs. */
#define QEL_LOG_TAG "[MOR]"

/* Warning line: "[PID:%-5ld]\t[WARN]\t%-10s [%s(%d)] " followed by the message.
 * `module` is the source module's name as it appears in log text. */
#define QEL_WARN(module, fmt, ...)                                                                 \
    qel_log_output(1, "[PID:%-5ld]\t[WARN]\t%-10s [%s(%d)] " fmt, (long)getpid(), QEL_LOG_TAG,     \
                   (module), __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/* Fatal out-of-memory: logs the line at level 0 and calls exit(0). */
#define QEL_OOM(module) ::qel::detail::oom_exit((module), __LINE__, false)
/* The same with "out of memory" in lower case (the chained hash tables). */
#define QEL_OOM_LC(module) ::qel::detail::oom_exit((module), __LINE__, true)

namespace qel::detail {

/* Writes the out-of-memory line and ends the process with exit(0). */
[[noreturn]] void oom_exit(const char *module, int line, bool lower_case);

/* Walks the sink table with an already mapped level (shared by qel_log_output
 * and log_output). */
void log_vdispatch(unsigned int level, const char *format, va_list args);

/* Checks that stacks can be symbolised; if not, reports "call
 * backtrace_dump_str failed" through warn(3) on standard error. */
void backtrace_selfcheck();

/* ---- allocation funnel ----------------------------------------------------
 * try_alloc: malloc or null. must_alloc: malloc, or the fatal out-of-memory
 * line for `module` and exit(0). The _realloc/_calloc twins follow the same
 * split. Each honours the test-only failure injection below. */
void *try_alloc(size_t size) noexcept;
void *try_calloc(size_t n, size_t size) noexcept;
void *try_realloc(void *ptr, size_t size) noexcept;
void *must_alloc_at(size_t size, const char *module, int line, bool lower_case) noexcept;
void *must_calloc_at(size_t n, size_t size, const char *module, int line, bool lower_case) noexcept;
void *must_realloc_at(void *ptr, size_t size, const char *module, int line, bool lower_case) noexcept;

#define QEL_MUST_ALLOC(size, module) ::qel::detail::must_alloc_at((size), (module), __LINE__, false)
#define QEL_MUST_ALLOC_LC(size, module) ::qel::detail::must_alloc_at((size), (module), __LINE__, true)
#define QEL_MUST_CALLOC(n, size, module)                                                           \
    ::qel::detail::must_calloc_at((n), (size), (module), __LINE__, false)
#define QEL_MUST_CALLOC_LC(n, size, module)                                                        \
    ::qel::detail::must_calloc_at((n), (size), (module), __LINE__, true)
#define QEL_MUST_REALLOC(p, size, module)                                                          \
    ::qel::detail::must_realloc_at((p), (size), (module), __LINE__, false)
#define QEL_MUST_REALLOC_LC(p, size, module)                                                       \
    ::qel::detail::must_realloc_at((p), (size), (module), __LINE__, true)

/* Test hook: the next `skip` funnel allocations succeed, then `count` fail
 * (count < 0: all fail); fail_allocations(0, 0) turns injection off. Not
 * exported: the unit tests link the library's objects directly. */
void fail_allocations(long skip, long count) noexcept;
/* True when the caller's allocation must fail (consumes one step). The fast
 * path is one relaxed load of a flag that only tests set. */
extern std::atomic<bool> g_alloc_fail_armed;
bool injected_failure_slow() noexcept;
inline bool injected_failure() noexcept
{
    return __builtin_expect(g_alloc_fail_armed.load(std::memory_order_relaxed), 0) && injected_failure_slow();
}

/* ---- arithmetic ------------------------------------------------------------ */

/* Sum or product that aborts the process on overflow, as -ftrapv would. */
template <class T>
inline T trap_add(T a, T b) noexcept
{
    T r;
    if (__builtin_add_overflow(a, b, &r))
        abort();
    return r;
}
template <class T>
inline T trap_mul(T a, T b) noexcept
{
    T r;
    if (__builtin_mul_overflow(a, b, &r))
        abort();
    return r;
}

/* Checked size arithmetic: true if the result overflowed (and *out is
 * unspecified). */
template <class T>
inline bool add_overflows(T a, T b, T *out) noexcept
{
    return __builtin_add_overflow(a, b, out);
}
template <class T>
inline bool mul_overflows(T a, T b, T *out) noexcept
{
    return __builtin_mul_overflow(a, b, out);
}

/* ---- the seeded x33 byte hash ---------------------------------------------- */

inline constexpr uint32_t kHashSeed = 5318;    /* the library's seed, deliberately not 5381 */
inline constexpr uint32_t kHashSeed5381 = 5381; /* the open-addressing table's seed */

/* h = seed; h = h * 33 + byte for each byte, modulo 2^32. */
inline uint32_t hash33(const void *data, size_t len, uint32_t seed = kHashSeed) noexcept
{
    const unsigned char *p = static_cast<const unsigned char *>(data);
    uint32_t h = seed;
    // Eight, then four bytes per step: h * 33^4 + b0 * 33^3 + b1 * 33^2 +
    // b2 * 33 + b3 (modulo 2^32) is the same value as four single steps, with
    // a fraction of the dependency chain (the hash tables' look-ups spend most
    // of their time here).
    for (; len >= 8; len -= 8, p += 8)
        h = h * 1954312449u + (p[0] * 3963737313u + p[1] * 1291467969u) + (p[2] * 39135393u + p[3] * 1185921u) +
            (p[4] * 35937u + p[5] * 1089u) + (p[6] * 33u + p[7]);
    for (; len >= 4; len -= 4, p += 4)
        h = h * 1185921u + (p[0] * 35937u + p[1] * 1089u) + (p[2] * 33u + p[3]);
    for (; len != 0; --len)
        h = h * 33u + *p++;
    return h;
}

/* The same over a NUL-terminated string. */
inline uint32_t hash33_str(const char *s, uint32_t seed = kHashSeed) noexcept
{
    uint32_t h = seed;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(s); *p; ++p)
        h = h * 33u + *p;
    return h;
}

/* Continues a hash over more bytes (h is the value so far). */
inline uint32_t hash33_continue(uint32_t h, const void *data, size_t len) noexcept
{
    return hash33(data, len, h);
}

/* The name of a result code ("QEL_E_NOTFOUND"), or null for other values. */
const char *result_name(uint32_t code) noexcept;

} // namespace qel::detail

#endif /* QEL_BASE_INTERNAL_H */

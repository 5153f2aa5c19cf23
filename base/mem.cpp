// Allocator wrappers, the counted heap, page-backed blocks, atomics, rounding
// and byte order; also the library's allocation funnel.

#include "qel_mem.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "base/internal.h"

volatile int32_t g_heap = 0;

namespace {

// Failure injection for tests: allocations to let through, then to fail.
std::atomic<long> g_fail_skip{0};
std::atomic<long> g_fail_count{0};

// The byte-order cache: 0xFFFFFFFF until probed. Written without a lock; every
// racing first call writes the same answer.
uint32_t g_endian = 0xFFFFFFFFu;

// Page-backed blocks carry a 32-bit size word before the caller's bytes.
constexpr size_t kVmHeader = 4;

inline uint32_t vm_stored_size(const void *block)
{
    uint32_t size;
    memcpy(&size, static_cast<const char *>(block) - kVmHeader, sizeof size);
    return size;
}

template <class T>
inline std::atomic_ref<T> word(volatile T *p)
{
    return std::atomic_ref<T>(*const_cast<T *>(p));
}

} // namespace

namespace qel::detail {

std::atomic<bool> g_alloc_fail_armed{false};

void fail_allocations(long skip, long count) noexcept
{
    g_fail_skip.store(skip);
    g_fail_count.store(count);
    g_alloc_fail_armed.store(count != 0);
}

bool injected_failure_slow() noexcept
{
    if (g_fail_skip.load() > 0) {
        g_fail_skip.fetch_sub(1);
        return false;
    }
    long c = g_fail_count.load();
    if (c == 0)
        return false;
    if (c > 0 && g_fail_count.fetch_sub(1) == 1)
        g_alloc_fail_armed.store(false);
    return true;
}

void *try_alloc(size_t size) noexcept
{
    return injected_failure() ? nullptr : malloc(size);
}

void *try_calloc(size_t n, size_t size) noexcept
{
    return injected_failure() ? nullptr : calloc(n, size);
}

void *try_realloc(void *ptr, size_t size) noexcept
{
    return injected_failure() ? nullptr : realloc(ptr, size);
}

void *must_alloc_at(size_t size, const char *module, int line, bool lower_case) noexcept
{
    void *p = try_alloc(size);
    if (p == nullptr)
        oom_exit(module, line, lower_case);
    return p;
}

void *must_calloc_at(size_t n, size_t size, const char *module, int line, bool lower_case) noexcept
{
    void *p = try_calloc(n, size);
    if (p == nullptr)
        oom_exit(module, line, lower_case);
    return p;
}

void *must_realloc_at(void *ptr, size_t size, const char *module, int line, bool lower_case) noexcept
{
    void *p = try_realloc(ptr, size);
    if (p == nullptr)
        oom_exit(module, line, lower_case);
    return p;
}

} // namespace qel::detail

void *qel_malloc_(size_t size)
{
    return malloc(size);
}

void *qel_ralloc_(void *ptr, size_t size)
{
    return realloc(ptr, size);
}

void qel_free_(void *ptr)
{
    free(ptr);
}

qel_result qel_heap_mem_init(void * /*ignored*/, qel_heap *out)
{
    QEL_CHECK(out != nullptr, QEL_E_INVALIDARG);
    *out = &g_heap;
    return QEL_OK;
}

void qel_heap_mem_destroy(qel_heap /*heap*/)
{
}

void *qel_heap_mem_alloc(qel_heap /*heap*/, uint32_t tag, size_t size)
{
    QEL_CHECK(tag != 0 && size != 0, nullptr);
    void *p = qel::detail::try_alloc(size);
    if (p != nullptr)
        word(&g_heap).fetch_add(1);
    return p;
}

void qel_heap_mem_free(qel_heap /*heap*/, void *block, uint32_t tag)
{
    QEL_CHECK_VOID(block != nullptr && tag != 0);
    free(block);
    word(&g_heap).fetch_sub(1);
}

void *qel_virtual_memory_malloc(size_t size)
{
    QEL_CHECK(size != 0, nullptr);
    // The size word is 32 bits wide, and size + 4 must not wrap.
    QEL_CHECK(size <= UINT32_MAX - kVmHeader, nullptr);
    if (qel::detail::injected_failure())
        return nullptr;
    void *m = mmap(nullptr, size + kVmHeader, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    // Only a null address counts as failure; MAP_FAILED is reported the same
    // way here so that no caller is handed (void *)-1 + 4.
    if (m == nullptr || m == MAP_FAILED)
        return nullptr;
    uint32_t stored = static_cast<uint32_t>(size);
    memcpy(m, &stored, sizeof stored);
    return static_cast<char *>(m) + kVmHeader;
}

void *qel_virtual_memory_ralloc(void *block, size_t size)
{
    if (block == nullptr)
        return qel_virtual_memory_malloc(size);
    uint32_t old_size = vm_stored_size(block);
    if (old_size >= size)
        return block; // never shrinks
    void *fresh = qel_virtual_memory_malloc(size);
    if (fresh != nullptr)
        memcpy(fresh, block, old_size);
    // Freed in every case: a failed growth loses the old block (kept behaviour).
    qel_virtual_memory_free(block);
    return fresh;
}

qel_result qel_virtual_memory_free(void *block)
{
    QEL_CHECK(block != nullptr, QEL_E_FAIL);
    char *m = static_cast<char *>(block) - kVmHeader;
    if (munmap(m, vm_stored_size(block) + kVmHeader) != 0)
        return QEL_E_FAIL;
    return QEL_OK;
}

int32_t qel_atomic32_add_and_fetch(volatile int32_t *ptr, int32_t delta)
{
    // Wrapping add, as the hardware instruction does.
    return static_cast<int32_t>(static_cast<uint32_t>(word(ptr).fetch_add(delta)) + static_cast<uint32_t>(delta));
}

int32_t qel_atomic32_cmp_and_swap(volatile int32_t *ptr, int32_t new_value, int32_t expected)
{
    word(ptr).compare_exchange_strong(expected, new_value);
    return expected; // on failure it now holds the value found
}

int32_t qel_atomic32_set(volatile int32_t *ptr, int32_t value)
{
    int32_t seen = word(ptr).load(std::memory_order_relaxed);
    for (;;) {
        int32_t found = qel_atomic32_cmp_and_swap(ptr, value, seen);
        if (found == seen)
            return seen;
        seen = found;
    }
}

int32_t qel_atomic32_get(volatile int32_t *ptr)
{
    return qel_atomic32_cmp_and_swap(ptr, 0, 0);
}

void *qel_atomic_cmp_and_swap_ptr(void *volatile *ptr, void *new_value, void *expected)
{
    word(ptr).compare_exchange_strong(expected, new_value);
    return expected;
}

uint32_t qel_round_up_power2(uint32_t x)
{
    x -= 1; // 0 wraps to all ones and comes back to 0 below
    x |= x >> 1;
    x |= x >> 2;
    x |= x >> 4;
    x |= x >> 8;
    x |= x >> 16;
    return x + 1;
}

int qel_check_os_endian(void)
{
    uint32_t cached = std::atomic_ref<uint32_t>(g_endian).load(std::memory_order_relaxed);
    if (cached != 0xFFFFFFFFu)
        return static_cast<int>(cached);
    uint32_t probe = 0x04030201u;
    unsigned char first;
    memcpy(&first, &probe, 1);
    cached = first == 1 ? 1u : 0u;
    std::atomic_ref<uint32_t>(g_endian).store(cached, std::memory_order_relaxed);
    return static_cast<int>(cached);
}

uint32_t qel_uint32_endianb2l(uint32_t x)
{
    return __builtin_bswap32(x);
}


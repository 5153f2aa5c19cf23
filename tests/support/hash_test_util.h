// Helpers shared by the hash table tests: a byte-at-a-time reference of the
// x33 hash, value-free bookkeeping, and the scale of random runs.
#ifndef MORBASE_HASH_TEST_UTIL_H
#define MORBASE_HASH_TEST_UTIL_H

#include <cstdint>
#include <map>
#include <string>

namespace qeltest {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int kRandomScale = 10; // sanitizer builds run a tenth of the random operations
#else
inline constexpr int kRandomScale = 1;
#endif

// h = seed; h = h * 33 + byte, one byte at a time, as the definition reads.
inline uint32_t reference_hash33(const std::string &k, uint32_t seed)
{
    uint32_t h = seed;
    for (unsigned char c : k)
        h = h * 33 + c;
    return h;
}

// How many times each value went through the value-free callback.
inline std::map<uintptr_t, int> g_freed;
inline int g_free_total = 0;

inline void count_free(void *v)
{
    g_freed[reinterpret_cast<uintptr_t>(v)]++;
    g_free_total++;
}

inline void reset_frees()
{
    g_freed.clear();
    g_free_total = 0;
}

inline void *as_value(uintptr_t v)
{
    return reinterpret_cast<void *>(v);
}

} // namespace qeltest

#endif

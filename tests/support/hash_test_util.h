// Helpers shared by the hash table tests.
#ifndef MORBASE_HASH_TEST_UTIL_H
#define MORBASE_HASH_TEST_UTIL_H

#include <cstdint>
#include <functional>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/internal.h"
#include "support/test_util.h"

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

inline void *val(uintptr_t v)
{
    return reinterpret_cast<void *>(v);
}

// n keys: random bytes from `lo` of length min_len to 40, and prefixes of
// earlier keys (keys that differ only in length).
inline std::vector<std::string> random_keys(Rng &rng, size_t n, size_t min_len, unsigned char lo)
{
    std::vector<std::string> keys;
    while (keys.size() < n) {
        const std::string &base = keys.empty() ? "" : keys[rng.range(0, keys.size() - 1)];
        if (base.size() > min_len && rng.chance(30))
            keys.push_back(base.substr(0, rng.range(min_len, base.size() - 1)));
        else
            keys.push_back(rng.bytes(rng.range(min_len, 40), rng.chance(50) ? 'a' : lo, rng.chance(50) ? 'd' : 255));
    }
    return keys;
}

// Runs op in a child whose funnel lets `skip` allocations through and fails the
// next, with the log going to standard error; expects exit status 0 and
// exactly one line of the out-of-memory format for `module_regex`
// ("out" or "Out" as `word`).
inline void expect_fatal_oom(long skip, const std::string &module_regex, const char *word,
                             const std::function<void()> &op)
{
    ChildResult r = run_in_child([&] {
        qel_log_output_register(stderr_sink);
        qel::detail::fail_allocations(skip, 1);
        op();
        return 3; // not reached
    });
    ASSERT_TRUE(r.exited) << r.output;
    EXPECT_EQ(0, r.status) << r.output;
    std::string re = "\\[PID:[0-9]+ *\\]\t\\[ERROR\\]\t\\[MOR\\]      \\[" + module_regex + "\\([0-9]+\\)\\] " + word +
                     " of memory\n";
    EXPECT_TRUE(std::regex_match(r.output, std::regex(re))) << r.output << re;
}

} // namespace qeltest

#endif

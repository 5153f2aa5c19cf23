// Shared test helpers: log capture, forked children with bounded waits, and a
// seeded random generator whose seed is printed on failure.
#ifndef MORBASE_TEST_UTIL_H
#define MORBASE_TEST_UTIL_H

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "qel_log.h"

namespace qeltest {

// Formats every line logged while it lives ("level|text").
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    struct Line {
        unsigned level;
        std::string text;
    };
    const std::vector<Line> &lines() const;
    void clear();
};

// A sink that formats to standard error (for EXPECT_EXIT regexes).
void stderr_sink(unsigned int level, const char *format, va_list args);

// Runs fn in a forked child and waits at most timeout_ms for it. The child
// ends with fn's return value as exit status (unless fn exits by itself).
struct ChildResult {
    bool exited = false;   // ended by exit
    int status = -1;       // exit status when exited
    int signal = 0;        // terminating signal, if any
    bool timed_out = false;
    std::string output;    // what the child wrote to standard output and error
};
ChildResult run_in_child(const std::function<int()> &fn, int timeout_ms = 20000);

// The seed of this test run: MORBASE_TEST_SEED if set, else a fixed value.
uint64_t test_seed();

// A seeded generator; tests print its seed with SCOPED_TRACE.
class Rng {
public:
    explicit Rng(uint64_t seed = test_seed()) : seed_(seed), gen_(seed) {}
    uint64_t seed() const { return seed_; }
    uint64_t next() { return gen_(); }
    // Uniform in [lo, hi].
    uint64_t range(uint64_t lo, uint64_t hi) { return lo + gen_() % (hi - lo + 1); }
    bool chance(unsigned percent) { return range(0, 99) < percent; }
    std::string bytes(size_t n, unsigned char lo = 0, unsigned char hi = 255);
    std::mt19937_64 &engine() { return gen_; }

private:
    uint64_t seed_;
    std::mt19937_64 gen_;
};

// Milliseconds on the monotonic clock.
int64_t now_ms();

} // namespace qeltest

#endif

// Bounds for tests that block: a watchdog that aborts the test program when a
// scope outlives its budget, and a bounded poll for a condition.
#ifndef MORBASE_TEST_WATCHDOG_H
#define MORBASE_TEST_WATCHDOG_H

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

namespace qeltest {

// Aborts the process (with a message naming `what`) unless destroyed within
// budget_ms. Use around code whose waits have no limit of their own.
class Watchdog {
public:
    Watchdog(const char *what, int budget_ms) : what_(what)
    {
        thread_ = std::thread([this, budget_ms] {
            std::unique_lock<std::mutex> lk(mu_);
            if (!cv_.wait_for(lk, std::chrono::milliseconds(budget_ms), [this] { return done_; })) {
                fprintf(stderr, "watchdog: %s did not finish within %d ms\n", what_, budget_ms);
                abort();
            }
        });
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lk(mu_);
            done_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

private:
    const char *what_;
    std::mutex mu_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;
};

// Polls pred every millisecond for at most timeout_ms. Returns: pred's last value.
inline bool eventually(const std::function<bool()> &pred, int timeout_ms = 5000)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > until)
            return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace qeltest

#endif

#include "qel_rwlock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "qel_time.h"
#include "support/test_util.h"
#include "support/watchdog.h"

namespace {

using qeltest::eventually;
using qeltest::Watchdog;

int32_t state(qel_rwlock *l)
{
    return __atomic_load_n(&l->state, __ATOMIC_ACQUIRE);
}

int drained_signalled(qel_rwlock *l)
{
    qel_mutex_lock(l->drained->mutex);
    int v = l->drained->signalled;
    qel_mutex_unlock(l->drained->mutex);
    return v;
}

// The current entry points and their unprefixed twins, tested from one table.
struct RwOps {
    const char *name;
    qel_result (*init)(qel_rwlock **);
    void (*destroy)(qel_rwlock *);
    void (*shared_acquire)(qel_rwlock *);
    void (*shared_release)(qel_rwlock *);
    void (*exclusive_acquire)(qel_rwlock *);
    void (*exclusive_release)(qel_rwlock *);
};

const RwOps kRwOps[] = {
    {"current", qel_rwlock_init, qel_rwlock_destroy, qel_rwlock_shared_acquire, qel_rwlock_shared_release,
     qel_rwlock_exclusive_acquire, qel_rwlock_exclusive_release},
    {"legacy", rwlock_init, rwlock_destroy, rwlock_shared_acquire, rwlock_shared_release, rwlock_exclusive_acquire,
     rwlock_exclusive_release},
};

class Rwlock : public testing::TestWithParam<RwOps> {
protected:
    void SetUp() override { ASSERT_EQ(QEL_OK, GetParam().init(&lock_)); }
    void TearDown() override { GetParam().destroy(lock_); }
    qel_rwlock *lock_ = nullptr;
};

TEST_P(Rwlock, StateWordCountsReadersAndNestedWriters)
{
    const RwOps &op = GetParam();
    EXPECT_EQ(QEL_E_INVALIDARG, op.init(nullptr));
    op.shared_acquire(nullptr);
    op.exclusive_release(nullptr);
    EXPECT_EQ(0, state(lock_));
    op.shared_acquire(lock_);
    EXPECT_EQ(1, state(lock_));
    op.shared_acquire(lock_);
    EXPECT_EQ(2, state(lock_));
    op.shared_release(lock_);
    op.shared_release(lock_);
    EXPECT_EQ(0, state(lock_));

    // A writer on a free lock goes straight to -2 and never touches the event.
    op.exclusive_acquire(lock_);
    EXPECT_EQ(-2, state(lock_));
    EXPECT_EQ(0, drained_signalled(lock_));
    op.exclusive_acquire(lock_);
    EXPECT_EQ(-3, state(lock_));
    op.shared_acquire(lock_); // the owner may read inside its section
    EXPECT_EQ(-4, state(lock_));
    op.shared_release(lock_);
    EXPECT_EQ(-3, state(lock_));
    op.exclusive_release(lock_);
    EXPECT_EQ(-2, state(lock_));
    op.exclusive_release(lock_);
    EXPECT_EQ(0, state(lock_));
    EXPECT_EQ(0, drained_signalled(lock_));
}

TEST_P(Rwlock, WriterWaitsForReadersInsideThenOwns)
{
    const RwOps &op = GetParam();
    Watchdog wd("writer drain", 60000);
    op.shared_acquire(lock_);
    op.shared_acquire(lock_); // two readers inside
    std::atomic<bool> owns{false};
    std::thread writer([&] {
        op.exclusive_acquire(lock_);
        owns = true;
        EXPECT_EQ(-2, state(lock_));
        op.exclusive_release(lock_);
    });
    ASSERT_TRUE(eventually([&] { return state(lock_) < 0; }));
    qel_msleep(20);
    int32_t s = state(lock_);
    EXPECT_TRUE(s == -4 || s == -3) << s; // announced, maybe counted in
    EXPECT_FALSE(owns.load());
    op.shared_release(lock_);
    qel_msleep(20);
    EXPECT_FALSE(owns.load());
    s = state(lock_);
    EXPECT_TRUE(s == -3 || s == -2) << s;
    op.shared_release(lock_);
    EXPECT_TRUE(eventually([&] { return owns.load(); }));
    writer.join();
    EXPECT_EQ(0, state(lock_));
    EXPECT_EQ(0, drained_signalled(lock_)); // the writer consumed the set, if any
}

TEST_P(Rwlock, NewReadersQueueBehindAWriter)
{
    const RwOps &op = GetParam();
    Watchdog wd("reader queue", 60000);
    op.exclusive_acquire(lock_);
    std::atomic<int> readers{0};
    std::vector<std::thread> ts;
    for (int i = 0; i < 3; ++i)
        ts.emplace_back([&] {
            op.shared_acquire(lock_);
            readers.fetch_add(1);
        });
    qel_msleep(30);
    EXPECT_EQ(0, readers.load());
    EXPECT_EQ(-2, state(lock_));
    op.exclusive_release(lock_);
    EXPECT_TRUE(eventually([&] { return readers.load() == 3; }));
    for (auto &t : ts)
        t.join();
    EXPECT_EQ(3, state(lock_));
    for (int i = 0; i < 3; ++i)
        op.shared_release(lock_);
    EXPECT_EQ(0, state(lock_));
}

// Many readers and writers, half through each table, with nested sections.
// Invariants: no reader inside while a writer is, one writer at a time, and
// the data pair a writer keeps equal is always seen equal (TSan watches the
// plain accesses).
TEST_P(Rwlock, StressReadersAndWritersKeepTheInvariant)
{
    Watchdog wd("rwlock stress", 240000);
    std::atomic<int> readers_in{0}, writers_in{0}, violations{0};
    long a = 0, b = 0;
    constexpr int kIters = 3000;
    std::vector<std::thread> ts;
    for (int t = 0; t < 6; ++t)
        ts.emplace_back([&, t] {
            const RwOps &op = kRwOps[t % 2];
            qeltest::Rng rng(qeltest::test_seed() + static_cast<uint64_t>(t));
            for (int i = 0; i < kIters; ++i) {
                bool write = t < 2 ? rng.chance(50) : rng.chance(5);
                if (write) {
                    op.exclusive_acquire(lock_);
                    if (writers_in.fetch_add(1) != 0 || readers_in.load() != 0)
                        violations.fetch_add(1);
                    ++a;
                    if (rng.chance(30)) { // nested exclusive, then a nested read
                        op.exclusive_acquire(lock_);
                        if (state(lock_) > -3)
                            violations.fetch_add(1);
                        op.shared_acquire(lock_);
                        if (a != b + 1)
                            violations.fetch_add(1);
                        op.shared_release(lock_);
                        op.exclusive_release(lock_);
                    }
                    ++b;
                    writers_in.fetch_sub(1);
                    op.exclusive_release(lock_);
                } else if (t % 3 == 0 && rng.chance(20)) {
                    if (qel_rwlock_shared_try_acquire(lock_) == QEL_OK) {
                        readers_in.fetch_add(1);
                        if (writers_in.load() != 0 || a != b)
                            violations.fetch_add(1);
                        readers_in.fetch_sub(1);
                        qel_rwlock_shared_release(lock_);
                    }
                } else {
                    op.shared_acquire(lock_);
                    readers_in.fetch_add(1);
                    if (writers_in.load() != 0 || a != b)
                        violations.fetch_add(1);
                    readers_in.fetch_sub(1);
                    op.shared_release(lock_);
                }
            }
        });
    for (auto &t : ts)
        t.join();
    EXPECT_EQ(0, violations.load());
    EXPECT_EQ(a, b);
    EXPECT_EQ(0, state(lock_));
}

INSTANTIATE_TEST_SUITE_P(Twins, Rwlock, testing::ValuesIn(kRwOps),
                         [](const testing::TestParamInfo<RwOps> &i) { return std::string(i.param.name); });

TEST(RwlockTry, TryAcquiresReportTheWriterMutex)
{
    qel_rwlock *l = nullptr;
    ASSERT_EQ(QEL_OK, qel_rwlock_init(&l));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_rwlock_shared_try_acquire(nullptr));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_rwlock_exclusive_try_acquire(nullptr));
    EXPECT_EQ(QEL_OK, qel_rwlock_shared_try_acquire(l));
    EXPECT_EQ(1, state(l));
    qel_rwlock_shared_release(l);
    EXPECT_EQ(QEL_OK, qel_rwlock_exclusive_try_acquire(l));
    EXPECT_EQ(-2, state(l));
    EXPECT_EQ(QEL_OK, qel_rwlock_shared_try_acquire(l)); // the owner nests
    EXPECT_EQ(-3, state(l));
    EXPECT_EQ(QEL_OK, qel_rwlock_exclusive_try_acquire(l));
    EXPECT_EQ(-4, state(l));
    qel_result shared = 0, exclusive = 0;
    std::thread([&] {
        shared = qel_rwlock_shared_try_acquire(l);
        exclusive = qel_rwlock_exclusive_try_acquire(l);
    }).join();
    EXPECT_EQ(16u, shared); // EBUSY from the writer mutex
    EXPECT_EQ(16u, exclusive);
    qel_rwlock_exclusive_release(l);
    qel_rwlock_shared_release(l);
    qel_rwlock_exclusive_release(l);
    EXPECT_EQ(0, state(l));
    qel_rwlock_destroy(l);
    qel_rwlock_destroy(nullptr);
}

// ---- rundown protection ----------------------------------------------------------------

struct RdOps {
    const char *name;
    void (*init)(volatile qel_rundown *);
    int (*acquire)(volatile qel_rundown *);
    void (*release)(volatile qel_rundown *);
    void (*release_wait)(volatile qel_rundown *);
    void (*reinit)(volatile qel_rundown *);
    void (*completed)(volatile qel_rundown *);
};

const RdOps kRdOps[] = {
    {"current", qel_rundown_protection_init, qel_rundown_protection_acquire, qel_rundown_protection_release,
     qel_rundown_release_wait, qel_rundown_protection_reinit, qel_rundown_completed},
    {"legacy", rundown_protection_init, rundown_protection_acquire, rundown_protection_release,
     rundown_release_wait, rundown_protection_reinit, rundown_completed},
};

class Rundown : public testing::TestWithParam<RdOps> {};

qel_rundown load(volatile qel_rundown *w)
{
    return __atomic_load_n(w, __ATOMIC_ACQUIRE);
}

TEST_P(Rundown, WordCountsByTwoAndRunsDownToOne)
{
    const RdOps &op = GetParam();
    volatile qel_rundown w = 77;
    op.init(&w);
    EXPECT_EQ(0u, w);
    EXPECT_EQ(1, op.acquire(&w));
    EXPECT_EQ(2u, w);
    EXPECT_EQ(1, op.acquire(&w));
    EXPECT_EQ(4u, w);
    op.release(&w);
    op.release(&w);
    EXPECT_EQ(0u, w);
    op.release_wait(&w); // no references: returns at once
    EXPECT_EQ(1u, w);
    EXPECT_EQ(0, op.acquire(&w));
    EXPECT_EQ(1u, w);
    op.release_wait(&w); // already run down
    EXPECT_EQ(1u, w);
    op.init(&w);
    EXPECT_EQ(1, op.acquire(&w));
    op.release(&w);
}

TEST_P(Rundown, ReinitAndCompletedCompareAgainstTheWordsAddress)
{
    const RdOps &op = GetParam();
    volatile qel_rundown w = 4;
    op.completed(&w);
    EXPECT_EQ(4u, w);
    op.reinit(&w);
    EXPECT_EQ(4u, w);
    w = 1;
    op.reinit(&w); // a run-down word stays run down
    EXPECT_EQ(1u, w);
    w = reinterpret_cast<qel_rundown>(&w);
    op.completed(&w);
    EXPECT_EQ(1u, w);
    w = reinterpret_cast<qel_rundown>(&w);
    op.reinit(&w);
    EXPECT_EQ(0u, w);
}

TEST_P(Rundown, ReleaseWaitBlocksUntilTheLastReference)
{
    const RdOps &op = GetParam();
    Watchdog wd("rundown release-wait", 60000);
    volatile qel_rundown w = 0;
    ASSERT_EQ(1, op.acquire(&w));
    ASSERT_EQ(1, op.acquire(&w)); // word 4
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        op.release_wait(&w);
        returned = true;
    });
    ASSERT_TRUE(eventually([&] { return (load(&w) & 1) != 0; }));
    qel_rundown v = load(&w);
    EXPECT_GT(v, 1u);
    auto *block = reinterpret_cast<qel_rundown_wait_block *>(v - 1);
    EXPECT_EQ(2u, __atomic_load_n(&block->count, __ATOMIC_ACQUIRE));
    EXPECT_EQ(0, op.acquire(&w)); // closed
    qel_msleep(20);
    EXPECT_FALSE(returned.load());
    std::thread([&] { op.release(&w); }).join();
    EXPECT_EQ(1u, __atomic_load_n(&block->count, __ATOMIC_ACQUIRE));
    qel_msleep(20);
    EXPECT_FALSE(returned.load());
    std::thread([&] { op.release(&w); }).join(); // the last one sets the event
    EXPECT_TRUE(eventually([&] { return returned.load(); }));
    waiter.join();
    EXPECT_EQ(v, load(&w)); // the stale block address stays
    EXPECT_EQ(0, op.acquire(&w));
}

// Users take and drop references in a loop while the owner runs the word
// down: once release-wait returns, no user holds a reference and every later
// acquire fails.
TEST_P(Rundown, StressConcurrentAcquiresAndReleaseWait)
{
    const RdOps &op = GetParam();
    Watchdog wd("rundown stress", 240000);
    for (int round = 0; round < 20; ++round) {
        volatile qel_rundown w = 0;
        op.init(&w);
        std::atomic<int> holders{0}, violations{0};
        std::atomic<bool> dead{false};
        std::atomic<int> started{0};
        std::vector<std::thread> ts;
        for (int t = 0; t < 4; ++t)
            ts.emplace_back([&, t] {
                const RdOps &mine = kRdOps[t % 2];
                started.fetch_add(1);
                for (int i = 0; i < 2000; ++i) {
                    if (!mine.acquire(&w))
                        continue;
                    holders.fetch_add(1);
                    if (dead.load())
                        violations.fetch_add(1);
                    if (i % 64 == 0)
                        qel_thread_yield();
                    holders.fetch_sub(1);
                    mine.release(&w);
                }
            });
        ASSERT_TRUE(eventually([&] { return started.load() == 4; }));
        if (round % 2)
            qel_msleep(1);
        op.release_wait(&w);
        if (holders.load() != 0)
            violations.fetch_add(1);
        dead = true;
        EXPECT_EQ(0, op.acquire(&w));
        for (auto &t : ts)
            t.join();
        ASSERT_EQ(0, violations.load()) << round;
        EXPECT_NE(0u, load(&w) & 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Twins, Rundown, testing::ValuesIn(kRdOps),
                         [](const testing::TestParamInfo<RdOps> &i) { return std::string(i.param.name); });

} // namespace

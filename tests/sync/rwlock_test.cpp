#include "qel_rwlock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <iterator>
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

// The current entry points and their unprefixed twins, tested from one table.
struct RwOps {
    using Op = void (*)(qel_rwlock *);
    const char *name;
    qel_result (*init)(qel_rwlock **);
    Op destroy, shared_acquire, shared_release, exclusive_acquire, exclusive_release;
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
    bool drained_set() { return qel_event_timedwait(lock_->drained, 0) == QEL_OK; }
    qel_rwlock *lock_ = nullptr;
};

// Another thread finds both try calls busy with the writer mutex's EBUSY.
void others_busy(qel_rwlock *l)
{
    qel_result shared = 0, exclusive = 0;
    std::thread([&] {
        shared = qel_rwlock_shared_try_acquire(l);
        exclusive = qel_rwlock_exclusive_try_acquire(l);
    }).join();
    EXPECT_TRUE(shared == 16 && exclusive == 16) << shared << " " << exclusive;
}

// Readers count up; a writer on a free lock goes straight to -2 without the
// drain event, and its nested sections (shared ones too) count further down.
TEST_P(Rwlock, StateWordCountsReadersAndNestedWriters)
{
    const RwOps &op = GetParam();
    EXPECT_EQ(QEL_E_INVALIDARG, op.init(nullptr));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_rwlock_shared_try_acquire(nullptr));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_rwlock_exclusive_try_acquire(nullptr));
    for (auto f : {op.destroy, op.shared_acquire, op.shared_release, op.exclusive_acquire, op.exclusive_release})
        f(nullptr);
    RwOps::Op try_shared = [](qel_rwlock *l) { EXPECT_EQ(QEL_OK, qel_rwlock_shared_try_acquire(l)); };
    RwOps::Op try_exclusive = [](qel_rwlock *l) { EXPECT_EQ(QEL_OK, qel_rwlock_exclusive_try_acquire(l)); };
    const struct {
        RwOps::Op f;
        int32_t want;
    } steps[] = {{op.shared_acquire, 1},    {try_shared, 2},           {op.shared_release, 1},
                 {op.shared_release, 0},    {try_exclusive, -2},       {op.exclusive_acquire, -3},
                 {try_shared, -4},          {others_busy, -4},         {op.shared_acquire, -5},
                 {op.shared_release, -4},   {op.shared_release, -3},   {op.exclusive_release, -2},
                 {op.exclusive_release, 0}, {op.exclusive_acquire, -2}, {op.exclusive_release, 0}};
    for (size_t i = 0; i < std::size(steps); ++i) {
        steps[i].f(lock_);
        ASSERT_EQ(steps[i].want, state(lock_)) << "step " << i;
    }
    EXPECT_FALSE(drained_set());
}

// The writer swings the word to -(n + 2), may count itself in, and owns the
// lock at -2 only once the last reader inside has left; new readers then
// queue behind it.
TEST_P(Rwlock, WriterDrainsReadersInsideAndQueuesNewOnes)
{
    const RwOps &op = GetParam();
    Watchdog wd("writer drain", 60000);
    op.shared_acquire(lock_);
    op.shared_acquire(lock_);
    std::atomic<bool> owns{false}, release{false};
    std::atomic<int> readers{0};
    std::thread writer([&] {
        op.exclusive_acquire(lock_);
        owns = true;
        while (!release.load())
            qel_msleep(1);
        EXPECT_EQ(-2, state(lock_));
        op.exclusive_release(lock_);
    });
    ASSERT_TRUE(eventually([&] { return state(lock_) < 0; }));
    for (int32_t uncounted : {-4, -3}) {
        qel_msleep(20);
        int32_t s = state(lock_);
        EXPECT_TRUE(s == uncounted || s == uncounted + 1) << s;
        EXPECT_FALSE(owns.load());
        op.shared_release(lock_);
    }
    EXPECT_TRUE(eventually([&] { return owns.load(); }));
    std::vector<std::thread> ts;
    for (int i = 0; i < 3; ++i)
        ts.emplace_back([&] {
            op.shared_acquire(lock_);
            readers.fetch_add(1);
        });
    qel_msleep(30);
    EXPECT_EQ(0, readers.load());
    release = true;
    for (auto &t : ts)
        t.join();
    writer.join();
    EXPECT_EQ(3, state(lock_));
    for (int i = 0; i < 3; ++i)
        op.shared_release(lock_);
    EXPECT_EQ(0, state(lock_));
    EXPECT_FALSE(drained_set()); // the writer consumed the set, if any
}

// Readers and writers through both tables, with nested and tried sections.
// Invariants: no reader inside while a writer is, one writer at a time, and
// the pair a writer keeps equal is seen equal (TSan watches the plain data).
TEST_P(Rwlock, StressReadersAndWritersKeepTheInvariant)
{
    Watchdog wd("rwlock stress", 240000);
    std::atomic<int> readers_in{0}, writers_in{0}, violations{0};
    long a = 0, b = 0;
    std::vector<std::thread> ts;
    for (int t = 0; t < 6; ++t)
        ts.emplace_back([&, t] {
            const RwOps &op = kRwOps[t % 2];
            qeltest::Rng rng(qeltest::test_seed() + static_cast<uint64_t>(t));
            auto check = [&](bool bad) { violations.fetch_add(bad ? 1 : 0); };
            for (int i = 0; i < 3000; ++i) {
                if (rng.chance(t < 2 ? 50 : 5)) {
                    op.exclusive_acquire(lock_);
                    check(writers_in.fetch_add(1) != 0 || readers_in.load() != 0);
                    ++a;
                    if (rng.chance(30)) { // nested exclusive, then a nested read
                        op.exclusive_acquire(lock_);
                        check(state(lock_) > -3);
                        op.shared_acquire(lock_);
                        check(a != b + 1);
                        op.shared_release(lock_);
                        op.exclusive_release(lock_);
                    }
                    ++b;
                    writers_in.fetch_sub(1);
                    op.exclusive_release(lock_);
                    continue;
                }
                bool tried = t % 3 == 0 && rng.chance(20);
                if (tried && qel_rwlock_shared_try_acquire(lock_) != QEL_OK)
                    continue;
                if (!tried)
                    op.shared_acquire(lock_);
                readers_in.fetch_add(1);
                check(writers_in.load() != 0 || a != b);
                readers_in.fetch_sub(1);
                op.shared_release(lock_);
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

// ---- rundown protection ----------------------------------------------------------------

struct RdOps {
    using Op = void (*)(volatile qel_rundown *);
    const char *name;
    int (*acquire)(volatile qel_rundown *);
    Op init, release, release_wait, reinit, completed;
};

const RdOps kRdOps[] = {
    {"current", qel_rundown_protection_acquire, qel_rundown_protection_init, qel_rundown_protection_release,
     qel_rundown_release_wait, qel_rundown_protection_reinit, qel_rundown_completed},
    {"legacy", rundown_protection_acquire, rundown_protection_init, rundown_protection_release,
     rundown_release_wait, rundown_protection_reinit, rundown_completed},
};

class Rundown : public testing::TestWithParam<RdOps> {};

qel_rundown load(volatile qel_rundown *w)
{
    return __atomic_load_n(w, __ATOMIC_ACQUIRE);
}

TEST_P(Rundown, WordCountsByTwoRunsDownToOneAndReinitComparesTheAddress)
{
    const RdOps &op = GetParam();
    volatile qel_rundown w = 77;
    op.init(&w);
    EXPECT_EQ(0u, w);
    for (qel_rundown want : {2u, 4u}) {
        EXPECT_EQ(1, op.acquire(&w));
        EXPECT_EQ(want, w);
    }
    op.release(&w);
    op.release(&w);
    EXPECT_EQ(0u, w);
    for (int i = 0; i < 2; ++i) { // no references, then already run down: returns at once
        op.release_wait(&w);
        EXPECT_EQ(1u, w);
        EXPECT_EQ(0, op.acquire(&w));
    }
    // reinit and completed compare the word with its own address, not with
    // a value it can hold: a run-down or live word stays as it is.
    const qel_rundown self = reinterpret_cast<qel_rundown>(&w);
    const struct {
        qel_rundown from;
        RdOps::Op f;
        qel_rundown want;
    } cases[] = {{1, op.reinit, 1},     {4, op.reinit, 4},    {4, op.completed, 4},
                 {self, op.completed, 1}, {self, op.reinit, 0}};
    for (auto c : cases) {
        w = c.from;
        c.f(&w);
        EXPECT_EQ(c.want, w) << c.from;
    }
    EXPECT_EQ(1, op.acquire(&w));
    op.release(&w);
}

TEST_P(Rundown, ReleaseWaitBlocksUntilTheLastReference)
{
    const RdOps &op = GetParam();
    Watchdog wd("rundown release-wait", 60000);
    volatile qel_rundown w = 0;
    ASSERT_EQ(1, op.acquire(&w));
    ASSERT_EQ(1, op.acquire(&w));
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        op.release_wait(&w);
        returned = true;
    });
    ASSERT_TRUE(eventually([&] { return (load(&w) & 1) != 0; }));
    qel_rundown v = load(&w); // the waiter's block address + 1
    ASSERT_GT(v, 1u);
    auto *block = reinterpret_cast<qel_rundown_wait_block *>(v - 1);
    EXPECT_EQ(2u, __atomic_load_n(&block->count, __ATOMIC_ACQUIRE));
    EXPECT_EQ(0, op.acquire(&w)); // closed
    for (int left = 1; left >= 0; --left) {
        qel_msleep(20);
        EXPECT_FALSE(returned.load());
        std::thread([&] { op.release(&w); }).join(); // the last one sets the event
        if (left) { // the block lives only until the waiter returns
            EXPECT_EQ(1u, __atomic_load_n(&block->count, __ATOMIC_ACQUIRE));
        }
    }
    EXPECT_TRUE(eventually([&] { return returned.load(); }));
    waiter.join();
    EXPECT_EQ(v, load(&w)); // the stale block address stays
    EXPECT_EQ(0, op.acquire(&w));
}

// Users take and drop references while the owner runs the word down: once
// release-wait returns, no user holds a reference and every acquire fails.
TEST_P(Rundown, StressConcurrentAcquiresAndReleaseWait)
{
    const RdOps &op = GetParam();
    Watchdog wd("rundown stress", 240000);
    for (int round = 0; round < 20; ++round) {
        volatile qel_rundown w = 0;
        std::atomic<int> holders{0}, violations{0}, started{0};
        std::atomic<bool> dead{false};
        std::vector<std::thread> ts;
        for (int t = 0; t < 4; ++t)
            ts.emplace_back([&, t] {
                const RdOps &mine = kRdOps[t % 2];
                started.fetch_add(1);
                for (int i = 0; i < 2000; ++i) {
                    if (!mine.acquire(&w))
                        continue;
                    holders.fetch_add(1);
                    violations.fetch_add(dead.load() ? 1 : 0);
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
        violations.fetch_add(holders.load() != 0 ? 1 : 0);
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

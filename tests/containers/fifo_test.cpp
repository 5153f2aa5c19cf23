// The record fifo: the free-space rule, the index ring, pick and clear, a
// model run through wrap-around, and one producer with one consumer thread.
#include "qel_fifo.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <string>
#include <thread>

#include "base/internal.h"
#include "support/test_util.h"

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr int64_t kThreadedMs = 2000;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int64_t kThreadedMs = 1000;
#else
constexpr int64_t kThreadedMs = 1500;
#endif

TEST(Fifo, RecordFitsOnlyWhenLengthPlus4IsBelowTheFreeSpace)
{
    qel_fifo *f = qel_fifo_init(16);
    ASSERT_NE(nullptr, f);
    char buf[16] = "abcdefghijklmno";
    EXPECT_EQ(-1, qel_fifo_push(f, buf, 12));
    EXPECT_EQ(0, qel_fifo_push(f, buf, 11));
    EXPECT_EQ(1, qel_fifo_saved_element(f));
    EXPECT_EQ(15, f->write_offset);
    EXPECT_EQ(-1, qel_fifo_push(f, buf, 1)); // 1 byte free: 1 + 4 is not below it
    char out[16] = {};
    EXPECT_EQ(0, qel_fifo_pop(f, out, sizeof out));
    EXPECT_EQ(0, memcmp(out, buf, 11));
    EXPECT_EQ(0, qel_fifo_saved_element(f));
    qel_fifo_uninit(&f);
    EXPECT_EQ(nullptr, f);
}

TEST(Fifo, IndexRingHasDataSizeOver4Entries)
{
    qel_fifo *f = qel_fifo_init(100);
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(25, f->index_capacity);
    EXPECT_EQ(100, f->data_size);
    EXPECT_EQ(0, f->read_offset);
    EXPECT_EQ(0, f->write_offset);
    qel_fifo_uninit(&f);
    EXPECT_EQ(nullptr, qel_fifo_init(0));
    EXPECT_EQ(nullptr, qel_fifo_init(-5));
    qel_fifo *tiny = qel_fifo_init(3); // no record can ever fit
    ASSERT_NE(nullptr, tiny);
    EXPECT_EQ(-1, qel_fifo_push(tiny, "x", 1));
    char c;
    EXPECT_EQ(-1, qel_fifo_pick(tiny, &c, 1, 0));
    qel_fifo_uninit(&tiny);
}

TEST(Fifo, RecordLayoutIsLengthThenPayload)
{
    qel_fifo *f = qel_fifo_init(32);
    qel_fifo_push(f, "hello", 5);
    const unsigned char *data = reinterpret_cast<const unsigned char *>(f + 1);
    uint32_t len;
    memcpy(&len, data, 4);
    EXPECT_EQ(5u, len);
    EXPECT_EQ(0, memcmp(data + 4, "hello", 5));
    EXPECT_EQ(0, f->index[0]);
    EXPECT_EQ(1, f->index_write);
    qel_fifo_uninit(&f);
}

TEST(Fifo, PopIntoAShortBufferKeepsTheRecord)
{
    qel_fifo *f = qel_fifo_init(64);
    qel_fifo_push(f, "0123456789", 10);
    char out[10];
    EXPECT_EQ(-1, qel_fifo_pop(f, out, 9));
    EXPECT_EQ(1, qel_fifo_saved_element(f));
    EXPECT_EQ(-1, qel_fifo_pick(f, out, 9, 0));
    EXPECT_EQ(0, qel_fifo_pop(f, out, 10));
    EXPECT_EQ(0, memcmp(out, "0123456789", 10));
    EXPECT_EQ(-1, qel_fifo_pop(f, out, 10)); // empty
    qel_fifo_uninit(&f);
}

TEST(Fifo, ClearDropsEverything)
{
    qel_fifo *f = qel_fifo_init(64);
    for (int i = 0; i < 5; ++i)
        qel_fifo_push(f, "abc", 3);
    EXPECT_EQ(5, qel_fifo_saved_element(f));
    qel_fifo_clear(f);
    EXPECT_EQ(0, qel_fifo_saved_element(f));
    char out[4];
    EXPECT_EQ(-1, qel_fifo_pop(f, out, 4));
    EXPECT_EQ(f->index_read, f->index_write);
    EXPECT_EQ(f->read_offset, f->write_offset);
    EXPECT_EQ(0, qel_fifo_push(f, "xyz", 3));
    EXPECT_EQ(0, qel_fifo_pick(f, out, 4, 0));
    EXPECT_EQ(0, memcmp(out, "xyz", 3));
    qel_fifo_clear(nullptr);
    qel_fifo_uninit(&f);
}

TEST(Fifo, ArgumentsAreChecked)
{
    qel_fifo *f = qel_fifo_init(64);
    char b[8] = {};
    EXPECT_EQ(-1, qel_fifo_push(nullptr, b, 1));
    EXPECT_EQ(-1, qel_fifo_push(f, nullptr, 1));
    EXPECT_EQ(-1, qel_fifo_push(f, b, 0));
    EXPECT_EQ(-1, qel_fifo_push(f, b, -1));
    qel_fifo_push(f, b, 2);
    EXPECT_EQ(-1, qel_fifo_pop(nullptr, b, 8));
    EXPECT_EQ(-1, qel_fifo_pop(f, nullptr, 8));
    EXPECT_EQ(-1, qel_fifo_pop(f, b, -1));
    EXPECT_EQ(-1, qel_fifo_pick(f, b, 8, 1));
    EXPECT_EQ(-1, qel_fifo_pick(f, b, 8, -1));
    EXPECT_EQ(-1, qel_fifo_pick(nullptr, b, 8, 0));
    EXPECT_EQ(0, qel_fifo_saved_element(nullptr));
    EXPECT_EQ(1, qel_fifo_saved_element(f));
    qel_fifo_uninit(&f);
    qel_fifo_uninit(&f);      // null fifo: ignored
    qel_fifo_uninit(nullptr); // null pointer: ignored

    qel::detail::fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_fifo_init(64));
    qel::detail::fail_allocations(1, 1);
    EXPECT_EQ(nullptr, qel_fifo_init(64));
    qel::detail::fail_allocations(0, 0);
}

// Random pushes, pops and picks against a deque, with data sizes that make
// lengths and payloads wrap at every possible offset.
TEST(Fifo, RandomOperationsAgainstDeque)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int32_t size : {6, 7, 16, 33, 100, 257, 1024}) {
        SCOPED_TRACE(size);
        qel_fifo *f = qel_fifo_init(size);
        std::deque<std::string> model;
        int64_t free_space = size; // used is the sum of 4 + length over the model
        for (int step = 0; step < 20000; ++step) {
            unsigned op = static_cast<unsigned>(rng.range(0, 9));
            if (op < 5) {
                std::string rec = rng.bytes(rng.range(1, static_cast<uint64_t>(size)));
                int r = qel_fifo_push(f, rec.data(), static_cast<int32_t>(rec.size()));
                if (static_cast<int64_t>(rec.size()) + 4 < free_space) {
                    ASSERT_EQ(0, r);
                    model.push_back(rec);
                    free_space -= static_cast<int64_t>(rec.size()) + 4;
                } else {
                    ASSERT_EQ(-1, r);
                }
            } else if (op < 8) {
                std::string out(static_cast<size_t>(size), '\0');
                if (model.empty()) {
                    ASSERT_EQ(-1, qel_fifo_pop(f, out.data(), size));
                    continue;
                }
                const std::string &want = model.front();
                int32_t len = static_cast<int32_t>(want.size());
                if (rng.chance(10)) {
                    ASSERT_EQ(-1, qel_fifo_pop(f, out.data(), len - 1));
                }
                ASSERT_EQ(0, qel_fifo_pop(f, out.data(), len));
                ASSERT_EQ(want, out.substr(0, want.size()));
                free_space += len + 4;
                model.pop_front();
            } else if (op < 9) {
                int32_t n = static_cast<int32_t>(rng.range(0, model.size() + 1));
                std::string out(static_cast<size_t>(size), '\0');
                int r = qel_fifo_pick(f, out.data(), size, n);
                if (static_cast<size_t>(n) < model.size()) {
                    ASSERT_EQ(0, r);
                    ASSERT_EQ(model[n], out.substr(0, model[n].size()));
                } else {
                    ASSERT_EQ(-1, r);
                }
            } else if (rng.chance(5)) {
                qel_fifo_clear(f);
                model.clear();
                free_space = size;
            }
            ASSERT_EQ(static_cast<int32_t>(model.size()), qel_fifo_saved_element(f));
        }
        qel_fifo_uninit(&f);
    }
}

// The record for sequence number `seq`: its length and bytes follow from it.
int32_t record_length(uint32_t seq)
{
    return static_cast<int32_t>(1 + seq * 7919u % 300u);
}

void fill_record(uint32_t seq, unsigned char *out, int32_t len)
{
    uint32_t x = seq * 2654435761u;
    for (int32_t i = 0; i < len; ++i) {
        x = x * 1103515245u + 12345u;
        out[i] = static_cast<unsigned char>(x >> 16);
    }
    if (len >= 4)
        memcpy(out, &seq, 4);
}

// One producer and one consumer thread; every record is checked for order,
// length and content. Both sides back off by yielding; the consumer stops
// once it has all records the producer pushed.
TEST(Fifo, OneProducerOneConsumerThreadKeepEveryRecord)
{
    qel_fifo *f = qel_fifo_init(4096 + 7);
    ASSERT_NE(nullptr, f);
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> pushed_total{0};
    std::atomic<bool> producer_done{false};
    std::atomic<uint32_t> bad{0};
    uint32_t popped = 0;

    std::thread producer([&] {
        unsigned char rec[512];
        uint32_t seq = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            int32_t len = record_length(seq);
            fill_record(seq, rec, len);
            if (qel_fifo_push(f, rec, len) == 0)
                ++seq;
            else
                std::this_thread::yield();
        }
        pushed_total.store(seq);
        producer_done.store(true);
    });
    std::thread consumer([&] {
        unsigned char want[512];
        unsigned char got[512];
        for (;;) {
            int32_t len = record_length(popped);
            // A buffer larger than any record, so a wrong length shows up as
            // wrong bytes rather than a stuck consumer.
            if (qel_fifo_pop(f, got, sizeof got) == 0) {
                fill_record(popped, want, len);
                if (memcmp(want, got, static_cast<size_t>(len)) != 0)
                    bad.fetch_add(1);
                ++popped;
                continue;
            }
            if (producer_done.load() && popped >= pushed_total.load())
                break;
            std::this_thread::yield();
        }
    });
    int64_t start = qeltest::now_ms();
    while (qeltest::now_ms() - start < kThreadedMs)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    stop.store(true);
    producer.join();
    consumer.join();
    EXPECT_EQ(0u, bad.load());
    EXPECT_EQ(pushed_total.load(), popped);
    EXPECT_GT(popped, 100u);
    EXPECT_EQ(0, qel_fifo_saved_element(f));
    qel_fifo_uninit(&f);
}

} // namespace

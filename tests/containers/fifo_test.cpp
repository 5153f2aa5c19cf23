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

// The index ring has data_size / 4 entries; a record is its 4-byte length,
// then its payload. (The rule that a record fits only when length + 4 is
// below the free space is checked by the model run.)
TEST(Fifo, LayoutIndexRingAndShortBuffers)
{
    qel_fifo *f = qel_fifo_init(100);
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(25, f->index_capacity);
    EXPECT_EQ(100, f->data_size);
    EXPECT_EQ(0, qel_fifo_push(f, "hello", 5));
    const unsigned char *data = reinterpret_cast<const unsigned char *>(f + 1);
    EXPECT_EQ(0, memcmp(data, "\5\0\0\0hello", 9)); // little-endian on both ABIs
    EXPECT_EQ(0, f->index[0]);
    EXPECT_EQ(1, f->index_write);
    char out[8] = {};
    EXPECT_EQ(-1, qel_fifo_pick(f, out, 4, 0)); // too short: refused
    EXPECT_EQ(-1, qel_fifo_pop(f, out, 4));
    EXPECT_EQ(0, qel_fifo_pick(f, out, 5, 0));
    EXPECT_EQ(1, qel_fifo_saved_element(f));
    EXPECT_STREQ("hello", out);
    qel_fifo_uninit(&f);
    EXPECT_EQ(nullptr, f);
    f = qel_fifo_init(3); // no record can ever fit
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(-1, qel_fifo_push(f, "x", 1));
    EXPECT_EQ(-1, qel_fifo_pick(f, out, 1, 0));
    qel_fifo_uninit(&f);
}

TEST(Fifo, ArgumentsAndAllocationFailures)
{
    EXPECT_EQ(nullptr, qel_fifo_init(0));
    EXPECT_EQ(nullptr, qel_fifo_init(-5));
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
    EXPECT_EQ(-1, qel_fifo_pick(nullptr, b, 8, 0));
    EXPECT_EQ(-1, qel_fifo_pick(f, b, 8, -1));
    EXPECT_EQ(0, qel_fifo_saved_element(nullptr));
    EXPECT_EQ(1, qel_fifo_saved_element(f));
    qel_fifo_clear(nullptr);
    qel_fifo_uninit(&f);
    qel_fifo_uninit(&f);      // null fifo: ignored
    qel_fifo_uninit(nullptr); // null pointer: ignored
    for (int skip : {0, 1}) {
        qel::detail::fail_allocations(skip, 1);
        EXPECT_EQ(nullptr, qel_fifo_init(64));
        qel::detail::fail_allocations(0, 0);
    }
}

// Random pushes, pops, picks and clears against a deque, with data sizes that
// make lengths and payloads wrap at every possible offset.
TEST(Fifo, RandomOperationsAgainstDeque)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int32_t size : {6, 7, 16, 33, 100, 257, 1024}) {
        SCOPED_TRACE(size);
        qel_fifo *f = qel_fifo_init(size);
        std::deque<std::string> model;
        int64_t free_space = size; // size less 4 + length of every record held
        for (int step = 0; step < 20000; ++step) {
            unsigned op = static_cast<unsigned>(rng.range(0, 9));
            std::string out(static_cast<size_t>(size), '\0');
            int32_t n = static_cast<int32_t>(rng.range(0, model.size() + 1));
            if (op < 5) {
                std::string rec = rng.bytes(rng.range(1, static_cast<uint64_t>(size)));
                bool fits = static_cast<int64_t>(rec.size()) + 4 < free_space;
                ASSERT_EQ(fits ? 0 : -1, qel_fifo_push(f, rec.data(), static_cast<int32_t>(rec.size())));
                if (fits) {
                    model.push_back(rec);
                    free_space -= static_cast<int64_t>(rec.size()) + 4;
                }
            } else if (op < 8 && model.empty()) {
                ASSERT_EQ(-1, qel_fifo_pop(f, out.data(), size));
            } else if (op < 8) {
                int32_t len = static_cast<int32_t>(model.front().size());
                if (rng.chance(10)) {
                    ASSERT_EQ(-1, qel_fifo_pop(f, out.data(), len - 1));
                }
                ASSERT_EQ(0, qel_fifo_pop(f, out.data(), len));
                ASSERT_EQ(model.front(), out.substr(0, static_cast<size_t>(len)));
                free_space += len + 4;
                model.pop_front();
            } else if (op < 9) {
                ASSERT_EQ(n < static_cast<int32_t>(model.size()) ? 0 : -1, qel_fifo_pick(f, out.data(), size, n));
                if (n < static_cast<int32_t>(model.size())) {
                    ASSERT_EQ(model[n], out.substr(0, model[n].size()));
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

// The record for sequence number seq: its length and bytes follow from it.
int32_t fill_record(uint32_t seq, unsigned char *out)
{
    int32_t len = static_cast<int32_t>(1 + seq * 7919u % 300u);
    for (uint32_t i = 0, x = seq * 2654435761u; i < static_cast<uint32_t>(len); ++i) {
        x = x * 1103515245u + 12345u;
        out[i] = static_cast<unsigned char>(x >> 16);
    }
    if (len >= 4)
        memcpy(out, &seq, 4);
    return len;
}

// A producer thread pushes for 1.5 s while the consumer (this thread) pops;
// both back off by yielding. Every record is checked for order, length and
// content; the consumer pops into a buffer larger than any record, so a wrong
// length shows as wrong bytes.
TEST(Fifo, OneProducerOneConsumerThreadKeepEveryRecord)
{
    qel_fifo *f = qel_fifo_init(4096 + 7);
    ASSERT_NE(nullptr, f);
    std::atomic<uint32_t> pushed{0};
    std::atomic<bool> done{false};
    std::thread producer([&] {
        unsigned char rec[512];
        uint32_t seq = 0;
        for (int64_t end = qeltest::now_ms() + 1500; qeltest::now_ms() < end;) {
            if (qel_fifo_push(f, rec, fill_record(seq, rec)) == 0)
                ++seq;
            else
                std::this_thread::yield();
        }
        pushed.store(seq);
        done.store(true);
    });
    unsigned char want[512], got[512];
    uint32_t popped = 0, bad = 0;
    for (;;) {
        if (qel_fifo_pop(f, got, sizeof got) == 0)
            bad += memcmp(want, got, static_cast<size_t>(fill_record(popped++, want))) != 0;
        else if (done.load() && popped >= pushed.load())
            break;
        else
            std::this_thread::yield();
    }
    producer.join();
    EXPECT_EQ(0u, bad);
    EXPECT_EQ(pushed.load(), popped);
    EXPECT_GT(popped, 100u);
    EXPECT_EQ(0, qel_fifo_saved_element(f));
    qel_fifo_uninit(&f);
}

} // namespace

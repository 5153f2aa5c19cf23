// The circular byte buffer: the one free byte, indexes standing at the
// capacity, and every operation against a std::deque through wrap-around.
#include "qel_cbuf.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace {

TEST(Cbuf, CapacityEightHoldsSevenBytes)
{
    unsigned char mem[8];
    qel_cbuf c;
    ASSERT_EQ(1, qel_cbuf_init(&c, mem, sizeof mem));
    EXPECT_EQ(0u, c.read);
    EXPECT_EQ(0u, c.write);
    EXPECT_EQ(7, qel_cbuf_free_size(&c));
    EXPECT_EQ(7, qel_cbuf_put(&c, "0123456789", 10));
    EXPECT_EQ(0, qel_cbuf_put(&c, "x", 1));
    errno = 0;
    EXPECT_EQ(-1, qel_cbuf_put_full(&c, "x", 1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(7, qel_cbuf_size(&c));
    EXPECT_EQ(0, qel_cbuf_free_size(&c));
    char out[8] = {};
    EXPECT_EQ(7, qel_cbuf_get(&c, out, 8));
    EXPECT_STREQ("0123456", out);
}

TEST(Cbuf, SizesWhenReadIsAheadOfWrite)
{
    unsigned char mem[8];
    qel_cbuf c;
    qel_cbuf_init(&c, mem, 8);
    c.read = 6;
    c.write = 2;
    EXPECT_EQ(4, qel_cbuf_size(&c));
    EXPECT_EQ(3, qel_cbuf_free_size(&c));
}

TEST(Cbuf, IndexMayStandAtTheCapacity)
{
    unsigned char mem[8];
    qel_cbuf c;
    qel_cbuf_init(&c, mem, 8);
    EXPECT_EQ(7, qel_cbuf_put(&c, "abcdefg", 7));
    char out[8] = {};
    EXPECT_EQ(3, qel_cbuf_get(&c, out, 3));
    EXPECT_EQ(1, qel_cbuf_put(&c, "h", 1)); // ends exactly at the buffer's end
    EXPECT_EQ(8u, c.write);
    EXPECT_EQ(5, qel_cbuf_size(&c));
    EXPECT_EQ(2, qel_cbuf_free_size(&c));
    EXPECT_EQ(2, qel_cbuf_put(&c, "ij", 2)); // wraps from the end
    EXPECT_EQ(2u, c.write);
    EXPECT_EQ(5, qel_cbuf_get(&c, out, 5)); // defgh, read stands at 8
    EXPECT_EQ(0, memcmp(out, "defgh", 5));
    EXPECT_EQ(8u, c.read);
    EXPECT_EQ(2, qel_cbuf_size(&c));
    EXPECT_EQ(2, qel_cbuf_peek(&c, out, 5));
    EXPECT_EQ(0, memcmp(out, "ij", 2));
    EXPECT_EQ(2, qel_cbuf_get(&c, out, 2));
    EXPECT_EQ(2u, c.read);
    EXPECT_EQ(0, qel_cbuf_size(&c));
}

TEST(Cbuf, ArgumentsSetEinval)
{
    unsigned char mem[8];
    qel_cbuf c;
    char b[4] = {};
    errno = 0;
    EXPECT_EQ(0, qel_cbuf_init(nullptr, mem, 8));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, qel_cbuf_init(&c, nullptr, 8));
    EXPECT_EQ(0, qel_cbuf_init(&c, mem, 0));
    ASSERT_EQ(1, qel_cbuf_init(&c, mem, 8));
    auto expect_einval = [](int r) {
        EXPECT_EQ(-1, r);
        EXPECT_EQ(EINVAL, errno);
        errno = 0;
    };
    expect_einval(qel_cbuf_put(nullptr, b, 1));
    expect_einval(qel_cbuf_put(&c, nullptr, 1));
    expect_einval(qel_cbuf_put(&c, b, 0));
    expect_einval(qel_cbuf_put_full(&c, nullptr, 1));
    expect_einval(qel_cbuf_get(&c, nullptr, 1));
    expect_einval(qel_cbuf_get(&c, b, 0));
    expect_einval(qel_cbuf_get_full(&c, b, 1)); // empty
    expect_einval(qel_cbuf_peek(nullptr, b, 1));
    expect_einval(qel_cbuf_peek(&c, b, 0));
    expect_einval(qel_cbuf_del(nullptr, 1));
    expect_einval(qel_cbuf_del(&c, 0));
    expect_einval(qel_cbuf_add(nullptr, 1));
    expect_einval(qel_cbuf_add(&c, 0));
    expect_einval(qel_cbuf_size(nullptr));
    expect_einval(qel_cbuf_free_size(nullptr));
    EXPECT_EQ(0, qel_cbuf_get(&c, b, 4)); // empty is not an error
    EXPECT_EQ(0, qel_cbuf_del(&c, 4));
}

// Every operation against a deque; small capacities make every index wrap.
TEST(Cbuf, RandomOperationsAgainstDeque)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (uint32_t cap = 1; cap <= 19; ++cap) {
        SCOPED_TRACE(cap);
        std::vector<unsigned char> mem(cap);
        qel_cbuf c;
        ASSERT_EQ(1, qel_cbuf_init(&c, mem.data(), cap));
        std::deque<unsigned char> model;
        for (int step = 0; step < 20000; ++step) {
            uint32_t n = static_cast<uint32_t>(rng.range(1, cap + 2));
            size_t free_now = cap - 1 - model.size();
            std::string in = rng.bytes(n);
            std::vector<unsigned char> out(n + 1, 0xEE);
            switch (rng.range(0, 6)) {
            case 0: { // put
                size_t k = std::min<size_t>(n, free_now);
                ASSERT_EQ(static_cast<int>(k), qel_cbuf_put(&c, in.data(), n));
                model.insert(model.end(), in.begin(), in.begin() + static_cast<long>(k));
                break;
            }
            case 1: // put_full
                if (n <= free_now) {
                    ASSERT_EQ(static_cast<int>(n), qel_cbuf_put_full(&c, in.data(), n));
                    model.insert(model.end(), in.begin(), in.end());
                } else {
                    ASSERT_EQ(-1, qel_cbuf_put_full(&c, in.data(), n));
                }
                break;
            case 2:   // get
            case 3: { // peek
                bool get = rng.chance(50);
                size_t k = std::min<size_t>(n, model.size());
                int r = get ? qel_cbuf_get(&c, out.data(), n) : qel_cbuf_peek(&c, out.data(), n);
                ASSERT_EQ(static_cast<int>(k), r);
                for (size_t i = 0; i < k; ++i)
                    ASSERT_EQ(model[i], out[i]);
                ASSERT_EQ(0xEE, out[k]);
                if (get)
                    model.erase(model.begin(), model.begin() + static_cast<long>(k));
                break;
            }
            case 4: // get_full
                if (n <= model.size()) {
                    ASSERT_EQ(static_cast<int>(n), qel_cbuf_get_full(&c, out.data(), n));
                    for (size_t i = 0; i < n; ++i)
                        ASSERT_EQ(model[i], out[i]);
                    model.erase(model.begin(), model.begin() + n);
                } else {
                    ASSERT_EQ(-1, qel_cbuf_get_full(&c, out.data(), n));
                }
                break;
            case 5: { // del
                size_t k = std::min<size_t>(n, model.size());
                ASSERT_EQ(static_cast<int>(k), qel_cbuf_del(&c, n));
                model.erase(model.begin(), model.begin() + static_cast<long>(k));
                break;
            }
            default: { // write at the write index, then add
                size_t k = std::min<size_t>(n, free_now);
                for (size_t i = 0; i < k; ++i)
                    mem[(c.write + i) % cap] = static_cast<unsigned char>(in[i]);
                ASSERT_EQ(static_cast<int>(k), qel_cbuf_add(&c, n));
                model.insert(model.end(), in.begin(), in.begin() + static_cast<long>(k));
                break;
            }
            }
            ASSERT_LE(c.read, cap);
            ASSERT_LE(c.write, cap);
            ASSERT_EQ(static_cast<int>(model.size()), qel_cbuf_size(&c));
            ASSERT_EQ(static_cast<int>(cap - 1 - model.size()), qel_cbuf_free_size(&c));
        }
    }
}

} // namespace

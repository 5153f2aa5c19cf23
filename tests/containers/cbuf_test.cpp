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

// Capacity 8 holds 7 bytes; an index reaching the end stands at 8 until the
// next operation wraps it.
TEST(Cbuf, OneByteStaysFreeAndIndexesStandAtTheCapacity)
{
    unsigned char mem[8];
    qel_cbuf c;
    ASSERT_EQ(1, qel_cbuf_init(&c, mem, sizeof mem));
    EXPECT_EQ(0u, c.read + c.write);
    EXPECT_EQ(7, qel_cbuf_put(&c, "abcdefgXYZ", 10));
    errno = 0;
    EXPECT_EQ(-1, qel_cbuf_put_full(&c, "x", 1));
    EXPECT_EQ(EINVAL, errno);
    char out[8] = {};
    EXPECT_EQ(3, qel_cbuf_get(&c, out, 3));
    EXPECT_EQ(1, qel_cbuf_put(&c, "h", 1)); // ends exactly at the buffer's end
    EXPECT_EQ(8u, c.write);
    EXPECT_EQ(2, qel_cbuf_put(&c, "ij", 2)); // wraps from the end
    EXPECT_EQ(2u, c.write);
    EXPECT_EQ(5, qel_cbuf_get(&c, out, 5));
    EXPECT_EQ(0, memcmp(out, "defgh", 5));
    EXPECT_EQ(8u, c.read);
    EXPECT_EQ(2, qel_cbuf_size(&c));
    EXPECT_EQ(2, qel_cbuf_get(&c, out, 5));
    EXPECT_EQ(0, memcmp(out, "ij", 2));
    EXPECT_EQ(2u, c.read);
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
    auto einval = [](int r) { // -1 with errno EINVAL
        bool ok = r == -1 && errno == EINVAL;
        errno = 0;
        return ok;
    };
    int call = 0; // the list is evaluated left to right
    for (bool ok : {einval(qel_cbuf_put(nullptr, b, 1)), einval(qel_cbuf_put(&c, nullptr, 1)),
                    einval(qel_cbuf_put(&c, b, 0)), einval(qel_cbuf_put_full(&c, nullptr, 1)),
                    einval(qel_cbuf_get(&c, nullptr, 1)), einval(qel_cbuf_get(&c, b, 0)),
                    einval(qel_cbuf_get_full(&c, b, 1)), // empty
                    einval(qel_cbuf_peek(nullptr, b, 1)), einval(qel_cbuf_peek(&c, b, 0)),
                    einval(qel_cbuf_del(nullptr, 1)), einval(qel_cbuf_del(&c, 0)),
                    einval(qel_cbuf_add(nullptr, 1)), einval(qel_cbuf_add(&c, 0)),
                    einval(qel_cbuf_size(nullptr)), einval(qel_cbuf_free_size(nullptr))})
        EXPECT_TRUE(ok) << "call " << call++;
    EXPECT_EQ(0, qel_cbuf_get(&c, b, 4)); // empty is not an error
    EXPECT_EQ(0, qel_cbuf_del(&c, 4));
    EXPECT_EQ(0, errno);
}

// Every operation against a deque; small capacities make every index wrap.
// Writers put, put all or nothing, or fill at the write index then add;
// readers get, get all or nothing, peek, or delete.
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
            std::string in = rng.bytes(n);
            std::vector<unsigned char> out(n + 1, 0xEE);
            int mode = static_cast<int>(rng.range(0, 3));
            if (rng.chance(50)) {
                size_t k = std::min<size_t>(n, cap - 1 - model.size());
                bool refused = mode == 1 && k < n; // all or nothing
                k = refused ? 0 : k;
                for (size_t i = 0; mode == 2 && i < k; ++i)
                    mem[(c.write + i) % cap] = static_cast<unsigned char>(in[i]);
                int r = mode == 1   ? qel_cbuf_put_full(&c, in.data(), n)
                        : mode == 2 ? qel_cbuf_add(&c, n)
                                    : qel_cbuf_put(&c, in.data(), n);
                ASSERT_EQ(refused ? -1 : static_cast<int>(k), r);
                model.insert(model.end(), in.begin(), in.begin() + static_cast<long>(k));
            } else {
                size_t k = std::min<size_t>(n, model.size());
                bool refused = mode == 1 && k < n;
                k = refused ? 0 : k;
                int r = mode == 0   ? qel_cbuf_get(&c, out.data(), n)
                        : mode == 1 ? qel_cbuf_get_full(&c, out.data(), n)
                        : mode == 2 ? qel_cbuf_peek(&c, out.data(), n)
                                    : qel_cbuf_del(&c, n);
                ASSERT_EQ(refused ? -1 : static_cast<int>(k), r);
                for (size_t i = 0; mode != 3 && i < k; ++i)
                    ASSERT_EQ(model[i], out[i]);
                ASSERT_EQ(0xEE, out[mode == 3 ? 0 : k]);
                if (mode != 2)
                    model.erase(model.begin(), model.begin() + static_cast<long>(k));
            }
            ASSERT_LE(c.read, cap);
            ASSERT_LE(c.write, cap);
            ASSERT_EQ(static_cast<int>(model.size()), qel_cbuf_size(&c));
            ASSERT_EQ(static_cast<int>(cap - 1 - model.size()), qel_cbuf_free_size(&c));
        }
    }
}

} // namespace

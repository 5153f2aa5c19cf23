#include "qel_time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <sys/time.h>
#include <tuple>

#include "support/test_util.h"

namespace {

using qeltest::now_ms;

TEST(Time, TickCountIsMonotonicMilliseconds)
{
    for (auto tick : {qel_time_get_tick_cout, time_get_tick_cout}) {
        int64_t before = now_ms();
        uint64_t last = tick(), now;
        EXPECT_TRUE(before <= static_cast<int64_t>(last) && static_cast<int64_t>(last) <= now_ms()) << last;
        for (int i = 0; i < 10000; ++i, last = now)
            ASSERT_GE(now = tick(), last);
    }
}

// 4294968 ms is 4294968000 us: the 32-bit count handed to usleep keeps 704 us.
TEST(Time, SleepsLastTheirLengthCutToThirtyTwoBitsOfMicroseconds)
{
    uint64_t t0 = qel_time_get_tick_cout();
    qel_msleep(30);
    uint64_t t1 = qel_time_get_tick_cout();
    EXPECT_GE(t1 - t0, 30u);
    qel_sleep(0);
    qel_msleep(4294968);
    EXPECT_LT(qel_time_get_tick_cout() - t0, 1000u);
    auto r = qeltest::run_in_child([] {
        qel_msleep(UINT64_C(0x7FFFFFFFFFFFFFFF));
        return 0;
    });
    EXPECT_EQ(SIGABRT, r.signal) << "the product overflow traps " << r.output;
}

TEST(Time, StampToLocalMatchesLocaltime)
{
    struct tm tm;
    int64_t neg = -1;
    time_t tneg = -1;
    for (qel_result r : {qel_time_stamp_to_local(&tm, &neg), qel_time_stamp_to_local(nullptr, &neg),
                         qel_time_stamp_to_local(&tm, nullptr), time_stamp_to_local(&tm, &tneg),
                         time_stamp_to_local(nullptr, &tneg), time_stamp_to_local(&tm, nullptr)})
        EXPECT_EQ(QEL_E_INVALIDARG, r);
    auto key = [](const struct tm &t) {
        return std::make_tuple(t.tm_year, t.tm_mon, t.tm_mday, t.tm_yday, t.tm_wday, t.tm_hour, t.tm_min, t.tm_sec,
                               t.tm_isdst);
    };
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int i = 0; i < 2000; ++i) {
        int64_t s = i == 0 ? 0 : static_cast<int64_t>(rng.range(0, 0x7FFFFFFF));
        time_t t = static_cast<time_t>(s);
        struct tm want, got, got_old;
        ASSERT_EQ(&want, localtime_r(&t, &want));
        memset(&got, 0xAB, sizeof got);
        memset(&got_old, 0xCD, sizeof got_old);
        ASSERT_EQ(QEL_OK, qel_time_stamp_to_local(&got, &s));
        ASSERT_EQ(QEL_OK, time_stamp_to_local(&got_old, &t));
        ASSERT_EQ(key(want), key(got)) << s;
        ASSERT_EQ(key(want), key(got_old)) << s;
    }
}

TEST(Time, WallClockFollowsGettimeofday)
{
    EXPECT_EQ(1, qel_gettimeofday(nullptr, nullptr));
    qel_timeval tv;
    qel_timezone tz;
    memset(&tz, 0x5A, sizeof tz);
    struct timeval before, after;
    struct timezone sys_tz;
    gettimeofday(&before, &sys_tz);
    ASSERT_EQ(1, qel_gettimeofday(&tv, &tz));
    gettimeofday(&after, nullptr);
    int64_t us = tv.sec * 1000000 + tv.usec;
    EXPECT_GE(us, static_cast<int64_t>(before.tv_sec) * 1000000 + before.tv_usec);
    EXPECT_LE(us, static_cast<int64_t>(after.tv_sec) * 1000000 + after.tv_usec);
    EXPECT_TRUE(tv.usec >= 0 && tv.usec < 1000000) << tv.usec;
    EXPECT_EQ(sys_tz.tz_minuteswest, tz.minuteswest);
    EXPECT_EQ(sys_tz.tz_dsttime, tz.dsttime);
    int64_t s = qel_time(), ms = qel_mclock(), u = qel_uclock(), s2 = qel_time();
    EXPECT_LE(s, ms / 1000);
    EXPECT_LE(ms, u / 1000);
    EXPECT_LE(u / 1000000, s2);
    EXPECT_LE(s2 - s, 5);
}

// The result must be the first rand() of one of the seeds the clock passed
// through during the call: the monotonic milliseconds, or (unprefixed) their
// lowest 8 bits.
TEST(Time, RandByTimeSeedsFromTheMonotonicClock)
{
    auto first_rand = [](uint64_t seed) {
        srand(static_cast<unsigned>(seed));
        return rand();
    };
    for (int i = 0; i < 50; ++i) {
        uint64_t lo = static_cast<uint64_t>(now_ms());
        int got = qel_rand_by_time(), got_old = rand_by_time();
        uint64_t hi = static_cast<uint64_t>(now_ms());
        ASSERT_LT(hi - lo, 1000u);
        std::set<int> want, want_old;
        for (uint64_t ms = lo; ms <= hi; ++ms) {
            want.insert(first_rand(ms));
            want_old.insert(first_rand(ms & 0xFF));
        }
        ASSERT_TRUE(want.count(got) && want_old.count(got_old)) << lo << ".." << hi;
    }
}

// An independent reading of the layout: output nibble k is input nibble k
// (k < 12), 4 (k = 12), 8 + the low two bits of input nibble 15 (k = 16), or
// input nibble k - 1. Input nibbles are low then high of each little-endian
// byte of two xorshift128+ outputs, the high one read as signed.
void model_uuid(long r0, long r1, uint8_t out[16])
{
    uint64_t s[2] = {static_cast<uint64_t>(r0), static_cast<uint64_t>(r1)}, n[2];
    for (auto &v : n) {
        uint64_t a = s[0], b = s[1];
        s[0] = b;
        a ^= a << 23;
        s[1] = a ^ b ^ (a >> 18) ^ (b >> 5);
        v = s[1] + b;
    }
    auto in = [&](int j) -> int {
        int byte = static_cast<int>((n[j / 16] >> (8 * (j / 2 % 8))) & 0xFF);
        return j % 2 == 0 ? byte & 15 : (byte >> 4) - (byte >= 128 ? 16 : 0);
    };
    auto nib = [&](int k) { return k < 12 ? in(k) : k == 12 ? 4 : k == 16 ? 8 + (in(15) & 3) : in(k - 1); };
    for (int k = 0; k < 16; ++k)
        out[k] = static_cast<uint8_t>((nib(2 * k) * 16 + nib(2 * k + 1)) & 0xFF);
}

TEST(Uuid, CreateFollowsRandomState)
{
    EXPECT_EQ(QEL_E_FAIL, qel_uuid_create(nullptr));
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int i = 0; i < 2000; ++i) {
        unsigned seed = static_cast<unsigned>(rng.next());
        srandom(seed);
        long r0 = random(), r1 = random(), r2 = random();
        uint8_t want[16], got[16];
        model_uuid(r0, r1, want);
        srandom(seed);
        ASSERT_EQ(QEL_OK, qel_uuid_create(got));
        ASSERT_EQ(0, memcmp(want, got, 16)) << seed;
        ASSERT_EQ(r2, random()) << "draws exactly two values of random()";
        ASSERT_TRUE((got[6] & 0xF0) == 0x40 && (got[8] & 0xC0) == 0x80) << "version 4, variant 10";
    }
}

TEST(Uuid, TextIsUpperCaseCanonicalAndEqualityComparesAllBytes)
{
    uint8_t u[16], v[16];
    char text[QEL_UUID_CSTR_SIZE], want[64];
    EXPECT_EQ(QEL_E_INVALIDARG, qel_uuid_make_cstr(nullptr, text));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_uuid_make_cstr(u, nullptr));
    EXPECT_TRUE(qel_uuid_is_equal(nullptr, u) == 0 && qel_uuid_is_equal(u, nullptr) == 0);
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int i = 0; i < 2000; ++i) {
        for (auto &b : u)
            b = static_cast<uint8_t>(rng.next());
        snprintf(want, sizeof want, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", u[0],
                 u[1], u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
        memset(text, 'x', sizeof text);
        ASSERT_EQ(QEL_OK, qel_uuid_make_cstr(u, text));
        ASSERT_STREQ(want, text);
        memcpy(v, u, 16);
        ASSERT_EQ(1, qel_uuid_is_equal(u, v));
        v[i % 16] ^= static_cast<uint8_t>(1u << (i % 8));
        ASSERT_EQ(0, qel_uuid_is_equal(u, v)) << i;
    }
}

} // namespace

#include "qel_time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <sys/time.h>

#include "support/test_util.h"

namespace {

uint64_t raw_monotonic_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

TEST(Time, TickCountIsMonotonicMilliseconds)
{
    for (auto tick : {qel_time_get_tick_cout, time_get_tick_cout}) {
        uint64_t before = raw_monotonic_ms();
        uint64_t t = tick();
        uint64_t after = raw_monotonic_ms();
        EXPECT_LE(before, t);
        EXPECT_LE(t, after);
        uint64_t last = t;
        for (int i = 0; i < 10000; ++i) {
            uint64_t now = tick();
            ASSERT_GE(now, last);
            last = now;
        }
    }
}

TEST(Time, SleepsLastAtLeastTheirLength)
{
    uint64_t t0 = qel_time_get_tick_cout();
    qel_msleep(30);
    uint64_t t1 = qel_time_get_tick_cout();
    EXPECT_GE(t1 - t0, 30u);
    EXPECT_LT(t1 - t0, 5000u);
    qel_sleep(0);
    qel_msleep(0);
    EXPECT_LT(qel_time_get_tick_cout() - t1, 5000u);
}

// The microsecond count handed to usleep is cut to 32 bits: 4294968 ms is
// 4294968000 us, which keeps 704 us.
TEST(Time, LongSleepKeepsLowThirtyTwoBitsOfMicroseconds)
{
    uint64_t t0 = qel_time_get_tick_cout();
    qel_msleep(4294968);
    EXPECT_LT(qel_time_get_tick_cout() - t0, 1000u);
}

TEST(Time, SleepOverflowTraps)
{
    auto r = qeltest::run_in_child([] {
        qel_msleep(UINT64_C(0x7FFFFFFFFFFFFFFF));
        return 0;
    });
    EXPECT_EQ(SIGABRT, r.signal) << r.output;
}

TEST(Time, StampToLocalMatchesLocaltime)
{
    struct tm tm;
    int64_t stamp = -1;
    EXPECT_EQ(QEL_E_INVALIDARG, qel_time_stamp_to_local(&tm, &stamp));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_time_stamp_to_local(nullptr, &stamp));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_time_stamp_to_local(&tm, nullptr));
    time_t tstamp = -1;
    EXPECT_EQ(QEL_E_INVALIDARG, time_stamp_to_local(&tm, &tstamp));
    EXPECT_EQ(QEL_E_INVALIDARG, time_stamp_to_local(nullptr, &tstamp));
    EXPECT_EQ(QEL_E_INVALIDARG, time_stamp_to_local(&tm, nullptr));

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
        for (const struct tm *g : {&got, &got_old}) {
            ASSERT_EQ(want.tm_year, g->tm_year) << s;
            ASSERT_EQ(want.tm_yday, g->tm_yday) << s;
            ASSERT_EQ(want.tm_hour, g->tm_hour) << s;
            ASSERT_EQ(want.tm_min, g->tm_min) << s;
            ASSERT_EQ(want.tm_sec, g->tm_sec) << s;
            ASSERT_EQ(want.tm_isdst, g->tm_isdst) << s;
        }
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
    EXPECT_GE(tv.usec, 0);
    EXPECT_LT(tv.usec, 1000000);
    EXPECT_EQ(sys_tz.tz_minuteswest, tz.minuteswest);
    EXPECT_EQ(sys_tz.tz_dsttime, tz.dsttime);

    int64_t s = qel_time();
    int64_t ms = qel_mclock();
    int64_t u = qel_uclock();
    int64_t s2 = qel_time();
    EXPECT_LE(s, ms / 1000);
    EXPECT_LE(ms / 1000, u / 1000000);
    EXPECT_LE(u / 1000000, s2);
    EXPECT_LE(ms, u / 1000);
    EXPECT_LE(s2 - s, 5);
}

// qel_rand_by_time seeds srand with the monotonic milliseconds, rand_by_time
// with their lowest 8 bits. The call is bracketed by two clock reads; the
// result must be the first rand() of one of the seeds in between.
TEST(Time, RandByTimeSeedsFromTheMonotonicClock)
{
    auto first_rand = [](unsigned seed) {
        srand(seed);
        return rand();
    };
    for (int i = 0; i < 50; ++i) {
        uint64_t lo = raw_monotonic_ms();
        int got = qel_rand_by_time();
        int got_old = rand_by_time();
        uint64_t hi = raw_monotonic_ms();
        ASSERT_GE(got, 0);
        ASSERT_LE(got, RAND_MAX);
        ASSERT_LT(hi - lo, 1000u);
        std::set<int> want, want_old;
        for (uint64_t ms = lo; ms <= hi; ++ms) {
            want.insert(first_rand(static_cast<unsigned>(ms)));
            want_old.insert(first_rand(static_cast<unsigned>(ms & 0xFF)));
        }
        ASSERT_TRUE(want.count(got)) << lo << ".." << hi;
        ASSERT_TRUE(want_old.count(got_old)) << lo << ".." << hi;
    }
    // Only 256 seeds for the unprefixed call: millisecond counts 256 apart agree.
    EXPECT_EQ(first_rand(0x1234 & 0xFF), first_rand(0x1334 & 0xFF));
}

// An independent reading of the layout: output nibble k comes from input
// nibble k (k < 12), is 4 (k = 12), 8 + the low two bits of input nibble 15
// (k = 16), or input nibble k - 1 otherwise.
void model_uuid(long r0, long r1, uint8_t out[16])
{
    uint64_t s[2] = {static_cast<uint64_t>(r0), static_cast<uint64_t>(r1)};
    uint64_t n[2];
    for (auto &v : n) {
        uint64_t a = s[0], b = s[1];
        s[0] = b;
        a ^= a << 23;
        s[1] = a ^ b ^ (a >> 18) ^ (b >> 5);
        v = s[1] + b;
    }
    uint8_t bytes[16];
    memcpy(bytes, n, 16); // little-endian host
    auto in = [&](int j) -> int {
        int byte = bytes[j / 2];
        if (j % 2 == 0)
            return byte & 15;
        int hi = byte >> 4;
        return hi >= 8 ? hi - 16 : hi;
    };
    auto nib = [&](int k) -> int {
        if (k < 12)
            return in(k);
        if (k == 12)
            return 4;
        if (k == 16)
            return 8 + (in(15) & 3);
        return in(k - 1);
    };
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
        long r0 = random();
        long r1 = random();
        long r2 = random();
        uint8_t want[16], got[16];
        model_uuid(r0, r1, want);
        srandom(seed);
        ASSERT_EQ(QEL_OK, qel_uuid_create(got));
        ASSERT_EQ(0, memcmp(want, got, 16)) << seed;
        ASSERT_EQ(r2, random()) << "draws exactly two values of random()";
        ASSERT_EQ(0x40, got[6] & 0xF0);
        ASSERT_EQ(0x80, got[8] & 0xC0);
    }
}

TEST(Uuid, SignedHighNibblesLowerTheFirstSixBytes)
{
    // Bytes 0..5 are (input low nibble) * 16 + (input high nibble read as
    // signed): a high nibble of 8 or more lowers the output's high nibble by
    // one and leaves it + 16 in the low nibble.
    for (unsigned seed = 1; seed < 200; ++seed) {
        srandom(seed);
        long r0 = random(), r1 = random();
        uint64_t s[2] = {static_cast<uint64_t>(r0), static_cast<uint64_t>(r1)};
        uint64_t s1 = s[0], s0 = s[1];
        s1 ^= s1 << 23;
        uint64_t first = (s1 ^ s0 ^ (s1 >> 18) ^ (s0 >> 5)) + s0;
        srandom(seed);
        uint8_t u[16];
        qel_uuid_create(u);
        for (int k = 0; k < 6; ++k) {
            uint8_t in = static_cast<uint8_t>(first >> (8 * k));
            uint8_t want = static_cast<uint8_t>(((in & 15) << 4) + (in >> 4));
            if (in >> 4 >= 8)
                want = static_cast<uint8_t>(want - 16);
            ASSERT_EQ(want, u[k]) << seed << " byte " << k;
        }
    }
}

TEST(Uuid, TextIsUpperCaseCanonical)
{
    uint8_t u[16];
    char text[QEL_UUID_CSTR_SIZE];
    EXPECT_EQ(QEL_E_INVALIDARG, qel_uuid_make_cstr(nullptr, text));
    EXPECT_EQ(QEL_E_INVALIDARG, qel_uuid_make_cstr(u, nullptr));
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int i = 0; i < 2000; ++i) {
        for (auto &b : u)
            b = static_cast<uint8_t>(rng.next());
        char want[64];
        snprintf(want, sizeof want, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                 u[0], u[1], u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13],
                 u[14], u[15]);
        memset(text, 'x', sizeof text);
        ASSERT_EQ(QEL_OK, qel_uuid_make_cstr(u, text));
        ASSERT_STREQ(want, text);
    }
    srandom(7);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(QEL_OK, qel_uuid_create(u));
        ASSERT_EQ(QEL_OK, qel_uuid_make_cstr(u, text));
        std::string s(text);
        ASSERT_EQ(36u, s.size());
        for (int p : {8, 13, 18, 23})
            ASSERT_EQ('-', s[p]);
        ASSERT_EQ('4', s[14]);
        ASSERT_NE(std::string::npos, std::string("89AB").find(s[19]));
        ASSERT_EQ(std::string::npos, s.find_first_not_of("0123456789ABCDEF-"));
    }
}

TEST(Uuid, IsEqualComparesAllBytes)
{
    uint8_t a[16], b[16];
    srandom(3);
    qel_uuid_create(a);
    memcpy(b, a, 16);
    EXPECT_EQ(1, qel_uuid_is_equal(a, b));
    for (int i = 0; i < 16; ++i) {
        b[i] ^= 1;
        EXPECT_EQ(0, qel_uuid_is_equal(a, b)) << i;
        b[i] ^= 1;
    }
    EXPECT_EQ(0, qel_uuid_is_equal(nullptr, b));
    EXPECT_EQ(0, qel_uuid_is_equal(a, nullptr));
}

} // namespace

// Clocks, sleeps, local time stamps, random numbers and version-4 UUIDs.

#include "qel_time.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "base/internal.h"
#include "base/time_impl.h"

using qel::detail::trap_add;
using qel::detail::trap_mul;

uint64_t qel_time_get_tick_cout(void)
{
    return qel::detail::monotonic_ms();
}

qel_result qel_time_stamp_to_local(struct tm *tm, const int64_t *stamp)
{
    QEL_CHECK(tm != nullptr && stamp != nullptr && *stamp >= 0, QEL_E_INVALIDARG);
    // On i386 time_t is 32 bits: the stamp's low 32 bits are converted.
    time_t t = static_cast<time_t>(*stamp);
    return localtime_r(&t, tm) == tm ? QEL_OK : QEL_E_FAIL;
}

void qel_msleep(uint64_t ms)
{
    int64_t us = trap_mul<int64_t>(static_cast<int64_t>(ms), 1000);
    // usleep takes 32 bits: longer sleeps keep the low 32 bits of the count.
    usleep(static_cast<useconds_t>(static_cast<uint32_t>(us)));
}

void qel_sleep(uint64_t s)
{
    qel_msleep(static_cast<uint64_t>(trap_mul<int64_t>(static_cast<int64_t>(s), 1000)));
}

int qel_gettimeofday(qel_timeval *tv, qel_timezone *tz)
{
    struct timeval now;
    struct timezone zone;
    memset(&now, 0, sizeof now);
    memset(&zone, 0, sizeof zone);
    if (gettimeofday(&now, &zone) != 0)
        return 0;
    if (tv != nullptr) {
        tv->sec = static_cast<int64_t>(now.tv_sec);
        tv->usec = static_cast<int32_t>(now.tv_usec);
    }
    if (tz != nullptr) {
        tz->minuteswest = zone.tz_minuteswest;
        tz->dsttime = zone.tz_dsttime;
    }
    return 1;
}

int64_t qel_time(void)
{
    qel_timeval tv;
    return qel_gettimeofday(&tv, nullptr) ? tv.sec : -1;
}

int64_t qel_mclock(void)
{
    qel_timeval tv;
    if (!qel_gettimeofday(&tv, nullptr))
        return -1;
    return trap_add<int64_t>(trap_mul<int64_t>(tv.sec, 1000), tv.usec / 1000);
}

int64_t qel_uclock(void)
{
    qel_timeval tv;
    if (!qel_gettimeofday(&tv, nullptr))
        return -1;
    return trap_add<int64_t>(trap_mul<int64_t>(tv.sec, 1000000), tv.usec);
}

int qel_rand_by_time(void)
{
    // Reseeding srand reseeds random too, which qel_uuid_create draws from.
    srand(static_cast<unsigned>(qel::detail::monotonic_ms()));
    return rand();
}

namespace {

// xorshift128+ with the shift triple 23, 18, 5.
struct Xorshift128p {
    uint64_t s[2];
    uint64_t next() noexcept
    {
        uint64_t s1 = s[0];
        const uint64_t s0 = s[1];
        s[0] = s0;
        s1 ^= s1 << 23;
        s[1] = s1 ^ s0 ^ (s1 >> 18) ^ (s0 >> 5);
        return s[1] + s0;
    }
};

} // namespace

qel_result qel_uuid_create(uint8_t *uuid)
{
    QEL_CHECK(uuid != nullptr, QEL_E_FAIL);
    Xorshift128p gen;
    gen.s[0] = static_cast<uint64_t>(random());
    gen.s[1] = static_cast<uint64_t>(random());
    uint64_t words[2];
    words[0] = gen.next();
    words[1] = gen.next();

    // 32 input nibbles, low nibble of each little-endian byte first. A high
    // nibble is read from the byte as signed, shifted arithmetically, so 8..15
    // read as -8..-1; this skews nothing and is part of the defined output.
    int in[32];
    for (int i = 0; i < 16; ++i) {
        uint8_t b = static_cast<uint8_t>(words[i / 8] >> (8 * (i % 8)));
        in[2 * i] = b & 0xF;
        in[2 * i + 1] = static_cast<int8_t>(b) >> 4;
    }
    int out[32];
    int next = 0;
    for (int k = 0; k < 32; ++k) {
        if (k == 12)
            out[k] = 4; // the version; consumes no input
        else if (k == 16)
            out[k] = 8 + (in[next++] & 3); // the RFC 4122 variant
        else
            out[k] = in[next++];
    }
    for (int k = 0; k < 16; ++k)
        uuid[k] = static_cast<uint8_t>(out[2 * k] * 16 + out[2 * k + 1]);
    return QEL_OK;
}

int qel_uuid_is_equal(const uint8_t *a, const uint8_t *b)
{
    QEL_CHECK(a != nullptr && b != nullptr, 0);
    return memcmp(a, b, QEL_UUID_SIZE) == 0 ? 1 : 0;
}

qel_result qel_uuid_make_cstr(const uint8_t *uuid, char *text)
{
    QEL_CHECK(uuid != nullptr && text != nullptr, QEL_E_INVALIDARG);
    // Hand-rolled upper-case hex: the same text as
    // "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
    // whose formatted length is always 36.
    static const char kHex[] = "0123456789ABCDEF";
    char *p = text;
    for (int i = 0; i < QEL_UUID_SIZE; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            *p++ = '-';
        *p++ = kHex[uuid[i] >> 4];
        *p++ = kHex[uuid[i] & 0xF];
    }
    if (p - text != 36)
        return QEL_E_FAIL;
    text[36] = '\0';
    return QEL_OK;
}

/*
 * xmsg.cpp: the key/value message and its packed "XMSG" wire form.
 *
 * Packed form (what crosses between processes). Integers are in host byte
 * order, written without conversion: little-endian on both supported ABIs.
 *
 *   offset  width  field
 *   ------  -----  ---------------------------------------------------------
 *        0      4  magic "XMSG" (58 4D 53 47); written, never examined
 *        4      4  check value: H over the entry area (offset 16, used bytes)
 *        8      4  entry count: entries ever added, creator and deleted ones
 *                  included
 *       12      4  used bytes: length U of the entry area
 *       16      U  the entry area exactly as held in memory
 *
 *   H(bytes): h = 5318 (0x14C6, deliberately not 5381); for each byte taken
 *   unsigned, h = h * 33 + byte, modulo 2^32 (qel::detail::hash33).
 *
 * Entry area: entries back to back, each starting at a multiple of 4 from
 * the start of the area. The first entry is the creator entry.
 *
 *   +0      4  next: offset of the next older entry of the same bucket
 *              (0 ends the chain; offset 0 is the creator entry, which is
 *              therefore never on a chain)
 *   +4      4  value length V
 *   +8      2  key length K, 1..65535
 *   +10     1  flags: bit 0 = deleted, other bits 0
 *   +11     1  pad count P = total - (K + V + 13), 0..3
 *   +12     K  key bytes
 *   +12+K   V  value bytes
 *   +12+K+V 1  NUL
 *   then    P  zero bytes
 *   total = (K + V + 16) & ~3: the next entry starts at +13+K+V+P.
 *
 *   Bucket of a key: H(key bytes) & 15; each of the 16 bucket heads holds the
 *   offset of the bucket's newest entry.
 *
 * Worked example: qel_xmsg_new("agent") holds one 28-byte entry
 *   00 00 00 00  06 00 00 00  07 00 00 02  "creator"  "agent" 00  00  00 00
 * and packs to 44 bytes: "XMSG", H of those 28 bytes, count 1, used 28.
 *
 * Unpacking trusts nothing but what it checks: the lengths, the check value,
 * and that the entries tile the area exactly (see relink). A message is handed
 * out only when all of them hold, so a lookup or an iteration of it never
 * leaves the area.
 */
#include "qel_xmsg.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define QEL_XMSG_X86 1
#else
#define QEL_XMSG_X86 0
#endif

#include "base/internal.h"
#include "config/xmsg_impl.h"

// The wire layout is fixed on both ABIs.
static_assert(sizeof(qel_xmsg_entry) == QEL_XMSG_ENTRY_HEADER_SIZE);
static_assert(offsetof(qel_xmsg_entry, next) == 0);
static_assert(offsetof(qel_xmsg_entry, vlen) == 4);
static_assert(offsetof(qel_xmsg_entry, klen) == 8);
static_assert(offsetof(qel_xmsg_entry, flags) == 10);
static_assert(offsetof(qel_xmsg_entry, pad) == 11);
static_assert(sizeof(qel_xmsg_packed) == QEL_XMSG_HEADER_SIZE);
static_assert(offsetof(qel_xmsg_packed, check) == 4);
static_assert(offsetof(qel_xmsg_packed, count) == 8);
static_assert(offsetof(qel_xmsg_packed, used) == 12);
static_assert(offsetof(qel_xmsg, bucket) == 4);
static_assert(offsetof(qel_xmsg, count) == 68);
static_assert(offsetof(qel_xmsg, used) == 72);
static_assert(offsetof(qel_xmsg, capacity) == 76);
static_assert(offsetof(qel_xmsg, area) == 80);
static_assert(sizeof(qel_xmsg) == (sizeof(void *) == 4 ? 84 : 88));
static_assert(offsetof(qel_xmsg_iter, klen) == 2 * sizeof(void *));
static_assert(offsetof(qel_xmsg_iter, msg) == 2 * sizeof(void *) + 8);
static_assert(offsetof(qel_xmsg_iter, next) == 3 * sizeof(void *) + 8);
static_assert(QEL_XMSG_MAX_AREA % 4 == 0 && QEL_XMSG_MAX_AREA + 16u <= 0x7FFFFFFFu);

namespace qel::xmsg_internal {
namespace {

constexpr uint32_t pow33(unsigned n)
{
    uint32_t r = 1;
    while (n-- > 0)
        r *= 33u;
    return r;
}

/* ---- check value ------------------------------------------------------------
 * H is linear: over a block of B bytes b_0..b_{B-1},
 *   H(prefix + block) = H(prefix) * 33^B + sum_j b_j * 33^(B-1-j)  (mod 2^32),
 * and the sum does not depend on H(prefix), so it can be formed many bytes at
 * a time. Byte pairs first become words w = 33 * b_2i + b_2i+1 (at most 8670,
 * no saturation in a u8 x s8 multiply-add); each word is then multiplied by
 * its power 33^(B-2-2i), split into signed 16-bit halves lo + 65536 * hi so
 * that a 16 x 16 -> 32 multiply-add does the work; all sums wrap modulo 2^32
 * as H does. The result is the very value of the byte-serial recurrence. */
constexpr size_t kBlock = 256;

struct PowerTable {
    alignas(32) int16_t lo[kBlock / 2];
    alignas(32) int16_t hi[kBlock / 2];
};

constexpr PowerTable make_power_table()
{
    PowerTable t{};
    for (size_t g = 0; g < kBlock / 2; ++g) {
        uint32_t k = pow33(static_cast<unsigned>(kBlock - 2 - 2 * g));
        auto lo = static_cast<int16_t>(static_cast<uint16_t>(k & 0xFFFFu));
        uint32_t rest = k - static_cast<uint32_t>(static_cast<int32_t>(lo));
        t.lo[g] = lo;
        t.hi[g] = static_cast<int16_t>(static_cast<uint16_t>(rest >> 16));
    }
    return t;
}

constexpr PowerTable kPowers = make_power_table();

#if QEL_XMSG_X86
template <bool Copy>
__attribute__((target("avx2"))) uint32_t blocks_avx2(unsigned char *dst, const unsigned char *src,
                                                     size_t nblocks, uint32_t h) noexcept
{
    const __m256i pair = _mm256_set1_epi16(0x0121); // byte weights 33, 1
    constexpr uint32_t kStep = pow33(kBlock);
    for (size_t b = 0; b < nblocks; ++b) {
        __m256i lo = _mm256_setzero_si256();
        __m256i hi = _mm256_setzero_si256();
        for (size_t c = 0; c < kBlock / 32; ++c) {
            __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + 32 * c));
            if constexpr (Copy)
                _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + 32 * c), d);
            __m256i w = _mm256_maddubs_epi16(d, pair);
            __m256i plo = _mm256_load_si256(reinterpret_cast<const __m256i *>(kPowers.lo + 16 * c));
            __m256i phi = _mm256_load_si256(reinterpret_cast<const __m256i *>(kPowers.hi + 16 * c));
            lo = _mm256_add_epi32(lo, _mm256_madd_epi16(w, plo));
            hi = _mm256_add_epi32(hi, _mm256_madd_epi16(w, phi));
        }
        __m256i v = _mm256_add_epi32(lo, _mm256_slli_epi32(hi, 16));
        __m128i s = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
        s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4E));
        s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xB1));
        h = h * kStep + static_cast<uint32_t>(_mm_cvtsi128_si32(s));
        src += kBlock;
        if constexpr (Copy)
            dst += kBlock;
    }
    return h;
}

bool cpu_has_avx2() noexcept
{
    static const bool has = __builtin_cpu_supports("avx2") != 0;
    return has;
}
#endif

} // namespace

uint32_t check_value_portable(const void *data, size_t len, uint32_t seed) noexcept
{
    // Eight bytes per step: their Horner value is independent of h, so only
    // one multiply-add per step is on the dependency chain.
    constexpr uint32_t kStep = pow33(8);
    const auto *p = static_cast<const unsigned char *>(data);
    uint32_t h = seed;
    for (size_t n = len / 8; n > 0; --n, p += 8) {
        uint32_t v = p[0];
        for (int i = 1; i < 8; ++i)
            v = v * 33u + p[i];
        h = h * kStep + v;
    }
    return detail::hash33_continue(h, p, len % 8);
}

bool check_value_vectorised() noexcept
{
#if QEL_XMSG_X86
    return cpu_has_avx2();
#else
    return false;
#endif
}

uint32_t check_value(const void *data, size_t len, uint32_t seed) noexcept
{
#if QEL_XMSG_X86
    if (len >= kBlock && cpu_has_avx2()) {
        const auto *p = static_cast<const unsigned char *>(data);
        size_t n = len / kBlock;
        uint32_t h = blocks_avx2<false>(nullptr, p, n, seed);
        return check_value_portable(p + n * kBlock, len % kBlock, h);
    }
#endif
    return check_value_portable(data, len, seed);
}

uint32_t check_value_copy(void *dst, const void *src, size_t len, uint32_t seed) noexcept
{
    if (len == 0)
        return seed;
#if QEL_XMSG_X86
    if (len >= kBlock && cpu_has_avx2()) {
        auto *d = static_cast<unsigned char *>(dst);
        const auto *s = static_cast<const unsigned char *>(src);
        size_t n = len / kBlock;
        uint32_t h = blocks_avx2<true>(d, s, n, seed);
        size_t done = n * kBlock;
        memcpy(d + done, s + done, len - done);
        return check_value_portable(s + done, len - done, h);
    }
#endif
    memcpy(dst, src, len);
    return check_value_portable(src, len, seed);
}

} // namespace qel::xmsg_internal

namespace {

using qel::xmsg_internal::entry_total;

constexpr char kCreatorKey[] = "creator";
constexpr uint16_t kCreatorKeyLen = 7;

inline qel_xmsg_entry *entry_at(unsigned char *area, uint32_t off) noexcept
{
    return reinterpret_cast<qel_xmsg_entry *>(area + off);
}
inline const unsigned char *key_of(const qel_xmsg_entry *e) noexcept
{
    return reinterpret_cast<const unsigned char *>(e) + QEL_XMSG_ENTRY_HEADER_SIZE;
}
inline uint32_t total_of(const qel_xmsg_entry *e) noexcept
{
    return static_cast<uint32_t>(entry_total(e->klen, e->vlen));
}

inline unsigned bucket_of(const void *key, size_t klen) noexcept
{
    return qel::detail::hash33(key, klen) & (QEL_XMSG_BUCKETS - 1);
}

/* Key equality. Keys of one length mostly differ in their last bytes
 * (counters, suffixes), so those are compared first, inline. */
inline bool same_key(const qel_xmsg_entry *e, const void *key, uint16_t klen) noexcept
{
    if (e->klen != klen)
        return false;
    const unsigned char *a = key_of(e);
    const auto *b = static_cast<const unsigned char *>(key);
    if (klen >= 4) {
        uint32_t x, y;
        memcpy(&x, a + klen - 4, 4);
        memcpy(&y, b + klen - 4, 4);
        if (x != y)
            return false;
        return klen == 4 || memcmp(a, b, klen - 4u) == 0;
    }
    return memcmp(a, b, klen) == 0;
}

/* Grows the area to hold `need` bytes: 64 first, then doubling, never past
 * QEL_XMSG_MAX_AREA (need itself is within it). The new bytes are zero, so an
 * entry's NUL and filler need no writing. On failure nothing changes. */
bool grow(qel_xmsg *m, uint64_t need) noexcept
{
    uint64_t cap = m->capacity;
    while (cap < need)
        cap = cap == 0 ? 64 : cap * 2;
    if (cap > QEL_XMSG_MAX_AREA)
        cap = QEL_XMSG_MAX_AREA;
    auto *area = static_cast<unsigned char *>(qel::detail::try_realloc(m->area, cap));
    if (area == nullptr)
        return false;
    memset(area + m->capacity, 0, cap - m->capacity);
    m->area = area;
    m->capacity = static_cast<uint32_t>(cap);
    return true;
}

/* A key or value that the caller took from this message's own entries (a
 * value copied under another key) moves with the area when it grows. */
const void *follow(const void *p, const unsigned char *old_area, const qel_xmsg *m) noexcept
{
    const auto at = reinterpret_cast<uintptr_t>(p), base = reinterpret_cast<uintptr_t>(old_area);
    if (old_area == nullptr || old_area == m->area || at < base || at >= base + m->used)
        return p;
    return m->area + (at - base);
}

/* Offset of the first live entry at or after `off`; m->used if none. */
uint32_t live_from(const qel_xmsg *m, uint32_t off) noexcept
{
    while (off < m->used) {
        const qel_xmsg_entry *e = entry_at(m->area, off);
        if ((e->flags & QEL_XMSG_DELETED) == 0)
            return off;
        off += total_of(e);
    }
    return m->used;
}

void fill_iter(qel_xmsg_iter *it, qel_xmsg *m, uint32_t off) noexcept
{
    const qel_xmsg_entry *e = entry_at(m->area, off);
    it->key = reinterpret_cast<const char *>(key_of(e));
    it->value = it->key + e->klen;
    it->klen = e->klen;
    it->vlen = e->vlen;
    it->msg = m;
    it->next = off + total_of(e);
}

/* Checks that the entries tile the area exactly and rebuilds every chain,
 * for the entries that end within the first `limit` bytes (the bytes copied
 * so far); *off is where the next entry starts. The creator entry (offset 0)
 * is checked but not linked; every later entry, deleted ones too, goes to
 * the head of its bucket in address order, so the chains come out as the adds
 * built them. Returns false as soon as an entry cannot fit the used bytes. */
bool relink(qel_xmsg *m, uint32_t *off_io, uint32_t limit) noexcept
{
    const uint32_t used = m->used;
    unsigned char *area = m->area;
    uint32_t off = *off_io;
    while (off < limit) {
        if (used - off < QEL_XMSG_ENTRY_HEADER_SIZE)
            return false;
        if (limit - off < QEL_XMSG_ENTRY_HEADER_SIZE)
            break; // the rest of the header is not copied yet
        qel_xmsg_entry *e = entry_at(area, off);
        const uint64_t total = entry_total(e->klen, e->vlen);
        if (e->klen == 0 || total > used - off)
            return false;
        if (total > limit - off)
            break;
        const uint64_t body = static_cast<uint64_t>(e->klen) + e->vlen;
        if (e->pad != total - (body + 13) || area[off + QEL_XMSG_ENTRY_HEADER_SIZE + body] != 0)
            return false;
        if (off != 0) {
            unsigned b = qel::xmsg_internal::bucket_by_sum(key_of(e), e->klen);
            e->next = m->bucket[b];
            m->bucket[b] = off;
        }
        off += static_cast<uint32_t>(total);
    }
    *off_io = off;
    return true;
}

} // namespace

qel_xmsg *qel_xmsg_new(const char *creator)
{
    auto *m = static_cast<qel_xmsg *>(qel::detail::try_calloc(1, sizeof(qel_xmsg)));
    if (m == nullptr)
        return nullptr;
    const char *text = creator != nullptr ? creator : "(null)";
    // The value is the name with its NUL; the name's length is kept modulo
    // 65536, as the 16-bit length of earlier versions did.
    uint32_t vlen = static_cast<uint32_t>(strlen(text) % 65536u) + 1u;
    (void)qel_xmsg_add(m, kCreatorKey, kCreatorKeyLen, text, vlen); // a failure leaves no creator
    m->nref = 1;
    return m;
}

qel_xmsg *qel_xmsg_retain(qel_xmsg *msg)
{
    QEL_CHECK(msg != nullptr, nullptr);
    ++msg->nref;
    return msg;
}

void qel_xmsg_release(qel_xmsg *msg)
{
    QEL_CHECK_VOID(msg != nullptr);
    if (--msg->nref < 1) {
        free(msg->area);
        free(msg);
    }
}

int32_t qel_xmsg_nref(const qel_xmsg *msg)
{
    QEL_CHECK(msg != nullptr, 0);
    return msg->nref;
}

int qel_xmsg_add(qel_xmsg *msg, const void *key, uint16_t klen, const void *value, uint32_t vlen)
{
    QEL_CHECK(msg != nullptr && key != nullptr && value != nullptr && klen != 0, -1);
    const uint64_t total = entry_total(klen, vlen);
    const uint64_t need = static_cast<uint64_t>(msg->used) + total;
    if (need > QEL_XMSG_MAX_AREA)
        return -1;
    if (need > msg->capacity) {
        const unsigned char *old_area = msg->area;
        if (!grow(msg, need))
            return -1;
        key = follow(key, old_area, msg);
        value = follow(value, old_area, msg);
    }

    const uint32_t off = msg->used;
    const unsigned b = bucket_of(key, klen);
    unsigned char *e = msg->area + off;
    const qel_xmsg_entry head = {msg->bucket[b], vlen, klen, 0,
                                 static_cast<uint8_t>(total - (klen + static_cast<uint64_t>(vlen) + 13))};
    memcpy(e, &head, sizeof head);
    memcpy(e + QEL_XMSG_ENTRY_HEADER_SIZE, key, klen);
    if (vlen != 0)
        memcpy(e + QEL_XMSG_ENTRY_HEADER_SIZE + klen, value, vlen);
    // The NUL and the filler are zero already: bytes past `used` always are.
    msg->bucket[b] = off;
    ++msg->count;
    msg->used = static_cast<uint32_t>(need);
    return 0;
}

int qel_xmsg_del(qel_xmsg *msg, const void *key, uint16_t klen)
{
    QEL_CHECK(msg != nullptr && key != nullptr && klen != 0, 0);
    int marked = 0;
    for (uint32_t off = msg->bucket[bucket_of(key, klen)]; off != 0;) {
        qel_xmsg_entry *e = entry_at(msg->area, off);
        if (same_key(e, key, klen)) {
            e->flags |= QEL_XMSG_DELETED;
            ++marked;
        }
        off = e->next;
    }
    return marked;
}

void *qel_xmsg_get(const qel_xmsg *msg, const void *key, uint16_t klen, uint32_t *vlen,
                   uint32_t *cursor)
{
    QEL_CHECK(msg != nullptr && key != nullptr && klen != 0, nullptr);
    uint32_t off;
    if (cursor != nullptr && *cursor != 0) {
        off = *cursor;
        if (off >= msg->used) { // not an offset this message handed out
            *cursor = 0;
            return nullptr;
        }
    } else {
        off = msg->bucket[bucket_of(key, klen)];
    }
    while (off != 0) {
        const qel_xmsg_entry *e = entry_at(msg->area, off);
        const uint32_t next = e->next;
        if ((e->flags & QEL_XMSG_DELETED) == 0 && same_key(e, key, klen)) {
            if (vlen != nullptr)
                *vlen = e->vlen;
            if (cursor != nullptr)
                *cursor = next;
            return msg->area + off + QEL_XMSG_ENTRY_HEADER_SIZE + e->klen;
        }
        off = next;
    }
    if (cursor != nullptr)
        *cursor = 0;
    return nullptr;
}

const char *qel_xmsg_get_creator(const qel_xmsg *msg)
{
    QEL_CHECK(msg != nullptr && msg->used != 0, nullptr);
    const qel_xmsg_entry *e = entry_at(msg->area, 0);
    return reinterpret_cast<const char *>(key_of(e) + e->klen);
}

uint32_t qel_xmsg_nelem(const qel_xmsg *msg)
{
    QEL_CHECK(msg != nullptr, 0);
    return msg->count - 1u;
}

qel_xmsg_iter *qel_xmsg_first(qel_xmsg *msg)
{
    QEL_CHECK(msg != nullptr && msg->used != 0, nullptr);
    uint32_t off = live_from(msg, total_of(entry_at(msg->area, 0)));
    if (off >= msg->used)
        return nullptr;
    auto *it = static_cast<qel_xmsg_iter *>(qel::detail::try_alloc(sizeof(qel_xmsg_iter)));
    if (it == nullptr)
        return nullptr;
    fill_iter(it, msg, off);
    return it;
}

qel_xmsg_iter *qel_xmsg_next(qel_xmsg_iter *it)
{
    QEL_CHECK(it != nullptr, nullptr);
    uint32_t off = live_from(it->msg, it->next);
    if (off >= it->msg->used) {
        free(it);
        return nullptr;
    }
    fill_iter(it, it->msg, off);
    return it;
}

qel_xmsg *qel_xmsg_dup(const qel_xmsg *msg)
{
    QEL_CHECK(msg != nullptr, nullptr);
    auto *m = static_cast<qel_xmsg *>(qel::detail::try_alloc(sizeof(qel_xmsg)));
    if (m == nullptr)
        return nullptr;
    *m = *msg;
    m->nref = 0;
    m->area = nullptr;
    if (msg->capacity != 0) {
        // The whole capacity: the bytes past `used` are zero and stay so.
        m->area = static_cast<unsigned char *>(qel::detail::try_alloc(msg->capacity));
        if (m->area == nullptr) {
            free(m);
            return nullptr;
        }
        memcpy(m->area, msg->area, msg->capacity);
    }
    return qel_xmsg_retain(m);
}

uint32_t qel_xmsg_pack_size(const qel_xmsg *msg)
{
    QEL_CHECK(msg != nullptr, 0);
    return msg->used + QEL_XMSG_HEADER_SIZE;
}

int qel_xmsg_pack(const qel_xmsg *msg, void *buf, size_t size)
{
    QEL_CHECK(msg != nullptr && buf != nullptr, -1);
    const size_t packed = static_cast<size_t>(msg->used) + QEL_XMSG_HEADER_SIZE;
    if (size < packed)
        return -1;
    auto *out = static_cast<unsigned char *>(buf);
    qel_xmsg_packed head;
    memcpy(head.magic, "XMSG", 4);
    head.check = qel::xmsg_internal::check_value_copy(out + QEL_XMSG_HEADER_SIZE, msg->area, msg->used,
                                                      qel::detail::kHashSeed);
    head.count = msg->count;
    head.used = msg->used;
    memcpy(out, &head, sizeof head);
    return static_cast<int>(packed);
}

void *qel_xmsg_pack_aux(const qel_xmsg *msg, uint32_t *size)
{
    QEL_CHECK(msg != nullptr, nullptr);
    const size_t packed = static_cast<size_t>(msg->used) + QEL_XMSG_HEADER_SIZE;
    void *buf = qel::detail::try_alloc(packed); // every byte is written below
    if (buf == nullptr)
        return nullptr;
    int n = qel_xmsg_pack(msg, buf, packed);
    if (size != nullptr)
        *size = static_cast<uint32_t>(n);
    return buf;
}

qel_xmsg *qel_xmsg_unpack(const void *buf, size_t len)
{
    QEL_CHECK(buf != nullptr, nullptr);
    if (len < QEL_XMSG_HEADER_SIZE)
        return nullptr;
    const auto *in = static_cast<const unsigned char *>(buf);
    qel_xmsg_packed head;
    memcpy(&head, in, sizeof head);
    if (static_cast<uint64_t>(head.used) + QEL_XMSG_HEADER_SIZE > len || head.used > QEL_XMSG_MAX_AREA)
        return nullptr;

    auto *m = static_cast<qel_xmsg *>(qel::detail::try_calloc(1, sizeof(qel_xmsg)));
    if (m == nullptr)
        return nullptr;
    m->count = head.count;
    m->used = m->capacity = head.used;
    if (head.used != 0) {
        // No spare room: capacity is exactly the used bytes, and the copy
        // fills all of it, so the area needs no zeroing first.
        m->area = static_cast<unsigned char *>(qel::detail::try_alloc(head.used));
        if (m->area == nullptr) {
            free(m);
            return nullptr;
        }
    }
    // Copy, check value and chain rebuild run together a slice at a time, so
    // that the rebuild finds the entries still in cache. The check value
    // covers the packed bytes as received; the magic is not examined.
    constexpr uint32_t kSlice = 4 * 1024; // a multiple of the hash's block
    uint32_t done = 0, off = 0, check = qel::detail::kHashSeed;
    bool tiles = true;
    while (done < head.used && tiles) {
        uint32_t n = head.used - done < kSlice ? head.used - done : kSlice;
        check = qel::xmsg_internal::check_value_copy(m->area + done, in + QEL_XMSG_HEADER_SIZE + done, n, check);
        done += n;
        tiles = relink(m, &off, done);
    }
    if (!tiles || off != head.used || check != head.check) {
        free(m->area);
        free(m);
        return nullptr;
    }
    return qel_xmsg_retain(m);
}

void qel_xmsg_debug(const qel_xmsg *msg)
{
    QEL_CHECK_VOID(msg != nullptr);
    for (uint32_t off = msg->used == 0 ? 0 : live_from(msg, total_of(entry_at(msg->area, 0)));
         off < msg->used; off = live_from(msg, off + total_of(entry_at(msg->area, off)))) {
        const qel_xmsg_entry *e = entry_at(msg->area, off);
        const char *key = reinterpret_cast<const char *>(key_of(e));
        printf("[%.*s] => [%.*s]\n", static_cast<int>(e->klen), key, static_cast<int>(e->vlen),
               key + e->klen);
    }
}

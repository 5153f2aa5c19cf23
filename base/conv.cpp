// Text encoding conversion through iconv, and the ASCII / UTF-8 / UTF-16 text
// checks over one character-class table.
//
// Converters. code_convert opens a converter for every call. The four
// UTF-8/"UCS-2" conversions keep one converter per direction per thread
// instead, because opening and closing a converter costs more than a short conversion itself. A kept
// converter gives the same bytes as a fresh one: both encodings are stateless,
// a call that succeeds consumes all its input and leaves the converter in its
// initial state, and a call that fails marks the converter so that the next
// use first resets it with iconv(cd, NULL, NULL, NULL, NULL). The converters
// of a thread are closed when the thread ends; a conversion that runs later in
// that thread's exit (from another thread-exit destructor) opens its own.
//
// Text checks. Bytes 0x20..0x7E are ASCII text and never change the UTF-8
// walk's state, so both the ASCII and the UTF-8 checks read eight bytes at a
// time. A word of printable bytes is skipped at once; the UTF-8 check
// classifies every byte of any other word in parallel (see Utf8Word), so no
// step waits for the previous character's length. The last bytes go byte by
// byte.

#include "qel_conv.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iconv.h>

#include "base/conv_impl.h"
#include "base/internal.h"

static_assert(sizeof(wchar_t) == 4, "wide strings are 4-byte characters");

namespace {

// ---- converters ---------------------------------------------------------------

// The wide string's storage is read as "UCS-2", and "UCS-2" units are written
// into wide storage: the historical pairing that callers depend on.
constexpr const char kUcs2[] = "UCS-2";
constexpr const char kUtf8[] = "UTF-8";

enum Direction { kToUtf8 = 0, kFromUtf8 = 1 };
constexpr const char *kFromName[2] = {kUcs2, kUtf8};
constexpr const char *kToName[2] = {kUtf8, kUcs2};

const iconv_t kNoConverter = reinterpret_cast<iconv_t>(-1);

// One thread's converters. Trivially destructible, so it stays usable while
// the thread's exit destructors run.
struct ThreadConverters {
    iconv_t cd[2];   // null until opened
    bool dirty[2];   // the last run failed: reset before the next
    bool armed;      // the closer is registered for this thread
    bool closed;     // the thread is ending: open a converter per call
};
constinit thread_local ThreadConverters t_conv{};

// Number of kept converters open in the process (test hook).
std::atomic<long> g_kept_open{0};

// Closes the calling thread's kept converters when the thread ends.
struct ConverterCloser {
    ~ConverterCloser()
    {
        ThreadConverters &t = t_conv;
        for (iconv_t &cd : t.cd) {
            if (cd != nullptr) {
                iconv_close(cd);
                cd = nullptr;
                g_kept_open.fetch_sub(1, std::memory_order_relaxed);
            }
        }
        t.closed = true;
    }
};

void arm_closer()
{
    thread_local ConverterCloser closer;
    (void)closer;
}

// The thread's converter for d, ready for a conversion; null when the thread
// is ending; kNoConverter when none can be opened.
iconv_t acquire(Direction d)
{
    ThreadConverters &t = t_conv;
    iconv_t cd = t.cd[d];
    if (__builtin_expect(cd != nullptr, 1)) {
        if (__builtin_expect(t.dirty[d], 0)) {
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
            t.dirty[d] = false;
        }
        return cd;
    }
    if (t.closed)
        return nullptr;
    if (!t.armed) {
        t.armed = true;
        arm_closer();
    }
    cd = iconv_open(kToName[d], kFromName[d]);
    if (cd == kNoConverter)
        return kNoConverter; // not kept: the next call tries again
    t.cd[d] = cd;
    g_kept_open.fetch_add(1, std::memory_order_relaxed);
    return cd;
}

// One iconv call over in; 0 or -1. The output is already zero-filled.
int run(iconv_t cd, const void *in, size_t inlen, void *out, size_t outlen)
{
    char *ip = const_cast<char *>(static_cast<const char *>(in));
    char *op = static_cast<char *>(out);
    return iconv(cd, &ip, &inlen, &op, &outlen) == static_cast<size_t>(-1) ? -1 : 0;
}

// code_convert(from d, to d, in, inlen, out, outlen) on the thread's converter.
int convert(Direction d, const void *in, size_t inlen, void *out, size_t outlen)
{
    memset(out, 0, outlen); // the caller's zero-fill, also when no converter opens
    iconv_t cd = acquire(d);
    if (cd == nullptr)
        return code_convert(kFromName[d], kToName[d], static_cast<const char *>(in), inlen,
                            static_cast<char *>(out), outlen);
    if (cd == kNoConverter)
        return -1;
    if (run(cd, in, inlen, out, outlen) != 0) {
        t_conv.dirty[d] = true;
        return -1;
    }
    return 0;
}

// The _ex bodies with the source length already known.
qel_result to_utf8(const wchar_t *w, size_t len, char *out, size_t size)
{
    return convert(kToUtf8, w, len * sizeof(wchar_t), out, size) == 0 ? QEL_OK : QEL_E_FAIL;
}

qel_result from_utf8(const char *s, size_t len, wchar_t *w, size_t bytes)
{
    return convert(kFromUtf8, s, len, w, bytes) == 0 ? QEL_OK : QEL_E_FAIL;
}

// ---- the character-class table ---------------------------------------------------

// 0 never in text, 1 ASCII text, 2 ISO-8859 text, 3 other extended characters.
constexpr uint8_t kClassNever = 0, kClassAscii = 1, kClassIso = 2, kClassExtended = 3;

struct ClassTable {
    uint8_t c[256];
};

constexpr ClassTable make_class_table()
{
    ClassTable t{};
    for (int b = 0; b < 256; ++b) {
        uint8_t cls;
        if ((b >= 0x07 && b <= 0x0A) || b == 0x0C || b == 0x0D || b == 0x1B ||
            (b >= 0x20 && b <= 0x7E) || b == 0x85)
            cls = kClassAscii;
        else if (b >= 0xA0)
            cls = kClassIso;
        else if (b >= 0x80)
            cls = kClassExtended;
        else
            cls = kClassNever;
        t.c[b] = cls;
    }
    return t;
}
constexpr ClassTable kClasses = make_class_table();

static_assert(kClasses.c[0x00] == kClassNever && kClasses.c[0x06] == kClassNever &&
              kClasses.c[0x0B] == kClassNever && kClasses.c[0x1A] == kClassNever &&
              kClasses.c[0x1C] == kClassNever && kClasses.c[0x7F] == kClassNever);
static_assert(kClasses.c[0x07] == kClassAscii && kClasses.c[0x1B] == kClassAscii &&
              kClasses.c[0x85] == kClassAscii && kClasses.c[0x84] == kClassExtended &&
              kClasses.c[0x9F] == kClassExtended && kClasses.c[0xA0] == kClassIso);

// ---- the UTF-8 walk's step table ----------------------------------------------------

// What a byte does where a character starts: kReject ends the walk with 0 (a
// byte below 0x80 outside class 1, a continuation byte, 1111111x), kText is a
// text byte below 0x80, and 1..5 is a lead byte followed by that many
// continuation bytes.
constexpr int8_t kReject = -1, kText = 0;

struct StepTable {
    int8_t s[256];
};

constexpr StepTable make_step_table()
{
    StepTable t{};
    for (int b = 0; b < 256; ++b) {
        int8_t step;
        if (b < 0x80)
            step = kClasses.c[b] == kClassAscii ? kText : kReject;
        else if ((b & 0x40) == 0)
            step = kReject; // 10xxxxxx cannot lead
        else if ((b & 0x20) == 0)
            step = 1;
        else if ((b & 0x10) == 0)
            step = 2;
        else if ((b & 0x08) == 0)
            step = 3;
        else if ((b & 0x04) == 0)
            step = 4;
        else if ((b & 0x02) == 0)
            step = 5;
        else
            step = kReject; // 1111111x
        t.s[b] = step;
    }
    return t;
}
constexpr StepTable kSteps = make_step_table();

// ---- eight bytes at a time ---------------------------------------------------------

// Words are read little-endian: byte k of the buffer is bits 8k..8k+7.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the word-wide checks read little-endian");

constexpr uint64_t kOnes = 0x0101010101010101ull;
constexpr uint64_t kHighs = 0x8080808080808080ull;

inline uint64_t load8(const unsigned char *p)
{
    uint64_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

// The high bit of each byte of x that lies outside 0x20..0x7E, and perhaps of
// bytes after the first such byte. A byte of 0x80 or more shows in x itself;
// below 0x20 the subtraction borrows into its high bit; 0x7F carries into it.
// Carries and borrows only start at a byte that is already out of range, so
// the lowest bit set marks exactly the first byte out of range, and zero means
// all eight are printable.
inline uint64_t outside_printable(uint64_t x)
{
    return (x | (x - 0x20 * kOnes) | (x + kOnes)) & kHighs;
}

// Number of printable bytes at the start of x (8 if all are).
inline size_t printable_prefix(uint64_t x)
{
    uint64_t out = outside_printable(x);
    return out == 0 ? 8 : static_cast<size_t>(__builtin_ctzll(out)) / 8;
}

// One word of the UTF-8 walk, all bytes at once. Masks hold 0x80 in each
// byte for which a property holds. A word is valid exactly when its
// continuation bytes (10xxxxxx) are the bytes that the leads before them
// require, none is 1111111x, and its other bytes below 0x80 are of class 1;
// then the byte-wise walk passes it too, sequence by sequence.
struct Utf8Word {
    uint64_t cont;      // continuation bytes
    uint64_t need;      // bytes the leads of this word require (within it)
    uint64_t spill;     // bytes of the next word that they require
    uint64_t complete;  // leads whose sequence ends in this word
    uint64_t bad;       // 1111111x
    uint64_t controls;  // bytes below 0x80 outside 0x20..0x7E
};

inline Utf8Word classify_utf8_word(uint64_t w)
{
    constexpr uint64_t kLow7 = 0x7F * kOnes;
    const uint64_t high = w & kHighs;
    // Bit 7-k of each byte, moved to bit 7.
    const uint64_t b6 = (w << 1) & kHighs, b5 = (w << 2) & kHighs, b4 = (w << 3) & kHighs;
    const uint64_t b3 = (w << 4) & kHighs, b2 = (w << 5) & kHighs, b1 = (w << 6) & kHighs;
    // Leads taking at least 1..5 continuation bytes.
    const uint64_t at1 = high & b6;
    const uint64_t at2 = at1 & b5, at3 = at2 & b4, at4 = at3 & b3, at5 = at4 & b2;
    Utf8Word r;
    r.cont = high & ~b6;
    r.bad = at5 & b1;
    const uint64_t leads = at1 & ~r.bad;
    const uint64_t l1 = leads, l2 = at2 & ~r.bad, l3 = at3 & ~r.bad, l4 = at4 & ~r.bad;
    const uint64_t l5 = at5 & ~r.bad;
    r.need = l1 << 8 | l2 << 16 | l3 << 24 | l4 << 32 | l5 << 40;
    r.spill = l1 >> 56 | l2 >> 48 | l3 >> 40 | l4 >> 32 | l5 >> 24;
    const uint64_t spilling = (l1 & 0x80ull << 56) | (l2 & 0x80ull << 48) | (l3 & 0x80ull << 40) |
                              (l4 & 0x80ull << 32) | (l5 & 0x80ull << 24);
    r.complete = leads & ~spilling;
    // Exact per byte: the low seven bits are at least 0x20, or are 0x7F.
    const uint64_t ge20 = ((w & kLow7) + 0x60 * kOnes) & kHighs;
    const uint64_t is7f = ((w & kLow7) + kOnes) & kHighs;
    r.controls = ~high & (~ge20 | is7f) & kHighs;
    return r;
}

// The byte-wise UTF-8 walk from i with the flag so far.
int utf8_tail(const unsigned char *p, size_t i, size_t n, int result)
{
    while (i < n) {
        int step = kSteps.s[p[i]];
        if (step == kReject)
            return 0;
        for (int k = 0; k < step; ++k) {
            if (++i >= n)
                return result; // a truncated final sequence is tolerated
            if ((p[i] & 0xC0) != 0x80)
                return 0;
        }
        if (step != kText)
            result = 1;
        ++i;
    }
    return result;
}

} // namespace

namespace qel::detail {

long conv_kept_converters() noexcept
{
    return g_kept_open.load(std::memory_order_relaxed);
}

uint8_t text_class(unsigned char byte) noexcept
{
    return kClasses.c[byte];
}

} // namespace qel::detail

// ---- exported functions ------------------------------------------------------------

int code_convert(const char *from, const char *to, const char *in, size_t inlen, char *out,
                 size_t outlen)
{
    QEL_CHECK(from != nullptr && to != nullptr && in != nullptr && out != nullptr, -1);
    iconv_t cd = iconv_open(to, from);
    if (cd == kNoConverter)
        return -1;
    memset(out, 0, outlen);
    int rc = run(cd, in, inlen, out, outlen);
    iconv_close(cd);
    return rc;
}

qel_result qel_str_unicode_to_utf8_ex(const wchar_t *w, char *out, size_t size)
{
    QEL_CHECK(w != nullptr && out != nullptr && size != 0, QEL_E_FAIL);
    return to_utf8(w, wcslen(w), out, size);
}

char *qel_str_unicode_to_utf8(const wchar_t *w)
{
    QEL_CHECK(w != nullptr, nullptr);
    size_t len = wcslen(w);
    // len * 4 + 1 cannot overflow: the string itself occupies len * 4 bytes.
    size_t size = len * sizeof(wchar_t) + 1;
    char *out = static_cast<char *>(qel::detail::try_calloc(size, 1));
    if (out == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    if (to_utf8(w, len, out, size) != QEL_OK) {
        free(out);
        return nullptr;
    }
    return out;
}

qel_result qel_str_utf8_to_unicode_ex(const char *s, wchar_t *w, size_t count)
{
    QEL_CHECK(s != nullptr && w != nullptr && count != 0, QEL_E_FAIL);
    size_t bytes;
    QEL_CHECK(!qel::detail::mul_overflows(count, sizeof(wchar_t), &bytes), QEL_E_FAIL);
    return from_utf8(s, strlen(s), w, bytes);
}

wchar_t *qel_str_utf8_to_unicode(const char *s)
{
    QEL_CHECK(s != nullptr, nullptr);
    size_t len = strlen(s);
    size_t count;
    if (qel::detail::add_overflows(len, size_t{1}, &count) ||
        count > SIZE_MAX / sizeof(wchar_t)) {
        errno = ENOMEM;
        return nullptr;
    }
    wchar_t *w = static_cast<wchar_t *>(qel::detail::try_calloc(count, sizeof(wchar_t)));
    if (w == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    if (from_utf8(s, len, w, count * sizeof(wchar_t)) != QEL_OK) {
        free(w);
        return nullptr;
    }
    return w;
}

void qel_str_free(void *str)
{
    free(str);
}

int qel_str_is_ascii(const void *buf, size_t n)
{
    QEL_CHECK(buf != nullptr || n == 0, 0);
    const unsigned char *p = static_cast<const unsigned char *>(buf);
    size_t i = 0;
    while (n - i >= 8) {
        uint64_t w = load8(p + i);
        if (outside_printable(w) == 0) {
            i += 8;
            continue;
        }
        i += printable_prefix(w);
        if (kSteps.s[p[i]] != kText) // a byte of 0x80 or more, or outside class 1
            return 0;
        ++i;
    }
    for (; i < n; ++i)
        if (kSteps.s[p[i]] != kText)
            return 0;
    return 1;
}

int qel_str_is_utf8(const void *buf, size_t n)
{
    QEL_CHECK(buf != nullptr || n == 0, 0);
    const unsigned char *p = static_cast<const unsigned char *>(buf);
    int result = 0;     // a complete multibyte sequence has been seen
    uint64_t pend = 0;  // bytes of this word that the previous word's lead requires
    size_t i = 0;
    for (; n - i >= 8; i += 8) {
        uint64_t w = load8(p + i);
        if (pend == 0 && outside_printable(w) == 0)
            continue;
        Utf8Word c = classify_utf8_word(w);
        if ((c.need | pend) != c.cont || c.bad != 0)
            return 0;
        for (uint64_t ctl = c.controls; ctl != 0; ctl &= ctl - 1)
            if (kSteps.s[p[i + static_cast<size_t>(__builtin_ctzll(ctl)) / 8]] != kText)
                return 0;
        if (pend != 0 || c.complete != 0)
            result = 1;
        pend = c.spill;
    }
    // Finish a sequence that the words began; the buffer may end inside it.
    for (int left = __builtin_popcountll(pend); left > 0; --left, ++i) {
        if (i >= n)
            return result;
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        if (left == 1)
            result = 1;
    }
    return utf8_tail(p, i, n, result);
}

int qel_str_is_utf16(const void *buf, size_t n)
{
    QEL_CHECK(buf != nullptr && n >= 2, 0);
    const unsigned char *p = static_cast<const unsigned char *>(buf);
    bool little;
    if (p[0] == 0xFF && p[1] == 0xFE)
        little = true;
    else if (p[0] == 0xFE && p[1] == 0xFF)
        little = false;
    else
        return 0;
    for (size_t i = 2; i + 1 < n; i += 2) {
        // Each byte is a signed 8-bit value; the unit is a plain int.
        int lo = static_cast<signed char>(little ? p[i] : p[i + 1]);
        int hi = static_cast<signed char>(little ? p[i + 1] : p[i]);
        int unit = lo + hi * 256;
        if (unit == 0xFFFE)
            return 0;
        if (static_cast<unsigned>(unit) <= 127 && kClasses.c[unit] != kClassAscii)
            return 0;
    }
    return 1;
}

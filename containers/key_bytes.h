/*
 * key_bytes.h: byte-string key equality for the in-process hash tables.
 *
 * Keys there are short (typically under 64 bytes) and a look-up compares at
 * most a few of them, so a call into memcmp costs more than the compare. This
 * compares in 8-, then 4-byte words, ending with one overlapping word, and
 * answers exactly what memcmp(a, b, n) == 0 answers.
 */
#ifndef QEL_CONTAINERS_KEY_BYTES_H
#define QEL_CONTAINERS_KEY_BYTES_H

#include <cstdint>
#include <cstring>

namespace qel::detail {

template <class W>
inline W load_word(const unsigned char *p) noexcept
{
    W w;
    memcpy(&w, p, sizeof w);
    return w;
}

/* True when the n bytes at a and b are equal (n may be 0, a and b then unused). */
inline bool key_bytes_equal(const void *a, const void *b, size_t n) noexcept
{
    const unsigned char *x = static_cast<const unsigned char *>(a);
    const unsigned char *y = static_cast<const unsigned char *>(b);
    if (n >= 8) {
        for (; n > 8; n -= 8, x += 8, y += 8)
            if (load_word<uint64_t>(x) != load_word<uint64_t>(y))
                return false;
        // The last word overlaps bytes already compared.
        return load_word<uint64_t>(x + n - 8) == load_word<uint64_t>(y + n - 8);
    }
    if (n >= 4)
        return load_word<uint32_t>(x) == load_word<uint32_t>(y) &&
               load_word<uint32_t>(x + n - 4) == load_word<uint32_t>(y + n - 4);
    for (size_t i = 0; i < n; ++i)
        if (x[i] != y[i])
            return false;
    return true;
}

} // namespace qel::detail

#endif /* QEL_CONTAINERS_KEY_BYTES_H */

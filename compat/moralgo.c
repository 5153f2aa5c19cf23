/* Stand-in for libmoralgo: 32-bit FNV-1a string hash. */
#include "moralgo.h"

uint32_t qel_str_hash_a(const char *s)
{
    uint32_t h = 0x811C9DC5u;
    if (s == 0)
        return h;
    for (; *s; ++s) {
        h ^= (unsigned char)*s;
        h *= 0x01000193u;
    }
    return h;
}

// The ASCII, UTF-8 and UTF-16 text checks against their byte-wise rules, at
// every alignment of the input within the first word.
#include <cstdint>
#include <cstring>
#include <vector>

#include "qel_conv.h"
#include "tests/support/text_oracle.h"

namespace oracle = qeltest::oracle;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<unsigned char> arena(size + 8);
    for (size_t off = 0; off < 8; ++off) {
        if (size != 0)
            memcpy(arena.data() + off, data, size);
        const unsigned char *p = arena.data() + off;
        for (size_t n : {size, size / 2, size > 0 ? size - 1 : 0}) {
            if (qel_str_is_ascii(p, n) != oracle::is_ascii(p, n))
                __builtin_trap();
            if (qel_str_is_utf8(p, n) != oracle::is_utf8(p, n))
                __builtin_trap();
            if (qel_str_is_utf16(p, n) != oracle::is_utf16(p, n))
                __builtin_trap();
        }
    }
    return 0;
}

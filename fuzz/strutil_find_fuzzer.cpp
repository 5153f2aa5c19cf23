// qel_str_find and qel_str_nstr against memmem and the failure-table search.
// Input: two bytes of pattern length (mod 600), two bytes of start offset,
// the pattern, then the buffer. Both are copied to exact-size heap blocks so
// that any read past either end is caught.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qel_strutil.h"
#include "tests/support/str_models.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    size_t plen = (data[0] | data[1] << 8) % 600;
    int start = static_cast<int>((data[2] | data[3] << 8) % 4096);
    data += 4;
    size -= 4;
    if (plen > size)
        plen = size;
    std::string pat(reinterpret_cast<const char *>(data), plen);
    std::string buf(reinterpret_cast<const char *>(data + plen), size - plen);
    std::vector<char> p(pat.begin(), pat.end()), b(buf.begin(), buf.end());
    const int len = static_cast<int>(b.size()), m = static_cast<int>(p.size());
    if (start > len)
        start = len;

    const int got = qel_str_find(b.data(), len, p.data(), m, start);
    if (got != qeltest::memmem_find(buf, pat, start))
        __builtin_trap();
    if (got != qeltest::kmp_find(b.data(), len, p.data(), m, start))
        __builtin_trap();
    const char *at = qel_str_nstr(b.data(), len, p.data(), m);
    if ((at ? static_cast<int>(at - b.data()) : -1) != qeltest::memmem_find(buf, pat, 0))
        __builtin_trap();
    return 0;
}

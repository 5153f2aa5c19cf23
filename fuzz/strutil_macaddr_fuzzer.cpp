// qel_string_to_macaddr against its model, including the bytes a failed
// parse leaves behind. Input: the text (a zero byte ends it).
#include <cstdint>
#include <cstring>
#include <vector>

#include "qel_strutil.h"
#include "tests/support/str_models.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    uint8_t got[6], want[6];
    memset(got, 0xA5, sizeof got);
    memset(want, 0xA5, sizeof want);
    const int rc = qel_string_to_macaddr(text.data(), got);
    if (rc != qeltest::model_macaddr(text.data(), want))
        __builtin_trap();
    if (memcmp(got, want, sizeof got) != 0)
        __builtin_trap();
    return 0;
}

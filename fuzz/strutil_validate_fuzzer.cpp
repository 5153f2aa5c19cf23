// The integer, hexadecimal, IPv4 and domain validators against their models.
// Input: a maximum-length byte (255 stands for SIZE_MAX), then the string
// (a zero byte ends it, as for any C string).
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qel_strutil.h"
#include "tests/support/str_models.h"

namespace {

qel_result expect(bool good)
{
    return good ? QEL_OK : QEL_E_BADFORMAT;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const size_t maxlen = data[0] == 255 ? SIZE_MAX : data[0];
    std::vector<char> text(data + 1, data + size);
    text.push_back('\0');
    const std::string s(text.data());
    if (qel_string_check_integer(text.data(), maxlen) != expect(qeltest::model_integer(s, maxlen, false)))
        __builtin_trap();
    if (qel_string_check_hex_integer(text.data(), maxlen) != expect(qeltest::model_integer(s, maxlen, true)))
        __builtin_trap();
    if (qel_string_check_ipv4(text.data(), maxlen) != expect(qeltest::model_ipv4(s, maxlen)))
        __builtin_trap();
    if (qel_string_check_domain(text.data(), maxlen) != expect(qeltest::model_domain(s, maxlen)))
        __builtin_trap();
    return 0;
}

// qel_str_replace with random capacities against its model. Input: a
// capacity byte, a flags byte, then the text, `from` and `to` separated by
// zero bytes. The buffer is a heap block of exactly max(capacity, text + 1)
// bytes, so a write beyond the capacity is caught.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qel_strutil.h"
#include "tests/support/str_models.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const int extra = static_cast<int>(data[0]) - 16; // capacities below the text length too
    const bool all = (data[1] & 1) != 0;
    std::string rest(reinterpret_cast<const char *>(data + 2), size - 2);
    std::string part[3];
    size_t pos = 0;
    for (int i = 0; i < 3; ++i) {
        size_t z = rest.find('\0', pos);
        part[i] = rest.substr(pos, z == std::string::npos ? std::string::npos : z - pos);
        pos = z == std::string::npos ? rest.size() : z + 1;
    }
    const std::string &text = part[0], &from = part[1], &to = part[2];
    const int capacity = static_cast<int>(text.size()) + 1 + extra;
    std::vector<char> buf(std::max<size_t>(text.size() + 1, capacity > 0 ? capacity : 0));
    memcpy(buf.data(), text.c_str(), text.size() + 1);

    std::string model = text;
    const long want = qeltest::model_replace(model, capacity, from, to, all);
    char *r = qel_str_replace(buf.data(), capacity, from.c_str(), to.c_str(), all ? 1 : 0);
    if ((r ? static_cast<long>(r - buf.data()) : -1) != want)
        __builtin_trap();
    if (model != buf.data())
        __builtin_trap();
    return 0;
}

// The UTF-8/wide conversions against a direct iconv call made the same way
// (the wide storage read as "UCS-2", "UCS-2" units written into wide storage),
// with the output size taken from the input. Failures and successes interleave
// on the thread's kept converters.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qel_conv.h"
#include "tests/support/text_oracle.h"

namespace oracle = qeltest::oracle;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    size_t room = data[0] % 64 + 1; // output size: bytes, or wide characters
    bool to_wide = data[1] & 1;
    data += 2;
    size -= 2;
    if (to_wide) {
        std::string s(reinterpret_cast<const char *>(data), size);
        s = s.c_str(); // up to the first NUL
        std::vector<wchar_t> w(room, static_cast<wchar_t>(0x5A5A5A5A));
        int rc = qel_str_utf8_to_unicode_ex(s.c_str(), w.data(), room) == QEL_OK ? 0 : -1;
        oracle::Converted want = oracle::utf8_to_wide(s.c_str(), room);
        if (rc != want.rc || memcmp(w.data(), want.out.data(), room * sizeof(wchar_t)) != 0)
            __builtin_trap();
        wchar_t *a = qel_str_utf8_to_unicode(s.c_str());
        oracle::Converted full = oracle::utf8_to_wide(s.c_str(), s.size() + 1);
        if ((a != nullptr) != (full.rc == 0) ||
            (a != nullptr && memcmp(a, full.out.data(), full.out.size()) != 0))
            __builtin_trap();
        qel_str_free(a);
    } else {
        std::wstring ws(size / sizeof(wchar_t), L'\0');
        if (!ws.empty())
            memcpy(ws.data(), data, ws.size() * sizeof(wchar_t));
        ws = ws.c_str();
        std::string out(room, '\xAA');
        int rc = qel_str_unicode_to_utf8_ex(ws.c_str(), out.data(), room) == QEL_OK ? 0 : -1;
        oracle::Converted want = oracle::wide_to_utf8(ws.c_str(), room);
        if (rc != want.rc || out != want.out)
            __builtin_trap();
        char *a = qel_str_unicode_to_utf8(ws.c_str());
        oracle::Converted full = oracle::wide_to_utf8(ws.c_str(), ws.size() * 4 + 1);
        if ((a != nullptr) != (full.rc == 0) ||
            (a != nullptr && memcmp(a, full.out.data(), full.out.size()) != 0))
            __builtin_trap();
        qel_str_free(a);
    }
    return 0;
}

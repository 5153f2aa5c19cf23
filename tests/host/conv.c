/* Converts both ways and runs the text checks through the installed header
 * and the shared library, as a host program would. */
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include "qel_conv.h"

int main(void)
{
    wchar_t w[4];
    char out[16];
    char *s;
    wchar_t *ws;

    /* The wide storage is read as "UCS-2": L"AB" gives 'A' 0 'B' 0. */
    if (qel_str_unicode_to_utf8_ex(L"AB", out, sizeof out) != QEL_OK || memcmp(out, "A\0B\0", 4) != 0)
        return 1;
    if (qel_str_utf8_to_unicode_ex("AB", w, 4) != QEL_OK || w[0] != (wchar_t)0x00420041)
        return 2;
    s = qel_str_unicode_to_utf8(L"\u00e9");
    if (s == NULL || strcmp(s, "\xc3\xa9") != 0)
        return 3;
    qel_str_free(s);
    ws = qel_str_utf8_to_unicode("\xc3\xa9");
    if (ws == NULL || ws[0] != 0xE9)
        return 4;
    qel_str_free(ws);
    if (qel_str_unicode_to_utf8_ex(L"AB", out, 3) != QEL_E_FAIL)
        return 5;
    if (code_convert("ISO-8859-1", "UTF-8", "\xe9", 1, out, sizeof out) != 0 || strcmp(out, "\xc3\xa9") != 0)
        return 6;
    if (qel_str_is_ascii("text\n", 5) != 1 || qel_str_is_utf8("hello", 5) != 0 ||
        qel_str_is_utf8("h\xc3\xa9", 3) != 1 || qel_str_is_utf16("\xff\xfe" "A", 4) != 1)
        return 7;
    puts("conversions and checks work");
    return 0;
}

/* A host program's view of the string families: C linkage, the null rules
 * and a few kept quirks, through the shared library. */
#include "qel_str.h"
#include "qel_strutil.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>
#include "host_check.h"


int main(void)
{
    char buf[16];
    wchar_t wbuf[8];
    uint8_t mac[6];
    char *dup;

    CHECK(qel_strlen(NULL) == 0);
    CHECK(qel_strcmp(NULL, "x") == 0);
    CHECK(qel_memset(buf, 0, 0) == NULL);
    CHECK(qel_strchr("abc", 0) != NULL);
    CHECK(qel_strichr("abc", 0) == NULL);
    CHECK(qel_strlcpy(buf, "abcdef", 4) == 6 && strcmp(buf, "abc") == 0);
    CHECK(qel_wcslcpy(wbuf, L"abcdef", 4) == 4 && wmemcmp(wbuf, L"abcd", 4) == 0);
    CHECK(qel_wcscmp(L"a", L"c") == -1 && qel_wcsncmp(L"a", L"c", 1) == -2);
    CHECK(qel_wcsicmp(L"ABC", L"abc") == 0);
    CHECK(qel_strnstr("abcdef", 3, "cd") == NULL);
    dup = qel_strdup("host");
    CHECK(dup != NULL && strcmp(dup, "host") == 0);
    free(dup);

    CHECK(qel_str_snprintf(buf, 4, "%d", 12345) == 3 && strcmp(buf, "123") == 0);
    CHECK(qel_str_find("aaab", 4, "aab", 3, 0) == 1);
    strcpy(buf, "xax");
    CHECK(qel_str_replace(buf, 6, "x", "yy", 1) == buf && strcmp(buf, "yyayy") == 0);
    CHECK(qel_string_check_ipv4("1.2.3.4", 7) == QEL_OK);
    CHECK(qel_string_check_ipv4("1.2.3.04", 8) == QEL_E_BADFORMAT);
    CHECK(qel_string_check_domain("a-", 2) == QEL_E_BADFORMAT);
    CHECK(qel_string_to_macaddr("AA-bb-0C-dd-EE-ff:zz", mac) == 0 && mac[5] == 0xFF);
    return 0;
}

/*
 * qel_strutil.h: higher-level helpers on narrow strings: an all-or-nothing
 * bounded concatenation, a length-driven substring search that treats zero
 * bytes as ordinary, an in-place search-and-replace inside a fixed buffer, a
 * truncating formatted print that reports what it really stored, and syntax
 * validators for decimal and hexadecimal integers, dotted IPv4 addresses,
 * domain names and MAC addresses.
 *
 * Ownership: every buffer is the caller's; nothing here allocates.
 *
 * Results: the qel_string_check_* validators return 0 (QEL_OK) for a good
 * string and QEL_E_BADFORMAT (0x84CE0018) for a malformed one;
 * qel_string_to_macaddr returns 0 or -1; the others return pointers, offsets
 * or lengths as each says.
 *
 * Null arguments: each function states its answer. qel_str_nchr and
 * qel_str_strlcpy are the classic routines and check nothing.
 *
 * Thread safety: no state; the integer validators read the calling thread's
 * locale (isdigit, isxdigit).
 *
 * Decisions:
 *  - Lengths of the search and replace functions are int, as the signed
 *    comparisons they make; a negative length or start offset finds nothing.
 *  - A null string is malformed for every validator.
 *  - The library sets no locale; isdigit/isxdigit run under the host's.
 *  - qel_str_magic_vsprintf with a null buffer or format stores nothing and
 *    returns 0.
 */
#ifndef QEL_STRUTIL_H
#define QEL_STRUTIL_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "qel_export.h"
#include "qel_result.h"

QEL_BEGIN_DECLS

/* Appends src to dst, whose buffer holds size bytes, only if all of src fits
 * with the terminator: it never truncates.
 * Returns: dst; null (dst unchanged) when dst or src is null, size <= 0, or
 * size < strlen(dst) + strlen(src) + 1. */
QEL_API char *qel_str_strncat(char *dst, const char *src, int size);

/* Searches the len - start bytes of buf after the start offset for the first
 * occurrence of the plen bytes of pattern. Bytes compare exactly and zero
 * bytes are ordinary in both buffers.
 * Returns: the match's offset from buf; -1 when there is none, when buf or
 * pattern is null, plen is not in 1..511, start is negative or not below
 * len. */
QEL_API int qel_str_find(const char *buf, int len, const char *pattern, int plen, int start);

/* qel_str_find from offset 0.
 * Returns: a pointer to the first match, or null (same failures). */
QEL_API char *qel_str_nstr(const char *buf, int len, const char *pattern, int plen);

/* memchr: zero bytes do not stop the search. No null check.
 * Returns: the first of the len bytes equal to (unsigned char)c, or null. */
QEL_API char *qel_str_nchr(const char *buf, size_t len, int c);

/* vsnprintf into buf that truncates and tells what it stored: when the text
 * does not fit (or cannot be encoded) the last byte of buf is set to 0.
 * Returns: the number of characters stored (never the length that would have
 * been needed); size - 1 on truncation or an encoding error; 0 for size 0
 * (nothing written) or a null buf or format. */
QEL_API int qel_str_magic_vsprintf(char *buf, size_t size, const char *format, va_list args)
    QEL_PRINTF(3, 0);

/* qel_str_magic_vsprintf with the arguments in line. */
QEL_API int qel_str_snprintf(char *buf, size_t size, const char *format, ...) QEL_PRINTF(3, 4);

/* The classic bounded copy, no null checks: copies at most size - 1 bytes and
 * terminates when size > 0 (qel_strlcpy is the null-tolerant form).
 * Returns: strlen(src). */
QEL_API size_t qel_str_strlcpy(char *dst, const char *src, size_t size);

/* Replaces `from` by `to` inside the string in buf, whose buffer holds
 * capacity bytes. The occurrence is found with qel_str_nstr, so an empty
 * `from` (or one longer than 511 bytes) is never found. A replacement is made
 * only if capacity - strlen(buf) > strlen(to) - strlen(from), compared as
 * signed values.
 * all = 0: the first occurrence only; the result points just after the
 * inserted text (at the occurrence when `to` is empty).
 * all != 0: after a first replacement, replacements continue from the point
 * just after each inserted text (inserted text is never searched again) until
 * one fails; when room runs out part-way the replacements made stay.
 * Returns: all = 0: the point after the inserted text; all != 0: buf. Null
 * when buf, from or to is null, when there was no occurrence, or when the
 * first replacement did not fit. */
QEL_API char *qel_str_replace(char *buf, int capacity, const char *from, const char *to, int all);

/* Every character up to maxlen or the terminator satisfies isdigit: no sign,
 * no blanks. An empty string or maxlen 0 is good.
 * Returns: 0; QEL_E_BADFORMAT for any other character or a null s. */
QEL_API qel_result qel_string_check_integer(const char *s, size_t maxlen);

/* As qel_string_check_integer with isxdigit; no "0x" prefix is accepted.
 * Returns: 0; QEL_E_BADFORMAT. */
QEL_API qel_result qel_string_check_hex_integer(const char *s, size_t maxlen);

/* A dotted IPv4 address among the characters up to maxlen or the terminator:
 * exactly four decimal octets of at most 255, no leading zeros ("0" is good,
 * "01" is not), separated by single dots, nothing else.
 * Returns: 0; QEL_E_BADFORMAT for anything else or a null s. */
QEL_API qel_result qel_string_check_ipv4(const char *s, size_t maxlen);

/* A domain name: characters are examined while the index is at most maxlen
 * (so maxlen + 1 of them, deliberately kept) and not at the terminator; each
 * must be an ASCII letter, a digit, "-", "." or "_"; at most 66 of them; the
 * string must not begin with "-" and the last character examined must not be
 * "-". Labels are not checked: empty labels and leading dots pass, as does an
 * empty string.
 * Returns: 0; QEL_E_BADFORMAT for anything else or a null s. */
QEL_API qel_result qel_string_check_domain(const char *s, size_t maxlen);

/* Parses six bytes of two hexadecimal digits each (either case), separated
 * by ":" or "-"; the first separator fixes the one used throughout. Whatever
 * follows the sixth byte is ignored. Bytes parsed before a failure stay in
 * out.
 * Returns: 0 with the bytes in out[0..5]; -1 for any other character, mixed
 * separators, the end of the string before six bytes, or a null argument. */
QEL_API int qel_string_to_macaddr(const char *text, uint8_t out[6]);

QEL_END_DECLS

#endif /* QEL_STRUTIL_H */

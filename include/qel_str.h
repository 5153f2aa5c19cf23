/*
 * qel_str.h: null-tolerant memory and string primitives, for narrow strings
 * (qel_mem*, qel_str*) and for wide strings of 4-byte wchar_t (qel_wcs*).
 *
 * Every member accepts null pointers and answers them with a neutral result
 * (null, 0, or "equal") instead of faulting; the one exception is
 * qel_strrchr, which keeps strrchr's missing null check on purpose.
 *
 * Conventions of the family:
 *  - "n" members take their bound in characters (bytes for narrow, wchar_t
 *    units for wide) after the string it bounds: qel_strnchr(s, n, c),
 *    qel_strnstr(haystack, n, needle).
 *  - "i" members fold case. Narrow folding is tolower() of the current
 *    locale, applied to both sides; wide folding adds 32 to the code points
 *    65-90 ("A"-"Z") and leaves every other code point alone.
 *  - Comparisons that meet a null argument return 0 ("equal").
 *  - Character searches never find the terminator: searching for 0 yields
 *    null. qel_strchr is the exception; it is strchr and finds it.
 *  - Reverse searches with an explicit length scan from index n - 1 down to 0
 *    and give up (null) at the first terminator they meet, so a length beyond
 *    the string's end yields null unless the character lies before the
 *    terminator: pass the exact length.
 *  - A narrow character argument is taken by its low 8 bits.
 *
 * Ownership: qel_strdup, qel_strndup, qel_wcsdup and qel_wcsndup return
 * malloc()ed copies; the caller owns the result and releases it with free().
 * They return null when the allocation fails (never an out-of-memory exit).
 *
 * Thread safety: no member keeps state; the folding members read the calling
 * thread's locale.
 *
 * Decision: the narrow members forward to the C library wherever it gives the
 * documented result (qel_strlen is strlen, qel_stricmp is strcasecmp, ...); the
 * wide lengths forward to wcslen/wcsnlen; everything else is written out.
 */
#ifndef QEL_STR_H
#define QEL_STR_H

#include <stddef.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* ---- memory ---------------------------------------------------------------- */

/* memset(dst, c, n).
 * Returns: dst; null when dst is null or n is 0 (not dst). */
QEL_API void *qel_memset(void *dst, int c, size_t n);

/* Copies n bytes forward, one at a time in effect: when dst lies inside
 * [src, src + n) the bytes already written are copied again (the source
 * pattern repeats), exactly as a forward byte loop does.
 * Returns: dst; null when a pointer is null or n is 0. */
QEL_API void *qel_memcpy(void *dst, const void *src, size_t n);

/* memmove(dst, src, n).
 * Returns: dst; null when a pointer is null or n is 0. */
QEL_API void *qel_memmov(void *dst, const void *src, size_t n);

/* Compares n bytes as unsigned values.
 * Returns: -1, 0 or 1 (the sign only); 0 when a pointer is null or n is 0. */
QEL_API int qel_memcmp(const void *a, const void *b, size_t n);

/* ---- narrow strings: length, copies ---------------------------------------- */

/* Returns: strlen(s); 0 for null. */
QEL_API size_t qel_strlen(const char *s);

/* Returns: strnlen(s, max); 0 for null or max 0. */
QEL_API size_t qel_strnlen(const char *s, size_t max);

/* A malloc()ed copy of s. The caller owns the result and releases it with free().
 * Returns: the copy; null for null s or when the allocation fails. */
QEL_API char *qel_strdup(const char *s);

/* A malloc()ed copy of the first qel_strnlen(s, n) bytes of s, always
 * terminated (n = 0 gives an empty string). The caller owns the result and
 * releases it with free().
 * Returns: the copy; null for null s or when the allocation fails. */
QEL_API char *qel_strndup(const char *s, size_t n);

/* strcpy(dst, src).
 * Returns: dst; null when either pointer is null. */
QEL_API char *qel_strcpy(char *dst, const char *src);

/* strncpy(dst, src, n): pads with zeros, and leaves dst unterminated when src
 * has n or more characters.
 * Returns: dst; null when either pointer is null or n is 0. */
QEL_API char *qel_strncpy(char *dst, const char *src, size_t n);

/* Copies at most size - 1 bytes of src and always terminates dst.
 * Returns: strlen(src) (a result >= size means truncation); 0 when either
 * pointer is null or size is 0 (deliberately 0, not the source length), and
 * then nothing is written. Unlike qel_wcslcpy. */
QEL_API size_t qel_strlcpy(char *dst, const char *src, size_t size);

/* ---- narrow strings: comparisons ------------------------------------------- */

/* Returns: strcmp(a, b); 0 when either is null. */
QEL_API int qel_strcmp(const char *a, const char *b);

/* Returns: strncmp(a, b, n); 0 when either is null or n is 0. */
QEL_API int qel_strncmp(const char *a, const char *b, size_t n);

/* Returns: strcasecmp(a, b) (the locale's folding); 0 when either is null. */
QEL_API int qel_stricmp(const char *a, const char *b);

/* Returns: strncasecmp(a, b, n); 0 when either is null or n is 0. */
QEL_API int qel_strnicmp(const char *a, const char *b, size_t n);

/* ---- narrow strings: character searches ------------------------------------ */

/* strchr(s, c): searching for 0 finds the terminator.
 * Returns: the first c in s, or null; null for null s. */
QEL_API char *qel_strchr(const char *s, int c);

/* Returns: the first byte b of s with tolower(b) == tolower(c); never the
 * terminator (c = 0 gives null); null for null s. */
QEL_API char *qel_strichr(const char *s, int c);

/* Searches the first n bytes of s, stopping at a terminator.
 * Returns: the first c, or null; null for null s, n = 0 or c = 0. */
QEL_API char *qel_strnchr(const char *s, size_t n, int c);

/* As qel_strnchr, folding case with tolower(). */
QEL_API char *qel_strnichr(const char *s, size_t n, int c);

/* The last c in s. Kept deliberately without a null check: a null s faults.
 * Returns: the last c, or null; c = 0 gives null (the terminator is never
 * found). */
QEL_API char *qel_strrchr(const char *s, int c);

/* Returns: qel_strnirchr(s, qel_strlen(s), c); null for null s. */
QEL_API char *qel_strirchr(const char *s, int c);

/* Scans s[n - 1] down to s[0] and gives up at the first terminator it meets.
 * Returns: the last c among them, or null; null for null s, n = 0 or c = 0. */
QEL_API char *qel_strnrchr(const char *s, size_t n, int c);

/* As qel_strnrchr, folding case with tolower(). */
QEL_API char *qel_strnirchr(const char *s, size_t n, int c);

/* ---- narrow strings: substring searches ------------------------------------ */

/* Returns: strstr(h, needle); null when either is null. */
QEL_API char *qel_strstr(const char *h, const char *needle);

/* Returns: strcasestr(h, needle); null when either is null. */
QEL_API char *qel_stristr(const char *h, const char *needle);

/* The first occurrence of needle lying wholly within the first n bytes of h
 * and before h's terminator; an empty needle matches at h.
 * Returns: the match, or null; null when h or needle is null or n is 0. */
QEL_API char *qel_strnstr(const char *h, size_t n, const char *needle);

/* As qel_strnstr, folding case with tolower(). */
QEL_API char *qel_strnistr(const char *h, size_t n, const char *needle);

/* ---- wide strings (4-byte wchar_t): length, copies ------------------------- */

/* Returns: the length of s in characters; 0 for null. */
QEL_API size_t qel_wcslen(const wchar_t *s);

/* Returns: the length of s, at most max; 0 for null or max 0. */
QEL_API size_t qel_wcsnlen(const wchar_t *s, size_t max);

/* A malloc()ed, terminated copy of s. The caller owns the result and releases
 * it with free().
 * Returns: the copy; null for null s or when the allocation fails. */
QEL_API wchar_t *qel_wcsdup(const wchar_t *s);

/* A malloc()ed copy of the first qel_wcsnlen(s, n) characters of s, always
 * terminated. The caller owns the result and releases it with free().
 * Returns: the copy; null for null s or when the allocation fails. */
QEL_API wchar_t *qel_wcsndup(const wchar_t *s, size_t n);

/* Copies min(len, n) characters of src and fills the rest of the n with
 * zeros, like strncpy (dst is unterminated when len >= n).
 * Returns: dst; null when a pointer is null or n is 0. */
QEL_API wchar_t *qel_wcsncpy(wchar_t *dst, const wchar_t *src, size_t n);

/* Copies min(len + 1, size) characters of src, so a truncated result is NOT
 * terminated. When dst and src are the same pointer nothing is copied.
 * Returns: min(len, size) (truncation returns size, not the source length);
 * qel_wcslen(dst) when dst == src; 0 when a pointer is null or size is 0.
 * Both differences from qel_strlcpy are part of the contract. */
QEL_API size_t qel_wcslcpy(wchar_t *dst, const wchar_t *src, size_t size);

/* ---- wide strings: comparisons ---------------------------------------------- */

/* Compares code points as signed 32-bit values.
 * Returns: -1 or 1 at the first difference, 0 when equal; 0 when either is
 * null or both are the same pointer. */
QEL_API int qel_wcscmp(const wchar_t *a, const wchar_t *b);

/* Compares at most n characters.
 * Returns: the difference a[i] - b[i] of the first differing code points (not
 * +-1, wrapping modulo 2^32); 0 when the first n characters are equal, when
 * either is null, when both are the same pointer or n is 0. */
QEL_API int qel_wcsncmp(const wchar_t *a, const wchar_t *b, size_t n);

/* As qel_wcscmp (-1, 0 or 1) after ASCII folding of both sides; "E" with an
 * acute accent and its lower-case form stay different. */
QEL_API int qel_wcsicmp(const wchar_t *a, const wchar_t *b);

/* As qel_wcsicmp over at most n characters; 0 when n characters matched or n
 * is 0. */
QEL_API int qel_wcsnicmp(const wchar_t *a, const wchar_t *b, size_t n);

/* ---- wide strings: searches -------------------------------------------------- */

/* Returns: the first c in s, never the terminator (c = 0 gives null); null for
 * null s. */
QEL_API wchar_t *qel_wcschr(const wchar_t *s, wchar_t c);

/* As qel_wcschr with ASCII folding. */
QEL_API wchar_t *qel_wcsichr(const wchar_t *s, wchar_t c);

/* Returns: qel_wcsnrchr(s, qel_wcslen(s), c). */
QEL_API wchar_t *qel_wcsrchr(const wchar_t *s, wchar_t c);

/* Returns: qel_wcsnirchr(s, qel_wcslen(s), c). */
QEL_API wchar_t *qel_wcsirchr(const wchar_t *s, wchar_t c);

/* Scans s[n - 1] down to s[0] and gives up at the first terminator it meets.
 * Returns: the last c among them, or null; null for null s, n = 0 or c = 0. */
QEL_API wchar_t *qel_wcsnrchr(const wchar_t *s, size_t n, wchar_t c);

/* As qel_wcsnrchr with ASCII folding. */
QEL_API wchar_t *qel_wcsnirchr(const wchar_t *s, size_t n, wchar_t c);

/* Returns: the first occurrence of needle in h (an empty needle matches at h),
 * or null; null when either is null. */
QEL_API wchar_t *qel_wcsstr(const wchar_t *h, const wchar_t *needle);

/* As qel_wcsstr with ASCII folding. */
QEL_API wchar_t *qel_wcsistr(const wchar_t *h, const wchar_t *needle);

QEL_END_DECLS

#endif /* QEL_STR_H */

/*
 * qel_conv.h: text encoding conversion between UTF-8 and the library's wide
 * strings through the platform's iconv, and three heuristic checks that tell
 * whether a byte buffer looks like ASCII, UTF-8 or marked UTF-16 text.
 *
 * Wide strings are arrays of the platform's 4-byte wchar_t. The conversions
 * keep a historical pairing on purpose: the wide-to-UTF-8 direction hands the
 * wide string's storage (four bytes per character) to the converter as "UCS-2"
 * text, and the UTF-8-to-wide direction writes the converter's 2-byte "UCS-2"
 * units as bytes into the wide buffer. So L"AB" becomes the bytes
 * 'A' 0 'B' 0 (the narrow result reads as "A"), and "AB" becomes the single
 * wide character 0x00420041. Callers of the wide families rely on this
 * round-trip; it is kept.
 *
 * Ownership: qel_str_unicode_to_utf8 and qel_str_utf8_to_unicode return new
 * strings. The caller owns the result and releases it with qel_str_free.
 * Every other function writes only into the caller's buffer.
 *
 * Results: code_convert returns 0 or -1; the _ex conversions return 0 or
 * QEL_E_FAIL; the allocating conversions return the new string or null; the
 * checks return 1 or 0.
 *
 * Null and zero arguments: a null pointer or zero size is refused at once with
 * the failure value (-1, QEL_E_FAIL or null), before anything is written.
 *
 * Thread safety: every function may be called from any thread. Each thread
 * keeps its own converters for the UTF-8/"UCS-2" pair, reset before reuse and
 * closed when the thread ends; a call's result is that of a converter opened
 * for the call.
 *
 * Decisions of this library:
 *  - "UCS-2" has the converter's byte order (little-endian with the platform's
 *    iconv on x86).
 *  - code_convert refuses a null encoding name, input or output with -1
 *    (a zero input length is accepted and converts nothing).
 *  - qel_str_is_utf16 computes a unit as a plain int from two signed bytes, so
 *    its value lies in -32896..32639 and the reversed-mark test (0xFFFE) can
 *    never match; a unit fails only when its high byte is 0 and its low byte
 *    is a byte below 0x80 outside the ASCII text class.
 */
#ifndef QEL_CONV_H
#define QEL_CONV_H

#include <stddef.h>
#include <wchar.h>

#include "qel_export.h"
#include "qel_result.h"

QEL_BEGIN_DECLS

/* Opens a converter with iconv_open(to, from), zero-fills all outlen bytes of
 * out, runs one iconv call over the inlen bytes of in, and closes the
 * converter. An output that is too small, an invalid or an incomplete input
 * sequence is a failure; the partial output stays in out.
 * Returns: 0; -1 if an argument is null, the converter cannot be opened or
 * iconv failed. */
QEL_API int code_convert(const char *from, const char *to, const char *in, size_t inlen, char *out,
                         size_t outlen);

/* Zero-fills size bytes of out and converts the wcslen(w) * 4 bytes of w, read
 * as "UCS-2", to UTF-8 in out. Output too small for the converted text fails.
 * Returns: 0; QEL_E_FAIL if w or out is null, size is 0 or the conversion
 * failed. */
QEL_API qel_result qel_str_unicode_to_utf8_ex(const wchar_t *w, char *out, size_t size);

/* Converts w as qel_str_unicode_to_utf8_ex into a new zeroed buffer of
 * wcslen(w) * 4 + 1 bytes. The caller owns the result and releases it with
 * qel_str_free.
 * Returns: the new string; null if w is null, the conversion failed, or the
 * allocation failed (errno = ENOMEM). */
QEL_API char *qel_str_unicode_to_utf8(const wchar_t *w);

/* Zero-fills count wide characters (count * 4 bytes) of w and converts the
 * strlen(s) bytes of UTF-8 s to "UCS-2", writing the 2-byte units into w's
 * storage.
 * Returns: 0; QEL_E_FAIL if s or w is null, count is 0 (or count * 4 does not
 * fit a size) or the conversion failed. */
QEL_API qel_result qel_str_utf8_to_unicode_ex(const char *s, wchar_t *w, size_t count);

/* Converts s as qel_str_utf8_to_unicode_ex into a new zeroed buffer of
 * strlen(s) + 1 wide characters. The caller owns the result and releases it
 * with qel_str_free.
 * Returns: the new string; null if s is null, the conversion failed, or the
 * allocation failed (errno = ENOMEM). */
QEL_API wchar_t *qel_str_utf8_to_unicode(const char *s);

/* Releases a string from qel_str_unicode_to_utf8 or qel_str_utf8_to_unicode
 * (free); null is ignored. */
QEL_API void qel_str_free(void *str);

/* Character classes of the checks, indexed by byte value:
 *  0 never in text: 0x00-0x06, 0x0B, 0x0E-0x1A, 0x1C-0x1F, 0x7F
 *  1 ASCII text:    0x07-0x0A, 0x0C, 0x0D, 0x1B, 0x20-0x7E, 0x85
 *  2 ISO-8859 text: 0xA0-0xFF
 *  3 other extended characters: 0x80-0x84, 0x86-0x9F */

/* 1 when each of the n bytes of buf is below 0x80 and of a non-zero class
 * (so a NUL inside the length gives 0); n = 0 gives 1.
 * Returns: 1 or 0 (0 for a null buf with n > 0). */
QEL_API int qel_str_is_ascii(const void *buf, size_t n);

/* 1 when the n bytes of buf look like UTF-8 text holding at least one
 * multibyte sequence. A byte below 0x80 must be of class 1. A byte of 0x80 or
 * more leads a sequence: 110xxxxx takes 1 continuation byte, 1110xxxx 2,
 * 11110xxx 3, 111110xx 4, 1111110x 5; 10xxxxxx and 1111111x give 0. Each
 * continuation byte must be 10xxxxxx. A buffer ending inside a sequence
 * returns what the bytes before it gave. Pure ASCII text gives 0; overlong
 * forms, surrogates and 5- and 6-byte forms are accepted.
 * Returns: 1 or 0 (0 for a null buf). */
QEL_API int qel_str_is_utf8(const void *buf, size_t n);

/* 1 when buf starts with a byte-order mark (0xFF 0xFE little-endian, 0xFE 0xFF
 * big-endian) and every complete 2-byte unit after it passes: a unit is low +
 * high * 256 with each byte taken as a signed 8-bit value, and fails if it
 * equals 0xFFFE or lies in 0..127 with a class other than 1. An odd last byte
 * is ignored; a lone mark gives 1.
 * Returns: 1 or 0 (0 when n < 2, without a mark, or for a null buf). */
QEL_API int qel_str_is_utf16(const void *buf, size_t n);

QEL_END_DECLS

#endif /* QEL_CONV_H */

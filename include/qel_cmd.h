/*
 * qel_cmd.h: splitting one command line, narrow or wide, into an argument
 * vector.
 *
 * Only the blank (code 32) separates tokens; tabs and other white space are
 * ordinary characters. Single quotes, double quotes and the escape character
 * keep a blank inside a token from splitting it, and stay in the token as
 * written: the splitter only splits, it never unquotes. A quote left open
 * runs to the end of the line. An escape before a blank does not protect the
 * blank; the escape stays pending and applies to the character after the
 * blank (a rule kept from earlier versions on purpose). At most 1023 tokens
 * are returned; the rest of a longer line is ignored without notice.
 *
 * The three special characters are read through g_symbols / g_wsymbols at
 * every character examined: index 0 the single quote, 1 the double quote,
 * 2 the escape. A host may point them at other characters.
 *
 * Ownership: the vector is one block that the caller releases with
 * qel_cmd_free: the token pointers, a null pointer, then a copy of the whole
 * line in which the character after each token is a terminator. Its size is
 * tokens * sizeof(pointer) + sizeof(pointer) + (length + 1) * sizeof(char
 * type). The token count is returned through *count only; the block does not
 * hold it.
 *
 * Results: the vector, or null. A null line or count pointer, a line with no
 * token (empty or blanks only) and a failed allocation give null and leave
 * *count untouched. No function here logs or exits.
 *
 * Thread safety: the functions keep no state; concurrent calls are safe as
 * long as no thread repoints g_symbols / g_wsymbols meanwhile.
 *
 * Decisions of this implementation: one templated routine serves both
 * widths.
 */
#ifndef QEL_CMD_H
#define QEL_CMD_H

#include <stddef.h>
#include <wchar.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* The single-quote, double-quote and escape characters of the narrow
 * splitter, followed by a terminator: "'", "\"", "\\". Caller may repoint. */
QEL_API extern const char *g_symbols;

/* The same three as wide characters, followed by a wide terminator. Caller
 * may repoint. */
QEL_API extern const wchar_t *g_wsymbols;

/* Splits a narrow command line at blanks outside quotes.
 * Returns: the null-terminated argument vector with *count set to its number
 * of tokens (1..1023); null if line or count is null, if the line holds no
 * token, or if the block cannot be allocated (*count then unchanged). */
QEL_API char **qel_cmd_parse(const char *line, int *count);

/* The same for a wide command line.
 * Returns: as qel_cmd_parse. */
QEL_API wchar_t **qel_cmd_parse_w(const wchar_t *line, int *count);

/* Frees a vector of qel_cmd_parse or qel_cmd_parse_w. Null is ignored. */
QEL_API void qel_cmd_free(void *argv);

QEL_END_DECLS

#endif /* QEL_CMD_H */

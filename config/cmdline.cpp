/*
 * cmdline.cpp: splitting a command line into one block of tokens.
 *
 * One template serves both widths. The scan classifies each character with
 * three flags (inside single quotes, inside double quotes, escape pending)
 * and records (start, end) index pairs in a fixed table of 1023; the block is
 * then sized exactly and filled in one pass.
 */
#include "qel_cmd.h"

#include <string.h>
#include <wchar.h>

#include "base/internal.h"

static_assert(sizeof(wchar_t) == 4, "wide characters are 4 bytes on every supported ABI");

const char *g_symbols = "'\"\\";
const wchar_t *g_wsymbols = L"'\"\\";

namespace {

constexpr int kMaxTokens = 1023;

/* The special characters are fetched at every character examined, so that a
 * host which repoints the exported pointer changes the splitter. */
template <class Ch>
inline const Ch *symbols() noexcept;
template <>
inline const char *symbols<char>() noexcept
{
    return __atomic_load_n(&g_symbols, __ATOMIC_RELAXED);
}
template <>
inline const wchar_t *symbols<wchar_t>() noexcept
{
    return __atomic_load_n(&g_wsymbols, __ATOMIC_RELAXED);
}

inline size_t length(const char *s) noexcept
{
    return strlen(s);
}
inline size_t length(const wchar_t *s) noexcept
{
    return wcslen(s);
}

struct ScanState {
    bool single_quote = false;
    bool double_quote = false;
    bool escape = false;
};

/* True if c separates tokens; updates the state. */
template <class Ch>
inline bool is_separator(Ch c, ScanState &s) noexcept
{
    const Ch *sym = symbols<Ch>();
    if (c == sym[0] && !s.escape && !s.double_quote) {
        s.single_quote = !s.single_quote;
        return false;
    }
    if (c == sym[1] && !s.escape && !s.single_quote) {
        s.double_quote = !s.double_quote;
        return false;
    }
    if (c == sym[2] && !s.escape) {
        s.escape = true;
        return false;
    }
    if (c == static_cast<Ch>(' ') && !s.single_quote && !s.double_quote)
        return true; // the pending escape is neither consulted nor cleared here
    s.escape = false;
    return false;
}

template <class Ch>
Ch **split(const Ch *line, int *count) noexcept
{
    QEL_CHECK(line != nullptr && count != nullptr, nullptr);
    const size_t len = length(line);

    struct Span {
        size_t start, end;
    } spans[kMaxTokens];
    int n = 0;
    bool open = false;
    size_t start = 0;
    ScanState state;
    for (size_t i = 0; i < len; ++i) {
        if (!is_separator(line[i], state)) {
            if (!open) {
                open = true;
                start = i;
            }
        } else if (open) {
            spans[n++] = {start, i};
            open = false;
            if (n == kMaxTokens)
                break; // the rest of the line is ignored
        }
    }
    if (open)
        spans[n++] = {start, len};
    if (n == 0)
        return nullptr;

    size_t text_size, block_size;
    const size_t ptr_size = static_cast<size_t>(n + 1) * sizeof(Ch *);
    if (qel::detail::mul_overflows(len + 1, sizeof(Ch), &text_size) ||
        qel::detail::add_overflows(ptr_size, text_size, &block_size))
        return nullptr;
    void *block = qel::detail::try_calloc(1, block_size);
    if (block == nullptr)
        return nullptr;
    *count = n;
    Ch **argv = static_cast<Ch **>(block);
    Ch *text = reinterpret_cast<Ch *>(static_cast<char *>(block) + ptr_size);
    memcpy(text, line, text_size);
    for (int k = 0; k < n; ++k) {
        argv[k] = text + spans[k].start;
        text[spans[k].end] = Ch(0);
    }
    return argv; // argv[n] is null: the block is zero-filled
}

} // namespace

char **qel_cmd_parse(const char *line, int *count)
{
    return split(line, count);
}

wchar_t **qel_cmd_parse_w(const wchar_t *line, int *count)
{
    return split(line, count);
}

void qel_cmd_free(void *argv)
{
    free(argv);
}

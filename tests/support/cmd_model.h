// The command-line splitter as a reader writes it from its description:
// classify each character, open a token at a non-separator, close it at a
// separator, stop after 1023 tokens. Shared by the splitter's tests and its
// fuzz target as the model to compare with.
#ifndef MORBASE_TEST_CMD_MODEL_H
#define MORBASE_TEST_CMD_MODEL_H

#include <string>
#include <vector>

namespace qeltest {

// sym: single quote, double quote, escape. The line ends at its first NUL.
template <class Ch>
std::vector<std::basic_string<Ch>> model_split(const std::basic_string<Ch> &line, const Ch *sym)
{
    std::vector<std::basic_string<Ch>> out;
    std::basic_string<Ch> cur;
    bool in_token = false, sq = false, dq = false, esc = false;
    for (Ch c : line) {
        if (c == Ch(0))
            break;
        bool sep = false;
        if (c == sym[0] && !esc && !dq)
            sq = !sq;
        else if (c == sym[1] && !esc && !sq)
            dq = !dq;
        else if (c == sym[2] && !esc)
            esc = true;
        else if (c == Ch(' ') && !sq && !dq)
            sep = true; // a pending escape stays pending
        else
            esc = false;
        if (!sep) {
            in_token = true;
            cur.push_back(c);
        } else if (in_token) {
            out.push_back(cur);
            cur.clear();
            in_token = false;
            if (out.size() == 1023)
                return out;
        }
    }
    if (in_token)
        out.push_back(cur);
    return out;
}

} // namespace qeltest

#endif

// Command-line splitting of a 4 KiB line with quotes, against GLib's
// g_shell_parse_argv (which also unquotes; ours only splits).
#include <benchmark/benchmark.h>

#include <string>

#include "qel_cmd.h"

#if MORBASE_HAVE_GLIB
#include <glib.h>
#endif

namespace {

// About 4 KiB: plain words, options, double- and single-quoted phrases and
// an escaped quote, the shapes a service command line holds.
const std::string &line_4k()
{
    static const std::string *line = [] {
        auto *s = new std::string("/usr/sbin/agentd");
        for (int i = 0; s->size() < 4096 - 64; ++i) {
            switch (i % 4) {
            case 0: *s += " --option-" + std::to_string(i) + "=value" + std::to_string(i); break;
            case 1: *s += " \"quoted phrase with blanks " + std::to_string(i) + "\""; break;
            case 2: *s += " 'single quoted " + std::to_string(i) + "'"; break;
            default: *s += " path/to/file" + std::to_string(i) + " a\\\"b"; break;
            }
        }
        return s;
    }();
    return *line;
}

void BM_cmd_parse__qel(benchmark::State &state)
{
    const std::string &line = line_4k();
    for (auto _ : state) {
        int argc = 0;
        char **argv = qel_cmd_parse(line.c_str(), &argc);
        benchmark::DoNotOptimize(argv);
        qel_cmd_free(argv);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_cmd_parse__qel);

void BM_cmd_parse_w__qel(benchmark::State &state)
{
    const std::string &line = line_4k();
    std::wstring wide(line.begin(), line.end());
    for (auto _ : state) {
        int argc = 0;
        wchar_t **argv = qel_cmd_parse_w(wide.c_str(), &argc);
        benchmark::DoNotOptimize(argv);
        qel_cmd_free(argv);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_cmd_parse_w__qel);

#if MORBASE_HAVE_GLIB
void BM_cmd_parse__glib(benchmark::State &state)
{
    const std::string &line = line_4k();
    for (auto _ : state) {
        gint argc = 0;
        gchar **argv = nullptr;
        g_shell_parse_argv(line.c_str(), &argc, &argv, nullptr);
        benchmark::DoNotOptimize(argv);
        g_strfreev(argv);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_cmd_parse__glib);
#endif

} // namespace

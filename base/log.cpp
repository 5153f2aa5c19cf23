// Logging through host-registered sinks, stack dumps, load-time set-up, and
// the fatal out-of-memory rule.

#include "qel_log.h"

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <err.h>
#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/internal.h"

namespace {

// The one sink table of the process. Slots are read and written with relaxed
// atomics: no lock is taken (registration belongs to start-up and shut-down),
// but a racing register and log is a benign race, not undefined behaviour.
qel_log_sink g_sinks[QEL_LOG_SINKS];

inline qel_log_sink load_slot(int i)
{
    return std::atomic_ref<qel_log_sink>(g_sinks[i]).load(std::memory_order_relaxed);
}

inline void store_slot(int i, qel_log_sink s)
{
    std::atomic_ref<qel_log_sink>(g_sinks[i]).store(s, std::memory_order_relaxed);
}

constexpr int kBacktraceDepth = 25;

} // namespace

namespace qel::detail {

void backtrace_selfcheck()
{
    // Standard error, not the sinks: they may be what is broken.
    if (com_backtrace_dump_str() != 0)
        warn("call backtrace_dump_str failed");
}

void log_vdispatch(unsigned int level, const char *format, va_list args)
{
    if (level > 3)
        level = 1; // unknown and negative levels are warnings, deliberately not errors
    for (int i = 0; i < QEL_LOG_SINKS; ++i) {
        qel_log_sink s = load_slot(i);
        if (s == nullptr)
            continue;
        // Every sink gets the same, unconsumed list.
        va_list copy;
        va_copy(copy, args);
        s(level, format, copy);
        va_end(copy);
    }
}

void oom_exit(const char *module, int line, bool lower_case)
{
    if (lower_case)
        qel_log_output(0, "[PID:%-5ld]\t[ERROR]\t%-10s [%s(%d)] out of memory\n", static_cast<long>(getpid()),
                       QEL_LOG_TAG, module, line);
    else
        qel_log_output(0, "[PID:%-5ld]\t[ERROR]\t%-10s [%s(%d)] Out of memory\n", static_cast<long>(getpid()),
                       QEL_LOG_TAG, module, line);
    // Exit status 0 on purpose: the process ends quietly rather than as a crash.
    exit(0);
}

const char *result_name(uint32_t code) noexcept
{
    switch (code) {
#define QEL_RESULT_NAME(name, value, meaning)                                                      \
    case value:                                                                                    \
        return #name;
        QEL_RESULT_MAP(QEL_RESULT_NAME)
#undef QEL_RESULT_NAME
    default:
        return nullptr;
    }
}

} // namespace qel::detail

int qel_log_output_register(qel_log_sink sink)
{
    QEL_CHECK(sink != nullptr, -1);
    for (int i = 0; i < QEL_LOG_SINKS; ++i) {
        if (load_slot(i) == nullptr) {
            store_slot(i, sink);
            return 0;
        }
    }
    return -1;
}

int qel_log_output_unregister(qel_log_sink sink)
{
    QEL_CHECK(sink != nullptr, -1);
    for (int i = 0; i < QEL_LOG_SINKS; ++i) {
        if (load_slot(i) == sink) {
            store_slot(i, nullptr);
            return 0;
        }
    }
    return -1;
}

void qel_log_output(unsigned int level, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    qel::detail::log_vdispatch(level, format, ap);
    va_end(ap);
}

void com_backtrace_dump(int fd)
{
    void *frames[kBacktraceDepth];
    int n = backtrace(frames, kBacktraceDepth);
    backtrace_symbols_fd(frames, n, fd);
}

int com_backtrace_dump_str(void)
{
    void *frames[kBacktraceDepth];
    int n = backtrace(frames, kBacktraceDepth);
    char **symbols = backtrace_symbols(frames, n);
    if (symbols == nullptr)
        return -1;
    free(symbols); // only whether symbolisation works matters
    return 0;
}

int dump_stack(void *record)
{
    if (record == nullptr)
        return 0;
    // Module record: 32-bit process id, then 32-bit kernel thread id.
    const int32_t *fields = static_cast<const int32_t *>(record);
    syscall(SYS_tkill, static_cast<long>(fields[1]), SIGRTMIN + 1);
    usleep(2000000); // let the target write its stack before the caller goes on
    return 0;
}

__attribute__((constructor)) void base_init(void)
{
    signal(SIGPIPE, SIG_IGN);
}

__attribute__((destructor)) void base_uninit(void)
{
}


/*
 * qel_log.h: logging through sinks that the host registers, stack dumps, and
 * the library's load-time set-up.
 *
 * The library writes no log file. It keeps one process-wide table of 10 sink
 * pointers, shared by the qel_log_* calls and the unprefixed log_output* calls.
 * Every diagnostic the library produces is handed, unformatted, to each
 * registered sink in slot order; the sink formats it.
 *
 * Levels: 0 is an error ("[ERROR]" lines), 1 a warning ("[WARN]" lines); 2 and
 * 3 are passed through unchanged; any other level, taken as unsigned, becomes 1.
 *
 * Library lines have these shapes (pid, the tag "[MOR]", module, source line):
 *   "[PID:%-5ld]\t[ERROR]\t%-10s [%s(%d)] Out of memory\n"   then exit(0)
 *   "[PID:%-5ld]\t[WARN]\t%-10s [%s(%d)] "  followed by the message
 *
 * Thread safety: no lock is taken. Register and unregister at start-up and
 * shut-down; a sink must be callable from any thread that logs.
 */
#ifndef QEL_LOG_H
#define QEL_LOG_H

#include <stdarg.h>
#include <stdint.h>

#include "qel_export.h"
#include "qel_result.h"

QEL_BEGIN_DECLS

/* A log sink: receives the level, the printf-style format and the argument
 * list. The list is the caller's; a sink may consume it. */
typedef void (*qel_log_sink)(unsigned int level, const char *format, va_list args);

/* The number of sink slots. */
#define QEL_LOG_SINKS 10

/* Stores the sink in the first free slot. No duplicate check: a sink
 * registered twice is called twice per message.
 * Returns: 0 if stored; -1 if sink is null or all 10 slots are taken. */
QEL_API int qel_log_output_register(qel_log_sink sink);

/* Clears the first slot holding the sink (one slot only).
 * Returns: 0 if found and cleared; -1 if sink is null or not registered. */
QEL_API int qel_log_output_unregister(qel_log_sink sink);

/* Hands level and format with an unconsumed copy of the arguments to each
 * registered sink, slot 0 to 9, skipping empty slots. A level above 3 (as
 * unsigned) is passed as 1. */
QEL_API void qel_log_output(unsigned int level, const char *format, ...) QEL_PRINTF(2, 3);

/* Unprefixed twins over the same table. */
QEL_API int log_output_register(qel_log_sink sink);
QEL_API int log_output_unregister(qel_log_sink sink);
QEL_API void log_output(unsigned int level, const char *format, ...) QEL_PRINTF(2, 3);

/* Writes at most 25 symbolised return addresses of the calling thread to fd. */
QEL_API void com_backtrace_dump(int fd);

/* Checks that the calling thread's stack (25 frames at most) can be
 * symbolised; prints nothing.
 * Returns: 0 if symbolised, -1 if not. */
QEL_API int com_backtrace_dump_str(void);

/* Sends SIGRTMIN + 1 with tkill to the kernel thread id held in the second
 * 32-bit field of a module record (first field: process id), then sleeps two
 * seconds so that the target can write its stack. The library installs no
 * handler for that signal: the host does, or the signal ends the process.
 * A null record sends nothing and returns at once.
 * Returns: 0, always. */
QEL_API int dump_stack(void *record);

/* Load-time constructor (SIGPIPE ignored) and unload-time destructor (does
 * nothing). Host programs need not call them. */
QEL_API void base_init(void);
QEL_API void base_uninit(void);

QEL_END_DECLS

#endif /* QEL_LOG_H */

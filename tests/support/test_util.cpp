#include "support/test_util.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qeltest {
namespace {

std::vector<LogCapture::Line> g_lines;

void capture_sink(unsigned int level, const char *format, va_list args)
{
    char buf[4096];
    vsnprintf(buf, sizeof buf, format, args);
    g_lines.push_back({level, buf});
}

} // namespace

LogCapture::LogCapture()
{
    g_lines.clear();
    qel_log_output_register(capture_sink);
}

LogCapture::~LogCapture()
{
    qel_log_output_unregister(capture_sink);
    g_lines.clear();
}

const std::vector<LogCapture::Line> &LogCapture::lines() const
{
    return g_lines;
}

void LogCapture::clear()
{
    g_lines.clear();
}

void stderr_sink(unsigned int /*level*/, const char *format, va_list args)
{
    vfprintf(stderr, format, args);
    fflush(stderr);
}

ChildResult run_in_child(const std::function<int()> &fn, int timeout_ms)
{
    ChildResult r;
    int fds[2];
    if (pipe(fds) != 0)
        return r;
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return r;
    }
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        close(fds[1]);
        int rc = fn();
        fflush(stdout);
        fflush(stderr);
        _exit(rc);
    }
    close(fds[1]);
    int64_t deadline = now_ms() + timeout_ms;
    char buf[4096];
    for (;;) {
        int64_t left = deadline - now_ms();
        if (left <= 0) {
            r.timed_out = true;
            kill(pid, SIGKILL);
            break;
        }
        struct pollfd p = {fds[0], POLLIN, 0};
        int n = poll(&p, 1, static_cast<int>(left));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            continue;
        ssize_t got = read(fds[0], buf, sizeof buf);
        if (got <= 0)
            break;
        r.output.append(buf, static_cast<size_t>(got));
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        r.exited = true;
        r.status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        r.signal = WTERMSIG(status);
    }
    return r;
}

uint64_t test_seed()
{
    const char *s = getenv("MORBASE_TEST_SEED");
    return s != nullptr ? strtoull(s, nullptr, 0) : 0x5EED5318u;
}

std::string Rng::bytes(size_t n, unsigned char lo, unsigned char hi)
{
    std::string s(n, '\0');
    for (auto &c : s)
        c = static_cast<char>(range(lo, hi));
    return s;
}

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

} // namespace qeltest

// Loaded in front of a real server, to log to a file what it would say to the system's log: a
// machine for tests has none, and it is no place for a test to read from. It also lets the server
// run as an ordinary user, where it has no other user to become.

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

namespace {

constexpr size_t kLineSize = 8192;

int openLog()
{
    const char *path = std::getenv("KELPWHARF_SERVER_LOG");
    return path ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666) : -1;
}

// Opened once, at the start: later the server may not be allowed to.
const int logFile = openLog();
const bool startedAsRoot = geteuid() == 0;

/** Takes what vsnprintf() made: its result, which counts also what did not fit, and its buffer. */
void logLine(int length, char (&line)[kLineSize])
{
    if (length < 0)
        return;
    const auto end = std::min<size_t>(static_cast<size_t>(length), kLineSize - 1);
    line[end] = '\n';
    if (write(logFile, line, end + 1) < 0)
        std::perror("cannot log");
}

template <typename Function>
Function systemFunction(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

void syslog(int, const char *format, ...)
{
    char line[kLineSize];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not know va_start()
    const int length = std::vsnprintf(line, kLineSize, format, arguments);
    va_end(arguments);
    logLine(length, line);
}

// What syslog() becomes in a program that is built with the usual hardening.
void __syslog_chk(int, int, const char *format, ...) // NOLINT(bugprone-reserved-identifier)
{
    char line[kLineSize];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not know va_start()
    const int length = std::vsnprintf(line, kLineSize, format, arguments);
    va_end(arguments);
    logLine(length, line);
}

int setgroups(size_t count, const gid_t *groups) noexcept
{
    return startedAsRoot ? systemFunction<decltype(&setgroups)>("setgroups")(count, groups) : 0;
}

int seteuid(uid_t user) noexcept
{
    return startedAsRoot ? systemFunction<decltype(&seteuid)>("seteuid")(user) : 0;
}

} // extern "C"

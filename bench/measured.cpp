// Runs a command and writes what it took to a file, as JSON: seconds on the clock, seconds of CPU,
// peak memory. It is small itself because a process inherits the peak memory of whoever started it.
//
//   measured REPORT-FILE COMMAND [ARGUMENT...]     Exits as the command does, or with 127 if killed.

#include <chrono>
#include <cstdio>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

double seconds(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 3) {
        std::fputs("measured REPORT-FILE COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child < 0)
        return 127;
    if (child == 0) {
        execvp(argv[2], argv + 2);
        std::perror(argv[2]);
        _exit(127);
    }
    int status = 0;
    rusage used = {};
    if (wait4(child, &status, 0, &used) != child)
        return 127;
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;

    FILE *report = std::fopen(argv[1], "w");
    if (!report) {
        std::perror(argv[1]);
        return 127;
    }
    std::fprintf(report, "{\"wall\": %.6f, \"cpu\": %.6f, \"mib\": %.3f}\n", wall.count(),
                 seconds(used.ru_utime) + seconds(used.ru_stime),
                 static_cast<double>(used.ru_maxrss) / 1024.0);
    std::fclose(report);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 127;
}

// Runs a program and tells what it took.
//
//     bench_run RESULT PROGRAM [ARGUMENT...]
//
// RESULT gets a line: wall seconds, user CPU seconds, peak memory in bytes, bytes
// read by calls, bytes read from disk. The exit status is the program's.
//
// A process counts the memory of the one that started it as its own until it has
// its program. This one is small, so that the peak is the program's.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it to the program

namespace {

[[noreturn]] void fail(char const* what, int code) {
    std::fprintf(stderr, "bench_run: %s: %s\n", what, std::strerror(code));
    std::exit(125);
}

struct Reading {
    unsigned long long by_calls = 0;
    unsigned long long from_disk = 0;
};

// Of a process that has ended and is not yet waited for.
Reading reading_of(pid_t pid) {
    std::string const path = "/proc/" + std::to_string(pid) + "/io";
    std::FILE* const file = std::fopen(path.c_str(), "r");
    if (file == nullptr) fail(path.c_str(), errno);
    Reading reading;
    char line[64];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (std::strncmp(line, "rchar: ", 7) == 0) {
            reading.by_calls = std::strtoull(line + 7, nullptr, 10);
        } else if (std::strncmp(line, "read_bytes: ", 12) == 0) {
            reading.from_disk = std::strtoull(line + 12, nullptr, 10);
        }
    }
    std::fclose(file);
    return reading;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fputs("usage: bench_run RESULT PROGRAM [ARGUMENT...]\n", stderr);
        return 2;
    }
    using Clock = std::chrono::steady_clock;
    Clock::time_point const begin = Clock::now();
    pid_t pid = 0;
    int const code = posix_spawnp(&pid, argv[2], nullptr, nullptr, argv + 2, environ);
    if (code != 0) fail(argv[2], code);
    siginfo_t info = {};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0) fail("wait", errno);
    double const wall = std::chrono::duration<double>(Clock::now() - begin).count();
    Reading const reading = reading_of(pid);
    int status = 0;
    rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid) fail("wait", errno);

    std::FILE* const result = std::fopen(argv[1], "w");
    if (result == nullptr) fail(argv[1], errno);
    double const user = static_cast<double>(usage.ru_utime.tv_sec) +
                        static_cast<double>(usage.ru_utime.tv_usec) * 1e-6;
    std::fprintf(result, "%.6f %.6f %lld %llu %llu\n", wall, user, usage.ru_maxrss * 1024LL,
                 reading.by_calls, reading.from_disk);
    if (std::fclose(result) != 0) fail(argv[1], errno);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

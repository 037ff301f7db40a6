// A library to be preloaded, so that a program that knows nothing of it runs while
// calls of the system fail. Two variables of the environment tell it:
//
//   TESK_FAULTS         words, such as "write:3:28" (the third write fails with errno
//                       28), "read:2:5+" (the second and all later ones do), "bytes:1"
//                       (at most so many are read or written at a time), "interrupts"
//   TESK_FAULTS_REPORT  a file of N_CALLS 64-bit numbers, which become the numbers of
//                       calls of each kind

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tests/support/system_faults.h"

namespace tesk::test {

namespace {

struct Report {
    std::uint64_t n_calls[N_CALLS];
};

SystemFaults system_faults;
Report* report = nullptr;

// The report follows each call, as nobody knows which one is the last.
void count(Call call, std::uint64_t number, void* /*data*/) {
    if (report != nullptr) report->n_calls[static_cast<std::size_t>(call)] = number;
}

void open_report(char const* path) {
    auto const fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
    if (fd < 0) return;
    void* const place = ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (place != MAP_FAILED) report = static_cast<Report*>(place);
    ::close(fd);
}

bool read_fault(char const* word, SystemFault& fault) {
    char name[16] = {};
    char plus = '\0';
    unsigned long number = 0;
    int const n = std::sscanf(word, "%15[a-z]:%lu:%d%c", name, &number, &fault.error, &plus);
    if (n < 3) return false;
    fault.number = number;
    fault.lasts = n == 4 && plus == '+';
    for (std::size_t i = 0; i < N_CALLS; ++i) {
        fault.call = static_cast<Call>(i);
        if (std::strcmp(name, name_of(fault.call)) == 0) return true;
    }
    return false;
}

void read_words(char const* words) {
    std::size_t n_faults = 0;
    char word[64];
    for (int n = 0; std::sscanf(words, "%63s%n", word, &n) == 1; words += n) {
        SystemFault fault;
        if (std::strcmp(word, "interrupts") == 0) {
            system_faults.interrupts = true;
        } else if (std::sscanf(word, "bytes:%zu", &system_faults.most_bytes) != 1) {
            if (!read_fault(word, fault) || n_faults == SystemFaults::MAX_FAULTS) std::abort();
            system_faults.faults[n_faults++] = fault;
        }
    }
}

__attribute__((constructor)) void begin() {
    char const* const path = std::getenv("TESK_FAULTS_REPORT");
    char const* const words = std::getenv("TESK_FAULTS");
    if (path != nullptr) open_report(path);
    if (words != nullptr) read_words(words);
    system_faults.before = count;
    set_system_faults(&system_faults);
}

}  // namespace

}  // namespace tesk::test

// NOLINTBEGIN(bugprone-reserved-identifier): the names of the C library
extern "C" {

void* __libc_malloc(std::size_t n);
void* __libc_calloc(std::size_t n, std::size_t size);
void* __libc_realloc(void* block, std::size_t n);

void* malloc(std::size_t n) noexcept {
    return tesk::test::fails(tesk::test::Call::MALLOC) ? nullptr : __libc_malloc(n);
}

void* calloc(std::size_t n, std::size_t size) noexcept {
    return tesk::test::fails(tesk::test::Call::MALLOC) ? nullptr : __libc_calloc(n, size);
}

void* realloc(void* block, std::size_t n) noexcept {
    return tesk::test::fails(tesk::test::Call::MALLOC) ? nullptr : __libc_realloc(block, n);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

#include "tests/support/system_faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace tesk::test {

namespace {

std::atomic<SystemFaults*> present{nullptr};

// The system's own function of a name.
template <typename Function>
Function* next(char const* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool is_hit(SystemFault const& fault, Call call, std::uint64_t number) {
    if (fault.call != call || fault.number == 0) return false;
    return number == fault.number || (fault.lasts && number > fault.number);
}

enum class Fate { SUCCEEDS, FAILS, ENDS };

// Counts a call. Where it is to fail, errno says why.
Fate fate_of(SystemFaults& system, Call call) {
    std::uint64_t const number = ++system.n_calls[static_cast<std::size_t>(call)];
    if (system.before != nullptr) system.before(call, number, system.data);
    for (SystemFault const& fault : system.faults) {
        if (!is_hit(fault, call, number)) continue;
        errno = fault.error;
        return fault.error == 0 ? Fate::ENDS : Fate::FAILS;
    }
    return Fate::SUCCEEDS;
}

// The same for a call that moves `n` bytes, of which it may have to leave some.
Fate fate_of_transfer(Call call, std::size_t& n) {
    SystemFaults* const system = present;
    if (system == nullptr) return Fate::SUCCEEDS;
    if (system->interrupts && !system->interrupts_next.exchange(!system->interrupts_next)) {
        errno = EINTR;
        return Fate::FAILS;
    }
    n = std::min(n, system->most_bytes);
    return fate_of(*system, call);
}

ssize_t result_of(Fate fate) { return fate == Fate::FAILS ? -1 : 0; }

}  // namespace

bool fails(Call call) {
    SystemFaults* const system = present;
    return system != nullptr && fate_of(*system, call) == Fate::FAILS;
}

void set_system_faults(SystemFaults* faults) { present = faults; }

}  // namespace tesk::test

extern "C" {

using tesk::test::Call;
using tesk::test::fails;
using tesk::test::Fate;
using tesk::test::fate_of_transfer;
using tesk::test::next;
using tesk::test::result_of;

int open(char const* path, int flags, ...) {
    static auto* const real = next<int(char const*, int, ...)>("open");
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return fails(Call::OPEN) ? -1 : real(path, flags, mode);
}

FILE* fopen64(char const* path, char const* mode) {
    static auto* const real = next<FILE*(char const*, char const*)>("fopen64");
    return fails(Call::OPEN) ? nullptr : real(path, mode);
}

int mkostemp(char* path, int flags) {
    static auto* const real = next<int(char*, int)>("mkostemp");
    return fails(Call::OPEN) ? -1 : real(path, flags);
}

int close(int fd) {
    static auto* const real = next<int(int)>("close");
    int const result = real(fd);
    return fails(Call::CLOSE) ? -1 : result;
}

int fclose(FILE* file) {
    static auto* const real = next<int(FILE*)>("fclose");
    int const result = real(file);
    return fails(Call::CLOSE) ? EOF : result;
}

ssize_t read(int fd, void* place, std::size_t n) {
    static auto* const real = next<ssize_t(int, void*, std::size_t)>("read");
    Fate const fate = fate_of_transfer(Call::READ, n);
    return fate == Fate::SUCCEEDS ? real(fd, place, n) : result_of(fate);
}

ssize_t pread(int fd, void* place, std::size_t n, off_t offset) {
    static auto* const real = next<ssize_t(int, void*, std::size_t, off_t)>("pread");
    Fate const fate = fate_of_transfer(Call::READ, n);
    return fate == Fate::SUCCEEDS ? real(fd, place, n, offset) : result_of(fate);
}

ssize_t write(int fd, void const* bytes, std::size_t n) {
    static auto* const real = next<ssize_t(int, void const*, std::size_t)>("write");
    Fate const fate = fate_of_transfer(Call::WRITE, n);
    return fate == Fate::SUCCEEDS ? real(fd, bytes, n) : result_of(fate);
}

// Writes bytes of the first piece that has any, where it has to leave some.
ssize_t writev(int fd, iovec const* pieces, int n_pieces) {
    static auto* const real = next<ssize_t(int, iovec const*, int)>("writev");
    std::size_t n = 0;
    for (int i = 0; i < n_pieces; ++i) n += pieces[i].iov_len;
    std::size_t const n_wanted = n;
    Fate const fate = fate_of_transfer(Call::WRITE, n);
    if (fate != Fate::SUCCEEDS) return result_of(fate);
    if (n == n_wanted) return real(fd, pieces, n_pieces);
    while (pieces->iov_len == 0) ++pieces;
    iovec const part = {pieces->iov_base, std::min(n, pieces->iov_len)};
    return real(fd, &part, 1);
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
    static auto* const real = next<off_t(int, off_t, int)>("lseek");
    return fails(Call::SEEK) ? -1 : real(fd, offset, whence);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
    static auto* const real = next<off64_t(int, off64_t, int)>("lseek64");
    return fails(Call::SEEK) ? -1 : real(fd, offset, whence);
}

int dup(int fd) noexcept {
    static auto* const real = next<int(int)>("dup");
    return fails(Call::DUP) ? -1 : real(fd);
}

int stat(char const* path, struct stat* status) noexcept {
    static auto* const real = next<int(char const*, struct stat*)>("stat");
    return fails(Call::STAT) ? -1 : real(path, status);
}

int lstat(char const* path, struct stat* status) noexcept {
    static auto* const real = next<int(char const*, struct stat*)>("lstat");
    return fails(Call::LSTAT) ? -1 : real(path, status);
}

int link(char const* from, char const* to) noexcept {
    static auto* const real = next<int(char const*, char const*)>("link");
    return fails(Call::LINK) ? -1 : real(from, to);
}

int rename(char const* from, char const* to) noexcept {
    static auto* const real = next<int(char const*, char const*)>("rename");
    return fails(Call::RENAME) ? -1 : real(from, to);
}

int chmod(char const* path, mode_t mode) noexcept {
    static auto* const real = next<int(char const*, mode_t)>("chmod");
    return fails(Call::CHMOD) ? -1 : real(path, mode);
}

void* mmap(void* place, std::size_t n, int protection, int flags, int fd, off_t offset) noexcept {
    static auto* const real = next<void*(void*, std::size_t, int, int, int, off_t)>("mmap");
    return fails(Call::MMAP) ? MAP_FAILED : real(place, n, protection, flags, fd, offset);
}

}  // extern "C"

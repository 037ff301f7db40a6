// Calls of the system that fail on request. Who links system_faults.cpp into a program,
// or into a library that is preloaded, has the C and C++ libraries' own calls go
// through it, too.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace tesk::test {

/// Calls of one kind, which are counted together.
enum class Call {
    OPEN,    // open(), fopen(), mkostemp()
    CLOSE,   // close(), fclose(): what they close is closed nevertheless
    READ,    // read(), pread()
    WRITE,   // write(), writev(): nothing is written
    SEEK,    // lseek()
    DUP,     // dup()
    STAT,    // stat()
    LSTAT,   // lstat()
    LINK,    // link()
    RENAME,  // rename()
    CHMOD,   // chmod()
    MMAP,    // mmap()
    MALLOC,  // malloc(), calloc(), realloc(); in preloaded libraries alone
};
constexpr std::size_t N_CALLS = 13;

/// The name of a kind, such as "rename".
constexpr char const* name_of(Call call) {
    constexpr char const* NAMES[N_CALLS] = {"open",  "close", "read",  "write", "seek",
                                            "dup",   "stat",  "lstat", "link",  "rename",
                                            "chmod", "mmap",  "malloc"};
    return NAMES[static_cast<std::size_t>(call)];
}

/// A call that fails.
struct SystemFault {
    Call call = Call::READ;
    std::uint64_t number = 0;  // of the call among those of its kind, from 1; 0: none
    int error = 0;             // errno; 0, of Call::READ alone: the file ends there
    bool lasts = false;        // all later calls of the kind fail, too
};

/// What the system does.
struct SystemFaults {
    static constexpr std::size_t MAX_FAULTS = 2;

    SystemFault faults[MAX_FAULTS];
    std::size_t most_bytes = std::numeric_limits<std::size_t>::max();  // a call reads or writes
    bool interrupts = false;  // every other reading or writing call fails with EINTR
    // Is called before each call of a kind with its number, if not null.
    void (*before)(Call call, std::uint64_t number, void* data) = nullptr;
    void* data = nullptr;

    std::atomic<std::uint64_t> n_calls[N_CALLS] = {};  // so far
    std::atomic<bool> interrupts_next{false};

    std::uint64_t calls_of(Call call) const { return n_calls[static_cast<std::size_t>(call)]; }
};

/// Counts a call, and says whether it is to fail; errno then says why.
bool fails(Call call);

/// Has the system follow `faults`; null: it works as it should.
void set_system_faults(SystemFaults* faults);

/// Faults that last as long as the object.
class SystemFaultScope {
public:
    explicit SystemFaultScope(SystemFaults& faults) { set_system_faults(&faults); }
    ~SystemFaultScope() { set_system_faults(nullptr); }
    SystemFaultScope(SystemFaultScope const&) = delete;
    SystemFaultScope& operator=(SystemFaultScope const&) = delete;
};

}  // namespace tesk::test

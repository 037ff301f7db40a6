#include "tools/temporary_path.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "tools/message.h"
#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

// What the signal handler removes. A fixed array, since the handler may neither
// allocate nor take a lock; it changes only while signals are blocked.
struct Slot {
    volatile std::sig_atomic_t used = 0;
    char path[PATH_MAX] = {};
};
constexpr int N_SLOTS = 4;
Slot slots[N_SLOTS];

// Signals whose default action ends the process. SIGKILL cannot be caught;
// SIGXFSZ is ignored, so that a file that grows too large is a write error.
constexpr int FATAL_SIGNALS[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGABRT, SIGBUS,  SIGSEGV,   SIGPIPE,
                                 SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGXCPU, SIGVTALRM, SIGPROF};

extern "C" void remove_and_die(int signal_number) {
    for (Slot& slot : slots) {
        if (slot.used != 0) ::unlink(slot.path);
    }
    std::signal(signal_number, SIG_DFL);
    std::raise(signal_number);  // takes effect when the handler returns
}

// A signal that the caller of the tool ignores (as nohup does), or that another
// part of the process handles, stays as it is.
void install_handlers() {
    static bool installed = false;
    if (installed) return;
    installed = true;
    struct sigaction action = {};
    action.sa_handler = remove_and_die;
    sigfillset(&action.sa_mask);
    for (int const signal_number : FATAL_SIGNALS) {
        struct sigaction before = {};
        if (sigaction(signal_number, nullptr, &before) != 0) continue;
        bool const by_default = (before.sa_flags & SA_SIGINFO) == 0 && before.sa_handler == SIG_DFL;
        if (by_default) sigaction(signal_number, &action, nullptr);
    }
}

// Signals must be blocked.
int occupy_slot(std::string const& path) {
    install_handlers();
    for (int i = 0; i < N_SLOTS; ++i) {
        if (slots[i].used != 0) continue;
        std::memcpy(slots[i].path, path.c_str(), path.size() + 1);
        slots[i].used = 1;
        return i;
    }
    throw ToolError("too many temporary files");
}

void check_length(std::string const& path) {
    if (path.size() >= PATH_MAX) throw ToolError("cannot create " + path + ": name too long");
}

// The longest part of a target's name that its temporary name repeats, in
// bytes: names may have 255, and dots, marker and ".bai" come on top.
constexpr std::size_t MAX_NAME_PART = 200;

std::string template_beside(std::string const& target) {
    std::size_t const slash = target.rfind('/');
    std::size_t const name = slash == std::string::npos ? 0 : slash + 1;
    return target.substr(0, name) + "." + target.substr(name, MAX_NAME_PART) + ".tesk-XXXXXX";
}

}  // namespace

SignalBlock::SignalBlock() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
}

SignalBlock::~SignalBlock() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

// Signals must be blocked.
TemporaryPath::TemporaryPath(std::string path, int fd)
    : path_(std::move(path)), fd_(fd), slot_(occupy_slot(path_)) {}

TemporaryPath TemporaryPath::make_beside(std::string const& target) {
    std::string path = template_beside(target);
    check_length(path);
    SignalBlock const block;
    int const fd = ::mkostemp(path.data(), O_CLOEXEC);
    if (fd < 0) throw ToolError(with_errno("cannot create a file beside " + target));
    return {std::move(path), fd};
}

TemporaryPath TemporaryPath::make_file(std::string const& path) {
    check_length(path);
    SignalBlock const block;
    int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) throw ToolError(with_errno("cannot create " + path));
    return {path, fd};
}

TemporaryPath TemporaryPath::make_link(std::string const& path, std::string const& target) {
    check_length(path);
    SignalBlock const block;
    if (::symlink(target.c_str(), path.c_str()) != 0) {
        throw ToolError(with_errno("cannot create " + path));
    }
    return {path, -1};
}

TemporaryPath::TemporaryPath(TemporaryPath&& other) noexcept
    : path_(std::move(other.path_)), fd_(other.fd_), slot_(other.slot_) {
    other.path_.clear();
    other.fd_ = -1;
}

TemporaryPath::~TemporaryPath() {
    if (fd_ >= 0) ::close(fd_);
    if (path_.empty()) return;
    SignalBlock const block;
    ::unlink(path_.c_str());
    slots[slot_].used = 0;
}

bool TemporaryPath::rename_to(std::string const& target) {
    SignalBlock const block;
    if (std::rename(path_.c_str(), target.c_str()) != 0) return false;
    slots[slot_].used = 0;
    path_.clear();
    return true;
}

}  // namespace tesk::tool

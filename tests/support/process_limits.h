// What a process may use, and what it does use.

#pragma once

#include <sys/resource.h>

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <iterator>

namespace tesk::test {

/// Files cannot grow beyond a size while this lives, and no signal says so.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t n) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit const limit{n, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    FileSizeLimit(FileSizeLimit const&) = delete;
    FileSizeLimit& operator=(FileSizeLimit const&) = delete;

private:
    void (*handler_)(int);
    rlimit before_{};
};

/// Number of descriptors that this process has open.
inline std::ptrdiff_t n_open_files() {
    auto const entries = std::filesystem::directory_iterator("/proc/self/fd");
    return std::distance(begin(entries), end(entries)) - 1;  // but for that of the folder
}

}  // namespace tesk::test

// Descriptors that are closed with their owner.

#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

namespace tesk::test {

/// A file that is created, or emptied, and open for writing.
class OpenFile {
public:
    explicit OpenFile(std::string const& path)
        : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644)) {}
    ~OpenFile() { ::close(fd_); }
    OpenFile(OpenFile const&) = delete;
    OpenFile& operator=(OpenFile const&) = delete;

    int fd() const { return fd_; }

private:
    int fd_;
};

}  // namespace tesk::test

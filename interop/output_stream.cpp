#include "interop/output_stream.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace tesk::interop {

namespace {

// Waits until a descriptor that does not block has room again.
void wait_for_room(int fd) {
    pollfd descriptor{fd, POLLOUT, 0};
    poll(&descriptor, 1, -1);
}

}  // namespace

OutputStream::OutputStream(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

bool OutputStream::append(std::string_view bytes) {
    if (bytes.size() >= PIECE_BYTES) return flush() && write_all(bytes);
    gathered_.append(bytes);
    return gathered_.size() < PIECE_BYTES || flush();
}

bool OutputStream::take(char const* end) {
    gathered_.set_end(end);
    return gathered_.size() < PIECE_BYTES || flush();
}

bool OutputStream::flush() {
    if (!write_all(gathered_.view())) return false;
    gathered_.clear();
    return true;
}

bool OutputStream::write_all(std::string_view bytes) {
    if (!error_message.empty()) return false;
    while (!bytes.empty()) {
        ssize_t const n = ::write(fd_, bytes.data(), bytes.size());
        if (n > 0) {
            n_written_ += static_cast<std::uint64_t>(n);
            bytes.remove_prefix(static_cast<std::size_t>(n));
        } else if (n < 0 && errno == EAGAIN) {
            wait_for_room(fd_);
        } else if (n == 0 || errno != EINTR) {
            return fail(n == 0 ? EIO : errno);
        }
    }
    return true;
}

bool OutputStream::fail(int error_number) {
    error_message =
        "cannot write to " + name_ + ": " + std::generic_category().message(error_number);
    return false;
}

}  // namespace tesk::interop

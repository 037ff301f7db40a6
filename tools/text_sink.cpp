#include "tools/text_sink.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "tools/message.h"
#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

constexpr std::size_t PIECE_BYTES = std::size_t{1} << 20;

}  // namespace

void TextSink::write(std::string_view text) {
    pending_ += text;
    if (pending_.size() >= PIECE_BYTES) flush();
}

void TextSink::flush() {
    std::size_t done = 0;
    while (done < pending_.size()) {
        ssize_t const n = ::write(fd_, pending_.data() + done, pending_.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw ToolError(with_errno("cannot write to " + name_));
        done += static_cast<std::size_t>(n);
    }
    pending_.clear();
}

void TextSink::finish() {
    flush();
    check_delayed_errors(fd_, name_);
}

void check_delayed_errors(int fd, std::string const& name) {
    // Some file systems report a full disk only when a descriptor is closed; a
    // duplicate makes them do so and leaves the file open. A file that does
    // not let itself be duplicated has been reported by write() already.
    int const duplicate = ::dup(fd);
    if (duplicate >= 0 && ::close(duplicate) != 0 && errno != EINTR) {
        throw ToolError(with_errno("cannot write to " + name));
    }
}

TextSink standard_output() { return {STDOUT_FILENO, "standard output"}; }

}  // namespace tesk::tool

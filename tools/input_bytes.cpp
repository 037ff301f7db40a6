#include "tools/input_bytes.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#define ZLIB_CONST  // zlib then takes its input through pointers to const
#include <zlib.h>

#include "tools/message.h"
#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

constexpr std::size_t PIECE_BYTES = std::size_t{1} << 18;
constexpr std::string_view GZIP_MAGIC = "\x1f\x8b";
constexpr int GZIP_WINDOW_BITS = 15 + 16;  // the largest window, in the gzip wrapping

int open_input(std::string const& path) {
    if (path == "-") return STDIN_FILENO;
    int const fd = ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) throw ToolError(with_errno("cannot open " + path));
    return fd;
}

}  // namespace

InputBytes::InputBytes(std::string const& path)
    : name_(path == "-" ? "standard input" : path), fd_(open_input(path)), buffer_(PIECE_BYTES) {}

InputBytes::~InputBytes() {
    if (stream_) inflateEnd(stream_.get());
    if (fd_ != STDIN_FILENO) ::close(fd_);
}

// Puts more bytes behind those that are left; false at the end.
bool InputBytes::fill() {
    if (!packed_.empty()) std::memmove(buffer_.data(), packed_.data(), packed_.size());
    ssize_t n = 0;
    do {
        n = ::read(fd_, buffer_.data() + packed_.size(), buffer_.size() - packed_.size());
    } while (n < 0 && errno == EINTR);
    if (n < 0) throw ToolError(with_errno("cannot read " + name_));
    packed_ = {buffer_.data(), packed_.size() + static_cast<std::size_t>(n)};
    bytes_read_ += static_cast<std::uint64_t>(n);
    return n > 0;
}

// A pipe may give one byte at a time.
void InputBytes::open_stream() {
    opened_ = true;
    while (packed_.size() < GZIP_MAGIC.size() && fill()) {
    }
    if (packed_.substr(0, GZIP_MAGIC.size()) != GZIP_MAGIC) return;
    auto stream = std::make_unique<z_stream>();
    if (inflateInit2(stream.get(), GZIP_WINDOW_BITS) != Z_OK) {
        throw ToolError(name_ + ": gzip data cannot be unpacked: not enough memory");
    }
    stream_ = std::move(stream);
    unpacked_.resize(PIECE_BYTES);
}

std::string_view InputBytes::next() {
    if (!opened_) open_stream();
    if (stream_) return inflate_piece();
    if (packed_.empty()) fill();
    return std::exchange(packed_, {});
}

std::string_view InputBytes::inflate_piece() {
    for (;;) {
        if (packed_.empty() && !fill()) {
            if (inside_member_) throw ToolError(name_ + ": the gzip data ends too early");
            return {};
        }
        inside_member_ = true;
        z_stream& stream = *stream_;
        stream.next_in = reinterpret_cast<Bytef const*>(packed_.data());
        stream.avail_in = static_cast<uInt>(packed_.size());
        stream.next_out = reinterpret_cast<Bytef*>(unpacked_.data());
        stream.avail_out = static_cast<uInt>(unpacked_.size());
        int const code = inflate(&stream, Z_NO_FLUSH);
        if (code == Z_STREAM_END) {
            inside_member_ = false;
            inflateReset(&stream);
        } else if (code != Z_OK && code != Z_BUF_ERROR) {
            char const* const fault = stream.msg == nullptr ? zError(code) : stream.msg;
            throw ToolError(name_ + ": the gzip data is damaged: " + fault);
        }
        packed_.remove_prefix(packed_.size() - stream.avail_in);
        std::size_t const n = unpacked_.size() - stream.avail_out;
        if (n != 0) return {unpacked_.data(), n};
    }
}

}  // namespace tesk::tool

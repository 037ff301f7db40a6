// The bytes of an input, unpacked where they are gzip data.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct z_stream_s;  // zlib's z_stream

namespace tesk::tool {

/// A file, or standard input, that is read from its beginning to its end.
///
/// Its first two bytes tell whether it is gzip data, whatever its name is. Such
/// data may consist of several members, one after another; nothing else may
/// follow them.
class InputBytes {
public:
    /// Opens the input.
    ///
    /// @param path  "-" is standard input
    /// @throws ToolError  "cannot open " + path + ": " + reason
    explicit InputBytes(std::string const& path);
    ~InputBytes();
    InputBytes(InputBytes const&) = delete;
    InputBytes& operator=(InputBytes const&) = delete;

    /// What messages call it: the path, or "standard input".
    std::string const& name() const { return name_; }

    /// Number of bytes read so far, before they were unpacked.
    std::uint64_t bytes_read() const { return bytes_read_; }

    /// The next piece; empty at the end. It is valid until the next call.
    /// @throws ToolError  reading fails, or the gzip data is damaged or cut short
    std::string_view next();

private:
    bool fill();
    void open_stream();
    std::string_view inflate_piece();

    std::string name_;
    int fd_;
    std::uint64_t bytes_read_ = 0;
    std::vector<char> buffer_;            // bytes as they were read
    std::string_view packed_;             // what of them is left
    bool opened_ = false;                 // the first two bytes have been seen
    std::unique_ptr<z_stream_s> stream_;  // null where they are no gzip data
    bool inside_member_ = false;          // of the gzip data
    std::vector<char> unpacked_;
};

}  // namespace tesk::tool

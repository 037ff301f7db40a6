// The bytes of an input, unpacked where they are gzip data.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "interop/byte_buffer.h"
#include "interop/input_stream.h"

namespace tesk::tool {

/// A file, or standard input, that is read from its beginning to its end, piece by
/// piece; failures are exceptions.
class InputBytes {
public:
    /// Opens the input and looks at its first bytes, which tell whether it is
    /// packed.
    ///
    /// @param path  "-" is standard input
    /// @throws ToolError  as interop::InputStream words it
    explicit InputBytes(std::string const& path);

    /// What messages call it: the path, or "standard input".
    std::string const& name() const { return stream_.name(); }

    /// Number of bytes read so far, before they were unpacked.
    std::uint64_t bytes_read() const { return stream_.bytes_read(); }

    /// The next piece; empty at the end. It is valid until the next call.
    /// @throws ToolError  reading fails, or the data is damaged or cut short
    std::string_view next();

private:
    interop::InputStream stream_;
    interop::ByteBuffer piece_;
};

}  // namespace tesk::tool

// Bytes on their way to a descriptor.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "interop/byte_buffer.h"
#include "util/bam/export.h"

namespace tesk::interop {

/// Gathers bytes and writes them in large pieces.
///
/// Members that can fail return false, with the reason in `error_message`:
/// "cannot write to " + name + ": " + reason. All later calls fail, too.
/// What is gathered goes with the object: only flush() brings it to the file.
class TESK_BAM_EXPORT OutputStream {
public:
    /// So much is gathered: pieces of this size cost few calls and still fit the
    /// caches of most machines.
    static constexpr std::size_t PIECE_BYTES = std::size_t{1} << 20;

    /// @param fd    open for writing; stays open and is the caller's
    /// @param name  what messages call the file
    OutputStream(int fd, std::string name);

    /// Why the last call that returned false did so.
    std::string error_message;

    /// Takes a copy of some bytes, or writes them at once where they are many.
    bool append(std::string_view bytes);

    /// Makes room for n more bytes and returns where they begin; they count once
    /// take() was told where they end.
    char* room_for(std::size_t n) { return gathered_.room_for(n); }
    /// Takes the bytes up to `end`, which lies in that room.
    bool take(char const* end);

    /// Writes all that is gathered.
    bool flush();

    /// Number of bytes taken so far.
    std::uint64_t offset() const { return n_written_ + gathered_.size(); }

private:
    bool write_all(std::string_view bytes);
    bool fail(int error_number);

    int fd_;
    std::string name_;
    ByteBuffer gathered_;
    std::uint64_t n_written_ = 0;
};

}  // namespace tesk::interop

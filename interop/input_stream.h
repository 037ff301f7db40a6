// The bytes of a file or of standard input, unpacked where they are gzip or BGZF
// data.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "interop/byte_buffer.h"
#include "util/bam/export.h"

namespace tesk::interop {

/// An input that is read from its beginning to its end; a BGZF file also from any
/// of its blocks. What the bytes are tells how they are read, never the name.
///
/// gzip data may consist of several members, one after another; nothing else may
/// follow them. BGZF data consists of blocks alone.
///
/// Members that can fail return false, with the reason in `error_message`:
///   "cannot open " + path + ": " + reason of the system
///   "cannot read " + name() + ": " + reason of the system, which is where a folder
///         is found to be one
///   name() + ": the gzip data ends too early"
///   name() + ": the gzip data is damaged: " + reason
///   name() + ": damaged BGZF block at byte " + offset in the file + ": " + reason
/// Nothing is left to be read then.
class TESK_BAM_EXPORT InputStream {
public:
    /// How an input is compressed.
    enum class Packing { NONE, GZIP, BGZF };

    InputStream();
    ~InputStream();
    /// Takes the input over.
    InputStream(InputStream&&) noexcept;
    /// The same, in the place of what was open.
    InputStream& operator=(InputStream&&) noexcept;

    /// Why the last call that returned false did so.
    std::string error_message;

    /// Opens an input and looks at its first bytes.
    ///
    /// @param path  "-" is standard input
    bool open(std::string const& path);

    /// What messages call it: the path, or "standard input".
    std::string const& name() const;

    /// How it is compressed, as its first bytes tell.
    Packing packing() const;

    /// Number of bytes read so far, before they were unpacked.
    std::uint64_t bytes_read() const;

    /// Appends the next bytes: up to 1 MiB as they stand, or unpacked a piece of
    /// that size at most of gzip data, or exactly one block of BGZF data (empty
    /// blocks are passed over). Nothing is appended at the end, and again true
    /// returned.
    bool read(ByteBuffer& out);

    /// Offset in a BGZF file of the block that read() appended last.
    std::uint64_t block_offset() const;

    /// Whether the input ends with the empty block that ends a BGZF file; for
    /// other packings true. To be asked after the end, and at the earliest after a
    /// read() that followed the last seek().
    bool has_eof_block() const;

    /// Goes on reading a BGZF file at a block that begins at this offset.
    /// On false the input is a pipe or the like, or no BGZF data.
    bool seek(std::uint64_t offset);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tesk::interop

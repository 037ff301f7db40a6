// Writes BGZF files: full blocks, compressed on as many threads as wanted.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "util/bam/export.h"

namespace tesk::interop {

/// Cuts a stream of bytes into BGZF blocks and writes them to a descriptor.
///
/// Every block but the last holds exactly PAYLOAD_BYTES, whatever write() was
/// given at a time, so the same bytes always make the same file, on any number of
/// threads.
///
/// Members that can fail return false, with the reason in `error_message`:
/// "cannot write to " + name + ": " + reason. After a call that ended by an exception
/// (std::bad_alloc) no file is open.
class TESK_BAM_EXPORT BgzfWriter {
public:
    /// Bytes of a full block, before compression.
    static constexpr std::size_t PAYLOAD_BYTES = 65280;

    BgzfWriter();
    ~BgzfWriter();
    BgzfWriter(BgzfWriter const&) = delete;
    BgzfWriter& operator=(BgzfWriter const&) = delete;

    /// Why the last call that returned false did so.
    std::string error_message;

    /// @param fd       open for writing; stays open and is the caller's
    /// @param name     what messages call the file
    /// @param level    0 (stored) to 12
    /// @param threads  at least 1; the calling thread is one of them
    bool open(int fd, std::string name, int level, unsigned threads);

    /// Takes a copy of some bytes; blocks are written as they get full.
    bool write(std::string_view bytes);

    /// Number of bytes given to write() so far.
    std::uint64_t tell() const;

    /// Writes what is left and the block that marks the end.
    bool close();

    /// Virtual offset of a place that tell() returned; after close().
    std::uint64_t virtual_offset(std::uint64_t place) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tesk::interop

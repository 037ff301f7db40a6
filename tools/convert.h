// The command that turns alignment files into each other.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/alignment_output.h"
#include "tools/file_kind.h"

namespace tesk::tool {

/// What "tesk-bam convert" was asked for.
struct ConvertOptions {
    std::string in;    // "-": standard input
    std::string out;   // "-": standard output
    std::string from;  // "sam" or "bam"; empty: what the content is
    std::string to;    // the same; empty: the ending of `out` tells
    bool sort = false;
    bool index = false;                         // implies sort
    bool quiet = false;                         // neither progress nor notes
    bool exact = false;                         // the library's own file members
    bool allow_missing_eof = false;             // none of these goes with `exact`
    std::optional<std::uint64_t> memory_bytes;  // for sorting; empty: half of the machine's
    std::string tmp;                            // for what does not fit; empty: beside `out`
    Packing packing;
};

/// Converts a file.
/// @throws UsageError  the options contradict each other
/// @throws ToolError   the input or the output is at fault
void convert(ConvertOptions const& options);

/// The part of the memory for sorting that is left to the records, after what
/// reading and writing take: at least 1 MiB.
std::uint64_t sorter_bytes(std::uint64_t memory_bytes, unsigned threads);

}  // namespace tesk::tool

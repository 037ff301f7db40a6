// Where the commands that make records out of reads put them.

#pragma once

#include <cstdint>
#include <string>

#include "tools/alignment_output.h"
#include "tools/line_reader.h"
#include "tools/progress.h"

namespace tesk::tool {

/// What these commands are asked for in common.
struct ReadsOptions {
    std::string in;   // "-": standard input
    std::string out;  // "-": standard output
    std::string to;   // "sam" or "bam"; empty: the ending of `out` tells
    bool quiet = false;
    bool exact = false;  // the library's own file members
    Packing packing;     // does not go with `exact`
};

/// One read.
struct Read {
    std::uint64_t line = 0;  // where it begins in the input
    std::string name;
    std::string sequence;
    std::string qualities;  // text, offset 33 included
    std::string fields;     // optional fields, a tab before each
};

/// The header of such a file.
extern char const* const READS_HEADER;

/// What stands alone in a column means that there is nothing.
constexpr char const* ABSENT = "*";

/// The SAM line of a read.
/// @throws ToolError  no SAM line can hold it; without the place
std::string unmapped_line(Read const& read);

/// A SAM or BAM file of unmapped records that takes one read after another.
class ReadsOutput {
public:
    ReadsOutput() = default;
    virtual ~ReadsOutput() = default;
    ReadsOutput(ReadsOutput const&) = delete;
    ReadsOutput& operator=(ReadsOutput const&) = delete;

    /// Begins the output, which may wait for the other end of a FIFO.
    virtual void open() = 0;

    /// @param input  where the read comes from; messages say so
    /// @throws ToolError  the read cannot become a record
    virtual void add(Read const& read, LineReader const& input) = 0;

    /// Completes the output.
    virtual void finish(Progress& progress) = 0;

    /// Prints what the user should know of the output.
    /// @param input  what messages call the input
    virtual void print_notes(std::string const& input) const = 0;
};

}  // namespace tesk::tool

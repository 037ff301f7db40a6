// Reads on their way to a file of unmapped records.

#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tools/line_reader.h"

namespace tesk::tool {

/// What the commands that make records out of reads are asked for in common.
struct ReadsOptions {
    std::string in;   // "-": standard input
    std::string out;  // "-": standard output
    std::string to;   // "sam" or "bam"; empty: the ending of `out` tells
    bool quiet = false;
};

/// One read.
struct Read {
    std::uint64_t line = 0;  // where it begins in the input
    std::string name;
    std::string sequence;
    std::string qualities;  // text, offset 33 included
    std::string fields;     // optional fields, a tab before each
};

/// Gets the next read out of the input; false at the end. The read that it is
/// given holds what the last one held.
using ReadParser = std::function<bool(LineReader&, Read&)>;

/// Makes an unmapped record of every read of an input, and a SAM or BAM file of
/// the records.
///
/// SAM is written while the input is read; for BAM all records are held in
/// memory.
/// @return             the number of reads
/// @throws UsageError  the options contradict each other
/// @throws ToolError   the input or the output is at fault; where it is a read,
///                     the message begins with the input and the line. The output
///                     file is then as before; standard output has the records
///                     before the fault
std::uint64_t store_reads(ReadsOptions const& options, ReadParser const& next_read);

}  // namespace tesk::tool

// Reads on their way to a file of unmapped records.

#pragma once

#include <cstdint>
#include <functional>

#include "tools/line_reader.h"
#include "tools/reads_output.h"

namespace tesk::tool {

/// Gets the next read out of the input; false at the end. The read that it is
/// given holds what the last one held.
using ReadParser = std::function<bool(LineReader&, Read&)>;

/// Makes an unmapped record of every read of an input, and a SAM or BAM file of
/// the records.
///
/// The file is written while the input is read.
/// @return             the number of reads
/// @throws UsageError  the options contradict each other
/// @throws ToolError   the input or the output is at fault; where it is a read,
///                     the message begins with the input and the line. The output
///                     file is then as before; standard output may have the
///                     records before the fault
std::uint64_t store_reads(ReadsOptions const& options, ReadParser const& next_read);

}  // namespace tesk::tool

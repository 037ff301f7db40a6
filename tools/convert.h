// The command that turns alignment files into each other.

#pragma once

#include <string>

#include "tools/file_kind.h"

namespace tesk::tool {

/// What "tesk-bam convert" was asked for.
struct ConvertOptions {
    std::string in;
    std::string out;   // "-": standard output
    std::string from;  // "sam" or "bam"; empty: the ending of `in` tells
    std::string to;    // the same of `out`
    bool sort = false;
    bool index = false;  // implies sort
    bool quiet = false;  // neither progress nor notes
};

/// Converts a file.
/// @throws UsageError  the options contradict each other
/// @throws ToolError   the input or the output is at fault
void convert(ConvertOptions const& options);

}  // namespace tesk::tool

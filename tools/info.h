// The command that sums up an alignment file.

#pragma once

#include <string>

namespace tesk::tool {

/// What "tesk-bam info" was asked for.
struct InfoOptions {
    std::string file;                // "-": standard input
    std::string from;                // "sam" or "bam"; empty: what the content is
    bool json = false;               // one JSON object instead of text for people
    bool quiet = false;              // neither progress nor notes
    bool exact = false;              // the library's own file members
    bool allow_missing_eof = false;  // does not go with `exact`
};

/// Prints the summary on standard output.
/// @throws UsageError  the kind of the file is unclear
/// @throws ToolError   the file, or standard output, is at fault
void info(InfoOptions const& options);

}  // namespace tesk::tool

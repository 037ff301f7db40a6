// The command that prints alignments as SAM text.

#pragma once

#include <string>
#include <vector>

namespace tesk::tool {

/// What "tesk-bam view" was asked for.
struct ViewOptions {
    std::string file;                  // "-": standard input
    std::vector<std::string> regions;  // none: everything
    bool count = false;                // only the number of records
    bool no_header = false;
    bool quiet = false;  // neither progress nor notes
    bool allow_missing_eof = false;
};

/// Prints the records of a file that overlap one of some regions, in the order of
/// the file.
/// @throws UsageError  a region is none of the file
/// @throws ToolError   the file, or standard output, is at fault
void view(ViewOptions const& options);

}  // namespace tesk::tool

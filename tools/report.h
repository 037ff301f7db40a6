// The command that writes a page about an alignment file.

#pragma once

#include <string>

namespace tesk::tool {

/// What "tesk-bam report" was asked for.
struct ReportOptions {
    std::string file;    // "-": standard input
    std::string out;     // "-": standard output
    bool quiet = false;  // neither progress nor notes
    bool allow_missing_eof = false;
};

/// Writes the page.
/// @throws UsageError  the name of the output is not that of a page
/// @throws ToolError   the file, or the output, is at fault
void write_report(ReportOptions const& options);

}  // namespace tesk::tool

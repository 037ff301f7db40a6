// The command that prints a BAI file in readable form.

#pragma once

#include <string>

namespace tesk::tool {

/// What "tesk-bam dump-index" was asked for.
struct DumpIndexOptions {
    std::string file;
    bool quiet = false;  // accepted for uniformity: a dump shows no progress
};

/// Prints the index on standard output.
/// @throws UsageError  the file is "-"
/// @throws ToolError   the file, or standard output, is at fault
void dump_index(DumpIndexOptions const& options);

}  // namespace tesk::tool

// The command that makes unmapped records of the reads of a FASTQ file.

#pragma once

#include "tools/unmapped_reads.h"

namespace tesk::tool {

/// What "tesk-bam import" was asked for.
struct ImportOptions {
    ReadsOptions reads;
    bool keep_comments = false;  // optional fields after the names are kept
};

/// Imports a file.
/// @throws UsageError  the options contradict each other
/// @throws ToolError   the input or the output is at fault
void import_reads(ImportOptions const& options);

}  // namespace tesk::tool

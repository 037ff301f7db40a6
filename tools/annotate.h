// The command that makes unmapped records of a basecaller's reads with their
// move tables and modified bases.

#pragma once

#include "tools/unmapped_reads.h"

namespace tesk::tool {

/// What "tesk-bam annotate" was asked for.
struct AnnotateOptions {
    ReadsOptions reads;
};

/// Annotates the reads of a file, one JSON object a line.
/// @throws UsageError  the options contradict each other
/// @throws ToolError   the input or the output is at fault
void annotate_reads(AnnotateOptions const& options);

}  // namespace tesk::tool

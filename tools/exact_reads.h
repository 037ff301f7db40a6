// import and annotate --exact: through the library's own file members.

#pragma once

#include <memory>

#include "tools/reads_output.h"

namespace tesk::tool {

/// An output of the library: SAM is written read by read, for BAM all records
/// are held in memory.
/// @throws UsageError, ToolError  the output cannot be made
std::unique_ptr<ReadsOutput> make_exact_reads_output(ReadsOptions const& options);

}  // namespace tesk::tool

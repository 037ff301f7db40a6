// info --exact: through the library's own file members.

#pragma once

#include "tools/file_kind.h"
#include "tools/info.h"
#include "tools/summary.h"

namespace tesk::tool {

/// Sums up a file that the library takes as it is, all records in memory.
///
/// @param kind  is set to what the file is
/// @throws UsageError  the kind of the file is unclear
/// @throws ToolError   the file is at fault
Summary exact_summary(InfoOptions const& options, FileKind& kind);

}  // namespace tesk::tool

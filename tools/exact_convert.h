// convert --exact: through the library's own file members.

#pragma once

#include "tools/convert.h"

namespace tesk::tool {

/// Converts a file that the library takes as it is, all records in memory.
/// @throws UsageError  the options contradict each other
/// @throws ToolError   the input or the output is at fault
void exact_convert(ConvertOptions const& options);

}  // namespace tesk::tool

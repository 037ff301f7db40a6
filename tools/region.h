// Regions as users write them.

#pragma once

#include <string>
#include <vector>

#include "interop/alignment_reader.h"

namespace tesk::tool {

/// The regions that some texts name: "chr1", "chr1:100" (from there to the end)
/// or "chr1:100-200"; 1-based, both ends included, commas in numbers allowed.
///
/// A reference whose name is the whole text comes first, so that names may hold
/// ':'.
/// @throws UsageError  a text is no region, or names a reference that the header
///                     does not list
std::vector<interop::Region> parse_regions(std::vector<std::string> const& texts,
                                           interop::Header const& header);

}  // namespace tesk::tool

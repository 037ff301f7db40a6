// The index that lies beside a BAM file.

#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "interop/index_reader.h"

namespace tesk::tool {

/// Opens the index of a BAM file: path + ".bai", or path with ".bai" in the place
/// of its ".bam".
///
/// @param n_references  of the BAM file
/// @param note          what is told of an index that is there but cannot be
///                      used: it is older than the file, of another number of
///                      references, or damaged. Empty otherwise
/// @return  empty where there is no index that can be used, or the file is none
///          in which one can jump
std::optional<interop::IndexReader> open_index_beside(std::string const& path,
                                                      std::size_t n_references, std::string& note);

}  // namespace tesk::tool

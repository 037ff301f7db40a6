// A structural check of BAI files.

#pragma once

#include <cstddef>
#include <string>

#include "tools/output_file.h"

namespace tesk::tool {

/// Reads an index back from disk and checks that it is whole: the magic bytes,
/// the number of references, every count against the bytes that follow it, and
/// that the file ends right after n_no_coor.
///
/// @param path          the file
/// @param n_references  number of references of the BAM file it belongs to
/// @throws ToolError    "the index is damaged: " and the first fault, or the
///                      file cannot be read
void check_index(std::string const& path, std::size_t n_references);

/// The same of the index that goes with an output file, before it has its name.
///
/// @param path  the output as the user named it; messages begin with its index
void check_written_index(std::string const& path, OutputFile const& output,
                         std::size_t n_references);

}  // namespace tesk::tool

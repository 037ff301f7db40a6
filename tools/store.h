// Writing BAM files by the library's own member.

#pragma once

#include <string>

#include "tools/output_file.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

/// Writes a BAM file under its temporary name.
///
/// @param path   the output as the user named it
/// @param index  whether its index is written, too
/// @throws ToolError  the library's message, in the user's names
void write_bam(util::bam::BAMFileHandler& alignments, std::string const& path, bool index,
               OutputFile const& output);

/// Tells how many records of a BAM file hold arrays of floats, which the library
/// writes but does not read.
void note_float_arrays(util::bam::BAMFileHandler const& alignments, std::string const& path);

}  // namespace tesk::tool

// Running the tool's commands that make records of reads, inside fuzz targets.

#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/reads_output.h"

namespace tesk::fuzz {

/// What a command makes of an input.
struct Imported {
    bool done = false;
    std::string fault;               // the message
    std::vector<std::string> lines;  // of the records
};

using ImportCommand = std::function<void(tool::ReadsOptions const&)>;

/// Runs a command on an input, with SAM output.
/// @param exact  in the library's own way
Imported import_as_sam(std::string_view input, bool exact, ImportCommand const& command);

/// The same in the exact way, for what other targets compare with. What it takes gives
/// the same lines in the tool's ordinary way, and as many records in BAM.
Imported import_both_ways(std::string_view input, ImportCommand const& command);

/// Whether the commands unpack an input before they read it.
bool is_gzip(std::string_view input);

/// The columns of an unmapped read.
std::string unmapped_columns(std::string_view name, std::string_view sequence,
                             std::string_view qualities);

}  // namespace tesk::fuzz

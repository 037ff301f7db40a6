// The command that reads a file and tells everything that is wrong with it.

#pragma once

#include <string>

namespace tesk::tool {

/// What "tesk-bam validate" was asked for.
struct ValidateOptions {
    std::string file;    // "-": standard input
    bool json = false;   // one JSON object instead of text for people
    bool quiet = false;  // no progress
    bool allow_missing_eof = false;
};

/// Reads a file to its end and prints what was found on standard output.
///
/// @return  whether there is no error; repairs and warnings are none
/// @throws ToolError  standard output is at fault
bool validate(ValidateOptions const& options);

}  // namespace tesk::tool

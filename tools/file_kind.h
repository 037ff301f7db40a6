// Which of the two alignment formats a file has.

#pragma once

#include <cstddef>
#include <string>

namespace tesk::tool {

enum class FileKind { SAM, BAM };

/// "SAM" or "BAM".
char const* kind_name(FileKind kind);

/// The last bytes of a path, in lower case.
std::string ending_of(std::string const& path, std::size_t n_bytes);

/// Refuses "-" as the name of an input that must be a file.
/// @throws UsageError
void refuse_standard_input(std::string const& path);

/// The kind of a file.
///
/// @param path    its ending, .sam or .bam in any case, decides ...
/// @param wanted  ... unless this is "sam" or "bam"
/// @param option  the option that would have said so, for the message
/// @throws UsageError  neither tells
FileKind kind_of(std::string const& path, std::string const& wanted, std::string const& option);

/// The kind of an output, which may be "-": standard output, SAM unless told
/// otherwise.
///
/// @param wanted  what the option --to says, or empty
/// @throws UsageError  neither tells, or it would be BAM on a terminal
FileKind kind_of_output(std::string const& path, std::string const& wanted);

/// The same with --exact, which has no BAM on standard output.
FileKind exact_kind_of_output(std::string const& path, std::string const& wanted);

}  // namespace tesk::tool

// What the user is told besides the result.

#pragma once

#include <string>

#include "interop/alignment_reader.h"

namespace tesk::tool {

/// Prints a line for each kind of repair and of warning that a report has.
/// @param name  what the line calls the input
void print_report(std::string const& name, interop::Report const& report);

/// Does some work with a reader and prints its report afterwards, also where
/// the work ends in an exception, whose message so is the last one.
///
/// @param wanted  false: nothing is printed
template <typename Work>
void with_report(interop::AlignmentReader const& reader, bool wanted, Work work) {
    try {
        work();
    } catch (...) {
        if (wanted) print_report(reader.name(), reader.report());
        throw;
    }
    if (wanted) print_report(reader.name(), reader.report());
}

/// Tells of an index that a BAM file now has beside it but that is not its own.
///
/// @param path    the BAM file
/// @param advice  the message's last words
void note_old_index(std::string const& path, std::string const& advice);

}  // namespace tesk::tool

// Reading alignments by the library's own members, and its failures as ToolErrors.

#pragma once

#include <cstddef>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "tools/file_kind.h"
#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

/// Makes a call of the library; a false result becomes a ToolError with its
/// message, an exception but for std::bad_alloc one that begins with the file's name.
///
/// @param handler  the one that the call is made on
/// @param file     the file that the call is about
/// @param call     a function without arguments that returns bool
template <typename Call>
void call_library(util::bam::BAMFileHandler const& handler, std::string const& file, Call call) {
    bool done = false;
    try {
        done = call();
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::exception const& e) {
        throw ToolError(file + ": " + e.what());
    }
    if (!done) throw ToolError(handler.error_message);
}

/// Adds a SAM line to a handler; a refusal or such an exception becomes a ToolError.
///
/// @param place  a function that says where the line comes from; the message
///               begins with that
template <typename Place>
void add_line(util::bam::BAMFileHandler& handler, std::string line, Place place) {
    bool done = false;
    try {
        done = handler.add_alignment_sam(std::move(line));
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::exception const& e) {
        throw ToolError(place() + ": " + e.what());
    }
    if (!done) throw ToolError(place() + ": " + handler.error_message);
}

/// Reads a file into a handler.
///
/// @return  the number of references. With BAM files the handler lists them
///          twice: those of the header text, then the same ones of the binary
///          list; they count once
/// @throws ToolError
///          the library refuses the file; the two lists of a BAM file differ
///          (record numbers would then name the wrong references); a record
///          names a reference beyond the list
std::size_t read_alignments(std::string const& path, FileKind kind,
                            util::bam::BAMFileHandler& alignments);

/// Checks that the two listings of a BAM file's references are equal, entry by
/// entry.
///
/// @param n_first  number of entries of the first listing
/// @throws ToolError  naming the first difference
void check_same_references(std::string const& path, util::bam::BAMFileHandler const& alignments,
                           std::size_t n_first);

/// The order that a handler's header states, such as "SO:coordinate", or
/// "unknown".
std::string sort_order_of(util::bam::BAMFileHandler const& alignments);

}  // namespace tesk::tool

// Reading and writing whole files, as several fuzz targets do.

#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/any.hpp>

#include "fuzz/target.h"
#include "util/bam/bam_file.h"

namespace tesk::fuzz {

using util::bam::BAMFileHandler;

/// Path of a file of this process under the system's temporary folder.
std::string scratch_path(std::string const& name);

/// What reading a file gives.
struct Reading {
    bool done = false;
    std::string fault;  // why not: the message, or that of the exception
};

/// Calls a function of the handler that reads or renders; the exceptions that malformed
/// text and files are known to end in are faults.
template <typename Read>
Reading reading_of(BAMFileHandler const& handler, Read read) {
    Reading reading;
    try {
        reading.done = read();
        if (!reading.done) reading.fault = handler.error_message;
    } catch (boost::bad_any_cast const& fault) {
        reading.fault = fault.what();  // an array of floats
    } catch (std::logic_error const& fault) {
        reading.fault = fault.what();  // numbers in text, fewer bases than l_seq
    } catch (std::runtime_error const& fault) {
        // an array without its first comma, with an element more than commas; a CG field
        // of narrow numbers
        reading.fault = fault.what();
        require(reading.fault == "Hit end of BAM buffer while writing data" ||
                    reading.fault == "Hit end of BAM buffer while extracting data",
                reading.fault);
    }
    return reading;
}

/// Reads a file.
Reading read_sam(BAMFileHandler& handler, std::string const& path);
Reading read_bam(BAMFileHandler& handler, std::string const& path);

/// The SAM lines of all records, each with its newline.
std::string lines_of(BAMFileHandler const& handler);

/// Whether BAM has a form for the texts of a record.
bool has_bam_form(BAMFileHandler::BamRecord const& record);

/// Renders a record's SAM line anew; false where that cannot be done.
bool render(BAMFileHandler& handler, BAMFileHandler::BamRecord& record);

/// Writes the records, sorted, as BAM with an index: read again, they have the same
/// lines in the order that a plain stable sort gives; the index is that of an
/// independent builder, to the byte. Records that BAM has no form for are left out, and
/// those of which it does not tell the reference length.
///
/// @param bare_length  reference length that a record without CIGAR counts with:
///                     1 where it came from SAM text, 0 where it came from BAM
void check_written(BAMFileHandler& handler, unsigned bare_length);

}  // namespace tesk::fuzz

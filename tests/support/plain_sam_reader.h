// A plain reading of SAM lines with std::istringstream, std::strtol, std::stoi and
// std::stof, which the library's own reading is held against, line for line.

#pragma once

#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include "util/bam/bam_file.h"

namespace tesk::test {

/// The letter that SamReadings knows as an operation that no BAM file has.
inline constexpr char REFUSED_OPERATION = 'Q';

/// What became of a line, and the record as far as both readings define it.
struct SamReading {
    std::string kind;  ///< of the outcome: the message's fixed words, or the exception
    std::string text;  ///< whole message and record; the same where the readings agree
};

/// The kind of reading that ends in an exception.
std::string exception_text(std::exception const& fault);

/// Reads lines in both ways.
class SamReadings {
public:
    /// @param references  names in the order of the header; some may occur twice
    explicit SamReadings(std::vector<std::string> references);

    /// Reads a line in the plain way; `has_columns` tells whether its eleven columns
    /// were read and packed, so that the record is worth comparing.
    SamReading read_by_stream(std::string const& line, bool& has_columns);

    /// The same with parse_sam_line_to_bam_record().
    SamReading read_by_handler(std::string const& line, bool has_columns);

    /// The record of the line that was read last by read_by_stream().
    util::bam::BAMFileHandler::BamRecord const& plain_record() const { return plain_record_; }

private:
    util::bam::BAMFileHandler handler_;
    std::vector<std::string> references_;
    std::istringstream stream_;
    util::bam::BAMFileHandler::BamRecord plain_record_;
};

}  // namespace tesk::test

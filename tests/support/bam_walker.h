// Taking BAM files apart, for tests: records, their places in the file, and
// their SAM text. Shares nothing with the library.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bam_encoder.h"
#include "tests/support/index_builder.h"

namespace tesk::test {

/// The inflated contents of a BAM file.
struct BamPayload {
    std::string header_text;
    std::vector<Reference> references;  // the binary list
    std::vector<std::string> records;   // bytes, block_size included
};

/// Takes a payload apart; throws std::runtime_error where it ends too early.
BamPayload split_bam_payload(std::string_view payload);

/// What an index needs to know of the records of a BAM file in which every
/// record begins a block; throws std::runtime_error where one does not.
///
/// @param bare_length  reference length that a record without CIGAR counts with:
///                     1 where it came from SAM text, 0 where it came from BAM
std::vector<IndexedRecord> index_records(std::string_view bam_file, std::uint64_t bare_length);

/// The SAM line that a well-formed BAM record stands for; arrays of floats are
/// not known.
std::string sam_line_of_record(std::string_view record, std::vector<Reference> const& references);

/// What a well-formed SAM line looks like after a way through BAM: floats in
/// their own number format, "*" for references that the header does not name,
/// "=" for a mate on the same one, no carriage return after QUAL or a number.
std::string sam_line_through_bam(std::string_view line, std::vector<Reference> const& references);

}  // namespace tesk::test

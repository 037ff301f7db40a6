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

/// The same with nothing lost: floats, arrays of them included, with nine digits,
/// which tell any two apart, and a CIGAR from the CG field where the record has a
/// placeholder for it.
std::string exact_sam_line_of_record(std::string_view record,
                                     std::vector<Reference> const& references);

/// A record whose s and S fields have become i and I fields of the same value.
std::string with_wide_integers(std::string_view record);

/// Where a well-formed record lies: 0-based, half-open; one base long where its
/// CIGAR covers none. A placeholder CIGAR covers the same bases as the real one.
struct Extent {
    std::int32_t refID = -1;
    std::int64_t beg = -1;
    std::int64_t end = 0;
};
Extent extent_of_record(std::string_view record);

/// Says where two SAM lines differ; empty where they do not. The eleven columns
/// are compared as text, optional fields in their order by tag, type and value:
/// integers and floats as numbers, floats by their bits, other values as text.
std::string difference_of_sam_lines(std::string_view got, std::string_view expected);

/// What a well-formed SAM line looks like after a way through BAM: floats in
/// their own number format, "*" for references that the header does not name,
/// "=" for a mate on the same one, no carriage return after QUAL or a number.
std::string sam_line_through_bam(std::string_view line, std::vector<Reference> const& references);

}  // namespace tesk::test

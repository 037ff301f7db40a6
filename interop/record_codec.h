// The rules of an alignment record, in text and in binary form: what is valid,
// what is repaired, how each field is encoded. No other place knows them.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "interop/byte_buffer.h"
#include "interop/header.h"
#include "interop/record_batch.h"
#include "interop/report.h"
#include "util/bam/bam_file.h"
#include "util/bam/export.h"

namespace tesk::interop {

/// Why a record is refused.
struct Fault {
    std::string column;  ///< such as "QUAL", or an optional field's tag; may be empty
    std::string reason;  ///< such as "3 qualities for 4 bases"
};

/// One optional field of an encoded record.
struct OptionalField {
    char const* tag;    ///< two characters
    char type;          ///< one of A, c, C, s, S, i, I, f, Z, H and B
    char const* value;  ///< of an array its element type and count (4 bytes) come first
    char const* end;    ///< of the value, a text's NUL included
};

/// The field at a place of an encoded record's optional fields.
TESK_BAM_EXPORT OptionalField optional_field_at(char const* at);

/// Packed CIGAR operations, as they stand in an encoded record.
struct CigarOperations {
    char const* begin;  ///< of the first one, unaligned
    std::size_t n;      ///< their number
    bool in_field;      ///< the CG field has them, the CIGAR a placeholder
};

/// The operations of a record's CIGAR, wherever they stand.
TESK_BAM_EXPORT CigarOperations operations_of(RecordView record);

/// Turns SAM lines into BAM records and back.
class TESK_BAM_EXPORT RecordCodec {
public:
    /// Bytes of an encoded record, block_size included, are never more.
    static constexpr std::size_t MAX_RECORD_BYTES = 0x7FFFFFFF;

    /// @param header  of the file; must outlive the codec
    /// @param report  receives repairs and warnings; must outlive the codec
    RecordCodec(Header const& header, Report& report);

    /// Encodes one SAM line.
    ///
    /// @param line     without '\n'
    /// @param number   of the line in its file, from 1
    /// @param records  the record is appended, repaired
    /// @param text     null, or the repaired line is appended, with '\n'
    /// @return         false where the line is no valid record: fault() says why,
    ///                 nothing is appended, nothing is reported
    bool encode_line(std::string_view line, std::uint64_t number, ByteBuffer& records,
                     ByteBuffer* text);

    /// Checks and repairs one record of a BAM file.
    ///
    /// @param body     the record without its block_size field
    /// @param number   of the record in its file, from 1
    /// @param records  the record is appended, repaired, its bin computed anew
    /// @return         false where the record is not valid, as above
    bool check_record(std::string_view body, std::uint64_t number, ByteBuffer& records);

    /// Appends the SAM line of an encoded record to `text`, with '\n'.
    ///
    /// Floats get the shortest text that reads back to the same float.
    /// @param record  of this codec
    void render_line(RecordView record, ByteBuffer& text);

    /// Appends an encoded record to the records of a handler, which must list
    /// this codec's references. The way in is extract_alignment_from_buffer().
    ///
    /// @param line   the record's `sam_line`, without '\n'
    /// @param error  on false, the reason
    bool hand_over(RecordView record, std::string_view line, util::bam::BAMFileHandler& handler,
                   std::string& error);

    /// Why the last record was refused.
    Fault const& fault() const { return fault_; }

private:
    class LineEncoder;
    class RecordChecker;

    // A repair or warning of the record in work; it counts once the record is
    // accepted.
    void note(Repair repair);
    void note(Warning warning);
    // Moves what was noted into the report.
    void accept(Place place);
    // Forgets what was noted. Returns false, for `return refuse(...)`.
    bool refuse(std::string column, std::string reason);

    // Position of a name in the header, or -1; the last name asked for is
    // remembered, as neighbours mostly share it.
    std::int32_t find_reference(std::string_view name);
    std::uint16_t bin_of(std::int32_t pos, std::int64_t n_reference_bases);
    void check_reference_end(std::int32_t refID, std::int32_t pos, std::int64_t n_reference_bases);

    Header const& header_;
    Report& report_;
    Fault fault_;
    util::bam::BAMFileHandler bins_;  // for reg_to_bin() alone
    std::string last_name_;
    std::int32_t last_refID_ = -1;
    std::vector<Repair> repairs_;  // noted
    std::vector<Warning> warnings_;
    std::vector<std::uint32_t> long_cigar_;
    std::vector<char> copy_;  // of a record on its way to a handler
};

}  // namespace tesk::interop

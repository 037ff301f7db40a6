// Alignment records as the bytes of a BAM file.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "interop/byte_buffer.h"
#include "util/bam/export.h"

namespace tesk::interop {

/// The letters of CIGAR operations; a letter's place is its code.
constexpr std::string_view CIGAR_OPERATIONS = "MIDNSHP=X";
/// Packed operations: length << CIGAR_OP_BITS | code.
constexpr std::uint32_t CIGAR_OP_BITS = 4;
constexpr std::uint32_t CIGAR_OP_MASK = 15;
/// By code, bit 0 for M: whether an operation covers bases of the reference.
constexpr std::uint32_t CIGAR_COVERS_REFERENCE = 0b110001101;  // M D N = X

/// The bases of SEQ, two to a byte, the first one in the high bits; a letter's place
/// is its code.
constexpr std::string_view SEQ_BASES = "=ACMGRSVTWYHKDBN";

/// QUAL of a record without qualities begins with this byte.
constexpr char NO_QUALITY = '\xFF';

/// The base after the last one that a record covers, 0-based: a record that covers
/// none, as unmapped ones do, counts as one base.
constexpr std::int64_t end_on_reference(std::int32_t pos, std::int64_t n_reference_bases) {
    return std::int64_t{pos} + (n_reference_bases == 0 ? 1 : n_reference_bases);
}

/// A look at one encoded record. Nothing is checked: the bytes come from
/// RecordCodec.
class TESK_BAM_EXPORT RecordView {
public:
    /// @param bytes  the record, its block_size field first
    explicit RecordView(char const* bytes) : body_(bytes + BLOCK_SIZE_BYTES) {}

    /// A record whose block_size field may be elsewhere; bytes(), size() and end()
    /// must not be called.
    static RecordView of_body(char const* body) { return RecordView(body, OfBody()); }

    /// The record, its block_size field first.
    char const* bytes() const { return body_ - BLOCK_SIZE_BYTES; }
    /// Number of bytes, the block_size field included.
    std::size_t size() const {
        std::uint32_t block_size;
        std::memcpy(&block_size, bytes(), sizeof block_size);
        return BLOCK_SIZE_BYTES + block_size;
    }

    /// @name Fields, as the format names them
    /// @{
    std::int32_t refID() const { return get<std::int32_t>(0); }          ///< -1 for none
    std::int32_t pos() const { return get<std::int32_t>(4); }            ///< 0-based; -1 for none
    std::size_t l_read_name() const { return get<std::uint8_t>(8); }     ///< NUL included
    std::uint8_t mapq() const { return get<std::uint8_t>(9); }           ///< 255 for none
    std::uint16_t bin() const { return get<std::uint16_t>(10); }         ///< of the index
    std::uint16_t n_cigar_op() const { return get<std::uint16_t>(12); }  ///< number of operations
    std::uint16_t flag() const { return get<std::uint16_t>(14); }        ///< bits
    std::int32_t l_seq() const { return get<std::int32_t>(16); }         ///< number of bases
    std::int32_t next_refID() const { return get<std::int32_t>(20); }    ///< -1 for none
    std::int32_t next_pos() const { return get<std::int32_t>(24); }      ///< 0-based; -1 for none
    std::int32_t tlen() const { return get<std::int32_t>(28); }          ///< in bases, with a sign
    /// @}

    /// Without its NUL.
    std::string_view read_name() const { return {body_ + FIXED_BYTES, l_read_name() - 1}; }
    /// Packed operations, 4 bytes each, not aligned.
    char const* cigar() const { return body_ + FIXED_BYTES + l_read_name(); }
    /// Two bases a byte.
    char const* seq() const { return cigar() + std::size_t{4} * n_cigar_op(); }
    /// One byte a base, without an offset.
    char const* qual() const { return seq() + (static_cast<std::size_t>(l_seq()) + 1) / 2; }
    /// Optional fields, up to end().
    char const* aux() const { return qual() + l_seq(); }
    /// Behind the record.
    char const* end() const { return bytes() + size(); }

    /// The base after the last one on the reference, 0-based, as end_on_reference()
    /// has it. Records with a CIGAR in a CG
    /// field are measured by their placeholder, which covers the same bases.
    std::int64_t end_pos() const;

private:
    static constexpr std::size_t BLOCK_SIZE_BYTES = 4;
    static constexpr std::size_t FIXED_BYTES = 32;  // in front of the name

    struct OfBody {};
    RecordView(char const* body, OfBody) : body_(body) {}

    template <typename T>
    T get(std::size_t offset) const {
        T value;
        std::memcpy(&value, body_ + offset, sizeof value);
        return value;
    }

    char const* body_;  // behind block_size
};

/// Consecutive records of a file.
struct RecordBatch {
    ByteBuffer records;         ///< encoded, back to back, as in a BAM file
    std::size_t n_records = 0;  ///< their number
    ByteBuffer lines;           ///< their SAM lines, each with '\n', where the input has
                                ///< them and they are asked for; else empty

    /// Drops all records; keeps the room.
    void clear() {
        records.clear();
        lines.clear();
        n_records = 0;
    }
};

/// Calls `visit` with a RecordView of each record of encoded bytes, in order.
template <typename Visit>
void for_each_record(std::string_view records, Visit visit) {
    for (std::size_t at = 0; at < records.size();) {
        RecordView const record(records.data() + at);
        at += record.size();
        visit(record);
    }
}

}  // namespace tesk::interop

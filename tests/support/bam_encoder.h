// An encoder of BAM of the tests' own: it shares nothing with the library, so
// that bytes which both produce can be trusted.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tesk::test {

// --- BGZF ------------------------------------------------------------------

/// A text as one member of gzip data.
std::string gzip_member(std::string_view text);

/// The empty block that ends a BAM file, 28 bytes.
std::string bgzf_eof_block();

/// One BGZF block around a payload of at most 65,280 bytes.
std::string bgzf_block(std::string_view payload);

/// A payload of any size as BGZF blocks of at most `block_size` payload bytes,
/// without the block that ends the file.
std::string bgzf_blocks(std::string_view payload, std::size_t block_size = 65280);

/// One block of a BGZF file.
struct BgzfBlock {
    std::uint64_t offset = 0;  // of its first byte in the file
    std::uint64_t size = 0;    // of the whole block
    std::string payload;       // inflated
};

/// The blocks of a BGZF file; throws std::runtime_error where a header, a
/// checksum or a length is wrong.
std::vector<BgzfBlock> parse_bgzf(std::string_view file);

/// Their payloads, joined.
std::string inflate_bgzf(std::string_view file);

// --- BAM -------------------------------------------------------------------

struct Reference {
    std::string name;
    std::int32_t length = 0;
};

/// The fields of a BAM record as they stand in the file, every one of them free
/// to be wrong; bytes() writes them one after another.
struct RawBamRecord {
    std::int32_t refID = -1;
    std::int32_t pos = -1;
    std::string read_name = "r1";  // written with a NUL after it
    std::uint8_t mapq = 0;
    std::uint16_t bin = 4680;
    std::uint16_t flag = 4;
    std::int32_t next_refID = -1;
    std::int32_t next_pos = -1;
    std::int32_t tlen = 0;
    std::vector<std::uint32_t> cigar;  // packed
    std::int32_t l_seq = 0;
    std::string seq;                     // packed, two bases a byte
    std::string qual;                    // without the offset 33
    std::string aux;                     // encoded optional fields, see below
    std::int32_t block_size_excess = 0;  // added to the true block_size

    std::string bytes() const;
};

/// One encoded optional field: tag, type letter and the value's bytes.
std::string bam_aux(std::string_view tag, char type, std::string_view value_bytes);

/// The bytes of a little-endian number.
template <typename T>
std::string le_bytes(T value) {
    std::string bytes;
    for (std::size_t i = 0; i < sizeof value; ++i) {
        bytes += static_cast<char>((static_cast<std::uint64_t>(value) >> (8 * i)) & 0xFF);
    }
    return bytes;
}

/// Magic, header text and reference list.
std::string encode_bam_header(std::string_view text, std::vector<Reference> const& references);

/// The record that a well-formed SAM line stands for, encoded from the text
/// alone (bin included; integers as type i, or I above 2^31 - 1; a CIGAR of more
/// than 65,535 operations in a CG field before the others).
std::string encode_bam_record(std::string_view sam_line, std::vector<Reference> const& references);

/// The header that BAM output carries for a well-formed SAM header: @HD with
/// VN:1.6 and the given sort order ("\tSO:unknown" and the like), then all
/// lines but @HD.
std::string bam_header_text(std::string_view sam_header, std::string_view sort_order);

/// References of the @SQ lines of SAM header text.
std::vector<Reference> references_of(std::string_view sam_header);

/// Header lines and alignment lines of SAM text, each without its newline.
struct SamText {
    std::string header;                   // every @ line with a newline
    std::vector<std::string> alignments;  // without newline
};
SamText split_sam(std::string_view text);

}  // namespace tesk::test

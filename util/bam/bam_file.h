// tesk_bam: sequence alignments in memory, moved between SAM, BAM and BAI.
//
// A BAMFileHandler holds one header and a list of alignment records. Fill it
// from a SAM or BAM file, or line by line; sort it; write it as SAM, or as BAM
// with a BAI index:
//
//     #include <iostream>
//
//     #include "util/bam/bam_file.h"
//
//     int main(int argc, char** argv) {
//         if (argc != 3) return 2;  // usage: convert IN.sam OUT.bam
//         tesk::util::bam::BAMFileHandler alignments;
//         bool const done = alignments.read_from_sam_file(argv[1]) && alignments.sort() &&
//                           alignments.write_to_bam_file(argv[2], true);  // and OUT.bam.bai
//         if (!done) std::cerr << alignments.error_message << '\n';
//         return done ? 0 : 1;
//     }
//
// Errors. A member that can fail returns bool: true is success; on false,
// `error_message` says why (a message of a lower call follows the caller's own
// words). It is never cleared on success, so read it only after a false
// result. A few faults are exceptions instead, named at the members they leave:
//   std::invalid_argument, std::out_of_range   a number in an optional field or
//                                              an LN value is malformed
//   std::runtime_error                         a byte cursor hit its end
//   boost::bad_any_cast                        an optional value does not have
//                                              the type its letter names
//   std::length_error                          a position beyond all indexes, or a
//                                              read of more than 2^31 - 1 bases
//   std::bad_alloc                             memory has run out, anywhere; reset()
//                                              makes the handler as good as new
//
// Threads. Nothing is locked. Use a handler from one thread at a time, const
// members included: they update mutable members. Distinct handlers may work in
// parallel, except that BAM files with an index must be written one after
// another: one flag of the index writer is shared by the whole process.
//
// Coordinates are 0-based, and intervals half-open, wherever the text says
// nothing else; SAM text itself is 1-based. Machines are little-endian.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <boost/any.hpp>

#include "data_wrappers/vec_view.h"
#include "util/bam/export.h"

namespace tesk::util::bam {

/// A SAM header and the alignment records under it, and their way in and out.
class TESK_BAM_EXPORT BAMFileHandler {
public:
    // =======================================================================
    // 1. Alignment store
    // =======================================================================

    /// Value of an optional field of type letter B: an array of numbers.
    struct AuxNumericalArray {
        char type = '\0';         ///< element type letter: c, C, s, S, i, I or f
        std::uint32_t count = 0;  ///< number of elements
        std::vector<char> data;   ///< the elements, little-endian, back to back;
                                  ///< c, C: 1 byte each; s, S: 2; i, I, f: 4
    };

    /// One optional field (TAG:TYPE:VALUE) of a record.
    ///
    /// `value` holds exactly the C++ type that the letter names:
    ///   A char   c std::int8_t   C std::uint8_t   s std::int16_t
    ///   S std::uint16_t   i std::int32_t   I std::uint32_t   f float
    ///   Z and H std::string (for H the hex digits)   B AuxNumericalArray
    /// SAM text gives A, i, f, Z, H and B; BAM input gives them all. A value of
    /// another type makes rendering and serialising throw boost::bad_any_cast.
    struct AuxData {
        std::string tag;   ///< two characters
        char type = '\0';  ///< type letter
        boost::any value;  ///< of the type that the letter names
    };

    /// One alignment: every field in BAM's packed form, and its SAM line.
    struct BamRecord {
        std::int32_t refID = 0;            ///< index into `references`; -1 for none
        std::int32_t pos = 0;              ///< leftmost base, 0-based; -1 for SAM POS 0
        std::string read_name;             ///< QNAME, without NUL
        std::uint8_t mapq = 0;             ///< mapping quality; 255 unavailable
        std::uint16_t bin = 0;             ///< reg_to_bin(pos, pos + ref_length)
        std::uint16_t flag = 0;            ///< SAM FLAG bits
        std::int32_t l_seq = 0;            ///< number of bases; 0 for SEQ "*"
        std::int32_t next_refID = 0;       ///< reference of the next segment; -1 for none
        std::int32_t next_pos = 0;         ///< its leftmost base, 0-based; -1 for none
        std::int32_t tlen = 0;             ///< observed template length, in bases
        std::vector<std::uint32_t> cigar;  ///< operations: length << 4 | code, the
                                           ///< code an index into "MIDNSHP=X";
                                           ///< empty for CIGAR "*"
        std::uint64_t ref_length = 0;      ///< reference bases that the CIGAR covers
                                           ///< (M, D, N, = and X); 1 for CIGAR "*"
                                           ///< in SAM text, 0 in BAM
        std::vector<std::uint8_t> seq;     ///< two bases a byte, the first in the high
                                           ///< nibble; codes index "=ACMGRSVTWYHKDBN";
                                           ///< (l_seq + 1) / 2 bytes
        std::vector<char> qual;            ///< Phred scores without the offset 33, l_seq
                                           ///< bytes; all 0xFF for QUAL "*"
        std::vector<AuxData> aux_data;     ///< optional fields, in record order
        std::string sam_line;              ///< the SAM line, without line terminator
    };

    /// One reference sequence: an @SQ line, or an entry of a BAM file's list.
    struct RefSeq {
        std::string name;         ///< SN
        std::int32_t length = 0;  ///< LN, in bases
    };

    // The state. Callers may read all of it; what may be changed by hand is
    // said beside each member.

    mutable std::string error_message;      ///< text of the last failure
    mutable std::string file_name;          ///< path in use; ends some error texts
    mutable std::size_t bytes_written = 0;  ///< compressed bytes written so far to
                                            ///< the BAM file being written
    std::string header;                     ///< header text as read or added; what SAM
                                            ///< output begins with
    bool has_sort_order = false;            ///< true while a definite order of the records
                                            ///< is on record
    std::string sort_order;                 ///< that order as an @HD fragment, such as
                                            ///< "\tSO:coordinate"; empty for none
    std::string header_lines;               ///< accepted @SQ, @RG, @PG and @CO lines, each
                                            ///< with its newline
    /// in @SQ order; a refID indexes it. Append at will; entries of a list longer
    /// than 16 must keep their names while lines are added
    std::vector<RefSeq> references;
    std::vector<BamRecord> records;               ///< in insertion order until sorted
    std::map<char, std::int32_t> cigar_op_codes;  ///< CIGAR letter -> BAM code; -1
                                                  ///< for every other char
    std::map<char, std::int32_t> seq_codes;       ///< base letter -> 4-bit code, U as T;
                                                  ///< -1 for every other char, lower
                                                  ///< case included

    /// An empty handler: no header, no references, no records.
    BAMFileHandler();

    /// Empties header, sort order, references and records; keeps
    /// `error_message` and `file_name`. Always true.
    bool reset();

    /// Copies the header text, as read or added, into `out`. Always true.
    bool get_header(std::string& out) const;

    /// Stores the number of records in `n`. Always true.
    bool get_num_alignments(unsigned long& n) const;

    /// Copies the SAM line of one record, without line terminator, into `out`.
    ///
    /// @param index  position in `records`, from 0
    /// @param out    receives the line; untouched on false
    ///
    /// On false, `error_message` is "alignment sam index out of range!".
    bool get_alignment_sam(unsigned long index, std::string& out) const;

    // =======================================================================
    // 2. SAM text codec
    // =======================================================================

    /// Parses one SAM alignment line into a record.
    ///
    /// The eleven columns are words separated by white space of any kind, the
    /// numbers read as formatted stream extraction reads them: FLAG into 16
    /// bits (-1 gives 65535), POS, MAPQ, PNEXT and TLEN into 32; a number that
    /// does not fit makes the line malformed, MAPQ keeps its low 8 bits. A
    /// carriage return right after the eleventh column is accepted at the end
    /// of a line. Optional fields follow, each after one tab.
    ///
    /// @param line    the line, no line terminator; POS and PNEXT 1-based
    /// @param record  a default-constructed record; receives every field, and
    ///                `line` itself as `sam_line`
    ///
    /// References are looked up by name in `references`: -1 for "*" and for
    /// names that are not there. On false or an exception `record` is partly
    /// filled; on false, `error_message` is one of
    ///   "Malformed SAM line detected"  a column is missing or is no number
    ///   "Invalid aux data detected: " + field
    ///         too short, no ':' where one belongs, empty after a trailing tab,
    ///         or an array with elements of an unknown type
    ///   "Invalid auxiliary data type) '" + letter +
    ///         "' found in alignment record in " + file_name
    ///         a type letter other than A, i, f, Z, H and B
    ///   a message of pack_cigar_string() or pack_seq_string()
    ///
    /// Elements of an array are cut to their width without a check: 300 in a C
    /// array is stored as 44.
    /// @throws std::invalid_argument, std::out_of_range
    ///              a number of an i or f field or of an array is malformed or
    ///              does not fit 32 bits (for I elements: signed 32 bits)
    /// @throws std::runtime_error
    ///              "Hit end of BAM buffer while writing data": an array's type
    ///              letter is followed by something else than a comma
    /// @throws std::length_error  more than 2^31 - 1 bases
    bool parse_sam_line_to_bam_record(std::string const& line, BamRecord& record);

    /// Parses one SAM alignment line and appends it to `records`.
    ///
    /// @param line  as for parse_sam_line_to_bam_record()
    /// @return      true if a record was appended; `has_sort_order` is then false
    ///
    /// On false, `records` is as before and `error_message` is
    /// "Sam to Bam parsing failed: " followed by the parser's message.
    /// @throws what the parser throws; the partly filled record then stays in
    ///         `records`
    bool add_alignment_sam(std::string line);

    /// Packs CIGAR text into `record.cigar`.
    ///
    /// @param text     such as "10M2I5D", or "*", which leaves `cigar` alone
    /// @param record   receives the operations
    /// @param ref_len  receives the number of reference bases they cover; 1 for
    ///                 "*", so that an unplaced read's bin covers one base
    /// @param seq_len  number of bases of the read
    ///
    /// A letter that is no operation is not refused: it becomes the operation
    /// 0xFFFFFFFF. Lengths are read as by strtol and taken as 32 bits. More
    /// than 65,535 operations do not fit a BAM record: they go into a CG field
    /// (an I array) appended to `record.aux_data`, and `cigar` becomes the
    /// placeholder `<seq_len>S<ref_len>N`.
    ///
    /// On false, `error_message` is "Invalid cigar op detected: '" + letter +
    /// "'": `cigar_op_codes` was given a code of 9 or more for the letter.
    bool pack_cigar_string(std::string const& text, BamRecord& record, unsigned long& ref_len,
                           unsigned long seq_len);

    /// Turns packed CIGAR operations into text. Always true.
    ///
    /// @param ops          n_ops operations, length << 4 | code
    /// @param n_ops        their number; 0 gives "*"
    /// @param out          replaced by the text; codes above 8 become '?'
    /// @param seq_len      number of bases of the read
    /// @param placeholder  set to whether the first operation is a soft clip of
    ///                     at least seq_len bases, as it is where the real
    ///                     CIGAR stands in a CG field
    bool unpack_cigar_string(unsigned int const* ops, unsigned long n_ops, std::string& out,
                             unsigned long seq_len, bool& placeholder);

    /// Number of reference bases that packed operations cover: the sum of the
    /// lengths of M, D, N, = and X.
    unsigned long get_cigar_ref_length(std::vector<unsigned int>& cigar);

    /// Packs SEQ text into `record.seq` and `record.l_seq`; "*" changes nothing.
    ///
    /// On false, `error_message` is "Invalid sequence code detected": a base is
    /// none of "=ACMGRSVTWYHKDBN" or U (lower case is not). Deliberate: the last
    /// base of an odd number of bases is not checked; an invalid one reads back
    /// as N.
    /// @throws std::length_error  more than 2^31 - 1 bases
    bool pack_seq_string(std::string const& text, BamRecord& record);

    /// Appends the bases of a record to `out`, which is not cleared; with l_seq
    /// 0, sets `out` to "*". Always true.
    /// @throws std::out_of_range  `record.seq` is shorter than l_seq asks
    bool unpack_seq_string(BamRecord const& record, std::string& out);

    /// Packs QUAL text (scores with the offset 33) into `record.qual`: l_seq
    /// bytes, 0xFF each for "*". Missing scores are 0, excess ones ignored.
    /// Always true.
    /// @throws std::length_error  l_seq is negative
    bool pack_phred_string(std::string const& text, BamRecord& record);

    /// Sets `out` to the qualities with the offset 33, or to "*" when l_seq is 0
    /// or the first score is 0xFF. Always true.
    /// @throws std::out_of_range  `record.qual` is shorter than l_seq
    bool unpack_phred_string(BamRecord const& record, std::string& out);

    /// Renders a record's SAM line from its binary fields into `sam_line`.
    ///
    /// Integers of every width become type i. Floats have six decimals without
    /// trailing zeros: 1.5, and deliberately "2." for 2. A long CIGAR is taken
    /// from the CG field, which is then left out.
    ///
    /// On false, `error_message` is one of
    ///   "Invalid next segment ref ID detected"
    ///         next_refID, or refID, is neither -1 nor an index into
    ///         `references`; `sam_line` is as before
    ///   "Invalid auxiliary data type encountered: " + type letter
    ///         `sam_line` ends with the field's tag and ':'
    /// @throws boost::bad_any_cast
    ///              a value is not of the type its letter names; `sam_line` ends
    ///              as above (for a long CIGAR's CG field it is as before).
    ///              Deliberate: so does an f array with elements, with
    ///              `sam_line` ending in ":B:f,"
    /// @throws std::runtime_error
    ///              "Hit end of BAM buffer while extracting data": an array
    ///              holds fewer bytes than its count asks
    /// @throws std::out_of_range  seq or qual is shorter than l_seq asks
    bool update_sam_line(BamRecord& record);

    /// Replaces everything held by the contents of a SAM file.
    ///
    /// Lines end at '\n' alone; empty ones are skipped, those that begin with
    /// '@' go to add_header_lines() one by one, all others to
    /// add_alignment_sam().
    ///
    /// On false, what was read before the fault stays, and `error_message` is
    ///   "Cannot open file " + path
    ///   "Could not parse header from SAM file " + path + " : " + its message
    ///   "Could not parse alignment from SAM file " + path + " : " + its message
    ///   "SAM file reported error on close " + path   reading failed midway
    /// @throws what add_header_lines() and add_alignment_sam() throw
    bool read_from_sam_file(std::string const& path);

    /// Writes `header` and the records' SAM lines, as they stand, to a file.
    ///
    /// On false, `error_message` is
    ///   "Cannot open SAM file : " + path
    ///   "SAM file reported error on close " + path   not all could be written
    bool write_to_sam_file(std::string const& path) const;

    // =======================================================================
    // 3. Header
    // =======================================================================

    /// Checks SAM header text and files what it holds: @SQ lines also into
    /// `references`, the order of @HD into `sort_order`, every line but @HD into
    /// `header_lines`, the whole text into `header`, which always ends with a
    /// newline unless empty. A definite order sets `has_sort_order`. Calls
    /// accumulate.
    ///
    /// @param text  one or more header lines, separated by '\n'
    ///
    /// Each call starts at SAM version 1.6; an @HD line's VN holds for the rest
    /// of the same call. Deliberate: an SS value that begins with the SO value
    /// and ':' replaces the SO fragment in `sort_order`.
    ///
    /// On false, `references` and `header` are as before (what earlier lines of
    /// the call put into the other members stays) and `error_message` is one of
    /// the following, each with the whole line at its end:
    ///   "Multiple @HD lines encountered in header line: "
    ///   "@HD lines encountered after first header line: "
    ///   "Mandatory 'VN' field not found in @HD header line: "
    ///   "Invalid field '" + word + "' encountered in @HD header line: "
    ///   "Invalid 'VN' field '" + value + "' encountered in @HD header line: "
    ///   "Unsupported 'GO' field encountered in @HD header line with VN < 1.5: "
    ///   "Unsupported 'SS' field encountered in @HD header line with VN < 1.6: "
    ///   "Mutually exclusive 'SO' and 'GO' fields encountered in @HD header line: "
    ///   "Invalid 'SO' field '" + value + "' encountered in @HD header line: "
    ///   "Invalid 'GO' field '" + value + "' encountered in @HD header line: "
    ///   "Malformed @SQ line encountered in header lines: "
    ///   "Unsupported '" + type + "' line encountered in @HD header line with VN < 1.3: "
    ///         an @RG or @PG line; deliberate: refused below a minor version of 6
    ///   "Invalid line encountered in header lines: "
    /// @throws std::invalid_argument, std::out_of_range
    ///              an LN value is no number or does not fit 32 bits; the state
    ///              is left as on false
    bool add_header_lines(std::string text);

    /// Replaces `out` by the header that BAM output carries: @HD with VN:1.6
    /// and the current sort order (SO:unknown where there is none), then
    /// `header_lines`. Always true.
    bool get_updated_header(std::string& out) const;

    // =======================================================================
    // 4. BAM container
    // =======================================================================

    /// A bounded cursor over bytes that somebody else owns.
    ///
    /// Every operation checks the room that is left, `size - pos`, first; one
    /// that does not fit throws std::runtime_error and moves nothing.
    /// Values are moved in the machine's (little-endian) order.
    struct BamBuffer {
        char* data;           ///< start of the bytes
        std::size_t size;     ///< their number
        std::size_t pos = 0;  ///< offset of the next byte to read or write

        /// Steps over the next n bytes and returns where they begin.
        /// @throws std::runtime_error
        ///              "Hit end of BAM buffer while extracting data"
        char* get_bytes(std::size_t n) {
            if (!has_room(n)) {
                throw std::runtime_error("Hit end of BAM buffer while extracting data");
            }
            char* const bytes = data + pos;
            pos += n;
            return bytes;
        }

        /// Copies n bytes from src to the cursor and steps over them.
        /// @throws std::runtime_error
        ///              "Hit end of BAM buffer while writing data"
        void put_bytes(char const* src, std::size_t n) {
            if (!has_room(n)) {
                throw std::runtime_error("Hit end of BAM buffer while writing data");
            }
            if (n != 0) std::memcpy(data + pos, src, n);
            pos += n;
        }

        /// Reads one number of sizeof(T) bytes; throws as get_bytes() does.
        template <typename T>
        T get() {
            static_assert(std::is_arithmetic_v<T>, "only numbers are moved as raw bytes");
            T value;
            std::memcpy(&value, get_bytes(sizeof value), sizeof value);
            return value;
        }

        /// Writes one number of sizeof(T) bytes; throws as put_bytes() does.
        template <typename T>
        void put(T value) {
            static_assert(std::is_arithmetic_v<T>, "only numbers are moved as raw bytes");
            char bytes[sizeof value];
            std::memcpy(bytes, &value, sizeof value);
            put_bytes(bytes, sizeof value);
        }

    private:
        bool has_room(std::size_t n) const { return pos <= size && n <= size - pos; }
    };

    /// Deflates the payload of one BGZF block.
    ///
    /// @param data  `size` bytes
    /// @param size  at most 65,536
    /// @return      a raw deflate stream of at most 65,536 bytes. Where it would
    ///              be longer, or cannot be ended: as many zero bytes as were
    ///              produced, with `error_message` set. Empty after the first two
    ///              failures
    ///
    /// `error_message` after a failure:
    ///   "Arguments to compress_data incorrect"  null data, or size above 65,536
    ///   "Could not initialize stream deflate"
    ///   "Deflate failed with error code " + zlib's code
    ///   "Deflate end failed with error code " + zlib's code
    std::vector<char> compress_data(char const* data, unsigned int size) const;

    /// Inflates the payload of one BGZF block.
    ///
    /// @param data               a raw deflate stream
    /// @param compressed_size    its length in bytes, at most 65,536
    /// @param uncompressed_size  number of bytes it must yield, at most 65,536
    /// @return                   those bytes; empty after a failure
    ///
    /// `error_message` after a failure:
    ///   "Arguments to decompress_data incorrect"  null data, or a size too large
    ///   "Could not initialize stream inflate"
    ///   "Inflate failed with error code " + zlib's code
    ///         the stream does not end after the last expected byte
    ///   "Inflate did not produce expected amount of data"
    ///         the stream ends, or is damaged, before it
    std::vector<char> decompress_data(char const* data, unsigned int compressed_size,
                                      unsigned int uncompressed_size);

    /// Appends bytes to a BAM file as one or more BGZF blocks, and advances
    /// `bytes_written` by their compressed size.
    ///
    /// @param out           the file, at its end
    /// @param data          the bytes; cut into payloads of 65,536, those halved
    ///                      until they fit 65,510 compressed bytes
    /// @param block_offset  set to the virtual offset of the last block written
    ///                      (of the file's end when data is empty)
    /// @param end_offset    set to the virtual offset after it
    /// @return              always true; errors of `out` show when it is closed
    bool write_BGZF_blocks_to_BAM(std::ofstream& out, std::vector<char> const& data,
                                  unsigned long& block_offset, unsigned long& end_offset) const;

    /// Reads the next BGZF block of a file and appends its payload to `out`.
    ///
    /// On false, `out` is as before and `error_message` is
    ///   "Encountered malformed BGZF header in file " + file_name
    ///   "Encountered unknown sub fields in BGZF header in file " + file_name
    ///   "Encountered malformed BGZF subfield in file " + file_name
    ///   "Encountered over-sized BGZF block in file " + file_name
    ///         BSIZE leaves less than nothing for the payload
    ///   "BGZF block did not unzip correctly in file " + file_name + " : " +
    ///         the message of decompress_data()
    ///   "CRC mismatch after decompressing BGZF block!"
    bool read_BGZF_block_from_BAM(std::ifstream& in, std::vector<char>& out);

    /// Turns a record into the bytes of a BAM alignment record, its block_size
    /// field included.
    ///
    /// @param record  read name length modulo 256 and operation count modulo
    ///                65,536 are what is written of the two
    /// @param buffer  resized to the record's length and filled
    ///
    /// Deliberate: a record with an optional field of type s or S cannot be
    /// written.
    /// On false, `error_message` is
    /// "Write buffer was not fully used when serialising SAM line".
    /// @throws std::runtime_error
    ///              "Hit end of BAM buffer while writing data": a field of type
    ///              s, S or of an unknown type
    /// @throws boost::bad_any_cast
    ///              a value is not of the type its letter names
    bool serialise_bam_record_to_buffer(BamRecord const& record, std::vector<char>& buffer) const;

    /// Decodes the BAM alignment record at the cursor, renders its SAM line and
    /// appends it to `records`.
    ///
    /// On false or an exception nothing is appended; on false, `error_message`
    /// is one of
    ///   "Invalid auxiliary data type found in alignment record in " + file_name
    ///   "BAM file block length mismatch in file " + file_name
    ///   "SAM line generation failed: " + the message of update_sam_line()
    /// @throws std::runtime_error
    ///              "Hit end of BAM buffer while extracting data": the record,
    ///              or a count in it, goes beyond the buffer
    /// @throws boost::bad_any_cast
    ///              the record has an f array with elements
    bool extract_alignment_from_buffer(BamBuffer& buffer);

    /// Replaces everything held by the contents of a BAM file.
    ///
    /// The whole file is inflated into memory, and every record's SAM line repeats
    /// the names of its references. Deliberate: `references` lists
    /// the @SQ lines of the header text, then the file's binary list, so each
    /// reference twice in most files; one empty block anywhere passes as the
    /// end-of-file block; files of 2 GiB or more are not read.
    ///
    /// On false, what was decoded before the fault stays, and `error_message` is
    /// a message of read_BGZF_block_from_BAM(), add_header_lines() or
    /// extract_alignment_from_buffer(), or one of
    ///   "Cannot open file " + path
    ///   "Final BGZF block was not the EOF sequence as expected in file " + path +
    ///         ". Perhaps the file is corrupt?"
    ///   "BAM file reported error on close " + path
    ///   "BAM file did not contain well formed header: " + path
    ///   "Reached end of uncompressed BAM buffer unexpectedly while extracting data: "
    ///         + "Hit end of BAM buffer while extracting data"
    /// @throws what add_header_lines() throws
    /// @throws boost::bad_any_cast  a record has an f array with elements
    bool read_from_bam_file(std::string const& path);

    /// Writes a BAM file, every record in BGZF blocks of its own; on request
    /// with its index, as path + ".bai".
    ///
    /// @param path         the file, replaced where it exists
    /// @param write_index  asks for the index, for which `sort_order` must begin
    ///                     with "\tSO:coordinate"
    ///
    /// The index is gathered from the records in the order in which they stand.
    /// On false the partly written file stays, and `error_message` is
    ///   "Cannot open file " + path
    ///   "Index can be written only for sorted files"
    ///   "Header buffer was not correctly filled during write"
    ///   "Bam record serialization failed: " + the serialiser's message
    ///   "BGZF writing failed: " + the message of compress_data()
    ///   "BAM file reported error on close " + path   not all could be written
    ///   "Could not write BAM index : " + the message of write_index_to_file()
    /// @throws what serialise_bam_record_to_buffer() throws
    /// @throws std::length_error
    ///              with write_index, a record ends so far out (beyond some 2^33
    ///              bases) that the linear index would grow above 2^20 windows
    bool write_to_bam_file(std::string const& path, bool write_index) const;

    /// The same, and calls sort() first when an index is asked for and
    /// `sort_order` does not begin with "\tSO:coordinate". Lines added after an
    /// @HD line with SO:coordinate do not change `sort_order`: call sort()
    /// yourself where they may be out of order.
    bool write_to_bam_file(std::string const& path, bool write_index);

    // =======================================================================
    // 5. Coordinate sort and BAI index
    // =======================================================================

    /// One stretch of a BAM file. Virtual offsets: (offset of a BGZF block in
    /// the file << 16) | offset in that block's uncompressed data.
    struct ChunkIndex {
        std::uint64_t chunk_beg = 0;  ///< virtual offset of its first record
        std::uint64_t chunk_end = 0;  ///< virtual offset after its last record
    };

    /// The chunks of one bin, in the order in which they were written.
    struct BinIndex {
        std::vector<ChunkIndex> chunks;  ///< in file order
    };

    /// The index of one reference sequence.
    struct ReferenceIndex {
        std::uint64_t n_mapped = 0;    ///< placed records without flag bit 4
        std::uint64_t n_unmapped = 0;  ///< placed records with it
        /// virtual offset of the first chunk; all ones: none yet
        std::uint64_t ref_beg = std::numeric_limits<std::uint64_t>::max();
        std::uint64_t ref_end = 0;               ///< largest virtual offset of a chunk's end
        std::map<std::uint32_t, BinIndex> bins;  ///< by bin number; none is empty
        std::vector<std::uint64_t> ioffsets;     ///< linear index: virtual offset
                                                 ///< for each window of 16,384 bases
        std::int32_t n_intv = 0;                 ///< how many of them the file holds
    };

    /// The index of a whole BAM file.
    struct FileIndex {
        std::int32_t n_ref = 0;                              ///< number of reference sequences
        std::map<std::int32_t, ReferenceIndex> ref_indices;  ///< by refID
        std::uint64_t n_no_coor = 0;                         ///< number of records with refID -1
    };

    /// Sorts `records` by refID, those without one last, then by pos, and sets
    /// `sort_order` to "\tSO:coordinate" and `has_sort_order` to true. Records
    /// equal in both keep their order. Always true.
    bool sort();

    /// Smallest index bin that holds a whole region: the BAM field `bin`.
    ///
    /// @param beg  first base, 0-based
    /// @param end  base after the last (half-open); for a record pos + ref_length
    /// @return     bin number: 0 (everything) to 37448 (a 16,384-base window) for
    ///             regions inside the first 2^29 bases; unchecked outside them
    ///
    /// reg_to_bin(0, 16384) is 4681, reg_to_bin(0, 16385) is 585.
    unsigned short reg_to_bin(int beg, int end);

    /// Appends to `bins` every bin that overlaps a region, level by level from
    /// the coarsest, ascending within a level. The vector is not cleared.
    ///
    /// @param beg   first base, 0-based
    /// @param end   base after the last (half-open); regions outside the first
    ///              2^29 bases are computed unchecked and cut to 16 bits
    /// @param bins  receives the numbers
    void reg_to_bins(int beg, int end, std::vector<unsigned short>& bins);

    /// Writes a BAI file.
    ///
    /// @param index_file  path; `file_name` keeps it afterwards
    /// @param index       its `ref_indices` gains an empty entry for each
    ///                    reference below n_ref that has none
    ///
    /// On false, `error_message` is "Cannot open index file " + index_file +
    /// " for writing". Errors while writing are not detected.
    bool write_index_to_file(std::string index_file, FileIndex& index) const;

    /// Prints a BAI file in readable form to standard output. A file that ends
    /// early is printed as far as it goes, without the "Got n_no_coor" line;
    /// bytes after the end are reported as the last line.
    ///
    /// On false, `error_message` is
    ///   "Cannot open index file " + index_file
    ///   "Encountered malformed BAI header in file " + index_file
    ///   "Encountered malformed magic bin in index file " + index_file
    ///         bin 37450 does not have two chunks; what came before is printed
    bool print_index_from_file(std::string index_file) const;

    // =======================================================================
    // 6. Basecaller read annotations
    //
    // Static and without state: they may run on many threads at once. Where
    // they fail, `error` (not a handler's `error_message`) receives the text.
    // The output string may be one of the input strings, but not `error`, and no
    // view may look into it; its capacity is kept from call to call.
    // =======================================================================

    /// Builds the eleven columns of an unmapped SAM line, without a tab or
    /// newline at its end.
    ///
    /// @param out        replaced by the line; untouched on false
    /// @param read_name  QNAME, not empty
    /// @param sequence   SEQ, not empty
    /// @param qstring    QUAL as text, offset 33 included; one character a base
    /// @param error      receives the message on false
    ///
    /// FLAG is 4, MAPQ 0; deliberate: TLEN is the number of bases. No character
    /// is checked.
    /// On false, `error` is the first that applies of
    ///   "sequence and qscore do not match size!"
    ///   "Empty read_name string provided!"
    ///   "Empty sequence and qstring provided!"
    ///
    /// Name r1, sequence ACGT and qualities IIII give, between tabs:
    /// r1 4 * 0 0 * * 0 4 ACGT IIII
    static bool make_unmapped_sam_line(std::string& out, std::string const& read_name,
                                       std::string const& sequence, std::string const& qstring,
                                       std::string& error);

    /// Builds the optional field that carries a move table: "mv:B:c,", the
    /// stride, and every entry after a comma.
    ///
    /// @param out     replaced by the field, without a leading tab
    /// @param moves   one entry per signal step; all values 0 to 255
    /// @param stride  signal samples per step; written as it is
    /// @param error   receives the message on false
    ///
    /// The field's numbers have seven bits: a value above 126 becomes as many
    /// 127 as fit, and the rest, even if that is 0: 127 is ",127,0", 200 is
    /// ",127,73".
    /// On false, `out` is untouched and `error` is
    /// "Zero length move table provided to generate_move_table_string".
    static bool generate_move_table_string(std::string& out,
                                           tesk::data_wrappers::VecView<unsigned char> const& moves,
                                           signed char stride, std::string& error);

    /// Builds the optional fields of modified-base calls: "Mm:Z:" with a group
    /// for each modification channel (base, '+', code, '?' where the base has a
    /// context of more than one letter, the number of bases of this kind skipped
    /// before each call, ';'), a tab, and "Ml:B:C" with the probability of each
    /// call.
    ///
    /// @param modbase_string      replaced by the fields, without a leading tab
    /// @param sequence            the read: A, C, G and T alone
    /// @param modbase_alphabet    one letter per channel: a base of "ACGT", then
    ///                            its modifications, such as "ACmGT"
    /// @param modbase_long_names  words: the name of each modification channel,
    ///                            in the order of the alphabet, such as "5mC"
    /// @param context             text form of a BaseModContext; empty for none
    /// @param modbase_probs       probabilities, row by row: base i, channel c
    ///                            at element i * (channels) + c; 255 is certain
    /// @param threshold           bases without a context are reported where a
    ///                            channel of theirs reaches it
    /// @param error_message       receives the message on false
    ///
    /// All channels of a base report the same positions. Channels beyond the
    /// names have an empty code.
    /// On false, `error_message` is one of
    ///   "Mismatch between modbase_probs size and sequence length * num channels in
    ///         modbase_alphabet!"  (one line); `modbase_string` is untouched
    ///   "Unknown modified base abbreviation: " + name
    ///         `modbase_string` holds the groups before it
    /// @throws std::runtime_error  "Invalid base modification context string."
    /// @throws std::out_of_range
    ///              "map::at": another letter in the sequence, or an alphabet
    ///              that begins with a modification
    static bool generate_modbase_string(
        std::string& modbase_string, std::string const& sequence,
        std::string const& modbase_alphabet, std::string const& modbase_long_names,
        std::string const& context,
        tesk::data_wrappers::VecView<unsigned char> const& modbase_probs, unsigned char threshold,
        std::string& error_message);

    /// The same without contexts.
    static bool generate_modbase_string(
        std::string& modbase_string, std::string const& sequence,
        std::string const& modbase_alphabet, std::string const& modbase_long_names,
        tesk::data_wrappers::VecView<unsigned char> const& modbase_probs, unsigned char threshold,
        std::string& error_message);

    /// Code of a modification in the Mm field by its name: 6mA a, 5mC m, 5hmC h,
    /// 5fc f (deliberate: lower case), 5caC c, 8oxoG o, 5hmU g, 5fU e, 5caU b;
    /// for a name of digits alone, or an empty one, the name itself.
    ///
    /// @param channel_code   receives the code; untouched on false
    /// @param long_name      the name
    /// @param error_message  on false, "Unknown modified base abbreviation: " +
    ///                       long_name
    static bool get_modbase_channel_name(std::string& channel_code, std::string const& long_name,
                                         std::string& error_message);

private:
    // Position in `references` of the first entry of a name, or -1, in constant
    // expected time.
    std::int32_t find_reference(std::string_view name);

    // parse_sam_line_to_bam_record() without its last step: `sam_line` stays.
    bool parse_sam_fields(std::string_view line, BamRecord& record);

    // Takes over header, references and records of an inflated BAM file.
    bool parse_bam_payload(BamBuffer buffer);

    // The slot of a name, or where it belongs, free then; null once
    // `references_by_name` has taken the table's place.
    std::int32_t* reference_slot(std::string_view name);
    void forget_reference_names();

    // What is known of the names of the first n_references_known references: a
    // hash table of positions in `references`, -1 in free slots, its size a power
    // of two; or, if that is not empty, a map.
    std::vector<std::int32_t> reference_slots;
    std::map<std::string, std::int32_t, std::less<>> references_by_name;
    std::size_t n_references_known = 0;
};

/// The sequence context in which modifications of each canonical base (A, C, G,
/// T) are reported: a short motif that holds the base at a known offset.
///
/// Text form: a field for each of A, C, G and T, joined by ':'. A field is "_"
/// for no context, else the motif with an X in the place of the base:
/// "_:XG:_:_" is C where G follows.
class TESK_BAM_EXPORT BaseModContext {
public:
    /// No base has a context.
    BaseModContext();

    /// Sets the context of the base that stands at an offset of a motif.
    ///
    /// @param motif   letters; only the one at `offset` is checked
    /// @param offset  of the base in the motif, from 0
    /// @throws std::out_of_range   offset is not inside the motif
    /// @throws std::runtime_error  "Invalid motif string '" + motif + "'.": no A,
    ///                             C, G or T stands there
    void set_context(std::string motif, std::size_t offset);

    /// Motif of a base; empty for no context.
    /// @throws std::out_of_range  "map::at": the letter is none of A, C, G, T
    std::string const& motif(char base) const;

    /// Offset of a base in its motif, from 0; 0 for no context.
    /// @throws std::out_of_range  "map::at": the letter is none of A, C, G, T
    std::size_t motif_offset(char base) const;

    /// Mask of the positions whose base stands in its context: 1 for those, 0
    /// for all others, one number a base.
    ///
    /// Deliberate: a motif that ends on the last base of the read does not
    /// count, so the last base is never marked.
    /// @throws std::out_of_range  "map::at": another letter than A, C, G, T
    std::vector<int> get_sequence_mask(std::string const& sequence) const;

    /// Marks the positions of bases without a context at which a modification
    /// channel reaches the threshold. Marks that are there stay.
    ///
    /// @param mask              one number a base
    /// @param sequence          the read
    /// @param modbase_alphabet  one letter per channel, as generate_modbase_string()
    ///                          takes it
    /// @param modbase_probs     base i, channel c at element i * (channels) + c
    /// @param threshold         least probability that is marked
    /// @throws std::out_of_range  "map::at": the alphabet begins with a modification
    /// @throws std::out_of_range  the mask or the view is shorter than the
    ///                            sequence asks; nothing is changed then
    void update_mask(std::vector<int>& mask, std::string const& sequence,
                     std::string const& modbase_alphabet,
                     tesk::data_wrappers::VecView<unsigned char> const& modbase_probs,
                     unsigned char threshold) const;

    /// The text form.
    std::string encode() const;

    /// Takes contexts over from their text form. False where there are not four
    /// fields (nothing is changed then), or where a field is neither "_" nor has
    /// an X (fields before it are taken over then).
    bool decode(std::string const& text);

private:
    std::map<char, std::size_t> base_to_index;  // A 0, C 1, G 2, T 3
    std::array<std::string, 4> motifs;          // by base index; empty for none
    std::array<std::size_t, 4> offsets{};       // of the base in its motif
};

}  // namespace tesk::util::bam

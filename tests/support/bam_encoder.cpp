#include "tests/support/bam_encoder.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <utility>

#include <zlib.h>
#include <boost/crc.hpp>

#include "tests/support/text.h"

namespace tesk::test {

namespace {

// --- BGZF ------------------------------------------------------------------

constexpr std::size_t BLOCK_HEAD_BYTES = 18;  // gzip header, extra field BC included
constexpr std::size_t BLOCK_TAIL_BYTES = 8;   // CRC32 and ISIZE
constexpr std::size_t MAX_PAYLOAD = 65280;

// For zlib: the largest window, without a wrapping or in that of gzip.
constexpr int RAW_WINDOW_BITS = -15;
constexpr int GZIP_WINDOW_BITS = 15 + 16;

std::uint32_t crc_of(std::string_view bytes) {
    boost::crc_32_type crc;
    crc.process_bytes(bytes.data(), bytes.size());
    return crc.checksum();
}

Bytef* zlib_bytes(std::string& bytes) { return reinterpret_cast<Bytef*>(bytes.data()); }

std::string deflated(std::string_view payload, int window_bits) {
    std::string in(payload);
    z_stream stream{};
    if (deflateInit2(&stream, 6, Z_DEFLATED, window_bits, 9, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("deflateInit2 failed");
    }
    std::string out(deflateBound(&stream, static_cast<uLong>(in.size())), '\0');
    stream.next_in = zlib_bytes(in);
    stream.avail_in = static_cast<uInt>(in.size());
    stream.next_out = zlib_bytes(out);
    stream.avail_out = static_cast<uInt>(out.size());
    int const code = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (code != Z_STREAM_END) throw std::runtime_error("deflate failed");
    return out;
}

// Inflates a stream that has to end exactly with its input and its output.
std::string raw_inflate(std::string_view compressed, std::size_t size) {
    std::string in(compressed);
    std::string out(size, '\0');
    char spare = '\0';  // zlib wants somewhere to point at, even for no bytes
    z_stream stream{};
    if (inflateInit2(&stream, -15) != Z_OK) throw std::runtime_error("inflateInit2 failed");
    stream.next_in = zlib_bytes(in);
    stream.avail_in = static_cast<uInt>(in.size());
    stream.next_out = size == 0 ? reinterpret_cast<Bytef*>(&spare) : zlib_bytes(out);
    stream.avail_out = static_cast<uInt>(size);
    int const code = inflate(&stream, Z_FINISH);
    bool const whole = code == Z_STREAM_END && stream.avail_in == 0 && stream.avail_out == 0;
    inflateEnd(&stream);
    if (!whole) throw std::runtime_error("BGZF block: the deflate stream does not fit ISIZE");
    return out;
}

std::uint64_t number_at(std::string_view bytes, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value |= std::uint64_t{static_cast<unsigned char>(bytes.at(offset + i))} << (8 * i);
    }
    return value;
}

// --- SAM text --------------------------------------------------------------

bool starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// Lines of a text, without their newlines; the end of the text ends a line too.
std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines = split(text, '\n');
    if (lines.back().empty()) lines.pop_back();
    return lines;
}

long long integer(std::string_view text) { return std::stoll(std::string(text)); }

std::int32_t low_32_bits(std::int64_t value) {
    auto const bits = static_cast<std::uint32_t>(static_cast<std::uint64_t>(value));
    std::int32_t result = 0;
    std::memcpy(&result, &bits, sizeof result);
    return result;
}

std::int32_t reference_id(std::string_view name, std::vector<Reference> const& references) {
    for (std::size_t i = 0; i < references.size(); ++i) {
        if (references[i].name == name) return static_cast<std::int32_t>(i);
    }
    return -1;
}

// The smallest bin around a region. Level by level from the finest: a level of
// bins of 2^shift bases begins at number (8^level - 1) / 7.
std::uint16_t bin_of(std::int32_t beg, std::int32_t end) {
    std::int32_t const last = low_32_bits(std::int64_t{end} - 1);
    for (int shift = 14; shift <= 26; shift += 3) {
        if ((beg >> shift) == (last >> shift)) {
            std::int32_t const first_of_level = ((1 << (29 - shift)) - 1) / 7;
            return static_cast<std::uint16_t>(first_of_level + (beg >> shift));
        }
    }
    return 0;
}

struct Cigar {
    std::vector<std::uint32_t> operations;
    std::uint64_t ref_length = 0;
};

Cigar pack_cigar(std::string_view text) {
    static constexpr std::string_view LETTERS = "MIDNSHP=X";
    Cigar cigar;
    if (text == "*") {
        cigar.ref_length = 1;  // an unplaced read takes one base, for its bin
        return cigar;
    }
    std::uint32_t length = 0;
    for (char const c : text) {
        if (c >= '0' && c <= '9') {
            length = length * 10 + static_cast<std::uint32_t>(c - '0');
            continue;
        }
        std::size_t const code = LETTERS.find(c);
        if (code == std::string_view::npos) throw std::runtime_error("CIGAR letter unknown");
        cigar.operations.push_back(length << 4 | static_cast<std::uint32_t>(code));
        if (c == 'M' || c == 'D' || c == 'N' || c == '=' || c == 'X') cigar.ref_length += length;
        length = 0;
    }
    return cigar;
}

std::string pack_bases(std::string_view text) {
    static constexpr std::string_view LETTERS = "=ACMGRSVTWYHKDBN";
    std::string packed((text.size() + 1) / 2, '\0');
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::size_t const code = LETTERS.find(text[i] == 'U' ? 'T' : text[i]);
        if (code == std::string_view::npos) throw std::runtime_error("base letter unknown");
        unsigned const nibble = static_cast<unsigned>(code) << (i % 2 == 0 ? 4 : 0);
        packed[i / 2] = static_cast<char>(static_cast<unsigned char>(packed[i / 2]) | nibble);
    }
    return packed;
}

std::string pack_qualities(std::string_view text, std::size_t l_seq) {
    if (text == "*") return std::string(l_seq, '\xFF');
    std::string qual(l_seq, '\0');
    for (std::size_t i = 0; i < l_seq && i < text.size(); ++i) {
        qual[i] = static_cast<char>(text[i] - 33);
    }
    return qual;
}

std::string float_bytes(std::string_view text) {
    float const value = std::strtof(std::string(text).c_str(), nullptr);
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return le_bytes(bits);
}

// Subtype, count and elements of an array written as in "c,1,-2,3".
std::string array_bytes(std::string_view text) {
    static std::map<char, std::size_t> const WIDTHS = {{'c', 1}, {'C', 1}, {'s', 2}, {'S', 2},
                                                       {'i', 4}, {'I', 4}, {'f', 4}};
    std::vector<std::string_view> const parts = split(text, ',');
    char const subtype = parts.at(0).at(0);
    std::size_t const width = WIDTHS.at(subtype);
    std::string bytes = subtype + le_bytes(static_cast<std::uint32_t>(parts.size() - 1));
    for (std::size_t i = 1; i < parts.size(); ++i) {
        bytes +=
            subtype == 'f' ? float_bytes(parts[i]) : le_bytes(integer(parts[i])).substr(0, width);
    }
    return bytes;
}

// One optional field of a SAM line, such as "NM:i:3".
std::string encode_optional_field(std::string_view field) {
    std::string_view const tag = field.substr(0, 2);
    char const type = field.at(3);
    std::string_view const value = field.substr(5);
    switch (type) {
        case 'A':
            return bam_aux(tag, type, value.empty() ? std::string(1, '\0') : value.substr(0, 1));
        case 'i':
            // Type I holds what is too large for type i; the bytes are the same.
            return bam_aux(tag, integer(value) > INT32_MAX ? 'I' : 'i',
                           le_bytes(integer(value)).substr(0, 4));
        case 'f': return bam_aux(tag, type, float_bytes(value));
        case 'Z':
        case 'H': return bam_aux(tag, type, std::string(value) + '\0');
        case 'B': return bam_aux(tag, type, array_bytes(value));
        default: throw std::runtime_error("optional field of unknown type: " + std::string(field));
    }
}

}  // namespace

// --- BGZF ------------------------------------------------------------------

std::string gzip_member(std::string_view text) { return deflated(text, GZIP_WINDOW_BITS); }

std::string bgzf_eof_block() {
    return std::string(
        "\x1f\x8b\x08\x04\0\0\0\0\0\xff\x06\0BC\x02\0"
        "\x1b\0\x03\0\0\0\0\0\0\0\0\0",
        28);
}

std::string bgzf_block(std::string_view payload) {
    if (payload.size() > MAX_PAYLOAD) throw std::runtime_error("payload too long for one block");
    std::string const compressed = deflated(payload, RAW_WINDOW_BITS);
    std::size_t const size = BLOCK_HEAD_BYTES + compressed.size() + BLOCK_TAIL_BYTES;
    std::string block("\x1f\x8b\x08\x04\0\0\0\0\0\xff\x06\0BC\x02\0", 16);
    block += le_bytes(static_cast<std::uint16_t>(size - 1));
    block += compressed;
    block += le_bytes(crc_of(payload));
    block += le_bytes(static_cast<std::uint32_t>(payload.size()));
    return block;
}

std::string bgzf_blocks(std::string_view payload, std::size_t block_size) {
    std::string blocks;
    for (std::size_t begin = 0; begin < payload.size(); begin += block_size) {
        blocks += bgzf_block(payload.substr(begin, block_size));
    }
    return blocks;
}

std::vector<BgzfBlock> parse_bgzf(std::string_view file) {
    std::vector<BgzfBlock> blocks;
    for (std::size_t begin = 0; begin < file.size();) {
        std::string_view const rest = file.substr(begin);
        if (rest.size() < BLOCK_HEAD_BYTES + BLOCK_TAIL_BYTES) {
            throw std::runtime_error("BGZF block: cut short");
        }
        if (!starts_with(rest, "\x1f\x8b\x08\x04") || number_at(rest, 10, 2) != 6 ||
            rest.substr(12, 2) != "BC" || number_at(rest, 14, 2) != 2) {
            throw std::runtime_error("BGZF block: wrong header");
        }
        std::size_t const size = number_at(rest, 16, 2) + 1;
        if (size < BLOCK_HEAD_BYTES + BLOCK_TAIL_BYTES || size > rest.size()) {
            throw std::runtime_error("BGZF block: wrong size");
        }
        std::size_t const tail = size - BLOCK_TAIL_BYTES;
        std::size_t const isize = number_at(rest, tail + 4, 4);
        if (isize > 65536) throw std::runtime_error("BGZF block: wrong ISIZE");
        BgzfBlock block;
        block.offset = begin;
        block.size = size;
        block.payload = raw_inflate(rest.substr(BLOCK_HEAD_BYTES, tail - BLOCK_HEAD_BYTES), isize);
        if (crc_of(block.payload) != number_at(rest, tail, 4)) {
            throw std::runtime_error("BGZF block: wrong CRC32");
        }
        blocks.push_back(std::move(block));
        begin += size;
    }
    return blocks;
}

std::string inflate_bgzf(std::string_view file) {
    std::string payload;
    for (BgzfBlock const& block : parse_bgzf(file)) payload += block.payload;
    return payload;
}

// --- BAM -------------------------------------------------------------------

std::string RawBamRecord::bytes() const {
    std::string body;
    body += le_bytes(refID);
    body += le_bytes(pos);
    body += static_cast<char>(static_cast<unsigned char>(read_name.size() + 1));
    body += static_cast<char>(mapq);
    body += le_bytes(bin);
    body += le_bytes(static_cast<std::uint16_t>(cigar.size()));
    body += le_bytes(flag);
    body += le_bytes(l_seq);
    body += le_bytes(next_refID);
    body += le_bytes(next_pos);
    body += le_bytes(tlen);
    body += read_name;
    body += '\0';
    for (std::uint32_t const operation : cigar) body += le_bytes(operation);
    body += seq;
    body += qual;
    body += aux;
    std::int64_t const block_size = static_cast<std::int64_t>(body.size()) + block_size_excess;
    return le_bytes(static_cast<std::int32_t>(block_size)) + body;
}

std::string bam_aux(std::string_view tag, char type, std::string_view value_bytes) {
    std::string field(tag);
    field += type;
    field += value_bytes;
    return field;
}

std::string encode_bam_header(std::string_view text, std::vector<Reference> const& references) {
    std::string bytes = "BAM\x01";
    bytes += le_bytes(static_cast<std::int32_t>(text.size()));
    bytes += text;
    bytes += le_bytes(static_cast<std::int32_t>(references.size()));
    for (Reference const& reference : references) {
        bytes += le_bytes(static_cast<std::int32_t>(reference.name.size() + 1));
        bytes += reference.name;
        bytes += '\0';
        bytes += le_bytes(reference.length);
    }
    return bytes;
}

std::string encode_bam_record(std::string_view sam_line, std::vector<Reference> const& references) {
    std::vector<std::string_view> columns = split(sam_line, '\t');
    if (columns.size() < 11) throw std::runtime_error("SAM line of less than eleven columns");
    bool const crlf = columns.size() == 11 && !columns[10].empty() && columns[10].back() == '\r';
    if (crlf) columns[10].remove_suffix(1);
    std::string_view const rnext = columns[6] == "=" ? columns[2] : columns[6];
    std::string_view const seq = columns[9];
    Cigar const cigar = pack_cigar(columns[5]);

    RawBamRecord record;
    record.read_name = columns[0];
    record.flag = static_cast<std::uint16_t>(integer(columns[1]));
    record.refID = reference_id(columns[2], references);
    record.pos = low_32_bits(integer(columns[3]) - 1);
    record.mapq = static_cast<std::uint8_t>(integer(columns[4]));
    record.bin =
        bin_of(record.pos, low_32_bits(record.pos + static_cast<std::int64_t>(cigar.ref_length)));
    record.next_refID = reference_id(rnext, references);
    record.next_pos = low_32_bits(integer(columns[7]) - 1);
    record.tlen = static_cast<std::int32_t>(integer(columns[8]));
    if (seq != "*") {
        record.l_seq = static_cast<std::int32_t>(seq.size());
        record.seq = pack_bases(seq);
        record.qual = pack_qualities(columns[10], seq.size());
    }
    record.cigar = cigar.operations;
    if (cigar.operations.size() > 65535) {
        std::string words = 'I' + le_bytes(static_cast<std::uint32_t>(cigar.operations.size()));
        for (std::uint32_t const operation : cigar.operations) words += le_bytes(operation);
        record.aux = bam_aux("CG", 'B', words);
        // <bases>S<bases of the reference>N stands in for the real operations.
        record.cigar = {static_cast<std::uint32_t>(seq.size()) << 4 | 4,
                        static_cast<std::uint32_t>(cigar.ref_length) << 4 | 3};
    }
    for (std::size_t i = 11; i < columns.size(); ++i) {
        record.aux += encode_optional_field(columns[i]);
    }
    return record.bytes();
}

std::string bam_header_text(std::string_view sam_header, std::string_view sort_order) {
    std::string text = "@HD\tVN:1.6";
    text += sort_order;
    text += '\n';
    for (std::string_view const line : lines_of(sam_header)) {
        if (starts_with(line, "@HD")) continue;
        text += line;
        text += '\n';
    }
    return text;
}

std::vector<Reference> references_of(std::string_view sam_header) {
    std::vector<Reference> references;
    for (std::string_view const line : lines_of(sam_header)) {
        if (!starts_with(line, "@SQ")) continue;
        Reference reference;
        for (std::string_view const field : split(line, '\t')) {
            if (starts_with(field, "SN:")) reference.name = field.substr(3);
            if (starts_with(field, "LN:")) {
                reference.length = static_cast<std::int32_t>(integer(field.substr(3)));
            }
        }
        references.push_back(reference);
    }
    return references;
}

SamText split_sam(std::string_view text) {
    SamText sam;
    for (std::string_view const line : lines_of(text)) {
        if (line.empty()) continue;
        if (line.front() == '@') {
            sam.header += line;
            sam.header += '\n';
        } else {
            sam.alignments.emplace_back(line);
        }
    }
    return sam;
}

}  // namespace tesk::test

// Alignment records as readable text, so that a test compares whole records and
// its failure shows where they differ; and a builder of SAM lines.

#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <boost/any.hpp>

#include "util/bam/bam_file.h"

namespace tesk::test {

/// Bytes in hexadecimal, separated by blanks: "ff 00".
template <typename Bytes>
std::string hex_text(Bytes const& bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (auto const byte : bytes) {
        auto const value = static_cast<unsigned char>(byte);
        if (!text.empty()) text += ' ';
        text += DIGITS[value >> 4];
        text += DIGITS[value & 0xF];
    }
    return text;
}

/// A text in quotes, what is not printable as \xHH.
inline std::string in_quotes(std::string_view text) {
    std::string result = "\"";
    for (char const c : text) {
        if (c >= ' ' && c <= '~') {
            result += c;
        } else {
            result += "\\x" + hex_text(std::string_view(&c, 1));
        }
    }
    return result + '"';
}

/// The value of an optional field with the C++ type that it has; floats as
/// their bits, so that every NaN and both zeros tell apart.
inline std::string value_text(boost::any const& value) {
    using Array = util::bam::BAMFileHandler::AuxNumericalArray;
    if (value.empty()) return "nothing";
    if (auto const* c = boost::any_cast<char>(&value)) return "char " + in_quotes({c, 1});
    if (auto const* n = boost::any_cast<std::int8_t>(&value)) return "int8 " + std::to_string(*n);
    if (auto const* n = boost::any_cast<std::uint8_t>(&value)) return "uint8 " + std::to_string(*n);
    if (auto const* n = boost::any_cast<std::int16_t>(&value)) return "int16 " + std::to_string(*n);
    if (auto const* n = boost::any_cast<std::uint16_t>(&value)) {
        return "uint16 " + std::to_string(*n);
    }
    if (auto const* n = boost::any_cast<std::int32_t>(&value)) return "int32 " + std::to_string(*n);
    if (auto const* n = boost::any_cast<std::uint32_t>(&value)) {
        return "uint32 " + std::to_string(*n);
    }
    if (auto const* x = boost::any_cast<float>(&value)) {
        std::uint32_t bits = 0;
        std::memcpy(&bits, x, sizeof bits);
        char text[32];
        std::snprintf(text, sizeof text, "float 0x%08x", static_cast<unsigned>(bits));
        return text;
    }
    if (auto const* s = boost::any_cast<std::string>(&value)) return "string " + in_quotes(*s);
    if (auto const* a = boost::any_cast<Array>(&value)) {
        return "array " + in_quotes({&a->type, 1}) + " of " + std::to_string(a->count) + ": " +
               hex_text(a->data);
    }
    return std::string("a value of the foreign type ") + value.type().name();
}

/// An optional field: tag, type letter, value.
inline std::string field_text(util::bam::BAMFileHandler::AuxData const& field) {
    return in_quotes(field.tag) + ' ' + in_quotes({&field.type, 1}) + ' ' + value_text(field.value);
}

/// Optional fields, a line each.
inline std::string fields_text(std::vector<util::bam::BAMFileHandler::AuxData> const& fields) {
    std::string text;
    for (auto const& field : fields) text += "  " + field_text(field) + '\n';
    return text;
}

/// All fields of a record, a line each. Records with the same text are equal.
inline std::string record_text(util::bam::BAMFileHandler::BamRecord const& record) {
    std::string text = "refID " + std::to_string(record.refID);
    text += "\npos " + std::to_string(record.pos);
    text += "\nread_name " + in_quotes(record.read_name);
    text += "\nmapq " + std::to_string(record.mapq);
    text += "\nbin " + std::to_string(record.bin);
    text += "\nflag " + std::to_string(record.flag);
    text += "\nl_seq " + std::to_string(record.l_seq);
    text += "\nnext_refID " + std::to_string(record.next_refID);
    text += "\nnext_pos " + std::to_string(record.next_pos);
    text += "\ntlen " + std::to_string(record.tlen);
    text += "\ncigar";
    for (std::uint32_t const op : record.cigar) text += ' ' + std::to_string(op);
    text += "\nref_length " + std::to_string(record.ref_length);
    text += "\nseq " + hex_text(record.seq);
    text += "\nqual " + hex_text(record.qual);
    text += "\naux_data\n" + fields_text(record.aux_data);
    text += "sam_line " + in_quotes(record.sam_line) + '\n';
    return text;
}

/// The columns of a SAM line, in order.
enum SamColumn { QNAME, FLAG, RNAME, POS, MAPQ, CIGAR, RNEXT, PNEXT, TLEN, SEQ, QUAL };

/// A SAM line: a read of four bases mapped to chr1, without optional fields,
/// but for what a test changes.
class SamLine {
public:
    SamLine& with(SamColumn column, std::string_view text) {
        columns_[column] = text;
        return *this;
    }

    /// Adds an optional field, such as "NM:i:0".
    SamLine& field(std::string_view text) {
        fields_ += '\t';
        fields_ += text;
        return *this;
    }

    /// The line, without line terminator.
    std::string text() const {
        std::string line;
        for (std::string const& column : columns_) line += column + '\t';
        line.pop_back();
        return line + fields_;
    }

private:
    std::array<std::string, 11> columns_ = {"r1", "0", "chr1", "101",  "60",  "4M",
                                            "*",  "0", "0",    "ACGT", "IIII"};
    std::string fields_;
};

}  // namespace tesk::test

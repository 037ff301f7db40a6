// Sample data of the tool's tests.

#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/bam_encoder.h"

namespace tesk::test {

constexpr char const* HEADER =
    "@HD\tVN:1.6\tSO:unsorted\n"
    "@SQ\tSN:chr1\tLN:1000\n"
    "@SQ\tSN:chr2\tLN:500\n"
    "@CO\tsample\n";

inline std::vector<Reference> const REFERENCES = {{"chr1", 1000}, {"chr2", 500}};

// Not in coordinate order: chr2, chr1:300, none, chr1:100.
inline std::vector<std::string> const LINES = {
    "r1\t0\tchr2\t10\t60\t4M\t*\t0\t0\tACGT\tIIII\tXA:A:x\tNM:i:1",
    "r2\t16\tchr1\t300\t20\t3M1I2M\t=\t100\t-206\tACGTAC\t!!IIII",
    "r3\t4\t*\t0\t0\t*\t*\t0\t0\tAC\tII\tZZ:Z:a text",
    "r4\t4\tchr1\t100\t0\t*\t=\t300\t206\t*\t*",
};
inline std::vector<std::size_t> const SORTED = {3, 1, 0, 2};  // indices into LINES

inline std::string joined(std::vector<std::string> const& lines) {
    std::string text;
    for (std::string const& line : lines) text += line + "\n";
    return text;
}

inline std::vector<std::string> sorted_lines() {
    std::vector<std::string> lines;
    for (std::size_t const i : SORTED) lines.push_back(LINES[i]);
    return lines;
}

inline std::string sample_sam() { return HEADER + joined(LINES); }

inline std::string encoded_records(std::vector<std::string> const& lines,
                                   std::vector<Reference> const& references) {
    std::string bytes;
    for (std::string const& line : lines) bytes += encode_bam_record(line, references);
    return bytes;
}

inline std::string bam_file(std::string const& payload) {
    return bgzf_blocks(payload) + bgzf_eof_block();
}

/// Header text and lines as a BAM file has them.
inline std::string bam_payload(std::string const& header, std::vector<std::string> const& lines) {
    std::vector<Reference> const references = references_of(header);
    return encode_bam_header(header, references) + encoded_records(lines, references);
}

inline std::string sample_bam() { return bam_file(bam_payload(HEADER, LINES)); }

/// The sample's header after sorting.
inline std::string sorted_header() { return bam_header_text(HEADER, "\tSO:coordinate"); }

/// SAM text large enough that a conversion takes a while: reads of equal length at
/// random positions on one reference.
inline std::string large_sam(std::size_t n_records, std::size_t n_bases = 60,
                             std::uint32_t n_positions = 90000000) {
    std::mt19937 random(20240229);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same data each time
    std::string text = "@SQ\tSN:chr1\tLN:100000000\n";
    for (std::size_t i = 0; i < n_records; ++i) {
        std::string bases(n_bases, 'A');
        for (char& base : bases) base = "ACGT"[random() % 4];
        text += "read" + std::to_string(i) + "\t0\tchr1\t" +
                std::to_string(random() % n_positions + 1) + "\t60\t" + std::to_string(n_bases) +
                "M\t*\t0\t0\t" + bases + "\t" + std::string(n_bases, 'I') + "\n";
    }
    return text;
}

// What "info --json" prints of the sample.
inline nlohmann::json sample_summary(std::string const& file, char const* format) {
    return {
        {"file", file},
        {"format", format},
        {"sort_order", "SO:unsorted"},
        {"records", 4},
        {"mapped", 2},
        {"unmapped", 2},
        {"without_reference", 1},
        {"read_length", {{"records_with_sequence", 3}, {"min", 2}, {"max", 6}, {"n50", 6}}},
        {"references",
         {{{"name", "chr1"}, {"length", 1000}, {"records", 2}, {"mapped", 1}, {"unmapped", 1}},
          {{"name", "chr2"}, {"length", 500}, {"records", 1}, {"mapped", 1}, {"unmapped", 0}}}}};
}

// A BAM file's header text and reference list that contradict each other.
struct ListCase {
    char const* label;
    char const* text;
    std::vector<Reference> list;
    char const* difference;  // as the message has it, behind "reference "
};

constexpr char const* BOTH_LINES = "@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n";

inline std::vector<ListCase> const LIST_CASES = {
    {"list too short", BOTH_LINES, {{"chr1", 1000}}, "2: chr2 of 500 bases and nothing"},
    {"list empty", BOTH_LINES, {}, "1: chr1 of 1000 bases and nothing"},
    {"list too long",
     BOTH_LINES,
     {{"chr1", 1000}, {"chr2", 500}, {"chr3", 7}},
     "3: nothing and chr3 of 7 bases"},
    {"other name",
     BOTH_LINES,
     {{"chr1", 1000}, {"chrX", 500}},
     "2: chr2 of 500 bases and chrX of 500 bases"},
    {"other length",
     BOTH_LINES,
     {{"chr1", 1001}, {"chr2", 500}},
     "1: chr1 of 1000 bases and chr1 of 1001 bases"},
    {"other order",
     BOTH_LINES,
     {{"chr2", 500}, {"chr1", 1000}},
     "1: chr1 of 1000 bases and chr2 of 500 bases"},
};

}  // namespace tesk::test

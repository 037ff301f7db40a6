// The bytes and texts that docs/formats.md shows are those that the library writes,
// and those that the tests' own encoder makes.

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <boost/any.hpp>

#include "data_wrappers/vec_view.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/cout_capture.h"
#include "tests/support/index_builder.h"
#include "tests/support/page.h"
#include "tests/support/record_text.h"
#include "tests/support/temp_file.h"
#include "tests/support/text.h"
#include "util/bam/bam_file.h"

namespace {

using namespace tesk::test;
using tesk::data_wrappers::VecView;
using tesk::util::bam::BAMFileHandler;
using tesk::util::bam::BaseModContext;

std::string const& page() {
    static std::string const text = source_file("docs/formats.md");
    return text;
}

std::vector<unsigned> numbers_of(std::string const& text) {
    std::vector<unsigned> numbers;
    std::istringstream in(text);
    for (unsigned number = 0; in >> number;) numbers.push_back(number);
    return numbers;
}

std::vector<std::uint8_t> bytes_of(std::string const& text) {
    std::vector<std::uint8_t> bytes;
    for (unsigned const number : numbers_of(text)) {
        bytes.push_back(static_cast<std::uint8_t>(number));
    }
    return bytes;
}

// --- Optional fields ---------------------------------------------------------

constexpr char const* BARE_LINE = "r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\t";

std::string record_with(std::string const& aux) {
    RawBamRecord record;
    record.aux = aux;
    return record.bytes();
}

TEST(Formats, OptionalField_FromText_HasTheBytesShown) {
    std::size_t n_refused = 0;
    for (TableRow const& row : table_behind(page(), "table: optional fields")) {
        SCOPED_TRACE(row.at(0) + " " + row.at(3));
        BAMFileHandler handler;
        if (row.at(1) == "refused") {
            ++n_refused;
            std::string const field = "X" + row.at(0) + ":" + row.at(0) + ":1";
            EXPECT_FALSE(handler.add_alignment_sam(BARE_LINE + field));
            continue;
        }
        ASSERT_TRUE(handler.add_alignment_sam(BARE_LINE + row.at(1))) << handler.error_message;
        std::vector<char> bytes;
        ASSERT_TRUE(handler.serialise_bam_record_to_buffer(handler.records.at(0), bytes));
        EXPECT_EQ(hex_text(bytes), hex_text(record_with(bytes_of_hex(row.at(3)))));
        // The tests' own encoder agrees.
        EXPECT_EQ(hex_text(encode_bam_record(BARE_LINE + row.at(1), {})), hex_text(bytes));
    }
    EXPECT_EQ(n_refused, 5U);
}

TEST(Formats, OptionalField_FromBam_HasTheTextAndTypeShown) {
    std::map<std::string, std::string> const cpp_types = {
        {"char", "char"},
        {"std::int8_t", "int8"},
        {"std::uint8_t", "uint8"},
        {"std::int16_t", "int16"},
        {"std::uint16_t", "uint16"},
        {"std::int32_t", "int32"},
        {"std::uint32_t", "uint32"},
        {"float", "float"},
        {"std::string", "string"},
        {"std::string, the digits", "string"},
        {"AuxNumericalArray", "array"},
    };
    for (TableRow const& row : table_behind(page(), "table: optional fields")) {
        SCOPED_TRACE(row.at(0) + " " + row.at(3));
        std::string bytes = record_with(bytes_of_hex(row.at(3)));
        BAMFileHandler handler;
        BAMFileHandler::BamBuffer buffer{bytes.data(), bytes.size()};
        if (row.at(4) == "refused") {
            EXPECT_THROW(handler.extract_alignment_from_buffer(buffer), boost::bad_any_cast);
            continue;
        }
        ASSERT_TRUE(handler.extract_alignment_from_buffer(buffer)) << handler.error_message;
        BAMFileHandler::BamRecord const& record = handler.records.at(0);
        EXPECT_EQ(record.sam_line, BARE_LINE + row.at(4));
        std::string const value = value_text(record.aux_data.at(0).value);
        EXPECT_EQ(value.substr(0, value.find(' ')), cpp_types.at(row.at(2)));
        // Back again, but for the two types that cannot be written.
        std::vector<char> again;
        if (row.at(0) == "s" || row.at(0) == "S") {
            EXPECT_THROW(handler.serialise_bam_record_to_buffer(record, again), std::runtime_error);
        } else {
            ASSERT_TRUE(handler.serialise_bam_record_to_buffer(record, again));
            EXPECT_EQ(hex_text(again), hex_text(bytes));
        }
    }
}

// --- BGZF --------------------------------------------------------------------

TEST(Formats, EndOfFileBlock_Shown_EndsTheFilesThatAreWritten) {
    TempDir const dir;
    std::string const path = dir.file("empty.bam");
    ASSERT_TRUE(BAMFileHandler().write_to_bam_file(path, false));
    std::string const file = read_file(path);
    std::string const shown = bytes_behind(page(), "bytes: end-of-file block");
    EXPECT_EQ(hex_text(shown), hex_text(bgzf_eof_block()));
    ASSERT_GE(file.size(), shown.size());
    EXPECT_EQ(hex_text(file.substr(file.size() - shown.size())), hex_text(shown));
}

// Compressed bytes are zlib's affair: those shown must be a block of the data, and
// what is written must be the same around them.
TEST(Formats, BlockOfData_Shown_IsReadAndWrittenButForItsCompression) {
    TempDir const dir;
    std::string const shown = bytes_behind(page(), "bytes: block of ACGT");
    EXPECT_EQ(inflate_bgzf(shown), "ACGT");

    BAMFileHandler handler;
    std::ifstream in(dir.write("shown", shown), std::ios::binary);
    std::vector<char> payload;
    ASSERT_TRUE(handler.read_BGZF_block_from_BAM(in, payload)) << handler.error_message;
    EXPECT_EQ(std::string(payload.begin(), payload.end()), "ACGT");

    constexpr std::size_t HEAD_BYTES = 16;
    constexpr std::size_t TAIL_BYTES = 8;
    std::string const path = dir.file("written");
    std::ofstream out(path, std::ios::binary);
    unsigned long block_offset = 0;
    unsigned long end_offset = 0;
    ASSERT_TRUE(handler.write_BGZF_blocks_to_BAM(out, payload, block_offset, end_offset));
    out.close();
    std::string const written = read_file(path);
    EXPECT_EQ(inflate_bgzf(written), "ACGT");
    EXPECT_EQ(hex_text(written.substr(0, HEAD_BYTES)), hex_text(shown.substr(0, HEAD_BYTES)));
    EXPECT_EQ(hex_text(written.substr(written.size() - TAIL_BYTES)),
              hex_text(shown.substr(shown.size() - TAIL_BYTES)));
}

// --- BAM ---------------------------------------------------------------------

TEST(Formats, BamHeaderAndRecord_Shown_AreWhatIsWritten) {
    std::string line = block_behind(page(), "block: SAM line");
    line.pop_back();  // its newline
    TempDir const dir;
    std::string const path = dir.file("one.bam");
    BAMFileHandler handler;
    ASSERT_TRUE(handler.add_header_lines("@SQ\tSN:chr1\tLN:1000\n"));
    ASSERT_TRUE(handler.add_alignment_sam(line));
    ASSERT_TRUE(handler.write_to_bam_file(path, false));

    std::string const header = bytes_behind(page(), "bytes: BAM header");
    std::string const record = bytes_behind(page(), "bytes: BAM record");
    EXPECT_EQ(hex_text(inflate_bgzf(read_file(path))), hex_text(header + record));
    // The tests' own encoder agrees.
    EXPECT_EQ(hex_text(encode_bam_header("@HD\tVN:1.6\tSO:unknown\n@SQ\tSN:chr1\tLN:1000\n",
                                         {{"chr1", 1000}})),
              hex_text(header));
    EXPECT_EQ(hex_text(encode_bam_record(line, {{"chr1", 1000}})), hex_text(record));

    ASSERT_TRUE(handler.read_from_bam_file(path));
    EXPECT_EQ(handler.records.at(0).sam_line, line);
}

// --- BAI ---------------------------------------------------------------------

TEST(Formats, BaiFile_Shown_IsWhatIsWrittenAndPrinted) {
    constexpr std::uint64_t BEGIN = std::uint64_t{120} << 16U;
    constexpr std::uint64_t END = std::uint64_t{212} << 16U;
    constexpr std::uint32_t BIN = 4681;
    BAMFileHandler::FileIndex index;
    index.n_ref = 1;
    index.n_no_coor = 2;
    BAMFileHandler::ReferenceIndex& reference = index.ref_indices[0];
    reference.n_mapped = 1;
    reference.ref_beg = BEGIN;
    reference.ref_end = END;
    reference.bins[BIN].chunks.push_back({BEGIN, END});
    reference.ioffsets = {BEGIN};
    reference.n_intv = 1;

    TempDir const dir;
    std::string const path = dir.file("one.bai");
    std::string const shown = bytes_behind(page(), "bytes: BAI file");
    BAMFileHandler handler;
    ASSERT_TRUE(handler.write_index_to_file(path, index));
    EXPECT_EQ(hex_text(read_file(path)), hex_text(shown));

    // The tests' own builder agrees: a mapped record, and two without reference.
    IndexedRecord placed;
    placed.refID = 0;
    placed.pos = 6;
    placed.ref_length = 7;
    placed.bin = BIN;
    placed.begin = BEGIN;
    placed.end = END;
    EXPECT_EQ(hex_text(build_bai(1, {placed, IndexedRecord(), IndexedRecord()}, false)),
              hex_text(shown));

    CoutCapture const printed;
    ASSERT_TRUE(handler.print_index_from_file(path));
    EXPECT_EQ(printed.text(), block_behind(page(), "block: BAI dump"));
}

// --- Annotations -------------------------------------------------------------

TEST(Formats, MoveTables_Shown_AreWhatIsMade) {
    for (TableRow const& row : table_behind(page(), "table: moves")) {
        SCOPED_TRACE(row.at(2));
        std::vector<std::uint8_t> const moves = bytes_of(row.at(1));
        std::string field;
        std::string error;
        EXPECT_TRUE(BAMFileHandler::generate_move_table_string(
            field, VecView<std::uint8_t>{moves.data(), moves.size(), 1},
            static_cast<signed char>(std::stoi(row.at(0))), error));
        EXPECT_EQ(field, row.at(2));
    }
}

// Probabilities row by row, from the columns that a text gives: "m 0 200 h 3 0".
std::vector<std::uint8_t> probabilities_of(std::string const& text, std::string const& alphabet,
                                           std::size_t n_bases) {
    std::vector<std::uint8_t> probs(alphabet.size() * n_bases);
    std::size_t channel = 0;
    std::size_t base = 0;
    for (std::string_view const word : split(text, ' ')) {
        if (alphabet.find(word.at(0)) != std::string::npos) {
            channel = alphabet.find(word.at(0));
            base = 0;
        } else {
            probs.at(base++ * alphabet.size() + channel) =
                static_cast<std::uint8_t>(std::stoi(std::string(word)));
        }
    }
    return probs;
}

TEST(Formats, ModifiedBases_Shown_AreWhatIsMade) {
    for (TableRow const& row : table_behind(page(), "table: modified bases")) {
        SCOPED_TRACE(row.at(6));
        std::string const& sequence = row.at(0);
        std::string const& alphabet = row.at(1);
        std::vector<std::uint8_t> const probs =
            probabilities_of(row.at(5), alphabet, sequence.size());
        std::string fields;
        std::string error;
        EXPECT_TRUE(BAMFileHandler::generate_modbase_string(
            fields, sequence, alphabet, row.at(2), row.at(3),
            VecView<std::uint8_t>{probs.data(), probs.size(), 1},
            static_cast<unsigned char>(std::stoi(row.at(4))), error))
            << error;
        std::string shown = row.at(6);
        shown.at(shown.find(' ')) = '\t';
        EXPECT_EQ(fields, shown);
    }
}

TEST(Formats, NamesOfModifications_Shown_GiveTheirCodes) {
    std::size_t n_names = 0;
    for (TableRow const& row : table_behind(page(), "table: names of modifications")) {
        for (std::size_t i = 0; i < row.size(); i += 2) {
            std::string code;
            std::string error;
            EXPECT_TRUE(BAMFileHandler::get_modbase_channel_name(code, row[i], error)) << error;
            EXPECT_EQ(code, row[i + 1]);
            ++n_names;
        }
    }
    EXPECT_EQ(n_names, 9U);
}

TEST(Formats, Contexts_Shown_MarkTheBasesShown) {
    for (TableRow const& row : table_behind(page(), "table: contexts")) {
        SCOPED_TRACE(row.at(0) + " " + row.at(2));
        BaseModContext context;
        ASSERT_TRUE(context.decode(row.at(0)));
        EXPECT_EQ(context.encode(), row.at(0));
        std::string marks;
        for (int const mark : context.get_sequence_mask(row.at(2))) {
            marks += (marks.empty() ? "" : " ") + std::to_string(mark);
        }
        EXPECT_EQ(marks, row.at(3));
    }
}

}  // namespace

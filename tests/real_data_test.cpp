// Real files, which the project does not ship: every SAM, BAM and BAI file of
// the folder that the environment variable TESK_BAM_REAL_DATA names is read, or
// refused with the message expected; those read survive a round trip.

#include "util/bam/bam_file.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/bam_walker.h"
#include "tests/support/cout_capture.h"
#include "tests/support/index_builder.h"
#include "tests/support/process.h"
#include "tests/support/real_data.h"
#include "tests/support/temp_file.h"
#include "tests/support/text.h"

namespace {

using namespace tesk::test;
using Handler = tesk::util::bam::BAMFileHandler;

// A file that is read, with facts that its makers or a count outside of this
// project give.
struct ReadCase {
    char const* file;
    std::size_t n_records;
    std::size_t n_unmapped;    // records with flag bit 4
    std::size_t n_references;  // that its header text names
};

constexpr ReadCase SAM_CASES[] = {
    {"aligner_bwa_4000.sam", 4000, 0, 1}, {"b_arrays.sam", 5, 0, 1},
    {"cigar_all_ops.sam", 17, 0, 1},      {"crlf_bowtie2.sam", 181, 50, 7},
    {"hardclip_contigs.sam", 14, 0, 2},   {"large_aux.sam", 3, 0, 1},
    {"noheader_3270.sam", 3270, 35, 0},   {"spliced_102.sam", 102, 1, 194},
    {"unmapped_mix.sam", 19, 9, 7},
};

constexpr ReadCase BAM_CASES[] = {
    {"bwa_20000.bam", 20000, 1178, 25},  {"long_cigar.bam", 2, 0, 1},
    {"long_reads_103.bam", 103, 96, 68}, {"refs_3366.bam", 406, 4, 3366},
    {"sorted_10000.bam", 10000, 404, 1}, {"spliced_1000.bam", 1000, 0, 25},
};

// Arrays of floats can be written, but not rendered as text.
constexpr char FLOAT_ARRAY_FILE[] = "b_arrays.sam";
constexpr std::size_t FLOAT_ARRAY_RECORD = 4;

// 16-bit integers can be rendered as text, but not written.
constexpr char SIXTEEN_BIT_FILE[] = "long_reads_103.bam";

enum class Refusal { MESSAGE, OUT_OF_RANGE, BAD_ANY_CAST };

// A file that is refused.
struct RefusedCase {
    char const* file;
    Refusal refusal;
    char const* message;    // PATH stands for the file's path; of an exception,
                            // its text, where that is known
    std::size_t n_records;  // what stays of it in the handler
};

constexpr RefusedCase REFUSED_CASES[] = {
    {"header_go_old_1018refs.sam", Refusal::MESSAGE,
     "Could not parse header from SAM file PATH : Unsupported 'GO' field encountered in @HD header "
     "line with VN < 1.5: @HD\tVN:1.0\tGO:none\tSO:coordinate",
     0},
    {"header_so_and_go.sam", Refusal::MESSAGE,
     "Could not parse header from SAM file PATH : Mutually exclusive 'SO' and 'GO' fields "
     "encountered in @HD header line: "
     "@HD\tVN:1.6\tSO:unsorted\tGO:query\tSS:unsorted:template-coordinate",
     0},
    // An I array's element of 2147483648 in the first record, which stays.
    {"int_range.sam", Refusal::OUT_OF_RANGE, "stoi", 1},
    {"trailing_tab.sam", Refusal::MESSAGE,
     "Could not parse alignment from SAM file PATH : Sam to Bam parsing failed: Invalid aux data "
     "detected: ",
     0},
    {"type_letter_I.sam", Refusal::MESSAGE,
     "Could not parse alignment from SAM file PATH : Sam to Bam parsing failed: Invalid auxiliary "
     "data type) 'I' found in alignment record in PATH",
     6},
    {"b_array_float.bam", Refusal::BAD_ANY_CAST, nullptr, 1},
    {"header_own_field.bam", Refusal::MESSAGE,
     "Invalid field 'pb:5.0.0' encountered in @HD header line: "
     "@HD\tVN:1.6\tSO:unknown\tpb:5.0.0",
     0},
    {"header_rg_old.bam", Refusal::MESSAGE,
     "Unsupported '@RG' line encountered in @HD header line with VN < 1.3: FIRST_RG_LINE", 0},
    {"no_eof_block.bam", Refusal::MESSAGE,
     "Final BGZF block was not the EOF sequence as expected in file PATH. Perhaps the file is "
     "corrupt?",
     0},
};

// An index, with the counts of its pseudo-bins added up.
struct IndexCase {
    char const* file;
    std::size_t n_references;
    std::size_t n_windows;
    std::uint64_t n_mapped;
    std::uint64_t n_unmapped;
    bool has_n_no_coor;
    std::uint64_t n_no_coor;
    char const* bam;  // file that it belongs to, or null
};

constexpr IndexCase INDEX_CASES[] = {
    // Its pseudo-bin stands before the real one and counts nothing mapped.
    {"no_n_no_coor.bai", 2, 3, 0, 0, false, 0, nullptr},
    {"refs_3366.bam.bai", 3366, 2831, 402, 4, true, 0, "refs_3366.bam"},
    {"sorted_10000.bam.bai", 1, 4, 9596, 0, true, 404, "sorted_10000.bam"},
};

void PrintTo(ReadCase const& c, std::ostream* out) { *out << c.file; }
void PrintTo(RefusedCase const& c, std::ostream* out) { *out << c.file; }
void PrintTo(IndexCase const& c, std::ostream* out) { *out << c.file; }

// ===========================================================================
// The folder
// ===========================================================================

class RealData : public RealDataTest {};

TEST_F(RealData, EveryFile_OfTheFolder_HasAnExpectation) {
    std::set<std::string> expected;
    for (ReadCase const& c : SAM_CASES) expected.insert(c.file);
    for (ReadCase const& c : BAM_CASES) expected.insert(c.file);
    for (RefusedCase const& c : REFUSED_CASES) expected.insert(c.file);
    for (IndexCase const& c : INDEX_CASES) expected.insert(c.file);
    std::set<std::string> found;
    for (auto const& entry : std::filesystem::directory_iterator(folder_)) {
        std::string const extension = entry.path().extension().string();
        if (extension == ".sam" || extension == ".bam" || extension == ".bai") {
            found.insert(entry.path().filename().string());
        }
    }
    EXPECT_EQ(found, expected);
}

// ===========================================================================
// What the tests share
// ===========================================================================

std::vector<std::string> lines_of(Handler const& handler) {
    std::vector<std::string> lines;
    for (Handler::BamRecord const& record : handler.records) lines.push_back(record.sam_line);
    return lines;
}

// Compares lines one by one, column by column, and stops at the first that differs.
void expect_same_lines(std::vector<std::string> const& got,
                       std::vector<std::string> const& expected) {
    ASSERT_EQ(got.size(), expected.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        if (got[i] == expected[i]) continue;
        SCOPED_TRACE("record " + std::to_string(i));
        std::vector<std::string_view> const got_columns = split(got[i], '\t');
        std::vector<std::string_view> const expected_columns = split(expected[i], '\t');
        ASSERT_EQ(got_columns.size(), expected_columns.size());
        for (std::size_t c = 0; c < got_columns.size(); ++c) {
            ASSERT_EQ(got_columns[c], expected_columns[c]) << "column " << c + 1;
        }
    }
}

// A text with a word of it replaced wherever it stands.
std::string with(std::string text, std::string const& word, std::string const& replacement) {
    for (std::size_t at = 0; (at = text.find(word, at)) != std::string::npos;) {
        text.replace(at, word.size(), replacement);
        at += replacement.size();
    }
    return text;
}

// The first @RG line of a BAM file's header text.
std::string first_rg_line(std::string const& bam) {
    std::string const payload = inflate_bgzf(read_file(bam));
    std::size_t const begin = payload.find("@RG\t");
    return payload.substr(begin, payload.find('\n', begin) - begin);
}

void expect_same_bytes(std::string const& got, std::string const& expected) {
    std::size_t const shorter = std::min(got.size(), expected.size());
    std::size_t at = 0;
    while (at < shorter && got[at] == expected[at]) ++at;
    EXPECT_TRUE(got == expected) << "sizes " << got.size() << " and " << expected.size()
                                 << ", first difference at byte " << at;
}

// A BAM file that gzip accepts and that holds a payload.
void expect_bam(std::string const& path, std::string const& payload) {
    ProcessResult const test = run_process({"gzip", "-t", path});
    EXPECT_EQ(test.exit_status, 0) << test.errors;
    ProcessResult const inflated = run_process({"gzip", "-dc", path});
    EXPECT_EQ(inflated.exit_status, 0) << inflated.errors;
    expect_same_bytes(inflated.output, payload);
    std::string const file = read_file(path);
    ASSERT_GE(file.size(), 28U);
    EXPECT_EQ(file.substr(file.size() - 28), bgzf_eof_block());
}

// The payload that lines under a SAM header make.
std::string encoded(std::string const& header, std::string_view order,
                    std::vector<std::string> const& lines) {
    std::vector<Reference> const references = references_of(header);
    std::string payload = encode_bam_header(bam_header_text(header, order), references);
    for (std::string const& line : lines) payload += encode_bam_record(line, references);
    return payload;
}

// Items in coordinate order, given the place of each: reference (none last) and
// position.
using Place = std::pair<std::uint32_t, std::int32_t>;
std::vector<std::string> in_order(std::vector<std::string> const& items,
                                  std::vector<Place> const& places) {
    std::vector<std::size_t> order(items.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return places[a] < places[b]; });
    std::vector<std::string> sorted;
    for (std::size_t const i : order) sorted.push_back(items[i]);
    return sorted;
}

Place place_of_record(std::string_view record) {
    std::uint32_t words[3] = {};
    for (std::size_t i = 0; i < sizeof words; ++i) {
        words[i / 4] |= std::uint32_t{static_cast<unsigned char>(record.at(i))} << (8 * (i % 4));
    }
    return {words[1], static_cast<std::int32_t>(words[2])};
}

std::vector<Place> places_of_records(std::vector<std::string> const& records) {
    std::vector<Place> places;
    for (std::string const& record : records) places.push_back(place_of_record(record));
    return places;
}

std::vector<Place> places_of_lines(std::vector<std::string> const& lines,
                                   std::vector<Reference> const& references) {
    std::map<std::string, std::uint32_t> ids;
    for (Reference const& reference : references) {
        ids.emplace(reference.name, static_cast<std::uint32_t>(ids.size()));
    }
    std::vector<Place> places;
    for (std::string const& line : lines) {
        std::vector<std::string_view> const columns = split(line, '\t');
        auto const id = ids.find(std::string(columns.at(2)));
        places.emplace_back(id == ids.end() ? 0xFFFFFFFF : id->second,
                            std::stoi(std::string(columns.at(3))));
    }
    return places;
}

// An indexed write with a placed record: what a process has done before it
// writes any index but its first.
void write_some_index() {
    TempDir const dir;
    Handler handler;
    ASSERT_TRUE(handler.add_header_lines("@SQ\tSN:c\tLN:9\n"));
    ASSERT_TRUE(handler.add_alignment_sam("r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI"));
    ASSERT_TRUE(handler.write_to_bam_file(dir.file("x.bam"), true)) << handler.error_message;
}

// A handler that takes another's header text and lines.
Handler handed_over(Handler const& from) {
    Handler to;
    EXPECT_TRUE(to.add_header_lines(from.header)) << to.error_message;
    for (Handler::BamRecord const& record : from.records) {
        EXPECT_TRUE(to.add_alignment_sam(record.sam_line)) << to.error_message;
    }
    return to;
}

// Facts of a handler that has read a file.
void expect_facts(Handler const& handler, ReadCase const& c) {
    EXPECT_EQ(handler.records.size(), c.n_records);
    std::size_t n_unmapped = 0;
    for (Handler::BamRecord const& record : handler.records) {
        if ((record.flag & 4) != 0) ++n_unmapped;
    }
    EXPECT_EQ(n_unmapped, c.n_unmapped);
    EXPECT_EQ(handler.file_name, "");
}

// ===========================================================================
// SAM files
// ===========================================================================

class RealSam : public RealData, public testing::WithParamInterface<ReadCase> {};

TEST_P(RealSam, File_Read_HoldsItsLines) {
    std::string const path = path_of(GetParam().file);
    std::string const text = read_file(path);
    SamText const sam = split_sam(text);
    Handler handler;
    ASSERT_TRUE(handler.read_from_sam_file(path)) << handler.error_message;
    expect_facts(handler, GetParam());
    EXPECT_EQ(handler.references.size(), GetParam().n_references);
    expect_same_bytes(handler.header, sam.header);
    expect_same_lines(lines_of(handler), sam.alignments);

    std::string const out = dir_.file("out.sam");
    ASSERT_TRUE(handler.write_to_sam_file(out)) << handler.error_message;
    expect_same_bytes(read_file(out), text);
}

// Reads a BAM file written from a SAM file: the same text up to what BAM cannot
// keep.
void expect_lines_back(std::string const& bam, std::vector<std::string> const& lines,
                       std::vector<Reference> const& references, bool has_float_array) {
    std::vector<std::string> expected;
    for (std::string const& line : lines) {
        if (has_float_array && expected.size() == FLOAT_ARRAY_RECORD) break;
        expected.push_back(sam_line_through_bam(line, references));
    }
    Handler again;
    if (has_float_array) {
        EXPECT_THROW(again.read_from_bam_file(bam), boost::bad_any_cast);
    } else {
        ASSERT_TRUE(again.read_from_bam_file(bam)) << again.error_message;
    }
    expect_same_lines(lines_of(again), expected);
}

TEST_P(RealSam, File_ThroughBam_IsTheSameText) {
    SamText const sam = split_sam(read_file(path_of(GetParam().file)));
    Handler handler;
    ASSERT_TRUE(handler.read_from_sam_file(path_of(GetParam().file))) << handler.error_message;
    std::string const path = dir_.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, false)) << handler.error_message;
    expect_bam(path, encoded(sam.header, "\tSO:unknown", sam.alignments));
    expect_lines_back(path, sam.alignments, references_of(sam.header),
                      std::string(GetParam().file) == FLOAT_ARRAY_FILE);
}

TEST_P(RealSam, File_SortedAndIndexed_IsTheSameTextInOrder) {
    write_some_index();
    SamText const sam = split_sam(read_file(path_of(GetParam().file)));
    std::vector<Reference> const references = references_of(sam.header);
    Handler handler;
    ASSERT_TRUE(handler.read_from_sam_file(path_of(GetParam().file))) << handler.error_message;
    ASSERT_TRUE(handler.sort());
    std::string const path = dir_.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, true)) << handler.error_message;
    std::vector<std::string> const sorted =
        in_order(sam.alignments, places_of_lines(sam.alignments, references));
    expect_bam(path, encoded(sam.header, "\tSO:coordinate", sorted));
    expect_same_bytes(read_file(path + ".bai"),
                      build_bai(static_cast<std::int32_t>(references.size()),
                                index_records(read_file(path), 1), true));
    expect_lines_back(path, sorted, references, std::string(GetParam().file) == FLOAT_ARRAY_FILE);
}

INSTANTIATE_TEST_SUITE_P(Files, RealSam, testing::ValuesIn(SAM_CASES), test_name<ReadCase>);

// ===========================================================================
// BAM files
// ===========================================================================

class RealBam : public RealData, public testing::WithParamInterface<ReadCase> {
protected:
    void SetUp() override {
        RealData::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        bam_ = split_bam_payload(inflate_bgzf(read_file(path_of(GetParam().file))));
        ASSERT_TRUE(handler_.read_from_bam_file(path_of(GetParam().file)))
            << handler_.error_message;
    }

    bool has_sixteen_bit_fields() const { return std::string(GetParam().file) == SIXTEEN_BIT_FILE; }

    std::vector<std::string> expected_lines() const {
        std::vector<std::string> lines;
        for (std::string const& record : bam_.records) {
            lines.push_back(sam_line_of_record(record, bam_.references));
        }
        return lines;
    }

    // What its reader writes: the references of the text and of the list, and
    // the records' own bytes.
    std::string payload(std::string_view order, std::vector<std::string> const& records) const {
        std::vector<Reference> references = references_of(bam_.header_text);
        references.insert(references.end(), bam_.references.begin(), bam_.references.end());
        std::string bytes = encode_bam_header(bam_header_text(bam_.header_text, order), references);
        for (std::string const& record : records) bytes += record;
        return bytes;
    }

    // The order that the reader takes from the header.
    std::string order() const {
        return bam_.header_text.rfind("@HD\tVN:1.6\tSO:coordinate\n", 0) == 0 ? "\tSO:coordinate"
                                                                              : "\tSO:unknown";
    }

    void expect_not_written(std::string const& path, bool with_index) {
        try {
            handler_.write_to_bam_file(path, with_index);
            ADD_FAILURE() << "no exception";
        } catch (std::runtime_error const& error) {
            EXPECT_STREQ(error.what(), "Hit end of BAM buffer while writing data");
        }
        EXPECT_EQ(handler_.file_name, "");
        EXPECT_FALSE(std::filesystem::exists(path + ".bai"));
    }

    BamPayload bam_;
    Handler handler_;
};

TEST_P(RealBam, File_Read_HasTheTextOfItsRecords) {
    expect_facts(handler_, GetParam());
    expect_same_bytes(handler_.header, bam_.header_text);
    expect_same_lines(lines_of(handler_), expected_lines());
    EXPECT_EQ(references_of(bam_.header_text).size(), GetParam().n_references);
    EXPECT_EQ(handler_.references.size(), GetParam().n_references + bam_.references.size());
}

TEST_P(RealBam, File_WrittenByItsReader_KeepsItsRecords) {
    std::string const path = dir_.file("out.bam");
    if (has_sixteen_bit_fields()) return expect_not_written(path, false);
    ASSERT_TRUE(handler_.write_to_bam_file(path, false)) << handler_.error_message;
    expect_bam(path, payload(order(), bam_.records));
    Handler again;
    ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
    expect_same_lines(lines_of(again), expected_lines());
}

TEST_P(RealBam, File_SortedAndIndexedByItsReader_KeepsItsRecords) {
    write_some_index();
    std::string const path = dir_.file("out.bam");
    ASSERT_TRUE(handler_.sort());
    if (has_sixteen_bit_fields()) return expect_not_written(path, true);
    ASSERT_TRUE(handler_.write_to_bam_file(path, true)) << handler_.error_message;
    expect_bam(path,
               payload("\tSO:coordinate", in_order(bam_.records, places_of_records(bam_.records))));
    expect_same_bytes(read_file(path + ".bai"),
                      build_bai(static_cast<std::int32_t>(handler_.references.size()),
                                index_records(read_file(path), 0), true));
}

TEST_P(RealBam, File_HandedOverAsText_IsTheSameText) {
    write_some_index();
    std::vector<std::string> const lines = expected_lines();
    std::vector<Reference> const references = references_of(bam_.header_text);
    Handler second = handed_over(handler_);
    std::string const path = dir_.file("out.bam");
    ASSERT_TRUE(second.write_to_bam_file(path, false)) << second.error_message;
    expect_bam(path, encoded(bam_.header_text, "\tSO:unknown", lines));
    Handler again;
    ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
    expect_same_lines(lines_of(again), lines);

    ASSERT_TRUE(second.sort());
    ASSERT_TRUE(second.write_to_bam_file(path, true)) << second.error_message;
    std::vector<std::string> const sorted = in_order(lines, places_of_lines(lines, references));
    expect_bam(path, encoded(bam_.header_text, "\tSO:coordinate", sorted));
    expect_same_bytes(read_file(path + ".bai"),
                      build_bai(static_cast<std::int32_t>(references.size()),
                                index_records(read_file(path), 1), true));
    ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
    expect_same_lines(lines_of(again), sorted);
}

INSTANTIATE_TEST_SUITE_P(Files, RealBam, testing::ValuesIn(BAM_CASES), test_name<ReadCase>);

// ===========================================================================
// Refused files
// ===========================================================================

class RealRefused : public RealData, public testing::WithParamInterface<RefusedCase> {};

TEST_P(RealRefused, File_Read_IsRefusedAsExpected) {
    RefusedCase const& c = GetParam();
    std::string const path = path_of(c.file);
    ASSERT_TRUE(std::filesystem::exists(path)) << path;
    Handler handler;
    auto const read = [&] {
        return std::filesystem::path(path).extension() == ".sam" ? handler.read_from_sam_file(path)
                                                                 : handler.read_from_bam_file(path);
    };
    switch (c.refusal) {
        case Refusal::MESSAGE: {
            std::string expected = with(c.message, "PATH", path);
            if (expected.find("FIRST_RG_LINE") != std::string::npos) {
                expected = with(expected, "FIRST_RG_LINE", first_rg_line(path));
            }
            EXPECT_FALSE(read());
            EXPECT_EQ(handler.error_message, expected);
            break;
        }
        case Refusal::OUT_OF_RANGE:
            try {
                read();
                ADD_FAILURE() << "no exception";
            } catch (std::out_of_range const& error) {
                EXPECT_STREQ(error.what(), c.message);
            }
            break;
        case Refusal::BAD_ANY_CAST: EXPECT_THROW(read(), boost::bad_any_cast); break;
    }
    EXPECT_EQ(handler.records.size(), c.n_records);
    EXPECT_EQ(handler.file_name, "");
}

INSTANTIATE_TEST_SUITE_P(Files, RealRefused, testing::ValuesIn(REFUSED_CASES),
                         test_name<RefusedCase>);

// ===========================================================================
// Index files
// ===========================================================================

std::string offset_text(std::uint64_t offset, std::string const& between) {
    return std::to_string(offset / 65536) + between + std::to_string(offset % 65536);
}

// The dump of an index that has been taken apart.
std::string dump_of(ParsedBai const& bai, bool has_n_no_coor) {
    std::string text = "n_ref is " + std::to_string(bai.references.size()) + "\n";
    for (std::size_t r = 0; r < bai.references.size(); ++r) {
        ParsedBai::Section const& section = bai.references[r];
        std::string const ref = "Ref " + std::to_string(r);
        text += "\n" + ref + " has " + std::to_string(section.bins.size()) + " bins\n";
        std::size_t n_real = 0;
        for (ParsedBai::Bin const& bin : section.bins) {
            text += ref + " bin " + std::to_string(bin.bin) + " has " +
                    std::to_string(bin.chunks.size()) + " chunks\n";
            if (bin.bin == 37450) {
                text += "Magic bin says placed unmapped begin " +
                        offset_text(bin.chunks.at(0).first, ",") + " end " +
                        offset_text(bin.chunks.at(0).second, ",") + ", num mapped " +
                        std::to_string(bin.chunks.at(1).first) + ", unmapped " +
                        std::to_string(bin.chunks.at(1).second) + "\n";
                continue;
            }
            n_real += bin.chunks.size();
            for (auto const& [begin, end] : bin.chunks) {
                text += "Start is file offset " + offset_text(begin, " block offset ") + "\n";
                text += "End is file offset " + offset_text(end, " block offset ") + "\n";
            }
        }
        text += ref + " has " + std::to_string(n_real) + " total real chunks\n";
        text += ref + " has " + std::to_string(section.ioffsets.size()) + " linear intervals\n";
        for (std::size_t i = 0; i < section.ioffsets.size(); ++i) {
            text += "Linear file offset " + offset_text(section.ioffsets[i], " block offset ") +
                    " (" + std::to_string(i * 16384) + " - " + std::to_string(i * 16384 + 16383) +
                    ")\n";
        }
    }
    if (has_n_no_coor) text += "Got n_no_coor " + std::to_string(bai.n_no_coor) + "\n";
    return text;
}

// Mapped and unmapped reads of the references that have any.
std::map<std::size_t, std::pair<std::uint64_t, std::uint64_t>> read_counts(ParsedBai const& bai) {
    std::map<std::size_t, std::pair<std::uint64_t, std::uint64_t>> counts;
    for (std::size_t r = 0; r < bai.references.size(); ++r) {
        for (ParsedBai::Bin const& bin : bai.references[r].bins) {
            if (bin.bin != 37450) continue;
            auto const& count = bin.chunks.at(1);
            if (count.first + count.second != 0) counts[r] = count;
        }
    }
    return counts;
}

class RealIndex : public RealData, public testing::WithParamInterface<IndexCase> {};

TEST_P(RealIndex, File_Printed_IsTheDumpOfWhatItHolds) {
    IndexCase const& c = GetParam();
    ParsedBai const bai = parse_bai(read_file(path_of(c.file)));
    EXPECT_EQ(bai.references.size(), c.n_references);
    EXPECT_EQ(bai.n_no_coor, c.n_no_coor);
    std::size_t n_windows = 0;
    for (ParsedBai::Section const& section : bai.references) n_windows += section.ioffsets.size();
    EXPECT_EQ(n_windows, c.n_windows);
    std::uint64_t n_mapped = 0;
    std::uint64_t n_unmapped = 0;
    for (auto const& [ref, count] : read_counts(bai)) {
        n_mapped += count.first;
        n_unmapped += count.second;
    }
    EXPECT_EQ(n_mapped, c.n_mapped);
    EXPECT_EQ(n_unmapped, c.n_unmapped);

    Handler const handler;
    std::string printed;
    {
        CoutCapture const capture;
        EXPECT_TRUE(handler.print_index_from_file(path_of(c.file))) << handler.error_message;
        printed = capture.text();
    }
    expect_same_bytes(printed, dump_of(bai, c.has_n_no_coor));
    EXPECT_EQ(handler.error_message, "");
    EXPECT_EQ(handler.file_name, "");
}

INSTANTIATE_TEST_SUITE_P(Files, RealIndex, testing::ValuesIn(INDEX_CASES), test_name<IndexCase>);

TEST_F(RealData, IndexOfAnotherTool_AgainstOurs_CountsTheSameReads) {
    for (IndexCase const& c : INDEX_CASES) {
        if (c.bam == nullptr) continue;
        SCOPED_TRACE(c.file);
        Handler handler;
        ASSERT_TRUE(handler.read_from_bam_file(path_of(c.bam))) << handler.error_message;
        std::string const path = dir_.file("out.bam");
        ASSERT_TRUE(handler.write_to_bam_file(path, true)) << handler.error_message;
        ParsedBai const theirs = parse_bai(read_file(path_of(c.file)));
        ParsedBai const ours = parse_bai(read_file(path + ".bai"));
        EXPECT_EQ(read_counts(ours), read_counts(theirs));
        EXPECT_EQ(ours.n_no_coor, theirs.n_no_coor);
    }
}

}  // namespace

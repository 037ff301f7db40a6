// Whole files: SAM to BAM and back, against an independent encoder and gzip.

#include "util/bam/bam_file.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/bam_walker.h"
#include "tests/support/index_builder.h"
#include "tests/support/process.h"
#include "tests/support/temp_file.h"

namespace {

using namespace tesk::test;
using Handler = tesk::util::bam::BAMFileHandler;

constexpr char RICH_HEADER[] =
    "@HD\tVN:1.5\tSO:queryname\n"
    "@SQ\tSN:chr1\tLN:248956422\tM5:6aef897c3d6ff0c78aff06ac189178dd\n"
    "@SQ\tSN:chr2\tLN:242193529\n"
    "@SQ\tLN:1000\tSN:HLA:A*01\n"
    "@RG\tID:grp1\tSM:sample one\tLB:lib\n"
    "@PG\tID:made\tPN:by hand\tCL:a b  c\n"
    "@CO\tfree text,\twith a tab\n"
    "@CO\n";

// Lines that come back from BAM as they went in.
std::vector<std::string> rich_lines() {
    return {
        "pair\t99\tchr1\t7\t30\t8M2I4M1D3M\t=\t37\t39\tTTAGATAAAGGATACTG\tABCDEFGHIJKLMNOPQ\tRG:Z:"
        "grp1",
        "pair\t147\tchr1\t37\t30\t9M\t=\t7\t-39\tCAGCGGCAT\t!\"#$%&'()\tNM:i:1\tMD:Z:5C3",
        "all/operations\t0\tchr2\t100\t255\t1H2S3M4I5D6N7=8X9P10M11S12H\t*\t0\t0\t*\t*",
        "far_mate\t97\tchr1\t248956421\t60\t2M\tHLA:A*01\t998\t0\tAC\t~~",
        "mate_without_place\t9\tchr2\t242193529\t0\t1M\t*\t0\t0\tN\t!",
        "unmapped_beside_its_mate\t69\tchr1\t7\t0\t*\t=\t7\t0\tACGTN\tIIIII",
        "nowhere\t4\t*\t0\t0\t*\t*\t0\t0\tACGTNACGT\t*",
        "bare\t4\t*\t0\t255\t*\t*\t0\t0\t*\t*",
        "every_base\t0\tHLA:A*01\t1\t1\t16M\t*\t0\t0\t=ACMGRSVTWYHKDBN\t*",
        "one_base\t16\tchr1\t16384\t2\t1M\t*\t0\t0\tA\tI",
        "spliced\t0\tchr1\t16380\t3\t5M268435455N5M\t*\t0\t0\tACGTACGTAC\t0123456789",
        "types\t0\tchr2\t50\t4\t4M\t*\t0\t2147483647\tACGT\tIIII\tXA:A:!\tXB:A:~\tXC:A:\\\tXi:i:0\t"
        "Xj:i:-2147483648\tXk:i:2147483647\tXl:i:-1\tXm:i:40000\tXf:f:1.5\tXg:f:-0.015625\t"
        "Xh:f:0.\tXo:f:1000000.\tXp:f:2.\tXZ:Z:text with : and , and  spaces\tX0:Z:\tXH:H:1AE301\t"
        "XI:H:",
        "arrays\t0\tchr2\t51\t4\t4M\t*\t0\t-2147483648\tACGT\tIIII\tB0:B:c,-128,0,127\t"
        "B1:B:C,0,128,255\tB2:B:s,-32768,-1,32767\tB3:B:S,0,32768,65535\t"
        "B4:B:i,-2147483648,0,2147483647\tB5:B:I,0,1,2147483647\tB6:B:c\tB7:B:f\tB8:B:C,7",
        "repeated_tag\t0\tchr2\t52\t4\t1M\t*\t0\t0\tA\tI\tXX:i:1\tXX:i:2\tCG:B:I,160",
        "flags\t65535\tchr2\t53\t4\t1M\t*\t2147483647\t0\tA\tI",
    };
}

std::string joined(std::vector<std::string> const& lines) {
    std::string text;
    for (std::string const& line : lines) text += line + "\n";
    return text;
}

std::vector<std::string> lines_of(Handler const& handler) {
    unsigned long n = 0;
    EXPECT_TRUE(handler.get_num_alignments(n));
    std::vector<std::string> lines(n);
    for (unsigned long i = 0; i < n; ++i) EXPECT_TRUE(handler.get_alignment_sam(i, lines[i]));
    return lines;
}

// Names and lengths of a handler's references.
std::vector<std::pair<std::string, std::int32_t>> references_in(Handler const& handler) {
    std::vector<std::pair<std::string, std::int32_t>> references;
    for (Handler::RefSeq const& reference : handler.references) {
        references.emplace_back(reference.name, reference.length);
    }
    return references;
}

Handler handler_with(TempDir const& dir, std::string const& sam) {
    Handler handler;
    EXPECT_TRUE(handler.read_from_sam_file(dir.write("in.sam", sam))) << handler.error_message;
    return handler;
}

// Writes a BAM file and returns its path.
std::string written(TempDir const& dir, Handler& handler, bool with_index) {
    std::string const path = dir.file(with_index ? "indexed.bam" : "plain.bam");
    EXPECT_TRUE(handler.write_to_bam_file(path, with_index)) << handler.error_message;
    return path;
}

// The payload that lines under a SAM header make.
std::string encoded(std::string const& header, std::string_view order,
                    std::vector<std::string> const& lines) {
    std::vector<Reference> const references = references_of(header);
    std::string payload = encode_bam_header(bam_header_text(header, order), references);
    for (std::string const& line : lines) payload += encode_bam_record(line, references);
    return payload;
}

// Compares long texts without printing them.
void expect_same_bytes(std::string const& got, std::string const& expected) {
    std::size_t const shorter = std::min(got.size(), expected.size());
    std::size_t at = 0;
    while (at < shorter && got[at] == expected[at]) ++at;
    EXPECT_TRUE(got == expected) << "sizes " << got.size() << " and " << expected.size()
                                 << ", first difference at byte " << at;
}

// A BAM file that gzip accepts, that ends with the empty block, and that holds
// a payload.
void expect_bam(std::string const& path, std::string const& payload) {
    ProcessResult const test = run_process({"gzip", "-t", path});
    EXPECT_EQ(test.exit_status, 0) << test.errors;
    EXPECT_EQ(test.errors, "");
    ProcessResult const inflated = run_process({"gzip", "-dc", path});
    EXPECT_EQ(inflated.exit_status, 0) << inflated.errors;
    expect_same_bytes(inflated.output, payload);

    std::string const file = read_file(path);
    ASSERT_GE(file.size(), 28U);
    EXPECT_EQ(file.substr(file.size() - 28), bgzf_eof_block());
    expect_same_bytes(inflate_bgzf(file), payload);
}

// Lines in coordinate order: by reference, those without one last, then by
// position; equal ones as they stood.
std::vector<std::string> sorted_lines(std::string const& header, std::vector<std::string> lines) {
    std::map<std::string, std::size_t> places;
    for (Reference const& reference : references_of(header)) {
        places.emplace(reference.name, places.size());
    }
    auto const key = [&](std::string const& line) {
        std::size_t begin = 0;
        std::string columns[4];
        for (std::string& column : columns) {
            std::size_t const end = line.find('\t', begin);
            column = line.substr(begin, end - begin);
            begin = end + 1;
        }
        auto const place = places.find(columns[2]);
        return std::make_pair(place == places.end() ? places.size() : place->second,
                              std::stoi(columns[3]));
    };
    std::stable_sort(lines.begin(), lines.end(),
                     [&](std::string const& a, std::string const& b) { return key(a) < key(b); });
    return lines;
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

// ===========================================================================
// A rich file made by hand
// ===========================================================================

TEST(WholeFile, RichSam_WrittenAsSam_IsTheSameFile) {
    TempDir const dir;
    std::string const sam = RICH_HEADER + joined(rich_lines());
    Handler handler = handler_with(dir, sam);
    std::string const out = dir.file("out.sam");
    EXPECT_TRUE(handler.write_to_sam_file(out)) << handler.error_message;
    EXPECT_EQ(read_file(out), sam);
    EXPECT_EQ(handler.file_name, "");
}

TEST(WholeFile, RichSam_WrittenAsBam_HoldsTheEncodersPayload) {
    TempDir const dir;
    Handler handler = handler_with(dir, RICH_HEADER + joined(rich_lines()));
    expect_bam(written(dir, handler, false), encoded(RICH_HEADER, "\tSO:unknown", rich_lines()));
}

TEST(WholeFile, RichSam_ThroughBam_IsTheSameText) {
    TempDir const dir;
    Handler handler = handler_with(dir, RICH_HEADER + joined(rich_lines()));
    Handler again;
    ASSERT_TRUE(again.read_from_bam_file(written(dir, handler, false))) << again.error_message;
    EXPECT_EQ(lines_of(again), rich_lines());
    EXPECT_EQ(again.header, bam_header_text(RICH_HEADER, "\tSO:unknown"));
    EXPECT_EQ(references_in(again),
              (std::vector<std::pair<std::string, std::int32_t>>{{"chr1", 248956422},
                                                                 {"chr2", 242193529},
                                                                 {"HLA:A*01", 1000},
                                                                 {"chr1", 248956422},
                                                                 {"chr2", 242193529},
                                                                 {"HLA:A*01", 1000}}));
    std::string const out = dir.file("out.sam");
    ASSERT_TRUE(again.write_to_sam_file(out));
    EXPECT_EQ(read_file(out), bam_header_text(RICH_HEADER, "\tSO:unknown") + joined(rich_lines()));
}

TEST(WholeFile, RichSam_SortedAndIndexed_IsTheSameTextInOrder) {
    write_some_index();
    TempDir const dir;
    Handler handler = handler_with(dir, RICH_HEADER + joined(rich_lines()));
    std::string const path = written(dir, handler, true);
    std::vector<std::string> const lines = sorted_lines(RICH_HEADER, rich_lines());
    expect_bam(path, encoded(RICH_HEADER, "\tSO:coordinate", lines));
    expect_same_bytes(read_file(path + ".bai"),
                      build_bai(3, index_records(read_file(path), 1), true));

    Handler again;
    ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
    EXPECT_EQ(lines_of(again), lines);
    EXPECT_EQ(again.header, bam_header_text(RICH_HEADER, "\tSO:coordinate"));
    EXPECT_EQ(again.sort_order, "\tSO:coordinate");
    EXPECT_TRUE(again.has_sort_order);
}

struct ChangeCase {
    char const* label;
    char const* before;
    char const* after;
};

// Everything that a way through BAM changes in a line.
constexpr ChangeCase CHANGE_CASES[] = {
    {"float without a point", "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:2",
     "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:2."},
    {"float with trailing zeros", "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:2.500",
     "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:2.5"},
    {"float with an exponent", "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:-1.25e2",
     "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:-125."},
    {"float too small for six decimals", "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:6.67e-11",
     "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:0."},
    {"float of more digits than it holds", "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:16777217",
     "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:f:16777216."},
    {"integer with a sign and zeros", "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:i:+007",
     "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:i:7"},
    {"character field of more characters", "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:A:ab",
     "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:A:a"},
    {"array element of too many bits", "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:B:C,300,-1",
     "r\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:B:C,44,255"},
    {"reference that the header does not name", "r\t0\tz\t5\t0\t1M\t=\t7\t0\tA\tI",
     "r\t0\t*\t5\t0\t1M\t*\t7\t0\tA\tI"},
    {"mate on a reference spelled out", "r\t0\tc\t5\t0\t1M\tc\t7\t0\tA\tI",
     "r\t0\tc\t5\t0\t1M\t=\t7\t0\tA\tI"},
    {"base U", "r\t0\tc\t5\t0\t3M\t*\t0\t0\tAUG\tIII", "r\t0\tc\t5\t0\t3M\t*\t0\t0\tATG\tIII"},
    {"qualities without bases", "r\t0\tc\t5\t0\t3M\t*\t0\t0\t*\tIII",
     "r\t0\tc\t5\t0\t3M\t*\t0\t0\t*\t*"},
    {"too few qualities", "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tI",
     "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tI!!"},
    {"too many qualities", "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tIJKLM",
     "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tIJK"},
    {"numbers with signs and zeros", "r\t+04\tc\t+5\t007\t03M\t*\t00\t-0\tACG\tIII",
     "r\t4\tc\t5\t7\t3M\t*\t0\t0\tACG\tIII"},
    {"mapping quality of nine bits", "r\t0\tc\t5\t256\t3M\t*\t0\t0\tACG\tIII",
     "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tIII"},
    {"carriage return after the qualities", "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tIII\r",
     "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tIII"},
    {"carriage return after no qualities", "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\t*\r",
     "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\t*"},
    {"carriage return after a number", "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tIII\tXX:i:5\r",
     "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tIII\tXX:i:5"},
    {"carriage return in a text stays", "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tIII\tXX:Z:a\r",
     "r\t0\tc\t5\t0\t3M\t*\t0\t0\tACG\tIII\tXX:Z:a\r"},
};

TEST(WholeFile, LineThatBamCannotKeep_ThroughBam_ComesBackChanged) {
    for (ChangeCase const& c : CHANGE_CASES) {
        SCOPED_TRACE(c.label);
        TempDir const dir;
        std::string const sam = std::string("@SQ\tSN:c\tLN:9\n") + c.before + "\n";
        Handler handler = handler_with(dir, sam);
        EXPECT_EQ(lines_of(handler), std::vector<std::string>{c.before});
        Handler again;
        ASSERT_TRUE(again.read_from_bam_file(written(dir, handler, false))) << again.error_message;
        EXPECT_EQ(lines_of(again), std::vector<std::string>{c.after});
    }
}

TEST(WholeFile, ArrayOfFloats_ThroughBam_IsWrittenButCannotBeReadBack) {
    TempDir const dir;
    std::vector<std::string> const lines = {
        "a\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI",
        "b\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI\tXX:B:f,1.5,-2,1e10",
        "c\t0\tc\t1\t0\t1M\t*\t0\t0\tA\tI",
    };
    std::string const header = "@SQ\tSN:c\tLN:9\n";
    Handler handler = handler_with(dir, header + joined(lines));
    std::string const path = written(dir, handler, false);
    expect_bam(path, encoded(header, "\tSO:unknown", lines));

    Handler again;
    EXPECT_THROW(again.read_from_bam_file(path), boost::bad_any_cast);
    EXPECT_EQ(lines_of(again), std::vector<std::string>{lines[0]});
    EXPECT_EQ(again.file_name, "");
}

TEST(WholeFile, HeaderOnly_ThroughBam_KeepsItsLines) {
    TempDir const dir;
    Handler handler = handler_with(dir, RICH_HEADER);
    std::string const path = written(dir, handler, false);
    // No line has been added: the order that the header names still holds.
    expect_bam(path, encoded(RICH_HEADER, "\tSO:queryname", {}));
    Handler again;
    ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
    EXPECT_TRUE(again.records.empty());
    EXPECT_EQ(again.header, bam_header_text(RICH_HEADER, "\tSO:queryname"));
}

TEST(WholeFile, EmptySam_ThroughBam_StaysEmpty) {
    TempDir const dir;
    Handler handler = handler_with(dir, "");
    std::string const path = written(dir, handler, false);
    expect_bam(path, encode_bam_header("@HD\tVN:1.6\tSO:unknown\n", {}));
    Handler again;
    ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
    EXPECT_TRUE(again.records.empty());
    EXPECT_TRUE(again.references.empty());
}

// --- BAM to BAM ------------------------------------------------------------

TEST(WholeFile, BamWrittenByItsReader_KeepsRecordsAndListsReferencesTwice) {
    TempDir const dir;
    Handler first = handler_with(dir, RICH_HEADER + joined(rich_lines()));
    Handler second;
    ASSERT_TRUE(second.read_from_bam_file(written(dir, first, false))) << second.error_message;
    std::string const path = dir.file("second.bam");
    ASSERT_TRUE(second.write_to_bam_file(path, false)) << second.error_message;

    std::vector<Reference> const once = references_of(RICH_HEADER);
    std::vector<Reference> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    std::string payload = encode_bam_header(bam_header_text(RICH_HEADER, "\tSO:unknown"), twice);
    for (std::string const& line : rich_lines()) payload += encode_bam_record(line, once);
    expect_bam(path, payload);

    Handler third;
    ASSERT_TRUE(third.read_from_bam_file(path)) << third.error_message;
    EXPECT_EQ(lines_of(third), rich_lines());
    EXPECT_EQ(third.references.size(), 3 * once.size());
}

// A handler that takes another's header text and lines.
Handler handed_over(Handler const& from) {
    Handler to;
    std::string header;
    EXPECT_TRUE(from.get_header(header));
    EXPECT_TRUE(to.add_header_lines(header)) << to.error_message;
    for (std::string const& line : lines_of(from)) {
        EXPECT_TRUE(to.add_alignment_sam(line)) << to.error_message;
    }
    return to;
}

TEST(WholeFile, BamHandedOverAsText_Written_IsTheSamePayload) {
    TempDir const dir;
    Handler first = handler_with(dir, RICH_HEADER + joined(rich_lines()));
    std::string const path = written(dir, first, false);
    Handler second;
    ASSERT_TRUE(second.read_from_bam_file(path)) << second.error_message;
    Handler third = handed_over(second);
    std::string const out = dir.file("third.bam");
    ASSERT_TRUE(third.write_to_bam_file(out, false)) << third.error_message;
    expect_bam(out, encoded(RICH_HEADER, "\tSO:unknown", rich_lines()));
}

std::string bam_file_of(std::string const& header, std::vector<RawBamRecord> const& records) {
    std::string payload = encode_bam_header(header, references_of(header));
    for (RawBamRecord const& record : records) payload += record.bytes();
    return bgzf_blocks(payload) + bgzf_eof_block();
}

TEST(WholeFile, NarrowIntegersOfBam_ReadAndWritten_KeepTheirTypes) {
    TempDir const dir;
    RawBamRecord record;
    record.bin = 777;  // not what its position gives
    record.aux = bam_aux("Xc", 'c', le_bytes(std::int8_t{-128})) +
                 bam_aux("XC", 'C', le_bytes(std::uint8_t{255})) +
                 bam_aux("Xi", 'i', le_bytes(std::int32_t{-5})) +
                 bam_aux("XI", 'I', le_bytes(std::uint32_t{4294967295U}));
    std::string const path = dir.write("in.bam", bam_file_of("", {record}));
    Handler handler;
    ASSERT_TRUE(handler.read_from_bam_file(path)) << handler.error_message;
    EXPECT_EQ(lines_of(handler),
              std::vector<std::string>{"r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tXc:i:-128\tXC:i:255\t"
                                       "Xi:i:-5\tXI:i:4294967295"});
    expect_bam(written(dir, handler, false),
               encode_bam_header("@HD\tVN:1.6\tSO:unknown\n", {}) + record.bytes());

    // As text, an integer is signed and of 32 bits.
    Handler second;
    EXPECT_THROW(second.add_alignment_sam(handler.records.at(0).sam_line), std::out_of_range);
}

TEST(WholeFile, SixteenBitIntegersOfBam_ReadAndWritten_SurviveOnlyAsText) {
    struct Case {
        char const* label;
        std::string aux;
        char const* text;
        std::string widened;
    };
    std::vector<Case> const cases = {
        {"signed", bam_aux("Xs", 's', le_bytes(std::int16_t{-32768})), "Xs:i:-32768",
         bam_aux("Xs", 'i', le_bytes(std::int32_t{-32768}))},
        {"unsigned", bam_aux("XS", 'S', le_bytes(std::uint16_t{65535})), "XS:i:65535",
         bam_aux("XS", 'i', le_bytes(std::int32_t{65535}))},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        TempDir const dir;
        RawBamRecord record;
        record.aux = c.aux;
        Handler handler;
        ASSERT_TRUE(handler.read_from_bam_file(dir.write("in.bam", bam_file_of("", {record}))));
        EXPECT_EQ(
            lines_of(handler),
            std::vector<std::string>{std::string("r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\t") + c.text});
        try {
            handler.write_to_bam_file(dir.file("direct.bam"), false);
            ADD_FAILURE() << "no exception";
        } catch (std::runtime_error const& error) {
            EXPECT_STREQ(error.what(), "Hit end of BAM buffer while writing data");
        }
        EXPECT_EQ(handler.file_name, "");

        Handler second = handed_over(handler);
        record.aux = c.widened;
        expect_bam(written(dir, second, false),
                   encode_bam_header("@HD\tVN:1.6\tSO:unknown\n", {}) + record.bytes());
    }
}

// --- Once more -------------------------------------------------------------

TEST(WholeFile, FileReadTwice_HoldsTheSameContent) {
    TempDir const dir;
    std::string const sam = dir.write("x.sam", RICH_HEADER + joined(rich_lines()));
    Handler handler;
    ASSERT_TRUE(handler.read_from_sam_file(sam)) << handler.error_message;
    std::string const bam = written(dir, handler, false);
    for (bool const is_bam : {false, true}) {
        SCOPED_TRACE(is_bam ? "BAM" : "SAM");
        auto const read = [&] {
            return is_bam ? handler.read_from_bam_file(bam) : handler.read_from_sam_file(sam);
        };
        ASSERT_TRUE(read()) << handler.error_message;
        Handler const once = handler;
        ASSERT_TRUE(read()) << handler.error_message;
        EXPECT_EQ(lines_of(handler), rich_lines());
        EXPECT_EQ(handler.header, once.header);
        EXPECT_EQ(handler.header_lines, once.header_lines);
        EXPECT_EQ(handler.sort_order, once.sort_order);
        EXPECT_EQ(handler.has_sort_order, once.has_sort_order);
        EXPECT_EQ(references_in(handler), references_in(once));
        EXPECT_EQ(handler.file_name, "");
    }
}

TEST(WholeFile, HandlerWrittenTwice_MakesTheSameFile) {
    TempDir const dir;
    Handler handler = handler_with(dir, RICH_HEADER + joined(rich_lines()));
    std::string const first = read_file(written(dir, handler, false));
    EXPECT_TRUE(read_file(written(dir, handler, false)) == first);
    EXPECT_EQ(handler.bytes_written + 28, first.size());
}

TEST(WholeFile, CrLfSam_ReadAndWritten_KeepsItsLineEnds) {
    std::vector<std::string> const lines = {
        "a\t0\tc\t1\t0\t3M\t*\t0\t0\tACG\tIII",
        "b\t0\tc\t1\t0\t3M\t*\t0\t0\tACG\t*",
        "c\t0\tc\t1\t0\t3M\t*\t0\t0\t*\t*",
        "d\t0\tc\t1\t0\t3M\t*\t0\t0\tACG\tIII\tXX:Z:text\tYY:i:5",
        "e\t0\tc\t1\t0\t3M\t*\t0\t0\tACG\tIII\tXX:B:s,5,6",
        "f\t0\tc\t1\t0\t3M\t*\t0\t0\tACG\tIII\tYY:i:5\tXX:Z:text",
    };
    std::vector<std::string> crlf_lines;
    for (std::string const& line : lines) crlf_lines.push_back(line + "\r");
    std::string const header = "@HD\tVN:1.6\tSO:queryname\r\n@SQ\tSN:c\tLN:9\r\n@CO\tx\r\n";
    TempDir const dir;
    Handler handler = handler_with(dir, header + joined(crlf_lines));
    EXPECT_EQ(handler.sort_order, "\tSO:queryname");
    EXPECT_EQ(references_in(handler),
              (std::vector<std::pair<std::string, std::int32_t>>{{"c", 9}}));
    EXPECT_EQ(lines_of(handler), crlf_lines);
    std::string const out = dir.file("out.sam");
    ASSERT_TRUE(handler.write_to_sam_file(out));
    EXPECT_EQ(read_file(out), header + joined(crlf_lines));

    std::string const path = written(dir, handler, false);
    expect_bam(path, encoded(header, "\tSO:unknown", crlf_lines));
    Handler again;
    ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
    std::vector<std::string> expected = lines;
    expected[5] += '\r';  // part of the text field
    EXPECT_EQ(lines_of(again), expected);
}

// --- Large records ---------------------------------------------------------

TEST(WholeFile, LongCigar_ThroughBam_IsTheSameText) {
    for (std::size_t const n_ops : {65534U, 65535U, 65536U, 70001U}) {
        SCOPED_TRACE(n_ops);
        std::string cigar;
        for (std::size_t i = 0; i < n_ops; ++i) {
            cigar += std::to_string(1 + i % 9) + (i % 2 == 0 ? "M" : "D");
        }
        std::string const header = "@SQ\tSN:c\tLN:1000000\n";
        std::string const line = "r\t0\tc\t500\t0\t" + cigar + "\t*\t0\t0\tACGT\tIIII\tXX:i:1";
        TempDir const dir;
        Handler handler = handler_with(dir, header + line + "\n");
        std::string const path = written(dir, handler, false);
        expect_bam(path, encoded(header, "\tSO:unknown", {line}));
        Handler again;
        ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
        EXPECT_TRUE(lines_of(again) == std::vector<std::string>{line});
    }
}

TEST(WholeFile, LongRead_ThroughBam_IsTheSameText) {
    std::mt19937 random(61);
    // About where a 16-bit count of packed bytes ends.
    for (std::size_t const n_bases : {131071U, 131072U, 400001U}) {
        SCOPED_TRACE(n_bases);
        std::string seq;
        std::string qual;
        for (std::size_t i = 0; i < n_bases; ++i) {
            seq += "ACGTN"[random() % 5];
            qual += static_cast<char>('!' + random() % 94);
        }
        std::string const header = "@SQ\tSN:c\tLN:1000000\n";
        std::string const line =
            "r\t0\tc\t500\t0\t" + std::to_string(n_bases) + "M\t*\t0\t0\t" + seq + "\t" + qual;
        TempDir const dir;
        Handler handler = handler_with(dir, header + line + "\n");
        std::string const path = written(dir, handler, false);
        expect_bam(path, encoded(header, "\tSO:unknown", {line}));
        Handler again;
        ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
        EXPECT_TRUE(lines_of(again) == std::vector<std::string>{line});
    }
}

// ===========================================================================
// Files made at random
// ===========================================================================

// Makes SAM lines that come back from BAM as they went in.
class LineMaker {
public:
    explicit LineMaker(unsigned seed) : random_(seed) {}

    std::string header() const {
        std::string text = "@HD\tVN:1.6\tSO:unsorted\n";
        for (char const* name : NAMES) text += std::string("@SQ\tSN:") + name + "\tLN:500000000\n";
        return text + "@RG\tID:a\n@PG\tID:b\n@CO\tc\n";
    }

    std::string line() {
        std::string const rname = reference();
        std::string rnext = one_in(3) ? rname : reference();
        if (rnext == rname && rname != "*") rnext = "=";
        std::string const seq = one_in(8) ? "*" : text_of("=ACMGRSVTWYHKDBN", 1, 300);
        std::string qual = "*";
        if (seq != "*" && !one_in(5)) qual = printable(seq.size());
        std::string line = printable_name() + "\t" + number(0, 65535) + "\t" + rname + "\t" +
                           (one_in(10) ? "0" : number(0, 500000000)) + "\t" + number(0, 255) +
                           "\t" + cigar() + "\t" + rnext + "\t" + number(0, 2147483647) + "\t" +
                           number(-2147483648, 2147483647) + "\t" + seq + "\t" + qual;
        for (std::size_t n = below(7); n > 0; --n) line += "\t" + field();
        return line;
    }

private:
    static constexpr char const* NAMES[] = {"chr1", "chr2", "chrUn_1", "4"};

    std::size_t below(std::size_t n) { return random_() % n; }
    bool one_in(std::size_t n) { return below(n) == 0; }

    // Half of them at an edge of the interval.
    std::string number(std::int64_t low, std::int64_t high) {
        auto const span = static_cast<std::uint64_t>(high - low) + 1;
        std::uint64_t const offset = one_in(4) ? 0 : one_in(3) ? span - 1 : random_() % span;
        return std::to_string(low + static_cast<std::int64_t>(offset));
    }

    std::string text_of(std::string_view letters, std::size_t shortest, std::size_t longest) {
        std::string text;
        for (std::size_t n = shortest + below(longest - shortest + 1); n > 0; --n) {
            text += letters[below(letters.size())];
        }
        return text;
    }

    std::string printable(std::size_t n) {
        std::string text;
        for (; n > 0; --n) text += static_cast<char>('!' + below(94));
        return text;
    }

    std::string printable_name() {
        std::string name = printable(1 + below(254));
        if (name[0] == '@') name[0] = 'r';  // it would begin a header line
        return name;
    }

    std::string reference() { return one_in(6) ? "*" : NAMES[below(std::size(NAMES))]; }

    std::string cigar() {
        if (one_in(6)) return "*";
        std::string text;
        for (std::size_t n = 1 + below(9); n > 0; --n) {
            text += std::to_string(1 + below(one_in(9) ? 268435455 : 2000)) + "MIDNSHP=X"[below(9)];
        }
        return text;
    }

    std::string tag() {
        std::string text = text_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz", 1, 1) +
                           text_of("ABDEFHIJKLMNOPQRSTUVWXYZabcxyz0123456789", 1, 1);
        return text;
    }

    std::string field() {
        switch (below(6)) {
            case 0: return tag() + ":A:" + printable(1);
            case 1: return tag() + ":i:" + number(-2147483648, 2147483647);
            case 2: return tag() + ":f:" + exact_float();
            case 3: return tag() + ":Z:" + text_of("abc XYZ:,;09*=~", 0, 60);
            case 4: return tag() + ":H:" + text_of("0123456789ABCDEF", 0, 20);
            default: return tag() + ":B:" + array();
        }
    }

    // A multiple of 1/64, which six decimals tell exactly.
    std::string exact_float() {
        auto const sixty_fourths = static_cast<std::int64_t>(below(200000));
        std::string decimals = std::to_string(1000000 + sixty_fourths % 64 * 15625).substr(1);
        while (!decimals.empty() && decimals.back() == '0') decimals.pop_back();
        return (one_in(2) ? "-" : "") + std::to_string(sixty_fourths / 64) + "." + decimals;
    }

    std::string array() {
        struct Element {
            char type;
            std::int64_t low, high;
        };
        static constexpr Element ELEMENTS[] = {
            {'c', -128, 127},
            {'C', 0, 255},
            {'s', -32768, 32767},
            {'S', 0, 65535},
            {'i', -2147483648LL, 2147483647},
            {'I', 0, 2147483647},
        };
        Element const& element = ELEMENTS[below(std::size(ELEMENTS))];
        std::string text(1, element.type);
        for (std::size_t n = below(20); n > 0; --n) text += "," + number(element.low, element.high);
        return text;
    }

    std::mt19937 random_;
};

// Files of random lines, against the encoder, gzip and the index builder.
void check_random_file(unsigned seed, std::size_t n_lines) {
    write_some_index();
    LineMaker maker(seed);
    std::string const header = maker.header();
    std::vector<std::string> lines;
    while (lines.size() < n_lines) lines.push_back(maker.line());

    TempDir const dir;
    Handler handler = handler_with(dir, header + joined(lines));
    std::string const path = written(dir, handler, false);
    expect_bam(path, encoded(header, "\tSO:unknown", lines));
    Handler again;
    ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
    std::vector<std::string> const read_back = lines_of(again);
    ASSERT_EQ(read_back.size(), lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) ASSERT_EQ(read_back[i], lines[i]) << i;

    std::string const indexed = written(dir, handler, true);
    std::vector<std::string> const sorted = sorted_lines(header, lines);
    expect_bam(indexed, encoded(header, "\tSO:coordinate", sorted));
    expect_same_bytes(read_file(indexed + ".bai"),
                      build_bai(4, index_records(read_file(indexed), 1), true));
    ASSERT_TRUE(again.read_from_bam_file(indexed)) << again.error_message;
    EXPECT_TRUE(lines_of(again) == sorted);
}

TEST(RandomFiles, ThreeThousandRecords_ThroughBam_AgreeWithTheEncoder) {
    check_random_file(62, 3000);
}

TEST(RandomFiles, ManySmallFiles_ThroughBam_AgreeWithTheEncoder) {
    for (unsigned seed = 100; seed < 120; ++seed) {
        SCOPED_TRACE(seed);
        check_random_file(seed, seed % 10);
    }
}

}  // namespace

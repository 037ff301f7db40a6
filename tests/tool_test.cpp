// The command-line tool: the built program is run as its users run it. Parts
// that cannot be brought into every state from outside are called directly.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/any.hpp>
#include <nlohmann/json.hpp>

#include "tests/support/bam_encoder.h"
#include "tests/support/index_builder.h"
#include "tests/support/process.h"
#include "tests/support/temp_file.h"
#include "tests/support/tool_runner.h"
#include "tools/index_check.h"
#include "tools/message.h"
#include "tools/output_file.h"
#include "tools/progress.h"
#include "tools/tool_error.h"

namespace {

using namespace tesk::test;
using Json = nlohmann::json;

mode_t mode_of(std::string const& path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) throw std::runtime_error("cannot stat " + path);
    return status.st_mode & 0777;
}

// --- Sample data ---------------------------------------------------------------

constexpr char const* HEADER =
    "@HD\tVN:1.6\tSO:unsorted\n"
    "@SQ\tSN:chr1\tLN:1000\n"
    "@SQ\tSN:chr2\tLN:500\n"
    "@CO\tsample\n";

std::vector<Reference> const REFERENCES = {{"chr1", 1000}, {"chr2", 500}};

// Not in coordinate order: chr2, chr1:300, none, chr1:100.
std::vector<std::string> const LINES = {
    "r1\t0\tchr2\t10\t60\t4M\t*\t0\t0\tACGT\tIIII\tXA:A:x\tNM:i:1",
    "r2\t16\tchr1\t300\t20\t3M1I2M\t=\t100\t-206\tACGTAC\t!!IIII",
    "r3\t4\t*\t0\t0\t*\t*\t0\t0\tAC\tII\tZZ:Z:a text",
    "r4\t4\tchr1\t100\t0\t*\t=\t300\t206\t*\t*",
};
std::vector<std::size_t> const SORTED = {3, 1, 0, 2};  // indices into LINES

std::string joined(std::vector<std::string> const& lines) {
    std::string text;
    for (std::string const& line : lines) text += line + "\n";
    return text;
}

std::vector<std::string> sorted_lines() {
    std::vector<std::string> lines;
    for (std::size_t const i : SORTED) lines.push_back(LINES[i]);
    return lines;
}

std::string sample_sam() { return HEADER + joined(LINES); }

std::string encoded_records(std::vector<std::string> const& lines,
                            std::vector<Reference> const& references) {
    std::string bytes;
    for (std::string const& line : lines) bytes += encode_bam_record(line, references);
    return bytes;
}

std::string bam_file(std::string const& payload) { return bgzf_blocks(payload) + bgzf_eof_block(); }

std::string sample_bam() {
    return bam_file(encode_bam_header(HEADER, REFERENCES) + encoded_records(LINES, REFERENCES));
}

// Payload of the BAM file that the sample becomes.
std::string expected_payload(std::vector<std::string> const& lines, std::string const& order) {
    return encode_bam_header(bam_header_text(HEADER, order), REFERENCES) +
           encoded_records(lines, REFERENCES);
}

// SAM text large enough that a conversion takes a while.
std::string large_sam(std::size_t n_records) {
    std::mt19937 random(20240229);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same data each time
    std::string text = "@SQ\tSN:chr1\tLN:100000000\n";
    for (std::size_t i = 0; i < n_records; ++i) {
        std::string bases(60, 'A');
        for (char& base : bases) base = "ACGT"[random() % 4];
        text += "read" + std::to_string(i) + "\t0\tchr1\t" +
                std::to_string(random() % 90000000 + 1) + "\t60\t60M\t*\t0\t0\t" + bases + "\t" +
                std::string(60, 'I') + "\n";
    }
    return text;
}

// --- Help, version, wrong use --------------------------------------------------

struct HelpCase {
    char const* label;
    std::vector<std::string> arguments;
    char const* begin;
    char const* end;
};

TEST(Tool, Help_OfEachCommand_EndsWithExample) {
    HelpCase const cases[] = {
        {"the tool",
         {"--help"},
         "Sequence alignments between SAM, BAM and BAI files\n"
         "Usage: tesk-bam [OPTIONS] SUBCOMMAND\n",
         "Example: from SAM to BAM\n  tesk-bam convert reads.sam reads.bam\n"},
        {"convert",
         {"convert", "--help"},
         "Convert between SAM and BAM; sort by coordinate; make an index\n"
         "Usage: tesk-bam convert [OPTIONS] IN OUT\n",
         "  tesk-bam convert reads.sam reads.bam --index\n"},
        {"dump-index",
         {"dump-index", "--help"},
         "Print a BAI file in readable form\nUsage: tesk-bam dump-index [OPTIONS] FILE\n",
         "  tesk-bam dump-index reads.bam.bai\n"},
        {"info",
         {"info", "--help"},
         "Sum up a SAM or BAM file: references, records, sort order, read lengths\n"
         "Usage: tesk-bam info [OPTIONS] FILE\n",
         "  tesk-bam info reads.bam --json | grep -m1 '\"mapped\"'\n"},
    };
    for (HelpCase const& c : cases) {
        SCOPED_TRACE(c.label);
        ProcessResult const result = run_tool(c.arguments);
        expect_done(result);
        EXPECT_EQ(result.output.rfind(c.begin, 0), 0U) << result.output;
        std::string const end(c.end);
        ASSERT_GE(result.output.size(), end.size());
        EXPECT_EQ(result.output.substr(result.output.size() - end.size()), end);
    }
}

// In this order each example finds what it needs.
TEST(Tool, HelpExamples_Run_DoWhatTheySay) {
    TempDir const dir;
    dir.write("reads.sam", sample_sam());
    ProcessResult const result = run_shell(
        "cd \"$1\" || exit; tool=$0; tesk-bam() { \"$tool\" \"$@\"; }\n"
        "for command in '' convert dump-index info; do\n"
        "    eval \"$(tesk-bam $command --help | tail -n 1)\" >output || exit\n"
        "done; cat output",
        {dir.path().string()});
    expect_done(result);
    EXPECT_EQ(result.output, "  \"mapped\": 2,\n");
    EXPECT_EQ(names_in(dir.path()), (Names{"output", "reads.bam", "reads.bam.bai", "reads.sam"}));
}

TEST(Tool, Version_OfToolOrCommand_IsNameAndNumber) {
    for (std::string const command : {"", "convert", "import", "annotate", "info", "dump-index"}) {
        SCOPED_TRACE(command);
        std::vector<std::string> arguments = {"--version"};
        if (!command.empty()) arguments.insert(arguments.begin(), command);
        ProcessResult const result = run_tool(arguments);
        expect_done(result);
        EXPECT_EQ(result.output, "tesk-bam " TESK_BAM_VERSION "\n");
    }
}

TEST(Tool, Convert_FloatArraysToBam_NotesThatTheyCannotBeReadBack) {
    TempDir const dir;
    std::string const columns = "\t4\t*\t0\t0\t*\t*\t0\t0\tA\tI\t";
    std::string const in = dir.write("in.sam", "r1" + columns + "XA:B:f,2.0\nr2" + columns +
                                                   "XA:B:f\nr3" + columns + "XA:B:c,1\n");
    std::string const out = dir.file("out.bam");
    ProcessResult const result = run_tool({"convert", in, out});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors, "tesk-bam: note: 1 of 3 records hold arrays of floats; " + out +
                                 " cannot be read back by this tool\n");
    expect_done(run_tool({"convert", in, out, "--quiet"}));
    expect_done(run_tool({"convert", in, dir.file("out.sam")}));
}

struct WrongUseCase {
    char const* label;
    std::vector<std::string> arguments;
    char const* message;
};

TEST(Tool, WrongUse_OfEveryKind_IsStatusTwoWithMessage) {
    constexpr char const* HINT = "\ntesk-bam: run with --help to see what is possible";
    WrongUseCase const parsed[] = {
        {"no command", {}, "A subcommand is required"},
        {"no input", {"convert"}, "IN is required"},
        {"no output", {"convert", "a.sam"}, "OUT is required"},
        {"no index file", {"dump-index"}, "FILE is required"},
        {"no file", {"info"}, "FILE is required"},
        {"unknown option",
         {"convert", "a.sam", "b.bam", "--bogus"},
         "The following argument was not expected: --bogus"},
        {"one file too many",
         {"info", "a.sam", "b.sam"},
         "The following argument was not expected: b.sam"},
        {"unknown kind of input",
         {"convert", "a", "b.bam", "--from", "cram"},
         "--from: cram not in {sam,bam}"},
        {"unknown kind of output",
         {"convert", "a.sam", "b", "--to", "txt"},
         "--to: txt not in {sam,bam}"},
    };
    for (WrongUseCase const& c : parsed) {
        SCOPED_TRACE(c.label);
        expect_failure(run_tool(c.arguments), 2, std::string(c.message) + HINT);
    }
    WrongUseCase const refused[] = {
        {"input of unclear kind",
         {"convert", "a.txt", "b.bam"},
         "cannot tell from its name whether a.txt is SAM or BAM: say --from sam or --from bam"},
        {"output of unclear kind",
         {"convert", "a.sam", "b"},
         "cannot tell from its name whether b is SAM or BAM: say --to sam or --to bam"},
        {"info of unclear kind",
         {"info", "bam"},
         "cannot tell from its name whether bam is SAM or BAM: say --from sam or --from bam"},
        {"standard input", {"convert", "-", "b.bam"}, "standard input cannot be read: name a file"},
        {"info on standard input", {"info", "-"}, "standard input cannot be read: name a file"},
        {"dump of standard input",
         {"dump-index", "-"},
         "standard input cannot be read: name a file"},
        {"BAM on standard output",
         {"convert", "a.sam", "-", "--to", "bam"},
         "BAM cannot be written to standard output: name a file"},
        {"index with SAM",
         {"convert", "a.sam", "b.sam", "--index"},
         "--index goes with BAM output only"},
        {"index with standard output",
         {"convert", "a.sam", "-", "--index"},
         "--index goes with BAM output only"},
    };
    for (WrongUseCase const& c : refused) {
        SCOPED_TRACE(c.label);
        expect_failure(run_tool(c.arguments), 2, c.message);
    }
}

// --- Conversions ---------------------------------------------------------------

TEST(Tool, Convert_SamToBam_PayloadIsThatOfIndependentEncoder) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.bam");
    ProcessResult const result = run_tool({"convert", in, out});
    expect_done(result);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(payload_of(out), expected_payload(LINES, "\tSO:unknown"));
    EXPECT_EQ(run_process({"gzip", "-t", "--suffix", ".bam", out}).exit_status, 0);
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam"}));
}

TEST(Tool, Convert_SortToBam_RecordsAreInCoordinateOrder) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", in, out, "--sort"}));
    EXPECT_EQ(payload_of(out), expected_payload(sorted_lines(), "\tSO:coordinate"));
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam"}));
}

TEST(Tool, Convert_IndexToBam_SortsAndWritesIndexBesideIt) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", in, out, "--index"}));
    EXPECT_EQ(payload_of(out), expected_payload(sorted_lines(), "\tSO:coordinate"));
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam", "out.bam.bai"}));

    // Each record has a block of its own, after one for the header.
    std::vector<BgzfBlock> const blocks = parse_bgzf(read_file(out));
    ASSERT_EQ(blocks.size(), 6U);
    auto const record = [&](std::size_t block, std::int32_t refID, std::int32_t pos,
                            std::uint64_t ref_length, std::uint16_t flag) {
        return IndexedRecord{refID,
                             pos,
                             ref_length,
                             4681,
                             flag,
                             blocks[block].offset << 16,
                             blocks[block + 1].offset << 16};
    };
    EXPECT_EQ(read_file(out + ".bai"), build_bai(2,
                                                 {record(1, 0, 99, 1, 4), record(2, 0, 299, 5, 16),
                                                  record(3, 1, 9, 4, 0), record(4, -1, -1, 1, 4)},
                                                 false));
}

TEST(Tool, Convert_HeaderClaimsCoordinateOrder_StillSorts) {
    TempDir const dir;
    std::string sam = sample_sam();
    sam.replace(sam.find("SO:unsorted"), 11, "SO:coordinate");
    std::string const in = dir.write("in.sam", sam);
    for (char const* const option : {"--sort", "--index"}) {
        SCOPED_TRACE(option);
        std::string const out = dir.file("out.bam");
        ProcessResult const result = run_tool({"convert", in, out, option, "--quiet"});
        expect_done(result);
        EXPECT_EQ(payload_of(out), expected_payload(sorted_lines(), "\tSO:coordinate"));
    }
}

TEST(Tool, Convert_SamToSam_IsTheSameText) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.sam");
    expect_done(run_tool({"convert", in, out}));
    EXPECT_EQ(read_file(out), sample_sam());
}

TEST(Tool, Convert_BamToSam_GivesHeaderAndLinesBack) {
    TempDir const dir;
    std::string const in = dir.write("in.bam", sample_bam());
    std::string const out = dir.file("out.sam");
    expect_done(run_tool({"convert", in, out}));
    EXPECT_EQ(read_file(out), sample_sam());
}

TEST(Tool, Convert_SortedSam_HeaderTellsTheNewOrder) {
    TempDir const dir;
    std::string const expected =
        bam_header_text(HEADER, "\tSO:coordinate") + joined(sorted_lines());
    for (std::string const& in :
         {dir.write("in.sam", sample_sam()), dir.write("in.bam", sample_bam())}) {
        SCOPED_TRACE(in);
        std::string const out = dir.file("out.sam");
        expect_done(run_tool({"convert", in, out, "--sort"}));
        EXPECT_EQ(read_file(out), expected);
        ProcessResult const printed = run_tool({"convert", in, "-", "--sort"});
        expect_done(printed);
        EXPECT_EQ(printed.output, expected);
    }
}

TEST(Tool, Convert_Dash_PrintsSam) {
    TempDir const dir;
    for (std::string const& in :
         {dir.write("in.sam", sample_sam()), dir.write("in.bam", sample_bam())}) {
        for (std::vector<std::string> const& options :
             {std::vector<std::string>{}, {"--to", "sam"}, {"--quiet"}}) {
            SCOPED_TRACE(in);
            std::vector<std::string> arguments = {"convert", in, "-"};
            arguments.insert(arguments.end(), options.begin(), options.end());
            ProcessResult const result = run_tool(arguments);
            expect_done(result);
            EXPECT_EQ(result.output, sample_sam());
        }
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.bam", "in.sam"}));
}

TEST(Tool, Convert_KindsGiven_PrevailOverEndings) {
    TempDir const dir;
    std::string const sam = dir.write("text.bam", sample_sam());
    std::string const bam = dir.file("binary.txt");
    expect_done(run_tool({"convert", sam, bam, "--from", "sam", "--to", "bam"}));
    EXPECT_EQ(payload_of(bam), expected_payload(LINES, "\tSO:unknown"));
    std::string const back = dir.file("back.bam");
    expect_done(run_tool({"convert", bam, back, "--from", "bam", "--to", "sam"}));
    EXPECT_EQ(read_file(back), bam_header_text(HEADER, "\tSO:unknown") + joined(LINES));
}

TEST(Tool, Convert_EndingsInAnyCase_TellTheKind) {
    TempDir const dir;
    std::string const in = dir.write("in.SAM", sample_sam());
    std::string const out = dir.file("out.Bam");
    expect_done(run_tool({"convert", in, out}));
    EXPECT_EQ(payload_of(out), expected_payload(LINES, "\tSO:unknown"));
}

TEST(Tool, Convert_LongName_StillHasRoomForTheTemporaryOne) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const name = std::string(247, 'n') + ".bam";  // with .bai: 255 bytes, the limit
    expect_done(run_tool({"convert", in, dir.file(name), "--index"}));
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", name, name + ".bai"}));
}

TEST(Tool, Convert_EmptySam_GivesBamWithoutRecords) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", "");
    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", in, out, "--index"}));
    EXPECT_EQ(payload_of(out), encode_bam_header("@HD\tVN:1.6\tSO:coordinate\n", {}));
    EXPECT_EQ(read_file(out + ".bai"), build_bai(0, {}, false));
}

// --- BAM to BAM ----------------------------------------------------------------

TEST(Tool, Convert_BamToBam_ListsEachReferenceOnce) {
    TempDir const dir;
    std::string const in = dir.write("in.bam", sample_bam());
    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", in, out}));
    EXPECT_EQ(payload_of(out), expected_payload(LINES, "\tSO:unknown"));
    expect_done(run_tool({"convert", in, out, "--index"}));
    EXPECT_EQ(payload_of(out), expected_payload(sorted_lines(), "\tSO:coordinate"));
    EXPECT_EQ(parse_bai(read_file(out + ".bai")).references.size(), 2U);
}

struct OrderCase {
    char const* label;
    char const* order_line;  // of the input's header
    char const* written;     // order in the output's
};

TEST(Tool, Convert_BamToBam_KeepsTheOrderThatItsHeaderStates) {
    constexpr OrderCase CASES[] = {
        {"by coordinate", "@HD\tVN:1.6\tSO:coordinate\n", "\tSO:coordinate"},
        {"by name", "@HD\tVN:1.6\tSO:queryname\n", "\tSO:queryname"},
        {"grouped", "@HD\tVN:1.6\tGO:query\n", "\tGO:query"},
        {"with suborder", "@HD\tVN:1.6\tSO:coordinate\tSS:coordinate:x\n", "\tSS:coordinate:x"},
        {"unsorted", "@HD\tVN:1.6\tSO:unsorted\n", "\tSO:unknown"},
        {"no line", "", "\tSO:unknown"},
    };
    std::string const lines = "@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n";
    std::vector<std::string> const records = sorted_lines();
    TempDir const dir;
    for (OrderCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        std::string const in =
            dir.write("in.bam", bam_file(encode_bam_header(c.order_line + lines, REFERENCES) +
                                         encoded_records(records, REFERENCES)));
        std::string const out = dir.file("out.bam");
        expect_done(run_tool({"convert", in, out}));
        EXPECT_EQ(
            payload_of(out),
            encode_bam_header(std::string("@HD\tVN:1.6") + c.written + "\n" + lines, REFERENCES) +
                encoded_records(records, REFERENCES));
        expect_done(run_tool({"convert", in, out, "--sort"}));
        EXPECT_EQ(payload_of(out),
                  encode_bam_header("@HD\tVN:1.6\tSO:coordinate\n" + lines, REFERENCES) +
                      encoded_records(records, REFERENCES));
    }
}

TEST(Tool, Convert_BamToBam_IntegersOfEveryWidthSurvive) {
    RawBamRecord record;
    record.aux = bam_aux("Xc", 'c', le_bytes<std::int8_t>(-128)) +
                 bam_aux("XC", 'C', le_bytes<std::uint8_t>(255)) +
                 bam_aux("Xs", 's', le_bytes<std::int16_t>(-32768)) +
                 bam_aux("XS", 'S', le_bytes<std::uint16_t>(65535)) +
                 bam_aux("Xi", 'i', le_bytes<std::int32_t>(-2147483647 - 1)) +
                 bam_aux("XI", 'I', le_bytes<std::uint32_t>(2147483647));
    std::string const line =
        "r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tXc:i:-128\tXC:i:255\tXs:i:-32768\tXS:i:65535"
        "\tXi:i:-2147483648\tXI:i:2147483647";
    TempDir const dir;
    std::string const in =
        dir.write("in.bam", bam_file(encode_bam_header(HEADER, REFERENCES) + record.bytes()));
    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", in, out}));
    EXPECT_EQ(payload_of(out), expected_payload({line}, "\tSO:unknown"));
}

TEST(Tool, Convert_BamWithoutSqLines_MakesThemFromItsList) {
    TempDir const dir;
    std::string const text = "@HD\tVN:1.6\tSO:unsorted\n@RG\tID:g\n";
    std::string const in = dir.write("in.bam", bam_file(encode_bam_header(text, REFERENCES) +
                                                        encoded_records(LINES, REFERENCES)));
    std::string const made = "@RG\tID:g\n@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n";

    ProcessResult const printed = run_tool({"convert", in, "-"});
    expect_done(printed);
    EXPECT_EQ(printed.output, "@HD\tVN:1.6\tSO:unsorted\n" + made + joined(LINES));

    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", in, out, "--sort"}));
    EXPECT_EQ(payload_of(out),
              encode_bam_header("@HD\tVN:1.6\tSO:coordinate\n" + made, REFERENCES) +
                  encoded_records(sorted_lines(), REFERENCES));

    // No header text at all.
    std::string const bare = dir.write("bare.bam", bam_file(encode_bam_header("", REFERENCES)));
    ProcessResult const bare_printed = run_tool({"convert", bare, "-"});
    expect_done(bare_printed);
    EXPECT_EQ(bare_printed.output, "@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n");
}

struct ListCase {
    char const* label;
    char const* text;
    std::vector<Reference> list;
    char const* difference;
};

TEST(Tool, Convert_HeaderTextAndReferenceListDiffer_FirstDifferenceIsNamed) {
    constexpr char const* BOTH = "@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n";
    ListCase const cases[] = {
        {"list too short", BOTH, {{"chr1", 1000}}, "2: chr2 of 500 bases and nothing"},
        {"list empty", BOTH, {}, "1: chr1 of 1000 bases and nothing"},
        {"list too long",
         BOTH,
         {{"chr1", 1000}, {"chr2", 500}, {"chr3", 7}},
         "3: nothing and chr3 of 7 bases"},
        {"other name",
         BOTH,
         {{"chr1", 1000}, {"chrX", 500}},
         "2: chr2 of 500 bases and chrX of 500 bases"},
        {"other length",
         BOTH,
         {{"chr1", 1001}, {"chr2", 500}},
         "1: chr1 of 1000 bases and chr1 of 1001 bases"},
        {"other order",
         BOTH,
         {{"chr2", 500}, {"chr1", 1000}},
         "1: chr1 of 1000 bases and chr2 of 500 bases"},
        {"name that SAM cannot hold",
         "",
         {{"chr 1", 1000}},
         "1: chr 1 of 1000 bases and chr of 1000 bases"},
    };
    TempDir const dir;
    for (ListCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in.bam", bam_file(encode_bam_header(c.text, c.list)));
        std::string const message =
            in + ": the header text and the reference list differ at reference " + c.difference;
        expect_failure(run_tool({"convert", in, dir.file("out.bam")}), 1, message);
        expect_failure(run_tool({"convert", in, "-"}), 1, message);
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.bam"}));
}

struct RecordCase {
    char const* label;
    RawBamRecord record;
    char const* message;  // after the file's name
    bool sam_output_too;  // SAM output fails as well
};

TEST(Tool, Convert_BamRecordThatTextCannotCarry_IsAnErrorNamingIt) {
    RawBamRecord beyond;
    beyond.refID = 2;
    RawBamRecord next_beyond;
    next_beyond.next_refID = 3;
    RawBamRecord tab;
    tab.aux = bam_aux("XZ", 'Z', std::string("a\tXY:Z:b\0", 9));
    RawBamRecord line_break;
    line_break.aux = bam_aux("XZ", 'Z', std::string("a\nb\0", 4));
    RawBamRecord second_of_a_name;
    second_of_a_name.refID = 1;
    RawBamRecord unsigned_int;
    unsigned_int.aux = bam_aux("XI", 'I', le_bytes<std::uint32_t>(2147483648U));
    RawBamRecord spaced;
    spaced.read_name = "r 0";
    constexpr char const* BROKEN =
        ": record 2 holds a tab or a line break in a text, which SAM cannot hold";
    RecordCase const cases[] = {
        {"refID beyond the list", beyond, ": record 2 names reference number 2 of a list of 2",
         true},
        {"next_refID beyond the list", next_beyond,
         ": record 2 names reference number 3 of a list of 2", true},
        {"tab in a text", tab, BROKEN, true},
        {"line break in a text", line_break, BROKEN, true},
        {"second reference of the same name", second_of_a_name,
         ": record 2 does not survive the way through SAM text: "
         "r1\t4\tchr1\t0\t0\t*\t*\t0\t0\t*\t*",
         false},
        {"number beyond 32 bits with sign", unsigned_int, ": record 2: stoi", false},
        {"read name of two words", spaced,
         ": record 2: Sam to Bam parsing failed: Malformed SAM line detected", false},
    };
    std::vector<Reference> const same_names = {{"chr1", 1000}, {"chr1", 1000}};
    TempDir const dir;
    for (RecordCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const text = "@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr1\tLN:1000\n";
        std::string const in =
            dir.write("in.bam", bam_file(encode_bam_header(text, same_names) +
                                         RawBamRecord().bytes() + c.record.bytes()));
        expect_failure(run_tool({"convert", in, dir.file("out.bam")}), 1, in + c.message);
        ProcessResult const printed = run_tool({"convert", in, "-"});
        EXPECT_EQ(printed.exit_status, c.sam_output_too ? 1 : 0);
        EXPECT_EQ(printed.errors, c.sam_output_too ? "tesk-bam: " + in + c.message + "\n" : "");
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.bam"}));
}

// --- Input at fault ------------------------------------------------------------

TEST(Tool, Convert_InputRefused_IsTheLibrarysMessageInOneLine) {
    TempDir const dir;
    std::string const out = dir.write("out.bam", "old file");
    std::string const bad_line = dir.write("line.sam", "r1\t0\n");
    std::string const bad_header = dir.write("header.sam", "@XX\n");
    std::string const no_bam = dir.write("no.bam", "text");
    std::string const missing = dir.file("missing.sam");
    WrongUseCase const cases[] = {
        {"no such file", {missing}, "Cannot open file FILE"},
        {"a folder", {dir.path().string(), "--from", "sam"}, "Cannot open file FILE"},
        {"malformed line",
         {bad_line},
         "Could not parse alignment from SAM file FILE : Sam to Bam parsing failed: "
         "Malformed SAM line detected"},
        {"malformed header",
         {bad_header},
         "Could not parse header from SAM file FILE : "
         "Invalid line encountered in header lines: @XX"},
        {"no BAM", {no_bam}, "Encountered malformed BGZF header in file FILE"},
    };
    for (WrongUseCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::vector<std::string> arguments = c.arguments;
        arguments.insert(arguments.begin(), "convert");
        arguments.push_back(out);
        std::string const message = with_file(c.message, c.arguments[0]);
        expect_failure(run_tool(arguments), 1, message);
    }
    EXPECT_EQ(read_file(out), "old file");
    EXPECT_EQ(names_in(dir.path()), (Names{"header.sam", "line.sam", "no.bam", "out.bam"}));
}

TEST(Tool, Convert_LibraryThrows_IsOneLineNamingTheFile) {
    TempDir const dir;
    std::string const out = dir.file("out.bam");

    std::string const number =
        dir.write("number.sam", "r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tNM:i:x\n");
    expect_failure(run_tool({"convert", number, out}), 1, number + ": stoi");

    RawBamRecord record;
    record.aux = bam_aux("XF", 'B', "f" + le_bytes<std::uint32_t>(1) + std::string(4, '\0'));
    std::string const floats =
        dir.write("floats.bam", bam_file(encode_bam_header("", {}) + record.bytes()));
    std::string const bad_cast = boost::bad_any_cast().what();
    expect_failure(run_tool({"convert", floats, out}), 1, floats + ": " + bad_cast);
    expect_failure(run_tool({"info", floats}), 1, floats + ": " + bad_cast);

    // 70 skips of 2^28 - 1 bases end beyond every index.
    std::string cigar;
    for (int i = 0; i < 70; ++i) cigar += "268435455N";
    std::string const far =
        dir.write("far.sam", "@SQ\tSN:c\tLN:1\nr1\t0\tc\t1\t0\t" + cigar + "\t*\t0\t0\t*\t*\n");
    expect_done(run_tool({"convert", far, dir.file("far.bam")}));
    expect_failure(run_tool({"convert", far, out, "--index"}), 1,
                   out + ": Alignment ends beyond the range of a BAM index: position 18790481850");

    EXPECT_EQ(names_in(dir.path()), (Names{"far.bam", "far.sam", "floats.bam", "number.sam"}));
}

TEST(Tool, Message_QuotesAnything_StaysOnOneLineAndShort) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", "r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tX\x1b[31m\r\x7f" +
                                                   std::string(3000000, 'y') + "\n");
    ProcessResult const result = run_tool({"convert", in, dir.file("out.bam")});
    EXPECT_EQ(result.exit_status, 1);
    std::string const begin = "tesk-bam: Could not parse alignment from SAM file " + in +
                              " : Sam to Bam parsing failed: Invalid aux data detected: "
                              "X\\x1b[31m\\r\\x7fyyy";
    EXPECT_EQ(result.errors.substr(0, begin.size()), begin);
    EXPECT_LT(result.errors.size(), 1100U);
    EXPECT_EQ(result.errors.find('\n'), result.errors.size() - 1);
}

TEST(Tool, OneLine_ControlBytesAndLength_EscapedAndShortened) {
    using tesk::tool::one_line;
    EXPECT_EQ(one_line(""), "");
    EXPECT_EQ(one_line("a\tb \xC3\xA4"), "a\tb \xC3\xA4");
    EXPECT_EQ(one_line(std::string_view("\n\r\0\x1f \x7f", 6)), "\\n\\r\\x00\\x1f \\x7f");
    EXPECT_EQ(one_line(std::string(999, 'a')), std::string(999, 'a'));
    EXPECT_EQ(one_line(std::string(1000, 'a')), std::string(1000, 'a'));
    EXPECT_EQ(one_line(std::string(900, 'a') + std::string(101, 'b')),
              std::string(800, 'a') + "..." + std::string(89, 'a') + std::string(101, 'b'));
}

// --- Output at fault -----------------------------------------------------------

TEST(Tool, Convert_OutputCannotBeMade_IsErrorAndNothingChanges) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::filesystem::create_directory(dir.file("folder.bam"));
    std::filesystem::create_directory(dir.file("out.bam.bai"));
    std::filesystem::create_symlink("loop.bam", dir.file("loop.bam"));
    std::string const missing = dir.file("missing/out.bam");
    WrongUseCase const cases[] = {
        {"no such folder",
         {missing},
         "cannot create a file beside FILE: No such file or directory"},
        {"a folder has the name", {dir.file("folder.bam")}, "cannot write FILE: it is a folder"},
        {"ends in a slash", {dir.file("new.bam/")}, "cannot write FILE: it is a folder"},
        {"no name", {""}, "cannot write a file without a name"},
        {"a folder has the index's name",
         {dir.file("out.bam"), "--index"},
         "cannot write FILE.bai: it is a folder"},
        {"link to itself",
         {dir.file("loop.bam")},
         "cannot write FILE: Too many levels of symbolic links"},
        {"index for a device",
         {"/dev/null", "--index"},
         "FILE is no file that could have an index"},
    };
    for (WrongUseCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::vector<std::string> arguments = {"convert", in, "--to", "bam"};
        arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
        std::string const message = with_file(c.message, c.arguments[0]);
        expect_failure(run_tool(arguments), 1, message);
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"folder.bam", "in.sam", "loop.bam", "out.bam.bai"}));
}

// The superuser may write everywhere, unless that right is taken away.
TEST(Tool, Convert_FolderNotWritable_IsErrorAndOldFileStays) {
    std::string const command =
        ::geteuid() == 0 ? "exec setpriv --bounding-set=-dac_override " : "exec ";
    ProcessResult const possible = run_shell(command + "\"$0\" --version");
    if (possible.exit_status != 0) GTEST_SKIP() << "cannot run with fewer rights";
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::filesystem::create_directory(dir.file("closed"));
    std::string const out = dir.write("closed/out.bam", "old file");
    ::chmod(dir.file("closed").c_str(), 0500);
    expect_failure(run_shell(command + "\"$0\" convert \"$1\" \"$2\"", {in, out}), 1,
                   "cannot create a file beside " + out + ": Permission denied");
    ::chmod(dir.file("closed").c_str(), 0700);
    EXPECT_EQ(read_file(out), "old file");
    EXPECT_EQ(names_in(dir.file("closed")), (Names{"out.bam"}));
}

TEST(Tool, Convert_FullDevice_IsError) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    expect_failure(run_tool({"convert", in, "/dev/full", "--to", "sam"}), 1,
                   "cannot write to /dev/full: No space left on device");
    expect_failure(run_tool({"convert", in, "/dev/full", "--to", "bam"}), 1,
                   "BAM file reported error on close /dev/full");
    struct stat status = {};
    ASSERT_EQ(::stat("/dev/full", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

TEST(Tool, Convert_DeviceOrFifo_IsWrittenNotReplaced) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    expect_done(run_tool({"convert", in, "/dev/null", "--to", "bam"}));
    struct stat status = {};
    ASSERT_EQ(::stat("/dev/null", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));

    std::string const fifo = make_fifo(dir, "fifo.sam");
    ProcessResult const result =
        run_shell("\"$0\" convert \"$1\" \"$2\" & cat \"$2\"; wait", {in, fifo});
    expect_done(result);
    EXPECT_EQ(result.output, sample_sam());
    EXPECT_EQ(names_in(dir.path()), (Names{"fifo.sam", "in.sam"}));
}

TEST(Tool, Convert_FileGrowsTooLarge_IsErrorAndOldFilesStay) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(500));
    for (char const* const name : {"out.sam", "out.bam"}) {
        SCOPED_TRACE(name);
        std::string const out = dir.write(name, "old file");
        ProcessResult const result =
            run_shell("ulimit -f 8; exec \"$0\" convert \"$1\" \"$2\"", {in, out});
        bool const sam = std::string(name) == "out.sam";
        expect_failure(result, 1,
                       sam ? "cannot write to " + out + ": File too large"
                           : "BAM file reported error on close " + out);
        EXPECT_EQ(read_file(out), "old file");
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam", "out.sam"}));
}

TEST(Tool, Convert_IndexCutShortOnDisk_IsFoundAndOldPairStays) {
    TempDir const dir;
    // One read far out: 30,518 windows, so that the index alone is too large.
    std::string const in =
        dir.write("in.sam", "@SQ\tSN:c\tLN:536870912\nr1\t0\tc\t500000001\t0\t1M\t*\t0\t0\tA\tI\n");
    std::string const out = dir.write("out.bam", "old file");
    std::string const bai = dir.write("out.bam.bai", "old index");
    ProcessResult const result =
        run_shell("ulimit -f 100; exec \"$0\" convert \"$1\" \"$2\" --index", {in, out});
    EXPECT_EQ(result.exit_status, 1);
    std::string const begin = "tesk-bam: " + bai +
                              ": the index is damaged: n_intv of reference 0 "
                              "is 30518, ";
    EXPECT_EQ(result.errors.substr(0, begin.size()), begin);
    EXPECT_EQ(read_file(out), "old file");
    EXPECT_EQ(read_file(bai), "old index");
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam", "out.bam.bai"}));
}

TEST(Tool, StandardOutput_CannotBeWritten_IsErrorForEveryCommand) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const bai = dir.write("in.bai", build_bai(0, {}, false));
    std::vector<std::vector<std::string>> const commands = {
        {"convert", in, "-"}, {"info", in}, {"info", in, "--json"}, {"dump-index", bai}};
    for (std::vector<std::string> const& command : commands) {
        SCOPED_TRACE(command[0]);
        expect_failure(run_shell("exec \"$0\" \"$@\" > /dev/full", command), 1,
                       "cannot write to standard output: No space left on device");
        expect_failure(run_shell("exec \"$0\" \"$@\" >&-", command), 1,
                       "cannot write to standard output: Bad file descriptor");
    }
    for (char const* const option : {"--help", "--version"}) {
        SCOPED_TRACE(option);
        expect_failure(run_shell("exec \"$0\" \"$@\" > /dev/full", {option}), 1,
                       "cannot write to standard output");
    }
}

TEST(Tool, StandardErrorClosed_FailingInput_MessageReachesNoFile) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", "r1\t0\n");
    std::string const out = dir.write("out.sam", "old file");
    ProcessResult const result =
        run_shell("exec \"$0\" convert \"$1\" \"$2\" <&- >&- 2>&-", {in, out});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(read_file(in), "r1\t0\n");
    EXPECT_EQ(read_file(out), "old file");
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.sam"}));
}

TEST(Tool, StandardOutput_ReaderGone_DiesQuietlyBySigpipe) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(5000));
    ProcessResult const result = run_shell(
        "env --default-signal=PIPE \"$0\" convert \"$1\" - | head -c 1 > /dev/null; "
        "echo ${PIPESTATUS[0]}",
        {in});
    EXPECT_EQ(result.output, std::to_string(128 + SIGPIPE) + "\n");
    EXPECT_EQ(result.errors, "");
}

// --- Names, links, permissions -------------------------------------------------

TEST(Tool, Convert_InputIsOutput_ReplacesIt) {
    TempDir const dir;
    std::string const sam = dir.write("a.sam", sample_sam());
    expect_done(run_tool({"convert", sam, sam, "--sort"}));
    EXPECT_EQ(read_file(sam), bam_header_text(HEADER, "\tSO:coordinate") + joined(sorted_lines()));

    std::string const bam = dir.write("b.bam", sample_bam());
    expect_done(run_tool({"convert", bam, bam, "--index"}));
    EXPECT_EQ(payload_of(bam), expected_payload(sorted_lines(), "\tSO:coordinate"));
    EXPECT_EQ(names_in(dir.path()), (Names{"a.sam", "b.bam", "b.bam.bai"}));
}

TEST(Tool, Convert_InputIsOutputAndBroken_StaysWhole) {
    TempDir const dir;
    std::string const broken = sample_sam() + "r5\t0\n";
    std::string const sam = dir.write("a.sam", broken);
    EXPECT_EQ(run_tool({"convert", sam, sam, "--sort"}).exit_status, 1);
    EXPECT_EQ(read_file(sam), broken);
    EXPECT_EQ(names_in(dir.path()), (Names{"a.sam"}));
}

TEST(Tool, Convert_OutputIsLink_ReplacesWhatItNames) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::filesystem::create_directory(dir.file("store"));
    dir.write("store/real.bam", "old file");
    std::filesystem::create_symlink("store/real.bam", dir.file("link.bam"));
    std::filesystem::create_symlink("link.bam", dir.file("second.bam"));
    std::filesystem::create_symlink(dir.file("store/new.bam"), dir.file("dangling.bam"));

    expect_done(run_tool({"convert", in, dir.file("second.bam"), "--index"}));
    expect_done(run_tool({"convert", in, dir.file("dangling.bam")}));

    for (char const* const link : {"link.bam", "second.bam", "dangling.bam"}) {
        EXPECT_TRUE(std::filesystem::is_symlink(dir.file(link))) << link;
    }
    EXPECT_EQ(payload_of(dir.file("store/real.bam")),
              expected_payload(sorted_lines(), "\tSO:coordinate"));
    EXPECT_EQ(payload_of(dir.file("store/new.bam")), expected_payload(LINES, "\tSO:unknown"));
    // The index stands beside the name that was given.
    EXPECT_EQ(parse_bai(read_file(dir.file("second.bam.bai"))).n_no_coor, 1U);
    EXPECT_EQ(names_in(dir.path()), (Names{"dangling.bam", "in.sam", "link.bam", "second.bam",
                                           "second.bam.bai", "store"}));
    EXPECT_EQ(names_in(dir.file("store")), (Names{"new.bam", "real.bam"}));
}

TEST(Tool, Convert_RelativePaths_Work) {
    TempDir const dir;
    dir.write("in.sam", sample_sam());
    std::filesystem::create_directory(dir.file("store"));
    std::filesystem::create_symlink("store/real.bam", dir.file("link.bam"));
    expect_done(
        run_shell("cd \"$1\" && \"$0\" convert in.sam out.bam --index && "
                  "\"$0\" convert ./in.sam link.bam --index",
                  {dir.path().string()}));
    EXPECT_EQ(names_in(dir.path()),
              (Names{"in.sam", "link.bam", "link.bam.bai", "out.bam", "out.bam.bai", "store"}));
    EXPECT_EQ(read_file(dir.file("link.bam.bai")), read_file(dir.file("out.bam.bai")));
}

TEST(Tool, Convert_NewFile_HasPermissionsOfTheUmask) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    expect_done(run_shell("umask 027; exec \"$0\" convert \"$1\" \"$2\" --index",
                          {in, dir.file("out.bam")}));
    EXPECT_EQ(mode_of(dir.file("out.bam")), 0640U);
    EXPECT_EQ(mode_of(dir.file("out.bam.bai")), 0640U);
    expect_done(
        run_shell("umask 000; exec \"$0\" convert \"$1\" \"$2\"", {in, dir.file("out.sam")}));
    EXPECT_EQ(mode_of(dir.file("out.sam")), 0666U);
}

TEST(Tool, Convert_ReplacedFile_KeepsItsPermissions) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.write("out.bam", "old file");
    std::string const bai = dir.write("out.bam.bai", "old index");
    ::chmod(out.c_str(), 0604);
    ::chmod(bai.c_str(), 0440);
    expect_done(run_tool({"convert", in, out, "--index"}));
    EXPECT_EQ(mode_of(out), 0604U);
    EXPECT_EQ(mode_of(bai), 0440U);
    EXPECT_EQ(payload_of(out), expected_payload(sorted_lines(), "\tSO:coordinate"));
}

TEST(Tool, OutputFile_IndexCannotBeRenamed_OldBamIsBack) {
    for (bool const old_file : {true, false}) {
        SCOPED_TRACE(old_file);
        TempDir const dir;
        std::string const out = dir.file("out.bam");
        if (old_file) dir.write("out.bam", "old file");
        {
            tesk::tool::OutputFile output(out, true);
            write_file(output.write_path(), "new file");
            write_file(output.write_path() + ".bai", "new index");
            std::filesystem::create_directories(dir.file("out.bam.bai/in_the_way"));
            try {
                output.commit();
                FAIL() << "a folder was replaced";
            } catch (tesk::tool::ToolError const& e) {
                EXPECT_EQ(std::string(e.what()), "cannot replace " + out + ".bai: Is a directory");
            }
        }
        EXPECT_EQ(names_in(dir.path()),
                  old_file ? (Names{"out.bam", "out.bam.bai"}) : (Names{"out.bam.bai"}));
        if (old_file) {
            EXPECT_EQ(read_file(out), "old file");
        }
    }
}

TEST(Tool, OutputFile_BamCannotBeRenamed_OldIndexStays) {
    TempDir const dir;
    std::string const out = dir.file("out.bam");
    dir.write("out.bam.bai", "old index");
    {
        tesk::tool::OutputFile output(out, true);
        std::filesystem::create_directories(dir.file("out.bam/in_the_way"));
        try {
            output.commit();
            FAIL() << "a folder was replaced";
        } catch (tesk::tool::ToolError const& e) {
            EXPECT_EQ(std::string(e.what()), "cannot replace " + out + ": it is no file");
        }
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"out.bam", "out.bam.bai"}));
    EXPECT_TRUE(std::filesystem::exists(dir.file("out.bam/in_the_way")));
    EXPECT_EQ(read_file(dir.file("out.bam.bai")), "old index");
}

// --- Notes ---------------------------------------------------------------------

TEST(Tool, Convert_OldIndexBesideNewBam_IsNoted) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.bam");
    std::string const bai = dir.write("out.bam.bai", "old index");
    ProcessResult const result = run_tool({"convert", in, out});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors, "tesk-bam: note: " + bai + " is older than " + out +
                                 " and belongs to another file; --index makes it anew\n");
    EXPECT_EQ(read_file(bai), "old index");
    expect_done(run_tool({"convert", in, out, "--quiet"}));
    expect_done(run_tool({"convert", in, out, "--index"}));
}

TEST(Tool, Convert_ReferencesNotInHeader_LossIsNoted) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", joined(LINES));
    std::string const out = dir.file("out.bam");
    ProcessResult const result = run_tool({"convert", in, out});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors,
              "tesk-bam: note: 3 of 4 records name a reference that the header does "
              "not list; " +
                  out + " has them without one\n");
    expect_done(run_tool({"convert", in, out, "--quiet"}));
    expect_done(run_tool({"convert", in, dir.file("out.sam")}));
}

// --- Signals -------------------------------------------------------------------

// The tool waits for a FIFO to be filled; its temporary files are there by then.
TEST(Tool, Signal_WhileWorking_RemovesTemporaryFilesAndEndsByIt) {
    for (int const number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGALRM, SIGXCPU, SIGUSR1,
                             SIGUSR2, SIGVTALRM, SIGPROF}) {
        for (bool const index : {false, true}) {
            SCOPED_TRACE(std::to_string(number) + (index ? " with index" : ""));
            TempDir const dir;
            std::string const in = make_fifo(dir, "in.sam");
            std::string const out = dir.write("out.bam", "old file");
            std::vector<std::string> arguments = {"convert", in, out};
            if (index) arguments.emplace_back("--index");
            Running tool(arguments);
            std::size_t const n_files = index ? 4 : 3;
            ASSERT_TRUE(eventually([&] { return names_in(dir.path()).size() == n_files; }));
            tool.send(number);
            EXPECT_EQ(tool.wait(), -number);
            EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam"}));
            EXPECT_EQ(read_file(out), "old file");
        }
    }
}

TEST(Tool, Signal_IndexInAnotherFolder_RemovesLinkAndFileThere) {
    TempDir const dir;
    std::filesystem::create_directory(dir.file("store"));
    std::filesystem::create_symlink("store/real.bam", dir.file("link.bam"));
    std::string const in = make_fifo(dir, "in.sam");
    Running tool({"convert", in, dir.file("link.bam"), "--index"});
    ASSERT_TRUE(eventually([&] { return names_in(dir.file("store")).size() == 2; }));
    ASSERT_TRUE(has_temporary(dir.path()));
    tool.send(SIGTERM);
    EXPECT_EQ(tool.wait(), -SIGTERM);
    EXPECT_EQ(names_in(dir.file("store")), Names{});
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "link.bam", "store"}));
}

TEST(Tool, Signal_IgnoredByTheCaller_StaysIgnored) {
    TempDir const dir;
    std::string const in = make_fifo(dir, "in.sam");
    std::string const out = dir.file("out.sam");
    Running tool({"bash", "-c", "trap '' HUP; exec \"$0\" convert \"$1\" \"$2\"", TOOL, in, out},
                 false);
    ASSERT_TRUE(eventually([&] { return has_temporary(dir.path()); }));
    tool.send(SIGHUP);
    write_file(in, sample_sam());
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(read_file(out), sample_sam());
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.sam"}));
}

TEST(Tool, Signal_AtRandomMoments_OldPairOrNewPairAndNothingElse) {
    constexpr int N_RUNS = 40;
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(10000));
    std::string const expected = dir.file("expected.bam");
    expect_done(run_tool({"convert", in, expected, "--index"}));
    std::string const out = dir.file("out.bam");
    std::string const bai = out + ".bai";
    auto const has = [&](std::string const& bam_bytes, std::string const& bai_bytes) {
        return read_file(out) == bam_bytes && read_file(bai) == bai_bytes;
    };
    int n_ended_early = 0;
    interrupt_at_random(
        {"convert", in, out, "--index"}, N_RUNS,
        [&] {
            write_file(out, "old file");
            write_file(bai, "old index");
        },
        [&](int status, int signal_number) {
            bool const old_pair = has("old file", "old index");
            bool const new_pair = has(read_file(expected), read_file(expected + ".bai"));
            EXPECT_TRUE(new_pair || (old_pair && status == -signal_number));
            EXPECT_EQ(names_in(dir.path()), (Names{"expected.bam", "expected.bam.bai", "in.sam",
                                                   "out.bam", "out.bam.bai"}));
            if (old_pair) ++n_ended_early;
        });
    EXPECT_GT(n_ended_early, 0);
}

// --- Progress ------------------------------------------------------------------

TEST(Tool, Progress_OnTerminal_NamesEveryStageAndClearsItsLine) {
    TempDir const dir;
    std::string const in = dir.write("in.bam", sample_bam());
    std::string const text = tool_on_terminal({"convert", in, dir.file("out.bam"), "--index"});
    std::string const end = "\r\x1b[K";
    std::size_t at = 0;
    for (char const* const stage :
         {"\rreading in.bam", "\rpreparing 4 records\x1b[K", "\rsorting 4 records\x1b[K",
          "\rwriting out.bam  0.0 MB\x1b[K", "\rchecking the index\x1b[K"}) {
        at = text.find(stage, at);
        ASSERT_NE(at, std::string::npos) << stage << " in " << text;
    }
    ASSERT_GE(text.size(), end.size());
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(Tool, Progress_OnTerminal_IsGoneBeforeMessageOrResult) {
    TempDir const dir;
    std::string const missing = dir.file("missing.sam");
    EXPECT_EQ(tool_on_terminal({"convert", missing, dir.file("out.bam")}),
              "\rreading missing.sam\x1b[K\r\x1b[Ktesk-bam: Cannot open file " + missing + "\r\n");

    std::string const in = dir.write("in.sam", "@CO\tonly\n");
    std::string const printed = tool_on_terminal({"convert", in, "-"});
    std::string const end = "\r\x1b[K@CO\tonly\r\n";
    ASSERT_GE(printed.size(), end.size());
    EXPECT_EQ(printed.substr(printed.size() - end.size()), end);
}

TEST(Tool, Progress_Quiet_ShowsNothing) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    EXPECT_EQ(tool_on_terminal({"convert", in, dir.file("out.bam"), "--index", "--quiet"}), "");
    std::string const info = tool_on_terminal({"info", in, "--quiet"});
    EXPECT_EQ(info.find('\x1b'), std::string::npos);
    EXPECT_EQ(info.rfind("file ", 0), 0U);
    std::string const bai = dir.write("in.bai", build_bai(0, {}, false));
    EXPECT_EQ(tool_on_terminal({"dump-index", bai, "--quiet"}),
              "n_ref is 0\r\nGot n_no_coor 0\r\n");
}

TEST(Tool, Progress_Reading_TellsPartOfFileThenDecoding) {
    TempDir const dir;
    std::string const file = dir.write("half.bin", std::string(2000000, 'x'));
    std::string const text = printed_on_terminal([&] {
        tesk::tool::Progress progress(true);
        int const fd = ::open(file.c_str(), O_RDONLY);
        ::lseek(fd, 1000000, SEEK_SET);
        progress.reading(file);
        ::close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    });
    std::string const begin =
        "\rreading half.bin  50% (1.0 of 2.0 MB)\x1b[K"
        "\rreading half.bin: decoding its records\x1b[K";
    EXPECT_EQ(text.substr(0, begin.size()), begin);
}

TEST(Tool, Progress_Writing_TellsSizeOfTheFileWritten) {
    TempDir const dir;
    std::string const file = dir.write("temporary", std::string(12300000, 'x'));
    EXPECT_EQ(printed_on_terminal([&] {
                  tesk::tool::Progress progress(true);
                  progress.writing("folder/out.bam", file);
                  progress.finish();
              }),
              "\rwriting out.bam  12.3 MB\x1b[K\r\x1b[K");
}

TEST(Tool, Progress_ExceptionPasses_ThreadIsJoinedAndLineCleared) {
    EXPECT_EQ(printed_on_terminal([] {
                  try {
                      tesk::tool::Progress progress(true);
                      progress.stage("working\non it");
                      throw std::runtime_error("stop");
                  } catch (std::runtime_error const&) {
                  }
              }),
              "\rworking\\non it\x1b[K\r\x1b[K");
}

// --- info ----------------------------------------------------------------------

Json sample_summary(std::string const& file, char const* format) {
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

TEST(Tool, InfoJson_SamAndBam_IsTheWholeSummary) {
    TempDir const dir;
    std::string const sam = dir.write("in.sam", sample_sam());
    std::string const bam = dir.write("in.bam", sample_bam());
    std::string const odd = dir.write("odd", sample_bam());
    for (bool const quiet : {false, true}) {
        std::vector<std::string> const more =
            quiet ? std::vector<std::string>{"--quiet"} : std::vector<std::string>{};
        auto const summary = [&](std::vector<std::string> arguments) {
            arguments.insert(arguments.begin(), {"info", "--json"});
            arguments.insert(arguments.end(), more.begin(), more.end());
            ProcessResult const result = run_tool(arguments);
            expect_done(result);
            return Json::parse(result.output);
        };
        EXPECT_EQ(summary({sam}), sample_summary(sam, "SAM"));
        EXPECT_EQ(summary({bam}), sample_summary(bam, "BAM"));
        EXPECT_EQ(summary({odd, "--from", "bam"}), sample_summary(odd, "BAM"));
    }
}

TEST(Tool, InfoJson_NothingInFile_HasNullLengthsAndUnknownOrder) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", "");
    ProcessResult const result = run_tool({"info", in, "--json"});
    expect_done(result);
    EXPECT_EQ(Json::parse(result.output), (Json{{"file", in},
                                                {"format", "SAM"},
                                                {"sort_order", "unknown"},
                                                {"records", 0},
                                                {"mapped", 0},
                                                {"unmapped", 0},
                                                {"without_reference", 0},
                                                {"read_length", nullptr},
                                                {"references", Json::array()}}));
}

TEST(Tool, InfoJson_NamesThatAreNoUtf8_IsStillJson) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", "@SQ\tSN:\xFF\"\tLN:1\n");
    ProcessResult const result = run_tool({"info", in, "--json"});
    expect_done(result);
    EXPECT_EQ(Json::parse(result.output)["references"][0]["name"], "\xEF\xBF\xBD\"");
}

struct N50Case {
    char const* label;
    std::vector<std::size_t> lengths;
    int n50;
};

TEST(Tool, InfoJson_ReadLengths_N50HoldsHalfOfAllBases) {
    N50Case const cases[] = {
        {"one read", {7}, 7},
        {"two equal reads", {5, 5}, 5},
        {"longest read is just short of half", {4, 3, 2}, 3},
        {"longest read is just half", {5, 3, 2}, 5},
        {"longest read is more than half", {6, 3, 2}, 6},
        {"many short reads", {1, 1, 1, 1, 1, 1, 3}, 1},
    };
    TempDir const dir;
    for (N50Case const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string text = "none\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\n";
        for (std::size_t const length : c.lengths) {
            text += "r\t4\t*\t0\t0\t*\t*\t0\t0\t" + std::string(length, 'A') + "\t*\n";
        }
        ProcessResult const result = run_tool({"info", dir.write("in.sam", text), "--json"});
        expect_done(result);
        Json const lengths = Json::parse(result.output)["read_length"];
        EXPECT_EQ(lengths["n50"], c.n50);
        EXPECT_EQ(lengths["records_with_sequence"], c.lengths.size());
        EXPECT_EQ(lengths["min"], *std::min_element(c.lengths.begin(), c.lengths.end()));
        EXPECT_EQ(lengths["max"], *std::max_element(c.lengths.begin(), c.lengths.end()));
    }
}

TEST(Tool, Info_SamplePrinted_IsAlignedText) {
    TempDir const dir;
    std::string const in = dir.write("in.bam", sample_bam());
    ProcessResult const result = run_tool({"info", in});
    expect_done(result);
    EXPECT_EQ(result.output,
              "file               " + in + " (BAM)\n" +
                  "sort order         SO:unsorted\n"
                  "read lengths       2 to 6 bases, N50 6 (3 records with a sequence)\n"
                  "references         2\n"
                  "records            4\n"
                  "mapped             2\n"
                  "unmapped           2\n"
                  "without reference  1\n"
                  "\n"
                  "reference  length  records  mapped  unmapped\n"
                  "chr1         1000        2       1         1\n"
                  "chr2          500        1       1         0\n");
}

TEST(Tool, Info_NothingInFile_SaysSo) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", "");
    ProcessResult const result = run_tool({"info", in});
    expect_done(result);
    EXPECT_EQ(result.output, "file               " + in + " (SAM)\n" +
                                 "sort order         unknown\n"
                                 "read lengths       none: no record holds a sequence\n"
                                 "references         0\n"
                                 "records            0\n"
                                 "mapped             0\n"
                                 "unmapped           0\n"
                                 "without reference  0\n");
}

TEST(Tool, Info_ManyReferences_ListsThoseWithRecordsOnly) {
    TempDir const dir;
    for (int const n : {49, 50, 51, 3000}) {
        SCOPED_TRACE(n);
        std::string text;
        for (int i = 1; i <= n; ++i) text += "@SQ\tSN:c" + std::to_string(i) + "\tLN:10\n";
        text += "r\t0\tc2\t1\t0\t1M\t*\t0\t0\tA\tI\n";
        std::string const in = dir.write("in.sam", text);
        ProcessResult const result = run_tool({"info", in});
        expect_done(result);
        auto const n_lines = std::count(result.output.begin(), result.output.end(), '\n');
        std::string const note = std::to_string(n - 1) + " of " + std::to_string(n) +
                                 " references have no records and are not listed; "
                                 "--json lists all\n";
        bool const noted = result.output.find(note) != std::string::npos;
        EXPECT_EQ(noted, n > 50);
        EXPECT_EQ(n_lines, n > 50 ? 8 + 2 + 1 + 2 : 8 + 2 + n);  // summary, table, note

        Json const json = Json::parse(run_tool({"info", in, "--json"}).output);
        EXPECT_EQ(json["references"].size(), static_cast<std::size_t>(n));
    }
}

// --- dump-index ----------------------------------------------------------------

TEST(Tool, DumpIndex_File_IsPrinted) {
    TempDir const dir;
    std::string const bai =
        dir.write("in.bai", build_bai(1, {{0, 100, 20000, 585, 0, 812U << 16, 912U << 16}}, false));
    std::string const expected =
        "n_ref is 1\n"
        "\n"
        "Ref 0 has 2 bins\n"
        "Ref 0 bin 37450 has 2 chunks\n"
        "Magic bin says placed unmapped begin 812,0 end 912,0, num mapped 1, unmapped 0\n"
        "Ref 0 bin 585 has 1 chunks\n"
        "Start is file offset 812 block offset 0\n"
        "End is file offset 912 block offset 0\n"
        "Ref 0 has 1 total real chunks\n"
        "Ref 0 has 2 linear intervals\n"
        "Linear file offset 812 block offset 0 (0 - 16383)\n"
        "Linear file offset 812 block offset 0 (16384 - 32767)\n"
        "Got n_no_coor 0\n";
    for (std::vector<std::string> const& arguments :
         {std::vector<std::string>{"dump-index", bai}, {"dump-index", bai, "--quiet"}}) {
        ProcessResult const result = run_tool(arguments);
        expect_done(result);
        EXPECT_EQ(result.output, expected);
    }
}

TEST(Tool, DumpIndex_FileRefused_IsTheLibrarysMessage) {
    TempDir const dir;
    std::string const missing = dir.file("missing.bai");
    expect_failure(run_tool({"dump-index", missing}), 1, "Cannot open index file " + missing);
    std::string const other = dir.write("other.bai", "BAI\2\0\0\0\0");
    expect_failure(run_tool({"dump-index", other}), 1,
                   "Encountered malformed BAI header in file " + other);
}

// --- The check of written indexes ----------------------------------------------

// Section of a reference: bins of (number, chunks), windows of the linear index.
std::string bai_section(std::vector<std::pair<std::uint32_t, std::int32_t>> const& bins,
                        std::int32_t n_intv) {
    std::string bytes = le_bytes(static_cast<std::int32_t>(bins.size()));
    for (auto const& [bin, n_chunk] : bins) {
        bytes += le_bytes(bin) + le_bytes(n_chunk) +
                 std::string(16 * static_cast<std::size_t>(n_chunk), '\1');
    }
    return bytes + le_bytes(n_intv) + std::string(8 * static_cast<std::size_t>(n_intv), '\2');
}

std::string const BAI_MAGIC("BAI\1", 4);
std::string const N_NO_COOR(8, '\0');

// Message of the check, empty where it passes.
std::string check(std::string const& bytes, std::size_t n_references) {
    TempDir const dir;
    try {
        tesk::tool::check_index(dir.write("in.bai", bytes), n_references);
        return "";
    } catch (tesk::tool::ToolError const& e) {
        return e.what();
    }
}

std::string sound_bai() {
    return BAI_MAGIC + le_bytes<std::int32_t>(3) + bai_section({{37450, 2}, {4681, 3}, {0, 1}}, 2) +
           bai_section({}, 0) + bai_section({{37450, 2}, {9, 1}}, 1) + N_NO_COOR;
}

TEST(IndexCheck, SoundIndex_OfAnySize_Passes) {
    EXPECT_EQ(check(sound_bai(), 3), "");
    EXPECT_EQ(check(BAI_MAGIC + le_bytes<std::int32_t>(0) + N_NO_COOR, 0), "");
    EXPECT_EQ(check(build_bai(2, {{1, 5, 1, 4681, 0, 1U << 16, 2U << 16}}, true), 2), "");
}

TEST(IndexCheck, SoundIndex_CutAtAnyLengthOrExtended_Fails) {
    std::string const bai = sound_bai();
    for (std::size_t n = 0; n < bai.size(); ++n) {
        EXPECT_EQ(check(bai.substr(0, n), 3).rfind("the index is damaged: ", 0), 0U) << n;
    }
    EXPECT_EQ(check(bai + '\0', 3), "the index is damaged: 1 bytes follow its end");
}

struct DamageCase {
    char const* label;
    std::string bytes;
    char const* fault;
};

TEST(IndexCheck, DamagedIndex_OfEveryKind_FirstFaultIsNamed) {
    std::string const head = BAI_MAGIC + le_bytes<std::int32_t>(1);
    DamageCase const cases[] = {
        {"empty", "", "it ends inside its magic bytes"},
        {"other magic", "BAI\2" + N_NO_COOR, "it does not begin with BAI"},
        {"too many references", BAI_MAGIC + le_bytes<std::int32_t>(2) + N_NO_COOR,
         "n_ref is 2 instead of 1"},
        {"no reference", BAI_MAGIC + le_bytes<std::int32_t>(0) + N_NO_COOR,
         "n_ref is 0 instead of 1"},
        {"n_bin beyond the file", head + le_bytes<std::int32_t>(3) + std::string(23, '\0'),
         "n_bin of reference 0 is 3, 23 bytes follow"},
        {"negative n_bin", head + le_bytes<std::int32_t>(-1) + std::string(100, '\0'),
         "n_bin of reference 0 is 4294967295, 100 bytes follow"},
        {"n_chunk beyond the file",
         head + le_bytes<std::int32_t>(1) + le_bytes<std::int32_t>(7) + le_bytes<std::int32_t>(2) +
             std::string(31, '\0'),
         "n_chunk of bin 7 of reference 0 is 2, 31 bytes follow"},
        {"pseudo-bin of one chunk", head + bai_section({{37450, 1}}, 0) + N_NO_COOR,
         "n_chunk of bin 37450 of reference 0 is 1 instead of 2"},
        {"n_intv beyond the file",
         head + le_bytes<std::int32_t>(0) + le_bytes<std::int32_t>(2) + std::string(15, '\0'),
         "n_intv of reference 0 is 2, 15 bytes follow"},
        {"no n_no_coor", head + bai_section({}, 0), "it ends inside n_no_coor"},
    };
    for (DamageCase const& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(check(c.bytes, 1), std::string("the index is damaged: ") + c.fault);
    }
}

TEST(IndexCheck, NoFile_IsAnError) {
    try {
        tesk::tool::check_index("/nowhere/in.bai", 0);
        FAIL() << "a missing file passed";
    } catch (tesk::tool::ToolError const& e) {
        EXPECT_STREQ(e.what(), "the index cannot be read: /nowhere/in.bai");
    }
}

}  // namespace

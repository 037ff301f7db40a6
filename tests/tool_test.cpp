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
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/bam_encoder.h"
#include "tests/support/index_builder.h"
#include "tests/support/process.h"
#include "tests/support/temp_file.h"
#include "tests/support/tool_runner.h"
#include "tests/support/tool_samples.h"
#include "tools/convert.h"
#include "tools/index_check.h"
#include "tools/message.h"
#include "tools/output_file.h"
#include "tools/progress.h"
#include "tools/suggestion.h"
#include "tools/tool_error.h"

namespace {

using namespace tesk::test;
using Json = nlohmann::json;

mode_t mode_of(std::string const& path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) throw std::runtime_error("cannot stat " + path);
    return status.st_mode & 0777;
}

struct FaultCase {
    char const* label;
    std::string bytes;
    std::string message;  // after the file's name
};

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
        {"view",
         {"view", "--help"},
         "Print records, all or those that overlap a region, as SAM\n"
         "Usage: tesk-bam view [OPTIONS] FILE [REGION...]\n",
         "  tesk-bam view reads.bam chr1:1-50,000 --count\n"},
        {"validate",
         {"validate", "--help"},
         "Read a SAM or BAM file and tell all that is wrong with it\n"
         "Usage: tesk-bam validate [OPTIONS] FILE\n",
         "  tesk-bam validate reads.bam\n"},
        {"completion",
         {"completion", "--help"},
         "Print a script that completes command lines in bash\n"
         "Usage: tesk-bam completion [OPTIONS]\n",
         "  source <(tesk-bam completion)\n"},
        {"report",
         {"report", "--help"},
         "Write an HTML page about a SAM or BAM file: lengths, qualities, coverage\n"
         "Usage: tesk-bam report [OPTIONS] FILE OUT\n",
         "  tesk-bam report reads.bam reads.html\n"},
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
        "for command in '' convert dump-index report info; do\n"
        "    eval \"$(tesk-bam $command --help | tail -n 1)\" >output || exit\n"
        "done; cat output",
        {dir.path().string()});
    expect_done(result);
    EXPECT_EQ(result.output, "  \"mapped\": 2,\n");
    EXPECT_EQ(names_in(dir.path()),
              (Names{"output", "reads.bam", "reads.bam.bai", "reads.html", "reads.sam"}));
}

struct CompletionCase {
    char const* line;  // up to the cursor
    char const* completed;
};

TEST(Tool, Completion_InBash_KnowsCommandsOptionsValuesAndFiles) {
    constexpr CompletionCase CASES[] = {
        {"tesk-bam c", "completion|convert"},
        {"tesk-bam dump", "dump-index"},
        {"tesk-bam --v", "--version"},
        {"tesk-bam frob", ""},
        {"tesk-bam convert --in", "--index"},
        {"tesk-bam convert --t", "--threads|--tmp|--to"},
        {"tesk-bam view --co", "--count"},
        {"tesk-bam view --in", ""},
        {"tesk-bam convert --to ", "bam|sam"},
        {"tesk-bam convert --from b", "bam"},
        {"tesk-bam convert --level ", ""},
        {"tesk-bam convert --tmp ", "a folder"},
        {"tesk-bam convert r", "reads.bam|reads.sam"},
        {"tesk-bam convert --index reads.s", "reads.sam"},
        {"tesk-bam convert a", "a folder"},
        {"tesk-bam no-command x", ""},
    };
    TempDir const dir;
    dir.write("reads.sam", "");
    dir.write("reads.bam", "");
    std::filesystem::create_directory(dir.file("a folder"));
    for (CompletionCase const& c : CASES) {
        SCOPED_TRACE(c.line);
        // What the shell does when the key is pressed; compopt works there alone.
        ProcessResult const result = run_shell(
            "cd \"$1\" || exit; source <(\"$0\" completion) || exit; compopt() { :; }\n"
            "read -ra COMP_WORDS <<<\"$2\"; [[ $2 == *' ' ]] && COMP_WORDS+=('')\n"
            "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tesk_bam\n"
            "printf '%s\\n' \"${COMPREPLY[@]}\" | sort | paste -sd '|'",
            {dir.path().string(), c.line});
        expect_done(result);
        EXPECT_EQ(result.output, std::string(c.completed) + "\n");
    }
}

TEST(Tool, Version_OfToolOrCommand_IsNameAndNumber) {
    for (std::string const command : {"", "convert", "view", "validate", "report", "import",
                                      "annotate", "info", "dump-index", "completion"}) {
        SCOPED_TRACE(command);
        std::vector<std::string> arguments = {"--version"};
        if (!command.empty()) arguments.insert(arguments.begin(), command);
        ProcessResult const result = run_tool(arguments);
        expect_done(result);
        EXPECT_EQ(result.output, "tesk-bam " TESK_BAM_VERSION "\n");
    }
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
        {"misspelt kind",
         {"convert", "a", "b", "--to", "bamm"},
         "--to: bamm not in {sam,bam}: did you mean bam?"},
        {"misspelt command",
         {"convret", "a.sam", "b.bam"},
         "unknown command convret: did you mean convert?"},
        {"beginning of a command", {"val", "a.sam"}, "unknown command val: did you mean validate?"},
        {"no command at all like it", {"frobnicate"}, "unknown command frobnicate"},
        {"misspelt option",
         {"convert", "a.sam", "b.bam", "--treads=2"},
         "The following argument was not expected: --treads=2: did you mean --threads?"},
        {"option of another command",
         {"info", "a.sam", "--sort"},
         "The following argument was not expected: --sort"},
        {"level too low",
         {"convert", "a.sam", "b.bam", "--level", "-1"},
         "--level: Value -1 not in range 0 to 12"},
        {"level too high",
         {"convert", "a.sam", "b.bam", "--level", "13"},
         "--level: Value 13 not in range 0 to 12"},
        {"no thread",
         {"convert", "a.sam", "b.bam", "--threads", "0"},
         "--threads: Value 0 not in range 1 to 1024"},
        {"unknown kind of output",
         {"convert", "a.sam", "b", "--to", "txt"},
         "--to: txt not in {sam,bam}"},
    };
    for (WrongUseCase const& c : parsed) {
        SCOPED_TRACE(c.label);
        expect_failure(run_tool(c.arguments), 2, std::string(c.message) + HINT);
    }
    WrongUseCase const refused[] = {
        {"output of unclear kind",
         {"convert", "a.sam", "b"},
         "cannot tell from its name whether b is SAM or BAM: say --to sam or --to bam"},
        {"dump of standard input",
         {"dump-index", "-"},
         "standard input cannot be read: name a file"},
        {"index with SAM",
         {"convert", "a.sam", "b.sam", "--index"},
         "--index goes with BAM output only"},
        {"index with standard output",
         {"convert", "a.sam", "-", "--index"},
         "--index goes with BAM output only"},
        {"index with BAM on standard output",
         {"convert", "a.sam", "-", "--index", "--to", "bam"},
         "--index needs a file to stand beside, not standard output"},
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
    EXPECT_EQ(payload_of(out), bam_payload(HEADER, LINES));
    EXPECT_EQ(run_process({"gzip", "-t", "--suffix", ".bam", out}).exit_status, 0);
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam"}));
}

TEST(Tool, Convert_SortToBam_RecordsAreInCoordinateOrder) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", in, out, "--sort"}));
    EXPECT_EQ(payload_of(out), bam_payload(sorted_header(), sorted_lines()));
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam"}));
}

TEST(Tool, Convert_IndexToBam_SortsAndWritesIndexBesideIt) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", in, out, "--index"}));
    EXPECT_EQ(payload_of(out), bam_payload(sorted_header(), sorted_lines()));
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam", "out.bam.bai"}));

    // Everything fits one block, so that offsets are places in the payload: the
    // first two records are on chr1, the third on chr2, the last nowhere.
    ASSERT_EQ(parse_bgzf(read_file(out)).size(), 2U);
    std::vector<std::uint64_t> places;
    std::vector<std::string> const lines = sorted_lines();
    for (std::size_t n = 0; n <= lines.size(); ++n) {
        std::vector<std::string> const first(lines.begin(),
                                             lines.begin() + static_cast<std::ptrdiff_t>(n));
        places.push_back(bam_payload(sorted_header(), first).size());
    }
    ParsedBai const bai = parse_bai(read_file(out + ".bai"));
    EXPECT_EQ(bai.n_no_coor, 1U);
    ASSERT_EQ(bai.references.size(), 2U);
    using Chunks = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
    Chunks const expected[] = {{{places[0], places[2]}}, {{places[2], places[3]}}};
    for (std::size_t r = 0; r < 2; ++r) {
        SCOPED_TRACE(r);
        std::vector<ParsedBai::Bin> const& bins = bai.references[r].bins;
        auto const bin = std::find_if(bins.begin(), bins.end(),
                                      [](ParsedBai::Bin const& b) { return b.bin == 4681; });
        ASSERT_NE(bin, bins.end());
        EXPECT_EQ(bin->chunks, expected[r]);
        EXPECT_EQ(bai.references[r].ioffsets, std::vector<std::uint64_t>{expected[r][0].first});
    }
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
        EXPECT_EQ(payload_of(out), bam_payload(sorted_header(), sorted_lines()));
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
    std::string const expected = sorted_header() + joined(sorted_lines());
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
    EXPECT_EQ(payload_of(bam), bam_payload(HEADER, LINES));
    std::string const back = dir.file("back.bam");
    expect_done(run_tool({"convert", bam, back, "--from", "bam", "--to", "sam"}));
    EXPECT_EQ(read_file(back), sample_sam());
}

TEST(Tool, Convert_EndingsInAnyCase_TellTheKind) {
    TempDir const dir;
    std::string const in = dir.write("in.SAM", sample_sam());
    std::string const out = dir.file("out.Bam");
    expect_done(run_tool({"convert", in, out}));
    EXPECT_EQ(payload_of(out), bam_payload(HEADER, LINES));
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
    EXPECT_EQ(payload_of(out), bam_payload(HEADER, LINES));
    expect_done(run_tool({"convert", in, out, "--index"}));
    EXPECT_EQ(payload_of(out), bam_payload(sorted_header(), sorted_lines()));
    EXPECT_EQ(parse_bai(read_file(out + ".bai")).references.size(), 2U);
}

// s and S become i or I; all else stays as it is.
TEST(Tool, Convert_BamToBam_IntegersOfEveryWidthSurvive) {
    RawBamRecord record;
    record.aux = bam_aux("Xc", 'c', le_bytes<std::int8_t>(-128)) +
                 bam_aux("XC", 'C', le_bytes<std::uint8_t>(255)) +
                 bam_aux("Xs", 's', le_bytes<std::int16_t>(-32768)) +
                 bam_aux("XS", 'S', le_bytes<std::uint16_t>(65535)) +
                 bam_aux("Xi", 'i', le_bytes<std::int32_t>(-2147483647 - 1)) +
                 bam_aux("XI", 'I', le_bytes<std::uint32_t>(4294967295U));
    TempDir const dir;
    std::string const in =
        dir.write("in.bam", bam_file(encode_bam_header(HEADER, REFERENCES) + record.bytes()));
    ProcessResult const printed = run_tool({"convert", in, "-", "--quiet"});
    expect_done(printed);
    EXPECT_EQ(printed.output, std::string(HEADER) +
                                  "r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tXc:i:-128\tXC:i:255\t"
                                  "Xs:i:-32768\tXS:i:65535\tXi:i:-2147483648\tXI:i:4294967295\n");
    ProcessResult const result = run_tool({"convert", in, dir.file("out.bam")});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors, "tesk-bam: note: " + in +
                                 ": repaired: an optional field of type s or S: widened to type i "
                                 "or I (2 times, first in record 1)\n");
}

TEST(Tool, Convert_BamWithoutSqLines_MakesThemFromItsList) {
    TempDir const dir;
    std::string const text = "@HD\tVN:1.6\tSO:unsorted\n@RG\tID:g\n";
    std::string const in = dir.write("in.bam", bam_file(encode_bam_header(text, REFERENCES) +
                                                        encoded_records(LINES, REFERENCES)));
    std::string const made = "@RG\tID:g\n@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n";

    ProcessResult const printed = run_tool({"convert", in, "-", "--quiet"});
    expect_done(printed);
    EXPECT_EQ(printed.output, "@HD\tVN:1.6\tSO:unsorted\n" + made + joined(LINES));

    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", in, out, "--sort", "--quiet"}));
    EXPECT_EQ(payload_of(out),
              encode_bam_header("@HD\tVN:1.6\tSO:coordinate\n" + made, REFERENCES) +
                  encoded_records(sorted_lines(), REFERENCES));

    // No header text at all.
    std::string const bare = dir.write("bare.bam", bam_file(encode_bam_header("", REFERENCES)));
    ProcessResult const bare_printed = run_tool({"convert", bare, "-"});
    EXPECT_EQ(bare_printed.exit_status, 0);
    EXPECT_EQ(bare_printed.errors, "tesk-bam: note: " + bare +
                                       ": repaired: the header text has no @SQ "
                                       "lines: made from the binary reference list\n");
    EXPECT_EQ(bare_printed.output, "@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n");
}

TEST(Tool, Convert_HeaderTextAndReferenceListDiffer_FirstDifferenceIsNamed) {
    TempDir const dir;
    for (ListCase const& c : LIST_CASES) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in.bam", bam_file(encode_bam_header(c.text, c.list)));
        std::string const message =
            in + ": the header text and the reference list differ at reference " + c.difference;
        expect_failure(run_tool({"convert", in, dir.file("out.bam")}), 1, message);
        expect_failure(run_tool({"convert", in, "-"}), 1, message);
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.bam"}));
}

// --- Input of every kind ---------------------------------------------------------

struct InputCase {
    char const* label;
    std::string bytes;
};

std::vector<InputCase> inputs_of_every_kind() {
    return {{"SAM", sample_sam()},
            {"gzip SAM", gzip_member(sample_sam())},
            {"gzip SAM of two members",
             gzip_member(sample_sam().substr(0, 70)) + gzip_member(sample_sam().substr(70))},
            {"SAM in blocks", bgzf_blocks(sample_sam(), 50) + bgzf_eof_block()},
            {"BAM", sample_bam()},
            {"BAM of small blocks", bgzf_blocks(bam_payload(HEADER, LINES), 7) + bgzf_eof_block()},
            {"BAM as one gzip member", gzip_member(bam_payload(HEADER, LINES))}};
}

TEST(Tool, Convert_InputOfEveryKind_IsToldByItsContent) {
    TempDir const dir;
    for (InputCase const& c : inputs_of_every_kind()) {
        for (char const* const name : {"in", "in.sam", "in.bam"}) {
            SCOPED_TRACE(std::string(c.label) + " as " + name);
            std::string const in = dir.write(name, c.bytes);
            expect_done(run_tool({"convert", in, dir.file("out.sam")}));
            EXPECT_EQ(read_file(dir.file("out.sam")), sample_sam());
            expect_done(run_tool({"convert", in, dir.file("out.bam")}));
            EXPECT_EQ(payload_of(dir.file("out.bam")), bam_payload(HEADER, LINES));
        }
    }
}

TEST(Tool, Convert_Pipes_BothWays_GiveTheSame) {
    TempDir const dir;
    for (InputCase const& c : inputs_of_every_kind()) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in", c.bytes);
        ProcessResult const text = run_shell("cat \"$1\" | \"$0\" convert - -", {in});
        expect_done(text);
        EXPECT_EQ(text.output, sample_sam());
        ProcessResult const packed = run_shell("cat \"$1\" | \"$0\" convert - - --to bam", {in});
        expect_done(packed);
        EXPECT_EQ(inflate_bgzf(packed.output), bam_payload(HEADER, LINES));
        ProcessResult const sorted = run_shell("\"$0\" convert - - --to bam --sort < \"$1\"", {in});
        expect_done(sorted);
        EXPECT_EQ(inflate_bgzf(sorted.output), bam_payload(sorted_header(), sorted_lines()));
    }
    EXPECT_EQ(names_in(dir.path()), Names{"in"});
}

TEST(Tool, Convert_ContentIsNotAsFromSays_IsRefused) {
    TempDir const dir;
    std::string const sam = dir.write("sam", sample_sam());
    std::string const bam = dir.write("bam", sample_bam());
    for (std::vector<std::string> const& command :
         {std::vector<std::string>{"convert", "-", "out.sam"}, {"info"}}) {
        SCOPED_TRACE(command[0]);
        auto const run = [&](std::string const& in, char const* from) {
            std::vector<std::string> arguments = {command[0], in, "--from", from};
            if (command.size() > 1) arguments.push_back(dir.file("out.sam"));
            return run_tool(arguments);
        };
        expect_failure(run(sam, "bam"), 1, sam + " is SAM, not BAM as --from says");
        expect_failure(run(bam, "sam"), 1, bam + " is BAM, not SAM as --from says");
        EXPECT_EQ(run(sam, "sam").exit_status, 0);
        EXPECT_EQ(run(bam, "bam").exit_status, 0);
    }
}

TEST(Tool, Convert_InputRefused_IsOneLineNamingThePlace) {
    TempDir const dir;
    std::string const out = dir.write("out.bam", "old file");
    std::string const quals = sample_sam() + "r5\t4\t*\t0\t0\t*\t*\t0\t0\tACGT\tIII\n";
    std::string const record = sample_bam();
    FaultCase const cases[] = {
        {"qualities", quals, ": line 9, column QUAL: 3 qualities for 4 bases"},
        {"header line", "@SQ\tSN:c\n", ": line 1: "},
        {"other data", std::string("\0\1\2", 3), ": line 1: neither SAM nor BAM data"},
        {"cut BAM", sample_bam().substr(0, sample_bam().size() - 28),
         ": the block that marks the end of a BGZF file is missing: the file may have been cut "
         "short"},
    };
    for (FaultCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in", c.bytes);
        for (char const* const option : {"--quiet", "--sort"}) {
            ProcessResult const result = run_tool({"convert", in, out, option});
            EXPECT_EQ(result.exit_status, 1);
            EXPECT_EQ(result.errors.rfind("tesk-bam: " + in + c.message, 0), 0U) << result.errors;
            EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1);
        }
    }
    EXPECT_EQ(read_file(out), "old file");
    EXPECT_EQ(names_in(dir.path()), (Names{"in", "out.bam"}));
}

TEST(Tool, Convert_MissingEofBlockAllowed_IsAWarning) {
    TempDir const dir;
    std::string const in = dir.write("in", bgzf_blocks(bam_payload(HEADER, LINES)));
    std::string const out = dir.file("out.sam");
    std::string const note =
        "tesk-bam: note: " + in +
        ": warning: the end-of-file block is missing: the file may have been cut\n";
    for (std::vector<std::string> const& command :
         std::vector<std::vector<std::string>>{{"convert", in, out}, {"info", in}, {"view", in}}) {
        SCOPED_TRACE(command[0]);
        EXPECT_EQ(run_tool(command).exit_status, 1);
        std::vector<std::string> arguments = command;
        arguments.emplace_back("--allow-missing-eof");
        ProcessResult const result = run_tool(arguments);
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.errors, note);
    }
    EXPECT_EQ(read_file(out), sample_sam());
}

// --- Repairs -----------------------------------------------------------------------

TEST(Tool, Convert_SamToSam_KeepsLinesButForRepairs) {
    TempDir const dir;
    std::string const columns = "\t4\t*\t0\t0\t*\t*\t0\t0\t";
    std::string const header = "@HD\tVN:1.6\n@RG\tID:g\n";
    std::string const kept = "a" + columns + "ACGT\tIIII\tXF:f:1.50\tXE:f:1e3\tXI:i:007\n";
    std::string const in = dir.write("in.sam", header + kept + "b" + columns + "acGT\tIIII\n" +
                                                   kept + "c" + columns + "AcGT\tIIII\tXA:A:x\t\n");
    ProcessResult const result = run_tool({"convert", in, "-"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.output, header + kept + "b" + columns + "ACGT\tIIII\n" + kept + "c" + columns +
                                 "ACGT\tIIII\tXA:A:x\n");
    std::string const note = "tesk-bam: note: " + in + ": repaired: ";
    EXPECT_EQ(result.errors,
              note + "a tab follows the last field of a line: dropped (once, in line 6)\n" + note +
                  "SEQ has lower-case bases: changed to upper case (2 times, first in line 4)\n");
    expect_done(run_tool({"convert", in, dir.file("out.bam"), "--quiet"}));
}

TEST(Tool, Convert_FaultBehindRepairs_NotesComeBeforeTheError) {
    TempDir const dir;
    std::string const columns = "\t4\t*\t0\t0\t*\t*\t0\t0\t";
    std::string const in =
        dir.write("in.sam", "a" + columns + "acgt\tIIII\nb" + columns + "AC\tI\n");
    std::string const error =
        "tesk-bam: " + in + ": line 2, column QUAL: 1 qualities for 2 bases\n";
    ProcessResult const result = run_tool({"convert", in, dir.file("out.bam")});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.errors, "tesk-bam: note: " + in +
                                 ": repaired: SEQ has lower-case bases: changed to upper case "
                                 "(once, in line 1)\n" +
                                 error);
    EXPECT_EQ(run_tool({"convert", in, dir.file("out.bam"), "--quiet"}).errors, error);
    EXPECT_EQ(names_in(dir.path()), Names{"in.sam"});
}

// --- Packing -----------------------------------------------------------------------

TEST(Tool, Convert_LargeBam_HasFullBlocks) {
    TempDir const dir;
    std::string const sam = large_sam(2000);
    std::string const out = dir.file("out.bam");
    expect_done(run_tool({"convert", dir.write("in.sam", sam), out}));
    std::vector<BgzfBlock> const blocks = parse_bgzf(read_file(out));
    ASSERT_GT(blocks.size(), 3U);
    for (std::size_t i = 0; i + 2 < blocks.size(); ++i) {
        EXPECT_EQ(blocks[i].payload.size(), 65280U) << i;
    }
    EXPECT_EQ(blocks.back().payload, "");
    SamText const text = split_sam(sam);
    EXPECT_EQ(payload_of(out), bam_payload(text.header, text.alignments));
}

TEST(Tool, Convert_ThreadsOfAnyNumber_GiveTheSameBytes) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(5000));
    std::string const out = dir.file("out.bam");
    for (std::vector<std::string> const& options :
         {std::vector<std::string>{}, {"--index"}, {"--level", "1"}}) {
        std::vector<std::string> files;
        for (char const* const threads : {"1", "2", "8"}) {
            std::vector<std::string> arguments = {"convert", in, out, "--threads", threads};
            arguments.insert(arguments.end(), options.begin(), options.end());
            expect_done(run_tool(arguments));
            bool const index = !options.empty() && options[0] == "--index";
            files.push_back(read_file(out) + (index ? read_file(out + ".bai") : ""));
        }
        EXPECT_EQ(files[0], files[1]);
        EXPECT_EQ(files[0], files[2]);
        std::filesystem::remove(out + ".bai");
    }
}

TEST(Tool, Convert_LevelOfEveryNumber_PacksTheSamePayload) {
    TempDir const dir;
    std::string const sam = large_sam(1000);
    SamText const text = split_sam(sam);
    std::string const expected = bam_payload(text.header, text.alignments);
    std::string const in = dir.write("in.sam", sam);
    std::string const out = dir.file("out.bam");
    std::vector<std::size_t> sizes;
    for (int level = 0; level <= 12; ++level) {
        SCOPED_TRACE(level);
        expect_done(run_tool({"convert", in, out, "--level", std::to_string(level)}));
        EXPECT_EQ(payload_of(out), expected);
        sizes.push_back(read_file(out).size());
    }
    EXPECT_GT(sizes[0], expected.size());  // stored
    EXPECT_LT(sizes[1], expected.size());
    EXPECT_LT(sizes[12], sizes[1]);
    expect_done(run_tool({"convert", in, out}));
    EXPECT_EQ(read_file(out).size(), sizes[6]);
}

// --- Sorting -----------------------------------------------------------------------

// POS of a SAM line.
long position_of(std::string const& line) {
    std::size_t at = 0;
    for (int i = 0; i < 3; ++i) at = line.find('\t', at) + 1;
    return std::stol(line.substr(at));
}

TEST(Tool, Convert_SortOfEqualPositions_KeepsTheirOrder) {
    TempDir const dir;
    std::string const sam = large_sam(3000, 60, 100);
    SamText text = split_sam(sam);
    std::stable_sort(
        text.alignments.begin(), text.alignments.end(),
        [](std::string const& a, std::string const& b) { return position_of(a) < position_of(b); });
    std::string const header = "@HD\tVN:1.6\tSO:coordinate\n" + text.header;
    std::string const in = dir.write("in.sam", sam);
    expect_done(run_tool({"convert", in, dir.file("out.bam"), "--sort"}));
    EXPECT_EQ(payload_of(dir.file("out.bam")), bam_payload(header, text.alignments));
    expect_done(run_tool({"convert", in, dir.file("out.sam"), "--sort"}));
    EXPECT_EQ(read_file(dir.file("out.sam")), header + joined(text.alignments));
}

TEST(Tool, Convert_SortWithLittleMemory_IsTheSortInMemoryByteForByte) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(20000, 1000, 5000));
    std::filesystem::create_directory(dir.file("tmp"));
    std::string const expected = dir.file("expected.bam");
    expect_done(run_tool({"convert", in, expected, "--index", "--level", "1", "--memory", "1G"}));

    std::string const out = dir.file("out.bam");
    std::string const text = tool_on_terminal({"convert", in, out, "--index", "--level", "1",
                                               "--memory", "1M", "--tmp", dir.file("tmp")});
    std::size_t const at = text.find("\rmerging 20000 records in ");
    ASSERT_NE(at, std::string::npos) << text;
    EXPECT_GE(std::stoi(text.substr(at + 26)), 20);
    EXPECT_EQ(read_file(out), read_file(expected));
    EXPECT_EQ(read_file(out + ".bai"), read_file(expected + ".bai"));
    EXPECT_EQ(names_in(dir.file("tmp")), Names{});
}

TEST(Tool, SorterBytes_OfAnyMemory_LeaveRoomForTheRest) {
    using tesk::tool::sorter_bytes;
    constexpr std::uint64_t MIB = std::uint64_t{1} << 20;
    EXPECT_EQ(sorter_bytes(0, 1), MIB);
    EXPECT_EQ(sorter_bytes(36 * MIB, 1), MIB);
    EXPECT_EQ(sorter_bytes(37 * MIB, 1), MIB);
    EXPECT_EQ(sorter_bytes(37 * MIB + 1, 1), MIB + 1);
    EXPECT_EQ(sorter_bytes(1000 * MIB, 1), 964 * MIB);
    EXPECT_EQ(sorter_bytes(1000 * MIB, 8), 880 * MIB);
    EXPECT_EQ(sorter_bytes(1000 * MIB, 1024), MIB);
}

struct SizeCase {
    char const* text;
    bool good;
};

TEST(Tool, Memory_OfEverySpelling_IsTakenOrRefused) {
    constexpr SizeCase CASES[] = {
        {"0", true},
        {"1", true},
        {"64k", true},
        {"500M", true},
        {"2G", true},
        {"1t", true},
        {"", false},
        {"-1", false},
        {"G", false},
        {"5X", false},
        {"5MB", false},
        {"1.5G", false},
        {" 1G", false},
        {"18446744073709551615", true},
        {"18446744073709551616", false},
        {"16777215T", true},
        {"16777216T", false},
    };
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    for (SizeCase const& c : CASES) {
        SCOPED_TRACE(c.text);
        ProcessResult const result = run_tool(
            {"convert", in, dir.file("out.sam"), "--sort", std::string("--memory=") + c.text});
        EXPECT_EQ(result.exit_status, c.good ? 0 : 2) << result.errors;
    }
    expect_failure(run_tool({"convert", in, "x.sam", "--memory", "5X"}), 2,
                   "--memory: 5X is no size such as 500M or 4G\n"
                   "tesk-bam: run with --help to see what is possible");
}

TEST(Tool, Convert_TemporaryFolderAtFault_IsErrorAndOldFileStays) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(2000, 1000));
    std::string const out = dir.write("out.bam", "old file");
    std::string const missing = dir.file("missing");
    std::string const message = "cannot write a temporary file in ";
    expect_failure(run_tool({"convert", in, out, "--sort", "--tmp", missing}), 1,
                   message + missing + ": No such file or directory");
    expect_failure(run_tool({"convert", in, out, "--sort", "--tmp", in}), 1,
                   message + in + ": Not a directory");
    // A full disk: the sorted runs do not fit.
    ProcessResult const result =
        run_shell("ulimit -f 100; exec \"$0\" convert \"$1\" \"$2\" --sort --memory 1M", {in, out});
    expect_failure(result, 1, message + dir.path().string() + "/: File too large");
    EXPECT_EQ(read_file(out), "old file");
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam"}));
}

TEST(Tool, Convert_SortToStandardOutput_SpillsToTmpdir) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(2000, 1000));
    ProcessResult const result =
        run_shell("TMPDIR=\"$2\" exec \"$0\" convert \"$1\" - --sort", {in, dir.file("missing")});
    expect_failure(
        result, 1,
        "cannot write a temporary file in " + dir.file("missing") + ": No such file or directory");
}

struct LimitCase {
    char const* label;
    std::string text;
    std::string message;  // after the output's name; empty: no error
};

TEST(Tool, Convert_BeyondTheReachOfAnIndex_IsErrorBeforeAnythingIsWritten) {
    std::string const limit = "; a BAI index cannot hold positions beyond 536870912";
    auto const file = [](std::string const& length, std::string const& pos) {
        return "@SQ\tSN:c\tLN:" + length + "\nr1\t0\tc\t" + pos + "\t0\t2M\t*\t0\t0\tAC\tII\n";
    };
    LimitCase const cases[] = {
        {"at the limit", file("536870912", "536870911"), ""},
        {"long reference", file("536870913", "1"), ": reference c has 536870913 bases" + limit},
        {"far record", file("1000", "536870912"), ": record r1 ends at 536870913" + limit},
    };
    TempDir const dir;
    for (LimitCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in.sam", c.text);
        std::string const out = dir.write("out.bam", "old file");
        std::string const bai = dir.write("out.bam.bai", "old index");
        ProcessResult const result = run_tool({"convert", in, out, "--index", "--quiet"});
        if (c.message.empty()) {
            expect_done(result);
            continue;
        }
        expect_failure(result, 1, out + c.message);
        EXPECT_EQ(read_file(out), "old file");
        EXPECT_EQ(read_file(bai), "old index");
        expect_done(run_tool({"convert", in, out, "--sort", "--quiet"}));  // without an index
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam", "out.bam.bai"}));
}

// --- Memory ------------------------------------------------------------------------

// A sanitizer takes up address space of its own.
#ifndef TESK_TEST_SANITIZED

TEST(Tool, Streaming_MoreTextThanMemory_Works) {
    TempDir const dir;
    std::string const sam = large_sam(5000);
    std::size_t const header_bytes = sam.find('\n') + 1;
    std::string const member = gzip_member(sam.substr(header_bytes));
    std::string bytes = gzip_member(sam.substr(0, header_bytes));
    for (int i = 0; i < 200; ++i) bytes += member;  // 170 MB of text
    std::string const in = dir.write("in.sam.gz", bytes);
    std::string const limited = "ulimit -v 98304; exec \"$0\" \"$@\"";
    expect_done(run_shell(limited, {"convert", in, "/dev/null", "--to", "sam"}));
    expect_done(run_shell(limited, {"convert", in, "/dev/null", "--to", "bam", "--level", "1"}));
    expect_done(run_shell(limited, {"info", in}));
    expect_done(run_shell(limited, {"validate", in}));
    EXPECT_EQ(run_shell(limited, {"view", in, "chr1", "--count"}).output, "1000000\n");
    // The limit is one: records that are held do not fit it.
    std::string const plain = dir.write("in.sam", large_sam(300000));
    EXPECT_EQ(run_shell(limited, {"info", plain, "--exact"}).exit_status, 1);
}

#endif

// --- Suggestions -------------------------------------------------------------------

struct DistanceCase {
    char const* a;
    char const* b;
    std::size_t distance;
};

TEST(Suggestion, EditDistance_OfWords_IsTheLeastNumberOfEdits) {
    constexpr DistanceCase CASES[] = {
        {"", "", 0},          {"", "abc", 3},          {"abc", "abc", 0},
        {"abc", "abd", 1},    {"abc", "ab", 1},        {"abc", "xabc", 1},
        {"abcd", "acbd", 1},  {"ab", "ba", 1},         {"kitten", "sitting", 3},
        {"chr1", "Chr01", 2}, {"abcdef", "badcfe", 3},
    };
    for (DistanceCase const& c : CASES) {
        SCOPED_TRACE(std::string(c.a) + " " + c.b);
        EXPECT_EQ(tesk::tool::edit_distance(c.a, c.b), c.distance);
        EXPECT_EQ(tesk::tool::edit_distance(c.b, c.a), c.distance);
    }
}

struct SuggestionCase {
    char const* label;
    char const* word;
    std::vector<std::string> known;
    char const* suggestion;
};

TEST(Suggestion, UnknownWord_IsTheOnlyOneThatIsNear) {
    SuggestionCase const cases[] = {
        {"nothing known", "a", {}, ""},
        {"one edit", "convrt", {"convert", "info"}, "convert"},
        {"two edits", "cnvrt", {"convert", "info"}, "convert"},
        {"three edits", "cnvr", {"convert", "info"}, ""},
        {"neighbours swapped", "ifno", {"convert", "info"}, "info"},
        {"the nearer one", "chr11", {"chr1", "chr12x"}, "chr1"},
        {"two as near", "chr3", {"chr1", "chr2"}, ""},
        {"two as near, then a nearer one", "chr3", {"chr1", "chr2", "chr3a"}, "chr3a"},
        {"beginning of one", "anno", {"annotate", "import"}, "annotate"},
        {"beginning of two", "chr", {"chr10000", "chr20000"}, ""},
        {"nothing in common", "x", {"ab", "y"}, ""},
        {"empty", "", {"abc"}, ""},
    };
    for (SuggestionCase const& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(tesk::tool::suggestion_for(c.word, c.known), c.suggestion);
    }
    EXPECT_EQ(tesk::tool::did_you_mean("ifno", {"info"}), ": did you mean info?");
    EXPECT_EQ(tesk::tool::did_you_mean("xyz", {"info"}), "");
}

// --- Input at fault ------------------------------------------------------------

TEST(Tool, Message_QuotesAnything_StaysOnOneLineAndShort) {
    TempDir const dir;
    std::string const in = dir.file("X\x1b[31m\r\x7f" + std::string(3000, 'y'));
    ProcessResult const result = run_tool({"convert", in, dir.file("out.bam")});
    EXPECT_EQ(result.exit_status, 1);
    std::string const begin =
        "tesk-bam: cannot open " + dir.path().string() + "/X\\x1b[31m\\r\\x7fyyy";
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
    for (char const* const kind : {"sam", "bam"}) {
        SCOPED_TRACE(kind);
        expect_failure(run_tool({"convert", in, "/dev/full", "--to", kind}), 1,
                       "cannot write to /dev/full: No space left on device");
        expect_failure(run_tool({"convert", in, "/dev/full", "--to", kind, "--sort"}), 1,
                       "cannot write to /dev/full: No space left on device");
    }
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
        for (char const* const option : {"--quiet", "--sort", "--threads=4", "--level=0"}) {
            SCOPED_TRACE(std::string(name) + " " + option);
            std::string const out = dir.write(name, "old file");
            ProcessResult const result =
                run_shell("ulimit -f 8; exec \"$0\" convert \"$1\" \"$2\" $3", {in, out, option});
            expect_failure(result, 1, "cannot write to " + out + ": File too large");
            EXPECT_EQ(read_file(out), "old file");
        }
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam", "out.sam"}));
}

TEST(Tool, Convert_IndexGrowsTooLarge_IsErrorAndOldPairStays) {
    TempDir const dir;
    // One read far out: 30,518 windows, so that the index alone is too large.
    std::string const in =
        dir.write("in.sam", "@SQ\tSN:c\tLN:536870912\nr1\t0\tc\t500000001\t0\t1M\t*\t0\t0\tA\tI\n");
    std::string const out = dir.write("out.bam", "old file");
    std::string const bai = dir.write("out.bam.bai", "old index");
    ProcessResult const result =
        run_shell("ulimit -f 100; exec \"$0\" convert \"$1\" \"$2\" --index", {in, out});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.errors.rfind("tesk-bam: cannot write to " + bai + ": ", 0), 0U)
        << result.errors;
    EXPECT_EQ(read_file(out), "old file");
    EXPECT_EQ(read_file(bai), "old index");
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam", "out.bam.bai"}));
}

TEST(Tool, StandardOutput_CannotBeWritten_IsErrorForEveryCommand) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const bai = dir.write("in.bai", build_bai(0, {}, false));
    std::vector<std::vector<std::string>> const commands = {
        {"convert", in, "-"}, {"info", in},   {"info", in, "--json"},
        {"report", in, "-"},  {"completion"}, {"dump-index", bai}};
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
    EXPECT_EQ(read_file(sam), sorted_header() + joined(sorted_lines()));

    std::string const bam = dir.write("b.bam", sample_bam());
    expect_done(run_tool({"convert", bam, bam, "--index"}));
    EXPECT_EQ(payload_of(bam), bam_payload(sorted_header(), sorted_lines()));
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
    EXPECT_EQ(payload_of(dir.file("store/real.bam")), bam_payload(sorted_header(), sorted_lines()));
    EXPECT_EQ(payload_of(dir.file("store/new.bam")), bam_payload(HEADER, LINES));
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
    EXPECT_EQ(payload_of(out), bam_payload(sorted_header(), sorted_lines()));
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
    EXPECT_EQ(result.errors, "tesk-bam: note: " + in +
                                 ": warning: RNAME or RNEXT is not in the header: read as \"*\" "
                                 "(3 times, first in line 1)\n");
    expect_done(run_tool({"convert", in, out, "--quiet"}));
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

// Sorting with so little memory that records go to a temporary file, too, which is
// in a folder of its own.
TEST(Tool, Signal_AtRandomMoments_OldPairOrNewPairAndNothingElse) {
    constexpr int N_RUNS = 75;
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(2500, 1000));
    std::filesystem::create_directory(dir.file("tmp"));
    std::string const out = dir.file("out.bam");
    std::string const bai = out + ".bai";
    std::vector<std::string> const arguments = {
        "convert",       in,         out,  "--index",   "--tmp",
        dir.file("tmp"), "--memory", "1M", "--threads", "2"};
    expect_done(run_tool(arguments));
    std::string const new_bam = read_file(out);
    std::string const new_bai = read_file(bai);
    auto const has = [&](std::string const& bam_bytes, std::string const& bai_bytes) {
        return read_file(out) == bam_bytes && read_file(bai) == bai_bytes;
    };
    int n_ended_early = 0;
    interrupt_at_random(
        arguments, N_RUNS, {SIGINT, SIGTERM, SIGKILL},
        [&] {
            write_file(out, "old file");
            write_file(bai, "old index");
        },
        [&](int status, int signal_number) {
            // Between the two names being given, nothing but a kill can come.
            bool const old_pair = has("old file", "old index");
            bool const new_pair = has(new_bam, new_bai);
            bool const new_file_alone = signal_number == SIGKILL && has(new_bam, "old index");
            EXPECT_TRUE(new_pair || new_file_alone || (old_pair && status == -signal_number));
            if (old_pair) ++n_ended_early;
            EXPECT_EQ(names_in(dir.file("tmp")), Names{});
            if (signal_number == SIGKILL) {
                remove_temporaries(dir.path());
            }
            EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam", "out.bam.bai", "tmp"}));
        });
    EXPECT_GT(n_ended_early, 0);
}

// Without and with the library's own members, which write the file in another way.
TEST(Tool, Signal_AtRandomMomentsOfOneFile_OldFileOrNewFileAndNothingElse) {
    constexpr int N_RUNS = 75;
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(2500, 1000));
    std::string const out = dir.file("out.bam");
    for (char const* const option : {"--quiet", "--exact"}) {
        SCOPED_TRACE(option);
        std::vector<std::string> const arguments = {"convert", in, out, option};
        expect_done(run_tool(arguments));
        std::string const whole = read_file(out);
        int n_ended_early = 0;
        interrupt_at_random(
            arguments, N_RUNS, {SIGINT, SIGTERM, SIGKILL}, [&] { write_file(out, "old file"); },
            [&](int status, int signal_number) {
                std::string const bytes = read_file(out);
                bool const old_file = bytes == "old file";
                EXPECT_TRUE(bytes == whole || (old_file && status == -signal_number));
                if (old_file) ++n_ended_early;
                if (signal_number == SIGKILL) remove_temporaries(dir.path());
                EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam"}));
            });
        EXPECT_GT(n_ended_early, 0);
    }
}

// --- Progress ------------------------------------------------------------------

TEST(Tool, Progress_OnTerminal_NamesEveryStageAndClearsItsLine) {
    TempDir const dir;
    std::string const in = dir.write("in.bam", sample_bam());
    std::string const text = tool_on_terminal({"convert", in, dir.file("out.bam"), "--index"});
    std::string const end = "\r\x1b[K";
    std::size_t at = 0;
    for (char const* const stage :
         {"\rreading in.bam", "\rsorting 4 records\x1b[K", "\rwriting out.bam  0.0 MB\x1b[K",
          "\rchecking the index\x1b[K"}) {
        at = text.find(stage, at);
        ASSERT_NE(at, std::string::npos) << stage << " in " << text;
    }
    ASSERT_GE(text.size(), end.size());
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(Tool, Progress_OnTerminal_IsGoneBeforeNoteMessageOrResult) {
    TempDir const dir;
    std::string const missing = dir.file("missing.sam");
    EXPECT_EQ(tool_on_terminal({"convert", missing, dir.file("out.bam")}),
              "\rreading missing.sam\x1b[K\r\x1b[Ktesk-bam: cannot open " + missing +
                  ": No such file or directory\r\n");

    std::string const in = dir.write("in.sam", "@CO\tonly\n\n@CO\tonly\n");
    std::string const noted = tool_on_terminal({"convert", in, dir.file("out.bam")});
    std::string const end = "\r\x1b[Ktesk-bam: note: " + in +
                            ": repaired: a header line is blank: dropped (once, in line 2)\r\n";
    ASSERT_GE(noted.size(), end.size());
    EXPECT_EQ(noted.substr(noted.size() - end.size()), end);
}

TEST(Tool, Progress_SamOnTheSameTerminal_IsNotShown) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", "@CO\tonly\n");
    EXPECT_EQ(tool_on_terminal({"convert", in, "-"}), "@CO\tonly\r\n");
    EXPECT_EQ(tool_on_terminal({"view", in}), "@CO\tonly\r\n");
}

TEST(Tool, Convert_BamToATerminal_IsRefused) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", "@CO\tonly\n");
    EXPECT_EQ(tool_on_terminal({"convert", in, "-", "--to", "bam"}),
              "tesk-bam: BAM is not written to a terminal: name a file, or send it on through a "
              "pipe\r\n");
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
        EXPECT_EQ(summary({odd}), sample_summary(odd, "BAM"));
        ProcessResult const piped = run_shell("\"$0\" info - --json < \"$1\"", {bam});
        expect_done(piped);
        EXPECT_EQ(Json::parse(piped.output), sample_summary("-", "BAM"));
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

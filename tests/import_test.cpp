// The commands of the tool that make unmapped records out of reads: import and
// annotate. The built program is run as its users run it; parts with many cases
// are called directly.

#include <signal.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>
#include <nlohmann/json.hpp>

#include "tests/support/annotation_readers.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/bam_walker.h"
#include "tests/support/process.h"
#include "tests/support/temp_file.h"
#include "tests/support/tool_runner.h"
#include "tools/line_reader.h"
#include "tools/sam_field.h"
#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace {

using namespace tesk::test;
using Json = nlohmann::json;

// --- Sample data ---------------------------------------------------------------

constexpr char const* PROGRAM_LINE = "@PG\tID:tesk-bam\tPN:tesk-bam\tVN:" TESK_BAM_VERSION "\n";

std::string sam_file(std::vector<std::string> const& lines) {
    std::string text = std::string("@HD\tVN:1.6\tSO:unsorted\n") + PROGRAM_LINE;
    for (std::string const& line : lines) text += line + "\n";
    return text;
}

std::string bam_payload(std::vector<std::string> const& lines,
                        std::string const& order = "unsorted") {
    std::string bytes = encode_bam_header("@HD\tVN:1.6\tSO:" + order + "\n" + PROGRAM_LINE, {});
    for (std::string const& line : lines) bytes += encode_bam_record(line, {});
    return bytes;
}

constexpr char const* FASTQ =
    "@r1 a comment\n"
    "ACGT\n"
    "+\n"
    "!I~5\n"
    "@r/2\tRG:Z:g\n"
    "NNA\n"
    "+r/2\n"
    "@+#\n";

// TLEN is the number of bases.
std::vector<std::string> const LINES = {
    "r1\t4\t*\t0\t0\t*\t*\t0\t4\tACGT\t!I~5",
    "r/2\t4\t*\t0\t0\t*\t*\t0\t3\tNNA\t@+#",
};

constexpr char const* JSONL =
    R"({"name": "r1", "sequence": "ACGT", "qualities": "!I~5"})"
    "\n"
    R"({"stride": 5, "moves": [1, 0, 127], "qualities": "@+#", "sequence": "NNA", "name": "r/2"})"
    "\n";

std::vector<std::string> const ANNOTATED = {LINES[0], LINES[1] + "\tmv:B:c,5,1,0,127,0"};

// One input of each of the two commands, and what becomes of it.
struct CommandCase {
    char const* command;
    char const* input;
    std::vector<std::string> const& lines;
};
CommandCase const COMMANDS[] = {{"import", FASTQ, LINES}, {"annotate", JSONL, ANNOTATED}};

// Reads whose text does not compress well.
std::string random_fastq(std::size_t n_reads) {
    std::mt19937 random(4711);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same data each time
    std::string text;
    for (std::size_t i = 0; i < n_reads; ++i) {
        std::string bases(60, 'A');
        std::string qualities(60, 'I');
        for (char& base : bases) base = "ACGTN"[random() % 5];
        for (char& quality : qualities) quality = static_cast<char>('!' + random() % 94);
        text += "@read" + std::to_string(i) + "\n" + bases + "\n+\n" + qualities + "\n";
    }
    return text;
}

// --- Help, wrong use -----------------------------------------------------------

struct HelpCase {
    char const* command;
    char const* begin;
    char const* end;
};

TEST(Import, Help_OfBothCommands_EndsWithExample) {
    constexpr HelpCase CASES[] = {
        {"import",
         "Make unmapped records of the reads of a FASTQ file\n"
         "Usage: tesk-bam import [OPTIONS] READS OUT\n",
         "  tesk-bam import reads.fastq.gz reads.bam\n"},
        {"annotate",
         "Make unmapped records of reads with move tables and modified bases\n"
         "Usage: tesk-bam annotate [OPTIONS] READS OUT\n",
         " \"stride\": 5, \"moves\": [1, 0, 1, 1]}' | tesk-bam annotate - reads.bam\n"},
    };
    for (HelpCase const& c : CASES) {
        SCOPED_TRACE(c.command);
        ProcessResult const result = run_tool({c.command, "--help"});
        expect_done(result);
        EXPECT_EQ(result.output.rfind(c.begin, 0), 0U) << result.output;
        std::string const end(c.end);
        ASSERT_GE(result.output.size(), end.size());
        EXPECT_EQ(result.output.substr(result.output.size() - end.size()), end);
    }
}

TEST(Import, HelpExamples_Run_DoWhatTheySay) {
    TempDir const dir;
    dir.write("reads.fastq.gz", gzip_member(FASTQ));
    std::string const script =
        "cd \"$1\" || exit; tool=$0; tesk-bam() { \"$tool\" \"$@\"; }\n"
        "eval \"$(tesk-bam $2 --help | tail -n 1)\"";
    expect_done(run_shell(script, {dir.path().string(), "import"}));
    EXPECT_EQ(payload_of(dir.file("reads.bam")), bam_payload(LINES));
    expect_done(run_shell(script, {dir.path().string(), "annotate"}));
    EXPECT_EQ(payload_of(dir.file("reads.bam")),
              bam_payload({"r1\t4\t*\t0\t0\t*\t*\t0\t3\tACG\tIII\tmv:B:c,5,1,0,1,1"}));
    EXPECT_EQ(names_in(dir.path()), (Names{"reads.bam", "reads.fastq.gz"}));
}

struct WrongUseCase {
    char const* label;
    std::vector<std::string> arguments;
    char const* message;
};

TEST(Import, WrongUse_OfEveryKind_IsStatusTwoWithMessage) {
    constexpr char const* HINT = "\ntesk-bam: run with --help to see what is possible";
    WrongUseCase const parsed[] = {
        {"no input", {}, "READS is required"},
        {"no output", {"a"}, "OUT is required"},
        {"one file too many",
         {"a", "b.sam", "c.sam"},
         "The following argument was not expected: c.sam"},
        {"unknown option",
         {"a", "b.sam", "--sort"},
         "The following argument was not expected: --sort"},
        {"unknown kind", {"a", "b.sam", "--to", "cram"}, "--to: cram not in {sam,bam}"},
    };
    WrongUseCase const refused[] = {
        {"output of unclear kind",
         {"a", "b"},
         "cannot tell from its name whether b is SAM or BAM: say --to sam or --to bam"},
    };
    for (CommandCase const& command : COMMANDS) {
        auto const run = [&](std::vector<std::string> arguments) {
            arguments.insert(arguments.begin(), command.command);
            return run_tool(arguments);
        };
        for (WrongUseCase const& c : parsed) {
            SCOPED_TRACE(std::string(command.command) + ": " + c.label);
            expect_failure(run(c.arguments), 2, std::string(c.message) + HINT);
        }
        for (WrongUseCase const& c : refused) {
            SCOPED_TRACE(std::string(command.command) + ": " + c.label);
            expect_failure(run(c.arguments), 2, c.message);
        }
    }
    expect_failure(run_tool({"annotate", "a", "b.sam", "--keep-comments"}), 2,
                   std::string("The following argument was not expected: --keep-comments") + HINT);
}

// --- From reads to records -----------------------------------------------------

TEST(Import, BothCommands_ToSam_IsTextOfEveryRead) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const in = dir.write("in", c.input);
        std::string const out = dir.file("out.sam");
        ProcessResult const result = run_tool({c.command, in, out});
        expect_done(result);
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(read_file(out), sam_file(c.lines));
        EXPECT_EQ(names_in(dir.path()), (Names{"in", "out.sam"}));
    }
}

TEST(Import, BothCommands_ToBam_PayloadIsThatOfIndependentEncoder) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const in = dir.write("in", c.input);
        std::string const out = dir.file("out.bam");
        expect_done(run_tool({c.command, in, out}));
        EXPECT_EQ(payload_of(out), bam_payload(c.lines));
        EXPECT_EQ(run_process({"gzip", "-t", "--suffix", ".bam", out}).exit_status, 0);
        EXPECT_EQ(names_in(dir.path()), (Names{"in", "out.bam"}));
    }
}

TEST(Import, BothCommands_DashAsOutput_PrintsSam) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        std::string const in = dir.write("in", c.input);
        for (std::vector<std::string> const& options :
             {std::vector<std::string>{}, {"--to", "sam"}, {"--quiet"}}) {
            SCOPED_TRACE(c.command);
            std::vector<std::string> arguments = {c.command, in, "-"};
            arguments.insert(arguments.end(), options.begin(), options.end());
            ProcessResult const result = run_tool(arguments);
            expect_done(result);
            EXPECT_EQ(result.output, sam_file(c.lines));
        }
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in"}));
}

TEST(Import, BothCommands_DashAsInput_ReadsStandardInput) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const plain = dir.write("plain", c.input);
        std::string const packed = dir.write("packed", gzip_member(c.input));
        for (char const* const command :
             {"\"$0\" $1 - - < \"$2\"", "cat \"$2\" | \"$0\" $1 - -", "\"$0\" $1 - - < \"$3\"",
              "cat \"$3\" | \"$0\" $1 - -",
              "(head -c 1 \"$3\"; sleep 0.1; tail -c +2 \"$3\") | \"$0\" $1 - -"}) {
            SCOPED_TRACE(command);
            ProcessResult const result = run_shell(command, {c.command, plain, packed});
            expect_done(result);
            EXPECT_EQ(result.output, sam_file(c.lines));
        }
    }
}

TEST(Import, BothCommands_OptionTo_PrevailsOverEnding) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const in = dir.write("in", c.input);
        expect_done(run_tool({c.command, in, dir.file("out.sam"), "--to", "bam"}));
        EXPECT_EQ(payload_of(dir.file("out.sam")), bam_payload(c.lines));
        expect_done(run_tool({c.command, in, dir.file("out"), "--to", "sam"}));
        EXPECT_EQ(read_file(dir.file("out")), sam_file(c.lines));
        expect_done(run_tool({c.command, in, dir.file("out.BAM")}));
        EXPECT_EQ(payload_of(dir.file("out.BAM")), bam_payload(c.lines));
    }
}

TEST(Import, BothCommands_InputEmpty_GivesHeaderAlone) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        for (std::string const& text : {std::string(), std::string("\n\r\n\n"), gzip_member("")}) {
            SCOPED_TRACE(c.command);
            std::string const in = dir.write("in", text);
            ProcessResult const result = run_tool({c.command, in, "-"});
            expect_done(result);
            EXPECT_EQ(result.output, sam_file({}));
            expect_done(run_tool({c.command, in, dir.file("out.bam")}));
            EXPECT_EQ(payload_of(dir.file("out.bam")), bam_payload({}));
        }
    }
}

struct LineEndCase {
    char const* label;
    char const* end;   // of every line but the last
    char const* last;  // of the last one
};

TEST(Import, BothCommands_LineEndsOfEveryKind_AreNoPartOfTheRead) {
    constexpr LineEndCase CASES[] = {
        {"last line without newline", "\n", ""},
        {"carriage returns", "\r\n", "\r\n"},
        {"carriage return ends the file", "\r\n", "\r"},
        {"carriage returns but at the end", "\r\n", ""},
        {"empty line at the end", "\n", "\n\n"},
        {"empty lines at the end", "\r\n", "\r\n\r\n\n\r\n"},
    };
    TempDir const dir;
    for (CommandCase const& command : COMMANDS) {
        for (LineEndCase const& c : CASES) {
            SCOPED_TRACE(std::string(command.command) + ": " + c.label);
            std::string text(command.input);
            text.pop_back();
            std::string input;
            for (char const letter : text) {
                if (letter == '\n') {
                    input += c.end;
                } else {
                    input += letter;
                }
            }
            ProcessResult const result =
                run_tool({command.command, dir.write("in", input + c.last), "-"});
            expect_done(result);
            EXPECT_EQ(result.output, sam_file(command.lines));
        }
    }
}

// --- Faults of a read ----------------------------------------------------------

struct FaultCase {
    char const* label;
    std::string input;
    std::string message;  // after the file's name
};

// Runs a command on each input, once for each kind of output.
// @param more  options besides, as one word
void expect_faults(char const* command, std::vector<FaultCase> const& cases,
                   std::string const& more = "--quiet") {
    for (FaultCase const& c : cases) {
        SCOPED_TRACE(std::string(c.label) + " " + more);
        TempDir const dir;
        std::string const in = dir.write("in", c.input);
        for (char const* const name : {"out.sam", "out.bam"}) {
            std::string const out = dir.write(name, "old file");
            expect_failure(run_tool({command, in, out, "--quiet", more}), 1, in + ": " + c.message);
            EXPECT_EQ(read_file(out), "old file");
        }
        EXPECT_EQ(names_in(dir.path()), (Names{"in", "out.bam", "out.sam"}));
        ProcessResult const result = run_shell("\"$0\" $1 - \"$2\" --to bam $4 < \"$3\"",
                                               {command, dir.file("new"), in, more});
        expect_failure(result, 1, "standard input: " + c.message);
        EXPECT_EQ(names_in(dir.path()), (Names{"in", "out.bam", "out.sam"}));
    }
}

TEST(Import, Fastq_RecordAtFault_IsRefusedWithItsLine) {
    std::string const good(FASTQ);
    std::string const begin = ": not a FASTQ record: a line that begins with @ was expected";
    std::string const plus = ": not a FASTQ record: a line that begins with + was expected";
    std::string const inside = ": the input ends inside the record that begins in line ";
    std::string const range = " is not between ! and ~, as SAM needs it";
    std::vector<FaultCase> const cases = {
        {"no FASTQ at all", "ACGT\n", "line 1" + begin},
        {"FASTA", ">r1\nACGT\n", "line 1" + begin},
        {"SAM", sam_file(LINES), "line 3" + plus},
        {"a BAM file", bgzf_blocks(bam_payload(LINES)) + bgzf_eof_block(), "line 1" + begin},
        {"second record", good + "r3\nA\n+\nI\n", "line 9" + begin},
        {"sequence in two lines", good + "@r3\nA\nC\n+\nII\n", "line 11" + plus},
        {"empty line for the plus", good + "@r3\nA\n\nI\n", "line 11" + plus},
        {"ends after the name", good + "@r3\n", "line 9" + inside + "9"},
        {"ends inside the name", good + "@r", "line 9" + inside + "9"},
        {"ends after the sequence", good + "@r3\nA\n", "line 10" + inside + "9"},
        {"ends after the plus", good + "@r3\nA\n+\n", "line 11" + inside + "9"},
        {"empty line between records", "@a\nA\n+\nI\n\n@b\nA\n+\nI\n",
         "line 5: an empty line, and the input goes on"},
        {"empty lines before the first record", "\n\n@b\nA\n+\nI\n",
         "line 1: an empty line, and the input goes on"},
        {"more bases than qualities", good + "@r3\nACG\n+\nII\n",
         "line 9: sequence and qscore do not match size!"},
        {"more qualities than bases", good + "@r3\nACG\n+\nIIII\n",
         "line 9: sequence and qscore do not match size!"},
        {"no bases, with qualities", "@\n\n+\nI\n",
         "line 1: sequence and qscore do not match size!"},
        {"no name", good + "@\nA\n+\nI\n", "line 9: Empty read_name string provided!"},
        {"no name but a comment", good + "@ r3\nA\n+\nI\n",
         "line 9: Empty read_name string provided!"},
        {"no bases", good + "@r3\n\n+\n\n", "line 9: Empty sequence and qstring provided!"},
        {"blank in the sequence", "@r3\nAC G\n+\nIIII\n",
         "line 1: character 3 of the sequence" + range},
        {"tab at the end of the sequence", "@r3\nAC\t\n+\nIII\n",
         "line 1: character 3 of the sequence" + range},
        {"second carriage return", "@r3\nAC\r\r\n+\nIII\n",
         "line 1: character 3 of the sequence" + range},
        {"NUL in the sequence", std::string("@r3\nA\0C\n+\nIII\n", 14),
         "line 1: character 2 of the sequence" + range},
        {"blank in the qualities", "@r3\nACG\n+\nI I\n",
         "line 1: character 2 of the qualities" + range},
        {"tab in the qualities", "@r3\nACG\n+\n\tII\n",
         "line 1: character 1 of the qualities" + range},
        {"control byte in the qualities", "@r3\nACG\n+\nII\x1f\n",
         "line 1: character 3 of the qualities" + range},
        {"quality above the highest", "@r3\nACG\n+\nII\x7f\n",
         "line 1: character 3 of the qualities" + range},
        {"quality that is no ASCII", "@r3\nACG\n+\nI\xc3\xa4\n",
         "line 1: character 2 of the qualities" + range},
        {"control byte in the name", "@r\v3\nACG\n+\nIII\n",
         "line 1: character 2 of the name" + range},
        {"carriage return in the name", "@r3\r x\nACG\n+\nIII\n",
         "line 1: character 3 of the name" + range},
        {"name that begins like a header", "@@HD\nACG\n+\nIII\n",
         "line 1: the name begins with @, as only a header line does in SAM"},
        {"name too long", "@" + std::string(255, 'n') + "\nACG\n+\nIII\n",
         "line 1: the name has 255 characters, SAM takes 254"},
    };
    expect_faults("import", cases);
    expect_faults("import", cases, "--exact");
}

TEST(Import, Fastq_BaseAtFault_IsRefusedWithItsLine) {
    std::string const code = "line 1, column SEQ: ";
    expect_faults("import",
                  {
                      {"a single letter that is no base", "@r3\nX\n+\nI\n",
                       code + "'X' at place 1 is no base"},
                      {"a later letter", "@r3\nACX\n+\nIII\n", code + "'X' at place 3 is no base"},
                      {"the sequence * alone", "@r3\n*\n+\nI\n",
                       "line 1: the sequence is *, which in SAM means none"},
                  });
}

TEST(Import, Fastq_BaseAtFaultExactly_IsRefusedByTheLibrary) {
    std::string const good(FASTQ);
    std::string const code = ": Sam to Bam parsing failed: Invalid sequence code detected";
    expect_faults(
        "import",
        {
            {"lower case", good + "@r3\nAcG\n+\nIII\n", "line 9" + code},
            {"lower case at the end of an even number", "@r3\nACGt\n+\nIIII\n", "line 1" + code},
            {"lower case at the end of an odd number", "@r3\nACg\n+\nIII\n", "line 1" + code},
            {"a single letter that is no base", "@r3\nX\n+\nI\n", "line 1" + code},
            {"the sequence * alone", "@r3\n*\n+\nI\n", "line 1" + code},
        },
        "--exact");
}

// Bases in lower case and "." are repaired as they are in SAM.
TEST(Import, Fastq_BasesThatCanBeRepaired_AreAndTheNoteSaysSo) {
    TempDir const dir;
    std::string const in = dir.write("in", "@a\nACGT\n+\nIIII\n@b\nacg.\n+\nIIII\n@c\nAc\n+\nII\n");
    std::vector<std::string> const lines = {"a\t4\t*\t0\t0\t*\t*\t0\t4\tACGT\tIIII",
                                            "b\t4\t*\t0\t0\t*\t*\t0\t4\tACGN\tIIII",
                                            "c\t4\t*\t0\t0\t*\t*\t0\t2\tAC\tII"};
    std::string const note = "tesk-bam: note: " + in + ": repaired: SEQ has ";
    std::string const notes =
        note + "lower-case bases: changed to upper case (2 times, first in line 5)\n" + note +
        "bases \".\": changed to N (once, in line 5)\n";
    ProcessResult const printed = run_tool({"import", in, "-"});
    EXPECT_EQ(printed.exit_status, 0);
    EXPECT_EQ(printed.output, sam_file(lines));
    EXPECT_EQ(printed.errors, notes);
    ProcessResult const result = run_tool({"import", in, dir.file("out.bam")});
    EXPECT_EQ(result.errors, notes);
    EXPECT_EQ(payload_of(dir.file("out.bam")), bam_payload(lines));
    expect_done(run_tool({"import", in, "-", "--quiet"}));
}

TEST(Import, Fastq_LongestName_IsWhole) {
    TempDir const dir;
    for (std::size_t const size : {253U, 254U}) {
        std::string const name(size, 'n');
        std::string const in = dir.write("in", "@" + name + "\nA\n+\nI\n");
        expect_done(run_tool({"import", in, dir.file("out.bam")}));
        EXPECT_EQ(payload_of(dir.file("out.bam")),
                  bam_payload({name + "\t4\t*\t0\t0\t*\t*\t0\t1\tA\tI"}));
    }
}

TEST(Import, Fastq_EveryBaseLetterAndScore_Survives) {
    TempDir const dir;
    std::string const bases = "=ACMGRSVTWYHKDBN";
    std::string scores;
    std::string sequence;
    for (char c = '!'; c <= '~'; ++c) {
        scores += c;
        sequence += bases[scores.size() % bases.size()];
    }
    std::string const in = dir.write("in", "@r\n" + sequence + "\n+\n" + scores + "\n");
    std::string const line = "r\t4\t*\t0\t0\t*\t*\t0\t94\t" + sequence + "\t" + scores;
    expect_done(run_tool({"import", in, dir.file("out.bam")}));
    EXPECT_EQ(payload_of(dir.file("out.bam")), bam_payload({line}));
}

TEST(Import, Fastq_QualityStarOfOneBase_IsNoneAndNoted) {
    TempDir const dir;
    std::string const in = dir.write("in", "@a\nA\n+\n*\n@b\nAC\n+\n**\n@c\nA\n+\nI\n");
    std::vector<std::string> const lines = {
        "a\t4\t*\t0\t0\t*\t*\t0\t1\tA\t*",
        "b\t4\t*\t0\t0\t*\t*\t0\t2\tAC\t**",
        "c\t4\t*\t0\t0\t*\t*\t0\t1\tA\tI",
    };
    constexpr char const* NOTE =
        "tesk-bam: note: 1 of 3 reads have the quality *, which in SAM means none\n";
    std::string const bam = dir.file("out.bam");
    ProcessResult const result = run_tool({"import", in, bam});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors, NOTE);
    EXPECT_EQ(payload_of(bam), bam_payload(lines));  // 0xFF for "*", 9 twice for "**"
    ProcessResult const printed = run_tool({"import", in, "-"});
    EXPECT_EQ(printed.exit_status, 0);
    EXPECT_EQ(printed.errors, NOTE);
    EXPECT_EQ(printed.output, sam_file(lines));
    expect_done(run_tool({"import", in, bam, "--quiet"}));
}

TEST(Import, StandardOutput_FaultMidway_HasTheRecordsBefore) {
    TempDir const dir;
    std::string const in = dir.write("in", std::string(FASTQ) + "@r3\n");
    ProcessResult const result = run_tool({"import", in, "-"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(
        result.errors,
        "tesk-bam: " + in + ": line 9: the input ends inside the record that begins in line 9\n");
    std::string const whole = sam_file(LINES);
    EXPECT_EQ(result.output, whole.substr(0, result.output.size()));
}

TEST(Import, BothCommands_Exactly_HaveTheLibrarysHeader) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const in = dir.write("in", c.input);
        expect_done(run_tool({c.command, in, dir.file("out.bam"), "--exact"}));
        EXPECT_EQ(payload_of(dir.file("out.bam")), bam_payload(c.lines, "unknown"));
        ProcessResult const printed = run_tool({c.command, in, "-", "--exact"});
        expect_done(printed);
        EXPECT_EQ(printed.output, sam_file(c.lines));
    }
}

TEST(Import, BamOnStandardOutput_IsTheFile) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const in = dir.write("in", c.input);
        ProcessResult const result = run_tool({c.command, in, "-", "--to", "bam"});
        expect_done(result);
        EXPECT_EQ(inflate_bgzf(result.output), bam_payload(c.lines));
    }
}

TEST(Import, LargeBam_OfAnyLevelAndThreads_HasFullBlocks) {
    TempDir const dir;
    std::string const in = dir.write("in", random_fastq(5000));
    std::string const out = dir.file("out.bam");
    std::vector<std::string> files;
    for (char const* const threads : {"1", "2", "8"}) {
        expect_done(run_tool({"import", in, out, "--threads", threads, "--level", "1"}));
        files.push_back(read_file(out));
    }
    EXPECT_EQ(files[0], files[1]);
    EXPECT_EQ(files[0], files[2]);
    std::vector<BgzfBlock> const blocks = parse_bgzf(files[0]);
    ASSERT_GT(blocks.size(), 3U);
    for (std::size_t i = 0; i + 2 < blocks.size(); ++i) {
        EXPECT_EQ(blocks[i].payload.size(), 65280U) << i;
    }
    expect_done(run_tool({"import", in, out, "--level", "0"}));
    EXPECT_EQ(inflate_bgzf(read_file(out)), inflate_bgzf(files[0]));
    EXPECT_GT(read_file(out).size(), files[0].size());
}

// --- Comments ------------------------------------------------------------------

struct CommentCase {
    char const* label;
    char const* name_line;
    char const* fields;  // in the record
    bool noted;          // something was left out
};

TEST(Import, KeepComments_FieldsOfEveryKind_AreKeptAndTheRestNoted) {
    constexpr CommentCase CASES[] = {
        {"no comment", "@r", "", false},
        {"no text after the blank", "@r ", "", false},
        {"one field", "@r RG:Z:g", "\tRG:Z:g", false},
        {"fields after a tab", "@r\tRG:Z:a group\tqs:f:12.5\tNM:i:-3",
         "\tRG:Z:a group\tqs:f:12.5\tNM:i:-3", false},
        {"every type", "@r XA:A:x\tXi:i:7\tXf:f:1e3\tXZ:Z:\tXH:H:0aFF\tXB:B:C,0,255\tXe:B:c",
         "\tXA:A:x\tXi:i:7\tXf:f:1e3\tXZ:Z:\tXH:H:0aFF\tXB:B:C,0,255\tXe:B:c", false},
        {"words", "@r 1:N:0:GTGAAA", "", true},
        {"a field among other things", "@r 1:N:0:GTGAAA\tRG:Z:g\truns=5", "\tRG:Z:g", true},
        {"fields with blanks between them are one", "@r RG:Z:g NM:i:3", "\tRG:Z:g NM:i:3", false},
        {"blank before the field", "@r  RG:Z:g", "", true},
        {"type that SAM text does not have", "@r XA:c:5", "", true},
        {"tab at the end", "@r RG:Z:g\t", "\tRG:Z:g", false},
        {"two tabs", "@r\t\tRG:Z:g\t\tNM:i:1", "\tRG:Z:g\tNM:i:1", false},
        {"carriage return", "@r RG:Z:g\r", "\tRG:Z:g", false},
    };
    TempDir const dir;
    for (CommentCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in", std::string(c.name_line) + "\nACG\n+\nIII\n");
        std::string const columns = "r\t4\t*\t0\t0\t*\t*\t0\t3\tACG\tIII";
        ProcessResult const result = run_tool({"import", in, "-", "--keep-comments"});
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.output, sam_file({columns + c.fields}));
        EXPECT_EQ(result.errors, c.noted ? "tesk-bam: note: 1 of 1 reads have comments that are no "
                                           "SAM fields; these are left out\n"
                                         : "");
        std::string const bam = dir.file("out.bam");
        expect_done(run_tool({"import", in, bam, "--keep-comments", "--quiet"}));
        EXPECT_EQ(payload_of(bam), bam_payload({columns + c.fields}));

        ProcessResult const without = run_tool({"import", in, "-"});
        expect_done(without);
        EXPECT_EQ(without.output, sam_file({columns}));
    }
}

TEST(Import, KeepComments_ReadsWithOtherComments_AreCounted) {
    TempDir const dir;
    std::string const in = dir.write("in",
                                     "@a x\ty\nA\n+\nI\n"
                                     "@b RG:Z:g\nA\n+\nI\n"
                                     "@c RG:Z:g\tz\nA\n+\nI\n"
                                     "@d\nA\n+\nI\n");
    ProcessResult const result = run_tool({"import", in, "-", "--keep-comments"});
    EXPECT_EQ(result.errors,
              "tesk-bam: note: 2 of 4 reads have comments that are no SAM fields; "
              "these are left out\n");
    EXPECT_EQ(
        result.output,
        sam_file({"a\t4\t*\t0\t0\t*\t*\t0\t1\tA\tI", "b\t4\t*\t0\t0\t*\t*\t0\t1\tA\tI\tRG:Z:g",
                  "c\t4\t*\t0\t0\t*\t*\t0\t1\tA\tI\tRG:Z:g", "d\t4\t*\t0\t0\t*\t*\t0\t1\tA\tI"}));
}

TEST(Import, KeepComments_ValueAtFault_IsRefusedExactly) {
    std::string const unsuited =
        "line 5: the value of the optional field does not suit its type, or is out of range: ";
    std::string const good = "@a\nA\n+\nI\n";
    std::string const rest = "\nA\n+\nI\n";
    FaultCase const cases[] = {
        {"no number", good + "@r NM:i:x" + rest, unsuited + "NM:i:x"},
        {"control byte", good + "@r XZ:Z:a\x1b" + rest, unsuited + "XZ:Z:a\\x1b"},
        {"array element out of range", good + "@r XB:B:C,256" + rest, unsuited + "XB:B:C,256"},
        {"integer too large", good + "@r NM:i:2147483648" + rest, unsuited + "NM:i:2147483648"},
        {"array element too large for the library", good + "@r XB:B:I,2147483648" + rest,
         unsuited + "XB:B:I,2147483648"},
        {"float too small", good + "@r XF:f:1e-40" + rest, unsuited + "XF:f:1e-40"},
        {"float too large", good + "@r XF:f:1e40" + rest, unsuited + "XF:f:1e40"},
    };
    TempDir const dir;
    for (FaultCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in", c.input);
        expect_failure(run_tool({"import", in, dir.file("out.sam"), "--keep-comments", "--exact"}),
                       1, in + ": " + c.message);
        expect_done(run_tool({"import", in, dir.file("out.sam"), "--exact"}));
    }
}

TEST(Import, KeepComments_ValueAtFault_IsRefusedWithItsLine) {
    std::string const good = "@a\nA\n+\nI\n";
    std::string const rest = "\nA\n+\nI\n";
    FaultCase const cases[] = {
        {"no number", good + "@r NM:i:x" + rest, "line 5, column NM: 'x' is no integer"},
        {"array element out of range", good + "@r XB:B:C,256" + rest,
         "line 5, column XB: 256 is not in the range of 0 to 255"},
        {"float too large", good + "@r XF:f:1e40" + rest,
         "line 5, column XF: 1e40 is too large for a float"},
    };
    TempDir const dir;
    for (FaultCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in", c.input);
        expect_failure(run_tool({"import", in, dir.file("out.sam"), "--keep-comments"}), 1,
                       in + ": " + c.message);
        expect_done(run_tool({"import", in, dir.file("out.sam")}));
    }
}

TEST(Import, KeepComments_IntegerAbove31Bits_IsKeptAndNoted) {
    TempDir const dir;
    std::string const in = dir.write("in", "@r NM:i:2147483648\nA\n+\nI\n");
    ProcessResult const result = run_tool({"import", in, "-", "--keep-comments"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.output, sam_file({"r\t4\t*\t0\t0\t*\t*\t0\t1\tA\tI\tNM:i:2147483648"}));
    EXPECT_EQ(result.errors,
              "tesk-bam: note: " + in +
                  ": repaired: an optional field of type i is above 2147483647: stored with type I "
                  "(once, in line 1)\n");
}

struct FieldCase {
    char const* label;
    std::string_view text;
    bool is_field;
    bool has_valid_value;
};

TEST(SamField, Text_OfEveryKind_IsToldApart) {
    using namespace std::string_view_literals;
    constexpr FieldCase CASES[] = {
        {"empty", "", false, false},
        {"four characters", "NM:i", false, false},
        {"tag begins with a digit", "1M:i:1", false, false},
        {"tag with a digit", "N1:i:1", true, true},
        {"tag with a sign", "N-:i:1", false, false},
        {"no first colon", "NMxi:1", false, false},
        {"no second colon", "NM:i1", false, false},
        {"unknown type", "NM:I:1", false, false},
        {"character", "XA:A:!", true, true},
        {"no character", "XA:A:", true, false},
        {"two characters", "XA:A:ab", true, false},
        {"blank as character", "XA:A: ", true, false},
        {"integer with plus", "NM:i:+5", true, true},
        {"integer with two signs", "NM:i:+-5", true, false},
        {"plus alone", "NM:i:+", true, false},
        {"no integer", "NM:i:", true, false},
        {"text after the integer", "NM:i:5x", true, false},
        {"blank before the integer", "NM:i: 5", true, false},
        {"integer beyond 64 bits", "NM:i:99999999999999999999", true, false},
        {"integer at its bounds", "NM:i:-2147483648", true, true},
        {"integer below", "NM:i:-2147483649", true, false},
        {"integer at its upper bound", "NM:i:2147483647", true, true},
        {"integer above", "NM:i:2147483648", true, false},
        {"integer with a point", "NM:i:5.0", true, false},
        {"float", "XF:f:-1.5e-3", true, true},
        {"float ending in a point", "XF:f:2.", true, true},
        {"float of zero", "XF:f:-0.0", true, true},
        {"float too small", "XF:f:1e-39", true, false},
        {"float that a double does not hold either", "XF:f:1e-400", true, false},
        {"float too large", "XF:f:-3.5e38", true, false},
        {"no float", "XF:f:", true, false},
        {"text after the float", "XF:f:1.5.2", true, false},
        {"text, anything printable", "XZ:Z: a:b~", true, true},
        {"empty text", "XZ:Z:", true, true},
        {"text with control byte", "XZ:Z:\x01", true, false},
        {"text with NUL", "XZ:Z:a\0b"sv, true, false},
        {"text that is no ASCII", "XZ:Z:\xc3\xa4", true, false},
        {"hex digits", "XH:H:0aF9", true, true},
        {"odd number of hex digits", "XH:H:0aF", true, false},
        {"no hex digit", "XH:H:0g", true, false},
        {"array without elements", "XB:B:c", true, true},
        {"array without type", "XB:B:", true, false},
        {"array of unknown type", "XB:B:x,1", true, false},
        {"array with a comma at its end", "XB:B:c,1,", true, false},
        {"array without first comma", "XB:B:c1", true, false},
        {"c at its bounds", "XB:B:c,-128,127", true, true},
        {"c below", "XB:B:c,-129", true, false},
        {"c above", "XB:B:c,128", true, false},
        {"C at its bounds", "XB:B:C,0,255", true, true},
        {"C below", "XB:B:C,-1", true, false},
        {"C above", "XB:B:C,256", true, false},
        {"s at its bounds", "XB:B:s,-32768,32767", true, true},
        {"s below", "XB:B:s,-32769", true, false},
        {"s above", "XB:B:s,32768", true, false},
        {"S at its bounds", "XB:B:S,0,65535", true, true},
        {"S below", "XB:B:S,-1", true, false},
        {"S above", "XB:B:S,65536", true, false},
        {"i at its bounds", "XB:B:i,-2147483648,2147483647", true, true},
        {"i below", "XB:B:i,-2147483649", true, false},
        {"i above", "XB:B:i,2147483648", true, false},
        {"I at the bounds that the library reads", "XB:B:I,0,2147483647", true, true},
        {"I below", "XB:B:I,-1", true, false},
        {"I above", "XB:B:I,2147483648", true, false},
        {"element beyond 64 bits", "XB:B:I,99999999999999999999", true, false},
        {"array of floats", "XB:B:f,1,-2.5,3e9", true, true},
        {"array of floats with a word", "XB:B:f,1,x", true, false},
    };
    tesk::tool::FieldChecker checker;
    for (FieldCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(tesk::tool::is_field(c.text), c.is_field);
        if (c.is_field) {
            EXPECT_EQ(checker.has_valid_value(c.text), c.has_valid_value);
        }
    }
}

// --- gzip data -----------------------------------------------------------------

// All lines of an input, or the message where it is refused.
std::string lines_of(std::string const& path) {
    try {
        tesk::tool::LineReader reader(path);
        std::string text;
        for (std::string line; reader.next(line);) text += line + "\n";
        return text;
    } catch (tesk::tool::ToolError const& e) {
        return e.what();
    }
}

struct GzipCase {
    char const* label;
    std::string bytes;
};

TEST(Gzip, Members_HoweverTheyAreCut_GiveTheWholeText) {
    std::string const text(FASTQ);
    std::string const large = random_fastq(5000);  // several pieces
    std::string one_byte_each;
    for (char const c : text) one_byte_each += gzip_member(std::string_view(&c, 1));
    GzipCase const cases[] = {
        {"one member", gzip_member(text)},
        {"two members, cut inside a line",
         gzip_member(text.substr(0, 20)) + gzip_member(text.substr(20))},
        {"empty members", gzip_member("") + gzip_member(text) + gzip_member("")},
        {"a member for each byte", one_byte_each},
        {"blocks of a BAM file", bgzf_blocks(text, 7) + bgzf_eof_block()},
    };
    TempDir const dir;
    for (GzipCase const& c : cases) {
        SCOPED_TRACE(c.label);
        // Neither name tells what it is.
        for (char const* const name : {"reads.fastq", "reads.fastq.gz"}) {
            std::string const in = dir.write(name, c.bytes);
            ProcessResult const result = run_tool({"import", in, "-"});
            expect_done(result);
            EXPECT_EQ(result.output, sam_file(LINES));
        }
    }
    EXPECT_EQ(lines_of(dir.write("large", gzip_member(large))), large);
    EXPECT_EQ(lines_of(dir.write("large", gzip_member(large) + gzip_member(large))), large + large);
    EXPECT_EQ(lines_of(dir.write("large", large)), large);
    std::string const plain = dir.write("plain.fastq.gz", FASTQ);
    EXPECT_EQ(run_tool({"import", plain, "-"}).output, sam_file(LINES));
}

TEST(Gzip, Data_CutAtEveryLength_IsRefused) {
    TempDir const dir;
    std::string const first = gzip_member(FASTQ);
    std::string const both = first + gzip_member(random_fastq(3));
    std::string const path = dir.file("in");
    for (std::size_t n = 2; n < both.size(); ++n) {
        if (n == first.size()) continue;  // a whole file
        SCOPED_TRACE(n);
        write_file(path, both.substr(0, n));
        EXPECT_EQ(lines_of(path), path + ": the gzip data ends too early");
    }
    write_file(path, first);
    EXPECT_EQ(lines_of(path), FASTQ);
}

TEST(Gzip, Data_AnyByteChanged_IsRefusedOrGivesTheSameText) {
    TempDir const dir;
    std::string const text(FASTQ);
    std::string const good = gzip_member(text) + gzip_member(text);
    std::string const path = dir.file("in");
    std::size_t n_refused = 0;
    for (std::size_t i = 2; i < good.size(); ++i) {
        for (unsigned const mask : {0x01U, 0x80U, 0xFFU}) {
            SCOPED_TRACE(std::to_string(i) + " xor " + std::to_string(mask));
            std::string bytes = good;
            bytes[i] = static_cast<char>(static_cast<unsigned char>(bytes[i]) ^ mask);
            write_file(path, bytes);
            std::string const result = lines_of(path);
            bool const refused = result.rfind(path + ": the gzip data ", 0) == 0;
            EXPECT_TRUE(refused || result == text + text) << result;
            if (refused) ++n_refused;
        }
    }
    // Time, system and the like in the two headers may be anything.
    EXPECT_GT(n_refused, 3 * (good.size() - 2 * 10));
}

TEST(Gzip, Damage_OfEveryKind_IsNamed) {
    TempDir const dir;
    std::string const good = gzip_member(FASTQ);
    auto const changed = [&](std::size_t from_end) {
        std::string bytes = good;
        char& byte = bytes[bytes.size() - from_end];
        byte = static_cast<char>(byte ^ 1);
        return bytes;
    };
    FaultCase const cases[] = {
        {"text after the data", good + FASTQ, "incorrect header check"},
        {"zeros after the data", good + std::string(512, '\0'), "incorrect header check"},
        {"checksum", changed(8), "incorrect data check"},
        {"length", changed(4), "incorrect length check"},
        {"unknown method", std::string("\x1f\x8b\x07") + good.substr(3),
         "unknown compression method"},
    };
    for (FaultCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in.fastq.gz", c.input);
        std::string const out = dir.write("out.bam", "old file");
        expect_failure(run_tool({"import", in, out}), 1,
                       in + ": the gzip data is damaged: " + c.message);
        EXPECT_EQ(read_file(out), "old file");
        expect_failure(run_shell("\"$0\" import - \"$2\" < \"$1\"", {in, out}), 1,
                       "standard input: the gzip data is damaged: " + c.message);
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.fastq.gz", "out.bam"}));
}

TEST(LineReader, LinesLongerThanTheLimit_AreRefused) {
    using tesk::tool::LineReader;
    TempDir const dir;
    std::string const path = dir.write("in", "123\n1234\n12345\n");
    LineReader reader(path, 4);
    std::string line;
    EXPECT_TRUE(reader.next(line));
    EXPECT_EQ(line, "123");
    EXPECT_TRUE(reader.next(line));
    EXPECT_EQ(line, "1234");
    try {
        reader.next(line);
        FAIL() << "a line was too long";
    } catch (tesk::tool::ToolError const& e) {
        EXPECT_EQ(std::string(e.what()), path + ": line 3: longer than 4 bytes");
    }
    // Also where it comes in pieces, packed.
    std::string const long_line(1000000, 'x');
    std::string const packed = dir.write("packed", gzip_member(long_line));
    EXPECT_EQ(lines_of(packed), long_line + "\n");
    LineReader strict(packed, 999999);
    EXPECT_THROW(strict.next(line), tesk::tool::ToolError);
}

// --- Input and output at fault -------------------------------------------------

TEST(Import, BothCommands_InputCannotBeRead_IsErrorNamingIt) {
    TempDir const dir;
    std::string const missing = dir.file("missing.fastq");
    std::string const folder = dir.path().string();
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const out = dir.write("out.bam", "old file");
        expect_failure(run_tool({c.command, missing, out}), 1,
                       "cannot open " + missing + ": No such file or directory");
        expect_failure(run_tool({c.command, folder, out}), 1,
                       "cannot read " + folder + ": Is a directory");
        expect_failure(run_tool({c.command, "", out}), 1,
                       "cannot open : No such file or directory");
        expect_failure(run_shell("exec \"$0\" $1 - \"$2\" <&-", {c.command, out}), 1,
                       "cannot read standard input: Bad file descriptor");
        EXPECT_EQ(read_file(out), "old file");
        EXPECT_EQ(names_in(dir.path()), (Names{"out.bam"}));
    }
}

TEST(Import, BothCommands_OutputAtFault_IsErrorAndOldFileStays) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const in = dir.write("in", c.input);
        expect_failure(run_tool({c.command, in, dir.file("none/out.bam")}), 1,
                       "cannot create a file beside " + dir.file("none/out.bam") +
                           ": No such file or directory");
        expect_failure(run_tool({c.command, in, "/dev/full", "--to", "sam"}), 1,
                       "cannot write to /dev/full: No space left on device");
        expect_failure(run_tool({c.command, in, "/dev/full", "--to", "bam"}), 1,
                       "cannot write to /dev/full: No space left on device");
        expect_failure(run_tool({c.command, in, "/dev/full", "--to", "bam", "--exact"}), 1,
                       "BAM file reported error on close /dev/full");
        expect_failure(run_shell("exec \"$0\" $1 \"$2\" - > /dev/full", {c.command, in}), 1,
                       "cannot write to standard output: No space left on device");
        expect_failure(run_shell("exec \"$0\" $1 \"$2\" - >&-", {c.command, in}), 1,
                       "cannot write to standard output: Bad file descriptor");
    }
    std::string const large = dir.write("in", random_fastq(500));
    for (char const* const name : {"out.sam", "out.bam"}) {
        SCOPED_TRACE(name);
        std::string const out = dir.write(name, "old file");
        bool const sam = std::string(name) == "out.sam";
        std::string const limited = "ulimit -f 8; exec \"$0\" import \"$1\" \"$2\"";
        std::string const too_large = "cannot write to " + out + ": File too large";
        expect_failure(run_shell(limited, {large, out}), 1, too_large);
        expect_failure(run_shell(limited + " --exact", {large, out}), 1,
                       sam ? too_large : "BAM file reported error on close " + out);
        EXPECT_EQ(read_file(out), "old file");
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in", "out.bam", "out.sam"}));
}

TEST(Import, BothCommands_Fifos_AreReadAndWritten) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const file = dir.write("in", c.input);
        std::string const in = make_fifo(dir, std::string(c.command) + ".in");
        std::string const out = make_fifo(dir, std::string(c.command) + ".sam");
        ProcessResult const result =
            run_shell("\"$0\" $1 \"$2\" \"$3\" & cat \"$4\" > \"$2\" & cat \"$3\"; wait",
                      {c.command, in, out, file});
        expect_done(result);
        EXPECT_EQ(result.output, sam_file(c.lines));
    }
}

TEST(Import, OldIndexBesideNewBam_IsNoted) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const in = dir.write("in", c.input);
        std::string const out = dir.file("out.bam");
        std::string const bai = dir.write("out.bam.bai", "old index");
        ProcessResult const result = run_tool({c.command, in, out});
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.errors, "tesk-bam: note: " + bai + " is older than " + out +
                                     " and belongs to another file\n");
        expect_done(run_tool({c.command, in, out, "--quiet"}));
        EXPECT_EQ(read_file(bai), "old index");
    }
}

// Sanitizers reserve more addresses than any limit leaves.
#ifndef TESK_TEST_SANITIZED

TEST(Import, MoreTextThanMemory_IsStreamed) {
    TempDir const dir;
    std::string const member = gzip_member(random_fastq(5000));
    std::string bytes;
    for (int i = 0; i < 100; ++i) bytes += member;  // 68 MB of text
    std::string const in = dir.write("in.fastq.gz", bytes);
    std::string const limited = "ulimit -v 65536; exec \"$0\" import \"$1\" \"$2\" --to $3 $4";
    expect_done(run_shell(limited, {in, "/dev/null", "sam", "--quiet"}));
    expect_done(run_shell(limited, {in, "/dev/null", "sam", "--exact"}));
    expect_done(run_shell(limited, {in, "/dev/null", "bam", "--level=1"}));
    // The limit is one: records that are held do not fit it.
    EXPECT_EQ(run_shell(limited, {in, "/dev/null", "bam", "--exact"}).exit_status, 1);
}

#endif

// --- Signals -------------------------------------------------------------------

TEST(Import, Signal_WhileWaitingForInput_RemovesTemporaryFile) {
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        TempDir const dir;
        std::string const in = make_fifo(dir, "in");
        std::string const out = dir.write("out.bam", "old file");
        Running tool({c.command, in, out});
        ASSERT_TRUE(eventually([&] { return has_temporary(dir.path()); }));
        tool.send(SIGTERM);
        EXPECT_EQ(tool.wait(), -SIGTERM);
        EXPECT_EQ(names_in(dir.path()), (Names{"in", "out.bam"}));
        EXPECT_EQ(read_file(out), "old file");
    }
}

TEST(Import, Signal_AtRandomMoments_OldFileOrNewFileAndNothingElse) {
    constexpr int N_RUNS = 25;
    TempDir const dir;
    std::string const in = dir.write("in.fastq.gz", gzip_member(random_fastq(10000)));
    for (char const* const name : {"out.sam", "out.bam"}) {
        SCOPED_TRACE(name);
        std::string const out = dir.file(name);
        expect_done(run_tool({"import", in, out}));
        std::string const whole = read_file(out);
        int n_ended_early = 0;
        interrupt_at_random(
            {"import", in, out}, N_RUNS, {SIGINT, SIGTERM, SIGKILL},
            [&] { write_file(out, "old file"); },
            [&](int status, int signal_number) {
                std::string const bytes = read_file(out);
                bool const old_file = bytes == "old file";
                EXPECT_TRUE(bytes == whole || (old_file && status == -signal_number));
                if (signal_number == SIGKILL) remove_temporaries(dir.path());
                EXPECT_EQ(names_in(dir.path()), (Names{"in.fastq.gz", name}));
                if (old_file) ++n_ended_early;
            });
        EXPECT_GT(n_ended_early, 0);
        std::filesystem::remove(out);
    }
}

// --- Progress ------------------------------------------------------------------

TEST(Import, Progress_OnTerminal_NamesStagesAndClearsItsLine) {
    TempDir const dir;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.command);
        std::string const in = dir.write("in", c.input);
        std::string const text = tool_on_terminal({c.command, in, dir.file("out.bam")});
        EXPECT_EQ(text.rfind("\rreading in", 0), 0U) << text;
        EXPECT_EQ(text.substr(text.size() - 4), "\r\x1b[K");
        std::string const exact = tool_on_terminal({c.command, in, dir.file("out.bam"), "--exact"});
        EXPECT_EQ(exact.rfind("\rreading in", 0), 0U) << exact;
        std::string const end = "\rwriting out.bam  0.0 MB\x1b[K\r\x1b[K";
        ASSERT_GE(exact.size(), end.size());
        EXPECT_EQ(exact.substr(exact.size() - end.size()), end);

        EXPECT_EQ(tool_on_terminal({c.command, in, dir.file("out.bam"), "--quiet"}), "");
    }
}

TEST(Import, Progress_SlowPipe_TellsBytesAlone) {
    TempDir const dir;
    std::string const in = dir.write("in", random_fastq(8000));  // 1.1 MB
    std::string const text = printed_on_terminal([&] {
        std::string const command =
            "(cat '" + in + "'; sleep 0.6) | '" + TOOL + "' import - '" + dir.file("out.sam") + "'";
        ::execl("/bin/bash", "bash", "-c", command.c_str(), nullptr);
    });
    EXPECT_EQ(text.rfind("\rreading standard input\x1b[K", 0), 0U) << text;
    EXPECT_NE(text.find("\rreading standard input  1.1 MB\x1b[K"), std::string::npos) << text;
}

TEST(Import, Progress_SamOnTheSameTerminal_IsNotShown) {
    TempDir const dir;
    std::string const text = tool_on_terminal({"import", dir.write("in", FASTQ), "-"});
    EXPECT_EQ(text.find("reading"), std::string::npos);
    EXPECT_EQ(text.rfind("@HD\tVN:1.6\tSO:unsorted\r\n", 0), 0U) << text;
}

// --- annotate ------------------------------------------------------------------

// A read of five bases with all that an object may hold.
Json sample_object() {
    return {{"name", "r1"},
            {"sequence", "ACGCA"},
            {"qualities", "IIIII"},
            {"stride", 5},
            {"moves", {1, 0, 1}},
            {"modbase_alphabet", "ACmGT"},
            {"modbase_names", "5mC"},
            {"modbase_threshold", 100},
            {"modbase_probs",
             {{0, 0, 0, 0, 0},
              {0, 55, 200, 0, 0},
              {9, 9, 9, 9, 9},
              {0, 5, 50, 0, 0},
              {1, 2, 3, 4, 5}}}};
}

Json object_with(char const* name, Json value) {
    Json object = sample_object();
    object[name] = std::move(value);
    return object;
}

Json object_without(char const* name) {
    Json object = sample_object();
    object.erase(name);
    return object;
}

constexpr char const* SAMPLE_COLUMNS = "r1\t4\t*\t0\t0\t*\t*\t0\t5\tACGCA\tIIIII";

struct AnnotationCase {
    char const* label;
    Json object;
    std::string fields;  // after the columns
};

TEST(Annotate, Object_WithEachAnnotation_BecomesItsFields) {
    Json bare = {{"name", "r1"}, {"sequence", "ACGCA"}, {"qualities", "IIIII"}};
    Json moves = bare;
    moves["stride"] = -128;
    moves["moves"] = {0, 126, 127, 128, 254, 255};
    Json no_channel = bare;
    no_channel["modbase_alphabet"] = "ACGT";
    no_channel["modbase_names"] = "";
    no_channel["modbase_threshold"] = 0;
    no_channel["modbase_probs"] = Json::array();
    for (int i = 0; i < 5; ++i) no_channel["modbase_probs"].push_back({1, 2, 3, 4});
    Json with_context = sample_object();
    with_context["sequence"] = "ACGCG";
    with_context["modbase_context"] = "_:XG:_:_";
    AnnotationCase const cases[] = {
        {"none", bare, ""},
        {"move table", moves, "\tmv:B:c,-128,0,126,127,0,127,1,127,127,0,127,127,1"},
        {"all", sample_object(), "\tmv:B:c,5,1,0,1\tMm:Z:C+m,0;\tMl:B:C,200"},
        {"threshold at a probability", object_with("modbase_threshold", 50),
         "\tmv:B:c,5,1,0,1\tMm:Z:C+m,0,0;\tMl:B:C,200,50"},
        {"threshold above all", object_with("modbase_threshold", 255),
         "\tmv:B:c,5,1,0,1\tMm:Z:C+m;\tMl:B:C"},
        {"number as name", object_with("modbase_names", "27551"),
         "\tmv:B:c,5,1,0,1\tMm:Z:C+27551,0;\tMl:B:C,200"},
        {"empty context", object_with("modbase_context", ""),
         "\tmv:B:c,5,1,0,1\tMm:Z:C+m,0;\tMl:B:C,200"},
        {"context of two letters", object_with("modbase_context", "_:XG:_:_"),
         "\tmv:B:c,5,1,0,1\tMm:Z:C+m?,0;\tMl:B:C,200"},
        {"no modification channel", no_channel, "\tMm:Z:\tMl:B:C"},
    };
    TempDir const dir;
    for (AnnotationCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const line = SAMPLE_COLUMNS + c.fields;
        std::string const in = dir.write("in", c.object.dump() + "\n");
        ProcessResult const printed = run_tool({"annotate", in, "-"});
        expect_done(printed);
        EXPECT_EQ(printed.output, sam_file({line}));
        expect_done(run_tool({"annotate", in, dir.file("out.bam")}));
        EXPECT_EQ(payload_of(dir.file("out.bam")), bam_payload({line}));
    }
    // A motif that ends with the read is not seen.
    ProcessResult const ends =
        run_tool({"annotate", dir.write("in", with_context.dump()), "-", "--quiet"});
    EXPECT_EQ(ends.output, sam_file({"r1\t4\t*\t0\t0\t*\t*\t0\t5\tACGCG\tIIIII\tmv:B:c,5,1,0,1\t"
                                     "Mm:Z:C+m?,0;\tMl:B:C,200"}));
}

// The calls of a channel by their definition: above the threshold in any of the
// channels of the same base.
std::vector<ModGroup> expected_groups(std::string const& sequence, Json const& probs,
                                      unsigned threshold) {
    // Alphabet AaCmhGT, names 6mA 5mC 5hmC.
    struct Channel {
        char base;
        char const* code;
        std::size_t column;
        std::vector<std::size_t> all;  // columns of the base's channels
    };
    std::vector<Channel> const channels = {
        {'A', "a", 1, {1}}, {'C', "m", 3, {3, 4}}, {'C', "h", 4, {3, 4}}};
    std::vector<ModGroup> groups;
    for (Channel const& channel : channels) {
        ModGroup group{channel.base, channel.code, false, {}};
        for (std::size_t i = 0; i < sequence.size(); ++i) {
            if (sequence[i] != channel.base) continue;
            bool called = false;
            for (std::size_t const column : channel.all) {
                called = called || probs[i][column].get<unsigned>() >= threshold;
            }
            if (called) group.calls.push_back({i, probs[i][channel.column].get<unsigned>()});
        }
        groups.push_back(group);
    }
    return groups;
}

TEST(Annotate, RandomReads_FieldsReadBack_AreWhatWentIn) {
    constexpr std::size_t N_READS = 50;
    std::mt19937 random(99);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same data each time
    std::string input;
    std::vector<Json> objects;
    for (std::size_t k = 0; k < N_READS; ++k) {
        std::size_t const length = 1 + random() % 200;
        std::string sequence(length, 'A');
        for (char& base : sequence) base = "ACGT"[random() % 4];
        Json object = {{"name", "read" + std::to_string(k)},
                       {"sequence", sequence},
                       {"qualities", std::string(length, 'I')},
                       {"stride", static_cast<int>(random() % 256) - 128},
                       {"modbase_alphabet", "AaCmhGT"},
                       {"modbase_names", "6mA 5mC 5hmC"},
                       {"modbase_threshold", random() % 256}};
        for (std::size_t i = 0; i < length; ++i) {
            object["moves"].push_back(random() % 256);
            Json row;
            for (int channel = 0; channel < 7; ++channel) row.push_back(random() % 256);
            object["modbase_probs"].push_back(row);
        }
        input += object.dump() + "\n";
        objects.push_back(object);
    }
    TempDir const dir;
    std::string const sam = dir.file("out.sam");
    expect_done(run_tool({"annotate", dir.write("in", input), sam}));
    std::vector<std::string> const lines = split_sam(read_file(sam)).alignments;
    ASSERT_EQ(lines.size(), N_READS);
    for (std::size_t k = 0; k < N_READS; ++k) {
        SCOPED_TRACE(k);
        Json const& object = objects[k];
        auto const sequence = object["sequence"].get<std::string>();
        MoveTable const table = read_move_table(lines[k]);
        EXPECT_EQ(table.stride, object["stride"].get<int>());
        EXPECT_EQ(table.moves, object["moves"].get<std::vector<unsigned>>());
        EXPECT_EQ(groups_text(read_modified_bases(lines[k], sequence)),
                  groups_text(expected_groups(sequence, object["modbase_probs"],
                                              object["modbase_threshold"].get<unsigned>())));
    }
    std::string const bam = dir.file("out.bam");
    expect_done(run_tool({"annotate", dir.file("in"), bam}));
    EXPECT_EQ(payload_of(bam), bam_payload(lines));
}

TEST(Annotate, FieldAtFault_IsRefusedWithLineAndName) {
    std::string const good(JSONL);
    std::vector<FaultCase> cases;
    auto const add = [&](char const* label, Json const& object, std::string const& message) {
        cases.push_back({label, good + object.dump() + "\n", "line 3: " + message});
    };
    for (char const* const name : {"name", "sequence", "qualities"}) {
        add(name, object_without(name), std::string("the field ") + name + " is missing");
        add(name, object_with(name, 5), std::string("the field ") + name + " is no string");
        add(name, object_with(name, nullptr), std::string("the field ") + name + " is no string");
    }
    for (char const* const name : {"modbase_alphabet", "modbase_names", "modbase_context"}) {
        add(name, object_with(name, Json::array({"5mC"})),
            std::string("the field ") + name + " is no string");
    }
    std::string const stride = "the field stride is no whole number from -128 to 127";
    for (Json const& value :
         {Json(-129), Json(128), Json(5.0), Json("5"), Json(true), Json(nullptr),
          Json(18446744073709551615U), Json(INT64_MIN), Json(4294967301)}) {
        add("stride", object_with("stride", value), stride);
    }
    std::string const threshold = "the field modbase_threshold is no whole number from 0 to 255";
    for (Json const& value : {Json(-1), Json(256), Json(0.5)}) {
        add("threshold", object_with("modbase_threshold", value), threshold);
    }
    add("moves", object_with("moves", 5), "the field moves is no array");
    for (Json const& value : {Json(-1), Json(256), Json(1.5), Json("1"), Json::array()}) {
        add("moves", object_with("moves", {1, 2, value}),
            "element 3 of the field moves is no whole number from 0 to 255");
    }
    add("moves", object_with("moves", Json::array()),
        "Zero length move table provided to generate_move_table_string");
    add("moves alone", object_without("stride"), "the field moves is there without stride");
    add("stride alone", object_without("moves"), "the field stride is there without moves");
    add("no alphabet", object_without("modbase_alphabet"),
        "the field modbase_probs is there without modbase_alphabet");
    add("no names", object_without("modbase_names"),
        "the field modbase_probs is there without modbase_names");
    add("no threshold", object_without("modbase_threshold"),
        "the field modbase_probs is there without modbase_threshold");
    add("no probabilities", object_without("modbase_probs"),
        "the field modbase_threshold is there without modbase_probs");
    Json context_alone = {
        {"name", "r"}, {"sequence", "A"}, {"qualities", "I"}, {"modbase_context", "_:_:_:_"}};
    add("context alone", context_alone, "the field modbase_context is there without modbase_probs");

    add("probabilities in no rows", object_with("modbase_probs", 7),
        "the field modbase_probs is no array");
    Json flat = sample_object();
    flat["modbase_probs"][1] = 7;
    add("a row that is none", flat, "row 2 of the field modbase_probs is no array");
    for (std::size_t const size : {4U, 6U}) {
        Json ragged = sample_object();
        ragged["modbase_probs"][4] = std::vector<int>(size, 1);
        add("a row of another length", ragged,
            "row 5 of the field modbase_probs has " + std::to_string(size) +
                " elements, the alphabet 5 letters");
    }
    Json element = sample_object();
    element["modbase_probs"][1][3] = 256;
    add("an element out of range", element,
        "element 4 of row 2 of the field modbase_probs is no whole number from 0 to 255");
    std::string const mismatch =
        "Mismatch between modbase_probs size and sequence length * num channels in "
        "modbase_alphabet!";
    Json few = sample_object();
    few["modbase_probs"].erase(4);
    add("a row too few", few, mismatch);
    Json many = sample_object();
    many["modbase_probs"].push_back({1, 2, 3, 4, 5});
    add("a row too many", many, mismatch);

    add("name of a modification", object_with("modbase_names", "5fC"),
        "Unknown modified base abbreviation: 5fC");
    add("context", object_with("modbase_context", "_:XG:_"),
        "Invalid base modification context string.");
    add("alphabet begins with a modification", object_with("modbase_alphabet", "mACGT"),
        "the field modbase_alphabet does not begin with one of A, C, G and T");
    Json no_base = sample_object();
    no_base["sequence"] = "ACNCA";
    add("sequence with another letter", no_base,
        "modified bases need a sequence of A, C, G and T alone");

    add("unknown field", object_with("modbase_thresold", 5), "unknown field modbase_thresold");
    add("lengths", object_with("qualities", "IIII"), "sequence and qscore do not match size!");
    add("no name", object_with("name", ""), "Empty read_name string provided!");
    add("tab in the name", object_with("name", "a\tb"),
        "character 2 of the name is not between ! and ~, as SAM needs it");
    add("NUL in the qualities", object_with("qualities", std::string("II\0II", 5)),
        "character 3 of the qualities is not between ! and ~, as SAM needs it");
    Json lower = {{"name", "r"}, {"sequence", "acgt"}, {"qualities", "IIII"}};
    expect_faults("annotate", cases);
    // Only the library itself refuses it.
    add("lower case", lower, "Sam to Bam parsing failed: Invalid sequence code detected");
    expect_faults("annotate", cases, "--exact");
}

TEST(Annotate, LineThatIsNoObject_IsRefusedWithItsNumber) {
    std::string const good(JSONL);
    std::string const deep = R"({"name":)" + std::string(200000, '[');
    expect_faults(
        "annotate",
        {
            {"no JSON", good + "name\n", "line 3: no valid JSON at byte 2"},
            {"end inside the object", R"({"name": "r1")", "line 1: no valid JSON at byte 14"},
            {"two objects", R"({} {})", "line 1: no valid JSON at byte 4"},
            {"no UTF-8", "{\"name\": \"\xff\"}", "line 1: no valid JSON at byte 11"},
            {"NUL", std::string("{\0}", 3), "line 1: no valid JSON at byte 2"},
            {"number too large", R"({"stride": 1e999})",
             "line 1: no valid JSON: a number is too large"},
            {"an array", "[1, 2]", "line 1: not a JSON object"},
            {"array of objects", R"([{"name": "r1"}])", "line 1: not a JSON object"},
            {"null", "null", "line 1: not a JSON object"},
            {"blanks alone", good + "  \n", "line 3: no valid JSON at byte 3"},
            {"an empty line between", good + "\n" + good,
             "line 3: an empty line, and the input goes on"},
            {"an object over two lines", "{\n\"name\": \"r1\"}\n",
             "line 1: no valid JSON at byte 2"},
            {"empty object", "{}", "line 1: the field name is missing"},
            {"field twice", R"({"name": "a", "name": "a"})",
             "line 1: the field name is there twice"},
            {"field with an escape twice", R"({"name": "a", "n\u0061me": "a"})",
             "line 1: the field name is there twice"},
            {"unknown field", R"({"Name": "a"})", "line 1: unknown field Name"},
            {"object in a field", R"({"name": {"a": 1, "a": 2}})",
             "line 1: the field name is no string"},
            {"deep nesting, open", deep, "line 1: no valid JSON at byte 200009"},
            {"deep nesting, closed", deep + std::string(200000, ']') + "}",
             "line 1: the field name is no string"},
        });
}

// --- Real files ----------------------------------------------------------------

struct RealCase {
    char const* file;
    std::size_t n_reads;
};

struct FastqRead {
    std::string name;
    std::string sequence;
    std::string qualities;
};

// Reads FASTQ text in the plainest way.
std::vector<FastqRead> read_fastq(std::string const& text) {
    std::vector<FastqRead> reads;
    std::istringstream in(text);
    FastqRead read;
    for (std::string line; std::getline(in, line);) {
        read.name = line.substr(1, line.find(' ') - 1);
        std::getline(in, read.sequence);
        std::getline(in, line);
        std::getline(in, read.qualities);
        reads.push_back(read);
    }
    return reads;
}

TEST(Import, RealFiles_ToBam_ReadBackTheSame) {
    char const* const folder =
        std::getenv("TESK_BAM_REAL_DATA");  // NOLINT(concurrency-mt-unsafe): one thread
    if (folder == nullptr) GTEST_SKIP() << "TESK_BAM_REAL_DATA names no folder of sample files";
    constexpr RealCase CASES[] = {{"reads_4952.fastq", 4952}, {"reads_1499.fastq.gz", 1499}};
    TempDir const dir;
    for (RealCase const& c : CASES) {
        SCOPED_TRACE(c.file);
        std::string const in = std::string(folder) + "/" + c.file;
        std::string const bam = dir.file("out.bam");
        expect_done(run_tool({"import", in, bam}));
        ProcessResult const tested = run_process({"gzip", "-t", "--suffix", ".bam", bam});
        EXPECT_EQ(tested.exit_status, 0) << tested.errors;

        ProcessResult const text = run_process({"gzip", "-dcf", in});
        std::vector<FastqRead> const reads = read_fastq(text.output);
        ASSERT_EQ(reads.size(), c.n_reads);
        tesk::util::bam::BAMFileHandler handler;
        ASSERT_TRUE(handler.read_from_bam_file(bam)) << handler.error_message;
        ASSERT_EQ(handler.records.size(), c.n_reads);
        BamPayload const payload = split_bam_payload(payload_of(bam));
        ASSERT_EQ(payload.records.size(), c.n_reads);
        for (std::size_t i = 0; i < c.n_reads; ++i) {
            FastqRead const& read = reads[i];
            std::string const line = read.name + "\t4\t*\t0\t0\t*\t*\t0\t" +
                                     std::to_string(read.sequence.size()) + "\t" + read.sequence +
                                     "\t" + read.qualities;
            EXPECT_EQ(sam_line_of_record(payload.records[i], {}), line);
            EXPECT_EQ(handler.records[i].sam_line, line);
        }
    }
}

}  // namespace

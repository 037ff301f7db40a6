// What the documents show is what the project does.

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/process.h"
#include "tests/support/temp_file.h"
#include "tests/support/text.h"
#ifdef TESK_BAM_HAS_TOOL
#include "tests/support/tool_runner.h"
#endif
#include "util/bam/bam_file.h"

namespace {

using namespace tesk::test;
using tesk::util::bam::BAMFileHandler;

std::string source_file(std::string const& name) {
    return read_file(std::string(TESK_BAM_SOURCE_DIR) + "/" + name);
}

// Text between two marks, the first one searched from the beginning.
std::string between(std::string const& text, std::string const& begin, std::string const& end) {
    std::size_t const from = text.find(begin);
    if (from == std::string::npos) return "no " + begin;
    std::size_t const to = text.find(end, from + begin.size());
    return text.substr(from + begin.size(), to - from - begin.size());
}

TEST(Documents, Readme_Program_IsTheExample) {
    EXPECT_EQ(between(source_file("README.md"), "```cpp\n", "```"),
              source_file("examples/convert.cpp"));
}

TEST(Documents, Readme_SecondProgram_IsTheExample) {
    EXPECT_EQ(between(source_file("README.md"), "### Files of any origin\n\n```cpp\n", "```"),
              source_file("examples/count.cpp"));
}

TEST(Documents, Header_OpeningExample_IsTheExample) {
    std::string shown;
    std::string const block =
        between(source_file("util/bam/bam_file.h"), "BAI index:\n//\n", "//\n// Errors.");
    for (std::size_t begin = 0; begin < block.size();) {
        std::size_t const end = block.find('\n', begin);
        std::string const line = block.substr(begin, end - begin);
        shown += (line.size() > 7 ? line.substr(7) : "") + "\n";
        begin = end + 1;
    }
    EXPECT_EQ(shown, source_file("examples/convert.cpp"));
}

TEST(Documents, Example_ShippedFile_IsConvertedAndIndexed) {
    TempDir const dir;
    std::string const bam = dir.file("out.bam");
    std::string const sam = std::string(TESK_BAM_SOURCE_DIR) + "/examples/quickstart.sam";
    ProcessResult const result = run_process({TESK_BAM_EXAMPLE_CONVERT, sam, bam});
    EXPECT_EQ(result.exit_status, 0) << result.errors;
    EXPECT_EQ(read_file(bam + ".bai").substr(0, 8), std::string("BAI\1\4\0\0\0", 8));
    BAMFileHandler handler;
    ASSERT_TRUE(handler.read_from_bam_file(bam)) << handler.error_message;
    EXPECT_EQ(handler.records.size(), 16U);
}

TEST(Documents, CountExample_FileToRepair_IsCountedAndReported) {
    TempDir const dir;
    std::string const sam = dir.write("old.sam",
                                      "@SQ\tSN:chr1\tLN:9\n"
                                      "a\t4\t*\t0\t0\t*\t*\t0\t0\tac\tII\n"
                                      "b\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\n");
    ProcessResult const result = run_process({TESK_BAM_EXAMPLE_COUNT, sam});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.output, "2\n");
    EXPECT_EQ(result.errors,
              "repaired: SEQ has lower-case bases: changed to upper case (once, in line 2)\n");
    ProcessResult const missing = run_process({TESK_BAM_EXAMPLE_COUNT, dir.file("none.sam")});
    EXPECT_EQ(missing.exit_status, 1);
    EXPECT_EQ(missing.errors,
              "cannot open " + dir.file("none.sam") + ": No such file or directory\n");
}

TEST(Documents, Example_MissingFile_SaysSo) {
    TempDir const dir;
    ProcessResult const result =
        run_process({TESK_BAM_EXAMPLE_CONVERT, dir.file("none.sam"), dir.file("out.bam")});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.errors, "Cannot open file " + dir.file("none.sam") + "\n");
}

// The lines that the example prints are those it read back; what they should be
// is worked out from their own columns.
TEST(Documents, BasecallerExample_Run_PrintsTheReadsOfAValidBam) {
    TempDir const dir;
    std::string const bam = dir.file("out.bam");
    ProcessResult const result = run_process({TESK_BAM_EXAMPLE_BASECALLER, bam});
    EXPECT_EQ(result.exit_status, 0) << result.errors;
    EXPECT_EQ(run_process({"gzip", "-t", bam}).exit_status, 0);

    SamText const printed = split_sam(result.output);
    std::string expected_payload = encode_bam_header(
        "@HD\tVN:1.6\tSO:unknown\n"
        "@PG\tID:basecaller\tPN:example_basecaller_output\n",
        {});
    ASSERT_EQ(printed.alignments.size(), 5U);
    for (std::size_t k = 0; k < printed.alignments.size(); ++k) {
        std::string const& line = printed.alignments[k];
        SCOPED_TRACE(line);
        expected_payload += encode_bam_record(line, {});
        std::vector<std::string_view> const columns = split(line, '\t');
        ASSERT_EQ(columns.size(), 14U);
        std::string_view const sequence = columns[9];
        EXPECT_EQ(columns[0], "read" + std::to_string(k + 1));
        EXPECT_EQ(columns[8], std::to_string(sequence.size()));
        EXPECT_EQ(columns[10].size(), sequence.size());
        // Stride 5, then one entry of 1 for each base; the others are 0.
        EXPECT_EQ(columns[11].substr(0, 9), "mv:B:c,5,");
        std::string_view const moves = columns[11].substr(9);
        EXPECT_EQ(static_cast<std::size_t>(std::count(moves.begin(), moves.end(), '1')),
                  sequence.size());
        EXPECT_EQ(moves.find_first_not_of(",01"), std::string::npos);
        // Each C followed by G that does not end the read, in both channels.
        std::string skips;
        std::size_t n_skipped = 0;
        for (std::size_t i = 0; i < sequence.size(); ++i) {
            if (sequence[i] != 'C') continue;
            bool const is_called = i + 2 < sequence.size() && sequence[i + 1] == 'G';
            if (is_called) skips += "," + std::to_string(n_skipped);
            n_skipped = is_called ? 0 : n_skipped + 1;
        }
        EXPECT_EQ(columns[12], "Mm:Z:C+m?" + skips + ";C+h?" + skips + ";");
        auto const n_calls = std::count(skips.begin(), skips.end(), ',');
        EXPECT_EQ(columns[13].substr(0, 6), "Ml:B:C");
        EXPECT_EQ(std::count(columns[13].begin(), columns[13].end(), ','), 2 * n_calls);
    }
    EXPECT_EQ(inflate_bgzf(read_file(bam)), expected_payload);
}

#ifdef TESK_BAM_HAS_TOOL

// What a manual shows of a session: a command, and the lines that it prints.
struct Shown {
    std::string command;
    std::string output;
};

// The commands of a part of the manual: indented lines after "$ ".
std::vector<Shown> sessions_in(std::string_view part) {
    std::vector<Shown> sessions;
    bool open = false;
    std::string blank;  // lines that belong to the output where more of it follows
    for (std::string_view const line : split(part, '\n')) {
        bool const indented = line.substr(0, 4) == "    ";
        if (line.substr(0, 6) == "    $ ") {
            sessions.push_back({std::string(line.substr(6)), ""});
            open = true;
        } else if (indented && open) {
            sessions.back().output += blank + std::string(line.substr(4)) + "\n";
        } else if (line.empty() && open) {
            blank += "\n";
            continue;
        } else {
            open = false;
        }
        blank.clear();
    }
    return sessions;
}

// A line "..." stands for any lines.
bool is_as_shown(std::string const& printed, std::string const& shown) {
    std::size_t const gap = shown.find("...\n");
    if (gap == std::string::npos) return printed == shown;
    std::string const end = shown.substr(gap + 4);
    return printed.size() >= gap + end.size() && printed.compare(0, gap, shown, 0, gap) == 0 &&
           printed.compare(printed.size() - end.size(), end.size(), end) == 0;
}

// What "cat" shows is what the files are that later commands read.
TEST(Documents, Manual_EveryCommand_PrintsWhatIsShown) {
    TempDir const dir;
    auto const run = [&](std::string const& command) {
        return run_shell(
            "cd \"$1\" && tool=$0; tesk-bam() { \"$tool\" \"$@\"; }\n{ " + command + "\n} 2>&1",
            {dir.path().string()});
    };
    dir.write("reads.sam", source_file("examples/quickstart.sam"));
    std::size_t n_commands = 0;
    std::string const manual = source_file("docs/tesk-bam.md");
    for (std::size_t begin = 0; begin != std::string::npos;) {
        std::size_t const end = manual.find("\n## ", begin + 1);
        std::string const part = manual.substr(begin, end - begin);
        begin = end;
        ASSERT_EQ(run("tesk-bam convert reads.sam reads.bam --index").output, "");
        for (Shown const& shown : sessions_in(part)) {
            SCOPED_TRACE(shown.command);
            if (shown.command == "ls") continue;  // has the files of other parts, too
            if (shown.command.substr(0, 4) == "cat ") {
                dir.write(shown.command.substr(4), shown.output);
                run("gzip -kf " + shown.command.substr(4));
                continue;
            }
            ++n_commands;
            std::string const printed = run(shown.command).output;
            EXPECT_TRUE(is_as_shown(printed, shown.output)) << printed;
        }
    }
    EXPECT_GE(n_commands, 20U);
}

#endif

TEST(Documents, Readme_Version_IsTheChangelogsNewest) {
    std::string const newest = between(source_file("CHANGELOG.md"), "## ", " ");
    EXPECT_EQ(newest, TESK_BAM_VERSION);
}

}  // namespace

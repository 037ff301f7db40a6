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

TEST(Documents, Readme_Version_IsTheChangelogsNewest) {
    std::string const newest = between(source_file("CHANGELOG.md"), "## ", " ");
    EXPECT_EQ(newest, TESK_BAM_VERSION);
}

}  // namespace

// What the documents show is what the project does.

#include <gtest/gtest.h>

#include <string>

#include "tests/support/process.h"
#include "tests/support/temp_file.h"
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

TEST(Documents, Readme_Version_IsTheChangelogsNewest) {
    std::string const newest = between(source_file("CHANGELOG.md"), "## ", " ");
    EXPECT_EQ(newest, TESK_BAM_VERSION);
}

}  // namespace

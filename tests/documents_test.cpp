// What the documents show is what the project does.

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/page.h"
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

TEST(Documents, Readme_Program_IsTheExample) {
    EXPECT_EQ(between(source_file("README.md"), "```cpp\n", "```"),
              source_file("examples/convert.cpp"));
}

TEST(Documents, Readme_SecondProgram_IsTheExample) {
    EXPECT_EQ(between(source_file("README.md"), "### Files of any origin\n\n```cpp\n", "```"),
              source_file("examples/count.cpp"));
}

// Each program of the guide stands behind a link to its file.
TEST(Documents, Guide_EveryProgram_IsTheExample) {
    constexpr std::string_view LINK = "(../examples/";
    constexpr std::string_view FENCE = "\n```cpp\n";
    std::string const page = source_file("docs/guide.md");
    std::size_t n_programs = 0;
    for (std::size_t at = page.find(FENCE); at != std::string::npos; at = page.find(FENCE, at)) {
        ++n_programs;
        std::size_t const name = page.rfind(LINK, at) + LINK.size();
        std::string const file = page.substr(name, page.find(')', name) - name);
        SCOPED_TRACE(file);
        at += FENCE.size();
        EXPECT_EQ(page.substr(at, page.find("```", at) - at), source_file("examples/" + file));
    }
    EXPECT_EQ(n_programs, 11U);
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

// Runs a command in a folder.
// @param programs  folders of programs, each with a ':' behind it
std::string printed_in(std::string const& folder, std::string const& programs,
                       std::string const& command) {
    return run_shell("cd \"$1\" && export PATH=\"$2$PATH\"\n{ " + command + "\n} 2>&1",
                     {folder, programs})
        .output;
}

// What "cat" shows is what the files are that later commands read.
TEST(Documents, Manual_EveryCommand_PrintsWhatIsShown) {
    TempDir const dir;
    auto const run = [&](std::string const& command) {
        return printed_in(dir.path().string(), TESK_BAM_PROGRAMS ":", command);
    };
    dir.write("reads.sam", source_file("examples/quickstart.sam"));
    std::size_t n_commands = 0;
    std::string const manual = source_file("docs/tesk-bam.md");
    for (std::size_t begin = 0; begin != std::string::npos;) {
        std::size_t const end = manual.find("\n## ", begin + 1);
        std::string const part = manual.substr(begin, end - begin);
        begin = end;
        ASSERT_EQ(run("tesk-bam convert reads.sam reads.bam --index"), "");
        for (Shown const& shown : commands_in(part)) {
            SCOPED_TRACE(shown.command);
            if (shown.command == "ls") continue;  // has the files of other parts, too
            if (shown.command.substr(0, 4) == "cat ") {
                dir.write(shown.command.substr(4), shown.output);
                run("gzip -kf " + shown.command.substr(4));
                continue;
            }
            ++n_commands;
            std::string const printed = run(shown.command);
            EXPECT_TRUE(is_as_shown(printed, shown.output)) << printed;
        }
    }
    EXPECT_GE(n_commands, 20U);
}

// Runs a page's commands from the top to the bottom, as a newcomer works through it.
// @return  how many there are
std::size_t expect_as_written(std::string const& page, std::string const& folder,
                              std::string const& programs) {
    std::vector<Shown> const commands = commands_in(source_file(page));
    for (Shown const& shown : commands) {
        SCOPED_TRACE(shown.command);
        std::string const printed = printed_in(folder, programs, shown.command);
        EXPECT_TRUE(is_as_shown(printed, shown.output)) << printed;
    }
    return commands.size();
}

// Who has followed the page's first block says where that led; else the test stands in
// for it.
TEST(Documents, Guide_EveryCommand_PrintsWhatIsShown) {
    TempDir const dir;
    dir.write("reads.sam", source_file("examples/quickstart.sam"));
    char const* const followed = std::getenv("TESK_BAM_GUIDE_FOLDER");
    std::size_t const n_commands =
        followed != nullptr
            ? expect_as_written("docs/guide.md", followed, "")
            : expect_as_written("docs/guide.md", dir.path().string(), TESK_BAM_PROGRAMS ":");
    EXPECT_GE(n_commands, 30U);
}

TEST(Documents, Workflow_EveryCommand_PrintsWhatIsShown) {
    char const* const followed = std::getenv("TESK_BAM_WORKFLOW_FOLDER");
    if (followed == nullptr) GTEST_SKIP() << "needs what cmake/checks/workflow sets up";
    EXPECT_GE(expect_as_written("docs/workflow.md", followed, ""), 10U);
}

#endif

// --- Pages ---------------------------------------------------------------------

constexpr char const* PAGES[] = {
    "README.md",
    "CONTRIBUTING.md",
    "CHANGELOG.md",
    "docs/guide.md",
    "docs/tesk-bam.md",
    "docs/formats.md",
    "docs/memory-and-limits.md",
    "docs/behaviours.md",
};

bool holds(std::vector<std::string> const& texts, std::string const& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// A file or folder beside the page, a heading of a page, or both.
TEST(Documents, Pages_EveryLink_LeadsSomewhere) {
    std::filesystem::path const root = TESK_BAM_SOURCE_DIR;
    std::size_t n_links = 0;
    for (std::string const page : PAGES) {
        for (std::string const& link : links_of(source_file(page))) {
            SCOPED_TRACE(page + ": " + link);
            ++n_links;
            std::size_t const hash = link.find('#');
            std::string const file = link.substr(0, hash);
            std::filesystem::path target = root / page;
            if (!file.empty()) target = target.parent_path() / file;
            ASSERT_TRUE(std::filesystem::exists(target));
            if (hash == std::string::npos) continue;
            EXPECT_TRUE(holds(anchors_of(read_file(target.string())), link.substr(hash + 1)));
        }
    }
    EXPECT_GE(n_links, 150U);
}

// All test programs' text, any white space one blank.
std::string text_of_tests() {
    std::string text;
    for (auto const& entry :
         std::filesystem::directory_iterator(std::string(TESK_BAM_SOURCE_DIR) + "/tests")) {
        if (entry.path().extension() != ".cpp") continue;
        for (char const c : read_file(entry.path().string())) {
            bool const is_blank = c == ' ' || c == '\n';
            if (!is_blank || text.empty() || text.back() != ' ') text += is_blank ? ' ' : c;
        }
    }
    return text;
}

// What a page says is pinned by the test that it names: "Group.Name".
TEST(Documents, Pages_EveryTestNamed_IsThere) {
    std::string const tests = text_of_tests();
    for (std::string const page : {"docs/behaviours.md", "docs/memory-and-limits.md"}) {
        std::vector<std::string> const names = comments_of(source_file(page), "test");
        EXPECT_GE(names.size(), 30U);
        for (std::string const& name : names) {
            std::size_t const point = name.find('.');
            std::string const begin =
                "(" + name.substr(0, point) + ", " + name.substr(point + 1) + ")";
            EXPECT_NE(tests.find(begin), std::string::npos) << page << " names " << name;
        }
    }
}

// --- Behaviours ----------------------------------------------------------------

TEST(Documents, Behaviours_EveryEntry_IsWholeListedAndPinned) {
    std::string const page = source_file("docs/behaviours.md");
    std::vector<std::string> const links = links_of(page);
    for (std::string const& anchor : anchors_of(page)) {
        bool const is_title = anchor == "behaviours-worth-knowing";
        EXPECT_TRUE(is_title || holds(links, "#" + anchor)) << anchor << " is not in the list";
    }
    std::size_t n_entries = 0;
    for (std::size_t begin = page.find("\n### "); begin != std::string::npos; ++n_entries) {
        std::size_t const end = std::min(page.find("\n### ", begin + 1), page.find("\n## ", begin));
        std::string const entry = page.substr(begin, end - begin);
        begin = page.find("\n### ", begin + 1);
        SCOPED_TRACE(entry);
        std::size_t const happens = entry.find("\n- What happens: ");
        std::size_t const follows = entry.find("\n- Consequence: ");
        std::size_t const to_do = entry.find("\n- What to do: ");
        EXPECT_TRUE(happens < follows && follows < to_do && to_do < entry.size());
        EXPECT_FALSE(comments_of(entry, "test").empty());
    }
    EXPECT_GE(n_entries, 80U);
}

// An entry says which comment of the source it is about: "<!-- deliberate: " and the
// beginning of what follows "Deliberate:" there.
TEST(Documents, Behaviours_EveryDeliberateComment_HasItsEntry) {
    constexpr std::string_view MARK = "Deliberate: ";
    std::vector<std::string> const entries =
        comments_of(source_file("docs/behaviours.md"), "deliberate");
    std::vector<bool> used(entries.size());
    std::string const source = source_file("util/bam/bam_file.cpp");
    for (std::size_t at = source.find(MARK); at != std::string::npos; at = source.find(MARK, at)) {
        at += MARK.size();
        bool found = false;
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (source.compare(at, entries[i].size(), entries[i]) != 0) continue;
            used[i] = found = true;
        }
        EXPECT_TRUE(found) << source.substr(at, source.find('\n', at) - at);
    }
    for (std::size_t i = 0; i < entries.size(); ++i) EXPECT_TRUE(used[i]) << entries[i];
}

// --- Memory and limits ---------------------------------------------------------

TEST(Documents, Memory_SizesOfTypes_AreThose) {
    std::vector<TableRow> const rows =
        table_behind(source_file("docs/memory-and-limits.md"), "table: sizes");
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_EQ(rows[0].at(1), std::to_string(sizeof(BAMFileHandler::BamRecord)));
    EXPECT_EQ(rows[1].at(1), std::to_string(sizeof(BAMFileHandler::AuxData)));
    EXPECT_EQ(rows[2].at(1), std::to_string(sizeof(BAMFileHandler::RefSeq)));
}

TEST(Documents, Memory_MeasuredFigures_AreThoseOfTheReadme) {
    std::string const readme = source_file("README.md");
    std::string const page = source_file("docs/memory-and-limits.md");
    for (char const* const table : {"table: measured", "table: measured tool"}) {
        for (TableRow const& row : table_behind(page, table)) {
            std::string line = "|";
            for (std::string const& cell : row) line += cell.empty() ? " |" : " " + cell + " |";
            EXPECT_NE(readme.find("\n" + line + "\n"), std::string::npos) << line;
        }
    }
}

TEST(Documents, Readme_Version_IsTheChangelogsNewest) {
    std::string const newest = between(source_file("CHANGELOG.md"), "## ", " ");
    EXPECT_EQ(newest, TESK_BAM_VERSION);
}

}  // namespace

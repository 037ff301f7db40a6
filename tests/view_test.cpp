// The command that prints records, all or those that overlap a region.

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/index_builder.h"
#include "tests/support/process.h"
#include "tests/support/temp_file.h"
#include "tests/support/text.h"
#include "tests/support/tool_runner.h"
#include "tests/support/tool_samples.h"

namespace {

using namespace tesk::test;

// --- Whole files ---------------------------------------------------------------

TEST(View, WholeFile_OfEitherFormat_IsItsText) {
    TempDir const dir;
    for (std::string const& bytes : {sample_sam(), sample_bam(), gzip_member(sample_sam())}) {
        std::string const file = dir.write("file", bytes);
        ProcessResult const all = run_tool({"view", file});
        expect_done(all);
        EXPECT_EQ(all.output, sample_sam());
        ProcessResult const bare = run_tool({"view", file, "--no-header"});
        expect_done(bare);
        EXPECT_EQ(bare.output, joined(LINES));
        for (char const* const option : {"--quiet", "--no-header"}) {
            ProcessResult const count = run_tool({"view", file, "--count", option});
            expect_done(count);
            EXPECT_EQ(count.output, "4\n");
        }
        ProcessResult const piped = run_shell("\"$0\" view - chr1 --count < \"$1\"", {file});
        expect_done(piped);
        EXPECT_EQ(piped.output, "2\n");
    }
    EXPECT_EQ(names_in(dir.path()), Names{"file"});
}

TEST(View, NothingInFile_PrintsNothing) {
    TempDir const dir;
    std::string const file = dir.write("file", "");
    ProcessResult const all = run_tool({"view", file});
    expect_done(all);
    EXPECT_EQ(all.output, "");
    EXPECT_EQ(run_tool({"view", file, "--count"}).output, "0\n");
}

TEST(View, Repairs_AreNoted) {
    TempDir const dir;
    std::string const file =
        dir.write("file", "a\t4\t*\t0\t0\t*\t*\t0\t0\tac\tII\nb\t4\t*\t0\t0\t*\t*\t0\t0\tA\tII\n");
    ProcessResult const result = run_tool({"view", file});
    EXPECT_EQ(result.exit_status, 1);
    std::string const error =
        "tesk-bam: " + file + ": line 2, column QUAL: 2 qualities for 1 bases\n";
    EXPECT_EQ(result.errors, "tesk-bam: note: " + file +
                                 ": repaired: SEQ has lower-case bases: changed to upper case "
                                 "(once, in line 1)\n" +
                                 error);
    EXPECT_EQ(run_tool({"view", file, "--quiet"}).errors, error);
}

// --- Regions ---------------------------------------------------------------------

// Records on chr1 at 100 (one base, unmapped) and 300 to 304; on chr2 at 10 to 13.
struct RegionCase {
    char const* label;
    std::vector<std::string> regions;
    std::vector<std::size_t> lines;  // in the order of a sorted file
};

TEST(View, Region_OfEverySpelling_SelectsWhatOverlapsIt) {
    RegionCase const cases[] = {
        {"whole reference", {"chr1"}, {3, 1}},
        {"other reference", {"chr2"}, {0}},
        {"one base", {"chr1:100-100"}, {3}},
        {"base before", {"chr1:99-99"}, {}},
        {"base behind", {"chr1:101-101"}, {}},
        {"from a position on", {"chr1:101"}, {1}},
        {"last base", {"chr1:304-304"}, {1}},
        {"behind the last base", {"chr1:305-305"}, {}},
        {"up to the first base", {"chr1:1-300"}, {3, 1}},
        {"up to the base before it", {"chr1:1-299"}, {3}},
        {"commas", {"chr1:1,00-1,000"}, {3, 1}},
        {"beyond the reference", {"chr1:304-99,999,999,999"}, {1}},
        {"beyond every number", {"chr1:304-99999999999999999999999999"}, {1}},
        {"wholly beyond", {"chr1:5000-6000"}, {}},
        {"two references", {"chr2", "chr1:300-300"}, {1, 0}},
        {"overlapping regions, each record once", {"chr1:90-310", "chr1", "chr1:300-301"}, {3, 1}},
    };
    TempDir const dir;
    std::string const sam = dir.write("in.sam", sorted_header() + joined(sorted_lines()));
    std::string const bam = dir.file("in.bam");
    expect_done(run_tool({"convert", sam, bam, "--index"}));
    std::string const bare =
        dir.write("bare.bam", bam_file(bam_payload(sorted_header(), sorted_lines())));
    for (RegionCase const& c : cases) {
        std::string expected;
        for (std::size_t const i : c.lines) expected += LINES[i] + "\n";
        for (std::string const& file : {sam, bam, bare}) {
            SCOPED_TRACE(std::string(c.label) + " in " + file);
            std::vector<std::string> arguments = {"view", file, "--no-header"};
            arguments.insert(arguments.end(), c.regions.begin(), c.regions.end());
            ProcessResult const result = run_tool(arguments);
            expect_done(result);
            EXPECT_EQ(result.output, expected);
            arguments.emplace_back("--count");
            EXPECT_EQ(run_tool(arguments).output, std::to_string(c.lines.size()) + "\n");
            arguments = {"view", file};
            arguments.insert(arguments.end(), c.regions.begin(), c.regions.end());
            EXPECT_EQ(run_tool(arguments).output, sorted_header() + expected);
        }
    }
}

TEST(View, Region_NamesWithColons_AreTakenWholeFirst) {
    TempDir const dir;
    std::string const columns = "\t0\t1M\t*\t0\t0\tA\tI\n";
    std::string const text =
        "a\t0\tHLA:1\t5" + columns + "b\t0\tHLA:1:5-5\t7" + columns + "c\t0\tHLA\t1" + columns;
    std::string const file = dir.write(
        "in.sam", "@SQ\tSN:HLA:1\tLN:9\n@SQ\tSN:HLA:1:5-5\tLN:9\n@SQ\tSN:HLA\tLN:9\n" + text);
    RegionCase const cases[] = {
        {"a name like a region", {"HLA:1"}, {0}},
        {"a longer name like a region", {"HLA:1:5-5"}, {1}},
        {"a region in it", {"HLA:1:5-5:7-7"}, {1}},
        {"a region of the first", {"HLA:1:5"}, {0}},
        {"a region of the last", {"HLA:1-1"}, {2}},
    };
    std::vector<std::string_view> const lines = split(text, '\n');
    for (RegionCase const& c : cases) {
        SCOPED_TRACE(c.label);
        ProcessResult const result = run_tool({"view", file, "--no-header", c.regions[0]});
        expect_done(result);
        EXPECT_EQ(result.output, std::string(lines[c.lines[0]]) + "\n");
    }
}

struct WrongRegion {
    char const* region;
    char const* message;
};

TEST(View, RegionAtFault_IsWrongUse) {
    constexpr WrongRegion CASES[] = {
        {"chr1:0-5", "region chr1:0-5: positions begin at 1"},
        {"chr1:0", "region chr1:0: positions begin at 1"},
        {"chr1:10-9", "region chr1:10-9: it ends before it begins"},
        {"chr1:", "region chr1:: write it as chr1:FIRST-LAST"},
        {"chr1:-5", "region chr1:-5: write it as chr1:FIRST-LAST"},
        {"chr1:5-", "region chr1:5-: write it as chr1:FIRST-LAST"},
        {"chr1:1-2-3", "region chr1:1-2-3: write it as chr1:FIRST-LAST"},
        {"chr1:a-b", "region chr1:a-b: write it as chr1:FIRST-LAST"},
        {"chr1:,5", "region chr1:,5: write it as chr1:FIRST-LAST"},
        {"chr1:5,", "region chr1:5,: write it as chr1:FIRST-LAST"},
        {"chr1:1,,5", "region chr1:1,,5: write it as chr1:FIRST-LAST"},
        {"chr1: 5", "region chr1: 5: write it as chr1:FIRST-LAST"},
        {"plasmid", "unknown reference plasmid"},
        {"scafold", "unknown reference scafold: did you mean scaffold?"},
        {"scafold:1-5", "unknown reference scafold: did you mean scaffold?"},
        {"scafold:x", "unknown reference scafold:x"},
        {"sc", "unknown reference sc: did you mean scaffold?"},
        {"chr3", "unknown reference chr3"},
        {"", "unknown reference "},
    };
    TempDir const dir;
    std::string const file = dir.write(
        "in.sam", "@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n@SQ\tSN:scaffold\tLN:5\n");
    for (WrongRegion const& c : CASES) {
        SCOPED_TRACE(c.region);
        expect_failure(run_tool({"view", file, "chr1", c.region}), 2, c.message);
    }
}

// --- Against a scan of one's own -----------------------------------------------------

struct PlacedLine {
    std::string text;
    std::size_t reference = 0;
    std::int64_t beg = 0;  // 1-based, both included
    std::int64_t end = 0;
};

constexpr std::size_t N_REFERENCES = 40;
constexpr std::int64_t REFERENCE_BASES = 300000;

// Reads of one base to long spliced ones, some right at the windows of the index,
// in coordinate order.
std::vector<PlacedLine> random_lines(std::size_t n) {
    std::mt19937 random(99);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same data each time
    auto const below = [&](std::int64_t limit) {
        return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(limit));
    };
    std::vector<PlacedLine> lines;
    for (std::size_t i = 0; i < n; ++i) {
        PlacedLine line;
        line.reference = static_cast<std::size_t>(below(N_REFERENCES));
        std::int64_t const skipped = i % 7 == 0 ? 1 + below(100000) : 1 + below(50);
        line.beg = i % 5 == 0 ? 16384 * (1 + below(10)) + below(3) : 1 + below(190000);
        line.end = line.beg + 2 + skipped + 2;
        line.text = "r" + std::to_string(i) + "\t0\tref" + std::to_string(line.reference) + "\t" +
                    std::to_string(line.beg) + "\t9\t2M" + std::to_string(skipped) +
                    "N3M\t*\t0\t0\tACGTA\tIIIII";
        lines.push_back(line);
    }
    std::stable_sort(lines.begin(), lines.end(), [](PlacedLine const& a, PlacedLine const& b) {
        return a.reference != b.reference ? a.reference < b.reference : a.beg < b.beg;
    });
    return lines;
}

TEST(View, RandomRegions_ByIndexAndByScanning_AreThoseOfABruteForceScan) {
    std::vector<PlacedLine> const lines = random_lines(20000);
    std::string text = "@HD\tVN:1.6\tSO:coordinate\n";
    for (std::size_t i = 0; i < N_REFERENCES; ++i) {
        text +=
            "@SQ\tSN:ref" + std::to_string(i) + "\tLN:" + std::to_string(REFERENCE_BASES) + "\n";
    }
    for (PlacedLine const& line : lines) text += line.text + "\n";
    TempDir const dir;
    std::string const indexed = dir.file("indexed.bam");
    std::string const bare = dir.file("bare.bam");
    expect_done(run_tool({"convert", dir.write("in.sam", text), indexed, "--index"}));
    expect_done(run_tool({"convert", dir.file("in.sam"), bare}));

    std::mt19937 random(7);  // NOLINT(cert-msc32-c,cert-msc51-cpp)
    for (int i = 0; i < 60; ++i) {
        std::vector<std::string> arguments = {"view", indexed, "--no-header"};
        std::vector<bool> wanted(lines.size());
        for (auto n = 1 + random() % 3; n > 0; --n) {
            std::size_t const reference = random() % N_REFERENCES;
            std::int64_t const beg = i % 4 == 0
                                         ? 16384 * static_cast<std::int64_t>(random() % 11) + 1
                                         : static_cast<std::int64_t>(random() % 200000) + 1;
            std::int64_t const end =
                beg + static_cast<std::int64_t>(random() % (i % 3 == 0 ? 3 : 40000));
            arguments.push_back("ref" + std::to_string(reference) + ":" + std::to_string(beg) +
                                "-" + std::to_string(end));
            for (std::size_t k = 0; k < lines.size(); ++k) {
                bool const overlaps =
                    lines[k].reference == reference && lines[k].beg <= end && lines[k].end >= beg;
                if (overlaps) wanted[k] = true;
            }
        }
        SCOPED_TRACE(arguments.back());
        std::string expected;
        for (std::size_t k = 0; k < lines.size(); ++k) {
            if (wanted[k]) expected += lines[k].text + "\n";
        }
        ProcessResult const by_index = run_tool(arguments);
        expect_done(by_index);
        ASSERT_EQ(by_index.output, expected);
        arguments[1] = bare;
        ProcessResult const by_scanning = run_tool(arguments);
        expect_done(by_scanning);
        ASSERT_EQ(by_scanning.output, expected);
    }
}

// --- Which index -----------------------------------------------------------------------

// A file of many blocks, of which one in the middle is damaged: only who jumps over
// it gets at what lies behind.
struct DamagedFile {
    explicit DamagedFile(TempDir const& dir) : path(dir.file("in.bam")) {
        std::string text = "@SQ\tSN:chr1\tLN:1000000\n";
        for (int i = 0; i < 20000; ++i) {
            text += "r" + std::to_string(i) + "\t0\tchr1\t" + std::to_string(i * 40 + 1) +
                    "\t60\t4M\t*\t0\t0\tACGT\tIIII\n";
        }
        dir.write("in.sam", text);
        expect_done(run_tool({"convert", dir.file("in.sam"), path, "--index"}));
        std::string bytes = read_file(path);
        BgzfBlock const block = parse_bgzf(bytes).at(5);
        bytes[block.offset + block.size - 8] ^= 1;  // its checksum
        write_file(path, bytes);
        set_age(path + ".bai", 0);
    }

    // Makes a file look so many seconds older than this one.
    void set_age(std::string const& file, int seconds) const {
        auto const time = std::filesystem::last_write_time(path);
        std::filesystem::last_write_time(file, time - std::chrono::seconds(seconds));
    }

    std::string path;
};

constexpr char const* FAR_REGION = "chr1:799,900-800,000";  // the last two reads

TEST(View, IndexBesideTheFile_OnlyTheBlocksItNamesAreRead) {
    TempDir const dir;
    DamagedFile const file(dir);
    auto const by_index = [&] {
        ProcessResult const result = run_tool({"view", file.path, FAR_REGION, "--count"});
        expect_done(result);
        EXPECT_EQ(result.output, "2\n");
    };
    by_index();
    // The other name that an index may have.
    std::filesystem::rename(file.path + ".bai", dir.file("in.bai"));
    by_index();
    // Without an index the damage is met.
    std::filesystem::remove(dir.file("in.bai"));
    ProcessResult const scanned = run_tool({"view", file.path, FAR_REGION, "--count"});
    EXPECT_EQ(scanned.exit_status, 1);
    EXPECT_EQ(scanned.errors.rfind("tesk-bam: " + file.path, 0), 0U) << scanned.errors;
    // So it is by a pipe, beside which nothing lies.
    EXPECT_EQ(
        run_shell("\"$0\" view - \"$2\" --count < \"$1\"", {file.path, FAR_REGION}).exit_status, 1);
}

TEST(View, IndexThatCannotBeUsed_IsNotedAndTheFileIsScanned) {
    TempDir const dir;
    std::string const sam = dir.write("in.sam", sorted_header() + joined(sorted_lines()));
    std::string const file = dir.file("in.bam");
    std::string const bai = file + ".bai";
    std::string const instead = "; the whole file is read instead\n";
    auto const expect_note = [&](std::string const& note) {
        ProcessResult const result = run_tool({"view", file, "chr1", "--count"});
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.output, "2\n");
        EXPECT_EQ(result.errors.rfind("tesk-bam: note: " + note, 0), 0U) << result.errors;
        EXPECT_EQ(result.errors.substr(result.errors.size() - instead.size()), instead);
        expect_done(run_tool({"view", file, "chr1", "--count", "--quiet"}));
        expect_done(run_tool({"view", file, "--count"}));  // nothing to look up
    };
    expect_done(run_tool({"convert", sam, file, "--index"}));
    auto const time = std::filesystem::last_write_time(file);
    std::filesystem::last_write_time(bai, time - std::chrono::seconds(1));
    expect_note(bai + " is older than " + file + instead);

    write_file(bai, build_bai(3, {}, false));
    expect_note(bai + " is of 3 references, " + file + " has 2" + instead);

    std::string const whole = build_bai(2, {}, false);
    write_file(bai, whole.substr(0, 10));
    expect_note(bai);

    // What is no file is no index.
    std::filesystem::remove(bai);
    std::filesystem::create_directory(bai);
    expect_done(run_tool({"view", file, "chr1", "--count"}));
}

// An index covers 2^29 bases; what lies beyond must be found all the same.
TEST(View, RegionBeyondTheReachOfAnIndex_IsScanned) {
    TempDir const dir;
    std::string const text = "@SQ\tSN:c\tLN:600000000\nr1\t0\tc\t590000000\t0\t1M\t*\t0\t0\tA\tI\n";
    std::string const file = dir.file("in.bam");
    expect_done(run_tool({"convert", dir.write("in.sam", text), file}));
    write_file(file + ".bai", build_bai(1, {}, false));
    for (char const* const region : {"c", "c:590,000,000-590,000,000", "c:1-600,000,000"}) {
        SCOPED_TRACE(region);
        ProcessResult const result = run_tool({"view", file, region, "--count"});
        expect_done(result);
        EXPECT_EQ(result.output, "1\n");
    }
}

// --- Standard output --------------------------------------------------------------------

TEST(View, StandardOutputCannotBeWritten_IsAnError) {
    TempDir const dir;
    std::string const file = dir.write("in.sam", sample_sam());
    for (char const* const option : {"--count", "--no-header"}) {
        expect_failure(run_shell("exec \"$0\" view \"$1\" $2 > /dev/full", {file, option}), 1,
                       "cannot write to standard output: No space left on device");
        expect_failure(run_shell("exec \"$0\" view \"$1\" $2 >&-", {file, option}), 1,
                       "cannot write to standard output: Bad file descriptor");
    }
}

TEST(View, ReaderOfStandardOutputGone_DiesQuietlyBySigpipe) {
    TempDir const dir;
    std::string const file = dir.write("in.sam", large_sam(20000));
    ProcessResult const result = run_shell(
        "env --default-signal=PIPE \"$0\" view \"$1\" | head -c 1 > /dev/null; "
        "echo ${PIPESTATUS[0]}",
        {file});
    EXPECT_EQ(result.output, std::to_string(128 + SIGPIPE) + "\n");
    EXPECT_EQ(result.errors, "");
}

}  // namespace

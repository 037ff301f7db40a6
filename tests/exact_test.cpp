// The tool with --exact: the library's own file members, which take no file that
// needs a repair, hold all records in memory and give each record a block of its
// own.

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/any.hpp>
#include <nlohmann/json.hpp>

#include "tests/support/bam_encoder.h"
#include "tests/support/index_builder.h"
#include "tests/support/process.h"
#include "tests/support/temp_file.h"
#include "tests/support/tool_runner.h"
#include "tests/support/tool_samples.h"

namespace {

using namespace tesk::test;
using Json = nlohmann::json;

ProcessResult run_exact(std::vector<std::string> arguments) {
    arguments.emplace_back("--exact");
    return run_tool(arguments);
}

// Payload of the BAM file that the sample becomes.
std::string expected_payload(std::vector<std::string> const& lines, std::string const& order) {
    return bam_payload(bam_header_text(HEADER, order), lines);
}

struct WrongUseCase {
    char const* label;
    std::vector<std::string> arguments;
    char const* message;
};

TEST(Exact, WrongUse_OfEveryKind_IsStatusTwoWithMessage) {
    WrongUseCase const cases[] = {
        {"input of unclear kind",
         {"convert", "a.txt", "b.bam"},
         "cannot tell from its name whether a.txt is SAM or BAM: say --from sam or --from bam"},
        {"info of unclear kind",
         {"info", "bam"},
         "cannot tell from its name whether bam is SAM or BAM: say --from sam or --from bam"},
        {"standard input", {"convert", "-", "b.bam"}, "standard input cannot be read: name a file"},
        {"info on standard input", {"info", "-"}, "standard input cannot be read: name a file"},
        {"BAM on standard output",
         {"convert", "a.sam", "-", "--to", "bam"},
         "--exact cannot write BAM to standard output: name a file"},
        {"import as BAM on standard output",
         {"import", "a", "-", "--to", "bam"},
         "--exact cannot write BAM to standard output: name a file"},
        {"index with SAM",
         {"convert", "a.sam", "b.sam", "--index"},
         "--index goes with BAM output only"},
    };
    for (WrongUseCase const& c : cases) {
        SCOPED_TRACE(c.label);
        expect_failure(run_exact(c.arguments), 2, c.message);
    }
}

TEST(Exact, OptionsOfTheOtherWay_DoNotGoWithIt) {
    std::vector<std::vector<std::string>> const cases = {{"--memory", "1G"},
                                                         {"--tmp", "/tmp"},
                                                         {"--level", "1"},
                                                         {"--threads", "2"},
                                                         {"--allow-missing-eof"}};
    for (std::vector<std::string> const& options : cases) {
        SCOPED_TRACE(options[0]);
        std::vector<std::string> arguments = {"convert", "a.sam", "b.bam"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        ProcessResult const result = run_exact(arguments);
        expect_failure(result, 2,
                       "--exact excludes " + options[0] +
                           "\ntesk-bam: run with --help to see what is possible");
    }
}

TEST(Exact, Convert_FloatArraysToBam_NotesThatTheyCannotBeReadBack) {
    TempDir const dir;
    std::string const columns = "\t4\t*\t0\t0\t*\t*\t0\t0\tA\tI\t";
    std::string const in = dir.write("in.sam", "r1" + columns + "XA:B:f,2.0\nr2" + columns +
                                                   "XA:B:f\nr3" + columns + "XA:B:c,1\n");
    std::string const out = dir.file("out.bam");
    ProcessResult const result = run_exact({"convert", in, out});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors, "tesk-bam: note: 1 of 3 records hold arrays of floats; " + out +
                                 " cannot be read back by this tool\n");
    expect_done(run_exact({"convert", in, out, "--quiet"}));
    expect_done(run_exact({"convert", in, dir.file("out.sam")}));
}

TEST(Exact, Convert_SamToBam_PayloadIsThatOfIndependentEncoder) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.bam");
    ProcessResult const result = run_exact({"convert", in, out});
    expect_done(result);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(payload_of(out), expected_payload(LINES, "\tSO:unknown"));
    EXPECT_EQ(run_process({"gzip", "-t", "--suffix", ".bam", out}).exit_status, 0);
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam"}));
}

TEST(Exact, Convert_SortToBam_RecordsAreInCoordinateOrder) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.bam");
    expect_done(run_exact({"convert", in, out, "--sort"}));
    EXPECT_EQ(payload_of(out), expected_payload(sorted_lines(), "\tSO:coordinate"));
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam"}));
}

TEST(Exact, Convert_IndexToBam_SortsAndWritesIndexBesideIt) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.bam");
    expect_done(run_exact({"convert", in, out, "--index"}));
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

TEST(Exact, Convert_HeaderClaimsCoordinateOrder_StillSorts) {
    TempDir const dir;
    std::string sam = sample_sam();
    sam.replace(sam.find("SO:unsorted"), 11, "SO:coordinate");
    std::string const in = dir.write("in.sam", sam);
    for (char const* const option : {"--sort", "--index"}) {
        SCOPED_TRACE(option);
        std::string const out = dir.file("out.bam");
        ProcessResult const result = run_exact({"convert", in, out, option, "--quiet"});
        expect_done(result);
        EXPECT_EQ(payload_of(out), expected_payload(sorted_lines(), "\tSO:coordinate"));
    }
}

TEST(Exact, Convert_SamToSam_IsTheSameText) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    std::string const out = dir.file("out.sam");
    expect_done(run_exact({"convert", in, out}));
    EXPECT_EQ(read_file(out), sample_sam());
}

TEST(Exact, Convert_BamToSam_GivesHeaderAndLinesBack) {
    TempDir const dir;
    std::string const in = dir.write("in.bam", sample_bam());
    std::string const out = dir.file("out.sam");
    expect_done(run_exact({"convert", in, out}));
    EXPECT_EQ(read_file(out), sample_sam());
}

TEST(Exact, Convert_SortedSam_HeaderTellsTheNewOrder) {
    TempDir const dir;
    std::string const expected =
        bam_header_text(HEADER, "\tSO:coordinate") + joined(sorted_lines());
    for (std::string const& in :
         {dir.write("in.sam", sample_sam()), dir.write("in.bam", sample_bam())}) {
        SCOPED_TRACE(in);
        std::string const out = dir.file("out.sam");
        expect_done(run_exact({"convert", in, out, "--sort"}));
        EXPECT_EQ(read_file(out), expected);
        ProcessResult const printed = run_exact({"convert", in, "-", "--sort"});
        expect_done(printed);
        EXPECT_EQ(printed.output, expected);
    }
}

TEST(Exact, Convert_KindsGiven_PrevailOverEndings) {
    TempDir const dir;
    std::string const sam = dir.write("text.bam", sample_sam());
    std::string const bam = dir.file("binary.txt");
    expect_done(run_exact({"convert", sam, bam, "--from", "sam", "--to", "bam"}));
    EXPECT_EQ(payload_of(bam), expected_payload(LINES, "\tSO:unknown"));
    std::string const back = dir.file("back.bam");
    expect_done(run_exact({"convert", bam, back, "--from", "bam", "--to", "sam"}));
    EXPECT_EQ(read_file(back), bam_header_text(HEADER, "\tSO:unknown") + joined(LINES));
}

TEST(Exact, Convert_EndingsInAnyCase_TellTheKind) {
    TempDir const dir;
    std::string const in = dir.write("in.SAM", sample_sam());
    std::string const out = dir.file("out.Bam");
    expect_done(run_exact({"convert", in, out}));
    EXPECT_EQ(payload_of(out), expected_payload(LINES, "\tSO:unknown"));
}

TEST(Exact, Convert_EmptySam_GivesBamWithoutRecords) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", "");
    std::string const out = dir.file("out.bam");
    expect_done(run_exact({"convert", in, out, "--index"}));
    EXPECT_EQ(payload_of(out), encode_bam_header("@HD\tVN:1.6\tSO:coordinate\n", {}));
    EXPECT_EQ(read_file(out + ".bai"), build_bai(0, {}, false));
}

TEST(Exact, Convert_BamToBam_ListsEachReferenceOnce) {
    TempDir const dir;
    std::string const in = dir.write("in.bam", sample_bam());
    std::string const out = dir.file("out.bam");
    expect_done(run_exact({"convert", in, out}));
    EXPECT_EQ(payload_of(out), expected_payload(LINES, "\tSO:unknown"));
    expect_done(run_exact({"convert", in, out, "--index"}));
    EXPECT_EQ(payload_of(out), expected_payload(sorted_lines(), "\tSO:coordinate"));
    EXPECT_EQ(parse_bai(read_file(out + ".bai")).references.size(), 2U);
}

struct OrderCase {
    char const* label;
    char const* order_line;  // of the input's header
    char const* written;     // order in the output's
};

TEST(Exact, Convert_BamToBam_KeepsTheOrderThatItsHeaderStates) {
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
        expect_done(run_exact({"convert", in, out}));
        EXPECT_EQ(
            payload_of(out),
            encode_bam_header(std::string("@HD\tVN:1.6") + c.written + "\n" + lines, REFERENCES) +
                encoded_records(records, REFERENCES));
        expect_done(run_exact({"convert", in, out, "--sort"}));
        EXPECT_EQ(payload_of(out),
                  encode_bam_header("@HD\tVN:1.6\tSO:coordinate\n" + lines, REFERENCES) +
                      encoded_records(records, REFERENCES));
    }
}

TEST(Exact, Convert_BamToBam_IntegersOfEveryWidthSurvive) {
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
    expect_done(run_exact({"convert", in, out}));
    EXPECT_EQ(payload_of(out), expected_payload({line}, "\tSO:unknown"));
}

TEST(Exact, Convert_BamWithoutSqLines_MakesThemFromItsList) {
    TempDir const dir;
    std::string const text = "@HD\tVN:1.6\tSO:unsorted\n@RG\tID:g\n";
    std::string const in = dir.write("in.bam", bam_file(encode_bam_header(text, REFERENCES) +
                                                        encoded_records(LINES, REFERENCES)));
    std::string const made = "@RG\tID:g\n@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n";

    ProcessResult const printed = run_exact({"convert", in, "-"});
    expect_done(printed);
    EXPECT_EQ(printed.output, "@HD\tVN:1.6\tSO:unsorted\n" + made + joined(LINES));

    std::string const out = dir.file("out.bam");
    expect_done(run_exact({"convert", in, out, "--sort"}));
    EXPECT_EQ(payload_of(out),
              encode_bam_header("@HD\tVN:1.6\tSO:coordinate\n" + made, REFERENCES) +
                  encoded_records(sorted_lines(), REFERENCES));

    // No header text at all.
    std::string const bare = dir.write("bare.bam", bam_file(encode_bam_header("", REFERENCES)));
    ProcessResult const bare_printed = run_exact({"convert", bare, "-"});
    expect_done(bare_printed);
    EXPECT_EQ(bare_printed.output, "@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n");
}

TEST(Exact, Convert_HeaderTextAndReferenceListDiffer_FirstDifferenceIsNamed) {
    // The library reads header words between any white space.
    std::vector<ListCase> cases = LIST_CASES;
    cases.push_back({"name that SAM cannot hold",
                     "",
                     {{"chr 1", 1000}},
                     "1: chr 1 of 1000 bases and chr of 1000 bases"});
    TempDir const dir;
    for (ListCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const in = dir.write("in.bam", bam_file(encode_bam_header(c.text, c.list)));
        std::string const message =
            in + ": the header text and the reference list differ at reference " + c.difference;
        expect_failure(run_exact({"convert", in, dir.file("out.bam")}), 1, message);
        expect_failure(run_exact({"convert", in, "-"}), 1, message);
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.bam"}));
}

struct RecordCase {
    char const* label;
    RawBamRecord record;
    char const* message;  // after the file's name
    bool sam_output_too;  // SAM output fails as well
};

TEST(Exact, Convert_BamRecordThatTextCannotCarry_IsAnErrorNamingIt) {
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
        expect_failure(run_exact({"convert", in, dir.file("out.bam")}), 1, in + c.message);
        ProcessResult const printed = run_exact({"convert", in, "-"});
        EXPECT_EQ(printed.exit_status, c.sam_output_too ? 1 : 0);
        EXPECT_EQ(printed.errors, c.sam_output_too ? "tesk-bam: " + in + c.message + "\n" : "");
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.bam"}));
}

TEST(Exact, Convert_InputRefused_IsTheLibrarysMessageInOneLine) {
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
        expect_failure(run_exact(arguments), 1, message);
    }
    EXPECT_EQ(read_file(out), "old file");
    EXPECT_EQ(names_in(dir.path()), (Names{"header.sam", "line.sam", "no.bam", "out.bam"}));
}

TEST(Exact, Convert_LibraryThrows_IsOneLineNamingTheFile) {
    TempDir const dir;
    std::string const out = dir.file("out.bam");

    std::string const number =
        dir.write("number.sam", "r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tNM:i:x\n");
    expect_failure(run_exact({"convert", number, out}), 1, number + ": stoi");

    RawBamRecord record;
    record.aux = bam_aux("XF", 'B', "f" + le_bytes<std::uint32_t>(1) + std::string(4, '\0'));
    std::string const floats =
        dir.write("floats.bam", bam_file(encode_bam_header("", {}) + record.bytes()));
    std::string const bad_cast = boost::bad_any_cast().what();
    expect_failure(run_exact({"convert", floats, out}), 1, floats + ": " + bad_cast);
    expect_failure(run_exact({"info", floats}), 1, floats + ": " + bad_cast);

    // 70 skips of 2^28 - 1 bases end beyond every index.
    std::string cigar;
    for (int i = 0; i < 70; ++i) cigar += "268435455N";
    std::string const far =
        dir.write("far.sam", "@SQ\tSN:c\tLN:1\nr1\t0\tc\t1\t0\t" + cigar + "\t*\t0\t0\t*\t*\n");
    expect_done(run_exact({"convert", far, dir.file("far.bam")}));
    expect_failure(run_exact({"convert", far, out, "--index"}), 1,
                   out + ": Alignment ends beyond the range of a BAM index: position 18790481850");

    EXPECT_EQ(names_in(dir.path()), (Names{"far.bam", "far.sam", "floats.bam", "number.sam"}));
}

TEST(Exact, Convert_FullDevice_IsError) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", sample_sam());
    expect_failure(run_exact({"convert", in, "/dev/full", "--to", "sam"}), 1,
                   "cannot write to /dev/full: No space left on device");
    expect_failure(run_exact({"convert", in, "/dev/full", "--to", "bam"}), 1,
                   "BAM file reported error on close /dev/full");
    struct stat status = {};
    ASSERT_EQ(::stat("/dev/full", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

TEST(Exact, Convert_FileGrowsTooLarge_IsErrorAndOldFilesStay) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(500));
    for (char const* const name : {"out.sam", "out.bam"}) {
        SCOPED_TRACE(name);
        std::string const out = dir.write(name, "old file");
        ProcessResult const result =
            run_shell("ulimit -f 8; exec \"$0\" convert --exact \"$1\" \"$2\"", {in, out});
        bool const sam = std::string(name) == "out.sam";
        expect_failure(result, 1,
                       sam ? "cannot write to " + out + ": File too large"
                           : "BAM file reported error on close " + out);
        EXPECT_EQ(read_file(out), "old file");
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out.bam", "out.sam"}));
}

TEST(Exact, Convert_ReferencesNotInHeader_LossIsNoted) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", joined(LINES));
    std::string const out = dir.file("out.bam");
    ProcessResult const result = run_exact({"convert", in, out});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors,
              "tesk-bam: note: 3 of 4 records name a reference that the header does "
              "not list; " +
                  out + " has them without one\n");
    expect_done(run_exact({"convert", in, out, "--quiet"}));
    expect_done(run_exact({"convert", in, dir.file("out.sam")}));
}

TEST(Exact, Progress_OnTerminal_NamesEveryStageAndClearsItsLine) {
    TempDir const dir;
    std::string const in = dir.write("in.bam", sample_bam());
    std::string const text =
        tool_on_terminal({"convert", in, dir.file("out.bam"), "--index", "--exact"});
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

TEST(Exact, InfoJson_SamAndBam_IsTheWholeSummary) {
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
            ProcessResult const result = run_exact(arguments);
            expect_done(result);
            return Json::parse(result.output);
        };
        EXPECT_EQ(summary({sam}), sample_summary(sam, "SAM"));
        EXPECT_EQ(summary({bam}), sample_summary(bam, "BAM"));
        EXPECT_EQ(summary({odd, "--from", "bam"}), sample_summary(odd, "BAM"));
    }
}

}  // namespace

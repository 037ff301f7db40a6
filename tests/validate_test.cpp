// The command that tells everything that is wrong with a file.

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/bam_encoder.h"
#include "tests/support/process.h"
#include "tests/support/temp_file.h"
#include "tests/support/tool_runner.h"
#include "tests/support/tool_samples.h"

namespace {

using namespace tesk::test;
using Json = nlohmann::json;

// An unmapped record of these bases and qualities.
std::string unmapped(std::string const& name, std::string const& bases,
                     std::string const& qualities) {
    return name + "\t4\t*\t0\t0\t*\t*\t0\t0\t" + bases + "\t" + qualities + "\n";
}

// What the command prints; its notes go nowhere else.
ProcessResult validate(std::vector<std::string> arguments, int status) {
    arguments.insert(arguments.begin(), "validate");
    ProcessResult result = run_tool(arguments);
    EXPECT_EQ(result.exit_status, status);
    EXPECT_EQ(result.errors, "");
    return result;
}

TEST(Validate, SoundFile_OfEitherFormat_IsValid) {
    TempDir const dir;
    for (bool const bam : {false, true}) {
        SCOPED_TRACE(bam);
        std::string const file = dir.write("file", bam ? sample_bam() : sample_sam());
        std::string const format = bam ? "BAM" : "SAM";
        EXPECT_EQ(validate({file}, 0).output, "file     " + file + " (" + format +
                                                  ")\n"
                                                  "verdict  valid\n"
                                                  "records  4\n"
                                                  "errors   0\n");
        EXPECT_EQ(Json::parse(validate({file, "--json"}, 0).output),
                  (Json{{"file", file},
                        {"format", format},
                        {"records", 4},
                        {"errors", Json::array()},
                        {"n_errors", 0},
                        {"repairs", Json::array()},
                        {"warnings", Json::array()}}));
    }
}

TEST(Validate, Keys_OfTheObject_StandInThisOrder) {
    TempDir const dir;
    auto const object =
        nlohmann::ordered_json::parse(validate({dir.write("file", ""), "--json"}, 0).output);
    std::vector<std::string> keys;
    for (auto const& item : object.items()) keys.push_back(item.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"file", "format", "records", "errors", "n_errors",
                                              "repairs", "warnings"}));
}

// Lines: 1 header, 2 repaired, 3 refused, 4 sound, 5 repaired twice, 6 refused, 7 a
// reference that the header does not list.
std::string mixed_file() {
    return "@HD\tVN:1.6\n" + unmapped("a", "acgt", "IIII") + unmapped("b", "ACG", "II") +
           unmapped("c", "ACGT", "IIII") + "d\t4\t*\t0\t0\t*\t*\t0\t0\taC\tII\tXA:A:x\t\n" +
           "e\t4\t*\t0\t256\t*\t*\t0\t0\tA\tI\n" + "f\t4\tchrX\t1\t0\t*\t*\t0\t0\tA\tI\n";
}

TEST(Validate, FileWithFaults_AllAreListedAndStatusIsOne) {
    TempDir const dir;
    std::string const file = dir.write("file", mixed_file());
    std::string const output = validate({file}, 1).output;
    std::string const begin = "file     " + file +
                              " (SAM)\n"
                              "verdict  not valid\n"
                              "records  4\n"
                              "errors   2\n"
                              "\n"
                              "error: " +
                              file + ": line 3, column QUAL: 2 qualities for 3 bases\n" +
                              "error: " + file + ": line 6, column MAPQ: ";
    EXPECT_EQ(output.substr(0, begin.size()), begin);
    std::string const end =
        "\n"
        "repaired: a tab follows the last field of a line: dropped (once, in line 5)\n"
        "repaired: SEQ has lower-case bases: changed to upper case (2 times, first in line 2)\n"
        "warning: RNAME or RNEXT is not in the header: read as \"*\" (once, in line 7)\n";
    ASSERT_GE(output.size(), end.size());
    EXPECT_EQ(output.substr(output.size() - end.size()), end);
}

TEST(Validate, JsonOfFaults_HasThemByKind) {
    TempDir const dir;
    std::string const file = dir.write("file", mixed_file());
    Json const json = Json::parse(validate({file, "--json"}, 1).output);
    EXPECT_EQ(json["records"], 4);
    EXPECT_EQ(json["n_errors"], 2);
    ASSERT_EQ(json["errors"].size(), 2U);
    EXPECT_EQ(json["errors"][0], file + ": line 3, column QUAL: 2 qualities for 3 bases");
    EXPECT_EQ(json["repairs"],
              (Json{{{"kind", "trailing_tab"},
                     {"count", 1},
                     {"first", "line 5"},
                     {"text", "a tab follows the last field of a line: dropped"}},
                    {{"kind", "lower_case_base"},
                     {"count", 2},
                     {"first", "line 2"},
                     {"text", "SEQ has lower-case bases: changed to upper case"}}}));
    EXPECT_EQ(json["warnings"],
              (Json{{{"kind", "unknown_reference"},
                     {"count", 1},
                     {"first", "line 7"},
                     {"text", "RNAME or RNEXT is not in the header: read as \"*\""}}}));
}

// Neither repairs nor warnings make a file invalid.
TEST(Validate, RepairsAndWarningsAlone_AreNoErrors) {
    TempDir const dir;
    std::string const file =
        dir.write("file", unmapped("a", "acgt", "IIII") + "f\t4\tchrX\t1\t0\t*\t*\t0\t0\tA\tI\n");
    EXPECT_NE(validate({file}, 0).output.find("verdict  valid\n"), std::string::npos);
    EXPECT_EQ(Json::parse(validate({file, "--json"}, 0).output)["n_errors"], 0);
}

TEST(Validate, ManyErrors_TheFirstHundredAreListed) {
    for (int const n : {99, 100, 101, 250}) {
        SCOPED_TRACE(n);
        TempDir const dir;
        std::string text;
        for (int i = 0; i < n; ++i) text += unmapped("r", "AC", "I");
        std::string const file = dir.write("file", text + unmapped("r", "A", "I"));
        std::string const output = validate({file}, 1).output;
        std::string expected = "file     " + file + " (SAM)\nverdict  not valid\nrecords  1\n" +
                               "errors   " + std::to_string(n) + "\n\n";
        for (int i = 1; i <= n && i <= 100; ++i) {
            expected += "error: " + file + ": line " + std::to_string(i) +
                        ", column QUAL: 1 qualities for 2 bases\n";
        }
        if (n > 100) expected += "error: " + std::to_string(n - 100) + " more, not listed\n";
        EXPECT_EQ(output, expected);
        Json const json = Json::parse(validate({file, "--json"}, 1).output);
        EXPECT_EQ(json["n_errors"], n);
        EXPECT_EQ(json["errors"].size(), n < 100 ? static_cast<std::size_t>(n) : 100U);
    }
}

TEST(Validate, FileCutShort_IsAnErrorUnlessAllowed) {
    TempDir const dir;
    std::string const blocks = bgzf_blocks(bam_payload(HEADER, LINES));
    std::string const file = dir.write("file", blocks);
    Json const refused = Json::parse(validate({file, "--json"}, 1).output);
    EXPECT_EQ(refused["records"], 4);
    EXPECT_EQ(refused["errors"],
              Json{file + ": the block that marks the end of a BGZF file is missing: the file may "
                          "have been cut short"});
    Json const allowed = Json::parse(validate({file, "--json", "--allow-missing-eof"}, 0).output);
    EXPECT_EQ(allowed["errors"], Json::array());
    EXPECT_EQ(allowed["warnings"],
              (Json{{{"kind", "missing_eof_block"},
                     {"count", 1},
                     {"first", ""},
                     {"text", "the end-of-file block is missing: the file may have been cut"}}}));
}

// The last record is the only one that is lost.
TEST(Validate, BamCutInsideARecord_CountsTheRecordsBefore) {
    TempDir const dir;
    std::string const payload = bam_payload(HEADER, LINES);
    std::string const file = dir.write("file", bam_file(payload.substr(0, payload.size() - 1)));
    Json const json = Json::parse(validate({file, "--json"}, 1).output);
    EXPECT_EQ(json["records"], 3);
    EXPECT_EQ(json["errors"], Json{file + ": record 4: the file ends inside it"});
}

TEST(Validate, FileThatCannotBeRead_IsAnErrorOfUnknownFormat) {
    TempDir const dir;
    std::string const file = dir.file("missing");
    std::string const error = "cannot open " + file + ": No such file or directory";
    EXPECT_EQ(validate({file}, 1).output, "file     " + file +
                                              " (of unknown format)\n"
                                              "verdict  not valid\n"
                                              "records  0\n"
                                              "errors   1\n"
                                              "\n"
                                              "error: " +
                                              error + "\n");
    Json const json = Json::parse(validate({file, "--json"}, 1).output);
    EXPECT_EQ(json["format"], nullptr);
    EXPECT_EQ(json["errors"], Json{error});
}

TEST(Validate, StandardInput_IsRead) {
    TempDir const dir;
    std::string const file = dir.write("file", unmapped("a", "AC", "I"));
    ProcessResult const result = run_shell("\"$0\" validate - < \"$1\"", {file});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.output,
              "file     - (SAM)\n"
              "verdict  not valid\n"
              "records  0\n"
              "errors   1\n"
              "\n"
              "error: standard input: line 1, column QUAL: 1 qualities for 2 bases\n");
}

TEST(Validate, TextThatIsNoUtf8_IsStillJson) {
    TempDir const dir;
    std::string const file = dir.write("file\xFF", "");
    Json const json = Json::parse(validate({file, "--json"}, 0).output);
    EXPECT_EQ(json["file"], dir.file("file\xEF\xBF\xBD"));
}

TEST(Validate, StandardOutputCannotBeWritten_IsAnError) {
    TempDir const dir;
    std::string const file = dir.write("file", sample_sam());
    for (char const* const option : {"--quiet", "--json"}) {
        expect_failure(run_shell("exec \"$0\" validate \"$1\" $2 > /dev/full", {file, option}), 1,
                       "cannot write to standard output: No space left on device");
    }
}

TEST(Validate, OnTerminal_ProgressIsGoneBeforeTheVerdict) {
    TempDir const dir;
    std::string const file = dir.write("file", sample_sam());
    std::string const printed = tool_on_terminal({"validate", file});
    EXPECT_EQ(printed.rfind("\rreading file", 0), 0U);
    EXPECT_NE(printed.find("\r\x1b[Kfile     " + file + " (SAM)\r\n"), std::string::npos);
    EXPECT_EQ(tool_on_terminal({"validate", file, "--quiet"}).rfind("file     ", 0), 0U);
}

}  // namespace

// What reading a file finds, in words; and headers of any origin: what is
// repaired how, what is refused with which message, and that BAMFileHandler
// takes what comes out.

#include "interop/header.h"
#include "interop/report.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/record_text.h"
#include "util/bam/bam_file.h"

namespace tesk::test {
namespace {

using interop::Finding;
using interop::Header;
using interop::Place;
using interop::RefSeq;
using interop::Repair;
using interop::Report;
using interop::Warning;
using util::bam::BAMFileHandler;
using Unit = interop::Place::Unit;
using namespace std::string_literals;

// "chr1 100;" for each reference.
std::string references_text(std::vector<RefSeq> const& references) {
    std::string text;
    for (RefSeq const& reference : references) {
        text += reference.name + ' ' + std::to_string(reference.length) + ';';
    }
    return text;
}

// "header_version 1 line 1;" for each repair and warning that was met.
std::string findings_text(Report const& report) {
    std::string text;
    auto const add = [&](char const* name, Finding const& finding) {
        if (finding.count == 0) return;
        text += std::string(name) + ' ' + std::to_string(finding.count);
        if (!finding.first.text().empty()) text += ' ' + finding.first.text();
        text += ';';
    };
    for (std::size_t i = 0; i < interop::N_REPAIRS; ++i) {
        add(name_of(static_cast<Repair>(i)), report.of(static_cast<Repair>(i)));
    }
    for (std::size_t i = 0; i < interop::N_WARNINGS; ++i) {
        add(name_of(static_cast<Warning>(i)), report.of(static_cast<Warning>(i)));
    }
    return text;
}

// A header is what a fresh handler makes of its text, and finds each reference.
void expect_is_sound(Header const& header) {
    BAMFileHandler handler;
    EXPECT_TRUE(handler.add_header_lines(header.text())) << handler.error_message;
    EXPECT_EQ(handler.header, header.text());
    EXPECT_EQ(references_text(handler.references), references_text(header.references()));
    std::int32_t number = 0;
    for (RefSeq const& reference : header.references()) {
        EXPECT_EQ(header.find(reference.name), number) << reference.name;
        ++number;
    }
}

void expect_is_empty(Header const& header) {
    EXPECT_EQ(header.text(), "");
    EXPECT_EQ(references_text(header.references()), "");
    EXPECT_EQ(header.find("old"), -1);
}

// A header to be replaced.
Header old_header() {
    Header header;
    Report report;
    std::string error;
    EXPECT_TRUE(header.assign_sam("@HD\tVN:1.6\n@SQ\tSN:old\tLN:1\n", report, error)) << error;
    return header;
}

// --- Report ------------------------------------------------------------------

template <typename Kind>
struct WordsCase {
    Kind kind;
    char const* name;
    char const* text;
};

constexpr WordsCase<Repair> REPAIR_WORDS[] = {
    {Repair::HEADER_VERSION, "header_version",
     "VN of @HD is missing, malformed or below 1.6: set to 1.6"},
    {Repair::HEADER_UNKNOWN_FIELD, "header_unknown_field",
     "@HD has fields other than one VN, SO, GO and SS each, or stray white space: dropped"},
    {Repair::HEADER_GROUP_BESIDE_SORT, "header_group_beside_sort",
     "@HD has GO beside SO: GO dropped"},
    {Repair::HEADER_ORDER_VALUE, "header_order_value",
     "SO, GO or SS of @HD has a value that is not allowed: dropped"},
    {Repair::HEADER_PADDING, "header_padding", "NUL characters follow the header text: dropped"},
    {Repair::HEADER_BLANK_LINE, "header_blank_line", "a header line is blank: dropped"},
    {Repair::HEADER_UNKNOWN_TYPE, "header_unknown_type",
     "a header line has an unknown record type: kept as an @CO line"},
    {Repair::REFERENCES_FROM_LIST, "references_from_list",
     "the header text has no @SQ lines: made from the binary reference list"},
    {Repair::CARRIAGE_RETURN, "carriage_return", "a line ends in a carriage return: dropped"},
    {Repair::TRAILING_TAB, "trailing_tab", "a tab follows the last field of a line: dropped"},
    {Repair::BLANK_FOR_TAB, "blank_for_tab",
     "a blank stands between two optional fields: taken as a tab"},
    {Repair::LOWER_CASE_BASE, "lower_case_base", "SEQ has lower-case bases: changed to upper case"},
    {Repair::DOT_BASE, "dot_base", "SEQ has bases \".\": changed to N"},
    {Repair::URACIL_BASE, "uracil_base", "SEQ has bases U: stored as T"},
    {Repair::WIDE_INTEGER, "wide_integer",
     "an optional field of type i is above 2147483647: stored with type I"},
    {Repair::INTEGER_TYPE_LETTER, "integer_type_letter",
     "an optional field has type c, C, s, S or I in text: read as type i"},
    {Repair::WIDE_ARRAY_ELEMENT, "wide_array_element",
     "an array of type I has elements above 2147483647 in text: kept"},
    {Repair::FLOAT_UNDERFLOW, "float_underflow",
     "a number is closer to 0 than floats get: the nearest float is stored"},
    {Repair::FLOAT_ARRAY, "float_array",
     "an array of floats: written with the shortest text that reads back the same"},
    {Repair::PARTIAL_QUALITY, "partial_quality",
     "QUAL begins with 255, which means none, but goes on: taken as \"*\""},
    {Repair::SHORT_INTEGER, "short_integer",
     "an optional field of type s or S: widened to type i or I"},
};

constexpr WordsCase<Warning> WARNING_WORDS[] = {
    {Warning::UNKNOWN_REFERENCE, "unknown_reference",
     "RNAME or RNEXT is not in the header: read as \"*\""},
    {Warning::BEYOND_REFERENCE_END, "beyond_reference_end",
     "a record ends behind the end of its reference"},
    {Warning::MISSING_EOF_BLOCK, "missing_eof_block",
     "the end-of-file block is missing: the file may have been cut"},
};

static_assert(std::size(REPAIR_WORDS) == interop::N_REPAIRS);
static_assert(std::size(WARNING_WORDS) == interop::N_WARNINGS);

// Adds each kind alone, and looks at all of the report.
template <typename Kind, std::size_t N>
void check_words(WordsCase<Kind> const (&cases)[N], std::string const& what) {
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_STREQ(name_of(c.kind), c.name);
        EXPECT_STREQ(text_of(c.kind), c.text);
        Report report;
        report.add(c.kind, {Unit::RECORD, 7});
        EXPECT_EQ(findings_text(report), c.name + " 1 record 7;"s);
        EXPECT_EQ(report.lines(),
                  std::vector<std::string>{what + ": " + c.text + " (once, in record 7)"});
    }
}

TEST(InteropReport, Repair_EachKind_HasNameTextAndLine) { check_words(REPAIR_WORDS, "repaired"); }

TEST(InteropReport, Warning_EachKind_HasNameTextAndLine) { check_words(WARNING_WORDS, "warning"); }

TEST(InteropReport, Place_EachUnit_IsNamed) {
    EXPECT_EQ((Place{Unit::FILE, 5}).text(), "");
    EXPECT_EQ((Place{Unit::LINE, 12}).text(), "line 12");
    EXPECT_EQ((Place{Unit::HEADER_LINE, 3}).text(), "header line 3");
    EXPECT_EQ((Place{Unit::RECORD, 18446744073709551615U}).text(), "record 18446744073709551615");
    EXPECT_EQ(Place().text(), "");
}

TEST(InteropReport, Lines_NothingMet_AreNone) {
    Report const report;
    EXPECT_EQ(report.lines(), std::vector<std::string>());
    EXPECT_EQ(report.n_errors(), 0U);
    EXPECT_EQ(findings_text(report), "");
}

TEST(InteropReport, Lines_SeveralKinds_StandInOrderOfKindsWithFirstPlaces) {
    Report report;
    report.add(Warning::MISSING_EOF_BLOCK, Place());
    report.add(Warning::UNKNOWN_REFERENCE, {Unit::LINE, 9});
    report.add(Repair::DOT_BASE, {Unit::LINE, 8}, 2);
    report.add(Repair::CARRIAGE_RETURN, {Unit::LINE, 3}, 5);
    report.add(Repair::CARRIAGE_RETURN, {Unit::LINE, 1}, 7);
    report.add(Repair::HEADER_PADDING, Place());
    std::vector<std::string> const expected = {
        "repaired: NUL characters follow the header text: dropped",
        "repaired: a line ends in a carriage return: dropped (12 times, first in line 3)",
        "repaired: SEQ has bases \".\": changed to N (2 times, first in line 8)",
        "warning: RNAME or RNEXT is not in the header: read as \"*\" (once, in line 9)",
        "warning: the end-of-file block is missing: the file may have been cut"};
    EXPECT_EQ(report.lines(), expected);
}

TEST(InteropReport, AddError_AroundMaximum_KeepsTheFirstAndCountsAll) {
    Report report;
    for (std::size_t n = 1; n <= Report::MAX_ERRORS + 1; ++n) {
        report.add_error("error " + std::to_string(n));
        EXPECT_EQ(report.n_errors(), n);
        EXPECT_EQ(report.errors().size(), n <= 100 ? n : 100);
    }
    EXPECT_EQ(report.errors().front(), "error 1");
    EXPECT_EQ(report.errors().back(), "error 100");
}

// --- Repairs of header text --------------------------------------------------

// What the tables write for "line" in SAM files and "header line" in BAM files.
std::string with_unit(std::string text, std::string const& unit) {
    for (std::size_t at = 0; (at = text.find("{}", at)) != std::string::npos;) {
        text.replace(at, 2, unit);
    }
    return text;
}

struct RepairCase {
    char const* label;
    std::string input;
    std::string text;  // may be UNCHANGED
    std::string findings;
    std::string references;
};

constexpr char const* UNCHANGED = "unchanged";

std::vector<RepairCase> repair_cases() {
    return {
        {"nothing at all", "", UNCHANGED, "", ""},
        {"all record types, untouched",
         "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:a\tLN:5\tAS:x "
         "y\n@RG\tID:1\n@PG\tID:2\t\n@CO\tx\t\ty\n"
         "@CO\n@SQ\tLN:2147483647\tSN:b*=,\n",
         UNCHANGED, "", "a 5;b*=, 2147483647;"},
        {"without @HD", "@RG\tID:1\n@SQ\tSN:a\tLN:1\n", UNCHANGED, "", "a 1;"},
        {"last line without its end", "@SQ\tSN:a\tLN:1\n@CO\tx", "@SQ\tSN:a\tLN:1\n@CO\tx\n", "",
         "a 1;"},
        {"fields in any order, untouched", "@HD\tSS:unsorted:MI\tSO:unsorted\tVN:1.6\n", UNCHANGED,
         "", ""},
        {"every SO: unknown", "@HD\tVN:1.6\tSO:unknown\n", UNCHANGED, "", ""},
        {"every SO: unsorted", "@HD\tVN:1.6\tSO:unsorted\n", UNCHANGED, "", ""},
        {"every SO: queryname", "@HD\tVN:1.6\tSO:queryname\tSS:queryname:natural\n", UNCHANGED, "",
         ""},
        {"every GO: none", "@HD\tVN:1.6\tGO:none\n", UNCHANGED, "", ""},
        {"every GO: query", "@HD\tVN:1.6\tGO:query\n", UNCHANGED, "", ""},
        {"every GO: reference", "@HD\tVN:1.6\tGO:reference\n", UNCHANGED, "", ""},
        {"names that only contain * and =", "@SQ\tSN:a*\tLN:1\n@SQ\tSN:b=\tLN:2\n", UNCHANGED, "",
         "a* 1;b= 2;"},
        {"length with zeros in front", "@SQ\tSN:a\tLN:000000000000012\n", UNCHANGED, "", "a 12;"},
        {"@SQ with blanks, as the library reads it", "@SQ SN:a  LN:5\n", UNCHANGED, "", "a 5;"},
        {"description with words that are no fields", "@SQ\tSN:a\tLN:5\tDS:x sN:b LN y:LN:3 \n",
         UNCHANGED, "", "a 5;"},
        {"the last name and length hold", "@SQ\tSN:a\tLN:5\tSN:b\tLN:6\n", UNCHANGED, "", "b 6;"},

        {"version missing", "@HD\tSO:queryname\n@RG\tID:1\n",
         "@HD\tVN:1.6\tSO:queryname\n@RG\tID:1\n", "header_version 1 {} 1;", ""},
        {"@HD alone", "@HD\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version empty", "@HD\tVN:\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version 1.0 with @RG and @PG", "@HD\tVN:1.0\n@RG\tID:1\n@PG\tID:2\n",
         "@HD\tVN:1.6\n@RG\tID:1\n@PG\tID:2\n", "header_version 1 {} 1;", ""},
        {"version 1.4 with GO", "@HD\tVN:1.4\tGO:query\n", "@HD\tVN:1.6\tGO:query\n",
         "header_version 1 {} 1;", ""},
        {"version 1.5 with SS", "@HD\tVN:1.5\tSO:coordinate\tSS:coordinate:x\n",
         "@HD\tVN:1.6\tSO:coordinate\tSS:coordinate:x\n", "header_version 1 {} 1;", ""},
        {"version 1.6", "@HD\tVN:1.6\n", UNCHANGED, "", ""},
        {"version 1.7", "@HD\tVN:1.7\n@RG\tID:1\n", UNCHANGED, "", ""},
        {"version 1.10", "@HD\tVN:1.10\n@RG\tID:1\n", UNCHANGED, "", ""},
        {"version 1.06", "@HD\tVN:1.06\n@RG\tID:1\n", UNCHANGED, "", ""},
        {"version 0.9", "@HD\tVN:0.9\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version 2.6", "@HD\tVN:2.6\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version 1", "@HD\tVN:1\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version 1.", "@HD\tVN:1.\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version .6", "@HD\tVN:.6\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version 1.6.1", "@HD\tVN:1.6.1\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version 1.6a", "@HD\tVN:1.6a\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version 1.-7", "@HD\tVN:1.-7\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version +1.6", "@HD\tVN:+1.6\n", "@HD\tVN:1.6\n", "header_version 1 {} 1;", ""},
        {"version that does not fit", "@HD\tVN:1.2147483648\n", "@HD\tVN:1.6\n",
         "header_version 1 {} 1;", ""},
        {"version as large as fits", "@HD\tVN:1.2147483647\n@RG\tID:1\n", UNCHANGED, "", ""},
        {"version with other fields inside", "@HD\tVN:1.6 SO:queryname\n", "@HD\tVN:1.6\n",
         "header_version 1 {} 1;", ""},

        {"private field", "@HD\tVN:1.6\tSO:unknown\tpb:5.0.0\n", "@HD\tVN:1.6\tSO:unknown\n",
         "header_unknown_field 1 {} 1;", ""},
        {"several private fields, one with words",
         "@HD\tXX:SO:queryname VN:1.7\tVN:1.6\tvn:1.0\tgarbage\n", "@HD\tVN:1.6\n",
         "header_unknown_field 3 {} 1;", ""},
        {"empty fields", "@HD\t\tVN:1.6\t\n", "@HD\tVN:1.6\n", "header_unknown_field 2 {} 1;", ""},
        {"key without its colon", "@HD\tVN:1.6\tSO\n", "@HD\tVN:1.6\n",
         "header_unknown_field 1 {} 1;", ""},
        {"blanks for tabs", "@HD VN:1.6 SO:coordinate\n", "@HD\tVN:1.6\tSO:coordinate\n",
         "header_unknown_field 2 {} 1;", ""},
        {"repeated fields, the last ones hold",
         "@HD\tVN:1.7\tSO:queryname\tVN:1.8\tSO:unsorted\tSO:unknown\n",
         "@HD\tVN:1.8\tSO:unknown\n", "header_unknown_field 3 {} 1;", ""},

        {"GO beside SO", "@HD\tGO:query\tVN:1.6\tSO:unsorted\n", "@HD\tVN:1.6\tSO:unsorted\n",
         "header_group_beside_sort 1 {} 1;", ""},
        {"GO and SS beside SO", "@HD\tVN:1.6\tSO:unsorted\tGO:query\tSS:unsorted:x:y\n",
         "@HD\tVN:1.6\tSO:unsorted\tSS:unsorted:x:y\n", "header_group_beside_sort 1 {} 1;", ""},

        {"bad SO", "@HD\tVN:1.6\tSO:sorted\n", "@HD\tVN:1.6\n", "header_order_value 1 {} 1;", ""},
        {"SO in capitals", "@HD\tVN:1.6\tSO:Coordinate\n", "@HD\tVN:1.6\n",
         "header_order_value 1 {} 1;", ""},
        {"SO with a value of GO", "@HD\tVN:1.6\tSO:query\n", "@HD\tVN:1.6\n",
         "header_order_value 1 {} 1;", ""},
        {"empty SO", "@HD\tVN:1.6\tSO:\n", "@HD\tVN:1.6\n", "header_order_value 1 {} 1;", ""},
        {"bad GO", "@HD\tVN:1.6\tGO:all\n", "@HD\tVN:1.6\n", "header_order_value 1 {} 1;", ""},
        {"GO with a value of SO", "@HD\tVN:1.6\tGO:queryname\n", "@HD\tVN:1.6\n",
         "header_order_value 1 {} 1;", ""},
        {"bad SO beside good GO", "@HD\tVN:1.6\tSO:x\tGO:query\n", "@HD\tVN:1.6\tGO:query\n",
         "header_order_value 1 {} 1;", ""},
        {"good SO beside bad GO", "@HD\tVN:1.6\tSO:queryname\tGO:x\n",
         "@HD\tVN:1.6\tSO:queryname\n", "header_order_value 1 {} 1;", ""},
        {"SS without SO", "@HD\tVN:1.6\tSS:coordinate:x\n", "@HD\tVN:1.6\n",
         "header_order_value 1 {} 1;", ""},
        {"SS beside bad SO", "@HD\tVN:1.6\tSO:x\tSS:x:y\n", "@HD\tVN:1.6\n",
         "header_order_value 2 {} 1;", ""},
        {"SS of another order", "@HD\tVN:1.6\tSO:coordinate\tSS:queryname:x\n",
         "@HD\tVN:1.6\tSO:coordinate\n", "header_order_value 1 {} 1;", ""},
        {"SS that is SO", "@HD\tVN:1.6\tSO:coordinate\tSS:coordinate\n",
         "@HD\tVN:1.6\tSO:coordinate\n", "header_order_value 1 {} 1;", ""},
        {"SS that is SO and a colon", "@HD\tVN:1.6\tSO:coordinate\tSS:coordinate:\n",
         "@HD\tVN:1.6\tSO:coordinate\n", "header_order_value 1 {} 1;", ""},
        {"SS that begins with SO", "@HD\tVN:1.6\tSO:coordinate\tSS:coordinates:x\n",
         "@HD\tVN:1.6\tSO:coordinate\n", "header_order_value 1 {} 1;", ""},
        {"SS of one character", "@HD\tVN:1.6\tSO:coordinate\tSS:coordinate:x\n", UNCHANGED, "", ""},
        {"SS with a blank", "@HD\tVN:1.6\tSO:coordinate\tSS:coordinate:x y\n",
         "@HD\tVN:1.6\tSO:coordinate\n", "header_order_value 1 {} 1;", ""},
        {"SS beside GO", "@HD\tVN:1.6\tGO:query\tSS:query:x\n", "@HD\tVN:1.6\tGO:query\n",
         "header_order_value 1 {} 1;", ""},
        {"everything at once", "\n@HD\tVN:1.3\tSO:unsorted\tGO:query\tSS:x\tYY:z\r\n",
         "@HD\tVN:1.6\tSO:unsorted\n",
         "header_version 1 {} 2;header_unknown_field 1 {} 2;header_group_beside_sort 1 {} 2;"
         "header_order_value 1 {} 2;header_blank_line 1 {} 1;carriage_return 1 {} 2;",
         ""},

        {"blank lines in all places", "\n\n@HD\tVN:1.6\n\n@CO\tx\n\n", "@HD\tVN:1.6\n@CO\tx\n",
         "header_blank_line 4 {} 1;", ""},
        {"lines of white space only", "@CO\tx\n\r\n \t\n\r\r\n\t", "@CO\tx\n",
         "header_blank_line 4 {} 2;", ""},
        {"blank lines only", "\n\n", "", "header_blank_line 2 {} 1;", ""},

        {"unknown types", "@CO\tx\n@XX\tSN:a\n@sq\tSN:a\tLN:5\n@HDX\tVN:1\n@\n@CO1\n",
         "@CO\tx\n@CO\t@XX\tSN:a\n@CO\t@sq\tSN:a\tLN:5\n@CO\t@HDX\tVN:1\n@CO\t@\n@CO\t@CO1\n",
         "header_unknown_type 5 {} 2;", ""},
        {"lines without @", "plain text\n @CO\tx\n\t@RG\n",
         "@CO\tplain text\n@CO\t @CO\tx\n@CO\t\t@RG\n", "header_unknown_type 3 {} 1;", ""},

        {"carriage returns before each line's end",
         "@HD\tVN:1.6\tSO:coordinate\r\n@SQ\tSN:a\tLN:5\r\n@RG\tID:1\n@XX\r\r\n@CO\tx\ry\r",
         "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:a\tLN:5\n@RG\tID:1\n@CO\t@XX\n@CO\tx\ry\n",
         "header_unknown_type 1 {} 4;carriage_return 4 {} 1;", "a 5;"},
    };
}

std::string expected_text(RepairCase const& c) { return c.text == UNCHANGED ? c.input : c.text; }

TEST(InteropHeader, AssignSam_OddText_IsRepairedAndReported) {
    for (RepairCase const& c : repair_cases()) {
        SCOPED_TRACE(c.label);
        Header header = old_header();
        Report report;
        std::string error;
        EXPECT_TRUE(header.assign_sam(c.input, report, error)) << error;
        EXPECT_EQ(in_quotes(header.text()), in_quotes(expected_text(c)));
        EXPECT_EQ(findings_text(report), with_unit(c.findings, "line"));
        EXPECT_EQ(references_text(header.references()), c.references);
        EXPECT_EQ(header.find("old"), -1);
        EXPECT_EQ(error, "");
        expect_is_sound(header);
    }
}

TEST(InteropHeader, AssignSam_RepairedText_NeedsNoMoreRepair) {
    for (RepairCase const& c : repair_cases()) {
        SCOPED_TRACE(c.label);
        Header header;
        Report report;
        std::string error;
        ASSERT_TRUE(header.assign_sam(expected_text(c), report, error)) << error;
        EXPECT_EQ(header.text(), expected_text(c));
        EXPECT_EQ(findings_text(report), "");
    }
}

// Lists as references_text() makes them.
std::vector<RefSeq> list_of(std::string const& text) {
    std::vector<RefSeq> list;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t const blank = text.find(' ', at);
        std::size_t const end = text.find(';', blank);
        list.push_back(
            {text.substr(at, blank - at), std::stoi(text.substr(blank + 1, end - blank - 1))});
        at = end + 1;
    }
    return list;
}

TEST(InteropHeader, AssignBam_OddTextWithItsList_IsRepairedAndReported) {
    for (RepairCase const& c : repair_cases()) {
        SCOPED_TRACE(c.label);
        Header header = old_header();
        Report report;
        std::string error;
        EXPECT_TRUE(header.assign_bam(c.input, list_of(c.references), report, error)) << error;
        EXPECT_EQ(in_quotes(header.text()), in_quotes(expected_text(c)));
        EXPECT_EQ(findings_text(report), with_unit(c.findings, "header line"));
        EXPECT_EQ(references_text(header.references()), c.references);
        expect_is_sound(header);
    }
}

// --- Refused header text -----------------------------------------------------

struct ErrorCase {
    char const* label;
    std::string input;
    std::string message;
};

std::vector<ErrorCase> error_cases() {
    return {
        {"@HD after another line", "@CO\tx\n@HD\tVN:1.6\n",
         "{} 2: @HD is not the first header line"},
        {"@HD after an unknown line", "\n@XX\n@HD\n", "{} 3: @HD is not the first header line"},
        {"second @HD", "\n@HD\tVN:1.6\n@HD\tVN:1.6\n",
         "{} 3: a second @HD line, the first is {} 2"},
        {"@SQ without SN", "@HD\tVN:1.6\n@SQ\tLN:5\n", "{} 2: the reference has no name"},
        {"@SQ alone", "@SQ", "{} 1: the reference has no name"},
        {"empty SN", "@SQ\tSN:\tLN:5\n", "{} 1: the reference has no name"},
        {"name with a blank", "\n\n@SQ\tSN:chr 1\tLN:5\n",
         "{} 3: reference name \"chr 1\" has white space"},
        {"name with a blank at its end", "@SQ\tSN:chr1 \tLN:5\n",
         "{} 1: reference name \"chr1 \" has white space"},
        {"name with a carriage return", "@SQ\tLN:5\tSN:a\rb\r\n",
         "{} 1: reference name \"a?b\" has white space"},
        {"name of a star", "@SQ\tSN:*\tLN:5\n", "{} 1: reference name * begins with *"},
        {"name that begins with =", "@SQ\tSN:=a\tLN:5\n", "{} 1: reference name =a begins with ="},
        {"no length", "@SQ\tSN:a\tln:5\n", "{} 1: reference a has no length"},
        {"empty length", "@SQ\tSN:a\tLN:\n",
         "{} 1: the length of reference a is no number from 1 to 2147483647: "},
        {"length 0", "@SQ\tSN:a\tLN:0\n",
         "{} 1: the length of reference a is no number from 1 to 2147483647: 0"},
        {"negative length", "@SQ\tSN:a\tLN:-5\n",
         "{} 1: the length of reference a is no number from 1 to 2147483647: -5"},
        {"length with a sign", "@SQ\tSN:a\tLN:+5\n",
         "{} 1: the length of reference a is no number from 1 to 2147483647: +5"},
        {"length with a letter", "@SQ\tSN:a\tLN:5M\n",
         "{} 1: the length of reference a is no number from 1 to 2147483647: 5M"},
        {"length with a blank", "@SQ\tSN:a\tLN: 5\n",
         "{} 1: the length of reference a is no number from 1 to 2147483647:  5"},
        {"two lengths, the first one bad", "@SQ\tSN:a\tLN:x\tLN:5\n",
         "{} 1: the length of reference a is no number from 1 to 2147483647: x"},
        {"length 2^31", "@SQ\tSN:a\tLN:2147483648\n",
         "{} 1: the length of reference a is no number from 1 to 2147483647: 2147483648"},
        {"length of many digits", "@SQ\tSN:a\tLN:99999999999999999999999\n",
         "{} 1: the length of reference a is no number from 1 to 2147483647: "
         "99999999999999999999999"},
        {"description that hides a length", "@SQ\tSN:a\tLN:5\tDS:x LN:7 y\n",
         "{} 1: \"LN:7\" inside a field of reference a would be taken for a field"},
        {"description that hides a bad length", "@SQ\tSN:a\tLN:5\tDS:x  y\fLN:seven\n",
         "{} 1: \"LN:seven\" inside a field of reference a would be taken for a field"},
        {"field that hides a name", "@SQ\tSN:a\tLN:5\t SN:b\n",
         "{} 1: \"SN:b\" inside a field of reference a would be taken for a field"},
        {"name twice", "@HD\tVN:1.6\n@SQ\tSN:chr1\tLN:5\n@SQ\tSN:b\tLN:5\n@SQ\tSN:chr1\tLN:6\n",
         "{} 4: reference name chr1 appears twice, first in {} 2"},
        {"NUL inside a line", "@HD\tVN:1.6\n@CO\t\0x\n"s,
         "{} 2: the header line has a NUL character"},
        {"NUL before a line's end", "@HD\tVN:1.6\0\n"s,
         "{} 1: the header line has a NUL character"},
        {"NUL at a line's beginning", "@CO\tx\n\0\0@CO\ty\n"s,
         "{} 2: the header line has a NUL character"},
    };
}

TEST(InteropHeader, AssignSam_BadText_IsRefusedAndHeaderEmpty) {
    for (ErrorCase const& c : error_cases()) {
        SCOPED_TRACE(c.label);
        Header header = old_header();
        Report report;
        std::string error;
        EXPECT_FALSE(header.assign_sam(c.input, report, error));
        EXPECT_EQ(error, with_unit(c.message, "line"));
        expect_is_empty(header);
    }
}

TEST(InteropHeader, AssignBam_BadText_IsRefusedAndHeaderEmpty) {
    for (ErrorCase const& c : error_cases()) {
        SCOPED_TRACE(c.label);
        Header header = old_header();
        Report report;
        std::string error;
        // Agrees with the text whose name appears twice; the other texts are
        // refused before the list is looked at.
        std::vector<RefSeq> const list = {{"chr1", 5}, {"b", 5}, {"chr1", 6}};
        EXPECT_FALSE(header.assign_bam(c.input, list, report, error));
        EXPECT_EQ(error, with_unit(c.message, "header line"));
        expect_is_empty(header);
    }
}

TEST(InteropHeader, AssignSam_PaddingAtEnd_IsRefused) {
    Header header;
    Report report;
    std::string error;
    EXPECT_FALSE(header.assign_sam("@HD\tVN:1.6\n\0"s, report, error));
    EXPECT_EQ(error, "line 2: the header line has a NUL character");
    EXPECT_EQ(findings_text(report), "");
}

// --- The binary list ---------------------------------------------------------

struct ListCase {
    char const* label;
    std::string input;
    std::vector<RefSeq> list;
    std::string text;      // repaired; empty where refused
    std::string findings;  // likewise
    std::string error;     // empty where accepted
};

constexpr std::int32_t MOST = std::numeric_limits<std::int32_t>::max();

std::vector<ListCase> list_cases() {
    std::string const differ = "the header text and the reference list differ at ";
    std::string const two = "@SQ\tSN:chr1\tLN:10\n@SQ\tSN:chr2\tLN:100\n";
    std::string const no_length = " is no number from 1 to 2147483647: ";
    return {
        {"no text, no list", "", {}, "", "", ""},
        {"both agree", two, {{"chr1", 10}, {"chr2", 100}}, two, "", ""},
        {"no @SQ",
         "@HD\tVN:1.6\n@CO\tx",
         {{"chr1", 10}, {"b*", MOST}},
         "@HD\tVN:1.6\n@CO\tx\n@SQ\tSN:chr1\tLN:10\n@SQ\tSN:b*\tLN:2147483647\n",
         "references_from_list 2;",
         ""},
        {"no text", "", {{"a", 1}}, "@SQ\tSN:a\tLN:1\n", "references_from_list 1;", ""},
        {"padding", "@CO\tx\n\0\0\0"s, {}, "@CO\tx\n", "header_padding 1;", ""},
        {"padding behind a line without its end",
         "@CO\tx\0"s,
         {},
         "@CO\tx\n",
         "header_padding 1;",
         ""},
        {"padding only",
         "\0\0"s,
         {{"a", 1}},
         "@SQ\tSN:a\tLN:1\n",
         "header_padding 1;references_from_list 1;",
         ""},
        {"lengths differ",
         two,
         {{"chr1", 10}, {"chr2", 90}},
         "",
         "",
         differ + "reference 2: chr2 of 100 bases and chr2 of 90 bases"},
        {"names differ",
         two,
         {{"1", 10}, {"2", 100}},
         "",
         "",
         differ + "reference 1: chr1 of 10 bases and 1 of 10 bases"},
        {"another order",
         two,
         {{"chr2", 100}, {"chr1", 10}},
         "",
         "",
         differ + "reference 1: chr1 of 10 bases and chr2 of 100 bases"},
        {"list ends first",
         two,
         {{"chr1", 10}},
         "",
         "",
         differ + "reference 2: chr2 of 100 bases and nothing"},
        {"list is empty", two, {}, "", "", differ + "reference 1: chr1 of 10 bases and nothing"},
        {"text ends first",
         two,
         {{"chr1", 10}, {"chr2", 100}, {"a\nb", -1}},
         "",
         "",
         differ + "reference 3: nothing and a?b of -1 bases"},
        {"empty name in the list",
         "",
         {{"a", 1}, {"", 10}},
         "",
         "",
         "reference 2 of the list: the reference has no name"},
        {"line end in a name",
         "",
         {{"a\nb", 1}},
         "",
         "",
         "reference 1 of the list: reference name \"a?b\" has white space"},
        {"NUL in a name",
         "",
         {{"a\0b"s, 1}},
         "",
         "",
         "reference 1 of the list: reference name a?b has a NUL character"},
        {"name of a star",
         "",
         {{"*", 1}},
         "",
         "",
         "reference 1 of the list: reference name * begins with *"},
        {"length 0",
         "",
         {{"a", 0}},
         "",
         "",
         "reference 1 of the list: the length of reference a" + no_length + "0"},
        {"negative length",
         "",
         {{"a", 5}, {"b", -2147483647 - 1}},
         "",
         "",
         "reference 2 of the list: the length of reference b" + no_length + "-2147483648"},
        {"name twice",
         "",
         {{"a", 5}, {"b", 6}, {"b", 6}},
         "",
         "",
         "reference 3 of the list: reference name b appears twice, first in reference 2 of the "
         "list"},
    };
}

TEST(InteropHeader, AssignBam_BinaryList_IsComparedOrMakesLines) {
    for (ListCase const& c : list_cases()) {
        SCOPED_TRACE(c.label);
        Header header = old_header();
        Report report;
        std::string error;
        EXPECT_EQ(header.assign_bam(c.input, c.list, report, error), c.error.empty());
        EXPECT_EQ(error, c.error);
        if (!c.error.empty()) {
            expect_is_empty(header);
            continue;
        }
        EXPECT_EQ(in_quotes(header.text()), in_quotes(c.text));
        EXPECT_EQ(findings_text(report), c.findings);
        EXPECT_EQ(references_text(header.references()), references_text(c.list));
        expect_is_sound(header);
    }
}

// --- Sorted text -------------------------------------------------------------

struct SortedCase {
    char const* label;
    char const* input;
    char const* text;
};

constexpr SortedCase SORTED_CASES[] = {
    {"nothing", "", "@HD\tVN:1.6\tSO:coordinate\n"},
    {"no @HD", "@SQ\tSN:a\tLN:5\n@CO\tx\n",
     "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:a\tLN:5\n@CO\tx\n"},
    {"no order", "@HD\tVN:1.7\n@CO\tx", "@HD\tVN:1.7\tSO:coordinate\n@CO\tx\n"},
    {"another SO and its SS", "@HD\tSS:queryname:x\tSO:queryname\tVN:1.6\n@CO\tSO:queryname\n",
     "@HD\tVN:1.6\tSO:coordinate\n@CO\tSO:queryname\n"},
    {"the same SO with an SS", "@HD\tVN:1.6\tSO:coordinate\tSS:coordinate:x\n",
     "@HD\tVN:1.6\tSO:coordinate\n"},
    {"GO", "@HD\tVN:1.10\tGO:query\n", "@HD\tVN:1.10\tSO:coordinate\n"},
    {"repaired version", "@HD\tVN:1.3\tSO:unsorted\n", "@HD\tVN:1.6\tSO:coordinate\n"},
    {"a comment that was a kind of @HD", "@HDX\tVN:1.9\n",
     "@HD\tVN:1.6\tSO:coordinate\n@CO\t@HDX\tVN:1.9\n"},
};

TEST(InteropHeader, TextSortedByCoordinate_AnyOrder_IsReplaced) {
    for (SortedCase const& c : SORTED_CASES) {
        SCOPED_TRACE(c.label);
        Header header;
        Report report;
        std::string error;
        ASSERT_TRUE(header.assign_sam(c.input, report, error)) << error;
        std::string const text = header.text();
        EXPECT_EQ(header.text_sorted_by_coordinate(), c.text);
        EXPECT_EQ(header.text(), text);
        BAMFileHandler handler;
        EXPECT_TRUE(handler.add_header_lines(c.text)) << handler.error_message;
        EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
    }
    EXPECT_EQ(Header().text_sorted_by_coordinate(), "@HD\tVN:1.6\tSO:coordinate\n");
}

// --- Random and real text ----------------------------------------------------

// Lines made of parts that matter somewhere, in any order.
std::string random_header(std::mt19937& random) {
    constexpr char const* PARTS[] = {"@HD",
                                     "@SQ",
                                     "@RG",
                                     "@CO",
                                     "@XX",
                                     "@HD\tVN:1.6",
                                     "@SQ\tSN:a\tLN:1",
                                     "\t",
                                     "\t",
                                     "\t",
                                     "\t",
                                     "\t",
                                     " ",
                                     "\r",
                                     "\f",
                                     "SN:",
                                     "LN:",
                                     "VN:",
                                     "SO:",
                                     "GO:",
                                     "SS:",
                                     "1.6",
                                     "1.4",
                                     "5",
                                     "2147483648",
                                     "coordinate",
                                     "unsorted",
                                     "query",
                                     "none",
                                     "a",
                                     "b*",
                                     "*",
                                     ":",
                                     "\nSN:c",
                                     "DS:x",
                                     "\n",
                                     "\n@SQ\t",
                                     "\tSN:d\tLN:4",
                                     "\n@SQ\tSN:e\tLN:9"};
    std::uniform_int_distribution<std::size_t> any_part(0, std::size(PARTS) - 1);
    std::uniform_int_distribution<int> any_length(0, 12);
    std::string text = random() % 2 == 0 ? "@HD\t" : "@SQ\t";
    for (int n = any_length(random); n > 0; --n) text += PARTS[any_part(random)];
    return text;
}

TEST(InteropHeader, AssignSam_RandomText_IsRefusedWithItsLineOrSound) {
    std::mt19937 random(20261121);
    int n_accepted = 0;
    int n_with_references = 0;
    for (int n = 0; n < 40000; ++n) {
        std::string const text = random_header(random);
        SCOPED_TRACE(in_quotes(text));
        Header header;
        Report report;
        std::string error;
        if (!header.assign_sam(text, report, error)) {
            // Not by the library, whose messages name no line.
            EXPECT_EQ(error.substr(0, 5), "line ") << error;
            continue;
        }
        ++n_accepted;
        if (!header.references().empty()) ++n_with_references;
        expect_is_sound(header);
        Header again;
        Report nothing;
        EXPECT_TRUE(again.assign_sam(header.text(), nothing, error)) << error;
        EXPECT_EQ(again.text(), header.text());
        EXPECT_EQ(findings_text(nothing), "");
        if (HasFailure()) break;
    }
    EXPECT_GT(n_accepted, 10000);
    EXPECT_GT(n_with_references, 1000);
}

struct RealCase {
    char const* file;
    char const* findings;
    char const* first_line;  // repaired
    std::size_t n_references;
};

constexpr RealCase REAL_CASES[] = {
    {"aligner_bwa_4000.sam", "header_version 1 line 1;", "@HD\tVN:1.6\tSO:queryname", 1},
    {"b_arrays.sam", "", "@SQ\tLN:200000000\tSN:chr1", 1},
    {"crlf_bowtie2.sam", "carriage_return 9 line 1;", "@HD\tVN:1.6\tSO:coordinate", 7},
    {"header_go_old_1018refs.sam", "header_version 1 line 1;header_group_beside_sort 1 line 1;",
     "@HD\tVN:1.6\tSO:coordinate", 1018},
    {"header_so_and_go.sam", "header_group_beside_sort 1 line 1;",
     "@HD\tVN:1.6\tSO:unsorted\tSS:unsorted:template-coordinate", 1},
    {"int_range.sam", "header_version 1 line 1;", "@HD\tVN:1.6\tSO:coordinate", 3},
    {"noheader_3270.sam", "", "", 0},
    {"spliced_102.sam", "header_version 1 line 1;", "@HD\tVN:1.6\tSO:coordinate", 194},
    {"type_letter_I.sam", "header_version 1 line 1;", "@HD\tVN:1.6", 4},
};

TEST(InteropHeader, AssignSam_RealFiles_AreRepairedAndReported) {
    char const* const folder = std::getenv("TESK_BAM_REAL_DATA");
    if (folder == nullptr) GTEST_SKIP() << "TESK_BAM_REAL_DATA is not set";
    for (RealCase const& c : REAL_CASES) {
        SCOPED_TRACE(c.file);
        std::ifstream file(folder + "/"s + c.file, std::ios::binary);
        ASSERT_TRUE(file);
        std::string text;
        for (std::string line; file.peek() == '@' && std::getline(file, line);) text += line + '\n';
        Header header;
        Report report;
        std::string error;
        EXPECT_TRUE(header.assign_sam(text, report, error)) << error;
        EXPECT_EQ(findings_text(report), c.findings);
        EXPECT_EQ(header.text().substr(0, header.text().find('\n')), c.first_line);
        EXPECT_EQ(header.references().size(), c.n_references);
        expect_is_sound(header);
    }
}

// --- Look-up -----------------------------------------------------------------

TEST(InteropHeader, Find_NamesAndOthers_GivesPositionOrNone) {
    Header header;
    EXPECT_EQ(header.find("a"), -1);
    Report report;
    std::string error;
    ASSERT_TRUE(
        header.assign_sam("@SQ\tSN:a\tLN:1\n@SQ\tSN:aa\tLN:2\n@SQ\tSN:A\tLN:3\n", report, error));
    EXPECT_EQ(header.find("a"), 0);
    EXPECT_EQ(header.find("aa"), 1);
    EXPECT_EQ(header.find("A"), 2);
    EXPECT_EQ(header.find("aaa"), -1);
    EXPECT_EQ(header.find(""), -1);
    EXPECT_EQ(header.find("*"), -1);
}

// Short names live inside their string objects, long ones outside: both must be
// found in a header that was moved.
TEST(InteropHeader, Move_OfAssignedHeader_KeepsReferencesFindable) {
    std::string const long_name(300, 'x');
    Report report;
    std::string error;
    Header source;
    ASSERT_TRUE(
        source.assign_sam("@SQ\tSN:a\tLN:1\n@SQ\tSN:" + long_name + "\tLN:2\n", report, error));
    Header moved(std::move(source));
    expect_is_sound(moved);
    EXPECT_EQ(moved.find(long_name), 1);

    Header assigned = old_header();
    assigned = std::move(moved);
    expect_is_sound(assigned);
    EXPECT_EQ(assigned.find("a"), 0);
    EXPECT_EQ(assigned.find(long_name), 1);
    EXPECT_EQ(assigned.find("old"), -1);
}

TEST(InteropHeader, AssignSam_OwnText_IsTheSame) {
    Header header = old_header();
    Report report;
    std::string error;
    ASSERT_TRUE(header.assign_sam(header.text(), report, error)) << error;
    EXPECT_EQ(header.text(), "@HD\tVN:1.6\n@SQ\tSN:old\tLN:1\n");
    EXPECT_EQ(header.find("old"), 0);
}

TEST(InteropHeader, Assign_ManyReferences_AllAreFound) {
    constexpr std::int32_t N = 200000;
    std::string text = "@HD\tVN:1.0\r\n";
    std::string repaired = "@HD\tVN:1.6\n";
    std::vector<RefSeq> list;
    for (std::int32_t i = 0; i < N; ++i) {
        std::string const name = "contig_" + std::to_string(i);
        std::string const line = "@SQ\tSN:" + name + "\tLN:" + std::to_string(i + 1);
        text += line + "\r\n";
        repaired += line + '\n';
        list.push_back({name, i + 1});
    }
    Header header;
    Report report;
    std::string error;
    ASSERT_TRUE(header.assign_bam(text, list, report, error)) << error;
    EXPECT_TRUE(header.text() == repaired);  // too long for a message
    EXPECT_EQ(findings_text(report),
              "header_version 1 header line 1;carriage_return 200001 header line 1;");
    std::int32_t n_found = 0;
    for (std::int32_t i = 0; i < N; ++i) {
        RefSeq const& reference = header.references()[static_cast<std::size_t>(i)];
        if (header.find(list[static_cast<std::size_t>(i)].name) == i && reference.length == i + 1) {
            ++n_found;
        }
    }
    EXPECT_EQ(n_found, N);
    EXPECT_EQ(header.find("contig_200000"), -1);
}

}  // namespace
}  // namespace tesk::test

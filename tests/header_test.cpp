// Header lines: what is accepted and where it goes, what is refused with which
// message, and the header of BAM output.

#include "util/bam/bam_file.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/record_text.h"

namespace tesk::test {
namespace {

using util::bam::BAMFileHandler;

// What a handler holds of headers.
struct HeaderState {
    std::string header;
    std::string sort_order;
    bool has_sort_order = false;
    std::string header_lines;
    std::string references;  // "name length;" each

    std::string text() const {
        return "header " + in_quotes(header) + "\nsort_order " + in_quotes(sort_order) +
               "\nhas_sort_order " + (has_sort_order ? "true" : "false") + "\nheader_lines " +
               in_quotes(header_lines) + "\nreferences " + in_quotes(references) + '\n';
    }
};

HeaderState state_of(BAMFileHandler const& handler) {
    HeaderState state{handler.header, handler.sort_order, handler.has_sort_order,
                      handler.header_lines, ""};
    for (auto const& reference : handler.references) {
        state.references += reference.name + ' ' + std::to_string(reference.length) + ';';
    }
    return state;
}

// --- Accepted @HD lines ----------------------------------------------------

struct OrderCase {
    char const* label;
    char const* fields;  // of the @HD line, with their tabs
    char const* sort_order;
    bool is_definite;
};

constexpr OrderCase ORDER_CASES[] = {
    {"version only", "\tVN:1.6", "", false},
    {"SO unknown", "\tVN:1.6\tSO:unknown", "\tSO:unknown", false},
    {"SO unsorted", "\tVN:1.6\tSO:unsorted", "\tSO:unsorted", false},
    {"SO queryname", "\tVN:1.6\tSO:queryname", "\tSO:queryname", true},
    {"SO coordinate", "\tVN:1.6\tSO:coordinate", "\tSO:coordinate", true},
    {"GO none", "\tVN:1.6\tGO:none", "\tGO:none", false},
    {"GO query", "\tVN:1.6\tGO:query", "\tGO:query", true},
    {"GO reference", "\tVN:1.6\tGO:reference", "\tGO:reference", true},
    {"GO at the first minor version that has it", "\tVN:1.5\tGO:query", "\tGO:query", true},
    {"SS refines SO and takes its place", "\tVN:1.6\tSO:coordinate\tSS:coordinate:queryname",
     "\tSS:coordinate:queryname", true},
    {"SS of an indefinite order is definite", "\tVN:1.6\tSO:unsorted\tSS:unsorted:MI",
     "\tSS:unsorted:MI", true},
    {"SS that is SO and a colon", "\tVN:1.6\tSO:queryname\tSS:queryname:", "\tSS:queryname:", true},
    {"SS that is SO without a colon", "\tVN:1.6\tSO:queryname\tSS:queryname", "\tSO:queryname",
     true},
    {"SS of another order is dropped", "\tVN:1.6\tSO:coordinate\tSS:queryname:x", "\tSO:coordinate",
     true},
    {"SS of another order beside an indefinite one", "\tVN:1.6\tSO:unsorted\tSS:queryname:x",
     "\tSO:unsorted", false},
    {"SS without SO is dropped", "\tVN:1.6\tSS:coordinate:queryname", "", false},
    {"SS beside GO is dropped", "\tVN:1.6\tGO:none\tSS:none:x", "\tGO:none", false},
    {"fields in any order", "\tSS:coordinate:x\tSO:coordinate\tVN:1.6", "\tSS:coordinate:x", true},
    {"repeated field, the last one holds", "\tVN:1.6\tSO:queryname\tSO:unsorted", "\tSO:unsorted",
     false},
    {"repeated version, the last one holds", "\tVN:1.0\tVN:1.6\tGO:query", "\tGO:query", true},
    {"fields separated by blanks", " VN:1.6  SO:queryname", "\tSO:queryname", true},
    {"fields separated by other white space", "\vVN:1.6\fSO:queryname", "\tSO:queryname", true},
    {"blank at the end repeats the last field", "\tVN:1.6\tSO:queryname ", "\tSO:queryname", true},
    {"carriage return at the end", "\tVN:1.6\tSO:coordinate\r", "\tSO:coordinate", true},
    {"empty SO is none", "\tVN:1.6\tSO:", "", false},
    {"empty SO beside GO", "\tVN:1.6\tSO:\tGO:query", "\tGO:query", true},
    {"empty GO beside SO", "\tVN:1.6\tSO:coordinate\tGO:", "\tSO:coordinate", true},
    {"empty GO needs no version", "\tVN:1.4\tGO:", "", false},
    {"empty SS needs no version", "\tVN:1.4\tSO:coordinate\tSS:", "\tSO:coordinate", true},
    {"SO taken back by an empty one", "\tVN:1.6\tSO:coordinate\tSO:", "", false},
};

TEST(Header, HdLine_Accepted_SetsSortOrder) {
    for (OrderCase const& c : ORDER_CASES) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        std::string const line = std::string("@HD") + c.fields;
        EXPECT_TRUE(handler.add_header_lines(line)) << handler.error_message;
        HeaderState const expected{line + '\n', c.sort_order, c.is_definite, "", ""};
        EXPECT_EQ(state_of(handler).text(), expected.text());
    }
}

TEST(Header, HdLine_WithoutDefiniteOrder_LeavesTheFlagAsItWas) {
    for (OrderCase const& c : ORDER_CASES) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        handler.has_sort_order = true;
        EXPECT_TRUE(handler.add_header_lines(std::string("@HD") + c.fields));
        EXPECT_TRUE(handler.has_sort_order);
        EXPECT_EQ(handler.sort_order, c.sort_order);
    }
}

// --- Versions --------------------------------------------------------------

// Which versions a VN value stands for shows in what they allow.
enum class Allows { NOTHING, GO, GO_SS_RG };

struct VersionCase {
    char const* label;
    char const* vn;
    Allows allows;
};

constexpr VersionCase VERSION_CASES[] = {
    {"minor 0", "1.0", Allows::NOTHING},
    {"below GO", "1.4", Allows::NOTHING},
    {"GO", "1.5", Allows::GO},
    {"all", "1.6", Allows::GO_SS_RG},
    {"beyond", "1.7", Allows::GO_SS_RG},
    {"two digits", "1.10", Allows::GO_SS_RG},
    {"the major number does not count", "2.0", Allows::NOTHING},
    {"nor does a negative one", "-3.5", Allows::GO},
    {"no number leaves 1.6", "abc", Allows::GO_SS_RG},
    {"one number leaves the minor 6", "2", Allows::GO_SS_RG},
    {"point without a number behind it", "1.", Allows::GO_SS_RG},
    {"text behind it", "1.4x", Allows::NOTHING},
    {"more numbers behind it", "1.5.9", Allows::GO},
    {"negative minor beside major 1", "1.-1x", Allows::NOTHING},
    {"negative minor, both numbers read", "2.-1", Allows::NOTHING},
    {"signs", "+1.+5", Allows::GO},
    {"other separator", "1,4", Allows::GO_SS_RG},
};

TEST(Header, VersionOfHdLine_AnyValue_GovernsWhatMayFollow) {
    for (VersionCase const& c : VERSION_CASES) {
        SCOPED_TRACE(c.label);
        std::string const hd = std::string("@HD\tVN:") + c.vn;
        bool const has_go = c.allows != Allows::NOTHING;
        bool const has_all = c.allows == Allows::GO_SS_RG;
        EXPECT_TRUE(BAMFileHandler().add_header_lines(hd));
        EXPECT_TRUE(BAMFileHandler().add_header_lines(hd + "\tSO:coordinate\n@CO\ttext"));
        EXPECT_TRUE(BAMFileHandler().add_header_lines(hd + "\n@SQ\tSN:chr1\tLN:5"));
        EXPECT_EQ(BAMFileHandler().add_header_lines(hd + "\tGO:query"), has_go);
        EXPECT_EQ(BAMFileHandler().add_header_lines(hd + "\tSO:unsorted\tSS:unsorted:x"), has_all);
        EXPECT_EQ(BAMFileHandler().add_header_lines(hd + "\n@RG\tID:x"), has_all);
        EXPECT_EQ(BAMFileHandler().add_header_lines(hd + "\n@PG\tID:x"), has_all);
    }
}

TEST(Header, VersionOfHdLine_NextCall_StartsAt16Again) {
    BAMFileHandler handler;
    EXPECT_TRUE(handler.add_header_lines("@HD\tVN:1.0"));
    EXPECT_TRUE(handler.add_header_lines("@RG\tID:x"));
    EXPECT_EQ(handler.header_lines, "@RG\tID:x\n");
}

TEST(Header, VersionOfHdLine_LaterHdLineOfTheCallWithoutNumbers_KeepsTheEarlier) {
    BAMFileHandler handler;
    EXPECT_FALSE(handler.add_header_lines("@HD\tVN:1.5\n@HD\tVN:abc\n@RG\tID:x"));
    EXPECT_EQ(handler.error_message,
              "Unsupported '@RG' line encountered in @HD header line with VN < 1.3: @RG\tID:x");
}

// --- Other lines -----------------------------------------------------------

struct TextCase {
    char const* label;
    std::string text;
    HeaderState state;
};

std::vector<TextCase> const& text_cases() {
    static std::vector<TextCase> const CASES = {
        {"empty text", "", {}},
        {"@SQ without newline at the end",
         "@SQ\tSN:chr1\tLN:1000",
         {"@SQ\tSN:chr1\tLN:1000\n", "", false, "@SQ\tSN:chr1\tLN:1000\n", "chr1 1000;"}},
        {"@SQ with newline at the end",
         "@SQ\tSN:chr1\tLN:1000\n",
         {"@SQ\tSN:chr1\tLN:1000\n", "", false, "@SQ\tSN:chr1\tLN:1000\n", "chr1 1000;"}},
        {"@SQ fields in any order, others ignored",
         "@SQ\tM5:abc\tLN:7\tAS:x\tSN:chr1\tSNX",
         {"@SQ\tM5:abc\tLN:7\tAS:x\tSN:chr1\tSNX\n", "", false,
          "@SQ\tM5:abc\tLN:7\tAS:x\tSN:chr1\tSNX\n", "chr1 7;"}},
        {"@SQ repeated fields, the last ones hold",
         "@SQ\tSN:a\tLN:0\tSN:b\tLN:9",
         {"@SQ\tSN:a\tLN:0\tSN:b\tLN:9\n", "", false, "@SQ\tSN:a\tLN:0\tSN:b\tLN:9\n", "b 9;"}},
        {"@SQ negative length",
         "@SQ\tSN:chr1\tLN:-5",
         {"@SQ\tSN:chr1\tLN:-5\n", "", false, "@SQ\tSN:chr1\tLN:-5\n", "chr1 -5;"}},
        {"@SQ length with sign, and with text behind it",
         "@SQ\tSN:a\tLN:+5\n@SQ\tSN:b\tLN:12bp",
         {"@SQ\tSN:a\tLN:+5\n@SQ\tSN:b\tLN:12bp\n", "", false,
          "@SQ\tSN:a\tLN:+5\n@SQ\tSN:b\tLN:12bp\n", "a 5;b 12;"}},
        {"@SQ longest and shortest length",
         "@SQ\tSN:a\tLN:2147483647\n@SQ\tSN:b\tLN:-2147483648",
         {"@SQ\tSN:a\tLN:2147483647\n@SQ\tSN:b\tLN:-2147483648\n", "", false,
          "@SQ\tSN:a\tLN:2147483647\n@SQ\tSN:b\tLN:-2147483648\n", "a 2147483647;b -2147483648;"}},
        {"@SQ length is decimal",
         "@SQ\tSN:a\tLN:010",
         {"@SQ\tSN:a\tLN:010\n", "", false, "@SQ\tSN:a\tLN:010\n", "a 10;"}},
        {"@SQ separated by blanks, a blank at the end",
         "@SQ SN:a LN:5 ",
         {"@SQ SN:a LN:5 \n", "", false, "@SQ SN:a LN:5 \n", "a 5;"}},
        {"@SQ name ends at a blank",
         "@SQ\tSN:a b\tLN:5",
         {"@SQ\tSN:a b\tLN:5\n", "", false, "@SQ\tSN:a b\tLN:5\n", "a 5;"}},
        {"@SQ lines of one name",
         "@SQ\tSN:a\tLN:5\n@SQ\tSN:a\tLN:6\n",
         {"@SQ\tSN:a\tLN:5\n@SQ\tSN:a\tLN:6\n", "", false, "@SQ\tSN:a\tLN:5\n@SQ\tSN:a\tLN:6\n",
          "a 5;a 6;"}},
        {"carriage returns stay in the lines, not in the name",
         "@HD\tVN:1.6\tSO:unsorted\r\n@SQ\tLN:5\tSN:a\r\n@CO\tx\r\n",
         {"@HD\tVN:1.6\tSO:unsorted\r\n@SQ\tLN:5\tSN:a\r\n@CO\tx\r\n", "\tSO:unsorted", false,
          "@SQ\tLN:5\tSN:a\r\n@CO\tx\r\n", "a 5;"}},
        {"@RG and @PG without @HD",
         "@RG\tID:x\n@PG\tID:y",
         {"@RG\tID:x\n@PG\tID:y\n", "", false, "@RG\tID:x\n@PG\tID:y\n", ""}},
        {"record types alone on their lines",
         "@RG\n@PG\n@CO",
         {"@RG\n@PG\n@CO\n", "", false, "@RG\n@PG\n@CO\n", ""}},
        {"@CO of any text",
         "@CO\tone  two\t\t@SQ \v",
         {"@CO\tone  two\t\t@SQ \v\n", "", false, "@CO\tone  two\t\t@SQ \v\n", ""}},
        {"white space before the record type",
         " @CO\tx",
         {" @CO\tx\n", "", false, " @CO\tx\n", ""}},
        {"all kinds, in input order, the @HD line left out of the lines",
         "@HD\tVN:1.6\tGO:query\n@CO\t1\n@SQ\tSN:a\tLN:5\n@RG\tID:2\n@SQ\tSN:b\tLN:6\n@PG\tID:3\n",
         {"@HD\tVN:1.6\tGO:query\n@CO\t1\n@SQ\tSN:a\tLN:5\n@RG\tID:2\n@SQ\tSN:b\tLN:6\n@PG\tID:3\n",
          "\tGO:query", true, "@CO\t1\n@SQ\tSN:a\tLN:5\n@RG\tID:2\n@SQ\tSN:b\tLN:6\n@PG\tID:3\n",
          "a 5;b 6;"}},
        {"two @HD lines, of which the first names no order",
         "@HD\tVN:1.6\n@HD\tVN:1.6",
         {"@HD\tVN:1.6\n@HD\tVN:1.6\n", "", false, "", ""}},
        {"two @HD lines, of which the second names an order",
         "@HD\tVN:1.6\n@HD\tVN:1.6\tSO:coordinate\n",
         {"@HD\tVN:1.6\n@HD\tVN:1.6\tSO:coordinate\n", "\tSO:coordinate", true, "", ""}},
        {"NUL inside a comment",
         std::string("@CO\ta\0b", 7),
         {std::string("@CO\ta\0b\n", 8), "", false, std::string("@CO\ta\0b\n", 8), ""}},
    };
    return CASES;
}

TEST(Header, Text_Accepted_IsFiledWholeAndTakenApart) {
    for (TextCase const& c : text_cases()) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        handler.error_message = "an earlier failure";
        EXPECT_TRUE(handler.add_header_lines(c.text)) << handler.error_message;
        EXPECT_EQ(state_of(handler).text(), c.state.text());
        EXPECT_EQ(handler.error_message, "an earlier failure");
    }
}

TEST(Header, Calls_OneAfterAnother_Accumulate) {
    BAMFileHandler handler;
    EXPECT_TRUE(handler.add_header_lines("@HD\tVN:1.6"));
    EXPECT_TRUE(handler.add_header_lines("@HD\tVN:1.6\tSO:queryname\n"));
    EXPECT_TRUE(handler.add_header_lines("@SQ\tSN:a\tLN:5\n@CO\tx"));
    EXPECT_TRUE(handler.add_header_lines(""));
    EXPECT_TRUE(handler.add_header_lines("@SQ\tSN:b\tLN:6"));
    HeaderState const expected{
        "@HD\tVN:1.6\n@HD\tVN:1.6\tSO:queryname\n@SQ\tSN:a\tLN:5\n@CO\tx\n@SQ\tSN:b\tLN:6\n",
        "\tSO:queryname", true, "@SQ\tSN:a\tLN:5\n@CO\tx\n@SQ\tSN:b\tLN:6\n", "a 5;b 6;"};
    EXPECT_EQ(state_of(handler).text(), expected.text());
}

TEST(Header, EmptyText_HeaderSetByHandWithoutNewline_GetsItsNewline) {
    BAMFileHandler handler;
    handler.header = "@CO\tby hand";
    EXPECT_TRUE(handler.add_header_lines(""));
    EXPECT_EQ(handler.header, "@CO\tby hand\n");
    EXPECT_TRUE(handler.add_header_lines(""));
    EXPECT_EQ(handler.header, "@CO\tby hand\n");
}

// --- Refused lines ---------------------------------------------------------

struct FailureCase {
    char const* label;
    std::string text;
    std::string message;
    char const* sort_order;    // afterwards, where the lines before the bad one
    bool is_definite;          // put it
    char const* header_lines;  // likewise
};

std::vector<FailureCase> const& failure_cases() {
    static std::vector<FailureCase> const CASES = {
        {"second @HD after an order", "@HD\tVN:1.6\tSO:coordinate\n@HD\tVN:1.6",
         "Multiple @HD lines encountered in header line: @HD\tVN:1.6", "\tSO:coordinate", true, ""},
        {"second @HD after an indefinite order", "@HD\tVN:1.6\tSO:unknown\n@HD\tVN:1.6\tSO:x",
         "Multiple @HD lines encountered in header line: @HD\tVN:1.6\tSO:x", "\tSO:unknown", false,
         ""},
        {"second @HD after an order and a line", "@HD\tVN:1.6\tGO:none\n@CO\tx\n@HD",
         "Multiple @HD lines encountered in header line: @HD", "\tGO:none", false, "@CO\tx\n"},
        {"@HD after @SQ", "@SQ\tSN:a\tLN:5\n@HD\tVN:1.6",
         "@HD lines encountered after first header line: @HD\tVN:1.6", "", false,
         "@SQ\tSN:a\tLN:5\n"},
        {"@HD after @RG", "@RG\tID:x\n@HD\tVN:1.6",
         "@HD lines encountered after first header line: @HD\tVN:1.6", "", false, "@RG\tID:x\n"},
        {"@HD after @PG", "@PG\tID:x\n@HD\tVN:1.6",
         "@HD lines encountered after first header line: @HD\tVN:1.6", "", false, "@PG\tID:x\n"},
        {"@HD after @CO", "@CO\n@HD", "@HD lines encountered after first header line: @HD", "",
         false, "@CO\n"},
        {"@HD alone", "@HD", "Mandatory 'VN' field not found in @HD header line: @HD", "", false,
         ""},
        {"@HD without VN", "@HD\tSO:coordinate",
         "Mandatory 'VN' field not found in @HD header line: @HD\tSO:coordinate", "", false, ""},
        {"@HD with empty VN", "@HD\tVN:\tSO:coordinate",
         "Mandatory 'VN' field not found in @HD header line: @HD\tVN:\tSO:coordinate", "", false,
         ""},
        {"VN taken back by an empty one", "@HD\tVN:1.6\tVN:",
         "Mandatory 'VN' field not found in @HD header line: @HD\tVN:1.6\tVN:", "", false, ""},
        {"@HD and a blank", "@HD ", "Invalid field '@HD' encountered in @HD header line: @HD ", "",
         false, ""},
        {"@HD and a carriage return", "@HD\r",
         "Invalid field '@HD' encountered in @HD header line: @HD\r", "", false, ""},
        {"unknown field", "@HD\tVN:1.6\tXX:yes",
         "Invalid field 'XX:yes' encountered in @HD header line: @HD\tVN:1.6\tXX:yes", "", false,
         ""},
        {"field in lower case", "@HD\tvn:1.6",
         "Invalid field 'vn:1.6' encountered in @HD header line: @HD\tvn:1.6", "", false, ""},
        {"field of two characters", "@HD\tVN",
         "Invalid field 'VN' encountered in @HD header line: @HD\tVN", "", false, ""},
        {"value with a blank", "@HD\tVN:1.6\tSO:co ordinate",
         "Invalid field 'ordinate' encountered in @HD header line: @HD\tVN:1.6\tSO:co ordinate", "",
         false, ""},
        {"unknown field before a missing VN", "@HD\tSO:x\tAB:c",
         "Invalid field 'AB:c' encountered in @HD header line: @HD\tSO:x\tAB:c", "", false, ""},
        {"version of three odd parts", "@HD\tVN:2.-1x",
         "Invalid 'VN' field '2.-1x' encountered in @HD header line: @HD\tVN:2.-1x", "", false, ""},
        {"version with major 0 and negative minor", "@HD\tVN:0.-7.1\tGO:x",
         "Invalid 'VN' field '0.-7.1' encountered in @HD header line: @HD\tVN:0.-7.1\tGO:x", "",
         false, ""},
        {"GO below 1.5", "@HD\tVN:1.4\tGO:query",
         "Unsupported 'GO' field encountered in @HD header line with VN < 1.5: "
         "@HD\tVN:1.4\tGO:query",
         "", false, ""},
        {"GO under 2.0", "@HD\tVN:2.0\tGO:query",
         "Unsupported 'GO' field encountered in @HD header line with VN < 1.5: "
         "@HD\tVN:2.0\tGO:query",
         "", false, ""},
        {"GO below 1.5 comes before SS", "@HD\tVN:1.4\tGO:x\tSS:y\tSO:z",
         "Unsupported 'GO' field encountered in @HD header line with VN < 1.5: "
         "@HD\tVN:1.4\tGO:x\tSS:y\tSO:z",
         "", false, ""},
        {"SS below 1.6", "@HD\tVN:1.5\tSO:coordinate\tSS:coordinate:x",
         "Unsupported 'SS' field encountered in @HD header line with VN < 1.6: "
         "@HD\tVN:1.5\tSO:coordinate\tSS:coordinate:x",
         "", false, ""},
        {"SS below 1.6 comes before SO with GO", "@HD\tVN:1.5\tSO:x\tGO:y\tSS:z",
         "Unsupported 'SS' field encountered in @HD header line with VN < 1.6: "
         "@HD\tVN:1.5\tSO:x\tGO:y\tSS:z",
         "", false, ""},
        {"SO with GO", "@HD\tVN:1.6\tSO:coordinate\tGO:none",
         "Mutually exclusive 'SO' and 'GO' fields encountered in @HD header line: "
         "@HD\tVN:1.6\tSO:coordinate\tGO:none",
         "", false, ""},
        {"SO with GO comes before their values", "@HD\tVN:1.6\tGO:y\tSO:x",
         "Mutually exclusive 'SO' and 'GO' fields encountered in @HD header line: "
         "@HD\tVN:1.6\tGO:y\tSO:x",
         "", false, ""},
        {"SO value", "@HD\tVN:1.6\tSO:sorted",
         "Invalid 'SO' field 'sorted' encountered in @HD header line: @HD\tVN:1.6\tSO:sorted", "",
         false, ""},
        {"SO value in upper case", "@HD\tVN:1.6\tSO:Coordinate",
         "Invalid 'SO' field 'Coordinate' encountered in @HD header line: "
         "@HD\tVN:1.6\tSO:Coordinate",
         "", false, ""},
        {"SO value of GO", "@HD\tVN:1.6\tSO:query",
         "Invalid 'SO' field 'query' encountered in @HD header line: @HD\tVN:1.6\tSO:query", "",
         false, ""},
        {"GO value", "@HD\tVN:1.6\tGO:all",
         "Invalid 'GO' field 'all' encountered in @HD header line: @HD\tVN:1.6\tGO:all", "", false,
         ""},
        {"GO value of SO", "@HD\tVN:1.6\tGO:queryname",
         "Invalid 'GO' field 'queryname' encountered in @HD header line: "
         "@HD\tVN:1.6\tGO:queryname",
         "", false, ""},
        {"@SQ alone", "@SQ", "Malformed @SQ line encountered in header lines: @SQ", "", false, ""},
        {"@SQ and a blank", "@SQ ", "Malformed @SQ line encountered in header lines: @SQ ", "",
         false, ""},
        {"@SQ without length", "@SQ\tSN:chr1",
         "Malformed @SQ line encountered in header lines: @SQ\tSN:chr1", "", false, ""},
        {"@SQ with length 0", "@SQ\tSN:chr1\tLN:0",
         "Malformed @SQ line encountered in header lines: @SQ\tSN:chr1\tLN:0", "", false, ""},
        {"@SQ without name", "@SQ\tLN:5",
         "Malformed @SQ line encountered in header lines: @SQ\tLN:5", "", false, ""},
        {"@SQ with empty name", "@SQ\tSN:\tLN:5",
         "Malformed @SQ line encountered in header lines: @SQ\tSN:\tLN:5", "", false, ""},
        {"@SQ after a good one", "@SQ\tSN:a\tLN:5\n@CO\tx\n@SQ\tSN:b",
         "Malformed @SQ line encountered in header lines: @SQ\tSN:b", "", false,
         "@SQ\tSN:a\tLN:5\n@CO\tx\n"},
        {"@RG below 1.6", "@HD\tVN:1.5\n@RG\tID:x",
         "Unsupported '@RG' line encountered in @HD header line with VN < 1.3: @RG\tID:x", "",
         false, ""},
        {"@PG below 1.6", "@HD\tVN:1.5\tSO:queryname\n@CO\ty\n@PG\tID:x",
         "Unsupported '@PG' line encountered in @HD header line with VN < 1.3: @PG\tID:x",
         "\tSO:queryname", true, "@CO\ty\n"},
        {"unknown record type", "@XX\tSN:a", "Invalid line encountered in header lines: @XX\tSN:a",
         "", false, ""},
        {"record type in lower case", "@hd\tVN:1.6",
         "Invalid line encountered in header lines: @hd\tVN:1.6", "", false, ""},
        {"record type with a letter too many", "@HDX\tVN:1.6",
         "Invalid line encountered in header lines: @HDX\tVN:1.6", "", false, ""},
        {"record type without white space behind it", "@SQ:SN:a",
         "Invalid line encountered in header lines: @SQ:SN:a", "", false, ""},
        {"alignment line", "r1\t0\tchr1", "Invalid line encountered in header lines: r1\t0\tchr1",
         "", false, ""},
        {"empty line between two lines", "@CO\tx\n\n@CO\ty",
         "Invalid line encountered in header lines: ", "", false, "@CO\tx\n"},
        {"empty line at the end", "@CO\tx\n\n", "Invalid line encountered in header lines: ", "",
         false, "@CO\tx\n"},
        {"newline alone", "\n", "Invalid line encountered in header lines: ", "", false, ""},
        {"line of white space", " \t\r", "Invalid line encountered in header lines:  \t\r", "",
         false, ""},
        {"whole line in the message, blanks and all", "@CO\tx\n @YY  a\tb \r\n@CO\tz",
         "Invalid line encountered in header lines:  @YY  a\tb \r", "", false, "@CO\tx\n"},
    };
    return CASES;
}

TEST(Header, Text_Refused_SaysWhyAndKeepsReferencesAndHeader) {
    for (FailureCase const& c : failure_cases()) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        handler.error_message = "an earlier and longer failure, of which nothing stays";
        EXPECT_FALSE(handler.add_header_lines(c.text));
        EXPECT_EQ(handler.error_message, c.message);
        HeaderState const expected{"", c.sort_order, c.is_definite, c.header_lines, ""};
        EXPECT_EQ(state_of(handler).text(), expected.text());
    }
}

TEST(Header, Text_RefusedAfterEarlierCalls_KeepsWhatTheyAdded) {
    BAMFileHandler handler;
    ASSERT_TRUE(handler.add_header_lines("@HD\tVN:1.6\tSO:queryname\n@SQ\tSN:a\tLN:5"));
    std::string const header = handler.header;
    EXPECT_FALSE(handler.add_header_lines("@SQ\tSN:b\tLN:6\n@CO\tx\n@SQ\tSN:c"));
    HeaderState const expected{header, "\tSO:queryname", true,
                               "@SQ\tSN:a\tLN:5\n@SQ\tSN:b\tLN:6\n@CO\tx\n", "a 5;"};
    EXPECT_EQ(state_of(handler).text(), expected.text());

    EXPECT_FALSE(handler.add_header_lines("@HD\tVN:1.6"));
    EXPECT_EQ(handler.error_message, "Multiple @HD lines encountered in header line: @HD\tVN:1.6");
    EXPECT_EQ(state_of(handler).text(), expected.text());
}

TEST(Header, HdLine_AfterTheLinesOfAnEarlierCall_IsRefused) {
    BAMFileHandler handler;
    ASSERT_TRUE(handler.add_header_lines("@CO\tx"));
    EXPECT_FALSE(handler.add_header_lines("@HD\tVN:1.6"));
    EXPECT_EQ(handler.error_message, "@HD lines encountered after first header line: @HD\tVN:1.6");
}

TEST(Header, HdLine_AfterSort_IsRefused) {
    BAMFileHandler handler;
    ASSERT_TRUE(handler.sort());
    EXPECT_FALSE(handler.add_header_lines("@HD\tVN:1.6"));
    EXPECT_EQ(handler.error_message, "Multiple @HD lines encountered in header line: @HD\tVN:1.6");
    EXPECT_EQ(handler.header, "");
}

TEST(Header, HdLine_Refused_LeavesNoVersionBehind) {
    BAMFileHandler handler;
    EXPECT_FALSE(handler.add_header_lines("@HD\tVN:1.2\tGO:query"));
    EXPECT_TRUE(handler.add_header_lines("@RG\tID:x"));
}

struct LengthCase {
    char const* label;
    char const* length;
    bool is_out_of_range;  // else no number
};

constexpr LengthCase LENGTH_CASES[] = {
    {"no number", "abc", false},
    {"empty", "", false},
    {"sign only", "-", false},
    {"one above the largest", "2147483648", true},
    {"one below the smallest", "-2147483649", true},
    {"far too large", "99999999999999999999", true},
};

TEST(Header, LengthOfReference_NoInt32_ThrowsAndKeepsReferencesAndHeader) {
    for (LengthCase const& c : LENGTH_CASES) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        ASSERT_TRUE(handler.add_header_lines("@SQ\tSN:a\tLN:5"));
        handler.error_message = "an earlier failure";
        std::string const text = std::string("@CO\tx\n@SQ\tSN:b\tLN:6\n@SQ\tSN:c\tLN:") + c.length;
        std::string what;
        bool is_out_of_range = false;
        try {
            handler.add_header_lines(text);
        } catch (std::invalid_argument const& fault) {
            what = fault.what();
        } catch (std::out_of_range const& fault) {
            what = fault.what();
            is_out_of_range = true;
        }
        EXPECT_EQ(what, "stoi");
        EXPECT_EQ(is_out_of_range, c.is_out_of_range);
        HeaderState const expected{"@SQ\tSN:a\tLN:5\n", "", false,
                                   "@SQ\tSN:a\tLN:5\n@CO\tx\n@SQ\tSN:b\tLN:6\n", "a 5;"};
        EXPECT_EQ(state_of(handler).text(), expected.text());
        EXPECT_EQ(handler.error_message, "an earlier failure");
    }
}

// --- Header of the output --------------------------------------------------

struct OutputCase {
    char const* label;
    char const* header;
    char const* output;
};

constexpr OutputCase OUTPUT_CASES[] = {
    {"no header", "", "@HD\tVN:1.6\tSO:unknown\n"},
    {"version only", "@HD\tVN:1.3", "@HD\tVN:1.6\tSO:unknown\n"},
    {"no @HD line", "@SQ\tLN:5\tXY:z\tSN:a\r\n@CO\tx",
     "@HD\tVN:1.6\tSO:unknown\n@SQ\tLN:5\tXY:z\tSN:a\r\n@CO\tx\n"},
    {"coordinate", "@HD\tVN:1.6\tSO:coordinate", "@HD\tVN:1.6\tSO:coordinate\n"},
    {"queryname of an old version", "@HD\tVN:1.0\tSO:queryname", "@HD\tVN:1.6\tSO:queryname\n"},
    {"unsorted", "@HD\tVN:1.6\tSO:unsorted", "@HD\tVN:1.6\tSO:unknown\n"},
    {"unknown", "@HD\tVN:1.6\tSO:unknown", "@HD\tVN:1.6\tSO:unknown\n"},
    {"group none", "@HD\tVN:1.6\tGO:none", "@HD\tVN:1.6\tSO:unknown\n"},
    {"group reference of version 1.5", "@HD\tVN:1.5\tGO:reference", "@HD\tVN:1.6\tGO:reference\n"},
    {"kept sub-sort takes the place of the order",
     "@HD\tVN:1.6\tSO:coordinate\tSS:coordinate:queryname\n@RG\tID:x",
     "@HD\tVN:1.6\tSS:coordinate:queryname\n@RG\tID:x\n"},
    {"dropped sub-sort", "@HD\tVN:1.6\tSO:coordinate\tSS:x", "@HD\tVN:1.6\tSO:coordinate\n"},
};

TEST(OutputHeader, Header_Accepted_IsRebuiltWithVersion16) {
    for (OutputCase const& c : OUTPUT_CASES) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        ASSERT_TRUE(handler.add_header_lines(c.header)) << handler.error_message;
        std::string const before = state_of(handler).text();
        BAMFileHandler const& const_handler = handler;
        std::string output = "before";
        EXPECT_TRUE(const_handler.get_updated_header(output));
        EXPECT_EQ(output, c.output);
        EXPECT_TRUE(const_handler.get_updated_header(output)) << "the second time";
        EXPECT_EQ(output, c.output);
        EXPECT_EQ(state_of(handler).text(), before);
    }
}

TEST(OutputHeader, Handler_Sorted_SaysCoordinate) {
    BAMFileHandler handler;
    ASSERT_TRUE(handler.add_header_lines("@HD\tVN:1.6\tSO:queryname\n@SQ\tSN:a\tLN:5"));
    ASSERT_TRUE(handler.sort());
    std::string output;
    EXPECT_TRUE(handler.get_updated_header(output));
    EXPECT_EQ(output, "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:a\tLN:5\n");
}

TEST(OutputHeader, Record_AddedAfterTheOrder_MakesItUnknown) {
    BAMFileHandler handler;
    ASSERT_TRUE(handler.add_header_lines("@HD\tVN:1.6\tSO:coordinate"));
    ASSERT_TRUE(handler.add_alignment_sam(SamLine().text()));
    std::string output;
    EXPECT_TRUE(handler.get_updated_header(output));
    EXPECT_EQ(output, "@HD\tVN:1.6\tSO:unknown\n");
    ASSERT_TRUE(handler.sort());
    EXPECT_TRUE(handler.get_updated_header(output));
    EXPECT_EQ(output, "@HD\tVN:1.6\tSO:coordinate\n");
}

TEST(OutputHeader, HeaderTextAndReferences_SetByHand_AreNotRead) {
    BAMFileHandler handler;
    handler.header = "@CO\tby hand\n";
    handler.references.push_back({"a", 5});
    std::string output;
    EXPECT_TRUE(handler.get_updated_header(output));
    EXPECT_EQ(output, "@HD\tVN:1.6\tSO:unknown\n");
}

}  // namespace
}  // namespace tesk::test

// The SAM text codec: alignment lines in and out, the encodings of CIGAR, SEQ
// and QUAL, and SAM files.

#include "util/bam/bam_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/record_text.h"
#include "tests/support/temp_file.h"

namespace tesk::test {
namespace {

using util::bam::BAMFileHandler;
using AuxData = BAMFileHandler::AuxData;
using AuxNumericalArray = BAMFileHandler::AuxNumericalArray;
using BamRecord = BAMFileHandler::BamRecord;

constexpr char WRITE_OVERRUN[] = "runtime_error Hit end of BAM buffer while writing data";
constexpr char READ_OVERRUN[] = "runtime_error Hit end of BAM buffer while extracting data";
constexpr std::int32_t INT32_LOWEST = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t INT32_HIGHEST = std::numeric_limits<std::int32_t>::max();

// A handler that knows chr1 (0), chr2 (1), x (2) and another chr1 (3).
BAMFileHandler handler_with_references() {
    BAMFileHandler handler;
    handler.references = {{"chr1", 1000}, {"chr2", 1000}, {"x", 1000}, {"chr1", 5}};
    return handler;
}

BamRecord parsed(BAMFileHandler& handler, std::string const& line) {
    BamRecord record;
    EXPECT_TRUE(handler.parse_sam_line_to_bam_record(line, record)) << handler.error_message;
    return record;
}

BamRecord parsed(std::string const& line) {
    BAMFileHandler handler = handler_with_references();
    return parsed(handler, line);
}

// What a call throws: the kind of exception and its text; "nothing" without one.
std::string thrown_by(std::function<void()> const& call) {
    try {
        call();
    } catch (boost::bad_any_cast const&) {
        return "bad_any_cast";
    } catch (std::invalid_argument const& fault) {
        return std::string("invalid_argument ") + fault.what();
    } catch (std::out_of_range const& fault) {
        return std::string("out_of_range ") + fault.what();
    } catch (std::length_error const&) {
        return "length_error";
    } catch (std::runtime_error const& fault) {
        return std::string("runtime_error ") + fault.what();
    }
    return "nothing";
}

std::string repeated(std::string_view piece, std::size_t n) {
    std::string text;
    text.reserve(piece.size() * n);
    for (std::size_t i = 0; i < n; ++i) text += piece;
    return text;
}

std::string words_text(std::vector<std::uint32_t> const& words) {
    std::string text;
    for (std::uint32_t const word : words) text += std::to_string(word) + ' ';
    return text;
}

// ===========================================================================
// Parsing lines
// ===========================================================================

TEST(SamParser, Line_WithAllKindsOfFields_FillsEveryFieldOfTheRecord) {
    std::string const line =
        "read/1\t163\tchr2\t101\t37\t3S4M2D1I\tx\t301\t-215\tACGTNRYK\t!\"#$%&'(\t"
        "XA:A:z\tNM:i:-5\tXF:f:1.5\tXZ:Z:a b\tXH:H:1AFF\tXB:B:s,1,-2";
    BamRecord const expected{1,
                             100,
                             "read/1",
                             37,
                             4681,
                             163,
                             8,
                             2,
                             300,
                             -215,
                             {3U << 4 | 4, 4U << 4, 2U << 4 | 2, 1U << 4 | 1},
                             6,
                             {0x12, 0x48, 0xF5, 0xAC},
                             {0, 1, 2, 3, 4, 5, 6, 7},
                             {{"XA", 'A', 'z'},
                              {"NM", 'i', std::int32_t{-5}},
                              {"XF", 'f', 1.5F},
                              {"XZ", 'Z', std::string("a b")},
                              {"XH", 'H', std::string("1AFF")},
                              {"XB", 'B', AuxNumericalArray{'s', 2, {1, 0, '\xFE', '\xFF'}}}},
                             line};
    EXPECT_EQ(record_text(parsed(line)), record_text(expected));
}

TEST(SamParser, Line_OfExactlyElevenColumns_HasNoOptionalFields) {
    BamRecord const record = parsed(SamLine().text());
    EXPECT_TRUE(record.aux_data.empty());
    EXPECT_EQ(record.sam_line, SamLine().text());
}

TEST(SamParser, Line_Unplaced_HasReferenceLengthOneAndTheBinBeforeTheFirst) {
    BamRecord const record = parsed("r\t4\t*\t0\t0\t*\t*\t0\t0\tAC\tII");
    EXPECT_EQ(record.refID, -1);
    EXPECT_EQ(record.pos, -1);
    EXPECT_EQ(record.ref_length, 1U);
    EXPECT_EQ(record.bin, 4680);
    EXPECT_EQ(record.next_refID, -1);
    EXPECT_EQ(record.next_pos, -1);
    EXPECT_TRUE(record.cigar.empty());
}

struct ReferenceCase {
    char const* label;
    char const* rname;
    char const* rnext;
    std::int32_t refID;
    std::int32_t next_refID;
};

constexpr ReferenceCase REFERENCE_CASES[] = {
    {"known names", "chr2", "x", 1, 2},
    {"same reference", "chr2", "=", 1, 1},
    {"name that the header has twice", "chr1", "chr1", 0, 0},
    {"none", "*", "*", -1, -1},
    {"same as none", "*", "=", -1, -1},
    {"unknown names", "chr9", "chr8", -1, -1},
    {"same as an unknown one", "chr9", "=", -1, -1},
    {"= begins the name", "chr2", "=x", 1, -1},
    {"other case", "CHR2", "X", -1, -1},
    {"beginning of a name", "chr", "chr22", -1, -1},
};

TEST(SamParser, ReferenceNames_KnownOrNot_BecomeTheirIndexOrMinusOne) {
    for (ReferenceCase const& c : REFERENCE_CASES) {
        SCOPED_TRACE(c.label);
        BamRecord const record = parsed(SamLine().with(RNAME, c.rname).with(RNEXT, c.rnext).text());
        EXPECT_EQ(record.refID, c.refID);
        EXPECT_EQ(record.next_refID, c.next_refID);
    }
}

struct BinCase {
    char const* label;
    char const* pos;
    char const* cigar;
    unsigned short bin;
};

constexpr BinCase BIN_CASES[] = {
    {"below one window", "1", "16383M", 4681},
    {"one window", "1", "16384M", 4681},
    {"a base more", "1", "16385M", 585},
    {"last base of a window", "16384", "1M", 4681},
    {"first base of the next", "16385", "1M", 4682},
    {"clips and insertions take no reference", "16384", "9S1M9I9H", 4681},
    {"deletions and skips do", "16384", "1M1D", 585},
    {"no operation, on a window's first base", "16385", "9S", 585},
    {"before the first base", "0", "*", 4680},
    {"last base of the range", "536870912", "1M", 37448},
    // Positions wrap: 1-based -2147483648 is 0-based 2147483647.
    {"smallest POS", "-2147483648", "1M", 4680},
    {"span beyond 32 bits", "1",
     "268435455N268435455N268435455N268435455N268435455N268435455N"
     "268435455N268435455N268435455N268435455N268435455N268435455N"
     "268435455N268435455N268435455N268435455N17M",
     4681},
};

TEST(SamParser, PosAndCigar_OfALine_GiveItsBin) {
    for (BinCase const& c : BIN_CASES) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(parsed(SamLine().with(POS, c.pos).with(CIGAR, c.cigar).text()).bin, c.bin);
    }
}

// --- Numbers of the columns ------------------------------------------------

struct NumberCase {
    char const* text;
    SamColumn column;
    bool is_accepted;
    std::int32_t value;  // of the record's field; if refused, of FLAG and TLEN the
                         // nearest number there is, of the others what it was before
};

constexpr NumberCase NUMBER_CASES[] = {
    {"0", FLAG, true, 0},
    {"65534", FLAG, true, 65534},
    {"65535", FLAG, true, 65535},
    {"65536", FLAG, false, 65535},
    {"+4", FLAG, true, 4},
    {"-1", FLAG, true, 65535},
    {"-65535", FLAG, true, 1},
    {"-65536", FLAG, false, 65535},
    {"0016", FLAG, true, 16},
    {"99999999999999999999999", FLAG, false, 65535},
    {"x", FLAG, false, 0},
    {"-", FLAG, false, 0},
    {"+", FLAG, false, 0},
    {"--1", FLAG, false, 0},
    {"*", FLAG, false, 0},
    {"1", POS, true, 0},
    {"0", POS, true, -1},
    {"-1", POS, true, -2},
    {"2147483646", POS, true, 2147483645},
    {"2147483647", POS, true, 2147483646},
    {"2147483648", POS, false, 0},
    {"-2147483647", POS, true, INT32_LOWEST},
    {"-2147483648", POS, true, INT32_HIGHEST},
    {"-2147483649", POS, false, 0},
    {"18446744073709551617", POS, false, 0},
    {"0", MAPQ, true, 0},
    {"255", MAPQ, true, 255},
    {"256", MAPQ, true, 0},
    {"300", MAPQ, true, 44},
    {"-1", MAPQ, true, 255},
    {"2147483647", MAPQ, true, 255},
    {"2147483648", MAPQ, false, 0},
    {"1", PNEXT, true, 0},
    {"0", PNEXT, true, -1},
    {"-2147483648", PNEXT, true, INT32_HIGHEST},
    {"2147483648", PNEXT, false, 0},
    {"-250", TLEN, true, -250},
    {"+250", TLEN, true, 250},
    {"2147483647", TLEN, true, INT32_HIGHEST},
    {"-2147483648", TLEN, true, INT32_LOWEST},
    {"2147483648", TLEN, false, INT32_HIGHEST},
    {"-2147483649", TLEN, false, INT32_LOWEST},
};

std::int32_t number_of(BamRecord const& record, SamColumn column) {
    switch (column) {
        case FLAG: return record.flag;
        case POS: return record.pos;
        case MAPQ: return record.mapq;
        case PNEXT: return record.next_pos;
        default: return record.tlen;
    }
}

TEST(SamParser, NumberOfAColumn_AnyText_ReadsAsFormattedExtractionDoes) {
    for (NumberCase const& c : NUMBER_CASES) {
        SCOPED_TRACE(c.column);
        SCOPED_TRACE(c.text);
        BAMFileHandler handler = handler_with_references();
        BamRecord record;
        bool const is_accepted =
            handler.parse_sam_line_to_bam_record(SamLine().with(c.column, c.text).text(), record);
        EXPECT_EQ(is_accepted, c.is_accepted);
        EXPECT_EQ(number_of(record, c.column), c.value);
        EXPECT_EQ(handler.error_message, is_accepted ? "" : "Malformed SAM line detected");
    }
}

TEST(SamParser, NumberOfAColumn_FollowedByLetters_LeavesThemForTheNextColumn) {
    // FLAG "12x" and no RNAME: the name is "x".
    BamRecord const record = parsed("r1\t12x\t101\t60\t4M\t*\t0\t0\tACGT\tIIII");
    EXPECT_EQ(record.flag, 12);
    EXPECT_EQ(record.refID, 2);
    EXPECT_EQ(record.pos, 100);

    BAMFileHandler handler = handler_with_references();
    EXPECT_FALSE(handler.add_alignment_sam(SamLine().with(FLAG, "12x").text()));
    EXPECT_EQ(handler.error_message, "Sam to Bam parsing failed: Malformed SAM line detected");
}

// --- Columns and white space -----------------------------------------------

TEST(SamParser, Columns_FewerThanEleven_AreMalformed) {
    std::string const line = SamLine().text();
    std::size_t length = line.size();
    for (int n_columns = 10; n_columns >= 0; --n_columns) {
        SCOPED_TRACE(n_columns);
        length = n_columns == 0 ? 0 : line.rfind('\t', length - 1);
        for (char const* ending : {"", "\t", "\r", " \t\v"}) {
            BAMFileHandler handler;
            EXPECT_FALSE(handler.add_alignment_sam(line.substr(0, length) + ending));
            EXPECT_EQ(handler.error_message,
                      "Sam to Bam parsing failed: Malformed SAM line detected");
            EXPECT_TRUE(handler.records.empty());
        }
    }
}

TEST(SamParser, ColumnText_Empty_LeavesTheLineAColumnShort) {
    for (int column = QNAME; column <= QUAL; ++column) {
        SCOPED_TRACE(column);
        BAMFileHandler handler;
        SamLine line;
        line.with(CIGAR, "*").with(static_cast<SamColumn>(column), "");
        EXPECT_FALSE(handler.add_alignment_sam(line.text()));
        EXPECT_EQ(handler.error_message, "Sam to Bam parsing failed: Malformed SAM line detected");
    }
}

TEST(SamParser, ColumnText_EmptyBeforeACigar_TakesItsNumber) {
    // Two tabs separate like one, and MAPQ stops at the letter.
    BamRecord const record = parsed(SamLine().with(MAPQ, "").text());
    EXPECT_EQ(record.mapq, 4);
    EXPECT_EQ(words_text(record.cigar), "0 ") << "M";
    EXPECT_EQ(record.l_seq, 4);
}

TEST(SamParser, WhiteSpace_OfAnyKindBetweenColumns_Separates) {
    for (std::string const separator : {" ", "\t\t", "\v", "\f", "\r", "\n", " \t\r\n\v\f "}) {
        SCOPED_TRACE(in_quotes(separator));
        std::string line = separator;  // before the first column too
        for (char const c : SamLine().text()) line += c == '\t' ? separator : std::string(1, c);
        BamRecord record = parsed(line);
        EXPECT_EQ(record.sam_line, line);
        record.sam_line = SamLine().text();
        EXPECT_EQ(record_text(record), record_text(parsed(SamLine().text())));
    }
}

struct EndingCase {
    char const* label;
    std::string ending;   // after the eleventh column
    char const* refused;  // the field that the message names; null: accepted
};

TEST(SamParser, EndOfTheLine_AfterTheColumns_ForgivesOneCarriageReturnOnly) {
    EndingCase const cases[] = {
        {"nothing", "", nullptr},
        {"carriage return", "\r", nullptr},
        {"tab", "\t", ""},
        {"two tabs", "\t\t", ""},
        {"blank", " ", " "},
        {"two carriage returns", "\r\r", "\r\r"},
        {"carriage return and blank", "\r ", "\r "},
        {"blank and carriage return", " \r", " \r"},
        {"newline", "\n", "\n"},
        {"vertical tab", "\v", "\v"},
        {"form feed", "\f", "\f"},
        {"tab and carriage return", "\t\r", "\r"},
        {"carriage return and tab", "\r\t", "\r"},
        {"carriage return before a field", "\r\tNM:i:1", "\r"},
        {"blank before a field", " \tNM:i:1", " "},
        {"blank instead of a tab before a field", " NM:i:1", " NM:i:1"},
        {"tab after a field", "\tNM:i:1\t", ""},
        {"tab after two fields", "\tNM:i:1\tAS:i:2\t", ""},
        {"two tabs between fields", "\tNM:i:1\t\tAS:i:2", ""},
        {"tab and carriage return after a field", "\tNM:i:1\t\r", "\r"},
    };
    for (EndingCase const& c : cases) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler = handler_with_references();
        std::string const line = SamLine().text() + c.ending;
        EXPECT_EQ(handler.add_alignment_sam(line), c.refused == nullptr);
        if (c.refused != nullptr) {
            EXPECT_EQ(
                handler.error_message,
                std::string("Sam to Bam parsing failed: Invalid aux data detected: ") + c.refused);
            EXPECT_TRUE(handler.records.empty());
        } else {
            BamRecord expected = parsed(SamLine().text());
            expected.sam_line = line;
            ASSERT_EQ(handler.records.size(), 1U);
            EXPECT_EQ(record_text(handler.records[0]), record_text(expected));
        }
    }
}

TEST(SamParser, CarriageReturn_AfterMissingQualities_LeavesThemMissing) {
    BamRecord const record = parsed(SamLine().with(QUAL, "*").text() + '\r');
    EXPECT_EQ(hex_text(record.qual), "ff ff ff ff");
    EXPECT_EQ(record.sam_line, SamLine().with(QUAL, "*").text() + '\r');
}

TEST(SamParser, CarriageReturn_AfterAnOptionalField_BelongsToIt) {
    EXPECT_EQ(fields_text(parsed(SamLine().field("XZ:Z:text\r").text()).aux_data),
              "  \"XZ\" \"Z\" string \"text\\x0d\"\n");
    EXPECT_EQ(fields_text(parsed(SamLine().field("NM:i:5\r").text()).aux_data),
              "  \"NM\" \"i\" int32 5\n");
}

// --- Sequence and qualities of a line --------------------------------------

TEST(SamParser, MissingSequence_WithAnyQualities_LeavesBothEmpty) {
    for (char const* qual : {"*", "IIII", "!"}) {
        SCOPED_TRACE(qual);
        BamRecord const record = parsed(SamLine().with(SEQ, "*").with(QUAL, qual).text());
        EXPECT_EQ(record.l_seq, 0);
        EXPECT_TRUE(record.seq.empty());
        EXPECT_TRUE(record.qual.empty());
    }
}

struct QualityCase {
    char const* label;
    char const* qual;
    char const* bytes;
    char const* read_back;
};

constexpr QualityCase QUALITY_CASES[] = {
    {"as many as bases", "!I~J", "00 28 5d 29", "!I~J"},
    {"one fewer", "I~J", "28 5d 29 00", "I~J!"},
    {"one", "I", "28 00 00 00", "I!!!"},
    {"one more", "!I~JK", "00 28 5d 29", "!I~J"},
    {"many more", "IIIIIIIIIIIIIIIIIIIIIII", "28 28 28 28", "IIII"},
    {"missing", "*", "ff ff ff ff", "*"},
    {"a star among others", "*III", "09 28 28 28", "*III"},
    {"two stars", "**", "09 09 00 00", "**!!"},
};

TEST(SamParser, Qualities_ShorterOrLongerThanTheSequence_AreFilledUpOrCut) {
    for (QualityCase const& c : QUALITY_CASES) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler = handler_with_references();
        BamRecord const record = parsed(handler, SamLine().with(QUAL, c.qual).text());
        EXPECT_EQ(hex_text(record.qual), c.bytes);
        std::string text;
        EXPECT_TRUE(handler.unpack_phred_string(record, text));
        EXPECT_EQ(text, c.read_back);
    }
}

TEST(SamParser, BadBaseOrOperation_InALine_IsReportedThroughTheParser) {
    BAMFileHandler handler = handler_with_references();
    EXPECT_FALSE(handler.add_alignment_sam(SamLine().with(SEQ, "ACgT").text()));
    EXPECT_EQ(handler.error_message, "Sam to Bam parsing failed: Invalid sequence code detected");

    handler.cigar_op_codes['Q'] = 9;
    EXPECT_FALSE(handler.add_alignment_sam(SamLine().with(CIGAR, "1M2Q").text()));
    EXPECT_EQ(handler.error_message, "Sam to Bam parsing failed: Invalid cigar op detected: 'Q'");
    EXPECT_TRUE(handler.records.empty());
}

// --- Optional fields -------------------------------------------------------

struct FieldCase {
    char const* label;
    std::string field;
    char const* value;  // as text, behind tag and type
};

TEST(SamParser, OptionalField_OfAnAcceptedType_HoldsTheTypesValue) {
    FieldCase const cases[] = {
        {"A", "XX:A:x", "char \"x\""},
        {"A, first character only", "XX:A:xyz", "char \"x\""},
        {"A, empty", "XX:A:", "char \"\\x00\""},
        {"A, colon", "XX:A::", "char \":\""},
        {"i", "XX:i:5", "int32 5"},
        {"i, large enough for 8 bits stays 32 bits wide", "XX:i:255", "int32 255"},
        {"i, largest", "XX:i:2147483647", "int32 2147483647"},
        {"i, smallest", "XX:i:-2147483648", "int32 -2147483648"},
        {"i, plus sign", "XX:i:+7", "int32 7"},
        {"i, white space before", "XX:i: 8", "int32 8"},
        {"i, text behind", "XX:i:12abc", "int32 12"},
        {"i, fraction behind", "XX:i:3.7", "int32 3"},
        {"i, decimal in spite of 0x", "XX:i:0x10", "int32 0"},
        {"i, decimal in spite of 0", "XX:i:010", "int32 10"},
        {"f", "XX:f:1.5", "float 0x3fc00000"},
        {"f, integer", "XX:f:-2", "float 0xc0000000"},
        {"f, exponent", "XX:f:25e-2", "float 0x3e800000"},
        {"f, rounded to the nearest", "XX:f:0.1", "float 0x3dcccccd"},
        {"f, halfway goes to the even neighbour", "XX:f:16777217", "float 0x4b800000"},
        {"f, above halfway", "XX:f:16777217.0001", "float 0x4b800001"},
        {"f, negative zero", "XX:f:-0", "float 0x80000000"},
        {"f, hexadecimal", "XX:f:0x1.8p1", "float 0x40400000"},
        {"f, nan", "XX:f:nan", "float 0x7fc00000"},
        {"f, inf", "XX:f:inf", "float 0x7f800000"},
        {"f, minus infinity", "XX:f:-INFINITY", "float 0xff800000"},
        {"f, largest", "XX:f:3.4028234e38", "float 0x7f7fffff"},
        {"f, smallest normal", "XX:f:1.1754944e-38", "float 0x00800000"},
        {"f, white space and plus before, text behind", "XX:f: +.5e0x", "float 0x3f000000"},
        {"Z", "XX:Z:text", "string \"text\""},
        {"Z, colons", "XY:Z:a:b", "string \"a:b\""},
        {"Z, empty", "XX:Z:", "string \"\""},
        {"Z, blanks and bytes of any kind", "XX:Z: a \x01\xFF ", "string \" a \\x01\\xff \""},
        {"Z, NUL", std::string("XX:Z:a\0b", 8), "string \"a\\x00b\""},
        {"H", "XX:H:1AE301", "string \"1AE301\""},
        {"H, no digits", "XX:H:xyz", "string \"xyz\""},
        {"H, empty", "XX:H:", "string \"\""},
        {"tag of any characters", ": :i:5", "int32 5"},
    };
    for (FieldCase const& c : cases) {
        SCOPED_TRACE(c.label);
        BamRecord const record = parsed(SamLine().field("NM:i:0").field(c.field).text());
        ASSERT_EQ(record.aux_data.size(), 2U);
        AuxData const& field = record.aux_data[1];
        EXPECT_EQ(field.tag, c.field.substr(0, 2));
        EXPECT_EQ(field.type, c.field[3]);
        EXPECT_EQ(value_text(field.value), c.value);
    }
}

constexpr char const* const ARRAY_CASES[][2] = {
    // The value's text, and what it holds.
    {"C,255,0", "array \"C\" of 2: ff 00"},
    {"C", "array \"C\" of 0: "},
    {"c", "array \"c\" of 0: "},
    {"s", "array \"s\" of 0: "},
    {"S", "array \"S\" of 0: "},
    {"i", "array \"i\" of 0: "},
    {"I", "array \"I\" of 0: "},
    {"f", "array \"f\" of 0: "},
    {"", "array \"\\x00\" of 0: "},
    {"Q", "array \"Q\" of 0: "},
    {"Cxyz", "array \"C\" of 0: "},
    {"c,1,-2,3", "array \"c\" of 3: 01 fe 03"},
    {"c,127,-128,128,-129", "array \"c\" of 4: 7f 80 80 7f"},
    {"C,300", "array \"C\" of 1: 2c"},
    {"C,-1,256,2147483647", "array \"C\" of 3: ff 00 ff"},
    {"s,1,-2,32767,-32768", "array \"s\" of 4: 01 00 fe ff ff 7f 00 80"},
    {"S,65535,65536,258", "array \"S\" of 3: ff ff 00 00 02 01"},
    {"i,1,-2", "array \"i\" of 2: 01 00 00 00 fe ff ff ff"},
    {"i,2147483647,-2147483648", "array \"i\" of 2: ff ff ff 7f 00 00 00 80"},
    {"I,2147483647,-1", "array \"I\" of 2: ff ff ff 7f ff ff ff ff"},
    {"f,1.5,-2,0x1p-1", "array \"f\" of 3: 00 00 c0 3f 00 00 00 c0 00 00 00 3f"},
    {"f,nan,inf", "array \"f\" of 2: 00 00 c0 7f 00 00 80 7f"},
    {"C, 1,+2,3x", "array \"C\" of 3: 01 02 03"},
    // What stands where the first comma belongs is skipped.
    {"C;1,", "invalid_argument stoi"},
    {"C:7,8", WRITE_OVERRUN},
};

TEST(SamParser, ArrayField_Elements_AreStoredLittleEndianAndCutToTheirWidth) {
    for (auto const& [text, value] : ARRAY_CASES) {
        SCOPED_TRACE(text);
        BAMFileHandler handler = handler_with_references();
        BamRecord record;
        std::string const line = SamLine().field(std::string("XB:B:") + text).text();
        std::string const fault =
            thrown_by([&] { EXPECT_TRUE(handler.parse_sam_line_to_bam_record(line, record)); });
        if (fault != "nothing") {
            EXPECT_EQ(fault, value);
            EXPECT_TRUE(record.aux_data.empty());
        } else {
            ASSERT_EQ(record.aux_data.size(), 1U);
            EXPECT_EQ(value_text(record.aux_data[0].value), value);
        }
    }
}

TEST(SamParser, ArrayField_OfManyElements_HoldsThemAll) {
    std::string text = "XB:B:S";
    std::vector<char> data;
    for (unsigned i = 0; i < 100000; ++i) {
        text += ',' + std::to_string(i);
        data.push_back(static_cast<char>(i & 0xFF));
        data.push_back(static_cast<char>(i >> 8 & 0xFF));
    }
    BamRecord const record = parsed(SamLine().field(text).text());
    ASSERT_EQ(record.aux_data.size(), 1U);
    auto const& array = boost::any_cast<AuxNumericalArray const&>(record.aux_data[0].value);
    EXPECT_EQ(array.type, 'S');
    EXPECT_EQ(array.count, 100000U);
    EXPECT_TRUE(array.data == data);
}

TEST(SamParser, ArrayField_OfUnknownElementTypeWithAComma_IsInvalid) {
    std::string const known = "cCsSiIf";
    for (int value = CHAR_MIN; value <= CHAR_MAX; ++value) {
        char const letter = static_cast<char>(value);
        if (letter == '\t' || known.find(letter) != std::string::npos) continue;
        SCOPED_TRACE(value);
        for (char const* elements : {",", ",1", ",1,2,3", "x,"}) {
            BAMFileHandler handler = handler_with_references();
            std::string const field = std::string("XB:B:") + letter + elements;
            EXPECT_FALSE(handler.add_alignment_sam(SamLine().field(field).text()));
            EXPECT_EQ(handler.error_message,
                      "Sam to Bam parsing failed: Invalid aux data detected: " + field);
            EXPECT_TRUE(handler.records.empty());
        }
    }
}

TEST(SamParser, OptionalField_TooShortOrWithoutColons_IsInvalid) {
    for (std::string const field :
         {"", "N", "NM", "NM:", "NM:i", "NMi:5", "NM:i5", "NM i:5", "NM:i;5", ":NM:i:5", "NMX:i:5",
          "NM:ii:5", "::::", "\r", "plain text"}) {
        SCOPED_TRACE(field);
        BAMFileHandler handler = handler_with_references();
        std::string const line = SamLine().field("AS:i:1").field(field).field("XS:i:2").text();
        BamRecord record;
        EXPECT_FALSE(handler.parse_sam_line_to_bam_record(line, record));
        EXPECT_EQ(handler.error_message, "Invalid aux data detected: " + field);
        EXPECT_EQ(fields_text(record.aux_data), "  \"AS\" \"i\" int32 1\n")
            << "earlier fields stay";
        EXPECT_EQ(record.sam_line, "");
        EXPECT_FALSE(handler.add_alignment_sam(line));
        EXPECT_EQ(handler.error_message,
                  "Sam to Bam parsing failed: Invalid aux data detected: " + field);
        EXPECT_TRUE(handler.records.empty());
    }
    EXPECT_EQ(parsed(SamLine().field("NM:A:").text()).aux_data.size(), 1U) << "five are enough";
}

TEST(SamParser, OptionalField_OfAnyOtherType_IsRefusedWithLetterAndFile) {
    std::string const accepted = "AifZHB";
    for (int value = CHAR_MIN; value <= CHAR_MAX; ++value) {
        char const letter = static_cast<char>(value);
        if (letter == '\t' || accepted.find(letter) != std::string::npos) continue;
        SCOPED_TRACE(value);
        BAMFileHandler handler = handler_with_references();
        std::string const line = SamLine().field(std::string("XC:") + letter + ":5").text();
        BamRecord record;
        std::string const message = std::string("Invalid auxiliary data type) '") + letter +
                                    "' found in alignment record in ";
        EXPECT_FALSE(handler.parse_sam_line_to_bam_record(line, record));
        EXPECT_EQ(handler.error_message, message);
        handler.file_name = "dir/reads.sam";
        EXPECT_FALSE(handler.add_alignment_sam(line));
        EXPECT_EQ(handler.error_message, "Sam to Bam parsing failed: " + message + "dir/reads.sam");
        EXPECT_TRUE(handler.records.empty());
    }
}

constexpr char const* const THROWING_FIELDS[][2] = {
    {"XX:i:", "invalid_argument stoi"},
    {"XX:i:x", "invalid_argument stoi"},
    {"XX:i:-", "invalid_argument stoi"},
    {"XX:i:+-1", "invalid_argument stoi"},
    {"XX:i: ", "invalid_argument stoi"},
    {"XX:i:2147483648", "out_of_range stoi"},
    {"XX:i:-2147483649", "out_of_range stoi"},
    {"XX:i:99999999999999999999", "out_of_range stoi"},
    {"XX:f:", "invalid_argument stof"},
    {"XX:f:x", "invalid_argument stof"},
    {"XX:f:.", "invalid_argument stof"},
    {"XX:f:e5", "invalid_argument stof"},
    {"XX:f:1e39", "out_of_range stof"},
    {"XX:f:-3.4028236e38", "out_of_range stof"},
    {"XX:f:1e-40", "out_of_range stof"},
    {"XX:f:-1e-40", "out_of_range stof"},
    {"XX:f:1e-60", "out_of_range stof"},
    {"XX:f:0x1p200", "out_of_range stof"},
    {"XX:B:C,", "invalid_argument stoi"},
    {"XX:B:C,1,", "invalid_argument stoi"},
    {"XX:B:C,,1", "invalid_argument stoi"},
    {"XX:B:c,1,x", "invalid_argument stoi"},
    {"XX:B:C1,2", "invalid_argument stoi"},
    {"XX:B:i,2147483648", "out_of_range stoi"},
    {"XX:B:I,2147483648", "out_of_range stoi"},
    {"XX:B:I,4294967295", "out_of_range stoi"},
    {"XX:B:f,", "invalid_argument stof"},
    {"XX:B:f,1,nothing", "invalid_argument stof"},
    {"XX:B:f,1e-40", "out_of_range stof"},
    {"XX:B:Cx1,2", WRITE_OVERRUN},
    {"XX:B:sx1,2,3", WRITE_OVERRUN},
    {"XX:B:f,,", "invalid_argument stof"},
};

TEST(SamParser, OptionalNumber_Malformed_ThrowsAndLeavesTheUnfinishedRecord) {
    for (auto const& [field, fault] : THROWING_FIELDS) {
        SCOPED_TRACE(field);
        BAMFileHandler handler = handler_with_references();
        handler.error_message = "an earlier failure";
        handler.has_sort_order = true;
        std::string const line = SamLine().field("AS:i:1").field(field).field("XS:i:2").text();
        EXPECT_EQ(thrown_by([&] { handler.add_alignment_sam(line); }), fault);
        ASSERT_EQ(handler.records.size(), 1U);
        BamRecord const& record = handler.records[0];
        EXPECT_EQ(record.read_name, "r1");
        EXPECT_EQ(record.pos, 100);
        EXPECT_EQ(record.l_seq, 4);
        EXPECT_EQ(fields_text(record.aux_data), "  \"AS\" \"i\" int32 1\n");
        EXPECT_TRUE(handler.has_sort_order);
        EXPECT_EQ(handler.error_message, "an earlier failure");
    }
}

// ===========================================================================
// CIGAR
// ===========================================================================

struct CigarCase {
    char const* label;
    std::string text;
    std::vector<std::uint32_t> words;
    unsigned long ref_length;
};

constexpr std::uint32_t UNKNOWN_OP = 0xFFFFFFFF;

TEST(Cigar, Text_Packed_GivesItsOperationsAndReferenceLength) {
    CigarCase const cases[] = {
        {"three operations", "10M2I5D", {160, 33, 82}, 15},
        {"every letter", "1M2I3D4N5S6H7P8=9X", {16, 33, 50, 67, 84, 101, 118, 135, 152}, 25},
        {"length 0", "0M", {0}, 0},
        {"leading zeros", "0010M", {160}, 10},
        {"empty", "", {}, 0},
        {"letter without number", "M", {0}, 0},
        {"letters without numbers", "MMM", {0, 0, 0}, 0},
        {"single unknown letter", "x", {UNKNOWN_OP}, 0},
        {"number without letter", "10", {UNKNOWN_OP}, 0},
        {"single digit without letter", "7", {UNKNOWN_OP}, 0},
        {"number at the end", "3M10", {48, UNKNOWN_OP}, 3},
        {"unknown letter", "10Q", {UNKNOWN_OP}, 0},
        {"unknown letter between others", "1M10Q2M", {16, UNKNOWN_OP, 32}, 3},
        {"letter in lower case", "10m", {UNKNOWN_OP}, 0},
        {"star among others", "4M*", {64, UNKNOWN_OP}, 4},
        {"two stars", "**", {UNKNOWN_OP, UNKNOWN_OP}, 0},
        {"plus sign", "+7M", {112}, 7},
        {"minus sign", "-5M", {0xFFFFFFB0}, static_cast<unsigned long>(-5L)},
        {"negative lengths count against others", "9M-5D", {144, 0xFFFFFFB2}, 4},
        {"sign after a number", "5-3M", {UNKNOWN_OP, 48}, 3},
        {"two signs", "+-3M", {UNKNOWN_OP, 0xFFFFFFD0}, static_cast<unsigned long>(-3L)},
        {"sign without number", "-M", {UNKNOWN_OP, 0}, 0},
        {"white space before a number", " \t3M", {48}, 3},
        {"white space without a number", " M", {UNKNOWN_OP, 0}, 0},
        {"white space after a number", "3 M", {UNKNOWN_OP, 0}, 0},
        {"white space at the end", "3M \t", {48, UNKNOWN_OP, UNKNOWN_OP}, 3},
        {"white space alone", " ", {UNKNOWN_OP}, 0},
        {"NUL",
         std::string("3M\0"
                     "2M",
                     5),
         {48, UNKNOWN_OP, 32},
         5},
        {"decimal point", "1.5M", {UNKNOWN_OP, 80}, 5},
        {"longest length that fits an operation", "268435455M", {0xFFFFFFF0}, 268435455},
        {"one more", "268435456M", {0}, 268435456},
        {"largest 32-bit number", "2147483647M", {0xFFFFFFF0}, 2147483647},
        {"one more wraps", "2147483648D", {2}, static_cast<unsigned long>(-2147483648L)},
        {"32 bits and one", "4294967297N", {19}, 1},
        {"largest 64-bit number",
         "9223372036854775807M",
         {0xFFFFFFF0},
         static_cast<unsigned long>(-1L)},
        {"one more saturates",
         "9223372036854775808M",
         {0xFFFFFFF0},
         static_cast<unsigned long>(-1L)},
        {"far more saturates", "99999999999999999999999I", {0xFFFFFFF1}, 0},
        {"far below saturates", "-99999999999999999999999M", {0}, 0},
        {"smallest 64-bit number", "-9223372036854775808M", {0}, 0},
    };
    for (CigarCase const& c : cases) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        BamRecord record;
        unsigned long ref_length = 17;
        EXPECT_TRUE(handler.pack_cigar_string(c.text, record, ref_length, 100));
        EXPECT_EQ(words_text(record.cigar), words_text(c.words));
        EXPECT_EQ(ref_length, c.ref_length);
        EXPECT_TRUE(record.aux_data.empty());
        EXPECT_EQ(handler.error_message, "");
    }
}

TEST(Cigar, Star_Packed_HasReferenceLengthOneAndLeavesTheRecord) {
    BAMFileHandler handler;
    BamRecord fresh;
    unsigned long ref_length = 17;
    EXPECT_TRUE(handler.pack_cigar_string("*", fresh, ref_length, 4));
    EXPECT_EQ(ref_length, 1U);
    EXPECT_EQ(record_text(fresh), record_text(BamRecord()));

    BamRecord used;
    used.cigar = {160, 33};
    EXPECT_TRUE(handler.pack_cigar_string("*", used, ref_length, 4));
    EXPECT_EQ(words_text(used.cigar), "160 33 ");
}

TEST(Cigar, Letter_NoneOfTheNine_PacksToAllOnes) {
    std::string const not_unknown = "MIDNSHP=X0123456789";
    for (int value = CHAR_MIN; value <= CHAR_MAX; ++value) {
        char const letter = static_cast<char>(value);
        if (not_unknown.find(letter) != std::string::npos) continue;
        SCOPED_TRACE(value);
        BAMFileHandler handler;
        BamRecord record;
        unsigned long ref_length = 17;
        EXPECT_TRUE(handler.pack_cigar_string(std::string("10") + letter, record, ref_length, 10));
        EXPECT_EQ(words_text(record.cigar), "4294967295 ");
        EXPECT_EQ(ref_length, 0U);
    }
}

TEST(Cigar, Letter_NotInTheMap_PacksToAllOnes) {
    BAMFileHandler handler;
    handler.cigar_op_codes.erase('I');
    BamRecord record;
    unsigned long ref_length = 17;
    EXPECT_TRUE(handler.pack_cigar_string("10M2I3M", record, ref_length, 15));
    EXPECT_EQ(words_text(record.cigar), words_text({160, UNKNOWN_OP, 48}));
    EXPECT_EQ(ref_length, 13U);

    // Also where many operations are packed at a time, none of which is in the map.
    EXPECT_TRUE(handler.pack_cigar_string(repeated("2I", 400), record, ref_length, 0));
    EXPECT_EQ(words_text(record.cigar), words_text(std::vector<std::uint32_t>(400, UNKNOWN_OP)));
    EXPECT_EQ(ref_length, 0U);
}

TEST(Cigar, LongNumber_BehindManyOperations_IsTheLastOne) {
    for (std::size_t const n : {300U, 301U, 302U, 303U}) {
        SCOPED_TRACE(n);
        BAMFileHandler handler;
        BamRecord record;
        unsigned long ref_length = 0;
        std::string const text = repeated("1M", n) + std::string(600, '0') + "5M";
        EXPECT_TRUE(handler.pack_cigar_string(text, record, ref_length, 0));
        std::vector<std::uint32_t> expected(n, 16);
        expected.push_back(80);
        EXPECT_EQ(words_text(record.cigar), words_text(expected));
        EXPECT_EQ(ref_length, n + 5);
    }
}

TEST(Cigar, WhiteSpace_InALongRun_IsOneOperationEachInLinearTime) {
    BAMFileHandler handler;
    BamRecord record;
    unsigned long ref_length = 0;
    constexpr std::size_t N = 1000000;  // minutes, if every blank searched the run anew
    EXPECT_TRUE(handler.pack_cigar_string(std::string(N, ' ') + "+M 7M", record, ref_length, 0));
    // Blanks, '+' and 'M' without a number, then the number behind its blank.
    ASSERT_EQ(record.aux_data.size(), 1U);
    auto const& ops = boost::any_cast<AuxNumericalArray const&>(record.aux_data[0].value);
    EXPECT_EQ(ops.count, N + 3);
    EXPECT_EQ(ref_length, 7U);
}

TEST(Cigar, Letter_GivenACodeOfNineOrMore_IsRefused) {
    for (std::int32_t const code : {9, 10, 15, 16, INT32_HIGHEST}) {
        SCOPED_TRACE(code);
        BAMFileHandler handler;
        handler.cigar_op_codes['Q'] = code;
        BamRecord record;
        unsigned long ref_length = 0;
        EXPECT_FALSE(handler.pack_cigar_string("10M2Q", record, ref_length, 10));
        EXPECT_EQ(handler.error_message, "Invalid cigar op detected: 'Q'");
        // The map decides for the letters of CIGARs, too.
        handler.cigar_op_codes['I'] = code;
        EXPECT_FALSE(handler.pack_cigar_string("10M2I", record, ref_length, 12));
        EXPECT_EQ(handler.error_message, "Invalid cigar op detected: 'I'");
        // Also where many operations are packed at a time.
        handler.error_message.clear();
        EXPECT_FALSE(handler.pack_cigar_string(repeated("10M2I", 200), record, ref_length, 0));
        EXPECT_EQ(handler.error_message, "Invalid cigar op detected: 'I'");
    }
    for (std::int32_t const code : {-1, -9, INT32_LOWEST}) {
        SCOPED_TRACE(code);
        BAMFileHandler handler;
        handler.cigar_op_codes['Q'] = code;
        BamRecord record;
        unsigned long ref_length = 0;
        EXPECT_TRUE(handler.pack_cigar_string("10M2Q", record, ref_length, 10));
        EXPECT_EQ(record.cigar.size(), 2U);
        EXPECT_EQ(ref_length, 10U);
    }
}

// n operations, 1M and 2I in turn, as text and packed.
std::string long_cigar(std::size_t n) { return repeated("1M2I", n / 2) + (n % 2 == 1 ? "1M" : ""); }
std::vector<std::uint32_t> long_cigar_words(std::size_t n) {
    std::vector<std::uint32_t> words;
    for (std::size_t i = 0; i < n; ++i) words.push_back(i % 2 == 0 ? 16 : 33);
    return words;
}
std::vector<char> bytes_of(std::vector<std::uint32_t> const& words) {
    std::vector<char> bytes;
    for (std::uint32_t const word : words) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes.push_back(static_cast<char>(word >> shift & 0xFF));
        }
    }
    return bytes;
}

TEST(Cigar, Operations_UpTo65535_AreStoredAsTheyAre) {
    for (std::size_t const n : {std::size_t{65534}, std::size_t{65535}}) {
        SCOPED_TRACE(n);
        BAMFileHandler handler;
        BamRecord record;
        unsigned long ref_length = 0;
        EXPECT_TRUE(handler.pack_cigar_string(long_cigar(n), record, ref_length, 150000));
        EXPECT_TRUE(record.cigar == long_cigar_words(n));
        EXPECT_EQ(ref_length, (n + 1) / 2);
        EXPECT_TRUE(record.aux_data.empty());
    }
}

TEST(Cigar, Operations_65536OrMore_GoToACgFieldBehindAPlaceholder) {
    for (std::size_t const n : {std::size_t{65536}, std::size_t{65537}, std::size_t{200001}}) {
        SCOPED_TRACE(n);
        BAMFileHandler handler;
        BamRecord record;
        record.aux_data.push_back({"NM", 'i', std::int32_t{1}});
        unsigned long ref_length = 0;
        EXPECT_TRUE(handler.pack_cigar_string(long_cigar(n), record, ref_length, 150000));
        EXPECT_EQ(ref_length, (n + 1) / 2) << "the real span, not the placeholder's";
        auto const span = static_cast<std::uint32_t>((n + 1) / 2);
        EXPECT_EQ(words_text(record.cigar), words_text({150000U << 4 | 4, span << 4 | 3}));
        ASSERT_EQ(record.aux_data.size(), 2U);
        EXPECT_EQ(field_text(record.aux_data[0]), "\"NM\" \"i\" int32 1");
        EXPECT_EQ(record.aux_data[1].tag, "CG");
        EXPECT_EQ(record.aux_data[1].type, 'B');
        auto const& array = boost::any_cast<AuxNumericalArray const&>(record.aux_data[1].value);
        EXPECT_EQ(array.type, 'I');
        EXPECT_EQ(array.count, n);
        EXPECT_TRUE(array.data == bytes_of(long_cigar_words(n)));
    }
}

TEST(Cigar, LongCigar_OfALine_ComesBeforeItsFieldsAndBackAsText) {
    constexpr std::size_t N_OPS = 65536;  // 1M2I: three bases a pair
    std::string const seq = repeated("ACG", N_OPS / 2);
    std::string const line = SamLine()
                                 .with(CIGAR, long_cigar(N_OPS))
                                 .with(SEQ, seq)
                                 .with(QUAL, "*")
                                 .field("NM:i:1")
                                 .field("XZ:Z:text")
                                 .text();
    BAMFileHandler handler = handler_with_references();
    BamRecord record = parsed(handler, line);
    EXPECT_EQ(words_text(record.cigar), words_text({98304U << 4 | 4, 32768U << 4 | 3}));
    EXPECT_EQ(record.ref_length, 32768U);
    EXPECT_EQ(record.bin, 585) << "100 to 32868";
    ASSERT_EQ(record.aux_data.size(), 3U);
    EXPECT_EQ(record.aux_data[0].tag, "CG");
    EXPECT_EQ(record.aux_data[1].tag, "NM");
    EXPECT_EQ(record.aux_data[2].tag, "XZ");

    record.sam_line.clear();
    EXPECT_TRUE(handler.update_sam_line(record)) << handler.error_message;
    EXPECT_TRUE(record.sam_line == line);
}

struct CigarTextCase {
    char const* label;
    std::vector<std::uint32_t> words;
    unsigned long seq_len;
    char const* text;
    bool is_placeholder;
};

TEST(Cigar, Operations_Unpacked_GiveTextAndPlaceholder) {
    CigarTextCase const cases[] = {
        {"none", {}, 0, "*", false},
        {"one", {160}, 10, "10M", false},
        {"every code", {16, 33, 50, 67, 84, 101, 118, 135, 152}, 9, "1M2I3D4N5S6H7P8=9X", false},
        {"codes without a letter", {9, 26, 43, 60, 77, 94, 111}, 9, "0?1?2?3?4?5?6?", false},
        {"unknown operation", {UNKNOWN_OP}, 9, "268435455?", false},
        {"length 0", {0}, 9, "0M", false},
        {"longest length", {0xFFFFFFF0}, 9, "268435455M", false},
        {"soft clip shorter than the read", {99U << 4 | 4, 16}, 100, "99S1M", false},
        {"soft clip as long as the read", {100U << 4 | 4, 16}, 100, "100S1M", true},
        {"soft clip longer than the read", {101U << 4 | 4, 16}, 100, "101S1M", true},
        {"soft clip alone", {100U << 4 | 4}, 100, "100S", true},
        {"soft clip of no bases at a read without bases", {4}, 0, "0S", true},
        {"hard clip as long as the read", {100U << 4 | 5}, 100, "100H", false},
        {"soft clip in second place", {16, 100U << 4 | 4}, 100, "1M100S", false},
        {"code without a letter as long as the read", {100U << 4 | 12}, 100, "100?", false},
        {"read longer than any operation", {0xFFFFFFF4}, 268435456, "268435455S", false},
    };
    for (CigarTextCase const& c : cases) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        std::string text = "before";
        bool placeholder = !c.is_placeholder;
        EXPECT_TRUE(handler.unpack_cigar_string(c.words.data(), c.words.size(), text, c.seq_len,
                                                placeholder));
        EXPECT_EQ(text, c.text);
        EXPECT_EQ(placeholder, c.is_placeholder);
    }
}

TEST(Cigar, ManyOperations_WithLengthsOfOneToNineDigits_UnpackToText) {
    constexpr std::uint32_t LENGTHS[] = {
        0,     1,     9,      10,     99,      100,     999,      1000,     1001,      9999,
        10000, 99999, 100000, 999999, 1 << 20, 9999999, 10000000, 99999999, 100000000, 268435455};
    for (std::size_t const n_ops : {20U, 255U, 256U, 257U, 512U, 513U, 3000U}) {
        SCOPED_TRACE(n_ops);
        std::vector<std::uint32_t> words;
        std::string expected;
        for (std::size_t i = 0; i < n_ops; ++i) {
            std::uint32_t const length = LENGTHS[i % std::size(LENGTHS)];
            words.push_back(length << 4 | static_cast<std::uint32_t>(i % 9));
            expected += std::to_string(length) + "MIDNSHP=X"[i % 9];
        }
        BAMFileHandler handler;
        std::string text = "before";
        bool placeholder = true;
        EXPECT_TRUE(
            handler.unpack_cigar_string(words.data(), words.size(), text, 100, placeholder));
        EXPECT_EQ(text, expected);
        EXPECT_FALSE(placeholder);
    }
}

TEST(Cigar, NoOperations_WithoutAnArray_UnpackToAStar) {
    BAMFileHandler handler;
    std::string text = "before";
    bool placeholder = true;
    EXPECT_TRUE(handler.unpack_cigar_string(nullptr, 0, text, 0, placeholder));
    EXPECT_EQ(text, "*");
    EXPECT_FALSE(placeholder);
}

TEST(Cigar, ReferenceLength_OfPackedOperations_CountsThoseThatConsumeIt) {
    BAMFileHandler handler;
    auto const length_of = [&](std::vector<unsigned int> words) {
        return handler.get_cigar_ref_length(words);
    };
    EXPECT_EQ(length_of({}), 0U);
    EXPECT_EQ(length_of({160, 33, 82}), 15U);
    unsigned long const lengths[16] = {1, 0, 1, 1, 0, 0, 0, 1, 1};  // by code
    for (unsigned code = 0; code < 16; ++code) {
        SCOPED_TRACE(code);
        EXPECT_EQ(length_of({7U << 4 | code}), 7 * lengths[code]);
    }
    EXPECT_EQ(length_of({UNKNOWN_OP}), 0U);
    EXPECT_EQ(length_of(std::vector<unsigned int>(20, 0xFFFFFFF0)), 5368709100UL)
        << "more than 32 bits hold";
}

// ===========================================================================
// Sequence
// ===========================================================================

struct SequenceCase {
    char const* label;
    char const* text;
    std::int32_t l_seq;
    char const* bytes;
    char const* read_back;
};

constexpr SequenceCase SEQUENCE_CASES[] = {
    {"five bases", "ACGTN", 5, "12 48 f0", "ACGTN"},
    {"every letter", "=ACMGRSVTWYHKDBN", 16, "01 23 45 67 89 ab cd ef", "=ACMGRSVTWYHKDBN"},
    {"one base", "A", 1, "10", "A"},
    {"two bases", "AC", 2, "12", "AC"},
    {"three bases", "ACG", 3, "12 40", "ACG"},
    {"U packs like T", "UACU", 4, "81 28", "TACT"},
    {"U as unpaired last base", "ACU", 3, "12 80", "ACT"},
    {"equal sign as unpaired last base", "AC=", 3, "12 00", "AC="},
    {"invalid last base of an odd number", "ACg", 3, "12 f0", "ACN"},
    {"invalid single base", "x", 1, "f0", "N"},
    {"star as unpaired last base", "AC*", 3, "12 f0", "ACN"},
    {"empty", "", 0, "", "*"},
};

TEST(Sequence, Text_Packed_HasTwoBasesAByteAndReadsBack) {
    for (SequenceCase const& c : SEQUENCE_CASES) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        BamRecord record;
        EXPECT_TRUE(handler.pack_seq_string(c.text, record));
        EXPECT_EQ(record.l_seq, c.l_seq);
        EXPECT_EQ(hex_text(record.seq), c.bytes);
        std::string text;
        EXPECT_TRUE(handler.unpack_seq_string(record, text));
        EXPECT_EQ(text, c.read_back);
        EXPECT_EQ(handler.error_message, "");
    }
}

TEST(Sequence, Star_Packed_ChangesNothing) {
    BAMFileHandler handler;
    BamRecord fresh;
    EXPECT_TRUE(handler.pack_seq_string("*", fresh));
    EXPECT_EQ(record_text(fresh), record_text(BamRecord()));
    BamRecord used;
    used.l_seq = 3;
    used.seq = {0x12, 0x40};
    EXPECT_TRUE(handler.pack_seq_string("*", used));
    EXPECT_EQ(used.l_seq, 3);
    EXPECT_EQ(hex_text(used.seq), "12 40");
}

TEST(Sequence, CharsOutsideTheTable_InAPair_AreInvalid) {
    std::string const valid = "=ACMGRSVTWYHKDBNU";
    for (int value = CHAR_MIN; value <= CHAR_MAX; ++value) {
        SCOPED_TRACE(value);
        std::string const letter(1, static_cast<char>(value));
        bool const is_valid = valid.find(letter) != std::string::npos;
        for (std::string const& text :
             {letter + "A", "A" + letter, "ACG" + letter, "AC" + letter + "TA", letter + letter}) {
            BAMFileHandler handler;
            BamRecord record;
            EXPECT_EQ(handler.pack_seq_string(text, record), is_valid) << in_quotes(text);
            EXPECT_EQ(handler.error_message, is_valid ? "" : "Invalid sequence code detected");
        }
        BAMFileHandler handler;
        BamRecord record;
        EXPECT_TRUE(handler.pack_seq_string("AC" + letter, record)) << "the last base is unchecked";
        ASSERT_EQ(record.seq.size(), 2U);
        if (!is_valid) {
            EXPECT_EQ(record.seq[1], 0xF0);
        }
    }
}

TEST(Sequence, Letter_AddedToTheMap_PacksToItsCode) {
    BAMFileHandler handler;
    handler.seq_codes['a'] = 1;
    for (std::size_t const n : {40U, 41U}) {
        for (std::size_t place = 0; place < n; ++place) {
            SCOPED_TRACE(std::to_string(place) + " of " + std::to_string(n));
            std::string text(n, 'T');
            text[place] = 'a';
            std::vector<std::uint8_t> expected(20, 0x88);
            if (n == 41) expected.push_back(0x80);
            expected[place / 2] =
                static_cast<std::uint8_t>(place == 40 ? 0x10 : (place % 2 == 0 ? 0x18 : 0x81));
            BamRecord record;
            EXPECT_TRUE(handler.pack_seq_string(text, record));
            EXPECT_EQ(hex_text(record.seq), hex_text(expected));
        }
    }
    handler.seq_codes['b'] = 16;
    BamRecord record;
    EXPECT_FALSE(handler.pack_seq_string("Ab", record));
    EXPECT_EQ(handler.error_message, "Invalid sequence code detected");
}

TEST(Sequence, AnyChar_AtAnyPlaceAmongMany_PacksToItsCodeOrIsInvalid) {
    std::string const letters = "=ACMGRSVTWYHKDBN";
    BAMFileHandler handler;
    for (std::size_t const n : {31U, 32U, 33U, 47U, 64U, 75U, 98U}) {
        for (std::size_t place = 0; place < n; ++place) {
            SCOPED_TRACE(std::to_string(place) + " of " + std::to_string(n));
            for (int value = CHAR_MIN; value <= CHAR_MAX; ++value) {
                std::string text;
                while (text.size() < n) text += "ACGTNTGCA"[text.size() % 9];
                text[place] = static_cast<char>(value);
                std::vector<std::uint8_t> expected((n + 1) / 2);
                bool is_valid = true;
                for (std::size_t i = 0; i < n; ++i) {
                    std::size_t code = text[i] == 'U' ? 8 : letters.find(text[i]);
                    bool const is_known = code != std::string::npos;
                    bool const is_checked = n % 2 == 0 || i + 1 < n;
                    is_valid = is_valid && (is_known || !is_checked);
                    if (!is_known) code = 15;
                    expected[i / 2] =
                        static_cast<std::uint8_t>(expected[i / 2] | code << (i % 2 == 0 ? 4 : 0));
                }
                BamRecord record;
                ASSERT_EQ(handler.pack_seq_string(text, record), is_valid) << value;
                if (is_valid) {
                    ASSERT_EQ(hex_text(record.seq), hex_text(expected)) << value;
                }
            }
        }
    }
}

TEST(Sequence, Text_InLowerCase_IsInvalid) {
    BAMFileHandler handler;
    BamRecord record;
    EXPECT_FALSE(handler.pack_seq_string("acgt", record));
    EXPECT_EQ(handler.error_message, "Invalid sequence code detected");
}

TEST(Sequence, Text_OfMoreBasesThan31BitsCount_IsALengthError) {
    constexpr std::size_t N = std::size_t{1} << 31;
    auto const n_free = static_cast<std::size_t>(sysconf(_SC_AVPHYS_PAGES) * sysconf(_SC_PAGESIZE));
    if (n_free < 2 * N) GTEST_SKIP() << "needs 2 GiB of memory, and leaves as much to others";
    BAMFileHandler handler;
    BamRecord record;
    std::string const text(N, 'A');
    EXPECT_EQ(thrown_by([&] { handler.pack_seq_string(text, record); }), "length_error");
    EXPECT_EQ(record.l_seq, 0);
    EXPECT_TRUE(record.seq.empty());
}

TEST(Sequence, Unpacked_IntoTextThatIsNotEmpty_IsAppendedButForTheStar) {
    BAMFileHandler handler;
    BamRecord record;
    std::string text = "before ";
    ASSERT_TRUE(handler.pack_seq_string("ACG", record));
    EXPECT_TRUE(handler.unpack_seq_string(record, text));
    EXPECT_EQ(text, "before ACG");
    EXPECT_TRUE(handler.unpack_seq_string(BamRecord(), text));
    EXPECT_EQ(text, "*");
}

TEST(Sequence, LongReads_AroundAndBeyond16BitByteCounts_ReadBackWhole) {
    BAMFileHandler handler = handler_with_references();
    for (std::size_t const n : {std::size_t{131069}, std::size_t{131070}, std::size_t{131071},
                                std::size_t{131072}, std::size_t{131073}, std::size_t{200001}}) {
        SCOPED_TRACE(n);
        std::string seq;
        std::string qual;
        for (std::size_t i = 0; i < n; ++i) {
            seq += "=ACMGRSVTWYHKDBN"[(i * i + i / 7) % 16];
            qual += static_cast<char>('!' + i % 90);
        }
        std::string const line =
            SamLine().with(CIGAR, std::to_string(n) + "M").with(SEQ, seq).with(QUAL, qual).text();
        BamRecord record = parsed(handler, line);
        EXPECT_EQ(record.l_seq, static_cast<std::int32_t>(n));
        EXPECT_EQ(record.seq.size(), (n + 1) / 2);
        EXPECT_EQ(record.qual.size(), n);
        std::string unpacked;
        EXPECT_TRUE(handler.unpack_seq_string(record, unpacked));
        EXPECT_TRUE(unpacked == seq);
        record.sam_line.clear();
        EXPECT_TRUE(handler.update_sam_line(record));
        EXPECT_TRUE(record.sam_line == line);
    }
}

// ===========================================================================
// Qualities
// ===========================================================================

TEST(Qualities, Star_Packed_IsAllOnesAndReadsBackAsStar) {
    BAMFileHandler handler;
    BamRecord record;
    record.l_seq = 3;
    EXPECT_TRUE(handler.pack_phred_string("*", record));
    EXPECT_EQ(hex_text(record.qual), "ff ff ff");
    std::string text = "before";
    EXPECT_TRUE(handler.unpack_phred_string(record, text));
    EXPECT_EQ(text, "*");

    record.l_seq = 1;
    EXPECT_TRUE(handler.pack_phred_string("*", record));
    EXPECT_EQ(hex_text(record.qual), "ff") << "for one base too";
}

TEST(Qualities, Text_Packed_LosesTheOffset) {
    BAMFileHandler handler;
    BamRecord record;
    record.l_seq = 5;
    record.qual = {1, 2, 3, 4, 5, 6, 7};
    EXPECT_TRUE(handler.pack_phred_string("!\"I~\x80", record));
    EXPECT_EQ(hex_text(record.qual), "00 01 28 5d 5f");
    EXPECT_TRUE(handler.pack_phred_string("I", record));
    EXPECT_EQ(hex_text(record.qual), "28 00 00 00 00") << "no score of before is left";
    record.l_seq = 0;
    EXPECT_TRUE(handler.pack_phred_string("III", record));
    EXPECT_TRUE(record.qual.empty());
    record.l_seq = 2;
    EXPECT_TRUE(handler.pack_phred_string("", record));
    EXPECT_EQ(hex_text(record.qual), "00 00");
}

TEST(Qualities, Unpacked_FirstScoreAlone_DecidesWhetherThereAreAny) {
    struct ScoreCase {
        char const* label;
        std::vector<char> qual;
        char const* text;
    };
    ScoreCase const cases[] = {
        {"first missing", {'\xFF', 1, 2}, "*"},
        {"all missing", {'\xFF', '\xFF', '\xFF'}, "*"},
        {"second missing", {0, '\xFF', 93}, "! ~"},
        {"scores beyond the printable", {0, 94, '\xFE'}, "!\x7F\x1F"},
    };
    for (ScoreCase const& c : cases) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        BamRecord record;
        record.l_seq = 3;
        record.qual = c.qual;
        std::string text = "before";
        EXPECT_TRUE(handler.unpack_phred_string(record, text));
        EXPECT_EQ(text, c.text);
    }
    BAMFileHandler handler;
    BamRecord record;
    record.qual = {1, 2, 3};
    std::string text = "before";
    EXPECT_TRUE(handler.unpack_phred_string(record, text));
    EXPECT_EQ(text, "*") << "without bases";
}

TEST(Qualities, MissingScores_OfALine_ReadBackAsTheLowest) {
    BAMFileHandler handler = handler_with_references();
    BamRecord record = parsed(handler, SamLine().with(QUAL, "I").text());
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_EQ(record.sam_line, SamLine().with(QUAL, "I!!!").text());
}

// --- Records that contradict themselves ------------------------------------

TEST(Contradictions, SeqOrQual_ShorterThanLSeq_IsOutOfRange) {
    BAMFileHandler handler = handler_with_references();
    for (std::int32_t const l_seq : {5, 6, 1000, INT32_HIGHEST, -1, INT32_LOWEST}) {
        SCOPED_TRACE(l_seq);
        BamRecord short_seq = parsed(handler, SamLine().text());
        short_seq.l_seq = l_seq;
        BamRecord short_qual = short_seq;
        short_qual.seq.resize(600);
        constexpr char FEWER_BASES[] = "out_of_range Record holds fewer bases than its l_seq";
        constexpr char FEWER_QUALITIES[] =
            "out_of_range Record holds fewer qualities than its l_seq";
        std::string text;
        EXPECT_EQ(thrown_by([&] { handler.unpack_seq_string(short_seq, text); }), FEWER_BASES);
        EXPECT_EQ(thrown_by([&] { handler.unpack_phred_string(short_qual, text); }),
                  FEWER_QUALITIES);
        EXPECT_EQ(thrown_by([&] { handler.update_sam_line(short_seq); }), FEWER_BASES);
        bool const has_bases = l_seq > 0 && l_seq <= 1200;
        EXPECT_EQ(thrown_by([&] { handler.update_sam_line(short_qual); }),
                  has_bases ? FEWER_QUALITIES : FEWER_BASES);
    }
    BamRecord without_qual = parsed(handler, SamLine().text());
    without_qual.qual.clear();
    std::string text;
    EXPECT_THROW(handler.unpack_phred_string(without_qual, text), std::out_of_range);
    EXPECT_THROW(handler.update_sam_line(without_qual), std::out_of_range);
}

TEST(Contradictions, SeqAndQual_LongerThanLSeq_AreReadAsFarAsItGoes) {
    BAMFileHandler handler = handler_with_references();
    BamRecord record = parsed(handler, SamLine().text());
    record.l_seq = 3;
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_EQ(record.sam_line, SamLine().with(SEQ, "ACG").with(QUAL, "III").text());
}

TEST(Contradictions, NegativeLSeq_PackingQualities_IsALengthError) {
    BAMFileHandler handler;
    for (std::int32_t const l_seq : {-1, INT32_LOWEST}) {
        BamRecord record;
        record.l_seq = l_seq;
        EXPECT_THROW(handler.pack_phred_string("III", record), std::length_error);
        EXPECT_THROW(handler.pack_phred_string("*", record), std::length_error);
    }
}

// ===========================================================================
// Rendering lines
// ===========================================================================

// A record made by hand of four bases on chr1.
BamRecord plain_record() {
    BamRecord record;
    record.refID = 0;
    record.pos = 100;
    record.read_name = "r1";
    record.mapq = 60;
    record.l_seq = 4;
    record.next_refID = -1;
    record.next_pos = -1;
    record.cigar = {4U << 4};
    record.seq = {0x12, 0x48};
    record.qual = {40, 40, 40, 40};
    record.sam_line = "what was there before";
    return record;
}

BamRecord record_with_field(AuxData const& field) {
    BamRecord record = plain_record();
    record.aux_data = {field};
    return record;
}

TEST(SamWriter, Record_MadeByHand_RendersAllColumns) {
    BAMFileHandler handler = handler_with_references();
    BamRecord record = plain_record();
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_EQ(record.sam_line, "r1\t0\tchr1\t101\t60\t4M\t*\t0\t0\tACGT\tIIII");

    record.flag = 65535;
    record.mapq = 255;
    record.pos = 2147483646;
    record.next_refID = 1;
    record.next_pos = 299;
    record.tlen = INT32_LOWEST;
    record.qual[0] = '\xFF';
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_EQ(record.sam_line,
              "r1\t65535\tchr1\t2147483647\t255\t4M\tchr2\t300\t-2147483648\tACGT\t*");
}

TEST(SamWriter, Record_OfNothing_RendersElevenColumnsWithoutTabAtTheEnd) {
    BAMFileHandler handler;
    BamRecord record;
    record.refID = -1;
    record.pos = -1;
    record.read_name = "QNAME";
    record.mapq = 255;
    record.flag = 77;
    record.next_refID = -1;
    record.next_pos = -1;
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_EQ(record.sam_line, "QNAME\t77\t*\t0\t255\t*\t*\t0\t0\t*\t*");
}

TEST(SamWriter, Positions_AtTheLimit_Wrap) {
    BAMFileHandler handler = handler_with_references();
    BamRecord record = plain_record();
    record.pos = INT32_HIGHEST;
    record.next_pos = INT32_HIGHEST;
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_EQ(record.sam_line, "r1\t0\tchr1\t-2147483648\t60\t4M\t*\t-2147483648\t0\tACGT\tIIII");
}

TEST(SamWriter, ReadName_AsStored_IsWrittenAsItIs) {
    BAMFileHandler handler = handler_with_references();
    BamRecord record = plain_record();
    record.read_name = std::string("a\0b", 3);
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_EQ(record.sam_line.substr(0, 6), std::string("a\0b\t0\t", 6));
    record.read_name.clear();
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_EQ(record.sam_line.substr(0, 3), "\t0\t");
}

struct RefIdCase {
    char const* label;
    std::int32_t refID;
    std::int32_t next_refID;
    char const* rname;  // null: refused
    char const* rnext;
};

// Of four references, the last with the name of the first.
constexpr RefIdCase REF_ID_CASES[] = {
    {"none", -1, -1, "*", "*"},
    {"same", 0, 0, "chr1", "="},
    {"another", 0, 1, "chr1", "chr2"},
    {"another of the same name", 0, 3, "chr1", "="},
    {"last", 3, 2, "chr1", "x"},
    {"no next", 2, -1, "x", "*"},
    {"next only", -1, 2, "*", "x"},
    {"refID -2", -2, -1, nullptr, nullptr},
    {"next_refID -2", -1, -2, nullptr, nullptr},
    {"refID one too large", 4, -1, nullptr, nullptr},
    {"next_refID one too large", 0, 4, nullptr, nullptr},
    {"both bad", 4, -2, nullptr, nullptr},
    {"smallest", INT32_LOWEST, 0, nullptr, nullptr},
    {"largest", 0, INT32_HIGHEST, nullptr, nullptr},
};

TEST(SamWriter, ReferenceIds_InTheListOrNot_RenderTheirNamesOrFail) {
    for (RefIdCase const& c : REF_ID_CASES) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler = handler_with_references();
        BamRecord record = plain_record();
        record.refID = c.refID;
        record.next_refID = c.next_refID;
        EXPECT_EQ(handler.update_sam_line(record), c.rname != nullptr);
        if (c.rname != nullptr) {
            EXPECT_EQ(record.sam_line, SamLine().with(RNAME, c.rname).with(RNEXT, c.rnext).text());
        } else {
            EXPECT_EQ(handler.error_message, "Invalid next segment ref ID detected");
            EXPECT_EQ(record.sam_line, "what was there before");
        }
    }
}

TEST(SamWriter, ReferenceIds_WithoutReferences_AreAllRefusedButMinusOne) {
    for (std::int32_t const id : {INT32_LOWEST, -2, -1, 0, 1, INT32_HIGHEST}) {
        SCOPED_TRACE(id);
        BAMFileHandler handler;
        BamRecord record = plain_record();
        record.refID = id;
        EXPECT_EQ(handler.update_sam_line(record), id == -1);
        EXPECT_EQ(handler.error_message, id == -1 ? "" : "Invalid next segment ref ID detected");
        record.refID = -1;
        record.next_refID = id;
        EXPECT_EQ(handler.update_sam_line(record), id == -1);
    }
}

struct RenderCase {
    char const* label;
    AuxData field;
    char const* text;
};

TEST(SamWriter, OptionalField_OfAnyType_RendersItsValue) {
    auto const array = [](char type, std::uint32_t count, std::string const& bytes) {
        return AuxNumericalArray{type, count, {bytes.begin(), bytes.end()}};
    };
    RenderCase const cases[] = {
        {"A", {"XA", 'A', 'x'}, "XA:A:x"},
        {"c, negative", {"XC", 'c', std::int8_t{-5}}, "XC:i:-5"},
        {"c, smallest", {"XC", 'c', std::int8_t{-128}}, "XC:i:-128"},
        {"c, largest", {"XC", 'c', std::int8_t{127}}, "XC:i:127"},
        {"C, smallest", {"XC", 'C', std::uint8_t{0}}, "XC:i:0"},
        {"C, largest", {"XC", 'C', std::uint8_t{255}}, "XC:i:255"},
        {"s, smallest", {"XS", 's', std::int16_t{-32768}}, "XS:i:-32768"},
        {"s, largest", {"XS", 's', std::int16_t{32767}}, "XS:i:32767"},
        {"S, largest", {"XS", 'S', std::uint16_t{65535}}, "XS:i:65535"},
        {"i, smallest", {"XI", 'i', INT32_LOWEST}, "XI:i:-2147483648"},
        {"i, largest", {"XI", 'i', INT32_HIGHEST}, "XI:i:2147483647"},
        {"I, largest", {"XI", 'I', std::uint32_t{4294967295U}}, "XI:i:4294967295"},
        {"f", {"XS", 'f', 3.25F}, "XS:f:3.25"},
        {"f, the point stays", {"XS", 'f', 7.0F}, "XS:f:7."},
        {"Z", {"XZ", 'Z', std::string("a:b c")}, "XZ:Z:a:b c"},
        {"Z, empty", {"XZ", 'Z', std::string()}, "XZ:Z:"},
        {"H", {"XH", 'H', std::string("1AFF")}, "XH:H:1AFF"},
        {"B of c", {"ZB", 'B', array('c', 3, {1, '\x80', '\x7F'})}, "ZB:B:c,1,-128,127"},
        {"B of C", {"ZB", 'B', array('C', 3, {1, 2, 3})}, "ZB:B:C,1,2,3"},
        {"B of C, largest", {"ZB", 'B', array('C', 1, "\xFF")}, "ZB:B:C,255"},
        {"B of s", {"ZB", 'B', array('s', 2, "\xFE\xFF\xFF\x7F")}, "ZB:B:s,-2,32767"},
        {"B of S", {"ZB", 'B', array('S', 2, "\xFE\xFF\xFF\x7F")}, "ZB:B:S,65534,32767"},
        {"B of i", {"ZB", 'B', array('i', 1, "\xFE\xFF\xFF\xFF")}, "ZB:B:i,-2"},
        {"B of I", {"ZB", 'B', array('I', 1, "\xFE\xFF\xFF\xFF")}, "ZB:B:I,4294967294"},
        {"B without elements", {"ZB", 'B', array('C', 0, "")}, "ZB:B:C"},
        {"B of f without elements", {"ZB", 'B', array('f', 0, "")}, "ZB:B:f"},
        {"B of an unknown type: the commas alone", {"ZB", 'B', array('Q', 3, "")}, "ZB:B:Q,,,"},
        {"B with more bytes than elements", {"ZB", 'B', array('s', 1, "abcdef")}, "ZB:B:s,25185"},
        {"CG beside a CIGAR that is no placeholder",
         {"CG", 'B', array('I', 1, {16, 0, 0, 0})},
         "CG:B:I,16"},
    };
    for (RenderCase const& c : cases) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler = handler_with_references();
        BamRecord record = record_with_field(c.field);
        EXPECT_TRUE(handler.update_sam_line(record)) << handler.error_message;
        EXPECT_EQ(record.sam_line, SamLine().field(c.text).text());
        record.aux_data.push_back({"NM", 'i', std::int32_t{0}});
        EXPECT_TRUE(handler.update_sam_line(record));
        EXPECT_EQ(record.sam_line, SamLine().field(c.text).field("NM:i:0").text());
    }
}

// The text of an array and its bytes, element by element.
template <typename Element>
std::string array_text(char type, std::vector<Element> const& elements) {
    std::string text = std::string("ZB:B:") + type;
    for (Element const element : elements) text += ',' + std::to_string(element);
    return text;
}

template <typename Element>
AuxData array_field(char type, std::vector<Element> const& elements) {
    std::vector<char> bytes;
    for (Element const element : elements) {
        std::string const element_bytes = le_bytes(element);
        bytes.insert(bytes.end(), element_bytes.begin(), element_bytes.end());
    }
    return {"ZB", 'B', AuxNumericalArray{type, static_cast<std::uint32_t>(elements.size()), bytes}};
}

template <typename Element>
void expect_rendered(char type, std::vector<Element> const& elements) {
    SCOPED_TRACE(std::string(1, type) + " of " + std::to_string(elements.size()));
    BAMFileHandler handler = handler_with_references();
    BamRecord record = record_with_field(array_field(type, elements));
    EXPECT_TRUE(handler.update_sam_line(record)) << handler.error_message;
    EXPECT_EQ(record.sam_line, SamLine().field(array_text(type, elements)).text());
}

// Arrays of all lengths in question, their elements taken from a list in turn.
template <typename Element>
void expect_rendered_at_lengths(char type, std::vector<Element> const& values) {
    for (std::size_t const length :
         {1U, 15U, 16U, 17U, 31U, 32U, 33U, 63U, 64U, 65U, 255U, 256U, 257U, 511U, 513U, 1000U}) {
        std::vector<Element> elements;
        for (std::size_t i = 0; i < length; ++i) elements.push_back(values[i % values.size()]);
        expect_rendered(type, elements);
    }
}

TEST(SamWriter, Array_OfAnyLength_RendersEveryElement) {
    expect_rendered_at_lengths<std::uint8_t>('C', {0, 1, 0, 0, 1});
    expect_rendered_at_lengths<std::uint8_t>('C', {9, 8, 7, 6, 5, 4, 3, 2, 1, 0});
    expect_rendered_at_lengths<std::uint8_t>('C', {0, 9, 10, 99, 100, 127, 128, 255});
    expect_rendered_at_lengths<std::int8_t>('c', {0, 1, 0, 0, 1});
    expect_rendered_at_lengths<std::int8_t>('c', {0, -1, 9, 10, -9, -10, 100, 127, -100, -128});
    expect_rendered_at_lengths<std::int16_t>('s', {0, 999, 1000, -999, -1000, 32767, -32768});
    expect_rendered_at_lengths<std::uint16_t>('S', {0, 999, 1000, 9999, 10000, 65535});
    expect_rendered_at_lengths<std::int32_t>('i', {0, 1000000, -7, INT32_HIGHEST, INT32_LOWEST});
    expect_rendered_at_lengths<std::uint32_t>('I', {0, 999, 1000, 2147483648U, 4294967295U});
}

TEST(SamWriter, ArrayOfBytes_OneLargerThanADigit_IsRenderedWhereverItStands) {
    for (std::size_t place = 0; place < 70; ++place) {
        std::vector<std::uint8_t> bytes(70, 3);
        bytes[place] = 10;
        expect_rendered('C', bytes);
        std::vector<std::int8_t> signed_bytes(70, 3);
        signed_bytes[place] = -1;
        expect_rendered('c', signed_bytes);
    }
}

TEST(SamWriter, Array_OfAllNumbersOfItsType_RendersThem) {
    std::vector<std::uint8_t> bytes;
    std::vector<std::int8_t> signed_bytes;
    std::vector<std::uint16_t> words;
    std::vector<std::int16_t> signed_words;
    for (int value = 0; value <= UINT8_MAX; ++value) {
        bytes.push_back(static_cast<std::uint8_t>(value));
        signed_bytes.push_back(static_cast<std::int8_t>(value + INT8_MIN));
    }
    for (int value = 0; value <= UINT16_MAX; ++value) {
        words.push_back(static_cast<std::uint16_t>(value));
        signed_words.push_back(static_cast<std::int16_t>(value + INT16_MIN));
    }
    expect_rendered('C', bytes);
    expect_rendered('c', signed_bytes);
    expect_rendered('S', words);
    expect_rendered('s', signed_words);
}

TEST(SamWriter, Line_Rendered_TakesNoMoreMemoryThanItNeeds) {
    BAMFileHandler handler = handler_with_references();
    BamRecord record = plain_record();
    record.sam_line.reserve(10000);
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_EQ(record.sam_line, SamLine().text());
    EXPECT_EQ(record.sam_line.capacity(), record.sam_line.size());
}

TEST(SamWriter, OptionalFields_OfUnknownType_StopTheLineAtTheirTag) {
    std::string const known = "ABCHISZcfis";
    for (int value = CHAR_MIN; value <= CHAR_MAX; ++value) {
        char const letter = static_cast<char>(value);
        if (known.find(letter) != std::string::npos) continue;
        SCOPED_TRACE(value);
        BAMFileHandler handler = handler_with_references();
        BamRecord record = plain_record();
        record.aux_data = {{"NM", 'i', std::int32_t{5}},
                           {"XX", letter, std::int32_t{1}},
                           {"AS", 'i', std::int32_t{6}}};
        EXPECT_FALSE(handler.update_sam_line(record));
        EXPECT_EQ(handler.error_message,
                  std::string("Invalid auxiliary data type encountered: ") + letter);
        EXPECT_EQ(record.sam_line, SamLine().field("NM:i:5").field("XX:").text());
    }
}

TEST(SamWriter, Value_NotOfItsLettersType_ThrowsBadCastAndStopsAtTheTag) {
    boost::any const values[] = {boost::any(),
                                 char{'x'},
                                 std::int8_t{1},
                                 std::uint8_t{1},
                                 std::int16_t{1},
                                 std::uint16_t{1},
                                 std::int32_t{1},
                                 std::uint32_t{1},
                                 1.0F,
                                 std::string("text"),
                                 AuxNumericalArray{'C', 1, {1}},
                                 long{1},
                                 double{1}};
    // Where in the list above the letter's own type stands.
    constexpr std::pair<char, std::size_t> LETTERS[] = {{'A', 1}, {'c', 2}, {'C', 3}, {'s', 4},
                                                        {'S', 5}, {'i', 6}, {'I', 7}, {'f', 8},
                                                        {'Z', 9}, {'H', 9}, {'B', 10}};
    for (auto const& [letter, own_type] : LETTERS) {
        for (std::size_t i = 0; i < std::size(values); ++i) {
            SCOPED_TRACE(std::string(1, letter) + " with " + value_text(values[i]));
            BAMFileHandler handler = handler_with_references();
            BamRecord record = record_with_field({"NM", 'i', std::int32_t{5}});
            record.aux_data.push_back({"XX", letter, values[i]});
            std::string const fault = thrown_by([&] { handler.update_sam_line(record); });
            EXPECT_EQ(fault, i == own_type ? "nothing" : "bad_any_cast");
            if (i != own_type) {
                EXPECT_EQ(record.sam_line, SamLine().field("NM:i:5").field("XX:").text());
            }
        }
    }
}

TEST(SamWriter, ArrayOfFloats_WithElements_ThrowsBadCastAfterTheFirstComma) {
    for (std::uint32_t const count : {1U, 2U}) {
        SCOPED_TRACE(count);
        BAMFileHandler handler = handler_with_references();
        BamRecord record = record_with_field(
            {"ZB", 'B', AuxNumericalArray{'f', count, std::vector<char>(4 * count)}});
        EXPECT_EQ(thrown_by([&] { handler.update_sam_line(record); }), "bad_any_cast");
        EXPECT_EQ(record.sam_line, SamLine().field("ZB:B:f,").text());
    }
    BAMFileHandler handler = handler_with_references();
    BamRecord record = parsed(handler, SamLine().field("ZB:B:f,1.5").text());
    EXPECT_EQ(thrown_by([&] { handler.update_sam_line(record); }), "bad_any_cast");
    EXPECT_EQ(record.sam_line, SamLine().field("ZB:B:f,").text());
}

TEST(SamWriter, Array_WithFewerBytesThanElements_ThrowsOverrun) {
    struct ShortCase {
        char type;
        std::uint32_t count;
        std::size_t n_bytes;
    };
    constexpr ShortCase CASES[] = {{'c', 1, 0}, {'c', 3, 2}, {'C', 2, 1}, {'s', 1, 1},
                                   {'S', 2, 3}, {'i', 1, 3}, {'I', 2, 7}, {'I', 4294967295U, 4}};
    for (ShortCase const& c : CASES) {
        SCOPED_TRACE(std::string(1, c.type) + std::to_string(c.count));
        BAMFileHandler handler = handler_with_references();
        BamRecord record = record_with_field(
            {"ZB", 'B', AuxNumericalArray{c.type, c.count, std::vector<char>(c.n_bytes)}});
        EXPECT_EQ(thrown_by([&] { handler.update_sam_line(record); }), READ_OVERRUN);
        std::string const beginning = SamLine().field("ZB:").text();
        EXPECT_EQ(record.sam_line.substr(0, beginning.size()), beginning);
    }
}

TEST(SamWriter, Line_OfManyKinds_ParsedAndRendered_IsTheSame) {
    BAMFileHandler handler = handler_with_references();
    for (std::string const& line :
         {SamLine().text(),
          SamLine().field("XA:A:x").field("NM:i:-5").field("XF:f:1.5").field("XZ:Z:a b").text(),
          SamLine().with(RNEXT, "=").with(PNEXT, "7").with(TLEN, "-9").field("XH:H:1A").text(),
          SamLine()
              .with(RNAME, "*")
              .with(POS, "0")
              .with(CIGAR, "*")
              .with(SEQ, "*")
              .with(QUAL, "*")
              .text(),
          SamLine().with(CIGAR, "1S2=1X").field("XB:B:c,-1,2").field("XC:B:I,7").text()}) {
        SCOPED_TRACE(line);
        BamRecord record = parsed(handler, line);
        record.sam_line.clear();
        EXPECT_TRUE(handler.update_sam_line(record));
        EXPECT_EQ(record.sam_line, line);
        EXPECT_TRUE(handler.update_sam_line(record)) << "a second time";
        EXPECT_EQ(record.sam_line, line);
    }
}

// --- CIGARs in a CG field --------------------------------------------------

struct LongCigarCase {
    char const* label;
    std::vector<std::uint32_t> cigar;
    std::vector<AuxData> fields;
    char const* text;         // of the CIGAR column
    char const* fields_text;  // of the optional columns
};

AuxNumericalArray operations(char type, std::vector<std::uint32_t> const& words) {
    return {type, static_cast<std::uint32_t>(words.size()), bytes_of(words)};
}

TEST(LongCigar, Placeholder_WithOrWithoutCgField_RendersTheRealOperations) {
    std::vector<std::uint32_t> const placeholder = {4U << 4 | 4, 7U << 4 | 3};
    AuxData const nm{"NM", 'i', std::int32_t{1}};
    AuxData const as{"AS", 'i', std::int32_t{2}};
    LongCigarCase const cases[] = {
        {"CG field", placeholder, {{"CG", 'B', operations('I', {32, 33, 83})}}, "2M2I5N", ""},
        {"between other fields",
         placeholder,
         {nm, {"CG", 'B', operations('I', {32, 33})}, as},
         "2M2I",
         "\tNM:i:1\tAS:i:2"},
        {"element type is not looked at",
         placeholder,
         {{"CG", 'B', operations('c', {32, 33})}},
         "2M2I",
         ""},
        {"two CG fields: the first counts, both are left out",
         placeholder,
         {{"CG", 'B', operations('I', {32, 33})}, nm, {"CG", 'B', operations('I', {64})}},
         "2M2I",
         "\tNM:i:1"},
        {"CG field without operations", placeholder, {{"CG", 'B', operations('I', {})}}, "*", ""},
        {"CG field that is a placeholder again",
         placeholder,
         {{"CG", 'B', operations('I', {84})}},
         "5S",
         ""},
        {"no CG field", placeholder, {nm}, "4S7N", "\tNM:i:1"},
        {"no field at all", placeholder, {}, "4S7N", ""},
        {"CG text, no array",
         placeholder,
         {{"CG", 'Z', std::string("2M2I")}},
         "4S7N",
         "\tCG:Z:2M2I"},
        {"CG text before the CG field",
         placeholder,
         {{"CG", 'Z', std::string("x")}, {"CG", 'B', operations('I', {32})}},
         "2M",
         "\tCG:Z:x"},
        {"tag in lower case",
         placeholder,
         {{"cg", 'B', operations('I', {32})}},
         "4S7N",
         "\tcg:B:I,32"},
        {"no placeholder: clip a base shorter",
         {3U << 4 | 4, 16},
         {{"CG", 'B', operations('I', {32})}},
         "3S1M",
         "\tCG:B:I,32"},
        {"placeholder of a clip longer than the read",
         {9U << 4 | 4},
         {{"CG", 'B', operations('I', {32})}},
         "2M",
         ""},
        {"no operations", {}, {{"CG", 'B', operations('I', {32})}}, "*", "\tCG:B:I,32"},
    };
    for (LongCigarCase const& c : cases) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler = handler_with_references();
        BamRecord record = plain_record();
        record.cigar = c.cigar;
        record.aux_data = c.fields;
        EXPECT_TRUE(handler.update_sam_line(record)) << handler.error_message;
        EXPECT_EQ(record.sam_line, SamLine().with(CIGAR, c.text).text() + c.fields_text);
        EXPECT_EQ(fields_text(record.aux_data), fields_text(c.fields)) << "the record keeps them";
        EXPECT_EQ(words_text(record.cigar), words_text(c.cigar));
    }
}

TEST(LongCigar, CgField_WithFewerBytesThanOperations_ThrowsOverrun) {
    for (std::uint32_t const count : {2U, 3U, 0x40000001U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(count);
        BAMFileHandler handler = handler_with_references();
        BamRecord record = plain_record();
        record.cigar = {4U << 4 | 4, 7U << 4 | 3};
        record.aux_data = {{"CG", 'B', AuxNumericalArray{'I', count, std::vector<char>(7)}}};
        EXPECT_EQ(thrown_by([&] { handler.update_sam_line(record); }), READ_OVERRUN);
    }
}

TEST(LongCigar, CgField_ThatHoldsNoArray_ThrowsBadCast) {
    BAMFileHandler handler = handler_with_references();
    BamRecord record = plain_record();
    record.cigar = {4U << 4 | 4, 7U << 4 | 3};
    record.aux_data = {{"CG", 'B', std::string("2M")}};
    EXPECT_EQ(thrown_by([&] { handler.update_sam_line(record); }), "bad_any_cast");
}

// --- Floats ----------------------------------------------------------------

// "%f" without the zeros at its end.
std::string stripped(float value) {
    char text[64];
    std::snprintf(text, sizeof text, "%f", static_cast<double>(value));
    std::string result = text;
    while (!result.empty() && result.back() == '0') result.pop_back();
    return result;
}

// The texts of f fields with these values, as a rendered line has them.
std::vector<std::string> rendered(std::vector<float> const& values) {
    BAMFileHandler handler = handler_with_references();
    BamRecord record = plain_record();
    for (float const value : values) record.aux_data.push_back({"XF", 'f', value});
    EXPECT_TRUE(handler.update_sam_line(record));
    std::vector<std::string> texts;
    std::string const mark = "\tXF:f:";
    std::size_t at = record.sam_line.find(mark);
    while (at != std::string::npos) {
        std::size_t const begin = at + mark.size();
        at = record.sam_line.find(mark, begin);
        texts.push_back(record.sam_line.substr(begin, at == std::string::npos ? at : at - begin));
    }
    return texts;
}

struct FloatCase {
    float value;
    char const* text;
};

constexpr FloatCase FLOAT_CASES[] = {
    {1.5F, "1.5"},
    {2.0F, "2."},
    {0.0F, "0."},
    {-0.0F, "-0."},
    {0.1F, "0.1"},
    {-0.1F, "-0.1"},
    {1e-7F, "0."},
    {-1e-7F, "-0."},
    {5e-7F, "0."},
    {6e-7F, "0.000001"},
    {100.0F, "100."},
    {1000000.0F, "1000000."},
    {0.333333343F, "0.333333"},
    {0.5000005F, "0.5"},
    {123.456F, "123.456001"},
    {9.9999999F, "10."},
    {16777216.0F, "16777216."},
    {1e10F, "10000000000."},
    {FLT_MAX, "340282346638528859811704183484516925440."},
    {-FLT_MAX, "-340282346638528859811704183484516925440."},
    {FLT_MIN, "0."},
    {FLT_TRUE_MIN, "0."},
    {std::numeric_limits<float>::infinity(), "inf"},
    {-std::numeric_limits<float>::infinity(), "-inf"},
    {std::numeric_limits<float>::quiet_NaN(), "nan"},
    {-std::numeric_limits<float>::quiet_NaN(), "-nan"},
};

TEST(SamWriter, Float_OfTheTable_HasSixDecimalsWithoutZerosAtTheEnd) {
    for (FloatCase const& c : FLOAT_CASES) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(rendered({c.value}), std::vector<std::string>{c.text});
        EXPECT_EQ(stripped(c.value), c.text);
    }
}

TEST(SamWriter, Floats_OfRandomBits_RenderAsPrintfStripped) {
    std::mt19937 random(20240229);
    constexpr int N_LINES = 100;
    constexpr int N_FIELDS = 1000;
    for (int line = 0; line < N_LINES; ++line) {
        std::vector<float> values;
        for (int i = 0; i < N_FIELDS; ++i) {
            auto bits = static_cast<std::uint32_t>(random());
            // Every other number of the size that data have: 2^-20 to 2^20.
            if (i % 2 == 0) bits = (bits & 0x807FFFFF) | ((107 + bits % 41) << 23);
            float value = 0;
            std::memcpy(&value, &bits, sizeof value);
            values.push_back(value);
        }
        std::vector<std::string> expected;
        for (float const value : values) expected.push_back(stripped(value));
        ASSERT_EQ(rendered(values), expected);
    }
}

// ===========================================================================
// SAM files
// ===========================================================================

constexpr char HEADER[] = "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:chr1\tLN:1000\n";

std::vector<std::string> lines_of(BAMFileHandler const& handler) {
    std::vector<std::string> lines;
    unsigned long n = 0;
    EXPECT_TRUE(handler.get_num_alignments(n));
    for (unsigned long i = 0; i < n; ++i) {
        std::string line;
        EXPECT_TRUE(handler.get_alignment_sam(i, line));
        lines.push_back(line);
    }
    return lines;
}

std::string read(std::string_view qname) { return SamLine().with(QNAME, qname).text(); }

using Lines = std::vector<std::string>;

struct FileCase {
    char const* label;
    std::string text;
    std::string header;
    Lines lines;
};

TEST(SamFile, File_OfAnyShape_GivesItsHeaderAndLines) {
    std::string const header = HEADER;
    FileCase const cases[] = {
        {"empty", "", "", {}},
        {"empty lines only", "\n\n\n", "", {}},
        {"header only", header, header, {}},
        {"header without newline at the end", "@CO\tx", "@CO\tx\n", {}},
        {"header and lines",
         header + read("a") + "\n" + read("b") + "\n",
         header,
         {read("a"), read("b")}},
        {"last line without newline",
         header + read("a") + "\n" + read("b"),
         header,
         {read("a"), read("b")}},
        {"lines only", read("a") + "\n", "", {read("a")}},
        {"empty lines between others",
         "\n" + header + "\n\n" + read("a") + "\n\n" + read("b") + "\n\n",
         header,
         {read("a"), read("b")}},
        {"carriage returns stay",
         "@CO\tx\r\n" + read("a") + "\r\n" + read("b") + "\tXZ:Z:text\r\n",
         "@CO\tx\r\n",
         {read("a") + "\r", read("b") + "\tXZ:Z:text\r"}},
        {"carriage return at the end of the file", read("a") + "\r", "", {read("a") + "\r"}},
        {"header line after the lines",
         header + read("a") + "\n@CO\tlate\n" + read("b") + "\n",
         header + "@CO\tlate\n",
         {read("a"), read("b")}},
        {"white space at the beginning of a line", " " + read("a") + "\n", "", {" " + read("a")}},
        {"NUL bytes",
         std::string("a\0b\t", 4) + read("x").substr(2) + std::string("\tXZ:Z:\0\0\n", 9),
         "",
         {std::string("a\0b\t", 4) + read("x").substr(2) + std::string("\tXZ:Z:\0\0", 8)}},
    };
    TempDir const dir;
    for (FileCase const& c : cases) {
        SCOPED_TRACE(c.label);
        BAMFileHandler handler;
        EXPECT_TRUE(handler.read_from_sam_file(dir.write("in.sam", c.text)))
            << handler.error_message;
        EXPECT_EQ(handler.header, c.header);
        EXPECT_EQ(lines_of(handler), c.lines);
        EXPECT_EQ(handler.file_name, "");
        EXPECT_EQ(handler.error_message, "");
    }
}

TEST(SamFile, NulBytes_InAFile_ReachTheRecord) {
    TempDir const dir;
    BAMFileHandler handler;
    std::string line = read("axb") + "\tXZ:Z:pxq";
    std::replace(line.begin(), line.end(), 'x', '\0');
    ASSERT_TRUE(handler.read_from_sam_file(dir.write("in.sam", line)));
    ASSERT_EQ(handler.records.size(), 1U);
    EXPECT_EQ(in_quotes(handler.records[0].read_name), "\"a\\x00b\"");
    EXPECT_EQ(fields_text(handler.records[0].aux_data), "  \"XZ\" \"Z\" string \"p\\x00q\"\n");
}

TEST(SamFile, CarriageReturns_BeforeNewlines_DoNotCountAsQualities) {
    TempDir const dir;
    BAMFileHandler handler;
    std::string const line = SamLine().with(QUAL, "*").text();
    ASSERT_TRUE(handler.read_from_sam_file(dir.write(
        "in.sam", "@SQ\tSN:chr1\tLN:1000\r\n" + SamLine().text() + "\r\n" + line + "\r\n")));
    ASSERT_EQ(handler.references.size(), 1U);
    EXPECT_EQ(handler.references[0].name, "chr1");
    ASSERT_EQ(handler.records.size(), 2U);
    EXPECT_EQ(hex_text(handler.records[0].qual), "28 28 28 28");
    EXPECT_EQ(hex_text(handler.records[1].qual), "ff ff ff ff");
    EXPECT_EQ(handler.records[1].sam_line, line + "\r");
    EXPECT_TRUE(handler.records[1].aux_data.empty());
}

TEST(SamFile, ReferenceLine_AfterAlignments_CountsForTheLaterOnes) {
    TempDir const dir;
    BAMFileHandler handler;
    ASSERT_TRUE(handler.read_from_sam_file(
        dir.write("in.sam", read("a") + "\n@SQ\tSN:chr1\tLN:1000\n" + read("b") + "\n")));
    ASSERT_EQ(handler.records.size(), 2U);
    EXPECT_EQ(handler.records[0].refID, -1);
    EXPECT_EQ(handler.records[1].refID, 0);
}

TEST(SamFile, SortOrder_OfTheHeader_HoldsUntilARecordIsRead) {
    TempDir const dir;
    BAMFileHandler handler;
    ASSERT_TRUE(handler.read_from_sam_file(dir.write("in.sam", HEADER)));
    EXPECT_TRUE(handler.has_sort_order);
    EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
    ASSERT_TRUE(handler.read_from_sam_file(dir.write("in.sam", HEADER + read("a"))));
    EXPECT_FALSE(handler.has_sort_order);
    EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
}

TEST(SamFile, File_ReadTwice_GivesTheSameContents) {
    TempDir const dir;
    std::string const path = dir.write("in.sam", HEADER + read("a") + "\n" + read("b") + "\n");
    BAMFileHandler handler;
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(handler.read_from_sam_file(path)) << handler.error_message;
        EXPECT_EQ(handler.header, HEADER);
        EXPECT_EQ(handler.header_lines, "@SQ\tSN:chr1\tLN:1000\n");
        EXPECT_EQ(handler.references.size(), 1U);
        EXPECT_EQ(lines_of(handler), (Lines{read("a"), read("b")}));
    }
}

// Lines that end shortly before, at and after the powers of two that buffers
// tend to have, and much longer ones.
TEST(SamFile, Lines_OfAnyLength_ArriveWhole) {
    TempDir const dir;
    std::size_t const shortest = SamLine().field("XZ:Z:").text().size();
    for (std::size_t const size :
         {std::size_t{4096}, std::size_t{8192}, std::size_t{65536}, std::size_t{1} << 20,
          std::size_t{2} << 20, std::size_t{5} << 20}) {
        SCOPED_TRACE(size);
        Lines lines;
        std::string text;
        for (std::size_t const length : {size - 2, size, size - 1, size + 1, shortest + 1, size}) {
            char const letter = static_cast<char>('a' + lines.size());
            lines.push_back(
                SamLine().field("XZ:Z:" + std::string(length - shortest, letter)).text());
            text += lines.back() + "\n";
        }
        text.pop_back();
        BAMFileHandler handler;
        ASSERT_TRUE(handler.read_from_sam_file(dir.write("in.sam", text)))
            << handler.error_message.substr(0, 200);
        EXPECT_TRUE(lines_of(handler) == lines);

        std::string const copy = dir.file("out.sam");
        ASSERT_TRUE(handler.write_to_sam_file(copy));
        EXPECT_TRUE(read_file(copy) == text + "\n");
    }
}

TEST(SamFile, ManyLines_MoreThanAnyBuffer_ArriveInOrder) {
    TempDir const dir;
    Lines lines;
    std::string text = HEADER;
    for (int i = 0; i < 70000; ++i) {  // little more than a power of two
        lines.push_back(read("read" + std::to_string(i)));
        text += lines.back() + "\n";
    }
    BAMFileHandler handler;
    ASSERT_TRUE(handler.read_from_sam_file(dir.write("in.sam", text)));
    EXPECT_TRUE(lines_of(handler) == lines);
    EXPECT_LE(handler.records.capacity(), lines.size() * 9 / 8);
    std::string const copy = dir.file("out.sam");
    ASSERT_TRUE(handler.write_to_sam_file(copy));
    EXPECT_TRUE(read_file(copy) == text);
}

TEST(SamFile, Pipe_OfManyLines_IsReadLikeAFile) {
    TempDir const dir;
    std::string const path = dir.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    Lines lines;
    std::string text = HEADER;
    for (int i = 0; i < 1000; ++i) {
        lines.push_back(read("read" + std::to_string(i)));
        text += lines.back() + "\n";
    }
    std::thread writer([&] { write_file(path, text); });
    BAMFileHandler handler;
    EXPECT_TRUE(handler.read_from_sam_file(path)) << handler.error_message;
    writer.join();
    EXPECT_EQ(handler.header, HEADER);
    EXPECT_TRUE(lines_of(handler) == lines);
}

// --- Files that are refused ------------------------------------------------

// A handler that holds something, and a path in `file_name`.
BAMFileHandler used_handler() {
    BAMFileHandler handler;
    EXPECT_TRUE(handler.add_header_lines(HEADER));
    EXPECT_TRUE(handler.add_alignment_sam(read("old")));
    handler.error_message = "an earlier failure";
    handler.file_name = "an earlier path";
    return handler;
}

void expect_empty(BAMFileHandler const& handler) {
    EXPECT_EQ(handler.header, "");
    EXPECT_EQ(handler.header_lines, "");
    EXPECT_EQ(handler.sort_order, "");
    EXPECT_FALSE(handler.has_sort_order);
    EXPECT_TRUE(handler.references.empty());
    EXPECT_TRUE(handler.records.empty());
}

TEST(SamFile, Path_ThatCannotBeOpenedForReading_FailsWithAnEmptyHandler) {
    TempDir const dir;
    std::string const plain_file = dir.write("plain", "");
    for (std::string const& path :
         {dir.file("missing.sam"), dir.file("no/such/folder/in.sam"), dir.path().string(),
          dir.path().string() + "/", std::string(), plain_file + "/in.sam"}) {
        SCOPED_TRACE(path);
        BAMFileHandler handler = used_handler();
        EXPECT_FALSE(handler.read_from_sam_file(path));
        EXPECT_EQ(handler.error_message, "Cannot open file " + path);
        EXPECT_EQ(handler.file_name, "");
        expect_empty(handler);
    }
}

TEST(SamFile, File_ThatCannotBeReadFromItsStart_ReportsTheError) {
    // The memory of a process opens like a file; its first page is never there.
    std::string const path = "/proc/self/mem";
    BAMFileHandler handler = used_handler();
    EXPECT_FALSE(handler.read_from_sam_file(path));
    EXPECT_EQ(handler.error_message, "SAM file reported error on close " + path);
    EXPECT_EQ(handler.file_name, "");
    expect_empty(handler);
}

TEST(SamFile, HeaderLine_Refused_KeepsWhatWasReadBefore) {
    TempDir const dir;
    std::string const path =
        dir.write("in.sam", HEADER + read("a") + "\n@SQ\tSN:chr2\n" + read("b") + "\n");
    BAMFileHandler handler = used_handler();
    EXPECT_FALSE(handler.read_from_sam_file(path));
    EXPECT_EQ(handler.error_message,
              "Could not parse header from SAM file " + path +
                  " : Malformed @SQ line encountered in header lines: @SQ\tSN:chr2");
    EXPECT_EQ(handler.header, HEADER);
    EXPECT_EQ(lines_of(handler), Lines{read("a")});
    EXPECT_EQ(handler.file_name, "");
}

TEST(SamFile, AlignmentLine_Refused_KeepsWhatWasReadBefore) {
    struct LineCase {
        char const* label;
        std::string line;
        std::string message;
    };
    TempDir const dir;
    std::string const path = dir.file("in.sam");
    LineCase const cases[] = {
        {"too few columns", "b\t0\tchr1", "Malformed SAM line detected"},
        {"blank", " ", "Malformed SAM line detected"},
        {"carriage return", "\r", "Malformed SAM line detected"},
        {"tab at the end", read("b") + "\t", "Invalid aux data detected: "},
        {"unknown type, which names the file", read("b") + "\tXC:c:5",
         "Invalid auxiliary data type) 'c' found in alignment record in " + path},
        {"base", SamLine().with(SEQ, "acgt").text(), "Invalid sequence code detected"},
    };
    for (LineCase const& c : cases) {
        SCOPED_TRACE(c.label);
        write_file(path, HEADER + read("a") + "\n" + c.line + "\n" + read("d") + "\n");
        BAMFileHandler handler = used_handler();
        EXPECT_FALSE(handler.read_from_sam_file(path));
        EXPECT_EQ(handler.error_message, "Could not parse alignment from SAM file " + path +
                                             " : Sam to Bam parsing failed: " + c.message);
        EXPECT_EQ(handler.header, HEADER);
        EXPECT_EQ(lines_of(handler), Lines{read("a")});
        EXPECT_FALSE(handler.has_sort_order);
        EXPECT_EQ(handler.file_name, "");
    }
}

TEST(SamFile, Number_ThatThrows_LeavesNoFileName) {
    struct LineCase {
        char const* label;
        std::string line;
        char const* fault;
        std::size_t n_records;  // afterwards, the unfinished one included
    };
    LineCase const cases[] = {
        {"optional integer", read("b") + "\tNM:i:x", "invalid_argument stoi", 2},
        {"optional float", read("b") + "\tXF:f:1e-40", "out_of_range stof", 2},
        {"array", read("b") + "\tXB:B:Cx1,2", WRITE_OVERRUN, 2},
        {"length of a reference", "@SQ\tSN:chr2\tLN:99999999999", "out_of_range stoi", 1},
    };
    TempDir const dir;
    for (LineCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const path = dir.write("in.sam", HEADER + read("a") + "\n" + c.line + "\n");
        BAMFileHandler handler = used_handler();
        EXPECT_EQ(thrown_by([&] { handler.read_from_sam_file(path); }), c.fault);
        EXPECT_EQ(handler.file_name, "");
        EXPECT_EQ(handler.error_message, "an earlier failure");
        EXPECT_EQ(handler.records.size(), c.n_records);
        EXPECT_EQ(handler.header, HEADER);
        EXPECT_TRUE(handler.read_from_sam_file(dir.write("good.sam", HEADER))) << "and goes on";
    }
}

// --- Writing files ---------------------------------------------------------

TEST(SamFile, Handler_Written_GivesHeaderAndLinesAsTheyStand) {
    TempDir const dir;
    BAMFileHandler handler;
    ASSERT_TRUE(handler.add_header_lines(HEADER));
    ASSERT_TRUE(handler.add_alignment_sam(read("a") + "\r"));
    ASSERT_TRUE(handler.add_alignment_sam(" " + read("b") + "\tXZ:Z:x"));
    handler.records.emplace_back();
    handler.records.back().sam_line = "a line set by hand";
    handler.records.emplace_back();
    handler.has_sort_order = true;
    handler.file_name = "an earlier path";
    std::string const path = dir.write("out.sam", repeated("longer than what replaces it", 100));
    BAMFileHandler const& const_handler = handler;
    EXPECT_TRUE(const_handler.write_to_sam_file(path));
    EXPECT_EQ(read_file(path),
              HEADER + read("a") + "\r\n " + read("b") + "\tXZ:Z:x\na line set by hand\n\n");
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(handler.error_message, "");
    EXPECT_TRUE(handler.has_sort_order);
    EXPECT_EQ(handler.header, HEADER);
    EXPECT_EQ(handler.records.size(), 4U);
}

TEST(SamFile, LinesOfAnyLength_Written_StandInTheirOrder) {
    constexpr std::size_t MIB = std::size_t{1} << 20;
    TempDir const dir;
    std::string const path = dir.file("out.sam");
    BAMFileHandler handler;
    ASSERT_TRUE(handler.add_header_lines(HEADER));
    std::string expected = HEADER;
    // The file goes out in pieces of 1 MiB. The first line fills one with its newline,
    // the second without, and the third's newline is all but the piece's last byte.
    for (std::size_t const length :
         {MIB - expected.size() - 1, MIB, MIB - 3, std::size_t{0}, std::size_t{5}, MIB - 2, MIB - 1,
          MIB, MIB + 1, std::size_t{7}, 2 * MIB, MIB / 2, MIB / 2 - 1, MIB / 2 - 1, std::size_t{1},
          std::size_t{0}}) {
        char const letter = static_cast<char>('a' + handler.records.size());
        handler.records.emplace_back().sam_line = std::string(length, letter);
        expected += std::string(length, letter) + '\n';
    }
    EXPECT_TRUE(handler.write_to_sam_file(path));
    EXPECT_TRUE(read_file(path) == expected);
}

TEST(SamFile, EmptyHandler_Written_GivesAnEmptyFile) {
    TempDir const dir;
    std::string const path = dir.file("out.sam");
    EXPECT_TRUE(BAMFileHandler().write_to_sam_file(path));
    EXPECT_EQ(read_file(path), "");
}

TEST(SamFile, HandlerReadFromSam_WrittenAndReadBack_HasTheSameLines) {
    TempDir const dir;
    std::string const text = HEADER + read("a") + "\tXF:f:1.50\tNM:i:+7\n" +
                             SamLine().with(FLAG, "+16").with(MAPQ, "300").text() + "\r\n  " +
                             SamLine().with(CIGAR, "-5Mx").with(SEQ, "UUUU").text() + "\n";
    BAMFileHandler first;
    ASSERT_TRUE(first.read_from_sam_file(dir.write("in.sam", text)));
    std::string const path = dir.file("out.sam");
    ASSERT_TRUE(first.write_to_sam_file(path));
    EXPECT_EQ(read_file(path), text);
    BAMFileHandler second;
    ASSERT_TRUE(second.read_from_sam_file(path));
    EXPECT_EQ(lines_of(second), lines_of(first));
    EXPECT_EQ(second.header, first.header);
    ASSERT_EQ(second.records.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(record_text(second.records[i]), record_text(first.records[i]));
    }
}

TEST(SamFile, Path_ThatCannotBeOpenedForWriting_Fails) {
    TempDir const dir;
    for (std::string const& path :
         {dir.path().string(), dir.file("no/such/folder/out.sam"), std::string()}) {
        SCOPED_TRACE(path);
        BAMFileHandler const handler = used_handler();
        EXPECT_FALSE(handler.write_to_sam_file(path));
        EXPECT_EQ(handler.error_message, "Cannot open SAM file : " + path);
        EXPECT_EQ(handler.file_name, "");
        EXPECT_EQ(lines_of(handler), Lines{read("old")});
    }
}

TEST(SamFile, Disk_ThatIsFull_ReportsTheError) {
    std::string const path = "/dev/full";
    BAMFileHandler handler = used_handler();
    EXPECT_FALSE(handler.write_to_sam_file(path));
    EXPECT_EQ(handler.error_message, "SAM file reported error on close " + path);
    EXPECT_EQ(handler.file_name, "");

    BAMFileHandler header_only;
    ASSERT_TRUE(header_only.add_header_lines("@CO\tx"));
    EXPECT_FALSE(header_only.write_to_sam_file(path));
    EXPECT_EQ(header_only.error_message, "SAM file reported error on close " + path);

    for (int i = 0; i < 3; ++i) {
        handler.records.emplace_back();
        handler.records.back().sam_line.assign(std::size_t{3} << 20, 'x');
    }
    handler.error_message.clear();
    EXPECT_FALSE(handler.write_to_sam_file(path)) << "of much more than a buffer";
    EXPECT_EQ(handler.error_message, "SAM file reported error on close " + path);
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(handler.records.size(), 4U);
}

}  // namespace
}  // namespace tesk::test

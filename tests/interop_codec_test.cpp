// The record codec: SAM lines into BAM records and back, what is repaired on the
// way, what is refused and with which words. Expected bytes are written out by
// hand or come from the tests' own encoder.

#include "interop/record_codec.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/bam_walker.h"
#include "tests/support/record_text.h"
#include "tests/support/text.h"

namespace tesk::interop {
namespace {

using test::bam_aux;
using test::encode_bam_record;
using test::hex_text;
using test::le_bytes;
using test::RawBamRecord;
using test::record_text;
using test::sam_line_of_record;
using test::SamLine;
using test::split;
using util::bam::BAMFileHandler;
using AuxData = BAMFileHandler::AuxData;
using AuxNumericalArray = BAMFileHandler::AuxNumericalArray;
using BamRecord = BAMFileHandler::BamRecord;

constexpr std::string_view HEADER =
    "@HD\tVN:1.6\n@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:2147483647\n";

std::vector<test::Reference> references() { return {{"chr1", 1000}, {"chr2", INT32_MAX}}; }

// A string that may hold NUL bytes: "ab\0"s and the like.
using namespace std::string_literals;

std::string repeated(std::string_view text, std::size_t n) {
    std::string result;
    result.reserve(text.size() * n);
    for (std::size_t i = 0; i < n; ++i) result += text;
    return result;
}

// Everything that a report has counted: "lower_case_base 1 line 7\n", a line each.
std::string findings_of(Report const& report) {
    std::string text;
    auto const add = [&](char const* name, Finding const& finding) {
        if (finding.count == 0) return;
        text += name;
        text += ' ' + std::to_string(finding.count) + ' ' + finding.first.text() + '\n';
    };
    for (std::size_t i = 0; i < N_REPAIRS; ++i) {
        add(name_of(static_cast<Repair>(i)), report.of(static_cast<Repair>(i)));
    }
    for (std::size_t i = 0; i < N_WARNINGS; ++i) {
        add(name_of(static_cast<Warning>(i)), report.of(static_cast<Warning>(i)));
    }
    return text;
}

// What came of a line or a record.
struct Outcome {
    bool accepted = false;
    std::string bytes;     // appended to the records
    std::string text;      // appended to the text
    std::string findings;  // of the whole report
    std::string fault;     // "QUAL: 3 qualities for 4 bases" where refused
};

// A codec over chr1 of 1,000 and chr2 of 2,147,483,647 bases, with buffers that
// hold something already, which has to stay.
class Codec {
public:
    Codec() {
        std::string error;
        EXPECT_TRUE(header_.assign_sam(HEADER, report_, error)) << error;
        EXPECT_EQ(findings_of(report_), "");
        clear();
    }

    Outcome encode(std::string_view line, std::uint64_t number = 7) {
        clear();
        bool const accepted = codec.encode_line(line, number, records_, &text_);
        return outcome(accepted);
    }

    Outcome encode_without_text(std::string_view line) {
        clear();
        return outcome(codec.encode_line(line, 7, records_, nullptr));
    }

    // Takes a whole record, block_size included, of which the codec gets the rest
    // in memory of exactly its size.
    Outcome check(std::string_view record, std::uint64_t number = 7) {
        clear();
        std::vector<char> const body(record.begin() + 4, record.end());
        bool const accepted = codec.check_record({body.data(), body.size()}, number, records_);
        return outcome(accepted);
    }

    // The line of an encoded record, without the '\n' that it has to end in.
    std::string render(std::string const& record) {
        clear();
        if (record.empty()) {
            ADD_FAILURE() << "no record";
            return "";
        }
        codec.render_line(RecordView(record.data()), text_);
        std::string line(text_.view().substr(EARLIER.size()));
        EXPECT_EQ(text_.view().substr(0, EARLIER.size()), EARLIER);
        if (line.empty() || line.back() != '\n') {
            ADD_FAILURE() << "no line end";
            return line;
        }
        line.pop_back();
        return line;
    }

    std::string findings() const { return findings_of(report_); }

private:
    static constexpr std::string_view EARLIER = "earlier";

    void clear() {
        records_.clear();
        records_.append(EARLIER);
        text_.clear();
        text_.append(EARLIER);
    }

    Outcome outcome(bool accepted) const {
        EXPECT_EQ(records_.view().substr(0, EARLIER.size()), EARLIER);
        EXPECT_EQ(text_.view().substr(0, EARLIER.size()), EARLIER);
        Outcome result;
        result.accepted = accepted;
        result.bytes = records_.view().substr(EARLIER.size());
        result.text = text_.view().substr(EARLIER.size());
        result.findings = findings_of(report_);
        if (!accepted) result.fault = codec.fault().column + ": " + codec.fault().reason;
        return result;
    }

    Header header_;
    Report report_;
    ByteBuffer records_;
    ByteBuffer text_;

public:
    RecordCodec codec{header_, report_};
};

// A record with its block_size set to its size.
std::string with_true_size(std::string record) {
    record.replace(0, 4, le_bytes(static_cast<std::uint32_t>(record.size() - 4)));
    return record;
}

// A record with encoded optional fields behind those that it has.
std::string with_aux(std::string const& record, std::string_view aux) {
    return with_true_size(record + std::string(aux));
}

std::string encoded(std::string_view line) { return encode_bam_record(line, references()); }

std::string default_record() { return encoded(SamLine().text()); }

// --- From a line: places of the fields ---------------------------------------

TEST(RecordCodec, EncodeLine_EveryColumn_StandsWhereTheFormatHasIt) {
    std::string const expected =
        "\x4F\0\0\0"        // block_size: 79
        "\1\0\0\0"          // refID: chr2
        "\x64\0\0\0"        // pos
        "\5\x3C"            // l_read_name, mapq
        "\x49\x12"          // bin of [100, 109): 4681
        "\5\0\x63\0"        // n_cigar_op, flag
        "\x0A\0\0\0"        // l_seq
        "\1\0\0\0"          // next_refID
        "\x2C\1\0\0"        // next_pos: 300
        "\x34\xFF\xFF\xFF"  // tlen: -204
        "read\0"            //
        "\x24\0\0\0"        // 2S
        "\x30\0\0\0"        // 3M
        "\x11\0\0\0"        // 1I
        "\x22\0\0\0"        // 2D
        "\x47\0\0\0"        // 4=
        "\x12\x48\xF5\xAC\x3E"
        "\0\1\2\3\4\5\6\7\x08\x5D"
        "NMi\3\0\0\0"s;
    std::string const line =
        "read\t99\tchr2\t101\t60\t2S3M1I2D4=\t=\t301\t-204\tACGTNRYKMB\t!\"#$%&'()~\tNM:i:3";
    Codec codec;
    Outcome const outcome = codec.encode(line);
    EXPECT_TRUE(outcome.accepted) << outcome.fault;
    EXPECT_EQ(hex_text(outcome.bytes), hex_text(expected));
    EXPECT_EQ(outcome.text, line + '\n');
    EXPECT_EQ(outcome.findings, "");
    EXPECT_EQ(codec.render(outcome.bytes), line);
}

TEST(RecordCodec, EncodeLine_NothingKnown_IsAllDefaults) {
    std::string const expected =
        "\x22\0\0\0"        // block_size: 34
        "\xFF\xFF\xFF\xFF"  // refID
        "\xFF\xFF\xFF\xFF"  // pos
        "\2\0"              // l_read_name, mapq
        "\x48\x12"          // bin of [-1, 0): 4680
        "\0\0\4\0"          // n_cigar_op, flag
        "\0\0\0\0"          // l_seq
        "\xFF\xFF\xFF\xFF"  // next_refID
        "\xFF\xFF\xFF\xFF"  // next_pos
        "\0\0\0\0"          // tlen
        "r\0"s;
    std::string const line = "r\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*";
    Codec codec;
    Outcome const outcome = codec.encode(line);
    EXPECT_TRUE(outcome.accepted) << outcome.fault;
    EXPECT_EQ(hex_text(outcome.bytes), hex_text(expected));
    EXPECT_EQ(outcome.text, line + '\n');
    EXPECT_EQ(outcome.findings, "");
    EXPECT_EQ(codec.render(outcome.bytes), line);
}

struct BinCase {
    char const* label;
    char const* pos;
    char const* cigar;
    std::uint16_t bin;
};
constexpr BinCase BIN_CASES[] = {
    {"no position", "0", "*", 4680},
    {"no CIGAR, last base of a window", "16384", "*", 4681},
    {"no CIGAR, first base of a window", "16385", "*", 4682},
    {"only a clip, first base of a window", "16385", "4S", 4682},
    {"up to the end of a window", "16381", "4M", 4681},
    {"one base beyond", "16382", "4M", 585},
    {"deletion across 2^17", "131070", "2M1D2M", 73},
    {"skip across 2^20", "1000000", "2M1000000N2M", 9},
    {"skip across 2^23", "8000000", "2M1000000N2M", 1},
    {"skip across 2^26", "60000000", "2M10000000N2M", 0},
    {"insertion reaches nothing", "16383", "2M2I", 4681},
};

TEST(RecordCodec, EncodeLine_Region_GivesSmallestBinAroundIt) {
    for (BinCase const& c : BIN_CASES) {
        SCOPED_TRACE(c.label);
        Codec codec;
        Outcome const outcome = codec.encode(SamLine()
                                                 .with(test::RNAME, "chr2")
                                                 .with(test::POS, c.pos)
                                                 .with(test::CIGAR, c.cigar)
                                                 .text());
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(RecordView(outcome.bytes.data()).bin(), c.bin);
        // A record with another bin gets the right one, and nothing else.
        std::string record = outcome.bytes;
        record[14] = '\x55';
        record[15] = '\x55';
        Outcome const checked = codec.check(record);
        ASSERT_TRUE(checked.accepted) << checked.fault;
        EXPECT_EQ(hex_text(checked.bytes), hex_text(outcome.bytes));
    }
}

TEST(RecordCodec, EncodeLine_Bases_AreFourBitsEach) {
    struct {
        char const* seq;
        std::string packed;
    } const cases[] = {
        {"=ACMGRSVTWYHKDBN", "\x01\x23\x45\x67\x89\xAB\xCD\xEF"s},
        {"N=ACMGRSVTWYHKDBN", "\xF0\x12\x34\x56\x78\x9A\xBC\xDE\xF0"s},
        {"A", "\x10"s},
        {"AC", "\x12"s},
        {"ACG", "\x12\x40"s},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.seq);
        Codec codec;
        std::string const line =
            SamLine().with(test::CIGAR, "*").with(test::SEQ, c.seq).with(test::QUAL, "*").text();
        Outcome const outcome = codec.encode(line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        std::size_t const l_seq = std::strlen(c.seq);
        EXPECT_EQ(hex_text(outcome.bytes.substr(39)),
                  hex_text(c.packed + std::string(l_seq, '\xFF')));
        EXPECT_EQ(codec.render(outcome.bytes), line);
        EXPECT_EQ(outcome.findings, "");
    }
}

TEST(RecordCodec, EncodeLine_NumbersAtTheirLimits_AreTaken) {
    SamLine const lines[] = {
        SamLine().with(test::FLAG, "0"),
        SamLine().with(test::FLAG, "65535"),
        SamLine().with(test::POS, "0"),
        SamLine().with(test::RNAME, "chr2").with(test::POS, "2147483644"),
        SamLine().with(test::RNAME, "chr2").with(test::POS, "2147483647").with(test::CIGAR, "*"),
        SamLine().with(test::MAPQ, "0"),
        SamLine().with(test::MAPQ, "255"),
        SamLine().with(test::RNEXT, "chr2").with(test::PNEXT, "0"),
        SamLine().with(test::RNEXT, "chr2").with(test::PNEXT, "2147483647"),
        SamLine().with(test::TLEN, "-2147483647"),
        SamLine().with(test::TLEN, "2147483647"),
        SamLine().with(test::QNAME, "q"),
        SamLine().with(test::QNAME, std::string(254, 'q')),
        SamLine().with(test::CIGAR, "4M268435455N"),
        SamLine().with(test::CIGAR, "0M4M0I"),
    };
    for (SamLine const& line : lines) {
        SCOPED_TRACE(line.text());
        Codec codec;
        Outcome const outcome = codec.encode(line.text());
        EXPECT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(encoded(line.text())));
        EXPECT_EQ(outcome.text, line.text() + '\n');
        EXPECT_EQ(codec.render(outcome.bytes), line.text());
    }
}

TEST(RecordCodec, EncodeLine_NumbersWithSignOrZeros_HaveTheirValueAndText) {
    Codec codec;
    std::string const line = SamLine()
                                 .with(test::FLAG, "+0016")
                                 .with(test::POS, "00000000000000000000101")
                                 .with(test::TLEN, "-0")
                                 .field("XX:i:+5")
                                 .field("XY:i:-007")
                                 .field("XZ:B:c,+1,-02")
                                 .field("XF:f:+1.50")
                                 .text();
    std::string const plain = SamLine()
                                  .with(test::FLAG, "16")
                                  .field("XX:i:5")
                                  .field("XY:i:-7")
                                  .field("XZ:B:c,1,-2")
                                  .field("XF:f:1.5")
                                  .text();
    Outcome const outcome = codec.encode(line);
    EXPECT_TRUE(outcome.accepted) << outcome.fault;
    EXPECT_EQ(hex_text(outcome.bytes), hex_text(encoded(plain)));
    EXPECT_EQ(outcome.text, line + '\n');
    EXPECT_EQ(outcome.findings, "");
    EXPECT_EQ(codec.render(outcome.bytes), plain);
}

// --- From a line: optional fields --------------------------------------------

struct FieldCase {
    char const* text;
    std::string bytes;
};

std::vector<FieldCase> field_cases() {
    return {
        {"XX:A:!", "XXA!"s},
        {"XX:A:~", "XXA~"s},
        {"x0:i:0", "x0i\0\0\0\0"s},
        {"XX:i:2147483647", "XXi\xFF\xFF\xFF\x7F"s},
        {"XX:i:-2147483648", "XXi\0\0\0\x80"s},
        {"XX:i:-1", "XXi\xFF\xFF\xFF\xFF"s},
        {"XX:f:0.1", "XXf\xCD\xCC\xCC\x3D"s},
        {"XX:f:2", "XXf\0\0\0\x40"s},
        {"XX:f:-0", "XXf\0\0\0\x80"s},
        {"XX:f:1e-07", "XXf\x95\xBF\xD6\x33"s},
        {"XX:f:3.4028235e+38", "XXf\xFF\xFF\x7F\x7F"s},
        {"XX:f:1.1754944e-38", "XXf\0\0\x80\0"s},  // the least normal float
        {"XX:f:inf", "XXf\0\0\x80\x7F"s},
        {"XX:f:-inf", "XXf\0\0\x80\xFF"s},
        {"XX:f:nan", "XXf\0\0\xC0\x7F"s},
        {"XX:Z:", "XXZ\0"s},
        {"XX:Z:a: b~", "XXZa: b~\0"s},
        {"XX:H:", "XXH\0"s},
        {"XX:H:09afAF", "XXH09afAF\0"s},
        {"XX:B:c", "XXBc\0\0\0\0"s},
        {"XX:B:c,-128,-1,0,127", "XXBc\4\0\0\0\x80\xFF\0\x7F"s},
        {"XX:B:C,0,1,255", "XXBC\3\0\0\0\0\1\xFF"s},
        {"XX:B:s,-32768,-1,32767", "XXBs\3\0\0\0\0\x80\xFF\xFF\xFF\x7F"s},
        {"XX:B:S,0,65535", "XXBS\2\0\0\0\0\0\xFF\xFF"s},
        {"XX:B:i,-2147483648,2147483647", "XXBi\2\0\0\0\0\0\0\x80\xFF\xFF\xFF\x7F"s},
        {"XX:B:I,0,2147483647", "XXBI\2\0\0\0\0\0\0\0\xFF\xFF\xFF\x7F"s},
        {"XX:B:f,0.5,-2,inf", "XXBf\3\0\0\0\0\0\0\x3F\0\0\0\xC0\0\0\x80\x7F"s},
        {"XX:B:f", "XXBf\0\0\0\0"s},
        {"XX:B:I", "XXBI\0\0\0\0"s},
    };
}

TEST(RecordCodec, EncodeLine_OptionalField_HasItsBytesAndComesBack) {
    for (FieldCase const& c : field_cases()) {
        SCOPED_TRACE(c.text);
        std::string const line = SamLine().field(c.text).text();
        Codec codec;
        Outcome const outcome = codec.encode(line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(with_aux(default_record(), c.bytes)));
        EXPECT_EQ(outcome.text, line + '\n');
        EXPECT_EQ(outcome.findings, "");
        EXPECT_EQ(codec.render(outcome.bytes), line);
    }
}

TEST(RecordCodec, EncodeLine_ManyFields_KeepTheirOrder) {
    SamLine line;
    std::string aux;
    for (FieldCase const& c : field_cases()) {
        line.field(c.text);
        aux += c.bytes;
    }
    Codec codec;
    Outcome const outcome = codec.encode(line.text());
    EXPECT_TRUE(outcome.accepted) << outcome.fault;
    EXPECT_EQ(hex_text(outcome.bytes), hex_text(with_aux(default_record(), aux)));
    EXPECT_EQ(codec.render(outcome.bytes), line.text());
}

// The most bytes that text can become, at the very end of a buffer.
TEST(RecordCodec, EncodeLine_ShortestTexts_FitTheRoom) {
    constexpr std::uint32_t N = 100000;
    for (char const type : {'i', 'I', 'f'}) {
        SCOPED_TRACE(type);
        std::string const line = SamLine().field("XX:B:"s + type + repeated(",0", N)).text();
        std::string const aux =
            bam_aux("XX", 'B', type + le_bytes(N) + std::string(std::size_t{4} * N, '\0'));
        Codec codec;
        Outcome const outcome = codec.encode(line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_TRUE(outcome.bytes == with_aux(default_record(), aux));
        EXPECT_EQ(outcome.findings, "");
    }
    SamLine line;
    line.with(test::CIGAR, repeated("0M", N)).with(test::SEQ, "*").with(test::QUAL, "*");
    Codec codec;
    Outcome const outcome = codec.encode(line.text());
    ASSERT_TRUE(outcome.accepted) << outcome.fault;
    std::string const field = "CGBI" + le_bytes(N) + std::string(std::size_t{4} * N, '\0');
    // 0S, 0N
    EXPECT_TRUE(outcome.bytes.substr(39) == "\4\0\0\0\3\0\0\0"s + field);
    EXPECT_TRUE(codec.render(outcome.bytes) == line.text());
}

// Text that means a number without being the text it is rendered with.
TEST(RecordCodec, EncodeLine_FloatSpelling_GivesNearestFloat) {
    struct {
        char const* text;
        std::uint32_t bits;
    } const cases[] = {
        {"1", 0x3F800000},      {"+1", 0x3F800000},
        {"1.", 0x3F800000},     {".5", 0x3F000000},
        {"5e-1", 0x3F000000},   {"5E-1", 0x3F000000},
        {"-.5e+0", 0xBF000000}, {"16777217", 0x4B800000},  // a tie: to even
        {"INF", 0x7F800000},    {"-Infinity", 0xFF800000},
        {"NaN", 0x7FC00000},    {"3.40282356e38", 0x7F7FFFFF},  // rounds down to the largest
        {"0e-999", 0x00000000}, {"0.0000", 0x00000000},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.text);
        Codec codec;
        std::string const line = SamLine().field("XX:f:"s + c.text).text();
        Outcome const outcome = codec.encode(line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes),
                  hex_text(with_aux(default_record(), bam_aux("XX", 'f', le_bytes(c.bits)))));
        EXPECT_EQ(outcome.text, line + '\n');
        EXPECT_EQ(outcome.findings, "");
    }
}

// --- From a line: repairs ----------------------------------------------------

struct RepairCase {
    char const* label;
    std::string line;
    std::string repaired;  // text
    std::string bytes;
    char const* findings;  // in line 7
};

std::vector<RepairCase> repair_cases() {
    std::string const plain = SamLine().text();
    std::string const record = default_record();
    auto const field = [&](char const* label, std::string const& text, std::string const& repaired,
                           std::string const& aux, char const* findings) {
        return RepairCase{label, plain + '\t' + text, plain + '\t' + repaired,
                          with_aux(record, aux), findings};
    };
    auto const bases = [&](char const* label, std::string_view seq, std::string_view repaired,
                           std::string_view stored, char const* findings) {
        return RepairCase{label, SamLine().with(test::SEQ, seq).text(),
                          SamLine().with(test::SEQ, repaired).text(),
                          encoded(SamLine().with(test::SEQ, stored).text()), findings};
    };
    return {
        {"CR", plain + '\r', plain, record, "carriage_return 1 line 7\n"},
        {"CR after an optional field", plain + "\tXX:Z:a\r", plain + "\tXX:Z:a",
         with_aux(record, "XXZa\0"s), "carriage_return 1 line 7\n"},
        {"one trailing tab", plain + '\t', plain, record, "trailing_tab 1 line 7\n"},
        {"trailing tabs", plain + "\t\t\t", plain, record, "trailing_tab 1 line 7\n"},
        {"tabs after an empty text", plain + "\tXX:Z:\t\t",
         plain + "\tXX:Z:", with_aux(record, "XXZ\0"s), "trailing_tab 1 line 7\n"},
        {"tab and CR", plain + "\t\r", plain, record,
         "carriage_return 1 line 7\ntrailing_tab 1 line 7\n"},
        bases("one lower-case base", "ACgT", "ACGT", "ACGT", "lower_case_base 1 line 7\n"),
        bases("all lower-case, last base", "acgt", "ACGT", "ACGT", "lower_case_base 1 line 7\n"),
        bases("lower-case codes for several bases", "nryk", "NRYK", "NRYK",
              "lower_case_base 1 line 7\n"),
        bases("dots", "A..T", "ANNT", "ANNT", "dot_base 1 line 7\n"),
        bases("uracil", "ACGU", "ACGU", "ACGT", "uracil_base 1 line 7\n"),
        bases("lower-case uracil", "uCGu", "UCGU", "TCGT",
              "lower_case_base 1 line 7\nuracil_base 1 line 7\n"),
        bases("all at once", "a.Ut", "ANUT", "ANTT",
              "lower_case_base 1 line 7\ndot_base 1 line 7\nuracil_base 1 line 7\n"),
        field("blank for a tab", "XX:i:1 XY:i:2", "XX:i:1\tXY:i:2", "XXi\1\0\0\0XYi\2\0\0\0"s,
              "blank_for_tab 1 line 7\n"),
        field("blanks for tabs, and those of a text", "XX:H:AB XY:B:c,1 XZ:f:1 XA:Z:a XB:i:1",
              "XX:H:AB\tXY:B:c,1\tXZ:f:1\tXA:Z:a XB:i:1",
              "XXHAB\0XYBc\1\0\0\0\1XZf\0\0\x80\x3FXAZa XB:i:1\0"s, "blank_for_tab 3 line 7\n"),
        field("blank for a tab, other repairs", "XX:c:1 XY:S:2\tXZ:i:3", "XX:i:1\tXY:i:2\tXZ:i:3",
              "XXi\1\0\0\0XYi\2\0\0\0XZi\3\0\0\0"s,
              "blank_for_tab 1 line 7\ninteger_type_letter 2 line 7\n"),
        field("blank before an empty text", "XX:i:1 XY:Z:", "XX:i:1\tXY:Z:", "XXi\1\0\0\0XYZ\0"s,
              "blank_for_tab 1 line 7\n"),
        field("least wide integer", "XX:i:2147483648", "XX:i:2147483648", "XXI\0\0\0\x80"s,
              "wide_integer 1 line 7\n"),
        field("largest integer", "XX:i:4294967295", "XX:i:4294967295", "XXI\xFF\xFF\xFF\xFF"s,
              "wide_integer 1 line 7\n"),
        field("two wide integers", "XX:i:4294967295\tXY:i:+2147483648",
              "XX:i:4294967295\tXY:i:+2147483648", "XXI\xFF\xFF\xFF\xFFXYI\0\0\0\x80"s,
              "wide_integer 2 line 7\n"),
        field("c", "XX:c:-128", "XX:i:-128", "XXi\x80\xFF\xFF\xFF"s,
              "integer_type_letter 1 line 7\n"),
        field("C", "XX:C:255", "XX:i:255", "XXi\xFF\0\0\0"s, "integer_type_letter 1 line 7\n"),
        field("s", "XX:s:-32768", "XX:i:-32768", "XXi\0\x80\xFF\xFF"s,
              "integer_type_letter 1 line 7\n"),
        field("S", "XX:S:65535", "XX:i:65535", "XXi\xFF\xFF\0\0"s,
              "integer_type_letter 1 line 7\n"),
        field("I", "XX:I:7", "XX:i:7", "XXi\7\0\0\0"s, "integer_type_letter 1 line 7\n"),
        field("wide I", "XX:I:4294967295", "XX:i:4294967295", "XXI\xFF\xFF\xFF\xFF"s,
              "wide_integer 1 line 7\ninteger_type_letter 1 line 7\n"),
        field("wide array element", "XX:B:I,2147483648,4294967295,0",
              "XX:B:I,2147483648,4294967295,0", "XXBI\3\0\0\0\0\0\0\x80\xFF\xFF\xFF\xFF\0\0\0\0"s,
              "wide_array_element 1 line 7\n"),
        field("underflow to 0", "XX:f:1e-60", "XX:f:1e-60", "XXf\0\0\0\0"s,
              "float_underflow 1 line 7\n"),
        field("negative underflow", "XX:f:-1e-400", "XX:f:-1e-400", "XXf\0\0\0\x80"s,
              "float_underflow 1 line 7\n"),
        field("least subnormal", "XX:f:1e-45", "XX:f:1e-45", "XXf\1\0\0\0"s,
              "float_underflow 1 line 7\n"),
        field("largest subnormal", "XX:f:1.1754942e-38", "XX:f:1.1754942e-38", "XXf\xFF\xFF\x7F\0"s,
              "float_underflow 1 line 7\n"),
        field("underflow with a sign before it", "XX:f:+1e-45", "XX:f:+1e-45", "XXf\1\0\0\0"s,
              "float_underflow 1 line 7\n"),
        field("underflow in an array", "XX:B:f,1,1e-45,2,1e-60", "XX:B:f,1,1e-45,2,1e-60",
              "XXBf\4\0\0\0\0\0\x80\x3F\1\0\0\0\0\0\0\x40\0\0\0\0"s, "float_underflow 2 line 7\n"),
    };
}

TEST(RecordCodec, EncodeLine_RepairableLine_IsRepairedAndCounted) {
    for (RepairCase const& c : repair_cases()) {
        SCOPED_TRACE(c.label);
        Codec codec;
        Outcome const outcome = codec.encode(c.line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(c.bytes));
        EXPECT_EQ(outcome.text, c.repaired + '\n');
        EXPECT_EQ(outcome.findings, c.findings);
    }
}

TEST(RecordCodec, EncodeLine_TextNotAskedFor_GivesTheSameBytesAndFindings) {
    for (RepairCase const& c : repair_cases()) {
        SCOPED_TRACE(c.label);
        Codec codec;
        Outcome const outcome = codec.encode_without_text(c.line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(c.bytes));
        EXPECT_EQ(outcome.text, "");
        EXPECT_EQ(outcome.findings, c.findings);
    }
}

// What is repaired in a SAM file is repaired once and for all.
TEST(RecordCodec, EncodeLine_RepairedText_GivesTheSameRecordAgain) {
    for (RepairCase const& c : repair_cases()) {
        SCOPED_TRACE(c.label);
        Codec codec;
        Outcome const outcome = codec.encode(c.repaired);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(c.bytes));
        EXPECT_EQ(outcome.text, c.repaired + '\n');
    }
}

TEST(RecordCodec, EncodeLine_RepairsInSeveralLines_CountAllAndNameTheFirst) {
    Codec codec;
    std::string const plain = SamLine().text();
    EXPECT_TRUE(codec.encode(plain, 3).accepted);
    EXPECT_TRUE(codec.encode(SamLine().with(test::SEQ, "acgt").text(), 4).accepted);
    EXPECT_TRUE(codec.encode(plain + "\r", 5).accepted);
    EXPECT_TRUE(codec.encode(SamLine().with(test::SEQ, "AAAa").text(), 6).accepted);
    EXPECT_EQ(codec.findings(), "carriage_return 1 line 5\nlower_case_base 2 line 4\n");
}

// --- From a line: errors -----------------------------------------------------

struct ErrorCase {
    char const* label;
    std::string line;
    std::string fault;
};

ErrorCase column_error(char const* label, test::SamColumn column, std::string_view text,
                       std::string fault) {
    // With an optional field behind them, no column is the last one of the line.
    return {label, SamLine().with(column, text).field("NM:i:0").text(), std::move(fault)};
}

std::vector<ErrorCase> number_errors() {
    using namespace test;
    return {
        column_error("FLAG below", FLAG, "-1", "FLAG: -1 is not in the range of 0 to 65535"),
        column_error("FLAG above", FLAG, "65536", "FLAG: 65536 is not in the range of 0 to 65535"),
        column_error("FLAG no number", FLAG, "0x4", "FLAG: '0x4' is no integer"),
        column_error("FLAG empty", FLAG, "", "FLAG: '' is no integer"),
        column_error("FLAG sign", FLAG, "-", "FLAG: '-' is no integer"),
        column_error("FLAG signs", FLAG, "+-4", "FLAG: '+-4' is no integer"),
        column_error("FLAG blank", FLAG, " 4", "FLAG: ' 4' is no integer"),
        column_error("POS below", POS, "-1", "POS: -1 is not in the range of 0 to 2147483647"),
        column_error("POS above", POS, "2147483648",
                     "POS: 2147483648 is not in the range of 0 to 2147483647"),
        column_error("POS wraps in 64 bits", POS, "18446744073709551617",
                     "POS: 18446744073709551617 is not in the range of 0 to 2147483647"),
        column_error("POS empty", POS, "", "POS: '' is no integer"),
        column_error("MAPQ below", MAPQ, "-1", "MAPQ: -1 is not in the range of 0 to 255"),
        column_error("MAPQ above", MAPQ, "256", "MAPQ: 256 is not in the range of 0 to 255"),
        column_error("MAPQ empty", MAPQ, "", "MAPQ: '' is no integer"),
        column_error("PNEXT below", PNEXT, "-1",
                     "PNEXT: -1 is not in the range of 0 to 2147483647"),
        column_error("PNEXT above", PNEXT, "2147483648",
                     "PNEXT: 2147483648 is not in the range of 0 to 2147483647"),
        column_error("PNEXT empty", PNEXT, "", "PNEXT: '' is no integer"),
        column_error("TLEN below", TLEN, "-2147483648",
                     "TLEN: -2147483648 is not in the range of -2147483647 to 2147483647"),
        column_error("TLEN above", TLEN, "2147483648",
                     "TLEN: 2147483648 is not in the range of -2147483647 to 2147483647"),
        column_error("TLEN a fraction", TLEN, "1.5", "TLEN: '1.5' is no integer"),
        column_error("TLEN empty", TLEN, "", "TLEN: '' is no integer"),
    };
}

std::vector<ErrorCase> text_column_errors() {
    using namespace test;
    std::string const long_name(255, 'q');
    return {
        column_error("name too long", QNAME, long_name,
                     "QNAME: has 255 characters, at most 254 are possible"),
        column_error("name empty", QNAME, "", "QNAME: is empty"),
        column_error("name like a header line", QNAME, "@r",
                     "QNAME: begins with '@', as header lines do"),
        column_error("name with a blank", QNAME, "a b", "QNAME: holds ' '"),
        column_error("name with NUL", QNAME, "a\0b"s, "QNAME: holds byte 0x00"),
        column_error("name with DEL", QNAME, "a\x7F", "QNAME: holds byte 0x7F"),
        column_error("RNAME empty", RNAME, "", "RNAME: is empty"),
        column_error("RNEXT empty", RNEXT, "", "RNEXT: is empty"),
        column_error("CIGAR empty", CIGAR, "", "CIGAR: is empty"),
        column_error("CIGAR unknown operation", CIGAR, "2M2Q", "CIGAR: 'Q' is no operation"),
        column_error("CIGAR lower case", CIGAR, "4m", "CIGAR: 'm' is no operation"),
        column_error("CIGAR negative", CIGAR, "-4M", "CIGAR: '-' is no operation"),
        column_error("CIGAR star and more", CIGAR, "*4M", "CIGAR: '*' is no operation"),
        column_error("CIGAR no operation letter", CIGAR, "4\x01",
                     "CIGAR: byte 0x01 is no operation"),
        column_error("CIGAR without length", CIGAR, "M", "CIGAR: operation 'M' has no length"),
        column_error("CIGAR without a later length", CIGAR, "2MD2M",
                     "CIGAR: operation 'D' has no length"),
        column_error("CIGAR only a length", CIGAR, "4",
                     "CIGAR: ends in a length without an operation"),
        column_error("CIGAR length at its end", CIGAR, "4M1",
                     "CIGAR: ends in a length without an operation"),
        column_error("CIGAR length above", CIGAR, "4M268435456N",
                     "CIGAR: length 268435456 of operation 'N' is above 268435455"),
        column_error("CIGAR length wraps in 64 bits", CIGAR, "18446744073709551620M",
                     "CIGAR: length 18446744073709551620 of operation 'M' is above 268435455"),
        column_error("CIGAR one base short", CIGAR, "3M", "CIGAR: covers 3 bases, SEQ has 4"),
        column_error("CIGAR one base long", CIGAR, "5M", "CIGAR: covers 5 bases, SEQ has 4"),
        column_error("CIGAR without read bases", CIGAR, "4D4N4H4P",
                     "CIGAR: covers 0 bases, SEQ has 4"),
        column_error("CIGAR every read base", CIGAR, "1M1I1S1=1X",
                     "CIGAR: covers 5 bases, SEQ has 4"),
        column_error("SEQ empty", SEQ, "", "SEQ: is empty"),
        column_error("SEQ first base", SEQ, "JCGT", "SEQ: 'J' at place 1 is no base"),
        column_error("SEQ last of an even number", SEQ, "ACGZ", "SEQ: 'Z' at place 4 is no base"),
        column_error("SEQ lower case unknown", SEQ, "ACzT", "SEQ: 'z' at place 3 is no base"),
        column_error("SEQ star inside", SEQ, "A*GT", "SEQ: '*' at place 2 is no base"),
        column_error("SEQ high byte", SEQ, "AC\x81T", "SEQ: byte 0x81 at place 3 is no base"),
        column_error("SEQ NUL", SEQ, "ACG\0"s, "SEQ: byte 0x00 at place 4 is no base"),
        column_error("SEQ blank", SEQ, "AC T", "SEQ: ' ' at place 3 is no base"),
        {"SEQ last of an odd number",
         SamLine().with(CIGAR, "5M").with(SEQ, "ACGTE").with(QUAL, "IIIII").text(),
         "SEQ: 'E' at place 5 is no base"},
        {"SEQ only base", SamLine().with(CIGAR, "*").with(SEQ, "!").with(QUAL, "I").text(),
         "SEQ: '!' at place 1 is no base"},
        column_error("QUAL empty", QUAL, "", "QUAL: is empty"),
        column_error("QUAL short", QUAL, "III", "QUAL: 3 qualities for 4 bases"),
        column_error("QUAL long", QUAL, "IIIII", "QUAL: 5 qualities for 4 bases"),
        column_error("QUAL blank", QUAL, "I II", "QUAL: ' ' at place 2 is no quality"),
        column_error("QUAL DEL", QUAL, "III\x7F", "QUAL: byte 0x7F at place 4 is no quality"),
        column_error("QUAL high byte", QUAL, "\xFFIII", "QUAL: byte 0xFF at place 1 is no quality"),
        {"QUAL without SEQ", SamLine().with(SEQ, "*").text(), "QUAL: 4 qualities for 0 bases"},
    };
}

std::vector<ErrorCase> field_errors() {
    struct {
        char const* label;
        std::string field;
        std::string fault;
    } const cases[] = {
        {"empty field", "\tXX:i:1", ": '' is no optional field (TAG:TYPE:VALUE)"},
        {"only a tag", "XX", ": 'XX' is no optional field (TAG:TYPE:VALUE)"},
        {"no value", "XX:i", ": 'XX:i' is no optional field (TAG:TYPE:VALUE)"},
        {"short tag", "X:i:5", ": 'X:i:5' is no optional field (TAG:TYPE:VALUE)"},
        {"long tag", "XXX:i:5", ": 'XXX:i:5' is no optional field (TAG:TYPE:VALUE)"},
        {"tag begins with a digit", "1X:i:5", ": '1X:i:5' is no optional field (TAG:TYPE:VALUE)"},
        {"tag ends otherwise", "X_:i:5", ": 'X_:i:5' is no optional field (TAG:TYPE:VALUE)"},
        {"long type", "XX:ii:5", ": 'XX:ii:5' is no optional field (TAG:TYPE:VALUE)"},
        {"no colon after the tag", "XX.i:5", ": 'XX.i:5' is no optional field (TAG:TYPE:VALUE)"},
        {"40 bytes are shown", "not a field but a text that is far too long",
         ": 'not a field but a text that is far too l' is no optional field (TAG:TYPE:VALUE)"},
        {"unknown type", "XX:q:1", "XX: 'q' is no type of an optional field"},
        {"type d", "XX:d:1.5", "XX: 'd' is no type of an optional field"},
        {"A empty", "XX:A:\tXY:i:1", "XX: type A needs one printable character"},
        {"A of two", "XX:A:ab", "XX: type A needs one printable character"},
        {"A blank", "XX:A: ", "XX: type A needs one printable character"},
        {"A DEL", "XX:A:\x7F", "XX: type A needs one printable character"},
        {"A high byte", "XX:A:\x80", "XX: type A needs one printable character"},
        {"i empty", "XX:i:", "XX: '' is no integer"},
        {"i letters", "XX:i:abc", "XX: 'abc' is no integer"},
        {"i and more", "XX:i:5x", "XX: '5x' is no integer"},
        {"i fraction", "XX:i:1.5", "XX: '1.5' is no integer"},
        {"i sign", "XX:i:-", "XX: '-' is no integer"},
        {"i below", "XX:i:-2147483649",
         "XX: -2147483649 is not in the range of -2147483648 to 4294967295"},
        {"i above", "XX:i:4294967296",
         "XX: 4294967296 is not in the range of -2147483648 to 4294967295"},
        {"i far below", "XX:i:-99999999999999999999",
         "XX: -99999999999999999999 is not in the range of -2147483648 to 4294967295"},
        {"c of no number", "XX:c:x", "XX: 'x' is no integer"},
        {"i of two", "XX:i:1 2", "XX: '1 2' is no integer"},
        {"i and a blank", "XX:i:1 ", "XX: '1 ' is no integer"},
        {"i and two blanks", "XX:i:1  XY:i:2", "XX: '1  XY:i:2' is no integer"},
        {"i and a field without value", "XX:i:1 XY:i:", "XY: '' is no integer"},
        {"i, blank, i of a letter", "XX:i:1 XY:i:x", "XY: 'x' is no integer"},
        {"A, blank and a field", "XX:A:x XY:i:1", "XX: type A needs one printable character"},
        {"f empty", "XX:f:", "XX: '' is no number"},
        {"f sign", "XX:f:+", "XX: '+' is no number"},
        {"f letters", "XX:f:abc", "XX: 'abc' is no number"},
        {"f and more", "XX:f:1.5x", "XX: '1.5x' is no number"},
        {"f comma", "XX:f:1,5", "XX: '1,5' is no number"},
        {"f blank", "XX:f: 1", "XX: ' 1' is no number"},
        {"f two signs", "XX:f:+-1", "XX: '+-1' is no number"},
        {"f the same sign twice", "XX:f:++1", "XX: '++1' is no number"},
        {"f hexadecimal", "XX:f:0x1p3", "XX: '0x1p3' is no number"},
        {"f too large", "XX:f:1e39", "XX: 1e39 is too large for a float"},
        {"f too small", "XX:f:-3.4028236e38", "XX: -3.4028236e38 is too large for a float"},
        {"f far too large", "XX:f:1e999", "XX: 1e999 is too large for a float"},
        {"Z with NUL", "XX:Z:a\0b"s, "XX: holds byte 0x00"},
        {"Z with CR inside", "XX:Z:a\rb", "XX: holds byte 0x0D"},
        {"H odd", "XX:H:A", "XX: has an odd number of hex digits"},
        {"H no digit", "XX:H:AG", "XX: holds something else than hex digits"},
        {"B empty", "XX:B:", "XX: the type of its elements is none of c, C, s, S, i, I and f"},
        {"B unknown type", "XX:B:Z,a",
         "XX: the type of its elements is none of c, C, s, S, i, I and f"},
        {"B no type", "XX:B:1,2", "XX: the type of its elements is none of c, C, s, S, i, I and f"},
        {"B no comma", "XX:B:c1", "XX: a comma must follow the element type"},
        {"B two types", "XX:B:cC,1", "XX: a comma must follow the element type"},
        {"B empty element", "XX:B:c,", "XX: '' is no integer"},
        {"B empty element inside", "XX:B:c,1,,2", "XX: '' is no integer"},
        {"B empty last element", "XX:B:i,1,", "XX: '' is no integer"},
        {"B letters", "XX:B:c,1,ab,2", "XX: 'ab' is no integer"},
        {"B fraction", "XX:B:i,1.5,2", "XX: '1.5' is no integer"},
        {"B sign", "XX:B:i,-,2", "XX: '-' is no integer"},
        {"c below", "XX:B:c,-129", "XX: -129 is not in the range of -128 to 127"},
        {"c above", "XX:B:c,0,128", "XX: 128 is not in the range of -128 to 127"},
        {"C below", "XX:B:C,-1", "XX: -1 is not in the range of 0 to 255"},
        {"C above", "XX:B:C,256", "XX: 256 is not in the range of 0 to 255"},
        {"s below", "XX:B:s,-32769", "XX: -32769 is not in the range of -32768 to 32767"},
        {"s above", "XX:B:s,32768", "XX: 32768 is not in the range of -32768 to 32767"},
        {"S below", "XX:B:S,-1", "XX: -1 is not in the range of 0 to 65535"},
        {"S above", "XX:B:S,65536", "XX: 65536 is not in the range of 0 to 65535"},
        {"i element below", "XX:B:i,-2147483649",
         "XX: -2147483649 is not in the range of -2147483648 to 2147483647"},
        {"i element above", "XX:B:i,2147483648",
         "XX: 2147483648 is not in the range of -2147483648 to 2147483647"},
        {"I below", "XX:B:I,-1", "XX: -1 is not in the range of 0 to 4294967295"},
        {"I above", "XX:B:I,4294967296", "XX: 4294967296 is not in the range of 0 to 4294967295"},
        {"I far above", "XX:B:I,18446744073709551616",
         "XX: 18446744073709551616 is not in the range of 0 to 4294967295"},
        {"B f empty element", "XX:B:f,", "XX: '' is no number"},
        {"B f empty last element", "XX:B:f,1,", "XX: '' is no number"},
        {"B f letters", "XX:B:f,1,x", "XX: 'x' is no number"},
        {"B f too large", "XX:B:f,1e39,1", "XX: 1e39 is too large for a float"},
        {"second field", "XY:i:1\tXX:i:", "XX: '' is no integer"},
    };
    std::vector<ErrorCase> errors;
    for (auto const& c : cases) {
        errors.push_back({c.label, SamLine().field(c.field).text(), c.fault});
    }
    return errors;
}

std::vector<ErrorCase> missing_column_errors() {
    std::vector<ErrorCase> errors = {
        {"nothing", "", ": 11 columns are needed, 1 is there"},
        {"only tabs", "\t\t\t", ": 11 columns are needed, 1 is there"},
        {"only CR", "\r", ": 11 columns are needed, 1 is there"},
        {"QUAL empty at the end", SamLine().with(test::QUAL, "").text(),
         ": 11 columns are needed, 10 are there"},
        {"blanks for tabs", "r1 0 chr1 101 60 4M * 0 0 ACGT IIII",
         ": 11 columns are needed, 1 is there"},
    };
    std::string line = SamLine().text();
    for (int n = 10; n >= 1; --n) {
        line.resize(line.rfind('\t'));
        errors.push_back({"columns missing", line,
                          ": 11 columns are needed, " + std::to_string(n) +
                              (n == 1 ? " is there" : " are there")});
    }
    return errors;
}

std::vector<ErrorCase> all_line_errors() {
    std::vector<ErrorCase> all;
    for (auto const& cases :
         {missing_column_errors(), number_errors(), text_column_errors(), field_errors()}) {
        all.insert(all.end(), cases.begin(), cases.end());
    }
    return all;
}

TEST(RecordCodec, EncodeLine_InvalidLine_IsRefusedWithColumnAndReason) {
    for (ErrorCase const& c : all_line_errors()) {
        SCOPED_TRACE(c.label);
        Codec codec;
        Outcome const outcome = codec.encode(c.line);
        EXPECT_FALSE(outcome.accepted);
        EXPECT_EQ(outcome.fault, c.fault);
        EXPECT_EQ(outcome.bytes, "");
        EXPECT_EQ(outcome.text, "");
        EXPECT_EQ(outcome.findings, "");
    }
}

TEST(RecordCodec, EncodeLine_TextNotAskedFor_RefusesTheSameLines) {
    Codec codec;
    for (ErrorCase const& c : all_line_errors()) {
        SCOPED_TRACE(c.label);
        Outcome const outcome = codec.encode_without_text(c.line);
        EXPECT_FALSE(outcome.accepted);
        EXPECT_EQ(outcome.fault, c.fault);
        EXPECT_EQ(outcome.bytes, "");
        EXPECT_EQ(outcome.findings, "");
    }
}

TEST(RecordCodec, EncodeLine_LineOfNoMemory_LacksItsColumns) {
    Codec codec;
    Outcome const outcome = codec.encode(std::string_view());
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.fault, ": 11 columns are needed, 1 is there");
}

// What would have been repaired in a refused line belongs to no record.
TEST(RecordCodec, EncodeLine_LineAfterARefusedOne_ReportsOnlyItsOwnRepairs) {
    Codec codec;
    EXPECT_FALSE(codec
                     .encode(SamLine()
                                     .with(test::RNAME, "unknown")
                                     .with(test::SEQ, "a.Ug")
                                     .field("XX:c:1")
                                     .field("XX:i:4294967295")
                                     .field("XX:f:1e-60")
                                     .field("XX:H:A")
                                     .text() +
                                 "\t\r",
                             1)
                     .accepted);
    EXPECT_FALSE(codec.encode(std::string("x\t\r"), 2).accepted);
    EXPECT_FALSE(codec.check(default_record() + "XXs\1\0XX"s, 3).accepted);
    EXPECT_TRUE(codec.encode(SamLine().text(), 4).accepted);
    EXPECT_EQ(codec.findings(), "");
    EXPECT_TRUE(codec.encode(SamLine().with(test::SEQ, "ACGU").text(), 5).accepted);
    EXPECT_TRUE(codec.check(default_record(), 6).accepted);
    EXPECT_EQ(codec.findings(), "uracil_base 1 line 5\n");
}

// --- From a line: warnings ---------------------------------------------------

struct WarningCase {
    char const* label;
    std::string line;
    char const* findings;
    char const* rendered_rname;
    char const* rendered_rnext;
};

std::vector<WarningCase> warning_cases() {
    using namespace test;
    auto const at = [](std::string_view pos, std::string_view cigar) {
        return SamLine().with(POS, pos).with(CIGAR, cigar).text();
    };
    return {
        {"RNAME unknown", SamLine().with(RNAME, "chr3").text(), "unknown_reference 1 line 7\n", "*",
         "*"},
        {"RNAME a prefix", SamLine().with(RNAME, "chr").text(), "unknown_reference 1 line 7\n", "*",
         "*"},
        {"RNEXT unknown", SamLine().with(RNEXT, "chr3").text(), "unknown_reference 1 line 7\n",
         "chr1", "*"},
        {"both unknown", SamLine().with(RNAME, "chr3").with(RNEXT, "chr4").text(),
         "unknown_reference 1 line 7\n", "*", "*"},
        {"RNEXT as the unknown RNAME", SamLine().with(RNAME, "chr3").with(RNEXT, "=").text(),
         "unknown_reference 1 line 7\n", "*", "*"},
        {"RNAME unknown, RNEXT known", SamLine().with(RNAME, "chr3").with(RNEXT, "chr2").text(),
         "unknown_reference 1 line 7\n", "*", "chr2"},
        {"RNAME none, RNEXT as that", SamLine().with(RNAME, "*").with(RNEXT, "=").text(), "", "*",
         "*"},
        {"RNEXT by name", SamLine().with(RNEXT, "chr1").text(), "", "chr1", "="},
        {"RNEXT elsewhere", SamLine().with(RNEXT, "chr2").text(), "", "chr1", "chr2"},
        {"one base before the end", at("996", "4M"), "", "chr1", "*"},
        {"up to the end", at("997", "4M"), "", "chr1", "*"},
        {"one base beyond", at("998", "4M"), "beyond_reference_end 1 line 7\n", "chr1", "*"},
        {"no CIGAR at the end", at("1000", "*"), "", "chr1", "*"},
        {"no CIGAR beyond", at("1001", "*"), "beyond_reference_end 1 line 7\n", "chr1", "*"},
        {"clip beyond the end counts not", at("1000", "1M3S"), "", "chr1", "*"},
        {"skip beyond the end", at("500", "2M498N2M"), "beyond_reference_end 1 line 7\n", "chr1",
         "*"},
        {"skip up to the end", at("500", "2M497N2M"), "", "chr1", "*"},
        {"no position", at("0", "4M"), "", "chr1", "*"},
        {"no reference", SamLine().with(RNAME, "*").with(POS, "5000").text(), "", "*", "*"},
        {"unknown reference, far out", SamLine().with(RNAME, "chr3").with(POS, "5000").text(),
         "unknown_reference 1 line 7\n", "*", "*"},
        {"end beyond 2^31",
         SamLine().with(RNAME, "chr2").with(POS, "2147483647").with(CIGAR, "4M").text(),
         "beyond_reference_end 1 line 7\n", "chr2", "*"},
    };
}

TEST(RecordCodec, EncodeLine_DoubtfulLine_IsKeptAndCounted) {
    for (WarningCase const& c : warning_cases()) {
        SCOPED_TRACE(c.label);
        Codec codec;
        Outcome const outcome = codec.encode(c.line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(outcome.findings, c.findings);
        EXPECT_EQ(outcome.text, c.line + '\n');
        std::string const rendered = codec.render(outcome.bytes);
        std::vector<std::string_view> expected = split(c.line, '\t');
        expected[test::RNAME] = c.rendered_rname;
        expected[test::RNEXT] = c.rendered_rnext;
        EXPECT_EQ(split(rendered, '\t'), expected);
    }
}

TEST(RecordCodec, EncodeLine_OtherNameThanTheLineBefore_IsFoundAnew) {
    struct {
        char const* name;
        std::int32_t refID;
    } const cases[] = {{"chr1", 0}, {"chr", -1}, {"chr1", 0}, {"chr2", 1},  {"chr22", -1},
                       {"c", -1},   {"*", -1},   {"chr2", 1}, {"CHR2", -1}, {"chr1", 0}};
    Codec codec;
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        Outcome const outcome = codec.encode(SamLine().with(test::RNAME, c.name).text());
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(RecordView(outcome.bytes.data()).refID(), c.refID);
    }
    EXPECT_EQ(codec.findings(), "unknown_reference 4 line 7\n");
}

TEST(RecordCodec, CheckRecord_BeyondTheReferencesEnd_IsKeptAndCounted) {
    for (WarningCase const& c : warning_cases()) {
        SCOPED_TRACE(c.label);
        Codec from_line;
        std::string const record = from_line.encode(c.line).bytes;
        Codec codec;
        Outcome const outcome = codec.check(record);
        EXPECT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(record));
        bool const is_beyond = std::string_view(c.findings).find("beyond") != std::string::npos;
        EXPECT_EQ(outcome.findings, is_beyond ? "beyond_reference_end 1 record 7\n" : "");
    }
}

// --- Long CIGARs -------------------------------------------------------------

// A line of n operations, 2I and 2M in turn, over as many bases.
std::string line_of_operations(std::size_t n) {
    std::string cigar;
    for (std::size_t i = 0; i < n; ++i) cigar += i % 2 == 0 ? "2M" : "2I";
    return SamLine()
        .with(test::RNAME, "chr2")
        .with(test::CIGAR, cigar)
        .with(test::SEQ, repeated("AC", n))
        .with(test::QUAL, "*")
        .text();
}

// Packed, as in a record: 2M is 0x20, 2I is 0x21.
std::string packed_operations(std::size_t n) {
    std::string bytes = repeated("\x20\0\0\0\x21\0\0\0"s, (n + 1) / 2);
    bytes.resize(4 * n);
    return bytes;
}

TEST(RecordCodec, EncodeLine_MostOperationsInARecord_StandInIt) {
    Codec codec;
    std::string const line = line_of_operations(65535);
    Outcome const outcome = codec.encode(line);
    ASSERT_TRUE(outcome.accepted) << outcome.fault;
    RecordView const record(outcome.bytes.data());
    EXPECT_EQ(record.n_cigar_op(), 65535);
    EXPECT_TRUE(std::string_view(record.cigar(), 4 * 65535) == packed_operations(65535));
    EXPECT_EQ(record.aux(), record.end());
    EXPECT_TRUE(outcome.bytes == encoded(line));
    EXPECT_TRUE(codec.render(outcome.bytes) == line);
    EXPECT_EQ(outcome.findings, "");
}

TEST(RecordCodec, EncodeLine_OneOperationMore_StandsInAField) {
    Codec codec;
    std::string const line = line_of_operations(65536) + "\tXX:i:1";
    Outcome const outcome = codec.encode(line);
    ASSERT_TRUE(outcome.accepted) << outcome.fault;
    RecordView const record(outcome.bytes.data());
    EXPECT_EQ(record.n_cigar_op(), 2);
    EXPECT_EQ(record.l_seq(), 131072);
    EXPECT_EQ(record.bin(), 585);  // of [100, 65636)
    // 131072S, and 65536N, the bases of the reference.
    EXPECT_EQ(hex_text(std::string_view(record.cigar(), 8)), "04 00 20 00 03 00 10 00");
    std::string_view const aux(record.aux(), static_cast<std::size_t>(record.end() - record.aux()));
    std::string const expected = "XXi\1\0\0\0"s + "CGBI\0\0\1\0"s + packed_operations(65536);
    EXPECT_TRUE(aux == expected);
    EXPECT_TRUE(outcome.text == line + '\n');
    EXPECT_EQ(outcome.findings, "");
    EXPECT_TRUE(codec.render(outcome.bytes) == line);

    Outcome const checked = codec.check(outcome.bytes);
    EXPECT_TRUE(checked.accepted) << checked.fault;
    EXPECT_TRUE(checked.bytes == outcome.bytes);
}

TEST(RecordCodec, EncodeLine_LongCigarWithoutSeq_ComesBack) {
    Codec codec;
    std::string const line = SamLine()
                                 .with(test::RNAME, "chr2")
                                 .with(test::CIGAR, repeated("1M1D", 40000))
                                 .with(test::SEQ, "*")
                                 .with(test::QUAL, "*")
                                 .text();
    Outcome const outcome = codec.encode(line);
    ASSERT_TRUE(outcome.accepted) << outcome.fault;
    // 0S, 80000N
    EXPECT_EQ(hex_text(outcome.bytes.substr(39, 8)), "04 00 00 00 03 88 13 00");
    EXPECT_TRUE(codec.render(outcome.bytes) == line);
    Outcome const checked = codec.check(outcome.bytes);
    EXPECT_TRUE(checked.accepted) << checked.fault;
    EXPECT_TRUE(checked.bytes == outcome.bytes);
}

TEST(RecordCodec, EncodeLine_LongCigarBeyondItsPlaceholder_IsRefused) {
    auto const line_over = [](std::uint64_t n_bases) {
        return SamLine()
            .with(test::RNAME, "chr2")
            .with(test::CIGAR, repeated("1M", 65535) + std::to_string(n_bases - 65535) + "N")
            .with(test::SEQ, "*")
            .with(test::QUAL, "*")
            .text();
    };
    Codec codec;
    EXPECT_TRUE(codec.encode(line_over(268435454)).accepted);
    Outcome const at = codec.encode(line_over(268435455));
    EXPECT_TRUE(at.accepted) << at.fault;
    EXPECT_TRUE(codec.render(at.bytes) == line_over(268435455));
    Outcome const above = codec.encode(line_over(268435456));
    EXPECT_FALSE(above.accepted);
    EXPECT_EQ(above.fault,
              "CIGAR: has more than 65535 operations and covers more than 268435455 bases");
}

TEST(RecordCodec, EncodeLine_LongCigarBesideAFieldOfItsName_IsRefused) {
    Codec codec;
    Outcome const outcome = codec.encode(line_of_operations(65536) + "\tCG:B:I,1");
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.fault,
              "CG: is there, but the CIGAR has more than 65535 operations and needs it");
    EXPECT_EQ(outcome.bytes, "");
    EXPECT_EQ(outcome.text, "");
}

// A line as other programs write it that leave the CIGAR in its field. The true
// one here: 1S2M3D1M, that is 0x14, 0x20, 0x32, 0x10.
struct FieldCigarCase {
    char const* label;
    char const* cigar;
    char const* field;
    char const* rendered_cigar;  // null: refused
    char const* fault;
};
constexpr FieldCigarCase FIELD_CIGAR_CASES[] = {
    {"good", "4S6N", "CG:B:I,20,32,50,16", "1S2M3D1M", ""},
    {"one reference base less", "4S5N", "CG:B:I,20,32,50,16", nullptr,
     "CIGAR: covers 5 bases of the reference, its CG field 6"},
    {"one reference base more", "4S7N", "CG:B:I,20,32,50,16", nullptr,
     "CIGAR: covers 7 bases of the reference, its CG field 6"},
    {"one read base less", "4S6N", "CG:B:I,32,50,16", nullptr, "CIGAR: covers 3 bases, SEQ has 4"},
    {"one read base more", "4S6N", "CG:B:I,36,32,50,16", nullptr,
     "CIGAR: covers 5 bases, SEQ has 4"},
    {"no operation", "4S6N", "CG:B:I,20,32,50,25", nullptr, "CIGAR: 9 is no operation"},
    {"good, with the last operation code", "4S6N", "CG:B:I,20,32,50,24", "1S2M3D1X", ""},
    {"empty", "4S6N", "CG:B:I", nullptr, "CIGAR: covers 6 bases of the reference, its CG field 0"},
};

TEST(RecordCodec, EncodeLine_PlaceholderAndField_MustAgree) {
    for (FieldCigarCase const& c : FIELD_CIGAR_CASES) {
        SCOPED_TRACE(c.label);
        SamLine line;
        line.with(test::CIGAR, c.cigar).field("XX:i:1").field(c.field).field("XY:i:2");
        Codec codec;
        bool const is_good = c.rendered_cigar != nullptr;
        Outcome const outcome = codec.encode(line.text());
        Outcome const checked = codec.check(encoded(line.text()));
        EXPECT_EQ(outcome.accepted, is_good);
        EXPECT_EQ(checked.accepted, is_good);
        EXPECT_EQ(outcome.findings, "");
        if (is_good) {
            SamLine const rendered =
                SamLine().with(test::CIGAR, c.rendered_cigar).field("XX:i:1").field("XY:i:2");
            EXPECT_EQ(hex_text(outcome.bytes), hex_text(encoded(line.text())));
            EXPECT_EQ(hex_text(checked.bytes), hex_text(outcome.bytes));
            EXPECT_EQ(codec.render(outcome.bytes), rendered.text());
        } else {
            EXPECT_EQ(outcome.fault, c.fault);
            EXPECT_EQ(checked.fault, c.fault);
            EXPECT_EQ(outcome.bytes, "");
            EXPECT_EQ(outcome.text, "");
        }
    }
}

// Not a placeholder, so the field is one like any other.
TEST(RecordCodec, EncodeLine_FieldBesideAnOrdinaryCigar_IsAnOrdinaryField) {
    for (char const* const cigar : {"4M", "3S1M", "4M6N", "4S6D", "4S6N0M", "*"}) {
        SCOPED_TRACE(cigar);
        Codec codec;
        std::string const line =
            SamLine().with(test::CIGAR, cigar).field("CG:B:I,25,4294967280").text();
        Outcome const outcome = codec.encode(line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(encoded(line)));
        EXPECT_EQ(codec.render(outcome.bytes), line);
        EXPECT_TRUE(codec.check(outcome.bytes).accepted);
    }
}

// A placeholder clips all bases of SEQ, so this is none.
TEST(RecordCodec, EncodeLine_FieldBesideAClipOfOtherLength_IsAnOrdinaryField) {
    Codec codec;
    std::string const line = SamLine()
                                 .with(test::CIGAR, "4S6N")
                                 .with(test::SEQ, "*")
                                 .with(test::QUAL, "*")
                                 .field("CG:B:I,25")
                                 .text();
    Outcome const outcome = codec.encode(line);
    ASSERT_TRUE(outcome.accepted) << outcome.fault;
    EXPECT_EQ(hex_text(outcome.bytes), hex_text(encoded(line)));
    EXPECT_EQ(codec.render(outcome.bytes), line);
    EXPECT_TRUE(codec.check(outcome.bytes).accepted);
}

// Fields called CG of another type hold no operations.
TEST(RecordCodec, EncodeLine_PlaceholderAndFieldOfAnotherType_AreKept) {
    for (char const* const field : {"CG:Z:20", "CG:B:i,20,32,50,16", "CG:B:f,20,32", "Cg:B:I,1"}) {
        SCOPED_TRACE(field);
        Codec codec;
        std::string const line = SamLine().with(test::CIGAR, "4S6N").field(field).text();
        Outcome const outcome = codec.encode(line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(encoded(line)));
        EXPECT_EQ(codec.render(outcome.bytes), line);
        EXPECT_TRUE(codec.check(outcome.bytes).accepted);
    }
}

// What checking the field finds again has been counted already.
TEST(RecordCodec, EncodeLine_PlaceholderAndRepairs_CountsRepairsOnce) {
    Codec codec;
    Outcome const outcome = codec.encode(SamLine()
                                             .with(test::CIGAR, "4S6N")
                                             .with(test::SEQ, "acgt")
                                             .field("CG:B:I,20,32,50,16")
                                             .field("XX:c:1")
                                             .field("XF:B:f,1")
                                             .text());
    EXPECT_TRUE(outcome.accepted) << outcome.fault;
    EXPECT_EQ(outcome.findings, "lower_case_base 1 line 7\ninteger_type_letter 1 line 7\n");
}

// --- Binary records ----------------------------------------------------------

// A record of four bases at chr1:101, as SamLine has it; its bin is right.
RawBamRecord valid_record() {
    RawBamRecord record;
    record.refID = 0;
    record.pos = 100;
    record.mapq = 60;
    record.bin = 4681;
    record.flag = 0;
    record.cigar = {0x40};
    record.l_seq = 4;
    record.seq = "\x12\x48";
    record.qual = "\x28\x28\x28\x28";
    return record;
}

// Every type of field, at its limits, that is kept as it is; and its text.
struct BinaryField {
    char const* text;
    std::string bytes;
};

std::vector<BinaryField> binary_fields() {
    std::vector<BinaryField> fields = {
        {"Xa:i:-128", "Xac\x80"s},
        {"Xb:i:127", "Xbc\x7F"s},
        {"Xc:i:0", "XcC\0"s},
        {"Xd:i:255", "XdC\xFF"s},
        {"Xe:i:0", "XeI\0\0\0\0"s},
        {"Xf:i:2147483648", "XfI\0\0\0\x80"s},
        {"Xg:i:4294967295", "XgI\xFF\xFF\xFF\xFF"s},
        {"Xh:B:I,2147483648,4294967295", "XhBI\2\0\0\0\0\0\0\x80\xFF\xFF\xFF\xFF"s},
        {"Xi:Z:caf\xC3\xA9", "XiZcaf\xC3\xA9\0"s},
        {"Xj:f:1e-45", "Xjf\1\0\0\0"s},
        {"Xk:f:-nan", "Xkf\0\0\xC0\xFF"s},
        {"Xl:f:0.1", "Xlf\xCD\xCC\xCC\x3D"s},
        {"Xm:f:16777216", "Xmf\0\0\x80\x4B"s},
    };
    for (FieldCase const& c : field_cases()) {
        if (std::string_view(c.text).substr(0, 6) == "XX:B:f") continue;  // counted
        fields.push_back({c.text, c.bytes});
    }
    return fields;
}

TEST(RecordCodec, CheckRecord_FieldOfEveryType_StaysByteForByteAndIsRendered) {
    for (BinaryField const& c : binary_fields()) {
        SCOPED_TRACE(c.text);
        RawBamRecord record = valid_record();
        record.aux = c.bytes;
        Codec codec;
        Outcome const outcome = codec.check(record.bytes());
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(record.bytes()));
        EXPECT_EQ(outcome.findings, "");
        EXPECT_EQ(codec.render(outcome.bytes), SamLine().field(c.text).text());
    }
}

TEST(RecordCodec, CheckRecord_AllFieldsAtOnce_StayInTheirOrder) {
    RawBamRecord record = valid_record();
    SamLine line;
    for (BinaryField const& c : binary_fields()) {
        record.aux += c.bytes;
        line.field(c.text);
    }
    Codec codec;
    Outcome const outcome = codec.check(record.bytes());
    ASSERT_TRUE(outcome.accepted) << outcome.fault;
    EXPECT_EQ(hex_text(outcome.bytes), hex_text(record.bytes()));
    EXPECT_EQ(outcome.findings, "");
    EXPECT_EQ(codec.render(outcome.bytes), line.text());
}

TEST(RecordCodec, CheckRecord_ShortIntegers_AreWidened) {
    struct {
        char const* label;
        std::string aux;
        std::string widened;
        char const* findings;
        char const* text;
    } const cases[] = {
        {"s, least", "XXs\0\x80"s, "XXi\0\x80\xFF\xFF"s, "short_integer 1 record 7\n",
         "XX:i:-32768"},
        {"s, -1", "XXs\xFF\xFF"s, "XXi\xFF\xFF\xFF\xFF"s, "short_integer 1 record 7\n", "XX:i:-1"},
        {"s, most", "XXs\xFF\x7F"s, "XXi\xFF\x7F\0\0"s, "short_integer 1 record 7\n", "XX:i:32767"},
        {"S, least", "XXS\0\0"s, "XXI\0\0\0\0"s, "short_integer 1 record 7\n", "XX:i:0"},
        {"S, most", "XXS\xFF\xFF"s, "XXI\xFF\xFF\0\0"s, "short_integer 1 record 7\n", "XX:i:65535"},
        {"between others", "XZZab\0XXs\1\0XAAxXYS\2\0XBBs\1\0\0\0\3\0XCc\4"s,
         "XZZab\0XXi\1\0\0\0XAAxXYI\2\0\0\0XBBs\1\0\0\0\3\0XCc\4"s, "short_integer 2 record 7\n",
         "XZ:Z:ab\tXX:i:1\tXA:A:x\tXY:i:2\tXB:B:s,3\tXC:i:4"},
        {"beside floats", "XXs\1\0XFBf\1\0\0\0\0\0\x80\x3F"s,
         "XXi\1\0\0\0XFBf\1\0\0\0\0\0\x80\x3F"s,
         "float_array 1 record 7\nshort_integer 1 record 7\n", "XX:i:1\tXF:B:f,1"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        RawBamRecord record = valid_record();
        std::string const bare = record.bytes();
        record.aux = c.aux;
        Codec codec;
        Outcome const outcome = codec.check(record.bytes());
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(with_aux(bare, c.widened)));
        EXPECT_EQ(outcome.findings, c.findings);
        EXPECT_EQ(codec.render(outcome.bytes), SamLine().field(c.text).text());
    }
}

TEST(RecordCodec, CheckRecord_TwoFieldsForALongCigar_AreRefused) {
    std::string const field = "CGBI\1\0\0\0\x40\0\0\0"s;  // 4M
    for (bool const has_placeholder : {true, false}) {
        SCOPED_TRACE(has_placeholder);
        RawBamRecord record = valid_record();
        if (has_placeholder) record.cigar = {4U << 4U | 4U, 4U << 4U | 3U};  // 4S4N
        record.aux = field + field;
        Codec codec;
        EXPECT_EQ(codec.check(record.bytes()).fault, has_placeholder ? "CG: is there twice" : "");
    }
}

TEST(RecordCodec, CheckRecord_QualityBeginsWith255_IsNoneAndCountedWhereItGoesOn) {
    struct {
        char const* qual;
        char const* findings;
    } const cases[] = {
        {"\xFF\xFF\xFF\xFF", ""},
        {"\xFF\xFF\xFF\x01", "partial_quality 1 record 7\n"},
        {"\xFF\xFE\x5E\x01", "partial_quality 1 record 7\n"},
    };
    for (auto const& c : cases) {
        RawBamRecord record = valid_record();
        record.qual = c.qual;
        Codec codec;
        Outcome const outcome = codec.check(record.bytes());
        EXPECT_EQ(outcome.fault, "");
        EXPECT_EQ(outcome.findings, c.findings);
        record.qual = "\xFF\xFF\xFF\xFF";
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(record.bytes()));
    }
}

TEST(RecordCodec, CheckRecord_FloatArrays_AreCountedUnlessEmpty) {
    RawBamRecord record = valid_record();
    record.aux = "XXBf\1\0\0\0\0\0\x80\x3FXYBf\0\0\0\0XZBf\2\0\0\0\0\0\x80\x3F\0\0\0\0"s;
    Codec codec;
    Outcome const outcome = codec.check(record.bytes());
    ASSERT_TRUE(outcome.accepted) << outcome.fault;
    EXPECT_EQ(hex_text(outcome.bytes), hex_text(record.bytes()));
    EXPECT_EQ(outcome.findings, "float_array 2 record 7\n");
}

struct RecordErrorCase {
    char const* label;
    std::string record;
    char const* fault;
};

std::vector<RecordErrorCase> record_errors() {
    auto const valid = [] { return valid_record(); };
    // A valid record with a byte run of its own.
    auto const changed = [&](std::size_t offset, std::string_view bytes) {
        std::string record = valid().bytes();
        record.replace(offset, bytes.size(), bytes);
        return record;
    };
    auto const with = [&](auto change) {
        RawBamRecord record = valid();
        change(record);
        return record.bytes();
    };
    auto const name = [&](std::string_view text) {
        return with([&](RawBamRecord& r) { r.read_name = text; });
    };
    auto const aux = [&](std::string_view bytes) {
        return with([&](RawBamRecord& r) { r.aux = bytes; });
    };
    static constexpr char INSIDE[] = ": the record ends inside name, CIGAR, SEQ or QUAL";
    static constexpr char ELEMENTS[] =
        "XX: the type of its elements is none of c, C, s, S, i, I and f";
    return {
        {"empty", std::string(4, '\0'), ": the record is shorter than its fixed fields"},
        {"31 bytes", valid().bytes().substr(0, 4 + 31),
         ": the record is shorter than its fixed fields"},
        {"only fixed fields", valid().bytes().substr(0, 4 + 32), INSIDE},
        {"name beyond the record", changed(12, "\xFF"), INSIDE},
        {"operations beyond the record", changed(16, "\xFF\xFF"), INSIDE},
        {"bases beyond the record", changed(20, "\xFF\xFF\xFF\x7F"), INSIDE},
        {"one base too many", changed(20, "\5\0\0\0"s), INSIDE},
        {"l_seq -1", changed(20, "\xFF\xFF\xFF\xFF"), "SEQ: has the length -1"},
        {"least l_seq", changed(20, "\0\0\0\x80"s), "SEQ: has the length -2147483648"},
        {"name without room for its NUL", changed(12, "\0"s), "QNAME: does not end in a NUL byte"},
        {"name cut", changed(12, "\2"), "QNAME: does not end in a NUL byte"},
        {"name empty", name(""), "QNAME: is empty"},
        {"NUL in the name", name("r\0"s), "QNAME: holds byte 0x00"},
        {"tab in the name", name("a\tb"), "QNAME: holds byte 0x09"},
        {"line break in the name", name("a\nb"), "QNAME: holds byte 0x0A"},
        {"blank in the name", name("a b"), "QNAME: holds ' '"},
        {"name like a header line", name("@r"), "QNAME: begins with '@', as header lines do"},
        {"refID -2", with([](RawBamRecord& r) { r.refID = -2; }),
         "RNAME: reference number -2 of a list of 2"},
        {"refID n", with([](RawBamRecord& r) { r.refID = 2; }),
         "RNAME: reference number 2 of a list of 2"},
        {"next_refID -2", with([](RawBamRecord& r) { r.next_refID = -2; }),
         "RNEXT: reference number -2 of a list of 2"},
        {"next_refID n", with([](RawBamRecord& r) { r.next_refID = 2; }),
         "RNEXT: reference number 2 of a list of 2"},
        {"pos -2", with([](RawBamRecord& r) { r.pos = -2; }),
         "POS: -1 is not in the range of 0 to 2147483647"},
        {"greatest pos", with([](RawBamRecord& r) { r.pos = INT32_MAX; }),
         "POS: 2147483648 is not in the range of 0 to 2147483647"},
        {"next_pos -2", with([](RawBamRecord& r) { r.next_pos = -2; }),
         "PNEXT: -1 is not in the range of 0 to 2147483647"},
        {"greatest next_pos", with([](RawBamRecord& r) { r.next_pos = INT32_MAX; }),
         "PNEXT: 2147483648 is not in the range of 0 to 2147483647"},
        {"least tlen", with([](RawBamRecord& r) { r.tlen = INT32_MIN; }),
         "TLEN: -2147483648 is not in the range of -2147483647 to 2147483647"},
        {"operation 9", with([](RawBamRecord& r) { r.cigar = {0x49}; }),
         "CIGAR: 9 is no operation"},
        {"operation 15 behind a good one", with([](RawBamRecord& r) {
             r.cigar = {0x40, 0x1F};
         }),
         "CIGAR: 15 is no operation"},
        {"CIGAR one base short", with([](RawBamRecord& r) { r.cigar = {0x30}; }),
         "CIGAR: covers 3 bases, SEQ has 4"},
        {"CIGAR one base long", with([](RawBamRecord& r) { r.cigar = {0x50}; }),
         "CIGAR: covers 5 bases, SEQ has 4"},
        {"quality 94", with([](RawBamRecord& r) { r.qual = "\x5D\x5D\x5D\x5E"; }),
         "QUAL: 94 at place 4 is above 93"},
        {"quality 254 first", with([](RawBamRecord& r) { r.qual = "\xFE\xFE\xFE\xFE"; }),
         "QUAL: 254 at place 1 is above 93"},
        {"quality 255 not first", with([](RawBamRecord& r) { r.qual = "\x5D\xFF\xFF\xFF"; }),
         "QUAL: 255 at place 2 is above 93"},
        {"one byte of a field", aux("X"), ": the record ends inside an optional field"},
        {"two bytes of a field", aux("XX"), ": the record ends inside an optional field"},
        {"type without value", aux("XXi"), "XX: the record ends inside it"},
        {"i of three bytes", aux("XXi\1\2\3"), "XX: the record ends inside it"},
        {"s of one byte", aux("XXs\1"), "XX: the record ends inside it"},
        {"c of none", aux("XXc"), "XX: the record ends inside it"},
        {"A of none", aux("XXA"), "XX: the record ends inside it"},
        {"f of three", aux("XXf\1\2\3"), "XX: the record ends inside it"},
        {"Z without NUL", aux("XXZabc"), "XX: the record ends inside it"},
        {"Z of none", aux("XXZ"), "XX: the record ends inside it"},
        {"H without NUL", aux("XXHAB"), "XX: the record ends inside it"},
        {"B without count", aux("XXBc\1\0\0"s), "XX: the record ends inside it"},
        {"B of none", aux("XXB"), "XX: the record ends inside it"},
        {"B one element short", aux("XXBi\2\0\0\0\1\2\3\4\5\6\7"s),
         "XX: the record ends inside it"},
        {"B of 2^32 - 1 elements", aux("XXBi\xFF\xFF\xFF\xFF\1\2\3\4"s),
         "XX: the record ends inside it"},
        {"B whose size wraps to 4 in 32 bits", aux("XXBI\1\0\0\x40\1\2\3\4"s),
         "XX: the record ends inside it"},
        {"B of unknown elements", aux("XXBd\1\0\0\0\1\2\3\4\5\6\7\x08"s), ELEMENTS},
        {"B of texts", aux("XXBZ\1\0\0\0a\0"s), ELEMENTS},
        {"unknown type", aux("XXd\1\2\3\4\5\6\7\x08"s), "XX: 'd' is no type of an optional field"},
        {"type NUL", aux("XX\0\1"s), "XX: byte 0x00 is no type of an optional field"},
        {"A blank", aux("XXA "), "XX: type A needs one printable character"},
        {"A tab", aux("XXA\t"), "XX: type A needs one printable character"},
        {"A high byte", aux("XXA\x80"), "XX: type A needs one printable character"},
        {"tab in Z", aux("XXZa\tb\0"s), "XX: holds a tab or a line break, which SAM cannot hold"},
        {"CR at the end of Z", aux("XXZab\r\0"s),
         "XX: holds a tab or a line break, which SAM cannot hold"},
        {"line break in Z", aux("XXZa\n\0"s),
         "XX: holds a tab or a line break, which SAM cannot hold"},
        {"H odd", aux("XXHABC\0"s), "XX: has an odd number of hex digits"},
        {"H no digit", aux("XXHAX\0"s), "XX: holds something else than hex digits"},
        {"second field", aux("XYc\1XXi\1"), "XX: the record ends inside it"},
    };
}

TEST(RecordCodec, CheckRecord_InvalidRecord_IsRefusedWithColumnAndReason) {
    for (RecordErrorCase const& c : record_errors()) {
        SCOPED_TRACE(c.label);
        Codec codec;
        Outcome const outcome = codec.check(c.record);
        EXPECT_FALSE(outcome.accepted);
        EXPECT_EQ(outcome.fault, c.fault);
        EXPECT_EQ(outcome.bytes, "");
        EXPECT_EQ(outcome.findings, "");
    }
}

TEST(RecordCodec, CheckRecord_TagOfOtherCharacters_IsRefused) {
    for (std::string const tag : {"1X", "X_", " X", "X ", "\0X", "X\xC3"}) {
        SCOPED_TRACE(tag);
        RawBamRecord record = valid_record();
        record.aux = tag + "c\1";
        Codec codec;
        Outcome const outcome = codec.check(record.bytes());
        EXPECT_FALSE(outcome.accepted);
        EXPECT_EQ(codec.codec.fault().column, "");
        EXPECT_EQ(outcome.bytes, "");
    }
}

TEST(RecordCodec, CheckRecord_FieldsAtTheirLimits_AreKept) {
    auto const with = [](auto change) {
        RawBamRecord record = valid_record();
        change(record);
        return record.bytes();
    };
    struct {
        char const* label;
        std::string record;
        char const* findings;
    } const cases[] = {
        {"unplaced", with([](RawBamRecord& r) { r.refID = -1; }), ""},
        {"last reference", with([](RawBamRecord& r) { r.refID = 1; }), ""},
        {"last reference of the mate", with([](RawBamRecord& r) { r.next_refID = 1; }), ""},
        {"no position", with([](RawBamRecord& r) {
             r.pos = -1;
             r.bin = 0;  // of [-1, 3)
         }),
         ""},
        {"last position", with([](RawBamRecord& r) {
             r.refID = 1;
             r.pos = INT32_MAX - 1;
             r.cigar = {};
             r.bin = 4680;  // 4681 + 131071 in 16 bits
         }),
         ""},
        {"last position of the mate", with([](RawBamRecord& r) { r.next_pos = INT32_MAX - 1; }),
         ""},
        {"least tlen", with([](RawBamRecord& r) { r.tlen = -INT32_MAX; }), ""},
        {"greatest tlen", with([](RawBamRecord& r) { r.tlen = INT32_MAX; }), ""},
        {"name of 254", with([](RawBamRecord& r) { r.read_name.assign(254, 'q'); }), ""},
        {"all flags", with([](RawBamRecord& r) { r.flag = 65535; }), ""},
        {"mapq 255", with([](RawBamRecord& r) { r.mapq = 255; }), ""},
        {"operation 8", with([](RawBamRecord& r) { r.cigar = {0x48}; }), ""},
        {"no CIGAR", with([](RawBamRecord& r) { r.cigar = {}; }), ""},
        {"longest operation", with([](RawBamRecord& r) {
             r.refID = 1;
             r.cigar = {0x40, 0xFFFFFFF3};
             r.bin = 0;
         }),
         ""},
        {"CIGAR without SEQ", with([](RawBamRecord& r) {
             r.l_seq = 0;
             r.seq = r.qual = "";
         }),
         ""},
        {"greatest quality", with([](RawBamRecord& r) { r.qual = "\x5D\0\x5D\0"s; }), ""},
        {"no qualities", with([](RawBamRecord& r) { r.qual = "\xFF\xFF\xFF\xFF"; }), ""},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        Codec codec;
        Outcome const outcome = codec.check(c.record);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(c.record));
        EXPECT_EQ(outcome.findings, c.findings);
        EXPECT_EQ(codec.render(outcome.bytes), sam_line_of_record(c.record, references()));
    }
}

// --- Binary records: whatever is accepted survives the way through text --------

std::uint32_t number_at(std::string_view bytes, std::size_t offset, std::size_t width) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value |= std::uint32_t{static_cast<unsigned char>(bytes.at(offset + i))} << (8 * i);
    }
    return value;
}

// A float's bits as its text keeps them: of a NaN, only the sign.
std::string float_through_text(std::string_view bytes) {
    std::uint32_t const bits = number_at(bytes, 0, 4);
    bool const is_nan = (bits & 0x7FFFFFFF) > 0x7F800000;
    return le_bytes(is_nan ? (bits & 0x80000000) | 0x7FC00000 : bits);
}

// A B field's value, element type first, through text.
std::string array_through_text(std::string_view value) {
    if (value[0] != 'f') return std::string(value);
    std::string bytes(value.substr(0, 5));
    for (std::size_t at = 5; at < value.size(); at += 4) {
        bytes += float_through_text(value.substr(at, 4));
    }
    return bytes;
}

// Bytes of the value of a valid optional field.
std::size_t value_width(std::string_view aux) {
    switch (aux.at(2)) {
        case 'A':
        case 'c':
        case 'C': return 1;
        case 's':
        case 'S': return 2;
        case 'Z':
        case 'H': return aux.find('\0') - 2;
        case 'B': {
            char const type = aux.at(3);
            std::size_t const width = type == 'c' || type == 'C'   ? 1
                                      : type == 's' || type == 'S' ? 2
                                                                   : 4;
            return 5 + width * number_at(aux, 4, 4);
        }
        default: return 4;
    }
}

// An optional field through text.
std::string field_through_text(std::string_view field) {
    std::string_view const tag = field.substr(0, 2);
    char const type = field[2];
    std::string_view const value = field.substr(3);
    std::uint32_t const bits = value.size() <= 4 ? number_at(value, 0, value.size()) : 0;
    switch (type) {
        case 'c': return bam_aux(tag, 'i', le_bytes(bits < 0x80 ? bits : bits | 0xFFFFFF00));
        case 's': return bam_aux(tag, 'i', le_bytes(bits < 0x8000 ? bits : bits | 0xFFFF0000));
        case 'C':
        case 'S': return bam_aux(tag, 'i', le_bytes(bits));
        case 'I': return bam_aux(tag, bits > INT32_MAX ? 'I' : 'i', value);
        case 'f': return bam_aux(tag, 'f', float_through_text(value));
        case 'B': return bam_aux(tag, 'B', array_through_text(value));
        default: return std::string(field);
    }
}

// What remains of a valid record that becomes text and a record again: wide
// integers, no unused bits, short CIGARs in their place.
std::string record_through_text(std::string_view record) {
    RawBamRecord raw;
    std::size_t at = 36;
    auto const take = [&](std::size_t n) { return record.substr(std::exchange(at, at + n), n); };
    auto const signed_at = [&](std::size_t offset) {
        return static_cast<std::int32_t>(number_at(record, offset, 4));
    };
    raw.refID = signed_at(4);
    raw.pos = signed_at(8);
    raw.mapq = static_cast<std::uint8_t>(record[13]);
    raw.bin = static_cast<std::uint16_t>(number_at(record, 14, 2));
    raw.flag = static_cast<std::uint16_t>(number_at(record, 18, 2));
    raw.l_seq = signed_at(20);
    raw.next_refID = signed_at(24);
    raw.next_pos = signed_at(28);
    raw.tlen = signed_at(32);
    raw.read_name = take(number_at(record, 12, 1));
    raw.read_name.pop_back();
    for (std::size_t n = number_at(record, 16, 2); n > 0; --n) {
        raw.cigar.push_back(number_at(take(4), 0, 4));
    }
    auto const l_seq = static_cast<std::size_t>(raw.l_seq);
    raw.seq = take((l_seq + 1) / 2);
    if (l_seq % 2 != 0) raw.seq.back() = static_cast<char>(raw.seq.back() & 0xF0);
    raw.qual = take(l_seq);
    // The text "*" means that there are none, even where it could be one quality.
    bool const is_star = l_seq == 1 && raw.qual == "\x09";
    if (is_star || (l_seq > 0 && raw.qual[0] == '\xFF')) raw.qual.assign(l_seq, '\xFF');

    bool const is_placeholder =
        raw.cigar.size() == 2 && raw.cigar[0] == (l_seq << 4 | 4) && (raw.cigar[1] & 15) == 3;
    while (at < record.size()) {
        std::string_view const field = take(3 + value_width(record.substr(at)));
        if (is_placeholder && field.substr(0, 4) == "CGBI") {
            raw.cigar.clear();
            for (std::size_t i = 8; i < field.size(); i += 4) {
                raw.cigar.push_back(number_at(field, i, 4));
            }
        } else {
            raw.aux += field_through_text(field);
        }
    }
    return raw.bytes();
}

// Whatever is accepted is rendered as a line that gives the same record, and the
// record itself is accepted again without a change. Returns whether it was.
bool survives_or_is_refused(Codec& codec, std::string_view record) {
    std::string const earlier_findings = codec.findings();
    Outcome const outcome = codec.check(record);
    if (!outcome.accepted) {
        EXPECT_EQ(outcome.bytes, "");
        EXPECT_EQ(outcome.findings, earlier_findings);
        EXPECT_NE(codec.codec.fault().reason, "");
        return false;
    }
    std::string const line = codec.render(outcome.bytes);
    Outcome const again = codec.encode(line);
    EXPECT_TRUE(again.accepted) << again.fault << " in " << test::in_quotes(line);
    std::string const expected = record_through_text(outcome.bytes);
    EXPECT_TRUE(again.bytes == expected) << hex_text(again.bytes) << '\n' << hex_text(expected);
    Outcome const unchanged = codec.check(outcome.bytes);
    EXPECT_TRUE(unchanged.accepted) << unchanged.fault;
    EXPECT_TRUE(unchanged.bytes == outcome.bytes) << hex_text(unchanged.bytes);
    return true;
}

// Records that between them have everything; the last field of none is a text.
std::vector<std::string> sample_records() {
    RawBamRecord everything = valid_record();
    everything.next_refID = 1;
    everything.next_pos = 500;
    everything.tlen = -77;
    everything.l_seq = 5;
    everything.cigar = {0x14, 0x20, 0x11, 0x32, 0x13, 0x15, 0x06, 0x17};
    everything.seq = "\x12\x48\xF0";
    everything.qual = "\0\x09\x28\x5D\1"s;
    everything.aux =
        "XAA~XBc\x80XCC\xFFXDs\0\x80XESab"
        "XFi\1\2\3\4XGI\1\2\3\x84XHf\0\0\x80\x3F"
        "XIZtext\0XJH09aF\0"
        "XKBc\2\0\0\0ab"
        "XLBs\1\0\0\0cd"
        "XMBI\1\0\0\0efgh"
        "XNBf\2\0\0\0\xCD\xCC\xCC\x3D\0\0\x20\x41"s;
    RawBamRecord in_field = valid_record();
    in_field.cigar = {0x44, 0x63};
    in_field.aux = "XAAxCGBI\4\0\0\0\x14\0\0\0\x20\0\0\0\x32\0\0\0\x10\0\0\0XBi\1\0\0\0"s;
    RawBamRecord one_base = valid_record();
    one_base.cigar = {};
    one_base.l_seq = 1;
    one_base.seq = "\x10";
    one_base.qual = "\x28";
    return {everything.bytes(), in_field.bytes(), one_base.bytes(), RawBamRecord().bytes()};
}

TEST(RecordCodec, CheckRecord_ValidRecords_SurviveTheWayThroughText) {
    for (std::string const& record : sample_records()) {
        SCOPED_TRACE(hex_text(record));
        Codec codec;
        EXPECT_TRUE(survives_or_is_refused(codec, record));
    }
}

TEST(RecordCodec, CheckRecord_CutAtEveryLength_IsRefusedOrSurvives) {
    for (std::string const& record : sample_records()) {
        SCOPED_TRACE(hex_text(record));
        Codec codec;
        int n_refused = 0;
        for (std::size_t size = 4; size < record.size(); ++size) {
            if (!survives_or_is_refused(codec, std::string_view(record).substr(0, size)))
                ++n_refused;
        }
        EXPECT_GE(n_refused, 34);  // inside the fixed fields and the name
    }
}

TEST(RecordCodec, CheckRecord_EveryByteSetToEveryValue_IsRefusedOrSurvives) {
    for (std::string const& record : sample_records()) {
        Codec codec;
        int n_refused = 0;
        int n_accepted = 0;
        for (std::size_t i = 4; i < record.size(); ++i) {
            for (int value = 0; value < 256; ++value) {
                std::string changed = record;
                changed[i] = static_cast<char>(value);
                SCOPED_TRACE("byte " + std::to_string(i) + " set to " + std::to_string(value));
                ++(survives_or_is_refused(codec, changed) ? n_accepted : n_refused);
                if (::testing::Test::HasFailure()) return;
            }
        }
        EXPECT_GT(n_refused, 0);
        EXPECT_GT(n_accepted, 0);
    }
}

TEST(RecordCodec, CheckRecord_RandomDamage_IsRefusedOrSurvives) {
    constexpr int N_RECORDS = 20000;
    std::mt19937 random(20240614);
    std::vector<std::string> const samples = sample_records();
    Codec codec;
    int n_accepted = 0;
    for (int i = 0; i < N_RECORDS; ++i) {
        std::string record = samples[random() % samples.size()];
        for (auto n = 1 + random() % 3; n > 0; --n) {
            record[4 + random() % (record.size() - 4)] = static_cast<char>(random() % 256);
        }
        SCOPED_TRACE(hex_text(record));
        if (survives_or_is_refused(codec, record)) ++n_accepted;
        if (HasFailure()) return;
    }
    EXPECT_GT(n_accepted, N_RECORDS / 20);
}

// --- Lines of records --------------------------------------------------------

TEST(RecordCodec, RenderLine_MatesReference_IsEqualsSignOnlyWhereItIsTheSame) {
    struct {
        std::int32_t refID, next_refID;
        char const* rname;
        char const* rnext;
    } const cases[] = {
        {-1, -1, "*", "*"},     {-1, 0, "*", "chr1"}, {0, -1, "chr1", "*"},   {0, 0, "chr1", "="},
        {0, 1, "chr1", "chr2"}, {1, 1, "chr2", "="},  {1, 0, "chr2", "chr1"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(std::string(c.rname) + ' ' + c.rnext);
        RawBamRecord record = valid_record();
        record.refID = c.refID;
        record.next_refID = c.next_refID;
        Codec codec;
        EXPECT_EQ(codec.render(record.bytes()),
                  SamLine().with(test::RNAME, c.rname).with(test::RNEXT, c.rnext).text());
    }
}

TEST(RecordCodec, RenderLine_ArraysOfBytes_HaveEveryValue) {
    std::string elements;
    std::string as_signed = "XX:B:c";
    std::string as_unsigned = "XX:B:C";
    for (int i = 0; i < 256; ++i) {
        elements += static_cast<char>(i);
        as_signed += ',' + std::to_string(i < 128 ? i : i - 256);
        as_unsigned += ',' + std::to_string(i);
    }
    for (char const type : {'c', 'C'}) {
        RawBamRecord record = valid_record();
        record.aux = bam_aux("XX", 'B', type + "\0\1\0\0"s + elements);
        SamLine const line = SamLine().field(type == 'c' ? as_signed : as_unsigned);
        Codec codec;
        EXPECT_EQ(codec.render(record.bytes()), line.text());
        EXPECT_EQ(hex_text(codec.encode(line.text()).bytes), hex_text(record.bytes()));
    }
}

// The most text that bytes can become, at the very end of a buffer.
TEST(RecordCodec, RenderLine_LongestTexts_FitTheRoom) {
    constexpr std::uint32_t N = 100000;
    struct {
        char type;
        std::string element;
        char const* text;
    } const cases[] = {
        {'c', "\x80"s, ",-128"},
        {'C', "\xFF"s, ",255"},
        {'s', "\0\x80"s, ",-32768"},
        {'i', "\0\0\0\x80"s, ",-2147483648"},
        {'I', "\xFF\xFF\xFF\xFF"s, ",4294967295"},
        {'f', "\xFF\xFF\x7F\x80"s, ",-1.1754942e-38"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.type);
        RawBamRecord record = valid_record();
        record.aux = bam_aux("XX", 'B', c.type + le_bytes(N) + repeated(c.element, N));
        ByteBuffer text;
        Header header;
        Report report;
        std::string error;
        ASSERT_TRUE(header.assign_sam(HEADER, report, error)) << error;
        RecordCodec codec(header, report);
        std::string const bytes = record.bytes();
        codec.render_line(RecordView(bytes.data()), text);
        EXPECT_TRUE(text.view() ==
                    SamLine().field("XX:B:"s + c.type + repeated(c.text, N)).text() + '\n');
    }
}

TEST(RecordCodec, RenderLine_Float_HasItsShortestText) {
    struct {
        std::uint32_t bits;
        char const* text;
    } const cases[] = {
        {0x00000000, "0"},
        {0x80000000, "-0"},
        {0x3F800000, "1"},
        {0x40000000, "2"},
        {0x3DCCCCCD, "0.1"},
        {0x33D6BF95, "1e-07"},
        {0x7F7FFFFF, "3.4028235e+38"},
        {0xFF7FFFFF, "-3.4028235e+38"},
        {0x00800000, "1.1754944e-38"},
        {0x00000001, "1e-45"},
        {0x7F800000, "inf"},
        {0xFF800000, "-inf"},
        {0x7FC00000, "nan"},
        {0x3EAAAAAB, "0.33333334"},
        {0x40490FDB, "3.1415927"},
        {0xC2F6E979, "-123.456"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.text);
        RawBamRecord record = valid_record();
        record.aux = bam_aux("XF", 'f', le_bytes(c.bits)) +
                     bam_aux("XB", 'B', "f\1\0\0\0"s + le_bytes(c.bits));
        Codec codec;
        EXPECT_EQ(codec.render(record.bytes()),
                  SamLine().field("XF:f:"s + c.text).field("XB:B:f,"s + c.text).text());
    }
}

std::uint32_t bits_of(float value) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// Characters of the shortest text that printf() has for a float and that reads
// back to it.
std::size_t least_printed_length(float value) {
    std::size_t least = SIZE_MAX;
    for (int digits = 1; digits <= 9; ++digits) {
        for (bool const is_scientific : {false, true}) {
            char text[32];
            auto const number = static_cast<double>(value);
            if (is_scientific) {
                std::snprintf(text, sizeof text, "%.*e", digits - 1, number);
            } else {
                std::snprintf(text, sizeof text, "%.*g", digits, number);
            }
            if (bits_of(std::strtof(text, nullptr)) != bits_of(value)) continue;
            least = std::min(least, std::strlen(text));
        }
    }
    return least;
}

TEST(RecordCodec, RenderLine_AnyFloat_ReadsBackToItsBits) {
    constexpr std::uint32_t N_PER_RECORD = 1000;
    std::mt19937 random(8);
    for (int i = 0; i < 100; ++i) {
        std::vector<std::uint32_t> all_bits;
        RawBamRecord record = valid_record();
        record.aux = "XXBf" + le_bytes(N_PER_RECORD);
        for (std::uint32_t k = 0; k < N_PER_RECORD; ++k) {
            all_bits.push_back(static_cast<std::uint32_t>(random()));
            record.aux += le_bytes(all_bits.back());
        }
        Codec codec;
        std::string const line = codec.render(record.bytes());
        std::vector<std::string_view> const texts = split(line, ',');
        ASSERT_EQ(texts.size(), N_PER_RECORD + 1);
        for (std::size_t k = 0; k < N_PER_RECORD; ++k) {
            std::string const text(texts[k + 1]);
            std::uint32_t const bits = all_bits[k];
            float value = 0;
            std::memcpy(&value, &bits, sizeof value);
            float const read = std::strtof(text.c_str(), nullptr);
            if (std::isnan(value)) {
                EXPECT_TRUE(std::isnan(read)) << text;
            } else {
                EXPECT_EQ(bits_of(read), bits) << text;
                EXPECT_LE(text.size(), least_printed_length(value)) << text;
            }
        }
        Outcome const outcome = codec.encode(line);
        EXPECT_EQ(hex_text(outcome.bytes), hex_text(record_through_text(record.bytes())));
    }
}

// --- Records for a handler ---------------------------------------------------

BAMFileHandler handler_with_references() {
    BAMFileHandler handler;
    handler.references = {{"chr1", 1000}, {"chr2", INT32_MAX}};
    return handler;
}

AuxNumericalArray array_of(char type, std::uint32_t count, std::string_view bytes) {
    AuxNumericalArray array;
    array.type = type;
    array.count = count;
    array.data.assign(bytes.begin(), bytes.end());
    return array;
}

template <typename T>
AuxData aux_data(char const* tag, char type, T value) {
    AuxData field;
    field.tag = tag;
    field.type = type;
    field.value = std::move(value);
    return field;
}

// A record with fields of all types but s and S, arrays of floats among them.
RawBamRecord record_for_handler() {
    RawBamRecord record = valid_record();
    record.next_refID = 1;
    record.next_pos = 500;
    record.tlen = -77;
    record.aux =
        "XAA~XBc\x80XCC\xFFXFi\1\2\3\4XGI\1\2\3\x84XHf\0\0\x80\x3F"
        "XIZtext\0XJH09aF\0"
        "XKBf\2\0\0\0\xCD\xCC\xCC\x3D\0\0\x20\x41"
        "XLBs\1\0\0\0cd"
        "XMBf\0\0\0\0"
        "XNBI\1\0\0\0efgh"s;
    return record;
}

BamRecord expected_for_handler(std::string_view line) {
    BamRecord record;
    record.refID = 0;
    record.pos = 100;
    record.read_name = "r1";
    record.mapq = 60;
    record.bin = 4681;
    record.flag = 0;
    record.l_seq = 4;
    record.next_refID = 1;
    record.next_pos = 500;
    record.tlen = -77;
    record.cigar = {0x40};
    record.ref_length = 4;
    record.seq = {0x12, 0x48};
    record.qual = {0x28, 0x28, 0x28, 0x28};
    record.aux_data = {
        aux_data("XA", 'A', '~'),
        aux_data("XB", 'c', std::int8_t{-128}),
        aux_data("XC", 'C', std::uint8_t{255}),
        aux_data("XF", 'i', std::int32_t{0x04030201}),
        aux_data("XG", 'I', std::uint32_t{0x84030201}),
        aux_data("XH", 'f', 1.0F),
        aux_data("XI", 'Z', std::string("text")),
        aux_data("XJ", 'H', std::string("09aF")),
        aux_data("XK", 'B', array_of('f', 2, "\xCD\xCC\xCC\x3D\0\0\x20\x41"s)),
        aux_data("XL", 'B', array_of('s', 1, "cd")),
        aux_data("XM", 'B', array_of('f', 0, "")),
        aux_data("XN", 'B', array_of('I', 1, "efgh")),
    };
    record.sam_line = line;
    return record;
}

TEST(RecordCodec, HandOver_AnyRecord_IsAppendedWholeWithItsLine) {
    Codec codec;
    BAMFileHandler handler = handler_with_references();
    std::string error = "untouched";
    std::string const bytes = record_for_handler().bytes();
    std::string const line = "a line of the caller's";
    ASSERT_TRUE(codec.codec.hand_over(RecordView(bytes.data()), line, handler, error)) << error;
    ASSERT_TRUE(codec.codec.hand_over(RecordView(bytes.data()), "x", handler, error)) << error;
    ASSERT_EQ(handler.records.size(), 2U);
    EXPECT_EQ(record_text(handler.records[0]), record_text(expected_for_handler(line)));
    EXPECT_EQ(record_text(handler.records[1]), record_text(expected_for_handler("x")));
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(bytes, record_for_handler().bytes());

    std::vector<char> serialised;
    ASSERT_TRUE(handler.serialise_bam_record_to_buffer(handler.records[0], serialised));
    EXPECT_EQ(hex_text(serialised), hex_text(bytes));
}

TEST(RecordCodec, HandOver_RecordsOfEveryKind_AreSerialisedToTheirBytes) {
    Codec codec;
    for (std::string const& sample : sample_records()) {
        SCOPED_TRACE(hex_text(sample));
        BAMFileHandler handler = handler_with_references();
        std::string const bytes = codec.check(sample).bytes;
        std::string const line = codec.render(bytes);
        std::string error;
        ASSERT_TRUE(codec.codec.hand_over(RecordView(bytes.data()), line, handler, error)) << error;
        EXPECT_EQ(handler.records.at(0).sam_line, line);
        std::vector<char> serialised;
        ASSERT_TRUE(handler.serialise_bam_record_to_buffer(handler.records[0], serialised));
        EXPECT_EQ(hex_text(serialised), hex_text(bytes));
    }
}

struct CalledCgCase {
    char const* label;
    std::vector<std::uint32_t> cigar;
    std::string field;
};

// The handler looks for operations in such a field where a soft clip comes first.
TEST(RecordCodec, HandOver_FieldCalledLikeTheLongCigar_StaysWhatItIs) {
    CalledCgCase const cases[] = {
        {"floats", {0x44, 0x63}, "CGBf\1\0\0\0\xFF\xFF\xFF\xFF"s},
        {"numbers narrower than operations", {0x44, 0x63}, "CGBc\2\0\0\0\0\1"s},
        {"text", {0x44, 0x63}, "CGZtext\0"s},
        {"a number", {0x44, 0x63}, "CGi\1\0\0\0"s},
        {"operations beside a CIGAR that is none's placeholder",
         {0x44},
         "CGBI\1\0\0\0\xFF\xFF\xFF\xFF"s},
        {"text beside others", {0x44, 0x63}, "XAAxCGZtext\0XBBf\1\0\0\0abcd"s},
    };
    for (CalledCgCase const& c : cases) {
        SCOPED_TRACE(c.label);
        Codec codec;
        BAMFileHandler handler = handler_with_references();
        RawBamRecord record = valid_record();
        record.cigar = c.cigar;
        record.aux = c.field;
        std::string const bytes = record.bytes();
        std::string error;
        ASSERT_TRUE(codec.codec.hand_over(RecordView(bytes.data()), "line", handler, error))
            << error;
        std::vector<char> serialised;
        ASSERT_TRUE(handler.serialise_bam_record_to_buffer(handler.records.at(0), serialised));
        EXPECT_EQ(hex_text(serialised), hex_text(bytes));
        EXPECT_EQ(handler.records[0].sam_line, "line");
    }
}

TEST(RecordCodec, HandOver_HandlerWithoutTheReference_SaysSoAndAppendsNothing) {
    Codec codec;
    BAMFileHandler handler;
    handler.references = {{"chr1", 1000}};
    RawBamRecord record = valid_record();
    record.refID = 1;
    std::string const bytes = record.bytes();
    std::string error;
    EXPECT_FALSE(codec.codec.hand_over(RecordView(bytes.data()), "line", handler, error));
    EXPECT_EQ(error, "SAM line generation failed: Invalid next segment ref ID detected");
    EXPECT_TRUE(handler.records.empty());
}

// --- Random lines ------------------------------------------------------------

// Valid lines whose numbers have the text that rendering gives them.
class LineMaker {
public:
    explicit LineMaker(std::uint32_t seed) : random_(seed) {}

    std::string line() {
        std::size_t const n_bases = below(5) == 0 ? 0 : 1 + below(60);
        bool const has_bases = n_bases > 0;
        std::string const cigar = below(4) == 0 ? "*" : cigar_over(n_bases);
        bool const has_qualities = has_bases && below(5) != 0;
        bool const is_placed = below(5) != 0;
        bool const has_mate = below(2) == 0;
        std::string line = text_of(1 + below(40), '!', '?') + '\t' + number(65535) + '\t';
        line += is_placed ? "chr2\t" + number(500000000) : "*\t0";
        line += '\t' + number(255) + '\t' + cigar + '\t';
        line += has_mate ? (is_placed && below(2) == 0 ? "=" : "chr1") : "*";
        line += '\t' + (has_mate ? number(INT32_MAX) : "0"s) + '\t' + signed_number() + '\t';
        line += has_bases ? bases(n_bases) : "*";
        line += '\t';
        // A first quality other than '*', which alone would mean that there are none.
        line += has_qualities ? text_of(1, '+', '~') + text_of(n_bases - 1, '!', '~') : "*";
        for (std::size_t n = below(8); n > 0; --n) line += '\t' + field();
        return line;
    }

private:
    std::size_t below(std::size_t n) { return random_() % n; }
    std::string number(std::size_t most) { return std::to_string(below(most + 1)); }
    std::string signed_number() {
        auto const magnitude = static_cast<std::int64_t>(below(INT32_MAX));
        return std::to_string(below(2) == 0 ? magnitude : -magnitude);
    }
    std::string text_of(std::size_t n, char first, char last) {
        std::string text;
        auto const n_letters = static_cast<std::size_t>(last - first) + 1;
        for (; n > 0; --n) text += static_cast<char>(first + static_cast<char>(below(n_letters)));
        return text;
    }
    std::string bases(std::size_t n) {
        std::string text;
        for (; n > 0; --n) text += "=ACMGRSVTWYHKDBN"[below(16)];
        return text;
    }

    // Covers the bases of a read, some of the reference, and more.
    std::string cigar_over(std::size_t n_bases) {
        std::string cigar = std::to_string(1 + below(1000)) + "DN"[below(2)];
        while (n_bases > 0) {
            std::size_t const n = 1 + below(n_bases);
            cigar += std::to_string(n) + "MIS=X"[below(5)];
            if (below(3) == 0) cigar += std::to_string(below(100000)) + "DNHP"[below(4)];
            n_bases -= n;
        }
        return cigar;
    }

    // Multiples of a quarter, whose text needs no exponent.
    std::string decimal() {
        char text[32];
        double const value = (static_cast<double>(below(8001)) - 4000) / 4;
        std::snprintf(text, sizeof text, "%.9g", value);
        return text;
    }

    std::string field() {
        std::string const tag = text_of(1, 'X', 'Z') + text_of(1, 'a', 'z');
        switch (below(6)) {
            case 0: return tag + ":A:" + text_of(1, '!', '~');
            case 1: return tag + ":i:" + signed_number();
            case 2: return tag + ":f:" + decimal();
            case 3: return tag + ":Z:" + text_of(below(30), ' ', '~');
            case 4: return tag + ":H:" + text_of(2 * below(5), '0', '9');
            default: return tag + ":B:" + array();
        }
    }

    std::string array() {
        struct Elements {
            char type;
            std::int64_t least;
            std::uint32_t n_values;
        };
        static constexpr Elements KINDS[] = {
            {'c', -128, 256},
            {'C', 0, 256},
            {'s', -32768, 65536},
            {'S', 0, 65536},
            {'i', INT32_MIN, UINT32_MAX},
            {'I', 0, INT32_MAX},
            {'f', 0, 0},
        };
        Elements const& kind = KINDS[below(std::size(KINDS))];
        std::string text(1, kind.type);
        for (std::size_t n = below(12); n > 0; --n) {
            text += ',';
            text +=
                kind.type == 'f'
                    ? decimal()
                    : std::to_string(kind.least + static_cast<std::int64_t>(below(kind.n_values)));
        }
        return text;
    }

    std::mt19937 random_;
};

TEST(RecordCodec, EncodeLine_RandomLines_GiveTheEncodersBytesAndComeBack) {
    constexpr int N_LINES = 20000;
    LineMaker maker(4711);
    Codec codec;
    for (int i = 0; i < N_LINES; ++i) {
        std::string const line = maker.line();
        SCOPED_TRACE(line);
        Outcome const outcome = codec.encode(line);
        ASSERT_TRUE(outcome.accepted) << outcome.fault;
        ASSERT_EQ(outcome.bytes, encoded(line));
        ASSERT_EQ(outcome.text, line + '\n');
        ASSERT_EQ(codec.render(outcome.bytes), line);
        Outcome const checked = codec.check(outcome.bytes);
        ASSERT_TRUE(checked.accepted) << checked.fault;
        ASSERT_EQ(checked.bytes, outcome.bytes);
    }
}

// Many records one after another: the buffers grow, and nothing before is lost.
TEST(RecordCodec, EncodeLine_ManyLines_StandBackToBack) {
    LineMaker maker(12);
    Header header;
    Report report;
    std::string error;
    ASSERT_TRUE(header.assign_sam(HEADER, report, error)) << error;
    RecordCodec codec(header, report);
    ByteBuffer records;
    ByteBuffer text;
    std::string expected;
    std::string lines;
    for (std::uint64_t i = 1; i <= 2000; ++i) {
        std::string const line = maker.line();
        ASSERT_TRUE(codec.encode_line(line, i, records, &text)) << codec.fault().reason;
        ASSERT_FALSE(codec.encode_line(line + "\tX", i, records, &text));
        expected += encoded(line);
        lines += line + '\n';
    }
    EXPECT_TRUE(records.view() == expected);
    EXPECT_TRUE(text.view() == lines);
    ByteBuffer rendered;
    for_each_record(records.view(), [&](RecordView r) { codec.render_line(r, rendered); });
    EXPECT_TRUE(rendered.view() == lines);
}

}  // namespace
}  // namespace tesk::interop

// Holds the parser of SAM lines, which has a hand-written cursor, against a
// plain reading of the same lines with std::istringstream, std::stoi and
// std::stof, line for line.

#include "util/bam/bam_file.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/plain_sam_reader.h"
#include "tests/support/record_text.h"

namespace tesk::test {
namespace {

using util::bam::BAMFileHandler;
using BamRecord = BAMFileHandler::BamRecord;

// --- The comparison --------------------------------------------------------

class Comparison {
public:
    explicit Comparison(std::vector<std::string> references) : readings_(std::move(references)) {}

    // Adds a test failure where the two readings of a line differ.
    void compare(std::string const& line) {
        ++n_lines_;
        bool has_columns = false;
        SamReading const expected = readings_.read_by_stream(line, has_columns);
        SamReading const found = readings_.read_by_handler(line, has_columns);
        ++counts_[expected.kind];
        if (expected.kind == "accepted" && !readings_.plain_record().aux_data.empty()) {
            ++n_with_fields_;
        }
        if (expected.text == found.text) return;
        if (++n_differences_ <= 10) {
            ADD_FAILURE() << "line " << in_quotes(line) << "\nread with streams: " << expected.text
                          << "\nby the handler:    " << found.text;
        }
    }

    std::size_t n_lines() const { return n_lines_; }
    std::size_t n_differences() const { return n_differences_; }
    std::size_t n_accepted_with_fields() const { return n_with_fields_; }
    std::size_t count(std::string const& kind) const {
        auto const found = counts_.find(kind);
        return found == counts_.end() ? 0 : found->second;
    }
    std::map<std::string, std::size_t> const& counts() const { return counts_; }

private:
    SamReadings readings_;
    std::map<std::string, std::size_t> counts_;
    std::size_t n_lines_ = 0;
    std::size_t n_differences_ = 0;
    std::size_t n_with_fields_ = 0;
};

// More than a short list of references, some names twice.
std::vector<std::string> reference_names() {
    std::vector<std::string> names;
    for (int i = 1; i <= 30; ++i) names.push_back("chr" + std::to_string(i));
    for (char const* name : {"chr3", "x", "12", "chrUn", "chr3", "x10", "0"})
        names.emplace_back(name);
    return names;
}

// --- Lines -----------------------------------------------------------------

using Texts = std::vector<std::string>;

Texts const NUMBERS = {"0", "1", "4", "16", "99", "101", "255", "1024", "65535", "16384"};

Texts const ODD_NUMBERS = {"-1",
                           "+4",
                           "-0",
                           "+0",
                           "007",
                           "00000000000000000000012",
                           "254",
                           "256",
                           "300",
                           "-128",
                           "32767",
                           "32768",
                           "65534",
                           "65536",
                           "-65535",
                           "-65536",
                           "-65537",
                           "2147483646",
                           "2147483647",
                           "2147483648",
                           "-2147483647",
                           "-2147483648",
                           "-2147483649",
                           "4294967295",
                           "4294967296",
                           "9223372036854775807",
                           "9223372036854775808",
                           "-9223372036854775808",
                           "-9223372036854775809",
                           "18446744073709551615",
                           "18446744073709551616",
                           "99999999999999999999999999",
                           "12x",
                           "x12",
                           "0x10",
                           "0X1F",
                           "1.5",
                           ".5",
                           "1e3",
                           "1,000",
                           "--1",
                           "+-1",
                           "-+1",
                           "+",
                           "-",
                           "*",
                           "=",
                           "1-",
                           "1+",
                           "0-1",
                           "1_000",
                           "\xEF\xBB\xBF"
                           "1",
                           "\xB2",
                           "nan",
                           "inf",
                           "0b1",
                           "5\x01"};

Texts const NAMES = {"r1", "read/1", "a:b:c", "chr1", "chr3", "chr30", "x",        "12",  "*",
                     "=",  "chrUn",  "chr31", "CHR1", "chr",  "0",     "\xC3\xA4", "@CO", "q\x01z"};

Texts const CIGARS = {"*",
                      "4M",
                      "10M2I5D",
                      "1S2=1X",
                      "3H4M3H",
                      "100N",
                      "1P",
                      "0M",
                      "16384M",
                      "16385M",
                      "131072N1M",
                      "268435455M",
                      "M",
                      "MMM",
                      "10",
                      "10Q",
                      "4M3",
                      "4Q",
                      "Q",
                      "10Z",
                      "4m",
                      "**",
                      "*4M",
                      "-5M",
                      "+7M",
                      "5-3M",
                      "+-5M",
                      "--M",
                      "-",
                      "2147483647M",
                      "2147483648M",
                      "4294967297N",
                      "99999999999999999999D",
                      "-99999999999999999999M",
                      "9223372036854775807M",
                      "1M1M1M1M1M1M1M1M",
                      "0x5M",
                      "1.5M",
                      "4M\xFF"};

Texts const SEQS = {"ACGT",
                    "*",
                    "A",
                    "ACGTN",
                    "=ACMGRSVTWYHKDBN",
                    "UUUU",
                    "ACG",
                    "acgt",
                    "ACGa",
                    "ACGTa",
                    "a",
                    "AC*T",
                    "**",
                    "A.",
                    ".",
                    "ACGTACGTACGTACGTACGTACGTACGTACG",
                    "N-",
                    "uACG",
                    "ACx"};

Texts const QUALS = {"IIII",
                     "*",
                     "!",
                     "~~~~",
                     "IIIII",
                     "II",
                     "**",
                     "*III",
                     "I*",
                     "!\"#$%&'()+,-./",
                     "\xFF\x80zz",
                     "@@@@",
                     "IIIIIIIIIIIIIIIIIIIIIIIIIIIIIII",
                     "::::",
                     "=\x01=="};

Texts const SEPARATORS = {" ",    "\t\t", "  ",   "\v",  "\f",   "\r", "\n",
                          " \t ", "",     "\r\t", "\t ", "\t\r", ",",  std::string(1, '\0')};

Texts const ENDINGS = {"",
                       "\t",
                       "\r",
                       "\r\r",
                       " ",
                       "\t\t",
                       "\t\r",
                       "\r\t",
                       "\v",
                       " \r",
                       "\r ",
                       "\n",
                       "\r\n",
                       "\f",
                       "\tNM",
                       ":",
                       "\tNM:i:1\t",
                       "\r\tNM:i:1",
                       " NM:i:1",
                       " N:i:1",
                       "\rN:i:1",
                       "\tNM:i:1\r",
                       "\tCO:Z:x\r",
                       "\t\tNM:i:1",
                       "\tNM:i:1\t\tAS:i:2",
                       "\tXA:A:x\r\t"};

Texts const TAGS = {"NM", "XX", "a1", "::", "  ", "CG", "\r\r", "9_"};

Texts const FIELD_TYPES = {"A", "i", "f", "Z", "H", "B", "c", "C",  "s", "S",
                           "I", "z", "b", "F", ":", " ", "0", "\r", "d"};

Texts const TEXTS = {"", "x", "a:b", "hello world", "1AE301", "*", "\r", " ", "\x01\xFF", "x\r"};

// What stands where an optional number belongs.
Texts const OPTIONAL_NUMBERS = {"0",
                                "5",
                                "-3",
                                "+7",
                                " 8",
                                "\v9",
                                "\r10",
                                "12abc",
                                "3.7",
                                "007",
                                "-0",
                                "",
                                " ",
                                "-",
                                "+",
                                "x",
                                "--1",
                                "+-1",
                                "0x10",
                                "0X",
                                "0x",
                                "2147483647",
                                "2147483648",
                                "-2147483648",
                                "-2147483649",
                                "4294967295",
                                "300",
                                "-129",
                                "65536",
                                "99999999999999999999",
                                "1 2",
                                "5:6",
                                "5\r",
                                std::string("5\0"
                                            "6",
                                            3),
                                "1.5",
                                "-1.5",
                                ".5",
                                "5.",
                                ".",
                                "-.5",
                                "+.5",
                                "1e5",
                                "1e",
                                "1e+",
                                "1E-3",
                                "1e38",
                                "3.4028235e38",
                                "3.4028235677973366e38",
                                "3.4028236e38",
                                "1e39",
                                "-1e39",
                                "1e400",
                                "1.1754944e-38",
                                "1.17549435e-38",
                                "1.1754942e-38",
                                "1.4e-45",
                                "1e-40",
                                "-1e-40",
                                "1e-45",
                                "7e-46",
                                "1e-50",
                                "0e999",
                                "0e-999",
                                "0.0000000000000000000000000000000000000000000001",
                                "nan",
                                "NaN",
                                "-nan",
                                "nan(1)",
                                "nan(zz",
                                "NAN()",
                                "inf",
                                "-inf",
                                "+inf",
                                "INFINITY",
                                "infinit",
                                "in",
                                "na",
                                "0x1p3",
                                "-0x1.8p1",
                                "0x.8",
                                "0x1p-140",
                                "0x1p200",
                                "0xg",
                                "0X1P0",
                                "00x1",
                                "1,5",
                                "16777217",
                                "16777219",
                                "0.1",
                                "0.30000001192092896",
                                "9007199254740993",
                                "1e0000000000000000000005",
                                "340282356779733661637539395458142568447",
                                "340282356779733661637539395458142568448",
                                "1e-37x",
                                "1_0",
                                "1f",
                                "1L"};

constexpr char ELEMENT_LETTERS[] = {'c', 'C', 's', 'S', 'i', 'I', 'f'};

class LineGenerator {
public:
    // Yes, one time in n.
    bool one_in(std::size_t n) { return below(n) == 0; }

    std::size_t below(std::size_t n) { return static_cast<std::size_t>(random_() % n); }

    std::string const& one_of(Texts const& texts) { return texts[below(texts.size())]; }

    // A line most of which is in order, with an oddity or two in about half of
    // the lines.
    std::string line() {
        std::string text;
        bool const has_odd_number = one_in(6);
        bool const has_odd_separator = one_in(12);
        for (int column = QNAME; column <= QUAL; ++column) {
            if (column != QNAME) {
                text += has_odd_separator && one_in(8) ? one_of(SEPARATORS) : std::string("\t");
            }
            text += column_text(static_cast<SamColumn>(column), has_odd_number);
        }
        std::size_t const n_fields = one_in(2) ? below(6) : 0;
        bool const has_odd_field = one_in(4);
        for (std::size_t i = 0; i < n_fields; ++i) text += '\t' + field(has_odd_field);
        if (one_in(10)) text += one_of(ENDINGS);
        if (one_in(12)) drop_column(text);
        if (one_in(6)) change_bytes(text);
        return text;
    }

    // A line with long columns and arrays, and with an oddity in about half of the
    // lines.
    std::string long_line() {
        std::string const cigar = long_cigar(below(400));
        std::string const seq = letters_of(one_in(8) ? "=ACMGRSVTWYHKDBNU" : "ACGTN", below(400));
        std::string const qual = letters_of("!+5?I~", seq.size() + below(2));
        SamLine line = SamLine().with(CIGAR, cigar).with(SEQ, seq + "A").with(QUAL, qual + "I");
        std::size_t const n_fields = below(one_in(4) ? 80 : 4);
        for (std::size_t i = 0; i < n_fields; ++i) {
            line = line.field(one_in(2) ? "XB:B:" + long_array(below(200)) : "NM:i:7");
        }
        std::string text = line.text();
        if (one_in(2)) change_bytes(text);
        return text;
    }

    std::string long_cigar(std::size_t n_ops) {
        std::string text = "5S";
        bool const is_short = one_in(2);
        for (std::size_t i = 0; i < n_ops; ++i) {
            text += digits(is_short || !one_in(20) ? 3 : 11);
            text += "MIDNSHP=X"[below(9)];
        }
        return text;
    }

    // Elements of one digit, of up to three, or of any number of digits and sign.
    std::string long_array(std::size_t n_elements) {
        std::string text(1, ELEMENT_LETTERS[below(6)]);
        std::size_t const kind = below(3);
        for (std::size_t i = 0; i < n_elements; ++i) {
            text += kind == 2 && one_in(20) ? ",-" : ",";
            text += digits(kind == 0 ? 1 : kind == 2 && one_in(20) ? 9 : 3);
        }
        return text;
    }

    // A decimal number with digits and exponents of any size, where rounding is
    // hard now and then.
    std::string float_number() {
        std::string text = one_in(4) ? "-" : "";
        std::size_t const n_digits = 1 + below(one_in(5) ? 60 : 12);
        std::size_t const point = below(n_digits + 3);
        for (std::size_t i = 0; i < n_digits; ++i) {
            if (i == point) text += '.';
            text += static_cast<char>('0' + below(10));
        }
        if (one_in(2)) {
            text += one_in(2) ? 'e' : 'E';
            text += one_in(2) ? "-" : one_in(2) ? "+" : "";
            text += std::to_string(below(one_in(2) ? 12 : 50));
        }
        return text;
    }

    // The exact decimal text of a number halfway between two neighbouring
    // floats, or a hair's breadth beside it.
    std::string halfway_number() {
        auto const bits = static_cast<std::uint32_t>((90 + below(80)) << 23 | below(1U << 23));
        float lower = 0;
        std::memcpy(&lower, &bits, sizeof lower);
        std::uint32_t const upper_bits = bits + 1;
        float upper = 0;
        std::memcpy(&upper, &upper_bits, sizeof upper);
        char text[256];
        std::snprintf(text, sizeof text, "%.80f", (double{lower} + double{upper}) / 2);
        std::string const number = text;
        std::size_t const choice = below(3);
        if (choice == 1) return number + "000001";
        if (choice == 2) return number.substr(0, number.size() - 1 - below(60));
        return number;
    }

private:
    std::string column_text(SamColumn column, bool may_be_odd_number) {
        switch (column) {
            case QNAME:
            case RNAME:
            case RNEXT: return one_of(NAMES);
            case CIGAR: return one_of(CIGARS);
            case SEQ: return one_in(3) ? one_of(SEQS) : SEQS[below(8)];
            case QUAL: return one_of(QUALS);
            default: return may_be_odd_number && one_in(3) ? one_of(ODD_NUMBERS) : one_of(NUMBERS);
        }
    }

    std::string letters_of(std::string_view letters, std::size_t n) {
        std::string text;
        for (std::size_t i = 0; i < n; ++i) text += letters[below(letters.size())];
        return text;
    }

    // A number of one digit up to so many, with zeros in front now and then.
    std::string digits(std::size_t most) { return letters_of("0123456789", 1 + below(most)); }

    std::string number(bool may_be_odd) {
        if (one_in(3)) return one_in(4) ? halfway_number() : float_number();
        return OPTIONAL_NUMBERS[below(may_be_odd ? OPTIONAL_NUMBERS.size() : 11)];
    }

    std::string field(bool may_be_odd) {
        std::string const tag = may_be_odd && one_in(4) ? one_of(TAGS) : TAGS[below(3)];
        std::string const type =
            may_be_odd && one_in(6) ? one_of(FIELD_TYPES) : FIELD_TYPES[below(6)];
        std::string text = tag + ':' + type + ':';
        if (type == "i" || type == "f") {
            text += number(may_be_odd);
        } else if (type == "B") {
            text += array(may_be_odd);
        } else {
            text += one_of(TEXTS);
        }
        if (may_be_odd && one_in(10)) text.resize(below(text.size() + 1));
        return text;
    }

    std::string array(bool may_be_odd) {
        std::string text(1, ELEMENT_LETTERS[below(sizeof ELEMENT_LETTERS)]);
        bool const is_odd = may_be_odd && one_in(2);
        if (is_odd && one_in(3)) text = one_of(TEXTS);
        std::size_t const n_elements = below(6);
        for (std::size_t i = 0; i < n_elements; ++i) {
            text += is_odd && one_in(i == 0 ? 2 : 8) ? std::string("x") : std::string(",");
            text += number(is_odd && one_in(3));
        }
        return text;
    }

    void drop_column(std::string& text) {
        std::size_t const tab = text.find('\t', below(text.size() + 1));
        if (tab == std::string::npos) {
            text.resize(below(text.size() + 1));
        } else {
            text.erase(tab, text.find('\t', tab + 1) - tab);
        }
    }

    void change_bytes(std::string& text) {
        static std::string const BYTES =
            std::string("\t\t\t  \r\n\v\f+-0123456789.:,*=xXeEMB\x7F\x80\xFF") + '\0';
        for (std::size_t n = 1 + below(3); n != 0; --n) {
            std::size_t const at = below(text.size() + 1);
            char const byte = BYTES[below(BYTES.size())];
            std::size_t const change = below(3);
            if (change == 0 || at == text.size()) {
                text.insert(at, 1, byte);
            } else if (change == 1) {
                text[at] = byte;
            } else {
                text.erase(at, 1);
            }
        }
    }

    std::mt19937_64 random_{20240229};
};

// --- Tests -----------------------------------------------------------------

// Puts an odd text at every place of a long one, and in the place of every character.
template <typename MakeLine>
void compare_odd_places(Comparison& comparison, std::string const& text, Texts const& odd_texts,
                        MakeLine make_line) {
    for (std::size_t place = 0; place <= text.size(); ++place) {
        std::string const head = text.substr(0, place);
        for (std::string const& odd : odd_texts) {
            comparison.compare(make_line(head + odd + text.substr(place)));
            comparison.compare(
                make_line(head + odd + text.substr(std::min(place + 1, text.size()))));
        }
    }
}

TEST(SamTokeniser, LongCigar_OddTextAnywhere_ReadsAsWithStreams) {
    Comparison comparison(reference_names());
    LineGenerator random;
    Texts const odd_texts = {"Q", "Z", " ", "-", "123", "99999", "\xFF", std::string(1, '\0')};
    for (std::size_t const n_ops : {30U, 260U}) {
        compare_odd_places(comparison, random.long_cigar(n_ops), odd_texts,
                           [](auto const& cigar) { return SamLine().with(CIGAR, cigar).text(); });
    }
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), 1000U);
    EXPECT_GT(comparison.count("Invalid cigar op detected"), 1000U);
}

TEST(SamTokeniser, LongCigar_WithLettersOfOtherCodes_FollowsTheMap) {
    BAMFileHandler handler;
    handler.cigar_op_codes['M'] = 2;
    handler.cigar_op_codes['D'] = -1;
    handler.cigar_op_codes['Y'] = 0;
    std::string text;
    std::vector<std::uint32_t> expected;
    std::uint64_t expected_length = 0;
    for (std::uint32_t i = 0; i < 400; ++i) {
        text += std::to_string(i) + "MDYI"[i % 4];
        std::uint32_t const codes[] = {2, 0xFFFFFFFF, 0, 1};
        expected.push_back(i % 4 == 1 ? codes[1] : i << 4 | codes[i % 4]);
        if (i % 4 == 0 || i % 4 == 2) expected_length += i;
    }
    BamRecord record;
    unsigned long ref_length = 0;
    ASSERT_TRUE(handler.pack_cigar_string(text, record, ref_length, 0));
    EXPECT_EQ(record.cigar, expected);
    EXPECT_EQ(ref_length, expected_length);
}

TEST(SamTokeniser, LongArray_OddTextAnywhere_ReadsAsWithStreams) {
    Comparison comparison(reference_names());
    Texts const odd_texts = {",", "-", " ", "x", "123", "99999", "4294967296", "+1", ""};
    std::string const singles =
        "1,0,1,1,0,0,1,0,1,0,1,0,1,1,1,0,0,1,0,1,0,0,1,1,0,1,0,1,1,0,0,1,0,1,0,"
        "1,9,1,0,0,1,1,0,1,0,1,0,1,0,1,0,0,1,0,1,1,1,0,1,0";
    std::string const mixed =
        "255,0,17,128,3,99,100,254,1,10,42,77,200,5,5,5,64,32,16,8,4,2,1,0,190,13,"
        "28,250,31,9,7,111,222,33,44,55,66,0,0,1000,300,256";
    for (std::string const& elements : {singles, mixed}) {
        for (char const letter : ELEMENT_LETTERS) {
            compare_odd_places(comparison, elements, odd_texts, [&](auto const& text) {
                return SamLine().field(std::string("XB:B:") + letter + ',' + text).text();
            });
        }
    }
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), 5000U);
    EXPECT_GT(comparison.count(exception_text(std::out_of_range("stoi"))), 1000U);
}

TEST(SamTokeniser, LongSequence_OddBaseAnywhere_ReadsAsWithStreams) {
    Comparison comparison(reference_names());
    Texts const odd_texts = {"a", "U", "R", "=", ".", "", "\x80", "NN"};
    std::string const bases = "ACGTNACGTTGCAACGTACGTNNACGTACGATCGATCGGCTAGGCTAGCTAGCATC";
    compare_odd_places(comparison, bases, odd_texts,
                       [](auto const& seq) { return SamLine().with(SEQ, seq).text(); });
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), 100U);
    EXPECT_GT(comparison.count("Invalid sequence code detected"), 100U);
}

TEST(SamTokeniser, LongWord_ControlCharacterAnywhere_EndsAtWhiteSpaceAlone) {
    Comparison comparison(reference_names());
    Texts const odd_texts = {"\x01", "\x1F", "\v", "\f", "\r", " ", "\n", "\t", "\x7F", "\x80"};
    compare_odd_places(comparison, std::string(150, 'q'), odd_texts,
                       [](auto const& name) { return SamLine().with(QNAME, name).text(); });
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), 500U);
    EXPECT_GT(comparison.count("Malformed SAM line detected"), 500U);
}

TEST(SamTokeniser, OptionalFields_AnyNumberOfThem_ReadAsWithStreams) {
    Comparison comparison(reference_names());
    SamLine line;
    for (int i = 0; i < 140; ++i) {
        comparison.compare(line.text());
        comparison.compare(line.text() + '\t');
        line = line.field("XI:i:" + std::to_string(i));
    }
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_EQ(comparison.count("accepted"), 140U);
}

TEST(SamTokeniser, GeneratedLongLines_TwentyThousand_ReadAsWithStreams) {
    constexpr std::size_t N_LINES = 20000;
    Comparison comparison(reference_names());
    LineGenerator random;
    for (std::size_t i = 0; i < N_LINES; ++i) comparison.compare(random.long_line());
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), N_LINES / 4);
    EXPECT_GT(comparison.n_accepted_with_fields(), N_LINES / 8);
}

TEST(SamTokeniser, Line_OddTextInAnyColumn_ReadsAsWithStreams) {
    Comparison comparison(reference_names());
    for (int column = QNAME; column <= QUAL; ++column) {
        for (Texts const* texts : {&NUMBERS, &ODD_NUMBERS, &NAMES, &CIGARS, &SEQS, &QUALS,
                                   &SEPARATORS, &OPTIONAL_NUMBERS}) {
            for (std::string const& text : *texts) {
                for (char const* ending : {"", "\tNM:i:1", "\r", "\t"}) {
                    comparison.compare(SamLine().with(static_cast<SamColumn>(column), text).text() +
                                       ending);
                }
            }
        }
    }
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), 1000U);
    EXPECT_GT(comparison.count("Malformed SAM line detected"), 1000U);
}

TEST(SamTokeniser, Line_OddSeparatorOrEnding_ReadsAsWithStreams) {
    Comparison comparison(reference_names());
    std::string const line = SamLine().field("NM:i:1").field("XZ:Z:a b").text();
    for (std::size_t tab = line.find('\t'); tab != std::string::npos;
         tab = line.find('\t', tab + 1)) {
        for (std::string const& separator : SEPARATORS) {
            comparison.compare(line.substr(0, tab) + separator + line.substr(tab + 1));
        }
    }
    for (std::string const& ending : ENDINGS) {
        for (std::string const& beginning : SEPARATORS) {
            comparison.compare(beginning + SamLine().text() + ending);
            comparison.compare(beginning + line + ending);
        }
    }
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), 50U);
    EXPECT_GT(comparison.count("Invalid aux data detected"), 50U);
}

TEST(SamTokeniser, Line_CutAnywhere_ReadsAsWithStreams) {
    Comparison comparison(reference_names());
    std::string const line = " \v" +
                             SamLine()
                                 .with(FLAG, "+99")
                                 .with(TLEN, "-250")
                                 .field("XA:A:x")
                                 .field("NM:i:-12")
                                 .field("XF:f:-1.25e-3")
                                 .field("XZ:Z:a:b c")
                                 .field("XH:H:1AE3")
                                 .field("XB:B:s,1,-2,300")
                                 .text() +
                             "\r";
    for (std::size_t length = 0; length <= line.size(); ++length) {
        comparison.compare(line.substr(0, length));
        comparison.compare(line.substr(length));
        comparison.compare(line.substr(0, length) + '\r');
    }
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), 20U);
}

TEST(SamTokeniser, OptionalNumber_OddText_ReadsAsWithStdStoiAndStof) {
    Comparison comparison(reference_names());
    for (std::string const& number : OPTIONAL_NUMBERS) {
        comparison.compare(SamLine().field("XI:i:" + number).field("NM:i:1").text());
        comparison.compare(SamLine().field("XF:f:" + number).field("NM:i:1").text());
        for (char const letter : ELEMENT_LETTERS) {
            std::string const array = std::string("XB:B:") + letter;
            comparison.compare(SamLine().field(array + ',' + number).text());
            comparison.compare(SamLine().field(array + ",1," + number + ",2").text());
            comparison.compare(SamLine().field(array + ",1" + number).text());
        }
    }
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), 500U);
    EXPECT_GT(comparison.count(exception_text(std::invalid_argument("stoi"))), 50U);
    EXPECT_GT(comparison.count(exception_text(std::invalid_argument("stof"))), 20U);
    EXPECT_GT(comparison.count(exception_text(std::out_of_range("stoi"))), 20U);
    EXPECT_GT(comparison.count(exception_text(std::out_of_range("stof"))), 20U);
}

TEST(SamTokeniser, Float_AnyDigits_RoundsAsStdStof) {
    Comparison comparison(reference_names());
    LineGenerator random;
    for (int i = 0; i < 20000; ++i) {
        comparison.compare(SamLine().field("XF:f:" + random.float_number()).text());
        comparison.compare(SamLine().field("XF:f:" + random.halfway_number()).text());
    }
    EXPECT_EQ(comparison.n_differences(), 0U);
    EXPECT_GT(comparison.count("accepted"), 30000U);
}

TEST(SamTokeniser, GeneratedLines_QuarterOfAMillion_ReadAsWithStreams) {
    constexpr std::size_t N_LINES = 250000;
    Comparison comparison(reference_names());
    LineGenerator random;
    for (std::size_t i = 0; i < N_LINES; ++i) comparison.compare(random.line());

    EXPECT_EQ(comparison.n_lines(), N_LINES);
    EXPECT_EQ(comparison.n_differences(), 0U);
    for (auto const& [kind, n] : comparison.counts()) {
        std::cout << "[          ] " << n << " lines: " << kind << '\n';
    }
    // Every outcome that a line can have was compared, and often.
    EXPECT_GT(comparison.count("accepted"), N_LINES / 4);
    EXPECT_GT(comparison.n_accepted_with_fields(), N_LINES / 10);
    for (std::string const& kind : {
             std::string("Malformed SAM line detected"),
             std::string("Invalid aux data detected"),
             std::string("Invalid auxiliary data type) "),
             std::string("Invalid cigar op detected"),
             std::string("Invalid sequence code detected"),
             exception_text(std::invalid_argument("stoi")),
             exception_text(std::invalid_argument("stof")),
             exception_text(std::out_of_range("stoi")),
             exception_text(std::out_of_range("stof")),
             exception_text(std::runtime_error("Hit end of BAM buffer while writing data")),
         }) {
        EXPECT_GT(comparison.count(kind), N_LINES / 1000) << kind;
    }
}

}  // namespace
}  // namespace tesk::test

// The command that writes a page about a file: what it counts, how it chooses bins and
// ticks, and the page. Expectations are worked out by hand.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "interop/record_codec.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/process.h"
#include "tests/support/record_text.h"
#include "tests/support/temp_file.h"
#include "tests/support/tool_runner.h"
#include "tests/support/tool_samples.h"
#include "tools/bins.h"
#include "tools/coverage.h"
#include "tools/flag.h"
#include "tools/html_text.h"
#include "tools/modified_bases.h"
#include "tools/plot.h"
#include "tools/report_statistics.h"
#include "tools/summary.h"

namespace {

using namespace tesk::test;
using namespace tesk::tool;
using tesk::interop::RecordView;

// --- Texts ---------------------------------------------------------------------

struct TextCase {
    char const* label;
    std::string text;
    std::string expected;
};

TEST(HtmlText, AnyBytes_AreEscapedOrReplaced) {
    TextCase const cases[] = {
        {"nothing", "", ""},
        {"what means something", "<a href='x'>&\"", "&lt;a href=&#39;x&#39;&gt;&amp;&quot;"},
        {"characters of two to four bytes", "é€😀", "é€😀"},
        {"control characters", "a\n\x1f\x7f z", "a\uFFFD\uFFFD\uFFFD z"},
        {"control characters of two bytes", "\xC2\x80\xC2\x9F\xC2\xA0", "\uFFFD\uFFFD\xC2\xA0"},
        {"stray continuation", "\x80z", "\uFFFDz"},
        {"cut character", "\xE2\x82", "\uFFFD\uFFFD"},
        {"lead before a letter", "\xE2z", "\uFFFDz"},
        {"longer form than needed", "\xC0\xBC", "\uFFFD\uFFFD"},
        {"longer form of three bytes", "\xE0\x80\xBC", "\uFFFD\uFFFD\uFFFD"},
        {"surrogate", "\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
        {"beyond U+10FFFF", "\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"byte that begins nothing", "\xF5\xFF", "\uFFFD\uFFFD"},
    };
    for (TextCase const& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(html_text(c.text), c.expected);
    }
}

TEST(HtmlText, Elided_LongText_LosesItsMiddle) {
    TextCase const cases[] = {
        {"one less", "abcdefg", "abcdefg"},
        {"as long as may be", "abcdefgh", "abcdefgh"},
        {"one more", "abcdefghi", "abcd…ghi"},
        {"characters of several bytes", "ää€€ää€€ää", "ää€€…€ää"},
        {"no UTF-8", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", "\xFF\xFF\xFF\xFF…\xFF\xFF\xFF"},
    };
    for (TextCase const& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(elided(c.text, 8), c.expected);
    }
}

TEST(HtmlText, Numbers_OfAnySize_AreForPeople) {
    EXPECT_EQ(grouped(0), "0");
    EXPECT_EQ(grouped(999), "999");
    EXPECT_EQ(grouped(1000), "1,000");
    EXPECT_EQ(grouped(UINT64_MAX), "18,446,744,073,709,551,615");
    EXPECT_EQ(plain(1234.5, 2), "1234.50");
    EXPECT_EQ(decimal(1234.56, 1), "1,234.6");
    EXPECT_EQ(decimal(999999.5, 0), "1,000,000");
    EXPECT_EQ(three_digits(0), "0");
    EXPECT_EQ(three_digits(1234567.8), "1,234,568");
    EXPECT_EQ(three_digits(12.34), "12.3");
    EXPECT_EQ(three_digits(12.04), "12");
    EXPECT_EQ(three_digits(0.5), "0.5");
    EXPECT_EQ(three_digits(0.001234), "0.00123");
    EXPECT_EQ(three_digits(100), "100");
    EXPECT_EQ(counted(1, "read"), "1 read");
    EXPECT_EQ(counted(0, "read"), "0 reads");
    EXPECT_EQ(counted(1000, "read"), "1,000 reads");
}

// What is not all or nothing does not look so.
TEST(HtmlText, Percent_NearItsEnds_StaysApartFromThem) {
    struct PercentCase {
        std::uint64_t part;
        std::uint64_t whole;
        char const* expected;
    };
    constexpr PercentCase CASES[] = {
        {0, 0, ""},        {0, 7, "0%"},       {7, 7, "100%"},       {1, 3, "33.3%"},
        {1, 1000, "0.1%"}, {1, 1001, "<0.1%"}, {999, 1000, "99.9%"}, {1000, 1001, ">99.9%"},
        {1, 8, "12.5%"},   {1, 2, "50.0%"},
    };
    for (PercentCase const& c : CASES) EXPECT_EQ(percent(c.part, c.whole), c.expected) << c.part;
}

// --- Bins and ticks ------------------------------------------------------------

// Their edges, as many as there are at most.
std::string edges_text(Bins const& bins) {
    std::string text = bins.is_logarithmic ? "log" : "linear";
    for (Bin const& bin : bins.bins) text += " " + std::to_string(bin.begin);
    return text + " " + std::to_string(bins.bins.back().end);
}

TEST(Bins, Lengths_OfAnyRange_GetBinsOfEqualWidth) {
    struct BinsCase {
        char const* label;
        std::int64_t min;
        std::int64_t max;
        std::uint64_t n_values;
        char const* expected;
    };
    constexpr BinsCase CASES[] = {
        {"one length", 150, 150, 1000000, "linear 145 146 147 148 149 150 151 152 153 154 155 156"},
        {"one base", 1, 1, 1, "linear 1 2 3 4 5 6 7"},
        {"few reads of some lengths", 30, 149, 100,
         "linear 30 40 50 60 70 80 90 100 110 120 130 "
         "140 150"},
        {"below the first edge", 5, 1000, 100,
         "linear 1 100 200 300 400 500 600 700 800 900 1000 "
         "1100"},
        {"one base more", 5, 1001, 100, "log 4 7 10 16 26 40 64 100 159 252 399 631 1000 1585"},
        {"just not wide", 1000, 9999, 100,
         "linear 1000 2000 3000 4000 5000 6000 7000 8000 9000 "
         "10000"},
        {"just wide", 1000, 10000, 100,
         "log 1000 1259 1585 1996 2512 3163 3982 5012 6310 7944 10000 12590"},
    };
    for (BinsCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(edges_text(length_bins(c.min, c.max, c.n_values)), c.expected);
    }
}

TEST(Bins, ManyValues_GetMoreBins) {
    EXPECT_EQ(length_bins(1, 151, 100).bins.size(), 8U);             // 20 lengths each
    EXPECT_EQ(length_bins(1, 151, 1000000).bins.size(), 76U);        // 2
    EXPECT_EQ(length_bins(100, 999999, 100).bins.size(), 20U);       // 5 a decade
    EXPECT_EQ(length_bins(100, 999999, 10000).bins.size(), 40U);     // 10
    EXPECT_EQ(length_bins(1000, 999999, 1000000).bins.size(), 60U);  // 20
}

// Bins of all lengths lie side by side and hold every length; counts go where they belong.
TEST(Bins, EveryRange_HoldsItsEnds) {
    for (std::int64_t const min : {1, 2, 9, 10, 99, 150, 1000, 12345}) {
        for (std::int64_t const more : {0, 1, 9, 10, 89, 90, 1000, 99999, 2147471302}) {
            for (std::uint64_t const n : {1U, 100U, 1000000U}) {
                std::int64_t const max = min + more;
                SCOPED_TRACE(std::to_string(min) + " to " + std::to_string(max));
                Bins bins = length_bins(min, max, n);
                ASSERT_GE(bins.bins.front().begin, 1);
                ASSERT_LE(bins.bins.front().begin, min);
                ASSERT_GT(bins.bins.back().end, max);
                ASSERT_LE(bins.bins.size(), 80U);
                for (std::size_t i = 0; i + 1 < bins.bins.size(); ++i) {
                    ASSERT_LT(bins.bins[i].begin, bins.bins[i].end);
                    ASSERT_EQ(bins.bins[i].end, bins.bins[i + 1].begin);
                }
                bins.add(min, 3);
                bins.add(max, 4);
                std::uint64_t sum = 0;
                for (Bin const& bin : bins.bins) {
                    bool const holds_min = bin.begin <= min && min < bin.end;
                    bool const holds_max = bin.begin <= max && max < bin.end;
                    EXPECT_EQ(bin.count, (holds_min ? 3U : 0U) + (holds_max ? 4U : 0U));
                    sum += bin.count;
                }
                EXPECT_EQ(sum, 7U);
            }
        }
    }
}

// The labels of one class, in the order of the drawing.
std::string labels_of(std::string const& svg, std::string const& css_class) {
    std::string labels;
    std::string const begin = "<text class=\"" + css_class + "\"";
    for (std::size_t at = svg.find(begin); at != std::string::npos; at = svg.find(begin, at + 1)) {
        std::size_t const from = svg.find('>', at) + 1;
        if (!labels.empty()) labels += ' ';
        labels += svg.substr(from, svg.find('<', from) - from);
    }
    return labels;
}

Plot plot_of_counts(std::vector<std::uint64_t> const& counts) {
    Plot plot;
    plot.id = "plot";
    plot.x_title = "value";
    plot.y_noun = "read";
    for (std::size_t i = 0; i < counts.size(); ++i) {
        auto const at = static_cast<double>(i);
        plot.bars.push_back({at, at + 1, counts[i], std::to_string(i)});
    }
    plot.end = static_cast<double>(counts.size());
    plot.ticks_end = 0;
    return plot;
}

TEST(Plot, CountAxis_OfAnyHeight_HasWholeTicksUpToTheHighestBar) {
    struct TickCase {
        std::uint64_t highest;
        char const* ticks;
        char const* title;
    };
    constexpr TickCase CASES[] = {
        {0, "0 1", "Reads value"},
        {1, "0 1", "Reads value"},
        {3, "0 1 2 3", "Reads value"},
        {6, "0 2 4 6", "Reads value"},
        {11, "0 5 10 15", "Reads value"},
        {99999, "0 20 40 60 80 100", "Reads, thousands value"},
        {80000, "0 20,000 40,000 60,000 80,000", "Reads value"},
        {12345678, "0 5,000 10,000 15,000", "Reads, thousands value"},
        {123456789, "0 50 100 150", "Reads, millions value"},
        {3000000000000, "0 1,000 2,000 3,000", "Reads, billions value"},
    };
    for (TickCase const& c : CASES) {
        SCOPED_TRACE(c.highest);
        Plot const plot = plot_of_counts({c.highest});
        EXPECT_EQ(labels_of(svg_of(plot), "tick"), c.ticks);
        EXPECT_EQ(labels_of(svg_of(plot), "name"), c.title);
    }
}

TEST(Plot, ValueAxis_OfAnyRange_HasAsManyTicksAsFit) {
    struct AxisCase {
        char const* label;
        bool is_logarithmic;
        double begin;
        double end;
        char const* ticks;
    };
    constexpr AxisCase CASES[] = {
        {"few values", false, 0, 10, "0 1 2 3 4 5 6 7 8 9 10"},
        {"tens", false, -0.5, 60.5, "0 5 10 15 20 25 30 35 40 45 50 55 60"},
        {"thousands", false, 995, 1205, "1,000 1,050 1,100 1,150 1,200"},
        {"large numbers", false, 1e6, 5e6, "2,000,000 4,000,000"},
        {"one decade", true, 100, 1000, "100 200 500 1,000"},
        {"many decades", true, 1, 2e6, "1 100 10,000 1,000,000"},
    };
    for (AxisCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        Plot plot = plot_of_counts({1});
        plot.is_logarithmic = c.is_logarithmic;
        plot.bars[0].begin = plot.begin = c.begin;
        plot.bars[0].end = plot.end = plot.ticks_end = c.end;
        EXPECT_EQ(labels_of(svg_of(plot), "tick"), std::string("0 1 ") + c.ticks);
    }
}

TEST(Plot, GivenTicks_AreDrawnAndOthersKeepAway) {
    Plot plot = plot_of_counts({1});
    plot.bars[0].end = plot.end = 66;
    plot.ticks_end = 60;
    plot.given_ticks = {{62, "255"}};
    EXPECT_EQ(labels_of(svg_of(plot), "tick"), "0 1 0 5 10 15 20 25 30 35 40 45 50 55 255");
    plot.ticks_end = 0;
    plot.begin = 1;  // where no whole number has a tick
    EXPECT_EQ(labels_of(svg_of(plot), "tick"), "0 1 255");
}

TEST(Plot, Bars_OfCounts_AreAsHighAsTheyCount) {
    std::string const svg = svg_of(plot_of_counts({0, 1000, 250, 1}));
    // Bars stand on 188 and end at 44 at the top of the axis, 1,000.
    EXPECT_NE(svg.find("height=\"144.00\"><title>1: 1,000 reads</title>"), std::string::npos)
        << svg;
    EXPECT_NE(svg.find("height=\"36.00\"><title>2: 250 reads</title>"), std::string::npos);
    // A rare value can still be seen.
    EXPECT_NE(svg.find("height=\"1.00\"><title>3: 1 read</title>"), std::string::npos);
    EXPECT_EQ(svg.find("<title>0: "), std::string::npos);
}

// --- Coverage ------------------------------------------------------------------

std::vector<std::uint32_t> packed(std::string_view cigar) {
    std::vector<std::uint32_t> operations;
    std::uint32_t length = 0;
    for (char const c : cigar) {
        std::size_t const code = tesk::interop::CIGAR_OPERATIONS.find(c);
        if (code == std::string_view::npos) {
            length = 10 * length + static_cast<std::uint32_t>(c - '0');
        } else {
            operations.push_back(length << 4U | static_cast<std::uint32_t>(code));
            length = 0;
        }
    }
    return operations;
}

void cover(Coverage& coverage, std::int32_t pos, std::string_view cigar) {
    std::vector<std::uint32_t> const operations = packed(cigar);
    coverage.add(pos, {reinterpret_cast<char const*>(operations.data()), operations.size(), false});
}

std::vector<double> depths(Coverage const& coverage) {
    std::vector<double> result;
    for (std::size_t i = 0; i < coverage.n_bins(); ++i) result.push_back(coverage.depth(i));
    return result;
}

TEST(Coverage, Operations_OfEachKind_CoverWhatTheyAlign) {
    struct CoverageCase {
        char const* label;
        std::int32_t pos;
        char const* cigar;
        std::array<int, 4> bases;  // of bins of 5
    };
    constexpr CoverageCase CASES[] = {
        {"M inside a bin", 0, "5M", {5, 0, 0, 0}},
        {"M over an edge", 3, "4M", {2, 2, 0, 0}},
        {"M over whole bins", 4, "12M", {1, 5, 5, 1}},
        {"= and X", 4, "3=2X", {1, 4, 0, 0}},
        {"D is not covered", 3, "2M3D2M", {2, 2, 0, 0}},
        {"N is not covered", 0, "1M10N1M", {1, 0, 1, 0}},
        {"I, S, H and P take no place", 0, "2H1S2M3I2P2M1S4H", {4, 0, 0, 0}},
        {"beyond the end", 15, "10M", {0, 0, 0, 5}},
        {"wholly beyond the end", 25, "10M", {0, 0, 0, 0}},
        {"N beyond the end", 18, "1M100N1M", {0, 0, 0, 1}},
        {"no CIGAR", 3, "", {0, 0, 0, 0}},
        {"the largest operations", 0, "268435455N268435455M", {0, 0, 0, 0}},
    };
    for (CoverageCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        Coverage coverage(20, 4);
        cover(coverage, c.pos, c.cigar);
        std::vector<double> expected;
        double sum = 0;
        for (int const bases : c.bases) {
            expected.push_back(bases / 5.0);
            sum += bases;
        }
        EXPECT_EQ(depths(coverage), expected);
        EXPECT_EQ(coverage.mean_depth(), sum / 20);
    }
}

TEST(Coverage, Alignments_InAnyOrder_AddUp) {
    Coverage coverage(20, 4);
    for (std::int32_t const pos : {10, 0, 19, 12, 4}) cover(coverage, pos, "2M");
    EXPECT_EQ(depths(coverage), (std::vector<double>{0.6, 0.2, 0.8, 0.2}));
    EXPECT_EQ(coverage.mean_depth(), 9.0 / 20);
}

TEST(Coverage, Bins_OfAnyLength_LastOneMayBeShorter) {
    struct LengthCase {
        std::int32_t length;
        std::size_t n_bins;
        std::int64_t width;
    };
    constexpr LengthCase CASES[] = {{0, 0, 1},
                                    {1, 1, 1},
                                    {2, 2, 1},
                                    {3, 3, 1},
                                    {4, 2, 2},
                                    {7, 3, 3},
                                    {INT32_MAX, 3, 715827883}};
    for (LengthCase const& c : CASES) {
        SCOPED_TRACE(c.length);
        Coverage coverage(c.length, 3);
        EXPECT_EQ(coverage.n_bins(), c.n_bins);
        EXPECT_EQ(coverage.bin_width(), c.width);
        cover(coverage, 0, "268435455M");
        EXPECT_EQ(coverage.mean_depth(), c.length == 0           ? 0
                                         : c.length == INT32_MAX ? 268435455.0 / INT32_MAX
                                                                 : 1);
    }
    Coverage coverage(7, 3);
    cover(coverage, 5, "2M");
    EXPECT_EQ(depths(coverage), (std::vector<double>{0, 1.0 / 3, 1}));
}

TEST(Coverage, Coarser_ByAnyFactor_KeepsTheBases) {
    Coverage coverage(7, 7);
    cover(coverage, 1, "3M");
    cover(coverage, 6, "1M");
    EXPECT_EQ(depths(coverage.coarser(1)), depths(coverage));
    EXPECT_EQ(depths(coverage.coarser(2)), (std::vector<double>{0.5, 1, 0, 1}));
    EXPECT_EQ(depths(coverage.coarser(3)), (std::vector<double>{2.0 / 3, 1.0 / 3, 1}));
    EXPECT_EQ(depths(coverage.coarser(9)), (std::vector<double>{4.0 / 7}));
    EXPECT_EQ(coverage.coarser(2).bin_width(), 2);
    EXPECT_EQ(coverage.coarser(2).mean_depth(), 4.0 / 7);
}

// --- Modified bases ------------------------------------------------------------

// An unmapped read with these optional fields.
std::string read_with(std::string const& bases, std::string const& fields, int flag = 4) {
    return "r\t" + std::to_string(flag) + "\t*\t0\t0\t*\t*\t0\t0\t" + bases + "\t*\t" + fields;
}

// Kinds as "C+m 1 reads 2 calls 200 50", a semicolon between them; values in rising
// order. Then the numbers of faults, where there are any.
std::string calls_text(ModifiedBases const& modified_bases) {
    std::string text;
    for (Modification const& kind : modified_bases.sorted_kinds()) {
        if (!text.empty()) text += "; ";
        text += std::string(1, kind.base) + kind.strand + kind.code + " " +
                std::to_string(kind.n_reads) + " reads " + std::to_string(kind.n_calls) + " calls";
        for (std::size_t value = 0; value < kind.by_probability.size(); ++value) {
            for (std::uint64_t n = kind.by_probability[value]; n > 0; --n) {
                text += " " + std::to_string(value);
            }
        }
    }
    constexpr std::pair<ModificationFault, char const*> FAULTS[] = {
        {ModificationFault::SYNTAX, "syntax"},
        {ModificationFault::PROBABILITIES, "probabilities"},
        {ModificationFault::POSITIONS, "positions"}};
    for (auto const& [fault, name] : FAULTS) {
        if (modified_bases.n_faulty(fault) != 0) text += std::string("fault of ") + name;
    }
    return text;
}

struct CallCase {
    char const* label;
    char const* bases;
    char const* fields;
    char const* expected;
};

std::string calls_in(std::string const& line) {
    ModifiedBases modified_bases;
    std::string const record = encode_bam_record(line, {});
    modified_bases.add(RecordView(record.data()));
    return calls_text(modified_bases);
}

TEST(ModifiedBases, Fields_OfEveryForm_AreCounted) {
    constexpr CallCase CASES[] = {
        {"no fields", "ACGT", "NM:i:0\tMX:Z:C+m,0;", ""},
        {"skipped bases", "CACGC", "Mm:Z:C+m,0,1;\tMl:B:C,200,50", "C+m 1 reads 2 calls 50 200"},
        {"newer tags", "CACGC", "MM:Z:C+m,0,1;\tML:B:C,200,50", "C+m 1 reads 2 calls 50 200"},
        {"Ml first", "C", "Ml:B:C,255\tXX:i:1\tMm:Z:C+m,0;", "C+m 1 reads 1 calls 255"},
        {"skipped bases unknown", "CC", "Mm:Z:C+m?,1;\tMl:B:C,0", "C+m 1 reads 1 calls 0"},
        {"skipped bases unmodified", "CC", "Mm:Z:C+m.,1;\tMl:B:C,7", "C+m 1 reads 1 calls 7"},
        {"two codes in turn", "CC", "Mm:Z:C+mh,0,0;\tMl:B:C,10,20,30,40",
         "C+h 1 reads 2 calls 20 40; C+m 1 reads 2 calls 10 30"},
        {"two groups", "CA", "Mm:Z:C+m,0;A+a,0;\tMl:B:C,1,2",
         "A+a 1 reads 1 calls 2; C+m 1 reads 1 calls 1"},
        {"number of a database", "C", "Mm:Z:C+76792,0;\tMl:B:C,9", "C+76792 1 reads 1 calls 9"},
        {"any base", "AC", "Mm:Z:N+n,1;\tMl:B:C,9", "N+n 1 reads 1 calls 9"},
        {"U is T", "AT", "Mm:Z:U+g,0;\tMl:B:C,9", "U+g 1 reads 1 calls 9"},
        {"other strand", "CG", "Mm:Z:C+m,0;G-m,0;\tMl:B:C,1,2",
         "C+m 1 reads 1 calls 1; G-m 1 reads 1 calls 2"},
        {"no probabilities", "CC", "Mm:Z:C+m,0,0;", "C+m 1 reads 2 calls"},
        {"no groups", "C", "Mm:Z:\tMl:B:C", ""},
        {"no positions", "C", "Mm:Z:C+m;\tMl:B:C", "C+m 1 reads 0 calls"},
        {"no code", "C", "Mm:Z:C+?,0;\tMl:B:C,3", "C+ 1 reads 1 calls 3"},
        {"no bases to compare with", "*", "Mm:Z:C+m,5;\tMl:B:C,3", "C+m 1 reads 1 calls 3"},
    };
    for (CallCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(calls_in(read_with(c.bases, c.fields)), c.expected);
    }
}

TEST(ModifiedBases, MalformedFields_AreFaultsAndCountNothing) {
    constexpr CallCase CASES[] = {
        {"no end", "C", "Mm:Z:C+m,0\tMl:B:C,1", "fault of syntax"},
        {"good group before it", "C", "Mm:Z:C+m,0;C\tMl:B:C,1", "fault of syntax"},
        {"no base", "C", "Mm:Z:X+m,0;\tMl:B:C,1", "fault of syntax"},
        {"lower-case base", "C", "Mm:Z:c+m,0;\tMl:B:C,1", "fault of syntax"},
        {"no strand", "C", "Mm:Z:Cm,0;\tMl:B:C,1", "fault of syntax"},
        {"letters and digits", "C", "Mm:Z:C+m5,0;\tMl:B:C,1", "fault of syntax"},
        {"both signs of skipped bases", "C", "Mm:Z:C+m?.,0;\tMl:B:C,1", "fault of syntax"},
        {"no number", "C", "Mm:Z:C+m,;\tMl:B:C,1", "fault of syntax"},
        {"number below 0", "C", "Mm:Z:C+m,-1;\tMl:B:C,1", "fault of syntax"},
        {"no comma", "C", "Mm:Z:C+m 0;\tMl:B:C,1", "fault of syntax"},
        {"no text", "C", "Mm:i:5\tMl:B:C,1", "fault of syntax"},
        {"probabilities alone", "C", "Ml:B:C,1", "fault of syntax"},
        {"one too few", "CC", "Mm:Z:C+m,0,0;\tMl:B:C,1", "fault of probabilities"},
        {"one too many", "CC", "Mm:Z:C+m,0;\tMl:B:C,1,2", "fault of probabilities"},
        {"two codes, one value", "CC", "Mm:Z:C+mh,0;\tMl:B:C,1", "fault of probabilities"},
        {"array of another type", "C", "Mm:Z:C+m,0;\tMl:B:c,1", "fault of probabilities"},
        {"no array", "C", "Mm:Z:C+m,0;\tMl:A:C", "fault of probabilities"},
        {"one base too far", "CAC", "Mm:Z:C+m,0,1;\tMl:B:C,1,2", "fault of positions"},
        {"beyond the read", "CAC", "Mm:Z:N+m,3;\tMl:B:C,1", "fault of positions"},
        {"a huge number", "CAC", "Mm:Z:C+m,99999999999999999999;\tMl:B:C,1", "fault of positions"},
        {"sum of huge numbers", "CAC", "Mm:Z:C+m,4294967295,4294967295;\tMl:B:C,1,2",
         "fault of positions"},
    };
    for (CallCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(calls_in(read_with(c.bases, c.fields)), c.expected);
    }
}

// The read as it was sequenced is the reverse complement of SEQ.
TEST(ModifiedBases, ReverseRecord_CountsComplementaryBases) {
    constexpr int REVERSE = 20;
    EXPECT_EQ(calls_in(read_with("GAG", "Mm:Z:C+m,1;\tMl:B:C,1", REVERSE)),
              "C+m 1 reads 1 calls 1");
    EXPECT_EQ(calls_in(read_with("GAG", "Mm:Z:C+m,2;\tMl:B:C,1", REVERSE)), "fault of positions");
    EXPECT_EQ(calls_in(read_with("CCA", "Mm:Z:T+g,0;\tMl:B:C,1", REVERSE)),
              "T+g 1 reads 1 calls 1");
    EXPECT_EQ(calls_in(read_with("CCA", "Mm:Z:C+m,0;\tMl:B:C,1", REVERSE)), "fault of positions");
}

TEST(ModifiedBases, MoreKindsThanAreKept_AreSummedUp) {
    std::size_t constexpr N_KINDS = ModifiedBases::MAX_KINDS + 3;
    std::string calls = "Mm:Z:";
    std::string probabilities = "Ml:B:C";
    for (std::size_t i = 0; i < N_KINDS; ++i) {
        calls += "C+" + std::to_string(i) + ",0,0;";
        probabilities += ",1,2";
    }
    ModifiedBases modified_bases;
    std::string const record = encode_bam_record(read_with("CC", calls + "\t" + probabilities), {});
    modified_bases.add(RecordView(record.data()));
    EXPECT_EQ(modified_bases.sorted_kinds().size(), ModifiedBases::MAX_KINDS);
    EXPECT_EQ(modified_bases.n_calls_of_other_kinds(), 6U);
    EXPECT_EQ(modified_bases.n_reads(), 1U);
}

// --- Statistics ----------------------------------------------------------------

Summary summary_of(std::vector<Reference> const& references) {
    Summary summary;
    for (Reference const& reference : references) {
        summary.references.push_back({reference.name, reference.length, {}});
    }
    return summary;
}

ReportStatistics statistics_of(std::vector<Reference> const& references,
                               std::vector<std::string> const& lines) {
    ReportStatistics statistics(summary_of(references));
    for (std::string const& line : lines) {
        std::string const record = encode_bam_record(line, references);
        statistics.add(RecordView(record.data()));
    }
    return statistics;
}

std::string mapped(int flag, std::string const& reference, int pos, int mapq,
                   std::string const& cigar, std::string const& bases = "*",
                   std::string const& qualities = "*") {
    return "r\t" + std::to_string(flag) + "\t" + reference + "\t" + std::to_string(pos) + "\t" +
           std::to_string(mapq) + "\t" + cigar + "\t*\t0\t0\t" + bases + "\t" + qualities;
}

TEST(ReportStatistics, Records_OfEveryKind_AreCountedByFlag) {
    ReportStatistics const statistics =
        statistics_of(REFERENCES, {
                                      mapped(0, "chr1", 1, 60, "2M", "AC", "II"),
                                      mapped(99, "chr1", 1, 60, "2M", "AC", "II"),
                                      mapped(256, "chr1", 1, 3, "2M"),
                                      mapped(2048, "chr2", 1, 60, "2M", "AC", "II"),
                                      mapped(2304, "chr2", 1, 60, "2M", "AC", "II"),
                                      mapped(1024 + 512, "chr2", 1, 9, "2M", "AC", "II"),
                                      mapped(4, "chr2", 1, 0, "*", "ACG", "III"),
                                      mapped(4, "*", 0, 0, "*", "ACGT", "IIII"),
                                      mapped(0, "*", 0, 255, "*", "A", "I"),
                                  });
    Summary const& summary = statistics.summary();
    EXPECT_EQ(summary.counts.records, 9U);
    EXPECT_EQ(summary.counts.mapped, 7U);
    EXPECT_EQ(statistics.n_primary(), 6U);
    EXPECT_EQ(statistics.flags().with(FLAG_SECONDARY), 2U);
    EXPECT_EQ(statistics.flags().with(FLAG_SUPPLEMENTARY, FLAG_SECONDARY), 1U);
    EXPECT_EQ(statistics.flags().with(FLAG_PAIRED | FLAG_PROPER_PAIR), 1U);
    EXPECT_EQ(statistics.flags().with(FLAG_DUPLICATE), 1U);
    EXPECT_EQ(statistics.flags().with(0), 9U);
    EXPECT_EQ(summary.references[0].counts.mapped, 3U);
    EXPECT_EQ(summary.references[1].counts.mapped, 3U);
    EXPECT_EQ(statistics.n_mapped_without_reference(), 1U);
    // Mapped primary ones.
    EXPECT_EQ(statistics.mapping_qualities()[60], 2U);
    EXPECT_EQ(statistics.mapping_qualities()[9], 1U);
    EXPECT_EQ(statistics.mapping_qualities()[255], 1U);
    EXPECT_EQ(statistics.mapping_qualities()[3], 0U);
    EXPECT_EQ(statistics.mapping_qualities()[0], 0U);
    // Lengths of primary ones: 2, 2, 2, 3, 4, 1.
    auto const lengths = summary.read_lengths.summary();
    ASSERT_TRUE(lengths);
    EXPECT_EQ(lengths->records, 6U);
    EXPECT_EQ(lengths->bases, 14U);
    EXPECT_EQ(lengths->n50, 3);
    EXPECT_EQ(lengths->median, 2);
}

TEST(ReportStatistics, Coverage_LeavesOutWhatSaysLittleOfDepth) {
    struct RecordCase {
        char const* label;
        int flag;
        bool counts;
    };
    constexpr RecordCase CASES[] = {
        {"primary", 0, true},       {"supplementary", 2048, true}, {"secondary", 256, false},
        {"duplicate", 1024, false}, {"failed checks", 512, false}, {"unmapped", 4, false},
    };
    for (RecordCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        ReportStatistics const statistics =
            statistics_of(REFERENCES, {mapped(c.flag, "chr2", 11, 60, "5M")});
        EXPECT_EQ(statistics.coverage(0), nullptr);
        ASSERT_EQ(statistics.coverage(1) != nullptr, c.counts);
        if (!c.counts) continue;
        EXPECT_EQ(statistics.coverage(1)->mean_depth(), 5.0 / 500);
    }
}

TEST(ReportStatistics, Coverage_OfReferenceWithoutBases_IsNothing) {
    ReportStatistics const statistics =
        statistics_of({{"none", 0}}, {mapped(0, "none", 1, 60, "5M")});
    ASSERT_NE(statistics.coverage(0), nullptr);
    EXPECT_EQ(statistics.coverage(0)->n_bins(), 0U);
    EXPECT_EQ(statistics.coverage(0)->mean_depth(), 0);
}

// Of very many references each has fewer bins, so that memory stays bounded.
TEST(ReportStatistics, Coverage_OfManyReferences_HasFewerBins) {
    struct BinsCase {
        std::size_t n_references;
        std::size_t n_bins;
    };
    constexpr BinsCase CASES[] = {{1, 300}, {13981, 300}, {13982, 299}, {500000, 10}};
    for (BinsCase const& c : CASES) {
        SCOPED_TRACE(c.n_references);
        Summary summary = summary_of({{"first", 3000000}});
        summary.references.resize(c.n_references);
        ReportStatistics statistics(std::move(summary));
        std::string const record =
            encode_bam_record(mapped(0, "first", 1, 60, "5M"), {{"first", 3000000}});
        statistics.add(RecordView(record.data()));
        ASSERT_NE(statistics.coverage(0), nullptr);
        EXPECT_EQ(statistics.coverage(0)->n_bins(), c.n_bins);
    }
}

TEST(ReportStatistics, Cigar_OfEveryOperation_CountsThemAndTheirBases) {
    ReportStatistics const statistics = statistics_of(
        REFERENCES, {mapped(0, "chr1", 1, 60, "2H1S2M3I2P2M4N1=2D1X1S4H"),
                     mapped(256, "chr1", 1, 60, "7M"), mapped(4, "chr1", 1, 60, "9M")});
    // In the order M I D N S H P = X.
    EXPECT_EQ(statistics.cigar().operations,
              (std::array<std::uint64_t, 9>{3, 1, 1, 1, 2, 2, 1, 1, 1}));
    EXPECT_EQ(statistics.cigar().bases, (std::array<std::uint64_t, 9>{11, 3, 2, 4, 2, 6, 2, 1, 1}));
}

// Its operations are in a CG field, and the CIGAR holds a placeholder.
TEST(ReportStatistics, CigarOfManyOperations_IsTakenFromItsField) {
    constexpr std::size_t N_PAIRS = 40000;
    std::string cigar;
    for (std::size_t i = 0; i < N_PAIRS; ++i) cigar += "1M1I";
    std::string const bases(2 * N_PAIRS, 'A');
    ReportStatistics const statistics =
        statistics_of({{"chr1", 100000}}, {mapped(0, "chr1", 1, 60, cigar, bases)});
    EXPECT_EQ(statistics.cigar().operations,
              (std::array<std::uint64_t, 9>{N_PAIRS, N_PAIRS, 0, 0, 0, 0, 0, 0, 0}));
    ASSERT_NE(statistics.coverage(0), nullptr);
    EXPECT_EQ(statistics.coverage(0)->mean_depth(), 0.4);
    EXPECT_EQ(statistics.coverage(0)->depth(0), 1);
}

TEST(ReportStatistics, Qualities_OfReads_ComeFromErrorProbabilities) {
    struct QualityCase {
        char const* label;
        char const* qualities;
        std::size_t tenth;
    };
    constexpr QualityCase CASES[] = {
        {"certain to be wrong", "!", 0},
        {"10 and 20: 0.055", "+5", 126},
        {"one of each lane and one more: 0.082", "+++5+", 109},
        {"all 40", "IIIIIIII", 400},
        {"the highest", "~~~", 930},
        {"0 beside 93: one half", "!~", 30},
    };
    for (QualityCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        std::string const qualities = c.qualities;
        ReportStatistics const statistics = statistics_of(
            {}, {mapped(4, "*", 0, 0, "*", std::string(qualities.size(), 'A'), qualities)});
        auto const& reads = statistics.qualities().reads_by_tenth();
        for (std::size_t tenth = 0; tenth < reads.size(); ++tenth) {
            EXPECT_EQ(reads[tenth], tenth == c.tenth ? 1U : 0U) << tenth;
        }
        auto const bases = statistics.qualities().bases();
        std::array<std::uint64_t, QualityCounts::N_SCORES> expected{};
        for (char const q : qualities) ++expected[static_cast<std::size_t>(q - '!')];
        EXPECT_EQ(bases, expected);
    }
}

TEST(ReportStatistics, Qualities_OfAFile_AreMeanOfBasesAndMedianOfReads) {
    std::vector<std::string> lines = {mapped(4, "*", 0, 0, "*", "A", "+"),
                                      mapped(4, "*", 0, 0, "*", "AAA", "???"),
                                      mapped(4, "*", 0, 0, "*", "A", "5")};
    ReportStatistics const odd = statistics_of({}, lines);
    // (0.1 + 3 * 0.001 + 0.01) / 5 = 0.0226
    EXPECT_NEAR(*odd.qualities().mean_of_bases(), 16.4589, 0.0001);
    EXPECT_EQ(odd.qualities().median_of_reads(), 20);
    lines.push_back(mapped(4, "*", 0, 0, "*", "A", "6"));
    EXPECT_EQ(statistics_of({}, lines).qualities().median_of_reads(), 20.5);
}

TEST(ReportStatistics, ReadsWithoutQualitiesOrBases_AreCountedApart) {
    ReportStatistics const statistics =
        statistics_of({}, {mapped(4, "*", 0, 0, "*", "AC"), mapped(4, "*", 0, 0, "*")});
    EXPECT_EQ(statistics.n_without_qualities(), 1U);
    EXPECT_EQ(statistics.n_primary(), 2U);
    EXPECT_EQ(statistics.summary().read_lengths.summary()->records, 1U);
    EXPECT_FALSE(statistics.qualities().mean_of_bases());
    EXPECT_FALSE(statistics.qualities().median_of_reads());
}

TEST(ReportStatistics, NoRecords_NothingIsThere) {
    ReportStatistics const statistics = statistics_of(REFERENCES, {});
    EXPECT_EQ(statistics.n_primary(), 0U);
    EXPECT_FALSE(statistics.summary().read_lengths.summary());
    EXPECT_EQ(statistics.coverage(0), nullptr);
    EXPECT_EQ(statistics.modified_bases().n_reads(), 0U);
}

TEST(ReportStatistics, ModifiedBases_OfPrimaryRecords_AreCounted) {
    std::string const fields = "Mm:Z:C+m,0;\tMl:B:C,9";
    ReportStatistics const statistics =
        statistics_of({}, {read_with("C", fields), read_with("C", fields, 4 + 256),
                           read_with("C", fields, 4 + 2048)});
    EXPECT_EQ(calls_text(statistics.modified_bases()), "C+m 1 reads 1 calls 9");
}

TEST(ReadLengths, Median_OfAnyNumber_IsTheMiddleOrBetween) {
    struct MedianCase {
        char const* label;
        std::vector<std::int32_t> lengths;
        double median;
    };
    MedianCase const cases[] = {
        {"one", {7}, 7},
        {"two", {7, 10}, 8.5},
        {"three", {10, 1, 2}, 2},
        {"the same ones", {5, 5, 5, 1}, 5},
        {"between different ones", {1, 1, 9, 9}, 5},
        {"the largest", {INT32_MAX, INT32_MAX}, INT32_MAX},
    };
    for (MedianCase const& c : cases) {
        SCOPED_TRACE(c.label);
        ReadLengths lengths;
        for (std::int32_t const length : c.lengths) lengths.add(length);
        EXPECT_EQ(lengths.summary()->median, c.median);
    }
}

// --- The command ---------------------------------------------------------------

// The page of a file's bytes.
std::string page_of(std::string const& bytes) {
    TempDir const dir;
    std::string const in = dir.write("reads", bytes);
    std::string const out = dir.file("page.html");
    expect_done(run_tool({"report", in, out, "--quiet"}));
    EXPECT_EQ(names_in(dir.path()), (Names{"page.html", "reads"}));
    return read_file(out);
}

bool holds(std::string const& text, std::string const& part) {
    return text.find(part) != std::string::npos;
}

std::string row(std::string const& name, std::string const& values) {
    return "<tr><th scope=\"row\">" + name + "</th><td>" + values + "</td>";
}

TEST(Report, Sample_OfEitherFormat_HasItsNumbers) {
    std::string const page = page_of(sample_sam());
    EXPECT_EQ(page.rfind("<!DOCTYPE html>\n<html lang=\"en\">\n", 0), 0U);
    EXPECT_EQ(page.substr(page.size() - 16), "</body>\n</html>\n");
    for (std::string const& part : {
             std::string("<title>reads</title>"),
             row("All", "4</td><td>100%"),
             row("Mapped", "2</td><td>50.0%"),
             row("Bases", "12"),
             row("N50", "6"),
             row("Median length", "4"),
             row("chr1", "1</td><td>25.0%"),
             row("chr2", "1</td><td>25.0%"),
             std::string("None: the file was taken as it stands"),
             std::string("SAM · sort order SO:unsorted · 2 references"),
             std::string("<desc id=\"coverage-1-desc\">1,000 bases · mean depth 0.005 · up to 1 "
                         "in bins of 4 bases</desc>"),
         }) {
        EXPECT_TRUE(holds(page, part)) << part;
    }
    std::string other = page_of(sample_bam());
    std::size_t const format = other.find("BAM · sort order");
    ASSERT_NE(format, std::string::npos);
    EXPECT_EQ(other.replace(format, 1, "S"), page);
}

TEST(Report, StandardInputAndOutput_AreRead_AndWritten) {
    TempDir const dir;
    std::string const in = dir.write("reads", sample_sam());
    std::string const out = dir.file("page.HTM");
    expect_done(run_shell("\"$0\" report - \"$2\" < \"$1\"", {in, out}));
    std::string const page = read_file(out);
    EXPECT_TRUE(holds(page, "<h1><bdi>standard input</bdi></h1>"));
    ProcessResult const printed = run_shell("\"$0\" report - - < \"$1\"", {in});
    expect_done(printed);
    EXPECT_EQ(printed.output, page);
}

TEST(Report, NoRecords_SentencesStandForPlots) {
    for (std::string const& text : {std::string(), std::string(HEADER)}) {
        std::string const page = page_of(text);
        EXPECT_FALSE(holds(page, "<svg"));
        for (char const* const sentence :
             {"No primary record has bases.", "No primary record has qualities.",
              "The file has no records.", "No primary record is mapped.",
              "No mapped record has a CIGAR.", "No bases are aligned to a reference."}) {
            EXPECT_TRUE(holds(page, std::string("<p class=\"empty\">") + sentence + "</p>"))
                << sentence;
        }
        EXPECT_FALSE(holds(page, "Modified bases"));
    }
}

TEST(Report, UnmappedReads_HaveLengthsAndModificationsAlone) {
    std::string const page = page_of(read_with("CACGC", "Mm:Z:C+m,0,1;\tMl:B:C,200,50") + "\n" +
                                     read_with("C", "Mm:Z:C+m,1;\tMl:B:C,200") + "\n");
    EXPECT_TRUE(holds(page,
                      "<tr><th scope=\"row\">C+m</th><td class=\"words\">5mC</td><td>1</td>"
                      "<td>2</td><td>1</td><td>50.0%</td>"));
    EXPECT_TRUE(holds(page, "<li>1 read not counted: Mm names more bases than the read has</li>"));
    EXPECT_TRUE(holds(page, "<title>200 to 207: 1 call</title>"));
    EXPECT_TRUE(holds(page, "No primary record is mapped."));
    EXPECT_TRUE(holds(page, "No primary record has qualities."));
}

// Names may hold anything but tabs and line ends.
TEST(Report, AwkwardNames_AreEscapedAndCutInTheMiddle) {
    std::string const name = "</b><script>\"'&" + std::string(40, 'W') + "end";
    std::string const page = page_of("@SQ\tSN:" + name + "\tLN:1000\n" +
                                     mapped(0, name, 1, 60, "4M", "ACGT", "IIII") + "\n");
    EXPECT_FALSE(holds(page, "<script"));
    std::string const whole = "&lt;/b&gt;&lt;script&gt;&quot;&#39;&amp;" + std::string(40, 'W') +
                              "end\">&lt;/b&gt;&lt;script&gt;&quot;&#39;…WWWWWWWWWWend<";
    EXPECT_TRUE(holds(page, "<th scope=\"row\" title=\"" + whole)) << page;
    EXPECT_TRUE(holds(page, "<b title=\"" + whole));

    TempDir const dir;
    std::string const in = dir.write("<i>\xFF&.sam", sample_sam());
    expect_done(run_tool({"report", in, dir.file("page.html")}));
    EXPECT_TRUE(holds(read_file(dir.file("page.html")), "<h1><bdi>&lt;i&gt;\uFFFD&amp;.sam</bdi>"));
}

TEST(Report, ManyReferences_TheFirstAreShownAndTheOthersSummedUp) {
    std::string text;
    std::string lines;
    for (int i = 1; i <= 300; ++i) {
        std::string const name = "ref" + std::to_string(i);
        text += "@SQ\tSN:" + name + "\tLN:1000\n";
        // The later, the more records: one for each ten, begun.
        for (int k = 0; k < (i + 9) / 10; ++k) {
            lines += mapped(0, name, 1, 60, "4M", "ACGT", "IIII") + "\n";
        }
    }
    std::string const page = page_of(text + lines);  // 10 * (1 + ... + 30) = 4,650
    EXPECT_TRUE(holds(page, "<tr><th scope=\"row\">ref300</th><td>30</td><td>0.6%</td>"));
    EXPECT_TRUE(holds(page,
                      "<tr class=\"rest\"><th scope=\"row\">280 other references</th>"
                      "<td>4,060</td><td>87.3%</td>"));
    EXPECT_TRUE(holds(page, "Depth along the 30 references with most records"));
    EXPECT_TRUE(holds(page, "<b>ref271</b>"));
    EXPECT_FALSE(holds(page, "<b>ref270</b>"));
    EXPECT_TRUE(holds(page, row("ref270", "1,000</td><td>27</td><td>0.108")));
    EXPECT_TRUE(holds(page, "Another 70 references with fewer records are not listed"));
}

TEST(Report, Repairs_AreOnThePageAndNoted) {
    TempDir const dir;
    std::string const in = dir.write("reads", read_with("acgt", "XA:A:x") + "\n");
    std::string const out = dir.file("page.html");
    std::string const finding =
        "repaired: SEQ has lower-case bases: changed to upper case (once, in line 1)";
    ProcessResult const result = run_tool({"report", in, out});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors, "tesk-bam: note: " + in + ": " + finding + "\n");
    EXPECT_TRUE(holds(read_file(out), "<li>" + finding + "</li>"));
    expect_done(run_tool({"report", in, out, "--quiet"}));
}

// A pattern of the shell that matches two alignment files must not overwrite one.
TEST(Report, OutputThatIsNoPage_IsWrongUse) {
    TempDir const dir;
    std::string const in = dir.write("a.bam", sample_bam());
    for (char const* const name : {"b.bam", "b", ".sam", "html", "b.html.gz", ""}) {
        SCOPED_TRACE(name);
        std::string const out = dir.file(name);
        expect_failure(run_tool({"report", in, out}), 2,
                       "the page's name must end in .html: " + out);
    }
    EXPECT_EQ(names_in(dir.path()), (Names{"a.bam"}));
}

TEST(Report, InputAtFault_OldPageStays) {
    TempDir const dir;
    std::string const out = dir.write("page.html", "old page");
    std::string const missing = dir.file("missing");
    expect_failure(run_tool({"report", missing, out}), 1,
                   "cannot open " + missing + ": No such file or directory");
    std::string const broken = dir.write("broken", sample_sam() + "r5\t0\n");
    expect_failure(run_tool({"report", broken, out}), 1,
                   broken + ": line 9: 11 columns are needed, 2 are there");
    std::string const cut = dir.write("cut", bgzf_blocks(bam_payload(HEADER, LINES)));
    expect_failure(run_tool({"report", cut, out}), 1,
                   cut +
                       ": the block that marks the end of a BGZF file is missing: the file may "
                       "have been cut short");
    EXPECT_EQ(read_file(out), "old page");
    EXPECT_EQ(names_in(dir.path()), (Names{"broken", "cut", "page.html"}));
    EXPECT_EQ(run_tool({"report", cut, out, "--allow-missing-eof"}).exit_status, 0);
    EXPECT_TRUE(holds(read_file(out), "<li>warning: the end-of-file block is missing"));
}

TEST(Report, OutputAtFault_IsErrorAndOldPageStays) {
    TempDir const dir;
    std::string const in = dir.write("reads", sample_sam());
    std::string const lost = dir.file("missing/page.html");
    expect_failure(run_tool({"report", in, lost}), 1,
                   "cannot create a file beside " + lost + ": No such file or directory");
    expect_failure(run_shell("exec \"$0\" report \"$1\" - > /dev/full", {in}), 1,
                   "cannot write to standard output: No space left on device");
    std::string const out = dir.write("page.html", "old page");
    expect_failure(run_shell("ulimit -f 8; exec \"$0\" report \"$1\" \"$2\"", {in, out}), 1,
                   "cannot write to " + out + ": File too large");
    EXPECT_EQ(read_file(out), "old page");
    EXPECT_EQ(names_in(dir.path()), (Names{"page.html", "reads"}));
}

TEST(Report, OnTerminal_ProgressIsShownAndGone) {
    TempDir const dir;
    std::string const in = dir.write("reads.sam", sample_sam());
    std::string const printed = tool_on_terminal({"report", in, dir.file("page.html")});
    EXPECT_EQ(printed.rfind("\rreading reads.sam", 0), 0U);
    EXPECT_EQ(printed.substr(printed.size() - 4), "\r\x1b[K");
    EXPECT_EQ(tool_on_terminal({"report", in, dir.file("page.html"), "--quiet"}), "");
}

}  // namespace

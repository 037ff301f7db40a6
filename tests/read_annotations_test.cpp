// The texts that annotate a basecaller's reads: unmapped SAM lines, move tables,
// contexts and calls of modified bases; checked by hand, and against readers
// and rules of the tests' own.

#include "util/bam/bam_file.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/annotation_readers.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/bam_walker.h"
#include "tests/support/record_text.h"
#include "tests/support/temp_file.h"

namespace {

using namespace tesk::test;
using tesk::util::bam::BaseModContext;
using Handler = tesk::util::bam::BAMFileHandler;
using ByteView = tesk::data_wrappers::VecView<unsigned char>;
using Bytes = std::vector<unsigned char>;
using Mask = std::vector<int>;
using namespace std::string_literals;

// What output strings hold before a call that may leave them alone.
constexpr char OLD_OUT[] = "old output";
constexpr char OLD_ERROR[] = "old error";

constexpr char MISMATCH[] =
    "Mismatch between modbase_probs size and sequence length * num channels in modbase_alphabet!";
constexpr char NO_CONTEXT_TEXT[] = "Invalid base modification context string.";
constexpr char UNKNOWN_NAME[] = "Unknown modified base abbreviation: ";
constexpr char NO_MOVES[] = "Zero length move table provided to generate_move_table_string";

// Elements that lie `step` apart in a heap buffer which ends right after the
// last of them, so that the address sanitizer sees one read too many. Between
// them lie other bytes than theirs.
class StridedBytes {
public:
    StridedBytes(Bytes const& elements, std::size_t step)
        : size_(elements.size()),
          step_(step),
          buffer_(new unsigned char[size_ == 0 ? 0 : (size_ - 1) * step + 1]) {
        for (std::size_t k = 0; k < size_; ++k) {
            buffer_[k * step] = elements[k];
            if (k + 1 == size_) break;
            for (std::size_t gap = 1; gap < step; ++gap) {
                buffer_[k * step + gap] = static_cast<unsigned char>(elements[k] + 101 * gap);
            }
        }
    }

    ByteView view() const { return {buffer_.get(), size_, step_}; }

private:
    std::size_t size_;
    std::size_t step_;
    std::unique_ptr<unsigned char[]> buffer_;
};

// How a call ended ("true", "false", or an exception and its text) and what its
// two output strings hold.
std::string ending(std::string const& result, std::string const& out, std::string const& error) {
    return result + "\nout   " + in_quotes(out) + "\nerror " + in_quotes(error);
}
std::string success(std::string const& out) { return ending("true", out, OLD_ERROR); }
std::string failure(std::string const& out, std::string const& error) {
    return ending("false", out, error);
}

// Type and text of the exception that a call leaves with.
template <typename Call>
std::string exception_of(Call call) {
    try {
        call();
    } catch (std::out_of_range const& e) {
        return std::string("out_of_range ") + e.what();
    } catch (std::runtime_error const& e) {
        return std::string("runtime_error ") + e.what();
    }
    return "none";
}

// Runs a call that takes an output and an error string.
template <typename Call>
std::string ending_of(Call call) {
    std::string out = OLD_OUT;
    std::string error = OLD_ERROR;
    bool done = false;
    std::string const exception = exception_of([&] { done = call(out, error); });
    return ending(exception == "none" ? (done ? "true" : "false") : exception, out, error);
}

// ---------------------------------------------------------------------------
// Unmapped lines
// ---------------------------------------------------------------------------

std::string unmapped_line(std::string const& name, std::string const& sequence,
                          std::string const& qualities) {
    return ending_of([&](std::string& out, std::string& error) {
        return Handler::make_unmapped_sam_line(out, name, sequence, qualities, error);
    });
}

TEST(UnmappedLine, FourBases_ElevenColumnsJoinedByTabs) {
    EXPECT_EQ(unmapped_line("r1", "ACGT", "IIII"),
              success("r1\t4\t*\t0\t0\t*\t*\t0\t4\tACGT\tIIII"));
}

TEST(UnmappedLine, Tlen_IsDeliberatelyTheNumberOfBases) {
    for (std::size_t const n : {1U, 9U, 10U, 11U, 255U, 256U, 65535U, 65536U, 100000U}) {
        SCOPED_TRACE(n);
        std::string const sequence(n, 'G');
        std::string const qualities(n, '#');
        std::ostringstream expected;
        expected << "r\t4\t*\t0\t0\t*\t*\t0\t" << n << '\t' << sequence << '\t' << qualities;
        EXPECT_EQ(unmapped_line("r", sequence, qualities), success(expected.str()));
    }
}

TEST(UnmappedLine, AnyCharacters_AreCopiedUnchecked) {
    struct Case {
        char const* label;
        std::string name, sequence, qualities;
    };
    for (Case const& c :
         {Case{"no bases and scores", "@", "xyz", " \x7f\x1f"},
          Case{"tab and newline", "a\tb\n", "\t\n", "\n\t"},
          Case{"blanks at both ends", " name ", " AC ", " !! "},
          Case{"NUL", "n\0m"s, "A\0"s, "\0I"s}, Case{"high bytes", "\xff\x80", "\xff", "\xfe"}}) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(unmapped_line(c.name, c.sequence, c.qualities),
                  success(c.name + "\t4\t*\t0\t0\t*\t*\t0\t" + std::to_string(c.sequence.size()) +
                          '\t' + c.sequence + '\t' + c.qualities));
    }
}

TEST(UnmappedLine, BadArguments_FirstFailedCheckIsReportedAndOutputUntouched) {
    static constexpr char LENGTHS[] = "sequence and qscore do not match size!";
    static constexpr char NAME[] = "Empty read_name string provided!";
    static constexpr char SEQUENCE[] = "Empty sequence and qstring provided!";
    struct Case {
        char const* label;
        char const* name;
        char const* sequence;
        char const* qualities;
        char const* message;
    };
    constexpr Case CASES[] = {
        {"one score too few", "r1", "ACGTA", "IIII", LENGTHS},
        {"one score too many", "r1", "ACGT", "IIIII", LENGTHS},
        {"one score too few and no name", "", "ACGTA", "IIII", LENGTHS},
        {"one score too many and no name", "", "ACGT", "IIIII", LENGTHS},
        {"no sequence, but scores", "r1", "", "I", LENGTHS},
        {"no scores, but a sequence", "r1", "A", "", LENGTHS},
        {"scores alone", "", "", "I", LENGTHS},
        {"no name", "", "ACGT", "IIII", NAME},
        {"nothing at all", "", "", "", NAME},
        {"a name alone", "r1", "", "", SEQUENCE},
    };
    for (Case const& c : CASES) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(unmapped_line(c.name, c.sequence, c.qualities), failure(OLD_OUT, c.message));
    }
}

TEST(UnmappedLine, OutputIsAnInput_SameLineAsWithStringsOfTheirOwn) {
    std::string const expected = "AC\t4\t*\t0\t0\t*\t*\t0\t2\tAC\tAC";
    std::string error = OLD_ERROR;
    std::string text = "AC";
    std::string const other = "AC";
    EXPECT_TRUE(Handler::make_unmapped_sam_line(text, text, other, other, error));
    EXPECT_EQ(text, expected) << "the name";
    text = "AC";
    EXPECT_TRUE(Handler::make_unmapped_sam_line(text, other, text, other, error));
    EXPECT_EQ(text, expected) << "the sequence";
    text = "AC";
    EXPECT_TRUE(Handler::make_unmapped_sam_line(text, other, other, text, error));
    EXPECT_EQ(text, expected) << "the qualities";
    text = "AC";
    EXPECT_TRUE(Handler::make_unmapped_sam_line(text, text, text, text, error));
    EXPECT_EQ(text, expected) << "all three";
    EXPECT_EQ(error, OLD_ERROR);

    text = "AC";
    EXPECT_FALSE(Handler::make_unmapped_sam_line(text, other, text, "I", error));
    EXPECT_EQ(text, "AC") << "on failure";
}

TEST(UnmappedLine, OutputIsAnInputTooLongForAShortString_SameLine) {
    std::string const bases(5000, 'T');
    std::string const line = bases + "\t4\t*\t0\t0\t*\t*\t0\t5000\t" + bases + '\t' + bases;
    std::string error;
    std::string text = bases;
    EXPECT_TRUE(Handler::make_unmapped_sam_line(text, text, text, text, error));
    EXPECT_EQ(text, line);
}

TEST(UnmappedLine, ErrorIsAnInput_StillReceivesTheMessage) {
    std::string out = OLD_OUT;
    std::string text = "ACGT";
    EXPECT_FALSE(Handler::make_unmapped_sam_line(out, "r1", text, "III", text));
    EXPECT_EQ(text, "sequence and qscore do not match size!");
    EXPECT_EQ(out, OLD_OUT);
    text = "ACGT";
    EXPECT_TRUE(Handler::make_unmapped_sam_line(out, text, text, text, text));
    EXPECT_EQ(text, "ACGT");
    EXPECT_EQ(out, "ACGT\t4\t*\t0\t0\t*\t*\t0\t4\tACGT\tACGT");
}

// ---------------------------------------------------------------------------
// Move tables
// ---------------------------------------------------------------------------

std::string move_table(ByteView const& moves, signed char stride) {
    return ending_of([&](std::string& out, std::string& error) {
        return Handler::generate_move_table_string(out, moves, stride, error);
    });
}

std::string move_table(Bytes const& moves, signed char stride) {
    return move_table(StridedBytes(moves, 1).view(), stride);
}

TEST(MoveTable, ThreeMoves_FieldWithStrideAndMoves) {
    EXPECT_EQ(move_table(Bytes{1, 0, 1}, 5), success("mv:B:c,5,1,0,1"));
}

TEST(MoveTable, Value_WrittenInRunsOf127AndARestWhichMayBeZero) {
    struct Case {
        unsigned char value;
        char const* text;
    };
    constexpr Case CASES[] = {
        {0, "0"},         {1, "1"},         {9, "9"},           {10, "10"},
        {99, "99"},       {100, "100"},     {125, "125"},       {126, "126"},
        {127, "127,0"},   {128, "127,1"},   {129, "127,2"},     {200, "127,73"},
        {252, "127,125"}, {253, "127,126"}, {254, "127,127,0"}, {255, "127,127,1"},
    };
    for (Case const& c : CASES) {
        SCOPED_TRACE(int{c.value});
        EXPECT_EQ(move_table(Bytes{c.value}, 5), success("mv:B:c,5,"s + c.text));
        EXPECT_EQ(move_table(Bytes{3, c.value, 4}, 5), success("mv:B:c,5,3,"s + c.text + ",4"));
    }
}

TEST(MoveTable, OneEntryOfZero_IsWritten) {
    EXPECT_EQ(move_table(Bytes{0}, 10), success("mv:B:c,10,0"));
}

TEST(MoveTable, Stride_IsWrittenSignedAndNeverSplit) {
    struct Case {
        signed char stride;
        char const* text;
    };
    constexpr Case CASES[] = {{-128, "-128"}, {-127, "-127"}, {-10, "-10"}, {-3, "-3"},
                              {-1, "-1"},     {0, "0"},       {1, "1"},     {5, "5"},
                              {10, "10"},     {126, "126"},   {127, "127"}};
    for (Case const& c : CASES) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(move_table(Bytes{1}, c.stride), success("mv:B:c,"s + c.text + ",1"));
    }
}

TEST(MoveTable, EmptyView_FailsAndLeavesTheOutputUntouched) {
    EXPECT_EQ(move_table(ByteView{nullptr, 0, 1}, 5), failure(OLD_OUT, NO_MOVES));
    EXPECT_EQ(move_table(Bytes{}, 5), failure(OLD_OUT, NO_MOVES));
    unsigned char const byte = 1;
    EXPECT_EQ(move_table(ByteView{&byte, 0, 7}, 5), failure(OLD_OUT, NO_MOVES));
}

TEST(MoveTable, ViewWithStepTwo_EverySecondByte) {
    Bytes const bytes = {1, 9, 0, 9, 1};
    EXPECT_EQ(move_table(ByteView{bytes.data(), 3, 2}, 5), success("mv:B:c,5,1,0,1"));
}

TEST(MoveTable, ViewWithStepZero_TheSameByteAgain) {
    unsigned char const byte = 127;
    EXPECT_EQ(move_table(ByteView{&byte, 3, 0}, 5), success("mv:B:c,5,127,0,127,0,127,0"));
}

TEST(MoveTable, ColumnOfARowMajorMatrix_ItsElementsAlone) {
    constexpr unsigned char MATRIX[3][4] = {{1, 2, 3, 255}, {4, 5, 6, 128}, {7, 8, 9, 0}};
    EXPECT_EQ(move_table(ByteView{&MATRIX[0][0], 3, 4}, 1), success("mv:B:c,1,1,4,7"));
    EXPECT_EQ(move_table(ByteView{&MATRIX[0][2], 3, 4}, 1), success("mv:B:c,1,3,6,9"));
    EXPECT_EQ(move_table(ByteView{&MATRIX[0][3], 3, 4}, 1), success("mv:B:c,1,127,127,1,127,1,0"));
    EXPECT_EQ(move_table(ByteView{&MATRIX[1][0], 4, 1}, 1), success("mv:B:c,1,4,5,6,127,1"));
}

TEST(MoveTable, AllByteValues_ReadBackFromTheField) {
    MoveTable table;
    table.stride = -7;
    for (unsigned value = 0; value < 256; ++value) table.moves.push_back(value);
    StridedBytes const bytes(Bytes(table.moves.begin(), table.moves.end()), 3);
    std::string out;
    std::string error;
    ASSERT_TRUE(Handler::generate_move_table_string(out, bytes.view(), -7, error));
    EXPECT_EQ(read_move_table(out), table) << out;
}

// Lengths around which work done in blocks could go wrong.
std::vector<std::size_t> critical_lengths() {
    std::vector<std::size_t> lengths;
    for (std::size_t n = 1; n <= 140; ++n) lengths.push_back(n);
    for (std::size_t const size : {256U, 512U, 1024U, 2048U, 4096U, 8192U}) {
        for (std::size_t n = size - 9; n <= size + 9; ++n) lengths.push_back(n);
    }
    return lengths;
}

TEST(MoveTable, TablesOfEveryLength_TextOfEveryEntryInOrder) {
    std::mt19937 random(20240610);
    for (std::size_t const length : critical_lengths()) {
        SCOPED_TRACE(length);
        for (unsigned const largest : {1U, 9U, 10U, 126U, 127U, 255U}) {
            Bytes moves(length);
            std::string expected = "mv:B:c,12";
            for (unsigned char& move : moves) {
                move = static_cast<unsigned char>(random() % (largest + 1));
                unsigned rest = move;
                for (; rest > 126; rest -= 127) expected += ",127";
                expected += ',' + std::to_string(rest);
            }
            ASSERT_EQ(move_table(StridedBytes(moves, 1).view(), 12), success(expected));
            ASSERT_EQ(move_table(StridedBytes(moves, 2).view(), 12), success(expected));
        }
    }
}

TEST(MoveTable, RandomTables_ReadBackFromTheField) {
    std::mt19937 random(20240611);
    std::string out;
    std::string error;
    for (int round = 0; round < 2000; ++round) {
        SCOPED_TRACE(round);
        std::size_t const size = 1 + (round % 100 == 0 ? random() % 20000 : random() % 60);
        unsigned const largest = round % 3 == 0 ? 2 : 256;  // mostly as in life: 0 and 1
        Bytes moves(size);
        for (unsigned char& move : moves) move = static_cast<unsigned char>(random() % largest);
        MoveTable const table{static_cast<int>(random() % 256) - 128, {moves.begin(), moves.end()}};
        StridedBytes const bytes(moves, 1 + random() % 5);
        ASSERT_TRUE(Handler::generate_move_table_string(
            out, bytes.view(), static_cast<signed char>(table.stride), error));
        ASSERT_EQ(read_move_table(out), table) << out;
    }
    EXPECT_EQ(error, "");
}

// ---------------------------------------------------------------------------
// Contexts of modifications
// ---------------------------------------------------------------------------

BaseModContext context_of(std::string const& text) {
    BaseModContext context;
    EXPECT_TRUE(context.decode(text)) << text;
    return context;
}

// Motif and offset of each base: "A 1 GATC, C 0 -, ...".
std::string contexts_text(BaseModContext const& context) {
    std::string text;
    for (char const base : {'A', 'C', 'G', 'T'}) {
        text += base + (" " + std::to_string(context.motif_offset(base))) + ' ' +
                in_quotes(context.motif(base)) + '\n';
    }
    return text;
}

constexpr char NO_CONTEXTS[] = "A 0 \"\"\nC 0 \"\"\nG 0 \"\"\nT 0 \"\"\n";

TEST(ModContext, Default_NoContextsAndMaskOfZeros) {
    BaseModContext const context;
    EXPECT_EQ(context.encode(), "_:_:_:_");
    EXPECT_EQ(contexts_text(context), NO_CONTEXTS);
    EXPECT_EQ(context.get_sequence_mask("ACGT"), (Mask{0, 0, 0, 0}));
}

TEST(ModContext, SetContext_BaseIsTheLetterAtTheOffset) {
    BaseModContext context;
    context.set_context("CG", 0);
    EXPECT_EQ(context.encode(), "_:XG:_:_");
    EXPECT_EQ(context.motif('C'), "CG");
    EXPECT_EQ(context.motif_offset('C'), 0U);
    EXPECT_EQ(contexts_text(context), "A 0 \"\"\nC 0 \"CG\"\nG 0 \"\"\nT 0 \"\"\n");

    BaseModContext other;
    other.set_context("CG", 1);
    EXPECT_EQ(other.encode(), "_:_:CX:_");
    EXPECT_EQ(contexts_text(other), "A 0 \"\"\nC 0 \"\"\nG 1 \"CG\"\nT 0 \"\"\n");
}

TEST(ModContext, SetContext_EveryBaseHasItsOwn) {
    BaseModContext context;
    context.set_context("GATC", 1);
    context.set_context("CG", 0);
    EXPECT_EQ(context.encode(), "GXTC:XG:_:_");
    context.set_context("ACT", 2);
    context.set_context("G", 0);
    EXPECT_EQ(context.encode(), "GXTC:XG:X:ACX");
    EXPECT_EQ(contexts_text(context), "A 1 \"GATC\"\nC 0 \"CG\"\nG 0 \"G\"\nT 2 \"ACT\"\n");
}

TEST(ModContext, SetContextAgain_ReplacesMotifAndOffset) {
    BaseModContext context;
    context.set_context("GATC", 3);
    context.set_context("CG", 0);
    EXPECT_EQ(context.encode(), "_:XG:_:_");
    context.set_context("CCWGG", 1);
    EXPECT_EQ(context.encode(), "_:CXWGG:_:_");
    EXPECT_EQ(context.motif_offset('C'), 1U);
}

TEST(ModContext, SetContext_OtherLettersOfTheMotifAreNotChecked) {
    BaseModContext context;
    context.set_context("n\0?T"s, 3);
    EXPECT_EQ(context.motif('T'), "n\0?T"s);
    EXPECT_EQ(context.motif_offset('T'), 3U);
}

TEST(ModContext, SetContext_OffsetNotInsideTheMotif_ThrowsAndChangesNothing) {
    BaseModContext context = context_of("GXTC:XG:_:CX");
    std::string const before = contexts_text(context);
    EXPECT_NO_THROW(context_of("_:_:_:_").set_context("CG", 1));
    EXPECT_THROW(context.set_context("CG", 2), std::out_of_range);
    EXPECT_THROW(context.set_context("CG", 3), std::out_of_range);
    EXPECT_THROW(context.set_context("CG", std::numeric_limits<std::size_t>::max()),
                 std::out_of_range);
    EXPECT_THROW(context.set_context("", 0), std::out_of_range);
    EXPECT_EQ(contexts_text(context), before);
}

TEST(ModContext, SetContext_NoCanonicalBaseAtTheOffset_ThrowsAndChangesNothing) {
    BaseModContext context = context_of("GXTC:XG:_:CX");
    std::string const before = contexts_text(context);
    EXPECT_EQ(exception_of([&] { context.set_context("NG", 0); }),
              "runtime_error Invalid motif string 'NG'.");
    EXPECT_EQ(exception_of([&] { context.set_context("", 0); }).substr(0, 12), "out_of_range");
    int n_accepted = 0;
    for (int value = 0; value < 256; ++value) {
        char const letter = static_cast<char>(value);
        std::string const motif = std::string("C") + letter + "G";
        if (letter == 'A' || letter == 'C' || letter == 'G' || letter == 'T') {
            EXPECT_NO_THROW(BaseModContext().set_context(motif, 1)) << letter;
            ++n_accepted;
            continue;
        }
        // what() ends at a NUL, wherever the text does.
        std::string const text = "runtime_error Invalid motif string '" + motif + "'.";
        EXPECT_EQ(exception_of([&] { context.set_context(motif, 1); }), text.c_str()) << value;
    }
    EXPECT_EQ(n_accepted, 4);
    EXPECT_EQ(contexts_text(context), before);
}

TEST(ModContext, MotifAndOffset_OfAnythingButFourLetters_ThrowMapAt) {
    BaseModContext const context = context_of("GXTC:XG:X:CX");
    for (int value = 0; value < 256; ++value) {
        SCOPED_TRACE(value);
        char const base = static_cast<char>(value);
        bool const canonical = base == 'A' || base == 'C' || base == 'G' || base == 'T';
        std::string const expected = canonical ? "none" : "out_of_range map::at";
        EXPECT_EQ(exception_of([&] { (void)context.motif(base); }), expected);
        EXPECT_EQ(exception_of([&] { (void)context.motif_offset(base); }), expected);
    }
}

struct MaskCase {
    char const* label;
    char const* context;
    char const* sequence;
    Mask mask;
};

TEST(ModContext, SequenceMask_MarksTheBasesThatStandInTheirContext) {
    std::vector<MaskCase> const cases = {
        {"motif at the end is not seen", "_:XG:_:_", "CGCG", {1, 0, 0, 0}},
        {"one base more", "_:XG:_:_", "CGCGA", {1, 0, 1, 0, 0}},
        {"no occurrence", "_:XG:_:_", "CACTCCA", {0, 0, 0, 0, 0, 0, 0}},
        {"every C but a last one", "_:X:_:_", "CACC", {1, 0, 1, 0}},
        {"every C, none last", "_:X:_:_", "CCACA", {1, 1, 0, 1, 0}},
        {"every base but the last", "X:X:X:X", "ACGT", {1, 1, 1, 0}},
        {"read of one base", "X:X:X:X", "A", {0}},
        {"empty read", "X:XG:X:X", "", {}},
        {"offset 1, second ends with the read", "GXTC:_:_:_", "GATCGATC", {0, 1, 0, 0, 0, 0, 0, 0}},
        {"offset 1, one base more", "GXTC:_:_:_", "GATCGATCA", {0, 1, 0, 0, 0, 1, 0, 0, 0}},
        {"base before the offset", "GX:_:_:_", "AGAT", {0, 0, 1, 0}},
        {"base at the last letter", "_:_:_:ACX", "ACTACTT", {0, 0, 1, 0, 0, 1, 0}},
        {"base at the last letter, read ends", "_:_:_:ACX", "ACTACT", {0, 0, 1, 0, 0, 0}},
        {"occurrences overlap", "_:XC:_:_", "CCCCA", {1, 1, 1, 0, 0}},
        {"motif one letter shorter than the read", "_:XGA:_:_", "CGAT", {1, 0, 0, 0}},
        {"motif as long as the read", "_:XGA:_:_", "CGA", {0, 0, 0}},
        {"motif one letter longer than the read", "_:XGA:_:_", "CG", {0, 0}},
        {"contexts of several bases", "XC:XG:_:_", "ACGACT", {1, 1, 0, 1, 0, 0}},
        {"base without a context among others", "XC:_:X:_", "ACGTG", {1, 0, 1, 0, 0}},
        {"letter N stands for itself alone", "_:XN:_:_", "CAACGA", {0, 0, 0, 0, 0, 0}},
        {"lower case stands for itself alone", "_:Xg:_:_", "CGCGA", {0, 0, 0, 0, 0}},
    };
    for (MaskCase const& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(context_of(c.context).get_sequence_mask(c.sequence), c.mask);
    }
}

TEST(ModContext, SequenceMask_MotifOfThousandsOfLetters_IsFoundWhereItStands) {
    BaseModContext context;
    context.set_context(std::string(1500, 'C'), 700);
    Mask expected(3000, 0);
    std::fill(expected.begin() + 700, expected.begin() + 2200, 1);
    EXPECT_EQ(context.get_sequence_mask(std::string(3000, 'C')), expected);
}

// A motif without T, whose letters follow no pattern.
std::string motif_of_length(std::size_t length) {
    std::mt19937 random(20240616);
    std::string motif;
    while (motif.size() < length) motif += "ACG"[random() % 3];
    return motif;
}

TEST(ModContext, SequenceMask_MotifThatBeginsAnywhere_MarksItsBaseAlone) {
    for (std::size_t const length : {1U, 2U, 5U, 63U, 64U, 65U, 130U, 1025U}) {
        std::string const motif = motif_of_length(length);
        for (std::size_t const offset : {std::size_t{0}, length / 2, length - 1}) {
            BaseModContext context;
            context.set_context(motif, offset);
            for (std::size_t begin = 0; begin < 1100; begin += begin % 64 == 2 ? 60 : 1) {
                SCOPED_TRACE(std::to_string(length) + " letters at " + std::to_string(begin) +
                             ", base at " + std::to_string(offset));
                std::string sequence = std::string(begin, 'T') + motif;
                Mask mask(sequence.size(), 0);
                ASSERT_EQ(context.get_sequence_mask(sequence), mask) << "ends with the read";
                sequence += 'T';
                mask.push_back(0);
                mask[begin + offset] = 1;
                ASSERT_EQ(context.get_sequence_mask(sequence), mask);
            }
        }
    }
}

TEST(ModContext, SequenceMask_OtherLetterAnywhere_ThrowsMapAt) {
    struct Case {
        char const* label;
        char const* context;
    };
    constexpr Case CASES[] = {{"no context", "_:_:_:_"},
                              {"one-letter contexts", "X:X:X:X"},
                              {"motif longer than the read", "_:XGGGGGGGGG:_:_"},
                              {"offset beyond the read", "GGGGGGGGGX:_:_:_"}};
    EXPECT_EQ(exception_of([] { (void)BaseModContext().get_sequence_mask("ACNT"); }),
              "out_of_range map::at");
    for (Case const& c : CASES) {
        SCOPED_TRACE(c.label);
        BaseModContext const context = context_of(c.context);
        std::string const before = contexts_text(context);
        EXPECT_NO_THROW((void)context.get_sequence_mask("ACGTA"));
        for (int value = 0; value < 256; ++value) {
            char const letter = static_cast<char>(value);
            if ("ACGT"s.find(letter) != std::string::npos) continue;
            for (std::size_t position = 0; position < 5; ++position) {
                std::string sequence = "ACGTA";
                sequence[position] = letter;
                EXPECT_EQ(exception_of([&] { (void)context.get_sequence_mask(sequence); }),
                          "out_of_range map::at")
                    << value << " at " << position;
            }
        }
        EXPECT_EQ(exception_of([&] { (void)context.get_sequence_mask("N"); }),
                  "out_of_range map::at");
        for (std::size_t position = 0; position < 200; ++position) {
            std::string sequence(200, 'A');
            sequence[position] = 'N';
            EXPECT_EQ(exception_of([&] { (void)context.get_sequence_mask(sequence); }),
                      "out_of_range map::at")
                << position;
        }
        EXPECT_EQ(contexts_text(context), before);
    }
}

struct UpdateCase {
    char const* label;
    char const* context;
    char const* sequence;
    char const* alphabet;
    unsigned char threshold;
    Bytes probs;
    Mask before;
    Mask after;
};

TEST(ModContext, UpdateMask_MarksBasesWithoutContextThatReachTheThreshold) {
    std::vector<UpdateCase> const cases = {
        {"below, at and above the threshold; canonical channels count for nothing",
         "_:_:_:_",
         "CACCGT",
         "ACmGT",
         128,
         {255, 255, 127, 255, 255,  //
          255, 255, 255, 255, 255,  //
          255, 255, 128, 255, 255,  //
          255, 255, 129, 255, 255,  //
          255, 255, 255, 255, 255,  //
          255, 255, 255, 255, 255},
         {0, 0, 0, 0, 0, 0},
         {0, 0, 1, 1, 0, 0}},
        {"threshold 0", "_:_:_:_", "CCA", "Cm", 0, {0, 0, 0, 0, 0, 0}, {0, 0, 0}, {1, 1, 0}},
        {"threshold 255",
         "_:_:_:_",
         "CCA",
         "Cm",
         255,
         {0, 254, 0, 255, 0, 255},
         {0, 0, 0},
         {0, 1, 0}},
        {"marks stay, other values too where nothing is reached",
         "_:_:_:_",
         "CCC",
         "Cm",
         10,
         {0, 9, 0, 9, 0, 10},
         {1, 7, -5},
         {1, 7, 1}},
        {"base with a context",
         "_:XG:_:_",
         "CCA",
         "Cm",
         0,
         {9, 9, 9, 9, 9, 9},
         {0, 0, 0},
         {0, 0, 0}},
        {"base with a one-letter context",
         "_:X:_:_",
         "CCA",
         "Cm",
         0,
         {9, 9, 9, 9, 9, 9},
         {0, 0, 0},
         {0, 0, 0}},
        {"base beside one with a context",
         "_:XG:_:_",
         "CAC",
         "CmAa",
         5,
         {0, 9, 0, 9, 0, 9, 0, 5, 0, 9, 0, 9},
         {0, 0, 0},
         {0, 1, 0}},
        {"either channel of a base",
         "_:_:_:_",
         "CCCC",
         "Cmh",
         100,
         {0, 99, 99, 0, 100, 99, 0, 99, 100, 0, 100, 100},
         {0, 0, 0, 0},
         {0, 1, 1, 1}},
        {"a base that opens two groups",
         "_:_:_:_",
         "CAC",
         "CmAaCh",
         100,
         {0, 100, 0, 255, 0, 0, 0, 255, 0, 99, 0, 255, 0, 0, 0, 255, 0, 100},
         {0, 0, 0},
         {1, 0, 1}},
        {"no channels", "_:_:_:_", "AC", "", 0, {}, {0, 5}, {0, 5}},
        {"canonical channels alone", "_:_:_:_", "AC", "CA", 0, {9, 9, 9, 9}, {0, 5}, {0, 5}},
        {"empty sequence", "_:_:_:_", "", "Cm", 0, {}, {}, {}},
        {"other letters in the sequence",
         "_:_:_:_",
         "NCn",
         "Cm",
         0,
         {9, 9, 9, 9, 9, 9},
         {0, 0, 0},
         {0, 1, 0}},
        {"mask and view longer than the sequence",
         "_:_:_:_",
         "C",
         "Cm",
         0,
         {0, 0, 0, 0, 0},
         {0, 0, 3},
         {1, 0, 3}},
    };
    for (UpdateCase const& c : cases) {
        SCOPED_TRACE(c.label);
        for (std::size_t const step : {1U, 2U, 3U}) {
            SCOPED_TRACE(step);
            Mask mask = c.before;
            StridedBytes const probs(c.probs, step);
            context_of(c.context).update_mask(mask, c.sequence, c.alphabet, probs.view(),
                                              c.threshold);
            EXPECT_EQ(mask, c.after);
        }
    }
}

TEST(ModContext, UpdateMask_EmptySequenceAndViewWithoutMemory_NothingChanges) {
    Mask mask = {0, 1};
    BaseModContext().update_mask(mask, "", "ACmGT", ByteView{nullptr, 0, 1}, 0);
    BaseModContext().update_mask(mask, "AC", "", ByteView{nullptr, 0, 1}, 0);
    EXPECT_EQ(mask, (Mask{0, 1}));
}

TEST(ModContext, UpdateMask_ColumnOfARowMajorMatrix_ItsElementsAlone) {
    constexpr unsigned char MATRIX[4][3] = {
        {255, 0, 255}, {255, 50, 255}, {255, 0, 255}, {9, 49, 9}};
    Mask mask = {0, 0};
    BaseModContext().update_mask(mask, "CC", "Cm", ByteView{&MATRIX[0][1], 4, 3}, 50);
    EXPECT_EQ(mask, (Mask{1, 0}));
}

TEST(ModContext, UpdateMask_AlphabetBeginsWithAModification_ThrowsMapAtAndKeepsTheMask) {
    for (char const* const alphabet : {"mC", "m", "mCm", "acgt", "\x80", " C"}) {
        SCOPED_TRACE(alphabet);
        for (char const* const text : {"_:_:_:_", "XG:XG:XG:XG"}) {
            std::string const sequence = "CC";
            Bytes const probs(sequence.size() * std::string(alphabet).size(), 255);
            Mask mask = {0, 3};
            EXPECT_EQ(exception_of([&] {
                          context_of(text).update_mask(mask, sequence, alphabet,
                                                       StridedBytes(probs, 1).view(), 0);
                      }),
                      "out_of_range map::at");
            EXPECT_EQ(mask, (Mask{0, 3}));
        }
    }
    Mask empty;
    EXPECT_EQ(exception_of([&] {
                  BaseModContext().update_mask(empty, "", "m", ByteView{nullptr, 0, 1}, 0);
              }),
              "out_of_range map::at")
        << "empty sequence";
}

TEST(ModContext, UpdateMask_ViewOrMaskTooShort_RefusedBeforeAnythingIsRead) {
    BaseModContext const context;
    Mask mask = {0, 1, 0};
    for (std::size_t const size : {0U, 1U, 3U, 5U}) {
        // A read through this view would end the program.
        EXPECT_THROW(context.update_mask(mask, "CCC", "Cm", ByteView{nullptr, size, 1}, 0),
                     std::out_of_range)
            << size;
        EXPECT_THROW(context.update_mask(mask, "CCC", "AC", ByteView{nullptr, size, 1}, 0),
                     std::out_of_range)
            << size << ", canonical channels alone";
    }
    EXPECT_EQ(mask, (Mask{0, 1, 0}));
    Mask short_mask = {0, 2};
    EXPECT_THROW(context.update_mask(short_mask, "CCC", "Cm", ByteView{nullptr, 6, 1}, 0),
                 std::out_of_range);
    EXPECT_EQ(short_mask, (Mask{0, 2}));
    for (std::size_t const size : {6U, 7U}) {
        mask = {0, 1, 0};
        EXPECT_NO_THROW(
            context.update_mask(mask, "CCC", "Cm", StridedBytes(Bytes(size, 255), 1).view(), 0))
            << size;
        EXPECT_EQ(mask, (Mask{1, 1, 1}));
    }
}

TEST(ModContext, Decode_TextForm_GivesMotifsAndOffsets) {
    struct Case {
        char const* label;
        std::string text;
        std::string contexts;
    };
    Case const cases[] = {
        {"no contexts", "_:_:_:_", NO_CONTEXTS},
        {"C before G", "_:XG:_:_", "A 0 \"\"\nC 0 \"CG\"\nG 0 \"\"\nT 0 \"\"\n"},
        {"A in GATC, C before G", "GXTC:XG:_:_", "A 1 \"GATC\"\nC 0 \"CG\"\nG 0 \"\"\nT 0 \"\"\n"},
        {"any base", "X:X:X:X", "A 0 \"A\"\nC 0 \"C\"\nG 0 \"G\"\nT 0 \"T\"\n"},
        {"base last", "_:_:CX:ACX", "A 0 \"\"\nC 0 \"\"\nG 1 \"CG\"\nT 2 \"ACT\"\n"},
        {"first X of several", "nXX:_:XXX:_", "A 1 \"nAX\"\nC 0 \"\"\nG 0 \"GXX\"\nT 0 \"\"\n"},
        {"other letters unchecked", "_X: X :\tX:\x01X-",
         "A 1 \"_A\"\nC 1 \" C \"\nG 1 \"\\x09G\"\nT 1 \"\\x01T-\"\n"},
        {"NUL", "_:\0X:_:_"s, "A 0 \"\"\nC 1 \"\\x00C\"\nG 0 \"\"\nT 0 \"\"\n"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        BaseModContext context;
        EXPECT_TRUE(context.decode(c.text));
        EXPECT_EQ(contexts_text(context), c.contexts);
        EXPECT_EQ(context.encode(), c.text);
        BaseModContext used = context_of("AAX:AAX:AAX:AAX");
        EXPECT_TRUE(used.decode(c.text));
        EXPECT_EQ(contexts_text(used), c.contexts) << "over other contexts";
    }
}

TEST(ModContext, Decode_NotFourFields_FalseAndNothingChanges) {
    for (char const* const text : {"", "_", "X", ":", "::", "_:XG:_", "_:XG:_:_:_", "::::", "X:X:X",
                                   "X:X:X:X:", ":X:X:X:X", "_,_,_,_", "X:X:X:X:X:X:X:X"}) {
        SCOPED_TRACE(text);
        BaseModContext context = context_of("GXTC:XG:_:CX");
        EXPECT_FALSE(context.decode(text));
        EXPECT_EQ(context.encode(), "GXTC:XG:_:CX");
        EXPECT_EQ(contexts_text(context), "A 1 \"GATC\"\nC 0 \"CG\"\nG 0 \"\"\nT 1 \"CT\"\n");
    }
}

TEST(ModContext, Decode_FieldWithoutX_FalseAndFieldsBeforeItAreTakenOver) {
    struct Case {
        char const* text;
        char const* after;
    };
    constexpr Case CASES[] = {
        {"X:CG:_:_", "X:XG:_:CX"},     {":::", "GXTC:XG:_:CX"},    {" _:X:X:X", "GXTC:XG:_:CX"},
        {"A:X:X:X", "GXTC:XG:_:CX"},   {"_::X:X", "_:XG:_:CX"},    {"_:__:X:X", "_:XG:_:CX"},
        {"X:_:xG:X", "X:_:_:CX"},      {"X:TX:GX:", "X:TX:GX:CX"}, {"X:TX:GX:_ ", "X:TX:GX:CX"},
        {"X:TX:GX:_\n", "X:TX:GX:CX"}, {"_:_:_:T", "_:_:_:CX"},    {"TTX:_:_:__", "TTX:_:_:CX"},
    };
    for (Case const& c : CASES) {
        SCOPED_TRACE(c.text);
        BaseModContext context = context_of("GXTC:XG:_:CX");
        EXPECT_FALSE(context.decode(c.text));
        EXPECT_EQ(context.encode(), c.after);
    }
    BaseModContext context;
    EXPECT_FALSE(context.decode("X:CG:_:_"));
    EXPECT_EQ(contexts_text(context), "A 0 \"A\"\nC 0 \"\"\nG 0 \"\"\nT 0 \"\"\n");
    context = context_of("GXTC:CX:_:_");
    EXPECT_FALSE(context.decode("_:_:CG:_"));
    EXPECT_EQ(contexts_text(context), NO_CONTEXTS) << "offsets go with the motifs";
}

TEST(ModContext, Decode_TextOfEncode_GivesTheSameContexts) {
    BaseModContext context;
    context.set_context("CCAGG", 2);
    context.set_context("TTC", 2);
    context.set_context("G", 0);
    BaseModContext again;
    EXPECT_TRUE(again.decode(context.encode()));
    EXPECT_EQ(contexts_text(again), contexts_text(context));
    EXPECT_EQ(contexts_text(again), "A 2 \"CCAGG\"\nC 2 \"TTC\"\nG 0 \"G\"\nT 0 \"\"\n");
}

// ---------------------------------------------------------------------------
// Names of modifications
// ---------------------------------------------------------------------------

std::string channel_name(std::string const& name) {
    return ending_of([&](std::string& out, std::string& error) {
        return Handler::get_modbase_channel_name(out, name, error);
    });
}

struct NameCase {
    char const* name;
    char const* code;
};
constexpr NameCase NAMES[] = {{"6mA", "a"},  {"5mC", "m"},  {"5hmC", "h"},
                              {"5fc", "f"},  {"5caC", "c"}, {"8oxoG", "o"},
                              {"5hmU", "g"}, {"5fU", "e"},  {"5caU", "b"}};

TEST(ModNames, KnownName_GivesItsCode) {
    for (NameCase const& c : NAMES) EXPECT_EQ(channel_name(c.name), success(c.code)) << c.name;
}

TEST(ModNames, DigitsAlone_GiveThemselves) {
    for (std::string const& name :
         {"123"s, "0"s, "9"s, "0123456789"s, "007"s, "76792"s, std::string(1000, '7')}) {
        EXPECT_EQ(channel_name(name), success(name)) << name;
    }
}

TEST(ModNames, EmptyName_GivesAnEmptyCode) { EXPECT_EQ(channel_name(""), success("")); }

TEST(ModNames, FormylcytosineInTheUsualSpelling_DeliberatelyUnknown) {
    EXPECT_EQ(channel_name("5fC"), failure(OLD_OUT, "Unknown modified base abbreviation: 5fC"));
    EXPECT_EQ(channel_name("5fc"), success("f"));
}

TEST(ModNames, OtherName_FailsWithItsTextAndLeavesTheCodeUntouched) {
    for (std::string const& name :
         {"5fC"s,  "m"s,    "a"s,     "5mc"s,   "5MC"s, "6ma"s,  "5m"s,
          "5mCC"s, " 5mC"s, "5mC "s,  "5mC\t"s, "-1"s,  "+1"s,   "1.5"s,
          "0x1"s,  "12a"s,  "a12"s,   "1 2"s,   " 1"s,  "1\n"s,  " "s,
          "/"s,    ":"s,    "5mC\0"s, "\0"s,    "1\0"s, "\xb2"s, std::string(5000, 'x')}) {
        EXPECT_EQ(channel_name(name), failure(OLD_OUT, UNKNOWN_NAME + name)) << in_quotes(name);
    }
}

TEST(ModNames, StringsShared_ResultAsWithStringsOfTheirOwn) {
    std::string error = OLD_ERROR;
    for (NameCase const& c : NAMES) {
        std::string text = c.name;
        EXPECT_TRUE(Handler::get_modbase_channel_name(text, text, error));
        EXPECT_EQ(text, c.code) << c.name;
    }
    std::string text = "0123456789012345678901234567890123456789";
    EXPECT_TRUE(Handler::get_modbase_channel_name(text, text, error));
    EXPECT_EQ(text, "0123456789012345678901234567890123456789");
    text = "5fC";
    EXPECT_FALSE(Handler::get_modbase_channel_name(text, text, error));
    EXPECT_EQ(text, "5fC");
    EXPECT_EQ(error, "Unknown modified base abbreviation: 5fC");
    std::string code = OLD_OUT;
    EXPECT_FALSE(Handler::get_modbase_channel_name(code, text, text));
    EXPECT_EQ(text, "Unknown modified base abbreviation: 5fC") << "error is the name";
    EXPECT_EQ(code, OLD_OUT);
}

// ---------------------------------------------------------------------------
// Fields of modified bases
// ---------------------------------------------------------------------------

// The arguments of a call. Until a test says otherwise, modifications have
// probability 0, and canonical channels 255, which must count for nothing.
class Calls {
public:
    Calls(std::string sequence, std::string alphabet)
        : sequence_(std::move(sequence)), alphabet_(std::move(alphabet)) {
        for (std::size_t i = 0; i < sequence_.size(); ++i) {
            for (char const letter : alphabet_) {
                probs_.push_back("ACGT"s.find(letter) == std::string::npos ? 0 : 255);
            }
        }
    }
    Calls& names(std::string text) { return names_ = std::move(text), *this; }
    Calls& context(std::string text) { return context_ = std::move(text), *this; }
    Calls& threshold(int value) { return threshold_ = static_cast<unsigned char>(value), *this; }
    Calls& step(std::size_t elements) { return step_ = elements, *this; }
    Calls& prob(std::size_t position, std::size_t channel, int value) {
        probs_.at(position * alphabet_.size() + channel) = static_cast<unsigned char>(value);
        return *this;
    }
    Calls& channel(std::size_t channel_index, std::vector<int> const& values) {
        for (std::size_t i = 0; i < values.size(); ++i) prob(i, channel_index, values[i]);
        return *this;
    }

    std::string run() const { return run_on(StridedBytes(probs_, step_).view()); }

    std::string run_on(ByteView const& view) const {
        return ending_of([&](std::string& out, std::string& error) {
            return Handler::generate_modbase_string(out, sequence_, alphabet_, names_, context_,
                                                    view, threshold_, error);
        });
    }

    // By the form that takes no context.
    std::string run_without_context() const {
        StridedBytes const probs(probs_, step_);
        return ending_of([&](std::string& out, std::string& error) {
            return Handler::generate_modbase_string(out, sequence_, alphabet_, names_, probs.view(),
                                                    threshold_, error);
        });
    }

private:
    std::string sequence_, alphabet_, names_, context_;
    Bytes probs_;
    unsigned char threshold_ = 128;
    std::size_t step_ = 1;
};

// A call of modified C alone.
Calls c_calls(std::string const& sequence) { return Calls(sequence, "ACmGT").names("5mC"); }

std::string thrown(std::string const& exception) { return ending(exception, "Mm:Z:", OLD_ERROR); }

TEST(ModifiedBases, WithoutContext_ReportedByThreshold) {
    EXPECT_EQ(c_calls("ACGCA").threshold(100).prob(1, 2, 200).prob(3, 2, 50).run(),
              success("Mm:Z:C+m,0;\tMl:B:C,200"));
}

TEST(ModifiedBases, WithContext_ReportedByContextAloneWhateverTheProbability) {
    EXPECT_EQ(
        c_calls("ACGCGA").context("_:XG:_:_").threshold(100).prob(1, 2, 200).prob(3, 2, 50).run(),
        success("Mm:Z:C+m?,0,0;\tMl:B:C,200,50"));
    EXPECT_EQ(c_calls("CACGA").context("_:XG:_:_").threshold(100).prob(0, 2, 255).run(),
              success("Mm:Z:C+m?,1;\tMl:B:C,0"));
    EXPECT_EQ(c_calls("ACGCG").context("_:XG:_:_").threshold(0).channel(2, {9, 8, 7, 6, 5}).run(),
              success("Mm:Z:C+m?,0;\tMl:B:C,8"))
        << "a motif that ends with the read is deliberately not seen";
}

TEST(ModifiedBases, SkipCounter_CountsBasesOfTheKindAlone) {
    EXPECT_EQ(c_calls("CCACTCGCA").channel(2, {0, 0, 9, 255, 9, 200, 9, 1, 9}).run(),
              success("Mm:Z:C+m,2,0;\tMl:B:C,255,200"));
    EXPECT_EQ(c_calls("CCACTCGCA").channel(2, {128, 0, 9, 0, 9, 0, 9, 129, 9}).run(),
              success("Mm:Z:C+m,0,3;\tMl:B:C,128,129"));
}

TEST(ModifiedBases, SkipCounter_OfOneToFiveDigits_IsWrittenWhole) {
    for (std::size_t const n :
         {9U, 10U, 99U, 100U, 255U, 256U, 257U, 999U, 65535U, 65536U, 70000U}) {
        SCOPED_TRACE(n);
        EXPECT_EQ(c_calls(std::string(n, 'C') + "AC").prob(n + 1, 2, 255).run(),
                  success("Mm:Z:C+m," + std::to_string(n) + ";\tMl:B:C,255"));
    }
}

TEST(ModifiedBases, TwoCallsAnywhereInTheRead_SkipsCountedFromEach) {
    for (std::size_t const length : {15U, 16U, 17U, 63U, 64U, 65U, 128U, 129U, 1024U, 1025U}) {
        std::string sequence;
        while (sequence.size() < length) sequence += sequence.size() % 5 == 2 ? 'G' : 'C';
        // The ends of the read and of every 16 positions.
        std::vector<std::size_t> places;
        for (std::size_t i = 0; i < length; ++i) {
            bool const is_edge = i % 16 == 0 || i % 16 == 15 || i + 1 == length;
            if (is_edge && sequence[i] == 'C') places.push_back(i);
        }
        for (std::size_t k = 1; k < places.size(); ++k) {
            std::size_t const first = places[k / 2];
            std::size_t const second = places[k];
            if (first == second) continue;
            SCOPED_TRACE(std::to_string(first) + " and " + std::to_string(second) + " of " +
                         std::to_string(length));
            auto const n_c_before = [&](std::size_t position) {
                return std::count(sequence.begin(),
                                  sequence.begin() + static_cast<std::ptrdiff_t>(position), 'C');
            };
            auto const n_between = n_c_before(second) - n_c_before(first) - 1;
            std::string const expected =
                success("Mm:Z:C+m," + std::to_string(n_c_before(first)) + ',' +
                        std::to_string(n_between) + ";\tMl:B:C,128,255");
            Calls calls = c_calls(sequence).prob(first, 2, 128).prob(second, 2, 255);
            ASSERT_EQ(calls.run(), expected);
            ASSERT_EQ(calls.step(3).run(), expected) << "strided";
        }
    }
}

TEST(ModifiedBases, Probability_OfEveryValueIsWrittenAsItIs) {
    std::string const sequence(256, 'C');
    Calls calls = c_calls(sequence);
    std::string positions;
    std::string bytes;
    for (std::size_t value = 0; value < 256; ++value) {
        calls.prob(value, 2, static_cast<int>(value));
        positions += ",0";
        bytes += ',' + std::to_string(value);
    }
    EXPECT_EQ(calls.threshold(0).run(), success("Mm:Z:C+m" + positions + ";\tMl:B:C" + bytes));
}

TEST(ModifiedBases, CanonicalLettersAlone_FieldsWithoutGroups) {
    EXPECT_EQ(Calls("ACGT", "ACGT").threshold(0).run(), success("Mm:Z:\tMl:B:C"));
    EXPECT_EQ(Calls("ACGT", "G").names("5mC").threshold(0).run(), success("Mm:Z:\tMl:B:C"));
    EXPECT_EQ(Calls("ACGT", "").names("nonsense").threshold(0).run(), success("Mm:Z:\tMl:B:C"))
        << "no letters at all";
}

TEST(ModifiedBases, EmptySequence_GroupsWithoutPositions) {
    EXPECT_EQ(c_calls("").run(), success("Mm:Z:C+m;\tMl:B:C"));
    EXPECT_EQ(c_calls("").run_on(ByteView{nullptr, 0, 1}), success("Mm:Z:C+m;\tMl:B:C"));
    EXPECT_EQ(c_calls("").context("_:XG:_:_").run(), success("Mm:Z:C+m?;\tMl:B:C"));
    EXPECT_EQ(Calls("", "AaCmhGT").names("6mA 5mC 5hmC").threshold(0).run(),
              success("Mm:Z:A+a;C+m;C+h;\tMl:B:C"));
    EXPECT_EQ(Calls("", "ACGT").run(), success("Mm:Z:\tMl:B:C"));
    EXPECT_EQ(Calls("", "").run(), success("Mm:Z:\tMl:B:C"));
}

TEST(ModifiedBases, TwoChannelsOfABase_SamePositionsAndProbabilitiesGroupByGroup) {
    // The second base of the read is reported for its m, the third for its h.
    EXPECT_EQ(Calls("CACCC", "ACmhGT")
                  .names("5mC 5hmC")
                  .threshold(100)
                  .channel(2, {99, 255, 100, 8, 9})
                  .channel(3, {98, 255, 7, 101, 9})
                  .run(),
              success("Mm:Z:C+m,1,0;C+h,1,0;\tMl:B:C,100,8,7,101"));
}

TEST(ModifiedBases, BaseThatOpensTwoGroups_SamePositionsInBoth) {
    EXPECT_EQ(Calls("CC", "CmCh")
                  .names("5mC 5hmC")
                  .threshold(100)
                  .channel(1, {200, 2})
                  .channel(3, {1, 3})
                  .run(),
              success("Mm:Z:C+m,0;C+h,0;\tMl:B:C,200,1"));
}

TEST(ModifiedBases, CanonicalLettersInAnyOrder_GroupsInAlphabetOrder) {
    EXPECT_EQ(Calls("CT", "TgACmG").names("5hmU 5mC").prob(0, 4, 200).prob(1, 1, 201).run(),
              success("Mm:Z:T+g,0;C+m,0;\tMl:B:C,201,200"));
}

TEST(ModifiedBases, FewerNamesThanChannels_ExtraChannelsHaveAnEmptyCode) {
    EXPECT_EQ(Calls("C", "ACmhGT").names("5mC").prob(0, 2, 200).run(),
              success("Mm:Z:C+m,0;C+,0;\tMl:B:C,200,0"));
    EXPECT_EQ(Calls("A", "ACmhGT").run(), success("Mm:Z:C+;C+;\tMl:B:C"));
    EXPECT_EQ(Calls("CGA", "ACmhGT").context("_:XG:_:_").names(" \n").run(),
              success("Mm:Z:C+?,0;C+?,0;\tMl:B:C,0,0"));
}

TEST(ModifiedBases, MoreNamesThanChannels_TheRestIsNotRead) {
    EXPECT_EQ(c_calls("C").names("5mC nonsense 5fC").run(), success("Mm:Z:C+m;\tMl:B:C"));
}

TEST(ModifiedBases, Names_AreWordsBetweenWhiteSpaceOfAnyKind) {
    EXPECT_EQ(
        Calls("C", "CmhfacN").names(" \t\n5mC\v\f5hmC\r5fc  123\n\n0\t5caC ").threshold(0).run(),
        success("Mm:Z:C+m,0;C+h,0;C+f,0;C+123,0;C+0,0;C+c,0;\tMl:B:C,0,0,0,0,0,0"));
}

TEST(ModifiedBases, EveryName_GivesItsCode) {
    for (NameCase const& c : NAMES) {
        EXPECT_EQ(c_calls("C").names(c.name).run(), success("Mm:Z:C+"s + c.code + ";\tMl:B:C"));
    }
    EXPECT_EQ(c_calls("C").names("123").run(), success("Mm:Z:C+123;\tMl:B:C"));
}

TEST(ModifiedBases, Threshold_ProbabilityBelowAtAndAbove_DecidesTheCall) {
    for (int const threshold : {1, 2, 100, 127, 128, 129, 254}) {
        SCOPED_TRACE(threshold);
        EXPECT_EQ(c_calls("CCC")
                      .threshold(threshold)
                      .channel(2, {threshold - 1, threshold, threshold + 1})
                      .run(),
                  success("Mm:Z:C+m,1,0;\tMl:B:C," + std::to_string(threshold) + ',' +
                          std::to_string(threshold + 1)));
    }
}

TEST(ModifiedBases, ThresholdZero_EveryBaseThatHasAChannelAndNoContext) {
    EXPECT_EQ(Calls("ACGTACG", "AaCmGT").names("6mA 5mC").threshold(0).run(),
              success("Mm:Z:A+a,0,0;C+m,0,0;\tMl:B:C,0,0,0,0"));
    EXPECT_EQ(Calls("ACGTAC", "AaCmGT").names("6mA 5mC").context("_:XG:_:_").threshold(0).run(),
              success("Mm:Z:A+a,0,0;C+m?,0;\tMl:B:C,0,0,0"));
}

TEST(ModifiedBases, Threshold255_OnlyBytesOf255) {
    EXPECT_EQ(c_calls("CCCC").threshold(255).channel(2, {253, 254, 255, 0}).run(),
              success("Mm:Z:C+m,2;\tMl:B:C,255"));
}

TEST(ModifiedBases, OneLetterContext_EveryBaseButALastOneAndNoQuestionMark) {
    EXPECT_EQ(c_calls("CACC").context("_:X:_:_").threshold(255).channel(2, {0, 255, 3, 255}).run(),
              success("Mm:Z:C+m,0,0;\tMl:B:C,0,3"));
    EXPECT_EQ(c_calls("CACCA").context("_:X:_:_").threshold(255).run(),
              success("Mm:Z:C+m,0,0,0;\tMl:B:C,0,0,0"));
}

TEST(ModifiedBases, ContextOfEachBase_MarksThatBaseAloneWithAQuestionMark) {
    struct Case {
        char const* context;
        char const* groups;
    };
    constexpr Case CASES[] = {
        {"_:_:_:_", "A+a;C+m;G+o;T+g;\tMl:B:C"},
        {"XC:_:_:_", "A+a?,1;C+m;G+o;T+g;\tMl:B:C,0"},
        {"_:XG:_:_", "A+a;C+m?,1;G+o;T+g;\tMl:B:C,0"},
        {"_:_:GX:_", "A+a;C+m;G+o?,1;T+g;\tMl:B:C,0"},
        {"_:_:_:TXA", "A+a;C+m;G+o;T+g?,1;\tMl:B:C,0"},
        {"XC:XG:GX:TXA", "A+a?,1;C+m?,1;G+o?,1;T+g?,1;\tMl:B:C,0,0,0,0"},
        {"X:_:_:_", "A+a,0,0,0;C+m;G+o;T+g;\tMl:B:C,0,0,0"},
        {"_:_:_:X", "A+a;C+m;G+o;T+g,0,0;\tMl:B:C,0,0"},
    };
    for (Case const& c : CASES) {
        SCOPED_TRACE(c.context);
        EXPECT_EQ(
            Calls("AACCGGTTAA", "AaCmGoTg").names("6mA 5mC 8oxoG 5hmU").context(c.context).run(),
            success("Mm:Z:"s + c.groups));
    }
}

TEST(ModifiedBases, ContextForOneBaseAndThresholdForAnother_EachByItsOwnRule) {
    EXPECT_EQ(Calls("CACGA", "AaCmGT")
                  .names("6mA 5mC")
                  .context("_:XG:_:_")
                  .threshold(100)
                  .channel(1, {255, 200, 255, 255, 10})
                  .channel(3, {255, 255, 17, 255, 255})
                  .run(),
              success("Mm:Z:A+a,0;C+m?,1;\tMl:B:C,200,17"));
}

TEST(ModifiedBases, MotifWithOtherLetters_FlagsTheBaseThoughNothingMatches) {
    EXPECT_EQ(c_calls("CGCG").context("_: XG:_:_").threshold(0).run(),
              success("Mm:Z:C+m?;\tMl:B:C"));
    EXPECT_EQ(c_calls("CGCG").context("_:X :_:_").threshold(0).run(),
              success("Mm:Z:C+m?;\tMl:B:C"));
}

TEST(ModifiedBases, Alphabet_IsNeverTrimmedOrRepaired) {
    EXPECT_EQ(Calls("T", "ACmGT ").names("5mC").threshold(0).run(),
              success("Mm:Z:C+m;T+,0;\tMl:B:C,0"))
        << "a blank at the end is a modification of T";
    EXPECT_EQ(Calls("C", "Cacgt").names("1 2 3 4").threshold(0).run(),
              success("Mm:Z:C+1,0;C+2,0;C+3,0;C+4,0;\tMl:B:C,0,0,0,0"))
        << "lower case letters are modifications";
    EXPECT_EQ(Calls("C", "C\0\n\xff"s).names("1 2 3").threshold(0).run(),
              success("Mm:Z:C+1,0;C+2,0;C+3,0;\tMl:B:C,0,0,0"));
    EXPECT_EQ(Calls("C", " ACmGT").names("5mC").run(), thrown("out_of_range map::at"));
}

TEST(ModifiedBases, FormWithoutContext_SameAsAnEmptyContext) {
    Calls calls = Calls("ACGTACGA", "AaCmhGT")
                      .names("6mA 5mC 5hmC")
                      .threshold(50)
                      .channel(1, {49, 9, 9, 9, 50, 9, 9, 51})
                      .channel(3, {9, 0, 9, 9, 9, 70, 9, 9})
                      .channel(4, {9, 60, 9, 9, 9, 0, 9, 9});
    std::string const expected = success("Mm:Z:A+a,1,0;C+m,0,0;C+h,0,0;\tMl:B:C,50,51,0,70,60,0");
    EXPECT_EQ(calls.run_without_context(), expected);
    EXPECT_EQ(calls.run(), expected);
    calls.context("_:_:_:_");
    EXPECT_EQ(calls.run(), expected);
}

TEST(ModifiedBases, FormWithoutContext_FailsInTheSameWays) {
    EXPECT_EQ(c_calls("CN").run_without_context(), thrown("out_of_range map::at"));
    EXPECT_EQ(c_calls("C").names("5fC").run_without_context(),
              failure("Mm:Z:", "Unknown modified base abbreviation: 5fC"));
    EXPECT_EQ(ending_of([](std::string& out, std::string& error) {
                  return Handler::generate_modbase_string(out, "C", "Cm", "5mC",
                                                          ByteView{nullptr, 3, 1}, 0, error);
              }),
              failure(OLD_OUT, MISMATCH));
}

TEST(ModifiedBases, ViewWithSteps_ElementsAreThoseOfThePlainArray) {
    for (std::size_t const step : {1U, 2U, 3U, 7U, 100U}) {
        SCOPED_TRACE(step);
        EXPECT_EQ(c_calls("CACC").step(step).channel(2, {200, 255, 127, 128}).run(),
                  success("Mm:Z:C+m,0,1;\tMl:B:C,200,128"));
    }
    unsigned char const byte = 77;
    EXPECT_EQ(c_calls("CAC").threshold(77).run_on(ByteView{&byte, 15, 0}),
              success("Mm:Z:C+m,0,0;\tMl:B:C,77,77"))
        << "step 0";
}

TEST(ModifiedBases, ColumnOfARowMajorMatrix_ItsElementsAlone) {
    // Column 1 holds channels C and m of the bases C, A, C.
    constexpr unsigned char MATRIX[6][3] = {{255, 1, 255}, {255, 130, 255}, {255, 2, 255},
                                            {255, 3, 255}, {255, 4, 255},   {255, 127, 255}};
    EXPECT_EQ(Calls("CAC", "Cm").names("5mC").run_on(ByteView{&MATRIX[0][1], 6, 3}),
              success("Mm:Z:C+m,0;\tMl:B:C,130"));
}

TEST(ModifiedBases, ViewOfAnotherSize_FailsBeforeAnythingElseIsLookedAt) {
    struct Case {
        char const* label;
        char const* sequence;
        char const* alphabet;
        std::size_t size;
    };
    constexpr Case CASES[] = {
        {"one element too few", "ACGCA", "ACmGT", 24},
        {"one element too many", "ACGCA", "ACmGT", 26},
        {"one row too few", "ACGCA", "ACmGT", 20},
        {"one row too many", "ACGCA", "ACmGT", 30},
        {"one element a base", "ACGCA", "ACmGT", 5},
        {"empty", "ACGCA", "ACmGT", 0},
        {"larger than memory", "ACGCA", "ACmGT", std::numeric_limits<std::size_t>::max()},
        {"empty sequence, one element", "", "ACmGT", 1},
        {"empty sequence, one row", "", "ACmGT", 5},
        {"empty alphabet, one element", "ACGCA", "", 1},
        {"empty alphabet, one element a base", "ACGCA", "", 5},
        {"both empty, one element", "", "", 1},
        {"other base, alphabet begins with a modification", "ACNCA", "mACGT", 24},
    };
    for (Case const& c : CASES) {
        SCOPED_TRACE(c.label);
        // A read through this view would end the program.
        ByteView const view{nullptr, c.size, 1};
        EXPECT_EQ(Calls(c.sequence, c.alphabet).names("5mC").run_on(view),
                  failure(OLD_OUT, MISMATCH));
        EXPECT_EQ(Calls(c.sequence, c.alphabet).names("nonsense").context("_").run_on(view),
                  failure(OLD_OUT, MISMATCH))
            << "with bad names and a bad context";
    }
}

TEST(ModifiedBases, ContextThatIsNoTextForm_Throws) {
    for (char const* const text :
         {"_", "X", ":", ":::", "::::", "CG", "_:XG:_", "_:XG:_:_:_", "_:CG:_:_", "_:xG:_:_",
          "X:X:X:", " _:XG:_:_", "_:XG:_:_ ", "_:XG:_:_\n", "_ :XG:_:_", "\n", " "}) {
        SCOPED_TRACE(text);
        std::string const expected = thrown("runtime_error "s + NO_CONTEXT_TEXT);
        EXPECT_EQ(c_calls("ACGCA").context(text).run(), expected);
        EXPECT_EQ(Calls("N", "mC").names("nonsense").context(text).run(), expected)
            << "before other faults";
    }
    EXPECT_EQ(c_calls("A").context("\0"s).run(), thrown("runtime_error "s + NO_CONTEXT_TEXT));
}

TEST(ModifiedBases, OtherLetterInTheSequence_ThrowsMapAt) {
    for (std::string const& sequence :
         {"ACNT"s, "N"s, "NACGT"s, "ACGTN"s, "acgt"s, "ACGU"s, "AC-T"s, "AC\0T"s, "ACG "s,
          "ACGT\n"s, "=ACG"s, "AC\x80"s, "*"s}) {
        SCOPED_TRACE(in_quotes(sequence));
        EXPECT_EQ(c_calls(sequence).run(), thrown("out_of_range map::at"));
        EXPECT_EQ(Calls(sequence, "").run(), thrown("out_of_range map::at")) << "no channels";
        EXPECT_EQ(c_calls(sequence).names("nonsense").run(), thrown("out_of_range map::at"))
            << "before a bad name";
    }
}

TEST(ModifiedBases, AlphabetBeginsWithAModification_ThrowsMapAt) {
    for (char const* const alphabet : {"m", "mC", "mACGT", "acgt", "NACGT", "1C"}) {
        SCOPED_TRACE(alphabet);
        EXPECT_EQ(Calls("ACGT", alphabet).names("5mC").run(), thrown("out_of_range map::at"));
        EXPECT_EQ(Calls("", alphabet).names("5mC").run(), thrown("out_of_range map::at"))
            << "empty sequence";
        EXPECT_EQ(Calls("A", alphabet).names("5mC").context("X:X:X:X").run(),
                  thrown("out_of_range map::at"))
            << "every base with a context";
        EXPECT_EQ(Calls("A", alphabet).names("nonsense").run(), thrown("out_of_range map::at"))
            << "before a bad name";
    }
}

TEST(ModifiedBases, UnknownName_FailsAndOutputHoldsTheGroupsBeforeIt) {
    struct Case {
        char const* names;
        char const* out;
        char const* unknown;
    };
    constexpr Case CASES[] = {
        {"5fC", "Mm:Z:", "5fC"},
        {"m 5mC 5hmC", "Mm:Z:", "m"},
        {"6mA 5fC 5hmC", "Mm:Z:A+a,0,0;", "5fC"},
        {"6mA 5mC, 5hmC", "Mm:Z:A+a,0,0;", "5mC,"},
        {"6mA\t5mC\n5fC", "Mm:Z:A+a,0,0;C+m?,0;", "5fC"},
        {"6mA 12 -1", "Mm:Z:A+a,0,0;C+12?,0;", "-1"},
    };
    for (Case const& c : CASES) {
        SCOPED_TRACE(c.names);
        EXPECT_EQ(Calls("ACGA", "AaCmhGT").names(c.names).context("_:XG:_:_").threshold(0).run(),
                  failure(c.out, UNKNOWN_NAME + std::string(c.unknown)));
    }
    std::string const name(100000, 'x');
    EXPECT_EQ(c_calls("A").names(name).run(), failure("Mm:Z:", UNKNOWN_NAME + name));
    EXPECT_EQ(c_calls("A").names("5mC\0"s).run(), failure("Mm:Z:", UNKNOWN_NAME + "5mC\0"s));
}

TEST(ModifiedBases, OutputIsAnInput_SameFieldsAsWithStringsOfTheirOwn) {
    Bytes const probs = {0, 0, 9, 0, 0, 0, 8, 0, 0, 0, 7, 0, 0, 0, 6, 0};
    std::string const expected = "Mm:Z:C+m?,0;\tMl:B:C,8";
    constexpr char const* LABELS[] = {"sequence", "alphabet", "names", "context"};
    for (std::size_t shared = 0; shared < 4; ++shared) {
        SCOPED_TRACE(LABELS[shared]);
        // Sequence, alphabet, names and context; one of them is the output, too.
        std::array<std::string, 4> texts = {"ACGA", "ACmG", "5mC", "_:XG:_:_"};
        std::string error = OLD_ERROR;
        EXPECT_TRUE(Handler::generate_modbase_string(texts[shared], texts[0], texts[1], texts[2],
                                                     texts[3], StridedBytes(probs, 1).view(), 255,
                                                     error));
        EXPECT_EQ(texts[shared], expected);
        EXPECT_EQ(error, OLD_ERROR);
        if (shared == 3) continue;
        std::array<std::string, 3> fewer = {"ACGA", "ACmG", "5mC"};
        EXPECT_TRUE(Handler::generate_modbase_string(fewer[shared], fewer[0], fewer[1], fewer[2],
                                                     StridedBytes(probs, 1).view(), 8, error));
        EXPECT_EQ(fewer[shared], "Mm:Z:C+m,0;\tMl:B:C,8") << "without context";
    }
    std::string error;
    std::string text = "ACGT";
    EXPECT_TRUE(Handler::generate_modbase_string(text, text, text, "", "",
                                                 StridedBytes(Bytes(16, 1), 1).view(), 0, error));
    EXPECT_EQ(text, "Mm:Z:\tMl:B:C") << "sequence and alphabet";
    text = "";
    EXPECT_TRUE(Handler::generate_modbase_string(text, text, text, text, text,
                                                 ByteView{nullptr, 0, 1}, 0, error));
    EXPECT_EQ(text, "Mm:Z:\tMl:B:C") << "all, empty";
}

TEST(ModifiedBases, OutputIsAnInput_FailuresAsWithStringsOfTheirOwn) {
    std::string error = OLD_ERROR;
    std::string text = "5mC 5fC";
    EXPECT_FALSE(Handler::generate_modbase_string(text, "CA", "Cmf", text, "",
                                                  StridedBytes(Bytes(6, 9), 1).view(), 0, error));
    EXPECT_EQ(text, "Mm:Z:C+m,0;");
    EXPECT_EQ(error, "Unknown modified base abbreviation: 5fC");
    text = "CA";
    EXPECT_FALSE(Handler::generate_modbase_string(text, text, "Cm", "5mC", "",
                                                  ByteView{nullptr, 3, 1}, 0, error));
    EXPECT_EQ(text, "CA");
    EXPECT_EQ(error, MISMATCH);
}

TEST(ModifiedBases, ErrorIsAnInput_StillReceivesTheMessage) {
    std::string out = OLD_OUT;
    std::string text = "5mC 5fC";
    EXPECT_FALSE(Handler::generate_modbase_string(out, "CA", "Cmf", text, "",
                                                  StridedBytes(Bytes(6, 9), 1).view(), 0, text));
    EXPECT_EQ(text, "Unknown modified base abbreviation: 5fC");
    EXPECT_EQ(out, "Mm:Z:C+m,0;");
    text = "CA";
    out = OLD_OUT;
    EXPECT_FALSE(Handler::generate_modbase_string(out, text, "Cm", "5mC", "",
                                                  ByteView{nullptr, 3, 1}, 0, text));
    EXPECT_EQ(text, MISMATCH);
    EXPECT_EQ(out, OLD_OUT);
    text = "CA";
    EXPECT_TRUE(Handler::generate_modbase_string(out, text, "Cm", "5mC", "",
                                                 StridedBytes(Bytes(4, 9), 1).view(), 0, text));
    EXPECT_EQ(text, "CA");
    EXPECT_EQ(out, "Mm:Z:C+m,0;\tMl:B:C,9");
}

// ---------------------------------------------------------------------------
// An output string used again
// ---------------------------------------------------------------------------

TEST(OutputReuse, RoomyString_KeepsItsMemoryThroughSuccessAndFailure) {
    std::string const sequence(1000, 'C');
    Bytes const probs(2000, 200);
    std::string out;
    std::string error;
    out.reserve(100000);
    std::size_t const capacity = out.capacity();
    char const* const memory = out.data();
    auto const check = [&](char const* label) {
        EXPECT_EQ(out.capacity(), capacity) << label;
        EXPECT_EQ(static_cast<void const*>(out.data()), memory) << label;
    };
    StridedBytes const bytes(probs, 1);
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(Handler::make_unmapped_sam_line(out, "r1", sequence, sequence, error));
        check("line");
        EXPECT_TRUE(Handler::make_unmapped_sam_line(out, "r1", "A", "I", error));
        check("short line");
        EXPECT_FALSE(Handler::make_unmapped_sam_line(out, "", sequence, sequence, error));
        check("refused line");
        EXPECT_TRUE(Handler::generate_move_table_string(out, bytes.view(), 5, error));
        check("moves");
        EXPECT_FALSE(Handler::generate_move_table_string(out, ByteView{nullptr, 0, 1}, 5, error));
        check("no moves");
        EXPECT_TRUE(Handler::generate_modbase_string(out, sequence, "Cm", "5mC", "_:XC:_:_",
                                                     bytes.view(), 5, error));
        check("modified bases");
        EXPECT_TRUE(
            Handler::generate_modbase_string(out, sequence, "Cm", "5mC", bytes.view(), 5, error));
        check("modified bases without context");
        EXPECT_FALSE(
            Handler::generate_modbase_string(out, sequence, "Cm", "5fC", bytes.view(), 5, error));
        check("unknown name");
        EXPECT_THROW(Handler::generate_modbase_string(out, sequence, "Cm", "5mC", "_", bytes.view(),
                                                      5, error),
                     std::runtime_error);
        check("no context");
        EXPECT_TRUE(Handler::get_modbase_channel_name(out, "5mC", error));
        check("code");
    }
}

TEST(OutputReuse, ShortTextAfterALongOne_KeepsTheCapacityAndLeavesNoRest) {
    std::string const sequence(3000, 'C');
    StridedBytes const bytes(Bytes(6000, 200), 1);
    StridedBytes const few(Bytes{3, 9}, 1);
    std::string line, moves, calls, error;
    ASSERT_TRUE(Handler::make_unmapped_sam_line(line, "r1", sequence, sequence, error));
    ASSERT_TRUE(Handler::generate_move_table_string(moves, bytes.view(), 5, error));
    ASSERT_TRUE(
        Handler::generate_modbase_string(calls, sequence, "Cm", "5mC", bytes.view(), 5, error));
    std::array<std::size_t, 3> const before = {line.capacity(), moves.capacity(), calls.capacity()};
    EXPECT_TRUE(Handler::make_unmapped_sam_line(line, "r1", "A", "I", error));
    EXPECT_TRUE(Handler::generate_move_table_string(moves, few.view(), 5, error));
    EXPECT_TRUE(Handler::generate_modbase_string(calls, "C", "Cm", "5mC", few.view(), 5, error));
    EXPECT_EQ(line, "r1\t4\t*\t0\t0\t*\t*\t0\t1\tA\tI");
    EXPECT_EQ(moves, "mv:B:c,5,3,9");
    EXPECT_EQ(calls, "Mm:Z:C+m,0;\tMl:B:C,9");
    EXPECT_EQ((std::array<std::size_t, 3>{line.capacity(), moves.capacity(), calls.capacity()}),
              before);
}

// ---------------------------------------------------------------------------
// Random reads, against the rules and a reader of the tests' own
// ---------------------------------------------------------------------------

struct Context {
    std::string motif;  // empty for none
    std::size_t offset = 0;

    std::string field() const {
        if (motif.empty()) return "_";
        std::string text = motif;
        text[offset] = 'X';
        return text;
    }
};

// All that goes into one call, with the context in parts.
struct RandomRead {
    std::string sequence, alphabet, names;
    std::vector<std::string> codes;  // by modification channel; shorter than they
    std::map<char, Context> contexts;
    bool has_context_text = true;
    Bytes probs;
    unsigned char threshold = 0;
    std::size_t step = 1;

    std::string context_text() const {
        if (!has_context_text) return "";
        return contexts.at('A').field() + ':' + contexts.at('C').field() + ':' +
               contexts.at('G').field() + ':' + contexts.at('T').field();
    }
};

bool is_canonical(char letter) {
    return letter == 'A' || letter == 'C' || letter == 'G' || letter == 'T';
}

bool stands_in_context(std::string const& sequence, std::size_t i, Context const& context) {
    auto const begin = static_cast<std::int64_t>(i) - static_cast<std::int64_t>(context.offset);
    auto const end = begin + static_cast<std::int64_t>(context.motif.size());
    if (begin < 0 || end >= static_cast<std::int64_t>(sequence.size())) return false;
    return sequence.substr(static_cast<std::size_t>(begin), context.motif.size()) == context.motif;
}

// Whether any channel of the base at a position reaches the threshold.
bool reaches_threshold(RandomRead const& read, std::size_t i) {
    char base = '\0';
    for (std::size_t c = 0; c < read.alphabet.size(); ++c) {
        if (is_canonical(read.alphabet[c])) {
            base = read.alphabet[c];
        } else if (base == read.sequence[i] &&
                   read.probs[i * read.alphabet.size() + c] >= read.threshold) {
            return true;
        }
    }
    return false;
}

bool is_reported(RandomRead const& read, std::size_t i) {
    Context const& context = read.contexts.at(read.sequence[i]);
    return context.motif.empty() ? reaches_threshold(read, i)
                                 : stands_in_context(read.sequence, i, context);
}

// The calls that a read has, straight from the rules.
std::vector<ModGroup> expected_groups(RandomRead const& read) {
    std::vector<ModGroup> groups;
    char base = '\0';
    for (std::size_t c = 0; c < read.alphabet.size(); ++c) {
        if (is_canonical(read.alphabet[c])) {
            base = read.alphabet[c];
            continue;
        }
        ModGroup group;
        group.base = base;
        if (groups.size() < read.codes.size()) group.code = read.codes[groups.size()];
        group.by_context_only = read.contexts.at(base).motif.size() > 1;
        for (std::size_t i = 0; i < read.sequence.size(); ++i) {
            if (read.sequence[i] != base || !is_reported(read, i)) continue;
            group.calls.push_back({i, read.probs[i * read.alphabet.size() + c]});
        }
        groups.push_back(group);
    }
    return groups;
}

class ReadMaker {
public:
    explicit ReadMaker(std::uint32_t seed) : random_(seed) {}

    RandomRead make(std::size_t length) {
        RandomRead read;
        std::string const bases = pick({"ACGT", "ACGT", "CG", "ACG", "CT", "AAAAAAAAAAAAAAAAAAAC"});
        while (read.sequence.size() < length) read.sequence += letter_of(bases);
        make_alphabet(read);
        for (char const base : {'A', 'C', 'G', 'T'}) read.contexts[base] = {};
        read.has_context_text = below(4) != 0;
        if (read.has_context_text) {
            for (auto& [base, context] : read.contexts) context = make_context(base, read.sequence);
        }
        constexpr unsigned char THRESHOLDS[] = {0, 1, 127, 128, 254, 255};
        read.threshold = below(2) != 0 ? THRESHOLDS[below(6)] : byte();
        for (std::size_t k = 0; k < read.sequence.size() * read.alphabet.size(); ++k) {
            read.probs.push_back(make_probability(read.threshold));
        }
        constexpr std::size_t STEPS[] = {1, 1, 2, 3, 7};
        read.step = STEPS[below(5)];
        return read;
    }

    std::size_t below(std::size_t n) { return random_() % n; }
    unsigned char byte() { return static_cast<unsigned char>(below(256)); }
    char letter_of(std::string const& letters) { return letters[below(letters.size())]; }

private:
    std::string pick(std::vector<std::string> const& texts) { return texts[below(texts.size())]; }

    // Groups of any bases in any order, each with none to three modifications.
    void make_alphabet(RandomRead& read) {
        std::size_t const n_groups = below(7);
        for (std::size_t g = 0; g < n_groups; ++g) {
            read.alphabet += letter_of("ACGT");
            for (std::size_t n = below(4); n > 0; --n) {
                read.alphabet += letter_of("mhafcgtbeoZXN*_ 17");
                add_name(read);
            }
        }
        if (below(4) == 0) {  // fewer names than channels
            read.codes.resize(below(read.codes.size() + 1));
            read.names.clear();
            for (std::string const& code : read.codes) read.names += name_of(code) + " \n";
        }
    }

    void add_name(RandomRead& read) {
        std::string const code =
            below(3) == 0 ? std::to_string(below(100000)) : NAMES[below(std::size(NAMES))].code;
        read.codes.push_back(code);
        read.names += pick({" ", "\t", "\n ", "  "}) + name_of(code);
    }

    static std::string name_of(std::string const& code) {
        for (NameCase const& c : NAMES) {
            if (code == c.code) return c.name;
        }
        return code;
    }

    Context make_context(char base, std::string const& sequence) {
        switch (below(5)) {
            case 0:
            case 1: return {};
            case 2: return {std::string(1, base), 0};
            case 3: {  // cut from the sequence
                std::size_t const i = sequence.find(base, below(sequence.size() + 1));
                if (i == std::string::npos) return {};
                std::size_t const offset = below(std::min<std::size_t>(i, 3) + 1);
                return {sequence.substr(i - offset, offset + 1 + below(3)), offset};
            }
            default: break;
        }
        Context context;
        for (std::size_t n = 1 + below(4); n > 0; --n) {
            context.motif += letter_of("ACGTACGTACGTACGTACGTNc-_ ");
        }
        context.offset = below(context.motif.size());
        context.motif[context.offset] = base;
        return context;
    }

    unsigned char make_probability(unsigned char threshold) {
        switch (below(4)) {
            case 0: return byte();
            case 1: return threshold;
            default: return static_cast<unsigned char>(threshold == 0 ? 0 : threshold - 1);
        }
    }

    std::mt19937 random_;
};

bool generate(RandomRead const& read, std::string& out, std::string& error) {
    StridedBytes const probs(read.probs, read.step);
    if (!read.has_context_text && read.step == 1) {
        return Handler::generate_modbase_string(out, read.sequence, read.alphabet, read.names,
                                                probs.view(), read.threshold, error);
    }
    return Handler::generate_modbase_string(out, read.sequence, read.alphabet, read.names,
                                            read.context_text(), probs.view(), read.threshold,
                                            error);
}

std::size_t n_calls_in(std::vector<ModGroup> const& groups) {
    std::size_t n = 0;
    for (ModGroup const& group : groups) n += group.calls.size();
    return n;
}

TEST(RandomReads, ModifiedBases_ReadBackFromTheFieldsAsTheRulesGiveThem) {
    ReadMaker maker(20240612);
    std::string out;
    std::string error;
    std::size_t n_calls = 0;
    std::size_t n_groups_by_context = 0;
    for (int round = 0; round < 6000; ++round) {
        std::size_t const length = round % 200 == 0 ? maker.below(9000) : maker.below(50);
        RandomRead const read = maker.make(length);
        SCOPED_TRACE("read " + std::to_string(round) + " alphabet " + in_quotes(read.alphabet) +
                     " context " + in_quotes(read.context_text()) + " threshold " +
                     std::to_string(read.threshold) + " sequence " + read.sequence.substr(0, 200));
        ASSERT_TRUE(generate(read, out, error)) << error;
        ASSERT_EQ(out.substr(0, 5), "Mm:Z:");
        ASSERT_EQ(std::count(out.begin(), out.end(), '\t'), 1) << out;
        std::vector<ModGroup> const expected = expected_groups(read);
        ASSERT_EQ(groups_text(read_modified_bases(out, read.sequence)), groups_text(expected))
            << out;
        n_calls += n_calls_in(expected);
        for (ModGroup const& group : expected) n_groups_by_context += group.by_context_only;
    }
    EXPECT_EQ(error, "");
    EXPECT_GT(n_calls, 50000U) << "reads too dull to show anything";
    EXPECT_GT(n_groups_by_context, 2000U);
}

TEST(RandomReads, ModifiedBasesOfEveryLength_ReadBackAsTheRulesGiveThem) {
    ReadMaker maker(20240615);
    std::string out;
    std::string error;
    for (std::size_t const length : critical_lengths()) {
        for (int round = 0; round < 6; ++round) {
            RandomRead read = maker.make(length);
            SCOPED_TRACE("length " + std::to_string(length) + " alphabet " +
                         in_quotes(read.alphabet) + " context " + in_quotes(read.context_text()));
            ASSERT_TRUE(generate(read, out, error)) << error;
            ASSERT_EQ(groups_text(read_modified_bases(out, read.sequence)),
                      groups_text(expected_groups(read)));
        }
    }
}

TEST(RandomReads, Contexts_MasksAsTheRulesGiveThemAndTextFormsThatReadBack) {
    ReadMaker maker(20240613);
    std::size_t n_marked = 0;
    for (int round = 0; round < 3000; ++round) {
        RandomRead const read = maker.make(maker.below(40));
        SCOPED_TRACE(read.context_text() + " on " + read.sequence);
        BaseModContext context;
        Mask expected(read.sequence.size(), 0);
        Mask expected_later(read.sequence.size(), 0);
        for (auto const& [base, c] : read.contexts) {
            if (!c.motif.empty()) context.set_context(c.motif, c.offset);
        }
        for (std::size_t i = 0; i < read.sequence.size(); ++i) {
            Context const& c = read.contexts.at(read.sequence[i]);
            expected[i] = !c.motif.empty() && stands_in_context(read.sequence, i, c);
            expected_later[i] = is_reported(read, i);
            n_marked += is_reported(read, i);
        }
        Mask mask = context.get_sequence_mask(read.sequence);
        ASSERT_EQ(mask, expected);
        context.update_mask(mask, read.sequence, read.alphabet,
                            StridedBytes(read.probs, read.step).view(), read.threshold);
        ASSERT_EQ(mask, expected_later);
        if (read.has_context_text) {
            ASSERT_EQ(context.encode(), read.context_text());
        }
        BaseModContext again;
        ASSERT_TRUE(again.decode(context.encode()));
        ASSERT_EQ(contexts_text(again), contexts_text(context));
    }
    EXPECT_GT(n_marked, 5000U) << "reads too dull to show anything";
}

// ---------------------------------------------------------------------------
// Whole annotated lines
// ---------------------------------------------------------------------------

std::string joined_line(std::string const& name, std::string const& sequence,
                        std::string const& qualities, std::string const& moves,
                        std::string const& calls) {
    std::string line;
    std::string error;
    EXPECT_TRUE(Handler::make_unmapped_sam_line(line, name, sequence, qualities, error)) << error;
    return line + '\t' + moves + '\t' + calls;
}

// The lines of a handler after a way through a BAM file, as the library reads
// them and as a reader of the tests' own does.
void expect_same_through_bam(Handler& handler, std::vector<std::string> const& lines) {
    TempDir const directory;
    std::string const path = directory.file("reads.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, false)) << handler.error_message;
    Handler again;
    ASSERT_TRUE(again.read_from_bam_file(path)) << again.error_message;
    BamPayload const payload = split_bam_payload(inflate_bgzf(read_file(path)));
    ASSERT_EQ(again.records.size(), lines.size());
    ASSERT_EQ(payload.records.size(), lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::string line;
        ASSERT_TRUE(again.get_alignment_sam(i, line));
        ASSERT_EQ(line, lines[i]);
        ASSERT_EQ(sam_line_of_record(payload.records[i], {}), lines[i]);
    }
}

TEST(AnnotatedLine, ThreeTextsJoined_AcceptedAndTheSameThroughBam) {
    Bytes const moves = {1, 0, 200};
    std::string move_text;
    std::string calls;
    std::string error;
    ASSERT_TRUE(Handler::generate_move_table_string(move_text, {moves.data(), 3, 1}, -5, error));
    Bytes probs(30, 0);
    probs[1 * 5 + 2] = 200;
    probs[3 * 5 + 2] = 50;
    ASSERT_TRUE(Handler::generate_modbase_string(calls, "ACGCGA", "ACmGT", "5mC", "_:XG:_:_",
                                                 {probs.data(), 30, 1}, 100, error));
    std::string const line = joined_line("read/1", "ACGCGA", "!5I~?@", move_text, calls);
    EXPECT_EQ(line,
              "read/1\t4\t*\t0\t0\t*\t*\t0\t6\tACGCGA\t!5I~?@\t"
              "mv:B:c,-5,1,0,127,73\tMm:Z:C+m?,0,0;\tMl:B:C,200,50");

    Handler handler;
    ASSERT_TRUE(handler.add_alignment_sam(line)) << handler.error_message;
    Handler::BamRecord const& record = handler.records.at(0);
    EXPECT_EQ(record.read_name, "read/1");
    EXPECT_EQ(record.flag, 4);
    EXPECT_EQ(record.refID, -1);
    EXPECT_EQ(record.pos, -1);
    EXPECT_EQ(record.mapq, 0);
    EXPECT_EQ(record.tlen, 6);
    EXPECT_EQ(record.l_seq, 6);
    EXPECT_EQ(fields_text(record.aux_data),
              "  \"mv\" \"B\" array \"c\" of 5: fb 01 00 7f 49\n"
              "  \"Mm\" \"Z\" string \"C+m?,0,0;\"\n"
              "  \"Ml\" \"B\" array \"C\" of 2: c8 32\n");
    expect_same_through_bam(handler, {line});
}

TEST(AnnotatedLine, ReadWithoutCalls_EmptyFieldsAreAcceptedAndTheSameThroughBam) {
    std::string const line = "r\t4\t*\t0\t0\t*\t*\t0\t1\tA\tI\tmv:B:c,0,0\tMm:Z:\tMl:B:C";
    unsigned char const move = 0;
    std::string moves, calls, error;
    ASSERT_TRUE(Handler::generate_move_table_string(moves, {&move, 1, 1}, 0, error));
    ASSERT_TRUE(Handler::generate_modbase_string(calls, "A", "", "", {nullptr, 0, 1}, 0, error));
    EXPECT_EQ(joined_line("r", "A", "I", moves, calls), line);
    Handler handler;
    ASSERT_TRUE(handler.add_alignment_sam(line)) << handler.error_message;
    expect_same_through_bam(handler, {line});
}

TEST(AnnotatedLine, RandomReads_SameThroughBamAndReadBackFromItsLines) {
    ReadMaker maker(20240614);
    Handler handler;
    std::vector<std::string> lines;
    for (int i = 0; i < 300; ++i) {
        SCOPED_TRACE(i);
        RandomRead const read = maker.make(1 + maker.below(i % 50 == 0 ? 3000 : 100));
        std::string calls, moves, qualities, error;
        ASSERT_TRUE(generate(read, calls, error));
        MoveTable table{static_cast<int>(maker.below(256)) - 128, {}};
        for (std::size_t n = 1 + maker.below(300); n > 0; --n) table.moves.push_back(maker.byte());
        StridedBytes const bytes(Bytes(table.moves.begin(), table.moves.end()), 1 + maker.below(3));
        ASSERT_TRUE(Handler::generate_move_table_string(
            moves, bytes.view(), static_cast<signed char>(table.stride), error));
        // The first score is not '*', which alone would mean that there are none.
        while (qualities.size() < read.sequence.size()) {
            qualities += static_cast<char>(qualities.empty() ? '5' : '!' + maker.below(94));
        }
        lines.push_back(
            joined_line("read" + std::to_string(i), read.sequence, qualities, moves, calls));
        ASSERT_TRUE(handler.add_alignment_sam(lines.back())) << handler.error_message;
        ASSERT_EQ(groups_text(read_modified_bases(lines.back(), read.sequence)),
                  groups_text(expected_groups(read)));
        ASSERT_EQ(read_move_table(lines.back()), table);
    }
    expect_same_through_bam(handler, lines);
}

// ---------------------------------------------------------------------------
// The readers that the tests above trust
// ---------------------------------------------------------------------------

TEST(AnnotationReaders, ModifiedBases_PositionsByHand) {
    EXPECT_EQ(
        groups_text(read_modified_bases("Mm:Z:C+m?,1,0;A+,0;G+123;\tMl:B:C,200,0,255", "CACTCGA")),
        "C+m? 2:200 4:0\nA+ 1:255\nG+123\n");
    EXPECT_EQ(groups_text(read_modified_bases("r\t4\tMl:B:C,9\tmv:B:c,1,1\tMm:Z:T+g,0;", "AT")),
              "T+g 1:9\n");
    EXPECT_EQ(groups_text(read_modified_bases("Mm:Z:\tMl:B:C", "")), "");
}

TEST(AnnotationReaders, ModifiedBasesThatAreWrong_Refused) {
    for (char const* const text :
         {"Mm:Z:C+m,0;", "Ml:B:C,1", "Mm:Z:C+m,0;\tMl:B:c,1", "Mm:Z:C+m,0;\tMl:B:C",
          "Mm:Z:C+m,0;\tMl:B:C,1,2", "Mm:Z:C+m,0\tMl:B:C,1", "Mm:Z:C+m,3;\tMl:B:C,1",
          "Mm:Z:C+m,2,0;\tMl:B:C,1,2", "Mm:Z:C+m,00;\tMl:B:C,1", "Mm:Z:C+m,;\tMl:B:C,1",
          "Mm:Z:C+m,-1;\tMl:B:C,1", "Mm:Z:C+m, 0;\tMl:B:C,1", "Mm:Z:C+m,0;\tMl:B:C,256",
          "Mm:Z:C+m,0;\tMl:B:C,01", "Mm:Z:C+m,0;\tMl:B:C1", "Mm:Z:Cm,0;\tMl:B:C,1",
          "Mm:Z:;\tMl:B:C", "Mm:Z:C+m,0;\tMm:Z:\tMl:B:C,1", "Mm:Z:T+m,0;\tMl:B:C,1"}) {
        EXPECT_THROW((void)read_modified_bases(text, "CCC"), std::runtime_error) << text;
    }
    EXPECT_NO_THROW((void)read_modified_bases("Mm:Z:C+m,2;\tMl:B:C,255", "CCC"));
}

TEST(AnnotationReaders, MoveTable_TextMadeByHand_GivesItsMoves) {
    EXPECT_EQ(read_move_table("mv:B:c,-128,1,127,0,127,127,1,126"),
              (MoveTable{-128, {1, 127, 255, 126}}));
    EXPECT_EQ(read_move_table("x\tmv:B:c,127\ty"), (MoveTable{127, {}}));
}

TEST(AnnotationReaders, MoveTableThatIsWrong_Refused) {
    for (char const* const text :
         {"mv:B:C,5,1", "mv:B:c", "mv:B:c5,1", "mv:B:c,5,128", "mv:B:c,5,-1", "mv:B:c,128,1",
          "mv:B:c,-129,1", "mv:B:c,-0,1", "mv:B:c,5,", "mv:B:c,5,01", "mv:B:c,5,127",
          "mv:B:c,5,1,127,127", "mv:B:c,5,1\tmv:B:c,5,1", "mv:B:c,5, 1", ""}) {
        EXPECT_THROW((void)read_move_table(text), std::runtime_error) << text;
    }
}

}  // namespace

// The alignment store: value types, the handler's state, its accessors and the
// look-up of references.

#include "util/bam/bam_file.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "data_wrappers/vec_view.h"
#include "tests/support/colliding_names.h"
#include "tests/support/record_text.h"

namespace tesk::test {
namespace {

using data_wrappers::VecView;
using util::bam::BAMFileHandler;
using AuxData = BAMFileHandler::AuxData;
using AuxNumericalArray = BAMFileHandler::AuxNumericalArray;
using BamRecord = BAMFileHandler::BamRecord;
using RefSeq = BAMFileHandler::RefSeq;

AuxNumericalArray array_of_bytes() { return {'C', 2, {'\x01', '\x02'}}; }

// A record in which no field is empty or zero.
BamRecord full_record() {
    return {2,
            99,
            "read",
            60,
            4681,
            163,
            3,
            4,
            299,
            -250,
            {3U << 4},
            3,
            {0x12, 0x40},
            {40, 41, 42},
            {{"NM", 'i', std::int32_t{1}},
             {"XZ", 'Z', std::string("text")},
             {"XB", 'B', array_of_bytes()}},
            "the line"};
}

// Everything that a handler holds, as text.
std::string state_text(BAMFileHandler const& handler) {
    std::string text = "header " + in_quotes(handler.header) + "\nsort_order " +
                       in_quotes(handler.sort_order) + "\nheader_lines " +
                       in_quotes(handler.header_lines) + "\nhas_sort_order " +
                       (handler.has_sort_order ? "true" : "false");
    for (RefSeq const& reference : handler.references) {
        text += "\nreference " + in_quotes(reference.name) + ' ' + std::to_string(reference.length);
    }
    for (BamRecord const& record : handler.records) text += '\n' + record_text(record);
    return text;
}

BAMFileHandler filled_handler() {
    BAMFileHandler handler;
    EXPECT_TRUE(handler.add_header_lines("@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:chr1\tLN:1000\n"));
    EXPECT_TRUE(handler.add_alignment_sam(SamLine().with(QNAME, "first").text()));
    EXPECT_TRUE(handler.add_alignment_sam(SamLine().with(QNAME, "second").text()));
    EXPECT_TRUE(handler.sort());
    return handler;
}

// --- Value types -----------------------------------------------------------

TEST(AlignmentStore, Record_DefaultConstructed_IsAllZeroAndEmpty) {
    EXPECT_EQ(record_text(BamRecord()),
              "refID 0\npos 0\nread_name \"\"\nmapq 0\nbin 0\nflag 0\nl_seq 0\nnext_refID 0\n"
              "next_pos 0\ntlen 0\ncigar\nref_length 0\nseq \nqual \naux_data\nsam_line \"\"\n");
    RefSeq const reference;
    EXPECT_EQ(reference.name, "");
    EXPECT_EQ(reference.length, 0);
    AuxData const field;
    EXPECT_EQ(field_text(field), "\"\" \"\\x00\" nothing");
    AuxNumericalArray const array;
    EXPECT_EQ(value_text(array), "array \"\\x00\" of 0: ");
}

TEST(AlignmentStore, ValueTypes_OfAggregateKind_TakeTheirFieldsInOrder) {
    static_assert(std::is_aggregate_v<BamRecord> && std::is_aggregate_v<AuxData> &&
                  std::is_aggregate_v<AuxNumericalArray> && std::is_aggregate_v<RefSeq>);
    EXPECT_EQ(record_text(full_record()),
              "refID 2\npos 99\nread_name \"read\"\nmapq 60\nbin 4681\nflag 163\nl_seq 3\n"
              "next_refID 4\nnext_pos 299\ntlen -250\ncigar 48\nref_length 3\nseq 12 40\n"
              "qual 28 29 2a\naux_data\n"
              "  \"NM\" \"i\" int32 1\n"
              "  \"XZ\" \"Z\" string \"text\"\n"
              "  \"XB\" \"B\" array \"C\" of 2: 01 02\n"
              "sam_line \"the line\"\n");
    RefSeq const reference{"chr1", 1000};
    EXPECT_EQ(reference.name, "chr1");
    EXPECT_EQ(reference.length, 1000);
}

TEST(AlignmentStore, RecordFields_Integers_HaveTheWidthsOfTheFormat) {
    static_assert(std::is_same_v<decltype(BamRecord::refID), std::int32_t>);
    static_assert(std::is_same_v<decltype(BamRecord::pos), std::int32_t>);
    static_assert(std::is_same_v<decltype(BamRecord::mapq), std::uint8_t>);
    static_assert(std::is_same_v<decltype(BamRecord::bin), std::uint16_t>);
    static_assert(std::is_same_v<decltype(BamRecord::flag), std::uint16_t>);
    static_assert(std::is_same_v<decltype(BamRecord::l_seq), std::int32_t>);
    static_assert(std::is_same_v<decltype(BamRecord::next_refID), std::int32_t>);
    static_assert(std::is_same_v<decltype(BamRecord::next_pos), std::int32_t>);
    static_assert(std::is_same_v<decltype(BamRecord::tlen), std::int32_t>);
    static_assert(std::is_same_v<decltype(BamRecord::cigar), std::vector<std::uint32_t>>);
    static_assert(std::is_same_v<decltype(BamRecord::ref_length), std::uint64_t>);
    static_assert(std::is_same_v<decltype(BamRecord::seq), std::vector<std::uint8_t>>);
    static_assert(std::is_same_v<decltype(BamRecord::qual), std::vector<char>>);
    static_assert(std::is_same_v<decltype(AuxNumericalArray::count), std::uint32_t>);
    static_assert(std::is_same_v<decltype(RefSeq::length), std::int32_t>);
    SUCCEED();
}

TEST(AlignmentStore, Record_Copied_SharesNothingWithItsSource) {
    BamRecord const source = full_record();
    BamRecord copy = source;
    EXPECT_EQ(record_text(copy), record_text(source));

    copy.refID = 7;
    copy.read_name[0] = 'R';
    copy.cigar[0] = 0;
    copy.seq[0] = 0;
    copy.qual[0] = 0;
    copy.sam_line.clear();
    boost::any_cast<std::int32_t&>(copy.aux_data[0].value) = 100;
    boost::any_cast<std::string&>(copy.aux_data[1].value) = "changed";
    boost::any_cast<AuxNumericalArray&>(copy.aux_data[2].value).data[0] = 100;
    copy.aux_data[0].tag = "AS";
    EXPECT_EQ(record_text(source), record_text(full_record()));

    copy = source;
    EXPECT_EQ(record_text(copy), record_text(full_record()));
}

TEST(AlignmentStore, AuxData_Copied_ClonesTheHeldValue) {
    AuxData const source{"XB", 'B', array_of_bytes()};
    AuxData copy = source;
    boost::any_cast<AuxNumericalArray&>(copy.value).data.assign(2, '\x7F');
    EXPECT_EQ(field_text(source), "\"XB\" \"B\" array \"C\" of 2: 01 02");
    EXPECT_EQ(field_text(copy), "\"XB\" \"B\" array \"C\" of 2: 7f 7f");
}

TEST(AlignmentStore, Record_MovedFrom_HasEmptyVectors) {
    BamRecord source = full_record();
    char const* const qual_bytes = source.qual.data();
    BamRecord constructed = std::move(source);
    BamRecord assigned;
    auto const expect_empty = [](BamRecord const& moved_from) {
        EXPECT_TRUE(moved_from.cigar.empty());
        EXPECT_TRUE(moved_from.seq.empty());
        EXPECT_TRUE(moved_from.qual.empty());
        EXPECT_TRUE(moved_from.aux_data.empty());
    };
    expect_empty(source);  // NOLINT(bugprone-use-after-move): what it holds is the point
    EXPECT_EQ(record_text(constructed), record_text(full_record()));
    EXPECT_EQ(constructed.qual.data(), qual_bytes) << "contents were copied";

    assigned = std::move(constructed);
    expect_empty(constructed);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(record_text(assigned), record_text(full_record()));
    EXPECT_EQ(assigned.qual.data(), qual_bytes) << "contents were copied";

    // Only then does a growing vector of records move them.
    static_assert(std::is_nothrow_move_constructible_v<BamRecord>);
}

TEST(AlignmentStore, Value_ReadBackByAnotherType_ThrowsBadCast) {
    boost::any const values[] = {
        char{'x'},           std::int8_t{1},  std::uint8_t{1},  std::int16_t{1},
        std::uint16_t{1},    std::int32_t{1}, std::uint32_t{1}, 1.0F,
        std::string("text"), array_of_bytes()};
    for (std::size_t i = 0; i < std::size(values); ++i) {
        SCOPED_TRACE(value_text(values[i]));
        auto const expect = [&](std::size_t kind, auto example) {
            using Kind = decltype(example);
            if (kind == i) {
                EXPECT_NO_THROW(boost::any_cast<Kind>(values[i]));
            } else {
                EXPECT_THROW(boost::any_cast<Kind>(values[i]), boost::bad_any_cast);
            }
        };
        expect(0, char{});
        expect(1, std::int8_t{});
        expect(2, std::uint8_t{});
        expect(3, std::int16_t{});
        expect(4, std::uint16_t{});
        expect(5, std::int32_t{});
        expect(6, std::uint32_t{});
        expect(7, float{});
        expect(8, std::string());
        expect(9, AuxNumericalArray());
    }
}

TEST(AlignmentStore, Record_PosAndPnextZero_BecomeMinusOne) {
    BAMFileHandler handler;
    BamRecord record;
    ASSERT_TRUE(handler.parse_sam_line_to_bam_record(
        SamLine().with(POS, "0").with(PNEXT, "0").text(), record));
    EXPECT_EQ(record.pos, -1);
    EXPECT_EQ(record.next_pos, -1);
}

TEST(AlignmentStore, Record_ThreeBases_TakeTwoBytesWithLastNibbleZero) {
    BAMFileHandler handler;
    BamRecord record;
    ASSERT_TRUE(handler.parse_sam_line_to_bam_record(
        SamLine().with(SEQ, "ACG").with(QUAL, "!~I").text(), record));
    EXPECT_EQ(record.l_seq, 3);
    EXPECT_EQ(hex_text(record.seq), "12 40");
    EXPECT_EQ(hex_text(record.qual), "00 5d 28");
}

TEST(AlignmentStore, ArrayField_WithoutElements_HasCountZeroAndNoData) {
    BAMFileHandler handler;
    BamRecord record;
    ASSERT_TRUE(handler.parse_sam_line_to_bam_record(SamLine().field("XB:B:i").text(), record));
    EXPECT_EQ(fields_text(record.aux_data), "  \"XB\" \"B\" array \"i\" of 0: \n");
}

// --- The handler's state ---------------------------------------------------

TEST(AlignmentStore, Handler_Constructed_IsEmpty) {
    BAMFileHandler const handler;
    EXPECT_EQ(handler.error_message, "");
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(handler.bytes_written, 0U);
    EXPECT_EQ(state_text(handler),
              "header \"\"\nsort_order \"\"\nheader_lines \"\"\nhas_sort_order false");
}

TEST(AlignmentStore, CodeMaps_All256Chars_HoldTheCodesAndMinusOne) {
    struct MapCase {
        char const* label;
        std::map<char, std::int32_t> const& codes;
        std::map<char, std::int32_t> letters;
    };
    BAMFileHandler const handler;
    MapCase const cases[] = {{"CIGAR operations",
                              handler.cigar_op_codes,
                              {{'M', 0},
                               {'I', 1},
                               {'D', 2},
                               {'N', 3},
                               {'S', 4},
                               {'H', 5},
                               {'P', 6},
                               {'=', 7},
                               {'X', 8}}},
                             {"bases",
                              handler.seq_codes,
                              {{'=', 0},
                               {'A', 1},
                               {'C', 2},
                               {'M', 3},
                               {'G', 4},
                               {'R', 5},
                               {'S', 6},
                               {'V', 7},
                               {'T', 8},
                               {'W', 9},
                               {'Y', 10},
                               {'H', 11},
                               {'K', 12},
                               {'D', 13},
                               {'B', 14},
                               {'N', 15},
                               {'U', 8}}}};
    for (MapCase const& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(c.codes.size(), 256U);
        for (int value = CHAR_MIN; value <= CHAR_MAX; ++value) {
            SCOPED_TRACE(value);
            char const letter = static_cast<char>(value);
            auto const expected = c.letters.find(letter);
            ASSERT_EQ(c.codes.count(letter), 1U);
            EXPECT_EQ(c.codes.at(letter), expected == c.letters.end() ? -1 : expected->second);
        }
    }
}

TEST(AlignmentStore, BaseU_Packed_BecomesT) {
    BAMFileHandler handler;
    BamRecord with_u;
    BamRecord with_t;
    ASSERT_TRUE(handler.pack_seq_string("UAUU", with_u));
    ASSERT_TRUE(handler.pack_seq_string("TATT", with_t));
    EXPECT_EQ(hex_text(with_u.seq), "81 88");
    EXPECT_EQ(hex_text(with_t.seq), "81 88");
}

TEST(AlignmentStore, LowerCaseLetters_AsBases_AreInvalid) {
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        SCOPED_TRACE(letter);
        BAMFileHandler handler;
        BamRecord record;
        EXPECT_FALSE(handler.pack_seq_string(std::string(1, letter) + 'A', record));
        EXPECT_EQ(handler.error_message, "Invalid sequence code detected");
    }
}

TEST(AlignmentStore, Reset_FilledHandler_KeepsOnlyMessageFileNameAndMaps) {
    BAMFileHandler handler = filled_handler();
    handler.error_message = "the last failure";
    handler.file_name = "a file";
    handler.bytes_written = 17;
    EXPECT_TRUE(handler.reset());
    EXPECT_EQ(state_text(handler), state_text(BAMFileHandler()));
    EXPECT_EQ(handler.error_message, "the last failure");
    EXPECT_EQ(handler.file_name, "a file");
    EXPECT_EQ(handler.cigar_op_codes, BAMFileHandler().cigar_op_codes);
    EXPECT_EQ(handler.seq_codes, BAMFileHandler().seq_codes);

    EXPECT_TRUE(handler.reset()) << "of an empty handler";
    EXPECT_EQ(state_text(handler), state_text(BAMFileHandler()));
}

TEST(AlignmentStore, Reset_ThenFilledAgain_HoldsOnlyTheNewContents) {
    BAMFileHandler handler = filled_handler();
    handler.reset();
    ASSERT_TRUE(handler.add_header_lines("@SQ\tSN:chr2\tLN:5"));
    ASSERT_TRUE(handler.add_alignment_sam(SamLine().with(RNEXT, "chr2").text()));
    EXPECT_EQ(handler.header, "@SQ\tSN:chr2\tLN:5\n");
    ASSERT_EQ(handler.records.size(), 1U);
    EXPECT_EQ(handler.records[0].refID, -1) << "chr1 went with the reset";
    EXPECT_EQ(handler.records[0].next_refID, 0);
}

TEST(AlignmentStore, Handler_Copied_SharesNothingWithItsSource) {
    BAMFileHandler const source = filled_handler();
    BAMFileHandler copy = source;
    EXPECT_EQ(state_text(copy), state_text(source));
    copy.reset();
    EXPECT_EQ(state_text(source), state_text(filled_handler()));
}

// --- Accessors and the error convention ------------------------------------

TEST(AlignmentStore, GetHeader_AnyHandler_ReplacesTheArgument) {
    BAMFileHandler const filled = filled_handler();
    std::string header = "before";
    EXPECT_TRUE(filled.get_header(header));
    EXPECT_EQ(header, "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:chr1\tLN:1000\n");
    EXPECT_TRUE(BAMFileHandler().get_header(header));
    EXPECT_EQ(header, "");
}

TEST(AlignmentStore, GetNumAlignments_AnyHandler_StoresTheNumberOfRecords) {
    unsigned long n = 17;
    EXPECT_TRUE(BAMFileHandler().get_num_alignments(n));
    EXPECT_EQ(n, 0U);
    EXPECT_TRUE(filled_handler().get_num_alignments(n));
    EXPECT_EQ(n, 2U);
}

TEST(AlignmentStore, GetAlignmentSam_Index_MustBeBelowTheNumberOfRecords) {
    struct IndexCase {
        char const* label;
        unsigned long index;
        char const* qname;  // null: out of range
    };
    constexpr IndexCase CASES[] = {
        {"first", 0, "first"},
        {"last", 1, "second"},
        {"number of records", 2, nullptr},
        {"one beyond", 3, nullptr},
        {"largest", ULONG_MAX, nullptr},
    };
    for (IndexCase const& c : CASES) {
        SCOPED_TRACE(c.label);
        BAMFileHandler const handler = filled_handler();
        std::string line = "before";
        EXPECT_EQ(handler.get_alignment_sam(c.index, line), c.qname != nullptr);
        if (c.qname != nullptr) {
            EXPECT_EQ(line, SamLine().with(QNAME, c.qname).text());
            EXPECT_EQ(handler.error_message, "");
        } else {
            EXPECT_EQ(line, "before");
            EXPECT_EQ(handler.error_message, "alignment sam index out of range!");
        }
    }
    BAMFileHandler const empty;
    std::string line = "before";
    EXPECT_FALSE(empty.get_alignment_sam(0, line));
    EXPECT_EQ(line, "before");
    EXPECT_EQ(empty.error_message, "alignment sam index out of range!");
}

TEST(AlignmentStore, AddAlignmentSam_MalformedLine_LeavesAllButTheMessage) {
    BAMFileHandler handler = filled_handler();
    std::string const before = state_text(handler);
    EXPECT_FALSE(handler.add_alignment_sam("r3\t0\tchr1"));
    EXPECT_EQ(handler.error_message, "Sam to Bam parsing failed: Malformed SAM line detected");
    EXPECT_EQ(state_text(handler), before);
}

TEST(AlignmentStore, AddAlignmentSam_GoodLine_AppendsRecordAndDropsTheOrder) {
    BAMFileHandler handler = filled_handler();
    ASSERT_TRUE(handler.has_sort_order);
    EXPECT_TRUE(handler.add_alignment_sam(SamLine().with(QNAME, "third").text()));
    EXPECT_FALSE(handler.has_sort_order);
    EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
    ASSERT_EQ(handler.records.size(), 3U);
    EXPECT_EQ(handler.records[1].read_name, "second");
    EXPECT_EQ(handler.records[2].read_name, "third");
}

TEST(AlignmentStore, AddAlignmentSam_LineWithRoomToSpare_KeepsLittleOfIt) {
    BAMFileHandler handler;
    std::string line = SamLine().field("CO:Z:" + std::string(1000, 'x')).text();
    std::string const expected = line;
    line.reserve(100000);
    ASSERT_TRUE(handler.add_alignment_sam(std::move(line)));
    EXPECT_EQ(handler.records.at(0).sam_line, expected);
    EXPECT_LE(handler.records.at(0).sam_line.capacity(), expected.size() * 9 / 8);
}

TEST(AlignmentStore, AddAlignmentSam_NumberThatThrows_LeavesTheUnfinishedRecord) {
    BAMFileHandler handler = filled_handler();
    handler.error_message = "an earlier failure";
    EXPECT_THROW(handler.add_alignment_sam(
                     SamLine().with(QNAME, "third").field("NM:i:1").field("AS:i:x").text()),
                 std::invalid_argument);
    ASSERT_EQ(handler.records.size(), 3U);
    EXPECT_EQ(handler.records[2].read_name, "third");
    EXPECT_EQ(fields_text(handler.records[2].aux_data), "  \"NM\" \"i\" int32 1\n");
    EXPECT_TRUE(handler.has_sort_order);
    EXPECT_EQ(handler.error_message, "an earlier failure");
}

TEST(AlignmentStore, ErrorMessage_AfterSuccess_IsKept) {
    BAMFileHandler handler;
    handler.error_message = "an earlier failure";
    BamRecord record;
    std::string text;
    unsigned long n = 0;
    EXPECT_TRUE(handler.add_header_lines("@SQ\tSN:chr1\tLN:1000"));
    EXPECT_TRUE(handler.add_alignment_sam(SamLine().text()));
    EXPECT_TRUE(handler.parse_sam_line_to_bam_record(SamLine().text(), record));
    EXPECT_TRUE(handler.update_sam_line(record));
    EXPECT_TRUE(handler.get_header(text));
    EXPECT_TRUE(handler.get_updated_header(text));
    EXPECT_TRUE(handler.get_num_alignments(n));
    EXPECT_TRUE(handler.get_alignment_sam(0, text));
    EXPECT_TRUE(handler.sort());
    EXPECT_TRUE(handler.reset());
    EXPECT_EQ(handler.error_message, "an earlier failure");
}

TEST(AlignmentStore, ErrorMessage_AfterTheNextFailure_IsReplacedWhole) {
    BAMFileHandler handler;
    std::string text;
    handler.error_message = "an earlier, much longer failure, of which nothing may stay behind";
    EXPECT_FALSE(handler.get_alignment_sam(0, text));
    EXPECT_EQ(handler.error_message, "alignment sam index out of range!");
    EXPECT_FALSE(handler.add_alignment_sam(""));
    EXPECT_EQ(handler.error_message, "Sam to Bam parsing failed: Malformed SAM line detected");
    EXPECT_FALSE(handler.add_alignment_sam(""));
    EXPECT_EQ(handler.error_message, "Sam to Bam parsing failed: Malformed SAM line detected");
}

// --- References by name ----------------------------------------------------

// The refIDs that a line with these names gets.
std::pair<std::int32_t, std::int32_t> look_up(BAMFileHandler& handler, std::string const& rname,
                                              std::string const& rnext) {
    BamRecord record;
    EXPECT_TRUE(handler.parse_sam_line_to_bam_record(
        SamLine().with(RNAME, rname).with(RNEXT, rnext).text(), record));
    return {record.refID, record.next_refID};
}

// A handler with n references ref0, ref1 and so on.
BAMFileHandler handler_with_references(std::size_t n) {
    BAMFileHandler handler;
    for (std::size_t i = 0; i < n; ++i) {
        handler.references.push_back({"ref" + std::to_string(i), 1000});
    }
    return handler;
}

constexpr std::size_t LIST_LENGTHS[] = {1, 2, 15, 16, 17, 18, 31, 32, 33, 64, 65, 100, 1000};

TEST(References, Name_InListOfAnyLength_IsFound) {
    for (std::size_t const n : LIST_LENGTHS) {
        SCOPED_TRACE(n);
        BAMFileHandler handler = handler_with_references(n);
        for (std::size_t i = 0; i < n; ++i) {
            auto const id = static_cast<std::int32_t>(i);
            ASSERT_EQ(look_up(handler, "ref" + std::to_string(i), "="), std::pair(id, id));
        }
    }
}

TEST(References, Name_NotInTheList_GivesMinusOne) {
    for (std::size_t const n : LIST_LENGTHS) {
        SCOPED_TRACE(n);
        BAMFileHandler handler = handler_with_references(n);
        EXPECT_EQ(look_up(handler, "*", "*"), std::pair(-1, -1));
        EXPECT_EQ(look_up(handler, "*", "="), std::pair(-1, -1));
        EXPECT_EQ(look_up(handler, "ref", "="), std::pair(-1, -1));
        EXPECT_EQ(look_up(handler, "ref00", "Ref0"), std::pair(-1, -1));
        EXPECT_EQ(look_up(handler, "ref" + std::to_string(n), "ref0"), std::pair(-1, 0));
        EXPECT_EQ(look_up(handler, "ref0", "ref" + std::to_string(n)), std::pair(0, -1));
        EXPECT_EQ(look_up(handler, "ref0,", "xref0"), std::pair(-1, -1));
    }
    BAMFileHandler without_references;
    EXPECT_EQ(look_up(without_references, "ref0", "="), std::pair(-1, -1));
}

TEST(References, Name_ThatOccursTwice_GivesItsFirstEntry) {
    for (std::size_t const n : LIST_LENGTHS) {
        SCOPED_TRACE(n);
        BAMFileHandler handler = handler_with_references(n);
        for (std::size_t i = 0; i < n; ++i) {
            handler.references.push_back({"ref" + std::to_string(i), 5});
        }
        for (std::size_t i = 0; i < n; ++i) {
            auto const id = static_cast<std::int32_t>(i);
            ASSERT_EQ(look_up(handler, "ref" + std::to_string(i), "="), std::pair(id, id));
        }
    }
}

TEST(References, List_AppendedToByTheCaller_IsFollowed) {
    BAMFileHandler handler;
    for (std::int32_t i = 0; i < 300; ++i) {
        SCOPED_TRACE(i);
        std::string const name = "ref" + std::to_string(i);
        ASSERT_EQ(look_up(handler, name, "ref0"), std::pair(-1, i == 0 ? -1 : 0));
        handler.references.push_back({name, 1000});
        ASSERT_EQ(look_up(handler, name, "ref0"), std::pair(i, 0));
    }
    handler.references.push_back({"ref299", 1000});
    handler.references.push_back({"ref7", 1000});
    EXPECT_EQ(look_up(handler, "ref299", "ref7"), std::pair(299, 7));
    ASSERT_TRUE(handler.add_header_lines("@SQ\tSN:ref8\tLN:5\n@SQ\tSN:other\tLN:5"));
    EXPECT_EQ(look_up(handler, "ref8", "other"), std::pair(8, 303));
}

TEST(References, List_ShortenedByTheCaller_IsFollowed) {
    BAMFileHandler handler = handler_with_references(100);
    EXPECT_EQ(look_up(handler, "ref99", "ref49"), std::pair(99, 49));
    handler.references.resize(50);
    EXPECT_EQ(look_up(handler, "ref99", "ref49"), std::pair(-1, 49));
    handler.references.resize(3);
    EXPECT_EQ(look_up(handler, "ref49", "ref2"), std::pair(-1, 2));
}

TEST(References, List_ShortenedThenAppendedTo_IsFollowed) {
    BAMFileHandler handler = handler_with_references(100);
    EXPECT_EQ(look_up(handler, "ref99", "ref49"), std::pair(99, 49));
    handler.references.resize(5);
    EXPECT_EQ(look_up(handler, "ref99", "ref4"), std::pair(-1, 4));
    for (int i = 0; i < 100; ++i) handler.references.push_back({"new" + std::to_string(i), 1000});
    EXPECT_EQ(look_up(handler, "new7", "ref99"), std::pair(12, -1));
    EXPECT_EQ(look_up(handler, "new99", "ref4"), std::pair(104, 4));
}

TEST(References, Names_MadeToCollide_AreFoundInReasonableTime) {
    constexpr std::size_t N = 100000;  // half a minute, if every name passed all before it
    std::vector<std::string> const names = colliding_names(N);
    if (std::hash<std::string_view>{}(names[0]) != std::hash<std::string_view>{}(names[1])) {
        GTEST_SKIP() << "the standard library's hash is another one";
    }
    auto const begin = std::chrono::steady_clock::now();
    BAMFileHandler handler;
    for (std::string const& name : names) handler.references.push_back({name, 1000});
    handler.references.push_back({names[5], 1000});
    for (std::size_t i = 0; i < N; i += 97) {
        ASSERT_EQ(look_up(handler, names[i], "missing"), std::pair(static_cast<int>(i), -1));
    }
    handler.references.push_back({"late", 1000});
    EXPECT_EQ(look_up(handler, "late", names[5]), std::pair(static_cast<int>(N) + 1, 5));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    handler.reset();
    EXPECT_EQ(look_up(handler, "late", names[5]), std::pair(-1, -1));
}

TEST(References, List_RefilledAfterReset_IsFollowed) {
    for (int const n : {17, 20, 100, 300}) {
        SCOPED_TRACE(n);
        BAMFileHandler handler = handler_with_references(100);
        EXPECT_EQ(look_up(handler, "ref1", "ref99"), std::pair(1, 99));
        handler.reset();
        EXPECT_EQ(look_up(handler, "ref1", "ref99"), std::pair(-1, -1));
        for (int i = n - 1; i >= 0; --i) {
            handler.references.push_back({"ref" + std::to_string(i), 1000});
        }
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(look_up(handler, "ref" + std::to_string(i), "new"), std::pair(n - 1 - i, -1));
        }
        EXPECT_EQ(look_up(handler, "ref99", "="),
                  n < 100 ? std::pair(-1, -1) : std::pair(n - 100, n - 100));
    }
}

TEST(References, List_OfACopiedHandler_IsFollowed) {
    BAMFileHandler source = handler_with_references(100);
    EXPECT_EQ(look_up(source, "ref1", "ref99"), std::pair(1, 99));
    BAMFileHandler copy = source;
    copy.references.push_back({"ref100", 1000});
    EXPECT_EQ(look_up(copy, "ref1", "ref100"), std::pair(1, 100));
    EXPECT_EQ(look_up(source, "ref1", "ref100"), std::pair(1, -1));
}

TEST(References, Names_WithOddBytes_AreComparedExactly) {
    std::string const with_nul = std::string("ref\0a", 5);
    for (std::size_t const n : {std::size_t{2}, std::size_t{50}}) {
        SCOPED_TRACE(n);
        BAMFileHandler handler = handler_with_references(n);
        handler.references.push_back({with_nul, 1000});
        handler.references.push_back({"\xC3\xA4", 1000});
        auto const first = static_cast<std::int32_t>(n);
        EXPECT_EQ(look_up(handler, with_nul, "\xC3\xA4"), std::pair(first, first + 1));
        EXPECT_EQ(look_up(handler, "ref", std::string("ref\0b", 5)), std::pair(-1, -1));
    }
}

TEST(References, LookUps_200000InAListOf100000_FinishInSeconds) {
    constexpr std::size_t N_REFERENCES = 100000;
    BAMFileHandler handler = handler_with_references(N_REFERENCES);
    auto const start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < N_REFERENCES; ++i) {
        std::size_t const mate = N_REFERENCES - 1 - i;
        auto const ids = look_up(handler, "ref" + std::to_string(i), "ref" + std::to_string(mate));
        ASSERT_EQ(ids, std::pair(static_cast<std::int32_t>(i), static_cast<std::int32_t>(mate)));
    }
    // A scan of the list would take ten thousand million comparisons.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

// --- VecView ---------------------------------------------------------------

TEST(VecViewType, Aggregate_PointerSizeStride_InThisOrder) {
    static_assert(std::is_aggregate_v<VecView<std::uint8_t>>);
    static_assert(std::is_same_v<decltype(VecView<std::uint8_t>::data), std::uint8_t const*>);
    static_assert(std::is_same_v<decltype(VecView<std::uint8_t>::size), std::size_t>);
    static_assert(std::is_same_v<decltype(VecView<std::uint8_t>::stride), std::size_t>);
    std::uint8_t const bytes[] = {10, 20, 30};
    VecView<std::uint8_t> const view{bytes, 3, 1};
    EXPECT_EQ(view.data, bytes);
    EXPECT_EQ(view.size, 3U);
    EXPECT_EQ(view.stride, 1U);
    VecView<std::uint8_t> const empty{nullptr, 0, 1};
    EXPECT_EQ(empty.size, 0U);
}

TEST(VecViewType, Element_AnyStride_LiesThatManyElementsApart) {
    std::int32_t const matrix[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};  // 4 rows of 3
    struct ViewCase {
        char const* label;
        VecView<std::int32_t> view;
        std::vector<std::int32_t> elements;
    };
    ViewCase const cases[] = {
        {"contiguous", {matrix, 4, 1}, {0, 1, 2, 3}},
        {"second column", {matrix + 1, 4, 3}, {1, 4, 7, 10}},
        {"every other", {matrix, 6, 2}, {0, 2, 4, 6, 8, 10}},
        {"one element again and again", {matrix + 5, 3, 0}, {5, 5, 5}},
    };
    for (ViewCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::vector<std::int32_t> elements;
        for (std::size_t k = 0; k < c.view.size; ++k) elements.push_back(c.view[k]);
        EXPECT_EQ(elements, c.elements);
        EXPECT_EQ(&c.view[1], c.view.data + c.view.stride);
    }
}

}  // namespace
}  // namespace tesk::test

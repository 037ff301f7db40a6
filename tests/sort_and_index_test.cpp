// Coordinate sort, bins, the index that BAM output gathers, and BAI files.

#include "util/bam/bam_file.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/bam_walker.h"
#include "tests/support/cout_capture.h"
#include "tests/support/index_builder.h"
#include "tests/support/temp_file.h"

namespace {

using namespace tesk::test;
using Handler = tesk::util::bam::BAMFileHandler;
using BamRecord = Handler::BamRecord;
using ChunkIndex = Handler::ChunkIndex;
using FileIndex = Handler::FileIndex;
using ReferenceIndex = Handler::ReferenceIndex;
using Chunks = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

constexpr std::int32_t INT_LOWEST = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t INT_HIGHEST = std::numeric_limits<std::int32_t>::max();

constexpr char TWO_REFERENCES[] = "@SQ\tSN:chr1\tLN:536870912\n@SQ\tSN:chr2\tLN:536870912\n";

// A record that says nothing but where it stands.
BamRecord record_at(std::int32_t refID, std::int32_t pos, std::uint64_t ref_length = 1,
                    std::uint16_t bin = 4681, std::uint16_t flag = 0) {
    BamRecord record;
    record.refID = refID;
    record.pos = pos;
    record.read_name = "r";
    record.ref_length = ref_length;
    record.bin = bin;
    record.flag = flag;
    record.next_refID = -1;
    record.next_pos = -1;
    return record;
}

using Coordinates = std::vector<std::pair<std::int32_t, std::int32_t>>;

Handler handler_with(Coordinates const& coordinates) {
    Handler handler;
    for (auto const& [refID, pos] : coordinates) handler.records.push_back(record_at(refID, pos));
    return handler;
}

Coordinates coordinates_of(Handler const& handler) {
    Coordinates coordinates;
    for (BamRecord const& record : handler.records) {
        coordinates.emplace_back(record.refID, record.pos);
    }
    return coordinates;
}

// ===========================================================================
// Sort
// ===========================================================================

struct SortCase {
    char const* label;
    Coordinates before;
    Coordinates after;
};

TEST(Sort, Records_AnyOrder_ComeOutByReferenceThenPosition) {
    std::vector<SortCase> const cases = {
        {"references 1, -1, 0", {{1, 7}, {-1, 3}, {0, 9}}, {{0, 9}, {1, 7}, {-1, 3}}},
        {"positions 100, -1, 5", {{2, 100}, {2, -1}, {2, 5}}, {{2, -1}, {2, 5}, {2, 100}}},
        {"two unplaced reads", {{-1, -1}, {3, 4}, {-1, -1}}, {{3, 4}, {-1, -1}, {-1, -1}}},
        {"one record", {{5, 6}}, {{5, 6}}},
        {"in order already", {{0, 0}, {0, 1}, {1, 0}}, {{0, 0}, {0, 1}, {1, 0}}},
        {"positions are signed",
         {{0, INT_HIGHEST}, {0, 0}, {0, INT_LOWEST}, {0, -1}},
         {{0, INT_LOWEST}, {0, -1}, {0, 0}, {0, INT_HIGHEST}}},
        {"references are unsigned",
         {{-1, 0}, {-2, 0}, {INT_LOWEST, 0}, {INT_HIGHEST, 0}, {0, 0}},
         {{0, 0}, {INT_HIGHEST, 0}, {INT_LOWEST, 0}, {-2, 0}, {-1, 0}}},
        {"reference before position", {{1, 1}, {0, 2}}, {{0, 2}, {1, 1}}},
    };
    for (SortCase const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler = handler_with(c.before);
        EXPECT_TRUE(handler.sort());
        EXPECT_EQ(coordinates_of(handler), c.after);
        EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
        EXPECT_TRUE(handler.has_sort_order);
    }
}

TEST(Sort, NoRecords_Sorted_SetsTheSortOrderAllTheSame) {
    Handler handler;
    EXPECT_TRUE(handler.sort());
    EXPECT_TRUE(handler.has_sort_order);
    EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
    std::string header;
    EXPECT_TRUE(handler.get_updated_header(header));
    EXPECT_EQ(header, "@HD\tVN:1.6\tSO:coordinate\n");
}

TEST(Sort, SortOrderOfTheHeader_Sorted_IsReplacedAndTheTextKept) {
    Handler handler;
    std::string const text = "@HD\tVN:1.6\tSO:queryname\n@CO\tx\n";
    ASSERT_TRUE(handler.add_header_lines(text));
    EXPECT_TRUE(handler.sort());
    EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
    EXPECT_EQ(handler.header, text);
    EXPECT_EQ(handler.header_lines, "@CO\tx\n");
    std::string header;
    EXPECT_TRUE(handler.get_updated_header(header));
    EXPECT_EQ(header, "@HD\tVN:1.6\tSO:coordinate\n@CO\tx\n");
}

TEST(Sort, Records_SortedTwice_StayAsTheyAre) {
    Handler handler = handler_with({{1, 5}, {0, 3}, {-1, -1}, {0, -1}});
    ASSERT_TRUE(handler.sort());
    Coordinates const once = coordinates_of(handler);
    ASSERT_TRUE(handler.sort());
    EXPECT_EQ(coordinates_of(handler), once);
    EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
    EXPECT_TRUE(handler.has_sort_order);
}

TEST(Sort, RecordsEqualInBothKeys_Sorted_KeepTheirOrder) {
    std::mt19937 random(51);
    Handler handler;
    for (int i = 0; i < 2000; ++i) {
        BamRecord record = record_at(static_cast<std::int32_t>(random() % 3) - 1,
                                     static_cast<std::int32_t>(random() % 5) - 1);
        record.read_name = std::to_string(i);
        handler.records.push_back(record);
    }
    ASSERT_TRUE(handler.sort());
    for (std::size_t i = 1; i < handler.records.size(); ++i) {
        BamRecord const& a = handler.records[i - 1];
        BamRecord const& b = handler.records[i];
        auto const key = [](BamRecord const& record) {
            return std::make_pair(static_cast<std::uint32_t>(record.refID), record.pos);
        };
        ASSERT_LE(key(a), key(b)) << i;
        if (key(a) == key(b)) {
            ASSERT_LT(std::stoi(a.read_name), std::stoi(b.read_name)) << i;
        }
    }
}

TEST(Sort, Records_Sorted_ChangeNothingButTheirOrder) {
    Handler handler;
    ASSERT_TRUE(handler.add_header_lines(TWO_REFERENCES));
    for (int i = 200; i > 0; --i) {
        std::string const name = std::to_string(i);
        ASSERT_TRUE(
            handler.add_alignment_sam("read" + name + "\t0\tchr2\t" + name +
                                      "\t9\t5M1D3M\t=\t7\t-8\tACGTNACG\tABCDEFGH\tXX:Z:" + name));
    }
    std::vector<BamRecord> const before = handler.records;
    ASSERT_TRUE(handler.sort());
    ASSERT_EQ(handler.records.size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
        BamRecord const& old = before[before.size() - 1 - i];
        BamRecord const& now = handler.records[i];
        EXPECT_EQ(now.sam_line, old.sam_line);
        EXPECT_EQ(now.bin, old.bin);
        std::vector<char> old_bytes;
        std::vector<char> now_bytes;
        ASSERT_TRUE(handler.serialise_bam_record_to_buffer(old, old_bytes));
        ASSERT_TRUE(handler.serialise_bam_record_to_buffer(now, now_bytes));
        EXPECT_EQ(now_bytes, old_bytes);
    }
}

TEST(Sort, Records_Sorted_AreMovedAndNotCopied) {
    Handler handler;
    for (std::int32_t pos : {9, 4, 7, 1, 8, 2, 6, 3, 5}) {
        BamRecord record = record_at(0, pos);
        record.seq.assign(100, 0);
        record.sam_line.assign(100, 'x');
        handler.records.push_back(std::move(record));
    }
    std::vector<std::pair<std::uint8_t const*, char const*>> contents(10);
    for (BamRecord const& record : handler.records) {
        contents[static_cast<std::size_t>(record.pos)] = {record.seq.data(),
                                                          record.sam_line.data()};
    }
    ASSERT_TRUE(handler.sort());
    for (std::size_t i = 0; i < handler.records.size(); ++i) {
        BamRecord const& record = handler.records[i];
        EXPECT_EQ(record.pos, static_cast<std::int32_t>(i + 1));
        EXPECT_EQ(record.seq.data(), contents[i + 1].first);
        EXPECT_EQ(record.sam_line.data(), contents[i + 1].second);
    }
}

// ===========================================================================
// Bins
// ===========================================================================

struct BinCase {
    char const* label;
    int beg;
    int end;
    unsigned short bin;
};

constexpr BinCase BIN_CASES[] = {
    {"first base", 0, 1, 4681},
    {"one base less than a window", 0, 16383, 4681},
    {"one whole window", 0, 16384, 4681},
    {"one base more", 0, 16385, 585},
    {"unplaced read", -1, 0, 4680},
    {"empty, at the very start", 0, 0, 0},
    {"empty, on a window boundary", 16384, 16384, 585},
    {"empty, inside a window", 16385, 16385, 4682},
    {"second window", 16384, 16385, 4682},
    {"over the first 2^17 boundary", 131071, 131073, 73},
    {"up to the first 2^17 boundary", 0, 131072, 585},
    {"over the first 2^20 boundary", 1048575, 1048577, 9},
    {"up to the first 2^20 boundary", 0, 1048576, 73},
    {"over the first 2^23 boundary", 8388607, 8388609, 1},
    {"up to the first 2^23 boundary", 0, 8388608, 9},
    {"over the first 2^26 boundary", 67108863, 67108865, 0},
    {"up to the first 2^26 boundary", 0, 67108864, 1},
    {"first base after the 2^26 boundary", 67108864, 67108865, 8777},
    {"last base of the range", 536870911, 536870912, 37448},
    {"the whole range", 0, 536870912, 0},
    {"one base more than the range", 0, 536870913, 0},
    {"number of 17 bits, cut to 16", 1073741824, 1073741825, 4681},
    {"last base below 0", -16384, -16383, 4680},
    {"lowest position", INT_LOWEST, INT_LOWEST + 1, 4681},
    {"end that wraps round", 0, INT_LOWEST, 0},
    {"beginning and end at the far edge", INT_HIGHEST, INT_LOWEST, 4680},
};

TEST(Index, RegToBin_Region_IsSmallestBinAroundIt) {
    Handler handler;
    for (BinCase const& c : BIN_CASES) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(handler.reg_to_bin(c.beg, c.end), c.bin);
    }
}

// A bin and the bases it covers: eight children share the bases of a bin, and
// bin b has the children 8b + 1 to 8b + 8.
struct BinExtent {
    std::int64_t beg = 0;
    std::int64_t end = std::int64_t{1} << 29;
};

std::vector<BinExtent> const& all_bins() {
    static std::vector<BinExtent> const bins = [] {
        std::vector<BinExtent> extents(37449);
        for (std::size_t child = 1; child < extents.size(); ++child) {
            BinExtent const parent = extents[(child - 1) / 8];
            std::int64_t const size = (parent.end - parent.beg) / 8;
            std::int64_t const beg = parent.beg + size * static_cast<std::int64_t>((child - 1) % 8);
            extents[child] = {beg, beg + size};
        }
        return extents;
    }();
    return bins;
}

// Regions inside the range: lengths of every magnitude, many of them close to
// a boundary between bins.
std::vector<std::pair<int, int>> sample_regions(std::size_t n) {
    std::mt19937 random(52);
    auto const below = [&](std::int64_t bound) {
        return static_cast<std::int64_t>(random()) % bound;
    };
    std::vector<std::pair<int, int>> regions;
    while (regions.size() < n) {
        auto beg = below(1 << 29);
        if (below(2) == 0) {
            std::int64_t const size = std::int64_t{1} << (14 + 3 * below(5));
            beg = beg / size * size + below(3) - 1;
        }
        std::int64_t length = 1 + below(std::int64_t{1} << below(30));
        if (below(3) == 0) length = (std::int64_t{1} << (14 + 3 * below(6))) + below(3) - 1;
        if (beg < 0 || beg + length > (1 << 29)) continue;
        regions.emplace_back(static_cast<int>(beg), static_cast<int>(beg + length));
    }
    return regions;
}

TEST(Index, RegToBin_SampledRegions_AgreeWithTheTreeOfBins) {
    Handler handler;
    for (auto const& [beg, end] : sample_regions(1000)) {
        std::size_t smallest = 0;
        for (std::size_t bin = 0; bin < all_bins().size(); ++bin) {
            if (all_bins()[bin].beg <= beg && end <= all_bins()[bin].end) smallest = bin;
        }
        ASSERT_EQ(handler.reg_to_bin(beg, end), smallest) << beg << " to " << end;
    }
}

TEST(Index, RegToBins_SampledRegions_AgreeWithTheTreeOfBins) {
    Handler handler;
    for (auto const& [beg, end] : sample_regions(500)) {
        std::vector<unsigned short> expected;
        for (std::size_t bin = 0; bin < all_bins().size(); ++bin) {
            if (all_bins()[bin].beg < end && beg < all_bins()[bin].end) {
                expected.push_back(static_cast<unsigned short>(bin));
            }
        }
        std::vector<unsigned short> bins;
        handler.reg_to_bins(beg, end, bins);
        ASSERT_EQ(bins, expected) << beg << " to " << end;
    }
}

struct BinsCase {
    char const* label;
    int beg;
    int end;
    std::vector<unsigned short> bins;
};

TEST(Index, RegToBins_Region_AreTheBinsThatOverlapIt) {
    std::vector<BinsCase> const cases = {
        {"first base", 0, 1, {0, 1, 9, 73, 585, 4681}},
        {"one whole window", 0, 16384, {0, 1, 9, 73, 585, 4681}},
        {"one base more", 0, 16385, {0, 1, 9, 73, 585, 4681, 4682}},
        {"empty, on a window boundary", 16384, 16384, {0, 1, 9, 73, 585}},
        {"empty, inside a window", 5, 5, {0, 1, 9, 73, 585, 4681}},
        {"empty, at the very start", 0, 0, {0}},
        {"unplaced read", -1, 0, {0, 0, 8, 72, 584, 4680}},
        {"last base of the range", 536870911, 536870912, {0, 8, 72, 584, 4680, 37448}},
        {"end before the beginning", 40000000, 5, {0, 1}},
        {"numbers cut to 16 bits", 1073741824, 1073741825, {0, 17, 137, 1097, 8777, 4681}},
    };
    Handler handler;
    for (BinsCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::vector<unsigned short> bins;
        handler.reg_to_bins(c.beg, c.end, bins);
        EXPECT_EQ(bins, c.bins);
    }
}

TEST(Index, RegToBins_WholeRange_IsEveryBinOnce) {
    Handler handler;
    std::vector<unsigned short> bins;
    handler.reg_to_bins(0, 536870912, bins);
    ASSERT_EQ(bins.size(), 37449U);
    for (std::size_t i = 0; i < bins.size(); ++i) ASSERT_EQ(bins[i], i);
}

TEST(Index, RegToBins_CalledTwice_AppendsTheSecondList) {
    Handler handler;
    std::vector<unsigned short> bins = {9999};
    handler.reg_to_bins(0, 1, bins);
    handler.reg_to_bins(-1, 0, bins);
    EXPECT_EQ(bins,
              (std::vector<unsigned short>{9999, 0, 1, 9, 73, 585, 4681, 0, 0, 8, 72, 584, 4680}));
}

TEST(Index, ReferenceIndex_CreatedOnDemand_HasTheDefaults) {
    FileIndex index;
    EXPECT_EQ(index.n_ref, 0);
    EXPECT_EQ(index.n_no_coor, 0U);
    ReferenceIndex const& reference = index.ref_indices[7];
    EXPECT_EQ(reference.n_mapped, 0U);
    EXPECT_EQ(reference.n_unmapped, 0U);
    EXPECT_EQ(reference.ref_beg, 0xFFFFFFFFFFFFFFFFU);
    EXPECT_EQ(reference.ref_end, 0U);
    EXPECT_TRUE(reference.bins.empty());
    EXPECT_TRUE(reference.ioffsets.empty());
    EXPECT_EQ(reference.n_intv, 0);
}

// ===========================================================================
// The BAI file written
// ===========================================================================

// What write_index_to_file() makes of an index.
std::string bai_bytes(FileIndex& index) {
    TempDir const dir;
    Handler const handler;
    std::string const path = dir.file("x.bai");
    EXPECT_TRUE(handler.write_index_to_file(path, index)) << handler.error_message;
    return read_file(path);
}

std::string hex_bytes(std::string_view hex) {
    std::string bytes;
    std::string digits;
    for (char const c : hex) {
        if (c == ' ') continue;
        digits += c;
        if (digits.size() < 2) continue;
        bytes += static_cast<char>(std::stoi(digits, nullptr, 16));
        digits.clear();
    }
    return bytes;
}

TEST(BaiFile, NoReferences_Written_AreSixteenBytes) {
    FileIndex index;
    index.n_no_coor = 0x0807060504030201U;
    EXPECT_EQ(bai_bytes(index), hex_bytes("42414901 00000000 0102030405060708"));
    EXPECT_TRUE(index.ref_indices.empty());
}

TEST(BaiFile, OneReferenceOfThreeHeld_Written_OthersAreEmptySections) {
    FileIndex index;
    index.n_ref = 3;
    ReferenceIndex& reference = index.ref_indices[1];
    reference.n_mapped = 5;
    reference.n_unmapped = 6;
    reference.ref_beg = 0x10000;
    reference.ref_end = 0x20000;
    reference.bins[4681].chunks = {{0x10000, 0x20000}};
    reference.ioffsets = {0x10000};
    reference.n_intv = 1;
    EXPECT_EQ(bai_bytes(index),
              hex_bytes("42414901 03000000"
                        "00000000 00000000"                                    // reference 0
                        "02000000"                                             // reference 1
                        "4a920000 02000000 0000010000000000 0000020000000000"  // bin 37450
                        "0500000000000000 0600000000000000"                    // its counts
                        "49120000 01000000 0000010000000000 0000020000000000"  // bin 4681
                        "01000000 0000010000000000"                            // windows
                        "00000000 00000000"                                    // reference 2
                        "0000000000000000"));
    ASSERT_EQ(index.ref_indices.size(), 3U);
    for (std::int32_t created : {0, 2}) {
        ReferenceIndex const& empty = index.ref_indices.at(created);
        EXPECT_EQ(empty.ref_beg, 0xFFFFFFFFFFFFFFFFU);
        EXPECT_EQ(empty.ref_end, 0U);
        EXPECT_EQ(empty.n_mapped + empty.n_unmapped, 0U);
        EXPECT_TRUE(empty.bins.empty());
        EXPECT_TRUE(empty.ioffsets.empty());
        EXPECT_EQ(empty.n_intv, 0);
    }
}

TEST(BaiFile, SeveralBins_Written_AscendWithTheirChunksAsTheyStand) {
    FileIndex index;
    index.n_ref = 1;
    ReferenceIndex& reference = index.ref_indices[0];
    reference.ref_beg = 7;
    reference.ref_end = 9;
    reference.bins[585].chunks = {{5, 6}, {3, 4}};  // not in order of their offsets
    reference.bins[0].chunks = {{1, 2}};
    EXPECT_EQ(bai_bytes(index), hex_bytes("42414901 01000000 03000000"
                                          "4a920000 02000000 0700000000000000 0900000000000000"
                                          "0000000000000000 0000000000000000"
                                          "00000000 01000000 0100000000000000 0200000000000000"
                                          "49020000 02000000 0500000000000000 0600000000000000"
                                          "0300000000000000 0400000000000000"
                                          "00000000 0000000000000000"));
}

TEST(BaiFile, MoreWindowsThanNIntv_Written_OnlyTheFirstOnesAppear) {
    FileIndex index;
    index.n_ref = 1;
    index.ref_indices[0].ioffsets = {1, 2, 3, 4};
    index.ref_indices[0].n_intv = 2;
    index.ref_indices[0].n_mapped = 99;  // no bins: nowhere to write it
    EXPECT_EQ(bai_bytes(index), hex_bytes("42414901 01000000 00000000"
                                          "02000000 0100000000000000 0200000000000000"
                                          "0000000000000000"));
}

TEST(BaiFile, FewerWindowsThanNIntv_Written_HasZerosForTheOthers) {
    FileIndex index;
    index.n_ref = 1;
    index.ref_indices[0].ioffsets = {7};
    index.ref_indices[0].n_intv = 3;
    ParsedBai const bai = parse_bai(bai_bytes(index));
    EXPECT_EQ(bai.references.at(0).ioffsets, (std::vector<std::uint64_t>{7, 0, 0}));
}

TEST(BaiFile, ReferencesBeyondNRef_Written_AreLeftOut) {
    FileIndex index;
    index.n_ref = 1;
    index.ref_indices[1].bins[3].chunks = {{1, 2}};
    index.ref_indices[-5].bins[3].chunks = {{1, 2}};
    EXPECT_EQ(bai_bytes(index), hex_bytes("42414901 01000000 00000000 00000000 0000000000000000"));

    FileIndex negative;
    negative.n_ref = -1;
    EXPECT_EQ(bai_bytes(negative), hex_bytes("42414901 ffffffff 0000000000000000"));
}

TEST(BaiFile, LongerFileThere_Written_IsReplacedAndTheNameKept) {
    TempDir const dir;
    std::string const path = dir.write("old.bai", std::string(1000, 'x'));
    Handler handler;
    handler.error_message = "an earlier failure";
    FileIndex index;
    EXPECT_TRUE(handler.write_index_to_file(path, index));
    EXPECT_EQ(read_file(path), hex_bytes("42414901 00000000 0000000000000000"));
    EXPECT_EQ(handler.file_name, path);
    EXPECT_EQ(handler.error_message, "an earlier failure");
}

TEST(BaiFile, FileThatCannotBeCreated_Written_FailsWithItsName) {
    TempDir const dir;
    Handler const handler;
    FileIndex index;
    index.n_ref = 2;
    for (std::string const& path : {dir.file("missing/x.bai"), dir.path().string()}) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(handler.write_index_to_file(path, index));
        EXPECT_EQ(handler.error_message, "Cannot open index file " + path + " for writing");
        EXPECT_EQ(handler.file_name, path);
        EXPECT_TRUE(index.ref_indices.empty());
    }
}

// ===========================================================================
// The readable dump
// ===========================================================================

struct Dump {
    bool is_true = false;
    std::string text;
    std::string error_message;
    std::string file_name;  // afterwards
    int n_flushes = 0;
};

constexpr char UNTOUCHED[] = "an earlier failure";

Dump dump_of_file(std::string const& path) {
    Handler handler;
    handler.error_message = UNTOUCHED;
    handler.file_name = "an earlier file";
    CoutCapture const capture;
    Dump dump;
    dump.is_true = handler.print_index_from_file(path);
    dump.text = capture.text();
    dump.error_message = handler.error_message;
    dump.file_name = handler.file_name;
    dump.n_flushes = capture.n_flushes();
    return dump;
}

Dump dump_of_bytes(std::string_view bytes) {
    TempDir const dir;
    Dump dump = dump_of_file(dir.write("x.bai", bytes));
    std::size_t const at = dump.error_message.find(dir.path().string());
    if (at != std::string::npos) dump.error_message.replace(at, std::string::npos, "PATH");
    return dump;
}

// A dump that ran to its end, with nothing changed behind it.
void expect_dump(std::string_view bytes, std::string const& text) {
    Dump const dump = dump_of_bytes(bytes);
    EXPECT_TRUE(dump.is_true);
    EXPECT_EQ(dump.text, text);
    EXPECT_EQ(dump.error_message, UNTOUCHED);
    EXPECT_EQ(dump.file_name, "");
}

std::string i32(std::int64_t value) { return le_bytes(static_cast<std::int32_t>(value)); }
std::string u64(std::uint64_t value) { return le_bytes(value); }

std::string bai_head(std::int64_t n_ref) { return "BAI\x01" + i32(n_ref); }

// A virtual offset's bytes.
std::string voffset(std::uint64_t block, std::uint64_t within) { return u64(block << 16 | within); }

// One reference as in the text below.
std::string sample_bai() {
    return bai_head(1) + i32(2) +                                                         //
           i32(37450) + i32(2) + voffset(0, 812) + voffset(912, 0) + u64(120) + u64(3) +  //
           i32(4681) + i32(1) + voffset(0, 812) + voffset(912, 0) +                       //
           i32(2) + voffset(0, 812) + voffset(0, 812) + u64(0);
}

constexpr char SAMPLE_DUMP[] =
    "n_ref is 1\n"
    "\n"
    "Ref 0 has 2 bins\n"
    "Ref 0 bin 37450 has 2 chunks\n"
    "Magic bin says placed unmapped begin 0,812 end 912,0, num mapped 120, unmapped 3\n"
    "Ref 0 bin 4681 has 1 chunks\n"
    "Start is file offset 0 block offset 812\n"
    "End is file offset 912 block offset 0\n"
    "Ref 0 has 1 total real chunks\n"
    "Ref 0 has 2 linear intervals\n"
    "Linear file offset 0 block offset 812 (0 - 16383)\n"
    "Linear file offset 0 block offset 812 (16384 - 32767)\n"
    "Got n_no_coor 0\n";

TEST(BaiDump, OneReference_Printed_IsTheWholeText) { expect_dump(sample_bai(), SAMPLE_DUMP); }

TEST(BaiDump, EveryLine_Printed_IsFlushed) {
    // Thirteen lines, the empty one printed with the one after it.
    EXPECT_EQ(dump_of_bytes(sample_bai()).n_flushes, 12);
}

TEST(BaiDump, ByteBehindTheEnd_Printed_IsReportedAndStillTrue) {
    expect_dump(sample_bai() + 'x',
                std::string(SAMPLE_DUMP) + "Error: more bytes available in the index file!\n");
}

TEST(BaiDump, NoReferences_Printed_AreTwoLines) {
    expect_dump(bai_head(0) + u64(17), "n_ref is 0\nGot n_no_coor 17\n");
}

TEST(BaiDump, NegativeNumberOfReferences_Printed_HasNoSections) {
    expect_dump(bai_head(-2) + u64(17), "n_ref is -2\nGot n_no_coor 17\n");
}

TEST(BaiDump, SeveralReferences_Printed_CountTheirOwnChunks) {
    expect_dump(bai_head(3) +                                                       //
                    i32(0) + i32(0) +                                               //
                    i32(2) + i32(9) + i32(2) + u64(1) + u64(2) + u64(3) + u64(4) +  //
                    i32(585) + i32(1) + voffset(5, 6) + voffset(7, 8) + i32(0) +    //
                    i32(1) + i32(0) + i32(0) + i32(1) + voffset(1, 65535) + u64(9),
                "n_ref is 3\n"
                "\nRef 0 has 0 bins\n"
                "Ref 0 has 0 total real chunks\n"
                "Ref 0 has 0 linear intervals\n"
                "\nRef 1 has 2 bins\n"
                "Ref 1 bin 9 has 2 chunks\n"
                "Start is file offset 0 block offset 1\n"
                "End is file offset 0 block offset 2\n"
                "Start is file offset 0 block offset 3\n"
                "End is file offset 0 block offset 4\n"
                "Ref 1 bin 585 has 1 chunks\n"
                "Start is file offset 5 block offset 6\n"
                "End is file offset 7 block offset 8\n"
                "Ref 1 has 3 total real chunks\n"
                "Ref 1 has 0 linear intervals\n"
                "\nRef 2 has 1 bins\n"
                "Ref 2 bin 0 has 0 chunks\n"
                "Ref 2 has 0 total real chunks\n"
                "Ref 2 has 1 linear intervals\n"
                "Linear file offset 1 block offset 65535 (0 - 16383)\n"
                "Got n_no_coor 9\n");
}

TEST(BaiDump, ExtremeNumbers_Printed_CountsAreSignedAndOffsetsUnsigned) {
    std::uint64_t const ones = 0xFFFFFFFFFFFFFFFFU;
    expect_dump(bai_head(1) + i32(2) +                                                     //
                    i32(37450) + i32(2) + u64(ones) + u64(ones) + u64(ones) + u64(ones) +  //
                    i32(-1) + i32(1) + u64(ones) + u64(ones) +                             //
                    i32(1) + u64(ones) + u64(ones),
                "n_ref is 1\n"
                "\nRef 0 has 2 bins\n"
                "Ref 0 bin 37450 has 2 chunks\n"
                "Magic bin says placed unmapped begin 281474976710655,65535 end "
                "281474976710655,65535, num mapped 18446744073709551615, unmapped "
                "18446744073709551615\n"
                "Ref 0 bin -1 has 1 chunks\n"
                "Start is file offset 281474976710655 block offset 65535\n"
                "End is file offset 281474976710655 block offset 65535\n"
                "Ref 0 has 1 total real chunks\n"
                "Ref 0 has 1 linear intervals\n"
                "Linear file offset 281474976710655 block offset 65535 (0 - 16383)\n"
                "Got n_no_coor 18446744073709551615\n");
}

TEST(BaiDump, NegativeCounts_Printed_AreListsWithoutEntries) {
    expect_dump(bai_head(2) +            //
                    i32(-1) + i32(-7) +  //
                    i32(2) + i32(5) + i32(INT_LOWEST) + i32(6) + i32(-1) + i32(0) + u64(4),
                "n_ref is 2\n"
                "\nRef 0 has -1 bins\n"
                "Ref 0 has 0 total real chunks\n"
                "Ref 0 has -7 linear intervals\n"
                "\nRef 1 has 2 bins\n"
                "Ref 1 bin 5 has -2147483648 chunks\n"
                "Ref 1 bin 6 has -1 chunks\n"
                "Ref 1 has 2147483647 total real chunks\n"  // the total wraps round
                "Ref 1 has 0 linear intervals\n"
                "Got n_no_coor 4\n");
}

TEST(BaiDump, WindowsBeyondTheRange_Printed_WrapRound) {
    constexpr std::size_t N_WINDOWS = 262145;  // one more than 2^32 bases hold
    Dump const dump = dump_of_bytes(bai_head(1) + i32(0) + i32(N_WINDOWS) +
                                    std::string(8 * N_WINDOWS, '\0') + u64(0));
    EXPECT_TRUE(dump.is_true);
    std::string const end =
        "Linear file offset 0 block offset 0 (4294950912 - 4294967295)\n"
        "Linear file offset 0 block offset 0 (0 - 16383)\n"
        "Got n_no_coor 0\n";
    ASSERT_GT(dump.text.size(), end.size());
    EXPECT_EQ(dump.text.substr(dump.text.size() - end.size()), end);
}

TEST(BaiDump, FileThatCannotBeOpened_Printed_FailsWithItsName) {
    TempDir const dir;
    for (std::string const& path : {dir.file("missing.bai"), dir.path().string()}) {
        SCOPED_TRACE(path);
        Dump const dump = dump_of_file(path);
        EXPECT_FALSE(dump.is_true);
        EXPECT_EQ(dump.error_message, "Cannot open index file " + path);
        EXPECT_EQ(dump.text, "");
        EXPECT_EQ(dump.file_name, "");
    }
}

TEST(BaiDump, WrongMagic_Printed_FailsBeforeAnything) {
    for (std::size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        std::string bytes = sample_bai();
        bytes[i] = '\x02';
        Dump const dump = dump_of_bytes(bytes);
        EXPECT_FALSE(dump.is_true);
        EXPECT_EQ(dump.error_message, "Encountered malformed BAI header in file PATH");
        EXPECT_EQ(dump.text, "");
        EXPECT_EQ(dump.file_name, "");
    }
}

TEST(BaiDump, PseudoBinOfOtherThanTwoChunks_Printed_FailsBehindItsLine) {
    for (int const n_chunk : {-1, 0, 1, 3}) {
        SCOPED_TRACE(n_chunk);
        Dump const dump = dump_of_bytes(bai_head(1) + i32(2) +                             //
                                        i32(1) + i32(1) + voffset(1, 2) + voffset(3, 4) +  //
                                        i32(37450) + i32(n_chunk) + std::string(100, '\0'));
        EXPECT_FALSE(dump.is_true);
        EXPECT_EQ(dump.error_message, "Encountered malformed magic bin in index file PATH");
        EXPECT_EQ(dump.text,
                  "n_ref is 1\n"
                  "\nRef 0 has 2 bins\n"
                  "Ref 0 bin 1 has 1 chunks\n"
                  "Start is file offset 1 block offset 2\n"
                  "End is file offset 3 block offset 4\n"
                  "Ref 0 bin 37450 has " +
                      std::to_string(n_chunk) + " chunks\n");
        EXPECT_EQ(dump.file_name, "");
    }
}

// A BAI file, and each line of its dump with the bytes that must be there for
// it to be printed.
struct AnnotatedBai {
    std::string bytes;
    std::vector<std::pair<std::size_t, std::string>> lines;

    void add(std::string const& more, std::vector<std::string> const& texts) {
        bytes += more;
        for (std::string const& text : texts) lines.emplace_back(bytes.size(), text);
    }

    std::string dump(std::size_t n_bytes) const {
        std::string text;
        for (auto const& [needed, line] : lines) {
            if (needed <= n_bytes) text += line + "\n";
        }
        return text;
    }
};

AnnotatedBai annotated_bai() {
    AnnotatedBai bai;
    bai.add(bai_head(2), {"n_ref is 2"});
    bai.add(i32(2), {"\nRef 0 has 2 bins"});
    bai.add(i32(37450) + i32(2), {"Ref 0 bin 37450 has 2 chunks"});
    bai.add(voffset(1, 2) + voffset(3, 4) + u64(5) + u64(6),
            {"Magic bin says placed unmapped begin 1,2 end 3,4, num mapped 5, unmapped 6"});
    bai.add(i32(4681) + i32(2), {"Ref 0 bin 4681 has 2 chunks"});
    bai.add(voffset(1, 2) + voffset(7, 8),
            {"Start is file offset 1 block offset 2", "End is file offset 7 block offset 8"});
    bai.add(voffset(9, 10) + voffset(3, 4),
            {"Start is file offset 9 block offset 10", "End is file offset 3 block offset 4",
             "Ref 0 has 2 total real chunks"});
    bai.add(i32(2), {"Ref 0 has 2 linear intervals"});
    bai.add(voffset(1, 2), {"Linear file offset 1 block offset 2 (0 - 16383)"});
    bai.add(voffset(9, 10), {"Linear file offset 9 block offset 10 (16384 - 32767)"});
    bai.add(i32(0), {"\nRef 1 has 0 bins", "Ref 1 has 0 total real chunks"});
    bai.add(i32(0), {"Ref 1 has 0 linear intervals"});
    bai.add(u64(11), {"Got n_no_coor 11"});
    return bai;
}

TEST(BaiDump, FileCutAtEveryLength_Printed_GoesAsFarAsTheFile) {
    AnnotatedBai const bai = annotated_bai();
    for (std::size_t length = 8; length <= bai.bytes.size(); ++length) {
        SCOPED_TRACE(length);
        expect_dump(bai.bytes.substr(0, length), bai.dump(length));
    }
}

TEST(BaiDump, FileCutInItsFirstEightBytes_Printed_HasNoSection) {
    for (std::size_t length = 0; length < 8; ++length) {
        SCOPED_TRACE(length);
        Dump const dump = dump_of_bytes(sample_bai().substr(0, length));
        EXPECT_EQ(dump.is_true, length >= 4);
        EXPECT_EQ(dump.file_name, "");
        if (length >= 4) {
            EXPECT_EQ(dump.text.rfind("n_ref is ", 0), 0U);
            EXPECT_EQ(dump.text.find('\n'), dump.text.size() - 1);
            EXPECT_EQ(dump.error_message, UNTOUCHED);
        } else {
            EXPECT_EQ(dump.text, "");
            EXPECT_EQ(dump.error_message, "Encountered malformed BAI header in file PATH");
        }
    }
}

struct LyingCount {
    char const* label;
    std::string bytes;
    char const* text;
};

TEST(BaiDump, CountsThatTheFileCannotHold_Printed_EndWithTheFile) {
    std::vector<LyingCount> const cases = {
        {"references", bai_head(INT_HIGHEST) + i32(0) + i32(0),
         "n_ref is 2147483647\n"
         "\nRef 0 has 0 bins\nRef 0 has 0 total real chunks\nRef 0 has 0 linear intervals\n"},
        {"bins", bai_head(1) + i32(INT_HIGHEST) + i32(1) + i32(0),
         "n_ref is 1\n\nRef 0 has 2147483647 bins\nRef 0 bin 1 has 0 chunks\n"},
        {"chunks", bai_head(1) + i32(1) + i32(1) + i32(INT_HIGHEST) + u64(1) + u64(2),
         "n_ref is 1\n\nRef 0 has 1 bins\nRef 0 bin 1 has 2147483647 chunks\n"
         "Start is file offset 0 block offset 1\nEnd is file offset 0 block offset 2\n"},
        {"windows", bai_head(1) + i32(0) + i32(INT_HIGHEST) + u64(3),
         "n_ref is 1\n\nRef 0 has 0 bins\nRef 0 has 0 total real chunks\n"
         "Ref 0 has 2147483647 linear intervals\n"
         "Linear file offset 0 block offset 3 (0 - 16383)\n"},
        {"all of them",
         bai_head(INT_HIGHEST) + i32(INT_HIGHEST) + i32(INT_HIGHEST) + i32(INT_HIGHEST),
         "n_ref is 2147483647\n\nRef 0 has 2147483647 bins\n"
         "Ref 0 bin 2147483647 has 2147483647 chunks\n"},
    };
    for (LyingCount const& c : cases) {
        SCOPED_TRACE(c.label);
        auto const start = std::chrono::steady_clock::now();
        expect_dump(c.bytes, c.text);
        // A walk over two thousand million missing entries takes far longer.
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    }
}

TEST(BaiDump, FileWritten_Printed_EndsWithoutWarning) {
    FileIndex index;
    index.n_ref = 1;
    index.n_no_coor = 21;
    index.ref_indices[0].bins[4681].chunks = {{1, 2}};
    std::string const bytes = bai_bytes(index);
    Dump const dump = dump_of_bytes(bytes);
    EXPECT_TRUE(dump.is_true);
    std::string const end = "Got n_no_coor 21\n";
    ASSERT_GT(dump.text.size(), end.size());
    EXPECT_EQ(dump.text.substr(dump.text.size() - end.size()), end);
    expect_dump(bytes + '\0', dump.text + "Error: more bytes available in the index file!\n");
}

// ===========================================================================
// The index that BAM output gathers
// ===========================================================================

// A BAM file and its index.
struct Written {
    std::string bam;
    std::string bai;
    std::vector<IndexedRecord> records;
};

// Writes with an index, the records in the order in which they stand.
Written write_indexed(Handler& handler) {
    TempDir const dir;
    handler.sort_order = "\tSO:coordinate";
    std::string const path = dir.file("x.bam");
    EXPECT_TRUE(handler.write_to_bam_file(path, true)) << handler.error_message;
    Written written{read_file(path), read_file(path + ".bai"), {}};
    written.records = index_records(written.bam, 0);
    EXPECT_EQ(written.records.size(), handler.records.size());
    for (std::size_t i = 0; i < written.records.size(); ++i) {
        written.records[i].ref_length = handler.records[i].ref_length;
    }
    return written;
}

// The same, in a process that has indexed a placed read before.
Written write_indexed_later(Handler& handler) {
    Handler first;
    first.records.push_back(record_at(0, 0));
    write_indexed(first);
    return write_indexed(handler);
}

Handler handler_of(std::vector<BamRecord> records) {
    Handler handler;
    EXPECT_TRUE(handler.add_header_lines(TWO_REFERENCES));
    handler.records = std::move(records);
    return handler;
}

// The chunks of a bin; those of the pseudo-bin are extent and counts.
Chunks chunks_of(ParsedBai const& bai, std::size_t ref, std::uint32_t number) {
    for (ParsedBai::Bin const& bin : bai.references.at(ref).bins) {
        if (bin.bin == number) return bin.chunks;
    }
    return {};
}

std::vector<std::uint32_t> bin_numbers(ParsedBai const& bai, std::size_t ref) {
    std::vector<std::uint32_t> numbers;
    for (ParsedBai::Bin const& bin : bai.references.at(ref).bins) numbers.push_back(bin.bin);
    return numbers;
}

struct WindowCase {
    char const* label;
    std::vector<std::pair<std::int32_t, std::uint64_t>> reads;  // pos, ref_length
    std::vector<std::size_t> windows;  // which read's offset each one holds
};

constexpr std::uint64_t minus(std::uint64_t n) { return 0 - n; }

TEST(LinearIndex, Reads_Indexed_FillTheirWindows) {
    using Windows = std::vector<std::size_t>;
    std::vector<WindowCase> const cases = {
        {"inside the first window", {{0, 100}}, {0}},
        {"ends a base before the boundary", {{0, 16383}}, {0}},
        {"ends on the boundary", {{0, 16384}}, {0, 0}},
        {"ends a base behind the boundary", {{0, 16385}}, {0, 0}},
        {"last base of a window", {{16383, 1}}, {0, 0}},
        {"starts in window 3", {{49152, 100}}, {0, 0, 0, 0}},
        {"gap", {{0, 100}, {49152, 100}}, {0, 0, 0, 1}},
        {"neighbouring windows", {{0, 100}, {16384, 100}, {32768, 100}}, {0, 1, 2}},
        {"shared windows keep the first", {{0, 40000}, {20000, 20000}}, {0, 0, 0}},
        {"longer than the one before", {{0, 100}, {50, 40000}}, {0, 1, 1}},
        {"exactly as many as there was room for", {{0, 40000}, {49152, 10}}, {0, 0, 0, 1}},
        {"one more than there was room for", {{0, 40000}, {65536, 10}}, {0, 0, 0, 0, 1}},
        {"far more than there was room for",
         {{0, 100}, {163840, 10}},
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
        {"a short read behind a long one", {{0, 180000}, {16384, 40000}}, {0, 0, 0, 0}},
        {"and a later one behind both",
         {{0, 180000}, {16384, 40000}, {100000, 1000}},
         {0, 0, 0, 0, 0, 0, 2}},
        {"and one right behind", {{0, 180000}, {16384, 40000}, {65536, 20000}}, {0, 0, 0, 0, 2, 2}},
        {"no position, one base", {{-1, 1}}, {0}},
        {"no position, no bases", {{-1, 0}}, {}},
        {"a gap behind no window at all", {{-1, 0}, {40000, 10}}, {1, 1, 1}},
        {"no gap behind no window at all", {{-1, 0}, {10, 10}}, {1}},
        {"all windows taken back", {{100, 100}, {-1, 0}}, {}},
        {"length that wraps to below 0", {{100, minus(5)}}, {0}},
        {"end that wraps to below 0", {{2, minus(5)}}, {}},
        {"end far before the beginning", {{1000000, minus(500000)}}, Windows(31, 0)},
        {"gap behind all that there is room for",
         {{1000000, minus(500000)}, {5000000, minus(4500000)}},
         Windows(31, 0)},
        {"and a read that covers the gap",
         {{1000000, minus(500000)}, {5000000, minus(4500000)}, {507904, 20000}},
         [] {
             Windows windows(33, 0);
             windows[31] = windows[32] = 2;
             return windows;
         }()},
    };
    for (WindowCase const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler = handler_of({});
        for (auto const& [pos, length] : c.reads) {
            handler.records.push_back(record_at(0, pos, length));
        }
        Written const written = write_indexed_later(handler);
        std::vector<std::uint64_t> expected;
        for (std::size_t const read : c.windows) expected.push_back(written.records[read].begin);
        EXPECT_EQ(parse_bai(written.bai).references.at(0).ioffsets, expected);
        EXPECT_EQ(written.bai, build_bai(2, written.records, true));
    }
}

TEST(LinearIndex, PositionFarBelowZero_Indexed_HasNegativeNIntvAndNoWindow) {
    Handler handler = handler_of({record_at(1, INT_LOWEST, 0)});
    Written const written = write_indexed_later(handler);
    // -2^31 lies in window -131072; what follows n_intv is n_no_coor.
    std::string const end = i32(-131071) + u64(0);
    EXPECT_EQ(written.bai.substr(written.bai.size() - end.size()), end);
    EXPECT_EQ(written.bai, build_bai(2, written.records, true));

    handler.records.push_back(record_at(1, 40000, 10));
    Written const longer = write_indexed_later(handler);
    EXPECT_EQ(parse_bai(longer.bai).references.at(1).ioffsets,
              std::vector<std::uint64_t>(3, longer.records[1].begin));
}

TEST(LinearIndex, ReadThatEndsInTheLastWindow_Indexed_IsTheLongestIndex) {
    constexpr std::uint64_t BASES = std::uint64_t{1} << 33;
    for (std::uint64_t const length : {BASES - 1, BASES, BASES + 16383}) {
        SCOPED_TRACE(length);
        Handler handler = handler_of({record_at(0, 0, length)});
        Written const written = write_indexed_later(handler);
        std::size_t const n_windows = length < BASES ? 1U << 19 : (1U << 19) + 1;
        EXPECT_TRUE(parse_bai(written.bai).references.at(0).ioffsets ==
                    std::vector<std::uint64_t>(n_windows, written.records[0].begin));
    }
}

struct TooFarCase {
    char const* label;
    std::int32_t pos;
    std::uint64_t ref_length;
};

constexpr TooFarCase TOO_FAR_CASES[] = {
    {"one window too far", 0, (std::uint64_t{1} << 33) + 16384},
    {"one window too far, by its position", 16384, std::uint64_t{1} << 33},
    {"window 2^31", 0, std::uint64_t{1} << 45},
    {"window 2^48 - 1", 0, (std::uint64_t{1} << 62) - 1},
    {"end that wraps to the lowest 64-bit number", 0, std::uint64_t{1} << 63},
};

TEST(LinearIndex, ReadBeyondTheLastWindow_Indexed_ThrowsLengthError) {
    for (TooFarCase const& c : TOO_FAR_CASES) {
        for (bool const is_second : {false, true}) {
            SCOPED_TRACE(std::string(c.label) + (is_second ? ", behind another read" : ""));
            TempDir const dir;
            std::string const path = dir.file("x.bam");
            Handler handler = handler_of({});
            if (is_second) handler.records.push_back(record_at(0, 0, 100));
            handler.records.push_back(record_at(0, c.pos, c.ref_length));
            handler.sort_order = "\tSO:coordinate";
            EXPECT_THROW(handler.write_to_bam_file(path, true), std::length_error);
            EXPECT_EQ(handler.file_name, "");
            EXPECT_TRUE(std::filesystem::exists(path));
            EXPECT_FALSE(std::filesystem::exists(path + ".bai"));

            EXPECT_TRUE(handler.write_to_bam_file(path, false)) << handler.error_message;
            EXPECT_FALSE(std::filesystem::exists(path + ".bai"));
        }
    }
}

TEST(LinearIndex, CigarBeyondTheLastWindow_Indexed_ThrowsLengthError) {
    TempDir const dir;
    Handler handler;
    ASSERT_TRUE(handler.add_header_lines(TWO_REFERENCES));
    ASSERT_TRUE(handler.add_alignment_sam(
        "r\t0\tchr1\t1\t0\t2147483647N2147483647N2147483647N2147483647N16388N\t*\t0\t0\t*\t*"));
    EXPECT_EQ(handler.records.at(0).ref_length, (std::uint64_t{1} << 33) + 16384);
    EXPECT_THROW(handler.write_to_bam_file(dir.file("x.bam"), true), std::length_error);
}

TEST(Chunks, NeighboursInOneBin_Indexed_ShareAChunk) {
    Handler handler = handler_of(
        {record_at(0, 5, 10, 4681), record_at(0, 6, 10, 4681), record_at(0, 7, 10, 4681)});
    Written const written = write_indexed_later(handler);
    ParsedBai const bai = parse_bai(written.bai);
    EXPECT_EQ(chunks_of(bai, 0, 4681),
              (Chunks{{written.records[0].begin, written.records[2].end}}));
}

TEST(Chunks, AnotherBinBetween_Indexed_SplitsTheChunk) {
    Handler handler = handler_of({record_at(0, 5, 10, 4681), record_at(0, 6, 10, 4681),
                                  record_at(0, 7, 20000, 585), record_at(0, 8, 10, 4681)});
    Written const written = write_indexed_later(handler);
    ParsedBai const bai = parse_bai(written.bai);
    std::vector<IndexedRecord> const& r = written.records;
    EXPECT_EQ(bin_numbers(bai, 0), (std::vector<std::uint32_t>{37450, 0, 585, 4681}));
    EXPECT_EQ(chunks_of(bai, 0, 4681), (Chunks{{r[0].begin, r[1].end}, {r[3].begin, r[3].end}}));
    EXPECT_EQ(chunks_of(bai, 0, 585), (Chunks{{r[2].begin, r[2].end}}));
    EXPECT_EQ(chunks_of(bai, 0, 37450), (Chunks{{0, r[3].end}, {4, 0}}));
}

TEST(Chunks, SameBinOfAnotherReference_Indexed_IsAnotherChunk) {
    Handler handler = handler_of({record_at(0, 5), record_at(1, 5), record_at(1, 6)});
    Written const written = write_indexed_later(handler);
    ParsedBai const bai = parse_bai(written.bai);
    std::vector<IndexedRecord> const& r = written.records;
    EXPECT_EQ(chunks_of(bai, 0, 4681), (Chunks{{r[0].begin, r[0].end}}));
    EXPECT_EQ(chunks_of(bai, 1, 4681), (Chunks{{r[1].begin, r[2].end}}));
    EXPECT_EQ(chunks_of(bai, 1, 37450), (Chunks{{r[1].begin, r[2].end}, {2, 0}}));
}

TEST(Chunks, ReadsWithoutReference_Indexed_AreOnlyCounted) {
    Handler handler =
        handler_of({record_at(-1, -1, 1, 4680, 4), record_at(1, 5), record_at(-1, -1, 1, 4680, 4),
                    record_at(1, 6), record_at(-1, 700, 1, 4681, 0)});
    Written const written = write_indexed_later(handler);
    ParsedBai const bai = parse_bai(written.bai);
    EXPECT_EQ(bai.n_no_coor, 3U);
    // The read between the two neither ends their chunk nor counts in it.
    EXPECT_EQ(chunks_of(bai, 1, 4681),
              (Chunks{{written.records[1].begin, written.records[3].end}}));
    EXPECT_EQ(chunks_of(bai, 1, 37450).at(1), (std::pair<std::uint64_t, std::uint64_t>{2, 0}));
    EXPECT_EQ(bai.references[1].ioffsets.size(), 1U);
}

TEST(Chunks, PlacedReads_Indexed_AreCountedByTheUnmappedFlag) {
    Handler handler = handler_of({});
    for (int const flag : {0, 4, 1, 5, 16, 0xFFFB, 0xFFFF}) {
        handler.records.push_back(record_at(1, 9, 1, 4681, static_cast<std::uint16_t>(flag)));
    }
    ParsedBai const bai = parse_bai(write_indexed_later(handler).bai);
    EXPECT_EQ(chunks_of(bai, 1, 37450).at(1), (std::pair<std::uint64_t, std::uint64_t>{4, 3}));
}

TEST(Chunks, ReferenceMetAgain_Indexed_ExtentReachesFromFirstToLast) {
    Handler handler = handler_of({record_at(1, 5), record_at(0, 5), record_at(1, 9)});
    Written const written = write_indexed_later(handler);
    ParsedBai const bai = parse_bai(written.bai);
    std::vector<IndexedRecord> const& r = written.records;
    EXPECT_EQ(chunks_of(bai, 1, 4681), (Chunks{{r[0].begin, r[0].end}, {r[2].begin, r[2].end}}));
    EXPECT_EQ(chunks_of(bai, 1, 37450).at(0), std::make_pair(r[0].begin, r[2].end));
    EXPECT_EQ(written.bai, build_bai(2, written.records, true));
}

TEST(Chunks, ReferenceBeyondTheList_Indexed_IsLeftOut) {
    Handler handler = handler_of({record_at(7, 5), record_at(-2, 5), record_at(1, 5)});
    Written const written = write_indexed_later(handler);
    EXPECT_EQ(written.bai, build_bai(2, written.records, true));
    EXPECT_EQ(parse_bai(written.bai).references.size(), 2U);
}

// Text that hardly compresses.
std::string noise(std::size_t n, std::string_view letters, unsigned seed) {
    std::mt19937 random(seed);
    std::string text;
    for (std::size_t i = 0; i < n; ++i) text += letters[random() % letters.size()];
    return text;
}

std::string long_read(std::string const& name, std::size_t n_bases, std::string const& qual) {
    return name + "\t0\tchr1\t100\t9\t" + std::to_string(n_bases) + "M\t*\t0\t0\t" +
           noise(n_bases, "ACGT", 7) + "\t" + qual;
}

TEST(Chunks, RecordOfSeveralBlocks_Indexed_BeginsAtTheLastOne) {
    std::string scores;
    for (char c = '!'; c <= '~'; ++c) scores += c;
    struct Case {
        char const* label;
        std::string line;
        bool needs_several_blocks;
    };
    std::vector<Case> const cases = {
        {"more than 65536 bytes", long_read("r", 60000, std::string(60000, 'I')), true},
        {"many more", long_read("r", 300000, noise(300000, scores, 8)), true},
        {"one block", long_read("r", 1000, noise(1000, scores, 9)), false},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler = handler_of({});
        ASSERT_TRUE(handler.add_alignment_sam(c.line)) << handler.error_message;
        Written const written = write_indexed_later(handler);
        std::vector<BgzfBlock> const blocks = parse_bgzf(written.bam);
        // The header's block, the record's, and the empty one.
        EXPECT_EQ(blocks.size() > 3, c.needs_several_blocks);
        BgzfBlock const& last = blocks.at(blocks.size() - 2);
        std::uint32_t const bin = handler.records[0].bin;
        EXPECT_EQ(chunks_of(parse_bai(written.bai), 0, bin),
                  (Chunks{{last.offset << 16, (last.offset + last.size) << 16}}));
        EXPECT_EQ(parse_bai(written.bai).references[0].ioffsets.at(0), last.offset << 16);
        EXPECT_EQ(written.bai, build_bai(2, written.records, true));
    }
}

TEST(Chunks, IncompressibleRecordOfOneChunk_Indexed_BeginsAtTheLastOfItsHalves) {
    // 65,530 bytes: few enough for a block, but too many once they are deflated.
    std::mt19937 random(10);
    BamRecord record = record_at(0, 5, 10);
    record.seq.resize(65492);
    for (std::uint8_t& byte : record.seq) byte = static_cast<std::uint8_t>(random());
    Handler handler = handler_of({record});
    TempDir const dir;
    handler.sort_order = "\tSO:coordinate";
    std::string const path = dir.file("x.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, true)) << handler.error_message;
    std::vector<BgzfBlock> const blocks = parse_bgzf(read_file(path));
    ASSERT_EQ(blocks.size(), 4U);
    BgzfBlock const& last = blocks[2];
    EXPECT_EQ(parse_bai(read_file(path + ".bai")).references.at(0).ioffsets,
              std::vector<std::uint64_t>{last.offset << 16});
}

// --- When an index is written ----------------------------------------------

TEST(IndexedWrite, UnsortedRecords_WrittenByTheConstForm_AreRefused) {
    TempDir const dir;
    std::string const path = dir.write("x.bam", "an older file");
    Handler handler = handler_of({record_at(0, 9), record_at(0, 5)});
    for (char const* order : {"", "\tSO:unknown", "\tSO:coordinat", "\tSS:coordinate:queryname"}) {
        SCOPED_TRACE(order);
        handler.sort_order = order;
        Handler const& constant = handler;
        EXPECT_FALSE(constant.write_to_bam_file(path, true));
        EXPECT_EQ(handler.error_message, "Index can be written only for sorted files");
        EXPECT_EQ(handler.file_name, "");
        EXPECT_EQ(coordinates_of(handler), (Coordinates{{0, 9}, {0, 5}}));
        EXPECT_EQ(read_file(path), "");
        EXPECT_FALSE(std::filesystem::exists(path + ".bai"));
    }
}

TEST(IndexedWrite, UnsortedRecords_WrittenByTheOtherForm_AreSortedFirst) {
    TempDir const dir;
    std::string const path = dir.file("x.bam");
    Handler handler = handler_of({record_at(0, 9), record_at(-1, -1), record_at(0, 5)});
    handler.sort_order = "\tSS:coordinate:queryname";
    handler.error_message = "an earlier failure";
    EXPECT_TRUE(handler.write_to_bam_file(path, true));
    EXPECT_EQ(handler.error_message, "an earlier failure");
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
    EXPECT_EQ(coordinates_of(handler), (Coordinates{{0, 5}, {0, 9}, {-1, -1}}));
    BamPayload const bam = split_bam_payload(inflate_bgzf(read_file(path)));
    EXPECT_EQ(bam.header_text, std::string("@HD\tVN:1.6\tSO:coordinate\n") + TWO_REFERENCES);
    EXPECT_EQ(parse_bai(read_file(path + ".bai")).n_no_coor, 1U);
}

TEST(IndexedWrite, RecordsSaidToBeSorted_Written_KeepTheirOrder) {
    TempDir const dir;
    std::string const path = dir.file("x.bam");
    Handler handler;
    ASSERT_TRUE(handler.add_header_lines("@HD\tVN:1.6\tSO:coordinate\n"));
    ASSERT_TRUE(handler.add_header_lines(TWO_REFERENCES));
    ASSERT_TRUE(handler.add_alignment_sam("b\t0\tchr1\t9\t0\t1M\t*\t0\t0\tA\tI"));
    ASSERT_TRUE(handler.add_alignment_sam("a\t0\tchr1\t5\t0\t1M\t*\t0\t0\tA\tI"));
    EXPECT_TRUE(handler.write_to_bam_file(path, true)) << handler.error_message;
    EXPECT_EQ(coordinates_of(handler), (Coordinates{{0, 8}, {0, 4}}));
    // Added lines have made the order of the header a claim of the past.
    EXPECT_EQ(split_bam_payload(inflate_bgzf(read_file(path))).header_text,
              std::string("@HD\tVN:1.6\tSO:unknown\n") + TWO_REFERENCES);
}

TEST(IndexedWrite, UnsortedRecords_WrittenWithoutIndex_StayAsTheyAre) {
    TempDir const dir;
    std::string const path = dir.file("x.bam");
    Handler handler = handler_of({record_at(0, 9), record_at(0, 5)});
    EXPECT_TRUE(handler.write_to_bam_file(path, false)) << handler.error_message;
    EXPECT_EQ(coordinates_of(handler), (Coordinates{{0, 9}, {0, 5}}));
    EXPECT_EQ(handler.sort_order, "");
    EXPECT_FALSE(handler.has_sort_order);
    EXPECT_FALSE(std::filesystem::exists(path + ".bai"));
    std::vector<IndexedRecord> const records = index_records(read_file(path), 0);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].pos, 9);
    EXPECT_EQ(records[1].pos, 5);
}

TEST(IndexedWrite, IndexThatCannotBeCreated_Written_FailsBehindTheBamFile) {
    TempDir const dir;
    std::string const path = dir.file("x.bam");
    std::filesystem::create_directory(path + ".bai");
    Handler handler = handler_of({record_at(0, 9)});
    EXPECT_FALSE(handler.write_to_bam_file(path, true));
    EXPECT_EQ(handler.error_message,
              "Could not write BAM index : Cannot open index file " + path + ".bai for writing");
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(index_records(read_file(path), 0).size(), 1U);
    EXPECT_EQ(parse_bgzf(read_file(path)).back().payload, "");
}

// --- What one index leaves to the next -------------------------------------

TEST(CarryOver, LaterIndex_Written_BeginsWithAnEmptyChunk) {
    Handler handler = handler_of({record_at(1, 5)});
    Written const written = write_indexed_later(handler);
    ParsedBai const bai = parse_bai(written.bai);
    EXPECT_EQ(bin_numbers(bai, 0), (std::vector<std::uint32_t>{37450, 0}));
    EXPECT_EQ(chunks_of(bai, 0, 0), (Chunks{{0, 0}}));
    EXPECT_EQ(chunks_of(bai, 0, 37450), (Chunks{{0, 0}, {0, 0}}));
    EXPECT_TRUE(bai.references[0].ioffsets.empty());
    EXPECT_EQ(chunks_of(bai, 1, 37450),
              (Chunks{{written.records[0].begin, written.records[0].end}, {1, 0}}));
}

TEST(CarryOver, LaterIndexWhoseFirstReadIsInBinZero_Written_ExtendsTheEmptyChunk) {
    Handler handler = handler_of({record_at(0, 5, 100000000, 0), record_at(0, 6)});
    Written const written = write_indexed_later(handler);
    ParsedBai const bai = parse_bai(written.bai);
    EXPECT_EQ(chunks_of(bai, 0, 0), (Chunks{{0, written.records[0].end}}));
    EXPECT_EQ(chunks_of(bai, 0, 37450), (Chunks{{0, written.records[1].end}, {2, 0}}));
}

TEST(CarryOver, LaterIndexWithoutPlacedReads_Written_HoldsTheEmptyChunk) {
    for (bool const has_record : {false, true}) {
        SCOPED_TRACE(has_record);
        Handler handler = handler_of({});
        if (has_record) handler.records.push_back(record_at(-1, -1));
        ParsedBai const bai = parse_bai(write_indexed_later(handler).bai);
        EXPECT_EQ(chunks_of(bai, 0, 0), (Chunks{{0, 0}}));
        EXPECT_EQ(chunks_of(bai, 0, 37450), (Chunks{{0, 0}, {0, 0}}));
        EXPECT_TRUE(bai.references.at(1).bins.empty());
        EXPECT_EQ(bai.n_no_coor, has_record ? 1U : 0U);
    }
}

TEST(CarryOver, LaterIndexWithoutReferences_Written_IsSixteenBytes) {
    Handler handler;
    handler.records.push_back(record_at(-1, -1));
    EXPECT_EQ(write_indexed_later(handler).bai, hex_bytes("42414901 00000000 0100000000000000"));
}

// The following run in processes of their own, started afresh: what they say of
// the first index of a process holds whatever ran before.

// Prints what differs, for the log of the process that expected otherwise.
bool is_same_index(std::string const& got, std::string const& expected, char const* label) {
    if (got == expected) return true;
    std::cerr << "index differs: " << label << '\n';
    return false;
}

bool first_index_is_bare() {
    Handler handler = handler_of({record_at(1, 5), record_at(1, 6, 20000, 585), record_at(-1, -1)});
    Written const first = write_indexed(handler);
    std::vector<IndexedRecord> const& r = first.records;
    std::string const expected = bai_head(2) + i32(0) + i32(0) +  //
                                 i32(3) + i32(37450) + i32(2) + u64(r[0].begin) + u64(r[1].end) +
                                 u64(2) + u64(0) +                                       //
                                 i32(585) + i32(1) + u64(r[1].begin) + u64(r[1].end) +   //
                                 i32(4681) + i32(1) + u64(r[0].begin) + u64(r[0].end) +  //
                                 i32(2) + u64(r[0].begin) + u64(r[1].begin) + u64(1);
    Written const second = write_indexed(handler);
    return is_same_index(first.bai, expected, "first, against hand-made bytes") &&
           is_same_index(first.bai, build_bai(2, first.records, false), "first") &&
           is_same_index(second.bai, build_bai(2, second.records, true), "second");
}

bool only_placed_reads_in_an_index_count() {
    Handler empty = handler_of({});
    Handler unplaced = handler_of({record_at(-1, -1)});
    Handler placed = handler_of({record_at(0, 5)});
    std::string const no_section = i32(0) + i32(0);
    bool same = is_same_index(write_indexed(empty).bai,
                              bai_head(2) + no_section + no_section + u64(0), "no records");
    same &= is_same_index(write_indexed(unplaced).bai,
                          bai_head(2) + no_section + no_section + u64(1), "unplaced only");
    TempDir const dir;
    same &= placed.write_to_bam_file(dir.file("x.bam"), false);
    Written const first = write_indexed(placed);
    same &= is_same_index(first.bai, build_bai(2, first.records, false), "first placed");
    Written const next = write_indexed(unplaced);
    same &= is_same_index(next.bai, build_bai(2, next.records, true), "unplaced, later");
    return same;
}

bool first_index_in_bin_zero_begins_at_its_read() {
    Handler handler = handler_of({record_at(0, 5, 100000000, 0)});
    Written const first = write_indexed(handler);
    ParsedBai const bai = parse_bai(first.bai);
    Chunks const expected = {{first.records[0].begin, first.records[0].end}};
    return first.records[0].begin != 0 && chunks_of(bai, 0, 0) == expected &&
           is_same_index(first.bai, build_bai(2, first.records, false), "bin 0");
}

class CarryOverDeathTest : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(CarryOverDeathTest, FirstIndexOfAProcess_Written_HasNoEmptyChunk) {
    EXPECT_EXIT(std::exit(first_index_is_bare() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(CarryOverDeathTest, FilesWithoutPlacedReadsOrIndex_Written_LeaveTheNextIndexTheFirst) {
    EXPECT_EXIT(std::exit(only_placed_reads_in_an_index_count() ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

TEST_F(CarryOverDeathTest, FirstIndexWhoseReadIsInBinZero_Written_BeginsAtTheRead) {
    EXPECT_EXIT(std::exit(first_index_in_bin_zero_begins_at_its_read() ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

// --- All of it, at random --------------------------------------------------

// SAM text of reads on a few references: short and spliced ones, placed ones
// without alignment, unplaced ones, all over the range of an index.
std::vector<std::string> random_reads(std::mt19937& random, std::size_t n) {
    static char const* const NAMES[] = {"chr1", "chr2", "chr3", "*", "unknown"};
    static char const* const CIGARS[] = {"10M",  "*",          "4M16384N6M",
                                         "10I",  "5M70000D5M", "1M9000000N9M",
                                         "3S7M", "16384D10M",  "2=8X2H"};
    std::vector<std::string> lines;
    // Positions crowd in one place, so that reads share bins and windows.
    std::uint64_t const place = random() % 500000000;
    std::uint32_t const spread = 1U << (random() % 25);
    for (std::size_t i = 0; i < n; ++i) {
        std::uint64_t const pos = random() % 20 == 0 ? 0 : place + random() % spread;
        lines.push_back("r" + std::to_string(i) + "\t" + std::to_string(random() % 32) + "\t" +
                        NAMES[random() % 5] + "\t" + std::to_string(pos) + "\t9\t" +
                        CIGARS[random() % 9] + "\t*\t0\t0\tACGTACGTAC\t*");
    }
    return lines;
}

TEST(IndexProperty, RandomReads_WrittenWithIndex_HaveTheBytesOfAnIndependentBuilder) {
    TempDir const dir;
    std::string const path = dir.file("x.bam");
    std::mt19937 random(53);
    Handler known;
    known.records.push_back(record_at(0, 0));
    write_indexed(known);
    for (int round = 0; round < 150; ++round) {
        bool const is_sorted = round % 3 != 0;
        SCOPED_TRACE(round);
        Handler handler;
        ASSERT_TRUE(
            handler.add_header_lines(std::string(TWO_REFERENCES) + "@SQ\tSN:chr3\tLN:536870912\n"));
        for (std::string const& line : random_reads(random, random() % 200)) {
            ASSERT_TRUE(handler.add_alignment_sam(line)) << handler.error_message;
        }
        if (!is_sorted) handler.sort_order = "\tSO:coordinate";
        ASSERT_TRUE(handler.write_to_bam_file(path, true)) << handler.error_message;
        std::vector<IndexedRecord> const records = index_records(read_file(path), 1);
        ASSERT_EQ(records.size(), handler.records.size());
        std::string const bai = read_file(path + ".bai");
        ASSERT_TRUE(bai == build_bai(3, records, true));
        ASSERT_NO_THROW(parse_bai(bai));
        EXPECT_TRUE(dump_of_file(path + ".bai").is_true);
    }
}

}  // namespace

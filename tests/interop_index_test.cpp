// Indexes gathered while BAM files are written, and regions looked up in them.

#include "interop/index_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "interop/alignment_writer.h"
#include "interop/bgzf_writer.h"
#include "interop/index_gatherer.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/bam_walker.h"
#include "tests/support/index_builder.h"
#include "tests/support/temp_file.h"

namespace {

using namespace tesk::test;
using tesk::interop::AlignmentWriter;
using tesk::interop::BgzfWriter;
using tesk::interop::ChunkIndex;
using tesk::interop::Header;
using tesk::interop::IndexGatherer;
using tesk::interop::IndexReader;
using tesk::interop::merge_chunks;
using tesk::interop::RecordBatch;
using tesk::interop::RecordView;
using tesk::interop::Report;
using tesk::interop::WriterOptions;
using Handler = tesk::util::bam::BAMFileHandler;
using Chunks = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

constexpr std::uint64_t PAYLOAD = 65280;
// At level 0 a full block takes 18 bytes before the deflate stream, 5 of its own,
// and 8 behind it.
constexpr std::uint64_t STORED_BLOCK = PAYLOAD + 31;
constexpr std::uint64_t NO_PLACE = 0xFFFFFFFFFFFFFFFF;
constexpr std::int64_t LIMIT = 536870912;

Chunks pairs_of(std::vector<ChunkIndex> const& chunks) {
    Chunks pairs;
    for (ChunkIndex const& chunk : chunks) pairs.emplace_back(chunk.chunk_beg, chunk.chunk_end);
    return pairs;
}

std::vector<ChunkIndex> chunks_of(Chunks const& pairs) {
    std::vector<ChunkIndex> chunks;
    for (auto const& [beg, end] : pairs) chunks.push_back({beg, end});
    return chunks;
}

// --- Gathering ---------------------------------------------------------------

constexpr std::uint32_t MATCH = 0;
constexpr std::uint32_t SKIP = 3;
constexpr std::uint32_t SOFT_CLIP = 4;

std::uint32_t op(std::uint32_t length, std::uint32_t code) { return length << 4 | code; }

// A record that stands somewhere and takes a given number of bytes of the file.
struct Placed {
    std::int32_t refID;
    std::int32_t pos;
    std::vector<std::uint32_t> cigar;
    std::uint16_t bin;
    std::uint16_t flag = 0;
    std::size_t n_bytes = 64;

    std::string bytes() const {
        RawBamRecord record;
        record.refID = refID;
        record.pos = pos;
        record.cigar = cigar;
        record.bin = bin;
        record.flag = flag;
        std::size_t const bare = record.bytes().size();
        record.aux = bam_aux("XX", 'Z', std::string(n_bytes - bare - 4, 'x') + '\0');
        return record.bytes();
    }
};

// The index of some records, written at level 0 behind so many other bytes.
std::string gathered_bai(std::int32_t n_ref, std::vector<Placed> const& records,
                         std::size_t n_before = 0) {
    TempDir const dir;
    int const fd = ::open(dir.file("x").c_str(), O_WRONLY | O_CREAT, 0644);
    BgzfWriter file;
    EXPECT_TRUE(file.open(fd, "x", 0, 1));
    EXPECT_TRUE(file.write(std::string(n_before, 'h')));
    IndexGatherer gatherer(n_ref);
    for (Placed const& placed : records) {
        std::string const bytes = placed.bytes();
        EXPECT_EQ(bytes.size(), placed.n_bytes);
        std::uint64_t const beg = file.tell();
        EXPECT_TRUE(file.write(bytes));
        gatherer.add(RecordView(bytes.data()), beg, file.tell());
    }
    EXPECT_TRUE(file.close());
    ::close(fd);
    auto index = gatherer.finish(file);
    EXPECT_TRUE(Handler().write_index_to_file(dir.file("x.bai"), index));
    return read_file(dir.file("x.bai"));
}

std::string bin_bytes(std::uint32_t bin, Chunks const& chunks) {
    std::string bytes = le_bytes(bin) + le_bytes(static_cast<std::int32_t>(chunks.size()));
    for (auto const& [beg, end] : chunks) bytes += le_bytes(beg) + le_bytes(end);
    return bytes;
}

struct ExpectedReference {
    std::pair<std::uint64_t, std::uint64_t> extent;
    std::pair<std::uint64_t, std::uint64_t> mapped_and_unmapped;
    std::vector<std::pair<std::uint32_t, Chunks>> bins;
    std::vector<std::uint64_t> ioffsets;
};

// The BAI file of these references; one without bins holds nothing.
std::string expected_bai(std::vector<ExpectedReference> const& references,
                         std::uint64_t n_no_coor) {
    std::string bytes = "BAI\x01" + le_bytes(static_cast<std::int32_t>(references.size()));
    for (ExpectedReference const& reference : references) {
        if (reference.bins.empty()) {
            bytes += le_bytes(std::int32_t{0}) + le_bytes(std::int32_t{0});
            continue;
        }
        bytes += le_bytes(static_cast<std::int32_t>(reference.bins.size() + 1));
        bytes += bin_bytes(37450, {reference.extent, reference.mapped_and_unmapped});
        for (auto const& [bin, chunks] : reference.bins) bytes += bin_bytes(bin, chunks);
        bytes += le_bytes(static_cast<std::int32_t>(reference.ioffsets.size()));
        for (std::uint64_t const offset : reference.ioffsets) bytes += le_bytes(offset);
    }
    return bytes + le_bytes(n_no_coor);
}

TEST(IndexGatherer, Records_None_GiveEmptyReferences) {
    EXPECT_EQ(gathered_bai(2, {}), expected_bai({{}, {}}, 0));
    EXPECT_EQ(gathered_bai(0, {}), expected_bai({}, 0));
}

TEST(IndexGatherer, Records_OfOneBin_AreOneChunk) {
    EXPECT_EQ(gathered_bai(1,
                           {{0, 100, {op(10, MATCH)}, 4681},
                            {0, 100, {op(10, MATCH)}, 4681},
                            {0, 200, {op(10, MATCH)}, 4681}},
                           1000),
              expected_bai({{{1000, 1192}, {3, 0}, {{4681, {{1000, 1192}}}}, {1000}}}, 0));
}

TEST(IndexGatherer, Records_OfOneBinOverManyBlocks_AreOneChunk) {
    std::vector<Placed> records(3, {0, 100, {op(10, MATCH)}, 4681, 0, 100000});
    // 300,000 bytes are 4 full blocks and 38,880 bytes.
    EXPECT_EQ(gathered_bai(1, records),
              expected_bai({{{0, (4 * STORED_BLOCK) << 16 | 38880},
                             {3, 0},
                             {{4681, {{0, (4 * STORED_BLOCK) << 16 | 38880}}}},
                             {0}}},
                           0));
}

// A record of bin 4681, one of bin 585 that takes the bytes up to a place, and again
// one of bin 4681, of 64 bytes each but the second.
std::string interrupted_bin(std::size_t place) {
    return gathered_bai(1, {{0, 100, {op(10, MATCH)}, 4681},
                            {0, 16380, {op(10, MATCH)}, 585, 0, place - 64},
                            {0, 16383, {op(1, MATCH)}, 4681}});
}

TEST(IndexGatherer, Chunks_InOneBlock_AreMerged) {
    EXPECT_EQ(interrupted_bin(PAYLOAD - 1),
              expected_bai({{{0, STORED_BLOCK << 16 | 63},
                             {3, 0},
                             {{585, {{64, PAYLOAD - 1}}}, {4681, {{0, STORED_BLOCK << 16 | 63}}}},
                             {0, 64}}},
                           0));
}

TEST(IndexGatherer, Chunks_ThatBeginInTheNextBlock_AreTwo) {
    std::uint64_t const next = STORED_BLOCK << 16;
    EXPECT_EQ(interrupted_bin(PAYLOAD),
              expected_bai({{{0, next | 64},
                             {3, 0},
                             {{585, {{64, next}}}, {4681, {{0, 64}, {next, next | 64}}}},
                             {0, 64}}},
                           0));
    EXPECT_EQ(interrupted_bin(PAYLOAD + 1),
              expected_bai({{{0, next | 65},
                             {3, 0},
                             {{585, {{64, next | 1}}}, {4681, {{0, 64}, {next | 1, next | 65}}}},
                             {0, 64}}},
                           0));
}

// The first record of bin 4681 ends where the second block begins, so that its end
// is in that block.
TEST(IndexGatherer, Chunks_EndOnABlockBoundary_CountsAsTheNextBlock) {
    std::uint64_t const next = STORED_BLOCK << 16;
    EXPECT_EQ(gathered_bai(1, {{0, 100, {op(10, MATCH)}, 4681, 0, PAYLOAD},
                               {0, 16380, {op(10, MATCH)}, 585},
                               {0, 16383, {op(1, MATCH)}, 4681}}),
              expected_bai({{{0, next | 128},
                             {3, 0},
                             {{585, {{next, next | 64}}}, {4681, {{0, next | 128}}}},
                             {0, next}}},
                           0));
}

TEST(IndexGatherer, File_EndsOnABlockBoundary_EndsInTheEmptyBlock) {
    EXPECT_EQ(
        gathered_bai(1, {{0, 100, {op(10, MATCH)}, 4681, 0, PAYLOAD}}),
        expected_bai({{{0, STORED_BLOCK << 16}, {1, 0}, {{4681, {{0, STORED_BLOCK << 16}}}}, {0}}},
                     0));
}

struct WindowCase {
    char const* label;
    std::vector<Placed> records;  // of 64 bytes, at 0, 64, 128 and so on
    std::vector<std::uint64_t> ioffsets;
};

TEST(IndexGatherer, Windows_OfRecords_HoldTheFirstOneThatReachesIn) {
    WindowCase const cases[] = {
        {"last base of a window", {{0, 16383, {op(1, MATCH)}, 0}}, {0}},
        {"one base over the boundary", {{0, 16383, {op(2, MATCH)}, 0}}, {0, 0}},
        {"first base of a window", {{0, 16384, {op(1, MATCH)}, 0}}, {0, 0}},
        {"second base of a window", {{0, 16385, {op(1, MATCH)}, 0}}, {0, 0}},
        {"up to a window's end", {{0, 0, {op(32768, MATCH)}, 0}}, {0, 0}},
        {"one base more", {{0, 0, {op(32769, MATCH)}, 0}}, {0, 0, 0}},
        {"each side of a boundary",
         {{0, 16383, {op(1, MATCH)}, 0}, {0, 16384, {op(1, MATCH)}, 0}},
         {0, 64}},
        {"the first one stays",
         {{0, 10, {op(20000, MATCH)}, 0}, {0, 20, {op(40000, MATCH)}, 0}},
         {0, 0, 64}},
        {"a gap repeats the window before it",
         {{0, 5, {op(1, MATCH)}, 0}, {0, 16384, {op(1, MATCH)}, 0}, {0, 81920, {op(1, MATCH)}, 0}},
         {0, 64, 64, 64, 64, 128}},
        {"a splice covers its windows",
         {{0, 0, {op(1, MATCH), op(49151, SKIP), op(1, MATCH)}, 0}, {0, 16384, {op(1, MATCH)}, 0}},
         {0, 0, 0, 0}},
        {"a clip covers nothing", {{0, 16380, {op(4, MATCH), op(100, SOFT_CLIP)}, 0}}, {0}},
        {"no CIGAR is one base", {{0, 16383, {}, 0, 4}, {0, 16384, {}, 0, 4}}, {0, 64}},
        {"no position is the first base", {{0, -1, {}, 4680, 4}, {0, 0, {}, 0, 4}}, {0}},
        {"no position, with a CIGAR",
         {{0, -1, {op(16384, MATCH)}, 4680, 4}, {0, 16384, {}, 0, 4}},
         {0, 64}},
    };
    for (WindowCase const& c : cases) {
        SCOPED_TRACE(c.label);
        ParsedBai const bai = parse_bai(gathered_bai(1, c.records));
        EXPECT_EQ(bai.references.at(0).ioffsets, c.ioffsets);
    }
}

TEST(IndexGatherer, Windows_BeforeTheFirstRecord_HoldTheFirstRecord) {
    ParsedBai const bai = parse_bai(gathered_bai(1, {{0, 40000, {op(1, MATCH)}, 4683}}, 500));
    EXPECT_EQ(bai.references.at(0).ioffsets, (std::vector<std::uint64_t>{500, 500, 500}));
}

TEST(IndexGatherer, Windows_UpToTheLimit_AreComplete) {
    auto const last = static_cast<std::int32_t>(LIMIT - 1);
    ParsedBai const bai = parse_bai(gathered_bai(1, {{0, last, {op(1, MATCH)}, 37448}}));
    EXPECT_EQ(bai.references.at(0).ioffsets, std::vector<std::uint64_t>(32768, 0));
}

// Whoever gathers without a look at the ends must not pay with memory.
TEST(IndexGatherer, Windows_BeyondTheLimit_AreLeftOut) {
    constexpr std::uint32_t LONGEST = (1U << 28) - 1;
    std::vector<std::uint32_t> const far(1000, op(LONGEST, SKIP));
    auto const beyond = static_cast<std::int32_t>(LIMIT);
    ParsedBai const bai = parse_bai(gathered_bai(
        2, {{0, 5, far, 0, 0, 5000}, {1, 5, {}, 4681}, {1, beyond, {op(1, MATCH)}, 4681}}));
    EXPECT_EQ(bai.references.at(0).ioffsets.size(), 32768U);
    EXPECT_EQ(bai.references.at(1).ioffsets.size(), 1U);
}

TEST(IndexGatherer, Counts_OfMappedAndUnmapped_AreThePlacedOnes) {
    EXPECT_EQ(gathered_bai(3, {{0, 5, {op(1, MATCH)}, 4681},
                               {0, 6, {}, 4681, 4},
                               {0, 7, {}, 4681, 4 + 16},
                               {2, 5, {op(1, MATCH)}, 4681, 16},
                               {2, 6, {op(1, MATCH)}, 4681, 1024},
                               {-1, -1, {}, 4680, 4},
                               {-1, -1, {}, 4680, 4},
                               {-1, 7, {}, 4681, 0}}),
              expected_bai({{{0, 192}, {1, 2}, {{4681, {{0, 192}}}}, {0}},
                            {},
                            {{192, 320}, {2, 0}, {{4681, {{192, 320}}}}, {192}}},
                           3));
}

TEST(IndexGatherer, Bins_AreThoseOfTheRecords) {
    EXPECT_EQ(gathered_bai(1, {{0, -1, {}, 4680, 4},
                               {0, 5, {op(1, MATCH)}, 4681},
                               {0, 6, {op(20000, MATCH)}, 585},
                               {0, 7, {op(70000000, SKIP)}, 0}})
                  .substr(8 + 4, 8 + 32 + 4 * 24),
              bin_bytes(37450, {{0, 256}, {4, 0}})
                      .replace(24, 16, le_bytes(std::uint64_t{3}) + le_bytes(std::uint64_t{1})) +
                  bin_bytes(0, {{192, 256}}) + bin_bytes(585, {{128, 192}}) +
                  bin_bytes(4680, {{0, 64}}) + bin_bytes(4681, {{64, 128}}));
}

// --- Chunks ------------------------------------------------------------------

TEST(MergeChunks, Chunks_InAnyOrder_BecomeAscendingAndApart) {
    struct Case {
        char const* label;
        Chunks before;
        Chunks after;
    };
    Case const cases[] = {
        {"none", {}, {}},
        {"one", {{5, 9}}, {{5, 9}}},
        {"apart", {{20, 30}, {5, 9}, {10, 11}}, {{5, 9}, {10, 11}, {20, 30}}},
        {"touching", {{9, 12}, {5, 9}}, {{5, 12}}},
        {"overlapping", {{5, 10}, {9, 12}}, {{5, 12}}},
        {"inside", {{5, 100}, {9, 12}, {50, 101}, {102, 103}}, {{5, 101}, {102, 103}}},
        {"the same", {{5, 9}, {5, 9}, {5, 7}}, {{5, 9}}},
        {"largest numbers", {{NO_PLACE - 1, NO_PLACE}, {0, NO_PLACE - 1}}, {{0, NO_PLACE}}},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        std::vector<ChunkIndex> chunks = chunks_of(c.before);
        merge_chunks(chunks);
        EXPECT_EQ(pairs_of(chunks), c.after);
    }
}

// --- Looking up --------------------------------------------------------------

// Chunks of a region in an index that a test has made.
class Lookup {
public:
    explicit Lookup(std::string const& bai) {
        TempDir const dir;
        EXPECT_TRUE(reader_.open(dir.write("x.bai", bai))) << reader_.error_message;
    }

    Chunks operator()(std::int32_t refID, std::int64_t beg, std::int64_t end) const {
        std::vector<ChunkIndex> chunks;
        reader_.chunks(refID, beg, end, chunks);
        return pairs_of(chunks);
    }

    std::size_t n_references() const { return reader_.n_references(); }

private:
    IndexReader reader_;
};

// Two references: on the first one records in the first and in the third window, one
// over both, and the bin that holds counts. Windows: 100, none, 300.
std::string small_bai() {
    return expected_bai({{{100, 900},
                          {7, 8},
                          {{0, {{200, 210}}},
                           {585, {{150, 160}, {700, 710}}},
                           {4681, {{100, 150}}},
                           {4683, {{300, 350}, {800, 900}}},
                           {37448, {{890, 901}}}},
                          {100, 0, 300}},
                         {}},
                        5);
}

TEST(IndexReader, Chunks_OfARegion_AreThoseOfItsBins) {
    Lookup const lookup(small_bai());
    EXPECT_EQ(lookup.n_references(), 2U);
    EXPECT_EQ(lookup(0, 0, 1), (Chunks{{100, 160}, {200, 210}, {700, 710}}));
    EXPECT_EQ(lookup(0, 16383, 16384), (Chunks{{100, 160}, {200, 210}, {700, 710}}));
    // The second window's own entry is empty: the one before it holds.
    EXPECT_EQ(lookup(0, 16384, 16385), (Chunks{{150, 160}, {200, 210}, {700, 710}}));
    // From the third window on, nothing before 300.
    EXPECT_EQ(lookup(0, 32768, 32769), (Chunks{{300, 350}, {700, 710}, {800, 900}}));
    EXPECT_EQ(lookup(0, 16384, 32769),
              (Chunks{{150, 160}, {200, 210}, {300, 350}, {700, 710}, {800, 900}}));
    // Behind the windows that there are.
    EXPECT_EQ(lookup(0, 49152, 49153), (Chunks{{700, 710}}));
    EXPECT_EQ(lookup(0, LIMIT - 1, LIMIT), (Chunks{{890, 901}}));
}

TEST(IndexReader, Chunks_ThatReachOverTheLeastOffset_BeginThere) {
    Lookup const lookup(expected_bai(
        {{{100, 400}, {2, 0}, {{585, {{100, 150}, {160, 300}, {310, 400}}}}, {100, 200, 0}}}, 0));
    EXPECT_EQ(lookup(0, 0, 1), (Chunks{{100, 150}, {160, 300}, {310, 400}}));
    EXPECT_EQ(lookup(0, 16384, 16385), (Chunks{{200, 300}, {310, 400}}));
    // A window that no record overlaps says nothing; the one before it does.
    EXPECT_EQ(lookup(0, 32768, 32769), (Chunks{{200, 300}, {310, 400}}));
}

// Files with a block for each record have windows that come too late.
TEST(IndexReader, Chunks_LeastOffsetBeginsABlock_AreNotCut) {
    constexpr std::uint64_t BLOCK = 0x10000;
    for (std::uint64_t const in_block : {std::uint64_t{0}, std::uint64_t{1}}) {
        SCOPED_TRACE(in_block);
        std::uint64_t const least = 2 * BLOCK + in_block;
        Lookup const lookup(expected_bai(
            {{{BLOCK, 4 * BLOCK}, {2, 0}, {{0, {{BLOCK, 3 * BLOCK}}}}, {BLOCK, least}}}, 0));
        std::uint64_t const beg = in_block == 0 ? BLOCK : least;
        EXPECT_EQ(lookup(0, 16384, 16385), (Chunks{{beg, 3 * BLOCK}}));
    }
}

TEST(IndexReader, Chunks_IndexOfTheLibrary_HoldALongRecordBehindShortOnes) {
    TempDir const dir;
    std::string const bam = dir.file("x.bam");
    Handler library;
    ASSERT_TRUE(library.add_header_lines("@SQ\tSN:chr1\tLN:1000000\n"));
    for (char const* const place : {"1\t9\t2M200000N2M", "11\t9\t4M", "150001\t9\t4M"}) {
        ASSERT_TRUE(library.add_alignment_sam(std::string("r\t0\tchr1\t") + place +
                                              "\t*\t0\t0\tACGT\tIIII"));
    }
    ASSERT_TRUE(library.write_to_bam_file(bam, true));
    auto const blocks = parse_bgzf(read_file(bam));
    ASSERT_EQ(blocks.size(), 5U);  // header, three records, the end

    Lookup const lookup(read_file(bam + ".bai"));
    Chunks const chunks = lookup(0, 150000, 150001);
    ASSERT_FALSE(chunks.empty());
    EXPECT_LE(chunks.front().first, blocks[1].offset << 16);
}

TEST(IndexReader, Chunks_OfRegionsOutside_AreNone) {
    Lookup const lookup(small_bai());
    EXPECT_EQ(lookup(0, 5, 5), Chunks{});
    EXPECT_EQ(lookup(0, 6, 5), Chunks{});
    EXPECT_EQ(lookup(0, -10, 0), Chunks{});
    EXPECT_EQ(lookup(0, LIMIT, LIMIT + 1), Chunks{});
    EXPECT_EQ(lookup(0, INT64_MIN, INT64_MIN + 1), Chunks{});
    EXPECT_EQ(lookup(0, INT64_MAX - 1, INT64_MAX), Chunks{});
    EXPECT_EQ(lookup(1, 0, LIMIT), Chunks{});
    EXPECT_EQ(lookup(2, 0, LIMIT), Chunks{});
    EXPECT_EQ(lookup(-1, 0, LIMIT), Chunks{});
}

TEST(IndexReader, Chunks_OfRegionsPartlyOutside_AreThoseInside) {
    Lookup const lookup(small_bai());
    EXPECT_EQ(lookup(0, INT64_MIN, 1), lookup(0, 0, 1));
    EXPECT_EQ(lookup(0, LIMIT - 1, INT64_MAX), lookup(0, LIMIT - 1, LIMIT));
    EXPECT_EQ(lookup(0, INT64_MIN, INT64_MAX),
              (Chunks{{100, 160}, {200, 210}, {300, 350}, {700, 710}, {800, 901}}));
}

TEST(IndexReader, Chunks_ThatAreThereBefore_Stay) {
    TempDir const dir;
    IndexReader reader;
    ASSERT_TRUE(reader.open(dir.write("x.bai", small_bai())));
    std::vector<ChunkIndex> chunks = chunks_of({{99, 101}, {5, 6}});
    reader.chunks(0, LIMIT - 1, LIMIT, chunks);
    EXPECT_EQ(pairs_of(chunks), (Chunks{{99, 101}, {5, 6}, {890, 901}}));
}

TEST(IndexReader, Index_WithoutTheLastCount_IsTaken) {
    std::string const bai = small_bai();
    Lookup const lookup(bai.substr(0, bai.size() - 8));
    EXPECT_EQ(lookup(0, 0, 1), (Chunks{{100, 160}, {200, 210}, {700, 710}}));
}

// What opening a file with these bytes fails with, less its path; empty for nothing.
std::string open_error(std::string_view bai) {
    TempDir const dir;
    std::string const path = dir.write("x.bai", bai);
    IndexReader reader;
    if (reader.open(path)) return "";
    EXPECT_EQ(reader.n_references(), 0U);
    std::vector<ChunkIndex> chunks;
    reader.chunks(0, 0, LIMIT, chunks);
    EXPECT_TRUE(chunks.empty());
    EXPECT_EQ(reader.error_message.substr(0, path.size() + 2), path + ": ");
    return reader.error_message.substr(path.size() + 2);
}

TEST(IndexReader, Open_OtherFiles_AreRefused) {
    TempDir const dir;
    IndexReader reader;
    EXPECT_FALSE(reader.open(dir.file("x.bai")));
    EXPECT_EQ(reader.error_message,
              "cannot open " + dir.file("x.bai") + ": No such file or directory");
    EXPECT_FALSE(reader.open(dir.path().string()));
    EXPECT_EQ(reader.error_message, "cannot open " + dir.path().string() + ": Is a directory");
    EXPECT_EQ(open_error(""), "this is no BAI index");
    EXPECT_EQ(open_error("BAI"), "this is no BAI index");
    EXPECT_EQ(open_error("BAM\x01" + small_bai().substr(4)), "this is no BAI index");
}

TEST(IndexReader, Open_CountsThatCannotBe_AreRefused) {
    struct Case {
        char const* label;
        std::string bai;
        char const* message;
    };
    std::string const magic = "BAI\x01";
    std::string const one = magic + le_bytes(1);
    constexpr std::int32_t MOST = 0x7FFFFFFF;
    Case const cases[] = {
        {"no count of references", magic, "the index is damaged or cut short at byte 4"},
        {"fewer than no references", magic + le_bytes(-1),
         "the index is damaged or cut short at byte 4"},
        {"more references than bytes", magic + le_bytes(MOST) + std::string(64, '\0'),
         "the index is damaged or cut short at byte 4"},
        {"more bins than bytes", one + le_bytes(MOST) + std::string(64, '\0'),
         "the index is damaged or cut short at byte 8"},
        {"fewer than no bins", one + le_bytes(-1) + std::string(64, '\0'),
         "the index is damaged or cut short at byte 8"},
        {"more chunks than bytes",
         one + le_bytes(1) + le_bytes(4681) + le_bytes(MOST) + std::string(64, '\0'),
         "the index is damaged or cut short at byte 16"},
        {"more windows than bytes", one + le_bytes(0) + le_bytes(MOST) + std::string(64, '\0'),
         "the index is damaged or cut short at byte 12"},
        {"a byte too many", small_bai() + 'x',
         "the index is damaged: it should end at byte 240 or 8 bytes later, but has 249"},
        {"a byte too few", small_bai().substr(0, small_bai().size() - 1),
         "the index is damaged: it should end at byte 240 or 8 bytes later, but has 247"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(open_error(c.bai), c.message);
    }
}

TEST(IndexReader, Open_AfterAnotherFile_ForgetsIt) {
    TempDir const dir;
    IndexReader reader;
    ASSERT_TRUE(reader.open(dir.write("x.bai", small_bai())));
    EXPECT_FALSE(reader.open(dir.write("y.bai", "other")));
    EXPECT_EQ(reader.n_references(), 0U);
    ASSERT_TRUE(reader.open(dir.write("x.bai", small_bai())));
    EXPECT_EQ(reader.n_references(), 2U);
}

TEST(IndexReader, Open_FileCutAnywhere_IsRefusedButBeforeTheLastCount) {
    std::string const bai = small_bai();
    for (std::size_t n = 0; n < bai.size(); ++n) {
        SCOPED_TRACE(n);
        EXPECT_EQ(open_error(bai.substr(0, n)).empty(), n == bai.size() - 8);
    }
}

TEST(IndexReader, Open_AnyByteFlipped_IsRefusedOrLooksUp) {
    TempDir const dir;
    std::string const path = dir.file("x.bai");
    std::size_t n_taken = 0;
    for (std::size_t at = 0; at < small_bai().size(); ++at) {
        for (unsigned const flip : {0x01U, 0x80U, 0xFFU}) {
            SCOPED_TRACE(std::to_string(at) + " ^ " + std::to_string(flip));
            std::string bai = small_bai();
            bai[at] = static_cast<char>(static_cast<unsigned char>(bai[at]) ^ flip);
            write_file(path, bai);
            IndexReader reader;
            if (!reader.open(path)) {
                EXPECT_FALSE(reader.error_message.empty());
                continue;
            }
            ++n_taken;
            for (std::int64_t const beg : {0, 20000, 40000, 400000000}) {
                std::vector<ChunkIndex> chunks;
                reader.chunks(0, beg, beg + 50000, chunks);
                reader.chunks(1, beg, beg + 50000, chunks);
                Chunks const pairs = pairs_of(chunks);
                EXPECT_TRUE(std::is_sorted(pairs.begin(), pairs.end()));
                for (auto const& [chunk_beg, chunk_end] : pairs) EXPECT_LT(chunk_beg, chunk_end);
            }
        }
    }
    // The numbers of bins, offsets and counts of reads are anything.
    EXPECT_GT(n_taken, small_bai().size());
}

// --- Files and their indexes -------------------------------------------------

std::uint64_t u64_at(std::string_view bytes, std::size_t at, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) {
        value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
    }
    return value;
}

// A BAM file taken apart: where its blocks lie, and where each record lies in the
// file and on its reference.
class DecodedBam {
public:
    struct Record {
        std::int32_t refID;
        std::int64_t beg, end;                 // on the reference
        std::uint64_t first_byte, after_last;  // in the payload
    };

    explicit DecodedBam(std::string const& file) {
        std::string payload;
        for (BgzfBlock const& block : parse_bgzf(file)) {
            block_begins_[block.offset] = payload.size();
            payload += block.payload;
        }
        n_bytes = payload.size();
        BamPayload parts = split_bam_payload(payload);
        header_text = parts.header_text;
        references = parts.references;
        encoded = std::move(parts.records);
        std::uint64_t place = payload.size();
        for (std::string const& record : encoded) place -= record.size();
        for (std::string const& record : encoded) {
            records.push_back(located(record, place));
            place += record.size();
        }
    }

    // The place in the payload that a virtual offset names; throws where it names
    // none.
    std::uint64_t place_of(std::uint64_t virtual_offset) const {
        return block_begins_.at(virtual_offset >> 16) + (virtual_offset & 0xFFFF);
    }

    std::string header_text;
    std::vector<Reference> references;
    std::vector<std::string> encoded;
    std::vector<Record> records;
    std::uint64_t n_bytes = 0;

private:
    static Record located(std::string_view bytes, std::uint64_t place) {
        std::int64_t n_bases = 0;
        std::size_t const n_ops = u64_at(bytes, 16, 2);
        std::size_t const cigar = 36 + u64_at(bytes, 12, 1);
        for (std::size_t i = 0; i < n_ops; ++i) {
            std::uint64_t const word = u64_at(bytes, cigar + 4 * i, 4);
            // M, D, N, = and X
            if (std::string_view("MIDNSHP=X").substr(word & 15, 1).find_first_of("MDN=X") == 0) {
                n_bases += static_cast<std::int64_t>(word >> 4);
            }
        }
        auto const beg = std::int64_t{static_cast<std::int32_t>(u64_at(bytes, 8, 4))};
        return {static_cast<std::int32_t>(u64_at(bytes, 4, 4)), beg,
                beg + std::max<std::int64_t>(n_bases, 1), place, place + bytes.size()};
    }

    std::map<std::uint64_t, std::uint64_t> block_begins_;
};

// How much of a file the chunks of a region cover, after the check that all records
// that overlap it begin and end inside them.
std::uint64_t checked_bytes(DecodedBam const& bam, IndexReader const& reader, std::int32_t refID,
                            std::int64_t beg, std::int64_t end) {
    std::vector<ChunkIndex> chunks;
    reader.chunks(refID, beg, end, chunks);
    Chunks places;
    std::uint64_t n_bytes = 0;
    for (ChunkIndex const& chunk : chunks) {
        places.emplace_back(bam.place_of(chunk.chunk_beg), bam.place_of(chunk.chunk_end));
        if (places.size() > 1) {
            EXPECT_LE(places[places.size() - 2].second, places.back().first);
        }
        n_bytes += places.back().second - places.back().first;
    }
    for (DecodedBam::Record const& record : bam.records) {
        if (record.refID != refID || record.beg >= end || record.end <= beg) continue;
        bool const found = std::any_of(places.begin(), places.end(), [&](auto const& chunk) {
            return chunk.first <= record.first_byte && record.after_last <= chunk.second;
        });
        EXPECT_TRUE(found) << "the record at " << record.beg << " is not in the chunks of " << refID
                           << ':' << beg << '-' << end;
    }
    return n_bytes;
}

struct Query {
    std::int32_t refID;
    std::int64_t beg, end;
};

// A region close to a record, most often; else anywhere.
Query random_query(std::mt19937& random, DecodedBam const& bam) {
    auto const n = static_cast<std::uint32_t>(bam.records.size());
    DecodedBam::Record const& record = bam.records[random() % n];
    auto const below = [&](std::uint32_t limit) {
        return static_cast<std::int64_t>(random() % limit);
    };
    Query query{record.refID, 0, 0};
    if (query.refID < 0 || below(5) == 0) {
        query.refID = static_cast<std::int32_t>(random() % bam.references.size());
        query.beg = below(300000000);
    } else {
        std::int64_t const anchors[] = {record.beg, record.end, record.beg & ~std::int64_t{16383},
                                        (record.beg + record.end) / 2};
        query.beg = std::max<std::int64_t>(anchors[random() % 4] + below(5) - 2, 0);
    }
    std::int64_t const lengths[] = {1, 2, 100, 16384, 1000000, below(200000000) + 1};
    query.end = query.beg + lengths[random() % 6];
    return query;
}

Header header_of(DecodedBam const& bam) {
    Header header;
    Report report;
    std::string error;
    std::vector<tesk::interop::RefSeq> list;
    for (Reference const& reference : bam.references) {
        list.push_back({reference.name, reference.length});
    }
    EXPECT_TRUE(header.assign_bam(bam.header_text, list, report, error)) << error;
    return header;
}

void write_indexed(std::string const& path, Header const& header,
                   std::vector<std::string> const& records, int level = 1) {
    WriterOptions options;
    options.index = true;
    options.level = level;
    AlignmentWriter writer(options);
    ASSERT_TRUE(writer.open(path, header, header.text())) << writer.error_message;
    RecordBatch batch;
    for (std::size_t i = 0; i < records.size(); ++i) {
        batch.records.append(records[i]);
        if (++batch.n_records < 777 && i + 1 < records.size()) continue;
        ASSERT_TRUE(writer.write(batch)) << writer.error_message;
        batch.clear();
    }
    ASSERT_TRUE(writer.close()) << writer.error_message;
}

// --- Generated records -------------------------------------------------------

constexpr std::int32_t N_REFERENCES = 1000;

std::string thousand_references() {
    std::string text = "@HD\tVN:1.6\tSO:coordinate\n";
    for (int i = 0; i < N_REFERENCES; ++i) {
        text += "@SQ\tSN:ref" + std::to_string(i) + "\tLN:400000000\n";
    }
    return text;
}

// Where a record stands, and its CIGAR: short reads, most of them; spliced over
// megabases, some; at boundaries of windows and larger bins, many.
struct Generated {
    std::int32_t refID;
    std::int32_t pos;
    std::string cigar;
    bool unmapped;
};

Generated generate(std::mt19937& random) {
    auto const below = [&](std::uint32_t limit) {
        return static_cast<std::int32_t>(random() % limit);
    };
    Generated record{};
    // Few references have many records, many have few, and some have none.
    record.refID = below(3) != 0 ? below(3) : below(10) * 100 + below(99);
    record.pos = below(3) == 0 ? below(300000000) : below(2000000);
    switch (below(6)) {
        case 0: record.pos = record.pos / 16384 * 16384; break;
        case 1: record.pos = std::max(record.pos / 16384 * 16384 - 1, 0); break;
        case 2: record.pos = record.pos / 1048576 * 1048576; break;
        default: break;
    }
    switch (below(12)) {
        case 0: record.cigar = "50M" + std::to_string(1 + below(5000000)) + "N50M"; break;
        case 1: record.cigar = "1M" + std::to_string(16382 + below(3)) + "D1M"; break;
        case 2:
            record.cigar = "*";
            record.unmapped = true;
            break;
        case 3: record.cigar = "20S1M"; break;
        default: record.cigar = std::to_string(1 + below(150)) + "M"; break;
    }
    return record;
}

std::vector<std::string> generated_records(std::uint32_t seed, std::size_t n) {
    std::mt19937 random(seed);
    std::vector<Generated> records;
    for (std::size_t i = 0; i < n; ++i) records.push_back(generate(random));
    std::sort(records.begin(), records.end(), [](Generated const& a, Generated const& b) {
        return std::pair(a.refID, a.pos) < std::pair(b.refID, b.pos);
    });
    std::vector<Reference> references;
    for (int i = 0; i < N_REFERENCES; ++i) {
        references.push_back({"ref" + std::to_string(i), 400000000});
    }
    std::vector<std::string> encoded;
    for (Generated const& record : records) {
        // The length of the name varies, so that records straddle blocks anyhow.
        std::string const line =
            "read" + std::string(random() % 200, 'x') + '\t' + (record.unmapped ? "4" : "0") +
            '\t' + references[static_cast<std::size_t>(record.refID)].name + '\t' +
            std::to_string(record.pos + 1) + "\t60\t" + record.cigar + "\t*\t0\t0\t*\t*";
        encoded.push_back(encode_bam_record(line, references));
    }
    for (int i = 0; i < 50; ++i) {
        encoded.push_back(encode_bam_record("late\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*", references));
    }
    return encoded;
}

TEST(RegionQueries, GeneratedRecords_AnyRegion_FindsAllThatOverlap) {
    Header header;
    Report report;
    std::string error;
    ASSERT_TRUE(header.assign_sam(thousand_references(), report, error)) << error;
    for (std::uint32_t const seed : {11U, 12U}) {
        TempDir const dir;
        std::string const path = dir.file("x.bam");
        std::vector<std::string> const records = generated_records(seed, 20000);
        ASSERT_NO_FATAL_FAILURE(write_indexed(path, header, records));
        DecodedBam const bam(read_file(path));
        ASSERT_EQ(bam.records.size(), records.size());
        EXPECT_GT(bam.n_bytes, 40 * PAYLOAD);

        IndexReader reader;
        ASSERT_TRUE(reader.open(path + ".bai")) << reader.error_message;
        EXPECT_EQ(reader.n_references(), 1000U);
        std::mt19937 random(seed + 100);
        for (int i = 0; i < 1500; ++i) {
            Query const query = random_query(random, bam);
            checked_bytes(bam, reader, query.refID, query.beg, query.end);
        }
    }
}

// An index that names the whole file would find all records, too.
TEST(RegionQueries, GeneratedRecords_OneBase_NamesLittleOfTheFile) {
    Header header;
    Report report;
    std::string error;
    ASSERT_TRUE(header.assign_sam(thousand_references(), report, error)) << error;
    TempDir const dir;
    std::string const path = dir.file("x.bam");
    ASSERT_NO_FATAL_FAILURE(write_indexed(path, header, generated_records(13, 20000)));
    DecodedBam const bam(read_file(path));
    IndexReader reader;
    ASSERT_TRUE(reader.open(path + ".bai"));
    std::uint64_t n_bytes = 0;
    std::mt19937 random(14);
    constexpr int N_QUERIES = 300;
    for (int i = 0; i < N_QUERIES; ++i) {
        DecodedBam::Record const& record = bam.records[random() % bam.records.size()];
        n_bytes +=
            checked_bytes(bam, reader, std::max(record.refID, 0), record.end, record.end + 1);
    }
    EXPECT_LT(n_bytes / N_QUERIES, bam.n_bytes / 10);
}

TEST(RegionQueries, GeneratedRecords_CountsInTheIndex_AreThoseOfTheFile) {
    Header header;
    Report report;
    std::string error;
    ASSERT_TRUE(header.assign_sam(thousand_references(), report, error)) << error;
    TempDir const dir;
    ASSERT_NO_FATAL_FAILURE(write_indexed(dir.file("x.bam"), header, generated_records(15, 5000)));
    DecodedBam const bam(read_file(dir.file("x.bam")));
    ParsedBai const bai = parse_bai(read_file(dir.file("x.bam.bai")));
    EXPECT_EQ(bai.n_no_coor, 50U);

    std::map<std::int32_t, std::pair<std::uint64_t, std::uint64_t>> counts;
    for (std::size_t i = 0; i < bam.records.size(); ++i) {
        auto& [mapped, unmapped] = counts[bam.records[i].refID];
        ++((u64_at(bam.encoded[i], 18, 2) & 4) != 0 ? unmapped : mapped);
    }
    for (std::int32_t refID = 0; refID < N_REFERENCES; ++refID) {
        ParsedBai::Section const& section = bai.references.at(static_cast<std::size_t>(refID));
        if (counts.count(refID) == 0) {
            EXPECT_TRUE(section.bins.empty());
            continue;
        }
        EXPECT_EQ(section.bins.at(0).bin, 37450U);
        EXPECT_EQ(section.bins.at(0).chunks.at(1), counts[refID]);
    }
}

// --- Indexes of others -------------------------------------------------------

class RealIndexes : public testing::Test {
protected:
    void SetUp() override {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
        char const* const folder = std::getenv("TESK_BAM_REAL_DATA");
        if (folder == nullptr) {
            GTEST_SKIP() << "no real data: set TESK_BAM_REAL_DATA to the folder of sample files";
        }
        folder_ = folder;
    }

    // Random regions of a file, through an index.
    static void check_queries(DecodedBam const& bam, std::string const& bai, int n) {
        IndexReader reader;
        ASSERT_TRUE(reader.open(bai)) << reader.error_message;
        EXPECT_EQ(reader.n_references(), bam.references.size());
        std::mt19937 random(21);
        for (int i = 0; i < n; ++i) {
            Query const query = random_query(random, bam);
            checked_bytes(bam, reader, query.refID, query.beg, query.end);
        }
    }

    std::string folder_;
};

TEST_F(RealIndexes, Queries_ThroughIndexesOfOthers_FindAllThatOverlap) {
    for (char const* const name : {"refs_3366.bam", "sorted_10000.bam"}) {
        SCOPED_TRACE(name);
        std::string const path = folder_ + '/' + name;
        check_queries(DecodedBam(read_file(path)), path + ".bai", 1000);
    }
}

TEST_F(RealIndexes, Queries_ThroughOurOwn_FindAllThatOverlap) {
    for (char const* const name : {"refs_3366.bam", "sorted_10000.bam"}) {
        SCOPED_TRACE(name);
        DecodedBam const original(read_file(folder_ + '/' + name));
        TempDir const dir;
        std::string const path = dir.file("x.bam");
        ASSERT_NO_FATAL_FAILURE(write_indexed(path, header_of(original), original.encoded, 6));
        DecodedBam const written(read_file(path));
        EXPECT_EQ(written.encoded, original.encoded);
        check_queries(written, path + ".bai", 1000);
    }
}

// Counts of an index that another tool made are those of ours.
TEST_F(RealIndexes, Counts_InOurOwn_AreThoseOfTheOthers) {
    for (char const* const name : {"refs_3366.bam", "sorted_10000.bam"}) {
        SCOPED_TRACE(name);
        DecodedBam const original(read_file(folder_ + '/' + name));
        TempDir const dir;
        std::string const path = dir.file("x.bam");
        ASSERT_NO_FATAL_FAILURE(write_indexed(path, header_of(original), original.encoded));
        ParsedBai const ours = parse_bai(read_file(path + ".bai"));
        ParsedBai const theirs = parse_bai(read_file(folder_ + '/' + name + ".bai"));
        EXPECT_EQ(ours.n_no_coor, theirs.n_no_coor);
        ASSERT_EQ(ours.references.size(), theirs.references.size());
        for (std::size_t i = 0; i < ours.references.size(); ++i) {
            SCOPED_TRACE(i);
            // Pseudo-bins apart, the same bins have records.
            std::map<std::uint32_t, Chunks> our_bins;
            std::map<std::uint32_t, Chunks> their_bins;
            for (auto const& bin : ours.references[i].bins) our_bins[bin.bin] = bin.chunks;
            for (auto const& bin : theirs.references[i].bins) their_bins[bin.bin] = bin.chunks;
            EXPECT_EQ(our_bins.size(), their_bins.size());
            for (auto const& [bin, chunks] : their_bins) {
                ASSERT_EQ(our_bins.count(bin), 1U) << bin;
                if (bin == 37450) {
                    EXPECT_EQ(our_bins[bin].at(1), chunks.at(1));
                }
            }
            EXPECT_EQ(ours.references[i].ioffsets.size(), theirs.references[i].ioffsets.size());
        }
    }
}

TEST_F(RealIndexes, Index_WithoutTheLastCount_IsTaken) {
    IndexReader reader;
    EXPECT_TRUE(reader.open(folder_ + "/no_n_no_coor.bai")) << reader.error_message;
    EXPECT_EQ(reader.n_references(), 2U);
    ParsedBai const bai = parse_bai(read_file(folder_ + "/no_n_no_coor.bai"));
    for (std::int32_t refID = 0; refID < 2; ++refID) {
        std::vector<ChunkIndex> chunks;
        reader.chunks(refID, 0, LIMIT, chunks);
        bool has_records = false;
        for (auto const& bin : bai.references.at(static_cast<std::size_t>(refID)).bins) {
            has_records = has_records || bin.bin != 37450;
        }
        EXPECT_EQ(!chunks.empty(), has_records);
    }
}

}  // namespace

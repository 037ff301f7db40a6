// The BAM container: BGZF blocks, the layout of records, and whole BAM files.

#include "util/bam/bam_file.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <zlib.h>
#include <boost/crc.hpp>

#include "tests/support/bam_encoder.h"
#include "tests/support/temp_file.h"

namespace {

using namespace tesk::test;
using Handler = tesk::util::bam::BAMFileHandler;
using AuxData = Handler::AuxData;
using AuxNumericalArray = Handler::AuxNumericalArray;
using BamBuffer = Handler::BamBuffer;
using BamRecord = Handler::BamRecord;

constexpr char EXTRACT_OVERRUN[] = "Hit end of BAM buffer while extracting data";
constexpr char WRITE_OVERRUN[] = "Hit end of BAM buffer while writing data";
constexpr char READER_OVERRUN[] =
    "Reached end of uncompressed BAM buffer unexpectedly while extracting data: "
    "Hit end of BAM buffer while extracting data";

constexpr std::int32_t INT32_LOWEST = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t INT32_HIGHEST = std::numeric_limits<std::int32_t>::max();

// ---------------------------------------------------------------------------
// Help for all sections
// ---------------------------------------------------------------------------

// Bytes written as pairs of hexadecimal digits; blanks are skipped.
std::string hex(std::string_view digits) {
    std::string bytes;
    std::string pair;
    for (char const c : digits) {
        if (c == ' ') continue;
        pair += c;
        if (pair.size() < 2) continue;
        bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
        pair.clear();
    }
    return bytes;
}

std::string text_of(std::vector<char> const& bytes) { return {bytes.begin(), bytes.end()}; }

std::vector<char> chars_of(std::string_view bytes) { return {bytes.begin(), bytes.end()}; }

// A text with some of its bytes replaced.
std::string with_bytes(std::string text, std::size_t offset, std::string_view bytes) {
    return text.replace(offset, bytes.size(), bytes);
}

// Bytes that deflate cannot make smaller.
std::string noise(std::size_t size) {
    std::mt19937 random(20240229);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random() & 0xFF);
    return bytes;
}

// Text of the std::runtime_error that a call throws.
template <typename Call>
std::string runtime_error_of(Call call) {
    try {
        call();
    } catch (std::runtime_error const& error) {
        return error.what();
    }
    return "nothing was thrown";
}

// What deflating at zlib's defaults gives: bytes, and the message of a failure.
struct Deflated {
    std::string bytes;
    std::string message;
};

Deflated deflate_by_hand(std::string payload) {
    Deflated result;
    result.bytes.resize(65536);
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY),
              Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(payload.data());
    stream.avail_in = static_cast<uInt>(payload.size());
    stream.next_out = reinterpret_cast<Bytef*>(result.bytes.data());
    stream.avail_out = static_cast<uInt>(result.bytes.size());
    int const code = deflate(&stream, Z_FINISH);
    if (code != Z_STREAM_END) {
        result.message = "Deflate failed with error code " + std::to_string(code);
        result.bytes.clear();
    }
    std::size_t const total = stream.total_out;
    int const end_code = deflateEnd(&stream);
    if (end_code != Z_OK) {
        result.message = "Deflate end failed with error code " + std::to_string(end_code);
        result.bytes.clear();
    }
    result.bytes.resize(total, '\0');
    return result;
}

// Payload sizes of the blocks that a buffer is cut into.
std::vector<std::size_t> block_sizes_by_hand(std::string const& data) {
    std::vector<std::size_t> sizes;
    for (std::size_t begin = 0; begin < data.size(); begin += sizes.back()) {
        std::size_t size = std::min<std::size_t>(65536, data.size() - begin);
        while (deflate_by_hand(data.substr(begin, size)).bytes.size() > 65510) size /= 2;
        sizes.push_back(size);
    }
    return sizes;
}

std::vector<std::size_t> payload_sizes(std::vector<BgzfBlock> const& blocks) {
    std::vector<std::size_t> sizes;
    for (BgzfBlock const& block : blocks) sizes.push_back(block.payload.size());
    return sizes;
}

// A deflate block that stores its bytes as they are.
std::string stored(std::string_view bytes, bool final) {
    auto const size = static_cast<std::uint16_t>(bytes.size());
    std::string block(1, final ? '\x01' : '\x00');
    block += le_bytes(size);
    block += le_bytes(static_cast<std::uint16_t>(~size));
    block += bytes;
    return block;
}

// ---------------------------------------------------------------------------
// Deflating and inflating one payload
// ---------------------------------------------------------------------------

TEST(BgzfDeflate, CompressData_Payload_IsRawDeflateAtDefaultSettings) {
    struct {
        char const* label;
        std::string payload;
    } const cases[] = {
        {"empty", ""},
        {"one byte", "A"},
        {"text", "ACGTACGTACGT"},
        {"65535 compressible bytes", std::string(65535, 'A')},
        {"65536 compressible bytes", std::string(65536, 'A')},
        {"half of it compressible", std::string(30000, 'A') + noise(30000)},
        {"65510 incompressible bytes", noise(65510)},
        {"65535 incompressible bytes", noise(65535)},
        {"65536 incompressible bytes", noise(65536)},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler;
        Deflated const expected = deflate_by_hand(c.payload);
        std::vector<char> const got =
            handler.compress_data(c.payload.data(), static_cast<unsigned>(c.payload.size()));
        EXPECT_TRUE(text_of(got) == expected.bytes);
        EXPECT_EQ(handler.error_message, expected.message);
    }
}

TEST(BgzfDeflate, CompressData_65536IncompressibleBytes_GivesAsManyZeroBytesAndMessage) {
    Handler handler;
    std::string const payload = noise(65536);
    std::vector<char> const got = handler.compress_data(payload.data(), 65536);
    EXPECT_TRUE(got == std::vector<char>(65536, '\0'));
    EXPECT_FALSE(deflate_by_hand(payload).message.empty());
    EXPECT_EQ(handler.error_message, deflate_by_hand(payload).message);
}

TEST(BgzfDeflate, CompressData_SuccessAfterFailure_KeepsMessageAndStartsAfresh) {
    Handler handler;
    handler.compress_data(noise(65536).data(), 65536);
    std::string const message = handler.error_message;
    std::string const payload(1000, 'C');
    EXPECT_EQ(text_of(handler.compress_data(payload.data(), 1000)), deflate_by_hand(payload).bytes);
    EXPECT_EQ(handler.error_message, message);
}

TEST(BgzfDeflate, CompressData_SameInputTwice_GivesSameBytes) {
    Handler handler;
    std::string const payload = noise(500) + std::string(500, 'G');
    EXPECT_EQ(handler.compress_data(payload.data(), 1000),
              handler.compress_data(payload.data(), 1000));
}

TEST(BgzfDeflate, CompressData_Arguments_AreChecked) {
    std::string const payload(65537, 'A');
    struct {
        char const* label;
        char const* data;
        unsigned size;
        bool valid;
    } const cases[] = {
        {"null", nullptr, 10, false},
        {"null of size 0", nullptr, 0, false},
        {"65535 bytes", payload.data(), 65535, true},
        {"65536 bytes", payload.data(), 65536, true},
        {"65537 bytes", payload.data(), 65537, false},
        {"largest size", payload.data(), 4294967295U, false},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler;
        std::vector<char> const got = handler.compress_data(c.data, c.size);
        EXPECT_EQ(got.empty(), !c.valid);
        EXPECT_EQ(handler.error_message, c.valid ? "" : "Arguments to compress_data incorrect");
    }
}

TEST(BgzfInflate, DecompressData_Arguments_AreChecked) {
    // A stream of 65,536 bytes followed by bytes that do not matter.
    std::string stream = deflate_by_hand(std::string(65536, 'A')).bytes;
    stream.resize(65537);
    struct {
        char const* label;
        char const* data;
        unsigned compressed_size;
        unsigned uncompressed_size;
        bool valid;
    } const cases[] = {
        {"null", nullptr, 4, 4, false},
        {"null of sizes 0", nullptr, 0, 0, false},
        {"65535 compressed bytes", stream.data(), 65535, 65536, true},
        {"65536 compressed bytes", stream.data(), 65536, 65536, true},
        {"65537 compressed bytes", stream.data(), 65537, 65536, false},
        {"65537 uncompressed bytes", stream.data(), 65536, 65537, false},
        {"largest sizes", stream.data(), 4294967295U, 4294967295U, false},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler;
        std::vector<char> const got =
            handler.decompress_data(c.data, c.compressed_size, c.uncompressed_size);
        EXPECT_EQ(got.size(), c.valid ? c.uncompressed_size : 0U);
        EXPECT_EQ(handler.error_message, c.valid ? "" : "Arguments to decompress_data incorrect");
    }
}

TEST(BgzfInflate, DecompressData_Stream_YieldsExpectedBytesOrMessage) {
    std::string const acgt = stored("ACGT", true);
    std::string const more_to_come = stored("ACGT", false);
    struct {
        char const* label;
        std::string stream;
        unsigned size;
        std::string bytes;
        char const* message;
    } const cases[] = {
        {"exact", acgt, 4, "ACGT", "before"},
        {"stored twice", more_to_come + acgt, 8, "ACGTACGT", "before"},
        {"bytes after the stream", acgt + "xyz", 4, "ACGT", "before"},
        {"empty stream for nothing", hex("0300"), 0, "", "before"},
        {"no input for nothing", "", 0, "", "before"},
        {"data where nothing is expected", acgt, 0, "", "before"},
        {"damage where nothing is expected", hex("07"), 0, "", "before"},
        {"one byte more than expected", acgt, 3, "", "Inflate failed with error code -5"},
        {"a block more than expected", more_to_come + acgt, 4, "",
         "Inflate failed with error code -5"},
        {"input ends where the output is full", more_to_come, 4, "",
         "Inflate failed with error code -5"},
        {"damage where the output is full", more_to_come + hex("07"), 4, "",
         "Inflate failed with error code -3"},
        {"one byte less than expected", acgt, 5, "",
         "Inflate did not produce expected amount of data"},
        {"cut inside", acgt.substr(0, 8), 4, "", "Inflate did not produce expected amount of data"},
        {"damage at once", hex("07"), 4, "", "Inflate did not produce expected amount of data"},
        {"damage midway", more_to_come + hex("07"), 8, "",
         "Inflate did not produce expected amount of data"},
        {"no input", "", 4, "", "Inflate did not produce expected amount of data"},
        {"empty stream", hex("0300"), 1, "", "Inflate did not produce expected amount of data"},
        {"zlib stream, not raw", hex("789c"), 1, "",
         "Inflate did not produce expected amount of data"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler;
        handler.error_message = "before";
        std::vector<char> const got = handler.decompress_data(
            c.stream.data(), static_cast<unsigned>(c.stream.size()), c.size);
        EXPECT_EQ(text_of(got), c.bytes);
        EXPECT_EQ(handler.error_message, c.message);
    }
}

// ---------------------------------------------------------------------------
// Writing blocks
// ---------------------------------------------------------------------------

// What one call of the block writer did.
struct BlocksWritten {
    bool result = false;
    std::string file;
    unsigned long block_offset = 1;
    unsigned long end_offset = 1;
};

BlocksWritten write_blocks(Handler const& handler, std::string_view data) {
    TempDir const dir;
    BlocksWritten written;
    std::ofstream out(dir.file("blocks"), std::ios::binary);
    written.result = handler.write_BGZF_blocks_to_BAM(out, chars_of(data), written.block_offset,
                                                      written.end_offset);
    out.close();
    written.file = read_file(dir.file("blocks"));
    return written;
}

TEST(BgzfWriter, WriteBlocks_FourBytes_BlockIsLaidOutFieldByField) {
    Handler handler;
    BlocksWritten const written = write_blocks(handler, "ACGT");
    std::string const& block = written.file;
    ASSERT_GT(block.size(), 26U);
    EXPECT_TRUE(written.result);
    EXPECT_EQ(block.substr(0, 1), hex("1f"));        // ID1
    EXPECT_EQ(block.substr(1, 1), hex("8b"));        // ID2
    EXPECT_EQ(block.substr(2, 1), hex("08"));        // CM
    EXPECT_EQ(block.substr(3, 1), hex("04"));        // FLG
    EXPECT_EQ(block.substr(4, 4), hex("00000000"));  // MTIME
    EXPECT_EQ(block.substr(8, 1), hex("00"));        // XFL
    EXPECT_EQ(block.substr(9, 1), hex("ff"));        // OS
    EXPECT_EQ(block.substr(10, 2), hex("0600"));     // XLEN
    EXPECT_EQ(block.substr(12, 2), "BC");            // SI1, SI2
    EXPECT_EQ(block.substr(14, 2), hex("0200"));     // SLEN
    EXPECT_EQ(block.substr(16, 2), le_bytes(static_cast<std::uint16_t>(block.size() - 1)));
    EXPECT_EQ(block.substr(18, block.size() - 26), deflate_by_hand("ACGT").bytes);
    EXPECT_EQ(block.substr(block.size() - 8, 4), hex("f29f0ea3"));  // CRC32
    EXPECT_EQ(block.substr(block.size() - 4), hex("04000000"));     // ISIZE
}

TEST(BgzfWriter, WriteBlocks_Crc32_IsThatOfBoost) {
    Handler handler;
    for (std::size_t const size : {1U, 2U, 3U, 255U, 4096U, 60000U}) {
        SCOPED_TRACE(size);
        std::string const payload = noise(size);
        boost::crc_32_type crc;
        crc.process_bytes(payload.data(), payload.size());
        std::string const file = write_blocks(handler, payload).file;
        EXPECT_EQ(file.substr(file.size() - 8, 4), le_bytes(crc.checksum()));
    }
}

TEST(BgzfWriter, WriteBlocks_Data_IsCutIntoBlocksThatFit) {
    struct {
        char const* label;
        std::string data;
        std::vector<std::size_t> sizes;
    } const cases[] = {
        {"one byte", "A", {1}},
        {"65535 compressible bytes", std::string(65535, 'A'), {65535}},
        {"65536 compressible bytes", std::string(65536, 'A'), {65536}},
        {"65537 compressible bytes", std::string(65537, 'A'), {65536, 1}},
        {"200000 compressible bytes", std::string(200000, 'A'), {65536, 65536, 65536, 3392}},
        {"65535 incompressible bytes", noise(65535), {32767, 32768}},
        {"65536 incompressible bytes", noise(65536), {32768, 32768}},
        {"65537 incompressible bytes", noise(65537), {32768, 32769}},
        {"131072 incompressible bytes", noise(131072), {32768, 32768, 32768, 32768}},
        {"compressible after incompressible",
         noise(65536) + std::string(65536, 'A'),
         {32768, 65536, 32768}},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler;
        BlocksWritten const written = write_blocks(handler, c.data);
        EXPECT_TRUE(written.result);
        std::vector<BgzfBlock> const blocks = parse_bgzf(written.file);
        EXPECT_EQ(payload_sizes(blocks), c.sizes);
        EXPECT_EQ(block_sizes_by_hand(c.data), c.sizes);
        EXPECT_TRUE(inflate_bgzf(written.file) == c.data);
        EXPECT_EQ(handler.bytes_written, written.file.size());
        EXPECT_EQ(written.block_offset, blocks.back().offset << 16);
        EXPECT_EQ(written.end_offset, written.file.size() << 16);
        for (BgzfBlock const& block : blocks) {
            EXPECT_LE(block.size, 65536U);
            EXPECT_EQ(written.file.substr(block.offset, 16),
                      hex("1f8b0804 00000000 00ff 0600 4243 0200"));
        }
    }
}

// Around the largest payload that still fits when it is only stored.
TEST(BgzfWriter, WriteBlocks_CompressedSizeAroundLimit_SplitsAbove65510) {
    bool seen_whole = false;
    bool seen_split = false;
    for (std::size_t size = 65470; size <= 65520; ++size) {
        SCOPED_TRACE(size);
        Handler handler;
        std::string const data = noise(size);
        bool const fits = deflate_by_hand(data).bytes.size() <= 65510;
        (fits ? seen_whole : seen_split) = true;
        std::vector<BgzfBlock> const blocks = parse_bgzf(write_blocks(handler, data).file);
        EXPECT_EQ(payload_sizes(blocks),
                  fits ? std::vector<std::size_t>{size}
                       : std::vector<std::size_t>({size / 2, size - size / 2}));
    }
    EXPECT_TRUE(seen_whole);
    EXPECT_TRUE(seen_split);
}

TEST(BgzfWriter, WriteBlocks_FirstTryDidNotFit_LeavesItsMessage) {
    Handler handler;
    std::string const data = noise(65536);
    EXPECT_TRUE(write_blocks(handler, data).result);
    EXPECT_EQ(handler.error_message, deflate_by_hand(data).message);
    EXPECT_FALSE(handler.error_message.empty());
}

TEST(BgzfWriter, WriteBlocks_NoData_WritesNothingAndGivesTheFilesEnd) {
    for (unsigned long const written_before : {0UL, 1UL, 77UL, 1UL << 40}) {
        SCOPED_TRACE(written_before);
        Handler handler;
        handler.bytes_written = written_before;
        BlocksWritten const written = write_blocks(handler, "");
        EXPECT_TRUE(written.result);
        EXPECT_EQ(written.file, "");
        EXPECT_EQ(written.block_offset, written_before << 16);
        EXPECT_EQ(written.end_offset, written_before << 16);
        EXPECT_EQ(handler.bytes_written, written_before);
    }
}

TEST(BgzfWriter, WriteBlocks_BytesWrittenBefore_AreCountedInOffsets) {
    for (unsigned long const written_before : {1UL, 1000UL, 0xFFFFFFFFUL, 1UL << 40}) {
        SCOPED_TRACE(written_before);
        Handler handler;
        handler.bytes_written = written_before;
        BlocksWritten const written = write_blocks(handler, std::string(65537, 'A'));
        std::vector<BgzfBlock> const blocks = parse_bgzf(written.file);
        ASSERT_EQ(blocks.size(), 2U);
        EXPECT_EQ(written.block_offset, (written_before + blocks[0].size) << 16);
        EXPECT_EQ(written.end_offset, (written_before + written.file.size()) << 16);
        EXPECT_EQ(handler.bytes_written, written_before + written.file.size());
    }
}

TEST(BgzfWriter, WriteBlocks_SeveralCalls_FollowEachOther) {
    TempDir const dir;
    Handler handler;
    std::ofstream out(dir.file("blocks"), std::ios::binary);
    unsigned long block_offset = 0;
    unsigned long end_offset = 0;
    std::vector<unsigned long> begins;
    unsigned long last_end = 0;
    for (char const* data : {"first", "second", "third"}) {
        EXPECT_TRUE(
            handler.write_BGZF_blocks_to_BAM(out, chars_of(data), block_offset, end_offset));
        EXPECT_EQ(block_offset, last_end);
        begins.push_back(block_offset >> 16);
        last_end = end_offset;
    }
    out.close();
    std::vector<BgzfBlock> const blocks = parse_bgzf(read_file(dir.file("blocks")));
    ASSERT_EQ(blocks.size(), 3U);
    EXPECT_EQ(begins[1], blocks[1].offset);
    EXPECT_EQ(begins[2], blocks[2].offset);
    EXPECT_EQ(blocks[2].payload, "third");
}

TEST(BgzfWriter, WriteBlocks_StreamThatFailed_IsNotNoticed) {
    Handler handler;
    std::ofstream closed;
    unsigned long block_offset = 1;
    unsigned long end_offset = 1;
    EXPECT_TRUE(handler.write_BGZF_blocks_to_BAM(closed, {'A'}, block_offset, end_offset));
    EXPECT_EQ(block_offset, 0U);
    EXPECT_EQ(end_offset, handler.bytes_written << 16);
    EXPECT_EQ(handler.bytes_written, deflate_by_hand("A").bytes.size() + 26);
    EXPECT_EQ(handler.error_message, "");
}

TEST(BgzfWriter, BytesWritten_FreshHandler_IsZero) {
    // In memory that was in use before.
    alignas(Handler) unsigned char memory[sizeof(Handler)];
    std::memset(memory, 0xAA, sizeof memory);
    auto* const handler = new (memory) Handler;
    EXPECT_EQ(handler->bytes_written, 0U);
    handler->~Handler();
}

// ---------------------------------------------------------------------------
// Reading blocks
// ---------------------------------------------------------------------------

// What one call of the block reader did to a buffer that held "kept".
struct BlockRead {
    bool result = false;
    std::string out;
    std::string message;
};

BlockRead read_block(std::string_view file) {
    TempDir const dir;
    std::ifstream in(dir.write("block", file), std::ios::binary);
    Handler handler;
    handler.file_name = "x.bam";
    handler.error_message = "before";
    std::vector<char> out = chars_of("kept");
    BlockRead read;
    read.result = handler.read_BGZF_block_from_BAM(in, out);
    read.out = text_of(out);
    read.message = handler.error_message;
    return read;
}

// A block of bytes that are stored, 35 bytes around "ACGT".
struct StoredBlock {
    std::string cdata = stored("ACGT", true);
    std::uint32_t crc32 = 0xa30e9ff2;
    std::uint32_t isize = 4;

    std::string bytes() const {
        return hex("1f8b0804 00000000 00ff 0600 4243 0200") +
               le_bytes(static_cast<std::uint16_t>(cdata.size() + 25)) + cdata + le_bytes(crc32) +
               le_bytes(isize);
    }
};

TEST(BgzfReader, ReadBlock_WholeBlock_AppendsPayload) {
    struct {
        char const* label;
        std::string block;
        std::string payload;
    } const cases[] = {
        {"stored", StoredBlock().bytes(), "ACGT"},
        {"deflated", bgzf_block("ACGTACGT"), "ACGTACGT"},
        {"deflated, large", bgzf_block(std::string(65280, 'A')), std::string(65280, 'A')},
        {"incompressible", bgzf_block(noise(65280)), noise(65280)},
        {"end of file", bgzf_eof_block(), ""},
        {"more of the file after it", StoredBlock().bytes() + "xyz", "ACGT"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        BlockRead const read = read_block(c.block);
        EXPECT_TRUE(read.result);
        EXPECT_TRUE(read.out == "kept" + c.payload);
        EXPECT_EQ(read.message, "before");
    }
}

TEST(BgzfReader, ReadBlock_SeveralBlocks_ReadsThemOneByOne) {
    TempDir const dir;
    std::string const file = bgzf_block("one") + StoredBlock().bytes() + bgzf_eof_block();
    std::ifstream in(dir.write("blocks", file), std::ios::binary);
    Handler handler;
    std::vector<char> out;
    EXPECT_TRUE(handler.read_BGZF_block_from_BAM(in, out));
    EXPECT_EQ(text_of(out), "one");
    EXPECT_TRUE(handler.read_BGZF_block_from_BAM(in, out));
    EXPECT_EQ(text_of(out), "oneACGT");
    EXPECT_TRUE(handler.read_BGZF_block_from_BAM(in, out));
    EXPECT_EQ(text_of(out), "oneACGT");
    EXPECT_EQ(static_cast<std::size_t>(in.tellg()), file.size());
}

TEST(BgzfReader, ReadBlock_WrittenByTheWriter_ReadsBack) {
    for (std::size_t const size : {1U, 65535U, 65536U}) {
        SCOPED_TRACE(size);
        Handler handler;
        std::string const data(size, 'T');
        BlockRead const read = read_block(write_blocks(handler, data).file);
        EXPECT_TRUE(read.result);
        EXPECT_TRUE(read.out == "kept" + data);
    }
}

constexpr char MALFORMED_HEADER[] = "Encountered malformed BGZF header in file x.bam";
constexpr char UNKNOWN_SUBFIELDS[] = "Encountered unknown sub fields in BGZF header in file x.bam";
constexpr char MALFORMED_SUBFIELD[] = "Encountered malformed BGZF subfield in file x.bam";
constexpr char OVERSIZED[] = "Encountered over-sized BGZF block in file x.bam";
constexpr char CRC_MISMATCH[] = "CRC mismatch after decompressing BGZF block!";

TEST(BgzfReader, ReadBlock_HeaderFieldWrong_ReportsTheFirstFault) {
    std::string const block = StoredBlock().bytes();
    struct {
        char const* label;
        std::size_t offset;
        std::string bytes;
        std::string message;
    } const cases[] = {
        {"ID1", 0, hex("1e"), MALFORMED_HEADER},
        {"ID2", 1, hex("8a"), MALFORMED_HEADER},
        {"CM", 2, hex("07"), MALFORMED_HEADER},
        {"FLG, no extra field", 3, hex("00"), MALFORMED_HEADER},
        {"FLG, a name besides", 3, hex("0c"), MALFORMED_HEADER},
        {"XLEN 5", 10, hex("0500"), UNKNOWN_SUBFIELDS},
        {"XLEN 7", 10, hex("0700"), UNKNOWN_SUBFIELDS},
        {"XLEN 0", 10, hex("0000"), UNKNOWN_SUBFIELDS},
        {"XLEN 262", 10, hex("0601"), UNKNOWN_SUBFIELDS},
        {"SI1", 12, "A", MALFORMED_SUBFIELD},
        {"SI2", 13, "B", MALFORMED_SUBFIELD},
        {"SI1, SI2 in lower case", 12, "bc", MALFORMED_SUBFIELD},
        {"SLEN 1", 14, hex("0100"), MALFORMED_SUBFIELD},
        {"SLEN 3", 14, hex("0300"), MALFORMED_SUBFIELD},
        {"SLEN 258", 14, hex("0201"), MALFORMED_SUBFIELD},
        {"BSIZE 0", 16, hex("0000"), OVERSIZED},
        {"BSIZE 23", 16, hex("1700"), OVERSIZED},
        {"BSIZE 24", 16, hex("1800"), OVERSIZED},
        {"ID1, XLEN, SI1 and BSIZE", 0, hex("00000000000000000000000000000000 0000"),
         MALFORMED_HEADER},
        {"XLEN, SI1 and BSIZE", 10, hex("0500 4142 0300 0000"), UNKNOWN_SUBFIELDS},
        {"SI1 and BSIZE", 12, hex("4142 0300 0000"), MALFORMED_SUBFIELD},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        BlockRead const read = read_block(with_bytes(block, c.offset, c.bytes));
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.message, c.message);
        EXPECT_EQ(read.out, "kept");
    }
}

TEST(BgzfReader, ReadBlock_TimeExtraFlagsAndSystem_AreNotChecked) {
    BlockRead const read = read_block(with_bytes(StoredBlock().bytes(), 4, hex("11223344 02 03")));
    EXPECT_TRUE(read.result);
    EXPECT_EQ(read.out, "keptACGT");
}

TEST(BgzfReader, ReadBlock_BsizeAroundItsLeast_NeedsRoomForThePayload) {
    struct {
        char const* label;
        std::string bsize_and_rest;
        bool result;
        std::string message;
    } const cases[] = {
        {"24, less than nothing", hex("1800 00000000 00000000"), false, OVERSIZED},
        {"25, no deflate stream at all", hex("1900 00000000 00000000"), true, "before"},
        {"26, half a deflate stream", hex("1a00 03 00000000 00000000"), true, "before"},
        {"27, an empty deflate stream", hex("1b00 0300 00000000 00000000"), true, "before"},
        {"25, but a payload announced", hex("1900 f29f0ea3 04000000"), false,
         "BGZF block did not unzip correctly in file x.bam : "
         "Inflate did not produce expected amount of data"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        BlockRead const read =
            read_block(hex("1f8b0804 00000000 00ff 0600 4243 0200") + c.bsize_and_rest);
        EXPECT_EQ(read.result, c.result);
        EXPECT_EQ(read.message, c.message);
        EXPECT_EQ(read.out, "kept");
    }
}

TEST(BgzfReader, ReadBlock_PayloadWrong_ReportsWhatInflatingSays) {
    std::string const unzip = "BGZF block did not unzip correctly in file x.bam : ";
    std::string const short_of = unzip + "Inflate did not produce expected amount of data";
    std::string const arguments = unzip + "Arguments to decompress_data incorrect";
    struct {
        char const* label;
        std::string cdata;
        std::uint32_t crc32;
        std::uint32_t isize;
        std::string message;
    } const cases[] = {
        {"ISIZE one too small", stored("ACGT", true), 0xa30e9ff2, 3,
         unzip + "Inflate failed with error code -5"},
        {"ISIZE one too large", stored("ACGT", true), 0xa30e9ff2, 5, short_of},
        {"ISIZE 65536", stored("ACGT", true), 0xa30e9ff2, 65536, short_of},
        {"ISIZE 65537", stored("ACGT", true), 0xa30e9ff2, 65537, arguments},
        {"ISIZE 4294967295", stored("ACGT", true), 0xa30e9ff2, 4294967295U, arguments},
        {"damaged behind its last byte", stored("ACGT", false) + hex("07"), 0xa30e9ff2, 4,
         unzip + "Inflate failed with error code -3"},
        {"no deflate stream", "garbage", 0xa30e9ff2, 4, short_of},
        {"one base changed", stored("ACCT", true), 0xa30e9ff2, 4, CRC_MISMATCH},
        {"CRC32 changed", stored("ACGT", true), 0xa30e9ff3, 4, CRC_MISMATCH},
        {"ISIZE 0 with a payload", stored("ACGT", true), 0xa30e9ff2, 0, CRC_MISMATCH},
        {"empty with a CRC32", hex("0300"), 1, 0, CRC_MISMATCH},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        BlockRead const read = read_block(StoredBlock{c.cdata, c.crc32, c.isize}.bytes());
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.message, c.message);
        EXPECT_EQ(read.out, "kept");
    }
}

TEST(BgzfReader, ReadBlock_ExpectedSizeZero_NeverCountsAsInflateFailure) {
    for (std::string const& cdata : {stored("ACGT", true), std::string("garbage")}) {
        BlockRead const read = read_block(StoredBlock{cdata, 0, 0}.bytes());
        EXPECT_TRUE(read.result);
        EXPECT_EQ(read.out, "kept");
        EXPECT_EQ(read.message, "before");
    }
}

TEST(BgzfReader, ReadBlock_CutInsideHeader_FailsAsIfZerosFollowed) {
    std::string const block = StoredBlock().bytes();
    for (std::size_t size = 0; size <= 16; ++size) {
        SCOPED_TRACE(size);
        BlockRead const read = read_block(block.substr(0, size));
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.message, size < 4    ? MALFORMED_HEADER
                                : size < 11 ? UNKNOWN_SUBFIELDS
                                : size < 15 ? MALFORMED_SUBFIELD
                                            : OVERSIZED);
        EXPECT_EQ(read.out, "kept");
    }
}

// Zeros in place of CRC32 and ISIZE make an empty block of it; that the file
// ended too early is for the caller to notice.
TEST(BgzfReader, ReadBlock_CutInsidePayload_AppendsNothing) {
    std::string const block = StoredBlock().bytes();
    for (std::size_t size = 17; size <= 27; ++size) {
        SCOPED_TRACE(size);
        EXPECT_EQ(read_block(block.substr(0, size)).out, "kept");
    }
}

TEST(BgzfReader, ReadBlock_CutInsideOrAfterChecksum_ReportsMismatch) {
    std::string const block = StoredBlock().bytes();
    for (std::size_t size = 28; size <= 31; ++size) {
        SCOPED_TRACE(size);
        BlockRead const read = read_block(block.substr(0, size));
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.message, CRC_MISMATCH);
        EXPECT_EQ(read.out, "kept");
    }
}

TEST(BgzfReader, ReadBlock_StreamThatIsNotOpen_Fails) {
    Handler handler;
    handler.file_name = "x.bam";
    std::ifstream closed;
    std::vector<char> out = chars_of("kept");
    EXPECT_FALSE(handler.read_BGZF_block_from_BAM(closed, out));
    EXPECT_EQ(handler.error_message, MALFORMED_HEADER);
    EXPECT_EQ(text_of(out), "kept");
}

// ---------------------------------------------------------------------------
// The byte cursor
// ---------------------------------------------------------------------------

TEST(BamBufferCursor, Aggregate_WithoutPosition_StartsAtZero) {
    char bytes[] = {'a', 'b', 'c'};
    BamBuffer buffer{bytes, 3};
    EXPECT_EQ(buffer.data, bytes);
    EXPECT_EQ(buffer.size, 3U);
    EXPECT_EQ(buffer.pos, 0U);
    BamBuffer const in_the_middle{bytes, 3, 2};
    EXPECT_EQ(in_the_middle.pos, 2U);
}

TEST(BamBufferCursor, GetBytes_UpToTheEnd_StepsOver) {
    char bytes[] = {'a', 'b', 'c'};
    BamBuffer buffer{bytes, 3};
    EXPECT_EQ(buffer.get_bytes(0), bytes);
    EXPECT_EQ(buffer.get_bytes(2), bytes);
    EXPECT_EQ(buffer.pos, 2U);
    EXPECT_EQ(buffer.get_bytes(1), bytes + 2);
    EXPECT_EQ(buffer.pos, 3U);
    EXPECT_EQ(buffer.get_bytes(0), bytes + 3);
    EXPECT_EQ(buffer.pos, 3U);
}

TEST(BamBufferCursor, PutBytes_UpToTheEnd_CopiesAndStepsOver) {
    std::string bytes = "......";
    BamBuffer buffer{bytes.data(), 5};
    buffer.put_bytes("ab", 2);
    buffer.put_bytes(nullptr, 0);
    buffer.put_bytes("cde", 3);
    EXPECT_EQ(buffer.pos, 5U);
    EXPECT_EQ(bytes, "abcde.");
}

TEST(BamBufferCursor, AnyOperation_BeyondTheEnd_ThrowsAndMovesNothing) {
    constexpr std::size_t HUGE_SIZE = std::numeric_limits<std::size_t>::max();
    struct {
        char const* label;
        std::size_t pos;
        std::size_t n;
    } const cases[] = {
        {"one byte too many", 0, 4},
        {"one byte too many from inside", 2, 2},
        {"at the end", 3, 1},
        {"beyond the end", 4, 1},
        {"nothing, but beyond the end", 4, 0},
        {"far beyond the end", HUGE_SIZE, 1},
        {"largest size", 0, HUGE_SIZE},
        {"largest size from inside", 2, HUGE_SIZE},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string bytes = "abcX";
        BamBuffer buffer{bytes.data(), 3, c.pos};
        EXPECT_EQ(runtime_error_of([&] { buffer.get_bytes(c.n); }), EXTRACT_OVERRUN);
        EXPECT_EQ(buffer.pos, c.pos);
        EXPECT_EQ(runtime_error_of([&] { buffer.put_bytes("12345", c.n); }), WRITE_OVERRUN);
        EXPECT_EQ(buffer.pos, c.pos);
        EXPECT_EQ(bytes, "abcX");
    }
}

template <typename T>
void expect_number_moves_as(T value, std::string const& expected) {
    SCOPED_TRACE(testing::PrintToString(value));
    ASSERT_EQ(expected.size(), sizeof(T));
    std::string bytes(sizeof(T) + 1, 'x');
    BamBuffer out{bytes.data(), sizeof(T)};
    out.put(value);
    EXPECT_EQ(bytes, expected + 'x');
    EXPECT_EQ(out.pos, sizeof(T));

    BamBuffer in{bytes.data(), sizeof(T)};
    EXPECT_EQ(in.get<T>(), value);
    EXPECT_EQ(in.pos, sizeof(T));

    // One byte less, and again from a position beyond the end.
    for (std::size_t const pos : {std::size_t{0}, sizeof(T) + 5}) {
        BamBuffer tight{bytes.data(), sizeof(T) - 1, pos};
        EXPECT_EQ(runtime_error_of([&] { tight.get<T>(); }), EXTRACT_OVERRUN);
        EXPECT_EQ(runtime_error_of([&] { tight.put(value); }), WRITE_OVERRUN);
        EXPECT_EQ(tight.pos, pos);
        EXPECT_EQ(bytes, expected + 'x');
    }
}

TEST(BamBufferCursor, GetAndPut_NumbersOfEveryWidth_AreLittleEndianAndBounded) {
    expect_number_moves_as<char>('A', "A");
    expect_number_moves_as<std::int8_t>(-2, hex("fe"));
    expect_number_moves_as<std::uint8_t>(254, hex("fe"));
    expect_number_moves_as<std::int16_t>(-2, hex("feff"));
    expect_number_moves_as<std::uint16_t>(0x1234, hex("3412"));
    expect_number_moves_as<int>(0x12345678, hex("78563412"));
    expect_number_moves_as<int>(INT32_LOWEST, hex("00000080"));
    expect_number_moves_as<unsigned int>(0xFFFFFFFE, hex("feffffff"));
    expect_number_moves_as<float>(1.5F, hex("0000c03f"));
    expect_number_moves_as<std::uint64_t>(0x123456789ABCDEF0, hex("f0debc9a78563412"));
}

// ---------------------------------------------------------------------------
// Records: both directions
// ---------------------------------------------------------------------------

Handler handler_with_references() {
    Handler handler;
    handler.references = {{"chr1", 1000}, {"chr2", 2000}};
    handler.file_name = "x.bam";
    return handler;
}

// A record with a value of its own in every field ...
BamRecord full_record() {
    BamRecord record;
    record.refID = 1;
    record.pos = 0x00010203;
    record.read_name = "read";
    record.mapq = 60;
    record.bin = 0x1234;
    record.flag = 0x0163;
    record.l_seq = 3;
    record.next_refID = 0;
    record.next_pos = 0x0A0B;
    record.tlen = -2;
    record.cigar = {1 << 4 | 4, 2 << 4 | 0, 10 << 4 | 3};
    record.ref_length = 12;
    record.seq = {0x12, 0x40};
    record.qual = {0, 40, 93};
    return record;
}

// ... and what it is in BAM, after block_size, and in SAM.
std::string const& full_record_body() {
    static std::string const bytes =
        hex("01000000 03020100 05 3c 3412 0300 6301 03000000 00000000 0b0a0000 feffffff"
            "7265616400 14000000 20000000 a3000000 1240 00285d");
    return bytes;
}
constexpr char FULL_RECORD_SAM[] = "read\t355\tchr2\t66052\t60\t1S2M10N\tchr1\t2572\t-2\tACG\t!I~";

std::string with_block_size(std::string const& body) {
    return le_bytes(static_cast<std::int32_t>(body.size())) + body;
}

// The full record with encoded optional fields behind it.
std::string full_record_with(std::string const& aux) {
    return with_block_size(full_record_body() + aux);
}

std::string serialise(BamRecord const& record) {
    Handler handler;
    std::vector<char> buffer(1000, 'x');
    EXPECT_TRUE(handler.serialise_bam_record_to_buffer(record, buffer)) << handler.error_message;
    EXPECT_EQ(handler.error_message, "");
    return text_of(buffer);
}

// What decoding the record at the start of some bytes did.
struct Decoded {
    bool result = false;
    std::string message;
    std::size_t pos = 0;
    std::vector<BamRecord> records;
};

Decoded decode(std::string bytes) {
    Handler handler = handler_with_references();
    handler.error_message = "before";
    BamBuffer buffer{bytes.data(), bytes.size()};
    Decoded decoded;
    decoded.result = handler.extract_alignment_from_buffer(buffer);
    decoded.message = handler.error_message;
    decoded.pos = buffer.pos;
    decoded.records = handler.records;
    return decoded;
}

// Decoding throws the overrun error and appends nothing.
void expect_decoding_overruns(std::string bytes) {
    Handler handler = handler_with_references();
    BamBuffer buffer{bytes.data(), bytes.size()};
    EXPECT_EQ(runtime_error_of([&] { handler.extract_alignment_from_buffer(buffer); }),
              EXTRACT_OVERRUN);
    EXPECT_TRUE(handler.records.empty());
}

void expect_decoding_fails(std::string const& bytes, std::string const& message) {
    Decoded const decoded = decode(bytes);
    EXPECT_FALSE(decoded.result);
    EXPECT_EQ(decoded.message, message);
    EXPECT_TRUE(decoded.records.empty());
}

AuxData aux(std::string tag, char type, boost::any value) {
    AuxData field;
    field.tag = std::move(tag);
    field.type = type;
    field.value = std::move(value);
    return field;
}

AuxNumericalArray array_of(char type, std::uint32_t count, std::string const& data) {
    AuxNumericalArray array;
    array.type = type;
    array.count = count;
    array.data = chars_of(data);
    return array;
}

// Tag, type letter, held type and value of an optional field, in words.
std::string described(AuxData const& field) {
    std::string const start = field.tag + ' ' + field.type + ' ';
    boost::any const& v = field.value;
    if (auto const* a = boost::any_cast<char>(&v)) return start + "char " + *a;
    if (auto const* c = boost::any_cast<std::int8_t>(&v)) return start + "i8 " + std::to_string(*c);
    if (auto const* c = boost::any_cast<std::uint8_t>(&v)) {
        return start + "u8 " + std::to_string(*c);
    }
    if (auto const* s = boost::any_cast<std::int16_t>(&v)) {
        return start + "i16 " + std::to_string(*s);
    }
    if (auto const* s = boost::any_cast<std::uint16_t>(&v)) {
        return start + "u16 " + std::to_string(*s);
    }
    if (auto const* i = boost::any_cast<std::int32_t>(&v)) {
        return start + "i32 " + std::to_string(*i);
    }
    if (auto const* i = boost::any_cast<std::uint32_t>(&v)) {
        return start + "u32 " + std::to_string(*i);
    }
    if (auto const* f = boost::any_cast<float>(&v)) return start + "float " + std::to_string(*f);
    if (auto const* z = boost::any_cast<std::string>(&v)) return start + "text " + *z;
    if (auto const* b = boost::any_cast<AuxNumericalArray>(&v)) {
        std::string text = start + "array " + b->type + ' ' + std::to_string(b->count) + ':';
        for (char const c : b->data) {
            text += ' ' + std::to_string(static_cast<unsigned char>(c));
        }
        return text;
    }
    return start + "something else";
}

struct AuxCase {
    char const* label;
    AuxData field;
    std::string value_bytes;
    char const* sam;
    bool writable = true;
};

std::vector<AuxCase> aux_cases() {
    return {
        {"A", aux("XX", 'A', 'q'), "q", "XX:A:q"},
        {"c lowest", aux("XX", 'c', std::int8_t{-128}), hex("80"), "XX:i:-128"},
        {"c highest", aux("XX", 'c', std::int8_t{127}), hex("7f"), "XX:i:127"},
        {"C", aux("XX", 'C', std::uint8_t{255}), hex("ff"), "XX:i:255"},
        {"s lowest", aux("XX", 's', std::int16_t{-32768}), hex("0080"), "XX:i:-32768", false},
        {"s highest", aux("XX", 's', std::int16_t{32767}), hex("ff7f"), "XX:i:32767", false},
        {"S", aux("XX", 'S', std::uint16_t{65535}), hex("ffff"), "XX:i:65535", false},
        {"i lowest", aux("XX", 'i', INT32_LOWEST), hex("00000080"), "XX:i:-2147483648"},
        {"i", aux("XX", 'i', std::int32_t{305419896}), hex("78563412"), "XX:i:305419896"},
        {"I", aux("XX", 'I', std::uint32_t{4294967295U}), hex("ffffffff"), "XX:i:4294967295"},
        {"f", aux("XX", 'f', 1.5F), hex("0000c03f"), "XX:f:1.5"},
        {"f negative, whole", aux("XX", 'f', -2.0F), hex("000000c0"), "XX:f:-2."},
        {"Z", aux("XX", 'Z', std::string("a:b c")), "a:b c" + hex("00"), "XX:Z:a:b c"},
        {"Z empty", aux("XX", 'Z', std::string()), hex("00"), "XX:Z:"},
        {"H", aux("XX", 'H', std::string("1AE3")), "1AE3" + hex("00"), "XX:H:1AE3"},
        {"H empty", aux("XX", 'H', std::string()), hex("00"), "XX:H:"},
        {"B c", aux("XX", 'B', array_of('c', 2, hex("ff7f"))), 'c' + hex("02000000 ff7f"),
         "XX:B:c,-1,127"},
        {"B C", aux("XX", 'B', array_of('C', 2, hex("ff00"))), 'C' + hex("02000000 ff00"),
         "XX:B:C,255,0"},
        {"B s", aux("XX", 'B', array_of('s', 2, hex("feff 0001"))), 's' + hex("02000000 feff 0001"),
         "XX:B:s,-2,256"},
        {"B S", aux("XX", 'B', array_of('S', 1, hex("feff"))), 'S' + hex("01000000 feff"),
         "XX:B:S,65534"},
        {"B i", aux("XX", 'B', array_of('i', 1, hex("fdffffff"))), 'i' + hex("01000000 fdffffff"),
         "XX:B:i,-3"},
        {"B I", aux("XX", 'B', array_of('I', 1, hex("fdffffff"))), 'I' + hex("01000000 fdffffff"),
         "XX:B:I,4294967293"},
        {"B c of no elements", aux("XX", 'B', array_of('c', 0, "")), 'c' + hex("00000000"),
         "XX:B:c"},
        {"B f of no elements", aux("XX", 'B', array_of('f', 0, "")), 'f' + hex("00000000"),
         "XX:B:f"},
        {"B of an unknown subtype, no elements", aux("XX", 'B', array_of('q', 0, "")),
         'q' + hex("00000000"), "XX:B:q"},
    };
}

// ---------------------------------------------------------------------------
// Records: writing
// ---------------------------------------------------------------------------

TEST(BamRecordCodec, Serialise_EveryField_IsAtItsPlace) {
    EXPECT_EQ(serialise(full_record()), hex("36000000") + full_record_body());
}

TEST(BamRecordCodec, Serialise_NoOptionalFields_LengthIsTheSumOfItsParts) {
    BamRecord record = full_record();
    std::string const bytes = serialise(record);
    EXPECT_EQ(bytes.size(), 36U + 5 + 4 * 3 + 2 + 3);
    EXPECT_EQ(bytes.substr(0, 4), le_bytes(static_cast<std::int32_t>(bytes.size() - 4)));
}

TEST(BamRecordCodec, Serialise_DefaultRecord_HasZerosAndAnEmptyName) {
    EXPECT_EQ(serialise(BamRecord()), hex("21000000 00000000 00000000 01 00 0000 0000 0000 "
                                          "00000000 00000000 00000000 00000000 00"));
}

TEST(BamRecordCodec, Serialise_EmptySequence_WritesNoBasesAndNoQualities) {
    BamRecord record = full_record();
    record.l_seq = 0;
    record.seq.clear();
    record.qual.clear();
    std::string body = full_record_body();
    body.resize(body.size() - 5);
    EXPECT_EQ(serialise(record), with_block_size(with_bytes(body, 16, hex("00000000"))));
}

TEST(BamRecordCodec, Serialise_OptionalField_HasItsTypesLayout) {
    for (AuxCase const& c : aux_cases()) {
        SCOPED_TRACE(c.label);
        BamRecord record = full_record();
        record.aux_data = {c.field};
        if (!c.writable) continue;
        EXPECT_EQ(serialise(record), full_record_with(bam_aux("XX", c.field.type, c.value_bytes)));
    }
}

TEST(BamRecordCodec, Serialise_AllWritableOptionalFields_FollowInOrder) {
    BamRecord record = full_record();
    std::string bytes;
    for (AuxCase const& c : aux_cases()) {
        if (!c.writable) continue;
        record.aux_data.push_back(c.field);
        bytes += bam_aux("XX", c.field.type, c.value_bytes);
    }
    EXPECT_EQ(serialise(record), full_record_with(bytes));
}

TEST(BamRecordCodec, Serialise_16BitOptionalField_Overruns) {
    for (AuxCase const& c : aux_cases()) {
        if (c.writable) continue;
        SCOPED_TRACE(c.label);
        Handler handler;
        std::vector<char> buffer;
        BamRecord record = full_record();
        record.aux_data = {c.field};
        EXPECT_EQ(runtime_error_of([&] { handler.serialise_bam_record_to_buffer(record, buffer); }),
                  WRITE_OVERRUN);
        // Room that other fields leave does not exist either.
        record.aux_data = {aux("XA", 'A', 'a'), c.field, aux("XZ", 'Z', std::string("text"))};
        EXPECT_EQ(runtime_error_of([&] { handler.serialise_bam_record_to_buffer(record, buffer); }),
                  WRITE_OVERRUN);
    }
}

TEST(BamRecordCodec, Serialise_UnknownTypeLetter_Overruns) {
    for (char const letter : {'Q', 'a', 'b', 'F', 'z', '\0', '\x80'}) {
        SCOPED_TRACE(letter);
        Handler handler;
        std::vector<char> buffer;
        BamRecord record = full_record();
        record.aux_data = {aux("XX", letter, std::int32_t{1})};
        EXPECT_EQ(runtime_error_of([&] { handler.serialise_bam_record_to_buffer(record, buffer); }),
                  WRITE_OVERRUN);
        // Its tag fits where the next field belongs.
        record.aux_data.push_back(aux("XI", 'i', std::int32_t{1}));
        EXPECT_EQ(runtime_error_of([&] { handler.serialise_bam_record_to_buffer(record, buffer); }),
                  WRITE_OVERRUN);
    }
}

TEST(BamRecordCodec, Serialise_ValueOfAnotherType_ThrowsBadAnyCast) {
    struct {
        char type;
        boost::any value;
    } const cases[] = {
        {'A', std::int8_t{1}},
        {'c', 'c'},
        {'C', std::int8_t{1}},
        {'s', std::int32_t{1}},
        {'S', std::int16_t{1}},
        {'i', std::uint32_t{1}},
        {'I', std::int32_t{1}},
        {'f', 1.0},
        {'Z', 'z'},
        {'H', std::int32_t{1}},
        {'B', std::string("c,1")},
        {'i', boost::any()},
        {'Z', boost::any()},
        {'B', boost::any()},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.type);
        Handler handler;
        std::vector<char> buffer;
        BamRecord record = full_record();
        record.aux_data = {aux("XX", c.type, c.value)};
        EXPECT_THROW(handler.serialise_bam_record_to_buffer(record, buffer), boost::bad_any_cast);
    }
}

TEST(BamRecordCodec, Serialise_ReadNameLength_IsWrittenModulo256) {
    struct {
        std::size_t length;
        char const* l_read_name;
    } const cases[] = {
        {0, "01"}, {1, "02"}, {253, "fe"}, {254, "ff"}, {255, "00"}, {256, "01"}, {300, "2d"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.length);
        BamRecord record;
        record.read_name = std::string(c.length, 'n');
        std::string const bytes = serialise(record);
        EXPECT_EQ(bytes.substr(0, 4), le_bytes(static_cast<std::int32_t>(c.length + 33)));
        EXPECT_EQ(bytes.substr(12, 1), hex(c.l_read_name));
        EXPECT_EQ(bytes.substr(36), record.read_name + '\0');
    }
}

TEST(BamRecordCodec, Serialise_OperationCount_IsWrittenModulo65536) {
    struct {
        std::size_t count;
        char const* n_cigar_op;
    } const cases[] = {{65535, "ffff"}, {65536, "0000"}, {65537, "0100"}};
    for (auto const& c : cases) {
        SCOPED_TRACE(c.count);
        BamRecord record;
        record.cigar.assign(c.count, 0x10);
        std::string const bytes = serialise(record);
        EXPECT_EQ(bytes.size(), 37 + 4 * c.count);
        EXPECT_EQ(bytes.substr(16, 2), hex(c.n_cigar_op));
        EXPECT_EQ(bytes.substr(bytes.size() - 4), hex("10000000"));
    }
}

TEST(BamRecordCodec, Serialise_TagOfOtherLength_TakesTwoCharactersOrNuls) {
    struct {
        char const* tag;
        std::string bytes;
    } const cases[] = {
        {"", hex("0000")},
        {"X", 'X' + hex("00")},
        {"XY", "XY"},
        {"XYZ", "XY"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.tag);
        BamRecord record = full_record();
        record.aux_data = {aux(c.tag, 'C', std::uint8_t{7})};
        EXPECT_EQ(serialise(record), full_record_with(c.bytes + 'C' + hex("07")));
    }
}

TEST(BamRecordCodec, Serialise_RecordThatContradictsItself_IsWrittenAsItStands) {
    BamRecord record = full_record();
    record.l_seq = 1000;
    EXPECT_EQ(serialise(record),
              with_block_size(with_bytes(full_record_body(), 16, hex("e8030000"))));

    record = full_record();
    record.aux_data = {aux("XX", 'B', array_of('i', 100, "abc"))};
    EXPECT_EQ(serialise(record), full_record_with("XXBi" + hex("64000000") + "abc"));

    record.aux_data = {aux("XX", 'B', array_of('?', 4294967295U, ""))};
    EXPECT_EQ(serialise(record), full_record_with("XXB?" + hex("ffffffff")));
}

TEST(BamRecordCodec, Serialise_FloatArray_IsWritten) {
    BamRecord record = full_record();
    record.aux_data = {aux("XX", 'B', array_of('f', 1, hex("0000c03f")))};
    EXPECT_EQ(serialise(record), full_record_with("XXBf" + hex("01000000 0000c03f")));
}

TEST(BamRecordCodec, Serialise_EmbeddedNuls_AreWrittenAsTheyStand) {
    BamRecord record = full_record();
    record.read_name = std::string("r\0ad", 4);
    record.aux_data = {aux("XX", 'Z', std::string("a\0b", 3))};
    EXPECT_EQ(serialise(record), with_block_size(with_bytes(full_record_body(), 33, hex("00")) +
                                                 "XXZa" + hex("00") + 'b' + hex("00")));
}

// ---------------------------------------------------------------------------
// Records: reading
// ---------------------------------------------------------------------------

TEST(BamRecordCodec, Extract_EveryField_IsTakenFromItsPlace) {
    Decoded const decoded = decode(hex("36000000") + full_record_body());
    ASSERT_TRUE(decoded.result) << decoded.message;
    ASSERT_EQ(decoded.records.size(), 1U);
    BamRecord const& record = decoded.records[0];
    BamRecord const expected = full_record();
    EXPECT_EQ(decoded.pos, 58U);
    EXPECT_EQ(decoded.message, "before");
    EXPECT_EQ(record.refID, expected.refID);
    EXPECT_EQ(record.pos, expected.pos);
    EXPECT_EQ(record.read_name, expected.read_name);
    EXPECT_EQ(record.mapq, expected.mapq);
    EXPECT_EQ(record.bin, expected.bin);
    EXPECT_EQ(record.flag, expected.flag);
    EXPECT_EQ(record.l_seq, expected.l_seq);
    EXPECT_EQ(record.next_refID, expected.next_refID);
    EXPECT_EQ(record.next_pos, expected.next_pos);
    EXPECT_EQ(record.tlen, expected.tlen);
    EXPECT_EQ(record.cigar, expected.cigar);
    EXPECT_EQ(record.ref_length, expected.ref_length);
    EXPECT_EQ(record.seq, expected.seq);
    EXPECT_EQ(record.qual, expected.qual);
    EXPECT_TRUE(record.aux_data.empty());
    EXPECT_EQ(record.sam_line, FULL_RECORD_SAM);
}

TEST(BamRecordCodec, Extract_OptionalField_HoldsItsTypesValue) {
    for (AuxCase const& c : aux_cases()) {
        SCOPED_TRACE(c.label);
        Decoded const decoded =
            decode(full_record_with(bam_aux("XX", c.field.type, c.value_bytes)));
        ASSERT_TRUE(decoded.result) << decoded.message;
        ASSERT_EQ(decoded.records.size(), 1U);
        ASSERT_EQ(decoded.records[0].aux_data.size(), 1U);
        EXPECT_EQ(described(decoded.records[0].aux_data[0]), described(c.field));
        EXPECT_EQ(decoded.records[0].sam_line, std::string(FULL_RECORD_SAM) + '\t' + c.sam);
    }
}

TEST(BamRecordCodec, Extract_AllOptionalFieldsInOneRecord_KeepTheirOrder) {
    std::string bytes;
    std::string sam = FULL_RECORD_SAM;
    std::vector<std::string> expected;
    for (AuxCase const& c : aux_cases()) {
        bytes += bam_aux("XX", c.field.type, c.value_bytes);
        sam += std::string("\t") + c.sam;
        expected.push_back(described(c.field));
    }
    Decoded const decoded = decode(full_record_with(bytes));
    ASSERT_TRUE(decoded.result) << decoded.message;
    std::vector<std::string> got;
    for (AuxData const& field : decoded.records.at(0).aux_data) got.push_back(described(field));
    EXPECT_EQ(got, expected);
    EXPECT_EQ(decoded.records.at(0).sam_line, sam);
}

TEST(BamRecordCodec, Extract_SeveralRecords_AdvancesTheCursorAndAppends) {
    Handler handler = handler_with_references();
    RawBamRecord second;
    second.read_name = "second";
    std::string const first_bytes = full_record_with("XXAq");
    std::string bytes = "??" + first_bytes + second.bytes();
    BamBuffer buffer{bytes.data(), bytes.size(), 2};
    EXPECT_TRUE(handler.extract_alignment_from_buffer(buffer));
    EXPECT_EQ(buffer.pos, 2 + first_bytes.size());
    EXPECT_TRUE(handler.extract_alignment_from_buffer(buffer));
    EXPECT_EQ(buffer.pos, buffer.size);
    ASSERT_EQ(handler.records.size(), 2U);
    EXPECT_EQ(handler.records[0].read_name, "read");
    EXPECT_EQ(handler.records[1].read_name, "second");
    EXPECT_EQ(handler.records[1].sam_line, "second\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*");
}

TEST(BamRecordCodec, Extract_ReadName_EndsAtItsFirstNulOrWithItsField) {
    struct {
        char const* label;
        std::string field;
        std::string name;
    } const cases[] = {
        {"NUL at its end", "read" + hex("00"), "read"},
        {"no NUL", "read", "read"},
        {"NUL inside", "re" + hex("00") + "ad" + hex("00"), "re"},
        {"NUL at its start", hex("00") + "read", ""},
        {"only a NUL", hex("00"), ""},
        {"no bytes at all", "", ""},
        {"255 bytes without NUL", std::string(255, 'n'), std::string(255, 'n')},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string body = full_record_body();
        body.replace(32, 5, c.field);
        body[8] = static_cast<char>(c.field.size());
        Decoded const decoded = decode(with_block_size(body));
        ASSERT_TRUE(decoded.result) << decoded.message;
        EXPECT_EQ(decoded.records.at(0).read_name, c.name);
        EXPECT_EQ(decoded.records.at(0).cigar, full_record().cigar);
    }
}

TEST(BamRecordCodec, Extract_CigarOperation_CountsOnTheReferenceOrNot) {
    std::string const letters = "MIDNSHP=X???????";
    for (std::uint32_t code = 0; code < 16; ++code) {
        SCOPED_TRACE(code);
        RawBamRecord raw;
        raw.cigar = {7 << 4 | code, 5 << 4 | 0};
        raw.l_seq = 12;
        raw.seq = std::string(6, '\x11');
        raw.qual = std::string(12, '\0');
        Decoded const decoded = decode(raw.bytes());
        ASSERT_TRUE(decoded.result) << decoded.message;
        bool const on_reference = code == 0 || code == 2 || code == 3 || code == 7 || code == 8;
        EXPECT_EQ(decoded.records.at(0).ref_length, on_reference ? 12U : 5U);
        EXPECT_EQ(decoded.records.at(0).sam_line, std::string("r1\t4\t*\t0\t0\t7") + letters[code] +
                                                      "5M\t*\t0\t0\tAAAAAAAAAAAA\t!!!!!!!!!!!!");
    }
}

TEST(BamRecordCodec, Extract_NoCigar_CoversNoReferenceBases) {
    Decoded const decoded = decode(RawBamRecord().bytes());
    ASSERT_TRUE(decoded.result);
    EXPECT_EQ(decoded.records.at(0).ref_length, 0U);
    EXPECT_TRUE(decoded.records.at(0).cigar.empty());
}

TEST(BamRecordCodec, Extract_LongestOperations_AddUpBeyond32Bits) {
    RawBamRecord raw;
    raw.cigar.assign(17, 0xFFFFFFF0);
    Decoded const decoded = decode(raw.bytes());
    ASSERT_TRUE(decoded.result);
    EXPECT_EQ(decoded.records.at(0).ref_length, 17 * std::uint64_t{268435455});
}

TEST(BamRecordCodec, Extract_MissingQualities_RenderAsAsterisk) {
    std::string const body = full_record_body();
    Decoded const decoded =
        decode(with_block_size(with_bytes(body, body.size() - 3, hex("ffffff"))));
    ASSERT_TRUE(decoded.result) << decoded.message;
    EXPECT_EQ(decoded.records.at(0).qual, std::vector<char>(3, '\xFF'));
    EXPECT_EQ(decoded.records.at(0).sam_line,
              "read\t355\tchr2\t66052\t60\t1S2M10N\tchr1\t2572\t-2\tACG\t*");
}

TEST(BamRecordCodec, Extract_PositionsAtTheirLimits_WrapInText) {
    RawBamRecord raw;
    raw.pos = INT32_HIGHEST;
    raw.next_pos = INT32_LOWEST;
    raw.tlen = INT32_LOWEST;
    Decoded const decoded = decode(raw.bytes());
    ASSERT_TRUE(decoded.result) << decoded.message;
    EXPECT_EQ(decoded.records.at(0).pos, INT32_HIGHEST);
    EXPECT_EQ(decoded.records.at(0).sam_line,
              "r1\t4\t*\t-2147483648\t0\t*\t*\t-2147483647\t-2147483648\t*\t*");
}

TEST(BamRecordCodec, Extract_PlaceholderCigar_IsReplacedByTheCgFieldInTextOnly) {
    RawBamRecord raw;
    raw.refID = 0;
    raw.pos = 9;
    raw.flag = 0;
    raw.l_seq = 4;
    raw.seq = hex("1248");
    raw.qual = hex("00000000");
    raw.cigar = {4 << 4 | 4, 100 << 4 | 3};
    std::string const operations = 'I' + hex("03000000 20000000 c3050000 20000000");
    raw.aux = bam_aux("XA", 'A', "a") + bam_aux("CG", 'B', operations) + bam_aux("XB", 'A', "b");
    Decoded const decoded = decode(raw.bytes());
    ASSERT_TRUE(decoded.result) << decoded.message;
    BamRecord const& record = decoded.records.at(0);
    EXPECT_EQ(record.sam_line, "r1\t0\tchr1\t10\t0\t2M92N2M\t*\t0\t0\tACGT\t!!!!\tXA:A:a\tXB:A:b");
    EXPECT_EQ(record.cigar, raw.cigar);
    EXPECT_EQ(record.ref_length, 100U);
    EXPECT_EQ(record.aux_data.size(), 3U);
}

TEST(BamRecordCodec, Extract_CgFieldWithoutPlaceholder_IsAnOrdinaryField) {
    Decoded const decoded =
        decode(full_record_with(bam_aux("CG", 'B', 'I' + hex("01000000 20000000"))));
    ASSERT_TRUE(decoded.result) << decoded.message;
    EXPECT_EQ(decoded.records.at(0).sam_line, std::string(FULL_RECORD_SAM) + "\tCG:B:I,32");
}

TEST(BamRecordCodec, Extract_CutAtEveryLength_Overruns) {
    std::string const whole = full_record_with("XXZtext" + hex("00") + "XBBs" +
                                               hex("02000000 01000200") + "XIi" + hex("01000000"));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        SCOPED_TRACE(size);
        expect_decoding_overruns(whole.substr(0, size));
    }
    EXPECT_TRUE(decode(whole).result);
}

TEST(BamRecordCodec, Extract_CursorBeyondTheEnd_Overruns) {
    Handler handler = handler_with_references();
    std::string bytes = full_record_with("");
    for (std::size_t const pos :
         {bytes.size(), bytes.size() + 1, std::numeric_limits<std::size_t>::max()}) {
        BamBuffer buffer{bytes.data(), bytes.size(), pos};
        EXPECT_EQ(runtime_error_of([&] { handler.extract_alignment_from_buffer(buffer); }),
                  EXTRACT_OVERRUN);
    }
    EXPECT_TRUE(handler.records.empty());
}

TEST(BamRecordCodec, Extract_BlockSizeLargerThanWhatFollows_Overruns) {
    for (std::int32_t const excess : {1, 2, 3, 100, INT32_HIGHEST - 54}) {
        SCOPED_TRACE(excess);
        expect_decoding_overruns(le_bytes(54 + excess) + full_record_body());
    }
}

TEST(BamRecordCodec, Extract_FieldsEndPastBlockSize_ReportsLengthMismatch) {
    std::string const body = full_record_body() + "XIi" + hex("01000000");
    for (std::int32_t const block_size :
         {60, 58, 57, 53, 50, 32, 31, 4, 1, 0, -1, -4, -54, -1000, INT32_LOWEST}) {
        SCOPED_TRACE(block_size);
        expect_decoding_fails(le_bytes(block_size) + body,
                              "BAM file block length mismatch in file x.bam");
    }
    // As long as the record without its optional field: that one is not read.
    EXPECT_TRUE(decode(le_bytes(std::int32_t{54}) + body).result);
    EXPECT_TRUE(decode(le_bytes(std::int32_t{61}) + body).result);
}

TEST(BamRecordCodec, Extract_SequenceLengthThatLies_OverrunsBeforeAnyAllocation) {
    for (std::int32_t const l_seq : {-1, -2, -3, -1000, INT32_LOWEST, INT32_LOWEST + 1, 5, 1000,
                                     INT32_HIGHEST - 1, INT32_HIGHEST}) {
        SCOPED_TRACE(l_seq);
        expect_decoding_overruns(
            with_block_size(with_bytes(full_record_body(), 16, le_bytes(l_seq))));
    }
}

TEST(BamRecordCodec, Extract_OperationCountThatLies_Overruns) {
    for (std::uint16_t const n_cigar_op : {std::uint16_t{5}, std::uint16_t{65535}}) {
        SCOPED_TRACE(n_cigar_op);
        expect_decoding_overruns(
            with_block_size(with_bytes(full_record_body(), 12, le_bytes(n_cigar_op))));
    }
}

TEST(BamRecordCodec, Extract_ReadNameLengthThatLies_Overruns) {
    expect_decoding_overruns(with_block_size(with_bytes(full_record_body(), 8, hex("ff"))));
}

TEST(BamRecordCodec, Extract_ArrayCountThatLies_Overruns) {
    struct {
        char const* label;
        char const* subtype;
        std::uint32_t count;
    } const cases[] = {
        {"c, one too many", "c", 5},
        {"c, negative", "c", 0xFFFFFFFF},
        {"C, huge", "C", 0x7FFFFFFF},
        {"s, one too many", "s", 3},
        {"S, doubles to zero in 32 bits", "S", 0x80000000},
        {"i, one too many", "i", 2},
        {"I, quadruples to zero in 32 bits", "I", 0x40000000},
        {"I, quadruples to four in 32 bits", "I", 0x40000001},
        {"f, huge", "f", 0x7FFFFFFF},
        {"unknown subtype, one element", "q", 1},
        {"unknown subtype, huge", "q", 0xFFFFFFFF},
        {"NUL as subtype, one element", "", 1},
        {"lower-case z as subtype", "z", 2},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const subtype = *c.subtype == '\0' ? std::string(1, '\0') : c.subtype;
        expect_decoding_overruns(full_record_with("XXB" + subtype + le_bytes(c.count) + "4444"));
    }
}

TEST(BamRecordCodec, Extract_TextWithoutNul_Overruns) {
    expect_decoding_overruns(full_record_with("XXZtext"));
    expect_decoding_overruns(full_record_with("XXH1A"));
    expect_decoding_overruns(full_record_with("XXZ"));
}

TEST(BamRecordCodec, Extract_TextWhoseNulIsInTheNextRecord_ReportsLengthMismatch) {
    std::string const next = full_record_with("");
    expect_decoding_fails(full_record_with("XXZtext") + next,
                          "BAM file block length mismatch in file x.bam");
    expect_decoding_fails(full_record_with("XXH1A") + next,
                          "BAM file block length mismatch in file x.bam");
}

TEST(BamRecordCodec, Extract_TextWithEmbeddedNul_EndsThere) {
    // What follows the NUL is the next field.
    Decoded const decoded = decode(full_record_with("XXZab" + hex("00") + "XYAq"));
    ASSERT_TRUE(decoded.result) << decoded.message;
    ASSERT_EQ(decoded.records.at(0).aux_data.size(), 2U);
    EXPECT_EQ(described(decoded.records.at(0).aux_data[0]), "XX Z text ab");
    EXPECT_EQ(described(decoded.records.at(0).aux_data[1]), "XY A char q");
}

TEST(BamRecordCodec, Extract_EveryOtherTypeLetter_IsReported) {
    std::string const known = "AcCsSiIfZHB";
    for (int code = 0; code < 256; ++code) {
        char const letter = static_cast<char>(code);
        if (known.find(letter) != std::string::npos) continue;
        SCOPED_TRACE(code);
        expect_decoding_fails(full_record_with(bam_aux("XX", letter, hex("00000000"))),
                              "Invalid auxiliary data type found in alignment record in x.bam");
    }
}

TEST(BamRecordCodec, Extract_FloatArrayWithElements_ThrowsBadAnyCast) {
    Handler handler = handler_with_references();
    std::string bytes = full_record_with("XXBf" + hex("01000000 0000c03f"));
    BamBuffer buffer{bytes.data(), bytes.size()};
    EXPECT_THROW(handler.extract_alignment_from_buffer(buffer), boost::bad_any_cast);
    EXPECT_TRUE(handler.records.empty());
}

TEST(BamRecordCodec, Extract_ReferenceIdOutsideTheList_ReportsThatNoLineCanBeMade) {
    for (std::int32_t const id : {-2, 2, 3, INT32_LOWEST, INT32_HIGHEST}) {
        SCOPED_TRACE(id);
        for (std::size_t const offset : {std::size_t{0}, std::size_t{20}}) {
            expect_decoding_fails(
                with_block_size(with_bytes(full_record_body(), offset, le_bytes(id))),
                "SAM line generation failed: Invalid next segment ref ID detected");
        }
    }
    for (std::int32_t const id : {-1, 0, 1}) {
        EXPECT_TRUE(
            decode(with_block_size(with_bytes(full_record_body(), 0, le_bytes(id)))).result);
    }
}

TEST(BamRecordCodec, Extract_FailureAfterOtherRecords_KeepsThem) {
    Handler handler = handler_with_references();
    std::string bytes = full_record_with("") + full_record_with("XXQ");
    BamBuffer buffer{bytes.data(), bytes.size()};
    EXPECT_TRUE(handler.extract_alignment_from_buffer(buffer));
    EXPECT_FALSE(handler.extract_alignment_from_buffer(buffer));
    ASSERT_EQ(handler.records.size(), 1U);
    EXPECT_EQ(handler.records[0].sam_line, FULL_RECORD_SAM);
}

TEST(BamRecordCodec, SerialiseThenExtract_WrappedReadName_DoesNotComeBack) {
    // A name of 300 characters announces 45 bytes: the rest is taken for other
    // fields, its letters for a type letter too.
    BamRecord record = full_record();
    record.read_name = std::string(300, 'n');
    expect_decoding_fails(serialise(record),
                          "Invalid auxiliary data type found in alignment record in x.bam");
}

// ---------------------------------------------------------------------------
// Whole files: reading
// ---------------------------------------------------------------------------

constexpr char TWO_REFERENCES[] = "@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:2000\n";

// A BAM file of a payload, and its reading.
std::string bam_of(std::string_view payload) { return bgzf_blocks(payload) + bgzf_eof_block(); }

struct FileRead {
    bool result = false;
    std::string path;
    Handler handler;
};

FileRead read_bam(std::string_view file) {
    TempDir const dir;
    FileRead read;
    read.path = dir.write("in.bam", file);
    read.result = read.handler.read_from_bam_file(read.path);
    EXPECT_EQ(read.handler.file_name, "");
    return read;
}

std::vector<std::string> reference_list(Handler const& handler) {
    std::vector<std::string> list;
    for (auto const& reference : handler.references) {
        list.push_back(reference.name + ':' + std::to_string(reference.length));
    }
    return list;
}

std::vector<std::string> sam_lines(Handler const& handler) {
    std::vector<std::string> lines;
    for (BamRecord const& record : handler.records) lines.push_back(record.sam_line);
    return lines;
}

using Strings = std::vector<std::string>;

std::string small_payload() {
    return encode_bam_header(TWO_REFERENCES, references_of(TWO_REFERENCES)) + full_record_with("") +
           RawBamRecord().bytes();
}

constexpr char UNPLACED_SAM[] = "r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*";

TEST(BamReader, Read_WholeFile_GivesHeaderReferencesAndRecords) {
    std::string const header =
        "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:chr1\tLN:1000\n@RG\tID:x\n@CO\ta comment\n";
    std::string const line = "q\t0\tchr1\t5\t9\t4M\t=\t7\t-3\tACGT\tIIII\tNM:i:-1\tXZ:Z:a b";
    std::vector<Reference> const references = references_of(header);
    FileRead const read = read_bam(
        bam_of(encode_bam_header(header, references) + encode_bam_record(line, references)));
    ASSERT_TRUE(read.result) << read.handler.error_message;
    EXPECT_EQ(read.handler.header, header);
    EXPECT_EQ(read.handler.sort_order, "\tSO:coordinate");
    EXPECT_TRUE(read.handler.has_sort_order);
    EXPECT_EQ(sam_lines(read.handler), Strings{line});
    EXPECT_EQ(read.handler.records[0].refID, 0);
    EXPECT_EQ(read.handler.error_message, "");
}

TEST(BamReader, Read_HeaderTextWithReferences_ListsEachReferenceTwice) {
    FileRead const read = read_bam(bam_of(small_payload()));
    ASSERT_TRUE(read.result) << read.handler.error_message;
    EXPECT_EQ(reference_list(read.handler),
              (Strings{"chr1:1000", "chr2:2000", "chr1:1000", "chr2:2000"}));
    EXPECT_EQ(sam_lines(read.handler), (Strings{FULL_RECORD_SAM, UNPLACED_SAM}));
}

TEST(BamReader, Read_ReferencesOfTextAndList_AreNotCompared) {
    FileRead const read = read_bam(bam_of(
        encode_bam_header("@SQ\tSN:text\tLN:1\n", {{"list", 2}, {"", -3}, {"no length", 0}})));
    ASSERT_TRUE(read.result) << read.handler.error_message;
    EXPECT_EQ(reference_list(read.handler), (Strings{"text:1", "list:2", ":-3", "no length:0"}));
}

TEST(BamReader, Read_NoHeaderText_ListsTheBinaryReferencesAlone) {
    FileRead const read = read_bam(bam_of(encode_bam_header("", {{"chr1", 1000}})));
    ASSERT_TRUE(read.result) << read.handler.error_message;
    EXPECT_EQ(read.handler.header, "");
    EXPECT_EQ(reference_list(read.handler), Strings{"chr1:1000"});
    EXPECT_TRUE(read.handler.records.empty());
}

TEST(BamReader, Read_ReferenceName_EndsAtItsFirstNulOrWithItsField) {
    struct {
        char const* label;
        std::string field;
        std::string name;
    } const cases[] = {
        {"no bytes at all", "", ""},
        {"only a NUL", hex("00"), ""},
        {"no NUL", "chr1", "chr1"},
        {"NUL at its end", "chr1" + hex("00"), "chr1"},
        {"NUL inside", "chr" + hex("00") + "1" + hex("00"), "chr"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const payload = "BAM\x01" + hex("00000000 02000000") +
                                    le_bytes(static_cast<std::int32_t>(c.field.size())) + c.field +
                                    hex("07000000") + hex("02000000") + 'x' + hex("00 08000000");
        FileRead const read = read_bam(bam_of(payload));
        ASSERT_TRUE(read.result) << read.handler.error_message;
        EXPECT_EQ(reference_list(read.handler), (Strings{c.name + ":7", "x:8"}));
    }
}

TEST(BamReader, Read_RecordsAcrossBlocks_AreJoined) {
    for (std::size_t const block_size : {1U, 7U, 40U}) {
        SCOPED_TRACE(block_size);
        FileRead const read = read_bam(bgzf_blocks(small_payload(), block_size) + bgzf_eof_block());
        ASSERT_TRUE(read.result) << read.handler.error_message;
        EXPECT_EQ(sam_lines(read.handler), (Strings{FULL_RECORD_SAM, UNPLACED_SAM}));
    }
}

TEST(BamReader, Read_FileOfManyPieces_GivesEveryRecord) {
    // Names and scores that do not compress, so that the file is long.
    std::mt19937 random(1);
    std::string payload = encode_bam_header("", {});
    Strings lines;
    for (int i = 0; i < 400; ++i) {
        std::string const name = "r" + std::to_string(random());
        std::string qualities(2000 + random() % 3000, '!');
        for (char& score : qualities) score = static_cast<char>('!' + random() % 90);
        std::string const bases(qualities.size(), 'A');
        lines.push_back(name + "\t4\t*\t0\t0\t*\t*\t0\t0\t" + bases + '\t' + qualities);
        payload += encode_bam_record(lines.back(), {});
    }
    for (std::size_t const block_size : {100U, 5000U, 65280U}) {
        SCOPED_TRACE(block_size);
        std::string const file = bgzf_blocks(payload, block_size) + bgzf_eof_block();
        ASSERT_GT(file.size(), std::size_t{1} << 20);
        FileRead const read = read_bam(file);
        ASSERT_TRUE(read.result) << read.handler.error_message;
        EXPECT_TRUE(sam_lines(read.handler) == lines);

        // A byte that lacks at the end of a block whose end is not the file's.
        std::string const cut = file.substr(0, file.size() - bgzf_eof_block().size() - 1);
        FileRead const damaged = read_bam(cut);
        EXPECT_FALSE(damaged.result);
        EXPECT_TRUE(damaged.handler.records.empty());
    }

    FileRead const read = read_bam(bam_of(payload));
    TempDir const dir;
    Handler again;
    ASSERT_TRUE(read.handler.write_to_bam_file(dir.file("again.bam"), false));
    ASSERT_TRUE(again.read_from_bam_file(dir.file("again.bam"))) << again.error_message;
    EXPECT_TRUE(sam_lines(again) == lines);
}

TEST(BamReader, Read_Records_TakeNoMoreMemoryThanTheyNeed) {
    std::string const header = "@SQ\tSN:chr1\tLN:1000\n";
    std::vector<Reference> const references = references_of(header);
    std::string const text(100, 'x');
    std::string const line = text +
                             "\t0\tchr1\t5\t9\t1M1I2M\t=\t7\t-3\tACGT\tIIII\tXA:A:q\tXi:i:1" +
                             "\tXf:f:1.5\tXZ:Z:" + text + "\tXH:H:1AE3\tXB:B:i,1,-2\tXC:B:c,1";
    std::string payload = encode_bam_header(header, references);
    for (int i = 0; i < 100; ++i) payload += encode_bam_record(line, references);
    FileRead const read = read_bam(bam_of(payload));
    ASSERT_TRUE(read.result) << read.handler.error_message;
    ASSERT_EQ(read.handler.records.size(), 100U);
    EXPECT_EQ(read.handler.records.capacity(), 100U);
    BamRecord const& record = read.handler.records.back();
    EXPECT_EQ(record.sam_line, line);
    EXPECT_EQ(record.sam_line.capacity(), record.sam_line.size());
    EXPECT_EQ(record.read_name.capacity(), record.read_name.size());
    EXPECT_EQ(record.cigar.capacity(), 3U);
    EXPECT_EQ(record.seq.capacity(), 2U);
    EXPECT_EQ(record.qual.capacity(), 4U);
    EXPECT_EQ(record.aux_data.size(), 7U);
    EXPECT_EQ(record.aux_data.capacity(), 7U);

    // Numbers without a zero byte.
    std::string fields;
    for (int i = 0; i < 20; ++i) fields += "\tXI:i:16843009";
    FileRead const numbers =
        read_bam(bam_of(encode_bam_header("", {}) +
                        encode_bam_record("r\t4\t*\t0\t0\t*\t*\t0\t0\tACGT\tIIII" + fields, {})));
    ASSERT_TRUE(numbers.result) << numbers.handler.error_message;
    EXPECT_EQ(numbers.handler.records.at(0).aux_data.size(), 20U);
    EXPECT_EQ(numbers.handler.records[0].aux_data.capacity(), 20U);
}

// Bytes of the heap in use; 0 under sanitizers, which look for leaks by themselves.
std::size_t heap_in_use() {
    struct mallinfo2 const heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

TEST(BamReader, ManyBlocks_ReadAndWritten_LeaveNoMemoryBehind) {
    constexpr std::size_t MIB = std::size_t{1} << 20;
    TempDir const dir;
    std::string payload = encode_bam_header("", {});
    for (int i = 0; i < 200; ++i) {
        payload += encode_bam_record("r\t4\t*\t0\t0\t*\t*\t0\t0\tACGT\tIIII", {});
    }
    std::string const in = dir.write("in.bam", bgzf_blocks(payload, 10) + bgzf_eof_block());
    auto const copy = [&] {
        Handler handler;
        ASSERT_TRUE(handler.read_from_bam_file(in)) << handler.error_message;
        ASSERT_EQ(handler.records.size(), 200U);
        ASSERT_TRUE(handler.write_to_bam_file(dir.file("out.bam"), false));
    };
    copy();
    std::size_t const before = heap_in_use();
    copy();
    EXPECT_LT(heap_in_use(), before + MIB);
}

TEST(BamReader, Read_Pipe_CannotBeOpened) {
    TempDir const dir;
    std::string const path = dir.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    // Held open at both ends, so that opening it does not wait.
    std::fstream const ends(path, std::ios::in | std::ios::out);
    ASSERT_TRUE(ends.is_open());
    Handler handler;
    EXPECT_FALSE(handler.read_from_bam_file(path));
    EXPECT_EQ(handler.error_message, "Cannot open file " + path);
}

TEST(BamReader, Read_EmptyBlockAnywhere_PassesAsEndOfFile) {
    std::string const payload = small_payload();
    std::string const front = bgzf_blocks(payload.substr(0, 100));
    std::string const back = bgzf_blocks(payload.substr(100));
    std::string const without_stream =
        hex("1f8b0804 00000000 00ff 0600 4243 0200 1900") + std::string(8, '\0');
    struct {
        char const* label;
        std::string file;
    } const cases[] = {
        {"first", bgzf_eof_block() + front + back},
        {"in the middle", front + bgzf_eof_block() + back},
        {"last", front + back + bgzf_eof_block()},
        {"everywhere", bgzf_eof_block() + front + bgzf_eof_block() + back + bgzf_eof_block()},
        {"another empty block than usual", front + back + without_stream},
        {"empty block with other bytes unchecked",
         front + back + with_bytes(bgzf_eof_block(), 4, hex("01020304 05 06"))},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        FileRead const read = read_bam(c.file);
        EXPECT_TRUE(read.result) << read.handler.error_message;
        EXPECT_EQ(sam_lines(read.handler), (Strings{FULL_RECORD_SAM, UNPLACED_SAM}));
    }
}

TEST(BamReader, Read_NoEmptyBlock_IsReported) {
    struct {
        char const* label;
        std::string file;
    } const cases[] = {
        {"empty file", ""},
        {"end-of-file block missing", bgzf_blocks(small_payload())},
        {"payload that is no BAM", bgzf_block("text")},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        FileRead const read = read_bam(c.file);
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.handler.error_message,
                  "Final BGZF block was not the EOF sequence as expected in file " + read.path +
                      ". Perhaps the file is corrupt?");
        EXPECT_TRUE(read.handler.header.empty());
        EXPECT_TRUE(read.handler.references.empty());
        EXPECT_TRUE(read.handler.records.empty());
    }
}

TEST(BamReader, Read_PathThatIsNoFile_CannotBeOpened) {
    TempDir const dir;
    std::string const file = dir.write("file", "x");
    struct {
        char const* label;
        std::string path;
    } const cases[] = {
        {"missing", dir.file("missing.bam")},
        {"in a missing folder", dir.file("no/such.bam")},
        {"below a file", file + "/x.bam"},
        {"a directory", dir.path().string()},
        {"empty", ""},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler;
        ASSERT_TRUE(handler.add_header_lines(TWO_REFERENCES));
        handler.records.resize(2);
        EXPECT_FALSE(handler.read_from_bam_file(c.path));
        EXPECT_EQ(handler.error_message, "Cannot open file " + c.path);
        EXPECT_EQ(handler.file_name, "");
        // What was there before is gone all the same.
        EXPECT_EQ(handler.header, "");
        EXPECT_TRUE(handler.references.empty());
        EXPECT_TRUE(handler.records.empty());
    }
}

TEST(BamReader, Read_Twice_ReplacesWhatWasThere) {
    TempDir const dir;
    std::string const path = dir.write("in.bam", bam_of(small_payload()));
    Handler handler;
    ASSERT_TRUE(handler.add_header_lines("@HD\tVN:1.6\tSO:coordinate\n@CO\told\n"));
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(handler.read_from_bam_file(path)) << handler.error_message;
        EXPECT_EQ(handler.header, TWO_REFERENCES);
        EXPECT_EQ(handler.header_lines, TWO_REFERENCES);
        EXPECT_EQ(handler.sort_order, "");
        EXPECT_FALSE(handler.has_sort_order);
        EXPECT_EQ(handler.references.size(), 4U);
        EXPECT_EQ(handler.records.size(), 2U);
    }
}

TEST(BamReader, Read_FirstBlockDamaged_ReportsTheBlocksFault) {
    // A gzip file of another kind: a name instead of the extra field.
    std::string const gzip = hex("1f8b0808 00000000 0003") + "x.txt" + hex("00") +
                             stored("ACGT", true) + hex("f29f0ea3 04000000");
    std::string const block = StoredBlock().bytes();
    std::string const eof = bgzf_eof_block();
    struct {
        char const* label;
        std::string file;
        std::string message;
        bool path_follows = true;
    } const cases[] = {
        {"gzip, not BGZF", gzip, "Encountered malformed BGZF header in file "},
        {"text", "@HD\tVN:1.6\n", "Encountered malformed BGZF header in file "},
        {"one byte", "B", "Encountered malformed BGZF header in file "},
        {"other extra fields", with_bytes(block, 10, hex("0800")) + eof,
         "Encountered unknown sub fields in BGZF header in file "},
        {"another subfield", with_bytes(block, 12, "XY") + eof,
         "Encountered malformed BGZF subfield in file "},
        {"BSIZE too small", with_bytes(block, 16, hex("1800")) + eof,
         "Encountered over-sized BGZF block in file "},
        {"checksum", StoredBlock{stored("ACGT", true), 0, 4}.bytes() + eof,
         "CRC mismatch after decompressing BGZF block!", false},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        FileRead const read = read_bam(c.file);
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.handler.error_message, c.message + (c.path_follows ? read.path : ""));
    }
    FileRead const read = read_bam(StoredBlock{stored("ACGT", true), 0xa30e9ff2, 5}.bytes() + eof);
    EXPECT_FALSE(read.result);
    EXPECT_EQ(read.handler.error_message, "BGZF block did not unzip correctly in file " +
                                              read.path +
                                              " : Inflate did not produce expected amount of data");
}

TEST(BamReader, Read_BytesAfterTheLastBlock_AreABlockThatIsWrong) {
    FileRead const read = read_bam(bam_of(small_payload()) + "\n");
    EXPECT_FALSE(read.result);
    EXPECT_EQ(read.handler.error_message, "Encountered malformed BGZF header in file " + read.path);
    EXPECT_TRUE(read.handler.records.empty());
}

TEST(BamReader, Read_FileCutInsideItsLastNumber_ReportsErrorOnClose) {
    // The zeros that are missing do not change the block, but the stream has
    // failed.
    std::string const file = bam_of(small_payload());
    for (std::size_t const cut : {1U, 2U, 3U}) {
        SCOPED_TRACE(cut);
        FileRead const read = read_bam(file.substr(0, file.size() - cut));
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.handler.error_message, "BAM file reported error on close " + read.path);
        EXPECT_TRUE(read.handler.records.empty());
    }
}

TEST(BamReader, Read_MagicWrong_IsReported) {
    for (std::size_t offset = 0; offset < 4; ++offset) {
        SCOPED_TRACE(offset);
        FileRead const read = read_bam(bam_of(with_bytes(small_payload(), offset, "?")));
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.handler.error_message,
                  "BAM file did not contain well formed header: " + read.path);
    }
}

TEST(BamReader, Read_HeaderTextRefused_ReportsWhatTheHeaderRulesSay) {
    struct {
        char const* label;
        std::string text;
        std::string message;
    } const cases[] = {
        {"@RG under version 1.4", "@HD\tVN:1.4\n@RG\tID:x\n",
         "Unsupported '@RG' line encountered in @HD header line with VN < 1.3: @RG\tID:x"},
        {"NULs after the text", "@CO\tx\n" + hex("0000"),
         "Invalid line encountered in header lines: " + hex("0000")},
        {"not a header", "r1\t4\n", "Invalid line encountered in header lines: r1\t4"},
        {"@SQ without a length", "@SQ\tSN:x\n",
         "Malformed @SQ line encountered in header lines: @SQ\tSN:x"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        FileRead const read = read_bam(bam_of(encode_bam_header(c.text, {{"chr1", 1}})));
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.handler.error_message, c.message);
        EXPECT_EQ(read.handler.header, "");
        EXPECT_TRUE(read.handler.references.empty());
    }
}

TEST(BamReader, Read_HeaderTextWithNulsInAComment_KeepsThem) {
    std::string const text = "@CO\ta" + hex("00") + "b" + hex("0000") + "\n";
    FileRead const read = read_bam(bam_of(encode_bam_header(text, {})));
    ASSERT_TRUE(read.result) << read.handler.error_message;
    EXPECT_EQ(read.handler.header, text);
    EXPECT_EQ(read.handler.header_lines, text);
}

TEST(BamReader, Read_LengthThatIsNoNumber_Throws) {
    TempDir const dir;
    Handler handler;
    EXPECT_THROW(handler.read_from_bam_file(
                     dir.write("a.bam", bam_of(encode_bam_header("@SQ\tSN:x\tLN:many\n", {})))),
                 std::invalid_argument);
    EXPECT_EQ(handler.file_name, "");
    EXPECT_THROW(handler.read_from_bam_file(dir.write(
                     "b.bam", bam_of(encode_bam_header("@SQ\tSN:x\tLN:2147483648\n", {})))),
                 std::out_of_range);
    EXPECT_EQ(handler.file_name, "");
}

TEST(BamReader, Read_NoPayloadAtAll_ReportsOverrun) {
    FileRead const read = read_bam(bgzf_eof_block());
    EXPECT_FALSE(read.result);
    EXPECT_EQ(read.handler.error_message, READER_OVERRUN);
}

TEST(BamReader, Read_PayloadCutInsideARecord_ReportsOverrunAndKeepsEarlierOnes) {
    std::string const payload = small_payload();
    for (std::size_t const cut : {1U, 10U, 36U}) {
        SCOPED_TRACE(cut);
        FileRead const read = read_bam(bam_of(payload.substr(0, payload.size() - cut)));
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.handler.error_message, READER_OVERRUN);
        EXPECT_EQ(read.handler.header, TWO_REFERENCES);
        EXPECT_EQ(read.handler.references.size(), 4U);
        EXPECT_EQ(sam_lines(read.handler), Strings{FULL_RECORD_SAM});
    }
}

TEST(BamReader, Read_HeaderCountThatLies_ReportsOverrun) {
    std::string const header = encode_bam_header("@CO\tx\n", {{"chr1", 1}, {"chr2", 2}});
    struct {
        char const* label;
        std::size_t offset;
    } const cases[] = {{"l_text", 4}, {"n_ref", 14}, {"first l_name", 18}, {"second l_name", 31}};
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        for (std::uint32_t const count : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
            FileRead const read = read_bam(bam_of(with_bytes(header, c.offset, le_bytes(count))));
            EXPECT_FALSE(read.result);
            EXPECT_EQ(read.handler.error_message, READER_OVERRUN);
        }
    }
}

TEST(BamReader, Read_BadRecord_ReportsItWithThePathAndKeepsEarlierOnes) {
    std::string const header = encode_bam_header(TWO_REFERENCES, references_of(TWO_REFERENCES));
    struct {
        char const* label;
        std::string record;
        std::string message;
        bool path_follows;
    } const cases[] = {
        {"type letter", full_record_with("XXQ"),
         "Invalid auxiliary data type found in alignment record in ", true},
        {"block_size", le_bytes(std::int32_t{-1}) + full_record_body(),
         "BAM file block length mismatch in file ", true},
        {"refID", with_bytes(full_record_with(""), 4, le_bytes(std::int32_t{4})),
         "SAM line generation failed: Invalid next segment ref ID detected", false},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        FileRead const read = read_bam(bam_of(header + RawBamRecord().bytes() + c.record));
        EXPECT_FALSE(read.result);
        EXPECT_EQ(read.handler.error_message, c.message + (c.path_follows ? read.path : ""));
        EXPECT_EQ(sam_lines(read.handler), Strings{UNPLACED_SAM});
    }
}

TEST(BamReader, Read_FloatArrayWithElements_ThrowsAndClearsFileName) {
    TempDir const dir;
    std::string const payload = encode_bam_header(TWO_REFERENCES, references_of(TWO_REFERENCES)) +
                                RawBamRecord().bytes() +
                                full_record_with("XXBf" + hex("01000000 0000c03f"));
    Handler handler;
    EXPECT_THROW(handler.read_from_bam_file(dir.write("in.bam", bam_of(payload))),
                 boost::bad_any_cast);
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(sam_lines(handler), Strings{UNPLACED_SAM});
}

TEST(BamReader, Read_SizeBeyond32Bits_CountsModulo32Bits) {
    // A file of 4 GiB more than its blocks, all of it a hole.
    TempDir const dir;
    std::string const file = bam_of(small_payload());
    std::string const path = dir.write("large.bam", file);
    std::error_code no_room;
    std::filesystem::resize_file(path, file.size() + (std::uintmax_t{1} << 32), no_room);
    if (no_room) GTEST_SKIP() << "no sparse files here: " << no_room.message();
    Handler handler;
    EXPECT_TRUE(handler.read_from_bam_file(path)) << handler.error_message;
    EXPECT_EQ(handler.records.size(), 2U);

    // At 2 GiB the size turns negative, and the end is never met.
    std::filesystem::resize_file(path, std::uintmax_t{1} << 31, no_room);
    ASSERT_FALSE(no_room);
    EXPECT_FALSE(handler.read_from_bam_file(path));
    EXPECT_EQ(handler.error_message, "Encountered malformed BGZF header in file " + path);
}

// ---------------------------------------------------------------------------
// Whole files: writing
// ---------------------------------------------------------------------------

constexpr char UNSORTED_HEADER[] =
    "@HD\tVN:1.4\tSO:unsorted\n@SQ\tSN:chr1\tLN:100000\n@SQ\tSN:chr2\tLN:200000\n@CO\tx\n";

Strings const& unsorted_lines() {
    static Strings const lines = {
        "b\t0\tchr2\t5\t60\t4M\t*\t0\t0\tACGT\tIIII\tNM:i:1\tXF:f:1.5",
        "u\t4\t*\t0\t0\t*\t*\t0\t0\tAC\t*\tXB:B:s,-1,2\tXH:H:1AE3",
        "a\t99\tchr1\t30000\t60\t2M100N2M\t=\t31000\t1100\tGGTT\t!!!!\tXA:A:q",
        "a2\t147\tchr1\t10\t60\t1S3M\tchr2\t1\t-9\tTTTTN\t!~!~!\tXZ:Z:",
    };
    return lines;
}

Handler handler_of(std::string const& header, Strings const& lines) {
    Handler handler;
    EXPECT_TRUE(handler.add_header_lines(header)) << handler.error_message;
    for (std::string const& line : lines) {
        EXPECT_TRUE(handler.add_alignment_sam(line)) << handler.error_message;
    }
    return handler;
}

Handler unsorted_handler() { return handler_of(UNSORTED_HEADER, unsorted_lines()); }

// The payloads of the blocks of the BAM file of some lines.
Strings expected_payloads(std::string const& sam_header, std::string const& sort_order,
                          Strings const& lines) {
    std::vector<Reference> const references = references_of(sam_header);
    Strings payloads = {encode_bam_header(bam_header_text(sam_header, sort_order), references)};
    for (std::string const& line : lines) payloads.push_back(encode_bam_record(line, references));
    payloads.emplace_back();
    return payloads;
}

Strings payloads_of(std::string const& file) {
    Strings payloads;
    for (BgzfBlock& block : parse_bgzf(file)) payloads.push_back(std::move(block.payload));
    return payloads;
}

TEST(BamWriter, Write_HeaderAndRecords_HaveBlocksOfTheirOwn) {
    TempDir const dir;
    Handler const handler = unsorted_handler();
    std::string const path = dir.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, false)) << handler.error_message;
    std::string const file = read_file(path);
    EXPECT_EQ(payloads_of(file),
              expected_payloads(UNSORTED_HEADER, "\tSO:unknown", unsorted_lines()));
    EXPECT_EQ(file.substr(file.size() - 28),
              hex("1f8b0804 00000000 00ff 0600 4243 0200 1b00 0300 00000000 00000000"));
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(handler.error_message, "");
    EXPECT_FALSE(std::filesystem::exists(path + ".bai"));
}

TEST(BamWriter, Write_EmptyHandler_WritesHeaderAndEndOfFile) {
    TempDir const dir;
    Handler const handler;
    std::string const path = dir.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, false));
    EXPECT_EQ(
        payloads_of(read_file(path)),
        (Strings{"BAM\x01" + hex("16000000") + "@HD\tVN:1.6\tSO:unknown\n" + hex("00000000"), ""}));
    EXPECT_EQ(handler.bytes_written, read_file(path).size() - 28);
}

TEST(BamWriter, Write_NoRecords_ReadsBackWithHeaderAndReferences) {
    TempDir const dir;
    Handler const handler = handler_of(UNSORTED_HEADER, {});
    std::string const path = dir.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, false));
    Handler back;
    ASSERT_TRUE(back.read_from_bam_file(path)) << back.error_message;
    EXPECT_EQ(back.header, bam_header_text(UNSORTED_HEADER, "\tSO:unknown"));
    EXPECT_EQ(reference_list(back),
              (Strings{"chr1:100000", "chr2:200000", "chr1:100000", "chr2:200000"}));
    EXPECT_TRUE(back.records.empty());
}

TEST(BamWriter, Write_References_ComeFromTheListNotFromTheText) {
    TempDir const dir;
    Handler handler;
    handler.references = {{"only listed", 7}, {"", -1}};
    handler.header_lines = "@SQ\tSN:only in text\tLN:5\n";
    handler.header = "not written";
    std::string const path = dir.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, false));
    EXPECT_EQ(inflate_bgzf(read_file(path)),
              encode_bam_header("@HD\tVN:1.6\tSO:unknown\n@SQ\tSN:only in text\tLN:5\n",
                                {{"only listed", 7}, {"", -1}}));
}

TEST(BamWriter, Write_HeaderOfMoreThanOneBlock_FillsSeveral) {
    TempDir const dir;
    std::string header;
    for (int i = 0; i < 5000; ++i) header += "@CO\tcomment number " + std::to_string(i) + '\n';
    std::string const path = dir.file("out.bam");
    Handler const handler = handler_of(header, {UNPLACED_SAM});
    ASSERT_TRUE(handler.write_to_bam_file(path, false));
    std::string const expected = encode_bam_header(bam_header_text(header, "\tSO:unknown"), {});
    std::string const record = encode_bam_record(UNPLACED_SAM, {});
    ASSERT_GT(expected.size(), 65536U);
    ASSERT_LT(expected.size(), 131072U);
    EXPECT_EQ(payload_sizes(parse_bgzf(read_file(path))),
              (std::vector<std::size_t>{65536, expected.size() - 65536, record.size(), 0}));
    EXPECT_TRUE(inflate_bgzf(read_file(path)) == expected + record);
}

TEST(BamWriter, Write_LargeRecord_SpansBlocks) {
    TempDir const dir;
    for (bool const compressible : {true, false}) {
        SCOPED_TRACE(compressible);
        RawBamRecord raw;
        raw.l_seq = 140000;
        raw.seq = std::string(70000, '\x11');
        raw.qual = compressible ? std::string(140000, '\x20') : noise(140000);
        Handler handler;
        BamRecord record;
        record.refID = record.pos = record.next_refID = record.next_pos = -1;
        record.read_name = raw.read_name;
        record.bin = raw.bin;
        record.flag = raw.flag;
        record.l_seq = raw.l_seq;
        record.seq.assign(70000, 0x11);
        record.qual = chars_of(raw.qual);
        handler.records = {record};
        std::string const path = dir.file("out.bam");
        ASSERT_TRUE(handler.write_to_bam_file(path, false));

        std::vector<BgzfBlock> blocks = parse_bgzf(read_file(path));
        ASSERT_GT(blocks.size(), 2U);
        std::vector<std::size_t> sizes = payload_sizes(blocks);
        EXPECT_EQ(std::vector<std::size_t>(sizes.begin() + 1, sizes.end() - 1),
                  block_sizes_by_hand(raw.bytes()));
        std::string payload;
        for (std::size_t i = 1; i < blocks.size(); ++i) payload += blocks[i].payload;
        EXPECT_TRUE(payload == raw.bytes());
        EXPECT_EQ(handler.bytes_written, std::filesystem::file_size(path) - 28);
        EXPECT_EQ(handler.error_message.empty(), compressible);
    }
}

TEST(BamWriter, Write_ThenRead_GivesTheSameLines) {
    TempDir const dir;
    Handler const handler = unsorted_handler();
    std::string const path = dir.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, false));
    Handler back;
    ASSERT_TRUE(back.read_from_bam_file(path)) << back.error_message;
    Strings expected = unsorted_lines();
    EXPECT_EQ(sam_lines(back), expected);
}

TEST(BamWriter, Write_ExistingFile_IsReplacedWhole) {
    TempDir const dir;
    std::string const path = dir.write("out.bam", noise(100000));
    Handler const handler = unsorted_handler();
    ASSERT_TRUE(handler.write_to_bam_file(path, false));
    EXPECT_EQ(payloads_of(read_file(path)),
              expected_payloads(UNSORTED_HEADER, "\tSO:unknown", unsorted_lines()));
}

TEST(BamWriter, Write_BytesWritten_StartsAtZeroForEveryFile) {
    TempDir const dir;
    Handler handler = unsorted_handler();
    handler.bytes_written = 12345;
    for (char const* name : {"first.bam", "second.bam"}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(handler.write_to_bam_file(dir.file(name), false));
        EXPECT_EQ(handler.bytes_written, std::filesystem::file_size(dir.file(name)) - 28);
    }
    EXPECT_EQ(read_file(dir.file("first.bam")), read_file(dir.file("second.bam")));
}

TEST(BamWriter, Write_PathThatCannotBeWritten_CannotBeOpened) {
    TempDir const dir;
    std::string const file = dir.write("file", "x");
    struct {
        char const* label;
        std::string path;
    } const cases[] = {
        {"missing folder", dir.file("no/such.bam")},
        {"a directory", dir.path().string()},
        {"below a file", file + "/x.bam"},
        {"a name that is too long", dir.file(std::string(300, 'n'))},
        {"empty", ""},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        for (bool const write_index : {false, true}) {
            Handler handler = unsorted_handler();
            handler.bytes_written = 5;
            EXPECT_FALSE(handler.write_to_bam_file(c.path, write_index));
            EXPECT_EQ(handler.error_message, "Cannot open file " + c.path);
            EXPECT_EQ(handler.file_name, "");
            EXPECT_EQ(handler.bytes_written, 0U);
        }
    }
    EXPECT_EQ(read_file(file), "x");
}

TEST(BamWriter, Write_ReadOnlyFile_CannotBeOpenedAndStays) {
    TempDir const dir;
    std::string const path = dir.write("out.bam", "old");
    std::filesystem::permissions(path, std::filesystem::perms::owner_read);
    if (access(path.c_str(), W_OK) == 0) GTEST_SKIP() << "this user may write to every file";
    Handler const handler = unsorted_handler();
    EXPECT_FALSE(handler.write_to_bam_file(path, false));
    EXPECT_EQ(handler.error_message, "Cannot open file " + path);
    EXPECT_EQ(read_file(path), "old");
}

TEST(BamWriter, Write_DeviceThatIsFull_ReportsErrorOnClose) {
    for (bool const large : {false, true}) {
        SCOPED_TRACE(large);
        Handler handler = unsorted_handler();
        if (large) {
            // More than any stream buffer holds back until it is closed.
            handler.records[0].qual = chars_of(noise(300000));
        }
        EXPECT_FALSE(handler.write_to_bam_file("/dev/full", false));
        EXPECT_EQ(handler.error_message, "BAM file reported error on close /dev/full");
        EXPECT_EQ(handler.file_name, "");
    }
}

TEST(BamWriter, Write_IndexOfADeviceThatIsFull_ReportsTheBamFile) {
    Handler handler = unsorted_handler();
    EXPECT_FALSE(handler.write_to_bam_file("/dev/full", true));
    EXPECT_EQ(handler.error_message, "BAM file reported error on close /dev/full");
    EXPECT_FALSE(std::filesystem::exists("/dev/full.bai"));
}

TEST(BamWriter, WriteConst_IndexOfUnsortedData_IsRefusedAfterTheFileWasMade) {
    struct {
        char const* label;
        char const* sort_order;
    } const cases[] = {
        {"none", ""},
        {"unsorted", "\tSO:unsorted"},
        {"queryname", "\tSO:queryname"},
        {"reference groups", "\tGO:reference"},
        {"sub-order", "\tSS:coordinate:queryname"},
        {"one letter short", "\tSO:coordinat"},
        {"no tab", "SO:coordinate"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        TempDir const dir;
        Handler handler = unsorted_handler();
        handler.sort_order = c.sort_order;
        std::string const path = dir.write("out.bam", "old");
        EXPECT_FALSE(std::as_const(handler).write_to_bam_file(path, true));
        EXPECT_EQ(handler.error_message, "Index can be written only for sorted files");
        EXPECT_EQ(read_file(path), "");
        EXPECT_FALSE(std::filesystem::exists(path + ".bai"));
        EXPECT_EQ(handler.file_name, "");
        EXPECT_EQ(handler.bytes_written, 0U);
        EXPECT_EQ(sam_lines(handler), unsorted_lines());
    }
}

TEST(BamWriter, WriteConst_IndexOfDataSaidToBeSorted_IsWrittenInTheOrderGiven) {
    // Only the beginning of the text counts, and the records are not looked at.
    for (char const* sort_order : {"\tSO:coordinate", "\tSO:coordinate\tXX:more"}) {
        SCOPED_TRACE(sort_order);
        TempDir const dir;
        Handler handler = unsorted_handler();
        handler.sort_order = sort_order;
        handler.has_sort_order = true;
        std::string const path = dir.file("out.bam");
        ASSERT_TRUE(std::as_const(handler).write_to_bam_file(path, true)) << handler.error_message;
        EXPECT_EQ(payloads_of(read_file(path)),
                  expected_payloads(UNSORTED_HEADER, sort_order, unsorted_lines()));
        EXPECT_TRUE(std::filesystem::exists(path + ".bai"));
        EXPECT_EQ(handler.file_name, "");
        EXPECT_EQ(handler.bytes_written, std::filesystem::file_size(path) - 28);
    }
}

TEST(BamWriter, WriteNonConst_IndexOfUnsortedData_SortsFirst) {
    TempDir const dir;
    Handler handler = unsorted_handler();
    std::string const path = dir.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, true)) << handler.error_message;
    Strings const& lines = unsorted_lines();
    Strings const sorted = {lines[3], lines[2], lines[0], lines[1]};
    EXPECT_EQ(sam_lines(handler), sorted);
    EXPECT_EQ(handler.sort_order, "\tSO:coordinate");
    EXPECT_TRUE(handler.has_sort_order);
    EXPECT_EQ(payloads_of(read_file(path)),
              expected_payloads(UNSORTED_HEADER, "\tSO:coordinate", sorted));
    EXPECT_TRUE(std::filesystem::exists(path + ".bai"));
}

TEST(BamWriter, WriteNonConst_IndexOfDataSaidToBeSorted_DoesNotSort) {
    TempDir const dir;
    std::string const header =
        "@HD\tVN:1.6\tSO:coordinate\n" + std::string(UNSORTED_HEADER).substr(23);
    Handler handler = handler_of(header, unsorted_lines());
    std::string const path = dir.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, true)) << handler.error_message;
    EXPECT_EQ(sam_lines(handler), unsorted_lines());
    // Lines added after the header have made its order uncertain.
    EXPECT_EQ(payloads_of(read_file(path)),
              expected_payloads(header, "\tSO:unknown", unsorted_lines()));
}

TEST(BamWriter, WriteNonConst_WithoutIndex_DoesNotSort) {
    TempDir const dir;
    Handler handler = unsorted_handler();
    std::string const path = dir.file("out.bam");
    ASSERT_TRUE(handler.write_to_bam_file(path, false));
    EXPECT_EQ(sam_lines(handler), unsorted_lines());
    EXPECT_EQ(handler.sort_order, "\tSO:unsorted");
    EXPECT_FALSE(handler.has_sort_order);
    EXPECT_FALSE(std::filesystem::exists(path + ".bai"));
    EXPECT_EQ(payloads_of(read_file(path)),
              expected_payloads(UNSORTED_HEADER, "\tSO:unknown", unsorted_lines()));
}

TEST(BamWriter, Write_IndexFileThatCannotBeWritten_IsReportedAfterTheBamFile) {
    TempDir const dir;
    Handler handler = unsorted_handler();
    std::string const path = dir.file("out.bam");
    std::filesystem::create_directory(path + ".bai");
    EXPECT_FALSE(handler.write_to_bam_file(path, true));
    EXPECT_EQ(handler.error_message,
              "Could not write BAM index : Cannot open index file " + path + ".bai for writing");
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(inflate_bgzf(read_file(path)).substr(0, 4), "BAM\x01");
    EXPECT_EQ(payloads_of(read_file(path)).size(), 6U);
}

TEST(BamWriter, Write_RecordThatCannotBeSerialised_ThrowsAndLeavesTheFileAsFarAsItGot) {
    TempDir const dir;
    Handler handler = unsorted_handler();
    std::string const path = dir.file("out.bam");
    Strings const whole = expected_payloads(UNSORTED_HEADER, "\tSO:unknown", unsorted_lines());
    Strings const first_two(whole.begin(), whole.begin() + 2);

    handler.records[1].aux_data = {aux("XX", 'S', std::uint16_t{1})};
    EXPECT_EQ(runtime_error_of([&] { handler.write_to_bam_file(path, false); }), WRITE_OVERRUN);
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(payloads_of(read_file(path)), first_two);

    handler.records[1].aux_data = {aux("XX", 'i', std::string("text"))};
    EXPECT_THROW(handler.write_to_bam_file(path, false), boost::bad_any_cast);
    EXPECT_EQ(handler.file_name, "");
    EXPECT_EQ(payloads_of(read_file(path)), first_two);
}

}  // namespace

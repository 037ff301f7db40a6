// The bytes of an input: plain, gzip and BGZF, told apart by what they are.

#include "interop/input_stream.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "interop/byte_buffer.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/temp_file.h"

namespace {

using namespace tesk::test;
using tesk::interop::ByteBuffer;
using tesk::interop::InputStream;
using Packing = InputStream::Packing;

constexpr std::size_t MIB = std::size_t{1} << 20;

// --- Sample data ---------------------------------------------------------------

// Text that compresses to about half.
std::string random_text(std::size_t n_bytes, unsigned seed = 1) {
    std::mt19937 random(seed);
    std::string text(n_bytes, '\0');
    for (char& c : text) c = "ACGTNacgtn\t\n0123"[random() % 16];
    return text;
}

// A block of stored data, whose every byte a test may choose: the payload is not
// compressed, and the extra field is given without its length.
std::string stored_block(std::string_view payload, std::string const& subfields_before = "",
                         std::string const& subfields_after = "") {
    auto const size = static_cast<std::uint16_t>(payload.size());
    std::string const data = "\x01" + le_bytes(size) + le_bytes(static_cast<std::uint16_t>(~size)) +
                             std::string(payload);
    std::size_t const xlen = subfields_before.size() + 6 + subfields_after.size();
    std::size_t const total = 12 + xlen + data.size() + 8;
    auto const crc =
        crc32(0, reinterpret_cast<Bytef const*>(payload.data()), static_cast<uInt>(payload.size()));
    return std::string("\x1f\x8b\x08\x04\0\0\0\0\0\xff", 10) +
           le_bytes(static_cast<std::uint16_t>(xlen)) + subfields_before +
           std::string("BC\x02\0", 4) + le_bytes(static_cast<std::uint16_t>(total - 1)) +
           subfields_after + data + le_bytes(static_cast<std::uint32_t>(crc)) +
           le_bytes(static_cast<std::uint32_t>(payload.size()));
}

std::string with_byte(std::string bytes, std::size_t place, int value) {
    bytes.at(place) = static_cast<char>(value);
    return bytes;
}

// --- Reading -------------------------------------------------------------------

struct Result {
    std::string bytes;  // unpacked
    std::string error;
    Packing packing = Packing::NONE;
    bool has_eof_block = false;
    std::uint64_t bytes_read = 0;
    std::size_t largest_piece = 0;
};

Result read_all(std::string const& path) {
    Result result;
    InputStream stream;
    ByteBuffer buffer;
    bool more = stream.open(path);
    bool failed = !more;
    while (more) {
        std::size_t const size_before = buffer.size();
        failed = !stream.read(buffer);
        std::size_t const n = buffer.size() - size_before;
        result.largest_piece = std::max(result.largest_piece, n);
        more = !failed && n != 0;
    }
    if (failed) result.error = stream.error_message;
    result.bytes = buffer.view();
    result.packing = stream.packing();
    result.has_eof_block = stream.has_eof_block();
    result.bytes_read = stream.bytes_read();
    return result;
}

Result read_bytes(TempDir const& dir, std::string_view bytes) {
    return read_all(dir.write("in", bytes));
}

struct ContentCase {
    char const* label;
    std::string bytes;
    std::string unpacked;
    Packing packing;
    bool has_eof_block;
};

TEST(InputStream, Content_WhateverItsName_TellsThePacking) {
    std::string const text = "@HD\tVN:1.6\nr1\t4\n";
    std::string const large = random_text(3 * MIB + 17);
    std::string const name_field = with_byte(gzip_member(text), 3, 8).insert(10, "x.sam\0", 6);
    ContentCase const cases[] = {
        {"nothing", "", "", Packing::NONE, true},
        {"one byte", "x", "x", Packing::NONE, true},
        {"first byte of gzip data alone", "\x1f", "\x1f", Packing::NONE, true},
        {"text", text, text, Packing::NONE, true},
        {"text with both bytes later", "x\x1f\x8b", "x\x1f\x8b", Packing::NONE, true},
        {"large text", large, large, Packing::NONE, true},
        {"gzip", gzip_member(text), text, Packing::GZIP, true},
        {"gzip of nothing", gzip_member(""), "", Packing::GZIP, true},
        {"gzip with a file name", name_field, text, Packing::GZIP, true},
        {"gzip members", gzip_member(text) + gzip_member("") + gzip_member(text), text + text,
         Packing::GZIP, true},
        {"large gzip members", gzip_member(large) + gzip_member(large), large + large,
         Packing::GZIP, true},
        {"gzip, then a block", gzip_member(text) + bgzf_block(text), text + text, Packing::GZIP,
         true},
        {"blocks", bgzf_blocks(text, 5) + bgzf_eof_block(), text, Packing::BGZF, true},
        {"blocks without the last", bgzf_blocks(text, 5), text, Packing::BGZF, false},
        {"the last block alone", bgzf_eof_block(), "", Packing::BGZF, true},
        {"empty blocks between",
         bgzf_eof_block() + bgzf_block(text) + bgzf_eof_block() + bgzf_eof_block() +
             bgzf_block(text) + bgzf_eof_block(),
         text + text, Packing::BGZF, true},
        {"an empty block that is not the last", bgzf_eof_block() + bgzf_block(text), text,
         Packing::BGZF, false},
        {"many blocks", bgzf_blocks(large) + bgzf_eof_block(), large, Packing::BGZF, true},
    };
    TempDir const dir;
    for (ContentCase const& c : cases) {
        for (char const* const name : {"in.sam", "in.bam", "in.gz"}) {
            SCOPED_TRACE(std::string(c.label) + " as " + name);
            Result const result = read_all(dir.write(name, c.bytes));
            EXPECT_EQ(result.error, "");
            EXPECT_TRUE(result.bytes == c.unpacked) << result.bytes.size() << " bytes";
            EXPECT_EQ(result.packing, c.packing);
            EXPECT_EQ(result.has_eof_block, c.has_eof_block);
            EXPECT_EQ(result.bytes_read, c.bytes.size());
            EXPECT_LE(result.largest_piece, c.packing == Packing::BGZF ? 65536U : MIB);
        }
    }
}

TEST(InputStream, Blocks_ReadOneByOne_TellTheirOffsets) {
    TempDir const dir;
    std::string const file = bgzf_block("one") + bgzf_eof_block() + bgzf_block("two") +
                             bgzf_block("three") + bgzf_eof_block();
    std::vector<BgzfBlock> const blocks = parse_bgzf(file);
    InputStream stream;
    ASSERT_TRUE(stream.open(dir.write("in", file)));
    for (BgzfBlock const& block : blocks) {
        if (block.payload.empty()) continue;
        ByteBuffer buffer;
        ASSERT_TRUE(stream.read(buffer));
        EXPECT_EQ(buffer.view(), block.payload);
        EXPECT_EQ(stream.block_offset(), block.offset);
    }
    ByteBuffer buffer;
    for (int i = 0; i < 2; ++i) {  // the end stays
        ASSERT_TRUE(stream.read(buffer));
        EXPECT_TRUE(buffer.empty());
        EXPECT_TRUE(stream.has_eof_block());
    }
}

TEST(InputStream, Move_StreamReadInPart_GoesOnReading) {
    std::string const text = random_text(300);
    TempDir const dir;
    InputStream first;
    ByteBuffer buffer;
    ASSERT_TRUE(first.open(dir.write("in", bgzf_blocks(text, 100))));
    ASSERT_TRUE(first.read(buffer));
    InputStream second = std::move(first);
    ASSERT_TRUE(second.read(buffer));
    InputStream third;
    third = std::move(second);
    ASSERT_TRUE(third.read(buffer));
    EXPECT_EQ(buffer.view(), text);
    EXPECT_EQ(third.name(), dir.file("in"));
}

TEST(ByteBuffer, Move_Bytes_GoAndNoneAreLeftBehind) {
    ByteBuffer first;
    first.append("first");
    char const* const place = first.data();
    ByteBuffer second = std::move(first);
    EXPECT_EQ(second.view(), "first");
    EXPECT_EQ(second.data(), place);
    EXPECT_TRUE(first.empty());  // and can be used again
    first.append("again");
    EXPECT_EQ(first.view(), "again");
    EXPECT_EQ(second.view(), "first");
    second = std::move(first);
    EXPECT_EQ(second.view(), "again");
}

TEST(InputStream, OtherSubfields_AroundTheBlockSize_ArePassedOver) {
    std::string const other = std::string("XY\x03\0abc", 7);
    std::string const empty = std::string("ZZ\0\0", 4);
    // The same letters with another length are not the block's size.
    std::string const longer = std::string("BC\x04\0\xff\xff\xff\xff", 8);
    std::string const large = "XY" + le_bytes(std::uint16_t{60000}) + std::string(60000, 'x');
    std::pair<char const*, std::string> const cases[] = {
        {"before", stored_block("data", other)},
        {"after", stored_block("data", "", other)},
        {"both, one of them empty", stored_block("data", empty + other, empty)},
        {"same letters", stored_block("data", longer)},
        {"a large one", stored_block("data", large)},
    };
    TempDir const dir;
    for (auto const& [label, block] : cases) {
        SCOPED_TRACE(label);
        Result const result = read_bytes(dir, block + block + bgzf_eof_block());
        EXPECT_EQ(result.error, "");
        EXPECT_EQ(result.bytes, "datadata");
        EXPECT_EQ(result.packing, Packing::BGZF);
        EXPECT_TRUE(result.has_eof_block);
    }
}

// A block may hold one byte more than its 16-bit sizes can say.
TEST(InputStream, BlockSizes_AtTheLimit_AreRead) {
    std::string const text = random_text(65536);
    std::string const packed = [&] {
        std::string const gzip = gzip_member(text);  // 10 bytes of header
        std::string const data = gzip.substr(10);
        return std::string("\x1f\x8b\x08\x04\0\0\0\0\0\xff\x06\0BC\x02\0", 16) +
               le_bytes(static_cast<std::uint16_t>(18 + data.size() - 1)) + data;
    }();
    TempDir const dir;
    EXPECT_TRUE(read_bytes(dir, packed + bgzf_eof_block()).bytes == text);
    // 18 + 5 + 65505 + 8 = 65536 bytes in the file.
    std::string const stored = stored_block(random_text(65505));
    ASSERT_EQ(stored.size(), 65536U);
    EXPECT_TRUE(read_bytes(dir, stored + bgzf_eof_block()).bytes == random_text(65505));
    // Another byte of data: ISIZE says 65537.
    std::string const above = with_byte(with_byte(packed, packed.size() - 4, 1),  //
                                        packed.size() - 3, 0);
    EXPECT_EQ(read_bytes(dir, bgzf_block("x") + above).error,
              dir.file("in") + ": damaged BGZF block at byte " +
                  std::to_string(bgzf_block("x").size()) + ": more than 64 KiB of data");
}

// --- Damage --------------------------------------------------------------------

struct DamageCase {
    char const* label;
    std::string second_block;
    char const* reason;
};

TEST(InputStream, DamagedBlock_OfEveryKind_IsNamedWithItsOffset) {
    std::string const block = stored_block("data");  // data at 18 + 5, CRC-32 at 27
    ASSERT_EQ(block.size(), 35U);
    std::string const no_size = with_byte(block, 12, 'X');
    DamageCase const cases[] = {
        {"text", "r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\n", "no header of a block"},
        {"zeros", std::string(100, '\0'), "no header of a block"},
        {"one byte", "\x1f", "the file ends inside it"},
        {"gzip data", gzip_member("text"), "no header of a block"},
        {"another method", with_byte(block, 2, 7), "no header of a block"},
        {"another flag", with_byte(block, 3, 12), "no header of a block"},
        {"no block size", no_size, "no block size in its header"},
        {"subfield longer than all", with_byte(no_size, 14, 3), "no block size in its header"},
        {"no subfields", with_byte(block, 10, 0), "no block size in its header"},
        {"size 0", with_byte(block, 16, 0), "its size is less than that of its header"},
        {"no room for data", with_byte(block, 16, 24), "its size is less than that of its header"},
        {"empty data", with_byte(block, 16, 25).erase(18, 9), "its data cannot be unpacked"},
        {"size too large by 1", with_byte(block, 16, 35), "the file ends inside it"},
        {"block type", with_byte(block, 18, 7), "its data cannot be unpacked"},
        {"content", with_byte(block, 23, 'D'), "its checksum does not match"},
        {"checksum", with_byte(block, 27, block[27] ^ 1), "its checksum does not match"},
        {"length 1 less", with_byte(block, 31, 3), "its data has another length than it says"},
        {"length 1 more", with_byte(block, 31, 5), "its data has another length than it says"},
        {"length of 16 MiB", with_byte(block, 34, 1), "more than 64 KiB of data"},
        {"bytes behind the data", with_byte(block, 16, 35).insert(27, 1, '\0'),
         "its data ends too early"},
    };
    std::string const first = bgzf_block("first");
    TempDir const dir;
    for (DamageCase const& c : cases) {
        SCOPED_TRACE(c.label);
        Result const result = read_bytes(dir, first + c.second_block);
        EXPECT_EQ(result.bytes, "first");
        EXPECT_EQ(result.error, dir.file("in") + ": damaged BGZF block at byte " +
                                    std::to_string(first.size()) + ": " + c.reason);
    }
}

TEST(InputStream, Blocks_CutAtEveryLength_AreRefusedOrLackTheLast) {
    std::string const file = bgzf_blocks(random_text(300), 100) + bgzf_eof_block();
    std::vector<BgzfBlock> const blocks = parse_bgzf(file);
    TempDir const dir;
    for (std::size_t n = 2; n < file.size(); ++n) {
        SCOPED_TRACE(n);
        Result const result = read_bytes(dir, file.substr(0, n));
        BgzfBlock cut;  // the block that the cut is in, or before
        for (BgzfBlock const& block : blocks) {
            if (block.offset <= n) cut = block;
        }
        if (n == cut.offset) {
            EXPECT_EQ(result.error, "");
            EXPECT_FALSE(result.has_eof_block);
            EXPECT_EQ(result.bytes, random_text(300).substr(0, result.bytes.size()));
            EXPECT_EQ(result.bytes.size() % 100, 0U);
        } else if (n < 18) {  // this might be any gzip data
            EXPECT_EQ(result.error, dir.file("in") + ": the gzip data ends too early");
        } else {
            EXPECT_EQ(result.error, dir.file("in") + ": damaged BGZF block at byte " +
                                        std::to_string(cut.offset) + ": the file ends inside it");
        }
    }
}

TEST(InputStream, Blocks_AnyByteChanged_AreRefusedOrGiveTheSame) {
    std::string const text = random_text(300);
    std::string const file = bgzf_blocks(text, 100) + bgzf_eof_block();
    TempDir const dir;
    std::size_t n_refused = 0;
    for (std::size_t i = 2; i < file.size(); ++i) {
        for (int const mask : {0x01, 0x80, 0xFF}) {
            SCOPED_TRACE(std::to_string(i) + " xor " + std::to_string(mask));
            Result const result = read_bytes(dir, with_byte(file, i, file[i] ^ mask));
            if (!result.error.empty()) ++n_refused;
            EXPECT_TRUE(!result.error.empty() || result.bytes == text);
        }
    }
    // What may be anything: in each of the four headers the six bytes of time, extra
    // flags and system, and the bits that fill up the last byte of data. In the
    // first header also the flag for text and what says that this is BGZF and not
    // any gzip data, 4 bytes.
    EXPECT_GE(n_refused, 3 * (file.size() - 2 - 4 * 6 - 4) - 4 - 1);
}

TEST(InputStream, GzipData_CutOrDamaged_IsRefused) {
    std::string const text = random_text(300);
    std::string const good = gzip_member(text);
    TempDir const dir;
    std::string const in = dir.file("in");
    for (std::size_t n = 2; n < good.size(); ++n) {
        SCOPED_TRACE(n);
        EXPECT_EQ(read_bytes(dir, good.substr(0, n)).error, in + ": the gzip data ends too early");
        EXPECT_EQ(read_bytes(dir, good + good.substr(0, n)).error,
                  in + ": the gzip data ends too early");
    }
    std::pair<std::string, char const*> const cases[] = {
        {good + text, "incorrect header check"},
        {good + std::string(512, '\0'), "incorrect header check"},
        {with_byte(good, good.size() - 8, good[good.size() - 8] ^ 1), "incorrect data check"},
        {with_byte(good, good.size() - 4, good[good.size() - 4] ^ 1), "incorrect length check"},
        {with_byte(good, 2, 7), "unknown compression method"},
    };
    for (auto const& [bytes, message] : cases) {
        EXPECT_EQ(read_bytes(dir, bytes).error, in + ": the gzip data is damaged: " + message);
    }
}

TEST(InputStream, InputThatCannotBeRead_IsErrorNamingIt) {
    TempDir const dir;
    std::string const folder = dir.path().string();
    InputStream stream;
    EXPECT_FALSE(stream.open(dir.file("none")));
    EXPECT_EQ(stream.error_message,
              "cannot open " + dir.file("none") + ": No such file or directory");
    EXPECT_FALSE(stream.open(""));
    EXPECT_EQ(stream.error_message, "cannot open : No such file or directory");
    EXPECT_FALSE(stream.open(folder));
    EXPECT_EQ(stream.error_message, "cannot read " + folder + ": Is a directory");
    // The same stream may still open what is there.
    EXPECT_TRUE(stream.open(dir.write("in", "text")));
    EXPECT_EQ(stream.name(), dir.file("in"));
    ByteBuffer buffer;
    EXPECT_TRUE(stream.read(buffer));
    EXPECT_EQ(buffer.view(), "text");
}

// --- Pipes ---------------------------------------------------------------------

// Puts a pipe that gives the bytes a few at a time in the place of standard input.
class StandardInput {
public:
    StandardInput(std::string bytes, std::size_t at_a_time)
        : saved_(dup(STDIN_FILENO)), bytes_(std::move(bytes)) {
        int ends[2];
        if (saved_ < 0 || pipe(ends) != 0) throw std::runtime_error("no pipe");
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        writer_ = std::thread([this, fd = ends[1], at_a_time] {
            for (std::size_t i = 0; i < bytes_.size();) {
                std::size_t const n = std::min(at_a_time, bytes_.size() - i);
                ssize_t const written = write(fd, bytes_.data() + i, n);
                if (written <= 0) break;
                i += static_cast<std::size_t>(written);
            }
            close(fd);
        });
    }
    ~StandardInput() {
        writer_.join();
        dup2(saved_, STDIN_FILENO);
        close(saved_);
    }
    StandardInput(StandardInput const&) = delete;
    StandardInput& operator=(StandardInput const&) = delete;

private:
    int saved_;
    std::string bytes_;
    std::thread writer_;
};

TEST(InputStream, StandardInput_InPiecesOfAnySize_IsReadLikeAFile) {
    std::string const text = random_text(20000);
    std::string const packings[] = {text, gzip_member(text),
                                    bgzf_blocks(text, 999) + bgzf_eof_block()};
    for (std::string const& bytes : packings) {
        for (std::size_t const at_a_time : {1U, 7U, 100000U}) {
            SCOPED_TRACE(std::to_string(bytes.size()) + " bytes by " + std::to_string(at_a_time));
            StandardInput const input(bytes, at_a_time);
            Result const result = read_all("-");
            EXPECT_EQ(result.error, "");
            EXPECT_TRUE(result.bytes == text);
            EXPECT_TRUE(result.has_eof_block);
        }
    }
    StandardInput const input("\x1f\x8b", 1);
    EXPECT_EQ(read_all("-").error, "standard input: the gzip data ends too early");
    EXPECT_EQ(lseek(STDIN_FILENO, 0, SEEK_CUR), -1);  // it is still open
    EXPECT_EQ(errno, ESPIPE);
}

TEST(InputStream, Fifo_IsReadLikeAFile) {
    TempDir const dir;
    std::string const text = random_text(300000);
    std::string const path = dir.file("in.bam");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([&] { write_file(path, bgzf_blocks(text) + bgzf_eof_block()); });
    Result const result = read_all(path);
    writer.join();
    EXPECT_EQ(result.error, "");
    EXPECT_TRUE(result.bytes == text);
}

// --- Reading from any block ----------------------------------------------------

TEST(InputStream, Seek_AnyBlockInAnyOrder_ReadsItAndThoseBehindIt) {
    TempDir const dir;
    std::string const file = bgzf_blocks(random_text(5 * MIB)) + bgzf_eof_block();
    std::vector<BgzfBlock> const blocks = parse_bgzf(file);
    ASSERT_GT(file.size(), 2 * MIB);  // more than is read at a time
    InputStream stream;
    ASSERT_TRUE(stream.open(dir.write("in", file)));
    std::mt19937 random(5);
    for (int i = 0; i < 300; ++i) {
        std::size_t const k = random() % blocks.size();
        SCOPED_TRACE(k);
        ASSERT_TRUE(stream.seek(blocks[k].offset)) << stream.error_message;
        ByteBuffer buffer;
        for (std::size_t j = k; j < blocks.size() && j < k + 3; ++j) {
            buffer.clear();
            ASSERT_TRUE(stream.read(buffer)) << stream.error_message;
            EXPECT_TRUE(buffer.view() == blocks[j].payload);
            if (!blocks[j].payload.empty()) {
                EXPECT_EQ(stream.block_offset(), blocks[j].offset);
            }
        }
    }
    ASSERT_TRUE(stream.seek(0));
    ByteBuffer all;
    for (std::size_t size = 1; size != all.size();) {
        size = all.size();
        ASSERT_TRUE(stream.read(all));
    }
    EXPECT_TRUE(all.view() == random_text(5 * MIB));
    EXPECT_TRUE(stream.has_eof_block());
}

TEST(InputStream, Seek_FarAway_ReadsLittleOfALargeFile) {
    TempDir const dir;
    std::string const file = bgzf_blocks(random_text(20 * MIB)) + bgzf_eof_block();
    std::vector<BgzfBlock> const blocks = parse_bgzf(file);
    InputStream stream;
    ASSERT_TRUE(stream.open(dir.write("in", file)));
    BgzfBlock const& block = blocks[blocks.size() / 2];
    ASSERT_TRUE(stream.seek(block.offset));
    ByteBuffer buffer;
    ASSERT_TRUE(stream.read(buffer));
    EXPECT_TRUE(buffer.view() == block.payload);
    EXPECT_LE(stream.bytes_read(), MIB / 2);
}

TEST(InputStream, Seek_PlaceWithoutBlock_IsError) {
    TempDir const dir;
    std::string const file = bgzf_block("text") + bgzf_eof_block();
    std::string const in = dir.write("in", file);
    InputStream stream;
    ASSERT_TRUE(stream.open(in));
    ByteBuffer buffer;
    ASSERT_TRUE(stream.seek(1));
    EXPECT_FALSE(stream.read(buffer));
    EXPECT_EQ(stream.error_message, in + ": damaged BGZF block at byte 1: no header of a block");
    for (std::uint64_t const beyond : {std::uint64_t{file.size()}, std::uint64_t{1} << 40}) {
        SCOPED_TRACE(beyond);
        ASSERT_TRUE(stream.seek(beyond));
        EXPECT_TRUE(stream.read(buffer));
        EXPECT_TRUE(buffer.empty());
    }
    EXPECT_FALSE(stream.seek(std::uint64_t{1} << 48));
    EXPECT_EQ(stream.error_message, in + ": no block can begin at byte 281474976710656");
    // After all that the stream still reads.
    ASSERT_TRUE(stream.seek(0));
    ASSERT_TRUE(stream.read(buffer));
    EXPECT_EQ(buffer.view(), "text");
}

TEST(InputStream, Seek_OtherInputs_IsError) {
    TempDir const dir;
    InputStream stream;
    for (std::string const& bytes : {std::string("text"), gzip_member("text")}) {
        ASSERT_TRUE(stream.open(dir.write("in", bytes)));
        EXPECT_FALSE(stream.seek(0));
        EXPECT_EQ(stream.error_message,
                  dir.file("in") + ": not a BGZF file that can be read from any place");
    }
    StandardInput const input(bgzf_block("text"), 100);
    ASSERT_TRUE(stream.open("-"));
    EXPECT_FALSE(stream.seek(0));
    EXPECT_EQ(stream.error_message,
              "standard input: not a BGZF file that can be read from any place");
}

// Somebody may have read the first part of the file that is standard input.
TEST(InputStream, StandardInput_FileReadInPart_OffsetsCountFromThere) {
    TempDir const dir;
    std::string const file = bgzf_block("one") + bgzf_block("two") + bgzf_eof_block();
    std::string const path = dir.write("in", "12345" + file);
    int const saved = dup(STDIN_FILENO);
    FILE* const opened = fopen(path.c_str(), "rb");
    ASSERT_NE(opened, nullptr);
    dup2(fileno(opened), STDIN_FILENO);
    fclose(opened);
    lseek(STDIN_FILENO, 5, SEEK_SET);
    {
        InputStream stream;
        ByteBuffer buffer;
        ASSERT_TRUE(stream.open("-"));
        ASSERT_TRUE(stream.seek(10000));  // out of what has been read
        ASSERT_TRUE(stream.seek(bgzf_block("one").size()));
        ASSERT_TRUE(stream.read(buffer)) << stream.error_message;
        EXPECT_EQ(buffer.view(), "two");
    }
    dup2(saved, STDIN_FILENO);
    close(saved);
}

}  // namespace

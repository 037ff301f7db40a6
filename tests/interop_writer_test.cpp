// Blocks of BGZF files, and SAM and BAM files written batch by batch.

#include "interop/alignment_writer.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "interop/bgzf_writer.h"
#include "interop/output_stream.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/open_file.h"
#include "tests/support/process.h"
#include "tests/support/process_limits.h"
#include "tests/support/record_text.h"
#include "tests/support/temp_file.h"

// The compressor is replaced by one that can be told to fail.
namespace {
bool compressor_fails = false;
}  // namespace
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
std::size_t __real_libdeflate_deflate_compress(void* compressor, void const* in, std::size_t in_n,
                                               void* out, std::size_t out_n);
std::size_t __wrap_libdeflate_deflate_compress(void* compressor, void const* in, std::size_t in_n,
                                               void* out, std::size_t out_n);
std::size_t __wrap_libdeflate_deflate_compress(void* compressor, void const* in, std::size_t in_n,
                                               void* out, std::size_t out_n) {
    if (compressor_fails) return 0;
    return __real_libdeflate_deflate_compress(compressor, in, in_n, out, out_n);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

using namespace tesk::test;
using tesk::interop::AlignmentWriter;
using tesk::interop::bai_limit_error;
using tesk::interop::BgzfWriter;
using tesk::interop::Format;
using tesk::interop::Header;
using tesk::interop::OutputStream;
using tesk::interop::RecordBatch;
using tesk::interop::RecordView;
using tesk::interop::Report;
using tesk::interop::WriterOptions;
using Handler = tesk::util::bam::BAMFileHandler;

constexpr std::size_t PAYLOAD = 65280;

// --- Bytes and files ---------------------------------------------------------

// Text like that of alignments: it shrinks to about a third.
std::string compressible_bytes(std::size_t n) {
    std::mt19937 random(1);
    std::string bytes;
    while (bytes.size() < n) {
        bytes += "read" + std::to_string(random() % 5000) + "\tchr1\t";
        for (int i = 0; i < 20; ++i) bytes += "ACGT"[random() % 4];
    }
    bytes.resize(n);
    return bytes;
}

std::string incompressible_bytes(std::size_t n) {
    std::mt19937 random(2);
    std::string bytes(n, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random() & 0xFF);
    return bytes;
}

std::string mixed_bytes(std::size_t n) {
    std::string bytes = compressible_bytes(n / 2);
    bytes += incompressible_bytes(n / 4);
    bytes += std::string(n / 8, 'A');
    return bytes + compressible_bytes(n - bytes.size());
}

bool write_in_pieces(BgzfWriter& writer, std::string_view bytes, std::size_t piece) {
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        if (!writer.write(bytes.substr(at, piece))) return false;
    }
    return true;
}

// The file that a writer makes of some bytes.
std::string bgzf_of(std::string_view bytes, int level, unsigned threads, std::size_t piece) {
    TempDir const dir;
    std::string const path = dir.file("x.gz");
    OpenFile const file(path);
    BgzfWriter writer;
    EXPECT_TRUE(writer.open(file.fd(), path, level, threads)) << writer.error_message;
    EXPECT_TRUE(write_in_pieces(writer, bytes, piece)) << writer.error_message;
    EXPECT_EQ(writer.tell(), bytes.size());
    EXPECT_TRUE(writer.close()) << writer.error_message;
    return read_file(path);
}

std::vector<std::size_t> payload_sizes(std::string_view file) {
    std::vector<std::size_t> sizes;
    for (BgzfBlock const& block : parse_bgzf(file)) sizes.push_back(block.payload.size());
    return sizes;
}

// --- Blocks ------------------------------------------------------------------

struct LayoutCase {
    std::size_t n_bytes;
    std::vector<std::size_t> payloads;  // of all blocks, the last one included
};

TEST(BgzfWriter, Blocks_AnyNumberOfBytes_AreFullButTheLast) {
    std::vector<LayoutCase> const cases = {
        {0, {0}},
        {1, {1, 0}},
        {PAYLOAD - 1, {PAYLOAD - 1, 0}},
        {PAYLOAD, {PAYLOAD, 0}},
        {PAYLOAD + 1, {PAYLOAD, 1, 0}},
        {2 * PAYLOAD, {PAYLOAD, PAYLOAD, 0}},
        {200000, {PAYLOAD, PAYLOAD, PAYLOAD, 200000 - 3 * PAYLOAD, 0}},
    };
    for (LayoutCase const& c : cases) {
        for (unsigned const threads : {1U, 3U}) {
            SCOPED_TRACE(std::to_string(c.n_bytes) + " bytes, threads " + std::to_string(threads));
            std::string const bytes = compressible_bytes(c.n_bytes);
            std::string const file = bgzf_of(bytes, 6, threads, 10000);
            EXPECT_EQ(payload_sizes(file), c.payloads);
            EXPECT_EQ(inflate_bgzf(file), bytes);
            ASSERT_GE(file.size(), 28U);
            EXPECT_EQ(file.substr(file.size() - 28), bgzf_eof_block());
        }
    }
}

TEST(BgzfWriter, Blocks_Heads_AreTheFormatsOwn) {
    std::string const file = bgzf_of(mixed_bytes(3 * PAYLOAD), 6, 1, 1 << 20);
    for (BgzfBlock const& block : parse_bgzf(file)) {
        EXPECT_EQ(hex_text(file.substr(block.offset, 16)),
                  "1f 8b 08 04 00 00 00 00 00 ff 06 00 42 43 02 00");
    }
}

TEST(BgzfWriter, File_UnpackedByAGeneralProgram_GivesTheBytes) {
    std::string const bytes = mixed_bytes(5 * PAYLOAD + 17);
    TempDir const dir;
    std::string const path = dir.write("x.gz", bgzf_of(bytes, 6, 2, 50000));
    ProcessResult const test = run_process({"gzip", "-t", path});
    EXPECT_EQ(test.exit_status, 0) << test.errors;
    EXPECT_TRUE(run_process({"gzip", "-dc", path}).output == bytes);
}

TEST(BgzfWriter, Levels_All_HoldTheBytes) {
    std::string const bytes = mixed_bytes(4 * PAYLOAD + 1000);
    std::vector<std::size_t> sizes;
    for (int level = 0; level <= 12; ++level) {
        SCOPED_TRACE("level " + std::to_string(level));
        std::string const file = bgzf_of(bytes, level, 1, 1 << 20);
        EXPECT_TRUE(inflate_bgzf(file) == bytes);
        sizes.push_back(file.size());
    }
    // Stored: 18 bytes before and 8 behind the deflate stream, which adds 5.
    EXPECT_EQ(sizes[0], bytes.size() + 5 * 31 + 28);
    EXPECT_LT(sizes[1], sizes[0]);
    EXPECT_LT(sizes[6], sizes[1]);
    EXPECT_LT(sizes[12], sizes[6]);
}

TEST(BgzfWriter, Levels_OthersThanThere_AreRefused) {
    TempDir const dir;
    std::string const path = dir.file("x.gz");
    OpenFile const file(path);
    for (int const level : {-1, 13}) {
        BgzfWriter writer;
        EXPECT_FALSE(writer.open(file.fd(), "x.gz", level, 1));
        EXPECT_EQ(writer.error_message,
                  "cannot write to x.gz: there is no compression level " + std::to_string(level));
        EXPECT_FALSE(writer.write("A"));
    }
    EXPECT_EQ(read_file(path), "");
}

TEST(BgzfWriter, Compressor_CannotShrinkAPayload_StoresIt) {
    std::string const bytes = mixed_bytes(PAYLOAD + 70);
    compressor_fails = true;
    std::string const file = bgzf_of(bytes, 6, 2, 1 << 20);
    compressor_fails = false;
    EXPECT_EQ(file.size(), bytes.size() + 2 * 31 + 28);
    EXPECT_TRUE(inflate_bgzf(file) == bytes);
    EXPECT_EQ(hex_text(file.substr(18, 5)), "01 00 ff ff 00");  // 65280, and inverted
}

TEST(BgzfWriter, Compressor_GivenBytesThatDoNotShrink_KeepsBlocksSmallEnough) {
    std::string const bytes = incompressible_bytes(3 * PAYLOAD);
    for (int level = 0; level <= 12; ++level) {
        SCOPED_TRACE("level " + std::to_string(level));
        EXPECT_EQ(payload_sizes(bgzf_of(bytes, level, 1, 1 << 20)),
                  (std::vector<std::size_t>{PAYLOAD, PAYLOAD, PAYLOAD, 0}));
    }
}

TEST(BgzfWriter, Threads_AnyNumber_MakeTheSameFile) {
    std::string const bytes = mixed_bytes(210 * PAYLOAD + 333);
    for (int const level : {1, 6}) {
        std::string const one = bgzf_of(bytes, level, 1, 300000);
        EXPECT_EQ(parse_bgzf(one).size(), 212U);
        EXPECT_TRUE(inflate_bgzf(one) == bytes);
        for (unsigned const threads : {0U, 2U, 8U}) {
            SCOPED_TRACE("level " + std::to_string(level) + ", threads " + std::to_string(threads));
            EXPECT_TRUE(bgzf_of(bytes, level, threads, 300000) == one);
        }
    }
}

TEST(BgzfWriter, Threads_AtTheSlowestLevels_MakeTheSameFile) {
    std::string const bytes = mixed_bytes(20 * PAYLOAD);
    for (int const level : {0, 9, 12}) {
        EXPECT_TRUE(bgzf_of(bytes, level, 4, 100000) == bgzf_of(bytes, level, 1, 100000));
    }
}

TEST(BgzfWriter, Write_InPiecesOfAnySize_MakesTheSameFile) {
    std::string const bytes = mixed_bytes(3 * PAYLOAD + 500);
    std::string const whole = bgzf_of(bytes, 1, 1, bytes.size());
    for (std::size_t const piece :
         {std::size_t{1}, std::size_t{7}, PAYLOAD - 1, PAYLOAD, PAYLOAD + 1, 2 * PAYLOAD + 3}) {
        for (unsigned const threads : {1U, 3U}) {
            SCOPED_TRACE("pieces of " + std::to_string(piece) + ", threads " +
                         std::to_string(threads));
            EXPECT_TRUE(bgzf_of(bytes, 1, threads, piece) == whole);
        }
    }
}

TEST(BgzfWriter, Write_InPiecesOfRandomSizes_MakesTheSameFile) {
    std::string const bytes = mixed_bytes(30 * PAYLOAD + 1);
    std::string const whole = bgzf_of(bytes, 1, 1, bytes.size());
    std::mt19937 random(5);
    for (unsigned const threads : {1U, 2U, 5U}) {
        TempDir const dir;
        OpenFile const file(dir.file("x.gz"));
        BgzfWriter writer;
        ASSERT_TRUE(writer.open(file.fd(), "x.gz", 1, threads));
        for (std::size_t at = 0; at < bytes.size();) {
            std::size_t const n = random() % 4 == 0 ? random() % 200000 : random() % 300;
            std::string_view const piece = std::string_view(bytes).substr(at, n);
            ASSERT_TRUE(writer.write(piece));
            at += piece.size();
            ASSERT_EQ(writer.tell(), at);
        }
        ASSERT_TRUE(writer.close());
        EXPECT_TRUE(read_file(dir.file("x.gz")) == whole);
    }
}

// How many threads of this process keep both SIGINT and SIGTERM from themselves.
std::size_t threads_without_signals() {
    std::size_t n = 0;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("SigBlk:", 0) != 0) continue;
            std::uint64_t const blocked = std::stoull(line.substr(7), nullptr, 16);
            bool const both = (blocked >> (SIGINT - 1) & blocked >> (SIGTERM - 1) & 1) != 0;
            n += both ? 1 : 0;
        }
    }
    return n;
}

TEST(BgzfWriter, Threads_OfItsOwn_LeaveSignalsToTheCaller) {
    std::size_t const before = threads_without_signals();
    OpenFile const file("/dev/null");
    BgzfWriter writer;
    ASSERT_TRUE(writer.open(file.fd(), "x.gz", 6, 4));
    EXPECT_EQ(threads_without_signals(), before + 3);
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGINT), 0);
    EXPECT_TRUE(writer.close());
    EXPECT_EQ(threads_without_signals(), before);
}

TEST(BgzfWriter, VirtualOffset_InsideABlock_NamesIt) {
    std::string const bytes = mixed_bytes(3 * PAYLOAD + 100);
    for (unsigned const threads : {1U, 4U}) {
        TempDir const dir;
        OpenFile const file(dir.file("x.gz"));
        BgzfWriter writer;
        ASSERT_TRUE(writer.open(file.fd(), "x.gz", 6, threads));
        ASSERT_TRUE(writer.write(bytes));
        ASSERT_TRUE(writer.close());
        std::vector<BgzfBlock> const blocks = parse_bgzf(read_file(dir.file("x.gz")));
        auto const offset = [&](std::size_t block, std::uint64_t inside) {
            return blocks.at(block).offset << 16 | inside;
        };
        EXPECT_EQ(writer.virtual_offset(0), 0U);
        EXPECT_EQ(writer.virtual_offset(1), 1U);
        EXPECT_EQ(writer.virtual_offset(PAYLOAD - 1), PAYLOAD - 1);
        EXPECT_EQ(writer.virtual_offset(PAYLOAD), offset(1, 0));
        EXPECT_EQ(writer.virtual_offset(PAYLOAD + 1), offset(1, 1));
        EXPECT_EQ(writer.virtual_offset(2 * PAYLOAD), offset(2, 0));
        EXPECT_EQ(writer.virtual_offset(3 * PAYLOAD + 99), offset(3, 99));
        EXPECT_EQ(writer.virtual_offset(3 * PAYLOAD + 100), offset(3, 100));
    }
}

TEST(BgzfWriter, VirtualOffset_EndOnABlockBoundary_NamesTheEmptyBlock) {
    for (std::size_t const n_blocks : {0U, 1U, 3U}) {
        TempDir const dir;
        OpenFile const file(dir.file("x.gz"));
        BgzfWriter writer;
        ASSERT_TRUE(writer.open(file.fd(), "x.gz", 6, 2));
        ASSERT_TRUE(writer.write(mixed_bytes(n_blocks * PAYLOAD)));
        ASSERT_TRUE(writer.close());
        std::vector<BgzfBlock> const blocks = parse_bgzf(read_file(dir.file("x.gz")));
        EXPECT_EQ(writer.virtual_offset(writer.tell()), blocks.at(n_blocks).offset << 16);
    }
}

// --- Writing that fails ------------------------------------------------------

TEST(BgzfWriter, Write_ToAFullDisk_FailsFromThenOn) {
    constexpr char MESSAGE[] = "cannot write to full.gz: No space left on device";
    std::string const bytes = incompressible_bytes(4 << 20);
    for (unsigned const threads : {1U, 4U}) {
        OpenFile const full("/dev/full");
        BgzfWriter writer;
        ASSERT_TRUE(writer.open(full.fd(), "full.gz", 6, threads));
        EXPECT_FALSE(writer.write(bytes));
        EXPECT_EQ(writer.error_message, MESSAGE);
        writer.error_message.clear();
        EXPECT_FALSE(writer.write("A"));
        EXPECT_EQ(writer.error_message, MESSAGE);
        writer.error_message.clear();
        EXPECT_FALSE(writer.close());
        EXPECT_EQ(writer.error_message, MESSAGE);
    }
}

TEST(BgzfWriter, Close_OnAFullDisk_Fails) {
    for (unsigned const threads : {1U, 4U}) {
        OpenFile const full("/dev/full");
        BgzfWriter writer;
        ASSERT_TRUE(writer.open(full.fd(), "full.gz", 6, threads));
        EXPECT_TRUE(writer.write("ACGT"));
        EXPECT_FALSE(writer.close());
        EXPECT_EQ(writer.error_message, "cannot write to full.gz: No space left on device");
    }
}

TEST(BgzfWriter, Write_BeyondTheLargestFile_FailsAfterWhatFits) {
    std::string const bytes = incompressible_bytes(4 << 20);
    for (unsigned const threads : {1U, 4U}) {
        TempDir const dir;
        OpenFile const file(dir.file("x.gz"));
        BgzfWriter writer;
        ASSERT_TRUE(writer.open(file.fd(), "x.gz", 6, threads));
        {
            FileSizeLimit const limit(100000);
            EXPECT_FALSE(writer.write(bytes) && writer.close());
        }
        EXPECT_EQ(writer.error_message, "cannot write to x.gz: File too large");
        EXPECT_EQ(std::filesystem::file_size(dir.file("x.gz")), 100000U);
    }
}

TEST(BgzfWriter, Write_ToADescriptorThatIsNotOpen_Fails) {
    BgzfWriter writer;
    ASSERT_TRUE(writer.open(-1, "x.gz", 6, 1));
    EXPECT_TRUE(writer.write("A"));
    EXPECT_FALSE(writer.close());
    EXPECT_EQ(writer.error_message, "cannot write to x.gz: Bad file descriptor");
}

TEST(BgzfWriter, Write_WithoutAFile_Fails) {
    BgzfWriter writer;
    EXPECT_FALSE(writer.write("A"));
    EXPECT_EQ(writer.error_message, "cannot write: no file is open");
    EXPECT_FALSE(writer.close());
    EXPECT_EQ(writer.tell(), 0U);

    OpenFile const file("/dev/null");
    ASSERT_TRUE(writer.open(file.fd(), "x.gz", 6, 1));
    ASSERT_TRUE(writer.close());
    EXPECT_FALSE(writer.write("A"));
    EXPECT_EQ(writer.error_message, "cannot write: no file is open");
    EXPECT_FALSE(writer.close());
}

TEST(BgzfWriter, Destructor_WithoutClose_WritesNothingMore) {
    for (unsigned const threads : {1U, 4U}) {
        TempDir const dir;
        OpenFile const file(dir.file("x.gz"));
        {
            BgzfWriter writer;
            ASSERT_TRUE(writer.open(file.fd(), "x.gz", 6, threads));
            ASSERT_TRUE(writer.write(mixed_bytes(5 * PAYLOAD + 5)));
        }
        EXPECT_EQ(read_file(dir.file("x.gz")), "");
    }
}

// --- Writing that goes on ----------------------------------------------------

// A pipe whose other end is read to its end, by small pieces, on another thread.
class SlowReader {
public:
    explicit SlowReader(int write_flags) {
        if (pipe(ends_) != 0) throw std::runtime_error("no pipe");
        fcntl(ends_[1], F_SETFL, write_flags);
        thread_ = std::thread([this] {
            char piece[5000];
            // Long enough for the pipe to fill up, and a write to wait in vain.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            for (;;) {
                ssize_t const n = ::read(ends_[0], piece, sizeof piece);
                if (n > 0) bytes_.append(piece, static_cast<std::size_t>(n));
                if (n == 0 || (n < 0 && errno != EINTR)) return;
            }
        });
    }
    ~SlowReader() {
        finish();
        ::close(ends_[0]);
    }
    SlowReader(SlowReader const&) = delete;
    SlowReader& operator=(SlowReader const&) = delete;

    int fd() const { return ends_[1]; }

    // All that was written, once the writer is done.
    std::string const& finish() {
        if (thread_.joinable()) {
            ::close(ends_[1]);
            thread_.join();
        }
        return bytes_;
    }

private:
    int ends_[2] = {-1, -1};
    std::string bytes_;
    std::thread thread_;
};

// Signals that interrupt system calls, every millisecond while this lives.
class Interruptions {
public:
    Interruptions() {
        struct sigaction action {};
        action.sa_handler = [](int) {};  // without SA_RESTART
        sigaction(SIGALRM, &action, &before_);
        itimerval const millisecond{{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &millisecond, nullptr);
    }
    ~Interruptions() {
        itimerval const never{};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &before_, nullptr);
    }
    Interruptions(Interruptions const&) = delete;
    Interruptions& operator=(Interruptions const&) = delete;

private:
    struct sigaction before_ {};
};

TEST(OutputStream, Append_ToAPipe_SurvivesSignalsAndShortWrites) {
    std::string const bytes = incompressible_bytes(6 << 20);
    SlowReader reader(0);
    {
        Interruptions const interruptions;
        OutputStream stream(reader.fd(), "pipe");
        EXPECT_TRUE(stream.append(bytes)) << stream.error_message;
        EXPECT_EQ(stream.offset(), bytes.size());
    }
    EXPECT_TRUE(reader.finish() == bytes);
}

TEST(OutputStream, Append_ToAPipeThatDoesNotBlock_WaitsForRoom) {
    std::string const bytes = incompressible_bytes(3 << 20);
    SlowReader reader(O_NONBLOCK);
    OutputStream stream(reader.fd(), "pipe");
    for (std::size_t at = 0; at < bytes.size(); at += 100000) {
        ASSERT_TRUE(stream.append(std::string_view(bytes).substr(at, 100000)));
    }
    ASSERT_TRUE(stream.flush()) << stream.error_message;
    EXPECT_TRUE(reader.finish() == bytes);
}

TEST(OutputStream, Append_FewAndManyBytes_KeepsTheirOrder) {
    TempDir const dir;
    OpenFile const file(dir.file("x"));
    OutputStream stream(file.fd(), "x");
    std::string const many = incompressible_bytes((1 << 20) + 5);
    ASSERT_TRUE(stream.append("few"));
    EXPECT_EQ(read_file(dir.file("x")), "");
    ASSERT_TRUE(stream.append(many));
    ASSERT_TRUE(stream.append("end"));
    EXPECT_EQ(stream.offset(), many.size() + 6);
    ASSERT_TRUE(stream.flush());
    EXPECT_TRUE(read_file(dir.file("x")) == "few" + many + "end");
}

// --- Alignments --------------------------------------------------------------

constexpr char HEADER_TEXT[] =
    "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:chr1\tLN:100000\n@SQ\tSN:chr2\tLN:536870912\n";
std::vector<Reference> const REFERENCES = {{"chr1", 100000}, {"chr2", 536870912}};

Header header_of(std::string const& text) {
    Header header;
    Report report;
    std::string error;
    if (!header.assign_sam(text, report, error)) throw std::runtime_error(error);
    return header;
}

SamLine line_at(std::string_view rname, std::int32_t pos_1based) {
    return SamLine().with(RNAME, rname).with(POS, std::to_string(pos_1based));
}

using Lines = std::vector<std::string>;

std::string joined(Lines const& lines) {
    std::string text;
    for (std::string const& line : lines) text += line + '\n';
    return text;
}

std::string encoded(Lines const& lines) {
    std::string bytes;
    for (std::string const& line : lines) bytes += encode_bam_record(line, REFERENCES);
    return bytes;
}

void fill(RecordBatch& batch, Lines const& lines, bool with_lines = false) {
    batch.clear();
    batch.records.append(encoded(lines));
    batch.n_records = lines.size();
    if (with_lines) batch.lines.append(joined(lines));
}

// Enough records for several blocks, sorted.
Lines many_lines() {
    std::mt19937 random(3);
    Lines lines;
    for (int i = 0; i < 2000; ++i) {
        std::string bases;
        std::string qualities;
        for (int j = 0; j < 100; ++j) {
            bases += "ACGT"[random() % 4];
            qualities += static_cast<char>('!' + random() % 60);
        }
        lines.push_back(line_at("chr1", 1 + 7 * i)
                            .with(QNAME, "read" + std::to_string(i))
                            .with(CIGAR, "100M")
                            .with(SEQ, bases)
                            .with(QUAL, qualities)
                            .field("NM:i:" + std::to_string(i % 9))
                            .text());
    }
    return lines;
}

// The payload of a BAM file of these lines.
std::string expected_payload(Lines const& lines) {
    return encode_bam_header(HEADER_TEXT, REFERENCES) + encoded(lines);
}

TEST(AlignmentWriter, Bam_Batches_FillWholeBlocks) {
    Header const header = header_of(HEADER_TEXT);
    Lines const lines = many_lines();
    TempDir const dir;
    AlignmentWriter writer;
    ASSERT_TRUE(writer.open(dir.file("x.bam"), header, header.text())) << writer.error_message;
    RecordBatch batch;
    for (std::size_t at = 0; at < lines.size(); at += 300) {
        auto const begin = lines.begin() + static_cast<std::ptrdiff_t>(at);
        auto const n = static_cast<std::ptrdiff_t>(std::min<std::size_t>(300, lines.size() - at));
        fill(batch, Lines(begin, begin + n));
        ASSERT_TRUE(writer.write(batch)) << writer.error_message;
    }
    ASSERT_TRUE(writer.close()) << writer.error_message;

    std::string const file = read_file(dir.file("x.bam"));
    std::string const payload = expected_payload(lines);
    EXPECT_TRUE(inflate_bgzf(file) == payload);
    EXPECT_EQ(payload_sizes(file).size(), payload.size() / PAYLOAD + 2);
    EXPECT_FALSE(std::filesystem::exists(dir.file("x.bam.bai")));
}

TEST(AlignmentWriter, Bam_RecordsOneByOneAndOnAnyThreads_MakeTheSameFiles) {
    Header const header = header_of(HEADER_TEXT);
    RecordBatch batch;
    fill(batch, many_lines());
    TempDir const dir;
    WriterOptions options;
    options.index = true;
    for (unsigned const threads : {1U, 2U, 8U}) {
        options.threads = threads;
        AlignmentWriter whole(options);
        std::string const name = "whole" + std::to_string(threads) + ".bam";
        ASSERT_TRUE(whole.open(dir.file(name), header, header.text()));
        ASSERT_TRUE(whole.write(batch));
        ASSERT_TRUE(whole.close()) << whole.error_message;
        EXPECT_TRUE(read_file(dir.file(name)) == read_file(dir.file("whole1.bam")));
        EXPECT_TRUE(read_file(dir.file(name + ".bai")) == read_file(dir.file("whole1.bam.bai")));
    }

    AlignmentWriter single(options);
    ASSERT_TRUE(single.open(dir.file("single.bam"), header, header.text()));
    tesk::interop::for_each_record(batch.records.view(), [&](RecordView record) {
        EXPECT_TRUE(single.write(record)) << single.error_message;
    });
    ASSERT_TRUE(single.close()) << single.error_message;
    EXPECT_TRUE(read_file(dir.file("single.bam")) == read_file(dir.file("whole1.bam")));
    EXPECT_TRUE(read_file(dir.file("single.bam.bai")) == read_file(dir.file("whole1.bam.bai")));
}

TEST(AlignmentWriter, Bam_WithoutReferencesAndRecords_IsAHeader) {
    Header const header;
    TempDir const dir;
    WriterOptions options;
    options.index = true;
    AlignmentWriter writer(options);
    ASSERT_TRUE(writer.open(dir.file("x.bam"), header, ""));
    ASSERT_TRUE(writer.close()) << writer.error_message;
    EXPECT_EQ(hex_text(inflate_bgzf(read_file(dir.file("x.bam")))),
              "42 41 4d 01 00 00 00 00 00 00 00 00");
    EXPECT_EQ(hex_text(read_file(dir.file("x.bam.bai"))),
              "42 41 49 01 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(AlignmentWriter, Sam_BatchWithLines_IsWrittenAsItStands) {
    Header const header = header_of(HEADER_TEXT);
    WriterOptions options;
    options.format = Format::SAM;
    options.index = true;  // means nothing here
    TempDir const dir;
    AlignmentWriter writer(options);
    ASSERT_TRUE(writer.open(dir.file("x.sam"), header, header.text()));
    RecordBatch batch;
    fill(batch, {line_at("chr1", 5).field("XX:i:+1").text()}, true);
    ASSERT_TRUE(writer.write(batch));
    ASSERT_TRUE(writer.close());
    EXPECT_EQ(read_file(dir.file("x.sam")),
              HEADER_TEXT + line_at("chr1", 5).field("XX:i:+1").text() + '\n');
    EXPECT_FALSE(std::filesystem::exists(dir.file("x.sam.bai")));
}

TEST(AlignmentWriter, Sam_BatchWithoutLines_IsRendered) {
    Header const header = header_of(HEADER_TEXT);
    // More than is gathered at a time.
    Lines lines;
    for (int i = 0; i < 4; ++i) {
        for (std::string const& line : many_lines()) lines.push_back(line);
    }
    lines.push_back(line_at("*", 0).with(FLAG, "4").with(CIGAR, "*").text());
    WriterOptions options;
    options.format = Format::SAM;
    TempDir const dir;
    AlignmentWriter writer(options);
    ASSERT_TRUE(writer.open(dir.file("x.sam"), header, header.text()));
    RecordBatch batch;
    fill(batch, lines);
    ASSERT_TRUE(writer.write(batch));
    // Rendered, ready and rendered ones stay in order.
    std::string const single = line_at("chr2", 7).text();
    std::string const single_bytes = encode_bam_record(single, REFERENCES);
    ASSERT_TRUE(writer.write(RecordView(single_bytes.data())));
    fill(batch, {line_at("chr2", 8).text()}, true);
    ASSERT_TRUE(writer.write(batch));
    ASSERT_TRUE(writer.write(RecordView(single_bytes.data())));
    ASSERT_TRUE(writer.close());
    EXPECT_TRUE(read_file(dir.file("x.sam")) == HEADER_TEXT + joined(lines) + single + '\n' +
                                                    line_at("chr2", 8).text() + '\n' + single +
                                                    '\n');
}

// --- Handlers ----------------------------------------------------------------

Handler handler_of(Lines const& lines) {
    Handler handler;
    EXPECT_TRUE(handler.add_header_lines(HEADER_TEXT));
    for (std::string const& line : lines) EXPECT_TRUE(handler.add_alignment_sam(line));
    return handler;
}

TEST(AlignmentWriter, Handler_AsBam_GivesItsRecords) {
    Header const header = header_of(HEADER_TEXT);
    Lines const lines = many_lines();
    TempDir const dir;
    AlignmentWriter writer;
    ASSERT_TRUE(writer.open(dir.file("x.bam"), header, header.text()));
    ASSERT_TRUE(writer.write(handler_of(lines))) << writer.error_message;
    ASSERT_TRUE(writer.write(Handler()));
    ASSERT_TRUE(writer.close());
    EXPECT_TRUE(inflate_bgzf(read_file(dir.file("x.bam"))) == expected_payload(lines));
}

TEST(AlignmentWriter, Handler_AsSam_GivesItsLines) {
    Header const header = header_of(HEADER_TEXT);
    WriterOptions options;
    options.format = Format::SAM;
    Handler handler = handler_of({line_at("chr1", 1).text(), line_at("chr1", 2).text()});
    handler.records[1].sam_line = "as it stands";
    TempDir const dir;
    AlignmentWriter writer(options);
    ASSERT_TRUE(writer.open(dir.file("x.sam"), header, header.text()));
    ASSERT_TRUE(writer.write(handler));
    ASSERT_TRUE(writer.close());
    EXPECT_EQ(read_file(dir.file("x.sam")),
              HEADER_TEXT + line_at("chr1", 1).text() + "\nas it stands\n");
}

// What writing a batch of one record, then this handler, fails with; PATH stands
// for the file's path.
std::string handler_error(Handler const& handler) {
    Header const header = header_of(HEADER_TEXT);
    TempDir const dir;
    std::string const path = dir.file("x.bam");
    AlignmentWriter writer;
    EXPECT_TRUE(writer.open(path, header, header.text()));
    RecordBatch batch;
    fill(batch, {line_at("chr1", 1).text()});
    EXPECT_TRUE(writer.write(batch));
    EXPECT_FALSE(writer.write(handler));
    std::string const message = writer.error_message;
    writer.error_message.clear();
    EXPECT_FALSE(writer.close());
    EXPECT_EQ(writer.error_message, message);
    std::string rest = message;
    if (rest.rfind(path, 0) == 0) rest.replace(0, path.size(), "PATH");
    return rest;
}

TEST(AlignmentWriter, Handler_FieldThatTheLibraryCannotEncode_FailsWithTheRecord) {
    Handler handler = handler_of({line_at("chr1", 1).text(), line_at("chr1", 2).text()});
    handler.records[1].aux_data.push_back({"XS", 's', std::int16_t{5}});
    EXPECT_EQ(handler_error(handler), "PATH: record 3: Hit end of BAM buffer while writing data");
}

TEST(AlignmentWriter, Handler_ValueOfAnotherType_FailsWithTheRecord) {
    Handler handler = handler_of({line_at("chr1", 1).text()});
    handler.records[0].aux_data.push_back({"XI", 'i', std::string("5")});
    EXPECT_EQ(handler_error(handler).rfind("PATH: record 2: ", 0), 0U) << handler_error(handler);
}

TEST(AlignmentWriter, Handler_RecordThatNobodyCouldRead_IsRefused) {
    struct Case {
        char const* label;
        void (*damage)(Handler::BamRecord&);
        char const* column;
    };
    Case const cases[] = {
        {"name longer than its length field",
         [](Handler::BamRecord& r) { r.read_name.assign(300, 'r'); }, "QNAME"},
        {"reference that is not there", [](Handler::BamRecord& r) { r.refID = 2; }, "RNAME"},
        {"fewer qualities than bases", [](Handler::BamRecord& r) { r.qual.pop_back(); }, ""},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        Handler handler = handler_of({line_at("chr1", 1).text()});
        c.damage(handler.records[0]);
        std::string const expected =
            std::string("PATH: record 2") + (*c.column == '\0' ? "" : ", column ") + c.column;
        EXPECT_EQ(handler_error(handler).substr(0, expected.size()), expected)
            << handler_error(handler);
    }
}

// --- Descriptors -------------------------------------------------------------

TEST(AlignmentWriter, Descriptor_OfTheCaller_StaysOpen) {
    Header const header = header_of(HEADER_TEXT);
    TempDir const dir;
    OpenFile const file(dir.file("x.bam"));
    WriterOptions options;
    options.index = true;
    AlignmentWriter writer(options);
    ASSERT_TRUE(writer.open(file.fd(), dir.file("other.bam"), header, header.text()));
    RecordBatch batch;
    fill(batch, {line_at("chr1", 5).text()});
    ASSERT_TRUE(writer.write(batch));
    ASSERT_TRUE(writer.close()) << writer.error_message;
    EXPECT_NE(fcntl(file.fd(), F_GETFD), -1);
    EXPECT_EQ(inflate_bgzf(read_file(dir.file("x.bam"))),
              expected_payload({line_at("chr1", 5).text()}));
    EXPECT_FALSE(std::filesystem::exists(dir.file("other.bam")));
    EXPECT_TRUE(std::filesystem::exists(dir.file("other.bam.bai")));
}

TEST(AlignmentWriter, Descriptor_OfItsOwn_IsClosed) {
    Header const header = header_of(HEADER_TEXT);
    TempDir const dir;
    auto const before = n_open_files();
    AlignmentWriter writer;
    ASSERT_TRUE(writer.open(dir.file("x.bam"), header, header.text()));
    EXPECT_EQ(n_open_files(), before + 1);
    ASSERT_TRUE(writer.close());
    EXPECT_EQ(n_open_files(), before);
    {
        AlignmentWriter left;
        ASSERT_TRUE(left.open(dir.file("y.bam"), header, header.text()));
    }
    EXPECT_EQ(n_open_files(), before);
    EXPECT_EQ(read_file(dir.file("y.bam")), "");
}

TEST(AlignmentWriter, Calls_WithoutAFile_Fail) {
    AlignmentWriter writer;
    EXPECT_FALSE(writer.write(RecordBatch()));
    EXPECT_EQ(writer.error_message, "cannot write: no file is open");
    EXPECT_FALSE(writer.write(Handler()));
    EXPECT_FALSE(writer.close());
}

// --- Failures of the system --------------------------------------------------

TEST(AlignmentWriter, Open_FileThatCannotBeMade_Fails) {
    Header const header = header_of(HEADER_TEXT);
    TempDir const dir;
    AlignmentWriter writer;
    EXPECT_FALSE(writer.open(dir.file("no/x.bam"), header, header.text()));
    EXPECT_EQ(writer.error_message,
              "cannot write to " + dir.file("no/x.bam") + ": No such file or directory");
    EXPECT_FALSE(writer.open(dir.path().string(), header, header.text()));
    EXPECT_EQ(writer.error_message, "cannot write to " + dir.path().string() + ": Is a directory");
    // The same writer is as good as new.
    EXPECT_TRUE(writer.open(dir.file("x.bam"), header, header.text()));
    EXPECT_TRUE(writer.close());
}

TEST(AlignmentWriter, Open_LevelThatIsNotThere_Fails) {
    Header const header = header_of(HEADER_TEXT);
    TempDir const dir;
    WriterOptions options;
    options.level = 13;
    AlignmentWriter writer(options);
    EXPECT_FALSE(writer.open(dir.file("x.bam"), header, header.text()));
    EXPECT_EQ(writer.error_message,
              "cannot write to " + dir.file("x.bam") + ": there is no compression level 13");
}

TEST(AlignmentWriter, Write_ToAFullDisk_Fails) {
    Header const header = header_of(HEADER_TEXT);
    RecordBatch batch;
    fill(batch, many_lines(), true);
    for (Format const format : {Format::BAM, Format::SAM}) {
        WriterOptions options;
        options.format = format;
        AlignmentWriter writer(options);
        ASSERT_TRUE(writer.open("/dev/full", header, header.text()));
        bool done = true;
        for (int i = 0; i < 40 && done; ++i) done = writer.write(batch);
        EXPECT_FALSE(done);
        EXPECT_EQ(writer.error_message, "cannot write to /dev/full: No space left on device");
        EXPECT_FALSE(writer.close());
    }
}

TEST(AlignmentWriter, Close_OnAFullDisk_Fails) {
    Header const header = header_of(HEADER_TEXT);
    for (Format const format : {Format::BAM, Format::SAM}) {
        WriterOptions options;
        options.format = format;
        AlignmentWriter writer(options);
        ASSERT_TRUE(writer.open("/dev/full", header, header.text()));
        EXPECT_FALSE(writer.close());
        EXPECT_EQ(writer.error_message, "cannot write to /dev/full: No space left on device");
    }
}

TEST(AlignmentWriter, Close_BeyondTheLargestFile_Fails) {
    Header const header = header_of(HEADER_TEXT);
    RecordBatch batch;
    fill(batch, many_lines(), true);
    for (Format const format : {Format::BAM, Format::SAM}) {
        TempDir const dir;
        WriterOptions options;
        options.format = format;
        AlignmentWriter writer(options);
        ASSERT_TRUE(writer.open(dir.file("x"), header, header.text()));
        {
            FileSizeLimit const limit(50000);
            ASSERT_TRUE(writer.write(batch));
            EXPECT_FALSE(writer.close());
        }
        EXPECT_EQ(writer.error_message, "cannot write to " + dir.file("x") + ": File too large");
    }
}

// What closing a file with an index fails with.
std::string close_error(std::string const& path) {
    Header const header = header_of(HEADER_TEXT);
    WriterOptions options;
    options.index = true;
    AlignmentWriter writer(options);
    EXPECT_TRUE(writer.open(path, header, header.text())) << writer.error_message;
    RecordBatch batch;
    fill(batch, many_lines());
    EXPECT_TRUE(writer.write(batch));
    EXPECT_FALSE(writer.close());
    return writer.error_message;
}

TEST(AlignmentWriter, Close_IndexOnAFullDisk_Fails) {
    TempDir const dir;
    std::filesystem::create_symlink("/dev/full", dir.file("x.bam.bai"));
    EXPECT_EQ(close_error(dir.file("x.bam")),
              "cannot write to " + dir.file("x.bam.bai") + ": not all of it could be written");
}

TEST(AlignmentWriter, Close_IndexThatCannotBeMade_Fails) {
    TempDir const dir;
    std::filesystem::create_directory(dir.file("x.bam.bai"));
    EXPECT_EQ(close_error(dir.file("x.bam")),
              "cannot write to " + dir.file("x.bam.bai") + ": Is a directory");
}

// --- Order and limits --------------------------------------------------------

// What writing these lines with an index fails with, less the path; empty for
// nothing.
std::string index_error(Lines const& lines) {
    Header const header = header_of(HEADER_TEXT);
    TempDir const dir;
    std::string const path = dir.file("x.bam");
    WriterOptions options;
    options.index = true;
    std::string messages[2];
    for (bool const one_by_one : {false, true}) {
        AlignmentWriter writer(options);
        EXPECT_TRUE(writer.open(path, header, header.text()));
        RecordBatch batch;
        bool done = true;
        if (one_by_one) {
            for (std::string const& line : lines) {
                fill(batch, {line});
                done = done && writer.write(batch);
            }
        } else {
            fill(batch, lines);
            done = writer.write(batch);
        }
        if (done) {
            EXPECT_TRUE(writer.close()) << writer.error_message;
        } else {
            EXPECT_FALSE(writer.close());
        }
        messages[one_by_one ? 1 : 0] = writer.error_message;
    }
    EXPECT_EQ(messages[0], messages[1]);
    if (messages[0].rfind(path + ": ", 0) == 0) messages[0].erase(0, path.size() + 2);
    return messages[0];
}

TEST(AlignmentWriter, Order_SortedRecords_AreTaken) {
    std::string const unplaced = line_at("*", 0).with(FLAG, "4").with(CIGAR, "*").text();
    std::string const unplaced_at_5 = line_at("*", 5).with(FLAG, "4").with(CIGAR, "*").text();
    std::string const without_pos = line_at("chr1", 0).with(FLAG, "4").with(CIGAR, "*").text();
    EXPECT_EQ(index_error({without_pos, line_at("chr1", 1).text(), line_at("chr1", 1).text(),
                           line_at("chr1", 2).text(), line_at("chr2", 1).text(), unplaced,
                           unplaced_at_5, unplaced}),
              "");
}

TEST(AlignmentWriter, Order_RecordsOutOfOrder_AreRefused) {
    constexpr char MESSAGE[] =
        "record late is out of order: an index needs records sorted by coordinate";
    std::string const unplaced = line_at("*", 0).with(FLAG, "4").with(CIGAR, "*").text();
    auto const late = [](std::string_view rname, std::int32_t pos) {
        return line_at(rname, pos).with(QNAME, "late").text();
    };
    EXPECT_EQ(index_error({line_at("chr1", 6).text(), late("chr1", 5)}), MESSAGE);
    EXPECT_EQ(index_error({line_at("chr2", 6).text(), late("chr1", 7)}), MESSAGE);
    EXPECT_EQ(index_error({unplaced, late("chr1", 7)}), MESSAGE);
    std::string const late_without_pos =
        line_at("chr1", 0).with(QNAME, "late").with(FLAG, "4").with(CIGAR, "*").text();
    EXPECT_EQ(index_error({line_at("chr1", 1).text(), late_without_pos}), MESSAGE);
}

TEST(AlignmentWriter, Order_BatchWithALateRecord_IsNotWrittenAtAll) {
    Header const header = header_of(HEADER_TEXT);
    TempDir const dir;
    WriterOptions options;
    options.index = true;
    options.level = 0;
    AlignmentWriter writer(options);
    ASSERT_TRUE(writer.open(dir.file("x.bam"), header, header.text()));
    Lines lines;
    for (int i = 0; i < 3; ++i) {  // more than is gathered before it is written
        for (std::string const& line : many_lines()) lines.push_back(line);
    }
    // The positions begin anew with the second round.
    RecordBatch batch;
    fill(batch, lines);
    ASSERT_GT(batch.records.size(), std::size_t{1} << 20);
    EXPECT_FALSE(writer.write(batch));
    EXPECT_EQ(writer.error_message, dir.file("x.bam") +
                                        ": record read0 is out of order: an index "
                                        "needs records sorted by coordinate");
    EXPECT_EQ(std::filesystem::file_size(dir.file("x.bam")), 0U);
}

TEST(AlignmentWriter, Order_WithoutIndex_DoesNotMatter) {
    Header const header = header_of(HEADER_TEXT);
    TempDir const dir;
    Lines const lines = {line_at("chr2", 6).text(), line_at("chr1", 5).text()};
    AlignmentWriter writer;
    ASSERT_TRUE(writer.open(dir.file("x.bam"), header, header.text()));
    RecordBatch batch;
    fill(batch, lines);
    EXPECT_TRUE(writer.write(batch));
    EXPECT_TRUE(writer.close());
    EXPECT_TRUE(inflate_bgzf(read_file(dir.file("x.bam"))) == expected_payload(lines));
}

constexpr std::int32_t LIMIT = 536870912;

TEST(AlignmentWriter, Limit_OfReferences_HoldsForAnIndexAlone) {
    struct Case {
        std::int32_t length;
        bool fits;
    };
    for (Case const& c : {Case{LIMIT - 1, true}, Case{LIMIT, true}, Case{LIMIT + 1, false}}) {
        SCOPED_TRACE(c.length);
        Header const header =
            header_of("@SQ\tSN:short\tLN:5\n@SQ\tSN:long\tLN:" + std::to_string(c.length) + '\n');
        TempDir const dir;
        std::string const path = dir.write("x.bam", "as before");
        WriterOptions options;
        options.index = true;
        AlignmentWriter writer(options);
        EXPECT_EQ(writer.open(path, header, header.text()), c.fits);
        if (!c.fits) {
            EXPECT_EQ(writer.error_message,
                      path + ": reference long has " + std::to_string(c.length) +
                          " bases; a BAI index cannot hold positions beyond 536870912");
            EXPECT_EQ(read_file(path), "as before");
        }
        AlignmentWriter without_index;
        EXPECT_TRUE(without_index.open(path, header, header.text()));
    }
}

TEST(AlignmentWriter, Limit_OfRecords_IsTheEndOfTheLastWindow) {
    struct Case {
        char const* label;
        std::int32_t pos_1based;
        char const* cigar;
        char const* message;
    };
    constexpr char BEYOND[] =
        "record far ends at 536870913; a BAI index cannot hold positions beyond 536870912";
    Case const cases[] = {
        {"one base before", LIMIT - 4, "4M", ""},
        {"at the end", LIMIT - 3, "4M", ""},
        {"one base beyond", LIMIT - 2, "4M", BEYOND},
        {"without CIGAR, one base before", LIMIT - 1, "*", ""},
        {"without CIGAR, at the end", LIMIT, "*", ""},
        {"without CIGAR, beyond", LIMIT + 1, "*", BEYOND},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const line =
            line_at("chr2", c.pos_1based).with(QNAME, "far").with(CIGAR, c.cigar).text();
        EXPECT_EQ(index_error({line_at("chr1", 1).text(), line}), c.message);
    }
    // Records without a reference are not in the index.
    EXPECT_EQ(index_error({line_at("*", LIMIT + 1).with(FLAG, "4").with(CIGAR, "*").text()}), "");
}

TEST(AlignmentWriter, LimitError_OfWhatIsThere_NamesTheReferenceFirst) {
    Header const fits = header_of("@SQ\tSN:a\tLN:536870912\n");
    Header const too_long = header_of("@SQ\tSN:a\tLN:1\n@SQ\tSN:b\tLN:2147483647\n");
    EXPECT_EQ(bai_limit_error("x.bam", fits, 0, ""), "");
    EXPECT_EQ(bai_limit_error("x.bam", fits, LIMIT, "r1"), "");
    EXPECT_EQ(bai_limit_error("x.bam", fits, std::int64_t{LIMIT} + 1, "r1"),
              "x.bam: record r1 ends at 536870913; a BAI index cannot hold positions beyond "
              "536870912");
    EXPECT_EQ(bai_limit_error("x.bam", too_long, std::int64_t{LIMIT} + 1, "r1"),
              "x.bam: reference b has 2147483647 bases; a BAI index cannot hold positions beyond "
              "536870912");
}

}  // namespace

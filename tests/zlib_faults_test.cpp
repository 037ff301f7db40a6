// What the BAM container does when zlib itself fails. The linker sends the
// library's calls of four zlib functions here (--wrap), where they can be told
// to fail.

#include "util/bam/bam_file.h"

#include <cstddef>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/temp_file.h"

namespace {

// Codes that the next calls return; without a code a call goes through.
struct Faults {
    std::optional<int> deflate_init;    // nothing is set up
    std::optional<int> deflate_before;  // deflate() does nothing
    std::optional<int> deflate_after;   // deflate() has done its work
    std::optional<int> deflate_end;     // the stream is freed all the same
    std::optional<int> inflate_init;    // nothing is set up
    int calls_to_pass = 0;              // deflateInit2 calls that succeed before
};

Faults faults;

// Faults that last as long as the object.
class FaultScope {
public:
    explicit FaultScope(Faults const& wanted) { faults = wanted; }
    ~FaultScope() { faults = Faults(); }
    FaultScope(FaultScope const&) = delete;
    FaultScope& operator=(FaultScope const&) = delete;
};

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker prescribes these names
extern "C" {

int __real_deflateInit2_(z_streamp stream, int level, int method, int window_bits, int mem_level,
                         int strategy, char const* version, int stream_size);
int __real_deflate(z_streamp stream, int flush);
int __real_deflateEnd(z_streamp stream);
int __real_inflateInit2_(z_streamp stream, int window_bits, char const* version, int stream_size);

int __wrap_deflateInit2_(z_streamp stream, int level, int method, int window_bits, int mem_level,
                         int strategy, char const* version, int stream_size) {
    bool const passes = faults.calls_to_pass-- > 0;
    if (faults.deflate_init && !passes) return *faults.deflate_init;
    return __real_deflateInit2_(stream, level, method, window_bits, mem_level, strategy, version,
                                stream_size);
}

int __wrap_deflate(z_streamp stream, int flush) {
    if (faults.deflate_before) return *faults.deflate_before;
    int const code = __real_deflate(stream, flush);
    return faults.deflate_after.value_or(code);
}

int __wrap_deflateEnd(z_streamp stream) {
    int const code = __real_deflateEnd(stream);
    return faults.deflate_end.value_or(code);
}

int __wrap_inflateInit2_(z_streamp stream, int window_bits, char const* version, int stream_size) {
    if (faults.inflate_init) return *faults.inflate_init;
    return __real_inflateInit2_(stream, window_bits, version, stream_size);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using namespace tesk::test;
using Handler = tesk::util::bam::BAMFileHandler;

std::vector<char> compress(Handler const& handler, std::string const& payload) {
    return handler.compress_data(payload.data(), static_cast<unsigned>(payload.size()));
}

TEST(ZlibFaults, CompressData_StreamCannotBeSetUp_GivesNothingAndMessage) {
    for (int const code : {Z_MEM_ERROR, Z_VERSION_ERROR, Z_STREAM_ERROR}) {
        SCOPED_TRACE(code);
        Handler handler;
        Faults wanted;
        wanted.deflate_init = code;
        FaultScope const scope(wanted);
        EXPECT_TRUE(compress(handler, "ACGT").empty());
        EXPECT_EQ(handler.error_message, "Could not initialize stream deflate");
    }
}

TEST(ZlibFaults, CompressData_DeflateFailsAtOnce_GivesNothingAndMessage) {
    struct {
        int code;
        char const* message;
    } const cases[] = {
        {Z_OK, "Deflate failed with error code 0"},
        {Z_STREAM_ERROR, "Deflate failed with error code -2"},
        {Z_BUF_ERROR, "Deflate failed with error code -5"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.message);
        Handler handler;
        Faults wanted;
        wanted.deflate_before = c.code;
        FaultScope const scope(wanted);
        EXPECT_TRUE(compress(handler, "ACGT").empty());
        EXPECT_EQ(handler.error_message, c.message);
    }
}

TEST(ZlibFaults, CompressData_DeflateFailsInTheEnd_GivesAsManyZeroBytesAsWereProduced) {
    std::string const payload(1000, 'A');
    Handler handler;
    std::size_t const produced = compress(handler, payload).size();
    ASSERT_GT(produced, 0U);
    Faults wanted;
    wanted.deflate_after = Z_STREAM_ERROR;
    FaultScope const scope(wanted);
    EXPECT_EQ(compress(handler, payload), std::vector<char>(produced, '\0'));
    EXPECT_EQ(handler.error_message, "Deflate failed with error code -2");
}

TEST(ZlibFaults, CompressData_DeflateEndFails_GivesAsManyZeroBytesAsWereProduced) {
    std::string const payload(1000, 'A');
    for (int const code : {Z_STREAM_ERROR, Z_DATA_ERROR}) {
        SCOPED_TRACE(code);
        Handler handler;
        std::size_t const produced = compress(handler, payload).size();
        Faults wanted;
        wanted.deflate_end = code;
        FaultScope const scope(wanted);
        EXPECT_EQ(compress(handler, payload), std::vector<char>(produced, '\0'));
        EXPECT_EQ(handler.error_message,
                  "Deflate end failed with error code " + std::to_string(code));
    }
}

TEST(ZlibFaults, CompressData_DeflateAndDeflateEndFail_ReportsTheLatter) {
    Handler handler;
    Faults wanted;
    wanted.deflate_after = Z_BUF_ERROR;
    wanted.deflate_end = Z_DATA_ERROR;
    FaultScope const scope(wanted);
    std::vector<char> const got = compress(handler, "ACGT");
    EXPECT_FALSE(got.empty());
    EXPECT_EQ(got, std::vector<char>(got.size(), '\0'));
    EXPECT_EQ(handler.error_message, "Deflate end failed with error code -3");
}

TEST(ZlibFaults, CompressData_AfterTheFault_WorksAgain) {
    Handler handler;
    std::vector<char> const expected = compress(handler, "ACGT");
    {
        Faults wanted;
        wanted.deflate_init = Z_MEM_ERROR;
        FaultScope const scope(wanted);
        EXPECT_TRUE(compress(handler, "ACGT").empty());
    }
    EXPECT_EQ(compress(handler, "ACGT"), expected);
}

TEST(ZlibFaults, DecompressData_StreamCannotBeSetUp_GivesNothingAndMessage) {
    Handler handler;
    std::string const stream("\x03\0", 2);
    Faults wanted;
    wanted.inflate_init = Z_MEM_ERROR;
    FaultScope const scope(wanted);
    for (unsigned const size : {0U, 4U}) {
        SCOPED_TRACE(size);
        handler.error_message.clear();
        EXPECT_TRUE(handler.decompress_data(stream.data(), 2, size).empty());
        EXPECT_EQ(handler.error_message, "Could not initialize stream inflate");
    }
}

TEST(ZlibFaults, ReadFile_InflateCannotBeSetUp_ReportsTheBlockAndReadsLater) {
    TempDir const dir;
    std::string const file = bgzf_blocks(encode_bam_header("", {{"chr1", 1}})) + bgzf_eof_block();
    std::string const path = dir.write("in.bam", file);
    Handler handler;
    {
        Faults wanted;
        wanted.inflate_init = Z_MEM_ERROR;
        FaultScope const scope(wanted);
        EXPECT_FALSE(handler.read_from_bam_file(path));
        EXPECT_EQ(handler.error_message, "BGZF block did not unzip correctly in file " + path +
                                             " : Could not initialize stream inflate");
        EXPECT_EQ(handler.file_name, "");
    }
    EXPECT_TRUE(handler.read_from_bam_file(path)) << handler.error_message;
    EXPECT_EQ(handler.references.size(), 1U);
}

TEST(ZlibFaults, WriteFile_DeflateCannotBeSetUp_Fails) {
    for (bool const with_record : {false, true}) {
        SCOPED_TRACE(with_record);
        TempDir const dir;
        std::string const path = dir.file("out.bam");
        Handler handler;
        if (with_record) {
            ASSERT_TRUE(handler.add_alignment_sam("r1\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*"));
        }
        {
            Faults wanted;
            wanted.deflate_init = Z_MEM_ERROR;
            FaultScope const scope(wanted);
            for (bool const write_index : {false, true}) {
                EXPECT_FALSE(handler.write_to_bam_file(path, write_index));
                EXPECT_EQ(handler.error_message,
                          "BGZF writing failed: Could not initialize stream deflate");
                EXPECT_EQ(handler.file_name, "");
            }
        }
        EXPECT_TRUE(handler.write_to_bam_file(path, false)) << handler.error_message;
        EXPECT_EQ(inflate_bgzf(read_file(path)).substr(0, 4), "BAM\x01");
    }
}

TEST(ZlibFaults, WriteFile_RecordThatNeedsANewStream_FailsToo) {
    // 65,536 bytes that do not fit leave a stream that has to be set up again.
    // The record is no more than its qualities: only their bytes matter.
    TempDir const dir;
    Handler handler;
    Handler::BamRecord record;
    record.refID = record.next_refID = -1;
    unsigned state = 1;
    for (int i = 0; i < 70000; ++i) {
        state = state * 1664525U + 1013904223U;
        record.qual.push_back(static_cast<char>(state >> 24U));
    }
    handler.records = {record};
    Faults wanted;
    wanted.deflate_init = Z_MEM_ERROR;
    wanted.calls_to_pass = 1;
    FaultScope const scope(wanted);
    EXPECT_FALSE(handler.write_to_bam_file(dir.file("out.bam"), false));
    EXPECT_EQ(handler.error_message, "BGZF writing failed: Could not initialize stream deflate");
    EXPECT_EQ(handler.file_name, "");
}

TEST(ZlibFaults, WriteBlocks_DeflateCannotBeSetUp_StillReturnsTrue) {
    TempDir const dir;
    Handler handler;
    std::ofstream out(dir.file("blocks"), std::ios::binary);
    unsigned long block_offset = 0;
    unsigned long end_offset = 0;
    Faults wanted;
    wanted.deflate_init = Z_MEM_ERROR;
    FaultScope const scope(wanted);
    EXPECT_TRUE(handler.write_BGZF_blocks_to_BAM(out, {'A', 'C'}, block_offset, end_offset));
    EXPECT_EQ(handler.error_message, "Could not initialize stream deflate");
}

}  // namespace

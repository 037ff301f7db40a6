// BGZF blocks. The handler reads a series of them as an independent reader does, up to
// the first that is damaged, and so does interop; bytes that are taken as a deflate
// stream inflate to what zlib makes of them; bytes that are packed unpack to themselves.

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/alignments.h"
#include "fuzz/blocks.h"
#include "fuzz/target.h"
#include "interop/byte_buffer.h"
#include "interop/input_stream.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/temp_file.h"

namespace {

using tesk::fuzz::BAMFileHandler;
using tesk::fuzz::require;
using tesk::fuzz::require_same;

void check_blocks(std::string_view file, std::string const& path) {
    tesk::fuzz::Blocks const expected = tesk::fuzz::read_blocks(file);
    BAMFileHandler handler;
    std::ifstream in(path, std::ios::binary);
    std::vector<char> payloads;
    std::size_t n = 0;
    while (n < expected.n) {
        require(handler.read_BGZF_block_from_BAM(in, payloads), handler.error_message);
        ++n;
    }
    require_same(expected.payloads, {payloads.data(), payloads.size()}, "payloads are the same");
    require(!handler.read_BGZF_block_from_BAM(in, payloads), "nothing is read behind them");
    require(payloads.size() == expected.payloads.size(), "a refused block leaves nothing");

    if (!expected.whole || !expected.sound || expected.n == 0) return;
    tesk::interop::InputStream stream;
    require(stream.open(path), stream.error_message);
    std::string joined;
    tesk::interop::ByteBuffer piece;
    do {
        joined.append(piece.data(), piece.size());
        piece.clear();
        require(stream.read(piece), stream.error_message);
    } while (piece.size() != 0);
    require_same(expected.payloads, joined, "interop reads the same");
}

// The size that is asked for stands in front of the stream.
void check_stream(std::string_view bytes) {
    if (bytes.size() < 2) return;
    std::size_t const size = static_cast<unsigned char>(bytes[0]) +
                             std::size_t{256} * static_cast<unsigned char>(bytes[1]);
    std::string const stream(bytes.substr(2));
    std::optional<std::string> const expected = tesk::fuzz::inflated(stream);
    BAMFileHandler handler;
    auto const inflate_to = [&](std::size_t n) {
        std::vector<char> const found = handler.decompress_data(
            stream.data(), static_cast<unsigned>(stream.size()), static_cast<unsigned>(n));
        return std::string(found.begin(), found.end());
    };
    require_same(expected && size == expected->size() ? *expected : "", inflate_to(size),
                 "a stream yields all that is asked for, or nothing");
    if (!expected) return;
    require_same(*expected, inflate_to(expected->size()), "a stream yields what zlib makes of it");
}

void check_packing(std::string_view bytes, std::string const& path) {
    BAMFileHandler handler;
    std::vector<char> const payload(bytes.begin(), bytes.end());
    unsigned long block_offset = 0;
    unsigned long end_offset = 0;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    require(handler.write_BGZF_blocks_to_BAM(out, payload, block_offset, end_offset),
            handler.error_message);
    out.close();
    std::string const file = tesk::test::read_file(path);
    require_same({bytes.data(), bytes.size()}, tesk::test::inflate_bgzf(file),
                 "bytes that are packed unpack to themselves");
    require(end_offset == std::uint64_t{file.size()} << 16, "the end is that of the file");
    require(handler.bytes_written == file.size(), "written bytes are counted");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const bytes(reinterpret_cast<char const*>(data), size);
    std::string const path = tesk::fuzz::scratch_path("blocks");
    tesk::test::write_file(path, bytes);
    check_blocks(bytes, path);
    check_stream(bytes);
    check_packing(bytes, path);
    return 0;
}

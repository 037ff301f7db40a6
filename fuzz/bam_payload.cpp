// The inflated bytes of a BAM file, which the target puts into valid blocks, so that
// changes reach the records. What is read gives the same SAM text after it was written
// and read again, and the right index; and blocks of any size give the same.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/alignments.h"
#include "fuzz/target.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/temp_file.h"

namespace {

using tesk::fuzz::BAMFileHandler;
using tesk::fuzz::Reading;

Reading read_blocks(BAMFileHandler& handler, std::string_view payload, std::size_t block_size) {
    std::string const path = tesk::fuzz::scratch_path("payload.bam");
    tesk::test::write_file(
        path, tesk::test::bgzf_blocks(payload, block_size) + tesk::test::bgzf_eof_block());
    return tesk::fuzz::read_bam(handler, path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const payload(reinterpret_cast<char const*>(data), size);
    BAMFileHandler small_blocks;
    Reading const small = read_blocks(small_blocks, payload, 100);
    BAMFileHandler handler;
    Reading const reading = read_blocks(handler, payload, 65280);
    tesk::fuzz::require_same(reading.fault, small.fault, "blocks of any size fail alike");
    tesk::fuzz::require_same(tesk::fuzz::lines_of(handler), tesk::fuzz::lines_of(small_blocks),
                             "blocks of any size give the same");
    if (reading.done) tesk::fuzz::check_written(handler, 0);
    return 0;
}

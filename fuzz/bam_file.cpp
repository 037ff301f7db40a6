// The bytes of a BAM file as they are. A file that is read consists of whole blocks, gives the same SAM text after it was written and read
// again, and the right index.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/alignments.h"
#include "fuzz/blocks.h"
#include "fuzz/target.h"
#include "tests/support/temp_file.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const path = tesk::fuzz::scratch_path("file.bam");
    std::string_view const bytes(reinterpret_cast<char const*>(data), size);
    tesk::test::write_file(path, bytes);
    tesk::fuzz::BAMFileHandler handler;
    if (!tesk::fuzz::read_bam(handler, path).done) return 0;
    tesk::fuzz::Blocks const blocks = tesk::fuzz::read_blocks(bytes);
    tesk::fuzz::require(blocks.whole, "what is read consists of whole blocks");
    tesk::fuzz::require_same("BAM\x01", blocks.payloads.substr(0, 4), "the magic word comes first");
    tesk::fuzz::check_written(handler, 0);
    return 0;
}

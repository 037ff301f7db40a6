// The inflated bytes of a BAM file, which the target puts into valid blocks, so that
// changes reach the records. What is read gives the same SAM text after it was written
// and read again; and blocks of any size give the same.

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "fuzz/target.h"
#include "tests/support/bam_walker.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::util::bam::BAMFileHandler;

constexpr std::size_t MAX_NAME_BYTES = 254;

std::string scratch_path(char const* name) {
    return "/tmp/tesk_bam_fuzz_" + std::to_string(getpid()) + name;
}

// What reading gives: the lines, or why not.
struct Reading {
    bool done = false;
    std::string fault;
    std::string lines;
};

Reading read(BAMFileHandler& handler, std::string const& path) {
    Reading reading;
    try {
        reading.done = handler.read_from_bam_file(path);
        if (!reading.done) reading.fault = handler.error_message;
    } catch (boost::bad_any_cast const& fault) {
        reading.fault = fault.what();  // an array of floats
    } catch (std::logic_error const& fault) {
        reading.fault = fault.what();  // numbers of header values, fewer bases than l_seq
    }
    for (auto const& record : handler.records) reading.lines += record.sam_line + '\n';
    return reading;
}

Reading read_blocks(BAMFileHandler& handler, std::string_view payload, std::size_t block_size) {
    std::string const path = scratch_path(".bam");
    std::ofstream(path, std::ios::binary)
        << tesk::test::bgzf_blocks(payload, block_size) << tesk::test::bgzf_eof_block();
    return read(handler, path);
}

// Whether the writer has a form for all names.
bool can_be_written(BAMFileHandler const& handler) {
    for (auto const& record : handler.records) {
        if (record.read_name.size() > MAX_NAME_BYTES) return false;
    }
    return true;
}

void check_written(BAMFileHandler& handler, std::string const& lines) {
    std::string const path = scratch_path(".again.bam");
    try {
        tesk::fuzz::require(handler.write_to_bam_file(path, false), handler.error_message);
    } catch (std::runtime_error const&) {
        return;  // an integer of 16 bits
    }
    BAMFileHandler again;
    Reading const reading = read(again, path);
    tesk::fuzz::require(reading.done, reading.fault);
    tesk::fuzz::require_same(lines, reading.lines, "records are the same when read again");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const payload(reinterpret_cast<char const*>(data), size);
    BAMFileHandler handler;
    Reading const small = read_blocks(handler, payload, 100);
    Reading const reading = read_blocks(handler, payload, 65280);
    tesk::fuzz::require_same(reading.fault, small.fault, "blocks of any size fail alike");
    tesk::fuzz::require_same(reading.lines, small.lines, "blocks of any size give the same");
    if (reading.done && can_be_written(handler)) check_written(handler, reading.lines);
    return 0;
}

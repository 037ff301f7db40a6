// A SAM line. The handler reads it as a plain reader with streams does; and a record
// that can be rendered renders the same after a way through its BAM bytes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/alignments.h"
#include "fuzz/target.h"
#include "tests/support/plain_sam_reader.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::fuzz::BAMFileHandler;
using BamRecord = BAMFileHandler::BamRecord;

// More than a short list, one name twice.
std::vector<std::string> reference_names() {
    std::vector<std::string> names = {"chr1", "chr2", "x", "12", "chr1"};
    for (int i = 0; i < 20; ++i) names.push_back("contig" + std::to_string(i));
    return names;
}

BAMFileHandler handler_with_references() {
    BAMFileHandler handler;
    for (std::string const& name : reference_names()) handler.references.push_back({name, 1000});
    return handler;
}

void check_way_through_bam(std::string const& line) {
    static BAMFileHandler handler = handler_with_references();
    BamRecord record;
    try {
        if (!handler.parse_sam_line_to_bam_record(line, record)) return;
    } catch (std::exception const&) {
        return;  // compared with the plain reading
    }
    if (!tesk::fuzz::has_bam_form(record) || !tesk::fuzz::render(handler, record)) return;
    std::vector<char> bytes;
    tesk::fuzz::require(handler.serialise_bam_record_to_buffer(record, bytes),
                        handler.error_message);
    BAMFileHandler::BamBuffer buffer{bytes.data(), bytes.size()};
    handler.records.clear();
    tesk::fuzz::require(handler.extract_alignment_from_buffer(buffer), handler.error_message);
    tesk::fuzz::require(buffer.pos == bytes.size(), "the whole record is read");
    tesk::fuzz::require_same(record.sam_line, handler.records.at(0).sam_line,
                             "a line is the same after a way through BAM");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static tesk::test::SamReadings readings(reference_names());
    std::string const line(reinterpret_cast<char const*>(data), size);
    bool has_columns = false;
    std::string const plain = readings.read_by_stream(line, has_columns).text;
    tesk::fuzz::require_same(plain, readings.read_by_handler(line, has_columns).text,
                             "a line is read as with streams");
    check_way_through_bam(line);
    return 0;
}

// A file of any kind for the reader that takes what others write. Bytes that begin as
// inflated BAM are put into blocks. What is accepted is the same in batches of any size;
// written as BAM and read again it is the same, to the byte, and needs no repair; written
// as SAM it gives the same lines each time.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/alignments.h"
#include "fuzz/target.h"
#include "interop/alignment_reader.h"
#include "interop/alignment_writer.h"
#include "interop/report.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/temp_file.h"

namespace {

using tesk::fuzz::require;
using tesk::fuzz::require_same;
using tesk::fuzz::scratch_path;
using tesk::interop::AlignmentReader;
using tesk::interop::AlignmentWriter;
using tesk::interop::Format;
using tesk::interop::ReaderOptions;
using tesk::interop::RecordBatch;
using tesk::interop::Repair;
using tesk::interop::Report;

struct Contents {
    bool done = false;
    std::string fault;
    std::string header;
    std::string records;  // encoded
    std::string report;   // repairs and warnings
    std::uint64_t n_repairs = 0;
    std::size_t n_records = 0;
};

// Arrays of floats stay what they are.
std::uint64_t n_repairs_of(Report const& report) {
    std::uint64_t n = 0;
    for (std::size_t i = 0; i < tesk::interop::N_REPAIRS; ++i) {
        auto const repair = static_cast<Repair>(i);
        if (repair != Repair::FLOAT_ARRAY) n += report.of(repair).count;
    }
    return n;
}

// Reads a file; writes what is read to another where there is a writer.
Contents read(std::string const& path, ReaderOptions const& options, AlignmentWriter* writer,
              std::string const& out) {
    Contents contents;
    AlignmentReader reader(options);
    auto const fail = [&] {
        contents.fault = reader.error_message;
        return contents;
    };
    if (!reader.open(path)) return fail();
    contents.header = reader.header().text();
    if (writer != nullptr) {
        require(writer->open(out, reader.header(), contents.header), writer->error_message);
    }
    RecordBatch batch;
    do {
        bool const done = reader.read_batch(batch);
        contents.records += batch.records.view();
        contents.n_records += batch.n_records;
        if (!done) return fail();
        if (writer != nullptr) require(writer->write(batch), writer->error_message);
    } while (batch.n_records != 0);
    if (writer != nullptr) require(writer->close(), writer->error_message);
    for (std::string const& line : reader.report().lines()) contents.report += line + '\n';
    contents.n_repairs = n_repairs_of(reader.report());
    contents.done = true;
    return contents;
}

Contents read(std::string const& path, ReaderOptions const& options = {}) {
    return read(path, options, nullptr, "");
}

void copy(std::string const& in, Format format, std::string const& out) {
    tesk::interop::WriterOptions options;
    options.format = format;
    options.level = 1;
    AlignmentWriter writer(options);
    Contents const contents = read(in, {}, &writer, out);
    require(contents.done, "a file is read again: " + contents.fault);
}

void check_batches(std::string const& path, Contents const& contents) {
    ReaderOptions one_by_one;
    one_by_one.batch_records = 1;
    Contents const again = read(path, one_by_one);
    require_same(contents.fault, again.fault, "batches of any size fail alike");
    require_same(contents.records, again.records, "batches of any size hold the same");
    require_same(contents.report, again.report, "batches of any size are repaired alike");
}

void check_bam(std::string const& path, Contents const& contents) {
    std::string const bam = scratch_path("copy.bam");
    copy(path, Format::BAM, bam);
    Contents const again = read(bam);
    require(again.done, "BAM that was written is read: " + again.fault);
    require_same(contents.header, again.header, "a header comes back from BAM");
    require_same(contents.records, again.records, "records come back from BAM");
    require(again.n_repairs == 0, "BAM that was written needs no repair: " + again.report);
}

// Text does not say how wide an integer is, so that lines are compared, not bytes.
void check_sam(std::string const& path, Contents const& contents) {
    std::string const sam = scratch_path("copy.sam");
    std::string const sam_again = scratch_path("copy_again.sam");
    copy(path, Format::SAM, sam);
    Contents const again = read(sam);
    require(again.done, "SAM that was written is read: " + again.fault);
    require(again.n_records == contents.n_records, "no record is lost in SAM");
    require_same(contents.header, again.header, "a header comes back from SAM");
    copy(sam, Format::SAM, sam_again);
    require_same(tesk::test::read_file(sam), tesk::test::read_file(sam_again),
                 "lines come back from SAM");
}

// A handler takes what the reader accepts.
void check_handler(std::string const& path, Contents const& contents) {
    AlignmentReader reader;
    require(reader.open(path), reader.error_message);
    tesk::fuzz::BAMFileHandler handler;
    std::size_t n_records = 0;
    do {
        require(reader.read_batch(handler), reader.error_message);
        n_records += handler.records.size();
    } while (!handler.records.empty());
    require(n_records == contents.n_records, "a handler gets every record");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const bytes(reinterpret_cast<char const*>(data), size);
    bool const is_payload = bytes.substr(0, 4) == "BAM\x01";
    std::string const path = scratch_path("any");
    tesk::test::write_file(path, is_payload
                                     ? tesk::test::bgzf_blocks(bytes) + tesk::test::bgzf_eof_block()
                                     : std::string(bytes));
    Contents const contents = read(path);
    check_batches(path, contents);
    if (!contents.done) return 0;
    check_bam(path, contents);
    check_sam(path, contents);
    check_handler(path, contents);
    return 0;
}

#include "fuzz/imported_reads.h"

#include <filesystem>

#include "fuzz/alignments.h"
#include "fuzz/target.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/temp_file.h"
#include "tools/tool_error.h"

namespace tesk::fuzz {

namespace {

tool::ReadsOptions options_for(std::string_view input, std::string const& out, bool exact) {
    tool::ReadsOptions options;
    options.in = scratch_path("reads");
    tesk::test::write_file(options.in, input);
    options.out = scratch_path(out);
    std::filesystem::remove(options.out);
    options.quiet = true;
    options.exact = exact;
    options.packing.level = exact ? 6 : 1;
    return options;
}

}  // namespace

Imported import_as_sam(std::string_view input, bool exact, ImportCommand const& command) {
    tool::ReadsOptions const options = options_for(input, "reads.sam", exact);
    Imported imported;
    try {
        command(options);
    } catch (tool::ToolError const& fault) {
        require(!std::filesystem::exists(options.out), "a refused input leaves no file");
        imported.fault = fault.what();
        return imported;
    }
    imported.done = true;
    std::string const text = tesk::test::read_file(options.out);
    std::string const header = tool::READS_HEADER;
    require_same(header, text.substr(0, header.size()), "the header comes first");
    imported.lines = tesk::test::split_sam(text).alignments;
    return imported;
}

Imported import_both_ways(std::string_view input, ImportCommand const& command) {
    Imported const exact = import_as_sam(input, true, command);
    if (!exact.done) return exact;
    Imported const ordinary = import_as_sam(input, false, command);
    // Only the ordinary way minds a sequence that SAM takes for none.
    if (!ordinary.done) return ordinary;
    require(exact.lines == ordinary.lines, "both ways give the same lines");

    tool::ReadsOptions const options = options_for(input, "reads.bam", false);
    command(options);
    BAMFileHandler handler;
    Reading const reading = read_bam(handler, options.out);
    require(reading.done, "the BAM file is read: " + reading.fault);
    require(handler.records.size() == exact.lines.size(), "BAM holds every record");
    return exact;
}

bool is_gzip(std::string_view input) { return input.substr(0, 2) == "\x1f\x8b"; }

std::string unmapped_columns(std::string_view name, std::string_view sequence,
                             std::string_view qualities) {
    std::string line(name);
    line += "\t4\t*\t0\t0\t*\t*\t0\t" + std::to_string(sequence.size()) + '\t';
    line.append(sequence) += '\t';
    return line.append(qualities);
}

}  // namespace tesk::fuzz

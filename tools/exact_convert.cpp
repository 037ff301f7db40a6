#include "tools/exact_convert.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

#include "tools/index_check.h"
#include "tools/load.h"
#include "tools/message.h"
#include "tools/notes.h"
#include "tools/output_file.h"
#include "tools/progress.h"
#include "tools/store.h"
#include "tools/text_sink.h"
#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

using util::bam::BAMFileHandler;
using BamRecord = BAMFileHandler::BamRecord;

namespace {

// The options with everything settled that they leave open.
struct Plan {
    std::string in;
    std::string out;
    FileKind from;
    FileKind to;
    bool to_standard_output;
    bool sort;
    bool index;
    bool quiet;
};

Plan plan_of(ConvertOptions const& options) {
    refuse_standard_input(options.in);
    Plan plan = {options.in,
                 options.out,
                 kind_of(options.in, options.from, "--from"),
                 exact_kind_of_output(options.out, options.to),
                 options.out == "-",
                 options.sort || options.index,
                 options.index,
                 options.quiet};
    if (plan.index && plan.to == FileKind::SAM) {
        throw UsageError("--index goes with BAM output only");
    }
    return plan;
}

std::string count_of_records(BAMFileHandler const& alignments) {
    return std::to_string(alignments.records.size()) + " records";
}

void sort_records(BAMFileHandler& alignments, Progress& progress) {
    progress.stage("sorting " + count_of_records(alignments));
    alignments.sort();
}

// --- BAM input ---------------------------------------------------------------

// The header text of a BAM file may leave out what its reference list says; SAM
// text, and so every output, needs the @SQ lines.
void complete_header(std::string const& in, BAMFileHandler& alignments, std::size_t n_references) {
    if (alignments.references.size() != n_references || n_references == 0) return;
    std::string lines;
    for (BAMFileHandler::RefSeq const& reference : alignments.references) {
        lines += "@SQ\tSN:" + reference.name + "\tLN:" + std::to_string(reference.length) + "\n";
    }
    call_library(alignments, in, [&] { return alignments.add_header_lines(lines); });
    check_same_references(in, alignments, n_references);  // white space would cut a name short
}

// BAM holds any bytes as text; a SAM line ends at the first line break, and a
// tab starts its next field.
void check_lines(std::string const& in, BAMFileHandler const& alignments) {
    constexpr std::ptrdiff_t N_COLUMNS = 11;
    for (std::size_t i = 0; i < alignments.records.size(); ++i) {
        BamRecord const& record = alignments.records[i];
        auto const n_fields = N_COLUMNS + static_cast<std::ptrdiff_t>(record.aux_data.size());
        std::string const& line = record.sam_line;
        bool const broken = line.find('\n') != std::string::npos ||
                            std::count(line.begin(), line.end(), '\t') >= n_fields;
        if (!broken) continue;
        throw ToolError(in + ": record " + std::to_string(i + 1) +
                        " holds a tab or a line break in a text, which SAM cannot hold");
    }
}

// What identifies and places a record; the way through SAM text must not change
// it.
auto place_of(BamRecord const& record) {
    return std::tie(record.read_name, record.flag, record.refID, record.pos, record.next_refID,
                    record.next_pos, record.tlen, record.l_seq);
}

void take_over(BAMFileHandler& target, std::string const& in, std::size_t number,
               BamRecord source) {
    auto const name = [&] { return in + ": record " + std::to_string(number); };
    add_line(target, std::move(source.sam_line), name);
    if (place_of(target.records.back()) == place_of(source)) return;
    throw ToolError(
        name() + " does not survive the way through SAM text: " + target.records.back().sam_line);
}

// A handler filled from SAM text alone. Written by it, a BAM file lists each
// reference once, and integers have a width that the BAM writer takes: neither
// holds for a handler filled from BAM. The source's records go as they are
// taken over, so that memory holds each only once; as they keep their order, what
// the source says of it holds for the target, too.
void refill_from_text(BAMFileHandler& source, std::string const& in, BAMFileHandler& target,
                      Progress& progress) {
    progress.stage("preparing " + count_of_records(source));
    call_library(target, in, [&] { return target.add_header_lines(source.header); });
    target.records.reserve(source.records.size());
    for (std::size_t i = 0; i < source.records.size(); ++i) {
        take_over(target, in, i + 1, std::exchange(source.records[i], BamRecord()));
    }
    target.has_sort_order = source.has_sort_order;
    source.reset();
}

// --- Output ------------------------------------------------------------------

// SAM output begins with the header as it was read; after sorting with one whose
// @HD line tells the new order.
std::string sam_header(BAMFileHandler const& alignments, bool sorted) {
    std::string header;
    if (sorted) {
        alignments.get_updated_header(header);
    } else {
        alignments.get_header(header);
    }
    return header;
}

void write_sam(BAMFileHandler const& alignments, bool sorted, TextSink sink) {
    sink.write(sam_header(alignments, sorted));
    unsigned long n_records = 0;
    alignments.get_num_alignments(n_records);
    std::string line;
    for (unsigned long i = 0; i < n_records; ++i) {
        if (!alignments.get_alignment_sam(i, line)) throw ToolError(alignments.error_message);
        line += '\n';
        sink.write(line);
    }
    sink.finish();
}

void write_file(BAMFileHandler& alignments, Plan const& plan, OutputFile& output,
                Progress& progress) {
    progress.writing(plan.out, output.write_path());
    if (plan.to == FileKind::SAM) {
        write_sam(alignments, plan.sort, TextSink(output.descriptor(), plan.out));
    } else {
        write_bam(alignments, plan.out, plan.index, output);
    }
    if (plan.index) {
        progress.stage("checking the index");
        check_written_index(plan.out, output, alignments.references.size());
    }
    output.commit();
}

// --- Notes -------------------------------------------------------------------

// The third word of a SAM line.
std::string_view rname_of(std::string_view line) {
    constexpr std::string_view WHITE_SPACE = " \t\v\f\r";
    std::string_view word;
    for (int i = 0; i < 3; ++i) {
        line.remove_prefix(std::min(line.find_first_not_of(WHITE_SPACE), line.size()));
        word = line.substr(0, line.find_first_of(WHITE_SPACE));
        line.remove_prefix(word.size());
    }
    return word;
}

// SAM text may name references that its header does not list; BAM cannot.
void note_lost_references(BAMFileHandler const& alignments, Plan const& plan) {
    auto const lost = [](BamRecord const& record) {
        return record.refID == -1 && rname_of(record.sam_line) != "*";
    };
    auto const n = std::count_if(alignments.records.begin(), alignments.records.end(), lost);
    if (n == 0) return;
    print_message("note: " + std::to_string(n) + " of " + count_of_records(alignments) +
                  " name a reference that the header does not list; " + plan.out +
                  " has them without one");
}

void print_notes(BAMFileHandler const& alignments, Plan const& plan) {
    if (plan.quiet || plan.to == FileKind::SAM) return;
    if (plan.from == FileKind::SAM) note_lost_references(alignments, plan);
    note_float_arrays(alignments, plan.out);
    if (!plan.index) note_old_index(plan.out, "; --index makes it anew");
}

}  // namespace

void exact_convert(ConvertOptions const& options) {
    Plan const plan = plan_of(options);
    Progress progress(!plan.quiet);
    // Before the input is read: that may take long, and be in vain.
    std::optional<OutputFile> output;
    if (!plan.to_standard_output) output.emplace(plan.out, plan.index);

    BAMFileHandler alignments;
    BAMFileHandler refilled;
    BAMFileHandler* result = &alignments;
    progress.reading(plan.in);
    std::size_t const n_references = read_alignments(plan.in, plan.from, alignments);
    if (plan.from == FileKind::BAM) {
        complete_header(plan.in, alignments, n_references);
        check_lines(plan.in, alignments);
        if (plan.to == FileKind::BAM) {
            refill_from_text(alignments, plan.in, refilled, progress);
            result = &refilled;
        }
    }
    if (plan.sort) sort_records(*result, progress);
    if (output) {
        write_file(*result, plan, *output, progress);
        progress.finish();
        print_notes(*result, plan);
    } else {
        progress.finish();  // its line would stand in the output's way
        write_sam(*result, plan.sort, standard_output());
    }
}

}  // namespace tesk::tool

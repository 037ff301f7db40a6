#include "tools/convert.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <limits>

#include "interop/alignment_reader.h"
#include "interop/alignment_writer.h"
#include "interop/coordinate_sorter.h"
#include "tools/exact_convert.h"
#include "tools/input.h"
#include "tools/message.h"
#include "tools/notes.h"
#include "tools/progress.h"
#include "tools/tool_error.h"

namespace tesk::tool {

using interop::AlignmentReader;
using interop::CoordinateSorter;

namespace {

// What reading and writing need besides the sorter: batches, blocks, text; and
// on each thread a compressor with its blocks.
constexpr std::uint64_t FIXED_BYTES = std::uint64_t{24} << 20;
constexpr std::uint64_t THREAD_BYTES = std::uint64_t{12} << 20;
constexpr std::uint64_t MIN_SORTER_BYTES = std::uint64_t{1} << 20;

// The options with everything settled that they leave open.
struct Plan {
    ConvertOptions const& options;
    FileKind to;
    bool sort;
};

Plan plan_of(ConvertOptions const& options) {
    Plan const plan = {options, kind_of_output(options.out, options.to),
                       options.sort || options.index};
    if (options.index && plan.to == FileKind::SAM) {
        throw UsageError("--index goes with BAM output only");
    }
    if (options.index && options.out == "-") {
        throw UsageError("--index needs a file to stand beside, not standard output");
    }
    return plan;
}

interop::ReaderOptions reader_options(Plan const& plan) {
    interop::ReaderOptions options;
    options.allow_missing_eof = plan.options.allow_missing_eof;
    options.keep_lines = plan.to == FileKind::SAM && !plan.sort;
    return options;
}

// Lines that go to the same terminal would get mixed up with it.
bool shows_progress(ConvertOptions const& options) {
    return !options.quiet && !(options.out == "-" && ::isatty(STDOUT_FILENO) != 0);
}

// --- In the order of the input -------------------------------------------------

void copy_records(AlignmentReader& reader, AlignmentOutput& output, Progress& progress) {
    output.open(reader.header(), reader.header().text());
    for_each_batch(reader, progress,
                   [&](interop::RecordBatch const& batch) { output.write(batch); });
}

// --- Sorted ----------------------------------------------------------------------

std::uint64_t half_of_the_memory() {
    auto const pages = static_cast<std::uint64_t>(::sysconf(_SC_PHYS_PAGES));
    auto const page_bytes = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    return pages * page_bytes / 2;
}

std::string temporary_folder(Plan const& plan, AlignmentOutput const& output) {
    if (!plan.options.tmp.empty()) return plan.options.tmp;
    std::string folder = output.folder();
    if (!folder.empty()) return folder;
    char const* const common = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): never set
    return common == nullptr || *common == '\0' ? "/tmp" : common;
}

// Before the input is read: that may take long, and be in vain.
void check_folder(std::string const& folder) {
    struct stat status = {};
    bool good = ::stat(folder.c_str(), &status) == 0;
    if (good && !S_ISDIR(status.st_mode)) {
        good = false;
        errno = ENOTDIR;
    }
    good = good && ::access(folder.c_str(), W_OK | X_OK) == 0;
    if (!good) throw ToolError(with_errno("cannot write a temporary file in " + folder));
}

interop::SorterOptions sorter_options(Plan const& plan, AlignmentOutput const& output) {
    std::uint64_t const memory = plan.options.memory_bytes.value_or(half_of_the_memory());
    std::uint64_t const bytes = sorter_bytes(memory, plan.options.packing.threads);
    interop::SorterOptions options;
    options.memory_bytes = static_cast<std::size_t>(
        std::min<std::uint64_t>(bytes, std::numeric_limits<std::size_t>::max()));
    options.folder = temporary_folder(plan, output);
    check_folder(options.folder);
    return options;
}

void check_index_limit(Plan const& plan, AlignmentReader const& reader,
                       CoordinateSorter const& sorter) {
    if (!plan.options.index) return;
    std::string const error = interop::bai_limit_error(plan.options.out, reader.header(),
                                                       sorter.max_end(), sorter.max_end_name());
    if (!error.empty()) throw ToolError(error);
}

std::string sorting_stage(CoordinateSorter const& sorter) {
    std::string const records = std::to_string(sorter.n_records()) + " records";
    if (sorter.n_runs() == 0) return "sorting " + records;
    return "merging " + records + " in " + std::to_string(sorter.n_runs()) + " sorted runs";
}

// The sorter sorts when the first record is asked for.
void write_sorted(Plan const& plan, AlignmentReader const& reader, CoordinateSorter& sorter,
                  AlignmentOutput& output, Progress& progress) {
    progress.stage(sorting_stage(sorter));
    output.open(reader.header(), reader.header().text_sorted_by_coordinate());
    bool begun = false;
    bool const done = sorter.drain([&](interop::RecordView record) {
        if (!begun) progress.writing(plan.options.out, output.written_file());
        begun = true;
        output.write(record);
        return true;
    });
    if (!done) throw ToolError(sorter.error_message);
}

void sort_records(Plan const& plan, AlignmentReader& reader, AlignmentOutput& output,
                  Progress& progress) {
    CoordinateSorter sorter(sorter_options(plan, output));
    check_index_limit(plan, reader, sorter);  // of the references alone
    for_each_batch(reader, progress, [&](interop::RecordBatch const& batch) {
        if (!sorter.add(batch)) throw ToolError(sorter.error_message);
    });
    check_index_limit(plan, reader, sorter);
    write_sorted(plan, reader, sorter, output, progress);
}

}  // namespace

std::uint64_t sorter_bytes(std::uint64_t memory_bytes, unsigned threads) {
    std::uint64_t const others = FIXED_BYTES + THREAD_BYTES * threads;
    return memory_bytes < others + MIN_SORTER_BYTES ? MIN_SORTER_BYTES : memory_bytes - others;
}

void convert(ConvertOptions const& options) {
    if (options.exact) return exact_convert(options);
    Plan const plan = plan_of(options);
    AlignmentReader reader(reader_options(plan));
    AlignmentOutput output(options.out, plan.to, options.packing, options.index);
    with_report(reader, !options.quiet, [&] {
        Progress progress(shows_progress(options));
        progress.reading(options.in);
        open_input(reader, options.in, options.from);
        if (plan.sort) {
            sort_records(plan, reader, output, progress);
        } else {
            copy_records(reader, output, progress);
        }
        output.finish(progress);
    });
    bool const may_have_old_index =
        plan.to == FileKind::BAM && !options.index && options.out != "-";
    if (may_have_old_index && !options.quiet) {
        note_old_index(options.out, "; --index makes it anew");
    }
}

}  // namespace tesk::tool

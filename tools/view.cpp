#include "tools/view.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>

#include "interop/alignment_reader.h"
#include "interop/index_gatherer.h"
#include "tools/alignment_output.h"
#include "tools/index_beside.h"
#include "tools/input.h"
#include "tools/message.h"
#include "tools/notes.h"
#include "tools/progress.h"
#include "tools/region.h"
#include "tools/text_sink.h"
#include "tools/tool_error.h"

namespace tesk::tool {

using interop::AlignmentReader;
using interop::Region;

namespace {

interop::ReaderOptions reader_options(ViewOptions const& options) {
    interop::ReaderOptions reader_options;
    reader_options.allow_missing_eof = options.allow_missing_eof;
    reader_options.keep_lines = !options.count;
    return reader_options;
}

// An index says nothing of what lies beyond the bases that it covers, whoever
// wrote it.
bool index_covers(std::vector<Region> const& regions, interop::Header const& header) {
    return std::all_of(regions.begin(), regions.end(), [&](Region const& region) {
        auto const& reference = header.references()[static_cast<std::size_t>(region.refID)];
        return region.end <= interop::BAI_MAX_END || reference.length <= interop::BAI_MAX_END;
    });
}

// The index that the reading goes by, where there is one.
std::optional<interop::IndexReader> index_for(ViewOptions const& options,
                                              AlignmentReader const& reader,
                                              std::vector<Region> const& regions,
                                              Progress& progress) {
    bool const possible = reader.format() == interop::Format::BAM && !regions.empty() &&
                          index_covers(regions, reader.header());
    if (!possible) return std::nullopt;
    std::string note;
    auto index = open_index_beside(options.file, reader.header().references().size(), note);
    if (!note.empty() && !options.quiet) {
        progress.finish();  // its line would stand in the way
        print_message("note: " + note);
    }
    return index;
}

void print_count(AlignmentReader& reader, Progress& progress) {
    std::uint64_t n = 0;
    for_each_batch(reader, progress,
                   [&](interop::RecordBatch const& batch) { n += batch.n_records; });
    progress.finish();
    TextSink out = standard_output();
    out.write(std::to_string(n) + "\n");
    out.finish();
}

void print_records(AlignmentReader& reader, ViewOptions const& options, Progress& progress) {
    AlignmentOutput output("-", FileKind::SAM, {}, false);
    output.open(reader.header(), options.no_header ? "" : reader.header().text());
    for_each_batch(reader, progress,
                   [&](interop::RecordBatch const& batch) { output.write(batch); });
    output.finish(progress);
}

}  // namespace

void view(ViewOptions const& options) {
    AlignmentReader reader(reader_options(options));
    with_report(reader, !options.quiet, [&] {
        // Lines that go to the same terminal would get mixed up with it.
        Progress progress(!options.quiet && (options.count || ::isatty(STDOUT_FILENO) == 0));
        progress.reading(options.file);
        open_input(reader, options.file, "");
        std::vector<Region> const regions = parse_regions(options.regions, reader.header());
        auto const index = index_for(options, reader, regions, progress);
        bool const selected = regions.empty() || reader.select(regions, index ? &*index : nullptr);
        if (!selected) throw ToolError(reader.error_message);
        if (options.count) {
            print_count(reader, progress);
        } else {
            print_records(reader, options, progress);
        }
    });
}

}  // namespace tesk::tool

#include "tools/report.h"

#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "interop/alignment_reader.h"
#include "tools/input.h"
#include "tools/notes.h"
#include "tools/output_file.h"
#include "tools/progress.h"
#include "tools/report_page.h"
#include "tools/report_statistics.h"
#include "tools/summary.h"
#include "tools/text_sink.h"
#include "tools/tool_error.h"

namespace tesk::tool {

using interop::AlignmentReader;

namespace {

// Two names of alignment files, as a pattern of the shell gives them, must not cost
// the second file its life.
void check_name(std::string const& out) {
    std::string const ending = ending_of(out, 5);
    if (out == "-" || ending == ".html" || ending_of(out, 4) == ".htm") return;
    throw UsageError("the page's name must end in .html: " + out);
}

ReportStatistics gather(AlignmentReader& reader, Progress& progress) {
    ReportStatistics statistics(summary_of_header(reader));
    for_each_batch(reader, progress, [&](interop::RecordBatch const& batch) {
        interop::for_each_record(batch.records.view(),
                                 [&](interop::RecordView record) { statistics.add(record); });
    });
    return statistics;
}

void write_page(std::string const& page, std::string const& out, std::optional<OutputFile>& file) {
    TextSink sink = file ? TextSink(file->descriptor(), out) : standard_output();
    sink.write(page);
    sink.finish();
    if (file) file->commit();
}

}  // namespace

void write_report(ReportOptions const& options) {
    check_name(options.out);
    std::optional<OutputFile> file;  // made before a long reading, which might be in vain
    if (options.out != "-") file.emplace(options.out, false);
    interop::ReaderOptions reader_options;
    reader_options.allow_missing_eof = options.allow_missing_eof;
    AlignmentReader reader(reader_options);
    with_report(reader, !options.quiet, [&] {
        Progress progress(!options.quiet);
        progress.reading(options.file);
        open_input(reader, options.file, "");
        ReportStatistics const statistics = gather(reader, progress);
        progress.finish();
        write_page(
            html_page({reader.name(), kind_of_input(reader), statistics, reader.report().lines()}),
            options.out, file);
    });
}

}  // namespace tesk::tool

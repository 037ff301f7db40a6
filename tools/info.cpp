#include "tools/info.h"

#include <string>

#include "interop/alignment_reader.h"
#include "tools/exact_info.h"
#include "tools/file_kind.h"
#include "tools/input.h"
#include "tools/notes.h"
#include "tools/progress.h"
#include "tools/summary.h"
#include "tools/text_sink.h"

namespace tesk::tool {

using interop::AlignmentReader;

namespace {

Summary summarise(AlignmentReader& reader, Progress& progress) {
    Summary summary = summary_of_header(reader);
    for_each_batch(reader, progress, [&](interop::RecordBatch const& batch) {
        interop::for_each_record(batch.records.view(), [&](interop::RecordView record) {
            summary.add(record.refID(), record.flag(), record.l_seq());
        });
    });
    return summary;
}

Summary streamed_summary(InfoOptions const& options, FileKind& kind) {
    interop::ReaderOptions reader_options;
    reader_options.allow_missing_eof = options.allow_missing_eof;
    AlignmentReader reader(reader_options);
    Summary summary;
    with_report(reader, !options.quiet, [&] {
        Progress progress(!options.quiet);
        progress.reading(options.file);
        open_input(reader, options.file, options.from);
        kind = kind_of_input(reader);
        summary = summarise(reader, progress);
    });
    return summary;
}

}  // namespace

void info(InfoOptions const& options) {
    FileKind kind = FileKind::SAM;
    Summary const summary =
        options.exact ? exact_summary(options, kind) : streamed_summary(options, kind);
    TextSink out = standard_output();
    out.write(options.json ? json_text(summary, options.file, kind)
                           : summary_text(summary, options.file, kind));
    out.finish();
}

}  // namespace tesk::tool

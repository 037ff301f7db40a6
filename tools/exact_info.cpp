#include "tools/exact_info.h"

#include <cstddef>

#include "tools/load.h"
#include "tools/progress.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

using util::bam::BAMFileHandler;

Summary exact_summary(InfoOptions const& options, FileKind& kind) {
    refuse_standard_input(options.file);
    kind = kind_of(options.file, options.from, "--from");
    BAMFileHandler alignments;
    std::size_t n_references = 0;
    {
        Progress progress(!options.quiet);
        progress.reading(options.file);
        n_references = read_alignments(options.file, kind, alignments);
    }
    Summary summary;
    summary.sort_order = sort_order_of(alignments);
    for (std::size_t i = 0; i < n_references; ++i) {
        BAMFileHandler::RefSeq const& reference = alignments.references[i];
        summary.references.push_back({reference.name, reference.length, {}});
    }
    for (BAMFileHandler::BamRecord const& record : alignments.records) {
        summary.add(record.refID, record.flag, record.l_seq);
    }
    return summary;
}

}  // namespace tesk::tool

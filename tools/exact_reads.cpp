#include "tools/exact_reads.h"

#include <optional>
#include <utility>

#include "tools/file_kind.h"
#include "tools/load.h"
#include "tools/notes.h"
#include "tools/output_file.h"
#include "tools/store.h"
#include "tools/text_sink.h"
#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

using util::bam::BAMFileHandler;

namespace {

// The library looks at all bases but the last one of an odd number.
void check_last_base(std::string const& sequence, BAMFileHandler const& alignments) {
    if (alignments.seq_codes.at(sequence.back()) >= 0) return;
    throw ToolError("Sam to Bam parsing failed: Invalid sequence code detected");
}

class ExactReadsOutput : public ReadsOutput {
public:
    explicit ExactReadsOutput(ReadsOptions const& options)
        : path_(options.out), kind_(exact_kind_of_output(options.out, options.to)) {
        // Before the input is read: that may take long, and be in vain.
        if (path_ != "-") file_.emplace(path_, false);
        call_library(alignments_, path_,
                     [&] { return alignments_.add_header_lines(READS_HEADER); });
    }

    bool is_bam() const { return kind_ == FileKind::BAM; }

    // Opens the output, which may wait for the other end of a FIFO.
    void open() override {
        if (is_bam()) return;
        sink_.emplace(file_ ? TextSink(file_->descriptor(), path_) : standard_output());
        sink_->write(alignments_.header);
    }

    // Every line goes through the library, whatever the output is: that checks
    // it. It is held as text or as a record, never as both.
    void add(Read const& read, LineReader const& input) override {
        auto const place = [&] { return input.place(read.line); };
        std::string line;
        try {
            line = unmapped_line(read);
            check_last_base(read.sequence, alignments_);
        } catch (ToolError const& e) {
            throw ToolError(place() + ": " + e.what());
        }
        add_line(alignments_, std::move(line), place);
        line = std::exchange(alignments_.records.back().sam_line, {});
        if (is_bam()) return;
        alignments_.records.clear();
        line += '\n';
        sink_->write(line);
    }

    void print_notes(std::string const& /*input*/) const override {
        if (!is_bam()) return;
        note_float_arrays(alignments_, path_);
        note_old_index(path_, "");
    }

    void finish(Progress& progress) override {
        if (is_bam()) {
            progress.writing(path_, file_->write_path());
            write_bam(alignments_, path_, false, *file_);
        } else {
            sink_->finish();
        }
        if (file_) file_->commit();
    }

private:
    std::string path_;
    FileKind kind_;
    std::optional<OutputFile> file_;  // empty: standard output
    std::optional<TextSink> sink_;    // SAM only
    BAMFileHandler alignments_;
};

}  // namespace

std::unique_ptr<ReadsOutput> make_exact_reads_output(ReadsOptions const& options) {
    return std::make_unique<ExactReadsOutput>(options);
}

}  // namespace tesk::tool

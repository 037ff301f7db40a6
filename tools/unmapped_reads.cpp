#include "tools/unmapped_reads.h"

#include <unistd.h>

#include <cstddef>
#include <memory>
#include <string>

#include "interop/header.h"
#include "interop/record_batch.h"
#include "interop/record_codec.h"
#include "tools/alignment_output.h"
#include "tools/exact_reads.h"
#include "tools/file_kind.h"
#include "tools/message.h"
#include "tools/notes.h"
#include "tools/progress.h"
#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

// Records that are gathered before they are written.
constexpr std::size_t BATCH_BYTES = std::size_t{1} << 20;

interop::Header reads_header() {
    interop::Header header;
    interop::Report none;
    std::string error;
    if (!header.assign_sam(READS_HEADER, none, error)) throw ToolError(error);
    return header;
}

class StreamedReadsOutput : public ReadsOutput {
public:
    explicit StreamedReadsOutput(ReadsOptions const& options)
        : path_(options.out),
          kind_(kind_of_output(options.out, options.to)),
          header_(reads_header()),
          codec_(header_, report_),
          output_(options.out, kind_, options.packing, false) {}

    void open() override { output_.open(header_, header_.text()); }

    void add(Read const& read, LineReader const& input) override {
        std::string line;
        try {
            line = unmapped_line(read);
        } catch (ToolError const& e) {
            throw ToolError(input.place(read.line) + ": " + e.what());
        }
        check_sequence(read, input);
        bool const sam = kind_ == FileKind::SAM;
        if (!codec_.encode_line(line, read.line, batch_.records, sam ? &batch_.lines : nullptr)) {
            refuse(read, input);
        }
        ++batch_.n_records;
        if (batch_.records.size() >= BATCH_BYTES) write_batch();
    }

    void finish(Progress& progress) override {
        write_batch();
        output_.finish(progress);
    }

    void print_notes(std::string const& input) const override {
        print_report(input, report_);
        if (kind_ == FileKind::BAM && path_ != "-") note_old_index(path_, "");
    }

private:
    // SAM has no way to say that a read's only base is unknown in this form.
    static void check_sequence(Read const& read, LineReader const& input) {
        if (read.sequence != ABSENT) return;
        throw ToolError(input.place(read.line) + ": the sequence is *, which in SAM means none");
    }

    [[noreturn]] void refuse(Read const& read, LineReader const& input) const {
        interop::Fault const& fault = codec_.fault();
        std::string const column = fault.column.empty() ? "" : ", column " + fault.column;
        throw ToolError(input.place(read.line) + column + ": " + fault.reason);
    }

    void write_batch() {
        if (batch_.n_records != 0) output_.write(batch_);
        batch_.clear();
    }

    std::string path_;
    FileKind kind_;
    interop::Header header_;
    interop::Report report_;
    interop::RecordCodec codec_;
    AlignmentOutput output_;
    interop::RecordBatch batch_;
};

std::unique_ptr<ReadsOutput> make_output(ReadsOptions const& options) {
    if (options.exact) return make_exact_reads_output(options);
    return std::make_unique<StreamedReadsOutput>(options);
}

// Its line would stand in the way of lines that go to the same terminal.
bool shows_progress(ReadsOptions const& options) {
    return !options.quiet && !(options.out == "-" && ::isatty(STDOUT_FILENO) != 0);
}

void note_lost_qualities(std::uint64_t n, std::uint64_t n_reads) {
    if (n == 0) return;
    print_message("note: " + std::to_string(n) + " of " + std::to_string(n_reads) +
                  " reads have the quality *, which in SAM means none");
}

}  // namespace

std::uint64_t store_reads(ReadsOptions const& options, ReadParser const& next_read) {
    std::unique_ptr<ReadsOutput> const output = make_output(options);
    Progress progress(shows_progress(options));
    progress.reading(options.in);
    LineReader input(options.in);
    output->open();
    Read read;
    std::uint64_t n_reads = 0;
    std::uint64_t n_lost_qualities = 0;
    while (next_read(input, read)) {
        output->add(read, input);
        ++n_reads;
        if (read.qualities == ABSENT) ++n_lost_qualities;
        progress.advance(input.bytes_read());
    }
    output->finish(progress);
    progress.finish();
    if (!options.quiet) {
        note_lost_qualities(n_lost_qualities, n_reads);
        output->print_notes(input.name());
    }
    return n_reads;
}

}  // namespace tesk::tool

#include "tools/unmapped_reads.h"

#include <unistd.h>

#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "tools/file_kind.h"
#include "tools/load.h"
#include "tools/message.h"
#include "tools/output_file.h"
#include "tools/progress.h"
#include "tools/store.h"
#include "tools/text_sink.h"
#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

using util::bam::BAMFileHandler;

namespace {

constexpr char const* HEADER =
    "@HD\tVN:1.6\tSO:unsorted\n"
    "@PG\tID:tesk-bam\tPN:tesk-bam\tVN:" TESK_BAM_VERSION "\n";

constexpr std::size_t MAX_NAME_BYTES = 254;  // BAM has one byte for the length, with a NUL

// What stands alone in a column means that there is nothing.
constexpr char const* ABSENT = "*";

// Checks that a text can stand in a column of a SAM line, where a blank or a
// line break would end it.
void check_column(std::string_view text, std::string const& what) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] >= '!' && text[i] <= '~') continue;
        throw ToolError("character " + std::to_string(i + 1) + " of the " + what +
                        " is not between ! and ~, as SAM needs it");
    }
}

void check_name(std::string const& name) {
    check_column(name, "name");
    if (name.size() > MAX_NAME_BYTES) {
        throw ToolError("the name has " + std::to_string(name.size()) + " characters, SAM takes " +
                        std::to_string(MAX_NAME_BYTES));
    }
    if (name.rfind('@', 0) == 0) {
        throw ToolError("the name begins with @, as only a header line does in SAM");
    }
}

// The library looks at all bases but the last one of an odd number.
void check_last_base(std::string const& sequence, BAMFileHandler const& alignments) {
    if (alignments.seq_codes.at(sequence.back()) >= 0) return;
    throw ToolError("Sam to Bam parsing failed: Invalid sequence code detected");
}

// The line of a read without what stands before it in messages.
std::string line_of(Read const& read, BAMFileHandler const& alignments) {
    std::string line;
    std::string error;
    if (!BAMFileHandler::make_unmapped_sam_line(line, read.name, read.sequence, read.qualities,
                                                error)) {
        throw ToolError(error);
    }
    check_name(read.name);
    check_column(read.sequence, "sequence");
    check_column(read.qualities, "qualities");
    check_last_base(read.sequence, alignments);
    return line + read.fields;
}

// The output, SAM or BAM; it takes one record after another.
class Output {
public:
    explicit Output(ReadsOptions const& options)
        : path_(options.out), kind_(kind_of_output(options.out, options.to)) {
        // Before the input is read: that may take long, and be in vain.
        if (path_ != "-") file_.emplace(path_, false);
        call_library(alignments_, path_, [&] { return alignments_.add_header_lines(HEADER); });
    }

    bool is_bam() const { return kind_ == FileKind::BAM; }

    // Opens the output, which may wait for the other end of a FIFO.
    void open() {
        if (is_bam()) return;
        sink_.emplace(file_ ? TextSink(file_->descriptor(), path_) : standard_output());
        sink_->write(alignments_.header);
    }

    // Every line goes through the library, whatever the output is: that checks
    // it. It is held as text or as a record, never as both.
    void add(Read const& read, LineReader const& input) {
        auto const place = [&] { return input.place(read.line); };
        std::string line;
        try {
            line = line_of(read, alignments_);
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

    void print_notes() const {
        if (!is_bam()) return;
        note_float_arrays(alignments_, path_);
        note_old_index(path_, "");
    }

    void finish(Progress& progress) {
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
    Output output(options);
    Progress progress(shows_progress(options));
    progress.reading(options.in);
    LineReader input(options.in);
    output.open();
    Read read;
    std::uint64_t n_reads = 0;
    std::uint64_t n_lost_qualities = 0;
    while (next_read(input, read)) {
        output.add(read, input);
        ++n_reads;
        if (read.qualities == ABSENT) ++n_lost_qualities;
        progress.advance(input.bytes_read());
    }
    output.finish(progress);
    progress.finish();
    if (!options.quiet) {
        note_lost_qualities(n_lost_qualities, n_reads);
        output.print_notes();
    }
    return n_reads;
}

}  // namespace tesk::tool

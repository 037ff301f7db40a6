#include "tools/alignment_output.h"

#include <unistd.h>

#include "tools/index_check.h"
#include "tools/text_sink.h"
#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

interop::WriterOptions writer_options(FileKind kind, Packing const& packing, bool index) {
    interop::WriterOptions options;
    options.format = kind == FileKind::SAM ? interop::Format::SAM : interop::Format::BAM;
    options.level = packing.level;
    options.threads = packing.threads;
    options.index = index;
    return options;
}

}  // namespace

AlignmentOutput::AlignmentOutput(std::string const& path, FileKind kind, Packing const& packing,
                                 bool index)
    : path_(path == "-" ? "standard output" : path),
      index_(index),
      writer_(writer_options(kind, packing, index)) {
    if (path != "-") file_.emplace(path, index);
}

std::string AlignmentOutput::folder() const { return file_ ? file_->folder() : ""; }

std::string AlignmentOutput::written_file() const { return file_ ? file_->write_path() : ""; }

// A call of the writer has been made, which knows the temporary names alone.
void AlignmentOutput::check(bool done) const {
    if (done) return;
    throw ToolError(file_ ? file_->in_own_names(writer_.error_message) : writer_.error_message);
}

void AlignmentOutput::open(interop::Header const& header, std::string const& text) {
    fd_ = file_ ? file_->descriptor() : STDOUT_FILENO;
    n_references_ = header.references().size();
    check(writer_.open(fd_, file_ ? file_->write_path() : path_, header, text));
}

void AlignmentOutput::write(interop::RecordBatch const& batch) { check(writer_.write(batch)); }

void AlignmentOutput::write(interop::RecordView record) { check(writer_.write(record)); }

void AlignmentOutput::finish(Progress& progress) {
    check(writer_.close());
    check_delayed_errors(fd_, path_);
    if (index_) {
        progress.stage("checking the index");
        check_written_index(path_, *file_, n_references_);
    }
    if (file_) file_->commit();
}

}  // namespace tesk::tool

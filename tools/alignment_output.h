// Where a command's alignments go.

#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "interop/alignment_writer.h"
#include "tools/file_kind.h"
#include "tools/output_file.h"
#include "tools/progress.h"

namespace tesk::tool {

/// How BAM is packed.
struct Packing {
    int level = 6;         // 0 (stored) to 12
    unsigned threads = 1;  // at least 1
};

/// A SAM or BAM file that has its own name only once it is complete, or standard
/// output. Whatever fails is a ToolError in the user's names.
class AlignmentOutput {
public:
    /// Makes sure that the file can be written, which is known before a long
    /// reading then.
    ///
    /// @param path   "-" is standard output
    /// @param index  whether path + ".bai" goes with it
    /// @throws ToolError  as OutputFile
    AlignmentOutput(std::string const& path, FileKind kind, Packing const& packing, bool index);

    /// Folder where a lot of data can be put beside the output; empty where the
    /// output is no file.
    std::string folder() const;

    /// The file that grows while it is written; empty for standard output.
    std::string written_file() const;

    /// Begins the output with its header.
    /// @param header  must outlive this object
    void open(interop::Header const& header, std::string const& text);

    void write(interop::RecordBatch const& batch);
    void write(interop::RecordView record);

    /// Completes the output, checks its index as it stands on the disk, and gives
    /// both their names.
    void finish(Progress& progress);

private:
    void check(bool done) const;

    std::string path_;
    bool index_;
    std::optional<OutputFile> file_;  // empty: standard output
    int fd_ = -1;
    std::size_t n_references_ = 0;
    interop::AlignmentWriter writer_;
};

}  // namespace tesk::tool

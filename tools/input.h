// Opening alignments of any origin.

#pragma once

#include <string>

#include "interop/alignment_reader.h"
#include "tools/file_kind.h"
#include "tools/progress.h"

namespace tesk::tool {

/// Opens a file of alignments.
///
/// @param path  "-" is standard input
/// @param from  "sam" or "bam", which the content then must be; empty: either
/// @throws ToolError  the file cannot be read, or is of the other format
void open_input(interop::AlignmentReader& reader, std::string const& path, std::string const& from);

/// Reads the next records.
/// @throws ToolError  the input is at fault
void read_batch(interop::AlignmentReader& reader, interop::RecordBatch& batch);

/// Reads all that is left and hands each batch to `use`.
/// @throws ToolError  the input is at fault
template <typename Use>
void for_each_batch(interop::AlignmentReader& reader, Progress& progress, Use use) {
    interop::RecordBatch batch;
    for (read_batch(reader, batch); batch.n_records != 0; read_batch(reader, batch)) {
        use(batch);
        progress.advance(reader.bytes_read());
    }
}

/// The format that the input turned out to have.
FileKind kind_of_input(interop::AlignmentReader const& reader);

}  // namespace tesk::tool

// Writes SAM and BAM files, batch by batch.

#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "interop/alignment_reader.h"
#include "interop/header.h"
#include "interop/record_batch.h"
#include "util/bam/bam_file.h"
#include "util/bam/export.h"

namespace tesk::interop {

/// How a file is written.
struct WriterOptions {
    Format format = Format::BAM;  ///< text or BAM
    int level = 6;                ///< of BAM: 0 (stored) to 12
    unsigned threads = 1;         ///< that compress BAM, at least 1; they change no byte
    bool index = false;           ///< of BAM: also writes path + ".bai"
};

/// Writes one file of alignments.
///
/// BAM files consist of full blocks, which records straddle. With an index,
/// records must come sorted by coordinate.
///
/// Members that can fail return false, with the reason in `error_message`; the
/// writing is over then, and all later calls fail, too, as they do after a call that
/// ended by an exception (std::bad_alloc):
///   "cannot write to " + path + ": " + reason
///   path + ": reference " + name + " has " + length + " bases; a BAI index cannot hold
///         positions beyond 536870912"  (one line); from open(), before the file is made
///   path + ": record " + name + " ends at " + end + "; a BAI index cannot hold positions
///         beyond 536870912"  (one line); the batch with it is not written
///   path + ": record " + name + " is out of order: an index needs records sorted by
///         coordinate"  (one line); the batch with it is not written. The order of
///         records without a reference, which come last, does not matter
///   path + ": record " + number + ", column " + column + ": " + reason, where a
///         handler's record is not valid or cannot be encoded; counted from 1 over the
///         file, and the column may be missing; no record of the handler is written
///   "cannot write to " + path + ".bai: not all of it could be written"
class TESK_BAM_EXPORT AlignmentWriter {
public:
    /// Makes a writer without a file.
    explicit AlignmentWriter(WriterOptions options = {});
    ~AlignmentWriter();
    AlignmentWriter(AlignmentWriter const&) = delete;
    AlignmentWriter& operator=(AlignmentWriter const&) = delete;

    /// Why the last call that returned false did so.
    std::string error_message;

    /// Creates or replaces a file and writes its header.
    ///
    /// @param header       of the records; must outlive the writer
    /// @param header_text  what is written; every reference has its @SQ line there
    bool open(std::string const& path, Header const& header, std::string const& header_text);

    /// The same with a descriptor, which stays open and is the caller's.
    /// @param path  what messages call the file, and where an index goes
    bool open(int fd, std::string const& path, Header const& header,
              std::string const& header_text);

    /// Writes records: as BAM, or as SAM their lines, which are rendered where the
    /// batch has none.
    bool write(RecordBatch const& batch);

    /// Writes one record as BAM, or rendered as SAM.
    bool write(RecordView record);

    /// Writes the records of a handler that lists the same references: as BAM,
    /// checked and repaired as those of a BAM file that is read, or as SAM their
    /// `sam_line`s as they stand.
    bool write(util::bam::BAMFileHandler const& handler);

    /// Completes the file, and writes its index. A writer that goes without this
    /// call leaves the file incomplete.
    bool close();

private:
    struct State;

    // Whether a file is open that nothing has gone wrong with.
    bool begin_call();
    // Takes over the state's error message. Returns `done`.
    bool finish_call(bool done);

    WriterOptions options_;
    std::unique_ptr<State> state_;  // while a file is open
};

/// The error message for a reference or a record that no BAI file can hold, as
/// AlignmentWriter has it; empty where all of them can be held.
///
/// @param max_end  where the record ends that ends last, 0-based half-open
/// @param max_name its name
TESK_BAM_EXPORT std::string bai_limit_error(std::string const& path, Header const& header,
                                            std::int64_t max_end, std::string const& max_name);

}  // namespace tesk::interop

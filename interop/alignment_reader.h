// Reads SAM, compressed SAM and BAM of any origin and size.
//
// What others write is often not quite what BAMFileHandler takes. The reader
// repairs what can be repaired without loss, counts and reports each repair, and
// refuses what is damaged or would be stored wrongly, naming file, line and
// column.
//
//     tesk::interop::AlignmentReader reader;
//     tesk::util::bam::BAMFileHandler alignments;
//     if (!reader.open("reads.bam")) return fail(reader.error_message);
//     do {
//         if (!reader.read_batch(alignments)) return fail(reader.error_message);
//         use(alignments.records);
//     } while (!alignments.records.empty());

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "interop/header.h"
#include "interop/index_reader.h"
#include "interop/record_batch.h"
#include "interop/report.h"
#include "util/bam/bam_file.h"
#include "util/bam/export.h"

namespace tesk::interop {

/// What a file of alignments consists of: text, or binary records in BGZF blocks.
enum class Format { SAM, BAM };

/// Part of a reference: 0-based, half-open.
struct Region {
    std::int32_t refID = 0;  ///< index into the header's references
    std::int64_t beg = 0;    ///< first base
    std::int64_t end = 0;    ///< base after the last
};

/// How a file is read.
struct ReaderOptions {
    bool allow_missing_eof = false;  ///< a BGZF file without its last block: a warning
    bool keep_lines = false;         ///< batches carry the SAM lines of SAM input
    /// Leaves out records that are not valid, and goes on behind them; the errors are
    /// in the report. Without it the first one ends the reading, as always does damage
    /// behind which nobody knows where a record begins.
    bool keep_going = false;
    std::size_t batch_records = 65536;               ///< a batch holds no more,
    std::size_t batch_bytes = std::size_t{1} << 20;  ///< and ends with the record that
                                                     ///< reaches this size when encoded
};

/// Reads one file of alignments, or standard input, batch by batch.
///
/// Members that can fail return false, with the reason in `error_message`:
/// the file's name, the line or record, the column, such as
/// "reads.sam: line 7, column QUAL: 3 qualities for 4 bases". The reading is over
/// then, and report() has the message, too; it is also over after a call that ended by
/// an exception (std::bad_alloc). Failures of the input are worded by
/// InputStream, those of records by RecordCodec; of the reader itself are, after the
/// name:
///   ": line 1: neither SAM nor BAM data"
///   ": the file ends inside its header"
///   ": header: l_text is -1"   also n_ref, l_name and l_ref
///   ": header: the name of reference 2 does not end with its NUL byte"
///   ": line 7: longer than 2147483647 bytes"
///   ": line 7: header line after the first alignment"
///   ": record 7: block_size 31 is out of range"
///   ": record 7: the file ends inside it"
///   ": the block that marks the end of a BGZF file is missing: the file may have been
///         cut short"  (one line)
///   ": an earlier call was not completed"
/// Lines that have a number are counted over the whole file; records likewise, but
/// with an index from the first one that is read.
class TESK_BAM_EXPORT AlignmentReader {
public:
    /// Makes a reader without a file.
    explicit AlignmentReader(ReaderOptions options = {});
    ~AlignmentReader();
    AlignmentReader(AlignmentReader const&) = delete;
    AlignmentReader& operator=(AlignmentReader const&) = delete;

    /// Why the last call that returned false did so.
    std::string error_message;

    /// Opens an input, tells its format by its content, and reads its header.
    /// @param path  "-" is standard input
    bool open(std::string const& path);

    /// What messages call the input.
    std::string const& name() const;
    /// What the input is; known after open().
    Format format() const;
    /// Its header, repaired; after open().
    Header const& header() const;
    /// What was repaired and found wrong so far.
    Report const& report() const;

    /// Number of bytes read so far, before they were unpacked.
    std::uint64_t bytes_read() const;

    /// Limits the reading to records that overlap one of some regions, in the
    /// order of the file, each once. To be called before the first batch.
    ///
    /// @param regions  in any order; empty ones overlap nothing
    /// @param index    null, or the index of this BAM file, which must be sorted and
    ///                 no pipe: then only the blocks that it names are read, and the
    ///                 file's end is not checked unless it is met
    ///
    /// On false `error_message` is, after the name, one of
    ///   ": no BAM file in blocks, so it cannot be read by an index"
    ///   ": the index is of 3 references, the header of 2"
    /// and later calls of read_batch() may say
    ///   ": the index names a place that the file does not have"
    bool select(std::vector<Region> const& regions, IndexReader const* index);

    /// Replaces a batch by the next records; it is empty at the end. On false it
    /// holds those before the fault.
    bool read_batch(RecordBatch& batch);

    /// Replaces the records of a handler by the next ones; there are none at the
    /// end. The handler's header becomes the one of the file, with every
    /// reference once. A SAM record keeps its line, repaired. On false it holds
    /// those before the fault.
    bool read_batch(util::bam::BAMFileHandler& handler);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tesk::interop

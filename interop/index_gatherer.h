// Gathers the index of a BAM file while it is written.

#pragma once

#include <cstdint>
#include <vector>

#include "interop/bgzf_writer.h"
#include "interop/record_batch.h"
#include "util/bam/bam_file.h"
#include "util/bam/export.h"

namespace tesk::interop {

/// A BAI file covers positions up to here: 0-based, half-open.
constexpr std::int64_t BAI_MAX_END = std::int64_t{1} << 29;

/// Fills a FileIndex.
///
/// While gathering, places are counted in the bytes that go into the file; they
/// become virtual offsets at the end, when it is known where blocks begin. Chunks
/// of a bin that follow each other and share a block are one chunk.
class TESK_BAM_EXPORT IndexGatherer {
public:
    /// @param n_references  of the header
    explicit IndexGatherer(std::int32_t n_references);
    IndexGatherer(IndexGatherer const&) = delete;
    IndexGatherer& operator=(IndexGatherer const&) = delete;

    /// Takes in a record; records come sorted by coordinate. One with a reference
    /// but without a position counts as standing on the first base; what lies
    /// beyond BAI_MAX_END is left out of the linear index.
    ///
    /// @param beg  what BgzfWriter::tell() returns before it
    /// @param end  the same after it
    void add(RecordView record, std::uint64_t beg, std::uint64_t end);

    /// Ends the gathering.
    /// @param file  closed
    util::bam::BAMFileHandler::FileIndex finish(BgzfWriter const& file);

private:
    util::bam::BAMFileHandler::FileIndex index_;
    // The reference and the chunks that the last record went to, which most
    // often are those of the next one, too.
    util::bam::BAMFileHandler::ReferenceIndex* reference_ = nullptr;
    std::vector<util::bam::BAMFileHandler::ChunkIndex>* chunks_ = nullptr;
    std::int32_t refID_ = 0;
    std::uint16_t bin_ = 0;
};

}  // namespace tesk::interop

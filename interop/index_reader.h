// Looks up regions in a BAI file.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "util/bam/bam_file.h"
#include "util/bam/export.h"

namespace tesk::interop {

using ChunkIndex = util::bam::BAMFileHandler::ChunkIndex;

/// A BAI file in memory.
class TESK_BAM_EXPORT IndexReader {
public:
    /// Why the last call that returned false did so.
    std::string error_message;

    /// Reads a file and checks its structure; every count is held against the
    /// bytes that are left.
    /// On false `error_message` begins with the path: "cannot open ", then the path
    /// and the reason, or the path and what is wrong with the index.
    bool open(std::string const& path);

    /// Number of references that the index covers.
    std::size_t n_references() const { return references_.size(); }

    /// Appends the stretches of the BAM file that can hold records overlapping a
    /// region: ascending, apart from each other.
    ///
    /// @param refID  at least 0; beyond the index's references nothing is appended
    /// @param beg    0-based, half-open; cut to the 2^29 bases of a BAI file
    void chunks(std::int32_t refID, std::int64_t beg, std::int64_t end,
                std::vector<ChunkIndex>& chunks) const;

private:
    std::string bytes_;
    std::vector<std::size_t> references_;  // where in `bytes_` each one begins
};

/// Sorts chunks and joins those that touch or overlap.
TESK_BAM_EXPORT void merge_chunks(std::vector<ChunkIndex>& chunks);

}  // namespace tesk::interop

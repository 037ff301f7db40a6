// How deeply reads cover a reference.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "interop/record_codec.h"

namespace tesk::tool {

/// Depth along one reference, in bins of equal width.
///
/// Bases of reads count where their CIGAR aligns them (M, = and X). Deleted (D) and
/// skipped (N) bases of the reference do not, nor does what lies beyond its end.
class Coverage {
public:
    /// @param length    of the reference in bases; 0 gives no bins
    /// @param max_bins  at least 1
    Coverage(std::int32_t length, std::size_t max_bins);

    /// @param pos         where the alignment begins, 0-based, not negative
    /// @param operations  its CIGAR
    void add(std::int32_t pos, interop::CigarOperations operations);

    std::size_t n_bins() const { return bases_.size(); }
    /// Bases of the reference in each bin; the last one may have fewer.
    std::int64_t bin_width() const { return bin_width_; }
    /// Aligned bases per base of a bin.
    double depth(std::size_t bin) const;
    /// Of the whole reference.
    double mean_depth() const;

    /// The same in bins that are `factor` times as wide.
    Coverage coarser(std::int64_t factor) const;

private:
    void add_aligned(std::int64_t beg, std::int64_t end);

    std::int64_t length_;
    std::int64_t bin_width_;
    std::vector<std::uint64_t> bases_;  // aligned, by bin
    // The bin in work, which most often is the next operation's, too.
    std::size_t bin_ = 0;
    std::int64_t bin_beg_ = 0;
};

}  // namespace tesk::tool

#include "tools/coverage.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace tesk::tool {

namespace {

constexpr std::uint32_t ALIGNS = 0b110000001;  // by code, bit 0 for M: M = X

std::int64_t quotient_rounded_up(std::int64_t number, std::int64_t divisor) {
    return (number + divisor - 1) / divisor;
}

}  // namespace

Coverage::Coverage(std::int32_t length, std::size_t max_bins)
    : length_(length),
      bin_width_(std::max<std::int64_t>(
          quotient_rounded_up(length, static_cast<std::int64_t>(max_bins)), 1)),
      bases_(static_cast<std::size_t>(quotient_rounded_up(length, bin_width_))) {}

void Coverage::add(std::int32_t pos, interop::CigarOperations operations) {
    std::int64_t at = pos;
    char const* next = operations.begin;
    for (std::size_t i = 0; i < operations.n && at < length_; ++i) {
        std::uint32_t op;
        std::memcpy(&op, next, sizeof op);
        next += sizeof op;
        std::uint32_t const code = op & interop::CIGAR_OP_MASK;
        if ((interop::CIGAR_COVERS_REFERENCE >> code & 1U) == 0) continue;
        std::int64_t const end = at + (op >> interop::CIGAR_OP_BITS);
        if ((ALIGNS >> code & 1U) != 0) add_aligned(at, std::min(end, length_));
        at = end;
    }
}

void Coverage::add_aligned(std::int64_t beg, std::int64_t end) {
    while (beg < end) {
        if (beg < bin_beg_ || beg >= bin_beg_ + bin_width_) {
            bin_ = static_cast<std::size_t>(beg / bin_width_);
            bin_beg_ = static_cast<std::int64_t>(bin_) * bin_width_;
        }
        std::int64_t const stop = std::min(end, bin_beg_ + bin_width_);
        bases_[bin_] += static_cast<std::uint64_t>(stop - beg);
        beg = stop;
    }
}

double Coverage::depth(std::size_t bin) const {
    std::int64_t const beg = static_cast<std::int64_t>(bin) * bin_width_;
    std::int64_t const end = std::min(beg + bin_width_, length_);
    return static_cast<double>(bases_[bin]) / static_cast<double>(end - beg);
}

double Coverage::mean_depth() const {
    if (length_ == 0) return 0;
    std::uint64_t const sum = std::accumulate(bases_.begin(), bases_.end(), std::uint64_t{0});
    return static_cast<double>(sum) / static_cast<double>(length_);
}

Coverage Coverage::coarser(std::int64_t factor) const {
    Coverage result(0, 1);
    result.length_ = length_;
    result.bin_width_ = bin_width_ * factor;
    result.bases_.resize(static_cast<std::size_t>(quotient_rounded_up(length_, result.bin_width_)));
    for (std::size_t i = 0; i < bases_.size(); ++i) {
        result.bases_[i / static_cast<std::size_t>(factor)] += bases_[i];
    }
    return result;
}

}  // namespace tesk::tool

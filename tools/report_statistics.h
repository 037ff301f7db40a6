// What "tesk-bam report" counts in a file.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "interop/record_batch.h"
#include "tools/coverage.h"
#include "tools/flag.h"
#include "tools/modified_bases.h"
#include "tools/summary.h"

namespace tesk::tool {

/// Records by their whole FLAG.
class FlagCounts {
public:
    void add(unsigned flag) { ++counts_[flag]; }

    /// Records whose FLAG has all of some bits and none of others.
    std::uint64_t with(unsigned set, unsigned unset = 0) const;

private:
    std::vector<std::uint64_t> counts_ = std::vector<std::uint64_t>(0x10000);
};

/// Qualities of bases, and of reads.
class QualityCounts {
public:
    static constexpr std::size_t N_SCORES = 94;
    static constexpr std::size_t N_TENTHS = 10 * (N_SCORES - 1) + 1;

    /// Adds a read.
    /// @param scores  0 to 93
    /// @param n       at least 1
    void add(char const* scores, std::size_t n);

    /// Bases of each score.
    std::array<std::uint64_t, N_SCORES> bases() const;
    /// Reads by ten times their quality, rounded.
    std::array<std::uint64_t, N_TENTHS> const& reads_by_tenth() const { return reads_; }

    /// The score that stands for the mean error probability of all bases.
    std::optional<double> mean_of_bases() const;
    /// Of all reads, to a tenth; of two in the middle their mean.
    std::optional<double> median_of_reads() const;

private:
    static constexpr std::size_t N_PAIRS = N_SCORES * N_SCORES;
    static constexpr std::size_t N_LANES = 2;
    static std::array<double, N_PAIRS> const& pair_errors();

    // Bases are counted two at a time, which takes half as long. Neighbours often are
    // the same: in two lanes, their counters need not wait for each other.
    std::array<std::array<std::uint64_t, N_PAIRS>, N_LANES> pairs_{};
    std::array<std::uint64_t, N_SCORES> singles_{};  // bases behind the last pair of lanes
    std::array<std::uint64_t, N_TENTHS> reads_{};
};

/// The score that stands for an error probability above 0.
double score_of(double probability);

struct CigarCounts {
    std::array<std::uint64_t, interop::CIGAR_OPERATIONS.size()> operations{};
    std::array<std::uint64_t, interop::CIGAR_OPERATIONS.size()> bases{};

    void add(interop::CigarOperations cigar);
};

/// Everything that the page shows, gathered record by record. Memory grows with the
/// number of references and of different read lengths, and not with that of records.
class ReportStatistics {
public:
    /// @param header  the summary of the file's header
    explicit ReportStatistics(Summary header);

    void add(interop::RecordView record);

    /// Of all records; read lengths of primary ones.
    Summary const& summary() const { return summary_; }
    FlagCounts const& flags() const { return flags_; }
    std::uint64_t n_primary() const { return flags_.with(0, FLAG_SECONDARY | FLAG_SUPPLEMENTARY); }

    /// Of primary records with bases and qualities.
    QualityCounts const& qualities() const { return qualities_; }
    std::uint64_t n_without_qualities() const { return n_without_qualities_; }

    /// Mapped primary records by MAPQ; 255 is none.
    std::array<std::uint64_t, 256> const& mapping_qualities() const { return mapping_qualities_; }
    std::uint64_t n_mapped_without_reference() const { return n_mapped_without_reference_; }

    /// Of all mapped records.
    CigarCounts const& cigar() const { return cigar_; }

    /// Of mapped records that are neither secondary, duplicates, nor failed by quality
    /// checks; null for a reference without any.
    Coverage const* coverage(std::size_t refID) const { return coverage_[refID].get(); }

    /// Of primary records.
    ModifiedBases const& modified_bases() const { return modified_bases_; }

private:
    void add_read(interop::RecordView record);
    void add_alignment(interop::RecordView record);

    Summary summary_;
    FlagCounts flags_;
    QualityCounts qualities_;
    std::uint64_t n_without_qualities_ = 0;
    std::array<std::uint64_t, 256> mapping_qualities_{};
    std::uint64_t n_mapped_without_reference_ = 0;
    CigarCounts cigar_;
    std::size_t n_bins_;                               // of a reference's coverage
    std::vector<std::unique_ptr<Coverage>> coverage_;  // by refID
    ModifiedBases modified_bases_;
};

}  // namespace tesk::tool

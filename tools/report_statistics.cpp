#include "tools/report_statistics.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace tesk::tool {

namespace {

// Bins of one reference; fewer where there are so many references that all their
// bins together would be more than MAX_BINS_IN_ALL.
constexpr std::size_t MAX_BINS = 300;
constexpr std::size_t MIN_BINS = 10;
constexpr std::size_t MAX_BINS_IN_ALL = std::size_t{1} << 22;

std::size_t bins_for(std::size_t n_references) {
    std::size_t const share = MAX_BINS_IN_ALL / std::max<std::size_t>(n_references, 1);
    return std::clamp(share, MIN_BINS, MAX_BINS);
}

// The error probability that a score stands for.
double error_probability(std::size_t score) {
    static std::array<double, QualityCounts::N_SCORES> const probabilities = [] {
        std::array<double, QualityCounts::N_SCORES> made{};
        for (std::size_t i = 0; i < made.size(); ++i) {
            made[i] = std::pow(10.0, -static_cast<double>(i) / 10.0);
        }
        return made;
    }();
    return probabilities[score];
}

}  // namespace

std::uint64_t FlagCounts::with(unsigned set, unsigned unset) const {
    std::uint64_t n = 0;
    for (unsigned flag = 0; flag < counts_.size(); ++flag) {
        if ((flag & set) == set && (flag & unset) == 0) n += counts_[flag];
    }
    return n;
}

double score_of(double probability) { return -10.0 * std::log10(probability); }

// The sum of the error probabilities of two scores, by their pair.
std::array<double, QualityCounts::N_PAIRS> const& QualityCounts::pair_errors() {
    static std::array<double, N_PAIRS> const sums = [] {
        std::array<double, N_PAIRS> made{};
        for (std::size_t pair = 0; pair < N_PAIRS; ++pair) {
            made[pair] = error_probability(pair / N_SCORES) + error_probability(pair % N_SCORES);
        }
        return made;
    }();
    return sums;
}

void QualityCounts::add(char const* scores, std::size_t n) {
    std::array<double, N_PAIRS> const& errors = pair_errors();
    auto const score_at = [&](std::size_t i) -> std::size_t {
        return static_cast<unsigned char>(scores[i]);
    };
    std::array<double, N_LANES> sums{};
    std::size_t i = 0;
    for (; i + 2 * N_LANES <= n; i += 2 * N_LANES) {
        for (std::size_t lane = 0; lane < N_LANES; ++lane) {
            std::size_t const pair = N_SCORES * score_at(i + 2 * lane) + score_at(i + 2 * lane + 1);
            ++pairs_[lane][pair];
            sums[lane] += errors[pair];
        }
    }
    double sum = sums[0] + sums[1];
    for (; i < n; ++i) {
        ++singles_[score_at(i)];
        sum += error_probability(score_at(i));
    }
    // A rounding error could make the score less than 0.
    double const score = std::max(score_of(sum / static_cast<double>(n)), 0.0);
    auto const tenth = static_cast<std::size_t>(std::lround(10.0 * score));
    ++reads_[std::min(tenth, N_TENTHS - 1)];
}

std::array<std::uint64_t, QualityCounts::N_SCORES> QualityCounts::bases() const {
    std::array<std::uint64_t, N_SCORES> counts = singles_;
    for (auto const& lane : pairs_) {
        for (std::size_t pair = 0; pair < N_PAIRS; ++pair) {
            counts[pair / N_SCORES] += lane[pair];
            counts[pair % N_SCORES] += lane[pair];
        }
    }
    return counts;
}

std::optional<double> QualityCounts::mean_of_bases() const {
    std::array<std::uint64_t, N_SCORES> const counts = bases();
    std::uint64_t n = 0;
    double sum = 0;
    for (std::size_t score = 0; score < N_SCORES; ++score) {
        n += counts[score];
        sum += static_cast<double>(counts[score]) * error_probability(score);
    }
    if (n == 0) return std::nullopt;
    return std::max(score_of(sum / static_cast<double>(n)), 0.0);
}

std::optional<double> QualityCounts::median_of_reads() const {
    std::uint64_t n = 0;
    for (std::uint64_t const count : reads_) n += count;
    if (n == 0) return std::nullopt;
    auto const tenth_at = [&](std::uint64_t place) {
        std::size_t tenth = 0;
        for (; place >= reads_[tenth]; ++tenth) place -= reads_[tenth];
        return static_cast<double>(tenth);
    };
    return (tenth_at((n - 1) / 2) + tenth_at(n / 2)) / 20.0;
}

void CigarCounts::add(interop::CigarOperations cigar) {
    char const* next = cigar.begin;
    for (std::size_t i = 0; i < cigar.n; ++i, next += sizeof(std::uint32_t)) {
        std::uint32_t op;
        std::memcpy(&op, next, sizeof op);
        std::uint32_t const code = op & interop::CIGAR_OP_MASK;
        ++operations[code];
        bases[code] += op >> interop::CIGAR_OP_BITS;
    }
}

ReportStatistics::ReportStatistics(Summary header)
    : summary_(std::move(header)),
      n_bins_(bins_for(summary_.references.size())),
      coverage_(summary_.references.size()) {}

void ReportStatistics::add(interop::RecordView record) {
    unsigned const flag = record.flag();
    bool const is_primary = (flag & (FLAG_SECONDARY | FLAG_SUPPLEMENTARY)) == 0;
    bool const is_mapped = (flag & FLAG_UNMAPPED) == 0;
    summary_.add(record.refID(), flag, is_primary ? record.l_seq() : 0);
    flags_.add(flag);
    if (is_primary) add_read(record);
    if (is_primary && is_mapped) ++mapping_qualities_[record.mapq()];
    if (is_mapped) add_alignment(record);
}

void ReportStatistics::add_read(interop::RecordView record) {
    modified_bases_.add(record);
    if (record.l_seq() == 0) return;
    if (record.qual()[0] == interop::NO_QUALITY) {
        ++n_without_qualities_;
    } else {
        qualities_.add(record.qual(), static_cast<std::size_t>(record.l_seq()));
    }
}

void ReportStatistics::add_alignment(interop::RecordView record) {
    interop::CigarOperations const operations = interop::operations_of(record);
    cigar_.add(operations);
    if (record.refID() < 0) {
        ++n_mapped_without_reference_;
        return;
    }
    constexpr unsigned LEFT_OUT = FLAG_SECONDARY | FLAG_QC_FAIL | FLAG_DUPLICATE;
    if (record.pos() < 0 || (record.flag() & LEFT_OUT) != 0) return;
    auto const refID = static_cast<std::size_t>(record.refID());
    std::unique_ptr<Coverage>& coverage = coverage_[refID];
    if (!coverage) {
        coverage = std::make_unique<Coverage>(summary_.references[refID].length, n_bins_);
    }
    coverage->add(record.pos(), operations);
}

}  // namespace tesk::tool

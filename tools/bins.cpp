#include "tools/bins.h"

#include <algorithm>
#include <cmath>

namespace tesk::tool {

namespace {

constexpr std::int64_t MIN_BINS = 10;
constexpr std::int64_t MAX_BINS = 60;

// As many bins as tell something of so many values.
std::int64_t wanted_bins(std::uint64_t n_values) {
    auto const wanted = static_cast<std::int64_t>(2 * std::cbrt(static_cast<double>(n_values)));
    return std::clamp(wanted, MIN_BINS, MAX_BINS);
}

// The next one of 1, 2, 5, 10, 20, 50 and so on.
std::int64_t next_width(std::int64_t width) {
    std::int64_t power = 1;
    while (power * 10 <= width) power *= 10;
    return width == power ? 2 * power : width == 2 * power ? 5 * power : 10 * power;
}

Bins bins_between(std::vector<std::int64_t> const& edges) {
    Bins result;
    for (std::size_t i = 0; i + 1 < edges.size(); ++i) {
        result.bins.push_back({edges[i], edges[i + 1], 0});
    }
    return result;
}

// The least whole number that is not below 10 to the power of step / steps_per_decade.
std::int64_t logarithmic_edge(int step, int steps_per_decade) {
    // A power that should be a whole number may come out a little above it.
    constexpr double ROUNDING = 1e-9;
    double const edge = std::pow(10.0, static_cast<double>(step) / steps_per_decade);
    return static_cast<std::int64_t>(std::ceil(edge * (1 - ROUNDING)));
}

Bins logarithmic_bins(std::int64_t min, std::int64_t max, std::uint64_t n_values) {
    double const decades = std::log10(static_cast<double>(max) / static_cast<double>(min));
    int steps_per_decade = 5;
    for (int const steps : {10, 20}) {
        if (decades * steps <= static_cast<double>(wanted_bins(n_values))) steps_per_decade = steps;
    }
    std::vector<std::int64_t> edges;
    for (int step = 0; edges.empty() || edges.back() <= max; ++step) {
        std::int64_t const edge = logarithmic_edge(step, steps_per_decade);
        if (edge <= min) edges.clear();
        if (edges.empty() || edge > edges.back()) edges.push_back(edge);
    }
    Bins result = bins_between(edges);
    result.is_logarithmic = true;
    return result;
}

}  // namespace

void Bins::add(std::int64_t value, std::uint64_t count) {
    auto const after =
        std::upper_bound(bins.begin(), bins.end(), value,
                         [](std::int64_t number, Bin const& bin) { return number < bin.begin; });
    std::prev(after)->count += count;
}

Bins linear_bins(std::int64_t min, std::int64_t max, std::uint64_t n_values, std::int64_t least) {
    constexpr std::int64_t FEW = 10;
    constexpr std::int64_t MARGIN = 5;
    if (max - min < FEW) {
        min = std::max(least, min - MARGIN);
        max += MARGIN;
    }
    std::int64_t width = 1;
    while ((max - min) / width > wanted_bins(n_values) * 5 / 4) width = next_width(width);
    std::vector<std::int64_t> edges;
    for (std::int64_t edge = min / width * width; edge <= max; edge += width) {
        edges.push_back(std::max(edge, least));
    }
    edges.push_back(edges.back() / width * width + width);
    return bins_between(edges);
}

Bins length_bins(std::int64_t min, std::int64_t max, std::uint64_t n_values) {
    constexpr std::int64_t MAX_SHORT = 1000;
    constexpr std::int64_t WIDE = 10;  // longest by shortest
    if (max > MAX_SHORT && max / min >= WIDE) return logarithmic_bins(min, max, n_values);
    return linear_bins(min, max, n_values, 1);
}

}  // namespace tesk::tool

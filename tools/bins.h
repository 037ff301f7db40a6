// How whole numbers are put into bins for a plot.

#pragma once

#include <cstdint>
#include <vector>

namespace tesk::tool {

/// Whole numbers from `begin` up to, but without, `end`.
struct Bin {
    std::int64_t begin = 0;
    std::int64_t end = 0;
    std::uint64_t count = 0;
};

/// Bins side by side, in rising order.
struct Bins {
    bool is_logarithmic = false;  // they are equally wide on a logarithmic axis
    std::vector<Bin> bins;

    /// @param value  must be in a bin
    void add(std::int64_t value, std::uint64_t count);
};

/// Empty bins for the values from `min` to `max`: of a width of 1, 2 or 5 times a power
/// of ten, the more of them the more values there are. Where there are less than ten
/// different values, a few bins more stand on either side.
///
/// @param n_values  how many there are in all, at least 1
/// @param least     no bin holds a smaller value; at most `min`
Bins linear_bins(std::int64_t min, std::int64_t max, std::uint64_t n_values, std::int64_t least);

/// Empty bins for lengths of reads, all above 0: logarithmic ones where the longest
/// read has more than 1,000 bases and at least ten times as many as the shortest.
Bins length_bins(std::int64_t min, std::int64_t max, std::uint64_t n_values);

}  // namespace tesk::tool

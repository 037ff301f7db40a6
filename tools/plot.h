// Bars over an axis of numbers, as an SVG drawing.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tesk::tool {

/// A place on an axis, and what stands there.
struct Tick {
    double at = 0;
    std::string label;
};

struct Bar {
    double begin = 0;
    double end = 0;
    std::uint64_t count = 0;
    std::string label;  // of the values that it counts, such as "150 to 159 bases"
};

/// What a drawing shows.
struct Plot {
    std::string id;           // letters and '-'; of the page, each once
    std::string title;        // for those who do not see the drawing
    std::string description;  // the same
    std::string x_title;
    std::string y_noun;  // one of what is counted, such as "read"
    std::vector<Bar> bars;
    bool is_logarithmic = false;  // `begin` is above 0 then
    double begin = 0;             // of the axis
    double end = 1;
    // Ticks at whole numbers are chosen, up to here, beside the given ones.
    double ticks_end = 1;
    std::vector<Tick> given_ticks;
    std::optional<Tick> marker;  // a line across the plot
};

/// The drawing as an SVG element: its labels do not overlap at a font size of up to 13
/// of its own units.
std::string svg_of(Plot const& plot);

}  // namespace tesk::tool

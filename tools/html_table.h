// Tables of an HTML page.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tesk::tool {

/// One entry of a table.
struct Cell {
    std::string text;
    std::string whole = {};  // shown when pointed at, where the text was cut
};

/// An HTML element that holds the text of a cell.
/// @param tag  of the element, with its attributes but for the title
std::string element(std::string const& tag, Cell const& cell);

struct Row {
    std::vector<Cell> cells;
    double share = 0;      // length of its bar, 0 to 1
    bool is_rest = false;  // sums up what has no row of its own
};

/// A table of numbers: the first column names what they are of; bars come last.
struct Table {
    std::string name;  // for those who do not see where it stands
    std::vector<Cell> heads;
    std::vector<Row> rows = {};
    std::size_t n_words = 0;  // columns behind the first that hold words
    bool has_bars = false;
};

/// The table in a box of its own, in which it can be scrolled where it is too wide.
std::string html_table(Table const& table);

}  // namespace tesk::tool

#include "tools/html_table.h"

#include "tools/html_text.h"

namespace tesk::tool {

namespace {

constexpr char const* BAR_BEGIN = "<td class=\"share\">";

// Entries of a row: the first one is its head, words stand at the left.
std::string html_cells(Table const& table, std::vector<Cell> const& cells, bool are_heads) {
    std::string html;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        std::string tag = are_heads ? "th scope=\"col\"" : i == 0 ? "th scope=\"row\"" : "td";
        if (i > 0 && i <= table.n_words) tag += " class=\"words\"";
        html += element(tag, cells[i]);
    }
    return html;
}

std::string html_row(Table const& table, Row const& row) {
    std::string html = row.is_rest ? "<tr class=\"rest\">" : "<tr>";
    html += html_cells(table, row.cells, false);
    if (table.has_bars) html += BAR_BEGIN;
    if (table.has_bars && row.share > 0) {
        html += "<span style=\"width:" + plain(100 * row.share, 2) + "%\"></span>";
    }
    return html + (table.has_bars ? "</td></tr>\n" : "</tr>\n");
}

}  // namespace

std::string element(std::string const& tag, Cell const& cell) {
    std::string html = "<" + tag;
    if (!cell.whole.empty()) html += " title=\"" + html_text(cell.whole) + "\"";
    return html + ">" + html_text(cell.text) + "</" + tag.substr(0, tag.find(' ')) + ">";
}

std::string html_table(Table const& table) {
    std::string html = "<div class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\"" +
                       html_text(table.name) + "\"><table>\n<thead><tr>" +
                       html_cells(table, table.heads, true);
    if (table.has_bars) html += std::string(BAR_BEGIN) + "</td>";
    html += "</tr></thead>\n<tbody>\n";
    for (Row const& row : table.rows) html += html_row(table, row);
    return html + "</tbody></table></div>\n";
}

}  // namespace tesk::tool

#include "tests/support/page.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "tests/support/temp_file.h"
#include "tests/support/text.h"

namespace tesk::test {

namespace {

constexpr std::string_view FENCE = "```";

std::string_view trimmed(std::string_view text) {
    std::size_t const begin = text.find_first_not_of(' ');
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

bool starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// The cells of a line such as "| a | b |"; a bar inside a cell is written as "\|".
TableRow cells_of(std::string_view line) {
    TableRow cells(1);
    line.remove_prefix(1);
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (starts_with(line.substr(i), "\\|")) {
            cells.back() += line[++i];
        } else if (line[i] == '|') {
            cells.emplace_back();
        } else if (line[i] != '`') {
            cells.back() += line[i];
        }
    }
    cells.pop_back();  // behind the last bar
    for (std::string& cell : cells) cell = std::string(trimmed(cell));
    return cells;
}

// Lines of text and headings, not those of programs and the like.
std::vector<std::string_view> lines_outside_blocks(std::string_view page) {
    std::vector<std::string_view> lines;
    bool in_block = false;
    for (std::string_view const line : split(page, '\n')) {
        bool const is_fence = starts_with(line, FENCE);
        if (is_fence) in_block = !in_block;
        if (!in_block && !is_fence && !starts_with(line, "    ")) lines.push_back(line);
    }
    return lines;
}

// As a link names it: lower-case letters, digits, '-' and '_', with '-' for blanks.
std::string anchor_of(std::string_view heading) {
    std::string anchor;
    for (char const c : heading) {
        auto const byte = static_cast<unsigned char>(c);
        if (c == ' ') anchor += '-';
        if (std::isalnum(byte) != 0 || c == '-' || c == '_') {
            anchor += static_cast<char>(std::tolower(byte));
        }
    }
    return anchor;
}

}  // namespace

std::string source_file(std::string const& path) {
    return read_file(std::string(TESK_BAM_SOURCE_DIR) + "/" + path);
}

std::string between(std::string const& text, std::string const& begin, std::string const& end) {
    std::size_t const from = text.find(begin);
    if (from == std::string::npos) return "no " + begin;
    std::size_t const to = text.find(end, from + begin.size());
    return text.substr(from + begin.size(), to - from - begin.size());
}

std::vector<Shown> commands_in(std::string_view part) {
    std::vector<Shown> commands;
    bool open = false;
    std::string blank;  // lines that belong to the output where more of it follows
    for (std::string_view const line : split(part, '\n')) {
        bool const indented = line.substr(0, 4) == "    ";
        if (line.substr(0, 6) == "    $ ") {
            commands.push_back({std::string(line.substr(6)), ""});
            open = true;
        } else if (indented && open) {
            commands.back().output += blank + std::string(line.substr(4)) + "\n";
        } else if (line.empty() && open) {
            blank += "\n";
            continue;
        } else {
            open = false;
        }
        blank.clear();
    }
    return commands;
}

bool is_as_shown(std::string const& printed, std::string const& shown) {
    std::string const lines = "\n" + shown;
    std::size_t const gap = lines.find("\n...\n");  // in `shown`, where that line begins
    if (gap == std::string::npos) return printed == shown;
    std::string const end = shown.substr(gap + 4);
    return printed.size() >= gap + end.size() && printed.compare(0, gap, shown, 0, gap) == 0 &&
           printed.compare(printed.size() - end.size(), end.size(), end) == 0;
}

std::vector<std::string> comments_of(std::string const& page, std::string const& name) {
    std::string const begin = "<!-- " + name + ": ";
    std::vector<std::string> texts;
    for (std::size_t at = page.find(begin); at != std::string::npos; at = page.find(begin, at)) {
        at += begin.size();
        texts.push_back(page.substr(at, page.find(" -->", at) - at));
    }
    return texts;
}

std::string_view behind(std::string_view page, std::string const& comment) {
    std::string const text = "<!-- " + comment + " -->";
    std::size_t const at = page.find(text);
    if (at == std::string_view::npos) throw std::runtime_error("no " + text);
    std::string_view const rest = page.substr(at + text.size());
    if (rest.find(text) != std::string_view::npos) throw std::runtime_error("two " + text);
    return rest;
}

std::string block_behind(std::string const& page, std::string const& comment) {
    std::string_view const rest = behind(page, comment);
    std::size_t const fence = rest.find(FENCE);
    std::size_t const begin = rest.find('\n', fence) + 1;
    return std::string(rest.substr(begin, rest.find(FENCE, begin) - begin));
}

std::string bytes_of_hex(std::string_view text) {
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string bytes;
    for (std::string_view const pair : split(text, ' ')) {
        std::size_t const high = pair.size() == 2 ? DIGITS.find(pair[0]) : std::string_view::npos;
        std::size_t const low = pair.size() == 2 ? DIGITS.find(pair[1]) : std::string_view::npos;
        if (high == std::string_view::npos || low == std::string_view::npos) {
            throw std::runtime_error("no byte: " + std::string(pair));
        }
        bytes += static_cast<char>(high << 4U | low);
    }
    return bytes;
}

std::string bytes_behind(std::string const& page, std::string const& comment) {
    std::string bytes;
    std::string const block = block_behind(page, comment);
    for (std::string_view const line : split(block, '\n')) {
        if (!line.empty()) bytes += bytes_of_hex(line.substr(0, line.find("  ")));
    }
    return bytes;
}

std::vector<TableRow> table_behind(std::string const& page, std::string const& comment) {
    std::vector<TableRow> rows;
    for (std::string_view const line : split(behind(page, comment), '\n')) {
        if (starts_with(line, "|")) {
            rows.push_back(cells_of(line));
        } else if (!rows.empty()) {
            break;
        }
    }
    constexpr std::ptrdiff_t N_HEAD = 2;  // with the line below
    if (rows.size() < N_HEAD) throw std::runtime_error("no table behind " + comment);
    rows.erase(rows.begin(), rows.begin() + N_HEAD);
    return rows;
}

std::vector<std::string> anchors_of(std::string const& page) {
    std::vector<std::string> anchors;
    for (std::string_view const line : lines_outside_blocks(page)) {
        std::size_t const level = line.find_first_not_of('#');
        if (level == 0 || level >= line.size() || line[level] != ' ') continue;
        anchors.push_back(anchor_of(line.substr(level + 1)));
    }
    return anchors;
}

std::vector<std::string> links_of(std::string const& page) {
    std::vector<std::string> links;
    for (std::string_view line : lines_outside_blocks(page)) {
        for (std::size_t at = 0; (at = line.find("](")) != std::string_view::npos;) {
            line.remove_prefix(at + 2);
            links.emplace_back(line.substr(0, line.find(')')));
        }
    }
    return links;
}

}  // namespace tesk::test

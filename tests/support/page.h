// The project's own pages, and what they show, for tests that hold it against what
// the project does.
//
// What a test looks for on a page stands behind a comment of its own, which readers
// of the page do not see: "<!-- NAME: TEXT -->".

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tesk::test {

/// A file of the project by its path in it; throws std::runtime_error where it
/// cannot be read.
std::string source_file(std::string const& path);

/// The text between two marks, the first one searched from the beginning; "no "
/// and the mark where there is none.
std::string between(std::string const& text, std::string const& begin, std::string const& end);

/// What a page shows of a terminal: a command, and the lines that it prints.
struct Shown {
    std::string command;
    std::string output;
};

/// The commands of a part of a page: indented lines after "$ ".
std::vector<Shown> commands_in(std::string_view part);

/// Whether a command printed what is shown; a line "..." stands for any lines.
bool is_as_shown(std::string const& printed, std::string const& shown);

/// The TEXT of every comment of a name, in order.
std::vector<std::string> comments_of(std::string const& page, std::string const& name);

/// The page behind the comment "<!-- comment -->"; throws std::runtime_error where
/// there is none, or two.
std::string_view behind(std::string_view page, std::string const& comment);

/// The first block between lines of ``` behind a comment, without them.
std::string block_behind(std::string const& page, std::string const& comment);

/// The bytes of such a block: pairs of hexadecimal digits, one blank apart, at the
/// beginning of each line; two blanks end them.
std::string bytes_behind(std::string const& page, std::string const& comment);

/// Bytes from such pairs.
std::string bytes_of_hex(std::string_view text);

using TableRow = std::vector<std::string>;

/// The rows of the first table behind a comment, without its head: cells without
/// the blanks around them, and without backticks.
std::vector<TableRow> table_behind(std::string const& page, std::string const& comment);

/// The headings of a page as links name them: "reading-bam" for "## Reading BAM".
std::vector<std::string> anchors_of(std::string const& page);

/// The targets of all links of a page: "](TARGET)".
std::vector<std::string> links_of(std::string const& page);

}  // namespace tesk::test

#include "interop/report.h"

#include <iterator>
#include <utility>

namespace tesk::interop {

namespace {

// What a kind of finding is called by programs, and what people are told of it.
template <typename Kind>
struct Words {
    Kind kind;
    char const* name;
    char const* text;
};

constexpr Words<Repair> REPAIRS[] = {
    {Repair::HEADER_VERSION, "header_version",
     "VN of @HD is missing, malformed or below 1.6: set to 1.6"},
    {Repair::HEADER_UNKNOWN_FIELD, "header_unknown_field",
     "@HD has fields other than one VN, SO, GO and SS each, or stray white space: dropped"},
    {Repair::HEADER_GROUP_BESIDE_SORT, "header_group_beside_sort",
     "@HD has GO beside SO: GO dropped"},
    {Repair::HEADER_ORDER_VALUE, "header_order_value",
     "SO, GO or SS of @HD has a value that is not allowed: dropped"},
    {Repair::HEADER_PADDING, "header_padding", "NUL characters follow the header text: dropped"},
    {Repair::HEADER_BLANK_LINE, "header_blank_line", "a header line is blank: dropped"},
    {Repair::HEADER_UNKNOWN_TYPE, "header_unknown_type",
     "a header line has an unknown record type: kept as an @CO line"},
    {Repair::REFERENCES_FROM_LIST, "references_from_list",
     "the header text has no @SQ lines: made from the binary reference list"},
    {Repair::CARRIAGE_RETURN, "carriage_return", "a line ends in a carriage return: dropped"},
    {Repair::TRAILING_TAB, "trailing_tab", "a tab follows the last field of a line: dropped"},
    {Repair::BLANK_FOR_TAB, "blank_for_tab",
     "a blank stands between two optional fields: taken as a tab"},
    {Repair::LOWER_CASE_BASE, "lower_case_base", "SEQ has lower-case bases: changed to upper case"},
    {Repair::DOT_BASE, "dot_base", "SEQ has bases \".\": changed to N"},
    {Repair::URACIL_BASE, "uracil_base", "SEQ has bases U: stored as T"},
    {Repair::WIDE_INTEGER, "wide_integer",
     "an optional field of type i is above 2147483647: stored with type I"},
    {Repair::INTEGER_TYPE_LETTER, "integer_type_letter",
     "an optional field has type c, C, s, S or I in text: read as type i"},
    {Repair::WIDE_ARRAY_ELEMENT, "wide_array_element",
     "an array of type I has elements above 2147483647 in text: kept"},
    {Repair::FLOAT_UNDERFLOW, "float_underflow",
     "a number is closer to 0 than floats get: the nearest float is stored"},
    {Repair::FLOAT_ARRAY, "float_array",
     "an array of floats: written with the shortest text that reads back the same"},
    {Repair::PARTIAL_QUALITY, "partial_quality",
     "QUAL begins with 255, which means none, but goes on: taken as \"*\""},
    {Repair::SHORT_INTEGER, "short_integer",
     "an optional field of type s or S: widened to type i or I"},
};

constexpr Words<Warning> WARNINGS[] = {
    {Warning::UNKNOWN_REFERENCE, "unknown_reference",
     "RNAME or RNEXT is not in the header: read as \"*\""},
    {Warning::BEYOND_REFERENCE_END, "beyond_reference_end",
     "a record ends behind the end of its reference"},
    {Warning::MISSING_EOF_BLOCK, "missing_eof_block",
     "the end-of-file block is missing: the file may have been cut"},
};

// Whether enumerators can index a table.
template <typename Kind, std::size_t N>
constexpr bool is_in_order(Words<Kind> const (&table)[N]) {
    for (std::size_t i = 0; i < N; ++i) {
        if (static_cast<std::size_t>(table[i].kind) != i) return false;
    }
    return true;
}

static_assert(std::size(REPAIRS) == N_REPAIRS && is_in_order(REPAIRS));
static_assert(std::size(WARNINGS) == N_WARNINGS && is_in_order(WARNINGS));

Words<Repair> const& words_of(Repair repair) { return REPAIRS[static_cast<std::size_t>(repair)]; }
Words<Warning> const& words_of(Warning warning) {
    return WARNINGS[static_cast<std::size_t>(warning)];
}

// How often and where, in brackets; empty for the file as a whole.
std::string extent_of(Finding const& finding) {
    std::string const place = finding.first.text();
    if (place.empty()) return "";
    if (finding.count == 1) return " (once, in " + place + ")";
    return " (" + std::to_string(finding.count) + " times, first in " + place + ")";
}

template <typename Kind, std::size_t N>
void add_lines(std::vector<std::string>& lines, char const* what, Words<Kind> const (&table)[N],
               std::array<Finding, N> const& findings) {
    for (std::size_t i = 0; i < N; ++i) {
        if (findings[i].count == 0) continue;
        lines.push_back(std::string(what) + table[i].text + extent_of(findings[i]));
    }
}

}  // namespace

std::string Place::text() const {
    switch (unit) {
        case Unit::FILE: break;
        case Unit::LINE: return "line " + std::to_string(number);
        case Unit::HEADER_LINE: return "header line " + std::to_string(number);
        case Unit::RECORD: return "record " + std::to_string(number);
    }
    return "";
}

char const* name_of(Repair repair) { return words_of(repair).name; }
char const* name_of(Warning warning) { return words_of(warning).name; }

char const* text_of(Repair repair) { return words_of(repair).text; }
char const* text_of(Warning warning) { return words_of(warning).text; }

void Report::add_error(std::string message) {
    if (errors_.size() < MAX_ERRORS) errors_.push_back(std::move(message));
    ++n_errors_;
}

std::vector<std::string> Report::lines() const {
    std::vector<std::string> lines;
    add_lines(lines, "repaired: ", REPAIRS, repairs_);
    add_lines(lines, "warning: ", WARNINGS, warnings_);
    return lines;
}

}  // namespace tesk::interop

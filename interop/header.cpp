#include "interop/header.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <limits>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace tesk::interop {

namespace {

using util::bam::BAMFileHandler;

// What separates words for BAMFileHandler::add_header_lines().
constexpr std::string_view WHITE_SPACE = " \t\n\v\f\r";

// The version whose rules headers get; lower ones do not allow all lines.
constexpr std::string_view LEAST_VERSION = "1.6";
constexpr int MAJOR_VERSION = 1;
constexpr int LEAST_MINOR_VERSION = 6;

constexpr std::string_view SORT_ORDERS[] = {"unknown", "unsorted", "queryname", "coordinate"};
constexpr std::string_view GROUP_ORDERS[] = {"none", "query", "reference"};

bool fail(std::string& error, std::string message) {
    error = std::move(message);
    return false;
}

bool begins_with(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

bool has_white_space(std::string_view text) {
    return text.find_first_of(WHITE_SPACE) != std::string_view::npos;
}

// A text for a message, which has one line.
std::string shown(std::string_view text) {
    std::string result(text);
    std::replace_if(
        result.begin(), result.end(), [](char c) { return c >= '\0' && c < ' '; }, '?');
    return result;
}

// Reads a whole text as a number without a sign. False for everything else,
// also where the number does not fit.
bool read_number(std::string_view text, std::int32_t& number) {
    if (text.empty() || text.front() < '0' || text.front() > '9') return false;
    char const* const end = text.data() + text.size();
    auto const [next, status] = std::from_chars(text.data(), end, number);
    return status == std::errc() && next == end;
}

// Calls `visit` with each field behind a record type and the character before it.
// A line whose first separator is a blank is taken to have blanks all along.
template <typename Visit>
void for_each_field(std::string_view fields, Visit visit) {
    bool const has_tabs = !fields.empty() && fields.front() == '\t';
    std::string_view const separators = has_tabs ? "\t" : WHITE_SPACE;
    while (!fields.empty()) {
        char const separator = fields.front();
        fields.remove_prefix(1);
        std::string_view const field = fields.substr(0, fields.find_first_of(separators));
        fields.remove_prefix(field.size());
        visit(separator, field);
    }
}

// --- References --------------------------------------------------------------

// What is wrong with a name; empty where nothing is.
std::string fault_of_name(std::string_view name) {
    if (name.empty()) return "the reference has no name";
    if (name.find('\0') != std::string_view::npos) {
        return "reference name " + shown(name) + " has a NUL character";
    }
    if (has_white_space(name)) return "reference name \"" + shown(name) + "\" has white space";
    // These stand for no reference and for the same one in RNAME and RNEXT.
    if (name.front() == '*' || name.front() == '=') {
        return "reference name " + shown(name) + " begins with " + name.front();
    }
    return "";
}

std::string fault_of_length(std::string_view name, std::string_view length) {
    return "the length of reference " + shown(name) +
           " is no number from 1 to 2147483647: " + shown(length);
}

// The word of a field that would be taken for a field of its own, as words are
// looked at, not fields, when the line is read again; empty where there is none.
std::string_view hidden_field(std::string_view field) {
    std::size_t blank = field.find_first_of(WHITE_SPACE);
    while (blank != std::string_view::npos) {
        field.remove_prefix(std::min(field.find_first_not_of(WHITE_SPACE, blank), field.size()));
        blank = field.find_first_of(WHITE_SPACE);
        if (begins_with(field, "SN:") || begins_with(field, "LN:")) return field.substr(0, blank);
    }
    return {};
}

std::string reference_text(std::vector<RefSeq> const& references, std::size_t i) {
    if (i >= references.size()) return "nothing";
    return shown(references[i].name) + " of " + std::to_string(references[i].length) + " bases";
}

// Where two lists differ: "reference 2: chr2 of 100 bases and nothing"; empty
// where they do not.
std::string difference_of(std::vector<RefSeq> const& a, std::vector<RefSeq> const& b) {
    for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
        bool const in_both = i < std::min(a.size(), b.size());
        if (in_both && a[i].name == b[i].name && a[i].length == b[i].length) continue;
        return "reference " + std::to_string(i + 1) + ": " + reference_text(a, i) + " and " +
               reference_text(b, i);
    }
    return "";
}

std::string place_in_list(std::size_t reference) {
    return "reference " + std::to_string(reference + 1) + " of the list";
}

// Makes @SQ lines of a binary list.
bool add_sq_lines(std::vector<RefSeq> const& list, std::string& text, std::string& error) {
    for (std::size_t i = 0; i < list.size(); ++i) {
        std::string const length = std::to_string(list[i].length);
        std::string fault = fault_of_name(list[i].name);
        if (fault.empty() && list[i].length <= 0) fault = fault_of_length(list[i].name, length);
        if (!fault.empty()) {
            return fail(error, place_in_list(i) + ": " + fault);
        }
        text.append("@SQ\tSN:").append(list[i].name).append("\tLN:").append(length) += '\n';
    }
    return true;
}

// --- @HD ---------------------------------------------------------------------

// The fields that an @HD line may have, in the order of a line made anew.
enum HdKey : std::size_t { VN, SO, GO, SS, N_HD_KEYS };
constexpr std::string_view HD_KEYS[N_HD_KEYS] = {"VN:", "SO:", "GO:", "SS:"};

// Their values, where there are some.
using HdFields = std::array<std::optional<std::string_view>, N_HD_KEYS>;

// Takes the fields of an @HD line apart. The last one of a key holds.
// @return  number of fields that are left out, and of stray white space
std::uint64_t read_hd_fields(std::string_view fields, HdFields& values) {
    std::uint64_t n_stray = 0;
    for_each_field(fields, [&](char separator, std::string_view field) {
        auto const* const key = std::find(HD_KEYS, std::end(HD_KEYS), field.substr(0, 3));
        bool const is_known = key != std::end(HD_KEYS);
        auto* const value = is_known ? &values[static_cast<std::size_t>(key - HD_KEYS)] : nullptr;
        if (separator != '\t' || !is_known || value->has_value()) ++n_stray;
        if (is_known) *value = field.substr(3);
    });
    return n_stray;
}

bool is_version(std::string_view vn) {
    std::size_t const dot = vn.find('.');
    std::int32_t major = 0;
    std::int32_t minor = 0;
    return dot != std::string_view::npos && read_number(vn.substr(0, dot), major) &&
           read_number(vn.substr(dot + 1), minor) && major == MAJOR_VERSION &&
           minor >= LEAST_MINOR_VERSION;
}

template <std::size_t N>
bool is_one_of(std::string_view text, std::string_view const (&values)[N]) {
    return std::find(values, values + N, text) != values + N;
}

// Whether SS refines the order that SO names.
bool is_sub_sort(std::string_view ss, std::optional<std::string_view> so) {
    return so && begins_with(ss, *so) && begins_with(ss.substr(so->size()), ":") &&
           ss.size() > so->size() + 1 && !has_white_space(ss);
}

// --- Lines -------------------------------------------------------------------

// Repairs header lines one by one and gathers what they hold.
class HeaderLines {
public:
    HeaderLines(Place::Unit unit, Report& report, std::string& error)
        : unit_(unit), report_(report), error_(error) {}

    bool read(std::string_view lines);

    // Where an @SQ line stands.
    std::string place_of(std::size_t reference) const {
        return Place{unit_, sq_lines_[reference]}.text();
    }

    std::string text;
    std::vector<RefSeq> references;

private:
    bool take_line(std::string_view line);
    bool take_hd_line(std::string_view line);
    bool take_sq_line(std::string_view line);
    void repair_version(HdFields& fields);
    void repair_order(HdFields& fields);

    void keep(std::string_view line) { text.append(line) += '\n'; }

    void repaired(Repair repair, std::uint64_t count = 1) {
        if (count == 0) return;
        report_.add(repair, {unit_, number_}, count);
        n_repairs_ += count;
    }

    bool fail_here(std::string const& reason) {
        return fail(error_, Place{unit_, number_}.text() + ": " + reason);
    }

    Place::Unit unit_;
    Report& report_;
    std::string& error_;
    std::uint64_t number_ = 0;   // of the present line
    std::uint64_t hd_line_ = 0;  // number of the @HD line; 0 for none
    std::uint64_t n_repairs_ = 0;
    std::vector<std::uint64_t> sq_lines_;  // number of each reference's line
};

bool HeaderLines::read(std::string_view lines) {
    std::size_t const nul = lines.find('\0');
    if (nul != std::string_view::npos) {
        std::string_view const before = lines.substr(0, nul);
        number_ = 1 + static_cast<std::uint64_t>(std::count(before.begin(), before.end(), '\n'));
        return fail_here("the header line has a NUL character");
    }
    text.reserve(lines.size() + 1);
    while (!lines.empty()) {
        ++number_;
        std::string_view const line = lines.substr(0, lines.find('\n'));
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
        if (!take_line(line)) return false;
    }
    return true;
}

bool HeaderLines::take_line(std::string_view line) {
    if (line.find_first_not_of(WHITE_SPACE) == std::string_view::npos) {
        repaired(Repair::HEADER_BLANK_LINE);
        return true;
    }
    std::size_t const end = line.find_last_not_of('\r') + 1;
    if (end != line.size()) repaired(Repair::CARRIAGE_RETURN);
    line = line.substr(0, end);

    std::string_view const type = line.substr(0, line.find_first_of(WHITE_SPACE));
    if (type == "@HD") return take_hd_line(line);
    if (type == "@SQ") return take_sq_line(line);
    if (type != "@RG" && type != "@PG" && type != "@CO") {
        repaired(Repair::HEADER_UNKNOWN_TYPE);
        text += "@CO\t";
    }
    keep(line);
    return true;
}

bool HeaderLines::take_hd_line(std::string_view line) {
    if (hd_line_ != 0) {
        return fail_here("a second @HD line, the first is " + Place{unit_, hd_line_}.text());
    }
    if (!text.empty()) return fail_here("@HD is not the first header line");
    hd_line_ = number_;

    std::uint64_t const n_earlier_repairs = n_repairs_;
    HdFields fields;
    repaired(Repair::HEADER_UNKNOWN_FIELD, read_hd_fields(line.substr(3), fields));
    repair_version(fields);
    repair_order(fields);
    if (n_repairs_ == n_earlier_repairs) {
        keep(line);
        return true;
    }
    text += "@HD";
    for (std::size_t key = 0; key < N_HD_KEYS; ++key) {
        if (fields[key]) (text += '\t').append(HD_KEYS[key]).append(*fields[key]);
    }
    text += '\n';
    return true;
}

void HeaderLines::repair_version(HdFields& fields) {
    if (fields[VN] && is_version(*fields[VN])) return;
    fields[VN] = LEAST_VERSION;
    repaired(Repair::HEADER_VERSION);
}

// Values come first, so that GO stays beside an SO that says nothing.
void HeaderLines::repair_order(HdFields& fields) {
    auto const drop = [&](HdKey key, Repair repair) {
        fields[key].reset();
        repaired(repair);
    };
    if (fields[SO] && !is_one_of(*fields[SO], SORT_ORDERS)) drop(SO, Repair::HEADER_ORDER_VALUE);
    if (fields[GO] && !is_one_of(*fields[GO], GROUP_ORDERS)) drop(GO, Repair::HEADER_ORDER_VALUE);
    if (fields[SS] && !is_sub_sort(*fields[SS], fields[SO])) drop(SS, Repair::HEADER_ORDER_VALUE);
    if (fields[SO] && fields[GO]) drop(GO, Repair::HEADER_GROUP_BESIDE_SORT);
}

bool HeaderLines::take_sq_line(std::string_view line) {
    std::string_view name;
    std::optional<std::string_view> length;
    std::int32_t number = 1;
    std::string_view hidden;
    for_each_field(line.substr(3), [&](char, std::string_view field) {
        if (begins_with(field, "SN:")) name = field.substr(3);
        // The last one holds, but all must be numbers. A bad one stays.
        if (begins_with(field, "LN:") && number != 0) {
            length = field.substr(3);
            if (!read_number(*length, number)) number = 0;
        }
        if (hidden.empty()) hidden = hidden_field(field);
    });

    std::string const fault = fault_of_name(name);
    if (!fault.empty()) return fail_here(fault);
    if (!length) return fail_here("reference " + shown(name) + " has no length");
    if (number == 0) return fail_here(fault_of_length(name, *length));
    if (!hidden.empty()) {
        return fail_here("\"" + shown(hidden) + "\" inside a field of reference " + shown(name) +
                         " would be taken for a field");
    }
    references.push_back({std::string(name), number});
    sq_lines_.push_back(number_);
    keep(line);
    return true;
}

// Whether the library takes header lines, and for the same references.
bool is_taken(std::string const& text, std::vector<RefSeq> const& references, std::string& error) {
    BAMFileHandler handler;
    try {
        if (!handler.add_header_lines(text)) {
            return fail(error, "the header is refused: " + handler.error_message);
        }
    } catch (std::logic_error const& fault) {
        return fail(error, std::string("the header is refused: ") + fault.what());
    }
    std::string const difference = difference_of(references, handler.references);
    return difference.empty() ||
           fail(error, "the header would be read differently at " + difference);
}

}  // namespace

bool Header::assign_sam(std::string_view text, Report& report, std::string& error) {
    HeaderLines lines(Place::Unit::LINE, report, error);
    bool const is_read = lines.read(text);
    *this = Header();
    if (!is_read) return false;
    auto const place_of = [&](std::size_t i) { return lines.place_of(i); };
    return adopt(std::move(lines.text), std::move(lines.references), place_of, error);
}

bool Header::assign_bam(std::string_view text, std::vector<RefSeq> list, Report& report,
                        std::string& error) {
    std::size_t const end = text.find_last_not_of('\0') + 1;
    if (end != text.size()) report.add(Repair::HEADER_PADDING, Place());

    HeaderLines lines(Place::Unit::HEADER_LINE, report, error);
    bool const is_read = lines.read(text.substr(0, end));
    *this = Header();
    if (!is_read) return false;
    if (lines.references.empty() && !list.empty()) {
        if (!add_sq_lines(list, lines.text, error)) return false;
        report.add(Repair::REFERENCES_FROM_LIST, Place(), list.size());
        return adopt(std::move(lines.text), std::move(list), place_in_list, error);
    }
    std::string const difference = difference_of(lines.references, list);
    if (!difference.empty()) {
        return fail(error, "the header text and the reference list differ at " + difference);
    }
    auto const place_of = [&](std::size_t i) { return lines.place_of(i); };
    return adopt(std::move(lines.text), std::move(lines.references), place_of, error);
}

template <typename PlaceOf>
bool Header::adopt(std::string text, std::vector<RefSeq> references, PlaceOf const& place_of,
                   std::string& error) {
    std::unordered_map<std::string_view, std::int32_t> numbers;
    numbers.reserve(references.size());
    for (std::size_t i = 0; i < references.size(); ++i) {
        auto const [entry, is_new] =
            numbers.emplace(references[i].name, static_cast<std::int32_t>(i));
        if (is_new) continue;
        return fail(error, place_of(i) + ": reference name " + references[i].name +
                               " appears twice, first in " +
                               place_of(static_cast<std::size_t>(entry->second)));
    }
    if (!is_taken(text, references, error)) return false;
    text_ = std::move(text);
    // The names stay where they are, as a vector hands its elements over.
    references_ = std::move(references);
    numbers_ = std::move(numbers);
    return true;
}

std::string Header::text_sorted_by_coordinate() const {
    std::string_view rest = text_;
    HdFields fields;
    // Other record types that begin like this have become comments.
    if (begins_with(rest, "@HD")) {
        std::string_view const line = rest.substr(0, rest.find('\n'));
        read_hd_fields(line.substr(3), fields);
        rest.remove_prefix(line.size() + 1);
    }
    std::string text = "@HD\tVN:";
    text.append(fields[VN].value_or(LEAST_VERSION)).append("\tSO:coordinate\n").append(rest);
    return text;
}

}  // namespace tesk::interop

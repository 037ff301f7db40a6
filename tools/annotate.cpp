#include "tools/annotate.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iterator>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "data_wrappers/vec_view.h"
#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

using util::bam::BAMFileHandler;

namespace {

using Json = nlohmann::json;
using Bytes = std::vector<unsigned char>;

// The functions below throw ToolErrors without the place, which their caller
// knows.

// --- Objects -----------------------------------------------------------------

// Fields that are always there, groups of which all fields are there or none,
// and one that may come with the last group.
constexpr std::string_view READ_FIELDS[] = {"name", "sequence", "qualities"};
constexpr std::string_view MOVE_FIELDS[] = {"stride", "moves"};
constexpr std::string_view MODBASE_FIELDS[] = {"modbase_alphabet", "modbase_names",
                                               "modbase_threshold", "modbase_probs"};
constexpr std::string_view MODBASE_CONTEXT = "modbase_context";

template <std::size_t N>
bool is_among(std::string_view name, std::string_view const (&names)[N]) {
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

// Checks the name of a field that comes next in the object.
void check_field_name(std::string const& name, std::set<std::string>& seen) {
    bool const known = is_among(name, READ_FIELDS) || is_among(name, MOVE_FIELDS) ||
                       is_among(name, MODBASE_FIELDS) || name == MODBASE_CONTEXT;
    if (!known) throw ToolError("unknown field " + name);
    if (!seen.insert(name).second) throw ToolError("the field " + name + " is there twice");
}

Json parse_object(std::string const& line) {
    std::set<std::string> seen;
    auto const on_event = [&](int depth, Json::parse_event_t event, Json& parsed) {
        if (event == Json::parse_event_t::key && depth == 1) {
            check_field_name(parsed.get_ref<std::string const&>(), seen);
        }
        return true;
    };
    Json object;
    try {
        object = Json::parse(line, on_event);
    } catch (Json::parse_error const& e) {
        throw ToolError("no valid JSON at byte " + std::to_string(e.byte));
    } catch (Json::exception const&) {
        throw ToolError("no valid JSON: a number is too large");
    }
    if (!object.is_object()) throw ToolError("not a JSON object");
    return object;
}

// --- Fields ------------------------------------------------------------------

Json const& field_of(Json const& object, std::string const& name) {
    auto const found = object.find(name);
    if (found == object.end()) throw ToolError("the field " + name + " is missing");
    return *found;
}

std::string const& text_of(Json const& object, std::string const& name) {
    Json const& value = field_of(object, name);
    if (!value.is_string()) throw ToolError("the field " + name + " is no string");
    return value.get_ref<std::string const&>();
}

Json const& array_of(Json const& object, std::string const& name) {
    Json const& value = field_of(object, name);
    if (!value.is_array()) throw ToolError("the field " + name + " is no array");
    return value;
}

// Whether a value is a whole number in a range; it is stored then.
template <typename Number>
bool get_number(Json const& value, int min, int max, Number& number) {
    if (!value.is_number_integer()) return false;
    bool const fits = value.is_number_unsigned()
                          ? value.get<std::uint64_t>() <= static_cast<std::uint64_t>(max)
                          : value.get<std::int64_t>() >= min && value.get<std::int64_t>() <= max;
    if (fits) number = static_cast<Number>(value.get<int>());
    return fits;
}

template <typename Number>
Number number_of(Json const& object, std::string const& name, int min, int max) {
    Number number = 0;
    if (get_number(field_of(object, name), min, max, number)) return number;
    throw ToolError("the field " + name + " is no whole number from " + std::to_string(min) +
                    " to " + std::to_string(max));
}

// Appends the elements of an array to `bytes`. Elements count from 1.
void append_bytes(Json const& array, std::string const& name, Bytes& bytes) {
    for (std::size_t i = 0; i < array.size(); ++i) {
        unsigned char byte = 0;
        if (!get_number(array[i], 0, 255, byte)) {
            throw ToolError("element " + std::to_string(i + 1) + " of " + name +
                            " is no whole number from 0 to 255");
        }
        bytes.push_back(byte);
    }
}

// Whether a group of fields that need each other is there.
template <std::size_t N>
bool has_group(Json const& object, std::string_view const (&names)[N]) {
    std::string_view present;
    std::string_view missing;
    for (std::string_view const name : names) (object.contains(name) ? present : missing) = name;
    if (present.empty() || missing.empty()) return !present.empty();
    throw ToolError("the field " + std::string(present) + " is there without " +
                    std::string(missing));
}

// --- Annotations -------------------------------------------------------------

using tesk::data_wrappers::VecView;

VecView<unsigned char> view_of(Bytes const& bytes) { return {bytes.data(), bytes.size(), 1}; }

std::string move_field(Json const& object) {
    auto const stride = number_of<signed char>(object, "stride", -128, 127);
    Bytes moves;
    append_bytes(array_of(object, "moves"), "the field moves", moves);
    std::string field;
    std::string error;
    if (!BAMFileHandler::generate_move_table_string(field, view_of(moves), stride, error)) {
        throw ToolError(error);
    }
    return field;
}

// Rows one after another; each must have an element for every channel.
Bytes probabilities_of(Json const& object, std::size_t n_channels) {
    Json const& rows = array_of(object, "modbase_probs");
    Bytes probs;
    probs.reserve(rows.size() * n_channels);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        std::string const name = "row " + std::to_string(i + 1) + " of the field modbase_probs";
        if (!rows[i].is_array()) throw ToolError(name + " is no array");
        if (rows[i].size() != n_channels) {
            throw ToolError(name + " has " + std::to_string(rows[i].size()) +
                            " elements, the alphabet " + std::to_string(n_channels) + " letters");
        }
        append_bytes(rows[i], name, probs);
    }
    return probs;
}

constexpr std::string_view BASES = "ACGT";

std::string modbase_fields(Json const& object, std::string const& sequence) {
    std::string const& alphabet = text_of(object, "modbase_alphabet");
    std::string const& names = text_of(object, "modbase_names");
    std::string const context = object.contains(MODBASE_CONTEXT)
                                    ? text_of(object, std::string(MODBASE_CONTEXT))
                                    : std::string();
    auto const threshold = number_of<unsigned char>(object, "modbase_threshold", 0, 255);
    Bytes const probs = probabilities_of(object, alphabet.size());
    bool const has_other_bases = sequence.find_first_not_of(BASES) != std::string::npos;
    if (has_other_bases) throw ToolError("modified bases need a sequence of A, C, G and T alone");
    if (!alphabet.empty() && BASES.find(alphabet[0]) == std::string_view::npos) {
        throw ToolError("the field modbase_alphabet does not begin with one of A, C, G and T");
    }
    std::string fields;
    std::string error;
    if (!BAMFileHandler::generate_modbase_string(fields, sequence, alphabet, names, context,
                                                 view_of(probs), threshold, error)) {
        throw ToolError(error);
    }
    return fields;
}

void fill_read(Json const& object, Read& read) {
    read.name = text_of(object, "name");
    read.sequence = text_of(object, "sequence");
    read.qualities = text_of(object, "qualities");
    read.fields.clear();
    if (has_group(object, MOVE_FIELDS)) read.fields += '\t' + move_field(object);
    if (has_group(object, MODBASE_FIELDS)) {
        read.fields += '\t' + modbase_fields(object, read.sequence);
    } else if (object.contains(MODBASE_CONTEXT)) {
        throw ToolError("the field modbase_context is there without modbase_probs");
    }
}

}  // namespace

void annotate_reads(AnnotateOptions const& options) {
    std::string line;
    store_reads(options.reads, [&](LineReader& input, Read& read) {
        if (!input.next_record(line)) return false;
        read.line = input.number();
        try {
            fill_read(parse_object(line), read);
        } catch (std::bad_alloc const&) {
            throw;
        } catch (std::exception const& e) {
            input.fail(e.what());
        }
        return true;
    });
}

}  // namespace tesk::tool

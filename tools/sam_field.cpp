#include "tools/sam_field.h"

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <system_error>

namespace tesk::tool {

namespace {

constexpr std::size_t TYPE_OFFSET = 3;  // in TAG:TYPE:VALUE, the tag having two characters
constexpr std::size_t VALUE_OFFSET = 5;

bool is_letter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_hex_digit(char c) {
    return is_digit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}
bool is_printable(char c) { return c >= ' ' && c <= '~'; }

// Parses all of a text as a number, which may have a plus sign and be too large.
template <typename Number>
std::errc parse(std::string_view text, Number& number) {
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
    char const* const end = text.data() + text.size();
    auto const [stop, code] = std::from_chars(text.data(), end, number);
    return stop == end ? code : std::errc::invalid_argument;
}

bool is_integer(std::string_view text) {
    std::int32_t number = 0;
    return parse(text, number) == std::errc();
}

// What is too small for a float of full precision is out of range as well.
bool is_real(std::string_view text) {
    double number = 0;
    if (parse(text, number) != std::errc()) return false;
    double const magnitude = std::fabs(number);
    return !(magnitude > FLT_MAX) && (number == 0 || !(magnitude < FLT_MIN));
}

// Element types of an array, and what their integers hold; of I the half that the
// library reads.
struct ElementRange {
    char letter;
    std::int64_t min;
    std::int64_t max;
};
constexpr ElementRange ELEMENT_RANGES[] = {
    {'c', INT8_MIN, INT8_MAX}, {'C', 0, UINT8_MAX},         {'s', INT16_MIN, INT16_MAX},
    {'S', 0, UINT16_MAX},      {'i', INT32_MIN, INT32_MAX}, {'I', 0, INT32_MAX},
};

bool is_element(std::string_view text, char letter) {
    if (letter == 'f') return is_real(text);
    for (ElementRange const& range : ELEMENT_RANGES) {
        if (range.letter != letter) continue;
        std::int64_t number = 0;
        return parse(text, number) == std::errc() && number >= range.min && number <= range.max;
    }
    return false;
}

// A type letter, then every element after a comma.
bool is_array(std::string_view value) {
    constexpr std::string_view LETTERS = "cCsSiIf";
    if (value.empty() || LETTERS.find(value[0]) == std::string_view::npos) return false;
    char const letter = value[0];
    value.remove_prefix(1);
    while (!value.empty()) {
        if (value[0] != ',') return false;
        value.remove_prefix(1);
        std::string_view const element = value.substr(0, value.find(','));
        if (!is_element(element, letter)) return false;
        value.remove_prefix(element.size());
    }
    return true;
}

}  // namespace

bool is_field(std::string_view text) {
    constexpr std::string_view LETTERS = "AifZHB";
    return text.size() >= VALUE_OFFSET && is_letter(text[0]) &&
           (is_letter(text[1]) || is_digit(text[1])) && text[2] == ':' &&
           LETTERS.find(text[TYPE_OFFSET]) != std::string_view::npos && text[4] == ':';
}

bool has_valid_value(std::string_view field) {
    std::string_view const value = field.substr(VALUE_OFFSET);
    switch (field[TYPE_OFFSET]) {
        case 'A': return value.size() == 1 && is_printable(value[0]) && value[0] != ' ';
        case 'i': return is_integer(value);
        case 'f': return is_real(value);
        case 'Z': return std::all_of(value.begin(), value.end(), is_printable);
        case 'H':
            return value.size() % 2 == 0 && std::all_of(value.begin(), value.end(), is_hex_digit);
        default: return is_array(value);
    }
}

}  // namespace tesk::tool

#include "tools/sam_field.h"

#include <algorithm>
#include <cstddef>

namespace tesk::tool {

namespace {

constexpr std::string_view BARE_RECORD = "r\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\t";

bool is_letter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_printable(char c) { return c >= ' ' && c <= '~'; }

}  // namespace

bool is_field(std::string_view text) {
    constexpr std::string_view LETTERS = "AifZHB";
    constexpr std::size_t TYPE_OFFSET = 3;  // in TAG:TYPE:VALUE, the tag having two characters
    constexpr std::size_t VALUE_OFFSET = 5;
    return text.size() >= VALUE_OFFSET && is_letter(text[0]) &&
           (is_letter(text[1]) || is_digit(text[1])) && text[2] == ':' &&
           LETTERS.find(text[TYPE_OFFSET]) != std::string_view::npos && text[4] == ':';
}

// What a record can have without a repair, the library takes.
bool FieldChecker::has_valid_value(std::string_view field) {
    if (!std::all_of(field.begin(), field.end(), is_printable)) return false;
    report_ = {};
    records_.clear();
    (line_ = BARE_RECORD) += field;
    return codec_.encode_line(line_, 1, records_, nullptr) && report_.lines().empty();
}

}  // namespace tesk::tool

#include "tools/html_text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tesk::tool {

namespace {

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";  // U+FFFD

unsigned byte_at(std::string_view text, std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
}

bool is_continuation(unsigned byte) { return (byte & 0xC0U) == 0x80U; }

// The first two bytes of a character of several bytes: no longer form than needed,
// no surrogate, nothing beyond U+10FFFF.
bool is_lead(unsigned first, unsigned second) {
    switch (first) {
        case 0xE0: return second >= 0xA0;
        case 0xED: return second < 0xA0;
        case 0xF0: return second >= 0x90;
        case 0xF4: return second < 0x90;
        default: return first >= 0xC2 && first <= 0xF4;
    }
}

// Bytes of the character at the front of a text; 0 where it is no UTF-8.
std::size_t utf8_size(std::string_view text) {
    unsigned const first = byte_at(text, 0);
    if (first < 0x80) return 1;
    std::size_t const size = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (!is_lead(first, byte_at(text, 1))) return 0;
    for (std::size_t i = 1; i < size; ++i) {
        if (!is_continuation(byte_at(text, i))) return 0;
    }
    return size;
}

bool is_control(std::string_view character) {
    unsigned const first = byte_at(character, 0);
    bool const is_c1 = character.size() == 2 && first == 0xC2 && byte_at(character, 1) < 0xA0;
    return first < 0x20 || first == 0x7F || is_c1;
}

// Where the character with this number begins.
std::size_t place_of(std::string_view text, std::size_t character) {
    std::size_t at = 0;
    for (; character > 0 && at < text.size(); --character) {
        at += std::max<std::size_t>(utf8_size(text.substr(at)), 1);
    }
    return at;
}

std::size_t n_characters(std::string_view text) {
    std::size_t n = 0;
    for (std::size_t at = 0; at < text.size(); ++n) {
        at += std::max<std::size_t>(utf8_size(text.substr(at)), 1);
    }
    return n;
}

void group_digits(std::string& text, std::size_t end) {
    while (end > 3) text.insert(end -= 3, 1, ',');
}

}  // namespace

std::string html_text(std::string_view text) {
    std::string html;
    while (!text.empty()) {
        std::size_t const size = utf8_size(text);
        std::string_view const character = text.substr(0, std::max<std::size_t>(size, 1));
        text.remove_prefix(character.size());
        if (size == 0 || is_control(character)) {
            html += REPLACEMENT;
            continue;
        }
        switch (character[0]) {
            case '&': html += "&amp;"; break;
            case '<': html += "&lt;"; break;
            case '>': html += "&gt;"; break;
            case '"': html += "&quot;"; break;
            case '\'': html += "&#39;"; break;
            default: html += character; break;
        }
    }
    return html;
}

std::string elided(std::string_view text, std::size_t max_chars) {
    std::size_t const n = n_characters(text);
    if (n <= max_chars) return std::string(text);
    std::size_t const tail = (max_chars - 1) / 2;
    std::size_t const head = max_chars - 1 - tail;
    return std::string(text.substr(0, place_of(text, head))) + "…" +
           std::string(text.substr(place_of(text, n - tail)));
}

std::string grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    group_digits(text, text.size());
    return text;
}

std::string plain(double number, int n_decimals) {
    char digits[400];  // of the largest number of all, too
    std::snprintf(digits, sizeof digits, "%.*f", n_decimals, number);
    return digits;
}

std::string decimal(double number, int n_decimals) {
    std::string text = plain(number, n_decimals);
    group_digits(text, std::min(text.find('.'), text.size()));
    return text;
}

std::string three_digits(double number) {
    constexpr int MAX_DECIMALS = 12;
    if (number <= 0) return "0";
    int const exponent = static_cast<int>(std::floor(std::log10(number)));
    std::string text = decimal(number, std::clamp(2 - exponent, 0, MAX_DECIMALS));
    if (text.find('.') == std::string::npos) return text;
    text.resize(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
}

std::string percent(std::uint64_t part, std::uint64_t whole) {
    if (whole == 0) return "";
    double const share = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
    if (part == 0) return "0%";
    if (part == whole) return "100%";
    if (share < 0.1) return "<0.1%";
    if (share > 99.9) return ">99.9%";
    return decimal(share, 1) + "%";
}

std::string counted(std::uint64_t number, std::string const& noun) {
    return grouped(number) + " " + noun + (number == 1 ? "" : "s");
}

}  // namespace tesk::tool

// Texts and numbers for an HTML page.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tesk::tool {

/// Any bytes as text of an HTML page or of an attribute in quotes: characters that
/// mean something there are escaped; what is no UTF-8, or a control character, becomes
/// U+FFFD.
std::string html_text(std::string_view text);

/// A text of at most `max_chars` characters, at least 3: a longer one loses its middle
/// to "…". Bytes that are no UTF-8 count as a character each.
std::string elided(std::string_view text, std::size_t max_chars);

/// "1,234,567".
std::string grouped(std::uint64_t number);

/// With so many decimals, for programs: "1234.5".
std::string plain(double number, int n_decimals);

/// The same for people: "1,234.5".
std::string decimal(double number, int n_decimals);

/// All digits in front of the point, and as many behind it as make three in all, but
/// no zeros at the end: "1,234", "12.3", "0.00123", "0.5", "0".
std::string three_digits(double number);

/// "12.3%"; "0%" and "100%" are exact, what is near them is "<0.1%" and ">99.9%".
/// Empty where the whole is 0.
std::string percent(std::uint64_t part, std::uint64_t whole);

/// "1 read", "2 reads".
std::string counted(std::uint64_t number, std::string const& noun);

}  // namespace tesk::tool

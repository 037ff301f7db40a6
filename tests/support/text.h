// Taking texts apart.

#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace tesk::test {

/// The parts of a text between separators: always one more than there are
/// separators. They point into the text.
inline std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (;;) {
        std::size_t const end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

}  // namespace tesk::test

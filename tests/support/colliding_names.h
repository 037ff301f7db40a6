// Names that a hash table cannot tell apart.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace tesk::test {

/// Names of 16 bytes that all have the hash which std::hash gives the first one:
/// its two steps of eight bytes are undone for a second half that fits any first.
inline std::vector<std::string> colliding_names(std::size_t n) {
    constexpr std::uint64_t MUL = 0xc6a4a7935bd1e995U;
    std::uint64_t inverse = MUL;
    for (int i = 0; i < 6; ++i) inverse *= 2 - MUL * inverse;
    auto const mix = [](std::uint64_t v) { return v ^ (v >> 47U); };
    auto const step = [&](std::uint64_t half) { return mix(half * MUL) * MUL; };
    constexpr std::uint64_t SEED = 0xc70f6907U ^ (16 * MUL);
    constexpr std::uint64_t GOAL = 0x0123456789abcdefU;
    std::vector<std::string> names;
    for (std::uint64_t k = 0; names.size() < n; ++k) {
        std::uint64_t const first = 0x4141414141414141U + k;
        std::uint64_t const state = (SEED ^ step(first)) * MUL;
        std::uint64_t const second = mix((state ^ GOAL) * inverse) * inverse;
        std::string name(16, '\0');
        std::memcpy(name.data(), &first, 8);
        std::memcpy(name.data() + 8, &second, 8);
        bool const is_word = std::none_of(
            name.begin(), name.end(), [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); });
        if (is_word) names.push_back(name);
    }
    return names;
}

}  // namespace tesk::test

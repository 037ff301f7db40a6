// What all fuzz targets share. A target checks something that holds for every input;
// where it does not, it says what and ends the program, in every build type.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tesk::fuzz {

/// Ends the program unless something holds.
inline void require(bool holds, std::string const& what) {
    if (holds) return;
    std::fprintf(stderr, "fuzz target: does not hold: %s\n", what.c_str());
    std::abort();
}

/// Ends the program unless two texts are the same.
inline void require_same(std::string const& a, std::string const& b, char const* what) {
    require(a == b, std::string(what) + "\n--- one:\n" + a + "\n--- other:\n" + b);
}

}  // namespace tesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

// Counts what the program has on the heap, as malloc rounds it: this program's malloc and its
// kin are the system's with a count around them.

#pragma once

#include <cstddef>

namespace tesk::bench {

// Bytes in use now.
std::size_t heap_in_use();

// The most that was in use since reset_heap_peak().
std::size_t heap_peak();
void reset_heap_peak();

}  // namespace tesk::bench

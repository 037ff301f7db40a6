// The blocks of BAM files, as the floors read and write them.

#pragma once

#include <cstddef>
#include <cstring>

namespace tesk::bench {

// A block: gzip's header with one extra field, compressed bytes, checksum, length.
inline constexpr char EOF_BLOCK[] =
    "\x1f\x8b\x08\x04\0\0\0\0\0\xff\x06\0BC\x02\0\x1b\0\x03\0\0\0\0\0\0\0\0";  // and a NUL
inline constexpr std::size_t BSIZE_OFFSET = 16;
inline constexpr std::size_t HEADER_BYTES = 18;
inline constexpr std::size_t FOOTER_BYTES = 8;
inline constexpr std::size_t MAX_BLOCK_BYTES = 65536;
inline constexpr std::size_t FULL_PAYLOAD_BYTES = 65280;

template <typename T>
T get(char const* place) {
    T value;
    std::memcpy(&value, place, sizeof value);
    return value;
}

template <typename T>
void put(char* place, T value) {
    std::memcpy(place, &value, sizeof value);
}

}  // namespace tesk::bench

// Reading BGZF blocks with zlib alone, as strict as the library is: bytes behind the end
// of a deflate stream do not matter, and a block that says to be empty is.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tesk::fuzz {

/// Most that a block holds.
inline constexpr std::size_t MAX_PAYLOAD_BYTES = 65536;

/// What a raw deflate stream yields; nothing where it does not end, or yields more than
/// a block holds.
std::optional<std::string> inflated(std::string_view stream);

/// The payloads of the blocks that a file begins with.
struct Blocks {
    std::string payloads;
    std::size_t n = 0;
    bool whole = true;  // the file holds nothing else, and all their bytes
    bool sound = true;  // empty ones, too, have a deflate stream
};

/// Reads blocks up to the first that is damaged. Missing bytes of the last one count as
/// NULs.
Blocks read_blocks(std::string_view file);

}  // namespace tesk::fuzz

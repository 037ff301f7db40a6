#include "tools/input_bytes.h"

#include "tools/tool_error.h"

namespace tesk::tool {

InputBytes::InputBytes(std::string const& path) {
    if (!stream_.open(path)) throw ToolError(stream_.error_message);
}

std::string_view InputBytes::next() {
    piece_.clear();
    if (!stream_.read(piece_)) throw ToolError(stream_.error_message);
    return piece_.view();
}

}  // namespace tesk::tool

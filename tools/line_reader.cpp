#include "tools/line_reader.h"

#include "tools/tool_error.h"

namespace tesk::tool {

bool LineReader::next(std::string& line) {
    line.clear();
    bool ended = false;
    while (!ended) {
        if (rest_.empty()) rest_ = bytes_.next();
        if (rest_.empty()) break;
        if (line.empty()) ++number_;
        std::size_t const end = rest_.find('\n');
        std::string_view const part = rest_.substr(0, end);
        if (part.size() > max_line_bytes_ - line.size()) {
            fail("longer than " + std::to_string(max_line_bytes_) + " bytes");
        }
        line += part;
        ended = end != std::string_view::npos;
        rest_.remove_prefix(part.size() + (ended ? 1 : 0));
    }
    bool const any = ended || !line.empty();
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return any;
}

bool LineReader::next_record(std::string& line) {
    if (!next(line)) return false;
    std::uint64_t const first = number_;
    while (line.empty()) {
        if (!next(line)) return false;
    }
    if (number_ == first) return true;
    throw ToolError(place(first) + ": an empty line, and the input goes on");
}

std::string LineReader::place(std::uint64_t number) const {
    return bytes_.name() + ": line " + std::to_string(number);
}

void LineReader::fail(std::string const& fault) const {
    throw ToolError(place(number_) + ": " + fault);
}

}  // namespace tesk::tool

#include "tools/message.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace tesk::tool {

namespace {

// Of a text that is too long, as much is kept of its two ends: the beginning
// says what went wrong, the end often where.
constexpr std::size_t MAX_BYTES = 1000;
constexpr std::size_t HEAD_BYTES = 800;
constexpr std::size_t TAIL_BYTES = 190;

std::string escaped(std::string_view text) {
    constexpr char HEX[] = "0123456789abcdef";
    std::string line;
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        bool const control = (byte < 0x20 && c != '\t') || byte == 0x7F;
        if (!control) {
            line += c;
        } else if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else {
            line += {'\\', 'x', HEX[byte >> 4], HEX[byte & 0xF]};
        }
    }
    return line;
}

}  // namespace

std::string one_line(std::string_view text) {
    if (text.size() <= MAX_BYTES) return escaped(text);
    return escaped(text.substr(0, HEAD_BYTES)) + "..." +
           escaped(text.substr(text.size() - TAIL_BYTES));
}

void print_message(std::string_view message) {
    std::string const line = "tesk-bam: " + one_line(message) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

std::string with_errno(std::string const& what) {
    return what + ": " + std::strerror(errno);  // NOLINT(concurrency-mt-unsafe): one thread reports
}

}  // namespace tesk::tool

#include "fuzz/blocks.h"

#include <algorithm>
#include <cstddef>

#include <zlib.h>

#include "fuzz/target.h"

namespace tesk::fuzz {

namespace {

constexpr std::size_t HEAD_BYTES = 18;
constexpr std::size_t TAIL_BYTES = 8;
constexpr int RAW_WINDOW_BITS = -15;

std::size_t number_at(std::string_view bytes, std::size_t offset, std::size_t width) {
    std::size_t value = 0;
    for (std::size_t i = width; i-- > 0;) {
        value = value * 256 + static_cast<unsigned char>(bytes[offset + i]);
    }
    return value;
}

// The payload of one whole block.
std::optional<std::string> payload_of(std::string_view block, bool& sound) {
    if (block.substr(0, 4) != "\x1f\x8b\x08\x04" || number_at(block, 10, 2) != 6 ||
        block.substr(12, 2) != "BC" || number_at(block, 14, 2) != 2 ||
        block.size() < HEAD_BYTES + TAIL_BYTES) {
        return std::nullopt;
    }
    std::size_t const tail = block.size() - TAIL_BYTES;
    std::optional<std::string> payload = inflated(block.substr(HEAD_BYTES, tail - HEAD_BYTES));
    if (number_at(block, tail + 4, 4) == 0 && payload != std::string()) {
        sound = false;
        payload = std::string();
    }
    if (!payload || payload->size() != number_at(block, tail + 4, 4)) return std::nullopt;
    auto const* const bytes = reinterpret_cast<Bytef const*>(payload->data());
    uLong const crc = crc32(crc32(0, nullptr, 0), bytes, static_cast<uInt>(payload->size()));
    if (crc != number_at(block, tail, 4)) return std::nullopt;
    return payload;
}

}  // namespace

std::optional<std::string> inflated(std::string_view stream) {
    std::string in(stream);
    std::string out(MAX_PAYLOAD_BYTES + 1, '\0');
    z_stream state{};
    require(inflateInit2(&state, RAW_WINDOW_BITS) == Z_OK, "zlib is set up");
    state.next_in = reinterpret_cast<Bytef*>(in.data());
    state.avail_in = static_cast<uInt>(in.size());
    state.next_out = reinterpret_cast<Bytef*>(out.data());
    state.avail_out = static_cast<uInt>(out.size());
    int const code = inflate(&state, Z_FINISH);
    out.resize(state.total_out);
    inflateEnd(&state);
    if (code != Z_STREAM_END || out.size() > MAX_PAYLOAD_BYTES) return std::nullopt;
    return out;
}

Blocks read_blocks(std::string_view file) {
    Blocks blocks;
    while (!file.empty()) {
        std::string block(file.substr(0, HEAD_BYTES));
        block.resize(HEAD_BYTES);
        std::size_t const size = number_at(block, 16, 2) + 1;
        block = file.substr(0, size);
        block.resize(std::max(size, HEAD_BYTES));
        std::optional<std::string> const payload = payload_of(block, blocks.sound);
        blocks.whole = blocks.whole && payload && file.size() >= size;
        if (!payload) break;
        blocks.payloads += *payload;
        ++blocks.n;
        file.remove_prefix(std::min(size, file.size()));
    }
    return blocks;
}

}  // namespace tesk::fuzz

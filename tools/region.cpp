#include "tools/region.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "tools/suggestion.h"
#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

constexpr std::int64_t NO_END = std::numeric_limits<std::int64_t>::max();

// Positions of more digits are beyond every reference.
constexpr std::int64_t MAX_POSITION = 1'000'000'000'000'000;

// A number whose digits may have commas between them; empty where it is none.
std::optional<std::int64_t> parse_position(std::string_view text) {
    std::int64_t number = 0;
    char before = ',';
    for (char const c : text) {
        bool const digit = c >= '0' && c <= '9';
        if (!digit && (c != ',' || before == ',')) return std::nullopt;
        if (digit && number < MAX_POSITION) number = number * 10 + (c - '0');
        before = c;
    }
    if (before == ',') return std::nullopt;
    return number;
}

// Positions as they are written.
struct Range {
    std::int64_t first = 1;
    std::int64_t last = NO_END;
};

// "100" or "100-200".
std::optional<Range> parse_range(std::string_view text) {
    std::size_t const dash = text.find('-');
    auto const first = parse_position(text.substr(0, dash));
    if (!first) return std::nullopt;
    if (dash == std::string_view::npos) return Range{*first, NO_END};
    auto const last = parse_position(text.substr(dash + 1));
    if (!last) return std::nullopt;
    return Range{*first, *last};
}

[[noreturn]] void refuse(std::string const& text, std::string const& fault) {
    throw UsageError("region " + text + ": " + fault);
}

[[noreturn]] void refuse_name(std::string const& name, interop::Header const& header) {
    std::vector<std::string> names;
    for (interop::RefSeq const& reference : header.references()) names.push_back(reference.name);
    throw UsageError("unknown reference " + name + did_you_mean(name, names));
}

interop::Region parse_region(std::string const& text, interop::Header const& header) {
    std::int32_t refID = header.find(text);
    if (refID >= 0) return {refID, 0, NO_END};
    std::size_t const colon = text.rfind(':');
    if (colon == std::string::npos) refuse_name(text, header);
    std::string const name = text.substr(0, colon);
    std::optional<Range> const range = parse_range(std::string_view(text).substr(colon + 1));
    refID = header.find(name);
    if (refID < 0) refuse_name(range ? name : text, header);
    if (!range) refuse(text, "write it as " + name + ":FIRST-LAST");
    if (range->first == 0) refuse(text, "positions begin at 1");
    if (range->last < range->first) refuse(text, "it ends before it begins");
    return {refID, range->first - 1, range->last};
}

}  // namespace

std::vector<interop::Region> parse_regions(std::vector<std::string> const& texts,
                                           interop::Header const& header) {
    std::vector<interop::Region> regions;
    regions.reserve(texts.size());
    for (std::string const& text : texts) regions.push_back(parse_region(text, header));
    return regions;
}

}  // namespace tesk::tool

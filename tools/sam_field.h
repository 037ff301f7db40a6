// Optional fields of SAM text.

#pragma once

#include <string_view>

namespace tesk::tool {

/// Whether a text says that it is an optional field: it begins with a tag, ':',
/// one of the type letters A, i, f, Z, H and B, and ':'.
bool is_field(std::string_view text);

/// Whether the value of such a field is what its type letter promises, down to
/// the range of an array's elements; for i and f fields any number passes.
bool has_valid_value(std::string_view field);

}  // namespace tesk::tool

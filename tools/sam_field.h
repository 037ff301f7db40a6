// Optional fields of SAM text.

#pragma once

#include <string_view>

namespace tesk::tool {

/// Whether a text says that it is an optional field: it begins with a tag, ':',
/// one of the type letters A, i, f, Z, H and B, and ':'.
bool is_field(std::string_view text);

/// Whether the value of such a field is what its type letter promises, and a
/// number one that the library takes: integers fit 32 bits with a sign (array
/// elements their own type, too), floats neither overflow nor underflow.
bool has_valid_value(std::string_view field);

}  // namespace tesk::tool

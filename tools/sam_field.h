// Optional fields of SAM text.

#pragma once

#include <string>
#include <string_view>

#include "interop/byte_buffer.h"
#include "interop/header.h"
#include "interop/record_codec.h"
#include "interop/report.h"

namespace tesk::tool {

/// Whether a text says that it is an optional field: it begins with a tag, ':',
/// one of the type letters A, i, f, Z, H and B, and ':'.
bool is_field(std::string_view text);

/// Tells the fields apart that the library takes as they are meant.
class FieldChecker {
public:
    FieldChecker() : codec_(header_, report_) {}
    FieldChecker(FieldChecker const&) = delete;
    FieldChecker& operator=(FieldChecker const&) = delete;

    /// Whether the value of a field is what its type letter promises, in printable
    /// characters, and a number one that the library takes: integers fit 32 bits
    /// with a sign (array elements their own type, too), floats neither overflow nor
    /// underflow.
    bool has_valid_value(std::string_view field);

private:
    interop::Header header_;
    interop::Report report_;
    interop::RecordCodec codec_;
    interop::ByteBuffer records_;
    std::string line_;
};

}  // namespace tesk::tool

#include "tools/input.h"

#include "tools/tool_error.h"

namespace tesk::tool {

void open_input(interop::AlignmentReader& reader, std::string const& path,
                std::string const& from) {
    if (!reader.open(path)) throw ToolError(reader.error_message);
    if (from.empty()) return;
    FileKind const wanted = from == "sam" ? FileKind::SAM : FileKind::BAM;
    FileKind const kind = kind_of_input(reader);
    if (kind == wanted) return;
    throw ToolError(reader.name() + " is " + kind_name(kind) + ", not " + kind_name(wanted) +
                    " as --from says");
}

void read_batch(interop::AlignmentReader& reader, interop::RecordBatch& batch) {
    if (!reader.read_batch(batch)) throw ToolError(reader.error_message);
}

FileKind kind_of_input(interop::AlignmentReader const& reader) {
    return reader.format() == interop::Format::SAM ? FileKind::SAM : FileKind::BAM;
}

}  // namespace tesk::tool

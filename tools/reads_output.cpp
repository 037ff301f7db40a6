#include "tools/reads_output.h"

#include <cstddef>
#include <string_view>

#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

using util::bam::BAMFileHandler;

namespace {

constexpr std::size_t MAX_NAME_BYTES = 254;  // BAM has one byte for the length, with a NUL

// Checks that a text can stand in a column of a SAM line, where a blank or a
// line break would end it.
void check_column(std::string_view text, std::string const& what) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] >= '!' && text[i] <= '~') continue;
        throw ToolError("character " + std::to_string(i + 1) + " of the " + what +
                        " is not between ! and ~, as SAM needs it");
    }
}

void check_name(std::string const& name) {
    check_column(name, "name");
    if (name.size() > MAX_NAME_BYTES) {
        throw ToolError("the name has " + std::to_string(name.size()) + " characters, SAM takes " +
                        std::to_string(MAX_NAME_BYTES));
    }
    if (name.rfind('@', 0) == 0) {
        throw ToolError("the name begins with @, as only a header line does in SAM");
    }
}

}  // namespace

char const* const READS_HEADER =
    "@HD\tVN:1.6\tSO:unsorted\n"
    "@PG\tID:tesk-bam\tPN:tesk-bam\tVN:" TESK_BAM_VERSION "\n";

std::string unmapped_line(Read const& read) {
    std::string line;
    std::string error;
    if (!BAMFileHandler::make_unmapped_sam_line(line, read.name, read.sequence, read.qualities,
                                                error)) {
        throw ToolError(error);
    }
    check_name(read.name);
    check_column(read.sequence, "sequence");
    check_column(read.qualities, "qualities");
    return line + read.fields;
}

}  // namespace tesk::tool

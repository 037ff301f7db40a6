#include "tools/store.h"

#include <sys/stat.h>

#include "tools/load.h"
#include "tools/message.h"
#include "tools/tool_error.h"

namespace tesk::tool {

void write_bam(util::bam::BAMFileHandler& alignments, std::string const& path, bool index,
               OutputFile const& output) {
    std::string const& written = output.write_path();
    try {
        call_library(alignments, path,
                     [&] { return alignments.write_to_bam_file(written, index); });
    } catch (ToolError const& e) {
        throw ToolError(output.in_own_names(e.what()));
    }
}

void note_old_index(std::string const& path, std::string const& advice) {
    struct stat status = {};
    std::string const index = path + ".bai";
    if (::stat(index.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return;
    print_message("note: " + index + " is older than " + path + " and belongs to another file" +
                  advice);
}

}  // namespace tesk::tool

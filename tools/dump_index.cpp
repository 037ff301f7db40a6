#include "tools/dump_index.h"

#include <cerrno>
#include <iostream>

#include "tools/file_kind.h"
#include "tools/load.h"
#include "tools/message.h"
#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

void dump_index(DumpIndexOptions const& options) {
    refuse_standard_input(options.file);
    util::bam::BAMFileHandler const handler;
    errno = 0;
    call_library(handler, options.file,
                 [&] { return handler.print_index_from_file(options.file); });
    std::cout.flush();
    if (std::cout) return;
    std::string const fault = "cannot write to standard output";
    throw ToolError(errno == 0 ? fault : with_errno(fault));
}

}  // namespace tesk::tool

#include "tools/dump_index.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <iostream>
#include <memory>

#include "tools/file_kind.h"
#include "tools/load.h"
#include "tools/message.h"
#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

namespace {

struct CloseFile {
    int fd;
    ~CloseFile() { ::close(fd); }
};

// Makes sure that a file can be read to its end: the library has taken a fault of the
// system for the end. What cannot be opened, or read twice, is left to the library.
void check_readable(std::string const& path) {
    constexpr std::size_t PIECE_BYTES = std::size_t{1} << 18;
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return;
    CloseFile const file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return;
    auto const piece = std::make_unique<char[]>(PIECE_BYTES);
    ssize_t n = 1;
    while (n > 0 || (n < 0 && errno == EINTR)) n = ::read(file.fd, piece.get(), PIECE_BYTES);
    if (n < 0) throw ToolError(with_errno("cannot read " + path));
}

}  // namespace

void dump_index(DumpIndexOptions const& options) {
    refuse_standard_input(options.file);
    util::bam::BAMFileHandler const handler;
    errno = 0;
    try {
        call_library(handler, options.file,
                     [&] { return handler.print_index_from_file(options.file); });
    } catch (ToolError const&) {
        check_readable(options.file);
        throw;
    }
    std::cout.flush();
    if (!std::cout) {
        std::string const fault = "cannot write to standard output";
        throw ToolError(errno == 0 ? fault : with_errno(fault));
    }
    check_readable(options.file);
}

}  // namespace tesk::tool

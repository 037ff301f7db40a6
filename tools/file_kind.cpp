#include "tools/file_kind.h"

#include <unistd.h>

#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

constexpr std::size_t ENDING_BYTES = 4;  // of both kinds

}  // namespace

std::string ending_of(std::string const& path, std::size_t n_bytes) {
    std::string ending = path.substr(path.size() < n_bytes ? 0 : path.size() - n_bytes);
    for (char& c : ending) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return ending;
}

char const* kind_name(FileKind kind) { return kind == FileKind::SAM ? "SAM" : "BAM"; }

void refuse_standard_input(std::string const& path) {
    if (path == "-") throw UsageError("standard input cannot be read: name a file");
}

FileKind kind_of(std::string const& path, std::string const& wanted, std::string const& option) {
    std::string const kind = wanted.empty() ? ending_of(path, ENDING_BYTES) : "." + wanted;
    if (kind == ".sam") return FileKind::SAM;
    if (kind == ".bam") return FileKind::BAM;
    throw UsageError("cannot tell from its name whether " + path + " is SAM or BAM: say " + option +
                     " sam or " + option + " bam");
}

FileKind kind_of_output(std::string const& path, std::string const& wanted) {
    if (path != "-") return kind_of(path, wanted, "--to");
    if (wanted != "bam") return FileKind::SAM;
    if (::isatty(STDOUT_FILENO) == 0) return FileKind::BAM;
    throw UsageError("BAM is not written to a terminal: name a file, or send it on through a pipe");
}

FileKind exact_kind_of_output(std::string const& path, std::string const& wanted) {
    if (path != "-") return kind_of(path, wanted, "--to");
    if (wanted != "bam") return FileKind::SAM;
    throw UsageError("--exact cannot write BAM to standard output: name a file");
}

}  // namespace tesk::tool

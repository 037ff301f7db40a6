#include "tools/file_kind.h"

#include <unistd.h>

#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

// The last four bytes of a path, in lower case.
std::string ending_of(std::string const& path) {
    std::string ending = path.substr(path.size() < 4 ? 0 : path.size() - 4);
    for (char& c : ending) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return ending;
}

}  // namespace

char const* kind_name(FileKind kind) { return kind == FileKind::SAM ? "SAM" : "BAM"; }

void refuse_standard_input(std::string const& path) {
    if (path == "-") throw UsageError("standard input cannot be read: name a file");
}

FileKind kind_of(std::string const& path, std::string const& wanted, std::string const& option) {
    std::string const kind = wanted.empty() ? ending_of(path) : "." + wanted;
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

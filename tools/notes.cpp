#include "tools/notes.h"

#include <sys/stat.h>

#include "tools/message.h"

namespace tesk::tool {

void print_report(std::string const& name, interop::Report const& report) {
    std::string const begin = "note: " + name + ": ";
    for (std::string const& line : report.lines()) print_message(begin + line);
}

void note_old_index(std::string const& path, std::string const& advice) {
    struct stat status = {};
    std::string const index = path + ".bai";
    if (::stat(index.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return;
    print_message("note: " + index + " is older than " + path + " and belongs to another file" +
                  advice);
}

}  // namespace tesk::tool

#include "tools/index_beside.h"

#include <sys/stat.h>

#include <tuple>
#include <utility>

namespace tesk::tool {

namespace {

// What is known of a file; false where it is no regular one.
bool is_file(std::string const& path, struct stat& status) {
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string name_in_place_of_bam(std::string const& path) {
    constexpr std::size_t ENDING_BYTES = 4;
    if (path.size() < ENDING_BYTES || path.substr(path.size() - ENDING_BYTES) != ".bam") return "";
    return path.substr(0, path.size() - ENDING_BYTES) + ".bai";
}

bool is_older(struct stat const& a, struct stat const& b) {
    return std::tie(a.st_mtim.tv_sec, a.st_mtim.tv_nsec) <
           std::tie(b.st_mtim.tv_sec, b.st_mtim.tv_nsec);
}

}  // namespace

std::optional<interop::IndexReader> open_index_beside(std::string const& path,
                                                      std::size_t n_references, std::string& note) {
    note.clear();
    struct stat file = {};
    struct stat index = {};
    if (path == "-" || !is_file(path, file)) return std::nullopt;
    std::string name = path + ".bai";
    if (!is_file(name, index)) name = name_in_place_of_bam(path);
    if (name.empty() || !is_file(name, index)) return std::nullopt;

    interop::IndexReader reader;
    if (is_older(index, file)) {
        note = name + " is older than " + path;
    } else if (!reader.open(name)) {
        note = reader.error_message;
    } else if (reader.n_references() != n_references) {
        note = name + " is of " + std::to_string(reader.n_references()) + " references, " + path +
               " has " + std::to_string(n_references);
    } else {
        return reader;
    }
    note += "; the whole file is read instead";
    return std::nullopt;
}

}  // namespace tesk::tool

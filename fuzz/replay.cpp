// Runs a fuzz target on the files of folders, for compilers without libFuzzer.
//
//     replay_TARGET FOLDER...

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "tests/support/temp_file.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> files_of(char const* folder) {
    std::vector<std::string> files;
    for (auto const& entry : fs::directory_iterator(folder)) files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    std::string file;
    std::size_t n_files = 0;
    try {
        for (int i = 1; i < argc; ++i) {
            for (std::string const& path : files_of(argv[i])) {
                file = path;
                std::string const input = tesk::test::read_file(path);
                LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(input.data()),
                                       input.size());
                ++n_files;
            }
        }
    } catch (std::exception const& e) {
        std::fprintf(stderr, "%s: %s\n", file.c_str(), e.what());
        return 1;
    }
    std::printf("%zu inputs\n", n_files);
    return n_files == 0 ? 1 : 0;
}

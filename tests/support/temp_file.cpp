#include "tests/support/temp_file.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace tesk::test {

TempDir::TempDir() {
    std::string const pattern =
        (std::filesystem::temp_directory_path() / "tesk_bam_test_XXXXXX").string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make " + pattern);
    path_ = name.data();
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(std::string_view name) const { return (path_ / name).string(); }

std::string TempDir::write(std::string_view name, std::string_view bytes) const {
    std::string path = file(name);
    write_file(path, bytes);
    return path;
}

std::string make_fifo(TempDir const& dir, std::string_view name) {
    std::string path = dir.file(name);
    if (::mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("cannot make " + path);
    return path;
}

std::string read_file(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot open " + path);
    std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) throw std::runtime_error("cannot read " + path);
    return bytes;
}

void write_file(std::string const& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace tesk::test

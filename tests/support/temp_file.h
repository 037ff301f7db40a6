// Files for tests: a directory of their own that goes away with its owner, and
// reading and writing whole files.

#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tesk::test {

/// A fresh directory under the system's temporary folder, removed with all its
/// contents when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    std::filesystem::path const& path() const { return path_; }

    /// Path of a file of this name in the directory; nothing is created.
    std::string file(std::string_view name) const;

    /// Writes a file of this name in the directory and returns its path.
    std::string write(std::string_view name, std::string_view bytes) const;

private:
    std::filesystem::path path_;
};

/// Creates a FIFO of this name in the directory and returns its path.
std::string make_fifo(TempDir const& dir, std::string_view name);

/// All bytes of a file; throws std::runtime_error where it cannot be read.
std::string read_file(std::string const& path);

/// Replaces a file's contents; throws std::runtime_error where it cannot.
void write_file(std::string const& path, std::string_view bytes);

}  // namespace tesk::test

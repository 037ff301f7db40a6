// Where the result of a conversion goes.

#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "tools/temporary_path.h"

namespace tesk::tool {

/// An output file that has its own name only once it is complete.
///
/// Until commit() everything is in temporary files beside their targets; they
/// go away with this object, and when a signal ends the process. Symbolic links
/// are followed: the file that they name is the one that is replaced. A device
/// or a FIFO is written directly, as there is no file to replace.
class OutputFile {
public:
    /// Creates the temporary files.
    ///
    /// @param path        the output as the user named it
    /// @param with_index  whether path + ".bai" goes with it
    /// @throws ToolError  a folder has that name, the folder around it is
    ///                    missing or closed to us, or an index is wanted for a
    ///                    device
    OutputFile(std::string const& path, bool with_index);
    ~OutputFile();
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;

    /// The name to write under; the index is written under this one + ".bai".
    std::string const& write_path() const;

    /// Folder of that file; empty for a device or a FIFO.
    std::string folder() const;

    /// A descriptor of that file, open for writing.
    /// @throws ToolError  a device cannot be opened
    int descriptor();

    /// The same of the index, which must have been asked for.
    int index_descriptor() const { return bai_->descriptor(); }

    /// A message of the library with the output's own names for the temporary
    /// ones.
    std::string in_own_names(std::string message) const;

    /// Gives the files their names, both or none. The permissions are those of
    /// the files that are replaced, or of any newly created file.
    /// @throws ToolError  what stood under the names is then as before
    void commit();

private:
    void commit_pair();

    std::string path_;        // as the user named it
    std::string target_;      // links followed
    std::string bai_target_;  // the same of the index
    mode_t new_file_mode_;    // of a file that replaces none
    bool direct_ = false;     // a device or a FIFO
    int device_fd_ = -1;      // its descriptor, once asked for
    std::optional<TemporaryPath> temporary_;
    std::optional<TemporaryPath> bai_;       // empty where no index is wanted
    std::optional<TemporaryPath> bai_link_;  // leads there where its folder is another one
};

}  // namespace tesk::tool

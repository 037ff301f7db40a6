// Files that go away with their owner, and with the process when a signal ends
// it.

#pragma once

#include <csignal>
#include <string>

namespace tesk::tool {

/// Keeps signals waiting while it lives.
class SignalBlock {
public:
    SignalBlock();
    ~SignalBlock();
    SignalBlock(SignalBlock const&) = delete;
    SignalBlock& operator=(SignalBlock const&) = delete;

private:
    sigset_t before_;
};

/// A temporary file of this process. Signals that would end the process remove
/// it first, as long as their action is the default one.
class TemporaryPath {
public:
    /// Creates an empty file beside another one, its name ".<name>.tesk-XXXXXX".
    ///
    /// @throws ToolError  it cannot be created
    static TemporaryPath make_beside(std::string const& target);

    /// Creates an empty file of this very name, which must be free.
    static TemporaryPath make_file(std::string const& path);

    /// Creates a symbolic link of this very name, which must be free.
    static TemporaryPath make_link(std::string const& path, std::string const& target);

    TemporaryPath(TemporaryPath&& other) noexcept;
    TemporaryPath& operator=(TemporaryPath&&) = delete;
    TemporaryPath(TemporaryPath const&) = delete;
    TemporaryPath& operator=(TemporaryPath const&) = delete;

    /// Removes the file, unless it was renamed.
    ~TemporaryPath();

    std::string const& path() const { return path_; }

    /// Open for writing as long as this object lives; -1 for a link.
    int descriptor() const { return fd_; }

    /// Gives the file its final name, replacing what has it.
    /// @return  false, with errno set, where that fails
    bool rename_to(std::string const& target);

private:
    TemporaryPath(std::string path, int fd);

    std::string path_;  // empty once the file is no longer ours
    int fd_;
    int slot_;  // its place in the list that the signal handler works off
};

}  // namespace tesk::tool

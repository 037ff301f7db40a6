// What the tool is doing, shown on the terminal while it does it.

#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace tesk::tool {

/// One line on standard error, drawn anew five times a second and taken away at
/// the end.
///
/// Who reads piece by piece tells how far that is. Some calls of the library do
/// not: so a thread of this class watches from outside how far the process has
/// got in the file it reads, and how large the file is that it writes.
class Progress {
public:
    /// @param wanted  false: nothing is ever shown
    ///
    /// Nothing is shown either where standard error is no terminal.
    explicit Progress(bool wanted);
    ~Progress();
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    /// From now on: "reading <file>  37% (12.3 of 33.1 MB)"; of what has no size,
    /// such as a pipe, "reading <file>  12.3 MB" where advance() tells.
    /// @param path  "-" is standard input
    void reading(std::string const& path);

    /// Tells how many bytes have been read.
    void advance(std::uint64_t bytes_read) {
        bytes_read_.store(bytes_read, std::memory_order_relaxed);
    }

    /// From now on: "writing <file>  12.3 MB".
    /// @param path     the file as the user named it
    /// @param written  the file whose size counts
    void writing(std::string const& path, std::string const& written);

    /// From now on this text alone.
    void stage(std::string const& text);

    /// Takes the line away for good.
    void finish();

private:
    struct Stage {
        enum class Kind { TEXT, READING, WRITING } kind = Kind::TEXT;
        std::string text;       // what the line begins with
        std::string file;       // watched
        bool was_open = false;  // READING: the file has been seen open
    };

    void enter(Stage stage);
    void watch();
    void draw();
    std::string line_of(Stage& stage) const;

    std::atomic<std::uint64_t> bytes_read_{0};
    std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::optional<Stage> stage_;  // empty: nothing to show
    bool stop_ = false;
    std::thread watcher_;  // runs only where something is shown
};

}  // namespace tesk::tool

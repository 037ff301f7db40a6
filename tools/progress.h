// What the tool is doing, shown on the terminal while it does it.

#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace tesk::tool {

/// One line on standard error, drawn anew five times a second and taken away at
/// the end.
///
/// The library's calls do not say how far they are. So a thread of this class
/// watches from outside: how far the process has got in the file it reads, and
/// how large the file is that it writes. It looks at nothing else.
class Progress {
public:
    /// @param wanted  false: nothing is ever shown
    ///
    /// Nothing is shown either where standard error is no terminal.
    explicit Progress(bool wanted);
    ~Progress();
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    /// From now on: "reading <file>  37% (12.3 of 33.1 MB)".
    void reading(std::string const& path);

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
    static std::string line_of(Stage& stage);

    std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::optional<Stage> stage_;  // empty: nothing to show
    bool stop_ = false;
    std::thread watcher_;  // runs only where something is shown
};

}  // namespace tesk::tool

// Text on its way to an open file.

#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace tesk::tool {

/// Gathers text and hands it on in large pieces.
class TextSink {
public:
    /// @param fd    open for writing; stays open when the sink goes
    /// @param name  what messages call the file
    TextSink(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

    /// @throws ToolError  "cannot write to " + name + ": " + reason
    void write(std::string_view text);

    /// Hands on what is left, and has the system report what it put off;
    /// text of a sink that never finishes may be lost. Throws as write() does.
    void finish();

private:
    void flush();

    int fd_;
    std::string name_;
    std::string pending_;
};

/// Has the system report the errors of a file that it has put off.
/// @throws ToolError  "cannot write to " + name + ": " + reason
void check_delayed_errors(int fd, std::string const& name);

/// A sink on standard output.
TextSink standard_output();

}  // namespace tesk::tool

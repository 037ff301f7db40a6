// Running the command-line tool from tests, as its users run it.

#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/sanitized.h"
#include "tests/support/temp_file.h"

namespace tesk::test {

/// Path of the tool.
extern char const* const TOOL;

/// Runs the tool to its end.
ProcessResult run_tool(std::vector<std::string> arguments);

/// Runs `command` in bash; "$0" is the tool, "$1" and so on are the arguments.
ProcessResult run_shell(std::string const& command, std::vector<std::string> arguments = {});

/// Expects that a run succeeded, without a message.
void expect_done(ProcessResult const& result);

/// Expects that a run failed with this exit status and message, and printed no
/// result.
void expect_failure(ProcessResult const& result, int status, std::string const& message);

/// A message with a path for the word FILE.
std::string with_file(std::string message, std::string const& path);

using Names = std::vector<std::string>;

/// Names of all files in a folder, sorted: none may be left over.
Names names_in(std::filesystem::path const& folder);

/// Whether a temporary file of the tool is in a folder.
bool has_temporary(std::filesystem::path const& folder);

/// Removes them, after a signal that the tool cannot catch.
void remove_temporaries(std::filesystem::path const& folder);

/// What a BAM file holds, inflated.
std::string payload_of(std::string const& path);

/// A process that the test talks to while it runs; it is killed with its owner.
class Running {
public:
    /// @param with_tool  whether the tool is what is started, with these arguments
    explicit Running(std::vector<std::string> arguments, bool with_tool = true);
    ~Running();
    Running(Running const&) = delete;
    Running& operator=(Running const&) = delete;

    void send(int signal_number) const;

    /// Exit status, or the negated number of the signal that ended the process.
    int wait();

private:
    pid_t pid_ = 0;
};

/// Waits until a condition holds; false where it does not within a minute.
bool eventually(std::function<bool()> const& condition);

/// Runs the tool once to its end, then again and again, sending it signals at
/// random moments of the time that it took.
///
/// @param signals  sent in turn
/// @param before  called before each start
/// @param after   called after each of the later runs, with what Running::wait()
///                says and with the signal that was sent
void interrupt_at_random(std::vector<std::string> const& arguments, int n_runs,
                         std::vector<int> const& signals, std::function<void()> const& before,
                         std::function<void(int status, int signal_number)> const& after);

/// What a function prints when its standard error is a terminal.
std::string printed_on_terminal(std::function<void()> const& function);

/// What the tool prints there.
std::string tool_on_terminal(std::vector<std::string> arguments);

}  // namespace tesk::test

// Running other programs from tests.

#pragma once

#include <string>
#include <vector>

namespace tesk::test {

/// How a program ended and what it printed.
struct ProcessResult {
    int exit_status = -1;  // -1 when a signal ended it
    int signal = 0;        // that signal, or 0
    std::string output;    // standard output, all of it
    std::string errors;    // standard error, all of it
};

/// Runs a program found through PATH (or named by a path) to its end, without a
/// shell, standard input empty; throws std::runtime_error where it cannot be
/// started.
///
/// @param environment  variables, such as "LANG=C", that it has besides those of this
///                     process
ProcessResult run_process(std::vector<std::string> const& arguments,
                          std::vector<std::string> const& environment = {});

}  // namespace tesk::test

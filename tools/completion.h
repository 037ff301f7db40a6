// Completion of command lines in bash.

#pragma once

#include <string>

namespace CLI {
class App;
}

namespace tesk::tool {

/// A bash script that completes commands, options and their values, made of the
/// command line as it is defined: a value's type name tells what completes it.
std::string bash_completion(CLI::App const& app);

}  // namespace tesk::tool

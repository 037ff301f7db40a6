// The two ways in which a command ends early.

#pragma once

#include <stdexcept>

namespace tesk::tool {

/// The input or the output is at fault: exit status 1. what() is the message
/// without the tool's name.
class ToolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The command line asks for something that does not exist: exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace tesk::tool

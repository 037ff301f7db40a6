// Messages on standard error.

#pragma once

#include <string>
#include <string_view>

namespace tesk::tool {

/// Makes any text fit for one line on a terminal: control bytes other than tab
/// become \n, \r or \xNN. Messages quote what stands in files, so they may hold
/// anything. A text of more than 1,000 bytes loses its middle to "...".
std::string one_line(std::string_view text);

/// Prints "tesk-bam: " and the message as one line on standard error.
void print_message(std::string_view message);

/// The text "what: reason", the reason being that of errno.
std::string with_errno(std::string const& what);

}  // namespace tesk::tool

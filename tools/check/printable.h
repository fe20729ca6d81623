// Text from outside, made fit to be shown: whatever a file holds, a terminal is not to take it for
// a command.

#pragma once

#include <string>
#include <string_view>

namespace tools {

// The text with a question mark for each control character but the tab, and for each byte that is
// not UTF-8.
std::string Printable(std::string_view text);

// The text printable and in double quotes, for a message; a long one shortened.
std::string Quoted(std::string_view text);

}  // namespace tools

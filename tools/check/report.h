// How a configuration and what is found in it are written, for people and for programs.

#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tools/check/check.h"

namespace tools {

// The table of `checked` in aligned text, for a person who knows the camera but not the library.
// `file`: what the configuration is called.
void WriteTable(std::ostream& out, const std::string& file, const CheckedConfiguration& checked);

}  // namespace tools

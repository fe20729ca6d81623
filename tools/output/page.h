// The account as a page to look at: one file that takes nothing but a browser.

#pragma once

#include <ostream>
#include <string>

#include "tools/output/naming.h"

namespace tools {

// `title`: what was looked at, such as the capture's name. What had to be left out is said. Whether
// the stream took it all is for the caller to check.
void WritePage(std::ostream& out, const Account& account, const std::string& title,
               const Shown& shown);

}  // namespace tools

// The account as a page to look at: one file that takes nothing but a browser.

#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "tools/account/account.h"

namespace tools {

struct PageOptions {
    std::string title;  // What was looked at, such as the capture's name.
    // Frames to draw on top of those around the findings: the first and the last number.
    std::optional<std::pair<int64_t, int64_t>> frames;
};

// Short captures are drawn whole; of long ones the overview, and the moments of the worst findings.
// Stays below 2 MB, whatever the account holds: what had to be left out is said. Whether the stream
// took it all is for the caller to check.
void WritePage(std::ostream& out, const Account& account, const PageOptions& options);

}  // namespace tools

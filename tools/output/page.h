// The account as a page to look at: one file that takes nothing but a browser.

#pragma once

#include <ostream>
#include <string>

#include "tools/sched/scheduling.h"

namespace tools {

// `title`: what was looked at, such as the capture's name. Whether the stream took it all is for
// the caller to check. `scheduling`: null where there is no scheduler trace.
void WritePage(std::ostream& out, const Account& account, const std::string& title,
               const Scheduling* scheduling = nullptr);

}  // namespace tools

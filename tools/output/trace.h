// The account as a trace for ui.perfetto.dev and other viewers of Chrome's JSON trace format.

#pragma once

#include <ostream>

#include "tools/account/account.h"

namespace tools {

// Writes as it goes, in the order of time. A scene is a process with a track for findings, tracks
// for the frames as expected and as they were, and for each stage as many as overlap. Whether the
// stream took it all is for the caller to check.
void WriteTrace(std::ostream& out, const Account& account);

}  // namespace tools

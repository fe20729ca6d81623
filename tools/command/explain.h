// What explaining a capture and following one share.

#pragma once

#include <string>
#include <vector>

#include "tools/account/account.h"
#include "tools/command/command.h"
#include "tools/log/capture.h"

namespace tools {

// The exit status for what was found: the worst of it, and what the checker says of configurations.
int StatusOf(Severity worst, const std::vector<LoadedConfiguration>& configurations);

// Fails, with what may be the reason, where a capture has none of the library's lines. `names`:
// what messages call its inputs.
void RequireLibraryLines(const CaptureSummary& summary, const std::vector<std::string>& names);

// Explains standard input as it comes. Returns an exit status.
int Follow(const JudgeOptions& options);

}  // namespace tools

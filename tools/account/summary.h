// From facts, and what was read of the capture, to the whole account.

#pragma once

#include <string>
#include <vector>

#include "tools/account/facts.h"
#include "tools/account/judge.h"
#include "tools/log/capture.h"

namespace tools {

// All that there is to say of a capture that has been read to its end. `inputs`: what messages call
// them. Ends the facts.
Account MakeAccount(FactsMaker& facts, const CaptureSummary& summary,
                    std::vector<std::string> inputs, const JudgeOptions& options);

}  // namespace tools

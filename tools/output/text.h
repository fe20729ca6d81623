// The account as text for people.

#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "tools/account/account.h"

namespace tools {

struct TextOptions {
    bool showsAllFrames = false;  // In the table; else those that were not complete, or late.
    std::optional<std::pair<int64_t, int64_t>> frames;  // Those with these numbers instead.
};

// What was captured, the configuration, and for each scene findings, figures and frames. Whether
// the stream took it all is for the caller to check.
void WriteText(std::ostream& out, const Account& account, const TextOptions& options);

// Figures of both side by side, and the findings that came and went.
void WriteComparison(std::ostream& out, const Account& before, const Account& after);

// "file:line: severity: message [check-name]", with the moment in the scene where it is known.
// `scene`: null where the finding is about none.
std::string LineOf(const Account& account, const Scene* scene, const AccountedFinding& finding);

}  // namespace tools
